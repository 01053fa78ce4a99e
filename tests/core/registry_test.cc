#include <cstring>
#include <string>
#include <vector>

#include "core/base/as_bytes.h"
#include "core/base/as_registry.h"
#include "support/test_env.h"

namespace {

using qovtest::AllocOutstanding;
using qovtest::HostTest;
using qovtest::TestAlloc;
using qovtest::TestFree;

// The names of a, b and c still registered.
std::string Present() {
    std::string s;
    for (const char *n : {"a", "b", "c"}) s += AutoSyncNameExisted(n) != 0 ? n : "";
    return s;
}

class Registry : public HostTest {
protected:
    void TearDown() override {
        for (const char *n : {"a", "b", "c"}) AutoSyncDelModule(n, TestFree);
        EXPECT_EQ(AllocOutstanding(), 0);
        HostTest::TearDown();
    }
};

TEST_F(Registry, AddingANameTwiceKeepsOneEntry) {
    EXPECT_EQ(AutoSyncAddModule("a", TestAlloc), 0u);
    EXPECT_EQ(AutoSyncAddModule("a", TestAlloc), 1u);
    EXPECT_EQ(Present(), "a");
    EXPECT_EQ(AllocOutstanding(), 1);
}

TEST_F(Registry, RemovalFreesOnlyTheRemovedNode) {
    for (const char *n : {"a", "b", "c"}) ASSERT_EQ(AutoSyncAddModule(n, TestAlloc), 0u);
    // Newest first, so: the middle node, an unknown name, the first node, the only node.
    const std::pair<const char *, std::string> steps[] = {{"b", "ac"}, {"zz", "ac"}, {"c", "a"}, {"a", ""}};
    for (const auto &[name, left] : steps) {
        AutoSyncDelModule(name, TestFree);
        EXPECT_EQ(Present(), left) << name;
        EXPECT_EQ(AllocOutstanding(), static_cast<int64_t>(left.size())) << name;
    }
}

TEST_F(Registry, FailedAllocationOrOverlongNameAddsNothing) {
    qovtest::AllocFailAt(1);
    EXPECT_EQ(AutoSyncAddModule("a", TestAlloc), 1u);
    EXPECT_EQ(AutoSyncAddModule(std::string(16, 'n').c_str(), TestAlloc), 1u);
    EXPECT_EQ(AutoSyncNameExisted(std::string(16, 'n').c_str()), 0u);
    EXPECT_EQ(Present(), "");
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

namespace {

// Short copies and compares go by pieces that overlap: every length up to
// past the last piece size, a difference at every place, and copies that
// touch nothing outside their bytes.
TEST(ShortBytes, CopyAndCompareEveryLengthAndPlace) {
    uint8_t src[96], dst[96 + 2];
    for (size_t i = 0; i < sizeof src; ++i) src[i] = static_cast<uint8_t>(i * 7 + 1);
    for (size_t n = 0; n <= 80; ++n) {
        std::memset(dst, 0xEE, sizeof dst);
        ASCopyBytes(dst + 1, src, n);
        ASSERT_EQ(std::memcmp(dst + 1, src, n), 0) << n;
        ASSERT_TRUE(dst[0] == 0xEE && dst[n + 1] == 0xEE) << "wrote outside, length " << n;
        ASSERT_TRUE(ASBytesEqual(dst + 1, src, n)) << n;
        for (size_t at = 0; at < n; ++at) {
            dst[1 + at] ^= 0x40;
            ASSERT_FALSE(ASBytesEqual(dst + 1, src, n)) << "length " << n << ", difference at " << at;
            dst[1 + at] ^= 0x40;
        }
    }
}

}  // namespace
