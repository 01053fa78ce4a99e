// Rule table, merge notification, key identity and bucket values.
#include <cstring>

#include "merge_fixture.h"

namespace {

using qovtest::HasLine;

// Test names from the cases' name field.
struct ByName {
    template <class T>
    std::string operator()(const ::testing::TestParamInfo<T> &p) const {
        return p.param.name;
    }
};

constexpr char kRuleErr[] = "Orch autosync merge notify get rule error";

struct RuleCase {
    uint32_t stored;
    uint32_t incoming;
    uint32_t result;  // of the lookup
    uint32_t merged;  // op the incoming vector ends with
    const char *line; // error line, or null
};

// Every pair of ops 0..3.
const RuleCase kRules[] = {
    {0, 0, 0, 0, nullptr}, {0, 1, 0, 1, nullptr}, {0, 2, 1, 2, kRuleErr}, {0, 3, 1, 3, "ageinfo"},
    {1, 0, 0, 2, nullptr}, {1, 1, 0, 1, nullptr}, {1, 2, 1, 2, kRuleErr}, {1, 3, 1, 3, "ageinfo"},
    {2, 0, 0, 2, nullptr}, {2, 1, 0, 1, nullptr}, {2, 2, 1, 2, kRuleErr}, {2, 3, 1, 3, "ageinfo"},
    {3, 0, 1, 0, kRuleErr}, {3, 1, 1, 1, kRuleErr}, {3, 2, 1, 2, kRuleErr}, {3, 3, 1, 3, "ageinfo"},
};

class RuleTest : public qovtest::HostTest, public ::testing::WithParamInterface<RuleCase> {};

TEST_P(RuleTest, LookupAndNotifyCombineOps) {
    const RuleCase &c = GetParam();
    uint32_t merged = 0xAA;
    EXPECT_EQ(ASOrchGetMergeRule(c.stored, c.incoming, &merged), c.result);
    if (c.result != 0) {
        EXPECT_EQ(merged, 0xAAu) << "nothing is written without a row";
    }

    // The stored buffer is freed whatever the ops, through the stored handle.
    ASOrchCreatePara para{0, 0, qovtest::TestAlloc, qovtest::TestFree, 0};
    ASOrchHandle *hdl = ASOrchCreate("orchR", &para);
    ASSERT_NE(hdl, nullptr);
    ASOrchMergeMsgVec stored{7, c.stored, static_cast<uint8_t *>(qovtest::TestAlloc(4)), 4, nullptr, 0, 0, hdl};
    ASOrchMergeMsgVec incoming{7, c.incoming, nullptr, 4, nullptr, 0, 0, hdl};
    QovHostLogClear();
    ASOrchPubMergeNotify(&incoming, &stored);
    EXPECT_EQ(incoming.opType, c.merged);
    EXPECT_EQ(stored.key, nullptr);
    if (c.line == nullptr) {
        EXPECT_EQ(QovHostLogCount(), 0u);
    } else if (std::strcmp(c.line, "ageinfo") == 0) {
        EXPECT_TRUE(HasLine("Orch autosync merge notify is ageinfo error, msgId 7"));
    } else {
        EXPECT_TRUE(HasLine(c.line));
    }
    ASOrchDestroy(hdl);
    EXPECT_EQ(qovtest::AllocOutstanding(), 0);
}

INSTANTIATE_TEST_SUITE_P(AllOpPairs, RuleTest, ::testing::ValuesIn(kRules));

TEST(MergeRuleTable, RowsStandAtIncomingPlusTwiceStored) {
    ASSERT_EQ(g_ASOrchMergeRulesNum, 6u);
    for (uint32_t i = 0; i < g_ASOrchMergeRulesNum; ++i)
        EXPECT_EQ(g_ASOrchMergeRules[i].incomingOp + 2 * g_ASOrchMergeRules[i].storedOp, i);
}

TEST(MergeNotify, NullStoredKeyFreesNothing) {
    ASOrchMergeMsgVec stored{1, 0, nullptr, 4, nullptr, 0, 0, nullptr};
    ASOrchMergeMsgVec incoming{1, 1, nullptr, 4, nullptr, 0, 0, nullptr};
    ASOrchPubMergeNotify(&incoming, &stored);  // would crash on a free through the null handle
    EXPECT_EQ(incoming.opType, 1u);
}

struct BucketCase {
    const char *name;
    std::vector<uint8_t> key;
    uint32_t msgId;
    uint32_t version;
    uint32_t buckets;  // 0: a merge type past the records (8192)
    uint32_t expect;
};

const BucketCase kBuckets[] = {
    {"Empty", {}, 0, 0, 8192, 1950},
    {"EmptyMsgId1", {}, 1, 0, 8192, 1951},
    {"OneWord", {1, 0, 0, 0}, 0, 0, 8192, 6221},
    {"TwoWords", {1, 2, 3, 4, 5, 6, 7, 8}, 7, 2, 8192, 7740},
    {"TrailingByteIgnored", {1, 2, 3, 4, 5, 6, 7, 8, 9}, 7, 2, 8192, 7740},
    {"ShortKeyIgnored", {9, 9, 9}, 0, 0, 8192, 1950},
    {"NoModuloWithZeroBuckets", {}, 0, 0, 0, 1493338014u},
    {"SmallTable", {}, 0, 0, 64, 1493338014u % 64},
};

class BucketTest : public qovtest::HostTest, public ::testing::WithParamInterface<BucketCase> {};

TEST_P(BucketTest, MatchesKnownValue) {
    const BucketCase &c = GetParam();
    ASOrchMergeRec recs[2] = {{0, nullptr, c.buckets, nullptr}, {0, nullptr, 1, nullptr}};
    ASOrchHandle hdl{};
    hdl.mergeHandle = recs;
    // An unaligned copy of the key: words are read bytewise.
    std::vector<uint8_t> buf(c.key.size() + 1);
    std::memcpy(buf.data() + 1, c.key.data(), c.key.size());
    ASOrchMergeMsgVec v{c.msgId, 0, buf.data() + 1, c.key.size(), nullptr, 0, c.version, &hdl};
    EXPECT_EQ(ASOrchMergeHashFunc(&hdl, 0, &v), c.expect);
    // Merge types past the two paths always use 8192 buckets.
    EXPECT_EQ(ASOrchMergeHashFunc(&hdl, 2, &v), c.buckets == 8192 ? c.expect : ASOrchMergeHashFunc(&hdl, 7, &v));
}

INSTANTIATE_TEST_SUITE_P(Values, BucketTest, ::testing::ValuesIn(kBuckets),
                         ByName());

TEST(MergeHash, TypeTwoUsesDefaultBuckets) {
    ASOrchMergeRec recs[2] = {{0, nullptr, 0, nullptr}, {0, nullptr, 0, nullptr}};
    ASOrchHandle hdl{};
    hdl.mergeHandle = recs;
    ASOrchMergeMsgVec v{0, 0, nullptr, 0, nullptr, 0, 0, &hdl};
    EXPECT_EQ(ASOrchMergeHashFunc(&hdl, 2, &v), 1950u);
    EXPECT_EQ(ASOrchMergeHashFunc(&hdl, 0, &v), 1493338014u);
}

struct CmpCase {
    const char *name;
    ASOrchMergeMsgVec b;  // compared with {5, op 0, "abcde", version 3}
    uint32_t same;
};

uint8_t g_keyA[] = {'a', 'b', 'c', 'd', 'e'};
uint8_t g_keyB[] = {'a', 'b', 'c', 'd', 'e'};
uint8_t g_keyC[] = {'a', 'b', 'c', 'd', 'X'};

const CmpCase kCmps[] = {
    {"EqualBytesElsewhere", {5, 1, g_keyB, 5, g_keyC, 9, 3, nullptr}, 1},
    {"OtherMsgId", {6, 0, g_keyB, 5, nullptr, 0, 3, nullptr}, 0},
    {"OtherVersion", {5, 0, g_keyB, 5, nullptr, 0, 4, nullptr}, 0},
    {"OtherSize", {5, 0, g_keyB, 4, nullptr, 0, 3, nullptr}, 0},
    {"FifthByte", {5, 0, g_keyC, 5, nullptr, 0, 3, nullptr}, 0},
};

class CmpTest : public ::testing::TestWithParam<CmpCase> {};

TEST_P(CmpTest, KeyIdentity) {
    ASOrchMergeMsgVec a{5, 0, g_keyA, 5, nullptr, 0, 3, nullptr};
    EXPECT_EQ(ASOrchPubCmpFunc(&a, &GetParam().b), GetParam().same);
    EXPECT_EQ(ASOrchPubGetKeyPtr(&a), &a);
}

INSTANTIATE_TEST_SUITE_P(Keys, CmpTest, ::testing::ValuesIn(kCmps),
                         ByName());

TEST(MergeHash, FifthByteKeysShareBucket) {
    ASOrchMergeMsgVec a{5, 0, g_keyA, 5, nullptr, 0, 3, nullptr};
    ASOrchMergeMsgVec c{5, 0, g_keyC, 5, nullptr, 0, 3, nullptr};
    EXPECT_EQ(ASOrchMergeHashFunc(nullptr, 9, &a), ASOrchMergeHashFunc(nullptr, 9, &c));
}

}  // namespace
