// High/low-water monitor of the merge queues: over high water the source of
// the path is throttled (the broker's data channel in the MB role, otherwise
// the sync group that registration handed over); back under low water it is
// released.
#include "core/base/as_consts.h"
#include "merge/merge_private.h"
#include "qov_utils_eal.h"

namespace {

constexpr uint32_t kEvtHighWater = 0;
constexpr uint32_t kEvtLowWater = 1;
constexpr uint32_t kDefHighWater = 65536;
constexpr uint32_t kDefLowWater = 8192;

// One direction of flow control: the platform calls and the failure text.
struct WaterAction {
    uint32_t (*chanOp)(void *chan);
    uint32_t (*syncOp)(void *eal, uint32_t grpId);
    const char *noGroup;
};

constexpr WaterAction kPress = {QOV_CHAN_BackPress, QOV_EAL_SyncBackPress, "%s, Monitor HighWater sync groupid Fail"};
constexpr WaterAction kRelease = {QOV_CHAN_UnBackPress, QOV_EAL_SyncUnBackPress,
                                  "%s, Monitor LowWater sync groupid Fail"};

void HighWaterWithoutSyncThread(const ASOrchHandle *hdl) {
    if ((hdl->threadMask & AS_THREAD_BIT_SYNC) == 0)
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, mb mque high water. suggest config syncGrp sync thread", hdl->name);
}

// The path's channel is the broker's data channel of the same index.
uint32_t ApplyWater(ASOrchHandle *hdl, ASOrchPath path, const WaterAction &act, bool highWater) {
    if (QOV_EAL_SelfRoleIsMb(hdl->ealHdl) != 0) {
        if (highWater) HighWaterWithoutSyncThread(hdl);
        return act.chanOp(QOV_EAL_GetChannelHdl(hdl->ealHdl, ASPathIndex(path)));
    }
    uint32_t grpId = ASOrchMergeRecOf(hdl, path)->pressGrpId;
    if (grpId == AS_SYNC_GRP_ID_NONE) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, act.noGroup, hdl->name);
        return 1;
    }
    return act.syncOp(hdl->ealHdl, grpId);
}

// The queue's monitor callback; its user word is the handle. The event type
// is logged at level 1 and an unknown one at level 0: the system's own
// levels for these lines, kept as they are.
// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): as the queue's monitor callback passes them
uint32_t MonitorProc(uint32_t evtType, uint64_t usrData, ASOrchPath path) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the queue's monitor hands back the handle as a 64-bit user word
    auto *hdl = reinterpret_cast<ASOrchHandle *>(usrData);
    const uint32_t chanId = ASPathIndex(path);
    if (hdl == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "Orch autosync MQue Monitor error usrData is NULL");
        return 1;
    }
    QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "Orch autosync MQUE monitor : %u, channelId %u.", evtType, chanId);
    if (evtType == kEvtHighWater) return ApplyWater(hdl, path, kPress, true);
    if (evtType == kEvtLowWater) return ApplyWater(hdl, path, kRelease, false);
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "Orch autosync MQUE Monitor error evtType : %u, channelId %u.", evtType, chanId);
    return 0;
}

uint32_t DamMonitorProc(uint32_t evtType, uint64_t usrData) { return MonitorProc(evtType, usrData, ASOrchPath::DAM); }

uint32_t FesMonitorProc(uint32_t evtType, uint64_t usrData) { return MonitorProc(evtType, usrData, ASOrchPath::FES); }

void CfgFlowCtl(MergeQueMonitorAttr *attr, const ASOrchMergePara *para, ASOrchPath path) {
    if (para->highWater != 0) attr->highWater = para->highWater;
    if (para->lowWater != 0) attr->lowWater = para->lowWater;
    attr->flowCtrlNotify = path == ASOrchPath::DAM ? DamMonitorProc : FesMonitorProc;
}

}  // namespace

// The two lines name DAM on failure and FES on success whichever the path:
// the system's own texts, kept as they are.
uint32_t ASOrchRegMQueFlowCtl(ASOrchHandle *hdl, ASOrchMergeRec *rec, const ASOrchMergePara *para, ASOrchPath path) {
    MergeQueMonitorAttr attr = {kDefHighWater, kDefLowWater, reinterpret_cast<uint64_t>(hdl), nullptr};
    CfgFlowCtl(&attr, para, path);
    if (QOV_MergeQueMonitorReg(rec->mergeQue, &attr) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, %u Register Orch autosync DAM MQUE Monitor fail", hdl->name,
                            ASPathIndex(path));
        return 1;
    }
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "%s, %u Register Orch autosync FES MQUE Monitor ok", hdl->name, ASPathIndex(path));
    return 0;
}
