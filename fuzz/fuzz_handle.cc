// The handle both intake fuzzers drive: the ids and tables of msgproc_ids.h
// (so that one seed writer serves both), registered through ASOrchRegBase the
// way an orchestrator registers them. Every handler and callback touches every
// byte it is given, so a range that runs past a message shows under
// AddressSanitizer.
#include "fuzz/fuzz_handle.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "fuzz/msgproc_ids.h"
#include "qov_host_ctl.h"

namespace msgprocfuzz {
namespace {

volatile uint8_t g_sink;

void Touch(const void *p, uint64_t n) {
    const auto *b = static_cast<const uint8_t *>(p);
    uint8_t x = 0;
    for (uint64_t i = 0; i < n; ++i) x ^= b[i];
    g_sink = x;
}

void *Alloc(uint32_t size) { return std::malloc(size == 0 ? 1 : size); }
void Free(void *p) { std::free(p); }

uint32_t MergeProc(ASOrchHandle *, ASOrchMergeMsgVec *v) {
    Touch(v->key, v->keySize);
    if (v->data != nullptr) Touch(v->data, v->dataSize);
    return v->keySize % 2;
}

template <uint32_t Path>
uint32_t Hash(const void *key) {
    const auto *v = static_cast<const ASOrchMergeMsgVec *>(key);
    return ASOrchMergeHashFunc(v->usrData, Path, v);
}

uint32_t Unpack(void *data, uint32_t len, ASOrchUnpackRes *res) {
    auto *b = static_cast<uint8_t *>(data);
    res->opType = 0xFFFFFFFFu;
    res->num = 0;
    res->entries = nullptr;
    if (len >= 4) {
        std::memcpy(&res->opType, b, 4);
        res->num = (len - 4) / kSerialEntry;
        res->entries = b + 4;
    }
    return 0;
}
void UnpackFree(ASOrchUnpackRes *res) { res->entries = nullptr; }

uint32_t UserDef(ASOrchHandle *, void *entries, uint32_t num, ASOrchUserDefInfo *info) {
    Touch(entries, static_cast<uint64_t>(num) * kIpcSize[7]);
    Touch(info, sizeof(*info));
    return num % 3;
}

uint32_t TblProc(ASOrchHandle *, void *entries, uint32_t num, uint32_t size, ASOrchTblMsgInfo *info) {
    Touch(entries, static_cast<uint64_t>(num) * size);
    Touch(info, sizeof(*info));
    return size % 2;
}

uint32_t Smooth4(uint32_t, uint32_t, void *rec, uint32_t len) {
    if (rec != nullptr) Touch(rec, len);
    return 0;
}
uint32_t Smooth5(uint32_t, uint32_t, uint32_t, void *rec, uint32_t len) {
    if (rec != nullptr) Touch(rec, len);
    return 0;
}

ASOrchMergeMsgDispatch g_dispatch[] = {{100, {MergeProc, MergeProc, MergeProc, MergeProc}},
                                       {101, {MergeProc, nullptr, MergeProc, MergeProc}}};

void Check(bool ok) {
    if (!ok) __builtin_trap();
}

}  // namespace

ASOrchHandle *RegisterHandle(const char *name) {
    QovHostLogEcho(0);
    ASOrchCreatePara cp{0, 0, Alloc, Free, 0};
    ASOrchHandle *hdl = ASOrchCreate(name, &cp);
    Check(hdl != nullptr);
    static ASOrchRecvTblMsg recv[kRecvIdCount - 1];
    for (uint32_t i = 0; i + 1 < kRecvIdCount; ++i) {
        uint32_t type = i <= 5 ? i : i % 4;
        recv[i] = {100 + i % 2, kRecvIds[i], 0, nullptr, nullptr, kIpcSize[i], type, nullptr, i % 2,
                   std::min(kIpcSize[i], 4u + i % 5)};
    }
    recv[6].unpack = Unpack;
    recv[6].unpackFree = UnpackFree;
    recv[6].opType = kSerialOp;
    recv[7].userDefProc = UserDef;
    recv[9].keySize = kIpcSize[9] + 1;
    recv[10].unpack = Unpack;
    static ASOrchTransTblMsg base[2][2];
    ASOrchTransTblMsg late[3];
    for (uint32_t i = 0; i < 7; ++i) {
        const TransTable &t = kTransTables[i];
        ASOrchTransTblMsg d{t.tableId, t.tblSize, {}, {}, 100 + i, i == 3 ? nullptr : TblProc};
        if (i < 4) {
            if (i % 2 == 0) d.smoothPreProc.fn = Smooth4;
            if (i == 1) d.smoothProc.fn = Smooth4;
            base[t.path][i % 2] = d;
        } else {
            if (i == 4) d.smoothPreProc.withType = Smooth5;
            if (i == 5) d.smoothProc.withType = Smooth5;
            late[i - 4] = d;
        }
    }
    ASOrchBasePara para{};
    ASOrchThreadSet(&para.threadMask, 1, 0);  // the Data thread, whose epoll set the readers sit in
    para.syncGrpMsgSet[0] = 1;
    para.chan[0].realServerPort = 47470;  // registered, never started: frames come from the input
    para.damMerge = {g_dispatch, 2, 256, Hash<0>, 512, 64};
    para.fesMerge = {g_dispatch, 2, 256, Hash<1>, 512, 64};
    para.recvTblMsgList[0] = {recv, 6};
    para.recvTblMsgList[1] = {recv + 6, kRecvIdCount - 7};
    para.transTblMsgList[0] = {base[0], 2};
    para.transTblMsgList[1] = {base[1], 2};
    Check(ASOrchRegBase(hdl, &para) == 0);
    for (const ASOrchTransTblMsg &d : late)
        Check(ASOrchRegTblTrans(hdl, kTransTables[d.tblParam - 100].path, &d, 1) == 0);
    return hdl;
}

}  // namespace msgprocfuzz
