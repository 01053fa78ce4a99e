// Rule table over every pair of ops, bucket values, key identity.
#include <algorithm>

#include "merge_fixture.h"

namespace {

using qovtest::HasLine;

// Row = stored op, column = incoming op: the op the entry ends with, and
// whether the pair has a row (R), no row (E) or is age info (A).
constexpr uint32_t kMerged[4][4] = {{0, 1, 2, 3}, {2, 1, 2, 3}, {2, 1, 2, 3}, {0, 1, 2, 3}};
constexpr char kKind[4][5] = {"RREA", "RREA", "RREA", "EEEA"};

class RuleTest : public mergetest::MergeTest, public ::testing::WithParamInterface<std::tuple<uint32_t, uint32_t>> {};

// A queued entry met by a second write of its key: the handler sees the merged
// op once, and the first write's buffer goes at the merge.
TEST_P(RuleTest, QueuedEntryEndsWithTheCombinedOp) {
    auto [st, in] = GetParam();
    const char kind = kKind[st][in];
    uint32_t merged = 0xAA;
    EXPECT_EQ(ASOrchGetMergeRule(st, in, &merged), kind == 'R' ? 0u : 1u);
    EXPECT_EQ(merged, kind == 'R' ? kMerged[st][in] : 0xAAu) << "nothing written without a row";

    ASSERT_EQ(Reg(mergetest::DamPara(), mergetest::FesPara()), 0u);
    const int64_t base = qovtest::AllocOutstanding();
    ASSERT_EQ(Put(AS_ORCH_MERGE_DAM, 100, st, "k", "stored"), 0u);
    ASSERT_EQ(Put(AS_ORCH_MERGE_DAM, 100, in, "k", "incoming"), 0u);
    EXPECT_EQ(qovtest::AllocOutstanding(), base + 1);
    Drain();
    ASSERT_EQ(mergetest::g_seen.size(), 1u);
    EXPECT_EQ(mergetest::g_seen[0].opType, kMerged[st][in]);
    EXPECT_EQ(qovtest::AllocOutstanding(), base);
    EXPECT_EQ(HasLine("Orch autosync merge notify is ageinfo error, msgId 100"), kind == 'A');
    EXPECT_EQ(HasLine("Orch autosync merge notify get rule error"), kind == 'E');
}

INSTANTIATE_TEST_SUITE_P(AllPairs, RuleTest, ::testing::Combine(::testing::Range(0u, 4u), ::testing::Range(0u, 4u)),
                         [](const auto &p) {
                             return "Stored" + std::to_string(std::get<0>(p.param)) + "Incoming" +
                                    std::to_string(std::get<1>(p.param));
                         });

// Buckets of a handle whose DAM path has hashSize buckets (or is not set up:
// no modulo). Bucket counts of every kind, and keys long enough for whole
// rounds of four words and a tail, check the modulo that takes no division.
struct BucketCase {
    const char *name;
    std::vector<uint8_t> key;
    uint32_t msgId, version, mergeType;
    bool damSetUp;
    uint32_t expect;
    uint32_t hashSize = 8192;
};

const std::vector<uint8_t> kKey16 = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
const std::vector<uint8_t> kKey20 = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20};

void PrintTo(const BucketCase &c, std::ostream *os) { *os << c.name; }

class BucketTest : public mergetest::MergeTest, public ::testing::WithParamInterface<BucketCase> {};

TEST_P(BucketTest, KnownValues) {
    const BucketCase &c = GetParam();
    ASOrchMergePara dam = mergetest::DamPara();
    dam.hashSize = c.hashSize;
    if (!c.damSetUp) dam.hashFunc = nullptr;
    ASSERT_EQ(Reg(dam, mergetest::FesPara()), 0u);
    std::vector<uint8_t> buf(c.key.size() + 1);  // key at an odd address
    std::copy(c.key.begin(), c.key.end(), buf.begin() + 1);
    ASOrchMergeMsgVec v{c.msgId, 0, buf.data() + 1, c.key.size(), nullptr, 0, c.version, hdl_};
    EXPECT_EQ(ASOrchMergeHashFunc(hdl_, c.mergeType, &v), c.expect);
}

INSTANTIATE_TEST_SUITE_P(
    Values, BucketTest,
    ::testing::Values(BucketCase{"EmptyKey", {}, 0, 0, 0, true, 1950}, BucketCase{"EmptyKeyMsgId1", {}, 1, 0, 0, true, 1951},
                      BucketCase{"FourByteKey", {1, 0, 0, 0}, 0, 0, 0, true, 6221},
                      BucketCase{"EightByteKeyVersion2", {1, 2, 3, 4, 5, 6, 7, 8}, 7, 2, 0, true, 7740},
                      BucketCase{"TrailingByteIgnored", {1, 2, 3, 4, 5, 6, 7, 8, 9}, 7, 2, 0, true, 7740},
                      BucketCase{"ShortKeyIgnored", {9, 9, 9}, 0, 0, 0, true, 1950},
                      BucketCase{"PathNotSetUpNoModulo", {}, 0, 0, 0, false, 1493338014u},
                      BucketCase{"Type2Always8192", {}, 0, 0, 2, false, 1950},
                      BucketCase{"SevenBuckets", {}, 0, 0, 0, true, 0, 7},
                      BucketCase{"SixteenByteKeySevenBuckets", kKey16, 3, 1, 0, true, 5, 7},
                      BucketCase{"TwentyByteKeySevenBuckets", kKey20, 3, 1, 0, true, 1, 7},
                      BucketCase{"SixteenByteKeyOddBuckets", kKey16, 3, 1, 0, true, 15843, 24000},
                      BucketCase{"TwentyByteKeyPrimeBuckets", kKey20, 3, 1, 0, true, 20543, 65537},
                      BucketCase{"OneBucket", kKey20, 3, 1, 0, true, 0, 1},
                      BucketCase{"FourMillionBuckets", kKey16, 3, 1, 0, true, 755485, 4000037}),
    qovtest::RowName());

TEST(MergeKey, IdentityIsMsgIdVersionSizeAndBytes) {
    uint8_t a[] = "abcde", same[] = "abcde", fifth[] = "abcdX";
    ASOrchMergeMsgVec va{5, 0, a, 5, nullptr, 0, 3, nullptr};
    const ASOrchMergeMsgVec others[] = {{5, 1, same, 5, fifth, 9, 3, nullptr}, {6, 0, same, 5, nullptr, 0, 3, nullptr},
                                        {5, 0, same, 5, nullptr, 0, 4, nullptr}, {5, 0, same, 4, nullptr, 0, 3, nullptr},
                                        {5, 0, fifth, 5, nullptr, 0, 3, nullptr}};
    const uint32_t equal[] = {1, 0, 0, 0, 0};
    for (size_t i = 0; i < 5; ++i) EXPECT_EQ(ASOrchPubCmpFunc(&va, &others[i]), equal[i]) << i;
    EXPECT_EQ(ASOrchMergeHashFunc(nullptr, 0, &va), ASOrchMergeHashFunc(nullptr, 0, &others[4]))
        << "keys differing in the fifth byte share a bucket";
}

}  // namespace
