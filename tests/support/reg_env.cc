#include "support/reg_env.h"

#include <string>

namespace qovtest {

namespace {

uint32_t Handler(ASOrchHandle *, ASOrchMergeMsgVec *v) { return v->key != nullptr && v->key[0] == '!' ? 1 : 0; }
ASOrchMergeMsgDispatch g_tbl[] = {{100, {Handler, Handler, Handler, Handler}}};
constexpr uint32_t kRecvMsgId = 0x500, kTableId = 7;
ASOrchRecvTblMsg g_recv[] = {{100, kRecvMsgId, 0, nullptr, nullptr, 8, 0, nullptr, 0, 4}};
ASOrchTransTblMsg g_trans[] = {{kTableId, 8, {}, {}, 0, nullptr}};

}  // namespace

ASOrchHandle *Create(const char *name) {
    ASOrchCreatePara p{0, 0, TestAlloc, TestFree, 0};
    return ASOrchCreate(name, &p);
}

void Destroy(ASOrchHandle *h, const std::map<void *, size_t> &before) {
    if (h == nullptr) return;
    const std::string name = reinterpret_cast<const char *>(h);  // the handle starts with its name
    size_t from = qovtest::FindLine(name + ", Register Orch autosync base, channel ok");
    size_t to = std::string::npos;
    auto logs = Logs();
    for (size_t i = from == std::string::npos ? logs.size() : from + 1; i < logs.size() && to == std::string::npos; ++i)
        if (logs[i].find("autosync base") != std::string::npos) to = i;
    ASOrchDestroy(h);
    for (auto [p, stamp] : LiveBlocks()) {
        if (before.count(p) != 0) continue;
        EXPECT_TRUE(to != std::string::npos && stamp > from && stamp <= to) << "a block outside the registry's left";
        TestFree(p);
    }
}

ASOrchBasePara ValidBase() {
    ASOrchBasePara b{};
    b.threadMask = 1;
    b.modStateRsp = 0x1122334455667788ull;
    b.modStateRspArg = 7;
    b.syncGrpMsgSet[0] = 0x10;
    b.rsvPortPara0 = 5;
    b.rsvPortPara1 = 6;
    b.chan[0] = {0x1234, 0xAB};
    b.recvTblMsgList[1] = {g_recv, 1};
    b.transTblMsgList[1] = {g_trans, 1};
    b.damMerge = {g_tbl, 1, 64, MergeHash<0>, 0, 0};
    b.fesMerge = {g_tbl, 1, 0, MergeHash<0>, 0, 0};
    return b;
}

}  // namespace qovtest
