// The monitor's transitions, back-pressure, and the reader's dispatch
// through real turns of the epoll set.
#include "mq_fixture.h"

namespace mqtest {
namespace {

std::vector<std::pair<uint32_t, uint64_t>> g_notes;
uint32_t Note(uint32_t evt, uint64_t usr) {
    g_notes.emplace_back(evt, usr);
    return 0;
}

std::vector<Rec> g_read;
uint32_t g_dispatches = 0;
uint32_t Reader32(MergeQueCtrlBlk *q) {
    ++g_dispatches;
    return QOV_MergeQueReadCallBack(q, 32, Collect, &g_read);
}

class MqFlowTest : public MqTest {
public:
    void SetUp() override {
        MqTest::SetUp();
        g_notes.clear();
        g_read.clear();
        g_dispatches = 0;
        para_.schedFunc = Reader32;
        ASSERT_NE(Make("flow_q"), nullptr);
    }
};

TEST_F(MqFlowTest, MonitorTransitionsAtTheMarks) {
    MergeQueMonitorAttr attr{4, 2, 77, Note};
    ASSERT_EQ(QOV_MergeQueMonitorReg(q_, &attr), 0u);
    EXPECT_TRUE(qovtest::HasLine("merge queue flow_q MonitorReg ok."));
    for (uint64_t k = 1; k <= 4; ++k) Write(k, 0);
    Write(1, 1);  // a merge at the mark changes nothing
    EXPECT_TRUE(g_notes.empty());
    Write(5, 0);
    Write(6, 0);
    ASSERT_EQ(g_notes, (std::vector<std::pair<uint32_t, uint64_t>>{{0, 77}}));
    EXPECT_EQ(Count("OverLoad"), 1u);
    ReadCb(4);  // leaves 2: not below the low water
    EXPECT_EQ(g_notes.size(), 1u);
    ReadCb(1);
    ASSERT_EQ(g_notes.size(), 2u);
    EXPECT_EQ(g_notes[1], std::make_pair(1u, uint64_t{77}));
    EXPECT_EQ(Count("MergeQue OverHighWater"), 1u);
    EXPECT_EQ(Count("MergeQue UnderLowWater"), 1u);
    ReadCb(1);
    EXPECT_EQ(g_notes.size(), 2u);
}

struct RegCase {
    bool nullQueue;
    MergeQueMonitorAttr attr;
    bool nullAttr;
    const char *line;
};

TEST_F(MqFlowTest, RejectedMonitorKeepsThePreviousOne) {
    MergeQueMonitorAttr good{10, 5, 1, Note};
    ASSERT_EQ(QOV_MergeQueMonitorReg(q_, &good), 0u);
    const RegCase cases[] = {
        {true, good, true, "MonitorReg failed, para is null, mqueHandle: 1, monitorAttr: 1."},
        {false, good, true, "MonitorReg failed, para is null, mqueHandle: 0, monitorAttr: 1."},
        {false, {3, 3, 0, Note}, false, "merge queue flow_q MonitorReg failed, highWater(3) less than lowWater(3)."},
        {false, {3, 4, 0, Note}, false, "merge queue flow_q MonitorReg failed, highWater(3) less than lowWater(4)."},
        {false, {9, 4, 0, nullptr}, false, "merge queue flow_q MonitorReg failed, flowCtrlNotify is null."},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(QOV_MergeQueMonitorReg(c.nullQueue ? nullptr : q_, c.nullAttr ? nullptr : &c.attr), 1u);
        EXPECT_TRUE(qovtest::HasLine(c.line)) << c.line;
    }
    EXPECT_EQ(Count("HighWater"), 10u);
}

TEST_F(MqFlowTest, BackPressTwiceUnBackPressOnce) {
    uint64_t ctx = 0;
    EXPECT_EQ(QOV_MergeQueUnBackPress(q_, &ctx), 1u) << "not back-pressed";
    EXPECT_TRUE(qovtest::HasLine("flow_q has add epoll."));
    EXPECT_TRUE(qovtest::HasLine("merge queue flow_q UnbackPress failed."));
    EXPECT_EQ(QOV_MergeQueBackPress(q_, 11), 0u);
    EXPECT_EQ(QOV_MergeQueBackPress(q_, 22), 0u);
    EXPECT_EQ(qovtest::CountLine("merge queue flow_q BackPress ok."), 2u);
    EXPECT_EQ(qovtest::Calls("QOV_EPOLL_DEL").size(), 1u);
    EXPECT_EQ(QOV_MergeQueUnBackPress(q_, &ctx), 0u);
    EXPECT_EQ(ctx, 22u);
    EXPECT_EQ(Count("BackPress"), 2u);
    EXPECT_EQ(Count("UnBackPress"), 1u);
    EXPECT_EQ(qovtest::Calls("eventfd_s").size(), 1u) << "the descriptor is made once";
    EXPECT_EQ(QOV_MergeQueBackPress(nullptr, 0) + QOV_MergeQueUnBackPress(nullptr, nullptr), 2u);
    EXPECT_TRUE(qovtest::HasLine("merge queue BackPress failed, handle is null."));
    EXPECT_TRUE(qovtest::HasLine("merge queue UnbackPress failed, handle is null."));
}

TEST_F(MqFlowTest, BackPressedQueueIsDispatchedOnceAfterRelease) {
    ASSERT_EQ(QOV_MergeQueBackPress(q_, 0), 0u);
    Write(1, 1);
    Write(2, 2);
    Write(1, 3);
    EXPECT_EQ(QovHostEpollRunOnce(epFd_, 0), 0);
    ASSERT_EQ(QOV_MergeQueUnBackPress(q_, nullptr), 0u);
    EXPECT_EQ(QovHostEpollRunOnce(epFd_, 0), 1);
    EXPECT_EQ(QovHostEpollRunOnce(epFd_, 0), 0);
    EXPECT_EQ(g_dispatches, 1u);
    ASSERT_EQ(g_read.size(), 2u);
    EXPECT_EQ(g_read[0].key, 1u);
    EXPECT_EQ(g_read[0].val, 13u);
}

TEST_F(MqFlowTest, BatchReaderIsDispatchedUntilEmpty) {
    for (uint64_t k = 0; k < 100; ++k) Write(k, k);
    for (int turn = 0; turn < 4; ++turn) EXPECT_EQ(QovHostEpollRunOnce(epFd_, 0), 1) << turn;
    EXPECT_EQ(QovHostEpollRunOnce(epFd_, 0), 0);
    EXPECT_EQ(g_dispatches, 4u);
    ASSERT_EQ(g_read.size(), 100u);
    for (uint64_t k = 0; k < 100; ++k) EXPECT_EQ(g_read[k].key, k);
    EXPECT_EQ(Count("Empty Read"), 4 * 32 - 100u);
}

TEST_F(MqFlowTest, DispatchWithoutSignalDoesNotCallTheReader) {
    EXPECT_EQ(QOV_MergeQueSchedProc(-1, 1, q_), 1u);
    EXPECT_EQ(QOV_MergeQueSchedProc(q_->reader.eventFd, 1, nullptr), 1u);
    EXPECT_EQ(QOV_MergeQueSchedProc(q_->reader.eventFd, 1, q_), 1u);
    EXPECT_TRUE(qovtest::HasLine("merge queue flow_q Fail To Sched, errno=11"));
    EXPECT_EQ(g_dispatches, 0u);
}

}  // namespace
}  // namespace mqtest
