#include "support/test_env.h"

#include <cctype>

namespace qovtest {

std::vector<std::string> Logs() {
    std::vector<std::string> out;
    QovHostLogLine line;
    for (uint32_t i = 0; QovHostLogGet(i, &line) == 0; ++i) out.emplace_back(line.text);
    return out;
}

size_t CountLine(const std::string &text) {
    size_t n = 0;
    for (const auto &l : Logs()) n += l == text ? 1 : 0;
    return n;
}

bool HasLine(const std::string &text) { return CountLine(text) != 0; }

size_t FindLine(const std::string &text, size_t from) {
    auto logs = Logs();
    for (size_t i = from; i < logs.size(); ++i)
        if (logs[i] == text) return i;
    return std::string::npos;
}

std::vector<QovHostCall> Calls(const char *op) {
    std::vector<QovHostCall> out;
    QovHostCall c;
    for (uint32_t i = QovHostJournalFind(op, 0); i != UINT32_MAX; i = QovHostJournalFind(op, i + 1)) {
        if (QovHostJournalGet(i, &c) == 0) out.push_back(c);
    }
    return out;
}

int64_t ReportCount(const std::string &report, const std::string &label) {
    for (size_t at = report.find(label); at != std::string::npos; at = report.find(label, at + 1)) {
        if (at != 0 && report[at - 1] != '\n' && report[at - 1] != ' ') continue;  // not inside a longer label
        size_t num = report.find_first_not_of(" [", at + label.size());
        if (num != at + label.size() && num < report.size() && std::isdigit(static_cast<unsigned char>(report[num])))
            return std::stoll(report.substr(num));
    }
    return -1;
}

void HostTest::SetUp() {
    QovHostReset();
    QovHostSmoothReset();  // the smoothing library keeps its own state
    QovHostLogEcho(0);
    QovHostLogCapture(1);
    QovHostJournalEnable(1);
    AllocReset();
}

void HostTest::TearDown() {
    EXPECT_EQ(AllocBadFrees(), 0u) << "a block was freed twice, or one the allocator never gave";
    QovHostFailClear();
}

}  // namespace qovtest
