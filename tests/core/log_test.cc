#include <unistd.h>

#include <string>

#include "qov_as_log.h"
#include "support/test_env.h"

namespace {

using qovtest::HostTest;
using qovtest::Logs;

struct LenCase {
    size_t len;
    bool written;
};

class LogLength : public HostTest, public ::testing::WithParamInterface<LenCase> {};

TEST_P(LogLength, LinesOf256OrMoreCharactersAreDropped) {
    std::string text(GetParam().len, 'x');
    QOV_AUTOSYNC_QovLog(1, "%s", text.c_str());
    if (!GetParam().written) {
        EXPECT_TRUE(Logs().empty());
        return;
    }
    ASSERT_EQ(Logs().size(), 1u);
    EXPECT_EQ(Logs()[0], text);
    QovHostLogLine line;
    ASSERT_EQ(QovHostLogGet(0, &line), 0);
    EXPECT_STREQ(line.module, "AUTOSYNC_ORCH");
}

INSTANTIATE_TEST_SUITE_P(Boundary, LogLength,
                         ::testing::Values(LenCase{0, true}, LenCase{1, true}, LenCase{254, true},
                                           LenCase{255, true}, LenCase{256, false}, LenCase{1000, false}),
                         [](const auto &p) { return "Length" + std::to_string(p.param.len); });

// The level is accepted and not written; the formatted text goes over as it is.
TEST_F(HostTest, LogHandsTheFormattedTextOverVerbatimAtEitherLevel) {
    QOV_AUTOSYNC_QovLog(0, "%s, step %u ok", "orch", 3u);
    QOV_AUTOSYNC_QovLog(1, "%s", "100%d %s");
    EXPECT_EQ(Logs(), (std::vector<std::string>{"orch, step 3 ok", "100%d %s"}));
}

// An orchestrator that never touches the control header keeps no lines and no
// calls in memory, however long it runs.
TEST_F(HostTest, HostKeepsNothingUnlessCaptureAndJournalAreTurnedOn) {
    QovHostReset();
    QOV_AUTOSYNC_QovLog(1, "%s", "dropped");
    int fd = eventfd_s(0, 0);
    EXPECT_EQ(QovHostLogCount(), 0u);
    EXPECT_EQ(QovHostJournalCount(), 0u);
    QovHostLogCapture(1);
    QovHostJournalEnable(1);
    QOV_AUTOSYNC_QovLog(1, "%s", "kept");
    int fd2 = eventfd_s(0, 0);
    EXPECT_EQ(Logs(), (std::vector<std::string>{"kept"}));
    EXPECT_EQ(QovHostJournalCountOf("eventfd_s"), 1u);
    close(fd);
    close(fd2);
}

}  // namespace
