// The reader handle of a path's queue, and stopping and resuming its reading.
#include "merge/merge_private.h"

extern "C" {

QOV_AS_API MergeQueCtrlBlk *ASOrchGetReaderHdl(ASOrchHandle *hdl, uint32_t mergeType) {
    if (hdl == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "Orch autosync get merge reader Fail, handle is NULL");
        return nullptr;
    }
    ASOrchPath path;
    if (!ASPathFromIndex(mergeType, &path)) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Orch autosync get merge reader Fail, mergeType %u invalid", hdl->name,
                            mergeType);
        return nullptr;
    }
    if (hdl->mergeHandle == nullptr) return nullptr;
    return ASOrchMergeRecOf(hdl, path)->mergeQue;
}

QOV_AS_API uint32_t ASOrchMergeBackPress(ASOrchHandle *hdl, uint32_t mergeType) {
    if (hdl == nullptr) return 0;
    MergeQueCtrlBlk *que = ASOrchGetReaderHdl(hdl, mergeType);
    if (que == nullptr) return 1;
    return QOV_MergeQueBackPress(que, 0);
}

QOV_AS_API uint32_t ASOrchMergeUnBackPress(ASOrchHandle *hdl, uint32_t mergeType) {
    if (hdl == nullptr) return 0;
    MergeQueCtrlBlk *que = ASOrchGetReaderHdl(hdl, mergeType);
    if (que == nullptr) return 1;
    return QOV_MergeQueUnBackPress(que, nullptr);
}

}  // extern "C"
