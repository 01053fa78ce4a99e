// The host hash table against a reference map: counts per bucket and in
// total, first-match find and remove, element recycling, failure on demand.
#include <map>
#include <random>
#include <thread>

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

TEST_F(LiteHashTest, RandomOperationsMatchReference) {
    std::map<uint64_t, Elem *> ref;
    std::mt19937_64 rng(42);
    for (int step = 0; step < 20000; ++step) {
        uint64_t key = rng() % 300;
        LITE_HASH_NODE_S *node = LITE_HASH_FindNodeFromFirst(hash_, &key);
        auto it = ref.find(key);
        ASSERT_EQ(node != nullptr, it != ref.end()) << "key " << key;
        if (it == ref.end()) {
            Elem *e = Add(key, step);
            ASSERT_NE(e, nullptr);
            ref[key] = e;
        } else {
            ASSERT_EQ(node->data, it->second) << "the node's first word is the element";
            if (rng() % 2 == 0) {
                ASSERT_EQ(LITE_HASH_RemoveNodeByKey(hash_, &key), it->second);
                LITE_HASH_FreeData(hash_, it->second);
                ref.erase(it);
            }
        }
        ASSERT_EQ(LITE_HASH_GetHashCnt(hash_), static_cast<int32_t>(ref.size()));
        int32_t inBucket = 0;
        for (const auto &kv : ref) inBucket += kv.first % kBuckets == key % kBuckets ? 1 : 0;
        ASSERT_EQ(LITE_HASH_GetListCntByKey(hash_, &key), inBucket);
    }
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
    // A released element that was still linked leaves its chain first.
    Elem *e2 = Add(3, 0);
    LITE_HASH_FreeData(hash_, e2);
    uint64_t key = 3;
    EXPECT_EQ(LITE_HASH_FindNodeFromFirst(hash_, &key), nullptr);
    EXPECT_EQ(LITE_HASH_GetHashCnt(hash_), 0);
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
