// Messages through the queues and the dispatch: buffer ownership, read order,
// batching on the Data thread's epoll loop, direct dispatch, back-pressure.
#include "merge_fixture.h"

namespace {

using mergetest::DamPara;
using mergetest::FesPara;
using mergetest::g_seen;
using mergetest::MergeTest;
using qovtest::CountLine;
using qovtest::HasLine;

class FlowTest : public MergeTest {
protected:
    void SetUp() override {
        MergeTest::SetUp();
        ASSERT_EQ(Reg(DamPara(), FesPara()), 0u);
        base_ = qovtest::AllocOutstanding();
        QovHostLogClear();
    }
    // Runs the loop until nothing is ready; the number of callbacks run.
    int32_t Drain() {
        int32_t total = 0;
        for (int32_t n; (n = Turn()) > 0;) total += n;
        return total;
    }
    std::string Order() const {
        std::string s;
        for (const auto &x : g_seen) s += x.key;
        return s;
    }
    int64_t base_ = 0;
};

// Every queued buffer is freed exactly once, whatever happens to its message.
struct OwnCase {
    const char *name;
    void (*act)(FlowTest *t);
    uint64_t allocs;   // key/data buffers taken
    size_t handled;    // handler calls
    const char *line;  // a line the path must log, or null
};

class OwnershipTest : public FlowTest, public ::testing::WithParamInterface<OwnCase> {
public:
    uint32_t PutP(uint32_t type, uint32_t msgId, uint32_t op, const char *key, const char *data = "") {
        return Put(type, msgId, op, key, data);
    }
};

const OwnCase kOwn[] = {
    {"Dispatched", [](FlowTest *t) { static_cast<OwnershipTest *>(t)->PutP(0, 100, 0, "k1", "d1"); }, 1, 1, nullptr},
    {"ReplacedByMerge",
     [](FlowTest *t) {
         auto *o = static_cast<OwnershipTest *>(t);
         o->PutP(0, 100, 1, "k1", "old");
         uint64_t freed = qovtest::FreeCount();
         o->PutP(0, 100, 0, "k1", "new");
         EXPECT_EQ(qovtest::FreeCount(), freed + 1) << "the replaced buffer goes at the merge";
     },
     2, 1, nullptr},
    {"UnknownMsgId", [](FlowTest *t) { static_cast<OwnershipTest *>(t)->PutP(0, 999, 0, "k1"); }, 1, 0,
     "[orchM 0] from broker ipc msg proc failed! msgId:999, opType:0"},
    {"FailingHandler",
     [](FlowTest *t) {
         mergetest::g_handlerResult = 5;
         static_cast<OwnershipTest *>(t)->PutP(1, 101, 1, "k1");
     },
     1, 1, "orchM, Orch RecvDispatch process fail. msgid = 101, optType = 1. msgProc = 1"},
    {"AgeInfoToSlotThree", [](FlowTest *t) { static_cast<OwnershipTest *>(t)->PutP(3, 100, 3, "k1"); }, 1, 1,
     nullptr},
};

TEST_P(OwnershipTest, BufferFreedExactlyOnce) {
    const OwnCase &c = GetParam();
    uint64_t allocs = qovtest::AllocCount();
    c.act(this);
    EXPECT_EQ(qovtest::AllocCount() - allocs, c.allocs);
    Drain();
    EXPECT_EQ(g_seen.size(), c.handled);
    EXPECT_EQ(qovtest::AllocOutstanding(), base_);
    if (c.line != nullptr) {
        EXPECT_TRUE(HasLine(c.line)) << c.line;
    }
}

INSTANTIATE_TEST_SUITE_P(Fates, OwnershipTest, ::testing::ValuesIn(kOwn),
                         [](const ::testing::TestParamInfo<OwnCase> &p) { return std::string(p.param.name); });

TEST_F(FlowTest, MergedEntryCarriesNewDataAndMergedOp) {
    ASSERT_EQ(Put(0, 100, 1, "key", "first"), 0u);
    ASSERT_EQ(Put(0, 100, 0, "key", "second!"), 0u);
    Drain();
    ASSERT_EQ(g_seen.size(), 1u);
    EXPECT_EQ(g_seen[0].opType, 2u) << "op 1 then op 0";
    EXPECT_EQ(g_seen[0].data, "second!");
    EXPECT_EQ(g_seen[0].path, 0u);
}

TEST_F(FlowTest, UnknownMsgIdLinesInOrder) {
    ASSERT_EQ(Put(1, 555, 0, "k"), 0u);
    Drain();
    size_t a = qovtest::FindLine("OrchGetMergeMsg unknown msgId 555.");
    ASSERT_NE(a, std::string::npos);
    EXPECT_NE(qovtest::FindLine("[orchM 1] from broker ipc msg proc failed! msgId:555, opType:0", a), std::string::npos);
}

TEST_F(FlowTest, NullHandlerSlotShowsZero) {
    ASOrchMergeMsgDispatch entry{100, {nullptr, nullptr, nullptr, nullptr}};
    uint8_t key = 1;
    ASOrchMergeMsgVec v{100, 2, &key, 1, nullptr, 0, 0, hdl_};
    EXPECT_EQ(ASOrchRecvDispatchProc(&entry, hdl_, &v), 1u);
    EXPECT_TRUE(HasLine("orchM, Orch RecvDispatch process fail. msgid = 100, optType = 2. msgProc = 0"));
    v.opType = 4;
    QovHostLogClear();
    EXPECT_EQ(ASOrchRecvDispatchProc(&entry, hdl_, &v), 1u);
    EXPECT_EQ(QovHostLogCount(), 0u) << "an op past 3 fails without a line of its own";
}

struct OrderCase {
    uint32_t type;
    const char *order;
};

class OrderTest : public FlowTest, public ::testing::WithParamInterface<OrderCase> {};

TEST_P(OrderTest, TailTypesMoveMergedEntry) {
    const uint32_t queueType = GetParam().type % 2;  // first writes use the plain type
    ASSERT_EQ(Put(queueType, 100, 0, "A"), 0u);
    ASSERT_EQ(Put(queueType, 100, 0, "B"), 0u);
    ASSERT_EQ(Put(GetParam().type, 100, 0, "A"), 0u);
    Drain();
    EXPECT_EQ(Order(), GetParam().order);
}

INSTANTIATE_TEST_SUITE_P(Types, OrderTest,
                         ::testing::Values(OrderCase{0, "AB"}, OrderCase{2, "BA"}, OrderCase{1, "AB"},
                                           OrderCase{3, "BA"}));

TEST_F(FlowTest, HundredEntriesReadInBatchesOfThirtyTwo) {
    std::string expect;
    for (int i = 0; i < 100; ++i) {
        std::string key = "key" + std::to_string(1000 + i);
        ASSERT_EQ(Put(0, 100, 0, key), 0u);
        expect += key;
    }
    std::vector<size_t> batches;
    for (int32_t n; (n = Turn()) > 0;) batches.push_back(g_seen.size());
    EXPECT_EQ(batches, (std::vector<size_t>{32, 64, 96, 100}));
    EXPECT_EQ(CountLine("read DAM merge msg count 32 finished."), 3u);
    EXPECT_EQ(CountLine("read DAM merge msg count 4 finished."), 1u);
    EXPECT_EQ(Order(), expect);
    EXPECT_EQ(qovtest::AllocOutstanding(), base_);
}

TEST_F(FlowTest, DataClearedWhenThereIsNone) {
    ASOrchMergeMsgVec v = mergetest::Vec(100, 0, "kk", "zz");
    v.dataSize = 0;  // data still points at the caller's bytes
    ASSERT_EQ(ASOrchMsgMerge(hdl_, 0, &v), 0u);
    Drain();
    ASSERT_EQ(g_seen.size(), 1u);
    EXPECT_EQ(g_seen[0].dataPtr, nullptr);
    EXPECT_EQ(g_seen[0].key, "kk");
}

struct RefuseCase {
    const char *name;
    uint64_t keySize;
    uint64_t dataSize;
    uint64_t failAlloc;  // 1: the buffer allocation fails
    const char *line;
};

const RefuseCase kRefuse[] = {
    {"ZeroKey", 0, 0, 0, "orchM, Orch auto sync merge msg failed. key size is 0"},
    {"AllocFails", 4, 4, 1, "orchM, Orch auto sync merge msg failed. malloc fail"},
    {"KeyPastU32", 1ull << 32, 0, 0, "orchM, Orch auto sync merge msg failed. malloc fail"},
    {"SumPastU32", 0xFFFFFFF0ull, 0x20, 0, "orchM, Orch auto sync merge msg failed. malloc fail"},
    {"SumWraps", 8, UINT64_MAX - 4, 0, "orchM, Orch auto sync merge msg failed. malloc fail"},
};

class RefuseTest : public FlowTest, public ::testing::WithParamInterface<RefuseCase> {};

TEST_P(RefuseTest, WriteRefusedWithLine) {
    const RefuseCase &c = GetParam();
    uint8_t bytes[8] = {};
    ASOrchMergeMsgVec v{100, 0, bytes, c.keySize, bytes, c.dataSize, 0, nullptr};
    if (c.failAlloc != 0) qovtest::AllocFailAt(qovtest::AllocCount() + 1);
    uint64_t allocs = qovtest::AllocCount();
    EXPECT_EQ(ASOrchMsgMerge(hdl_, 0, &v), 1u);
    EXPECT_EQ(qovtest::AllocCount() - allocs, c.failAlloc) << "no request past the allocator's u32 size";
    EXPECT_TRUE(HasLine(c.line)) << c.line;
    EXPECT_EQ(Drain(), 0);
}

INSTANTIATE_TEST_SUITE_P(Sizes, RefuseTest, ::testing::ValuesIn(kRefuse),
                         [](const ::testing::TestParamInfo<RefuseCase> &p) { return std::string(p.param.name); });

TEST_F(FlowTest, NullHandleAndNullVector) {
    ASOrchMergeMsgVec v = mergetest::Vec(100, 0, "k");
    EXPECT_EQ(ASOrchMsgMerge(nullptr, 0, &v), 1u);
    EXPECT_TRUE(HasLine("Orch autosync send merge msg handle is NULL"));
    EXPECT_EQ(ASOrchMsgMerge(hdl_, 0, nullptr), 1u);
    EXPECT_TRUE(HasLine("orchM, Orch autosync send merge msg vec is NULL"));
}

// Direct dispatch: the handler runs before the call returns, on the caller's
// bytes, with nothing allocated.
struct DirectCase {
    uint32_t type;
    uint32_t path;
};

class DirectTest : public FlowTest, public ::testing::WithParamInterface<DirectCase> {};

TEST_P(DirectTest, HandlerRunsAtOnceOnCallerBytes) {
    ASOrchMergeMsgVec v = mergetest::Vec(101, 1, "kk", "dd");
    uint64_t allocs = qovtest::AllocCount();
    ASSERT_EQ(ASOrchMsgMerge(hdl_, GetParam().type, &v), 0u);
    ASSERT_EQ(g_seen.size(), 1u);
    EXPECT_EQ(g_seen[0].path, GetParam().path);
    EXPECT_EQ(g_seen[0].dataPtr, v.data);
    EXPECT_EQ(qovtest::AllocCount(), allocs);
    v.msgId = 999;
    EXPECT_EQ(ASOrchMsgMerge(hdl_, GetParam().type, &v), 1u);
    EXPECT_TRUE(HasLine("[orchM] msg proc Not merge failed! msgId:999, opType:1"));
}

INSTANTIATE_TEST_SUITE_P(Types, DirectTest, ::testing::Values(DirectCase{4, 0}, DirectCase{5, 1}, DirectCase{9, 1}));

TEST_F(MergeTest, DirectDispatchWithoutTableFailsCleanly) {
    ASOrchMergeMsgVec v = mergetest::Vec(100, 0, "k");
    EXPECT_EQ(ASOrchMsgMerge(hdl_, 4, &v), 1u);
    EXPECT_TRUE(HasLine("[orchM] from broker ipc msg dispatch proc failed! mergeHandle is NULL"));
    ASOrchMergePara dam = DamPara();
    dam.dispatchNum = 0;
    ASSERT_EQ(Reg(dam, FesPara()), 0u);
    EXPECT_EQ(ASOrchMsgMerge(hdl_, 4, &v), 1u);
    EXPECT_TRUE(HasLine("[orchM 0] from broker ipc msg dispatch proc failed! dispatch table is NULL"));
    EXPECT_TRUE(HasLine("[orchM] msg proc Not merge failed! msgId:100, opType:0"));
    EXPECT_TRUE(g_seen.empty());
}

TEST_F(FlowTest, BackPressHoldsReadingUntilReleased) {
    ASSERT_EQ(ASOrchMergeBackPress(hdl_, 1), 0u);
    ASSERT_EQ(Put(1, 100, 0, "k"), 0u);
    EXPECT_EQ(Drain(), 0);
    EXPECT_TRUE(g_seen.empty());
    ASSERT_EQ(ASOrchMergeUnBackPress(hdl_, 1), 0u);
    Drain();
    EXPECT_EQ(g_seen.size(), 1u);
}

TEST_F(FlowTest, BackPressRefusals) {
    EXPECT_EQ(ASOrchMergeBackPress(nullptr, 0), 0u);
    EXPECT_EQ(ASOrchMergeUnBackPress(nullptr, 0), 0u);
    for (uint32_t type : {2u, 7u}) {
        EXPECT_EQ(ASOrchMergeBackPress(hdl_, type), 1u);
        EXPECT_EQ(ASOrchMergeUnBackPress(hdl_, type), 1u);
        EXPECT_EQ(ASOrchGetReaderHdl(hdl_, type), nullptr);
    }
    EXPECT_EQ(ASOrchGetReaderHdl(nullptr, 0), nullptr);
}

TEST_F(FlowTest, EntriesLeftQueuedAreFreedAtDestroy) {
    for (const char *k : {"a", "b", "c"}) ASSERT_EQ(Put(0, 100, 0, k, "data"), 0u);
    ASSERT_EQ(Put(1, 100, 0, "z"), 0u);
    // The fixture's teardown destroys the handle and checks nothing is left.
}

struct BadVecCase {
    const char *name;
    uint32_t size;
    bool key;
    bool usrData;
    uint32_t result;
    const char *line;
};

const BadVecCase kBadVec[] = {
    {"NoKey", sizeof(ASOrchMergeMsgVec), false, true, 1,
     "mergeType 1 read merge queue msgvec key error! msgId:100, opType:2"},
    {"NoHandle", sizeof(ASOrchMergeMsgVec), true, false, 1,
     "mergeType 1 read merge queue msgvec usrData handle NULL! msgId:100, opType:2"},
    {"WrongSizeGoesOn", 8, true, true, 0, "mergeType 1 read merge queue msgvec error!"},
};

class BadVecTest : public FlowTest, public ::testing::WithParamInterface<BadVecCase> {};

TEST_P(BadVecTest, ReadCallbackChecks) {
    const BadVecCase &c = GetParam();
    auto *buf = static_cast<uint8_t *>(qovtest::TestAlloc(1));
    ASOrchMergeMsgVec v{100, 2, c.key ? buf : nullptr, 1, nullptr, 0, 0, c.usrData ? hdl_ : nullptr};
    uint64_t usrWord = 1;
    EXPECT_EQ(ASOrchReadMergeMsgCallBack(&v, c.size, &usrWord), c.result);
    EXPECT_TRUE(HasLine(c.line)) << c.line;
    if (c.result != 0) qovtest::TestFree(buf);  // a refused vector keeps its buffer
    if (c.result == 0) {
        EXPECT_EQ(g_seen.size(), 1u);
    }
}

INSTANTIATE_TEST_SUITE_P(Vecs, BadVecTest, ::testing::ValuesIn(kBadVec),
                         [](const ::testing::TestParamInfo<BadVecCase> &p) { return std::string(p.param.name); });

}  // namespace
