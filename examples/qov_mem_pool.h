/* The examples' memory functions for the library (ASOrchCreatePara's memAlloc
 * and memFree): a pool of the process's own. Every block is counted, so the
 * live and peak bytes can be shown, and linked, so that what the library keeps
 * for a handle's whole life (the table-message registry, which it never gives
 * back) is taken back when the process ends. Any thread may call them. */
#ifndef QOV_MEM_POOL_H
#define QOV_MEM_POOL_H

#include <stdint.h>

void *QovPoolAlloc(uint32_t size);
void QovPoolFree(void *ptr);
uint64_t QovPoolLiveBytes(void);
uint64_t QovPoolPeakBytes(void);
/* Frees every block still in the pool; the number of blocks. */
uint32_t QovPoolRelease(void);

#endif
