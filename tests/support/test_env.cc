#include "support/test_env.h"

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

void HostTest::SetUp() {
    QovHostReset();
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
