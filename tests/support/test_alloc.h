// A counting allocator for the library's memAlloc/memFree that can fail the
// k-th allocation and tells which blocks are still outstanding.
#ifndef QOV_TEST_ALLOC_H
#define QOV_TEST_ALLOC_H

#include <cstdint>

namespace qovtest {

void *TestAlloc(uint32_t size);
void TestFree(void *ptr);

// Forgets the counts; the next allocation is number 1.
void AllocReset();
// Fails allocation number k counted from the last reset (0: none).
void AllocFailAt(uint64_t k);
// Fails every allocation from number k on (0: none).
void AllocFailFrom(uint64_t k);
uint64_t AllocCount();       // allocations attempted since the reset
uint64_t FreeCount();        // successful frees since the reset
int64_t AllocOutstanding();  // blocks allocated and not freed since the reset
uint64_t AllocBadFrees();    // frees of null, unknown or already freed blocks

}  // namespace qovtest

#endif
