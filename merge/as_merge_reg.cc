// Step "MergeMQue" of the base registration: the merge record, dispatch table,
// queue and monitor of each configured path.
#include "merge/merge_private.h"
#include "qov_utils_eal.h"

namespace {

bool MergeIsValid(const ASOrchMergePara *para) {
    return para->dispatchTbl != nullptr && para->dispatchNum != 0 && para->hashFunc != nullptr;
}

// The block of both paths' records, zeroed, made once per handle.
ASOrchMergeRec *AllocMergeHandle(ASOrchHandle *hdl) {
    if (hdl->mergeHandle != nullptr) return hdl->mergeHandle;
    constexpr uint32_t kSize = sizeof(ASOrchMergeRec) * AS_PATH_NUM;
    void *block = hdl->memAlloc(kSize);
    if (block == nullptr) return nullptr;
    if (memset_s(block, kSize, 0, kSize) != 0) {
        hdl->memFree(block);
        return nullptr;
    }
    hdl->mergeHandle = static_cast<ASOrchMergeRec *>(block);
    return hdl->mergeHandle;
}

uint32_t InitMergeHandle(ASOrchMergeRec *rec, const ASOrchMergePara *para, ASOrchHandle *hdl, uint32_t pressGrpId) {
    if (ASOrchInitMergeMsg(rec, para, hdl) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, init auto sync merge msgMerge failed.", hdl->name);
        return 1;
    }
    rec->epFd = QOV_EAL_GetEpollFd(hdl->ealHdl, QOV_EAL_THREAD_DATA);
    ASOrchMergeSetHashSize(rec, ASOrchMergeHashSize(para));
    rec->pressGrpId = pressGrpId;
    return 0;
}

// The path's record, initialised; null (logged) on failure.
ASOrchMergeRec *CreatMergeHandle(ASOrchHandle *hdl, const ASOrchMergePara *para, ASOrchPath path,
                                 uint32_t pressGrpId) {
    if (AllocMergeHandle(hdl) == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, %u malloc auto sync merge handle failed.", hdl->name, ASPathIndex(path));
        return nullptr;
    }
    ASOrchMergeRec *rec = ASOrchMergeRecOf(hdl, path);
    if (InitMergeHandle(rec, para, hdl, pressGrpId) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, %u init auto sync merge handle failed.", hdl->name, ASPathIndex(path));
        return nullptr;
    }
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "%s, %u Orch auto sync create merge handle ok.", hdl->name, ASPathIndex(path));
    return rec;
}

// Sets up one path; on failure the whole merge state of the handle goes.
uint32_t RegMergePath(ASOrchHandle *hdl, const ASOrchMergePara *para, ASOrchPath path, uint32_t pressGrpId) {
    ASOrchMergeRec *rec = CreatMergeHandle(hdl, para, path, pressGrpId);
    if (rec == nullptr || ASOrchCreatMergeQueAndFlowCtl(hdl, rec, para, path) != 0) {
        ASOrchFreeMergeHandle(hdl);
        return 1;
    }
    return 0;
}

}  // namespace

uint32_t ASOrchRegMerge(ASOrchHandle *hdl, const ASOrchBasePara *para, uint32_t pressGrpId) {
    if (MergeIsValid(&para->damMerge) && RegMergePath(hdl, &para->damMerge, ASOrchPath::DAM, pressGrpId) != 0)
        return 1;
    if (!MergeIsValid(&para->fesMerge)) return 0;
    return RegMergePath(hdl, &para->fesMerge, ASOrchPath::FES, pressGrpId);
}
