// Keyed hash table of fixed-size elements that the table allocates itself.
//
// Each element sits behind a small header: the index node (its first word is
// the element), the bucket chain link, the element's hash value and a linked
// flag. Elements are carved from slabs and recycled through a free list, so a
// new element costs at most one allocation and usually none; released
// elements stay with the table until it is deleted. Bucket chains are singly
// linked and a new element goes to the head of its chain; a chain is walked
// comparing hash values first, so the compare function runs only on likely
// matches. The bucket index is the hash value modulo the bucket count,
// computed with a precomputed reciprocal. Large blocks (big bucket arrays and
// slabs) are 2 MiB aligned and offered to the kernel for huge pages, which
// keeps random access to a big table from missing the TLB on every lookup.
//
// The table's lock (TableLock below) costs its usual thread no atomic
// read-modify-write: a fenced lock per call would serialise the memory
// accesses of successive calls, which dominate the cost of a big table.
#include <sched.h>
#include <linux/membarrier.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>

#include "host_internal.h"

namespace {

struct ElemHdr {
    LITE_HASH_NODE_S node;  // node.data points at the element, just behind this header
    ElemHdr *next;          // bucket chain, or free list
    uint32_t hash;
    uint32_t linked;
};
static_assert(sizeof(ElemHdr) % 8 == 0, "elements behind the header stay 8-aligned");
static_assert(offsetof(ElemHdr, node) == 0, "the index node is the element header's first word");

struct Slab {
    Slab *next;
    size_t bytes;
};

constexpr size_t kSlabHdr = (sizeof(Slab) + 7) & ~size_t{7};  // elements follow, 8-aligned
constexpr uint32_t kFirstSlabElems = 16;
constexpr size_t kHugePage = size_t{2} << 20;
constexpr size_t kMaxSlabBytes = 4 * kHugePage;

// A block of at least size bytes. Blocks of a huge page or more are mapped
// afresh, huge-page aligned and advised so (memory recycled by malloc would
// keep the small pages it was first touched with).
void *BlockAlloc(size_t size) {
    if (size < kHugePage) return std::malloc(size);
    size = (size + kHugePage - 1) & ~(kHugePage - 1);
    size_t span = size + kHugePage;
    void *raw = mmap(nullptr, span, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (raw == MAP_FAILED) return nullptr;
    auto base = reinterpret_cast<uintptr_t>(raw);
    uintptr_t start = (base + kHugePage - 1) & ~(kHugePage - 1);
    if (start != base) munmap(raw, start - base);
    if (base + span != start + size) munmap(reinterpret_cast<void *>(start + size), base + span - start - size);
    (void)madvise(reinterpret_cast<void *>(start), size, MADV_HUGEPAGE);
    return reinterpret_cast<void *>(start);
}

void BlockFree(void *block, size_t size) {
    if (size < kHugePage) {
        std::free(block);
    } else {
        munmap(block, (size + kHugePage - 1) & ~(kHugePage - 1));
    }
}

bool AsymmetricFenceReady() {
    static const bool ready = syscall(__NR_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0) == 0;
    return ready;
}

// Makes every running thread of the process pass a full memory barrier.
void HeavyFence() { (void)syscall(__NR_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0); }

void Backoff(uint32_t &spins) {
    if (++spins > 64) sched_yield();
}

thread_local uint8_t t_self __attribute__((tls_model("initial-exec")));

// The table's lock, biased to the thread that first changes the table (the
// queue's writer and reader): that thread takes it with plain stores and no
// hardware fence, so it keeps overlapping the memory accesses of successive
// calls. Any other thread takes it the slow way: it announces itself and
// forces a barrier on the owner with membarrier(2) before it checks whether
// the owner is inside (Dekker's exclusion with an asymmetric fence). Without
// membarrier nobody becomes owner and every thread takes the slow way.
class TableLock {
public:
    // claim: the caller changes the table and may become its owner.
    void Lock(bool claim) {
        const void *self = &t_self;
        const void *owner = owner_.load(std::memory_order_seq_cst);
        bool claimed = false;
        if (owner == nullptr && claim && AsymmetricFenceReady() &&
            owner_.compare_exchange_strong(owner, self, std::memory_order_seq_cst)) {
            owner = self;
            claimed = true;
        }
        if (owner == self) {
            OwnerLock(claimed);
        } else {
            OtherLock();
        }
    }
    void Unlock() {
        if (owner_.load(std::memory_order_relaxed) == &t_self) {
            ownerBusy_.store(0, std::memory_order_release);
            return;
        }
        otherWant_.store(0, std::memory_order_release);
        others_.store(0, std::memory_order_release);
    }

private:
    // A thread that saw no owner yet did not fence the owner, so the lock that
    // makes a thread the owner fences itself.
    void OwnerLock(bool fence) {
        for (uint32_t spins = 0;;) {
            ownerBusy_.store(1, std::memory_order_relaxed);
            if (fence) {
                std::atomic_thread_fence(std::memory_order_seq_cst);
            } else {
                std::atomic_signal_fence(std::memory_order_seq_cst);  // the other side's HeavyFence orders this
            }
            if (otherWant_.load(std::memory_order_acquire) == 0) return;
            ownerBusy_.store(0, std::memory_order_release);
            while (otherWant_.load(std::memory_order_acquire) != 0) Backoff(spins);
        }
    }
    void OtherLock() {
        for (uint32_t spins = 0; others_.exchange(1, std::memory_order_acquire) != 0;) {
            while (others_.load(std::memory_order_relaxed) != 0) Backoff(spins);
        }
        otherWant_.store(1, std::memory_order_seq_cst);
        if (owner_.load(std::memory_order_seq_cst) != nullptr) HeavyFence();
        for (uint32_t spins = 0; ownerBusy_.load(std::memory_order_seq_cst) != 0;) Backoff(spins);
    }

    std::atomic<const void *> owner_{nullptr};
    std::atomic<uint32_t> ownerBusy_{0};  // 1 while the owner is inside
    std::atomic<uint32_t> otherWant_{0};  // 1 while another thread is inside or waiting
    std::atomic<uint32_t> others_{0};     // excludes the other threads among themselves
};

class Guard {
public:
    Guard(TableLock &l, bool claim) : l_(l) { l_.Lock(claim); }
    ~Guard() { l_.Unlock(); }
    Guard(const Guard &) = delete;
    Guard &operator=(const Guard &) = delete;

private:
    TableLock &l_;
};

}  // namespace

struct LITE_HASH {
    TableLock lock;
    ElemHdr **buckets;
    uint32_t bucketNum;
    uint64_t modMagic;  // ceil(2^64 / bucketNum), for a division-free modulo
    uint32_t stride;    // header + element, rounded to 8 bytes
    uint32_t elemSize;
    int32_t count;      // linked elements
    LITE_HASH_KEY_FUNC hashFunc;
    LITE_HASH_CMP_FUNC cmpFunc;
    ElemHdr *freeList;
    Slab *slabs;
    uint8_t *carve;     // next unused element of the newest slab
    uint32_t carveLeft;
    uint32_t nextSlabElems;
};

namespace {

// hash % bucketNum for any 32-bit hash (Lemire's fastmod).
inline uint32_t BucketOf(const LITE_HASH_S *h, uint32_t hash) {
    uint64_t low = h->modMagic * hash;
    return static_cast<uint32_t>((static_cast<__uint128_t>(low) * h->bucketNum) >> 64);
}

inline void *ElemOf(ElemHdr *hdr) { return hdr + 1; }
inline ElemHdr *HdrOf(void *elem) { return static_cast<ElemHdr *>(elem) - 1; }

// The link that points at the first element equal to key in its bucket, or null.
ElemHdr **FindLink(LITE_HASH_S *h, uint32_t hash, const void *key) {
    for (ElemHdr **link = &h->buckets[BucketOf(h, hash)]; *link != nullptr; link = &(*link)->next) {
        if ((*link)->hash == hash && h->cmpFunc(ElemOf(*link), key) != 0) return link;
    }
    return nullptr;
}

void Unlink(LITE_HASH_S *h, ElemHdr *hdr) {
    for (ElemHdr **link = &h->buckets[BucketOf(h, hdr->hash)]; *link != nullptr; link = &(*link)->next) {
        if (*link != hdr) continue;
        *link = hdr->next;
        hdr->linked = 0;
        h->count--;
        return;
    }
}

bool GrowSlab(LITE_HASH_S *h) {
    uint32_t n = h->nextSlabElems;
    size_t bytes = kSlabHdr + static_cast<size_t>(n) * h->stride;
    auto *slab = static_cast<Slab *>(BlockAlloc(bytes));
    if (slab == nullptr) return false;
    slab->next = h->slabs;
    slab->bytes = bytes;
    h->slabs = slab;
    h->carve = reinterpret_cast<uint8_t *>(slab) + kSlabHdr;
    h->carveLeft = n;
    if (kSlabHdr + uint64_t{n} * 2 * h->stride <= kMaxSlabBytes) h->nextSlabElems = n * 2;
    return true;
}

ElemHdr *TakeElem(LITE_HASH_S *h) {
    if (ElemHdr *hdr = h->freeList; hdr != nullptr) {
        h->freeList = hdr->next;
        return hdr;
    }
    if (h->carveLeft == 0 && !GrowSlab(h)) return nullptr;
    auto *hdr = reinterpret_cast<ElemHdr *>(h->carve);
    h->carve += h->stride;
    h->carveLeft--;
    return hdr;
}

}  // namespace

extern "C" {

QOV_PLAT_API LITE_HASH_S *LITE_HASH_CreateWithLock(uint32_t memPtNo, uint16_t elemSize, uint32_t bucketNum,
                                                   LITE_HASH_KEY_FUNC hashFunc, LITE_HASH_CMP_FUNC cmpFunc,
                                                   uint32_t flags) {
    (void)memPtNo;  // the host has one memory partition
    (void)flags;
    int64_t r = 0;
    if (qovhost::Fail("LITE_HASH_CreateWithLock", &r)) return nullptr;
    if (bucketNum == 0 || hashFunc == nullptr || cmpFunc == nullptr) return nullptr;
    size_t bucketBytes = size_t{bucketNum} * sizeof(ElemHdr *);
    auto **buckets = static_cast<ElemHdr **>(BlockAlloc(bucketBytes));
    if (buckets == nullptr) return nullptr;
    std::memset(buckets, 0, bucketBytes);
    auto *h = new (std::nothrow) LITE_HASH;
    if (h == nullptr) {
        BlockFree(buckets, bucketBytes);
        return nullptr;
    }
    h->buckets = buckets;
    h->bucketNum = bucketNum;
    h->modMagic = UINT64_MAX / bucketNum + 1;
    h->elemSize = elemSize;
    h->stride = static_cast<uint32_t>((sizeof(ElemHdr) + elemSize + 7) & ~size_t{7});
    h->count = 0;
    h->hashFunc = hashFunc;
    h->cmpFunc = cmpFunc;
    h->freeList = nullptr;
    h->slabs = nullptr;
    h->carve = nullptr;
    h->carveLeft = 0;
    h->nextSlabElems = kFirstSlabElems;
    return h;
}

// Releases the table with every element still in it (elements live in the slabs).
QOV_PLAT_API void LITE_HASH_DeleteHash(LITE_HASH_S **hash) {
    if (hash == nullptr || *hash == nullptr) return;
    LITE_HASH_S *h = *hash;
    for (Slab *s = h->slabs, *next; s != nullptr; s = next) {
        next = s->next;
        BlockFree(s, s->bytes);
    }
    BlockFree(h->buckets, size_t{h->bucketNum} * sizeof(ElemHdr *));
    delete h;
    *hash = nullptr;
}

QOV_PLAT_API void *LITE_HASH_NewData(LITE_HASH_S *hash, uint32_t flags) {
    (void)flags;
    int64_t r = 0;
    if (hash == nullptr || qovhost::Fail("LITE_HASH_NewData", &r)) return nullptr;
    ElemHdr *hdr;
    {
        Guard g(hash->lock, true);
        hdr = TakeElem(hash);
    }
    if (hdr == nullptr) return nullptr;
    hdr->next = nullptr;
    hdr->linked = 0;
    hdr->node.data = ElemOf(hdr);
    return hdr->node.data;
}

// An element that is still linked is unlinked first, so a caller that failed
// to remove it cannot leave a released element in a chain.
QOV_PLAT_API void LITE_HASH_FreeData(LITE_HASH_S *hash, void *element) {
    if (hash == nullptr || element == nullptr) return;
    ElemHdr *hdr = HdrOf(element);
    Guard g(hash->lock, true);
    if (hdr->linked != 0) Unlink(hash, hdr);
    hdr->next = hash->freeList;
    hash->freeList = hdr;
}

QOV_PLAT_API uint32_t LITE_HASH_AddNode(LITE_HASH_S *hash, const void *key, void *element, uint32_t flags) {
    (void)flags;
    int64_t r = 0;
    if (qovhost::Fail("LITE_HASH_AddNode", &r)) return r == 0 ? 1u : static_cast<uint32_t>(r);
    if (hash == nullptr || key == nullptr || element == nullptr) return 1;
    ElemHdr *hdr = HdrOf(element);
    if (hdr->linked != 0) return 1;
    hdr->hash = hash->hashFunc(key);
    uint32_t b = BucketOf(hash, hdr->hash);
    Guard g(hash->lock, true);
    hdr->linked = 1;
    hdr->next = hash->buckets[b];
    hash->buckets[b] = hdr;
    hash->count++;
    return 0;
}

QOV_PLAT_API LITE_HASH_NODE_S *LITE_HASH_FindNodeFromFirst(LITE_HASH_S *hash, const void *key) {
    if (hash == nullptr || key == nullptr) return nullptr;
    uint32_t hv = hash->hashFunc(key);
    Guard g(hash->lock, true);
    ElemHdr **link = FindLink(hash, hv, key);
    return link == nullptr ? nullptr : &(*link)->node;
}

QOV_PLAT_API void *LITE_HASH_RemoveNodeByKey(LITE_HASH_S *hash, const void *key) {
    int64_t r = 0;
    if (qovhost::Fail("LITE_HASH_RemoveNodeByKey", &r)) return nullptr;
    if (hash == nullptr || key == nullptr) return nullptr;
    uint32_t hv = hash->hashFunc(key);
    Guard g(hash->lock, true);
    ElemHdr **link = FindLink(hash, hv, key);
    if (link == nullptr) return nullptr;
    ElemHdr *hdr = *link;
    *link = hdr->next;
    hdr->linked = 0;
    hash->count--;
    return ElemOf(hdr);
}

QOV_PLAT_API int32_t LITE_HASH_GetListCntByKey(LITE_HASH_S *hash, const void *key) {
    if (hash == nullptr || key == nullptr) return 0;
    uint32_t b = BucketOf(hash, hash->hashFunc(key));
    Guard g(hash->lock, false);
    int32_t n = 0;
    for (ElemHdr *e = hash->buckets[b]; e != nullptr; e = e->next) n++;
    return n;
}

QOV_PLAT_API int32_t LITE_HASH_GetHashCnt(LITE_HASH_S *hash) {
    if (hash == nullptr) return 0;
    Guard g(hash->lock, false);
    return hash->count;
}

}  // extern "C"
