// Top floor of the library: the order in which a handle is built up and torn
// down. It knows every subsystem through its internal header; none of them
// knows it.
#include "core/as_handle.h"
#include "inbound/inbound_internal.h"
#include "merge/merge_internal.h"
#include "qov_utils_eal.h"
#include "syncgrp/syncgrp_internal.h"

namespace {

// What ASOrchDestroy releases, in this order; each release does nothing for a
// part that was never registered.
constexpr void (*kReleaseOrder[])(ASOrchHandle *) = {
    ASOrchFreeGrpRes,
    ASOrchFreeTblMsg,
    ASOrchFreeMergeHandle,
};

}  // namespace

extern "C" {

QOV_AS_API void ASOrchDestroy(ASOrchHandle *hdl) {
    if (hdl == nullptr || hdl->memFree == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "Destroy Orch autosync Fail, handle or free func is NULL");
        return;
    }
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "%s, Orch auto sync free begin.", hdl->name);
    for (auto release : kReleaseOrder) release(hdl);
    AutoSyncDelModule(hdl->name, hdl->memFree);
    if (hdl->ealHdl != nullptr) QOV_EAL_Destroy(hdl->ealHdl);
    ASOrchMemFreeFunc memFree = hdl->memFree;
    memFree(hdl);
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "Orch auto sync free ok.");
}

}  // extern "C"
