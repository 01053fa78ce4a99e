// The host smoothing entries keep the balance of each table's brackets and
// log an end that closes no begin.
#include <cstdint>
#include <string>

#include "qov_utils_smooth.h"
#include "support/test_env.h"

namespace {

using SmoothEntries = qovtest::HostTest;

TEST_F(SmoothEntries, ResyncBracketsBalancePerTable) {
    uint32_t dam[6] = {0x61, 1}, fes[6] = {0x62, 1};
    QOV_ENTRY_ProcVrfDataBegin(dam);
    QOV_ENTRY_ProcVrfDataBegin(fes);
    EXPECT_EQ(QovHostSmoothOpen(0x61, QOV_HOST_SMOOTH_VRF_DATA), 1);
    EXPECT_EQ(QovHostSmoothUnbalanced(), 2u);
    QOV_ENTRY_ProcVrfDataEnd(dam);
    QOV_ENTRY_ProcVrfDataEndWithType(fes, 2);
    EXPECT_EQ(QovHostSmoothUnbalanced(), 0u);
    EXPECT_TRUE(qovtest::Logs().empty());
}

TEST_F(SmoothEntries, EndWithoutBeginIsLogged) {
    uint32_t rec[6] = {0x61, 1};
    QOV_ENTRY_ProcVrfDataEnd(rec);
    EXPECT_EQ(QovHostSmoothOpen(0x61, QOV_HOST_SMOOTH_VRF_DATA), -1);
    EXPECT_TRUE(qovtest::HasLine("smoothing VRF data end without a begin, table 97"));
    QOV_ENTRY_ProcLrDataBegin(rec);
    QOV_ENTRY_ProcLrDataEnd(rec);
    EXPECT_EQ(qovtest::Logs().size(), 1u) << "a balanced bracket logs nothing";
}

}  // namespace
