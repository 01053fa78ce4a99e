// Creation checks, the name tree, failing creation steps and destruction.
#include <dirent.h>

#include <functional>
#include <string>

#include "mq_fixture.h"

namespace mqtest {
namespace {

int OpenFds() {
    int n = 0;
    DIR *d = opendir("/proc/self/fd");
    while (readdir(d) != nullptr) ++n;
    closedir(d);
    return n;
}

struct ParaCase {
    const char *name;
    std::function<void(MergeQueCreatePara &)> change;
    const char *line;  // expected error, or null when creation succeeds
};

class MqParaTest : public MqTest, public ::testing::WithParamInterface<ParaCase> {};

TEST_P(MqParaTest, ParameterChecks) {
    GetParam().change(para_);
    Make("para_q");
    if (GetParam().line == nullptr) {
        EXPECT_NE(q_, nullptr);
        EXPECT_TRUE(qovtest::HasLine("[QOV_MERGE_QUE Create] para_q ok"));
    } else {
        EXPECT_EQ(q_, nullptr);
        EXPECT_TRUE(qovtest::HasLine(GetParam().line)) << GetParam().name;
        EXPECT_EQ(qovtest::AllocCount(), 0u);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Create, MqParaTest,
    ::testing::Values(
        ParaCase{"NoMalloc", [](auto &p) { p.mallocFunc = nullptr; }, "[QOV_MERGE_QUE Create] para_q para mem func invalid."},
        ParaCase{"NoFree", [](auto &p) { p.freeFunc = nullptr; }, "[QOV_MERGE_QUE Create] para_q para mem func invalid."},
        ParaCase{"NoHash", [](auto &p) { p.hashFunc = nullptr; }, "[QOV_MQUE Create] para_q para hash func invalid."},
        ParaCase{"NoCmp", [](auto &p) { p.cmpFunc = nullptr; }, "[QOV_MQUE Create] para_q para hash func invalid."},
        ParaCase{"NoKeyPtr", [](auto &p) { p.getKeyPtr = nullptr; }, "[QOV_MQUE Create] para_q para hash func invalid."},
        ParaCase{"EpFdMinusOne", [](auto &p) { p.epFd = -1; }, "[QOV_MERGE_QUE Create] para_q para epFd invalid."},
        ParaCase{"NoSchedNoMergeAccepted", [](auto &p) { p.schedFunc = nullptr; p.mergeFunc = nullptr; }, nullptr}),
    qovtest::RowName());

TEST_F(MqTest, NullNameOrParametersAreRefused) {
    EXPECT_EQ(QOV_MergeQueCreate(nullptr, &para_), nullptr);
    EXPECT_EQ(QOV_MergeQueCreate("q", nullptr), nullptr);
    EXPECT_TRUE(qovtest::HasLine("[QOV_MERGE_QUE Create] para is null, name: 1, para: 0."));
    EXPECT_TRUE(qovtest::HasLine("[QOV_MERGE_QUE Create] para is null, name: 0, para: 1."));
    char buf[64];
    EXPECT_EQ(QOV_PrintMergeQueInfo(nullptr, buf, sizeof buf), 0u);
}

TEST_F(MqTest, EpFdZeroPassesTheChecks) {
    para_.epFd = 0;
    EXPECT_TRUE(QOV_MergeQueCreateCheck("zero", &para_));
}

struct StepCase {
    const char *name;
    std::function<void(MergeQueCreatePara &)> arm;
    std::vector<std::string> lines;
};

class MqFailStepTest : public MqTest, public ::testing::WithParamInterface<StepCase> {};

// A failing step leaves no name, no block and no descriptor behind.
TEST_P(MqFailStepTest, LeavesNothing) {
    int fds = OpenFds();
    GetParam().arm(para_);
    EXPECT_EQ(Make("step_q"), nullptr) << GetParam().name;
    for (const auto &l : GetParam().lines) EXPECT_TRUE(qovtest::HasLine(l)) << l;
    EXPECT_EQ(QOV_MergeQueNameTreeFind("step_q"), nullptr);
    EXPECT_EQ(qovtest::AllocOutstanding(), 0);
    EXPECT_EQ(OpenFds(), fds);
    QovHostFailClear();
    qovtest::AllocFailAt(0);
    para_.dataSize = sizeof(Rec);
    EXPECT_NE(Make("step_q"), nullptr) << "the name must be free again";
}

INSTANTIATE_TEST_SUITE_P(
    Create, MqFailStepTest,
    ::testing::Values(
        StepCase{"Malloc", [](auto &) { qovtest::AllocFailAt(1); }, {"[QOV_MERGE_QUE Create] malloc Fail"}},
        StepCase{"NameInsert", [](auto &) { QovHostFailNext("YAV_AVL3_Insert_Or_Find", 1, 0); },
                 {"step_q NameTreeInsert Fail.", "[QOV_MERGE_QUE Create] step_q nameInsert Fail",
                  "[QOV_MERGE_QUE Create] step_q init Fail"}},
        StepCase{"HashCreate", [](auto &) { QovHostFailNext("LITE_HASH_CreateWithLock", 1, 0); },
                 {"[QOV_MERGE_QUE HashCreate] step_q hash new Fail", "[QOV_MERGE_QUE Create] step_q hash create Fail",
                  "[QOV_MERGE_QUE Create] step_q init Fail"}},
        StepCase{"Eventfd", [](auto &) { QovHostFailNext("eventfd_s", 1, -1); },
                 {"step_q Create Eventfd Fail, errno=24", "[QOV_MERGE_QUE Create] step_q hash create Fail"}},
        StepCase{"ElementTooLarge", [](auto &p) { p.dataSize = 65536; },
                 {"[QOV_MERGE_QUE HashCreate] step_q hash new Fail", "[QOV_MERGE_QUE Create] step_q init Fail"}},
        StepCase{"EpollAdd", [](auto &) { QovHostFailNext("QOV_EPOLL_Add", 1, 1); },
                 {"step_q failed to add epoll", "[QOV_MERGE_QUE Create] step_q hash create Fail"}}),
    qovtest::RowName());

TEST_F(MqTest, NamesAreBoundedAndUnique) {
    std::string n31(31, 'a'), n32(32, 'b');
    ASSERT_NE(Make(n31.c_str()), nullptr);
    EXPECT_EQ(QOV_MergeQueCreate(n32.c_str(), &para_), nullptr);
    EXPECT_TRUE(qovtest::HasLine("[QOV_MERGE_QUE Create] " + n32 + " strcpy Fail"));
    EXPECT_EQ(QOV_MergeQueNameTreeFind(n32.c_str()), nullptr);
    EXPECT_EQ(QOV_MergeQueCreate(n31.c_str(), &para_), nullptr);
    EXPECT_TRUE(qovtest::HasLine("[QOV_MERGE_QUE Create] create Fail because find " + n31 + " exist!"));
    EXPECT_EQ(QOV_MergeQueNameTreeFind(n31.c_str()), q_) << "the first queue is untouched";
    EXPECT_EQ(qovtest::AllocOutstanding(), 1);
}

TEST_F(MqTest, DestroyWithEntriesReleasesEverything) {
    int fds = OpenFds();
    ASSERT_NE(Make("full_q"), nullptr);
    EXPECT_EQ(qovtest::Calls("eventfd_s").at(0).arg[1], 0x80801u);
    Write(1, 1);
    Write(2, 2);
    QOV_MergeQueDestory(q_);
    q_ = nullptr;
    EXPECT_TRUE(qovtest::HasLine("[QOV_MERGE_QUE Destroy] full_q reader list is not empty!"));
    EXPECT_TRUE(qovtest::HasLine("full_q NameTreeDelete."));
    EXPECT_EQ(qovtest::Calls("QOV_EPOLL_DEL").size(), 1u);
    EXPECT_EQ(OpenFds(), fds);
    EXPECT_EQ(QovHostEpollRunOnce(epFd_, 0), 0) << "no dispatch reaches a destroyed queue";
    EXPECT_EQ(QOV_MergeQueNameTreeFind("full_q"), nullptr);
    ASSERT_NE(Make("full_q"), nullptr);
    EXPECT_EQ(QOV_MergeQueDestory(nullptr), 0u);
}

}  // namespace
}  // namespace mqtest
