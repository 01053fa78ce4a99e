#include <fcntl.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "core/base/as_handle.h"
#include "qov_utils_eal.h"
#include "support/test_env.h"

namespace {

using qovtest::AllocOutstanding;
using qovtest::CountLine;
using qovtest::HasLine;
using qovtest::HostTest;
using qovtest::Logs;
using qovtest::TestAlloc;
using qovtest::TestFree;

ASOrchCreatePara Para() { return ASOrchCreatePara{7, 3, TestAlloc, TestFree, 9}; }

class Lifecycle : public HostTest {
protected:
    void TearDown() override {
        EXPECT_EQ(AllocOutstanding(), 0) << "memory (a registry node, a handle) stayed allocated";
        HostTest::TearDown();
    }
    // Creates and destroys name, proving that the name is free.
    static void ExpectCreatable(const char *name) {
        ASOrchCreatePara p = Para();
        ASOrchHandle *hdl = ASOrchCreate(name, &p);
        ASSERT_NE(hdl, nullptr);
        ASOrchDestroy(hdl);
    }
};

TEST_F(Lifecycle, CreateLogsEachStepAndDestroyReleasesEverything) {
    ASOrchCreatePara p = Para();
    ASOrchHandle *hdl = ASOrchCreate("orchA", &p);
    ASSERT_NE(hdl, nullptr);
    EXPECT_STREQ(reinterpret_cast<const char *>(hdl), "orchA");
    EXPECT_EQ(qovtest::AllocCount(), 2u) << "registry node and handle; CreateFailure fails each";
    void *eal = ASOrchGetEalHdl(hdl);
    ASSERT_NE(eal, nullptr);
    ASOrchDestroy(hdl);
    EXPECT_EQ(Logs(), (std::vector<std::string>{"orchA, Create Orch autosync handle ok",
                                                "orchA, Create Orch autosync eal ok",
                                                "orchA, Orch autosync create success",
                                                "orchA, Orch auto sync free begin.", "Orch auto sync free ok."}));
    auto destroyed = qovtest::Calls("QOV_EAL_Destroy");
    ASSERT_EQ(destroyed.size(), 1u);
    EXPECT_EQ(destroyed[0].arg[0], reinterpret_cast<uintptr_t>(eal));
}

TEST_F(Lifecycle, EalCreationRecordCarriesTheOrchIdWordsAndMemoryFunctions) {
    QovHostSetSlot(4);
    QovHostSetCpu(2);
    QovHostSetOrchId(0x1234);
    ASOrchCreatePara p = Para();
    ASOrchHandle *hdl = ASOrchCreate("orchB", &p);
    ASSERT_NE(hdl, nullptr);
    auto vt = qovtest::Calls("COMP_GetVTable");
    ASSERT_EQ(vt.size(), 1u);
    EXPECT_EQ(vt[0].arg[0], 1000u);
    EXPECT_EQ(vt[0].arg[1], 1003u);
    auto id = qovtest::Calls("getOrchIdBySlotAndCpu");
    ASSERT_EQ(id.size(), 1u);
    EXPECT_EQ(id[0].arg[0], 4u);
    EXPECT_EQ(id[0].arg[1], 2u);
    auto create = qovtest::Calls("QOV_EAL_Create");
    ASSERT_EQ(create.size(), 1u);
    EXPECT_STREQ(create[0].str, "orchB");
    ASSERT_EQ(create[0].recLen, 40u);
    uint8_t want[40] = {};
    uint32_t words[4] = {0x1234, 7, 9, 0};
    std::memcpy(want, words, sizeof words);
    auto memAlloc = &TestAlloc;
    auto memFree = &TestFree;
    std::memcpy(want + 16, &memAlloc, 8);
    std::memcpy(want + 24, &memFree, 8);
    EXPECT_EQ(std::memcmp(create[0].rec, want, sizeof want), 0);
    ASOrchDestroy(hdl);
}

struct NameCase {
    size_t len;
    bool accepted;
};

class NameLength : public Lifecycle, public ::testing::WithParamInterface<NameCase> {};

TEST_P(NameLength, NamesOf16OrMoreCharactersAreRefusedBeforeAllocating) {
    std::string name(GetParam().len, 'n');
    ASOrchCreatePara p = Para();
    ASOrchHandle *hdl = ASOrchCreate(name.c_str(), &p);
    if (GetParam().accepted) {
        ASSERT_NE(hdl, nullptr);
        ASOrchDestroy(hdl);
        return;
    }
    EXPECT_EQ(hdl, nullptr);
    EXPECT_EQ(qovtest::AllocCount(), 0u);
    // A name too long for the line is shown by its first 200 characters.
    EXPECT_TRUE(HasLine(name.substr(0, 200) + ", Create Orch autosync Fail,check not valid"));
}

INSTANTIATE_TEST_SUITE_P(Boundary, NameLength,
                         ::testing::Values(NameCase{0, true}, NameCase{1, true}, NameCase{15, true},
                                           NameCase{16, false}, NameCase{200, false},
                                           NameCase{300, false}),
                         [](const auto &p) { return "Length" + std::to_string(p.param.len); });

TEST_F(Lifecycle, CreateRefusesNullArgumentsAndMissingMemoryFunctions) {
    ASOrchCreatePara p = Para();
    EXPECT_EQ(ASOrchCreate(nullptr, &p), nullptr);
    EXPECT_EQ(ASOrchCreate("x", nullptr), nullptr);
    EXPECT_EQ(CountLine("Create Orch autosync Fail, Param is Null"), 2u);
    p.memAlloc = nullptr;
    EXPECT_EQ(ASOrchCreate("x", &p), nullptr);
    p = Para();
    p.memFree = nullptr;
    EXPECT_EQ(ASOrchCreate("x", &p), nullptr);
    EXPECT_EQ(CountLine("x, Create Orch autosync Fail,check not valid"), 2u);
    EXPECT_EQ(QovHostJournalCount(), 0u) << "the platform was asked something";
}

TEST_F(Lifecycle, DuplicateNameIsRefusedUntilTheFirstIsDestroyed) {
    ASOrchCreatePara p = Para();
    ASOrchHandle *first = ASOrchCreate("dup", &p);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(ASOrchCreate("dup", &p), nullptr);
    EXPECT_TRUE(HasLine("dup, Create Orch autosync Fail, add module fail"));
    ASOrchDestroy(first);
    ExpectCreatable("dup");
}

// Each way creation can fail: the lines it must log, and that nothing stays.
struct CreateFailCase {
    const char *what;
    std::function<void()> arm;
    std::vector<std::string> lines;
};

class CreateFailure : public Lifecycle, public ::testing::WithParamInterface<CreateFailCase> {};

TEST_P(CreateFailure, LeavesNothingBehind) {
    GetParam().arm();
    ASOrchCreatePara p = Para();
    EXPECT_EQ(ASOrchCreate("orchF", &p), nullptr);
    EXPECT_EQ(Logs(), GetParam().lines);
    EXPECT_EQ(AllocOutstanding(), 0);
    QovHostFailClear();
    QovHostSetOrchIdEntry(1);
    qovtest::AllocReset();
    ExpectCreatable("orchF");
}

INSTANTIATE_TEST_SUITE_P(
    Steps, CreateFailure,
    ::testing::Values(
        CreateFailCase{"RegistryNode", [] { qovtest::AllocFailAt(1); },
                       {"orchF, Create Orch autosync Fail, add module fail"}},
        CreateFailCase{"Handle", [] { qovtest::AllocFailAt(2); }, {"orchF, Orch autosync Memory Alloc Fail"}},
        CreateFailCase{"VTableError", [] { QovHostFailNext("COMP_GetVTable", 1, 5); },
                       {"orchF, Create Orch autosync handle ok", "failed to get orchpub vt table, ret = 5",
                        "orchF, get orch id error"}},
        CreateFailCase{"VTableNull", [] { QovHostFailNext("COMP_GetVTable", 1, 0); },
                       {"orchF, Create Orch autosync handle ok", "failed to get orchpub vt table, ret = 0",
                        "orchF, get orch id error"}},
        CreateFailCase{"OrchIdEntryNull", [] { QovHostSetOrchIdEntry(0); },
                       {"orchF, Create Orch autosync handle ok", "getOrchIdBySlotAndCpu is null",
                        "orchF, get orch id error"}},
        CreateFailCase{"OrchIdEntryFails", [] { QovHostFailNext("getOrchIdBySlotAndCpu", 1, 7); },
                       {"orchF, Create Orch autosync handle ok", "orchF, get orch id error"}},
        CreateFailCase{"EalCreate", [] { QovHostFailNext("QOV_EAL_Create", 1, 0); },
                       {"orchF, Create Orch autosync handle ok", "orchF, Create Orch autosync eal Fail"}}),
    [](const auto &p) { return std::string(p.param.what); });

// Entry points given a null handle: a line without a name, a failure result,
// and no platform call.
TEST_F(Lifecycle, NullHandleIsRefusedByEveryEntryPoint) {
    EXPECT_EQ(ASOrchInit(nullptr), 1u);
    EXPECT_EQ(ASOrchStart(nullptr), 1u);
    EXPECT_EQ(ASOrchSetOndemandParam(nullptr, 5), 1u);
    EXPECT_EQ(ASOrchGetEalHdl(nullptr), nullptr);
    EXPECT_EQ(ASOrchModInitOk(nullptr), 1u);
    EXPECT_EQ(ASOrchGetEpollFd(nullptr, 0), -1);
    EXPECT_EQ(ASOrchTimerInit(nullptr, 10, 0, 0, 0), 1u);
    ASOrchDestroy(nullptr);
    EXPECT_EQ(Logs(), (std::vector<std::string>{
                          "Init Orch autosync Fail, handle is Null", "Start Orch autosync Fail, handle is Null",
                          "Start Orch autosync Fail, handle is Null", "Get Orch autosync eal hdl Fail, handle is NULL",
                          "Get Orch autosync eal hdl Fail, handle is NULL",
                          "Get Orch autosync eal hdl Fail, handle is NULL",
                          "Get Orch autosync eal hdl Fail, handle is NULL",
                          "Destroy Orch autosync Fail, handle or free func is NULL"}));
    EXPECT_EQ(QovHostJournalCount(), 0u);
}

class Live : public Lifecycle {
protected:
    void SetUp() override {
        Lifecycle::SetUp();
        ASOrchCreatePara p = Para();
        hdl_ = ASOrchCreate("live", &p);
        ASSERT_NE(hdl_, nullptr);
        QovHostLogClear();
        QovHostJournalClear();
    }
    void TearDown() override {
        if (hdl_ != nullptr) ASOrchDestroy(hdl_);
        Lifecycle::TearDown();
    }
    ASOrchHandle *hdl_ = nullptr;
};

struct ForwardCase {
    const char *op;
    uint32_t (*call)(ASOrchHandle *);
    const char *fail;
    const char *ok;
};

class Forwarders : public Live, public ::testing::WithParamInterface<ForwardCase> {};

TEST_P(Forwarders, ReportThePlatformResult) {
    const ForwardCase &c = GetParam();
    ASSERT_EQ(QOV_EAL_Init(ASOrchGetEalHdl(hdl_)), 0u);  // the platform starts only what it initialised
    QovHostJournalClear();
    QovHostFailNext(c.op, 1, 4);
    EXPECT_EQ(c.call(hdl_), 1u);
    EXPECT_EQ(c.call(hdl_), 0u);
    EXPECT_EQ(Logs(), (std::vector<std::string>{c.fail, c.ok}));
    auto calls = qovtest::Calls(c.op);
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].arg[0], reinterpret_cast<uintptr_t>(ASOrchGetEalHdl(hdl_)));
}

INSTANTIATE_TEST_SUITE_P(InitStart, Forwarders,
                         ::testing::Values(ForwardCase{"QOV_EAL_Init", ASOrchInit, "live, Init Orch autosync Fail",
                                                       "live, Init Orch autosync ok"},
                                           ForwardCase{"QOV_EAL_Start", ASOrchStart,
                                                       "live, Start Orch autosync Fail",
                                                       "live, Start Orch autosync ok"}),
                         [](const auto &p) { return std::string(p.param.op); });

TEST_F(Live, OndemandAndModInitOkPassThePlatformResultThrough) {
    QovHostFailNext("QOV_EAL_SetOndemandParam", 1, 9);
    EXPECT_EQ(ASOrchSetOndemandParam(hdl_, 0xABCD), 9u);
    auto calls = qovtest::Calls("QOV_EAL_SetOndemandParam");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].arg[1], 0xABCDu);

    QovHostFailNext("QOV_EAL_ModInitOk", 1, 6);
    EXPECT_EQ(ASOrchModInitOk(hdl_), 6u);
    EXPECT_EQ(ASOrchModInitOk(hdl_), 0u);
    EXPECT_EQ(CountLine("live, Orch auto sync ModInitOk."), 2u);
}

struct TimerCase {
    const char *name;
    int64_t platformResult;
    uint32_t result;
    const char *line;
};

class TimerResult : public Live, public ::testing::WithParamInterface<TimerCase> {};

TEST_P(TimerResult, NegativeIsFailureZeroOrMoreIsSuccess) {
    QovHostFailNext("QOV_TIMER_Create", 1, GetParam().platformResult);
    EXPECT_EQ(ASOrchTimerInit(hdl_, 10, 1, 2, 1), GetParam().result);
    EXPECT_EQ(Logs(), std::vector<std::string>{GetParam().line});
    auto calls = qovtest::Calls("QOV_TIMER_Create");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].arg[0], 10u);
    EXPECT_EQ(calls[0].arg[1], 1u);
    EXPECT_EQ(calls[0].arg[2], 2u);
    EXPECT_EQ(static_cast<int32_t>(calls[0].arg[3]), ASOrchGetEpollFd(hdl_, 1));
}

INSTANTIATE_TEST_SUITE_P(Results, TimerResult,
                         ::testing::Values(TimerCase{"Zero", 0, 0, "live, auto sync timer init ok"},
                                           TimerCase{"Positive", 7, 0, "live, auto sync timer init ok"},
                                           TimerCase{"Negative", -1, 1, "live, auto sync timer init Fail"}),
                         qovtest::RowName());

std::atomic<int> g_ticks{0};
void Tick(uint64_t usr) { g_ticks += static_cast<int>(usr); }

// Each thread kind has its own real epoll set; the Data thread serves its set
// (here a timer) from Start until Destroy.
TEST_F(Live, StartedInstanceRunsTheDataLoopUntilDestroyed) {
    int32_t fds[3];
    for (uint32_t i = 0; i < 3; ++i) {
        fds[i] = ASOrchGetEpollFd(hdl_, i);
        EXPECT_NE(fcntl(fds[i], F_GETFD), -1) << i;
    }
    EXPECT_TRUE(fds[0] != fds[1] && fds[1] != fds[2] && fds[0] != fds[2]);
    EXPECT_EQ(ASOrchGetEpollFd(hdl_, 3), -1);
    g_ticks = 0;
    ASSERT_EQ(ASOrchInit(hdl_), 0u);
    ASSERT_EQ(ASOrchStart(hdl_), 0u);
    ASSERT_EQ(ASOrchTimerInit(hdl_, 1, reinterpret_cast<uintptr_t>(&Tick), 1, 0), 0u);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (g_ticks < 3 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_GE(g_ticks.load(), 3);
}

}  // namespace
