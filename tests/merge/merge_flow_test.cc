// Messages through queues and dispatch: buffer ownership, read order, batches
// on the Data thread's epoll loop, direct dispatch, write refusals.
#include <atomic>
#include <chrono>
#include <thread>

#include "merge_fixture.h"

namespace {

using mergetest::g_seen;
using mergetest::MergeTest;
using qovtest::HasLine;

class FlowTest : public MergeTest {
protected:
    void SetUp() override {
        MergeTest::SetUp();
        ASSERT_EQ(Reg(mergetest::DamPara(), mergetest::FesPara()), 0u);
        base_ = qovtest::AllocOutstanding();
    }
    int64_t base_ = 0;
};

// Every queued buffer is taken once and freed exactly once (bad frees are
// checked by the fixture), whatever becomes of its message.
struct Fate {
    const char *name;
    uint32_t type, msgId, op, handlerResult;
    size_t handled;
    const char *line;
};

const Fate kFates[] = {
    {"Dispatched", 0, 100, 0, 0, 1, nullptr},
    {"ReplacedThenDispatched", 2, 100, 1, 0, 1, nullptr},
    {"UnknownMsgId", 1, 999, 0, 0, 0, "[orchM 1] from broker ipc msg proc failed! msgId:999, opType:0"},
    {"FailingHandler", 3, 101, 1, 5, 1, "orchM, Orch RecvDispatch process fail. msgid = 101, optType = 1. msgProc = 1"},
    {"LeftQueuedAtDestroy", 0, 100, 3, 0, 0, nullptr},
};

class FateTest : public FlowTest, public ::testing::WithParamInterface<Fate> {};

TEST_P(FateTest, BufferFreedExactlyOnce) {
    const Fate &f = GetParam();
    mergetest::g_handlerResult = f.handlerResult;
    ASSERT_EQ(Put(f.type, f.msgId, f.op, "key", "d1"), 0u);
    if (std::string(f.name) == "LeftQueuedAtDestroy") return;  // the fixture's destroy must free it
    if (std::string(f.name) == "ReplacedThenDispatched") {
        ASSERT_EQ(Put(f.type, f.msgId, 0, "key", "d2"), 0u);
        EXPECT_EQ(qovtest::AllocOutstanding(), base_ + 1) << "the replaced buffer goes at the merge";
    }
    Drain();
    ASSERT_EQ(g_seen.size(), f.handled);
    if (f.handled != 0) {
        EXPECT_EQ(g_seen[0].opType, f.type == 2 ? 2u : f.op) << "op 1 then op 0 merge to 2";
    }
    EXPECT_EQ(qovtest::AllocOutstanding(), base_);
    EXPECT_TRUE(f.line == nullptr || HasLine(f.line));
}

INSTANTIATE_TEST_SUITE_P(Fates, FateTest, ::testing::ValuesIn(kFates),
                         qovtest::RowName());

class OrderTest : public FlowTest, public ::testing::WithParamInterface<std::tuple<uint32_t, const char *>> {};

TEST_P(OrderTest, TailTypesMoveMergedEntry) {
    auto [type, order] = GetParam();
    for (const char *k : {"A", "B"}) ASSERT_EQ(Put(type % 2, 100, 0, k), 0u);
    ASSERT_EQ(Put(type, 100, 0, "A"), 0u);
    Drain();
    EXPECT_EQ(Order(), order);
}

INSTANTIATE_TEST_SUITE_P(Types, OrderTest,
                         ::testing::Values(std::make_tuple(0u, "AB"), std::make_tuple(2u, "BA"),
                                           std::make_tuple(1u, "AB"), std::make_tuple(3u, "BA")),
                         [](const auto &p) { return "Type" + std::to_string(std::get<0>(p.param)); });

TEST_F(FlowTest, HundredEntriesReadInBatchesOf32) {
    std::string expect;
    for (int i = 100; i < 200; ++i) {
        ASSERT_EQ(Put(0, 100, 0, std::to_string(i)), 0u);
        expect += std::to_string(i);
    }
    EXPECT_EQ(Drain().size(), 4u);
    auto logs = qovtest::Logs();
    std::vector<std::string> batches;
    for (const auto &l : logs)
        if (l.rfind("read DAM merge msg count", 0) == 0) batches.push_back(l);
    const std::string b32 = "read DAM merge msg count 32 finished.";
    EXPECT_EQ(batches, (std::vector<std::string>{b32, b32, b32, "read DAM merge msg count 4 finished."}));
    EXPECT_EQ(Order(), expect);
}

TEST_F(FlowTest, DirectDispatchRunsAtOnceOnCallerBytes) {
    ASOrchMergeMsgVec v = mergetest::Vec(101, 1, "kk", "dd");
    uint64_t allocs = qovtest::AllocCount();
    for (uint32_t type : {4u, 9u}) ASSERT_EQ(ASOrchMsgMerge(hdl_, type, &v), 0u);
    ASSERT_EQ(g_seen.size(), 2u);
    EXPECT_EQ(g_seen[0].path, 0u);
    EXPECT_EQ(g_seen[1].path, 1u);
    EXPECT_EQ(g_seen[1].data, v.data);
    EXPECT_EQ(qovtest::AllocCount(), allocs);
    v.msgId = 999;
    EXPECT_EQ(ASOrchMsgMerge(hdl_, 4, &v), 1u);
    EXPECT_TRUE(HasLine("OrchGetMergeMsg unknown msgId 999."));
    EXPECT_TRUE(HasLine("[orchM] msg proc Not merge failed! msgId:999, opType:1"));
}

TEST_F(MergeTest, DirectDispatchWithoutTableFailsCleanly) {
    ASOrchMergeMsgVec v = mergetest::Vec(100, 0, "k");
    EXPECT_EQ(ASOrchMsgMerge(hdl_, 4, &v), 1u);
    EXPECT_TRUE(HasLine("[orchM] from broker ipc msg dispatch proc failed! mergeHandle is NULL"));
    ASOrchMergePara dam = mergetest::DamPara();
    dam.dispatchNum = 0;
    ASSERT_EQ(Reg(dam, mergetest::FesPara()), 0u);
    EXPECT_EQ(ASOrchMsgMerge(hdl_, 4, &v), 1u);
    EXPECT_TRUE(HasLine("[orchM 0] from broker ipc msg dispatch proc failed! dispatch table is NULL"));
    EXPECT_EQ(Put(2, 100, 0, "k"), 1u) << "no DAM queue";
}

// Sizes that cannot become one u32 allocation are refused before memAlloc.
TEST_F(FlowTest, RefusalsDataClearingAndBackPress) {
    uint8_t b[8] = {};
    // Key size, data size, data: the buffer is sized by dataSize even when
    // there is no data to copy into it.
    const struct { uint64_t key, data; uint8_t *ptr; } sizes[] = {
        {0, 0, b}, {1ull << 32, 0, b}, {0xFFFFFFF0ull, 0x20, b}, {8, UINT64_MAX - 4, b}, {8, 1ull << 32, nullptr}};
    uint64_t allocs = qovtest::AllocCount();
    for (const auto &s : sizes) {
        ASOrchMergeMsgVec v{100, 0, b, s.key, s.ptr, s.data, 0, nullptr};
        EXPECT_EQ(ASOrchMsgMerge(hdl_, 0, &v), 1u);
    }
    EXPECT_EQ(qovtest::AllocCount(), allocs);
    EXPECT_TRUE(HasLine("orchM, Orch auto sync merge msg failed. key size is 0"));
    EXPECT_EQ(qovtest::CountLine("orchM, Orch auto sync merge msg failed. malloc fail"), 4u);
    ASOrchMergeMsgVec noData = mergetest::Vec(100, 0, "kk", "zz");
    noData.dataSize = 0;  // data still points at the caller's bytes
    ASSERT_EQ(ASOrchMsgMerge(hdl_, 0, &noData), 0u);
    ASSERT_EQ(ASOrchMergeBackPress(hdl_, 0), 0u);
    EXPECT_TRUE(Drain().empty()) << "back-pressed: not read";
    ASSERT_EQ(ASOrchMergeUnBackPress(hdl_, 0), 0u);
    Drain();
    ASSERT_EQ(g_seen.size(), 1u);
    EXPECT_EQ(g_seen[0].data, nullptr) << "no dangling caller pointer in the queue";
}

}  // namespace

namespace mergetest {
namespace {

std::atomic<int> g_reads{0};
std::atomic<bool> g_tableGone{false};

// Holds the Data thread in its first handler long enough for a destroy to
// reach the release; every handler then checks its dispatch table is still there.
uint32_t SlowReader(ASOrchHandle *hdl, ASOrchMergeMsgVec *) {
    if (g_reads++ == 0) std::this_thread::sleep_for(std::chrono::milliseconds(30));
    if (hdl->mergeHandle == nullptr || hdl->mergeHandle[ASPathIndex(ASOrchPath::DAM)].dispatchHash == nullptr) g_tableGone = true;
    return 0;
}

// Destroying a started instance while its Data thread reads: the readers stop
// (waiting for the running dispatch) before the dispatch tables or queues go,
// and every buffer goes back exactly once.
TEST_F(MergeTest, DestroyWhileTheDataThreadReads) {
    ASOrchMergeMsgDispatch slow[] = {{100, {SlowReader, SlowReader, SlowReader, SlowReader}}};
    ASOrchMergePara dam = DamPara();
    dam.dispatchTbl = slow;
    dam.dispatchNum = 1;
    g_reads = 0;
    g_tableGone = false;
    ASSERT_EQ(Reg(dam, FesPara()), 0u);
    ASSERT_EQ(ASOrchInit(hdl_), 0u);
    ASSERT_EQ(ASOrchStart(hdl_), 0u);
    ASSERT_EQ(ASOrchMergeBackPress(hdl_, AS_ORCH_MERGE_DAM), 0u);  // no reader while this thread writes
    for (int i = 0; i < 3000; ++i) ASSERT_EQ(Put(AS_ORCH_MERGE_DAM, 100, 0, std::to_string(i)), 0u);
    ASSERT_EQ(ASOrchMergeUnBackPress(hdl_, AS_ORCH_MERGE_DAM), 0u);
    while (g_reads.load() == 0) std::this_thread::yield();
    ASOrchDestroy(hdl_);
    hdl_ = nullptr;
    EXPECT_FALSE(g_tableGone.load()) << "a handler ran after its dispatch table was freed";
    EXPECT_EQ(qovtest::AllocOutstanding(), 0);
    EXPECT_LT(g_reads.load(), 3000);
}

}  // namespace
}  // namespace mergetest
