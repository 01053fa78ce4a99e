// High/low-water monitor: which source is pressed and then released, by role.
#include "merge_fixture.h"
#include "qov_utils_eal.h"
#include "syncgrp/syncgrp_internal.h"

namespace {

using qovtest::Calls;
using qovtest::HasLine;

constexpr char kAdvice[] = "orchM, mb mque high water. suggest config syncGrp sync thread";

struct Case {
    uint32_t isMb, path, threadMask;
    bool syncGrp;  // give the handle sync group kind 0 (id 2)
    bool destroy;  // destroy the handle while over high water instead of reading
};

class MonitorTest : public mergetest::MergeTest, public ::testing::WithParamInterface<Case> {
protected:
    void Arrange(const Case &c) {
        QovHostSetRoleMb(c.isMb);
        for (uint32_t idx : {0u, 1u}) {
            QOV_EAL_ChanPara cp{};
            cp.chanIdx = idx;
            ASSERT_EQ(QOV_EAL_RegUcChannel(hdl_->ealHdl, &cp, 1), 0u);
        }
        if (c.syncGrp) {
            auto *res = static_cast<ASOrchSyncGrpRes *>(hdl_->memAlloc(sizeof(ASOrchSyncGrpRes)));
            *res = {1, 1, {2, AS_SYNC_GRP_ID_NONE, AS_SYNC_GRP_ID_NONE, AS_SYNC_GRP_ID_NONE}};
            hdl_->syncGrpRes = res;
            QOV_EAL_SyncGrpItem item{};
            item.grpId = 2;
            ASSERT_EQ(QOV_EAL_RegSyncGroup(hdl_->ealHdl, &item, 1), 0u);
        }
        ASOrchMergePara dam = mergetest::DamPara(), fes = mergetest::FesPara();
        dam.highWater = fes.highWater = 4;
        dam.lowWater = fes.lowWater = 2;
        ASSERT_EQ(Reg(dam, fes), 0u);
        hdl_->threadMask = c.threadMask;
        QovHostJournalClear();
    }
};

// Five new keys cross high water 4; reading them all falls under low water 2.
TEST_P(MonitorTest, OverloadPressesSourceAndDrainReleasesIt) {
    const Case &c = GetParam();
    Arrange(c);
    const char *press = c.isMb ? "QOV_CHAN_BackPress" : "QOV_EAL_SyncBackPress";
    const char *release = c.isMb ? "QOV_CHAN_UnBackPress" : "QOV_EAL_SyncUnBackPress";
    // The channel handle, or (eal, group id 2).
    auto target = [&](const QovHostCall &call) { return c.isMb ? call.arg[0] : call.arg[1]; };
    uint64_t want = c.isMb ? reinterpret_cast<uint64_t>(QOV_EAL_GetChannelHdl(hdl_->ealHdl, c.path)) : 2;

    for (int i = 0; i < 5; ++i) ASSERT_EQ(Put(c.path, 100, 0, std::to_string(i)), 0u);
    EXPECT_TRUE(HasLine("Orch autosync MQUE monitor : 0, channelId " + std::to_string(c.path) + "."));
    EXPECT_EQ(HasLine(kAdvice), c.isMb && (c.threadMask & 2) == 0);
    if (!c.isMb && !c.syncGrp) {
        EXPECT_TRUE(HasLine("orchM, Monitor HighWater sync groupid Fail"));
        Drain();
        EXPECT_TRUE(HasLine("orchM, Monitor LowWater sync groupid Fail"));
        return;
    }
    ASSERT_EQ(Calls(press).size(), 1u);
    EXPECT_EQ(target(Calls(press)[0]), want);
    EXPECT_TRUE(Calls(release).empty());
    if (c.destroy) {  // the entries left go with the handle, without a release
        QovHostLogClear();
        ASOrchDestroy(hdl_);
        hdl_ = nullptr;
        EXPECT_TRUE(Calls(release).empty());
        EXPECT_EQ(qovtest::Logs().back(), "Orch auto sync free ok.");
        EXPECT_FALSE(HasLine("Orch autosync MQUE monitor : 1, channelId " + std::to_string(c.path) + "."));
        return;
    }
    Drain();
    ASSERT_EQ(Calls(release).size(), 1u);
    EXPECT_EQ(target(Calls(release)[0]), want);
}

INSTANTIATE_TEST_SUITE_P(Roles, MonitorTest,
                         ::testing::Values(Case{1, 0, 1, false, false}, Case{1, 1, 1, false, false},
                                           Case{1, 0, 3, false, false}, Case{0, 0, 1, true, false},
                                           Case{0, 1, 3, true, false}, Case{0, 0, 1, false, false},
                                           Case{1, 1, 3, false, true}, Case{0, 0, 1, true, true}));

}  // namespace
