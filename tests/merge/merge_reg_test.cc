// Step "MergeMQue": which paths get set up, and that any failure leaves no
// merge state and no memory behind.
#include "merge_fixture.h"

namespace {

using mergetest::DamPara;
using mergetest::FesPara;
using mergetest::MergeTest;
using qovtest::HasLine;

// The FES path alone: its queue is read on the Data thread's epoll set and
// dispatches by msgId; the DAM path takes nothing.
TEST_F(MergeTest, OnlyFesValid) {
    ASOrchMergePara dam = DamPara();
    dam.hashFunc = nullptr;
    ASSERT_EQ(Reg(dam, FesPara()), 0u);
    EXPECT_TRUE(HasLine("orchM, orchM_FES Register Orch autosync create MQUE ok"));
    EXPECT_TRUE(HasLine("orchM, 1 Register Orch autosync FES MQUE Monitor ok"));
    EXPECT_EQ(Put(AS_ORCH_MERGE_DAM, 100, 0, "k"), 1u);
    ASSERT_EQ(Put(AS_ORCH_MERGE_FES, 101, 0, "k"), 0u);
    EXPECT_EQ(Drain().size(), 1u);
    ASSERT_EQ(mergetest::g_seen.size(), 1u);
    EXPECT_EQ(mergetest::g_seen[0].msgId, 101u);
    ASOrchMergeMsgVec empty = mergetest::Vec(0, 0, "");
    EXPECT_EQ(ASOrchMergeHashFunc(hdl_, AS_ORCH_MERGE_FES, &empty), 1950u) << "hashSize 0 means 8192";
    EXPECT_EQ(ASOrchMergeHashFunc(hdl_, AS_ORCH_MERGE_DAM, &empty), 1493338014u) << "no buckets: no modulo";
}

TEST_F(MergeTest, NeitherValid) {
    ASOrchMergePara noTbl = DamPara(), noNum = FesPara();
    noTbl.dispatchTbl = nullptr;
    noNum.dispatchNum = 0;
    EXPECT_EQ(Reg(noTbl, noNum), 0u);
    EXPECT_EQ(ASOrchMergeBackPress(hdl_, 0), 1u);
    EXPECT_EQ(Put(AS_ORCH_MERGE_FES, 100, 0, "k"), 1u);
}

struct FailCase {
    const char *name;
    void (*arrange)(ASOrchMergePara *fes);
    const char *line;
};

ASOrchMergeMsgDispatch g_dupTbl[2] = {{7, {}}, {7, {}}};

// A failing FES path takes the working DAM path down with it.
const FailCase kFails[] = {
    {"DuplicateMsgId", [](ASOrchMergePara *f) { f->dispatchTbl = g_dupTbl; }, "orchM, merge failed to add hashNode(7)"},
    {"MonitorRefused", [](ASOrchMergePara *f) { f->highWater = 5000; },  // low water 0 means 8192
     "orchM, 1 Register Orch autosync DAM MQUE Monitor fail"},
    {"NameTaken", nullptr, "orchM, orchM_FES Register Orch autosync create MQUE fail"},
};

class FesFailTest : public MergeTest, public ::testing::WithParamInterface<FailCase> {};

TEST_P(FesFailTest, StepFailsAndReleasesBothPaths) {
    ASOrchMergePara fes = FesPara();
    MergeQueCreatePara qp{qovtest::TestAlloc, qovtest::TestFree, 0, 56, 16, fes.hashFunc, ASOrchPubCmpFunc,
                          ASOrchGetEpollFd(hdl_, 0), ASOrchPubGetKeyPtr, nullptr, nullptr};
    MergeQueCtrlBlk *squatter = nullptr;
    if (GetParam().arrange != nullptr) GetParam().arrange(&fes);
    else squatter = QOV_MergeQueCreate("orchM_FES", &qp);
    int64_t before = qovtest::AllocOutstanding();
    EXPECT_EQ(Reg(DamPara(), fes), 1u);
    EXPECT_TRUE(HasLine(GetParam().line));
    EXPECT_TRUE(HasLine("orchM, Orch auto sync free merge handle ok."));
    EXPECT_EQ(qovtest::AllocOutstanding(), before);
    EXPECT_EQ(ASOrchMergeBackPress(hdl_, 0), 1u) << "no path is left";
    MergeQueCtrlBlk *dam = QOV_MergeQueCreate("orchM_DAM", &qp);
    EXPECT_NE(dam, nullptr) << "the DAM queue's name is free again";
    QOV_MergeQueDestory(dam);
    QOV_MergeQueDestory(squatter);
}

INSTANTIATE_TEST_SUITE_P(Fes, FesFailTest, ::testing::ValuesIn(kFails),
                         qovtest::RowName());

TEST_F(MergeTest, EveryAllocationFailureIsCleanAndLeavesNothing) {
    uint32_t failures = 0;
    for (uint64_t k = 1; k < 100; ++k, ++failures) {
        int64_t before = qovtest::AllocOutstanding();
        QovHostLogClear();
        qovtest::AllocFailAt(qovtest::AllocCount() + k);
        uint32_t ret = Reg(DamPara(), FesPara());
        qovtest::AllocFailAt(0);
        if (ret == 0) break;
        EXPECT_EQ(qovtest::AllocOutstanding(), before) << k;
        auto logs = qovtest::Logs();
        ASSERT_FALSE(logs.empty());
        bool freed = logs.back() == "orchM, Orch auto sync free merge handle ok.";
        EXPECT_TRUE(freed || logs.back() == "orchM, 0 malloc auto sync merge handle failed.") << logs.back();
        EXPECT_EQ(ASOrchMergeBackPress(hdl_, 0), 1u) << "no path is left after allocation " << k;
    }
    EXPECT_EQ(failures, 9u) << "block, then per path: table, 2 nodes, queue";
}

}  // namespace
