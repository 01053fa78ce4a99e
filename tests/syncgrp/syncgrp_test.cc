// Sync groups through ASOrchRegBase: the items, message sets and flow control
// the EAL receives per configured kinds, threads and advanced settings; then
// sending by kind and feeding delivered data into the merge layer.
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "qov_utils_eal.h"
#include "support/reg_env.h"
#include "syncgrp/syncgrp_internal.h"

namespace {

using qovtest::Calls;
using qovtest::HasLine;

class SyncGrp : public qovtest::HostTest {
protected:
    void SetUp() override {
        HostTest::SetUp();
        hdl_ = qovtest::Create("orchS");
        ASSERT_NE(hdl_, nullptr);
    }
    void TearDown() override {
        qovtest::Destroy(hdl_);
        EXPECT_EQ(qovtest::AllocOutstanding(), 0);
        HostTest::TearDown();
    }
    // Registers with message sets 0x10 + k for the given kinds.
    uint32_t Reg(std::vector<uint32_t> kinds, uint32_t mask) {
        ASOrchBasePara b = qovtest::ValidBase();
        b.threadMask = mask;
        b.syncGrpMsgSet[0] = 0;
        for (uint32_t k : kinds) b.syncGrpMsgSet[k] = 0x10 + k;
        QovHostJournalClear();
        return ASOrchRegBase(hdl_, &b);
    }
    ASOrchHandle *hdl_ = nullptr;
};

// Kinds in ascending order; per group its logic and comm thread (none: the step fails).
struct GroupCase {
    const char *name;
    std::vector<uint32_t> kinds;
    uint32_t mask;
    std::vector<std::pair<uint32_t, uint32_t>> threads;
};

class Groups : public SyncGrp, public ::testing::WithParamInterface<GroupCase> {};

TEST_P(Groups, ConfiguredKindsGetConsecutiveIdsAndThreadsFollowTheMask) {
    const GroupCase &c = GetParam();
    ASSERT_EQ(Reg(c.kinds, c.mask), c.threads.empty() ? 1u : 0u);
    if (c.threads.empty()) {
        EXPECT_TRUE(HasLine("Calc SyncGroup Fail."));
        EXPECT_EQ(QovHostJournalCountOf("QOV_EAL_RegSyncGroup"), 0u);
        int d = 0;
        EXPECT_EQ(ASOrchSyncMsgToGrp(hdl_, 0, &d), 1u);
        EXPECT_TRUE(HasLine("orchS, Orch autosync msg Fail, syncGrpRes is Null")) << "the step keeps nothing";
        return;
    }
    auto reg = Calls("QOV_EAL_RegSyncGroup");
    auto sets = Calls("QOV_EAL_RegSyncGrpMsgSet");
    ASSERT_EQ(reg.size(), 1u);
    ASSERT_EQ(reg[0].recLen, c.kinds.size() * sizeof(ASOrchSyncGrpItem));
    ASSERT_EQ(sets.size(), c.kinds.size());
    for (uint32_t i = 0; i < c.kinds.size(); ++i) {
        ASOrchSyncGrpItem want = g_qovOrchAutoSyncGrpParam[c.kinds[i]], got;
        want.grpId = i;
        std::tie(want.logicThreadId, want.commThreadId) = c.threads[i];
        memcpy(&got, reg[0].rec + i * sizeof got, sizeof got);
        EXPECT_EQ(memcmp(&got, &want, sizeof got), 0) << "group " << i;
        EXPECT_EQ(sets[i].arg[1], i) << "message sets in kind order, under the assigned ids";
        EXPECT_EQ(sets[i].arg[2], 0x10u + c.kinds[i]);
    }
    // Without settings only kind 0 gets flow control, with the default record.
    auto flow = Calls("QOV_EAL_SetSyncGrpFlowCtl");
    ASOrchSyncGrpFlowCtl def{{0, 0, 0, 0, 0, 0, 65536, 51200, 25600, 0, 0, 0}};
    ASSERT_EQ(flow.size(), 1u);
    EXPECT_EQ(flow[0].arg[1], 0u);
    EXPECT_EQ(memcmp(flow[0].rec, &def, sizeof def), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, Groups,
    ::testing::Values(GroupCase{"Kind0DataOnly", {0}, 1, {{0, 0}}},
                      GroupCase{"Kinds03DataSync", {0, 3}, 3, {{0, 1}, {0, 2}}},  // kind 3 keeps comm 2
                      GroupCase{"AllKindsDataEvent", {0, 1, 2, 3}, 5, {{0, 0}, {0, 0}, {2, 2}, {2, 2}}},
                      GroupCase{"AllKindsAllThreads", {0, 1, 2, 3}, 7, {{0, 1}, {0, 1}, {2, 1}, {2, 2}}},
                      GroupCase{"Kinds02DataOnly", {0, 2}, 1, {{0, 0}, {0, 0}}},
                      GroupCase{"NoKind0", {1}, 7, {}}),
    qovtest::RowName());

void Notify() {}

TEST_F(SyncGrp, AdvancedSettingsReachTheirKindsOnly) {
    ASOrchSyncGrpFlowCtl fc{};
    for (uint32_t i = 0; i < 12; ++i) fc.word[i] = 100 + i;
    EXPECT_EQ(ASOrchAdvSetSynGrpVerifyInterVal(hdl_, 4, 1), 1u);
    EXPECT_EQ(ASOrchAdvSetSynGrpNotifyFunc(hdl_, 4, Notify), 1u);
    EXPECT_EQ(ASOrchAdvSetSynGrpFlowCtrl(hdl_, 4, &fc), 1u);
    EXPECT_EQ(ASOrchAdvSetSynGrpFlowCtrl(hdl_, 1, nullptr), 1u);
    EXPECT_EQ(ASOrchAdvSetSynGrpVerifyInterVal(nullptr, 0, 1), 1u);
    ASSERT_EQ(ASOrchAdvSetSynGrpVerifyInterVal(hdl_, 1, 500), 0u);
    ASSERT_EQ(ASOrchAdvSetSynGrpNotifyFunc(hdl_, 0, Notify), 0u);
    ASSERT_EQ(ASOrchAdvSetSynGrpFlowCtrl(hdl_, 3, &fc), 0u);
    ASSERT_EQ(ASOrchAdvSetSynGrpFlowCtrl(hdl_, 2, &fc), 0u);  // kind 2 is not configured: no call
    ASSERT_EQ(Reg({0, 1, 3}, 7), 0u);

    auto reg = Calls("QOV_EAL_RegSyncGroup");
    ASSERT_EQ(reg.size(), 1u);
    ASOrchSyncGrpItem items[3];
    ASSERT_EQ(reg[0].recLen, sizeof items);
    memcpy(items, reg[0].rec, sizeof items);
    EXPECT_EQ(items[0].notifyFunc, &Notify);
    EXPECT_EQ(items[0].verifyInterval, 2000u);
    EXPECT_EQ(items[1].verifyInterval, 500u);
    EXPECT_EQ(items[1].notifyFunc, nullptr);
    EXPECT_EQ(items[2].notifyFunc, nullptr);

    auto flow = Calls("QOV_EAL_SetSyncGrpFlowCtl");
    ASSERT_EQ(flow.size(), 2u);
    EXPECT_EQ(flow[0].arg[1], 0u);
    EXPECT_EQ(flow[1].arg[1], 2u) << "kind 3 got id 2";
    EXPECT_EQ(memcmp(flow[1].rec, &fc, sizeof fc), 0);
}

TEST_F(SyncGrp, RefusedGroupsAreLoggedAndTheStepGoesOn) {
    QovHostFailNext("QOV_EAL_RegSyncGroup", 1, 9);
    ASSERT_EQ(Reg({0}, 1), 0u);
    EXPECT_TRUE(HasLine("QOV_EAL reg SyncGroup Fail."));
    EXPECT_TRUE(HasLine("orchS, Sync group set base group fail."));
    EXPECT_EQ(QovHostJournalCountOf("QOV_EAL_RegSyncGrpMsgSet"), 1u);
}

// Sending once kinds 0 and 3 have ids 0 and 1 (grpNum 2): data and count
// reach the kind's group; an unknown kind or a null handle sends nothing.
TEST_F(SyncGrp, SendingAddressesTheKindsGroup) {
    int d = 0;
    EXPECT_EQ(ASOrchSyncMsgToGrp(hdl_, 0, &d), 1u) << "before registration";
    EXPECT_TRUE(HasLine("orchS, Orch autosync msg Fail, syncGrpRes is Null"));
    ASSERT_EQ(Reg({0, 3}, 1), 0u);
    EXPECT_EQ(ASOrchSyncMsg(hdl_, 3, &d), 0u);
    EXPECT_EQ(ASOrchSyncBatchMsg(hdl_, 0, &d, 10), 0u);
    EXPECT_EQ(ASOrchSyncMsgToGrp(hdl_, 0, &d), 1u) << "group 2 is not registered on the host";
    EXPECT_EQ(ASOrchSyncMsg(hdl_, 4, &d), 1u);
    EXPECT_EQ(ASOrchSyncMsg(hdl_, 1, &d), 1u);
    EXPECT_EQ(ASOrchSyncMsg(nullptr, 0, &d), 1u);
    EXPECT_EQ(ASOrchSyncMsgToGrp(nullptr, 0, &d), 1u);
    auto sent = Calls("QOV_EAL_SyncMsg");
    ASSERT_EQ(sent.size(), 3u);
    const uint64_t grpCount[][2] = {{1, 1}, {0, 10}, {2, 1}};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(sent[i].arg[1], grpCount[i][0]) << i;
        EXPECT_EQ(sent[i].arg[2], reinterpret_cast<uintptr_t>(&d)) << i;
        EXPECT_EQ(sent[i].arg[3], grpCount[i][1]) << i;
    }
    for (const char *line : {"orchS, Orch autosync msg Fail, sync groupid Fail msgType = 4",
                             "orchS, Orch autosync msg Fail, sync groupid Fail msgType = 1",
                             "UNKONWN, Orch autosync msg Fail, sync groupid Fail msgType = 0",  // sic
                             "UNKONWN, Orch autosync msg Fail, sync group res is NULL"})
        EXPECT_TRUE(HasLine(line)) << line;
    QovHostFailNext("QOV_EAL_IsSyncReadyOnlyTarn", 1, 1);  // the host answers 1 only for a linked peer
    EXPECT_EQ(ASOrchSyncIsSyncReadyOnlyTarn(hdl_, 0), 1u) << "the EAL's answer is passed through";
    EXPECT_EQ(ASOrchSyncIsSyncReadyOnlyTarn(hdl_, 2), 0u);
    auto ready = Calls("QOV_EAL_IsSyncReadyOnlyTarn");
    ASSERT_EQ(ready.size(), 1u) << "an unconfigured kind asks nothing";
    EXPECT_EQ(ready[0].arg[1], 0u);
}

// Each delivered item goes through the template; a refused one keeps its
// result word and the rest go on.
TEST_F(SyncGrp, MergeSyncGrpDatasReportsPerItem) {
    ASSERT_EQ(Reg({0}, 1), 0u);
    uint8_t a[] = "a-entry", refused[] = "!-entry", c[] = "c-entry";
    ASOrchSyncGrpData items[] = {{a, 7, 9}, {refused, 7, 9}, {c, 7, 9}};
    ASOrchMergeMsgVec tmpl{100, 0, nullptr, 1, nullptr, 6, 0, nullptr};
    ASOrchMergeSyncGrpDatas(3, items, &tmpl, AS_ORCH_MERGE_DAM_DIRECT, hdl_);
    EXPECT_EQ(items[0].result, 0u);
    EXPECT_EQ(items[1].result, 0x00010004u);
    EXPECT_EQ(items[2].result, 0u);
    EXPECT_EQ(items[1].rsv, 7u);
    EXPECT_EQ(qovtest::CountLine("MergeSyncGrpDatas error, i = 1. msgId 100."), 1u);
    EXPECT_EQ(tmpl.key, c);
    EXPECT_EQ(tmpl.data, c);
    ASOrchMergeSyncGrpDatas(0, nullptr, nullptr, 0, hdl_);  // nothing to do
}

}  // namespace
