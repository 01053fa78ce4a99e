// Operations that may run on another thread than the queue's owner, raced
// against it: reports against destruction and first creation, destruction
// against a running reader. Meant for the ThreadSanitizer build, which reports
// any access that is not ordered; the plain build checks the results.
#include <atomic>
#include <chrono>
#include <thread>

#include "mq_fixture.h"

namespace mqtest {
namespace {

struct RaceCase {
    const char *name;
    void (*before)(MqTest &);  // on the test thread, before the other thread starts
    void (*mine)(MqTest &);    // on the test thread, at the same time as theirs
    void (*theirs)(MqTest &);
};

void PrintTo(const RaceCase &c, std::ostream *os) { *os << c.name; }

uint32_t ReadAll(MergeQueCtrlBlk *q) {
    Rec buf[32];
    return QOV_MergeQueRead(q, buf, 32);
}

void CreateFilled(MqTest &t) {
    t.para_.schedFunc = ReadAll;
    ASSERT_NE(t.Make("race_q"), nullptr);
    for (uint64_t k = 0; k < 40; ++k) t.Write(k, k);
}

void Destroy(MqTest &t) {
    QOV_MergeQueDestory(t.q_);
    t.q_ = nullptr;
}

// As in a new process: no queue has been made, so neither has the name tree.
void ForgetNameTree(MqTest &) {
    ASSERT_EQ(g_qovMergeQueGlbCb.nameTree.root, nullptr) << "no queue may exist";
    g_qovMergeQueGlbCb.initFlag = 0;
    g_qovMergeQueGlbCb.treeInfo = {};
}

void CreateAndDestroy(MqTest &t) {
    ASSERT_NE(t.Make("race_q"), nullptr);
    Destroy(t);
}

void PrintInfo(MqTest &) {
    char buf[4096];
    for (int i = 0; i < 20; ++i) QOV_PrintMergeQueInfo("race_q", buf, sizeof buf);
}

void ListAll(MqTest &) {
    char buf[1024];
    QOV_PrintMergeQueListAll(buf, sizeof buf);
}

void RunReader(MqTest &t) { QovHostEpollRunOnce(t.epFd_, 2); }

// A reader whose callback presses or releases its own queue, as a handler
// whose downstream is full does, while the queue is destroyed: the callback
// says when it is inside, then holds the reader there a while.
std::atomic<bool> g_inside{false}, g_mineDone{false};
std::atomic<uint32_t> g_callback{0};  // 0 press, then hold; 1 hold, then press and release

uint32_t HoldingCallback(void *, uint32_t, void *usr) {
    auto *q = static_cast<MergeQueCtrlBlk *>(usr);
    if (g_inside.exchange(true)) return 0;  // only the first record
    if (g_callback == 0) QOV_MergeQueBackPress(q, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    if (g_callback == 1) QOV_MergeQueBackPress(q, 0), QOV_MergeQueUnBackPress(q, nullptr);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return 0;
}

uint32_t HoldingReader(MergeQueCtrlBlk *q) { return QOV_MergeQueReadCallBack(q, 32, HoldingCallback, q); }

void CreateHolding(MqTest &t, uint32_t callback) {
    g_inside = false;
    g_callback = callback;
    t.para_.schedFunc = HoldingReader;
    ASSERT_NE(t.Make("race_q"), nullptr);
    for (uint64_t k = 0; k < 40; ++k) t.Write(k, k);
}
void CreatePressing(MqTest &t) { CreateHolding(t, 0); }
void CreatePressReleasing(MqTest &t) { CreateHolding(t, 1); }
void Nothing(MqTest &) {}

// Destroys once the reader is inside its callback; afterwards no registration
// of the queue's descriptor may be left in the epoll set.
void DestroyWhileInside(MqTest &t) {
    for (int i = 0; i < 2000 && !g_inside; ++i) std::this_thread::sleep_for(std::chrono::microseconds(500));
    auto fd = static_cast<int32_t>(qovtest::Calls("QOV_EPOLL_Add").back().arg[1]);
    Destroy(t);
    EXPECT_NE(QOV_EPOLL_DEL(t.epFd_, fd), 0u) << "a registration outlived its queue";
}

// A queue made and given its monitor, as the merge layer does, while another
// thread reports on it by name: the report must find it complete or not at all.
void CreateMonitoredAndDestroy(MqTest &t) {
    bool made = t.Make("race_q") != nullptr;
    if (made) {
        MergeQueMonitorAttr attr{8, 2, 0, [](uint32_t, uint64_t) { return 0u; }};
        EXPECT_EQ(QOV_MergeQueMonitorReg(t.q_, &attr), 0u);
        Destroy(t);
    }
    g_mineDone = true;
    EXPECT_TRUE(made);
}

// A queue at work on its own thread (appends and merges over its high water,
// reads under the low water, a press and a release) while another thread
// reports on it: every word the report reads is one that the work changes.
void CreateMonitoredWorkAndDestroy(MqTest &t) {
    bool made = t.Make("race_q") != nullptr;
    if (made) {
        MergeQueMonitorAttr attr{8, 2, 0, [](uint32_t, uint64_t) { return 0u; }};
        EXPECT_EQ(QOV_MergeQueMonitorReg(t.q_, &attr), 0u);
        for (uint64_t k = 0; k < 24; ++k) t.Write(k % 16, k);
        EXPECT_EQ(t.ReadCb(32).size(), 16u);
        QOV_MergeQueBackPress(t.q_, 0);
        QOV_MergeQueUnBackPress(t.q_, nullptr);
        Destroy(t);
    }
    g_mineDone = true;
    EXPECT_TRUE(made);
}

void PrintInfoUntilMineIsDone(MqTest &) {
    char buf[4096];
    while (!g_mineDone) QOV_PrintMergeQueInfo("race_q", buf, sizeof buf);
    g_mineDone = false;
}

class MqRaceTest : public MqTest, public ::testing::WithParamInterface<RaceCase> {};

TEST_P(MqRaceTest, RunsOrderedAndLeavesNothing) {
    for (int round = 0; round < 100; ++round) {
        GetParam().before(*this);
        // Theirs starts first, so that the two overlap rather than run one
        // after the other.
        std::atomic<bool> started{false};
        std::thread other([&] {
            started.store(true);
            GetParam().theirs(*this);
        });
        while (!started.load()) {
        }
        GetParam().mine(*this);
        other.join();
        ASSERT_EQ(q_, nullptr);
        ASSERT_EQ(QOV_MergeQueNameTreeFind("race_q"), nullptr);
        ASSERT_EQ(qovtest::AllocOutstanding(), 0);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Threads, MqRaceTest,
    ::testing::Values(RaceCase{"InfoReportWhileDestroying", CreateFilled, Destroy, PrintInfo},
                      RaceCase{"DestroyWhileReading", CreateFilled, Destroy, RunReader},
                      RaceCase{"ListReportWhileFirstCreation", ForgetNameTree, CreateAndDestroy, ListAll},
                      RaceCase{"InfoReportWhileCreating", Nothing, CreateMonitoredAndDestroy,
                               PrintInfoUntilMineIsDone},
                      RaceCase{"InfoReportWhileTheQueueWorks", Nothing, CreateMonitoredWorkAndDestroy,
                               PrintInfoUntilMineIsDone},
                      RaceCase{"DestroyWhileReaderHoldsItsQueuePressed", CreatePressing, DestroyWhileInside,
                               RunReader},
                      RaceCase{"DestroyWhileReaderPressesAndReleases", CreatePressReleasing, DestroyWhileInside,
                               RunReader}),
    qovtest::RowName());

}  // namespace
}  // namespace mqtest
