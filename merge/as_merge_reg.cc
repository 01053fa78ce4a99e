// Step "MergeMQue" of the base registration: the merge record, dispatch table,
// queue and monitor of each configured path.
#include "merge/merge_internal.h"
#include "qov_utils_eal.h"

namespace {

// Sets up one path; on failure the whole merge state of the handle goes.
uint32_t RegMergePath(ASOrchHandle *hdl, const ASOrchMergePara *para, uint32_t mergeType) {
    ASOrchMergeRec *recs = ASOrchCreatMergeHandle(hdl, para, mergeType);
    if (recs == nullptr || ASOrchCreatMergeQueAndFlowCtl(hdl, &recs[mergeType], para, mergeType) != 0) {
        ASOrchFreeMergeHandle(hdl);
        return 1;
    }
    return 0;
}

}  // namespace

uint32_t ASOrchMergeIsValid(const ASOrchMergePara *para) {
    return para->dispatchTbl != nullptr && para->dispatchNum != 0 && para->hashFunc != nullptr ? 1 : 0;
}

uint32_t ASOrchRegMerge(ASOrchHandle *hdl, const ASOrchBasePara *para) {
    if (ASOrchMergeIsValid(&para->damMerge) != 0 && RegMergePath(hdl, &para->damMerge, AS_MERGE_PATH_DAM) != 0)
        return 1;
    if (ASOrchMergeIsValid(&para->fesMerge) == 0) return 0;
    return RegMergePath(hdl, &para->fesMerge, AS_MERGE_PATH_FES);
}

ASOrchMergeRec *ASOrchAllocMergeHandle(ASOrchHandle *hdl) {
    if (hdl->mergeHandle != nullptr) return ASOrchMergeRecs(hdl);
    constexpr uint32_t kSize = sizeof(ASOrchMergeRec) * AS_MERGE_PATH_NUM;
    void *block = hdl->memAlloc(kSize);
    if (block == nullptr) return nullptr;
    if (memset_s(block, kSize, 0, kSize) != 0) {
        hdl->memFree(block);
        return nullptr;
    }
    hdl->mergeHandle = static_cast<ASOrchMergeRec *>(block);
    return ASOrchMergeRecs(hdl);
}

ASOrchMergeRec *ASOrchCreatMergeHandle(ASOrchHandle *hdl, const ASOrchMergePara *para, uint32_t mergeType) {
    ASOrchMergeRec *recs = ASOrchAllocMergeHandle(hdl);
    if (recs == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, %u malloc auto sync merge handle failed.", hdl->name, mergeType);
        return nullptr;
    }
    if (ASOrchInitMergeHandle(&recs[mergeType], para, hdl) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, %u init auto sync merge handle failed.", hdl->name, mergeType);
        return nullptr;
    }
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "%s, %u Orch auto sync create merge handle ok.", hdl->name, mergeType);
    return recs;
}

uint32_t ASOrchInitMergeHandle(ASOrchMergeRec *rec, const ASOrchMergePara *para, ASOrchHandle *hdl) {
    if (ASOrchInitMergeMsg(rec, para, hdl) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, init auto sync merge msgMerge failed.", hdl->name);
        return 1;
    }
    rec->epFd = QOV_EAL_GetEpollFd(hdl->ealHdl, QOV_EAL_THREAD_DATA);
    rec->hashSize = ASOrchMergeHashSize(para);
    return 0;
}
