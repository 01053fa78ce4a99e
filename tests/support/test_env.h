// The fixture every suite starts from: a clean host platform, a quiet log
// captured in memory, and the counting allocator.
#ifndef QOV_TEST_ENV_H
#define QOV_TEST_ENV_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "qov_host_ctl.h"
#include "support/test_alloc.h"

namespace qovtest {

// The texts of the captured log lines, oldest first.
std::vector<std::string> Logs();
// Number of captured lines equal to text.
size_t CountLine(const std::string &text);
bool HasLine(const std::string &text);
// Index of the first line equal to text at or after from; npos when none.
size_t FindLine(const std::string &text, size_t from = 0);
// The journaled calls of op, oldest first.
std::vector<QovHostCall> Calls(const char *op);
// The number after label in a merge queue's report (QOV_PrintMergeQueInfo):
// a "%-28s %12u" row's count or a "Label [%4u]" field; -1 when absent.
int64_t ReportCount(const std::string &report, const std::string &label);

// Names a parameterised test after its row's `name`, so that ctest lists a
// readable name that stays the same from build to build.
struct RowName {
    template <class P>
    std::string operator()(const ::testing::TestParamInfo<P> &info) const {
        return info.param.name;
    }
};

class HostTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
};

}  // namespace qovtest

#endif
