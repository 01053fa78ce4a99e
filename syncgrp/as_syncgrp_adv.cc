// The default sync-group items and the advanced settings that base
// registration applies to them.
#include "qov_utils_eal.h"
#include "syncgrp/syncgrp_private.h"

namespace {

// Kinds 0 and 2 carry the verification words; 1 and 3 leave them to the EAL.
constexpr ASOrchSyncGrpItem VerifyingItem(uint32_t kind, uint32_t logic, uint32_t comm) {
    return {kind, 1, 30, logic, comm, 0, AS_ALL_LOW30, 1, 100, 1, 2000, 50, 50, 0, nullptr};
}
constexpr ASOrchSyncGrpItem PlainItem(uint32_t kind, uint32_t logic, uint32_t comm) {
    return {kind, 6, 1, logic, comm, 0, AS_ALL_LOW30, 0, 0, 0, 0, 0, 0, 0, nullptr};
}

// The setters' common refusal: 1 and a line for a null handle or a kind above 3.
bool AdvRefused(const ASOrchHandle *hdl, uint32_t kind, const char *what) {
    if (hdl == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "Orch autosync set sync group %s Fail, handle is Null", what);
        return true;
    }
    if (kind >= AS_ORCH_SYNC_GRP_KIND_NUM) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Orch autosync set sync group %s Fail, kind %u", hdl->name, what, kind);
        return true;
    }
    return false;
}

}  // namespace

extern "C" {

const ASOrchSyncGrpItem g_qovOrchAutoSyncGrpParam[AS_ORCH_SYNC_GRP_KIND_NUM] = {
    VerifyingItem(0, QOV_EAL_THREAD_DATA, QOV_EAL_THREAD_SYNC),
    PlainItem(1, QOV_EAL_THREAD_DATA, QOV_EAL_THREAD_SYNC),
    VerifyingItem(2, QOV_EAL_THREAD_EVENT, QOV_EAL_THREAD_SYNC),
    PlainItem(3, QOV_EAL_THREAD_EVENT, QOV_EAL_THREAD_EVENT),
};

QOV_AS_API uint32_t ASOrchAdvSetSynGrpVerifyInterVal(ASOrchHandle *hdl, uint32_t kind, uint32_t interval) {
    if (AdvRefused(hdl, kind, "verify interval")) return 1;
    hdl->advSynGrp[kind].verifyInterval = interval;
    return 0;
}

QOV_AS_API uint32_t ASOrchAdvSetSynGrpNotifyFunc(ASOrchHandle *hdl, uint32_t kind, ASOrchSyncGrpNotifyFunc func) {
    if (AdvRefused(hdl, kind, "notify func")) return 1;
    hdl->advSynGrp[kind].notifyFunc = func;
    return 0;
}

QOV_AS_API uint32_t ASOrchAdvSetSynGrpFlowCtrl(ASOrchHandle *hdl, uint32_t kind, const ASOrchSyncGrpFlowCtl *flowCtrl) {
    if (AdvRefused(hdl, kind, "flow control")) return 1;
    if (flowCtrl == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Orch autosync set sync group flow control Fail, record is Null",
                            hdl->name);
        return 1;
    }
    hdl->advSynGrp[kind].flowCtrl = *flowCtrl;
    hdl->advSynGrp[kind].flowCtrlSet = 1;
    return 0;
}

}  // extern "C"
