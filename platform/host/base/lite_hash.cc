// Keyed hash table of fixed-size elements that the table allocates itself.
//
// Each element sits behind a small header: the index node (its first word is
// the element), the bucket chain link, the element's bucket and a linked flag.
// Elements are carved from slabs and recycled through a free list, so a new
// element costs at most one allocation and usually none; released elements
// stay with the table until it is deleted. Bucket chains are singly linked
// and a new element goes to the head of its chain. The bucket index is the
// hash value modulo the bucket count, computed with a precomputed reciprocal.
//
// The table's lock is a spin-then-yield lock on one atomic word: the table's
// critical sections are a handful of pointer operations and nearly always
// uncontended, where a full mutex would double the cost of every call.
#include <sched.h>

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
    uint32_t bucket;
    uint32_t linked;
};
static_assert(sizeof(ElemHdr) % 8 == 0, "elements behind the header stay 8-aligned");
static_assert(offsetof(ElemHdr, node) == 0, "the index node is the element header's first word");

struct Slab {
    Slab *next;
    uint32_t count;
};

constexpr size_t kSlabHdr = (sizeof(Slab) + 7) & ~size_t{7};  // elements follow, 8-aligned
constexpr uint32_t kFirstSlabElems = 16;
constexpr uint32_t kMaxSlabElems = 4096;

class SpinLock {
public:
    void Lock() {
        for (uint32_t spins = 0; word_.exchange(1, std::memory_order_acquire) != 0;) {
            while (word_.load(std::memory_order_relaxed) != 0) {
                if (++spins > 64) sched_yield();
            }
        }
    }
    void Unlock() { word_.store(0, std::memory_order_release); }

private:
    std::atomic<uint32_t> word_{0};
};

class Guard {
public:
    explicit Guard(SpinLock &l) : l_(l) { l_.Lock(); }
    ~Guard() { l_.Unlock(); }
    Guard(const Guard &) = delete;
    Guard &operator=(const Guard &) = delete;

private:
    SpinLock &l_;
};

}  // namespace

struct LITE_HASH {
    SpinLock lock;
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
inline uint32_t BucketOf(const LITE_HASH_S *h, const void *key) {
    uint64_t low = h->modMagic * h->hashFunc(key);
    return static_cast<uint32_t>((static_cast<__uint128_t>(low) * h->bucketNum) >> 64);
}

inline void *ElemOf(ElemHdr *hdr) { return hdr + 1; }
inline ElemHdr *HdrOf(void *elem) { return static_cast<ElemHdr *>(elem) - 1; }

// The link that points at the first element of bucket b equal to key, or null.
ElemHdr **FindLink(LITE_HASH_S *h, uint32_t b, const void *key) {
    for (ElemHdr **link = &h->buckets[b]; *link != nullptr; link = &(*link)->next) {
        if (h->cmpFunc(ElemOf(*link), key) != 0) return link;
    }
    return nullptr;
}

void Unlink(LITE_HASH_S *h, ElemHdr *hdr) {
    for (ElemHdr **link = &h->buckets[hdr->bucket]; *link != nullptr; link = &(*link)->next) {
        if (*link != hdr) continue;
        *link = hdr->next;
        hdr->linked = 0;
        h->count--;
        return;
    }
}

bool GrowSlab(LITE_HASH_S *h) {
    uint32_t n = h->nextSlabElems;
    auto *slab = static_cast<Slab *>(std::malloc(kSlabHdr + static_cast<size_t>(n) * h->stride));
    if (slab == nullptr) return false;
    slab->next = h->slabs;
    slab->count = n;
    h->slabs = slab;
    h->carve = reinterpret_cast<uint8_t *>(slab) + kSlabHdr;
    h->carveLeft = n;
    if (n < kMaxSlabElems) h->nextSlabElems = n * 2;
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
    auto **buckets = static_cast<ElemHdr **>(std::calloc(bucketNum, sizeof(ElemHdr *)));
    if (buckets == nullptr) return nullptr;
    auto *h = new (std::nothrow) LITE_HASH;
    if (h == nullptr) {
        std::free(buckets);
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
        std::free(s);
    }
    std::free(h->buckets);
    delete h;
    *hash = nullptr;
}

QOV_PLAT_API void *LITE_HASH_NewData(LITE_HASH_S *hash, uint32_t flags) {
    (void)flags;
    int64_t r = 0;
    if (hash == nullptr || qovhost::Fail("LITE_HASH_NewData", &r)) return nullptr;
    ElemHdr *hdr;
    {
        Guard g(hash->lock);
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
    Guard g(hash->lock);
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
    uint32_t b = BucketOf(hash, key);
    Guard g(hash->lock);
    hdr->bucket = b;
    hdr->linked = 1;
    hdr->next = hash->buckets[b];
    hash->buckets[b] = hdr;
    hash->count++;
    return 0;
}

QOV_PLAT_API LITE_HASH_NODE_S *LITE_HASH_FindNodeFromFirst(LITE_HASH_S *hash, const void *key) {
    if (hash == nullptr || key == nullptr) return nullptr;
    uint32_t b = BucketOf(hash, key);
    Guard g(hash->lock);
    ElemHdr **link = FindLink(hash, b, key);
    return link == nullptr ? nullptr : &(*link)->node;
}

QOV_PLAT_API void *LITE_HASH_RemoveNodeByKey(LITE_HASH_S *hash, const void *key) {
    int64_t r = 0;
    if (qovhost::Fail("LITE_HASH_RemoveNodeByKey", &r)) return nullptr;
    if (hash == nullptr || key == nullptr) return nullptr;
    uint32_t b = BucketOf(hash, key);
    Guard g(hash->lock);
    ElemHdr **link = FindLink(hash, b, key);
    if (link == nullptr) return nullptr;
    ElemHdr *hdr = *link;
    *link = hdr->next;
    hdr->linked = 0;
    hash->count--;
    return ElemOf(hdr);
}

QOV_PLAT_API int32_t LITE_HASH_GetListCntByKey(LITE_HASH_S *hash, const void *key) {
    if (hash == nullptr || key == nullptr) return 0;
    uint32_t b = BucketOf(hash, key);
    Guard g(hash->lock);
    int32_t n = 0;
    for (ElemHdr *e = hash->buckets[b]; e != nullptr; e = e->next) n++;
    return n;
}

QOV_PLAT_API int32_t LITE_HASH_GetHashCnt(LITE_HASH_S *hash) {
    if (hash == nullptr) return 0;
    Guard g(hash->lock);
    return hash->count;
}

}  // extern "C"
