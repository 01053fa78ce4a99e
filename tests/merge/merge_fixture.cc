#include "merge_fixture.h"

#include <cstring>

#include "support/reg_env.h"

namespace mergetest {

std::vector<Seen> g_seen;
uint32_t g_handlerResult = 0;

namespace {

template <uint32_t Path>
uint32_t Record(ASOrchHandle *, ASOrchMergeMsgVec *v) {
    g_seen.push_back({Path, v->msgId, v->opType, std::string(reinterpret_cast<char *>(v->key), v->keySize), v->data});
    return g_handlerResult;
}


template <uint32_t Path>
ASOrchMergeMsgDispatch g_tbl[2] = {{100, {Record<Path>, Record<Path>, Record<Path>, Record<Path>}},
                                   {101, {Record<Path>, Record<Path>, Record<Path>, Record<Path>}}};

}  // namespace

ASOrchMergePara DamPara() { return {g_tbl<0>, 2, 64, qovtest::MergeHash<0>, 0, 0}; }
ASOrchMergePara FesPara() { return {g_tbl<1>, 2, 0, qovtest::MergeHash<1>, 0, 0}; }

ASOrchMergeMsgVec Vec(uint32_t msgId, uint32_t op, const char *key, const char *data) {
    auto bytes = [](const char *s) { return reinterpret_cast<uint8_t *>(const_cast<char *>(s)); };
    return {msgId, op, bytes(key), strlen(key), *data == 0 ? nullptr : bytes(data), strlen(data), 0, nullptr};
}

void MergeTest::SetUp() {
    HostTest::SetUp();
    g_seen.clear();
    g_handlerResult = 0;
    ASOrchCreatePara para{0, 0, qovtest::TestAlloc, qovtest::TestFree, 0};
    hdl_ = ASOrchCreate("orchM", &para);
    ASSERT_NE(hdl_, nullptr);
}

void MergeTest::TearDown() {
    ASOrchDestroy(hdl_);
    EXPECT_EQ(qovtest::AllocOutstanding(), 0) << "memory of the handle left after destroy";
    HostTest::TearDown();
}

uint32_t MergeTest::Reg(const ASOrchMergePara &dam, const ASOrchMergePara &fes) {
    ASOrchBasePara base{};
    base.damMerge = dam;
    base.fesMerge = fes;
    return ASOrchRegMerge(hdl_, &base, AS_SYNC_GRP_ID_NONE);
}

uint32_t MergeTest::Put(uint32_t type, uint32_t msgId, uint32_t op, const std::string &key, const std::string &data) {
    ASOrchMergeMsgVec v = Vec(msgId, op, key.c_str(), data.c_str());
    return ASOrchMsgMerge(hdl_, type, &v);
}

std::vector<int32_t> MergeTest::Drain() {
    std::vector<int32_t> turns;
    for (int32_t n; (n = QovHostEpollRunOnce(ASOrchGetEpollFd(hdl_, 0), 0)) > 0;) turns.push_back(n);
    return turns;
}

std::string MergeTest::Order() const {
    std::string s;
    for (const auto &x : g_seen) s += x.key;
    return s;
}

}  // namespace mergetest
