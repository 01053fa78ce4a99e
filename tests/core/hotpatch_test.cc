#include <cstring>
#include <string>

#include "qov_as_core.h"
#include "support/test_env.h"

namespace {

struct HookCase {
    const char *name;
    const char *lib;  // null: no record
    uint32_t code;
    uint32_t result;
    uint32_t handled;
    const char *line;  // the one line expected, or null for none
};

class HotPatch : public qovtest::HostTest, public ::testing::WithParamInterface<HookCase> {};

TEST_P(HotPatch, AnswersOnlyForThisLibrary) {
    const HookCase &c = GetParam();
    ASOrchPatchInfo info;
    std::memset(&info, 0x5A, sizeof info);
    if (c.lib != nullptr) std::snprintf(info.libName, sizeof info.libName, "%s", c.lib);
    uint32_t handled = 77;
    EXPECT_EQ(libqov_autosync_orch_PAT_C2HSyncHookFunc(c.code, 0, c.lib != nullptr ? &info : nullptr, &handled),
              c.result);
    EXPECT_EQ(handled, c.handled);
    auto logs = qovtest::Logs();
    if (c.line == nullptr) {
        EXPECT_TRUE(logs.empty());
    } else {
        EXPECT_EQ(logs, std::vector<std::string>{c.line});
    }
}

INSTANTIATE_TEST_SUITE_P(
    Codes, HotPatch,
    ::testing::Values(HookCase{"Activate", "libqov_autosync_orch.so", 0, 0, 1, "libqov_autosync_orch reserved patch c2h active."},
                      HookCase{"Deactivate", "libqov_autosync_orch.so", 1, 0, 1, "libqov_autosync_orch reserved patch c2h deactive."},
                      HookCase{"UnknownCode", "libqov_autosync_orch.so", 2, 1, 1,
                               "libqov_autosync_orch c2h active or deactive oper failed, operCode 2"},
                      HookCase{"OtherLibrary", "libqov_other.so", 0, 0, 0, nullptr},
                      HookCase{"NameWithSuffix", "libqov_autosync_orch.so.1", 0, 0, 0, nullptr},
                      HookCase{"NoRecord", nullptr, 0, 0, 0, nullptr}),
    qovtest::RowName());

}  // namespace
