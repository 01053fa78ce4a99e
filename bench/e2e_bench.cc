// e2e_bench: the library's whole receive path (broker frames, ASOrchMsgProc,
// the DAM merge queue, dispatch to a handler) beside a coalescer written by
// hand the usual way (an unordered_map from the 16-byte key to {operation,
// 32-byte entry, list position} and a list in arrival order), both fed the
// example broker's route stream and delivering to one handler, with the same
// merge rule, batches of 32, high/low water and final-value check.
//
// Modes: over loopback TCP from a broker thread (a flood at 100 k and 1 M
// keys, handler cost 0 and 1.5 us; a paced run at the demo's rate for the
// latency), and in process (the frames built in memory and handed over on
// one thread, no sockets), which also gives the memory per pending entry and
// what a drain gives back. --count runs the in-process path under callgrind
// for exact instructions per entry. Syscalls are counted per consumer thread
// with a perf counter on the raw_syscalls:sys_enter tracepoint (root only;
// "n/a" otherwise).
#include <fcntl.h>
#include <linux/perf_event.h>
#include <malloc.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <arpa/inet.h>
#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <list>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "e2e_stream.h"
#include "qov_autosync_orch.h"
#include "qov_host_api.h"
#include "qov_host_ctl.h"

namespace {

constexpr uint32_t kKeySize = 16;
constexpr uint32_t kEntrySize = 32;
constexpr uint32_t kBodyPrefix = 8;
constexpr uint32_t kBatch = 32;          // entries per reader turn, as the library reads
constexpr uint32_t kFramesPerTurn = 32;  // in process: frames handed over between reader turns
constexpr unsigned kHistBuckets = 8 * 40;

uint64_t NowUs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

uint64_t NowNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

void Spend(uint64_t ns) {
    if (ns == 0) return;
    uint64_t t0 = NowNs();
    while (NowNs() - t0 < ns) {
    }
}

unsigned HistBucket(uint64_t us) {
    if (us < 8) return static_cast<unsigned>(us);
    unsigned msb = 63u - static_cast<unsigned>(__builtin_clzll(us));
    unsigned b = (msb - 2u) * 8u + static_cast<unsigned>((us >> (msb - 3u)) & 7u);
    return b < kHistBuckets ? b : kHistBuckets - 1u;
}

uint64_t HistValue(unsigned b) {
    if (b < 8) return b;
    unsigned msb = b / 8u + 2u;
    return (8u + (b % 8u)) << (msb - 3u);
}

// Heap in use, every arena and the mapped chunks.
uint64_t HeapInUse() {
    struct mallinfo2 m = mallinfo2();
    return m.uordblks + m.hblkhd;
}

// ---- The handler both consumers deliver to ----
struct Sink {
    uint32_t keys = 0;
    uint64_t handlerNs = 0;
    bool timed = false;  // loopback: stamp deliveries and keep the latency
    std::vector<uint32_t> gotSeq;
    std::vector<uint8_t> gotOp;
    std::atomic<uint64_t> delivered{0}, entries{0}, firstUs{0}, lastUs{0};
    std::atomic<uint32_t> measureFrom{0};  // broker send time from which latency counts
    std::atomic<bool> measuring{false}, endSeen{false}, bad{false};
    std::array<uint64_t, kHistBuckets> hist{};

    void Reset(uint32_t k, uint64_t ns, bool t) {
        keys = k;
        handlerNs = ns;
        timed = t;
        gotSeq.assign(k, 0);
        gotOp.assign(k, 0);
        delivered = entries = firstUs = lastUs = 0;
        measureFrom = 0;
        measuring = endSeen = bad = false;
        hist.fill(0);
    }
    // op 0 set, 1 delete, 2 delete then set; the entry's value and op are kept.
    uint32_t Deliver(uint32_t op, const uint8_t *entry) {
        uint32_t key = E2eKeyOf(entry, keys);
        if (key == UINT32_MAX || op > 2) {
            bad = true;
            return 1;
        }
        Spend(handlerNs);
        uint32_t seq, sent;
        std::memcpy(&seq, entry + 24, 4);
        std::memcpy(&sent, entry + 28, 4);
        gotSeq[key] = seq;
        gotOp[key] = op == 1 ? 2 : 1;  // the workload's delete and set
        uint64_t d = delivered.fetch_add(1, std::memory_order_relaxed);
        if (timed) {
            bool lat = measuring.load(std::memory_order_relaxed) &&
                       static_cast<int32_t>(sent - measureFrom.load(std::memory_order_relaxed)) >= 0;
            if (lat || (d & 31u) == 0) {
                uint64_t now = NowUs();
                if (lat) hist[HistBucket(static_cast<uint32_t>(now) - sent)]++;
                lastUs.store(now, std::memory_order_relaxed);
            }
        }
        return 0;
    }
    void Received(uint32_t msgLen) {
        if (timed && firstUs.load(std::memory_order_relaxed) == 0) firstUs = NowUs();
        if (msgLen >= kBodyPrefix) entries.fetch_add((msgLen - kBodyPrefix) / kEntrySize, std::memory_order_relaxed);
    }
    bool Check() const {
        const uint32_t *seq = E2eSentSeq();
        const uint8_t *op = E2eSentOp();
        for (uint32_t k = 0; k < keys; ++k)
            if (gotSeq[k] != seq[k] || gotOp[k] != op[k]) return false;
        return !bad;
    }
    uint64_t Percentile(double q) const {
        uint64_t total = 0, seen = 0;
        for (uint64_t n : hist) total += n;
        for (unsigned b = 0; b < kHistBuckets; ++b) {
            seen += hist[b];
            if (total != 0 && static_cast<double>(seen) >= q * static_cast<double>(total)) return HistValue(b);
        }
        return 0;
    }
};

Sink g_sink;

// ---- Syscalls of one thread, from the raw_syscalls:sys_enter tracepoint ----
class SysCounter {
public:
    explicit SysCounter(pid_t tid) {
        static const int id = TracepointId();
        if (id < 0 || tid <= 0) return;
        perf_event_attr a{};
        a.type = PERF_TYPE_TRACEPOINT;
        a.size = sizeof a;
        a.config = static_cast<uint64_t>(id);
        fd_ = static_cast<int>(syscall(__NR_perf_event_open, &a, tid, -1, -1, PERF_FLAG_FD_CLOEXEC));
    }
    ~SysCounter() {
        if (fd_ >= 0) close(fd_);
    }
    SysCounter(const SysCounter &) = delete;
    SysCounter &operator=(const SysCounter &) = delete;
    // Syscalls since the counter was opened; -1 when it could not be.
    double Read() const {
        uint64_t n = 0;
        return fd_ >= 0 && read(fd_, &n, sizeof n) == sizeof n ? static_cast<double>(n) : -1.0;
    }

private:
    static int TracepointId() {
        for (const char *p : {"/sys/kernel/tracing/events/raw_syscalls/sys_enter/id",
                              "/sys/kernel/debug/tracing/events/raw_syscalls/sys_enter/id"}) {
            FILE *f = std::fopen(p, "r");
            int id = -1;
            if (f == nullptr) continue;
            if (std::fscanf(f, "%d", &id) != 1) id = -1;
            std::fclose(f);
            if (id >= 0) return id;
        }
        return -1;
    }
    int fd_ = -1;
};

pid_t Tid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

// ---- The library, registered as orch_demo registers its DAM path ----
struct Cfg {
    uint32_t keys = 100000;
    uint64_t handlerNs = 0;
    uint32_t high = 20000, low = 5000;
    uint64_t flood = 1000000;  // entries after the fill
    uint32_t rate = 0;         // paced: DAM messages per second
    uint32_t durationMs = 0;
};

uint32_t HashSize(uint32_t high) {
    uint32_t n = 1024;
    while (n < high && n < (1u << 22)) n <<= 1;
    return n;
}

ASOrchHandle *g_hdl;

uint32_t LibOnRoute(ASOrchHandle *, ASOrchMergeMsgVec *vec) {
    if (vec->dataSize != kEntrySize) return 1;
    return g_sink.Deliver(vec->opType, static_cast<const uint8_t *>(vec->data));
}

uint32_t LibHash(const void *vec) {
    return ASOrchMergeHashFunc(g_hdl, AS_ORCH_MERGE_DAM, static_cast<const ASOrchMergeMsgVec *>(vec));
}

uint32_t LibOnFrame(void *, QovHostIpcMsg *msg) {
    if (msg->msgId == E2eMsgEnd()) {
        g_sink.endSeen = true;
        return 0;
    }
    g_sink.Received(msg->msgLen);
    ASOrchIpcMsg m = {msg->body, msg->msgId, msg->msgLen};
    return ASOrchMsgProc(g_hdl, &m);
}

void *Alloc(uint32_t n) { return std::malloc(n); }

// Creates and registers the handle; port 0: the channel is registered but
// never started (in process).
bool LibUp(const Cfg &c, uint16_t port) {
    ASOrchCreatePara cp = {0, 0, Alloc, std::free, 0};
    g_hdl = ASOrchCreate("e2eLib", &cp);
    if (g_hdl == nullptr) return false;
    static ASOrchRecvTblMsg recv[2];
    recv[0] = {E2eMergeId(), E2eMsgSet(), 0, nullptr, nullptr, kEntrySize, AS_ORCH_MERGE_DAM, nullptr, 0, kKeySize};
    recv[1] = {E2eMergeId(), E2eMsgDel(), 0, nullptr, nullptr, kEntrySize, AS_ORCH_MERGE_DAM, nullptr, 1, kKeySize};
    static ASOrchMergeMsgDispatch tbl[1];
    tbl[0] = {E2eMergeId(), {LibOnRoute, LibOnRoute, LibOnRoute, nullptr}};
    ASOrchBasePara base;
    std::memset(&base, 0, sizeof base);
    base.threadMask = 1;  // the Data thread
    base.syncGrpMsgSet[0] = 1;
    base.chan[0].realServerPort = port != 0 ? port : 1;
    base.recvTblMsgList[0] = ASOrchTblMsgList{recv, 2};
    base.damMerge = ASOrchMergePara{tbl, 1, HashSize(c.high), LibHash, c.high, c.low};
    if (ASOrchRegBase(g_hdl, &base) != 0 || ASOrchInit(g_hdl) != 0) return false;
    return QovHostChanSetRecv(ASOrchGetEalHdl(g_hdl), 0, LibOnFrame, nullptr) == 0;
}

void LibDown() {
    if (g_hdl == nullptr) return;
    QovHostChanSetRecv(ASOrchGetEalHdl(g_hdl), 0, nullptr, nullptr);
    ASOrchDestroy(g_hdl);
    g_hdl = nullptr;
}

bool LibPressed() {
    QovHostChanRow row{};
    return QovHostChanGet(ASOrchGetEalHdl(g_hdl), 0, &row) == 0 && row.pressed != 0;
}

uint32_t LibDepth() {
    static char buf[4096];
    if (QOV_PrintMergeQueInfo("e2eLib_DAM", buf, sizeof buf) == 0) return 0;
    const char *at = std::strstr(buf, "Mque CurrCnt");
    unsigned v = 0;
    return at != nullptr && std::sscanf(at + 12, "%u", &v) == 1 ? v : 0;
}

// ---- The hand-written coalescer ----
struct Key {
    uint8_t b[kKeySize];
    bool operator==(const Key &o) const { return std::memcmp(b, o.b, kKeySize) == 0; }
};
struct KeyHash {
    size_t operator()(const Key &k) const {
        uint64_t x, y;
        std::memcpy(&x, k.b, 8);
        std::memcpy(&y, k.b + 8, 8);
        uint64_t h = (x ^ (y * 0x9E3779B97F4A7C15ull)) * 0xFF51AFD7ED558CCDull;
        return static_cast<size_t>(h ^ (h >> 32));
    }
};

class Hand {
public:
    Hand(uint32_t high, uint32_t low) : high_(high), low_(low) { map_.reserve(high); }

    // One receive message: each entry merged by its key, or appended.
    void Frame(uint32_t msgId, const uint8_t *body, uint32_t len) {
        uint32_t op = msgId == E2eMsgSet() ? 0 : msgId == E2eMsgDel() ? 1 : 3;
        if (op == 3 || len < kBodyPrefix) return;
        for (uint32_t off = kBodyPrefix; len - off >= kEntrySize; off += kEntrySize) {
            Key k;
            std::memcpy(k.b, body + off, kKeySize);
            auto [it, fresh] = map_.try_emplace(k);
            Pending &p = it->second;
            if (fresh) {
                p.op = op;
                order_.push_back(&it->first);
                if (map_.size() > high_) pressed_ = true;
            } else {
                p.op = Merge(p.op, op);
            }
            std::memcpy(p.entry, body + off, kEntrySize);
        }
    }
    // Up to one batch from the head, each taken out before the handler runs.
    uint32_t Read() {
        uint32_t n = 0;
        for (; n < kBatch && !order_.empty(); ++n) {
            const Key *k = order_.front();
            order_.pop_front();
            auto it = map_.find(*k);
            Pending p = it->second;
            map_.erase(it);
            g_sink.Deliver(p.op, p.entry);
        }
        if (pressed_ && map_.size() < low_) pressed_ = false;
        return n;
    }
    bool Pressed() const { return pressed_; }
    size_t Depth() const { return map_.size(); }

private:
    struct Pending {
        uint32_t op;
        uint8_t entry[kEntrySize];
    };
    // stored, incoming -> merged: a delete wins, a set after a delete is 2.
    static uint32_t Merge(uint32_t stored, uint32_t incoming) { return incoming == 1 ? 1 : stored == 0 ? 0 : 2; }

    std::unordered_map<Key, Pending, KeyHash> map_;
    std::list<const Key *> order_;
    uint32_t high_, low_;
    bool pressed_ = false;
};

// ---- Results ----
struct Result {
    double secs = 0;
    uint64_t entries = 0, delivered = 0;
    double syscalls = -1;
    uint64_t p50 = 0, p99 = 0;
    bool check = false;
    // in process
    int64_t peakBytes = 0, drainedBytes = 0;
    uint64_t peakDepth = 0;
};

double PerEntry(double v, uint64_t entries) { return v < 0 || entries == 0 ? -1 : v / static_cast<double>(entries); }

// ---- In process: frames built in memory, handed over on this thread ----
struct Stream {
    std::vector<uint8_t> bytes;
    uint64_t entries = 0;
};

Stream BuildStream(const Cfg &c) {
    E2eStreamCfg sc{c.keys, 1, c.keys - c.keys / 4 + c.flood, 0, 0};
    size_t len = 0;
    Stream s;
    uint8_t *p = E2eStreamBuild(&sc, &len, &s.entries);
    if (p != nullptr) s.bytes.assign(p, p + len);
    std::free(p);
    return s;
}

// The next frame at *off, or false at the end.
bool NextFrame(const Stream &s, size_t *off, QovHostIpcMsg *msg) {
    if (s.bytes.size() - *off < QOV_HOST_FRAME_HDR_LEN) return false;
    uint8_t *at = const_cast<uint8_t *>(s.bytes.data()) + *off;
    if (QovHostFrameHdrDecode(at, QOV_HOST_FRAME_MAX_DEFAULT, &msg->msgId, &msg->msgLen) != 0) return false;
    msg->body = at + QOV_HOST_FRAME_HDR_LEN;
    *off += QOV_HOST_FRAME_HDR_LEN + msg->msgLen;
    return true;
}

// The memory probe of a run in process: heap at the first press, over idle.
struct Probe {
    uint64_t idle = HeapInUse();
    bool taken = false;
    int64_t bytes = 0;
    uint64_t depth = 0;
    template <class D>
    void AtPress(bool pressed, D depthOf) {
        if (taken || !pressed) return;
        taken = true;
        bytes = static_cast<int64_t>(HeapInUse() - idle);
        depth = depthOf();
    }
};

// The library's loop: up to kFramesPerTurn frames unless the channel is
// pressed, then one turn of the Data thread's epoll set (the queue's reader).
__attribute__((noinline)) void QovCountRunLib(const Stream &s, int32_t epFd, Probe *probe) {
    size_t off = 0;
    for (;;) {
        bool fed = false;
        if (!LibPressed()) {
            QovHostIpcMsg msg;
            for (uint32_t i = 0; i < kFramesPerTurn && NextFrame(s, &off, &msg); ++i) {
                LibOnFrame(nullptr, &msg);
                fed = true;
            }
        }
        if (probe != nullptr) probe->AtPress(LibPressed(), LibDepth);
        if (QovHostEpollRunOnce(epFd, 0) == 0 && !fed) break;
    }
}

__attribute__((noinline)) void QovCountRunHand(const Stream &s, Hand &h, Probe *probe) {
    size_t off = 0;
    for (;;) {
        bool fed = false;
        if (!h.Pressed()) {
            QovHostIpcMsg msg;
            for (uint32_t i = 0; i < kFramesPerTurn && NextFrame(s, &off, &msg); ++i) {
                if (msg.msgId == E2eMsgEnd()) {
                    g_sink.endSeen = true;
                } else {
                    g_sink.Received(msg.msgLen);
                    h.Frame(msg.msgId, static_cast<const uint8_t *>(msg.body), msg.msgLen);
                }
                fed = true;
            }
        }
        if (probe != nullptr) probe->AtPress(h.Pressed(), [&h] { return h.Depth(); });
        if (h.Read() == 0 && !fed) break;
    }
}

Result InProcess(const Cfg &c, const Stream &s, bool lib) {
    Result r;
    g_sink.Reset(c.keys, c.handlerNs, false);
    SysCounter sys(Tid());
    double sys0 = sys.Read();
    if (lib) {
        if (!LibUp(c, 0)) {
            std::fprintf(stdout, "e2e_bench: the library did not come up (see the log)\n");
            LibDown();
            return r;
        }
        int32_t epFd = ASOrchGetEpollFd(g_hdl, 0);
        Probe probe;
        sys0 = sys.Read();
        uint64_t t0 = NowNs();
        QovCountRunLib(s, epFd, &probe);
        r.secs = static_cast<double>(NowNs() - t0) / 1e9;
        r.syscalls = sys.Read() - sys0;
        r.peakBytes = probe.bytes;
        r.peakDepth = probe.depth;
        r.drainedBytes = static_cast<int64_t>(HeapInUse() - probe.idle);
        LibDown();
    } else {
        Probe probe;  // the map's buckets count as the entries' memory
        auto *h = new Hand(c.high, c.low);
        sys0 = sys.Read();
        uint64_t t0 = NowNs();
        QovCountRunHand(s, *h, &probe);
        r.secs = static_cast<double>(NowNs() - t0) / 1e9;
        r.syscalls = sys.Read() - sys0;
        r.peakBytes = probe.bytes;
        r.peakDepth = probe.depth;
        r.drainedBytes = static_cast<int64_t>(HeapInUse() - probe.idle);
        delete h;
    }
    if (sys0 < 0) r.syscalls = -1;
    r.entries = g_sink.entries;
    r.delivered = g_sink.delivered;
    r.check = g_sink.endSeen && g_sink.Check();
    return r;
}

// ---- Over loopback: a broker thread streams, the consumer's thread reads ----

// The hand-written consumer's thread: one epoll set, a read buffer of 64 KiB
// beyond one frame, every complete frame parsed in place, and exact
// back-pressure (no frame is taken while pressed; the socket is then not read).
void HandThread(Hand &h, uint16_t port, std::atomic<pid_t> *tid, const std::atomic<bool> *stop) {
    *tid = Tid();
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
        g_sink.bad = true;
        if (fd >= 0) close(fd);
        return;
    }
    fcntl(fd, F_SETFL, O_NONBLOCK);
    int ep = epoll_create1(EPOLL_CLOEXEC);
    epoll_event ev{};
    ev.events = EPOLLIN;
    epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev);
    std::vector<uint8_t> buf(QOV_HOST_FRAME_HDR_LEN + QOV_HOST_FRAME_MAX_DEFAULT + 65536);
    size_t off = 0, have = 0;
    bool eof = false;
    auto parse = [&] {
        while (!h.Pressed() && have - off >= QOV_HOST_FRAME_HDR_LEN) {
            uint32_t id, len;
            if (QovHostFrameHdrDecode(&buf[off], QOV_HOST_FRAME_MAX_DEFAULT, &id, &len) != 0) {
                g_sink.bad = true;
                eof = true;
                return;
            }
            if (have - off - QOV_HOST_FRAME_HDR_LEN < len) return;
            const uint8_t *body = &buf[off + QOV_HOST_FRAME_HDR_LEN];
            if (id == E2eMsgEnd()) {
                g_sink.endSeen = true;
            } else {
                g_sink.Received(len);
                h.Frame(id, body, len);
            }
            off += QOV_HOST_FRAME_HDR_LEN + len;
        }
    };
    while (!stop->load(std::memory_order_relaxed)) {
        bool got = false;
        if (!h.Pressed()) {
            parse();
            if (!h.Pressed() && !eof) {
                if (off != 0) {
                    std::memmove(buf.data(), buf.data() + off, have - off);
                    have -= off;
                    off = 0;
                }
                ssize_t n = read(fd, buf.data() + have, buf.size() - have);
                if (n > 0) {
                    have += static_cast<size_t>(n);
                    got = true;
                    parse();
                } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
                    eof = true;
                }
            }
        }
        if (h.Read() != 0 || got) continue;
        epoll_event out;
        epoll_wait(ep, &out, 1, 10);
    }
    close(ep);
    close(fd);
}

// Waits until the stream ended and every key holds what the broker last
// sent, with deliveries quiet for a moment; in paced runs it opens the
// latency window 500 ms into the steady phase.
bool AwaitDrain(const Cfg &c) {
    uint64_t start = NowUs(), quietSince = 0, last = UINT64_MAX;
    while (NowUs() - start < 120u * 1000000u) {
        timespec pause = {0, 2 * 1000 * 1000};
        nanosleep(&pause, nullptr);
        if (!g_sink.measuring && E2eBrokerPhase() >= E2E_PHASE_STEADY) {
            g_sink.measureFrom = static_cast<uint32_t>(NowUs() + (c.rate != 0 ? 500000u : 0u));
            g_sink.measuring = true;
        }
        uint64_t d = g_sink.delivered;
        if (d != last) {
            last = d;
            quietSince = NowUs();
            continue;
        }
        if (g_sink.endSeen && NowUs() - quietSince > 20000 && g_sink.Check()) return true;
    }
    return false;
}

Result Loopback(const Cfg &c, bool lib) {
    Result r;
    g_sink.Reset(c.keys, c.handlerNs, true);
    E2eStreamCfg sc{c.keys, 1, c.rate != 0 ? 0 : c.keys - c.keys / 4 + c.flood, c.rate, c.durationMs};
    uint16_t port = E2eBrokerStart(&sc);
    if (port == 0) return r;
    std::atomic<bool> stop{false};
    std::atomic<pid_t> tid{0};
    std::thread hand;
    Hand *h = nullptr;
    if (lib) {
        if (!LibUp(c, port) || ASOrchStart(g_hdl) != 0) {
            std::printf("e2e_bench: the library did not come up (see the log)\n");
            LibDown();
            E2eBrokerJoin();
            return r;
        }
        QovHostThreadRow row{};
        for (int i = 0; i < 1000 && (QovHostThreadGet(ASOrchGetEalHdl(g_hdl), 0, &row) != 0 || row.tid == 0); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        tid = row.tid;
    } else {
        h = new Hand(c.high, c.low);
        hand = std::thread(HandThread, std::ref(*h), port, &tid, &stop);
        while (tid == 0) std::this_thread::yield();
    }
    SysCounter sys(tid);
    r.check = AwaitDrain(c);
    r.syscalls = sys.Read();
    if (lib) {
        LibDown();
    } else {
        stop = true;
        hand.join();
        delete h;
    }
    E2eBrokerJoin();
    r.entries = g_sink.entries;
    r.delivered = g_sink.delivered;
    r.secs = static_cast<double>(g_sink.lastUs - g_sink.firstUs) / 1e6;
    r.p50 = g_sink.Percentile(0.50);
    r.p99 = g_sink.Percentile(0.99);
    return r;
}

// ---- Output ----
void PrintHead() {
    std::printf("%-9s %8s %7s %-5s %11s %12s %9s %8s %8s %9s %6s\n", "mode", "keys", "handler", "who", "entries/s",
                "deliveries/s", "ns/entry", "p50 us", "p99 us", "sys/entry", "check");
}

void PrintRow(const char *mode, const Cfg &c, const char *who, const Result &r, bool latency) {
    double eps = r.secs > 0 ? static_cast<double>(r.entries) / r.secs : 0;
    double dps = r.secs > 0 ? static_cast<double>(r.delivered) / r.secs : 0;
    double sys = PerEntry(r.syscalls, r.entries);
    char lat50[16] = "-", lat99[16] = "-", sysText[16] = "n/a";
    if (latency) {
        std::snprintf(lat50, sizeof lat50, "%" PRIu64, r.p50);
        std::snprintf(lat99, sizeof lat99, "%" PRIu64, r.p99);
    }
    if (sys >= 0) std::snprintf(sysText, sizeof sysText, "%.4f", sys);
    std::printf("%-9s %8u %5.1fus %-5s %11.0f %12.0f %9.1f %8s %8s %9s %6s\n", mode, c.keys,
                static_cast<double>(c.handlerNs) / 1000.0, who, eps, dps, eps > 0 ? 1e9 / eps : 0, lat50, lat99,
                sysText, r.check ? "passed" : "FAILED");
}

double Ratio(const Result &lib, const Result &hand) {
    return lib.secs > 0 && hand.secs > 0 && hand.entries != 0
               ? (static_cast<double>(lib.entries) / lib.secs) / (static_cast<double>(hand.entries) / hand.secs)
               : 0;
}

std::vector<std::string> g_ratios;

void Pair(const char *mode, const Cfg &c, bool loopback, const Stream *s) {
    Result lib = loopback ? Loopback(c, true) : InProcess(c, *s, true);
    PrintRow(mode, c, "lib", lib, loopback && c.rate != 0);
    Result hand = loopback ? Loopback(c, false) : InProcess(c, *s, false);
    PrintRow(mode, c, "hand", hand, loopback && c.rate != 0);
    char line[256];
    std::snprintf(line, sizeof line, "%-9s %8u keys, handler %.1f us: lib/hand throughput %.2fx", mode, c.keys,
                  static_cast<double>(c.handlerNs) / 1000.0, Ratio(lib, hand));
    g_ratios.emplace_back(line);
    if (!loopback && c.handlerNs == 0) {
        auto per = [](const Result &r) { return r.peakDepth ? static_cast<double>(r.peakBytes) / r.peakDepth : 0; };
        std::snprintf(line, sizeof line,
                      "%-9s %8u keys: bytes per pending entry lib %.0f, hand %.0f (at %" PRIu64 "/%" PRIu64
                      " pending); after the drain lib %+.2f MB, hand %+.2f MB over idle",
                      "memory", c.keys, per(lib), per(hand), lib.peakDepth, hand.peakDepth,
                      static_cast<double>(lib.drainedBytes) / 1e6, static_cast<double>(hand.drainedBytes) / 1e6);
        g_ratios.emplace_back(line);
    }
    if (loopback && c.rate != 0) {
        std::snprintf(line, sizeof line, "%-9s %8u keys: p99 send-to-handler lib %" PRIu64 " us, hand %" PRIu64 " us",
                      "latency", c.keys, lib.p99, hand.p99);
        g_ratios.emplace_back(line);
    }
}

// What one reader turn's system calls cost on this machine: the queue's
// signal (eventfd_write), the loop's epoll_wait and the dispatch's
// eventfd_read, the three calls the library makes per batch of 32 while
// entries wait. Median of 5 runs, ns per turn.
double ReaderTurnNs() {
    int fd = eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK | EFD_CLOEXEC);
    int ep = epoll_create1(EPOLL_CLOEXEC);
    if (fd < 0 || ep < 0) return -1;
    epoll_event ev{};
    ev.events = EPOLLIN;
    (void)epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev);
    std::array<double, 5> runs{};
    constexpr int kTurns = 20000;
    for (double &r : runs) {
        uint64_t t0 = NowNs();
        for (int i = 0; i < kTurns; ++i) {
            epoll_event out;
            eventfd_t v;
            (void)eventfd_write(fd, 1);
            (void)epoll_wait(ep, &out, 1, 0);
            (void)eventfd_read(fd, &v);
        }
        r = static_cast<double>(NowNs() - t0) / kTurns;
    }
    close(ep);
    close(fd);
    std::sort(runs.begin(), runs.end());
    return runs[runs.size() / 2];
}

// ---- --count: instructions per entry under callgrind ----
constexpr uint32_t kCountKeys = 100000;
constexpr uint64_t kCountFlood = 200000;

Cfg CountCfg() {
    Cfg c;
    c.keys = kCountKeys;
    c.flood = kCountFlood;
    return c;
}

int CountChild(const std::string &who) {
    Cfg c = CountCfg();
    Stream s = BuildStream(c);
    g_sink.Reset(c.keys, 0, false);
    if (who == "lib") {
        if (!LibUp(c, 0)) return 1;
        QovCountRunLib(s, ASOrchGetEpollFd(g_hdl, 0), nullptr);
        LibDown();
    } else {
        Hand h(c.high, c.low);
        QovCountRunHand(s, h, nullptr);
    }
    return g_sink.endSeen && g_sink.Check() ? 0 : 1;
}

// Where the library's instructions go, by the functions they are spent in
// (self cost, as callgrind_annotate lists it). The first matching row wins.
struct CostRow {
    const char *what;
    std::vector<const char *> names;  // parts of "file:function [object]"
    double ir = 0;
};

std::vector<CostRow> LibCostRows() {
    return {
        {"the bench: feed, handler, final-value sink", {"LibOnRoute", "LibOnFrame", "E2e", "QovCountRunLib", "Sink"}},
        {"the orchestrator's hash (its callback, ASOrchMergeHashFunc)", {"ASOrchMergeHashFunc", "LibHash"}},
        {"key compares (queue, layer)", {"CmpFunc", "GetKeyPtr", "memcmp"}},
        {"memAlloc/memFree of the key/data copy (glibc malloc here)", {"malloc.c:", "arena.c:", "::Alloc("}},
        {"host hash table (find, add, count, remove, elements)", {"LITE_HASH_", "FindAgainAfter", "NextSlab"}},
        {"merge queue (write, merge, read, statistics, monitor)", {"QOV_MergeQue", "QOV_Merge"}},
        {"log line per read batch (format and write)",
         {"printf", "_IO_", "vsprintf_s", "KRT_Diag", "QovLog", "_itoa", "strchrnul", "strops", "libioP"}},
        {"merge layer and intake (copy, dispatch, callbacks)", {"ASOrch", "ORCH_", "ReadMergeMsgCallBack", "ASIntHash"}},
        {"event loop, channel state, system-call wrappers",
         {"epoll", "Epoll", "eventfd", "read.c:", "write.c:", "QovHost", "pthread_", "qovhost::", "gettimeofday",
          "condition_variable"}},
        {"other", {""}},
    };
}

// Self cost per function from a callgrind file, into the rows.
bool Attribute(const std::string &file, std::vector<CostRow> *rows) {
    std::string cmd = "callgrind_annotate --inclusive=no --threshold=100 " + file + " 2>/dev/null";
    FILE *p = popen(cmd.c_str(), "r");
    if (p == nullptr) return false;
    char line[4096];
    bool any = false;
    while (std::fgets(line, sizeof line, p) != nullptr) {
        std::string l = line;
        size_t at = l.find_first_not_of(' ');
        size_t pct = l.find("%)  ");
        if (at == std::string::npos || pct == std::string::npos || !std::isdigit(static_cast<unsigned char>(l[at])) ||
            l.find("PROGRAM TOTALS") != std::string::npos)
            continue;
        double ir = 0;
        for (size_t i = at; i < l.size() && (std::isdigit(static_cast<unsigned char>(l[i])) || l[i] == ','); ++i)
            if (l[i] != ',') ir = ir * 10 + (l[i] - '0');
        std::string fn = l.substr(pct + 4);
        for (CostRow &r : *rows) {
            bool hit = false;
            for (const char *n : r.names) hit = hit || fn.find(n) != std::string::npos;
            if (hit) {
                r.ir += ir;
                any = true;
                break;
            }
        }
    }
    return pclose(p) == 0 && any;
}

double CountInstructions(const char *self, const char *who, const char *fn, std::vector<CostRow> *rows) {
    std::string out = "/tmp/qov_e2e_callgrind." + std::to_string(getpid()) + "." + who;
    std::string cmd = std::string("valgrind --tool=callgrind '--toggle-collect=") + fn +
                      "*' --callgrind-out-file=" + out + " " + self + " --qov-count=" + who + " >/dev/null 2>&1";
    if (std::system(cmd.c_str()) != 0) return -1;
    FILE *f = std::fopen(out.c_str(), "r");
    if (f == nullptr) return -1;
    char line[512];
    unsigned long long n = 0;
    double v = -1;
    while (std::fgets(line, sizeof line, f) != nullptr) {
        if (std::sscanf(line, "totals: %llu", &n) == 1 || std::sscanf(line, "summary: %llu", &n) == 1)
            v = static_cast<double>(n);
    }
    std::fclose(f);
    if (rows != nullptr && !Attribute(out, rows)) rows->clear();
    std::remove(out.c_str());
    return v;
}

void PrintCounts(const char *self) {
    Cfg c = CountCfg();
    Stream s = BuildStream(c);
    std::printf("\nInstructions per entry in process (callgrind; %u keys, %" PRIu64
                " entries, %u frames between reader turns, handler free):\n",
                c.keys, s.entries, kFramesPerTurn);
    std::vector<CostRow> rows = LibCostRows();
    double lib = CountInstructions(self, "lib", "(anonymous namespace)::QovCountRunLib", &rows);
    double hand = CountInstructions(self, "hand", "(anonymous namespace)::QovCountRunHand", nullptr);
    if (lib < 0 || hand < 0) {
        std::printf("  (valgrind not available, or a run failed its check)\n");
        return;
    }
    const auto entries = static_cast<double>(s.entries);
    std::printf("  lib %.0f, hand %.0f (lib/hand %.2f)\n", lib / entries, hand / entries, lib / hand);
    if (rows.empty()) return;  // no callgrind_annotate
    std::printf("  the library's, by where they are spent:\n");
    for (const CostRow &r : rows) std::printf("    %6.1f  %s\n", r.ir / entries, r.what);
}

}  // namespace

int main(int argc, char **argv) {
    QovHostLogCapture(0);
    QovHostJournalEnable(0);
    const std::string countFlag = "--qov-count=";
    if (argc == 2 && std::string(argv[1]).rfind(countFlag, 0) == 0) {
        QovHostLogEcho(0);
        return CountChild(argv[1] + countFlag.size());
    }
    bool count = false, quick = false;
    const char *log = "e2e_bench.log";
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--count") {
            count = true;
        } else if (a == "--quick") {
            quick = true;
        } else if (a == "--log" && i + 1 < argc) {
            log = argv[++i];
        } else {
            std::printf("usage: e2e_bench [--quick] [--count] [--log FILE]\n"
                        "  default: loopback flood at 100 k and 1 M keys (the fill, then 500 k entries; handler\n"
                        "  0 and 1.5 us), a paced run at the demo's rate, and the in-process runs with memory;\n"
                        "  --quick: 100 k keys only;\n"
                        "  --count: instructions per entry in process under callgrind, nothing else\n");
            return 2;
        }
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    if (count) {
        QovHostLogEcho(0);
        PrintCounts(argv[0]);
        return 0;
    }
    // The library's log lines go to a file, line by line, as orch_demo writes them.
    std::fflush(stderr);
    if (std::freopen(log, "w", stderr) == nullptr) return 1;
    setvbuf(stderr, nullptr, _IOLBF, 0);

    std::vector<uint32_t> keySets = {100000};
    if (!quick) keySets.push_back(1000000);
    PrintHead();
    for (uint32_t keys : keySets) {
        for (uint64_t ns : {uint64_t{0}, uint64_t{1500}}) {
            Cfg c;
            c.keys = keys;
            c.handlerNs = ns;
            c.flood = quick ? 300000 : 500000;
            Pair("loopback", c, true, nullptr);
        }
    }
    {
        Cfg c;  // the demo's DAM path: 3000 messages a second, handler 1.5 us
        c.rate = 3000;
        c.durationMs = 2500;
        c.handlerNs = 1500;
        Pair("paced", c, true, nullptr);
    }
    for (uint32_t keys : keySets) {
        Cfg c;
        c.keys = keys;
        c.flood = quick ? 300000 : 500000;
        Stream s = BuildStream(c);
        for (uint64_t ns : {uint64_t{0}, uint64_t{1500}}) {
            c.handlerNs = ns;
            Pair("inproc", c, false, &s);
        }
    }
    std::printf("\n");
    for (const std::string &l : g_ratios) std::printf("%s\n", l.c_str());
    double turn = ReaderTurnNs();
    if (turn > 0)
        std::printf("syscalls    a reader turn's eventfd_write + epoll_wait + eventfd_read: %.0f ns here, %.1f ns "
                    "per delivery at 32 a turn\n",
                    turn, turn / kBatch);
    return 0;
}
