// Base registration through ASOrchRegBase as an orchestrator calls it: the
// steps' order and stop on failure, the thread and channel records the EAL
// receives, and allocation failure at every point.
#include <arpa/inet.h>

#include <array>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "core/base/as_handle.h"
#include "qov_utils_eal.h"
#include "support/reg_env.h"

namespace {

using qovtest::Calls;
using qovtest::Logs;

using qovtest::Create;
using qovtest::Destroy;
using qovtest::ValidBase;

class RegBase : public qovtest::HostTest {
protected:
    void SetUp() override {
        HostTest::SetUp();
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
    const char *failOp;  // the platform operation made to fail; null: the record is bad
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
    else if (c.step == 0) b.threadMask = 6;                  // no Data thread: no name is built
    else b.recvTblMsgList[0] = b.recvTblMsgList[1];          // a receive id registered twice
    EXPECT_EQ(ASOrchRegBase(hdl_, &b), 1u);
    std::vector<std::string> expected;
    for (uint32_t i = 0; i < c.step; ++i)
        expected.push_back(std::string("orch, Register Orch autosync base, ") + kSteps[i] + " ok");
    expected.push_back(std::string("orch, Register Orch autosync base Fail, ") + kSteps[c.step] + " fail");
    EXPECT_EQ(StepLines(), expected);
    if (c.reason != nullptr) {
        EXPECT_TRUE(qovtest::HasLine(c.reason)) << c.reason;
    }
    const bool noDataThread = c.step == 0 && c.failOp == nullptr;  // refused before the EAL is asked
    for (uint32_t i = noDataThread ? 0 : c.step + 1; i < std::size(kSteps); ++i)
        EXPECT_EQ(QovHostJournalCountOf(kStepOps[i]), 0u) << kStepOps[i];
}

INSTANTIATE_TEST_SUITE_P(Steps, StepFailure,
                         ::testing::Values(StepFail{0, "QOV_EAL_RegThread", "orch, register 1 threads fail"},
                                           StepFail{0, nullptr, "orch, set threads fail, has not Data thread"},
                                           StepFail{1, "QOV_EAL_RegModStateRsp", nullptr},
                                           StepFail{2, "QOV_EAL_RegSyncGrpMsgSet",
                                                    "orch, syncGrpId = 0, auto sync reg SyncGroupMsgSet Fail."},
                                           StepFail{3, "QOV_EAL_ReservePort", nullptr},
                                           StepFail{4, "QOV_EAL_RegUcChannel", "orch, RegUcChannel orch_DATA_DAM fail."},
                                           StepFail{5, nullptr, "Orch autosync recv add HashNode(1280) fail"},
                                           StepFail{6, "eventfd_s", nullptr}),
                         [](const auto &p) {
                             return std::string(kSteps[p.param.step]) + (p.param.failOp != nullptr ? "" : "BadRecord");
                         });

// Allocation number k of the registration fails, for every k until none is
// left: a failure result each time, and destroy gives back everything but the
// registry's blocks.
TEST_F(RegBase, EveryFailingAllocationIsClean) {
    ASOrchBasePara b = ValidBase();
    const int64_t base = qovtest::AllocOutstanding();  // the fixture's handle
    const std::map<void *, size_t> before = qovtest::LiveBlocks();
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

TEST_P(Threads, RegistersTheSelectedRecords) {
    const ThreadCase &c = GetParam();
    ASOrchBasePara b = ValidBase();
    b.threadMask = c.mask;
    ASSERT_EQ(ASOrchRegBase(hdl_, &b), 0u);
    auto calls = Calls("QOV_EAL_RegThread");
    ASSERT_EQ(calls.size(), 1u);
    ASSERT_EQ(calls[0].arg[2], c.rows.size());
    ASSERT_EQ(calls[0].recLen, c.rows.size() * sizeof(QOV_EAL_ThreadPara));
    EXPECT_EQ(memcmp(calls[0].rec, c.rows.data(), calls[0].recLen), 0) << "record bytes, NUL-filled names";
}

const QOV_EAL_ThreadPara kData{0, "orch_DATA", 0}, kSync{1, "orch_SYNC", 1}, kEvent{2, "orch_EVENT", 3};
INSTANTIATE_TEST_SUITE_P(Masks, Threads,
                         ::testing::Values(ThreadCase{"DataOnly", 1, {kData}}, ThreadCase{"DataEvent", 5, {kData, kEvent}},
                                           ThreadCase{"All", 7, {kData, kSync, kEvent}},
                                           ThreadCase{"HighBitKept", 9, {kData}}),
                         qovtest::RowName());

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

// Channels: one record per used slot, in slot order, completed from the
// channel table with the instance name, port, thread and the slot's value.
struct ChanCase {
    const char *name;
    uint32_t mask;
    std::vector<std::pair<uint32_t, uint32_t>> slots;  // slot, realServerPort
    std::vector<std::array<uint32_t, 3>> expected;     // kind, thread, port; empty: the step fails
    const char *failLine;
};
struct ChanKind {
    const char *name;
    uint32_t w72, w120;
};
const ChanKind kKinds[] = {{"orch_DATA_DAM", 1, 25}, {"orch_DATA_FES", 1, 25}, {"orch_DATA_UP", 3, 9}, {"orch_EVT", 3, 25}};

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
        auto [kind, thread, port] = c.expected[i];
        ASOrchChanPara got, want{};
        ASSERT_EQ(calls[i].recLen, sizeof got);
        memcpy(&got, calls[i].rec, sizeof got);
        ASSERT_NE(got.serverAddrFunc, nullptr);
        EXPECT_EQ(got.serverAddrFunc(), htonl(INADDR_LOOPBACK)) << i;
        got.serverAddrFunc = nullptr;
        want.chanIdx = kind;
        want.word4 = 0x3FFFFFFF;
        strcpy(want.chanName, kKinds[kind].name);
        want.word72 = kKinds[kind].w72;
        want.chanThreadId = thread;
        want.serverPort = htons(static_cast<uint16_t>(port));
        want.word120 = kKinds[kind].w120;
        want.chanUsrData = 0x100u + kind;
        EXPECT_EQ(memcmp(&got, &want, sizeof got), 0) << i << " " << got.chanName;
    }
    if (c.failLine != nullptr) {
        EXPECT_TRUE(qovtest::HasLine(c.failLine)) << c.failLine;
    }
    EXPECT_STREQ(ASGetChnlName(3), "EVT");
    EXPECT_EQ(ASGetChnlName(4), nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Slots, Channels,
    ::testing::Values(ChanCase{"Dam", 1, {{0, 0x1234}}, {{0, 0, 0x1234}}, nullptr},
                      ChanCase{"FesUpperBitsIgnored", 1, {{1, 0x5000F}}, {{1, 0, 15}}, nullptr},
                      ChanCase{"UpUpperBitsOnlyIsPortZero", 1, {{2, 0x10000}}, {{2, 0, 0}}, nullptr},
                      ChanCase{"EvtOnEventThread", 5, {{3, 80}}, {{3, 2, 80}}, nullptr},
                      ChanCase{"EvtWithoutEventThread", 1, {{3, 80}}, {{3, 0, 80}}, nullptr},
                      ChanCase{"AllInSlotOrder", 7, {{3, 4}, {0, 1}, {2, 3}, {1, 2}},
                               {{0, 0, 1}, {1, 0, 2}, {2, 0, 3}, {3, 2, 4}}, nullptr},
                      ChanCase{"NoSlotUsed", 1, {}, {}, "orch, no valid realServerPort."},
                      ChanCase{"Slot5RefusedBeforeTheEal", 1, {{5, 9}}, {}, "orch, chan slot 5 has no channel kind."}),
    qovtest::RowName());

}  // namespace
