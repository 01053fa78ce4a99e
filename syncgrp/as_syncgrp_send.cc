// Sending to the sync groups by kind, and feeding what a group delivered into
// the merge layer.
#include "merge/merge_internal.h"
#include "qov_utils_eal.h"
#include "syncgrp/syncgrp_private.h"

namespace {

const char *NameOf(const ASOrchHandle *hdl) { return hdl != nullptr ? hdl->name : AS_NULL_HANDLE_NAME; }

// The kind's group id, or AS_SYNC_GRP_ID_NONE with the line of the senders.
uint32_t SendGrpId(ASOrchHandle *hdl, uint32_t msgType) {
    uint32_t id = ASOrchGetSyncGrpId(hdl, msgType);
    if (id == AS_SYNC_GRP_ID_NONE)
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Orch autosync msg Fail, sync groupid Fail msgType = %u", NameOf(hdl),
                            msgType);
    return id;
}

}  // namespace

extern "C" {

QOV_AS_API uint32_t ASOrchSyncBatchMsg(ASOrchHandle *hdl, uint32_t msgType, void *data, uint32_t count) {
    uint32_t id = SendGrpId(hdl, msgType);
    if (id == AS_SYNC_GRP_ID_NONE) return 1;
    return QOV_EAL_SyncMsg(hdl->ealHdl, id, data, count);
}

QOV_AS_API uint32_t ASOrchSyncMsg(ASOrchHandle *hdl, uint32_t msgType, void *data) {
    return ASOrchSyncBatchMsg(hdl, msgType, data, 1);
}

QOV_AS_API uint32_t ASOrchSyncMsgToGrp(ASOrchHandle *hdl, uint32_t index, void *data) {
    const ASOrchSyncGrpRes *res = ASOrchGroupGetRes(hdl);
    if (res == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Orch autosync msg Fail, sync group res is NULL", NameOf(hdl));
        return 1;
    }
    return QOV_EAL_SyncMsg(hdl->ealHdl, res->grpNum + index, data, 1);
}

QOV_AS_API uint32_t ASOrchSyncIsSyncReadyOnlyTarn(ASOrchHandle *hdl, uint32_t msgType) {
    uint32_t id = SendGrpId(hdl, msgType);
    if (id == AS_SYNC_GRP_ID_NONE) return 0;
    return QOV_EAL_IsSyncReadyOnlyTarn(hdl->ealHdl, id);
}

QOV_AS_API void ASOrchMergeSyncGrpDatas(uint32_t count, ASOrchSyncGrpData *items, ASOrchMergeMsgVec *tmpl,
                                        uint32_t mergeType, ASOrchHandle *hdl) {
    if (count == 0) return;
    if (items == nullptr || tmpl == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, MergeSyncGrpDatas Fail, items or template is Null", NameOf(hdl));
        return;
    }
    // The merge type is decided once for all items; without a handle each
    // item goes to ASOrchMsgMerge, which refuses it with its own line.
    const ASOrchMergeTarget target = hdl != nullptr ? ASOrchMergeTargetOf(hdl, mergeType) : ASOrchMergeTarget{};
    for (uint32_t i = 0; i < count; ++i) {
        items[i].result = AS_ORCH_SYNC_DATA_REFUSED;
        tmpl->key = items[i].data;
        tmpl->data = items[i].data;
        uint32_t r = hdl != nullptr ? ASOrchMergeTo(hdl, &target, tmpl) : ASOrchMsgMerge(hdl, mergeType, tmpl);
        if (r == 0)
            items[i].result = 0;
        else
            QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "MergeSyncGrpDatas error, i = %u. msgId %u.", i, tmpl->msgId);
    }
}

}  // extern "C"
