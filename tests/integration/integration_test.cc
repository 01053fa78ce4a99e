// The library on the host platform as an orchestrator runs it: fully
// registered and started instances, a broker feeding a channel over loopback
// TCP into the merge handlers on the Data thread, two instances linked by a
// sync group, and destroying an instance right after a full-speed feed.
#include <atomic>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "qov_autosync_orch.h"
#include "qov_host_api.h"
#include "support/loopback_broker.h"
#include "support/reg_env.h"
#include "support/test_env.h"

namespace {

using qovtest::Broker;
using qovtest::WaitFor;

constexpr uint32_t kMsgId = 100;
constexpr uint32_t kKeySize = 4;

// What the merge handlers saw, across instances.
struct Seen {
    std::mutex mu;
    std::vector<std::pair<ASOrchHandle *, uint32_t>> keys;
    std::atomic<uint32_t> n{0};
    std::atomic<int32_t> tid{0};
    std::atomic<bool> offThread{false};
} g_seen;

uint32_t Key(const uint8_t *p) { return QovHostGetU32(p); }

uint32_t Handler(ASOrchHandle *hdl, ASOrchMergeMsgVec *v) {
    std::lock_guard<std::mutex> lk(g_seen.mu);
    g_seen.keys.emplace_back(hdl, Key(v->key));
    int32_t want = g_seen.tid.load();
    if (want != 0 && want != static_cast<int32_t>(gettid())) g_seen.offThread = true;
    ++g_seen.n;
    return 0;
}


ASOrchMergeMsgDispatch g_tbl[] = {{kMsgId, {Handler, Handler, Handler, Handler}}};

// The broker's table message: an 8-byte prefix, then entries of kEntrySize
// bytes whose first four are the key.
constexpr uint32_t kIpcMsgId = 7;
constexpr uint32_t kEntrySize = 16;
constexpr uint32_t kPrefix = 8;
ASOrchRecvTblMsg g_recv[] = {
    {kMsgId, kIpcMsgId, 0, nullptr, nullptr, kEntrySize, AS_ORCH_MERGE_DAM, nullptr, 0, kKeySize}};

std::vector<uint8_t> TableFrame(uint32_t key) {
    uint8_t body[kPrefix + kEntrySize] = {};
    QovHostPutU32(body + kPrefix, key);
    std::vector<uint8_t> f(QOV_HOST_FRAME_HDR_LEN + sizeof body);
    QovHostFrameEncode(f.data(), f.size(), kIpcMsgId, body, sizeof body);
    return f;
}

// The orchestrator's receive function hands each frame to the library as it is.
uint32_t OnFrame(void *ctx, QovHostIpcMsg *m) {
    static_assert(sizeof(QovHostIpcMsg) == sizeof(ASOrchIpcMsg));
    return ASOrchMsgProc(static_cast<ASOrchHandle *>(ctx), reinterpret_cast<const ASOrchIpcMsg *>(m));
}

// A peer's data arrives as sync items shaped like the library's own.
void OnSync(void *ctx, uint32_t, QovHostSyncItem *items, uint32_t count) {
    static_assert(sizeof(QovHostSyncItem) == sizeof(ASOrchSyncGrpData));
    ASOrchMergeMsgVec tmpl{kMsgId, 0, nullptr, kKeySize, nullptr, kKeySize, 0, nullptr};
    ASOrchMergeSyncGrpDatas(count, reinterpret_cast<ASOrchSyncGrpData *>(items), &tmpl, AS_ORCH_MERGE_DAM,
                            static_cast<ASOrchHandle *>(ctx));
}

int32_t Tid(ASOrchHandle *hdl, uint32_t kind) {
    QovHostThreadRow r{};
    return QovHostThreadGet(ASOrchGetEalHdl(hdl), kind, &r) == 0 ? r.tid : 0;
}


bool ThreadGone(int32_t tid) { return !std::ifstream("/proc/self/task/" + std::to_string(tid) + "/comm").good(); }

class Integration : public qovtest::HostTest {
protected:
    // Creates, registers (threads of mask, sync kinds 0 and 1, the DAM and
    // FES channels to port) and starts an instance.
    ASOrchHandle *Start(const char *name, uint32_t mask, uint16_t port) {
        ASOrchCreatePara cp{0, 0, qovtest::TestAlloc, qovtest::TestFree, 0};
        ASOrchHandle *hdl = ASOrchCreate(name, &cp);
        EXPECT_NE(hdl, nullptr);
        ASOrchBasePara b{};
        b.threadMask = mask;
        b.syncGrpMsgSet[0] = 0x10;
        b.syncGrpMsgSet[1] = 0x20;
        b.chan[0].realServerPort = port;
        b.chan[1].realServerPort = port;
        b.damMerge = {g_tbl, 1, 64, qovtest::MergeHash<0>, 0, 0};
        b.fesMerge = {g_tbl, 1, 64, qovtest::MergeHash<0>, 0, 0};
        b.recvTblMsgList[0] = {g_recv, 1};
        EXPECT_EQ(ASOrchRegBase(hdl, &b), 0u);
        for (uint32_t c = 0; c < 2; ++c) EXPECT_EQ(QovHostChanSetRecv(ASOrchGetEalHdl(hdl), c, OnFrame, hdl), 0u);
        EXPECT_EQ(ASOrchInit(hdl), 0u);
        EXPECT_EQ(ASOrchStart(hdl), 0u);
        EXPECT_TRUE(WaitFor([&] { return Tid(hdl, 0) != 0; }));
        hdls_.push_back(hdl);
        return hdl;
    }
    // Stops feeding every instance, then destroys it.
    void DestroyAll() {
        for (ASOrchHandle *h : hdls_) {
            for (uint32_t c = 0; c < 2; ++c) QovHostChanSetRecv(ASOrchGetEalHdl(h), c, nullptr, nullptr);
            QovHostSyncSetRecv(ASOrchGetEalHdl(h), 0, nullptr, nullptr);
        }
        for (ASOrchHandle *h : hdls_) ASOrchDestroy(h);
        EXPECT_EQ(qovtest::FreeLive(), qovtest::kRegistryKept * hdls_.size()) << "blocks left beyond the registry's";
        hdls_.clear();
    }
    void SetUp() override {
        HostTest::SetUp();
        std::lock_guard<std::mutex> lk(g_seen.mu);
        g_seen.keys.clear();
        g_seen.n = 0;
        g_seen.tid = 0;
        g_seen.offThread = false;
    }
    void TearDown() override {
        DestroyAll();
        EXPECT_EQ(qovtest::AllocOutstanding(), 0) << "blocks left after destroy";
        HostTest::TearDown();
    }
    std::vector<ASOrchHandle *> hdls_;
};

TEST_F(Integration, BrokerFramesReachTheHandlersOnTheDataThread) {
    Broker broker;
    ASOrchHandle *hdl = Start("intA", 7, broker.port);
    g_seen.tid = Tid(hdl, 0);
    ASSERT_TRUE(broker.Accept());
    std::vector<uint8_t> feed;
    for (uint32_t k = 0; k < 200; ++k) {
        auto f = TableFrame(k);
        feed.insert(feed.end(), f.begin(), f.end());
    }
    broker.Send(feed);
    ASSERT_TRUE(WaitFor([] { return g_seen.n == 200; })) << g_seen.n;
    EXPECT_FALSE(g_seen.offThread) << "a handler ran off the Data thread";
    std::lock_guard<std::mutex> lk(g_seen.mu);
    for (uint32_t k = 0; k < 200; ++k) EXPECT_EQ(g_seen.keys[k], std::make_pair(hdl, k)) << k;
}

TEST_F(Integration, SyncGroupCarriesDataToThePeersHandlers) {
    Broker broker(false);  // channels keep retrying; not what this is about
    ASOrchHandle *a = Start("syncA", 3, broker.port);
    ASOrchHandle *b = Start("syncB", 1, broker.port);
    g_seen.tid = Tid(b, 0);
    void *ealB = ASOrchGetEalHdl(b);
    uint16_t port = 0;
    ASSERT_EQ(QovHostSyncSetRecv(ealB, 0, OnSync, b), 0u);
    ASSERT_EQ(QovHostSyncListen(ealB, 0, &port), 0u);
    EXPECT_EQ(ASOrchSyncIsSyncReadyOnlyTarn(a, 0), 0u);
    ASSERT_EQ(QovHostSyncConnect(ASOrchGetEalHdl(a), 0, port), 0u);
    ASSERT_TRUE(WaitFor([&] { return ASOrchSyncIsSyncReadyOnlyTarn(a, 0) == 1; }));
    EXPECT_EQ(ASOrchSyncIsSyncReadyOnlyTarn(a, 1), 0u) << "kind 1 has no link";

    uint8_t key[kKeySize];
    QovHostPutU32(key, 0xC0FFEE);
    QovHostSyncItem item{key, kKeySize, 0};
    ASSERT_EQ(ASOrchSyncMsg(a, 0, &item), 0u);
    ASSERT_TRUE(WaitFor([] { return g_seen.n == 1; }));
    EXPECT_FALSE(g_seen.offThread);
    std::lock_guard<std::mutex> lk(g_seen.mu);
    EXPECT_EQ(g_seen.keys[0], std::make_pair(b, 0xC0FFEEu));
}

// The feed runs at full speed until stopped; the instance is destroyed right
// after, while its Data thread is still reading what the socket holds.
// Broken by: a handler or thread outliving ASOrchDestroy, a leak, or the
// channel's socket left open.
TEST_F(Integration, DestroyRightAfterAFullSpeedFeed) {
    for (int round = 0; round < 100; ++round) {
        Broker broker;
        ASOrchHandle *hdl = Start("feed", 7, broker.port);
        int32_t tids[3] = {Tid(hdl, 0), Tid(hdl, 1), Tid(hdl, 2)};
        ASSERT_TRUE(broker.Accept()) << "round " << round;
        std::atomic<bool> stop{false};
        std::thread feeder([&] {
            for (uint32_t k = 0; !stop; ++k) broker.Send(TableFrame(k % 5000));
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(3));
        stop = true;
        feeder.join();
        DestroyAll();
        ASSERT_EQ(qovtest::AllocOutstanding(), 0) << "round " << round;
        char byte;
        ASSERT_TRUE(WaitFor([&] { return recv(broker.cfd, &byte, 1, 0) == 0; }, 1000)) << "socket left open, round " << round;
        // A joined thread's task may linger in /proc for a moment after the join.
        for (int32_t t : tids)
            ASSERT_TRUE(WaitFor([t] { return ThreadGone(t); }, 1000)) << "thread " << t << " of round " << round;
    }
    EXPECT_GT(g_seen.n, 0u) << "the feed never reached a handler";
}

}  // namespace
