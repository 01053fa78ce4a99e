// Base registration through ASOrchRegBase as an orchestrator calls it: the
// steps' order and stop on failure, the thread and channel records the EAL
// receives, and allocation failure at every point.
#include <arpa/inet.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "core/as_handle.h"
#include "qov_utils_eal.h"
#include "support/test_env.h"

namespace {

using qovtest::Calls;
using qovtest::Logs;

uint32_t Handler(ASOrchHandle *, ASOrchMergeMsgVec *) { return 0; }
uint32_t Hash(const void *key) {
    const auto *v = static_cast<const ASOrchMergeMsgVec *>(key);
    return ASOrchMergeHashFunc(v->usrData, 0, v);
}
ASOrchMergeMsgDispatch g_tbl[] = {{100, {Handler, Handler, Handler, Handler}}};
constexpr uint32_t kRecvMsgId = 0x500, kTableId = 7;
ASOrchRecvTblMsg g_recv[] = {{100, kRecvMsgId, 0, nullptr, nullptr, 8, 0, nullptr, 0, 4}};
ASOrchTransTblMsg g_trans[] = {{kTableId, 8, {}, {}, 0, nullptr}};

// The handle's allocator, noting for each block how many log lines were
// written before it was taken, so that a block can be told to be the
// table-message registry's (which keeps its blocks by design).
std::map<void *, size_t> g_live;
void *TrackAlloc(uint32_t size) {
    void *p = qovtest::TestAlloc(size);
    if (p != nullptr) g_live[p] = QovHostLogCount();
    return p;
}
void TrackFree(void *p) {
    g_live.erase(p);
    qovtest::TestFree(p);
}

ASOrchHandle *Create(const char *name) {
    ASOrchCreatePara p{0, 0, TrackAlloc, TrackFree, 0};
    return ASOrchCreate(name, &p);
}

// Destroys h. Every block taken since `before` that is still taken afterwards
// must come from the "TblMsg" step; those are given back here.
void Destroy(ASOrchHandle *h, const std::map<void *, size_t> &before = {}) {
    if (h == nullptr) return;
    const std::string name = h->name;
    size_t from = qovtest::FindLine(name + ", Register Orch autosync base, channel ok");
    size_t to = std::string::npos;
    auto logs = Logs();
    for (size_t i = from == std::string::npos ? logs.size() : from + 1; i < logs.size() && to == std::string::npos; ++i)
        if (logs[i].find("autosync base") != std::string::npos) to = i;
    ASOrchDestroy(h);
    for (auto [p, stamp] : std::map<void *, size_t>(g_live)) {
        if (before.count(p) != 0) continue;
        EXPECT_TRUE(to != std::string::npos && stamp > from && stamp <= to) << "a block outside the registry's left";
        TrackFree(p);
    }
}

// A record that every step accepts: Data thread, sync kind 0, the DAM channel
// and both merge paths.
ASOrchBasePara ValidBase() {
    ASOrchBasePara b{};
    b.threadMask = 1;
    b.modStateRsp = 0x1122334455667788ull;
    b.modStateRspArg = 7;
    b.syncGrpMsgSet[0] = 0x10;
    b.rsvPortPara0 = 5;
    b.rsvPortPara1 = 6;
    b.chan[0] = {0x1234, 0xAB};
    b.recvTblMsgList[1] = {g_recv, 1};
    b.transTblMsgList[1] = {g_trans, 1};
    b.damMerge = {g_tbl, 1, 64, Hash, 0, 0};
    b.fesMerge = {g_tbl, 1, 0, Hash, 0, 0};
    return b;
}

class RegBase : public qovtest::HostTest {
protected:
    void SetUp() override {
        HostTest::SetUp();
        g_live.clear();
        hdl_ = Create("orch");
        ASSERT_NE(hdl_, nullptr);
        QovHostJournalClear();
    }
    void TearDown() override {
        Destroy(hdl_);
        EXPECT_EQ(qovtest::AllocOutstanding(), 0) << "memory of the handle left after destroy";
        HostTest::TearDown();
    }
    // The lines ASOrchBaseProc writes about its steps.
    static std::vector<std::string> StepLines() {
        std::vector<std::string> out;
        for (const auto &l : Logs())
            if (l.find("autosync base") != std::string::npos || l.find("register base success") != std::string::npos)
                out.push_back(l);
        return out;
    }
    ASOrchHandle *hdl_ = nullptr;
};

const char *const kSteps[] = {"RegThread", "ModStateRsp", "SyncGroup", "ReservePort", "channel", "TblMsg", "MergeMQue"};

TEST_F(RegBase, RunsEveryStepInTableOrderAndForwardsTheRecordWords) {
    ASOrchBasePara b = ValidBase();
    ASSERT_EQ(ASOrchRegBase(hdl_, &b), 0u);
    std::vector<std::string> expected;
    for (const char *s : kSteps) expected.push_back(std::string("orch, Register Orch autosync base, ") + s + " ok");
    expected.push_back("orch, Orch autosync register base success");
    EXPECT_EQ(StepLines(), expected);
    auto rsp = Calls("QOV_EAL_RegModStateRsp");
    auto port = Calls("QOV_EAL_ReservePort");
    ASSERT_EQ(rsp.size(), 1u);
    ASSERT_EQ(port.size(), 1u);
    EXPECT_EQ(rsp[0].arg[1], 0x1122334455667788ull);
    EXPECT_EQ(rsp[0].arg[2], 7u);
    EXPECT_EQ(port[0].arg[1], 5u);
    EXPECT_EQ(port[0].arg[2], 6u);
    EXPECT_EQ(ASOrchRegBase(nullptr, &b), 1u);
    EXPECT_EQ(ASOrchRegBase(hdl_, nullptr), 1u);
    EXPECT_EQ(qovtest::CountLine("Register Orch autosync base Fail, Param is Null"), 2u);
}

// A failure inside step i stops the registration there: its name is in the
// failure line and no later step reaches the platform.
struct StepFail {
    uint32_t step;
    const char *failOp;  // the platform operation made to fail; null: a receive id registered twice
    const char *reason;  // the step's own line, when it writes one
};
// The first platform operation each step calls.
const char *const kStepOps[] = {"QOV_EAL_RegThread",   "QOV_EAL_RegModStateRsp", "QOV_EAL_RegSyncGroup",
                                "QOV_EAL_ReservePort", "QOV_EAL_RegUcChannel",   "QOV_EAL_SelfRoleIsMb",
                                "eventfd_s"};

class StepFailure : public RegBase, public ::testing::WithParamInterface<StepFail> {};

TEST_P(StepFailure, StopsAtThatStep) {
    const StepFail &c = GetParam();
    ASOrchBasePara b = ValidBase();
    if (c.failOp != nullptr) QovHostFailNext(c.failOp, 1, 3);
    else b.recvTblMsgList[0] = b.recvTblMsgList[1];
    EXPECT_EQ(ASOrchRegBase(hdl_, &b), 1u);
    std::vector<std::string> expected;
    for (uint32_t i = 0; i < c.step; ++i)
        expected.push_back(std::string("orch, Register Orch autosync base, ") + kSteps[i] + " ok");
    expected.push_back(std::string("orch, Register Orch autosync base Fail, ") + kSteps[c.step] + " fail");
    EXPECT_EQ(StepLines(), expected);
    if (c.reason != nullptr) {
        EXPECT_TRUE(qovtest::HasLine(c.reason)) << c.reason;
    }
    for (uint32_t i = c.step + 1; i < std::size(kSteps); ++i)
        EXPECT_EQ(QovHostJournalCountOf(kStepOps[i]), 0u) << kStepOps[i];
    EXPECT_EQ(hdl_->threadMask, c.step == 0 ? 0u : 1u) << "the mask is kept only once the EAL took the threads";
}

INSTANTIATE_TEST_SUITE_P(Steps, StepFailure,
                         ::testing::Values(StepFail{0, "QOV_EAL_RegThread", "orch, register 1 threads fail"},
                                           StepFail{1, "QOV_EAL_RegModStateRsp", nullptr},
                                           StepFail{2, "QOV_EAL_RegSyncGrpMsgSet",
                                                    "orch, syncGrpId = 0, auto sync reg SyncGroupMsgSet Fail."},
                                           StepFail{3, "QOV_EAL_ReservePort", nullptr},
                                           StepFail{4, "QOV_EAL_RegUcChannel", "orch, RegUcChannel orch_DATA_DAM fail."},
                                           StepFail{5, nullptr, "Orch autosync recv add HashNode(1280) fail"},
                                           StepFail{6, "eventfd_s", nullptr}),
                         [](const auto &p) { return std::string(kSteps[p.param.step]); });

// Allocation number k of the registration fails, for every k until none is
// left: a failure result each time, and destroy gives back everything but the
// registry's blocks.
TEST_F(RegBase, EveryFailingAllocationIsClean) {
    ASOrchBasePara b = ValidBase();
    const int64_t base = qovtest::AllocOutstanding();  // the fixture's handle
    const std::map<void *, size_t> before = g_live;
    uint32_t k = 1;
    for (; k < 100; ++k) {
        QovHostLogClear();
        ASOrchHandle *h = Create("orchK");
        ASSERT_NE(h, nullptr);
        qovtest::AllocFailAt(qovtest::AllocCount() + k);
        uint32_t r = ASOrchRegBase(h, &b);
        qovtest::AllocFailAt(0);
        Destroy(h, before);
        ASSERT_EQ(qovtest::AllocOutstanding(), base) << "allocation " << k;
        if (r == 0) break;
    }
    EXPECT_GT(k, 3u) << "the steps allocate";
    EXPECT_LT(k, 100u);
}

// Threads: the records handed over, packed in kind order.
struct ThreadCase {
    const char *name;
    uint32_t mask;
    std::vector<QOV_EAL_ThreadPara> rows;
};

class Threads : public RegBase, public ::testing::WithParamInterface<ThreadCase> {};

TEST_P(Threads, RegistersTheSelectedRecordsAndKeepsTheMask) {
    const ThreadCase &c = GetParam();
    ASOrchBasePara b = ValidBase();
    b.threadMask = c.mask;
    ASSERT_EQ(ASOrchRegBase(hdl_, &b), 0u);
    auto calls = Calls("QOV_EAL_RegThread");
    ASSERT_EQ(calls.size(), 1u);
    ASSERT_EQ(calls[0].arg[2], c.rows.size());
    ASSERT_EQ(calls[0].recLen, c.rows.size() * sizeof(QOV_EAL_ThreadPara));
    EXPECT_EQ(memcmp(calls[0].rec, c.rows.data(), calls[0].recLen), 0) << "record bytes, NUL-filled names";
    EXPECT_EQ(hdl_->threadMask, c.mask);
}

const QOV_EAL_ThreadPara kData{0, "orch_DATA", 0}, kSync{1, "orch_SYNC", 1}, kEvent{2, "orch_EVENT", 3};
INSTANTIATE_TEST_SUITE_P(Masks, Threads,
                         ::testing::Values(ThreadCase{"DataOnly", 1, {kData}}, ThreadCase{"DataEvent", 5, {kData, kEvent}},
                                           ThreadCase{"All", 7, {kData, kSync, kEvent}},
                                           ThreadCase{"HighBitKept", 9, {kData}}),
                         [](const auto &p) { return std::string(p.param.name); });

TEST(ThreadSet, BuildsMasksOfDistinctKindsBelow32) {
    struct Row {
        uint32_t count, k0, k1, k2, result, mask;
    };
    const Row rows[] = {{1, 0, 0, 0, 0, 1},  {3, 2, 0, 1, 0, 7},          {2, 0, 31, 0, 0, 0x80000001u},
                        {2, 0, 0, 0, 1, 99}, {0, 0, 0, 0, 1, 99},          {4, 0, 1, 2, 1, 99},
                        {1, 32, 0, 0, 1, 99}, {2, 0, 0xFFFFFFFFu, 0, 1, 99}, {1, 3, 0, 0, 0, 8}};
    for (const Row &r : rows) {
        uint32_t mask = 99;
        EXPECT_EQ(ASOrchThreadSet(&mask, r.count, r.k0, r.k1, r.k2), r.result) << r.count << " " << r.k0 << r.k1;
        EXPECT_EQ(mask, r.mask) << r.count << " " << r.k0 << r.k1;
    }
    EXPECT_EQ(ASOrchThreadSet(nullptr, 1, 0u), 1u);
}

TEST_F(RegBase, MaskWithoutDataThreadBuildsNoName) {
    ASOrchBasePara b = ValidBase();
    b.threadMask = 6;
    EXPECT_EQ(ASOrchRegBase(hdl_, &b), 1u);
    EXPECT_TRUE(qovtest::HasLine("orch, set threads fail, has not Data thread"));
    EXPECT_EQ(QovHostJournalCountOf("QOV_EAL_RegThread"), 0u);
}

// Channels: one record per used slot, completed from the channel table.
struct ChanCase {
    const char *name;
    uint32_t mask;
    std::vector<std::pair<uint32_t, uint32_t>> slots;  // slot, realServerPort
    std::vector<ASOrchChanPara> expected;               // empty: the step fails
    const char *failLine;
};

ASOrchChanPara Chan(uint32_t idx, const char *name, uint32_t w72, uint32_t thread, uint16_t portBe, uint32_t w120,
                    uint64_t usr) {
    ASOrchChanPara p{};
    p.chanIdx = idx;
    p.word4 = 0x3FFFFFFF;
    strncpy(p.chanName, name, sizeof p.chanName - 1);
    p.word72 = w72;
    p.chanThreadId = thread;
    p.serverPort = portBe;
    p.word120 = w120;
    p.chanUsrData = usr;
    return p;
}

class Channels : public RegBase, public ::testing::WithParamInterface<ChanCase> {};

TEST_P(Channels, RecordsCarryNamePortThreadAndUserValue) {
    const ChanCase &c = GetParam();
    ASOrchBasePara b = ValidBase();
    b.threadMask = c.mask;
    b.chan[0] = {};
    for (auto [slot, port] : c.slots) b.chan[slot] = {port, 0x100u + slot};
    EXPECT_EQ(ASOrchRegBase(hdl_, &b), c.expected.empty() ? 1u : 0u);
    auto calls = Calls("QOV_EAL_RegUcChannel");
    ASSERT_EQ(calls.size(), c.expected.size());
    for (size_t i = 0; i < calls.size(); ++i) {
        ASOrchChanPara got;
        ASSERT_EQ(calls[i].recLen, sizeof got);
        memcpy(&got, calls[i].rec, sizeof got);
        ASSERT_NE(got.serverAddrFunc, nullptr);
        EXPECT_EQ(got.serverAddrFunc(), htonl(INADDR_LOOPBACK)) << i;
        got.serverAddrFunc = nullptr;
        EXPECT_EQ(memcmp(&got, &c.expected[i], sizeof got), 0) << i << " " << got.chanName;
    }
    if (c.failLine != nullptr) {
        EXPECT_TRUE(qovtest::HasLine(c.failLine)) << c.failLine;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Slots, Channels,
    ::testing::Values(
        ChanCase{"Dam", 1, {{0, 0x1234}}, {Chan(0, "orch_DATA_DAM", 1, 0, htons(0x1234), 25, 0x100)}, nullptr},
        ChanCase{"FesUpperBitsIgnored", 1, {{1, 0x5000F}}, {Chan(1, "orch_DATA_FES", 1, 0, htons(15), 25, 0x101)},
                 nullptr},
        ChanCase{"UpUpperBitsOnlyIsPortZero", 1, {{2, 0x10000}}, {Chan(2, "orch_DATA_UP", 3, 0, 0, 9, 0x102)},
                 nullptr},
        ChanCase{"EvtOnEventThread", 5, {{3, 80}}, {Chan(3, "orch_EVT", 3, 2, htons(80), 25, 0x103)}, nullptr},
        ChanCase{"EvtWithoutEventThread", 1, {{3, 80}}, {Chan(3, "orch_EVT", 3, 0, htons(80), 25, 0x103)}, nullptr},
        ChanCase{"AllInSlotOrder",
                 7,
                 {{3, 4}, {0, 1}, {2, 3}, {1, 2}},
                 {Chan(0, "orch_DATA_DAM", 1, 0, htons(1), 25, 0x100), Chan(1, "orch_DATA_FES", 1, 0, htons(2), 25, 0x101),
                  Chan(2, "orch_DATA_UP", 3, 0, htons(3), 9, 0x102), Chan(3, "orch_EVT", 3, 2, htons(4), 25, 0x103)},
                 nullptr},
        ChanCase{"NoSlotUsed", 1, {}, {}, "orch, no valid realServerPort."},
        ChanCase{"Slot5RefusedBeforeTheEal", 1, {{5, 9}}, {}, "orch, chan slot 5 has no channel kind."}),
    [](const auto &p) { return std::string(p.param.name); });

TEST(ChannelNames, ShortNamesOfTheFourKindsOnly) {
    const char *const expected[] = {"DAM", "FES", "UP", "EVT", nullptr, nullptr, nullptr, nullptr, nullptr};
    for (uint32_t i = 0; i < std::size(expected); ++i) {
        const char *got = ASGetChnlName(i);
        EXPECT_TRUE(got == expected[i] || (got != nullptr && expected[i] != nullptr && strcmp(got, expected[i]) == 0))
            << i;
    }
}

}  // namespace
