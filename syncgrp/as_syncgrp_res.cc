// The sync-group resource of a handle.
#include "syncgrp/syncgrp_private.h"

void ASOrchFreeGrpRes(ASOrchHandle *hdl) {
    if (hdl->syncGrpRes == nullptr) return;
    hdl->memFree(hdl->syncGrpRes);
    hdl->syncGrpRes = nullptr;
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "%s, Sync group free res ok.", hdl->name);
}
