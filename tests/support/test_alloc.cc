#include "support/test_alloc.h"

#include <atomic>
#include <cstdlib>
#include <mutex>

#include "qov_host_ctl.h"

namespace qovtest {
namespace {

constexpr uint64_t kLive = 0x51A11C0CA7ED0001ull;
constexpr uint64_t kDead = 0xDEADF4EEDEADF4EEull;

struct alignas(16) Header {
    uint64_t magic;
    uint64_t size;
};

std::atomic<uint64_t> g_allocs{0};
std::atomic<int64_t> g_outstanding{0};
std::atomic<uint64_t> g_badFrees{0};
std::atomic<uint64_t> g_failAt{0};
std::mutex g_liveMu;
std::map<void *, size_t> g_live;

}  // namespace

void *TestAlloc(uint32_t size) {
    uint64_t n = ++g_allocs;
    if (n == g_failAt.load()) return nullptr;
    auto *h = static_cast<Header *>(std::malloc(sizeof(Header) + size));
    if (h == nullptr) return nullptr;
    h->magic = kLive;
    h->size = size;
    ++g_outstanding;
    const size_t stamp = QovHostLogCount();
    std::lock_guard<std::mutex> lk(g_liveMu);
    g_live[h + 1] = stamp;
    return h + 1;
}

void TestFree(void *ptr) {
    if (ptr == nullptr) {
        ++g_badFrees;
        return;
    }
    Header *h = static_cast<Header *>(ptr) - 1;
    if (h->magic != kLive) {
        ++g_badFrees;
        return;
    }
    h->magic = kDead;
    {
        std::lock_guard<std::mutex> lk(g_liveMu);
        g_live.erase(ptr);
    }
    --g_outstanding;
    std::free(h);
}

void AllocReset() {
    g_allocs = 0;
    g_outstanding = 0;
    g_badFrees = 0;
    g_failAt = 0;
    std::lock_guard<std::mutex> lk(g_liveMu);
    g_live.clear();
}

void AllocFailAt(uint64_t k) { g_failAt = k; }
uint64_t AllocCount() { return g_allocs.load(); }
int64_t AllocOutstanding() { return g_outstanding.load(); }
uint64_t AllocBadFrees() { return g_badFrees.load(); }

std::map<void *, size_t> LiveBlocks() {
    std::lock_guard<std::mutex> lk(g_liveMu);
    return g_live;
}

size_t FreeLive() {
    std::map<void *, size_t> live = LiveBlocks();
    for (const auto &block : live) TestFree(block.first);
    return live.size();
}

}  // namespace qovtest
