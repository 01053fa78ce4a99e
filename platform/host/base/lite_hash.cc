// Keyed hash table of fixed-size elements that the table allocates itself.
//
// Index: open addressing with linear probing over a power-of-two array of
// slots. A slot holds the element pointer beside the element's full hash
// value, so a probe rejects a non-matching slot without touching its element
// and a match costs one memory access for the element itself. The index node
// handed to callers sits in the element's header, beside the element, so it
// stays valid while the element is linked whatever else changes. The home
// slot comes from a remix of the caller's hash, since a caller's hash may
// vary only in a few bits. Removal
// shifts the rest of the probe run back (no tombstones), and the slot array
// doubles before it is 5/8 full, so probe runs stay short.
//
// Buckets: the caller's bucket count only defines which elements count as one
// bucket (hash modulo bucket count); a count per bucket is kept up to date so
// the per-bucket count query costs one look-up.
//
// Elements sit behind a 16-byte header (index node, hash value, bucket) and
// are carved from slabs at a stride chosen so that an element touches no more
// cache lines than its size requires; released elements are recycled through
// a free list, so a new element costs at most one allocation and usually
// none.
//
// Sizing: the caller's bucket count is its bound. The slot array is made for
// that many elements at creation; slabs hold 1/32 of it each, so the
// capacity beyond what is used stays below one slab. When the last element
// is released, slabs (and slots grown beyond the first array) go back to the
// system down to what the last two fills needed (the larger of the previous
// fill's peak and a quarter of this one's, one slab at least), so a load that
// fills and drains the same way again does not allocate again.
//
// An element knows its hash: a removal by a key that lies inside a linked
// element equal to it (the merge queue passes the entry's own key) needs no
// hash call, and the slot is found by the element's address from its home
// slot.
//
// The table's lock (TableLock below) costs its usual thread no atomic
// read-modify-write; any other thread takes a slow path kept out of line.
#include <sched.h>
#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>

#include "host_internal.h"

namespace {

struct ElemHdr {
    LITE_HASH_NODE_S node;  // node.data is the element, just behind this header
    uint32_t hash;
    uint32_t bucket1;  // the element's bucket + 1 while it is linked, 0 while not
};
static_assert(sizeof(ElemHdr) == 16, "elements behind the header stay 16-aligned");

struct Slot {
    LITE_HASH_NODE_S node;  // node.data is the element, null for a free slot
    uint32_t hash;
    uint32_t pad;
};
static_assert(offsetof(Slot, node) == 0 && sizeof(Slot) == 16, "four slots to a cache line");

constexpr size_t kLine = 64;
constexpr uint32_t kMinSlabElems = 16;
constexpr uint32_t kMaxSlabElems = 16384;
// A slab's bytes fit 32 bits whatever the element size (a 16-bit quantity,
// plus the header and the stride's rounding), so offsets inside it do too.
static_assert(uint64_t{kMaxSlabElems} * (UINT16_MAX + 16 + 64) < (uint64_t{1} << 32));
constexpr uint32_t kMinSlots = 16;
constexpr uint32_t kMaxFirstSlots = uint32_t{1} << 20;

// A block of at least size bytes, cache-line aligned. Huge pages are not
// asked for: on this kind of virtual machine they made the 64 k-key merge
// bench slower and its results vary from run to run (22-24 ns per merge
// with small pages, 24-78 ns with huge ones), and gained nothing at 1 M keys.
void *BlockAlloc(size_t size) { return std::aligned_alloc(kLine, (size + kLine - 1) & ~(kLine - 1)); }

void BlockFree(void *block) { std::free(block); }

// A zero-filled block.
void *BlockZalloc(size_t size) {
    void *b = BlockAlloc(size);
    if (b != nullptr) std::memset(b, 0, size);
    return b;
}

// The smallest stride (a multiple of 8, at least size) at which no element of
// a line-aligned slab touches more cache lines than its size needs.
uint32_t StrideFor(uint32_t size) {
    uint32_t lines = (size + kLine - 1) / kLine;
    for (uint32_t stride = (size + 7) & ~7u;; stride += 8) {
        bool fits = true;
        for (uint32_t k = 0; k < kLine && fits; ++k) fits = (size_t{k} * stride) % kLine + size <= lines * kLine;
        if (fits) return stride;
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

// The calling thread's identity: the address of its thread control block,
// one instruction away on x86-64, and read afresh at each use so that no
// register is kept for it across calls.
inline const void *Self() {
#if defined(__x86_64__)
    const void *tp;
    asm volatile("mov %%fs:0, %0" : "=r"(tp));
    return tp;
#elif __has_builtin(__builtin_thread_pointer)
    return __builtin_thread_pointer();
#else
    static thread_local uint8_t self __attribute__((tls_model("initial-exec")));
    return &self;
#endif
}

// The table's lock, biased to the thread that first changes the table (the
// queue's writer and reader). That thread, the owner, enters with a plain
// store of ownerBusy_ and a plain load of otherWant_, with no hardware fence,
// so successive calls keep overlapping their memory accesses. Any other thread
// announces itself in otherWant_ and forces a barrier on the owner with
// membarrier(2) before it checks ownerBusy_ (Dekker's exclusion with an
// asymmetric fence). Each side enters only after an acquiring load of the
// value the other side's release store left, so the hand-over is an ordinary
// release/acquire pair, as a race detector sees it. Without membarrier nobody
// becomes owner and every thread takes the slow way.
class TableLock {
public:
    // The owner's way in, inline: true when the caller is the owner and is
    // now inside; LeaveAsOwner ends it. False leaves the lock as it was.
    bool EnterAsOwner() {
        if (__builtin_expect(owner_.load(std::memory_order_relaxed) != Self(), 0)) return false;
        ownerBusy_.store(1, std::memory_order_relaxed);
        std::atomic_signal_fence(std::memory_order_seq_cst);  // the other side's HeavyFence orders this
        if (__builtin_expect(otherWant_.load(std::memory_order_acquire) == 0, 1)) return true;
        ownerBusy_.store(0, std::memory_order_release);
        return false;
    }
    void LeaveAsOwner() { ownerBusy_.store(0, std::memory_order_release); }

    // Any thread's way in and out. claim: the caller changes the table and
    // may become its owner. A thread that is the owner when it unlocks was
    // the owner when it locked (only a thread itself makes itself owner, and
    // ownership never ends), so nothing is carried from Lock to Unlock.
    void Lock(bool claim) {
        if (!EnterAsOwner()) LockSlow(claim);
    }
    void Unlock() {
        if (__builtin_expect(owner_.load(std::memory_order_relaxed) == Self(), 1)) {
            LeaveAsOwner();
            return;
        }
        UnlockOther();
    }

private:
    __attribute__((noinline)) void LockSlow(bool claim) {
        const void *self = Self();
        const void *owner = owner_.load(std::memory_order_seq_cst);
        if (owner == self) {
            OwnerWait(false);
            return;
        }
        if (owner == nullptr && claim && AsymmetricFenceReady() &&
            owner_.compare_exchange_strong(owner, self, std::memory_order_seq_cst)) {
            // A thread that saw no owner yet did not fence us: the first
            // entry orders itself with a sequentially consistent exchange.
            OwnerWait(true);
            return;
        }
        OtherLock();
    }
    // The owner backs off while another thread is inside or waiting.
    void OwnerWait(bool selfFenced) {
        for (uint32_t spins = 0;;) {
            if (selfFenced) {
                ownerBusy_.exchange(1, std::memory_order_seq_cst);
                if (otherWant_.load(std::memory_order_seq_cst) == 0) return;
            } else {
                ownerBusy_.store(1, std::memory_order_relaxed);
                std::atomic_signal_fence(std::memory_order_seq_cst);
                if (otherWant_.load(std::memory_order_acquire) == 0) return;
            }
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
    __attribute__((noinline)) void UnlockOther() {
        otherWant_.store(0, std::memory_order_release);
        others_.store(0, std::memory_order_release);
    }

    std::atomic<const void *> owner_{nullptr};
    std::atomic<uint32_t> ownerBusy_{0};  // 1 while the owner is inside
    std::atomic<uint32_t> otherWant_{0};  // 1 while another thread is inside or waiting
    std::atomic<uint32_t> others_{0};     // excludes the other threads among themselves
};

template <class F>
__attribute__((noinline)) auto WithLockSlowly(TableLock &l, bool claim, F f) {
    l.Lock(claim);
    auto r = f();
    l.Unlock();
    return r;
}

// Runs f under the lock. The owner's way is inline and knows at its end that
// it came in as the owner; every other way is a copy of f out of line.
template <class F>
inline auto WithLock(TableLock &l, bool claim, F f) {
    if (__builtin_expect(l.EnterAsOwner(), 1)) {
        auto r = f();
        l.LeaveAsOwner();
        return r;
    }
    return WithLockSlowly(l, claim, f);
}

}  // namespace

struct LITE_HASH {
    // What a find reads, in the first cache line.
    TableLock lock;
    LITE_HASH_KEY_FUNC hashFunc;
    LITE_HASH_CMP_FUNC cmpFunc;
    Slot *slots;
    uint32_t mask;       // slot count - 1
    uint32_t shift;      // 32 - log2(slot count), for the home slot
    // What an add and a removal need besides.
    uint32_t growAt;     // linked elements at which the slot array doubles
    int32_t count;       // linked elements
    uint32_t *bucketCnt;
    uint64_t modMagic;   // ceil(2^64 / bucketNum), for a division-free modulo
    uint32_t bucketNum;
    uint32_t stride;     // header + element, see StrideFor
    uint64_t strideMagic; // ceil(2^64 / stride), to divide by the stride without a division
    uint32_t elemSize;
    uint32_t carveLeft;
    uint32_t slabElems;  // elements per slab
    uint32_t firstSlots; // the slot array made at creation
    void *freeList;      // released elements, linked through their first word
    uint8_t *carve;      // next unused element header of the slab being carved
    uint8_t **slabs;     // every slab, in address order
    uint32_t slabNum;
    uint32_t slabCap;
    uint8_t *hitSlab;    // the slab of the last removal by an element's own key
    uint8_t **fresh;     // slabs kept at a trim, not carved since
    uint32_t freshNum;
    uint32_t live;       // elements taken and not released
    uint32_t peak;       // most elements live since the table was last empty
    uint32_t prevPeak;   // the same for the fill before
};

namespace {

// hash % bucketNum for any 32-bit hash (Lemire's fastmod).
inline uint32_t BucketOf(const LITE_HASH_S *h, uint32_t hash) {
    uint64_t low = h->modMagic * hash;
    return static_cast<uint32_t>((static_cast<__uint128_t>(low) * h->bucketNum) >> 64);
}

// The home slot: the top bits of a Fibonacci remix of the caller's hash.
inline uint32_t HomeOf(const LITE_HASH_S *h, uint32_t hash) { return (hash * 0x9E3779B9u) >> h->shift; }

inline ElemHdr *HdrOf(void *elem) { return static_cast<ElemHdr *>(elem) - 1; }

void *FindAgainAfter(const LITE_HASH_S *h, void *elem);

// The slot holding the first element equal to key, or null.
inline Slot *FindSlot(LITE_HASH_S *h, uint32_t hash, const void *key) {
    for (uint32_t i = HomeOf(h, hash);; i = (i + 1) & h->mask) {
        Slot *s = &h->slots[i];
        if (s->node.data == nullptr) return nullptr;
        if (__builtin_expect(s->hash == hash, 1) && h->cmpFunc(s->node.data, key) != 0) return s;
    }
}

// The first slot at or after slot i whose hash is hash, or an empty slot.
// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): slot and hash of the probe, named at every call
inline Slot *NextCandidate(const LITE_HASH_S *h, uint32_t i, uint32_t hash) {
    for (;; i = (i + 1) & h->mask) {
        Slot *s = &h->slots[i];
        if (s->node.data == nullptr || __builtin_expect(s->hash == hash, 1)) return s;
    }
}

// The first element equal to key, or null: FindSlot for the find itself,
// shaped so that only the table, the key and the candidate element live
// across the compare call. The candidate's slot is found again from the
// element (its header holds the hash) in the rare case that the compare
// says no to an element of the same hash.
inline void *FindElem(LITE_HASH_S *h, uint32_t hash, const void *key) {
    for (void *e = NextCandidate(h, HomeOf(h, hash), hash)->node.data;; e = FindAgainAfter(h, e)) {
        if (e == nullptr) return nullptr;
        if (__builtin_expect(h->cmpFunc(e, key) != 0, 1)) return e;
    }
}

// The index node of an element: in its header, just before it.
inline LITE_HASH_NODE_S *NodeOf(void *elem) { return &(static_cast<ElemHdr *>(elem) - 1)->node; }

// Places an element in the first free slot of its probe run.
// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): slot and hash of the probe, named at every call
inline void Place(Slot *slots, uint32_t mask, uint32_t home, void *elem, uint32_t hash) {
    uint32_t i = home;
    while (slots[i].node.data != nullptr) i = (i + 1) & mask;
    slots[i].node.data = elem;
    slots[i].hash = hash;
}

void SetCapacity(LITE_HASH_S *h, Slot *slots, uint32_t n) {
    h->slots = slots;
    h->mask = n - 1;
    h->shift = 32 - static_cast<uint32_t>(__builtin_ctz(n));
    h->growAt = n / 8 * 5;
}

// Doubles the slot array and places every element again; false (and the
// table unchanged) when the larger array cannot be had.
bool Grow(LITE_HASH_S *h) {
    uint32_t oldN = h->mask + 1;
    if (oldN >= (uint32_t{1} << 30)) return false;
    auto *fresh = static_cast<Slot *>(BlockZalloc(size_t{oldN} * 2 * sizeof(Slot)));
    if (fresh == nullptr) return false;
    Slot *old = h->slots;
    SetCapacity(h, fresh, oldN * 2);
    for (uint32_t i = 0; i < oldN; ++i) {
        if (old[i].node.data != nullptr) Place(fresh, h->mask, HomeOf(h, old[i].hash), old[i].node.data, old[i].hash);
    }
    BlockFree(old);
    return true;
}

// Empties slot i and shifts the rest of its probe run back, so that every
// element stays reachable from its home without tombstones.
inline void Vacate(LITE_HASH_S *h, uint32_t i) {
    ElemHdr *hdr = HdrOf(h->slots[i].node.data);
    h->bucketCnt[hdr->bucket1 - 1]--;
    hdr->bucket1 = 0;
    h->count--;
    for (uint32_t j = i;;) {
        j = (j + 1) & h->mask;
        Slot *s = &h->slots[j];
        if (s->node.data == nullptr) break;
        // The element at j may fill the hole at i when i lies on its probe path.
        if (((j - HomeOf(h, s->hash)) & h->mask) >= ((j - i) & h->mask)) {
            h->slots[i] = *s;
            i = j;
        }
    }
    h->slots[i].node.data = nullptr;
}

// The slot that holds this very element, or null when it is not linked.
Slot *SlotOfElem(const LITE_HASH_S *h, void *elem) {
    for (uint32_t i = HomeOf(h, HdrOf(elem)->hash);; i = (i + 1) & h->mask) {
        Slot *s = &h->slots[i];
        if (s->node.data == elem) return s;
        if (s->node.data == nullptr) return nullptr;
    }
}

// Where a find goes on after a linked element of the key's hash compared
// unequal: the element of the next candidate behind that element's slot, or
// null at the end of the probe run.
__attribute__((noinline)) void *FindAgainAfter(const LITE_HASH_S *h, void *elem) {
    Slot *s = SlotOfElem(h, elem);
    if (s == nullptr) return nullptr;  // not while the lock is held, unless a compare changed the table
    return NextCandidate(h, (static_cast<uint32_t>(s - h->slots) + 1) & h->mask, HdrOf(elem)->hash)->node.data;
}

size_t SlabBytes(const LITE_HASH_S *h) { return static_cast<size_t>(h->slabElems) * h->stride; }

// The slab index at which a slab at address a stands or would stand.
uint32_t SlabPos(const LITE_HASH_S *h, uintptr_t a) {
    uint32_t lo = 0, hi = h->slabNum;
    while (lo < hi) {
        uint32_t mid = (lo + hi) / 2;
        if (reinterpret_cast<uintptr_t>(h->slabs[mid]) < a) lo = mid + 1;
        else hi = mid;
    }
    return lo;
}

// Carving goes on in a kept slab, or in a new one.
__attribute__((noinline)) bool NextSlab(LITE_HASH_S *h) {
    if (h->freshNum != 0) {
        h->carve = h->fresh[--h->freshNum];
    } else {
        if (h->slabNum == h->slabCap) {
            uint32_t cap = h->slabCap == 0 ? 8 : h->slabCap * 2;
            auto *more = static_cast<uint8_t **>(std::realloc(h->slabs, size_t{cap} * sizeof(uint8_t *)));
            auto *fresh = static_cast<uint8_t **>(std::realloc(h->fresh, size_t{cap} * sizeof(uint8_t *)));
            if (more != nullptr) h->slabs = more;
            if (fresh != nullptr) h->fresh = fresh;
            if (more == nullptr || fresh == nullptr) return false;
            h->slabCap = cap;
        }
        auto *slab = static_cast<uint8_t *>(BlockAlloc(SlabBytes(h)));
        if (slab == nullptr) return false;
        uint32_t at = SlabPos(h, reinterpret_cast<uintptr_t>(slab));
        std::memmove(h->slabs + at + 1, h->slabs + at, (h->slabNum - at) * sizeof(uint8_t *));
        h->slabs[at] = slab;
        h->slabNum++;
        h->carve = slab;
    }
    h->carveLeft = h->slabElems;
    return true;
}

// A released element, or a fresh one from a slab. The slot array is
// doubled here, ahead of the add that would need it, whenever this call does
// not take a slab already, so that an append allocates at most once.
inline __attribute__((always_inline)) void *TakeElem(LITE_HASH_S *h) {
    void *e = h->freeList;
    if (e != nullptr) {
        std::memcpy(&h->freeList, e, sizeof(void *));
        if (static_cast<uint32_t>(h->count) + 1 >= h->growAt) (void)Grow(h);
    } else {
        if (h->carveLeft == 0) {
            if (!NextSlab(h)) return nullptr;
        } else if (static_cast<uint32_t>(h->count) + 1 >= h->growAt) {
            (void)Grow(h);
        }
        e = h->carve + sizeof(ElemHdr);
        h->carve += h->stride;
        h->carveLeft--;
    }
    if (++h->live > h->peak) h->peak = h->live;
    return e;
}

// The linked element whose bytes hold key, or null: a key inside a slab
// belongs to the element whose stride it falls in.
// The slab of the last hit is tried first: a reader takes entries in the
// order they were carved more often than not.
void *ElemHolding(LITE_HASH_S *h, const void *key) {
    auto a = reinterpret_cast<uintptr_t>(key);
    auto base = reinterpret_cast<uintptr_t>(h->hitSlab);
    if (a - base >= SlabBytes(h)) {
        uint32_t at = SlabPos(h, a + 1);  // the first slab above a
        if (at == 0) return nullptr;
        base = reinterpret_cast<uintptr_t>(h->slabs[at - 1]);
        if (a - base >= SlabBytes(h)) return nullptr;
        h->hitSlab = h->slabs[at - 1];
    }
    // (a - base) is below a slab's size, which fits 32 bits.
    auto off = static_cast<uint32_t>(a - base);
    auto index = static_cast<uint32_t>((static_cast<__uint128_t>(h->strideMagic) * off) >> 64);
    uintptr_t elem = base + uintptr_t{index} * h->stride + sizeof(ElemHdr);
    if (a < elem || a - elem >= h->elemSize) return nullptr;
    void *e = reinterpret_cast<void *>(elem);  // NOLINT(performance-no-int-to-ptr)
    return HdrOf(e)->bucket1 != 0 ? e : nullptr;
}

// The table is empty: slabs beyond what the last two fills needed go back
// (the free list and carving start afresh in the slabs kept), and so does a
// slot array grown beyond the first.
void Trim(LITE_HASH_S *h) {
    uint32_t need = std::max({h->prevPeak, h->peak / 4, h->slabElems});
    h->prevPeak = h->peak;
    h->peak = 0;
    uint32_t keep = (need + h->slabElems - 1) / h->slabElems;
    if (keep >= h->slabNum && h->mask + 1 <= h->firstSlots) return;
    for (uint32_t i = keep; i < h->slabNum; ++i) BlockFree(h->slabs[i]);
    h->hitSlab = nullptr;
    h->slabNum = std::min(keep, h->slabNum);
    for (uint32_t i = 0; i < h->slabNum; ++i) h->fresh[i] = h->slabs[i];
    h->freshNum = h->slabNum;
    h->freeList = nullptr;
    h->carveLeft = 0;
    if (h->mask + 1 > h->firstSlots) {
        auto *slots = static_cast<Slot *>(BlockZalloc(size_t{h->firstSlots} * sizeof(Slot)));
        if (slots != nullptr) {
            BlockFree(h->slots);
            SetCapacity(h, slots, h->firstSlots);
        }
    }
}

}  // namespace

extern "C" {

// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): the platform interface fixes the signature
QOV_PLAT_API LITE_HASH_S *LITE_HASH_CreateWithLock(uint32_t memPtNo, uint16_t elemSize, uint32_t bucketNum,
                                                   LITE_HASH_KEY_FUNC hashFunc, LITE_HASH_CMP_FUNC cmpFunc,
                                                   uint32_t flags) {
    (void)memPtNo;  // the host has one memory partition
    (void)flags;
    int64_t r = 0;
    if (qovhost::Fail("LITE_HASH_CreateWithLock", &r)) return nullptr;
    if (bucketNum == 0 || hashFunc == nullptr || cmpFunc == nullptr) return nullptr;
    size_t cntBytes = size_t{bucketNum} * sizeof(uint32_t);
    // Slots for bucketNum elements below the growth mark.
    uint32_t firstSlots = kMinSlots;
    while (firstSlots < kMaxFirstSlots && firstSlots / 8 * 5 <= bucketNum) firstSlots *= 2;
    auto *counts = static_cast<uint32_t *>(BlockZalloc(cntBytes));
    auto *slots = static_cast<Slot *>(BlockZalloc(size_t{firstSlots} * sizeof(Slot)));
    auto *h = new (std::nothrow) LITE_HASH;
    if (counts == nullptr || slots == nullptr || h == nullptr) {
        if (counts != nullptr) BlockFree(counts);
        if (slots != nullptr) BlockFree(slots);
        delete h;
        return nullptr;
    }
    SetCapacity(h, slots, firstSlots);
    h->firstSlots = firstSlots;
    h->count = 0;
    h->bucketCnt = counts;
    h->bucketNum = bucketNum;
    h->modMagic = UINT64_MAX / bucketNum + 1;
    // Room for the free-list link in a released element, even a tiny one.
    uint32_t body = elemSize < sizeof(void *) ? uint32_t{sizeof(void *)} : elemSize;
    h->stride = StrideFor(static_cast<uint32_t>(sizeof(ElemHdr)) + body);
    h->strideMagic = UINT64_MAX / h->stride + 1;
    h->elemSize = elemSize;
    h->hashFunc = hashFunc;
    h->cmpFunc = cmpFunc;
    h->freeList = nullptr;
    h->carve = nullptr;
    h->carveLeft = 0;
    h->slabElems = std::clamp(bucketNum / 32, kMinSlabElems, kMaxSlabElems);
    h->slabs = h->fresh = nullptr;
    h->hitSlab = nullptr;
    h->slabNum = h->slabCap = h->freshNum = 0;
    h->live = h->peak = h->prevPeak = 0;
    return h;
}

// Releases the table with every element still in it (elements live in the slabs).
QOV_PLAT_API void LITE_HASH_DeleteHash(LITE_HASH_S **hash) {
    if (hash == nullptr || *hash == nullptr) return;
    LITE_HASH_S *h = *hash;
    for (uint32_t i = 0; i < h->slabNum; ++i) BlockFree(h->slabs[i]);
    std::free(h->slabs);
    std::free(h->fresh);
    BlockFree(h->slots);
    BlockFree(h->bucketCnt);
    delete h;
    *hash = nullptr;
}

QOV_PLAT_API void *LITE_HASH_NewData(LITE_HASH_S *hash, uint32_t flags) {
    (void)flags;
    int64_t r;
    if (hash == nullptr || qovhost::Fail("LITE_HASH_NewData", &r)) return nullptr;
    void *e = WithLock(hash->lock, true, [hash] { return TakeElem(hash); });
    if (e != nullptr) {
        HdrOf(e)->node.data = e;
        HdrOf(e)->bucket1 = 0;
    }
    return e;
}

// An element that is still linked is unlinked first, so a caller that failed
// to remove it cannot leave a released element in the index.
QOV_PLAT_API void LITE_HASH_FreeData(LITE_HASH_S *hash, void *element) {
    if (hash == nullptr || element == nullptr) return;
    WithLock(hash->lock, true, [hash, element] {
        if (HdrOf(element)->bucket1 != 0) {
            if (Slot *s = SlotOfElem(hash, element); s != nullptr) Vacate(hash, static_cast<uint32_t>(s - hash->slots));
        }
        std::memcpy(element, &hash->freeList, sizeof(void *));
        hash->freeList = element;
        if (--hash->live == 0) Trim(hash);
        return 0;
    });
}

// The closures below hold two words at most, so that the way out of line
// takes them in registers.
QOV_PLAT_API uint32_t LITE_HASH_AddNode(LITE_HASH_S *hash, const void *key, void *element, uint32_t flags) {
    (void)flags;
    int64_t r;
    if (qovhost::Fail("LITE_HASH_AddNode", &r)) return r == 0 ? 1u : static_cast<uint32_t>(r);
    if (hash == nullptr || key == nullptr || element == nullptr) return 1;
    ElemHdr *hdr = HdrOf(element);
    if (hdr->bucket1 != 0) return 1;
    // The element is the caller's until it is linked, so its header is
    // written before the lock is taken.
    hdr->hash = hash->hashFunc(key);
    return WithLock(hash->lock, true, [hash, hdr]() -> uint32_t {
        // Normally grown already when the element was taken; this keeps a
        // free slot for elements added without a fresh NewData.
        if (static_cast<uint32_t>(hash->count) + 1 > hash->mask - hash->mask / 8 && !Grow(hash)) return 1;
        uint32_t hv = hdr->hash;
        uint32_t bucket = BucketOf(hash, hv);
        hdr->bucket1 = bucket + 1;  // bucket < bucketNum <= UINT32_MAX
        Place(hash->slots, hash->mask, HomeOf(hash, hv), hdr->node.data, hv);
        hash->bucketCnt[bucket]++;
        hash->count++;
        return 0;
    });
}

QOV_PLAT_API LITE_HASH_NODE_S *LITE_HASH_FindNodeFromFirst(LITE_HASH_S *hash, const void *key) {
    if (__builtin_expect(hash == nullptr || key == nullptr, 0)) return nullptr;
    void *e = WithLock(hash->lock, true, [hash, key] { return FindElem(hash, hash->hashFunc(key), key); });
    return e == nullptr ? nullptr : NodeOf(e);
}

QOV_PLAT_API void *LITE_HASH_RemoveNodeByKey(LITE_HASH_S *hash, const void *key) {
    int64_t r;
    if (qovhost::Fail("LITE_HASH_RemoveNodeByKey", &r)) return nullptr;
    if (hash == nullptr || key == nullptr) return nullptr;
    // Equal elements have no order of their own in this table, so the one
    // that holds the key, when it equals the key, is the first.
    return WithLock(hash->lock, true, [hash, key]() -> void * {
        Slot *s = nullptr;
        if (void *own = ElemHolding(hash, key); own != nullptr && hash->cmpFunc(own, key) != 0)
            s = SlotOfElem(hash, own);
        if (s == nullptr) s = FindSlot(hash, hash->hashFunc(key), key);
        if (s == nullptr) return nullptr;
        void *e = s->node.data;
        Vacate(hash, static_cast<uint32_t>(s - hash->slots));
        return e;
    });
}

// The count needs the key's bucket, and the interface gives only the key:
// one hash call. (Comparing with the element linked last, to take its
// bucket, saved 4 instructions per entry end to end and cost 23 per append
// in the queue bench, whose compare costs more than its hash.)
QOV_PLAT_API int32_t LITE_HASH_GetListCntByKey(LITE_HASH_S *hash, const void *key) {
    if (hash == nullptr || key == nullptr) return 0;
    uint32_t hv = hash->hashFunc(key);
    return WithLock(hash->lock, false, [hash, hv] { return static_cast<int32_t>(hash->bucketCnt[BucketOf(hash, hv)]); });
}

QOV_PLAT_API int32_t LITE_HASH_GetHashCnt(LITE_HASH_S *hash) {
    if (hash == nullptr) return 0;
    return WithLock(hash->lock, false, [hash] { return hash->count; });
}

}  // extern "C"
