// Operations that may run on another thread than the queue's owner, raced
// against it: reports against destruction and first creation, destruction
// against a running reader. Meant for the ThreadSanitizer build, which reports
// any access that is not ordered; the plain build checks the results.
#include <atomic>
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
                      RaceCase{"ListReportWhileFirstCreation", ForgetNameTree, CreateAndDestroy, ListAll}),
    qovtest::RowName());

}  // namespace
}  // namespace mqtest
