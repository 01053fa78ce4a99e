// The control endpoint of an instance: a Unix-domain socket served by a
// thread of its own, with non-blocking I/O, whose requests are answered on
// the instance's Data thread (one epoll callback per batch of requests), so
// that a report sees the merge queues between two of their operations and a
// client, however slow or hostile, only ever holds up the endpoint's thread.
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "eal_internal.h"
#include "host_eal.h"

namespace qovhost {
namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t kClientsMax = 8;      // connections served at once; more are refused
constexpr uint32_t kPendingMax = 32;     // requests waiting for the Data thread
constexpr uint32_t kListMax = 65536;     // the list report of every queue of the process
constexpr uint32_t kInfoMax = 8192;      // one queue's report
constexpr uint32_t kExtraMax = 65536;    // the orchestrator's own metric lines
constexpr uint32_t kQueueNameMax = 31;   // the library's queue names are 32-byte fields
constexpr uint32_t kLifetimeFactor = 10; // a connection lives at most this many timeouts
constexpr int kSndBuf = 16384;           // per client, doubled by the kernel

enum Cmd : uint32_t { kQueues, kQueue, kChannels, kLinks, kMetrics, kHelp, kCmdNum };
constexpr const char *kCmdName[kCmdNum] = {"queues", "queue", "channels", "links", "metrics", "help"};

// Why a connection ended without a full answer.
enum Bad : uint32_t { kOversized, kGarbage, kUnknown, kTimeout, kGone, kBusy, kBadNum };
constexpr const char *kBadName[kBadNum] = {"oversized", "garbage", "unknown", "timeout", "gone", "busy"};

// Opening and closing endpoints, and EalInstance::ctl. Never taken by the
// endpoint's thread or the Data thread, which closing waits for.
std::mutex g_ctlMu;

struct Job {
    Cmd cmd;
    std::string arg;
    Clock::time_point posted;
    std::string answer;  // with done, under CtlEndpoint::mu
    bool done = false;
};

}  // namespace

struct CtlEndpoint {
    EalInstance *eal = nullptr;
    std::string path;
    QovHostCtlListFunc list = nullptr;
    QovHostCtlQueueFunc info = nullptr;
    QovHostCtlMetricsFunc extra = nullptr;
    void *ctx = nullptr;
    std::vector<std::string> queues;

    int listenFd = -1;
    int wakeFd = -1;  // the endpoint's thread: answers ready, or stop
    int jobFd = -1;   // the Data thread: requests posted
    int32_t dataEp = -1;
    std::thread thread;
    std::atomic<bool> stop{false};

    std::mutex mu;
    std::vector<std::shared_ptr<Job>> pending;

    // Figures of the answers, Data thread only.
    struct Cost {
        uint64_t n = 0, ns = 0, maxNs = 0;
    } cost[kCmdNum];
    uint64_t lagNs = 0, lagMaxNs = 0;  // from a request's post to its answer's start
    // Written by the endpoint's thread, read by the Data thread.
    std::atomic<uint64_t> bad[kBadNum] = {};
    std::atomic<uint64_t> accepted{0};
};

namespace {

void Log(const CtlEndpoint &c, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void Log(const CtlEndpoint &c, const char *fmt, ...) {
    char what[192];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(what, sizeof what, fmt, ap);
    va_end(ap);
    char text[256];
    std::snprintf(text, sizeof text, "%s ctl: %s", c.eal->name, what);
    KRT_DiagLogWrite("QOV_EAL", text);
}

void Appendf(std::string &s, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void Appendf(std::string &s, const char *fmt, ...) {
    char tmp[512];
    va_list ap;
    va_start(ap, fmt);
    int n = std::vsnprintf(tmp, sizeof tmp, fmt, ap);
    va_end(ap);
    if (n > 0) s.append(tmp, std::min(static_cast<size_t>(n), sizeof tmp - 1));
}

void Signal(int fd) {
    uint64_t one = 1;
    if (write(fd, &one, sizeof one) < 0 && errno != EAGAIN) std::perror("control endpoint: eventfd");
}

void Drain(int fd) {
    uint64_t v;
    while (read(fd, &v, sizeof v) == static_cast<ssize_t>(sizeof v)) {
    }
}

// A label value as the exposition format writes it.
std::string Esc(const std::string &v) {
    std::string o;
    for (char ch : v) {
        if (ch == '\\' || ch == '"') o += '\\';
        if (ch == '\n') {
            o += "\\n";
            continue;
        }
        o += ch;
    }
    return o;
}

// ---- Reading the library's queue report ----

// The figures of one queue report that metrics show, found by the row texts
// the report writes ("%-28s %12u ..." rows and the bracketed base info).
struct QueueFig {
    const char *row;  // row text, or the bracketed field's name
    bool bracketed;
    const char *metric;
    bool counter;
    const char *help;
};
constexpr QueueFig kQueueFigs[] = {
    {"Mque CurrCnt", false, "qov_queue_depth", false, "Entries in the merge queue."},
    {"MergeQue HistoryMaxCnt", false, "qov_queue_depth_peak", false, "Highest number of entries the queue held."},
    {"MergeQue MaxConflict", false, "qov_queue_max_conflict", false, "Longest hash chain an append met."},
    {"HighWater", true, "qov_queue_high_water", false, "High water of the queue's monitor."},
    {"LowWater", true, "qov_queue_low_water", false, "Low water of the queue's monitor."},
    {"OverLoad", true, "qov_queue_overload", false, "1 while the queue is over its high water."},
    {"MergeQue OverHighWater", false, "qov_queue_over_high_water_total", true, "Crossings over the high water."},
    {"MergeQue UnderLowWater", false, "qov_queue_under_low_water_total", true, "Crossings back under the low water."},
    {"Success Write", false, "qov_queue_appends_total", true, "Entries appended."},
    {"Success Merge", false, "qov_queue_merges_total", true, "Writes merged into a queued entry."},
    {"Success Read", false, "qov_queue_reads_total", true, "Entries taken by the reader."},
    {"Fail Write", false, "qov_queue_append_failures_total", true, "Appends that failed."},
    {"Fail Merge", false, "qov_queue_merge_failures_total", true, "Merges that failed."},
    {"Fail Read", false, "qov_queue_read_failures_total", true, "Reads that failed."},
    {"Empty Read", false, "qov_queue_empty_reads_total", true, "Shortfall of reads that emptied the queue."},
    {"Write Notify Err", false, "qov_queue_write_notify_errors_total", true, "Failed wake-ups on append."},
    {"Read Notify Err", false, "qov_queue_read_notify_errors_total", true, "Failed wake-ups after a read."},
    {"BackPress", false, "qov_queue_backpress_total", true, "Back-pressure applied by the queue."},
    {"UnBackPress", false, "qov_queue_unbackpress_total", true, "Back-pressure released by the queue."},
};

// Finds a figure in a report; false when the report does not have it.
bool FindFig(const std::string &rep, const QueueFig &f, unsigned long long *v) {
    std::string key = f.bracketed ? std::string(f.row) + " [" : std::string(f.row);
    for (size_t at = rep.find(key); at != std::string::npos; at = rep.find(key, at + 1)) {
        if (!f.bracketed && at != 0 && rep[at - 1] != '\n') continue;  // a row starts a line
        size_t from = at + key.size();
        if (!f.bracketed) {
            // The row text is padded to 28 columns, then the count.
            from = rep.find_first_not_of(' ', from);
            if (from == std::string::npos || from - at < 28) continue;
        }
        from = rep.find_first_not_of(' ', from);
        if (from == std::string::npos || rep[from] < '0' || rep[from] > '9') continue;
        *v = std::strtoull(rep.c_str() + from, nullptr, 10);
        return true;
    }
    return false;
}

std::string QueueReport(const CtlEndpoint &c, const std::string &name) {
    std::string buf(kInfoMax, '\0');
    uint32_t n = c.info(name.c_str(), buf.data(), kInfoMax);
    buf.resize(std::min(n, kInfoMax - 1));
    buf.resize(strnlen(buf.c_str(), buf.size()));
    return buf;
}

// ---- Links ----

struct LinkFig {
    std::string name;  // channel name, or empty for a sync link
    uint32_t index, state, pressed, connects, presses, releases;
    uint64_t framesIn, bytesIn, refused, badMagic, overBound, unclaimed, bad, sent;
};

LinkFig Fig(const Link &l, const char *name) {
    uint32_t connects = l.connects.load();
    return LinkFig{name,           l.index,          l.state.load(),     l.pressed.load(),   connects,
                   l.presses.load(), l.releases.load(), l.framesIn.load(),  l.bytesIn.load(),   l.framesRefused.load(),
                   l.badMagic.load(), l.overBound.load(), l.unclaimed.load(), l.framesBad.load(), l.sent.load()};
}

// The channels (sync links when !chans) in service, taken under the
// instance's lock as the control rows are.
std::vector<LinkFig> Links(EalInstance &e, bool chans) {
    std::vector<LinkFig> out;
    std::lock_guard<std::mutex> lk(e.mu);
    if (chans) {
        for (const EalChannel &ch : e.chan)
            if (ch.registered) out.push_back(Fig(ch.link, ch.para.chanName));
    } else {
        for (const EalSyncGrp &g : e.syncGrp)
            if (g.registered || g.link.configured) out.push_back(Fig(g.link, ""));
    }
    return out;
}

const char *StateName(uint32_t s) { return s == QOV_HOST_LINK_UP ? "up" : s == QOV_HOST_LINK_WAIT ? "wait" : "idle"; }

uint32_t Reconnects(const LinkFig &f) { return f.connects > 1 ? f.connects - 1 : 0; }

std::string Channels(EalInstance &e) {
    std::string s;
    Appendf(s, "%-4s %-24s %-5s %-7s %8s %10s %12s %14s %10s %10s %10s %10s\n", "CHAN", "NAME", "STATE", "PRESSED",
            "CONNECTS", "RECONNECTS", "FRAMES_IN", "BYTES_IN", "REFUSED", "BAD_MAGIC", "OVER_BOUND", "UNCLAIMED");
    for (const LinkFig &f : Links(e, true))
        Appendf(s, "%-4u %-24s %-5s %-7s %8u %10u %12llu %14llu %10llu %10llu %10llu %10llu\n", f.index,
                f.name.c_str(), StateName(f.state), f.pressed ? "yes" : "no", f.connects, Reconnects(f),
                static_cast<unsigned long long>(f.framesIn), static_cast<unsigned long long>(f.bytesIn),
                static_cast<unsigned long long>(f.refused), static_cast<unsigned long long>(f.badMagic),
                static_cast<unsigned long long>(f.overBound), static_cast<unsigned long long>(f.unclaimed));
    return s;
}

std::string SyncLinks(EalInstance &e) {
    std::string s;
    Appendf(s, "%-5s %-5s %-7s %8s %12s %12s %10s\n", "GROUP", "STATE", "PRESSED", "CONNECTS", "FRAMES_OUT",
            "FRAMES_IN", "BAD");
    for (const LinkFig &f : Links(e, false))
        Appendf(s, "%-5u %-5s %-7s %8u %12llu %12llu %10llu\n", f.index, StateName(f.state), f.pressed ? "yes" : "no",
                f.connects, static_cast<unsigned long long>(f.sent), static_cast<unsigned long long>(f.framesIn),
                static_cast<unsigned long long>(f.bad));
    return s;
}

// ---- Metrics ----

void Family(std::string &s, const char *name, bool counter, const char *help) {
    Appendf(s, "# HELP %s %s\n# TYPE %s %s\n", name, help, name, counter ? "counter" : "gauge");
}

struct LinkMetric {
    const char *name;
    bool counter;
    const char *help;
    uint64_t (*get)(const LinkFig &);
};
constexpr LinkMetric kChanMetrics[] = {
    {"qov_chan_up", false, "1 while the channel is connected.", [](const LinkFig &f) -> uint64_t { return f.state == QOV_HOST_LINK_UP; }},
    {"qov_chan_pressed", false, "1 while the channel is back-pressed.", [](const LinkFig &f) -> uint64_t { return f.pressed; }},
    {"qov_chan_connects_total", true, "Connections made.", [](const LinkFig &f) -> uint64_t { return f.connects; }},
    {"qov_chan_reconnects_total", true, "Connections made after the first.", [](const LinkFig &f) -> uint64_t { return Reconnects(f); }},
    {"qov_chan_frames_in_total", true, "Frames read.", [](const LinkFig &f) { return f.framesIn; }},
    {"qov_chan_bytes_in_total", true, "Bytes of the frames read, headers included.", [](const LinkFig &f) { return f.bytesIn; }},
    {"qov_chan_frames_refused_total", true, "Frames the receive function refused.", [](const LinkFig &f) { return f.refused; }},
    {"qov_chan_presses_total", true, "Back-pressure calls.", [](const LinkFig &f) -> uint64_t { return f.presses; }},
    {"qov_chan_releases_total", true, "Back-pressure releases.", [](const LinkFig &f) -> uint64_t { return f.releases; }},
};
constexpr LinkMetric kSyncMetrics[] = {
    {"qov_sync_up", false, "1 while the sync link is connected.", [](const LinkFig &f) -> uint64_t { return f.state == QOV_HOST_LINK_UP; }},
    {"qov_sync_pressed", false, "1 while the sync link is back-pressed.", [](const LinkFig &f) -> uint64_t { return f.pressed; }},
    {"qov_sync_connects_total", true, "Connections made.", [](const LinkFig &f) -> uint64_t { return f.connects; }},
    {"qov_sync_frames_out_total", true, "Frames sent to the peer.", [](const LinkFig &f) { return f.sent; }},
    {"qov_sync_frames_in_total", true, "Frames read from the peer.", [](const LinkFig &f) { return f.framesIn; }},
    {"qov_sync_frames_bad_total", true, "Frames dropped as malformed.", [](const LinkFig &f) { return f.bad; }},
};

std::string Metrics(CtlEndpoint &c) {
    std::string s;
    s.reserve(16384);
    std::vector<std::string> reps;
    for (const std::string &q : c.queues) reps.push_back(QueueReport(c, q));
    for (const QueueFig &f : kQueueFigs) {
        Family(s, f.metric, f.counter, f.help);
        for (size_t i = 0; i < c.queues.size(); ++i) {
            unsigned long long v = 0;
            if (FindFig(reps[i], f, &v)) Appendf(s, "%s{queue=\"%s\"} %llu\n", f.metric, Esc(c.queues[i]).c_str(), v);
        }
    }
    std::vector<LinkFig> chans = Links(*c.eal, true), syncs = Links(*c.eal, false);
    for (const LinkMetric &m : kChanMetrics) {
        Family(s, m.name, m.counter, m.help);
        for (const LinkFig &f : chans)
            Appendf(s, "%s{chan=\"%u\",name=\"%s\"} %llu\n", m.name, f.index, Esc(f.name).c_str(),
                    static_cast<unsigned long long>(m.get(f)));
    }
    Family(s, "qov_chan_frames_dropped_total", true, "Frames dropped, by reason.");
    for (const LinkFig &f : chans) {
        const std::pair<const char *, uint64_t> why[] = {
            {"bad_magic", f.badMagic}, {"over_bound", f.overBound}, {"unclaimed", f.unclaimed}};
        for (const auto &[reason, n] : why)
            Appendf(s, "qov_chan_frames_dropped_total{chan=\"%u\",name=\"%s\",reason=\"%s\"} %llu\n", f.index,
                    Esc(f.name).c_str(), reason, static_cast<unsigned long long>(n));
    }
    for (const LinkMetric &m : kSyncMetrics) {
        Family(s, m.name, m.counter, m.help);
        for (const LinkFig &f : syncs)
            Appendf(s, "%s{group=\"%u\"} %llu\n", m.name, f.index, static_cast<unsigned long long>(m.get(f)));
    }
    Family(s, "qov_ctl_answers_total", true, "Answers made on the Data thread, by command.");
    for (uint32_t k = 0; k < kCmdNum; ++k)
        Appendf(s, "qov_ctl_answers_total{command=\"%s\"} %llu\n", kCmdName[k],
                static_cast<unsigned long long>(c.cost[k].n));
    Family(s, "qov_ctl_answer_seconds_total", true, "Data thread time spent making answers, by command.");
    for (uint32_t k = 0; k < kCmdNum; ++k)
        Appendf(s, "qov_ctl_answer_seconds_total{command=\"%s\"} %.9f\n", kCmdName[k], static_cast<double>(c.cost[k].ns) / 1e9);
    Family(s, "qov_ctl_answer_seconds_max", false, "Longest Data thread time of one answer, by command.");
    for (uint32_t k = 0; k < kCmdNum; ++k)
        Appendf(s, "qov_ctl_answer_seconds_max{command=\"%s\"} %.9f\n", kCmdName[k], static_cast<double>(c.cost[k].maxNs) / 1e9);
    Family(s, "qov_ctl_wait_seconds", false, "Wait of the last request for the Data thread.");
    Appendf(s, "qov_ctl_wait_seconds %.9f\n", static_cast<double>(c.lagNs) / 1e9);
    Family(s, "qov_ctl_wait_seconds_max", false, "Longest wait of a request for the Data thread.");
    Appendf(s, "qov_ctl_wait_seconds_max %.9f\n", static_cast<double>(c.lagMaxNs) / 1e9);
    Family(s, "qov_ctl_connections_total", true, "Connections accepted by the endpoint.");
    Appendf(s, "qov_ctl_connections_total %llu\n", static_cast<unsigned long long>(c.accepted.load()));
    Family(s, "qov_ctl_bad_requests_total", true, "Connections ended without a full answer, by reason.");
    for (uint32_t k = 0; k < kBadNum; ++k)
        Appendf(s, "qov_ctl_bad_requests_total{reason=\"%s\"} %llu\n", kBadName[k],
                static_cast<unsigned long long>(c.bad[k].load()));
    if (c.extra != nullptr) {
        std::string buf(kExtraMax, '\0');
        uint32_t n = c.extra(c.ctx, buf.data(), kExtraMax);
        buf.resize(strnlen(buf.c_str(), std::min(n, kExtraMax)));
        if (buf.size() == kExtraMax) buf.resize(buf.rfind('\n') + 1);  // cut, not a torn line
        s += buf;
        if (!buf.empty() && buf.back() != '\n') s += '\n';
    }
    return s;
}

std::string Help() {
    return "queues       the list report of all merge queues\n"
           "queue NAME   the full report of one of the instance's queues\n"
           "channels     the channels: state, back-pressure, frames and bytes in, drops, reconnects\n"
           "links        the sync-group links: state, back-pressure, frames out and in\n"
           "metrics      every counter in the Prometheus text exposition format\n"
           "help         this list\n";
}

std::string Answer(CtlEndpoint &c, const Job &j) {
    switch (j.cmd) {
    case kQueues: {
        std::string buf(kListMax, '\0');
        uint32_t n = c.list(buf.data(), kListMax);
        buf.resize(strnlen(buf.c_str(), std::min(n, kListMax)));
        return buf;
    }
    case kQueue: {
        std::string rep = QueueReport(c, j.arg);
        return rep.empty() ? "error: no queue " + j.arg + "\n" : rep;
    }
    case kChannels: return Channels(*c.eal);
    case kLinks: return SyncLinks(*c.eal);
    case kMetrics: return Metrics(c);
    default: return Help();
    }
}

// The Data thread's side: answers every request posted so far.
uint32_t OnJobs(int32_t fd, uint32_t, void *usrData) {
    auto &c = *static_cast<CtlEndpoint *>(usrData);
    Drain(fd);
    std::vector<std::shared_ptr<Job>> jobs;
    {
        std::lock_guard<std::mutex> lk(c.mu);
        jobs.swap(c.pending);
    }
    for (const std::shared_ptr<Job> &j : jobs) {
        Clock::time_point t0 = Clock::now();
        c.lagNs = static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(t0 - j->posted).count());
        c.lagMaxNs = std::max(c.lagMaxNs, c.lagNs);
        std::string a = Answer(c, *j);
        auto ns = static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - t0).count());
        CtlEndpoint::Cost &k = c.cost[j->cmd];
        ++k.n;
        k.ns += ns;
        k.maxNs = std::max(k.maxNs, ns);
        std::lock_guard<std::mutex> lk(c.mu);
        j->answer = std::move(a);
        j->done = true;
    }
    if (!jobs.empty()) Signal(c.wakeFd);
    return 0;
}

// ---- The endpoint's thread ----

struct Client {
    enum class Phase { kRead, kWait, kWrite, kDone } phase = Phase::kRead;
    int fd = -1;
    char in[QOV_HOST_CTL_REQ_MAX];
    uint32_t have = 0;
    std::shared_ptr<Job> job;
    std::string out;
    size_t sent = 0;
    Clock::time_point deadline, end;
};

constexpr std::chrono::milliseconds kIdle(QOV_HOST_CTL_TIMEOUT_MS);

void Refuse(CtlEndpoint &c, Client &cl, Bad why, const std::string &text) {
    ++c.bad[why];
    cl.out = "error: " + text + "\n";
    cl.sent = 0;
    cl.phase = Client::Phase::kWrite;
}

bool Started(EalInstance &e) {
    std::lock_guard<std::mutex> lk(e.mu);
    return e.started;
}

// A complete request line: checked, then posted to the Data thread.
void Take(CtlEndpoint &c, Client &cl, std::string line) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    for (char ch : line) {
        if (static_cast<unsigned char>(ch) < 0x20 || static_cast<unsigned char>(ch) > 0x7e) {
            Log(c, "garbage request of %zu bytes refused", line.size());
            return Refuse(c, cl, kGarbage, "not a command");
        }
    }
    std::string word = line.substr(0, line.find(' '));
    std::string arg = word.size() < line.size() ? line.substr(word.size() + 1) : "";
    uint32_t k = 0;
    while (k < kCmdNum && word != kCmdName[k]) ++k;
    bool argOk = k == kQueue ? !arg.empty() && arg.size() <= kQueueNameMax && arg.find(' ') == std::string::npos
                             : arg.empty();
    if (k == kCmdNum || !argOk) {
        Log(c, "unknown request \"%.40s\" refused", line.c_str());
        return Refuse(c, cl, kUnknown, k == kCmdNum ? "unknown command (try help)" : "bad argument (try help)");
    }
    if (k == kQueue && std::find(c.queues.begin(), c.queues.end(), arg) == c.queues.end()) {
        cl.out = "error: no queue " + arg + " in this instance\n";
        cl.phase = Client::Phase::kWrite;
        return;
    }
    if (!Started(*c.eal)) {
        cl.out = "error: the instance is not started\n";
        cl.phase = Client::Phase::kWrite;
        return;
    }
    auto j = std::make_shared<Job>();
    j->cmd = static_cast<Cmd>(k);
    j->arg = arg;
    j->posted = Clock::now();
    {
        std::lock_guard<std::mutex> lk(c.mu);
        if (c.pending.size() >= kPendingMax) {
            Log(c, "request refused, %u already wait for the Data thread", kPendingMax);
            return Refuse(c, cl, kBusy, "busy");
        }
        c.pending.push_back(j);
    }
    Signal(c.jobFd);
    cl.job = std::move(j);
    cl.phase = Client::Phase::kWait;
}

void ReadSome(CtlEndpoint &c, Client &cl) {
    ssize_t r = recv(cl.fd, cl.in + cl.have, sizeof cl.in - cl.have, MSG_DONTWAIT);
    if (r < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return;
    if (r <= 0) {
        // The client shut its side: what it sent is the request.
        if (r == 0 && cl.have != 0) return Take(c, cl, std::string(cl.in, cl.have));
        cl.phase = Client::Phase::kDone;
        return;
    }
    cl.have += static_cast<uint32_t>(r);
    cl.deadline = Clock::now() + kIdle;
    auto *nl = static_cast<char *>(std::memchr(cl.in, '\n', cl.have));
    if (nl != nullptr) return Take(c, cl, std::string(cl.in, static_cast<size_t>(nl - cl.in)));
    if (cl.have == sizeof cl.in) {
        Log(c, "request over %u bytes refused", QOV_HOST_CTL_REQ_MAX);
        Refuse(c, cl, kOversized, "request too long");
    }
}

void WriteSome(CtlEndpoint &c, Client &cl) {
    while (cl.sent < cl.out.size()) {
        ssize_t r = send(cl.fd, cl.out.data() + cl.sent, cl.out.size() - cl.sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (r < 0 && errno == EINTR) continue;
        if (r < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
        if (r <= 0) {
            ++c.bad[kGone];
            Log(c, "client went away after %zu of %zu bytes of the answer", cl.sent, cl.out.size());
            cl.phase = Client::Phase::kDone;
            return;
        }
        cl.sent += static_cast<size_t>(r);
        cl.deadline = Clock::now() + kIdle;
    }
    shutdown(cl.fd, SHUT_WR);
    cl.phase = Client::Phase::kDone;
}

void Step(CtlEndpoint &c, Client &cl, short revents) {
    if (cl.phase == Client::Phase::kRead && (revents & (POLLIN | POLLHUP | POLLERR)) != 0) ReadSome(c, cl);
    if (cl.phase == Client::Phase::kWait) {
        std::lock_guard<std::mutex> lk(c.mu);
        if (cl.job->done) {
            cl.out = std::move(cl.job->answer);
            cl.job.reset();
            cl.phase = Client::Phase::kWrite;
            cl.deadline = Clock::now() + kIdle;
        }
    }
    if (cl.phase == Client::Phase::kWrite) WriteSome(c, cl);
    if (cl.phase == Client::Phase::kDone) return;
    Clock::time_point now = Clock::now();
    if (now < cl.deadline && now < cl.end) return;
    if (cl.phase == Client::Phase::kWait) {
        // The answer, if it comes, goes nowhere; the client hears why.
        Log(c, "the Data thread did not answer within %u ms", QOV_HOST_CTL_TIMEOUT_MS);
        cl.job.reset();
        Refuse(c, cl, kTimeout, "the Data thread did not answer in time");
        cl.deadline = now + kIdle;
        cl.end = std::max(cl.end, cl.deadline);
        return;
    }
    ++c.bad[kTimeout];
    Log(c, "client timed out %s, disconnected", cl.phase == Client::Phase::kRead ? "sending its request"
                                                                                  : "reading its answer");
    cl.phase = Client::Phase::kDone;
}

void Accept(CtlEndpoint &c, std::vector<Client> &clients) {
    for (;;) {
        int fd = accept4(c.listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) return;
        ++c.accepted;
        if (clients.size() >= kClientsMax) {
            ++c.bad[kBusy];
            Log(c, "connection refused, %u clients served already", kClientsMax);
            close(fd);
            continue;
        }
        // A small send buffer: a client that does not read holds little of
        // the kernel's memory, and its answer waits here, within the timeout.
        int sndbuf = kSndBuf;
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf);
        Client cl;
        cl.fd = fd;
        cl.deadline = Clock::now() + kIdle;
        cl.end = Clock::now() + kIdle * kLifetimeFactor;
        clients.push_back(std::move(cl));
    }
}

void Serve(CtlEndpoint *c) {
    std::vector<Client> clients;
    std::vector<pollfd> pfd;
    while (!c->stop.load()) {
        pfd.clear();
        pfd.push_back({c->wakeFd, POLLIN, 0});
        pfd.push_back({c->listenFd, static_cast<short>(clients.size() < kClientsMax ? POLLIN : 0), 0});
        Clock::time_point next = Clock::now() + kIdle;
        for (const Client &cl : clients) {
            auto ev = static_cast<short>(cl.phase == Client::Phase::kRead    ? POLLIN
                                         : cl.phase == Client::Phase::kWrite ? POLLOUT
                                                                             : 0);
            pfd.push_back({cl.fd, ev, 0});
            next = std::min({next, cl.deadline, cl.end});
        }
        auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(next - Clock::now()).count() + 1;
        if (poll(pfd.data(), pfd.size(), static_cast<int>(std::max<int64_t>(ms, 0))) < 0 && errno != EINTR) {
            Log(*c, "poll failed (errno %d), the endpoint stops", errno);
            break;
        }
        if ((pfd[0].revents & POLLIN) != 0) Drain(c->wakeFd);
        if ((pfd[1].revents & POLLIN) != 0) Accept(*c, clients);
        // Clients accepted just now were not polled: their turn comes next round.
        for (size_t i = 0; i < clients.size(); ++i)
            Step(*c, clients[i], i + 2 < pfd.size() ? pfd[i + 2].revents : static_cast<short>(0));
        std::erase_if(clients, [](const Client &cl) {
            if (cl.phase != Client::Phase::kDone) return false;
            close(cl.fd);
            return true;
        });
    }
    for (const Client &cl : clients) close(cl.fd);
}

// Binds path, replacing a socket file that no endpoint answers on.
int Bind(const CtlEndpoint &c, const sockaddr_un &a) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (fd < 0) return -1;
        if (bind(fd, reinterpret_cast<const sockaddr *>(&a), sizeof a) == 0) return fd;
        int err = errno;
        close(fd);
        struct stat st {};
        if (attempt != 0 || err != EADDRINUSE || lstat(a.sun_path, &st) != 0 || !S_ISSOCK(st.st_mode)) {
            Log(c, "cannot bind %s (errno %d)", a.sun_path, err);
            return -1;
        }
        int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        bool live = probe >= 0 && connect(probe, reinterpret_cast<const sockaddr *>(&a), sizeof a) == 0;
        if (probe >= 0) close(probe);
        if (live) {
            Log(c, "an endpoint already answers at %s", a.sun_path);
            return -1;
        }
        unlink(a.sun_path);
    }
    return -1;
}

// Why an endpoint cannot be opened with these arguments, or null.
const char *Refusal(const char *path, const QovHostCtlPara *para) {
    if (path == nullptr || path[0] == '\0') return "no socket path";
    if (std::strlen(path) >= sizeof(sockaddr_un::sun_path)) return "socket path too long";
    if (para == nullptr || para->queueList == nullptr || para->queueInfo == nullptr)
        return "a report function is missing";
    if (para->queueNum > QOV_HOST_CTL_QUEUES_MAX || (para->queueNames == nullptr && para->queueNum != 0))
        return "bad list of queue names";
    for (uint32_t i = 0; para->queueNames != nullptr && i < para->queueNum; ++i) {
        const char *q = para->queueNames[i];
        if (q == nullptr || strnlen(q, kQueueNameMax + 1) > kQueueNameMax) return "bad queue name";
    }
    return nullptr;
}

void Free(CtlEndpoint *c) {
    if (c->jobFd >= 0 && c->dataEp >= 0) EpollRemove(c->dataEp, c->jobFd, false);
    for (int fd : {c->listenFd, c->wakeFd, c->jobFd})
        if (fd >= 0) close(fd);
    delete c;
}

}  // namespace

void CtlShut(EalInstance &e) {
    std::lock_guard<std::mutex> lk(g_ctlMu);
    CtlEndpoint *c = e.ctl;
    e.ctl = nullptr;
    if (c == nullptr) return;
    c->stop = true;
    Signal(c->wakeFd);
    if (c->thread.joinable()) c->thread.join();
    unlink(c->path.c_str());
    Free(c);
}

}  // namespace qovhost

extern "C" {

QOV_PLAT_API uint32_t QovHostCtlOpen(void *eal, const char *path, const QovHostCtlPara *para) {
    qovhost::EalInstance *e = qovhost::LiveEal(eal);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    if (e == nullptr) {
        KRT_DiagLogWrite("QOV_EAL", "QovHostCtlOpen: unknown instance");
        return 1;
    }
    auto *c = new qovhost::CtlEndpoint;
    c->eal = e;
    const char *why = qovhost::Refusal(path, para);
    std::lock_guard<std::mutex> lk(qovhost::g_ctlMu);
    if (why == nullptr && e->ctl != nullptr) why = "an endpoint is open already";
    if (why != nullptr) {
        qovhost::Log(*c, "not opened: %s", why);
        delete c;
        return 1;
    }
    c->path = path;
    c->list = para->queueList;
    c->info = para->queueInfo;
    c->extra = para->metrics;
    c->ctx = para->ctx;
    for (uint32_t i = 0; i < para->queueNum; ++i) c->queues.emplace_back(para->queueNames[i]);
    if (para->queueNames == nullptr) {
        c->queues.push_back(std::string(e->name) + "_DAM");
        c->queues.push_back(std::string(e->name) + "_FES");
    }
    std::memcpy(a.sun_path, path, std::strlen(path));
    c->wakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    c->jobFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    c->dataEp = e->epFd[QOV_EAL_THREAD_DATA];
    bool ok = c->wakeFd >= 0 && c->jobFd >= 0;
    if (ok && qovhost::EpollAddFd(c->dataEp, c->jobFd, true, qovhost::OnJobs, c) != 0) {
        c->dataEp = -1;
        ok = false;
    }
    if (!ok) qovhost::Log(*c, "not opened: no event descriptor on the Data thread (errno %d)", errno);
    if (ok) {
        c->listenFd = qovhost::Bind(*c, a);  // says why it fails
        ok = c->listenFd >= 0;
    }
    if (ok && (chmod(path, S_IRUSR | S_IWUSR) != 0 || listen(c->listenFd, 16) != 0)) {
        qovhost::Log(*c, "not opened: cannot listen at %s (errno %d)", path, errno);
        ok = false;
    }
    if (ok) c->thread = std::thread(qovhost::Serve, c);
    if (!ok) {
        if (c->listenFd >= 0) unlink(path);
        qovhost::Free(c);
        return 1;
    }
    e->ctl = c;
    qovhost::Log(*c, "endpoint open at %s", path);
    return 0;
}

QOV_PLAT_API uint32_t QovHostCtlClose(void *eal) {
    qovhost::EalInstance *e = qovhost::LiveEal(eal);
    if (e == nullptr) return 1;
    {
        std::lock_guard<std::mutex> lk(qovhost::g_ctlMu);
        if (e->ctl == nullptr) return 1;
    }
    qovhost::CtlShut(*e);
    return 0;
}

}  // extern "C"
