// The counting allocator with its live blocks known, for suites that destroy
// a registered instance: the table-message registry keeps its table and node
// block past ASOrchDestroy by design, and FreeKept gives those back.
#ifndef QOV_TEST_KEPT_ALLOC_H
#define QOV_TEST_KEPT_ALLOC_H

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <set>

#include "support/test_alloc.h"

namespace qovtest {

constexpr size_t kRegistryKept = 2;

struct KeptBlocks {
    std::mutex mu;
    std::set<void *> live;
};
inline KeptBlocks &Kept() {
    static KeptBlocks k;
    return k;
}
inline void *KeptAlloc(uint32_t n) {
    void *p = TestAlloc(n);
    std::lock_guard<std::mutex> lk(Kept().mu);
    if (p != nullptr) Kept().live.insert(p);
    return p;
}
inline void KeptFree(void *p) {
    {
        std::lock_guard<std::mutex> lk(Kept().mu);
        Kept().live.erase(p);
    }
    TestFree(p);
}
// Frees what is still live; returns how many blocks that was.
inline size_t FreeKept() {
    std::set<void *> kept;
    {
        std::lock_guard<std::mutex> lk(Kept().mu);
        kept.swap(Kept().live);
    }
    for (void *p : kept) TestFree(p);
    return kept.size();
}

}  // namespace qovtest

#endif
