// The host hash table against a reference map (counts per bucket and in
// total, first-match find and remove, growth, removal inside probe runs, hash
// values equal in every bit), element layout and recycling, the lock, failure
// on demand.
#include <malloc.h>

#include <cstring>
#include <map>
#include <random>
#include <thread>
#include <vector>

#include "support/test_env.h"

namespace {

struct Elem {
    uint64_t key;
    uint64_t val;
};

constexpr uint32_t kBuckets = 7;  // small, so chains are long
uint32_t HashKey(const void *key) { return static_cast<uint32_t>(*static_cast<const uint64_t *>(key)); }
uint32_t CmpKey(const void *elem, const void *key) {
    return static_cast<const Elem *>(elem)->key == *static_cast<const uint64_t *>(key) ? 1 : 0;
}

class LiteHashTest : public qovtest::HostTest {
protected:
    void SetUp() override {
        HostTest::SetUp();
        hash_ = LITE_HASH_CreateWithLock(0, sizeof(Elem), kBuckets, HashKey, CmpKey, 0);
        ASSERT_NE(hash_, nullptr);
    }
    void TearDown() override {
        LITE_HASH_DeleteHash(&hash_);  // with whatever is left: the sanitizer build checks for leaks
        EXPECT_EQ(hash_, nullptr);
        HostTest::TearDown();
    }
    Elem *Add(uint64_t key, uint64_t val) {
        auto *e = static_cast<Elem *>(LITE_HASH_NewData(hash_, 0));
        if (e == nullptr) return nullptr;
        *e = {key, val};
        if (LITE_HASH_AddNode(hash_, &e->key, e, 0) != 0) {
            LITE_HASH_FreeData(hash_, e);
            return nullptr;
        }
        return e;
    }
    LITE_HASH_S *hash_ = nullptr;
};

uint32_t HashSame(const void *) { return 0x5eed; }  // every element in one probe run
uint32_t HashHigh(const void *key) { return HashKey(key) << 24; }  // differs only in the top bits
uint32_t HashMix(const void *key) { return HashKey(key) * 2654435761u; }

struct RandomCase {
    const char *name;
    LITE_HASH_KEY_FUNC hash;
    uint32_t buckets;
    uint64_t keys;  // keys are drawn from 0 .. keys-1
    int steps;
};

void PrintTo(const RandomCase &c, std::ostream *os) { *os << c.name; }

class LiteHashRandomTest : public qovtest::HostTest, public ::testing::WithParamInterface<RandomCase> {};

// Finds, adds and removes at random against a reference map, with the counts
// per bucket and in total after every step; an element is released while
// still linked half of the time, which unlinks it from inside its probe run.
TEST_P(LiteHashRandomTest, OperationsMatchReference) {
    const RandomCase &c = GetParam();
    LITE_HASH_S *h = LITE_HASH_CreateWithLock(0, sizeof(Elem), c.buckets, c.hash, CmpKey, 0);
    ASSERT_NE(h, nullptr);
    std::map<uint64_t, Elem *> ref;
    std::map<uint32_t, int32_t> perBucket;
    std::mt19937_64 rng(42);
    for (int step = 0; step < c.steps; ++step) {
        uint64_t key = rng() % c.keys;
        uint32_t bucket = c.hash(&key) % c.buckets;
        LITE_HASH_NODE_S *node = LITE_HASH_FindNodeFromFirst(h, &key);
        auto it = ref.find(key);
        ASSERT_EQ(node != nullptr, it != ref.end()) << "key " << key << " step " << step;
        if (it == ref.end()) {
            auto *e = static_cast<Elem *>(LITE_HASH_NewData(h, 0));
            ASSERT_NE(e, nullptr);
            *e = {key, static_cast<uint64_t>(step)};
            ASSERT_EQ(LITE_HASH_AddNode(h, &e->key, e, 0), 0u);
            ref[key] = e;
            perBucket[bucket]++;
        } else {
            ASSERT_EQ(node->data, it->second) << "the node's first word is the element";
            if (rng() % 2 == 0) {
                if (rng() % 2 == 0) {  // by a copy of the key, or by the element's own
                    const uint64_t *by = rng() % 2 == 0 ? &key : &it->second->key;
                    ASSERT_EQ(LITE_HASH_RemoveNodeByKey(h, by), it->second);
                }
                LITE_HASH_FreeData(h, it->second);
                ref.erase(it);
                perBucket[bucket]--;
            }
        }
        ASSERT_EQ(LITE_HASH_GetHashCnt(h), static_cast<int32_t>(ref.size()));
        ASSERT_EQ(LITE_HASH_GetListCntByKey(h, &key), perBucket[bucket]);
    }
    for (const auto &kv : ref) {
        LITE_HASH_NODE_S *node = LITE_HASH_FindNodeFromFirst(h, &kv.first);
        ASSERT_TRUE(node != nullptr && node->data == kv.second && kv.second->key == kv.first) << kv.first;
        ASSERT_EQ(LITE_HASH_GetListCntByKey(h, &kv.second->key), perBucket[c.hash(&kv.first) % c.buckets]);
    }
    LITE_HASH_DeleteHash(&h);  // with what is left: the sanitizer build checks for leaks
}

INSTANTIATE_TEST_SUITE_P(
    Hash, LiteHashRandomTest,
    ::testing::Values(RandomCase{"FewBuckets", HashKey, kBuckets, 300, 20000},
                      RandomCase{"EveryHashEqual", HashSame, kBuckets, 64, 6000},
                      RandomCase{"TopBitsOnly", HashHigh, 1, 256, 8000},
                      RandomCase{"GrowsToThousands", HashMix, 1024, 20000, 60000}),
    qovtest::RowName());

// Elements of every size are disjoint and 8-aligned, and an element that fits
// a cache line with its header does not straddle two.
TEST(LiteHashLayout, ElementsAreDisjointAndLineFriendly) {
    for (uint16_t size : {1, 8, 24, 48, 49, 80, 200}) {
        LITE_HASH_S *h = LITE_HASH_CreateWithLock(0, size, 3, HashKey, CmpKey, 0);
        ASSERT_NE(h, nullptr);
        std::vector<uint8_t *> elems;
        for (int i = 0; i < 40; ++i) {
            auto *e = static_cast<uint8_t *>(LITE_HASH_NewData(h, 0));
            ASSERT_NE(e, nullptr);
            ASSERT_EQ(reinterpret_cast<uintptr_t>(e) % 8, 0u) << size;
            std::memset(e, i, size);
            elems.push_back(e);
        }
        for (int i = 0; i < 40; ++i) {
            uintptr_t a = reinterpret_cast<uintptr_t>(elems[i]);
            if (size <= 48) {  // 48 bytes and the 16-byte header fill a line
                EXPECT_EQ(a / 64, (a + size - 1) / 64) << size;
            }
            for (uint16_t b = 0; b < size; ++b) ASSERT_EQ(elems[i][b], i) << "overlap at size " << size;
        }
        LITE_HASH_DeleteHash(&h);
    }
}

size_t HeapInUse() {
    struct mallinfo2 m = mallinfo2();
    return m.uordblks + m.hblkhd;
}

// Broken by: slabs or a grown slot array kept once the table is empty, or a
// refill of the same size allocating again (no hysteresis).
TEST(LiteHashMemory, DrainedTableGivesMemoryBackAndRefillsWithoutAllocating) {
    if (HeapInUse() == 0) GTEST_SKIP() << "no heap figures under this allocator";
    std::vector<Elem *> elems;
    elems.reserve(100000);
    LITE_HASH_S *h = LITE_HASH_CreateWithLock(0, sizeof(Elem), 1024, HashMix, CmpKey, 0);
    ASSERT_NE(h, nullptr);
    auto cycle = [&](uint64_t n) {
        for (uint64_t i = 0; i < n; ++i) {
            auto *e = static_cast<Elem *>(LITE_HASH_NewData(h, 0));
            ASSERT_NE(e, nullptr);
            *e = {i, i};
            ASSERT_EQ(LITE_HASH_AddNode(h, &e->key, e, 0), 0u);
            elems.push_back(e);
        }
    };
    auto drain = [&] {
        for (Elem *e : elems) {
            ASSERT_EQ(LITE_HASH_RemoveNodeByKey(h, &e->key), e);
            LITE_HASH_FreeData(h, e);
        }
        elems.clear();
    };
    size_t idle = HeapInUse();
    cycle(100000);
    size_t full = HeapInUse() - idle;
    drain();
    size_t drained = HeapInUse() - idle;
    EXPECT_LT(drained, full / 4) << "of " << full << " bytes at 100 000 elements";
    for (int round = 0; round < 3; ++round) {
        size_t before = HeapInUse();
        cycle(1000);
        EXPECT_EQ(HeapInUse(), before) << "round " << round;
        drain();
    }
    EXPECT_LT(HeapInUse() - idle, drained) << "the reserve of the big fill kept after small ones";
    LITE_HASH_DeleteHash(&h);
}

TEST_F(LiteHashTest, EqualKeysAreFoundAndRemovedOneByOne) {
    Elem *a = Add(5, 1);
    Elem *b = Add(5, 2);
    ASSERT_TRUE(a != nullptr && b != nullptr);
    uint64_t key = 5;
    EXPECT_EQ(LITE_HASH_GetListCntByKey(hash_, &key), 2);
    void *first = LITE_HASH_RemoveNodeByKey(hash_, &key);
    void *second = LITE_HASH_RemoveNodeByKey(hash_, &key);
    EXPECT_TRUE((first == a && second == b) || (first == b && second == a));
    EXPECT_EQ(LITE_HASH_RemoveNodeByKey(hash_, &key), nullptr);
    EXPECT_EQ(LITE_HASH_GetHashCnt(hash_), 0);
    LITE_HASH_FreeData(hash_, a);
    LITE_HASH_FreeData(hash_, b);
}

TEST_F(LiteHashTest, ReleasedElementsAreReused) {
    void *e1 = LITE_HASH_NewData(hash_, 0);
    LITE_HASH_FreeData(hash_, e1);
    EXPECT_EQ(LITE_HASH_NewData(hash_, 0), e1);
    LITE_HASH_FreeData(hash_, e1);
}

// The thread that first changes the table takes the lock without fences, any
// other the slow way; both change the same chains at once.
TEST_F(LiteHashTest, OwnerAndOtherThreadExcludeEachOther) {
    auto churn = [this](uint64_t base, int rounds, int *bad) {
        for (int i = 0; i < rounds; ++i) {
            uint64_t key = base + static_cast<uint64_t>(i % 50);
            Elem *e = Add(key, base);
            LITE_HASH_NODE_S *node = LITE_HASH_FindNodeFromFirst(hash_, &key);
            *bad += (e == nullptr || node == nullptr || node->data != e) ? 1 : 0;
            *bad += LITE_HASH_RemoveNodeByKey(hash_, &key) == e ? 0 : 1;
            LITE_HASH_FreeData(hash_, e);
        }
    };
    int badOwner = 0, badOther = 0;
    churn(0, 1, &badOwner);  // this thread becomes the owner
    std::thread other(churn, 1000, 3000, &badOther);
    churn(0, 200000, &badOwner);
    other.join();
    EXPECT_EQ(badOwner + badOther, 0);
    EXPECT_EQ(LITE_HASH_GetHashCnt(hash_), 0);
}

TEST_F(LiteHashTest, OperationsFailOnDemand) {
    QovHostFailNext("LITE_HASH_CreateWithLock", 1, 0);
    EXPECT_EQ(LITE_HASH_CreateWithLock(0, 16, 4, HashKey, CmpKey, 0), nullptr);
    EXPECT_EQ(LITE_HASH_CreateWithLock(0, 16, 0, HashKey, CmpKey, 0), nullptr);
    QovHostFailNext("LITE_HASH_NewData", 1, 0);
    EXPECT_EQ(LITE_HASH_NewData(hash_, 0), nullptr);
    QovHostFailNext("LITE_HASH_AddNode", 1, 0);
    EXPECT_EQ(Add(1, 1), nullptr);
    EXPECT_EQ(LITE_HASH_GetHashCnt(hash_), 0);
    ASSERT_NE(Add(1, 1), nullptr);
    QovHostFailNext("LITE_HASH_RemoveNodeByKey", 1, 0);
    uint64_t key = 1;
    EXPECT_EQ(LITE_HASH_RemoveNodeByKey(hash_, &key), nullptr);
    EXPECT_EQ(LITE_HASH_GetHashCnt(hash_), 1);
}

}  // namespace
