// Intake of the broker's data-channel messages: transfer messages go to the
// TLV walk, receive messages are cut into entries (in place, or through the
// registered unpack function) and handed to the merge layer or to the
// message's user-defined handler. Nothing here allocates.
#include "core/base/as_serving.h"
#include "inbound/inbound_private.h"
#include "merge/merge_internal.h"

namespace {

constexpr uint32_t kRecvPrefixLen = 8;  // broker's prefix of an unserialised body

// A run of equal-size entries: an unserialised body after its prefix, or what
// an unpack function decoded.
struct ASOrchIpcBuf {
    uint32_t num;
    uint8_t *data;
    uint32_t size;
};

// A user-defined handler with the information it is called with.
struct ASOrchUserDefCall {
    ASOrchUserDefProcFunc proc;
    ASOrchUserDefInfo info;
};

// Context of the per-entry merge call: the message's vector, and where its
// merge type sends the entries (decided once for the message).
struct ASOrchMqueCtx {
    ASOrchMergeMsgVec *vec;
    ASOrchMergeTarget target;
};

using ASOrchIpcEntryFunc = uint32_t (*)(uint8_t *entry, ASOrchHandle *hdl, void *ctx);

// Entries going to the merge layer give it their first keySize bytes as the
// key: a key longer than the entry would be read past the entry (and, for the
// last one, past the body).
bool KeyFitsEntry(const TblMsgCtrlRecv *ctrl, const ASOrchHandle *hdl) {
    if (ctrl->userDefProc != nullptr || ctrl->keySize <= ctrl->ipcSize) return true;
    QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, recv msg key size %u exceeds entry size %u, msgId = %u.", hdl->name,
                        ctrl->keySize, ctrl->ipcSize, ctrl->msgId);
    return false;
}

bool ASOrchMsgIsValid(const ASOrchHandle *hdl, const ASOrchIpcMsg *msg) {
    // "zebbrk" is the system's own name for the broker's channel in these lines.
    if (hdl == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "recv zebbrk channel msg handle is null.");
        return false;
    }
    if (msg == nullptr || msg->body == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "recv zebbrk channel msg is null.");
        return false;
    }
    return true;
}

void ORCH_AutoSyncFillMergeMsgVec(ASOrchMergeMsgVec *vec, const TblMsgCtrlRecv *ctrl, uint32_t version) {
    *vec = ASOrchMergeMsgVec{};
    vec->msgId = ctrl->mergeMsgId;
    vec->opType = ctrl->mergeOp != 0 ? 1 : 0;
    vec->keySize = ctrl->keySize;
    vec->dataSize = ctrl->ipcSize;
    vec->version = version;
    vec->usrData = nullptr;
}

uint32_t ASOrchProc1IpcMque(uint8_t *entry, ASOrchHandle *hdl, void *ctx) {
    auto *c = static_cast<ASOrchMqueCtx *>(ctx);
    c->vec->key = entry;
    c->vec->data = entry;
    return ASOrchMergeTo(hdl, &c->target, c->vec);
}

void ASOrchProcIpcUserDef(ASOrchHandle *hdl, const ASOrchIpcBuf *run, ASOrchUserDefCall *call) {
    uint32_t r = call->proc(hdl, run->data, run->num, &call->info);
    if (r != 0) QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "ORCH_ASMsgProc fail, ret %u!", r);
}

void ORCH_AutoSyncProcIpcBuf(const ASOrchIpcBuf *run, ASOrchHandle *hdl, ASOrchIpcEntryFunc func, void *ctx) {
    // A failed entry does not stop the others.
    for (uint32_t i = 0; i < run->num; ++i)
        (void)func(run->data + static_cast<size_t>(i) * run->size, hdl, ctx);
}

void ORCH_AutoSyncProcMqueOrUserDef(const TblMsgCtrlRecv *ctrl, const ASOrchIpcBuf *run, ASOrchHandle *hdl) {
    if (ctrl->userDefProc != nullptr) {
        ASOrchUserDefCall call{ctrl->userDefProc, {ctrl->version, ctrl->mergeType, 0}};
        ASOrchProcIpcUserDef(hdl, run, &call);
        return;
    }
    ASOrchMergeMsgVec vec;
    ORCH_AutoSyncFillMergeMsgVec(&vec, ctrl, ctrl->version);
    ASOrchMqueCtx ctx{&vec, ASOrchMergeTargetOf(hdl, ctrl->mergeType)};
    ORCH_AutoSyncProcIpcBuf(run, hdl, ASOrchProc1IpcMque, &ctx);
}

uint32_t ORCH_AutoSyncMsgProcUnSerialPack(const TblMsgCtrlRecv *ctrl, const ASOrchIpcMsg *msg, ASOrchHandle *hdl) {
    ASByteCursor body(static_cast<uint8_t *>(msg->body), msg->msgLen);
    if (body.Take(kRecvPrefixLen) == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, recv msg shorter than its prefix, msgId = %u, len = %u.", hdl->name,
                            msg->msgId, msg->msgLen);
        return 1;
    }
    auto bodyLen = static_cast<uint32_t>(body.Remaining());
    bool whole = ctrl->ipcSize == 0 ? bodyLen == 0 : bodyLen % ctrl->ipcSize == 0;
    if (!whole) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "msgLen is not multi of ipcSize, len = %u, size = %u.", bodyLen,
                            ctrl->ipcSize);
        return 1;
    }
    if (bodyLen != 0 && !KeyFitsEntry(ctrl, hdl)) return 1;
    ASOrchIpcBuf run{ctrl->ipcSize == 0 ? 0 : bodyLen / ctrl->ipcSize, body.Take(bodyLen), ctrl->ipcSize};
    ORCH_AutoSyncProcMqueOrUserDef(ctrl, &run, hdl);
    return 0;
}

uint32_t ORCH_AutoSyncMsgProcSerialPack(const TblMsgCtrlRecv *ctrl, const ASOrchIpcMsg *msg, ASOrchHandle *hdl) {
    if (ctrl->unpackFree == nullptr || ctrl->ipcSize == 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "unpack para is null.");
        return 1;
    }
    if (!KeyFitsEntry(ctrl, hdl)) return 1;
    ASOrchUnpackRes res{};
    (void)ctrl->unpack(msg->body, msg->msgLen, &res);
    if (res.opType != ctrl->opType) {
        ctrl->unpackFree(&res);
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "ipc unpack msgId = %u opType = %u is error.", ctrl->msgId, res.opType);
        return 1;
    }
    if (res.num != 0 && res.entries == nullptr) {
        ctrl->unpackFree(&res);
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, ipc unpack msgId = %u gave %u entries and no data.", hdl->name,
                            ctrl->msgId, res.num);
        return 1;
    }
    ASOrchIpcBuf run{res.num, static_cast<uint8_t *>(res.entries), ctrl->ipcSize};
    ORCH_AutoSyncProcMqueOrUserDef(ctrl, &run, hdl);
    ctrl->unpackFree(&res);
    return 0;
}

uint32_t ASOrchMsgDispatchProc(const TblMsgCtrlRecv *ctrl, const ASOrchIpcMsg *msg, ASOrchHandle *hdl) {
    return ctrl->unpack == nullptr ? ORCH_AutoSyncMsgProcUnSerialPack(ctrl, msg, hdl)
                                   : ORCH_AutoSyncMsgProcSerialPack(ctrl, msg, hdl);
}

uint32_t ASOrchMsgRecvProc(ASOrchHandle *hdl, const ASOrchIpcMsg *msg) {
    const TblMsgCtrlRecv *ctrl = ASOrchGetTblMsgRecv(hdl, msg->msgId);
    if (ctrl == nullptr) {
        // Not ours (or not registered yet): dropped, and counted as handled.
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "msg proc unknown msg! msgId:%u", msg->msgId);
        return 0;
    }
    return ASOrchMsgDispatchProc(ctrl, msg, hdl);
}

}  // namespace

extern "C" QOV_AS_API uint32_t ASOrchMsgProc(ASOrchHandle *hdl, const ASOrchIpcMsg *msg) {
    if (!ASOrchMsgIsValid(hdl, msg)) return 1;
    ASOrchServingScope serving(hdl);
    if ((msg->msgId >> 4) == AS_TRANS_MSG_ID_HIGH) return ASOrchMsgTransProc(hdl, msg);
    return ASOrchMsgRecvProc(hdl, msg);
}
