// The log's echo to stderr: lines in order, runs of identical lines written
// once with their repeat count, and nothing held back past the timer, a
// full block or a flush.
#include <unistd.h>

#include <chrono>
#include <ostream>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "qov_host_ctl.h"
#include "qov_utils_base.h"
#include "support/loopback_broker.h"
#include "support/test_env.h"

namespace {

using namespace std::chrono_literals;

class LogEcho : public qovtest::HostTest {
protected:
    void SetUp() override {
        HostTest::SetUp();
        std::fflush(stderr);
        file_ = std::tmpfile();
        ASSERT_NE(file_, nullptr);
        saved_ = dup(2);
        ASSERT_EQ(dup2(fileno(file_), 2), 2);
        QovHostLogEcho(1);
    }
    void TearDown() override {
        QovHostLogEcho(0);
        dup2(saved_, 2);
        close(saved_);
        std::fclose(file_);
        HostTest::TearDown();
    }
    std::string Written() {
        std::string out;
        char buf[4096];
        for (off_t at = 0;;) {
            ssize_t n = pread(fileno(file_), buf, sizeof buf, at);
            if (n <= 0) return out;
            out.append(buf, static_cast<size_t>(n));
            at += n;
        }
    }
    FILE *file_ = nullptr;
    int saved_ = -1;
};

struct RunCase {
    const char *name;
    std::vector<const char *> lines;
    const char *want;
};

void PrintTo(const RunCase &c, std::ostream *os) { *os << c.name; }

class LogEchoRuns : public LogEcho, public ::testing::WithParamInterface<RunCase> {};

// Broken by: a repeated line written again, a count off by one, a run's
// count lost at the flush, or lines of another text taken for a repeat.
TEST_P(LogEchoRuns, IdenticalRunsWrittenOnceWithTheirCount) {
    for (const char *l : GetParam().lines) KRT_DiagLogWrite("m", l);
    QovHostLogFlush();
    EXPECT_EQ(Written(), GetParam().want);
}

INSTANTIATE_TEST_SUITE_P(
    , LogEchoRuns,
    ::testing::Values(RunCase{"RunThenOther", {"a", "a", "a", "b"}, "[m] a\nlast message repeated 2 times\n[m] b\n"},
                      RunCase{"RunClosedByFlush", {"a", "b", "b"}, "[m] a\n[m] b\nlast message repeated 1 times\n"},
                      RunCase{"PrefixIsNoRepeat", {"ab", "a", "a b", "a"}, "[m] ab\n[m] a\n[m] a b\n[m] a\n"}),
    qovtest::RowName());

TEST_F(LogEcho, WrittenByTheTimerWithoutAFlush) {
    KRT_DiagLogWrite("m", "late");
    KRT_DiagLogWrite("m", "late");
    EXPECT_TRUE(qovtest::WaitFor([&] { return Written() == "[m] late\nlast message repeated 1 times\n"; }, 2000))
        << Written();
}

TEST_F(LogEcho, AFullBlockIsWrittenAtOnce) {
    std::string text(200, 'x'), want;
    for (int i = 0; i < 200; ++i) {
        std::string line = std::to_string(i) + text;
        KRT_DiagLogWrite("m", line.c_str());
        want += "[m] " + line + "\n";
    }
    EXPECT_GE(Written().size(), 16u * 1024u) << "40 KB of lines held back";
    QovHostLogFlush();
    EXPECT_EQ(Written(), want);
}

// Broken by: a block that lets runs' counts eat the room kept for the next
// count, so the buffer's end is written past once a block fills with them.
TEST_F(LogEcho, BlocksFullOfRunsKeepTheirBound) {
    std::string want;
    for (int i = 0; i < 3000; ++i) {  // lengths that vary, so some block ends inside the kept room
        std::string line = std::to_string(i) + std::string(100 + static_cast<size_t>(i % 47), 'y');
        KRT_DiagLogWrite("m", line.c_str());
        KRT_DiagLogWrite("m", line.c_str());
        want += "[m] " + line + "\nlast message repeated 1 times\n";
    }
    QovHostLogFlush();
    EXPECT_EQ(Written(), want);
}

}  // namespace
