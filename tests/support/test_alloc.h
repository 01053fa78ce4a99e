// A counting allocator for the library's memAlloc/memFree that can fail the
// k-th allocation and tells which blocks are still outstanding.
#ifndef QOV_TEST_ALLOC_H
#define QOV_TEST_ALLOC_H

#include <cstddef>
#include <cstdint>
#include <map>

namespace qovtest {

void *TestAlloc(uint32_t size);
void TestFree(void *ptr);

// Forgets the counts; the next allocation is number 1.
void AllocReset();
// Fails allocation number k counted from the last reset (0: none).
void AllocFailAt(uint64_t k);
uint64_t AllocCount();       // allocations attempted since the reset
int64_t AllocOutstanding();  // blocks allocated and not freed since the reset
uint64_t AllocBadFrees();    // frees of null, unknown or already freed blocks

// The blocks taken since the reset and not freed, each with the number of log
// lines written before it was taken.
std::map<void *, size_t> LiveBlocks();
// Frees every live block; returns how many that was. The table-message
// registry keeps its table and node block past ASOrchDestroy by design
// (kRegistryKept per registered instance); suites give those back here.
size_t FreeLive();
constexpr size_t kRegistryKept = 2;

}  // namespace qovtest

#endif
