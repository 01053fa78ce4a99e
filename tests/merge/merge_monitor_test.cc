// High/low-water monitor: which source is pressed and then released, by role.
#include "merge_fixture.h"
#include "qov_utils_eal.h"

namespace {

using qovtest::Calls;
using qovtest::HasLine;

constexpr char kAdvice[] = "orchM, mb mque high water. suggest config syncGrp sync thread";

struct Case {
    const char *name;
    uint32_t isMb, path, threadMask;
    bool syncGrp;  // register the sync groups (kind 0 gets id 0)
    bool destroy;  // destroy the handle while over high water instead of reading
};

class MonitorTest : public mergetest::MergeTest, public ::testing::WithParamInterface<Case> {
protected:
    // Registers through ASOrchRegBase (channels DAM and FES, sync group kind 0,
    // which gets id 0), or only the merge step when there is to be no group.
    void Arrange(const Case &c) {
        QovHostSetRoleMb(c.isMb);
        ASOrchBasePara b{};
        b.threadMask = c.threadMask;
        b.syncGrpMsgSet[0] = 1;
        b.chan[0].realServerPort = b.chan[1].realServerPort = 7000;
        b.damMerge = mergetest::DamPara();
        b.fesMerge = mergetest::FesPara();
        b.damMerge.highWater = b.fesMerge.highWater = 4;
        b.damMerge.lowWater = b.fesMerge.lowWater = 2;
        ASSERT_EQ(c.syncGrp || c.isMb ? ASOrchRegBase(hdl_, &b) : Reg(b.damMerge, b.fesMerge), 0u);
        QovHostJournalClear();
    }
};

// Five new keys cross high water 4; reading them all falls under low water 2.
TEST_P(MonitorTest, OverloadPressesSourceAndDrainReleasesIt) {
    const Case &c = GetParam();
    Arrange(c);
    const char *press = c.isMb ? "QOV_CHAN_BackPress" : "QOV_EAL_SyncBackPress";
    const char *release = c.isMb ? "QOV_CHAN_UnBackPress" : "QOV_EAL_SyncUnBackPress";
    // The channel handle, or (eal, group id 0).
    auto target = [&](const QovHostCall &call) { return c.isMb ? call.arg[0] : call.arg[1]; };
    uint64_t want = c.isMb ? reinterpret_cast<uint64_t>(QOV_EAL_GetChannelHdl(ASOrchGetEalHdl(hdl_), c.path)) : 0;

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
                         ::testing::Values(Case{"MbDam", 1, 0, 1, false, false}, Case{"MbFes", 1, 1, 1, false, false},
                                           Case{"MbDamWithSyncThread", 1, 0, 3, false, false},
                                           Case{"GroupDam", 0, 0, 1, true, false},
                                           Case{"GroupFesWithSyncThread", 0, 1, 3, true, false},
                                           Case{"NoGroup", 0, 0, 1, false, false},
                                           Case{"MbDestroyedWhilePressed", 1, 1, 3, false, true},
                                           Case{"GroupDestroyedWhilePressed", 0, 0, 1, true, true}),
                         qovtest::RowName());

}  // namespace
