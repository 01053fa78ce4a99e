// Step "MergeMQue": which paths get records, queues and monitors, and that a
// failure anywhere leaves no merge state and no memory behind.
#include "merge_fixture.h"

namespace {

using mergetest::DamPara;
using mergetest::FesPara;
using mergetest::MergeTest;
using qovtest::HasLine;

MergeQueCtrlBlk *Recs0Que(ASOrchHandle *hdl) { return ASOrchGetReaderHdl(hdl, 0); }

TEST_F(MergeTest, BothPathsGetQueueTableAndMonitor) {
    ASSERT_EQ(Reg(DamPara(), FesPara()), 0u);
    ASSERT_NE(hdl_->mergeHandle, nullptr);
    for (uint32_t path = 0; path < 2; ++path) {
        const ASOrchMergeRec &r = Recs()[path];
        EXPECT_EQ(r.epFd, ASOrchGetEpollFd(hdl_, 0));
        EXPECT_NE(r.mergeQue, nullptr);
        EXPECT_NE(r.dispatchHash, nullptr);
        EXPECT_NE(ASIntHashFind(r.dispatchHash, 100), nullptr);
        EXPECT_NE(ASIntHashFind(r.dispatchHash, 101), nullptr);
        EXPECT_EQ(ASOrchGetReaderHdl(hdl_, path), r.mergeQue);
    }
    EXPECT_EQ(Recs()[0].hashSize, 64u);
    EXPECT_EQ(Recs()[1].hashSize, 8192u) << "hashSize 0 means 8192";
    for (const char *line : {"orchM, 0 Orch auto sync create merge handle ok.",
                             "orchM, orchM_DAM Register Orch autosync create MQUE ok",
                             "orchM, 0 Register Orch autosync FES MQUE Monitor ok",
                             "orchM, 1 Orch auto sync create merge handle ok.",
                             "orchM, orchM_FES Register Orch autosync create MQUE ok",
                             "orchM, 1 Register Orch autosync FES MQUE Monitor ok"})
        EXPECT_TRUE(HasLine(line)) << line;
}

TEST_F(MergeTest, OnlyFesValidLeavesDamRecordZero) {
    ASOrchMergePara dam = DamPara();
    dam.hashFunc = nullptr;  // not valid: skipped without a message
    ASSERT_EQ(Reg(dam, FesPara()), 0u);
    const ASOrchMergeRec &r0 = Recs()[0];
    EXPECT_EQ(r0.mergeQue, nullptr);
    EXPECT_EQ(r0.dispatchHash, nullptr);
    EXPECT_EQ(r0.hashSize, 0u);
    EXPECT_NE(Recs()[1].mergeQue, nullptr);
    EXPECT_FALSE(HasLine("orchM, 0 Orch auto sync create merge handle ok."));
    EXPECT_EQ(Put(AS_ORCH_MERGE_DAM_TAIL, 100, 0, "k"), 1u) << "no DAM queue";
}

struct InvalidCase {
    const char *name;
    ASOrchMergePara (*make)();
};

const InvalidCase kInvalid[] = {
    {"NoTable", [] { ASOrchMergePara p = DamPara(); p.dispatchTbl = nullptr; return p; }},
    {"NoCount", [] { ASOrchMergePara p = DamPara(); p.dispatchNum = 0; return p; }},
    {"NoHash", [] { ASOrchMergePara p = DamPara(); p.hashFunc = nullptr; return p; }},
};

class InvalidParaTest : public MergeTest, public ::testing::WithParamInterface<InvalidCase> {};

TEST_P(InvalidParaTest, NeitherValidSucceedsWithoutBlock) {
    ASOrchMergePara p = GetParam().make();
    EXPECT_EQ(ASOrchMergeIsValid(&p), 0u);
    QovHostLogClear();
    EXPECT_EQ(Reg(p, p), 0u);
    EXPECT_EQ(hdl_->mergeHandle, nullptr);
    EXPECT_EQ(QovHostLogCount(), 0u);
    EXPECT_EQ(ASOrchGetReaderHdl(hdl_, 0), nullptr);
    EXPECT_EQ(ASOrchMergeBackPress(hdl_, 0), 1u);
}

INSTANTIATE_TEST_SUITE_P(Paras, InvalidParaTest, ::testing::ValuesIn(kInvalid),
                         [](const ::testing::TestParamInfo<InvalidCase> &p) { return std::string(p.param.name); });

// A failing FES path takes the DAM path down with it.
struct FailCase {
    const char *name;
    void (*arrange)(ASOrchMergePara *fes);
    const char *line;
};

ASOrchMergeMsgDispatch g_dupTbl[2] = {{7, {}}, {7, {}}};

const FailCase kFails[] = {
    {"DuplicateMsgId", [](ASOrchMergePara *f) { f->dispatchTbl = g_dupTbl; }, "orchM, merge failed to add hashNode(7)"},
    {"MonitorRefused",
     [](ASOrchMergePara *f) {
         f->highWater = 5000;  // low water defaults to 8192
         f->lowWater = 0;
     },
     "orchM, 1 Register Orch autosync DAM MQUE Monitor fail"},
    {"NameTaken", [](ASOrchMergePara *) {}, "orchM, orchM_FES Register Orch autosync create MQUE fail"},
};

class FesFailTest : public MergeTest, public ::testing::WithParamInterface<FailCase> {};

TEST_P(FesFailTest, StepFailsAndReleasesBothPaths) {
    const FailCase &c = GetParam();
    ASOrchMergePara fes = FesPara();
    c.arrange(&fes);
    MergeQueCreatePara qp{qovtest::TestAlloc, qovtest::TestFree, 0, sizeof(ASOrchMergeMsgVec), 16,
                          mergetest::FesHash, ASOrchPubCmpFunc, ASOrchGetEpollFd(hdl_, 0), ASOrchPubGetKeyPtr,
                          nullptr, nullptr};
    MergeQueCtrlBlk *squatter = std::string(c.name) == "NameTaken" ? QOV_MergeQueCreate("orchM_FES", &qp) : nullptr;
    int64_t before = qovtest::AllocOutstanding();

    EXPECT_EQ(Reg(DamPara(), fes), 1u);
    EXPECT_TRUE(HasLine(c.line)) << c.line;
    EXPECT_TRUE(HasLine("orchM, Orch auto sync free merge handle ok."));
    EXPECT_EQ(hdl_->mergeHandle, nullptr);
    EXPECT_EQ(qovtest::AllocOutstanding(), before);
    // The DAM queue is gone: its name is free again.
    MergeQueCtrlBlk *dam = QOV_MergeQueCreate("orchM_DAM", &qp);
    EXPECT_NE(dam, nullptr);
    QOV_MergeQueDestory(dam);
    QOV_MergeQueDestory(squatter);
}

INSTANTIATE_TEST_SUITE_P(Fes, FesFailTest, ::testing::ValuesIn(kFails),
                         [](const ::testing::TestParamInfo<FailCase> &p) { return std::string(p.param.name); });

TEST_F(MergeTest, DuplicateMsgIdLogsTheChain) {
    ASOrchMergePara dam = DamPara();
    dam.dispatchTbl = g_dupTbl;
    EXPECT_EQ(Reg(dam, FesPara()), 1u);
    size_t at = 0;
    for (const char *line : {"orchM, merge failed to add hashNode(7)", "orchM, Orch auto sync create merge msg hash Fail",
                             "orchM, init auto sync merge msgMerge failed.", "orchM, 0 init auto sync merge handle failed.",
                             "orchM, Orch auto sync free merge handle ok."}) {
        at = qovtest::FindLine(line, at);
        EXPECT_NE(at, std::string::npos) << "missing or out of order: " << line;
    }
    EXPECT_EQ(Recs0Que(hdl_), nullptr);
}

// Fails allocation 1, 2, 3, ... of the step until it succeeds.
TEST_F(MergeTest, EveryAllocationFailureIsCleanAndLeavesNothing) {
    const char *failLines[] = {
        "orchM, 0 malloc auto sync merge handle failed.",       "orchM, Orch auto sync merge msg dispatch hash new Fail",
        "orchM, Orch auto sync merge msg failed to new hashNode", "orchM, orchM_DAM Register Orch autosync create MQUE fail",
        "orchM, orchM_FES Register Orch autosync create MQUE fail",
    };
    uint32_t failures = 0;
    for (uint64_t k = 1; k < 100; ++k) {
        uint64_t base = qovtest::AllocCount();
        int64_t before = qovtest::AllocOutstanding();
        QovHostLogClear();
        qovtest::AllocFailAt(base + k);
        uint32_t ret = Reg(DamPara(), FesPara());
        qovtest::AllocFailAt(0);
        if (ret == 0) break;
        ++failures;
        EXPECT_EQ(hdl_->mergeHandle, nullptr) << "allocation " << k;
        EXPECT_EQ(qovtest::AllocOutstanding(), before) << "allocation " << k;
        bool logged = false;
        for (const char *l : failLines) logged = logged || HasLine(l);
        EXPECT_TRUE(logged) << "allocation " << k;
    }
    EXPECT_EQ(failures, 9u) << "block, then per path: table, 2 nodes, queue";
    EXPECT_NE(hdl_->mergeHandle, nullptr);
}

}  // namespace
