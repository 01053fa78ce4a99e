#include <cstring>
#include <string>
#include <vector>

#include "core/as_handle.h"
#include "support/test_env.h"

namespace {

using qovtest::AllocOutstanding;
using qovtest::HostTest;
using qovtest::TestAlloc;
using qovtest::TestFree;

std::vector<std::string> RegistryNames() {
    std::vector<std::string> names;
    for (auto *n = g_AutoSyncCtrlBlkNameHead.first; n != nullptr; n = n->next) names.emplace_back(n->name);
    return names;
}

class Registry : public HostTest {
protected:
    void TearDown() override {
        for (const auto &n : RegistryNames()) AutoSyncDelModule(n.c_str(), TestFree);
        EXPECT_EQ(g_AutoSyncCtrlBlkNameHead.count, 0u);
        HostTest::TearDown();
    }
};

TEST_F(Registry, AddingANameTwiceKeepsOneEntry) {
    EXPECT_EQ(AutoSyncAddModule("a", TestAlloc), 0u);
    EXPECT_EQ(AutoSyncAddModule("a", TestAlloc), 1u);
    EXPECT_EQ(g_AutoSyncCtrlBlkNameHead.count, 1u);
    EXPECT_EQ(AutoSyncNameExisted("a"), 1u);
    EXPECT_EQ(AutoSyncNameExisted("b"), 0u);
    EXPECT_EQ(AllocOutstanding(), 1);
}

TEST_F(Registry, RemovalRelinksAndFreesOnlyTheRemovedNode) {
    for (const char *n : {"a", "b", "c"}) ASSERT_EQ(AutoSyncAddModule(n, TestAlloc), 0u);
    EXPECT_EQ(RegistryNames(), (std::vector<std::string>{"c", "b", "a"}));

    AutoSyncDelModule("b", TestFree);  // middle
    EXPECT_EQ(RegistryNames(), (std::vector<std::string>{"c", "a"}));
    EXPECT_EQ(AllocOutstanding(), 2);

    AutoSyncDelModule("zz", TestFree);  // unknown
    EXPECT_EQ(g_AutoSyncCtrlBlkNameHead.count, 2u);

    AutoSyncDelModule("c", TestFree);  // first
    AutoSyncDelModule("a", TestFree);  // only
    EXPECT_EQ(g_AutoSyncCtrlBlkNameHead.count, 0u);
    EXPECT_EQ(g_AutoSyncCtrlBlkNameHead.first, nullptr);
    EXPECT_EQ(AllocOutstanding(), 0);
}

TEST_F(Registry, FailedAllocationOrOverlongNameAddsNothing) {
    qovtest::AllocFailAt(1);
    EXPECT_EQ(AutoSyncAddModule("a", TestAlloc), 1u);
    EXPECT_EQ(AutoSyncAddModule(std::string(16, 'n').c_str(), TestAlloc), 1u);
    EXPECT_EQ(g_AutoSyncCtrlBlkNameHead.count, 0u);
    EXPECT_EQ(AllocOutstanding(), 0);
}

struct KeyNode {
    ASIntHashNode node;
    int payload;
};

TEST_F(HostTest, IntHashKeysSharingABucketAreEachFound) {
    ASIntHash *hash = ASIntHashCreate(128, TestAlloc);
    ASSERT_NE(hash, nullptr);
    KeyNode a{{{nullptr}, 5}, 1}, b{{{nullptr}, 133}, 2}, dup{{{nullptr}, 5}, 3};
    EXPECT_EQ(ASIntHashAdd(hash, &a.node), 0u);
    EXPECT_EQ(ASIntHashAdd(hash, &b.node), 0u);
    EXPECT_EQ(ASIntHashAdd(hash, &dup.node), 1u);
    EXPECT_EQ(ASIntHashFind(hash, 5), &a.node);
    EXPECT_EQ(ASIntHashFind(hash, 133), &b.node);
    EXPECT_EQ(ASIntHashFind(hash, 261), nullptr);
    EXPECT_EQ(hash->bucket[5].next, &b.node.link);  // newest first
    ASIntHashDelete(hash);
    TestFree(hash);
}

TEST_F(HostTest, IntHashWalkVisitsInBucketOrderAndStopsOnRequest) {
    ASIntHash *hash = ASIntHashCreate(4, TestAlloc);
    ASSERT_NE(hash, nullptr);
    KeyNode n[4] = {{{{nullptr}, 6}, 0}, {{{nullptr}, 1}, 0}, {{{nullptr}, 2}, 0}, {{{nullptr}, 5}, 0}};
    for (auto &k : n) ASSERT_EQ(ASIntHashAdd(hash, &k.node), 0u);
    std::vector<uint32_t> seen;
    auto visit = [](ASIntHashNode *node, void *usr) -> uint32_t {
        auto *keys = static_cast<std::vector<uint32_t> *>(usr);
        keys->push_back(node->key);
        return node->key == 6 ? 1u : 0u;
    };
    EXPECT_EQ(ASIntHashWalk(hash, visit, &seen), 1u);
    EXPECT_EQ(seen, (std::vector<uint32_t>{5, 1, 2, 6}));  // bucket 1 then 2, newest first
    TestFree(hash);
}

TEST_F(HostTest, IntHashCreateRefusesZeroBucketsAndAllocationFailure) {
    EXPECT_EQ(ASIntHashCreate(0, TestAlloc), nullptr);
    qovtest::AllocFailAt(1);
    EXPECT_EQ(ASIntHashCreate(32, TestAlloc), nullptr);
    EXPECT_EQ(ASIntHashCreate(uint64_t{1} << 40, TestAlloc), nullptr);
    EXPECT_EQ(AllocOutstanding(), 0);
}

struct CombineCase {
    const char *name;
    const char *first;
    const char *second;
    uint32_t size;
    uint32_t result;
    const char *text;  // expected content; "untouched" when refused
};

class Combine : public ::testing::TestWithParam<CombineCase> {};

TEST_P(Combine, WritesOnlyWhenBothAndTheTerminatorFit) {
    const CombineCase &c = GetParam();
    char buf[16];
    std::memset(buf, '#', sizeof buf);
    EXPECT_EQ(ASCombineName(buf, c.size, c.first, c.second), c.result);
    if (c.result == 0) {
        EXPECT_STREQ(buf, c.text);
    } else {
        EXPECT_EQ(buf[0], '#');
    }
    for (size_t i = c.size; i < sizeof buf; ++i) EXPECT_EQ(buf[i], '#') << "written past the size at " << i;
}

INSTANTIATE_TEST_SUITE_P(Sizes, Combine,
                         ::testing::Values(CombineCase{"BothFit", "abc", "defg", 8, 0, "abcdefg"},
                                           CombineCase{"NoRoomForTheTerminator", "abc", "defg", 7, 1, ""}, CombineCase{"BothEmpty", "", "", 1, 0, ""},
                                           CombineCase{"FirstAloneTooLong", "abcdefgh", "", 8, 1, ""},
                                           CombineCase{"OnlySecond", "", "abcdefg", 8, 0, "abcdefg"}),
                         qovtest::RowName());

}  // namespace
