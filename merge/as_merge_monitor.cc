// High/low-water monitor of the merge queues: over high water the source of
// the path is throttled (the broker's data channel in the MB role, sync group
// kind 0 otherwise); back under low water it is released.
#include "merge/merge_internal.h"
#include "qov_utils_eal.h"
#include "syncgrp/syncgrp_internal.h"

namespace {

constexpr uint32_t kEvtHighWater = 0;
constexpr uint32_t kEvtLowWater = 1;
constexpr uint32_t kSyncThreadBit = 1u << QOV_EAL_THREAD_SYNC;
constexpr uint32_t kSourceSyncGrpKind = 0;

// One direction of flow control: the platform calls and the failure text.
struct WaterAction {
    uint32_t (*chanOp)(void *chan);
    uint32_t (*syncOp)(void *eal, uint32_t grpId);
    const char *noGroup;
};

constexpr WaterAction kPress = {QOV_CHAN_BackPress, QOV_EAL_SyncBackPress, "%s, Monitor HighWater sync groupid Fail"};
constexpr WaterAction kRelease = {QOV_CHAN_UnBackPress, QOV_EAL_SyncUnBackPress,
                                  "%s, Monitor LowWater sync groupid Fail"};

uint32_t ApplyWater(ASOrchHandle *hdl, uint32_t chanId, const WaterAction &act, bool highWater) {
    if (QOV_EAL_SelfRoleIsMb(hdl->ealHdl) != 0) {
        if (highWater) ASOrchMqueHighWaterWithoutSyncThread(hdl);
        return act.chanOp(QOV_EAL_GetChannelHdl(hdl->ealHdl, chanId));
    }
    uint32_t grpId = ASOrchGetSyncGrpId(hdl, kSourceSyncGrpKind);
    if (grpId == AS_MERGE_NO_SYNC_GRP) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, act.noGroup, hdl->name);
        return 1;
    }
    return act.syncOp(hdl->ealHdl, grpId);
}

}  // namespace

void ASOrchMQueCfgFlowCtl(MergeQueMonitorAttr *attr, const ASOrchMergePara *para, uint32_t mergeType) {
    if (para->highWater != 0) attr->highWater = para->highWater;
    if (para->lowWater != 0) attr->lowWater = para->lowWater;
    attr->flowCtrlNotify = mergeType == AS_MERGE_PATH_DAM ? ASOrchMergeDamMonitorProc : ASOrchMergeFesMonitorProc;
}

uint32_t ASOrchRegMQueFlowCtl(ASOrchHandle *hdl, ASOrchMergeRec *rec, const ASOrchMergePara *para,
                              uint32_t mergeType) {
    MergeQueMonitorAttr attr = {AS_MERGE_DEF_HIGH_WATER, AS_MERGE_DEF_LOW_WATER, reinterpret_cast<uint64_t>(hdl),
                                nullptr};
    ASOrchMQueCfgFlowCtl(&attr, para, mergeType);
    if (QOV_MergeQueMonitorReg(rec->mergeQue, &attr) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, %u Register Orch autosync DAM MQUE Monitor fail", hdl->name, mergeType);
        return 1;
    }
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "%s, %u Register Orch autosync FES MQUE Monitor ok", hdl->name, mergeType);
    return 0;
}

uint32_t ASOrchMergeDamMonitorProc(uint32_t evtType, uint64_t usrData) {
    return ASOrchMergeFesDamMonitorProc(evtType, usrData, AS_MERGE_PATH_DAM);
}

uint32_t ASOrchMergeFesMonitorProc(uint32_t evtType, uint64_t usrData) {
    return ASOrchMergeFesDamMonitorProc(evtType, usrData, AS_MERGE_PATH_FES);
}

// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): as the queue's monitor callback passes them
uint32_t ASOrchMergeFesDamMonitorProc(uint32_t evtType, uint64_t usrData, uint32_t chanId) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the queue's monitor hands back the handle as a 64-bit user word
    auto *hdl = reinterpret_cast<ASOrchHandle *>(usrData);
    if (hdl == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "Orch autosync MQue Monitor error usrData is NULL");
        return 1;
    }
    QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "Orch autosync MQUE monitor : %u, channelId %u.", evtType, chanId);
    if (evtType == kEvtHighWater) return ASOrchMonitorHighWater(hdl, chanId);
    if (evtType == kEvtLowWater) return ASOrchMonitorLowWater(hdl, chanId);
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "Orch autosync MQUE Monitor error evtType : %u, channelId %u.", evtType, chanId);
    return 0;
}

uint32_t ASOrchMonitorHighWater(ASOrchHandle *hdl, uint32_t chanId) { return ApplyWater(hdl, chanId, kPress, true); }

uint32_t ASOrchMonitorLowWater(ASOrchHandle *hdl, uint32_t chanId) {
    return ApplyWater(hdl, chanId, kRelease, false);
}

void ASOrchMqueHighWaterWithoutSyncThread(ASOrchHandle *hdl) {
    if ((hdl->threadMask & kSyncThreadBit) == 0)
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, mb mque high water. suggest config syncGrp sync thread", hdl->name);
}
