/* The examples' memory pool: blocks in a list behind one lock, counted. */
#include "qov_mem_pool.h"

#include <pthread.h>
#include <stdatomic.h>
#include <stdlib.h>

typedef struct Block {
    struct Block *prev, *next;
    uint64_t size, pad; /* keeps the caller's block 16-aligned */
} Block;

static Block g_pool = {&g_pool, &g_pool, 0, 0};
static pthread_mutex_t g_poolLock = PTHREAD_MUTEX_INITIALIZER;
static _Atomic uint64_t g_liveBytes, g_peakBytes;

void *QovPoolAlloc(uint32_t size) {
    Block *b = malloc(sizeof(Block) + size);
    if (b == NULL) return NULL;
    b->size = size;
    pthread_mutex_lock(&g_poolLock);
    b->prev = &g_pool, b->next = g_pool.next;
    g_pool.next->prev = b, g_pool.next = b;
    pthread_mutex_unlock(&g_poolLock);
    uint64_t live = atomic_fetch_add(&g_liveBytes, size) + size, peak = atomic_load(&g_peakBytes);
    while (live > peak && !atomic_compare_exchange_weak(&g_peakBytes, &peak, live)) {
    }
    return b + 1;
}

void QovPoolFree(void *ptr) {
    if (ptr == NULL) return;
    Block *b = (Block *)ptr - 1;
    pthread_mutex_lock(&g_poolLock);
    b->prev->next = b->next, b->next->prev = b->prev;
    pthread_mutex_unlock(&g_poolLock);
    atomic_fetch_sub(&g_liveBytes, b->size);
    free(b);
}

uint64_t QovPoolLiveBytes(void) { return atomic_load(&g_liveBytes); }

uint64_t QovPoolPeakBytes(void) { return atomic_load(&g_peakBytes); }

uint32_t QovPoolRelease(void) {
    uint32_t n = 0;
    for (;;) {
        pthread_mutex_lock(&g_poolLock);
        Block *b = g_pool.next;
        pthread_mutex_unlock(&g_poolLock);
        if (b == &g_pool) return n;
        QovPoolFree(b + 1);
        ++n;
    }
}
