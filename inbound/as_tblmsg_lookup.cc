// Lookups of the table-message registry and the per-message version counters.
#include "inbound/inbound_private.h"

namespace {

// The control record under key in table (a TblMsgCtrlRecv or TblMsgCtrlTrans by
// table), or null with a log line.
void *GetTblMsgHashData(const ASIntHash *table, const uint32_t *key) {
    if (table == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "hashTble is null, unknown key %u.", *key);
        return nullptr;
    }
    ASIntHashNode *node = ASIntHashFind(table, *key);
    if (node == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "OrchGetTblMsgCtrl from hash failed, unknown key %u.", *key);
        return nullptr;
    }
    return reinterpret_cast<uint8_t *>(node) + AS_TBLMSG_CTRL_OFFSET;
}

// The handle's table, or null with the null-handle line of the caller.
template <typename Ctrl>
Ctrl *Lookup(ASOrchHandle *hdl, ASIntHash *ASOrchHandle::*table, uint32_t key) {
    if (hdl == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "Orch autosync get tbl msg handle is null.");
        return nullptr;
    }
    return static_cast<Ctrl *>(GetTblMsgHashData(hdl->*table, &key));
}

template <typename Ctrl>
uint32_t IncVersion(Ctrl *ctrl, uint32_t *version) {
    ++ctrl->version;  // unsigned: wraps to 0 after 4294967295
    *version = ctrl->version;
    return 0;
}

}  // namespace

extern "C" {

QOV_AS_API TblMsgCtrlRecv *ASOrchGetTblMsgRecv(ASOrchHandle *hdl, uint32_t msgId) {
    return Lookup<TblMsgCtrlRecv>(hdl, &ASOrchHandle::recvTblMsgHash, msgId);
}

QOV_AS_API TblMsgCtrlTrans *ASOrchGetTblMsgTrans(ASOrchHandle *hdl, uint32_t tableId) {
    return Lookup<TblMsgCtrlTrans>(hdl, &ASOrchHandle::transTblMsgHash, tableId);
}

QOV_AS_API uint32_t ASOrchIncTblMsgVersion(ASOrchHandle *hdl, uint32_t msgId, uint32_t *version) {
    if (version == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "Orch set tblmsg version failed, version is null. msgId:%u", msgId);
        return 1;
    }
    TblMsgCtrlRecv *ctrl = ASOrchGetTblMsgRecv(hdl, msgId);
    if (ctrl == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "Orch set tblmsg version failed. msgId:%u", msgId);
        return 1;
    }
    return IncVersion(ctrl, version);
}

QOV_AS_API uint32_t ASOrchIncTransTblMsgVersion(ASOrchHandle *hdl, uint32_t tableId, uint32_t *version) {
    if (version == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "Orch set tblmsg version failed, version is null. tableId:%u", tableId);
        return 1;
    }
    TblMsgCtrlTrans *ctrl = ASOrchGetTblMsgTrans(hdl, tableId);
    if (ctrl == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "Orch set tblmsg version failed. tableId:%u", tableId);
        return 1;
    }
    return IncVersion(ctrl, version);
}

}  // extern "C"
