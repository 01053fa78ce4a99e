#include "merge_fixture.h"

namespace mergetest {

std::vector<Seen> g_seen;
uint32_t g_handlerResult = 0;

namespace {

template <uint32_t Path>
uint32_t Record(ASOrchHandle *, ASOrchMergeMsgVec *v) {
    std::string data;
    if (v->data != nullptr) data.assign(reinterpret_cast<const char *>(v->data), v->dataSize);
    g_seen.push_back({Path, v->msgId, v->opType, std::string(reinterpret_cast<const char *>(v->key), v->keySize),
                      data, v->data, v->dataSize});
    return g_handlerResult;
}

}  // namespace

uint32_t DamHash(const void *key) {
    const auto *v = static_cast<const ASOrchMergeMsgVec *>(key);
    return ASOrchMergeHashFunc(v->usrData, AS_ORCH_MERGE_DAM, v);
}

uint32_t FesHash(const void *key) {
    const auto *v = static_cast<const ASOrchMergeMsgVec *>(key);
    return ASOrchMergeHashFunc(v->usrData, AS_ORCH_MERGE_FES, v);
}

ASOrchMergeMsgDispatch g_damTbl[2] = {{100, {Record<0>, Record<0>, Record<0>, Record<0>}},
                                      {101, {Record<0>, Record<0>, Record<0>, Record<0>}}};
ASOrchMergeMsgDispatch g_fesTbl[2] = {{100, {Record<1>, Record<1>, Record<1>, Record<1>}},
                                      {101, {Record<1>, Record<1>, Record<1>, Record<1>}}};

ASOrchMergePara DamPara() { return {g_damTbl, 2, 64, DamHash, 0, 0}; }
ASOrchMergePara FesPara() { return {g_fesTbl, 2, 0, FesHash, 0, 0}; }

ASOrchMergeMsgVec Vec(uint32_t msgId, uint32_t op, const std::string &key, const std::string &data) {
    ASOrchMergeMsgVec v{};
    v.msgId = msgId;
    v.opType = op;
    v.key = reinterpret_cast<uint8_t *>(const_cast<char *>(key.data()));
    v.keySize = key.size();
    v.data = data.empty() ? nullptr : reinterpret_cast<uint8_t *>(const_cast<char *>(data.data()));
    v.dataSize = data.size();
    return v;
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
    return ASOrchRegMerge(hdl_, &base);
}

uint32_t MergeTest::Put(uint32_t mergeType, uint32_t msgId, uint32_t op, const std::string &key,
                        const std::string &data) {
    ASOrchMergeMsgVec v = Vec(msgId, op, key, data);
    return ASOrchMsgMerge(hdl_, mergeType, &v);
}

int32_t MergeTest::Turn() { return QovHostEpollRunOnce(ASOrchGetEpollFd(hdl_, 0), 0); }

}  // namespace mergetest
