// qov_replay: plays a recording of an orchestrator's channels (QovHostRecordStart,
// orch_demo --record) back to an orchestrator, acting as its broker. Channel k
// of the recording is served on loopback port PORT+k, as the example broker
// serves DAM on PORT and FES on PORT+1; once every recorded channel has
// connected, the frames go out in the recorded order, as fast as the
// orchestrator takes them or at the recorded pace. The whole file is checked
// before anything listens, so a bad file costs a message and exit status 1.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <pcap/pcap.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "qov_host_api.h"

namespace {

constexpr uint32_t kChanNum = 4;
constexpr const char *kChanName[kChanNum] = {"DAM", "FES", "UP", "EVT"};
constexpr uint32_t kHead = QOV_HOST_RECORD_PSEUDO_LEN + QOV_HOST_FRAME_HDR_LEN;

const char g_usage[] =
    "usage: qov_replay [options] FILE\n"
    "Acts as the broker of the recorded channels: channel k listens on 127.0.0.1:PORT+k\n"
    "(DAM PORT, FES PORT+1), and once each has connected the recorded frames are sent\n"
    "in order. Sync-group frames in the recording are counted, not sent.\n"
    "  --port N       port of channel 0 (default 47470; 0: any free ports in a row)\n"
    "  --speed X      0: as fast as the orchestrator takes them (default); X > 0: the\n"
    "                 recorded pace X times faster (1: as recorded)\n"
    "  --frame-max N  largest frame body to accept (default 65536, the host's default bound)\n"
    "  --accept MS    how long to wait for the channels to connect (default 30000)\n"
    "  --help         this text\n"
    "Exit status 0 when every frame went out, 1 for a bad file or a lost orchestrator,\n"
    "2 for bad options.\n";

struct Options {
    uint64_t port = 47470, frameMax = QOV_HOST_FRAME_MAX_DEFAULT, acceptMs = 30000;
    double speed = 0;
    const char *file = nullptr;
};

struct Totals {
    uint64_t frames[kChanNum] = {}, bytes[kChanNum] = {}, sync = 0;
};

// Reads the recording record by record; each call of Next checks one record.
class Reader {
public:
    explicit Reader(const char *path) : path_(path) {}
    ~Reader() {
        if (p_ != nullptr) pcap_close(p_);
    }
    Reader(const Reader &) = delete;
    Reader &operator=(const Reader &) = delete;

    bool Open(std::string *why) {
        char err[PCAP_ERRBUF_SIZE] = {};
        p_ = pcap_open_offline(path_, err);
        if (p_ == nullptr) return Fail(why, std::string("not a readable capture file: ") + err);
        int link = pcap_datalink(p_);
        if (link != static_cast<int>(QOV_HOST_RECORD_LINKTYPE)) {
            const char *name = pcap_datalink_val_to_name(link);
            return Fail(why, "link type " + std::to_string(link) + " (" + (name ? name : "unknown") +
                                 ") is not a recording of the host's channels (147, USER0)");
        }
        return true;
    }

    // 1: a frame in *frame/*len (the wire bytes), *kind and *chan set; 0: end
    // of file; -1: a bad record or file, the reason in why.
    int Next(const Options &o, const uint8_t **frame, uint32_t *len, uint8_t *kind, uint32_t *chan, timeval *ts,
             std::string *why) {
        pcap_pkthdr *h = nullptr;
        const u_char *d = nullptr;
        int r = pcap_next_ex(p_, &h, &d);
        if (r == PCAP_ERROR_BREAK) return 0;
        if (r != 1) return Bad(why, "after record " + std::to_string(n_) + ": " + pcap_geterr(p_));
        std::string at = "record " + std::to_string(++n_) + ": ";
        if (h->caplen < h->len)
            return Bad(why, at + "kept cut at " + std::to_string(h->caplen) + " of " + std::to_string(h->len) +
                                 " bytes, so it cannot be sent");
        if (h->caplen < kHead)
            return Bad(why, at + std::to_string(h->caplen) + " bytes, shorter than its two headers");
        if (d[0] != QOV_HOST_RECORD_VERSION)
            return Bad(why, at + "record version " + std::to_string(d[0]) + ", this tool reads 1");
        *kind = d[1];
        *chan = QovHostGetU32(d + 4);
        if (*kind == QOV_HOST_RECORD_CHAN && *chan >= kChanNum)
            return Bad(why, at + "channel " + std::to_string(*chan) + " does not exist (0 to 3)");
        if (*kind != QOV_HOST_RECORD_CHAN && *kind != QOV_HOST_RECORD_SYNC)
            return Bad(why, at + "unknown link kind " + std::to_string(*kind));
        uint32_t msgId = 0, msgLen = 0;
        int bad = QovHostFrameHdrDecode(d + QOV_HOST_RECORD_PSEUDO_LEN, UINT32_MAX, &msgId, &msgLen);
        if (bad != 0) return Bad(why, at + "the frame header's magic is wrong");
        if (msgLen > o.frameMax)
            return Bad(why, at + "frame body of " + std::to_string(msgLen) + " bytes is over the bound of " +
                                 std::to_string(o.frameMax) + " (--frame-max)");
        if (msgLen != h->caplen - kHead)
            return Bad(why, at + "the frame header says " + std::to_string(msgLen) + " body bytes, the record holds " +
                                 std::to_string(h->caplen - kHead));
        *frame = d + QOV_HOST_RECORD_PSEUDO_LEN;
        *len = h->caplen - QOV_HOST_RECORD_PSEUDO_LEN;
        *ts = h->ts;
        return 1;
    }

private:
    static bool Fail(std::string *why, std::string text) {
        *why = std::move(text);
        return false;
    }
    static int Bad(std::string *why, std::string text) {
        *why = std::move(text);
        return -1;
    }
    const char *path_;
    pcap_t *p_ = nullptr;
    uint64_t n_ = 0;
};

int Listen(uint16_t port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    int one = 1;
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0 ||
        bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || listen(fd, 1) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

uint16_t BoundPort(int fd) {
    sockaddr_in a{};
    socklen_t n = sizeof a;
    return getsockname(fd, reinterpret_cast<sockaddr *>(&a), &n) == 0 ? ntohs(a.sin_port) : 0;
}

// Listens on base+k for every channel k in use; with base 0, on the first
// free run of ports the kernel's choice for channel 0 starts. false when the
// ports cannot be had.
bool ListenAll(uint64_t base, const bool used[kChanNum], int lfd[kChanNum], uint16_t *first) {
    for (int attempt = 0; attempt < 20; ++attempt) {
        int probe = base == 0 ? Listen(0) : -1;
        uint16_t p0 = base == 0 ? BoundPort(probe) : static_cast<uint16_t>(base);
        if (probe >= 0) close(probe);
        bool ok = p0 != 0 && p0 + kChanNum - 1 <= 65535;
        for (uint32_t k = 0; k < kChanNum; ++k) {
            lfd[k] = ok && used[k] ? Listen(static_cast<uint16_t>(p0 + k)) : -1;
            ok = ok && (!used[k] || lfd[k] >= 0);
        }
        if (ok) {
            *first = p0;
            return true;
        }
        for (uint32_t k = 0; k < kChanNum; ++k)
            if (lfd[k] >= 0) close(lfd[k]);
        if (base != 0) return false;
    }
    return false;
}

uint64_t NowUs() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1000000u + static_cast<uint64_t>(t.tv_nsec) / 1000u;
}

// Sends all of buf; waits while the orchestrator presses back. false when
// the orchestrator went away.
bool SendAll(int fd, const uint8_t *buf, size_t len) {
    while (len > 0) {
        ssize_t n = send(fd, buf, len, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            buf += n;
            len -= static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) return false;
        pollfd p{fd, POLLOUT, 0};
        if (poll(&p, 1, 1000) > 0 && (p.revents & (POLLERR | POLLHUP)) != 0) return false;
    }
    return true;
}

int ParseOptions(int argc, char **argv, Options *o) {
    for (int i = 1; i < argc; ++i) {
        const char *a = argv[i];
        if (std::strcmp(a, "--help") == 0) {
            std::fputs(g_usage, stdout);
            std::exit(0);
        }
        if (a[0] != '-' && o->file == nullptr) {
            o->file = a;
            continue;
        }
        char *end = nullptr;
        const char *v = i + 1 < argc ? argv[++i] : "";
        errno = 0;
        bool ok = false;
        if (std::strcmp(a, "--speed") == 0) {
            o->speed = std::strtod(v, &end);
            ok = std::isfinite(o->speed) && o->speed >= 0;
        } else {
            uint64_t *dst = std::strcmp(a, "--port") == 0        ? &o->port
                            : std::strcmp(a, "--frame-max") == 0 ? &o->frameMax
                            : std::strcmp(a, "--accept") == 0    ? &o->acceptMs
                                                                  : nullptr;
            uint64_t hi = dst == &o->port ? 65532 : dst == &o->frameMax ? QOV_HOST_FRAME_MAX_LIMIT : 86400000;
            if (dst != nullptr && v[0] >= '0' && v[0] <= '9') *dst = std::strtoull(v, &end, 10);
            ok = dst != nullptr && end != nullptr && *dst <= hi;
        }
        if (!ok || end == v || *end != '\0' || errno != 0) {
            std::fprintf(stderr, "qov_replay: bad option or value at '%s'\n%s", a, g_usage);
            return 2;
        }
    }
    if (o->file == nullptr) {
        std::fprintf(stderr, "qov_replay: no recording given\n%s", g_usage);
        return 2;
    }
    return 0;
}

// Checks the whole file; counts the frames of each channel into t.
bool Check(const Options &o, Totals *t) {
    Reader r(o.file);
    std::string why;
    if (!r.Open(&why)) {
        std::fprintf(stderr, "qov_replay: %s: %s\n", o.file, why.c_str());
        return false;
    }
    const uint8_t *frame;
    uint32_t len, chan;
    uint8_t kind;
    timeval ts;
    int got;
    while ((got = r.Next(o, &frame, &len, &kind, &chan, &ts, &why)) == 1) {
        if (kind == QOV_HOST_RECORD_SYNC) {
            ++t->sync;
            continue;
        }
        ++t->frames[chan];
        t->bytes[chan] += len;
    }
    if (got < 0) {
        std::fprintf(stderr, "qov_replay: %s: %s\n", o.file, why.c_str());
        return false;
    }
    uint64_t all = 0;
    for (uint64_t n : t->frames) all += n;
    if (all == 0) {
        std::fprintf(stderr, "qov_replay: %s: no channel frames to send\n", o.file);
        return false;
    }
    return true;
}

// Waits until every channel has connected; false on the time limit.
bool AcceptAll(const Options &o, const int lfd[kChanNum], int cfd[kChanNum]) {
    for (uint64_t start = NowUs(); NowUs() - start < o.acceptMs * 1000u;) {
        pollfd p[kChanNum];
        uint32_t n = 0, waiting = 0;
        for (uint32_t k = 0; k < kChanNum; ++k)
            if (lfd[k] >= 0 && cfd[k] < 0) p[n++] = {lfd[k], POLLIN, 0}, ++waiting;
        if (waiting == 0) return true;
        if (poll(p, n, 100) <= 0) continue;
        for (uint32_t k = 0; k < kChanNum; ++k)
            if (lfd[k] >= 0 && cfd[k] < 0) cfd[k] = accept4(lfd[k], nullptr, nullptr, SOCK_CLOEXEC);
    }
    return false;
}

// Sends the channel frames in file order; at a pace when speed > 0.
bool SendAllFrames(const Options &o, const int cfd[kChanNum], Totals *sent) {
    Reader r(o.file);
    std::string why;
    if (!r.Open(&why)) return false;
    const uint8_t *frame;
    uint32_t len, chan;
    uint8_t kind;
    timeval ts;
    uint64_t wall0 = 0, rec0 = 0;
    while (r.Next(o, &frame, &len, &kind, &chan, &ts, &why) == 1) {
        if (kind != QOV_HOST_RECORD_CHAN) continue;
        uint64_t recUs = static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_usec);
        if (wall0 == 0) wall0 = NowUs(), rec0 = recUs;
        if (o.speed > 0 && recUs > rec0) {
            uint64_t due = wall0 + static_cast<uint64_t>(static_cast<double>(recUs - rec0) / o.speed);
            for (uint64_t now = NowUs(); now < due; now = NowUs()) {
                timespec pause{0, static_cast<long>((due - now) * 1000u)};
                if (due - now >= 1000000u) pause = {1, 0};
                nanosleep(&pause, nullptr);
            }
        }
        if (!SendAll(cfd[chan], frame, len)) {
            std::fprintf(stderr, "qov_replay: channel %s: the orchestrator closed the connection after %" PRIu64
                                 " frames\n",
                         kChanName[chan], sent->frames[chan]);
            return false;
        }
        ++sent->frames[chan];
        sent->bytes[chan] += len;
    }
    return true;
}

// Waits (at most 30 s) for the orchestrator to close every channel, dropping what it sends.
void AwaitClose(int cfd[kChanNum]) {
    char sink[4096];
    for (int i = 0; i < 300; ++i) {
        pollfd p[kChanNum];
        uint32_t n = 0;
        for (uint32_t k = 0; k < kChanNum; ++k)
            if (cfd[k] >= 0) p[n++] = {cfd[k], POLLIN, 0};
        if (n == 0) return;
        if (poll(p, n, 100) <= 0) continue;
        for (uint32_t k = 0; k < kChanNum; ++k) {
            if (cfd[k] < 0) continue;
            ssize_t got = recv(cfd[k], sink, sizeof sink, MSG_DONTWAIT);
            if (got > 0 || (got < 0 && (errno == EAGAIN || errno == EINTR))) continue;
            close(cfd[k]);
            cfd[k] = -1;
        }
    }
}

}  // namespace

int main(int argc, char **argv) {
    Options o;
    if (int rc = ParseOptions(argc, argv, &o); rc != 0) return rc;
    Totals inFile;
    if (!Check(o, &inFile)) return 1;

    bool used[kChanNum];
    int lfd[kChanNum], cfd[kChanNum] = {-1, -1, -1, -1};
    for (uint32_t k = 0; k < kChanNum; ++k) used[k] = inFile.frames[k] != 0;
    uint16_t first = 0;
    if (!ListenAll(o.port, used, lfd, &first)) {
        std::fprintf(stderr, "qov_replay: cannot listen on the ports from %" PRIu64 ": %s\n", o.port,
                     std::strerror(errno));
        return 1;
    }
    std::printf("qov_replay: %s:", o.file);
    for (uint32_t k = 0; k < kChanNum; ++k)
        if (used[k]) std::printf(" %s %" PRIu64 " frames", kChanName[k], inFile.frames[k]);
    std::printf("; listening on 127.0.0.1:%u (channel k on %u+k)\n", first, first);
    std::fflush(stdout);

    int rc = 1;
    Totals sent;
    uint64_t t0 = 0;
    if (!AcceptAll(o, lfd, cfd)) {
        std::fprintf(stderr, "qov_replay: not every recorded channel connected within %" PRIu64 " ms\n", o.acceptMs);
    } else {
        t0 = NowUs();
        rc = SendAllFrames(o, cfd, &sent) ? 0 : 1;
    }
    double secs = t0 != 0 ? static_cast<double>(NowUs() - t0) / 1e6 : 0.0;
    uint64_t frames = 0, bytes = 0;
    for (uint32_t k = 0; k < kChanNum; ++k) frames += sent.frames[k], bytes += sent.bytes[k];
    std::printf("qov_replay: sent %" PRIu64 " frames, %" PRIu64 " bytes in %.2f s", frames, bytes, secs);
    for (uint32_t k = 0; k < kChanNum; ++k)
        if (used[k]) std::printf("; %s %" PRIu64 " frames %" PRIu64 " bytes", kChanName[k], sent.frames[k], sent.bytes[k]);
    std::printf("%s\n", inFile.sync != 0 ? (", " + std::to_string(inFile.sync) + " sync-group frames not sent").c_str()
                                         : "");
    if (rc == 0) AwaitClose(cfd);
    for (uint32_t k = 0; k < kChanNum; ++k) {
        if (cfd[k] >= 0) close(cfd[k]);
        if (lfd[k] >= 0) close(lfd[k]);
    }
    return rc;
}
