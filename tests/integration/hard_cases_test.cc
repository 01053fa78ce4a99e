// Failures users of such systems hit, over a real broker socket and the Data
// thread: a flood against a slow handler, churn on one key, one path's burst
// against the other, press/release episodes, and shutdown under a live feed.
#include <poll.h>

#include <atomic>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "qov_autosync_orch.h"
#include "qov_host_api.h"
#include "qov_host_ctl.h"
#include "support/loopback_broker.h"
#include "support/reg_env.h"
#include "support/test_env.h"

namespace {

using qovtest::Broker;
using qovtest::ReportCount;
using qovtest::WaitFor;

constexpr uint32_t kMsgId = 100, kEntry = 16, kPrefix = 8;
constexpr uint32_t kSet = 7, kDel = 8, kFes = 9, kDirect = 10;  // broker ids: DAM op 0, DAM op 1, FES op 0, DAM direct
constexpr uint32_t kPause = 0xFFFFFFF0, kResume = 0xFFFFFFF1, kLast = 0xFFFFFFF2;

using Entries = std::vector<std::pair<uint32_t, uint32_t>>;  // (key, value)
struct Got { uint32_t val, op, n; };
struct State {
    std::mutex mu;
    std::map<uint32_t, Got> keys;
    std::string report;                 // DAM queue report taken when kLast is handled
    std::atomic<uint32_t> costUs{0}, damDone{0}, damAtFes{0}, fesLag{~0u}, backlogAtFes{0};
    std::atomic<uint32_t> lastSeenPressed{0}, badRelease{0}, releases{0};
    std::atomic<bool> lastSeen{false}, paused{false}, pressEach{false}, destroyOnce{false};
    std::atomic<uint32_t> destroyReturned{0};
    ASOrchHandle *hdl = nullptr;
} *g;

std::string DamReport() {
    char buf[4096];
    uint32_t n = QOV_PrintMergeQueInfo((reinterpret_cast<const char *>(g->hdl) + std::string("_DAM")).c_str(), buf,
                                       sizeof buf);
    return std::string(buf, n);
}
uint32_t Pressed() {
    QovHostChanRow row{};
    return QovHostChanGet(ASOrchGetEalHdl(g->hdl), 0, &row) == 0 ? row.pressed : 0;
}

// Keeps each key's last value and op. Control keys pause/resume the DAM reader
// from the Data thread, where the queue lives. On the DAM path it also checks
// that a release of the source happens only once the queue is at its low water.
uint32_t Handler(ASOrchHandle *hdl, ASOrchMergeMsgVec *v) {
    uint32_t key = QovHostGetU32(v->key), val = QovHostGetU32(v->data + 4);
    if (g->destroyOnce.exchange(false)) {  // a handler that tears down its own instance
        ASOrchDestroy(hdl);
        ++g->destroyReturned;
    }
    if (g->pressEach) {  // a downstream that fills and drains with every entry
        ASOrchMergeBackPress(hdl, AS_ORCH_MERGE_DAM);
        for (auto end = std::chrono::steady_clock::now() + std::chrono::microseconds(20);
             std::chrono::steady_clock::now() < end;) {}
        ++g->damDone;
        return ASOrchMergeUnBackPress(hdl, AS_ORCH_MERGE_DAM);
    }
    if (key == kPause) {
        g->paused = ASOrchMergeBackPress(hdl, AS_ORCH_MERGE_DAM) == 0;
        return 0;
    }
    if (key == kResume) {
        g->fesLag = g->damDone - g->damAtFes;
        return ASOrchMergeUnBackPress(hdl, AS_ORCH_MERGE_DAM);
    }
    for (auto end = std::chrono::steady_clock::now() + std::chrono::microseconds(g->costUs);
         std::chrono::steady_clock::now() < end;) {}
    uint32_t pressed = Pressed();
    if (g->lastSeenPressed.exchange(pressed) == 1 && pressed == 0) {  // released within this batch
        ++g->releases;
        std::string r = DamReport();
        if (ReportCount(r, "Mque CurrCnt") > ReportCount(r, "LowWater") + 32) ++g->badRelease;  // + a message read since
    }
    ++g->damDone;
    std::lock_guard<std::mutex> lk(g->mu);
    Got &k = g->keys[key];
    k = {val, v->opType, k.n + 1};
    if (key == kLast) g->report = DamReport(), g->lastSeen = true;
    return 0;
}
ASOrchMergeMsgDispatch g_tbl[] = {{kMsgId, {Handler, Handler, Handler, Handler}}};
ASOrchRecvTblMsg g_recv[] = {{kMsgId, kSet, 0, nullptr, nullptr, kEntry, AS_ORCH_MERGE_DAM, nullptr, 0, 4},
                             {kMsgId, kDel, 0, nullptr, nullptr, kEntry, AS_ORCH_MERGE_DAM, nullptr, 1, 4},
                             {kMsgId, kFes, 0, nullptr, nullptr, kEntry, AS_ORCH_MERGE_FES, nullptr, 0, 4},
                             {kMsgId, kDirect, 0, nullptr, nullptr, kEntry, AS_ORCH_MERGE_DAM_DIRECT, nullptr, 0, 4}};

uint32_t OnFrame(void *ctx, QovHostIpcMsg *m) {
    if (m->msgId == kFes) {  // where the FES entry is queued: DAM work done and DAM backlog behind it
        g->damAtFes = g->damDone.load();
        g->backlogAtFes = ReportCount(DamReport(), "Mque CurrCnt");
    }
    return ASOrchMsgProc(static_cast<ASOrchHandle *>(ctx), reinterpret_cast<const ASOrchIpcMsg *>(m));
}

// One frame of entries (key, value) for message id.
void Put(std::vector<uint8_t> &out, uint32_t id, const Entries &e) {
    std::vector<uint8_t> body(kPrefix + e.size() * kEntry, 0);
    for (size_t i = 0; i < e.size(); ++i) {
        QovHostPutU32(&body[kPrefix + i * kEntry], e[i].first);
        QovHostPutU32(&body[kPrefix + i * kEntry + 4], e[i].second);
    }
    size_t at = out.size();
    out.resize(at + QOV_HOST_FRAME_HDR_LEN + body.size());
    QovHostFrameEncode(&out[at], out.size() - at, id, body.data(), static_cast<uint32_t>(body.size()));
}

// Sends without blocking; counts the sends refused with EAGAIN while the
// channel was pressed (the back-pressure reaching the broker).
uint32_t SendAll(Broker &b, const std::vector<uint8_t> &bytes) {
    uint32_t pressedAgain = 0, sndBuf = 8192;  // a small send buffer: the pressed socket fills early
    setsockopt(b.cfd, SOL_SOCKET, SO_SNDBUF, &sndBuf, sizeof sndBuf);
    for (size_t off = 0; off < bytes.size();) {
        ssize_t r = send(b.cfd, &bytes[off], bytes.size() - off, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (r > 0) { off += static_cast<size_t>(r); continue; }
        if (errno != EAGAIN) return ADD_FAILURE() << "send: " << errno, pressedAgain;
        pressedAgain += Pressed();
        pollfd p{b.cfd, POLLOUT, 0};
        poll(&p, 1, 100);
    }
    return pressedAgain;
}

class HardCases : public qovtest::HostTest {
protected:
    void SetUp() override { HostTest::SetUp(), g = new State; }
    void TearDown() override {
        if (g->hdl != nullptr) Stop();
        delete g;
        EXPECT_EQ(qovtest::AllocOutstanding(), 0) << "blocks left after destroy";
        HostTest::TearDown();
    }
    // A started instance on the Data thread (plus mask) reading channel 0 from
    // broker_; channel 1 points at a port nobody listens on.
    void Start(uint32_t high, uint32_t low, uint32_t mask = 1) {
        ASOrchCreatePara cp{0, 0, qovtest::TestAlloc, qovtest::TestFree, 0};
        g->hdl = ASOrchCreate("hard", &cp);
        ASSERT_NE(g->hdl, nullptr);
        ASOrchBasePara b{};
        b.threadMask = mask;
        b.syncGrpMsgSet[0] = 0x10;
        b.chan[0].realServerPort = broker_.port;
        b.chan[1].realServerPort = idle_.port;
        b.damMerge = {g_tbl, 1, 4096, qovtest::MergeHash<0>, high, low};
        b.fesMerge = {g_tbl, 1, 64, qovtest::MergeHash<0>, 0, 0};
        b.recvTblMsgList[0] = {g_recv, 4};
        ASSERT_EQ(ASOrchRegBase(g->hdl, &b), 0u);
        ASSERT_EQ(QovHostChanSetRecv(ASOrchGetEalHdl(g->hdl), 0, OnFrame, g->hdl), 0u);
        ASSERT_EQ(ASOrchInit(g->hdl), 0u);
        ASSERT_EQ(ASOrchStart(g->hdl), 0u);
        ASSERT_TRUE(broker_.Accept());
    }
    // Stops the feed, then destroys; what the table-message registry keeps by
    // design is all that may stay (freed here).
    void Stop() {
        QovHostChanSetRecv(ASOrchGetEalHdl(g->hdl), 0, nullptr, nullptr);
        ASOrchDestroy(g->hdl);
        g->hdl = nullptr;
        EXPECT_EQ(qovtest::FreeLive(), qovtest::kRegistryKept) << "blocks left beyond the registry's";
    }
    Broker broker_, idle_{false};
};

// Broken by: no press at high water (peak grows with the flood, no EAGAIN while
// pressed), reading past the press, a lost or re-delivered entry, the wrong op.
struct Water { const char *name; uint32_t high, low; };
class HardFlood : public HardCases, public ::testing::WithParamInterface<Water> {};
TEST_P(HardFlood, SlowHandlerBoundsTheQueueAndEveryKeyEndsAsLastSent) {
    const Water w = GetParam();
    Start(w.high, w.low);
    g->costUs = 20;
    std::vector<uint8_t> feed;
    std::map<uint32_t, Got> want;
    for (uint32_t m = 0; m < 1500; ++m) {  // 48 000 entries over 3000 keys, every fifth message deletes
        Entries e;
        for (uint32_t i = 0; i < 32; ++i) e.push_back({(m * 97 + i * 31) % 3000, m * 32 + i});
        Put(feed, m % 5 == 4 ? kDel : kSet, e);
        for (auto [k, v] : e) want[k] = {v, m % 5 == 4 ? 1u : 0u, 1};
    }
    Put(feed, kSet, {{kLast, 0}});
    // The whole feed may fit in the receiving socket's buffer, which loopback
    // grows on demand, so the broker need not see EAGAIN; the press itself
    // must reach the channel, and the peak below proves reading stopped.
    SendAll(broker_, feed);
    ASSERT_TRUE(WaitFor([] { return g->lastSeen.load(); }, 8000));
    QovHostChanRow chan{};
    ASSERT_EQ(QovHostChanGet(ASOrchGetEalHdl(g->hdl), 0, &chan), 0);
    EXPECT_GT(chan.presses, 0u) << "the source was never pressed";
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    std::lock_guard<std::mutex> lk(g->mu);
    const int64_t peak = ReportCount(g->report, "MergeQue HistoryMaxCnt");
    EXPECT_TRUE(peak >= 0 && peak <= w.high + 32) << g->report;
    uint32_t episodes = ReportCount(g->report, "MergeQue OverHighWater");
    EXPECT_GT(episodes, 0u);
    EXPECT_EQ(ReportCount(g->report, "MergeQue UnderLowWater"), episodes) << "each press released once";
    EXPECT_EQ(g->releases, episodes);
    EXPECT_EQ(g->badRelease, 0u) << "released before the queue drained to the low water";
    QovHostChanRow row{};
    ASSERT_EQ(QovHostChanGet(ASOrchGetEalHdl(g->hdl), 0, &row), 0);
    EXPECT_EQ(row.presses, episodes);
    EXPECT_EQ(row.releases, episodes);
    EXPECT_EQ(g->keys.size(), want.size() + 1) << "keys lost or invented";
    for (auto &[k, v] : want) {
        ASSERT_EQ(g->keys.count(k), 1u) << k;
        EXPECT_EQ(g->keys[k].val, v.val) << k;
        EXPECT_EQ(g->keys[k].op, v.op) << k;
    }
    EXPECT_EQ(g->keys[kLast].n, 1u) << "delivered again after the flood";
}
INSTANTIATE_TEST_SUITE_P(, HardFlood, ::testing::Values(Water{"Wide", 512, 64}, Water{"Narrow", 300, 260}),
                         qovtest::RowName());

// Broken by: no coalescing of a queued key (10 000 deliveries), a wrong merged op.
struct Churn { const char *name; bool delFirst, delLast; uint32_t op; };
class HardChurn : public HardCases, public ::testing::WithParamInterface<Churn> {};
TEST_P(HardChurn, OneKeyUpdatedTenThousandTimesIsDeliveredOnceWithTheCombinedOp) {
    const Churn c = GetParam();
    Start(0, 0);
    std::vector<uint8_t> feed;
    Put(feed, kSet, {{kPause, 0}});
    SendAll(broker_, feed);
    ASSERT_TRUE(WaitFor([] { return g->paused.load(); }));  // the churn is queued behind a held reader
    feed.clear();
    if (c.delFirst) Put(feed, kDel, {{5, 0}});
    for (uint32_t f = 0; f < 20; ++f) {
        Entries e;
        for (uint32_t i = 0; i < 500; ++i) e.push_back({5, f * 500 + i});
        Put(feed, kSet, e);
    }
    if (c.delLast) Put(feed, kDel, {{5, 10000}});
    Put(feed, kFes, {{kResume, 0}});
    Put(feed, kSet, {{kLast, 0}});
    SendAll(broker_, feed);
    ASSERT_TRUE(WaitFor([] { return g->lastSeen.load(); }));
    std::lock_guard<std::mutex> lk(g->mu);
    EXPECT_EQ(g->keys[5].n, 1u);
    EXPECT_EQ(g->keys[5].op, c.op);
    EXPECT_EQ(g->keys[5].val, c.delLast ? 10000u : 9999u);
}
INSTANTIATE_TEST_SUITE_P(, HardChurn,
                         ::testing::Values(Churn{"UpdateOnUpdate", false, false, 0},
                                           Churn{"ThenDelete", false, true, 1},
                                           Churn{"DeleteThenUpdate", true, false, 2}),
                         qovtest::RowName());

// Broken by: one queue (or one reader) for both paths: the FES entry then waits
// behind the whole DAM backlog.
TEST_F(HardCases, DamBurstDoesNotHoldUpAnFesEntry) {
    Start(1u << 20, 1u << 19);
    std::vector<uint8_t> feed;
    for (uint32_t m = 0; m < 400; ++m) {  // 102 400 distinct keys, 256 to a message
        Entries e;
        for (uint32_t i = 0; i < 256; ++i) e.push_back({m * 256 + i, 0});
        Put(feed, kSet, e);
        if (m == 200) Put(feed, kFes, {{kResume, 0}});
    }
    Put(feed, kSet, {{kLast, 0}});
    SendAll(broker_, feed);
    ASSERT_TRUE(WaitFor([] { return g->lastSeen.load(); }, 8000));
    EXPECT_GT(g->backlogAtFes, 10u * 32) << "no DAM backlog built up; the case proves nothing";
    EXPECT_LE(g->fesLag, 4u * 32) << "DAM entries handled between queuing and handling the FES entry";
}

// Broken by: destroy reading the reader's registration while the handler
// changes it, passing a reader that its handler has just pressed out of the
// epoll set, or leaving one that the handler put back during destroy's wait: a
// freed queue read (ASan), unordered accesses (TSan), a Data thread spinning.
// QOV_DESTROY_ROUNDS sets the rounds (the soak runs 100).
// A handler that destroys its own instance, from the queue's reader and from
// direct dispatch inside the intake: refused with a line, and the instance
// goes on. Broken by a destroy that waits for the dispatch it is called from
// (a hang) or frees what that dispatch returns into (a use after free).
struct FromHandler { const char *name; uint32_t brokerId; };
class HardDestroyFromHandler : public HardCases, public ::testing::WithParamInterface<FromHandler> {};

TEST_P(HardDestroyFromHandler, IsRefusedAndTheInstanceGoesOn) {
    Start(1u << 20, 1u << 19);
    g->destroyOnce = true;
    std::vector<uint8_t> f;
    Put(f, GetParam().brokerId, {{1, 10}});
    Put(f, GetParam().brokerId, {{2, 20}});
    broker_.Send(f);
    ASSERT_TRUE(WaitFor([] { return g->damDone == 2; }));
    EXPECT_EQ(g->destroyReturned, 1u);
    EXPECT_TRUE(qovtest::HasLine("hard, Destroy Orch autosync Fail, called from inside its own callback"));
    std::lock_guard<std::mutex> lk(g->mu);
    EXPECT_EQ(g->keys[1].val, 10u);
    EXPECT_EQ(g->keys[2].val, 20u);
}
INSTANTIATE_TEST_SUITE_P(, HardDestroyFromHandler,
                         ::testing::Values(FromHandler{"QueueReader", kSet}, FromHandler{"DirectDispatch", kDirect}),
                         qovtest::RowName());

TEST_F(HardCases, DestroyWhileTheHandlerPressesItsOwnPath) {
    const char *env = getenv("QOV_DESTROY_ROUNDS");
    const int rounds = env != nullptr ? atoi(env) : 3;
    std::vector<uint8_t> f;  // 2048 keys: a backlog the reader works through while destroy comes
    for (uint32_t m = 0; m < 64; ++m) {
        Entries e;
        for (uint32_t i = 0; i < 32; ++i) e.push_back({m * 32 + i, i});
        Put(f, kSet, e);
    }
    for (int round = 0; round < rounds; ++round) {
        g->pressEach = true;
        g->damDone = 0;
        Start(1u << 20, 1u << 19);
        std::atomic<bool> stop{false};
        std::thread feeder([&] {
            while (!stop) {
                // A flood that stopped inside a frame finishes it: the next one starts with a header.
                size_t n = broker_.Flood(f, f.size() * 64);
                if (n % f.size() != 0) broker_.Send(std::vector<uint8_t>(f.begin() + static_cast<long>(n % f.size()), f.end()));
                pollfd p{broker_.cfd, POLLOUT, 0};
                poll(&p, 1, 1);
            }
        });
        EXPECT_TRUE(WaitFor([] { return g->damDone > 64; })) << "round " << round;
        stop = true;  // what the sockets and the queue hold keeps the reader busy
        feeder.join();
        Stop();
        if (HasFailure()) break;
    }
}

}  // namespace
