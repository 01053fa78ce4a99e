// Lookups of the handle's sync-group resource.
#include "syncgrp/syncgrp_private.h"

ASOrchSyncGrpRes *ASOrchGroupGetRes(ASOrchHandle *hdl) {
    if (hdl == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Orch autosync msg Fail, handle is Null", AS_NULL_HANDLE_NAME);
        return nullptr;
    }
    if (hdl->syncGrpRes == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Orch autosync msg Fail, syncGrpRes is Null", hdl->name);
        return nullptr;
    }
    return hdl->syncGrpRes;
}

uint32_t ASOrchGetSyncGrpId(ASOrchHandle *hdl, uint32_t kind) {
    if (kind >= AS_ORCH_SYNC_GRP_KIND_NUM) return AS_SYNC_GRP_ID_NONE;
    ASOrchSyncGrpRes *res = ASOrchGroupGetRes(hdl);
    if (res == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Orch autosync sync group res is NULL",
                            hdl != nullptr ? hdl->name : AS_NULL_HANDLE_NAME);
        return AS_SYNC_GRP_ID_NONE;
    }
    return res->grpId[kind];
}
