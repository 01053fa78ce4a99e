// Top floor of the library: the order in which a handle is built up and torn
// down. It knows every subsystem through its internal header; none of them
// knows it.
#include "core/base/as_handle.h"
#include "core/base/as_registry.h"
#include "core/base/as_serving.h"
#include "core/as_reg.h"
#include "inbound/inbound_internal.h"
#include "merge/merge_internal.h"
#include "qov_utils_eal.h"
#include "syncgrp/syncgrp_internal.h"

namespace {

// Outside the MB role a merge queue over its high water back-presses the sync
// group of this kind, the source of what the queues receive there.
constexpr uint32_t kPressSyncGrpKind = 0;

// Step "MergeMQue": the merge layer gets its back-pressure target here, so
// that it need not know the sync groups; "SyncGroup" has registered them.
uint32_t RegMerge(ASOrchHandle *hdl, const ASOrchBasePara *para) {
    return ASOrchRegMerge(hdl, para, ASOrchGetSyncGrpId(hdl, kPressSyncGrpKind));
}

// The steps of ASOrchRegBase, in the order their dependencies need: channels
// read the thread mask that "RegThread" records in the handle, and the merge
// queues' monitors back-press the sync group of "SyncGroup".
struct BaseStep {
    const char *name;
    uint32_t (*func)(ASOrchHandle *hdl, const ASOrchBasePara *para);
};

constexpr BaseStep kBaseSteps[] = {
    {"RegThread", ASOrchRegThread},
    {"ModStateRsp", ASOrchRegModStateRsp},
    {"SyncGroup", ASOrchRegSyncGrpBase},
    {"ReservePort", ASOrchReservePort},
    {"channel", ASOrchRegBaseChan},
    {"TblMsg", ASOrchRegTblMsg},
    {"MergeMQue", RegMerge},
};

// What ASOrchDestroy releases, in this order; each release does nothing for a
// part that was never registered.
constexpr void (*kReleaseOrder[])(ASOrchHandle *) = {
    ASOrchFreeGrpRes,
    ASOrchFreeTblMsg,
    ASOrchFreeMergeHandle,
};

// Runs the step table over a checked handle and record.
uint32_t ASOrchBaseProc(ASOrchHandle *hdl, const ASOrchBasePara *para) {
    for (const BaseStep &step : kBaseSteps) {
        if (step.func(hdl, para) != 0) {
            QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Register Orch autosync base Fail, %s fail", hdl->name, step.name);
            return 1;
        }
        QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "%s, Register Orch autosync base, %s ok", hdl->name, step.name);
    }
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "%s, Orch autosync register base success", hdl->name);
    return 0;
}

}  // namespace

extern "C" {

QOV_AS_API uint32_t ASOrchRegBase(ASOrchHandle *hdl, const ASOrchBasePara *para) {
    if (hdl == nullptr || para == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "Register Orch autosync base Fail, Param is Null");
        return 1;
    }
    return ASOrchBaseProc(hdl, para);
}

QOV_AS_API void ASOrchDestroy(ASOrchHandle *hdl) {
    if (hdl == nullptr || hdl->memFree == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "Destroy Orch autosync Fail, handle or free func is NULL");
        return;
    }
    if (ASOrchServingNow(hdl) || ASOrchMergeReadingHere(hdl)) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Destroy Orch autosync Fail, called from inside its own callback",
                            hdl->name);
        return;
    }
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "%s, Orch auto sync free begin.", hdl->name);
    // The queue readers run on the Data thread until the EAL goes last; they
    // and their monitors (which read the sync-group resource) stop first.
    ASOrchMergeStopReaders(hdl);
    for (auto release : kReleaseOrder) release(hdl);
    AutoSyncDelModule(hdl->name, hdl->memFree);
    if (hdl->ealHdl != nullptr) QOV_EAL_Destroy(hdl->ealHdl);
    ASOrchMemFreeFunc memFree = hdl->memFree;
    memFree(hdl);
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "Orch auto sync free ok.");
}

}  // extern "C"
