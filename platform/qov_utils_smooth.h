/* Smoothing entry points of the platform's smoothing library
 * (libqov_utils_smooth). Each takes a class record built by the library;
 * results are not read by the library. */
#ifndef QOV_UTILS_SMOOTH_H
#define QOV_UTILS_SMOOTH_H

#include <stdint.h>
#include "qov_utils_base.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef void *(*QOV_ENTRY_MEM_ALLOC)(uint32_t size);
typedef void (*QOV_ENTRY_MEM_FREE)(void *ptr);

QOV_PLAT_API uint32_t QOV_ENTRY_ProcVrfStateBegin(void *rec);
QOV_PLAT_API uint32_t QOV_ENTRY_ProcVrfStateEnd(void *rec, QOV_ENTRY_MEM_ALLOC memAlloc, QOV_ENTRY_MEM_FREE memFree);
QOV_PLAT_API uint32_t QOV_ENTRY_ProcVrfState(void *rec);
QOV_PLAT_API uint32_t QOV_ENTRY_ProcVrfDataBegin(void *rec);
QOV_PLAT_API uint32_t QOV_ENTRY_ProcVrfDataEnd(void *rec);
QOV_PLAT_API uint32_t QOV_ENTRY_ProcVrfDataBeginWithType(void *rec, uint32_t batchType);
QOV_PLAT_API uint32_t QOV_ENTRY_ProcVrfDataEndWithType(void *rec, uint32_t batchType);
QOV_PLAT_API uint32_t QOV_ENTRY_ProcPidState(void *rec);
QOV_PLAT_API uint32_t QOV_ENTRY_ProcLrDataBegin(void *rec);
QOV_PLAT_API uint32_t QOV_ENTRY_ProcLrDataEnd(void *rec);
QOV_PLAT_API uint32_t QOV_ENTRY_ProcLrDataBeginWithType(void *rec, uint32_t batchType);
QOV_PLAT_API uint32_t QOV_ENTRY_ProcLrDataEndWithType(void *rec, uint32_t batchType);

#ifdef __cplusplus
}
#endif

#endif
