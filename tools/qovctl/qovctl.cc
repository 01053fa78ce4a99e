// qovctl: asks a running orchestrator for its live state over its control
// endpoint (a Unix-domain socket; QovHostCtlOpen in the host API), one request
// per connection. `top` refreshes one screen from the metrics answer; `bench`
// times answers.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

const char kUsage[] =
    "usage: qovctl -s SOCKET COMMAND\n"
    "  queues              the list report of all merge queues\n"
    "  queue NAME          the full report of one queue\n"
    "  channels            channels: state, back-pressure, frames and bytes in, drops, reconnects\n"
    "  links               sync-group links: state, back-pressure, frames out and in\n"
    "  metrics             every counter in the Prometheus text format\n"
    "  top [-i MS] [-n N]  refreshing view of depth, rates, back-pressure and latency per path\n"
    "                      (every MS milliseconds, default 1000; N screens, default until Ctrl-C)\n"
    "  bench [-n N] [CMD]  N requests of CMD (default metrics): round trip and Data-thread time\n";

constexpr int kWaitMs = 5000;

// The endpoint at a socket path.
struct Endpoint {
    std::string sock;
    // One request and its whole answer; false (with a message in *out) when
    // the endpoint cannot be reached or stops answering.
    bool Ask(const std::string &req, std::string *out) const;
};

bool Endpoint::Ask(const std::string &req, std::string *out) const {
    out->clear();
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    if (sock.size() >= sizeof a.sun_path) {
        *out = "socket path too long";
        return false;
    }
    std::memcpy(a.sun_path, sock.data(), sock.size());
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
        *out = "cannot connect to " + sock + ": " + std::strerror(errno);
        if (fd >= 0) close(fd);
        return false;
    }
    std::string line = req + "\n";
    bool ok = send(fd, line.data(), line.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(line.size());
    char buf[16384];
    while (ok) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, kWaitMs) != 1) {
            ok = false;
            break;
        }
        ssize_t r = recv(fd, buf, sizeof buf, 0);
        if (r == 0) break;
        if (r < 0 && errno == EINTR) continue;
        if (r < 0) ok = false;
        else out->append(buf, static_cast<size_t>(r));
    }
    close(fd);
    if (!ok) *out = "no answer from " + sock;
    return ok;
}

// ---- Metrics text ----

struct Sample {
    std::string name;
    std::map<std::string, std::string> labels;
    double value;
};

std::vector<Sample> Parse(const std::string &text) {
    std::vector<Sample> out;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t eol = text.find('\n', pos);
        if (eol == std::string::npos) eol = text.size();
        std::string l = text.substr(pos, eol - pos);
        pos = eol + 1;
        if (l.empty() || l[0] == '#') continue;
        Sample s;
        size_t i = l.find_first_of("{ ");
        if (i == std::string::npos) continue;
        s.name = l.substr(0, i);
        if (l[i] == '{') {
            ++i;
            while (i < l.size() && l[i] != '}') {
                size_t eq = l.find('=', i);
                if (eq == std::string::npos || eq + 1 >= l.size() || l[eq + 1] != '"') break;
                std::string key = l.substr(i, eq - i), val;
                size_t j = eq + 2;
                for (; j < l.size() && l[j] != '"'; ++j) {
                    if (l[j] == '\\' && j + 1 < l.size()) ++j;
                    val += l[j] == 'n' && l[j - 1] == '\\' ? '\n' : l[j];
                }
                s.labels[key] = val;
                i = j + 1;
                if (i < l.size() && l[i] == ',') ++i;
            }
            ++i;
        }
        s.value = std::strtod(l.c_str() + std::min(i, l.size()), nullptr);
        out.push_back(std::move(s));
    }
    return out;
}

// A metric, or one series of it by one label (no key: the first sample).
struct Series {
    std::string name, key, val;
};

struct Snap {
    std::vector<Sample> samples;
    std::chrono::steady_clock::time_point at;

    double Get(const Series &m, double none = 0) const {
        for (const Sample &s : samples) {
            if (s.name != m.name) continue;
            auto it = s.labels.find(m.key);
            if (m.key.empty() || (it != s.labels.end() && it->second == m.val)) return s.value;
        }
        return none;
    }
    // Distinct values of the label m.key among the samples of m.name.
    std::vector<std::string> Values(const Series &m) const {
        std::vector<std::string> v;
        for (const Sample &s : samples) {
            auto it = s.labels.find(m.key);
            if (s.name == m.name && it != s.labels.end() && std::find(v.begin(), v.end(), it->second) == v.end())
                v.push_back(it->second);
        }
        return v;
    }
};

// Per second between two snapshots of the sum of some series; "-" when there
// is no earlier snapshot.
std::string Rate(const Snap *prev, const Snap &cur, const std::vector<Series> &sum, const char *fmt = "%.0f",
                 double scale = 1) {
    if (prev == nullptr) return "-";
    double dt = std::chrono::duration<double>(cur.at - prev->at).count(), d = 0;
    for (const Series &m : sum) d += cur.Get(m) - prev->Get(m);
    if (dt <= 0 || d < 0) return "-";
    char b[32];
    std::snprintf(b, sizeof b, fmt, d / dt / scale);
    return b;
}

// A quantile of the latency histogram of one queue over the last interval, as
// the upper bound of the bucket it falls in.
std::string Latency(const Snap *prev, const Snap &cur, const std::string &queue, double q) {
    if (prev == nullptr) return "-";
    std::vector<std::pair<double, double>> buckets;  // le, count in the interval
    for (const Sample &s : cur.samples) {
        if (s.name != "qov_path_latency_seconds_bucket") continue;
        auto qi = s.labels.find("queue"), li = s.labels.find("le");
        if (qi == s.labels.end() || qi->second != queue || li == s.labels.end()) continue;
        double before = 0;
        for (const Sample &p : prev->samples)
            if (p.name == s.name && p.labels == s.labels) before = p.value;
        buckets.emplace_back(li->second == "+Inf" ? INFINITY : std::strtod(li->second.c_str(), nullptr),
                             s.value - before);
    }
    std::sort(buckets.begin(), buckets.end());
    if (buckets.empty() || buckets.back().second <= 0) return "-";
    double want = q * buckets.back().second;
    for (const auto &[le, n] : buckets) {
        if (n < want) continue;
        if (std::isinf(le)) return "> max";
        char b[32];
        if (le < 1e-3) std::snprintf(b, sizeof b, "<=%.0fus", le * 1e6);
        else if (le < 1) std::snprintf(b, sizeof b, "<=%.0fms", le * 1e3);
        else std::snprintf(b, sizeof b, "<=%.0fs", le);
        return b;
    }
    return "-";
}

volatile std::sig_atomic_t g_stop = 0;

struct TopOpts {
    int intervalMs = 1000;
    int count = 0;  // screens; 0 until Ctrl-C
};

// One screen of top from two snapshots (p null: the first, without rates).
std::string Screen(const Endpoint &ep, const TopOpts &o, const Snap *p, const Snap &cur) {
    std::string s;
    char b[512];
    std::time_t now = std::time(nullptr);
    std::tm tm{};
    char when[16];
    std::strftime(when, sizeof when, "%H:%M:%S", localtime_r(&now, &tm));
    std::snprintf(b, sizeof b, "qovctl top  %s  %s  every %.1f s\n\n", ep.sock.c_str(), when, o.intervalMs / 1e3);
    s += b;
    std::snprintf(b, sizeof b, "%-16s %8s %8s %13s %9s %9s %9s %5s %7s %8s %8s\n", "QUEUE", "DEPTH", "PEAK", "HIGH/LOW",
                  "IN/s", "MERGED/s", "OUT/s", "OVER", "CROSSED", "LAT p50", "LAT p99");
    s += b;
    for (const std::string &q : cur.Values({"qov_queue_depth", "queue", ""})) {
        auto m = [&](const char *name) { return Series{name, "queue", q}; };
        char hl[32];
        std::snprintf(hl, sizeof hl, "%.0f/%.0f", cur.Get(m("qov_queue_high_water")),
                      cur.Get(m("qov_queue_low_water")));
        std::snprintf(b, sizeof b, "%-16s %8.0f %8.0f %13s %9s %9s %9s %5s %7.0f %8s %8s\n", q.c_str(),
                      cur.Get(m("qov_queue_depth")), cur.Get(m("qov_queue_depth_peak")), hl,
                      Rate(p, cur, {m("qov_queue_appends_total"), m("qov_queue_merges_total")}).c_str(),
                      Rate(p, cur, {m("qov_queue_merges_total")}).c_str(),
                      Rate(p, cur, {m("qov_queue_reads_total")}).c_str(),
                      cur.Get(m("qov_queue_overload")) != 0 ? "yes" : "no", cur.Get(m("qov_queue_over_high_water_total")),
                      Latency(p, cur, q, 0.5).c_str(), Latency(p, cur, q, 0.99).c_str());
        s += b;
    }
    std::snprintf(b, sizeof b, "\n%-4s %-20s %-5s %-7s %7s %10s %8s %8s %10s\n", "CHAN", "NAME", "STATE", "PRESSED",
                  "PRESSES", "FRAMES/s", "MB/s", "DROPPED", "RECONNECTS");
    s += b;
    for (const std::string &c : cur.Values({"qov_chan_up", "chan", ""})) {
        auto m = [&](const char *name) { return Series{name, "chan", c}; };
        double dropped = 0;
        std::string name;
        for (const Sample &x : cur.samples) {
            auto it = x.labels.find("chan");
            if (it == x.labels.end() || it->second != c) continue;
            if (x.name == "qov_chan_frames_dropped_total") dropped += x.value;
            if (x.name == "qov_chan_up" && x.labels.count("name") != 0) name = x.labels.at("name");
        }
        std::snprintf(b, sizeof b, "%-4s %-20s %-5s %-7s %7.0f %10s %8s %8.0f %10.0f\n", c.c_str(), name.c_str(),
                      cur.Get(m("qov_chan_up")) != 0 ? "up" : "down", cur.Get(m("qov_chan_pressed")) != 0 ? "yes" : "no",
                      cur.Get(m("qov_chan_presses_total")),
                      Rate(p, cur, {m("qov_chan_frames_in_total")}).c_str(),
                      Rate(p, cur, {m("qov_chan_bytes_in_total")}, "%.2f", 1e6).c_str(), dropped,
                      cur.Get(m("qov_chan_reconnects_total")));
        s += b;
    }
    std::vector<std::string> groups = cur.Values({"qov_sync_up", "group", ""});
    if (!groups.empty()) {
        std::snprintf(b, sizeof b, "\n%-5s %-5s %-7s %10s %10s\n", "SYNC", "STATE", "PRESSED", "OUT/s", "IN/s");
        s += b;
    }
    for (const std::string &g : groups) {
        auto m = [&](const char *name) { return Series{name, "group", g}; };
        std::snprintf(b, sizeof b, "%-5s %-5s %-7s %10s %10s\n", g.c_str(), cur.Get(m("qov_sync_up")) != 0 ? "up" : "down",
                      cur.Get(m("qov_sync_pressed")) != 0 ? "yes" : "no",
                      Rate(p, cur, {m("qov_sync_frames_out_total")}).c_str(),
                      Rate(p, cur, {m("qov_sync_frames_in_total")}).c_str());
        s += b;
    }
    auto cmd = [](const char *name) { return Series{name, "command", "metrics"}; };
    double n = cur.Get(cmd("qov_ctl_answers_total")), secs = cur.Get(cmd("qov_ctl_answer_seconds_total"));
    std::snprintf(b, sizeof b,
                  "\nmetrics answer on the Data thread: %.0f us on average, %.0f us at most; "
                  "last wait for the Data thread %.0f us\n",
                  n > 0 ? secs / n * 1e6 : 0.0, cur.Get(cmd("qov_ctl_answer_seconds_max")) * 1e6,
                  cur.Get({"qov_ctl_wait_seconds", "", ""}) * 1e6);
    s += b;
    return s;
}

int Top(const Endpoint &ep, const TopOpts &o) {
    std::signal(SIGINT, [](int) { g_stop = 1; });
    bool tty = isatty(STDOUT_FILENO) != 0;
    Snap prev;
    bool havePrev = false;
    for (int shown = 0; g_stop == 0 && (o.count == 0 || shown < o.count);) {
        std::string text;
        if (!ep.Ask("metrics", &text)) {
            std::fprintf(stderr, "qovctl: %s\n", text.c_str());
            return 1;
        }
        Snap cur{Parse(text), std::chrono::steady_clock::now()};
        // A first screen without rates is only shown when it is the only one.
        if (havePrev || o.count == 1) {
            std::string clear = tty ? "\x1b[H\x1b[2J" : (shown != 0 ? "\n" : "");
            std::fputs((clear + Screen(ep, o, havePrev ? &prev : nullptr, cur)).c_str(), stdout);
            std::fflush(stdout);
            ++shown;
        }
        prev = std::move(cur);
        havePrev = true;
        if (o.count == 0 || shown < o.count) std::this_thread::sleep_for(std::chrono::milliseconds(o.intervalMs));
    }
    return 0;
}

int Bench(const Endpoint &ep, int n, const std::string &cmd) {
    std::string text;
    if (!ep.Ask("metrics", &text)) {
        std::fprintf(stderr, "qovctl: %s\n", text.c_str());
        return 1;
    }
    Snap before{Parse(text), {}};
    std::vector<double> rtt;
    size_t bytes = 0;
    for (int i = 0; i < n; ++i) {
        auto t0 = std::chrono::steady_clock::now();
        if (!ep.Ask(cmd, &text) || text.rfind("error: ", 0) == 0) {
            std::fprintf(stderr, "qovctl: %s\n", text.c_str());
            return 1;
        }
        rtt.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
        bytes = text.size();
    }
    if (!ep.Ask("metrics", &text)) return 1;
    Snap after{Parse(text), {}};
    auto m = [&](const char *name) { return Series{name, "command", cmd.substr(0, cmd.find(' '))}; };
    double answers = after.Get(m("qov_ctl_answers_total")) - before.Get(m("qov_ctl_answers_total"));
    double secs = after.Get(m("qov_ctl_answer_seconds_total")) - before.Get(m("qov_ctl_answer_seconds_total"));
    std::sort(rtt.begin(), rtt.end());
    auto at = [&](double q) {
        return rtt[std::min(rtt.size() - 1, static_cast<size_t>(q * static_cast<double>(rtt.size())))] * 1e6;
    };
    std::printf("%d x \"%s\" (%zu bytes): round trip p50 %.0f us, p99 %.0f us, max %.0f us\n", n, cmd.c_str(), bytes,
                at(0.5), at(0.99), rtt.back() * 1e6);
    std::printf("Data thread per answer: %.1f us on average over %.0f answers; the longest since start %.1f us\n",
                answers > 0 ? secs / answers * 1e6 : 0.0, answers, after.Get(m("qov_ctl_answer_seconds_max")) * 1e6);
    return 0;
}

// Takes the value of option opt out of args; def when it is not there.
int Opt(std::vector<std::string> &args, const char *opt, int def) {
    for (size_t i = 0; i + 1 < args.size(); ++i) {
        if (args[i] != opt) continue;
        int v = std::atoi(args[i + 1].c_str());
        args.erase(args.begin() + static_cast<long>(i), args.begin() + static_cast<long>(i) + 2);
        return v;
    }
    return def;
}

}  // namespace

int main(int argc, char **argv) {
    Endpoint ep;
    std::vector<std::string> args;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "-s") == 0 && i + 1 < argc) ep.sock = argv[++i];
        else if (std::strcmp(argv[i], "-h") == 0 || std::strcmp(argv[i], "--help") == 0) {
            std::fputs(kUsage, stdout);
            return 0;
        } else args.emplace_back(argv[i]);
    }
    if (ep.sock.empty() || args.empty()) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    if (args[0] == "top") {
        TopOpts o;
        o.intervalMs = Opt(args, "-i", 1000);
        o.count = Opt(args, "-n", 0);
        if (args.size() != 1 || o.intervalMs < 50 || o.count < 0) {
            std::fputs(kUsage, stderr);
            return 2;
        }
        return Top(ep, o);
    }
    if (args[0] == "bench") {
        int n = Opt(args, "-n", 1000);
        std::string cmd;
        for (size_t i = 1; i < args.size(); ++i) cmd += (i > 1 ? " " : "") + args[i];
        if (n < 1) {
            std::fputs(kUsage, stderr);
            return 2;
        }
        return Bench(ep, n, cmd.empty() ? "metrics" : cmd);
    }
    std::string req, out;
    for (const std::string &a : args) req += (req.empty() ? "" : " ") + a;
    if (!ep.Ask(req, &out)) {
        std::fprintf(stderr, "qovctl: %s\n", out.c_str());
        return 1;
    }
    bool err = out.rfind("error: ", 0) == 0;
    std::fputs(out.c_str(), err ? stderr : stdout);
    return err ? 1 : 0;
}
