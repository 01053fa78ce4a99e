// The host EAL over real threads and loopback sockets: threads named and
// joined, channels to an in-test broker, back-pressure reaching the broker,
// reconnection, sync-group links between two instances, and receive
// functions and timers that are cleared while they run.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <ostream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "qov_host_api.h"
#include "qov_utils_eal.h"
#include "support/loopback_broker.h"
#include "support/test_env.h"

namespace {

using namespace std::chrono_literals;
using qovtest::Broker;
using qovtest::Frame;
using qovtest::Loopback;
using qovtest::WaitFor;

bool HasLineWith(const std::string &part) {
    for (const auto &l : qovtest::Logs())
        if (l.find(part) != std::string::npos) return true;
    return false;
}

// What receive functions saw.
struct Sink {
    struct Got {
        uint32_t msgId;
        std::vector<uint8_t> body;
        int32_t tid;
    };
    std::mutex mu;
    std::vector<Got> got;
    std::atomic<uint32_t> n{0};

    static uint32_t Chan(void *ctx, QovHostIpcMsg *m) {
        auto *s = static_cast<Sink *>(ctx);
        auto *b = static_cast<uint8_t *>(m->body);
        std::lock_guard<std::mutex> lk(s->mu);
        s->got.push_back({m->msgId, std::vector<uint8_t>(b, b + m->msgLen), static_cast<int32_t>(gettid())});
        ++s->n;
        return 0;
    }
    static void Sync(void *ctx, uint32_t, QovHostSyncItem *items, uint32_t count) {
        auto *s = static_cast<Sink *>(ctx);
        std::lock_guard<std::mutex> lk(s->mu);
        for (uint32_t i = 0; i < count; ++i) {
            auto *b = static_cast<uint8_t *>(items[i].bytes);
            s->got.push_back({items[i].result, std::vector<uint8_t>(b, b + items[i].len), static_cast<int32_t>(gettid())});
        }
        ++s->n;
    }
};

// A call that takes a while, for clearing what may be running.
struct Slow {
    std::atomic<int> entered{0};
    std::atomic<bool> done{false};
    void Run() {
        if (entered++ != 0) return;
        std::this_thread::sleep_for(200ms);
        done = true;
    }
    static uint32_t Chan(void *ctx, QovHostIpcMsg *) {
        static_cast<Slow *>(ctx)->Run();
        return 0;
    }
    static void Timer(uint64_t arg) { reinterpret_cast<Slow *>(static_cast<uintptr_t>(arg))->Run(); }
};

class EalTest : public qovtest::HostTest {
protected:
    void *Make(const char *name, uint32_t mask, const char *threadBase = nullptr) {
        QOV_EAL_CreatePara cp{};
        void *e = QOV_EAL_Create(name, &cp);
        EXPECT_NE(e, nullptr);
        EXPECT_EQ(QOV_EAL_Init(e), 0u);
        QOV_EAL_ThreadPara t[3] = {};
        uint32_t n = 0;
        static const char *const kSuffix[3] = {"_DATA", "_SYNC", "_EVENT"};
        for (uint32_t k = 0; k < 3; ++k) {
            if ((mask & (1u << k)) == 0) continue;
            t[n].threadId = k;
            std::snprintf(t[n++].threadName, sizeof t[0].threadName, "%s%s", threadBase ? threadBase : name, kSuffix[k]);
        }
        EXPECT_EQ(QOV_EAL_RegThread(e, t, n), 0u);
        eals_.push_back(e);
        return e;
    }
    void AddChan(void *e, uint32_t idx, uint32_t threadId, uint16_t port) {
        QOV_EAL_ChanPara p{};
        p.chanIdx = idx;
        p.chanThreadId = threadId;
        p.serverAddrFunc = Loopback;
        p.serverPort = htons(port);
        ASSERT_EQ(QOV_EAL_RegUcChannel(e, &p, 1), 0u);
    }
    void AddGrp(void *e, uint32_t grpId, uint32_t logicThreadId) {
        QOV_EAL_SyncGrpItem it{};
        it.grpId = grpId;
        it.logicThreadId = logicThreadId;
        ASSERT_EQ(QOV_EAL_RegSyncGroup(e, &it, 1), 0u);
    }
    static int32_t Tid(void *e, uint32_t kind) {
        QovHostThreadRow r{};
        EXPECT_EQ(QovHostThreadGet(e, kind, &r), 0);
        return r.tid;
    }
    static QovHostChanRow Chan(void *e, uint32_t idx) {
        QovHostChanRow r{};
        EXPECT_EQ(QovHostChanGet(e, idx, &r), 0);
        return r;
    }
    void TearDown() override {
        for (void *e : eals_) QOV_EAL_Destroy(e);
        HostTest::TearDown();
    }
    std::vector<void *> eals_;
    // What the instances' threads call into outlives them.
    Sink sink_;
    Slow slow_;
};

std::string Comm(int32_t tid) {
    std::ifstream f("/proc/self/task/" + std::to_string(tid) + "/comm");
    std::string s;
    std::getline(f, s);
    return s;
}

// ---- Threads ----
struct ThreadCase {
    const char *name;
    uint32_t mask;
    const char *base;
    const char *comm[3];  // kernel names, null for a kind not running
};

void PrintTo(const ThreadCase &c, std::ostream *os) { *os << c.name; }

class EalThreads : public EalTest, public ::testing::WithParamInterface<ThreadCase> {};

TEST_P(EalThreads, NamedStartedJoined) {
    const ThreadCase &c = GetParam();
    void *e = Make("orch", c.mask, c.base);
    ASSERT_EQ(QOV_EAL_Start(e), 0u);
    int32_t tids[3] = {};
    for (uint32_t k = 0; k < 3; ++k) {
        if (c.comm[k] == nullptr) {
            EXPECT_EQ(Tid(e, k), 0) << "kind " << k << " runs without a record";
            continue;
        }
        ASSERT_TRUE(WaitFor([&] { return Tid(e, k) != 0; })) << "kind " << k;
        tids[k] = Tid(e, k);
        EXPECT_EQ(Comm(tids[k]), c.comm[k]);
    }
    QOV_EAL_Destroy(e);
    eals_.clear();
    for (int32_t t : tids)  // a joined thread's task may linger in /proc for a moment after the join
        if (t != 0) {
            EXPECT_TRUE(WaitFor([t] { return Comm(t).empty(); }, 1000)) << "thread " << t << " still there after destroy";
        }
}

INSTANTIATE_TEST_SUITE_P(
    Masks, EalThreads,
    ::testing::Values(ThreadCase{"DataAlone", 1, "o1", {"o1_DATA", nullptr, nullptr}},
                      ThreadCase{"AllThree", 7, "orch", {"orch_DATA", "orch_SYNC", "orch_EVENT"}},
                      ThreadCase{"LongNamesCut", 5, "orchestrator15c", {"orchestrator15c", nullptr, "orchestrator15c"}}),
    qovtest::RowName());

// ---- Channels: delivery on the serving thread, and frames back ----
struct ChanCase {
    const char *name;
    uint32_t mask;
    uint32_t chanIdx;
    uint32_t chanThreadId;
    uint32_t servedBy;
};

void PrintTo(const ChanCase &c, std::ostream *os) { *os << c.name; }

class EalChannels : public EalTest, public ::testing::WithParamInterface<ChanCase> {};

TEST_P(EalChannels, FramesReachTheReceiveFunctionOnItsThread) {
    const ChanCase &c = GetParam();
    Broker b;
    void *e = Make("ch", c.mask);
    AddChan(e, c.chanIdx, c.chanThreadId, b.port);
    ASSERT_EQ(QovHostChanSetRecv(e, c.chanIdx, Sink::Chan, &sink_), 0u);
    ASSERT_EQ(QOV_EAL_Start(e), 0u);
    ASSERT_TRUE(b.Accept());
    const uint32_t lens[] = {0, 1, 11, 12, 13, 4096, QOV_HOST_FRAME_MAX_DEFAULT};
    std::vector<uint8_t> all;
    for (uint32_t i = 0; i < std::size(lens); ++i) {
        auto f = Frame(0x100 + i, lens[i], static_cast<uint8_t>(i + 1));
        all.insert(all.end(), f.begin(), f.end());
    }
    b.Send(all);
    ASSERT_TRUE(WaitFor([&] { return sink_.n == std::size(lens); }));
    std::lock_guard<std::mutex> lk(sink_.mu);
    for (uint32_t i = 0; i < std::size(lens); ++i) {
        EXPECT_EQ(sink_.got[i].msgId, 0x100 + i);
        EXPECT_EQ(sink_.got[i].body, std::vector<uint8_t>(lens[i], static_cast<uint8_t>(i + 1)));
        EXPECT_EQ(sink_.got[i].tid, Tid(e, c.servedBy));
    }
    EXPECT_EQ(Chan(e, c.chanIdx).state, QOV_HOST_LINK_UP);

    char body[] = "towards the broker";
    void *ch = QOV_EAL_GetChannelHdl(e, c.chanIdx);
    ASSERT_EQ(QOV_CHAN_USendMsg(ch, Loopback(), 77, body, sizeof body), 0u);
    uint8_t hdr[QOV_HOST_FRAME_HDR_LEN];
    uint32_t id = 0, len = 0;
    ASSERT_TRUE(b.Recv(hdr, sizeof hdr));
    ASSERT_EQ(QovHostFrameHdrDecode(hdr, 1024, &id, &len), 0);
    EXPECT_EQ(id, 77u);
    std::string got(len, '\0');
    ASSERT_TRUE(b.Recv(got.data(), len));
    EXPECT_EQ(got, std::string(body, sizeof body));
}

INSTANTIATE_TEST_SUITE_P(Threads, EalChannels,
                         ::testing::Values(ChanCase{"DamOnData", 1, 0, 0, 0}, ChanCase{"EvtOnEvent", 7, 3, 2, 2},
                                           ChanCase{"EventThreadMissingServedByData", 1, 3, 2, 0}),
                         qovtest::RowName());

TEST_F(EalTest, BackPressStopsTheBrokerAndReleaseDrainsIt) {
    Broker b;
    void *e = Make("bp", 1);
    AddChan(e, 0, 0, b.port);
    ASSERT_EQ(QovHostChanSetRecv(e, 0, Sink::Chan, &sink_), 0u);
    ASSERT_EQ(QOV_EAL_Start(e), 0u);
    ASSERT_TRUE(b.Accept());
    void *ch = QOV_EAL_GetChannelHdl(e, 0);
    EXPECT_EQ(QOV_CHAN_UnBackPress(ch), 1u) << "released while not pressed";
    ASSERT_EQ(QOV_CHAN_BackPress(ch), 0u);
    ASSERT_EQ(QOV_CHAN_BackPress(ch), 0u);
    auto f = Frame(5, 16384, 0xAB);
    const size_t max = 64u << 20;
    size_t bytes = b.Flood(f, max);
    ASSERT_LT(bytes, max) << "the broker's sends never blocked";
    uint32_t sent = static_cast<uint32_t>((bytes + f.size() - 1) / f.size());
    std::this_thread::sleep_for(20ms);
    uint32_t whilePressed = sink_.n;
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(sink_.n, whilePressed) << "frames read while pressed";
    EXPECT_EQ(Chan(e, 0).pressed, 1u);
    ASSERT_EQ(QOV_CHAN_UnBackPress(ch), 0u) << "one release after two presses";
    EXPECT_EQ(Chan(e, 0).pressed, 0u);
    EXPECT_EQ(QOV_CHAN_UnBackPress(ch), 1u);
    if (bytes % f.size() != 0) b.Send(std::vector<uint8_t>(f.begin() + static_cast<long>(bytes % f.size()), f.end()));
    ASSERT_TRUE(WaitFor([&] { return sink_.n == sent; })) << sink_.n << " of " << sent;
    EXPECT_EQ(b.Flood(f, f.size()), f.size()) << "the broker's buffers drained";
}

// Ten frames arrive in one read; the receive function presses its own
// channel at frame `at`. Broken by: delivering buffered frames while pressed,
// or leaving them in the buffer after the release when the socket has
// nothing new to wake the loop.
struct PressCase {
    const char *name;
    uint32_t at;
};

void PrintTo(const PressCase &c, std::ostream *os) { *os << c.name; }

class EalPressInside : public EalTest, public ::testing::WithParamInterface<PressCase> {
protected:
    static uint32_t PressingRecv(void *ctx, QovHostIpcMsg *m) {
        auto *t = static_cast<EalPressInside *>(ctx);
        Sink::Chan(&t->sink_, m);
        if (t->sink_.n == t->GetParam().at) {
            EXPECT_EQ(QOV_CHAN_BackPress(t->ch_), 0u);
        }
        return 0;
    }
    void *ch_ = nullptr;
};

TEST_P(EalPressInside, NoBufferedFrameWhilePressedAllAfterRelease) {
    constexpr uint32_t kFrames = 10;
    Broker b;
    void *e = Make("pi", 1);
    AddChan(e, 0, 0, b.port);
    ch_ = QOV_EAL_GetChannelHdl(e, 0);
    ASSERT_EQ(QovHostChanSetRecv(e, 0, PressingRecv, this), 0u);
    ASSERT_EQ(QOV_EAL_Start(e), 0u);
    ASSERT_TRUE(b.Accept());
    std::vector<uint8_t> all;
    for (uint32_t i = 0; i < kFrames; ++i) {
        auto f = Frame(0x200 + i, 100 + i, static_cast<uint8_t>(i));
        all.insert(all.end(), f.begin(), f.end());
    }
    b.Send(all);
    ASSERT_TRUE(WaitFor([&] { return sink_.n == GetParam().at; }));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(sink_.n, GetParam().at) << "frames delivered while pressed";
    ASSERT_EQ(QOV_CHAN_UnBackPress(ch_), 0u);
    ASSERT_TRUE(WaitFor([&] { return sink_.n == kFrames; })) << sink_.n << " of " << kFrames;
    std::lock_guard<std::mutex> lk(sink_.mu);
    for (uint32_t i = 0; i < kFrames; ++i) {
        EXPECT_EQ(sink_.got[i].msgId, 0x200 + i);
        EXPECT_EQ(sink_.got[i].body, std::vector<uint8_t>(100 + i, static_cast<uint8_t>(i)));
    }
}

INSTANTIATE_TEST_SUITE_P(At, EalPressInside,
                         ::testing::Values(PressCase{"First", 1}, PressCase{"Middle", 5}, PressCase{"Last", 10}),
                         qovtest::RowName());

// ---- Reconnection ----
enum class Fault { kLateBroker, kBrokerDrops, kOversize, kGarbage };
struct ReconnectCase {
    const char *name;
    Fault fault;
    const char *line;  // part of the log line expected
};

void PrintTo(const ReconnectCase &c, std::ostream *os) { *os << c.name; }

class EalReconnect : public EalTest, public ::testing::WithParamInterface<ReconnectCase> {};

TEST_P(EalReconnect, ComesBackAndDeliversAgain) {
    const ReconnectCase &c = GetParam();
    Broker b(c.fault != Fault::kLateBroker);
    ASSERT_EQ(QovHostSetFrameMax(1024), 0);
    void *e = Make("rc", 1);
    AddChan(e, 1, 0, b.port);
    ASSERT_EQ(QovHostChanSetRecv(e, 1, Sink::Chan, &sink_), 0u);
    ASSERT_EQ(QOV_EAL_Start(e), 0u);
    if (c.fault == Fault::kLateBroker) {
        std::this_thread::sleep_for(100ms);
        EXPECT_EQ(Chan(e, 1).state, QOV_HOST_LINK_WAIT);
        b.Listen();
    } else {
        ASSERT_TRUE(b.Accept());
        std::vector<uint8_t> bad;
        if (c.fault == Fault::kOversize) bad = Frame(9, 1025, 0);
        if (c.fault == Fault::kGarbage) bad.assign(64, 'g');
        if (!bad.empty()) b.Send(bad);
    }
    ASSERT_TRUE(b.Accept()) << "no reconnection";
    b.Send(Frame(42, 1024, 7));
    ASSERT_TRUE(WaitFor([&] { return sink_.n == 1; }));
    EXPECT_EQ(sink_.got[0].msgId, 42u);
    EXPECT_EQ(Chan(e, 1).framesBad, c.fault == Fault::kOversize || c.fault == Fault::kGarbage ? 1u : 0u);
    EXPECT_TRUE(HasLineWith(c.line)) << c.line;
}

INSTANTIATE_TEST_SUITE_P(
    Faults, EalReconnect,
    ::testing::Values(ReconnectCase{"BrokerStartsLate", Fault::kLateBroker, "rc chan 1: peer not reachable"},
                      ReconnectCase{"BrokerDrops", Fault::kBrokerDrops, "rc chan 1: connection closed by the peer"},
                      ReconnectCase{"FrameOverBound", Fault::kOversize, "frame of 1025 bytes over the bound 1024"},
                      ReconnectCase{"Garbage", Fault::kGarbage, "garbage instead of a frame header"}),
    qovtest::RowName());

// ---- Sync groups ----
TEST_F(EalTest, SyncGroupLinksTwoInstances) {
    void *a = Make("sa", 1);
    void *b = Make("sb", 3);
    AddGrp(a, 2, 0);
    AddGrp(b, 2, 1);
    AddGrp(b, 3, 0);
    uint16_t port = 0;
    ASSERT_EQ(QovHostSyncListen(b, 2, &port), 0u);
    ASSERT_NE(port, 0);
    ASSERT_EQ(QovHostSyncSetRecv(b, 2, Sink::Sync, &sink_), 0u);
    ASSERT_EQ(QOV_EAL_Start(a), 0u);
    ASSERT_EQ(QOV_EAL_Start(b), 0u);
    // A peer whose frame holds an item longer than the frame is cut off.
    int raw = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = Loopback();
    timeval fiveSec{5, 0};
    setsockopt(raw, SOL_SOCKET, SO_RCVTIMEO, &fiveSec, sizeof fiveSec);
    ASSERT_EQ(connect(raw, reinterpret_cast<sockaddr *>(&to), sizeof to), 0);
    auto bad = Frame(2, 8, 0);
    QovHostPutU32(bad.data() + QOV_HOST_FRAME_HDR_LEN, 5);  // 5 bytes claimed, 4 left
    ASSERT_EQ(send(raw, bad.data(), bad.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bad.size()));
    char eof;
    EXPECT_EQ(recv(raw, &eof, 1, 0), 0) << "the link was not dropped";
    close(raw);
    EXPECT_TRUE(qovtest::WaitFor([] { return HasLineWith("sb sync group 2: malformed sync frame of 8 bytes"); }));
    ASSERT_EQ(QovHostSyncConnect(a, 2, port), 0u) << "set up on a started instance";
    ASSERT_TRUE(WaitFor([&] { return QOV_EAL_IsSyncReadyOnlyTarn(a, 2) == 1 && QOV_EAL_IsSyncReadyOnlyTarn(b, 2) == 1; }));
    EXPECT_EQ(QOV_EAL_IsSyncReadyOnlyTarn(b, 3), 0u) << "a group without a link";
    EXPECT_EQ(QOV_EAL_SyncMsg(b, 3, nullptr, 0), 0u) << "a group without a peer takes nothing";

    std::string big(300, 'x');
    char small[] = "hello";
    QovHostSyncItem items[3] = {{nullptr, 0, 9}, {small, 5, 9}, {big.data(), 300, 9}};
    ASSERT_EQ(QOV_EAL_SyncMsg(a, 2, items, 3), 0u);
    ASSERT_TRUE(WaitFor([&] { return sink_.n == 1; }));
    {
        std::lock_guard<std::mutex> lk(sink_.mu);
        ASSERT_EQ(sink_.got.size(), 3u);
        EXPECT_TRUE(sink_.got[0].body.empty());
        EXPECT_EQ(std::string(sink_.got[1].body.begin(), sink_.got[1].body.end()), "hello");
        EXPECT_EQ(std::string(sink_.got[2].body.begin(), sink_.got[2].body.end()), big);
        for (const auto &g : sink_.got) EXPECT_EQ(g.msgId, 0u) << "result word";
        EXPECT_EQ(sink_.got[0].tid, Tid(b, 1)) << "served by the group's logic thread";
    }
    QovHostSyncItem tooMany[QOV_HOST_SYNC_ITEMS_MAX + 1] = {};
    EXPECT_EQ(QOV_EAL_SyncMsg(a, 2, tooMany, QOV_HOST_SYNC_ITEMS_MAX + 1), 1u);

    QOV_EAL_Destroy(a);
    eals_.erase(eals_.begin());
    EXPECT_TRUE(WaitFor([&] { return QOV_EAL_IsSyncReadyOnlyTarn(b, 2) == 0; })) << "readiness follows the link";
    EXPECT_EQ(QOV_EAL_SyncMsg(b, 2, items, 1), 1u) << "a configured link that is down";
}

// Two peers on another address of the host: the link follows the address it
// was given (a connector sent to 127.0.0.1 does not reach a listener on
// 127.0.0.2), and the standby's instance, outside the MB role, links up while
// its broker channel stays idle.
TEST_F(EalTest, SyncLinkOnAnotherAddressAndIdleChannelsOutsideMb) {
    const uint32_t other = htonl(0x7F000002u);  // 127.0.0.2
    Broker broker;
    void *active = Make("act", 1);
    AddGrp(active, 0, 0);
    uint16_t port = 0;
    ASSERT_EQ(QovHostSyncListenAddr(active, 0, other, &port), 0u);
    ASSERT_EQ(QOV_EAL_Start(active), 0u);

    QovHostSetRoleMb(0);
    void *wrong = Make("wrong", 1);
    AddGrp(wrong, 0, 0);
    ASSERT_EQ(QovHostSyncConnect(wrong, 0, port), 0u);
    void *standby = Make("stby", 1);
    AddChan(standby, 0, 0, broker.port);
    AddGrp(standby, 0, 0);
    ASSERT_EQ(QovHostSyncConnectAddr(standby, 0, other, port), 0u);
    ASSERT_EQ(QovHostSyncSetRecv(active, 0, Sink::Sync, &sink_), 0u);
    ASSERT_EQ(QOV_EAL_Start(wrong), 0u);
    ASSERT_EQ(QOV_EAL_Start(standby), 0u);

    ASSERT_TRUE(WaitFor([&] { return QOV_EAL_IsSyncReadyOnlyTarn(standby, 0) == 1; }));
    char word[] = "mirror";
    QovHostSyncItem item{word, 6, 0};
    ASSERT_EQ(QOV_EAL_SyncMsg(standby, 0, &item, 1), 0u);
    ASSERT_TRUE(WaitFor([&] { return sink_.n == 1; }));
    EXPECT_EQ(QOV_EAL_IsSyncReadyOnlyTarn(wrong, 0), 0u) << "connected to an address nobody listens on";
    EXPECT_EQ(Chan(standby, 0).state, QOV_HOST_LINK_IDLE);
    EXPECT_EQ(Chan(standby, 0).connects, 0u);
    pollfd p{broker.lfd, POLLIN, 0};
    EXPECT_EQ(poll(&p, 1, 50), 0) << "the standby's channel reached the broker";
}

class EalClear : public EalTest, public ::testing::WithParamInterface<bool> {};

TEST_P(EalClear, ReturnsOnlyAfterTheRunningCall) {
    bool timer = GetParam();
    Broker b;
    void *e = Make("cl", 1);
    AddChan(e, 0, 0, b.port);
    int32_t ep = QOV_EAL_GetEpollFd(e, 0);
    int32_t tfd = -1;
    if (timer) tfd = QOV_TIMER_Create(1, reinterpret_cast<uintptr_t>(&Slow::Timer), reinterpret_cast<uintptr_t>(&slow_), ep);
    else ASSERT_EQ(QovHostChanSetRecv(e, 0, Slow::Chan, &slow_), 0u);
    ASSERT_EQ(QOV_EAL_Start(e), 0u);
    if (!timer) {
        ASSERT_TRUE(b.Accept());
        b.Send(Frame(1, 4, 0));
    }
    ASSERT_TRUE(WaitFor([&] { return slow_.entered > 0; }));
    if (timer) ASSERT_EQ(QovHostTimerCancel(ep, tfd), 0u);
    else ASSERT_EQ(QovHostChanSetRecv(e, 0, nullptr, nullptr), 0u);
    EXPECT_TRUE(slow_.done) << "returned while the call ran";
    int before = slow_.entered;
    if (!timer) b.Send(Frame(1, 4, 0));
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(slow_.entered, before) << "called after it was cleared";
    if (timer) {
        EXPECT_EQ(QovHostTimerCancel(ep, tfd), 1u);
    }
}

INSTANTIATE_TEST_SUITE_P(What, EalClear, ::testing::Bool(),
                         [](const auto &i) { return std::string(i.param ? "Timer" : "ChannelReceive"); });

// An instance cannot join its own thread: a destroy from a timer on it is
// refused with a line (it used to end the process), and the instance runs on.
struct SelfDestroy {
    void *eal = nullptr;
    std::atomic<uint32_t> calls{0}, returned{0};
    static void Timer(uint64_t arg) {
        auto *s = reinterpret_cast<SelfDestroy *>(static_cast<uintptr_t>(arg));
        if (s->calls++ != 0) return;
        QOV_EAL_Destroy(s->eal);
        ++s->returned;
    }
};

TEST_F(EalTest, DestroyOnItsOwnThreadIsRefused) {
    static SelfDestroy self;  // outlives the instance's threads
    self.eal = Make("self", 1);
    int32_t ep = QOV_EAL_GetEpollFd(self.eal, 0);
    ASSERT_GE(QOV_TIMER_Create(1, reinterpret_cast<uintptr_t>(&SelfDestroy::Timer), reinterpret_cast<uintptr_t>(&self), ep), 0);
    ASSERT_EQ(QOV_EAL_Start(self.eal), 0u);
    ASSERT_TRUE(WaitFor([] { return self.calls > 1; })) << "the timer stopped after the refused destroy";
    EXPECT_EQ(self.returned, 1u);
    EXPECT_TRUE(HasLineWith("self destroy refused: called on the instance's own thread"));
}

}  // namespace
