// High/low-water monitor: which source is pressed and released, by role.
#include "merge_fixture.h"
#include "qov_utils_eal.h"
#include "syncgrp/as_syncgrp.h"

namespace {

using mergetest::DamPara;
using mergetest::FesPara;
using mergetest::MergeTest;
using qovtest::Calls;
using qovtest::HasLine;

constexpr char kAdvice[] = "orchM, mb mque high water. suggest config syncGrp sync thread";

class MonitorTest : public MergeTest {
protected:
    // Both paths with high water 4 and low water 2.
    void RegLowMarks() {
        ASOrchMergePara dam = DamPara();
        ASOrchMergePara fes = FesPara();
        dam.highWater = fes.highWater = 4;
        dam.lowWater = fes.lowWater = 2;
        ASSERT_EQ(Reg(dam, fes), 0u);
    }
    void RegChannels() {
        for (uint32_t idx : {0u, 1u}) {
            QOV_EAL_ChanPara cp{};
            cp.chanIdx = idx;
            ASSERT_EQ(QOV_EAL_RegUcChannel(hdl_->ealHdl, &cp, 1), 0u);
        }
    }
    void GiveSyncGroup(uint32_t grpId) {
        auto *res = static_cast<ASOrchSyncGrpRes *>(hdl_->memAlloc(sizeof(ASOrchSyncGrpRes)));
        ASSERT_NE(res, nullptr);
        *res = {1, 1, {grpId, AS_SYNC_GRP_ID_NONE, AS_SYNC_GRP_ID_NONE, AS_SYNC_GRP_ID_NONE}};
        hdl_->syncGrpRes = res;
        QOV_EAL_SyncGrpItem item{};
        item.grpId = grpId;
        ASSERT_EQ(QOV_EAL_RegSyncGroup(hdl_->ealHdl, &item, 1), 0u);
    }
    // Five new keys cross high water 4; reading them all falls under 2.
    void Overload(uint32_t path) {
        for (int i = 0; i < 5; ++i) ASSERT_EQ(Put(path, 100, 0, "k" + std::to_string(i)), 0u);
    }
    void Drain() {
        while (Turn() > 0) {
        }
    }
};

struct MbCase {
    uint32_t path;
    uint32_t threadMask;
    bool advice;
};

class MbMonitorTest : public MonitorTest, public ::testing::WithParamInterface<MbCase> {};

TEST_P(MbMonitorTest, PressesAndReleasesThePathChannel) {
    const MbCase &c = GetParam();
    RegChannels();
    RegLowMarks();
    hdl_->threadMask = c.threadMask;
    void *chan = QOV_EAL_GetChannelHdl(hdl_->ealHdl, c.path);
    QovHostJournalClear();
    QovHostLogClear();

    Overload(c.path);
    auto press = Calls("QOV_CHAN_BackPress");
    ASSERT_EQ(press.size(), 1u);
    EXPECT_EQ(press[0].arg[0], reinterpret_cast<uint64_t>(chan));
    EXPECT_TRUE(HasLine("Orch autosync MQUE monitor : 0, channelId " + std::to_string(c.path) + "."));
    EXPECT_EQ(HasLine(kAdvice), c.advice);
    EXPECT_TRUE(Calls("QOV_CHAN_UnBackPress").empty());

    Drain();
    auto release = Calls("QOV_CHAN_UnBackPress");
    ASSERT_EQ(release.size(), 1u);
    EXPECT_EQ(release[0].arg[0], reinterpret_cast<uint64_t>(chan));
    EXPECT_TRUE(Calls("QOV_EAL_SyncBackPress").empty());
}

INSTANTIATE_TEST_SUITE_P(Paths, MbMonitorTest,
                         ::testing::Values(MbCase{0, 1, true}, MbCase{1, 1, true}, MbCase{0, 3, false},
                                           MbCase{1, 7, false}));

class SyncMonitorTest : public MonitorTest, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(SyncMonitorTest, OutsideMbPressesSyncGroupKindZero) {
    QovHostSetRoleMb(0);
    RegLowMarks();
    GiveSyncGroup(2);
    QovHostJournalClear();
    Overload(GetParam());
    auto press = Calls("QOV_EAL_SyncBackPress");
    ASSERT_EQ(press.size(), 1u);
    EXPECT_EQ(press[0].arg[1], 2u);
    EXPECT_FALSE(HasLine(kAdvice));
    Drain();
    auto release = Calls("QOV_EAL_SyncUnBackPress");
    ASSERT_EQ(release.size(), 1u);
    EXPECT_EQ(release[0].arg[1], 2u);
    EXPECT_TRUE(Calls("QOV_CHAN_BackPress").empty());
}

INSTANTIATE_TEST_SUITE_P(Paths, SyncMonitorTest, ::testing::Values(0u, 1u));

TEST_F(MonitorTest, OutsideMbWithoutSyncGroupFails) {
    QovHostSetRoleMb(0);
    EXPECT_EQ(ASOrchMonitorHighWater(hdl_, 0), 1u);
    EXPECT_TRUE(HasLine("orchM, Orch autosync msg Fail, syncGrpRes is Null"));
    EXPECT_TRUE(HasLine("orchM, Orch autosync sync group res is NULL"));
    EXPECT_TRUE(HasLine("orchM, Monitor HighWater sync groupid Fail"));
    EXPECT_EQ(ASOrchMonitorLowWater(hdl_, 1), 1u);
    EXPECT_TRUE(HasLine("orchM, Monitor LowWater sync groupid Fail"));
    EXPECT_TRUE(Calls("QOV_EAL_SyncBackPress").empty());
}

TEST_F(MonitorTest, PlatformResultPassedThrough) {
    RegChannels();
    QovHostFailNext("QOV_CHAN_BackPress", 1, 7);
    EXPECT_EQ(ASOrchMergeDamMonitorProc(0, reinterpret_cast<uint64_t>(hdl_)), 7u);
}

TEST_F(MonitorTest, OddEventsAndNullUser) {
    EXPECT_EQ(ASOrchMergeFesMonitorProc(2, reinterpret_cast<uint64_t>(hdl_)), 0u);
    EXPECT_TRUE(HasLine("Orch autosync MQUE monitor : 2, channelId 1."));
    EXPECT_TRUE(HasLine("Orch autosync MQUE Monitor error evtType : 2, channelId 1."));
    EXPECT_EQ(ASOrchMergeDamMonitorProc(0, 0), 1u);
    EXPECT_TRUE(HasLine("Orch autosync MQue Monitor error usrData is NULL"));
}

struct CfgCase {
    uint32_t high, low, type;
    uint32_t wantHigh, wantLow;
    MergeQueFlowCtrlNotify notify;
};

class CfgTest : public ::testing::TestWithParam<CfgCase> {};

TEST_P(CfgTest, MarksAndNotify) {
    const CfgCase &c = GetParam();
    MergeQueMonitorAttr attr{AS_MERGE_DEF_HIGH_WATER, AS_MERGE_DEF_LOW_WATER, 0, nullptr};
    ASOrchMergePara p{};
    p.highWater = c.high;
    p.lowWater = c.low;
    ASOrchMQueCfgFlowCtl(&attr, &p, c.type);
    EXPECT_EQ(attr.highWater, c.wantHigh);
    EXPECT_EQ(attr.lowWater, c.wantLow);
    EXPECT_EQ(attr.flowCtrlNotify, c.notify);
}

INSTANTIATE_TEST_SUITE_P(Marks, CfgTest,
                         ::testing::Values(CfgCase{0, 0, 0, 65536, 8192, ASOrchMergeDamMonitorProc},
                                           CfgCase{100, 10, 1, 100, 10, ASOrchMergeFesMonitorProc},
                                           CfgCase{5000, 0, 7, 5000, 8192, ASOrchMergeFesMonitorProc}));

TEST_F(MonitorTest, SyncGroupIdLookups) {
    QovHostLogClear();
    EXPECT_EQ(ASOrchGetSyncGrpId(hdl_, 4), AS_SYNC_GRP_ID_NONE);
    EXPECT_EQ(QovHostLogCount(), 0u) << "a kind past 3 is refused without a line";
    EXPECT_EQ(ASOrchGetSyncGrpId(nullptr, 0), AS_SYNC_GRP_ID_NONE);
    EXPECT_TRUE(HasLine("UNKONWN, Orch autosync msg Fail, handle is Null"));
    EXPECT_TRUE(HasLine("UNKONWN, Orch autosync sync group res is NULL"));
    GiveSyncGroup(3);
    EXPECT_EQ(ASOrchGetSyncGrpId(hdl_, 0), 3u);
    EXPECT_EQ(ASOrchGetSyncGrpId(hdl_, 2), AS_SYNC_GRP_ID_NONE);
    EXPECT_EQ(ASOrchGroupGetRes(hdl_), hdl_->syncGrpRes);
}

}  // namespace
