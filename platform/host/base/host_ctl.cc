// Log capture, call journal, failure on demand and process identity of the
// host platform.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "host_internal.h"
#include "qov_host_api.h"
#include "qov_host_ctl.h"

namespace {

struct Fault {
    std::string op;
    uint32_t times;
    int64_t result;
};

struct State {
    std::mutex mu;
    std::vector<QovHostLogLine> logs;
    std::vector<QovHostCall> journal;
    std::vector<Fault> faults;
};

// Never destroyed: host threads may still log while the process exits.
State &S() {
    static State *s = new State;
    return *s;
}

constexpr size_t kMaxLogLines = 1u << 16;  // about 35 MB at most: a long run keeps its first lines

// The echo of the log to stderr, written in blocks rather than one write per
// line: a block goes out when the next line would not fit, kLogFlushMs after
// its first line (a thread of its own waits for that), when echo is turned
// off, on QovHostLogFlush and at exit. A run of identical lines is written
// once, then "last message repeated N times", as syslog does, so a flood's
// per-batch line costs neither a system call nor disk. A crash loses what is
// buffered: at most one block (kLogBlock bytes), the lines of the last
// kLogFlushMs, and the count of a run not yet closed.
constexpr size_t kLogBlock = size_t{16} * 1024;
constexpr auto kLogFlushMs = std::chrono::milliseconds(100);
constexpr size_t kLineMax = sizeof(QovHostLogLine::module) + sizeof(QovHostLogLine::text) + 4;

class LogWriter {
public:
    // NOLINTNEXTLINE(bugprone-easily-swappable-parameters): in the order KRT_DiagLogWrite takes them
    void Line(const char *module, const char *text) {
        // "[module] text\n", each part cut to the captured line's fields.
        char line[kLineMax];
        size_t len = 0;
        auto put = [&](const char *part, size_t max) {
            size_t n = strnlen(part, max);
            std::memcpy(line + len, part, n);
            len += n;
        };
        put("[", 1);
        put(module != nullptr ? module : "", sizeof(QovHostLogLine::module) - 1);
        put("] ", 2);
        put(text, sizeof(QovHostLogLine::text) - 1);
        put("\n", 1);
        std::unique_lock<std::mutex> lk(mu_);
        if (len == lastLen_ && std::memcmp(line, last_, len) == 0) {
            ++repeats_;
        } else {
            // Room for the open run's count, the line, and kNoteMax kept
            // behind them for the next count: the block never holds more
            // than kLogBlock - kNoteMax between two lines. A flush lets other
            // threads in, who may open a run again, so the room is measured
            // again after it.
            while (used_ + (repeats_ != 0 ? kNoteMax : 0) + len + kNoteMax > kLogBlock) {
                lk.unlock();
                Flush();
                lk.lock();
            }
            CloseRunLocked();
            std::memcpy(buf_ + used_, line, len);
            used_ += len;
            std::memcpy(last_, line, len);
            lastLen_ = len;
        }
        if (!timerWaiting_) {
            timerWaiting_ = true;
            StartTimerLocked();
            wake_.notify_one();
        }
    }
    // Writes what is buffered. The block is swapped out under the lock and
    // written outside it, so a line never waits for the file, nor for a
    // writer that the scheduler has put aside.
    void Flush() {
        std::lock_guard<std::mutex> order(writeMu_);
        size_t n = 0;
        {
            std::lock_guard<std::mutex> lk(mu_);
            CloseRunLocked();
            std::swap(buf_, spare_);
            n = used_;
            used_ = 0;
            timerWaiting_ = false;
        }
        if (n != 0) std::fwrite(spare_, 1, n, stderr);
        std::fflush(stderr);
    }

private:
    // The run of repeats ends: its count is written (identical lines after
    // it start a new run). Room for it is always kept.
    void CloseRunLocked() {
        if (repeats_ == 0) return;
        int n = std::snprintf(buf_ + used_, kNoteMax, "last message repeated %u times\n", repeats_);
        repeats_ = 0;
        if (n > 0) used_ += static_cast<size_t>(n);
    }
    // One thread, made at the first line, that flushes kLogFlushMs after a
    // line arrives in an empty buffer; it sleeps while nothing is buffered.
    void StartTimerLocked() {
        if (timer_) return;
        timer_ = true;
        std::atexit([] { Writer().Flush(); });
        std::thread([this] {
            std::unique_lock<std::mutex> lk(mu_);
            for (;;) {
                wake_.wait(lk, [this] { return timerWaiting_; });
                wake_.wait_for(lk, kLogFlushMs, [this] { return !timerWaiting_; });
                if (!timerWaiting_) continue;
                lk.unlock();
                Flush();
                lk.lock();
            }
        }).detach();
    }

public:
    // Never destroyed: host threads may still log while the process exits.
    static LogWriter &Writer() {
        static LogWriter *w = new LogWriter;
        return *w;
    }

private:
    static constexpr size_t kNoteMax = 48;  // "last message repeated 4294967295 times\n"
    std::mutex writeMu_;  // keeps blocks in order; taken before mu_
    std::mutex mu_;
    std::condition_variable wake_;
    bool timer_ = false;
    bool timerWaiting_ = false;  // lines wait for the timer's flush
    char blockA_[kLogBlock];
    char blockB_[kLogBlock];
    char *buf_ = blockA_;    // lines go here
    char *spare_ = blockB_;  // the block being written
    size_t used_ = 0;
    char last_[kLineMax];
    size_t lastLen_ = 0;
    uint32_t repeats_ = 0;
};
constexpr size_t kMaxJournal = 1u << 16;

std::atomic<bool> g_echo{true};
// Capture and journal are for tests and examples that read them back; an
// orchestrator that never turns them on pays nothing for them.
std::atomic<bool> g_capture{false};
std::atomic<bool> g_journalOn{false};

template <size_t N>
void CopyStr(char (&dst)[N], const char *src) {
    if (src == nullptr) {
        dst[0] = '\0';
        return;
    }
    std::snprintf(dst, N, "%s", src);
}

}  // namespace

namespace qovhost {
std::atomic<uint32_t> g_roleMb{1};
std::atomic<uint32_t> g_slot{1};
std::atomic<uint32_t> g_cpu{0};
std::atomic<uint32_t> g_orchId{0};
std::atomic<int> g_orchIdEntry{1};
std::atomic<uint32_t> g_frameMax{QOV_HOST_FRAME_MAX_DEFAULT};
std::atomic<uint32_t> g_faultsArmed{0};
}  // namespace qovhost

using qovhost::g_faultsArmed;

extern "C" {

QOV_PLAT_API void KRT_DiagLogWrite(const char *module, const char *text) {
    if (text == nullptr) return;
    if (g_echo.load(std::memory_order_relaxed)) LogWriter::Writer().Line(module, text);
    if (!g_capture.load(std::memory_order_relaxed)) return;
    QovHostLogLine line;
    CopyStr(line.module, module);
    CopyStr(line.text, text);
    std::lock_guard<std::mutex> lk(S().mu);
    if (S().logs.size() < kMaxLogLines) S().logs.push_back(line);
}

QOV_PLAT_API void QovHostLogEcho(int toStderr) {
    if (toStderr == 0) LogWriter::Writer().Flush();
    g_echo = toStderr != 0;
}

QOV_PLAT_API void QovHostLogFlush(void) { LogWriter::Writer().Flush(); }
QOV_PLAT_API void QovHostLogCapture(int on) { g_capture = on != 0; }

QOV_PLAT_API uint32_t QovHostLogCount(void) {
    std::lock_guard<std::mutex> lk(S().mu);
    return static_cast<uint32_t>(S().logs.size());
}

QOV_PLAT_API int QovHostLogGet(uint32_t i, QovHostLogLine *out) {
    std::lock_guard<std::mutex> lk(S().mu);
    if (out == nullptr || i >= S().logs.size()) return -1;
    *out = S().logs[i];
    return 0;
}

QOV_PLAT_API void QovHostLogClear(void) {
    std::lock_guard<std::mutex> lk(S().mu);
    S().logs.clear();
}

QOV_PLAT_API void QovHostJournalRecord(const char *op, const uint64_t *args, uint32_t argc, const char *str,
                                       const void *rec, uint32_t recLen) {
    if (!g_journalOn.load(std::memory_order_relaxed)) return;
    QovHostCall c{};
    CopyStr(c.op, op);
    c.argc = argc < QOV_HOST_CALL_ARGS ? argc : QOV_HOST_CALL_ARGS;
    for (uint32_t i = 0; i < c.argc; ++i) c.arg[i] = args[i];
    CopyStr(c.str, str);
    if (rec != nullptr) {
        c.recLen = recLen < QOV_HOST_CALL_REC ? recLen : QOV_HOST_CALL_REC;
        std::memcpy(c.rec, rec, c.recLen);
    }
    std::lock_guard<std::mutex> lk(S().mu);
    if (S().journal.size() < kMaxJournal) S().journal.push_back(c);
}

QOV_PLAT_API void QovHostJournalEnable(int on) { g_journalOn = on != 0; }

QOV_PLAT_API uint32_t QovHostJournalCount(void) {
    std::lock_guard<std::mutex> lk(S().mu);
    return static_cast<uint32_t>(S().journal.size());
}

QOV_PLAT_API int QovHostJournalGet(uint32_t i, QovHostCall *out) {
    std::lock_guard<std::mutex> lk(S().mu);
    if (out == nullptr || i >= S().journal.size()) return -1;
    *out = S().journal[i];
    return 0;
}

QOV_PLAT_API uint32_t QovHostJournalFind(const char *op, uint32_t from) {
    std::lock_guard<std::mutex> lk(S().mu);
    for (size_t i = from; i < S().journal.size(); ++i)
        if (std::strcmp(S().journal[i].op, op) == 0) return static_cast<uint32_t>(i);
    return UINT32_MAX;
}

QOV_PLAT_API uint32_t QovHostJournalCountOf(const char *op) {
    std::lock_guard<std::mutex> lk(S().mu);
    uint32_t n = 0;
    for (const auto &c : S().journal) n += std::strcmp(c.op, op) == 0 ? 1u : 0u;
    return n;
}

QOV_PLAT_API void QovHostJournalClear(void) {
    std::lock_guard<std::mutex> lk(S().mu);
    S().journal.clear();
}

QOV_PLAT_API void QovHostFailNext(const char *op, uint32_t times, int64_t result) {
    if (op == nullptr || times == 0) return;
    std::lock_guard<std::mutex> lk(S().mu);
    S().faults.push_back(Fault{op, times, result});
    g_faultsArmed.store(static_cast<uint32_t>(S().faults.size()));
}

QOV_PLAT_API void QovHostFailClear(void) {
    std::lock_guard<std::mutex> lk(S().mu);
    S().faults.clear();
    g_faultsArmed.store(0);
}

QOV_PLAT_API int QovHostFaultHit(const char *op, int64_t *result) {
    if (g_faultsArmed.load(std::memory_order_relaxed) == 0) return 0;
    std::lock_guard<std::mutex> lk(S().mu);
    auto &faults = S().faults;
    for (size_t i = 0; i < faults.size(); ++i) {
        if (faults[i].op != op) continue;
        if (result != nullptr) *result = faults[i].result;
        if (--faults[i].times == 0) faults.erase(faults.begin() + static_cast<std::ptrdiff_t>(i));
        g_faultsArmed.store(static_cast<uint32_t>(faults.size()));
        return 1;
    }
    return 0;
}

QOV_PLAT_API void QovHostSetRoleMb(uint32_t isMb) { qovhost::g_roleMb = isMb; }
QOV_PLAT_API uint32_t QovHostRoleMb(void) { return qovhost::g_roleMb.load(); }
QOV_PLAT_API void QovHostSetSlot(uint32_t slot) { qovhost::g_slot = slot; }
QOV_PLAT_API void QovHostSetCpu(uint32_t cpu) { qovhost::g_cpu = cpu; }
QOV_PLAT_API void QovHostSetOrchId(uint32_t orchId) { qovhost::g_orchId = orchId; }
QOV_PLAT_API void QovHostSetOrchIdEntry(int present) { qovhost::g_orchIdEntry = present; }

QOV_PLAT_API int QovHostSetFrameMax(uint32_t maxBody) {
    if (maxBody == 0 || maxBody > QOV_HOST_FRAME_MAX_LIMIT) return -1;
    qovhost::g_frameMax = maxBody;
    return 0;
}

QOV_PLAT_API uint32_t QovHostFrameMax(void) { return qovhost::g_frameMax.load(); }

QOV_PLAT_API void QovHostReset(void) {
    QovHostLogClear();
    QovHostJournalClear();
    QovHostFailClear();
    g_echo = true;
    g_capture = false;
    g_journalOn = false;
    qovhost::g_roleMb = 1;
    qovhost::g_slot = 1;
    qovhost::g_cpu = 0;
    qovhost::g_orchId = 0;
    qovhost::g_orchIdEntry = 1;
    qovhost::g_frameMax = QOV_HOST_FRAME_MAX_DEFAULT;
}

}  // extern "C"
