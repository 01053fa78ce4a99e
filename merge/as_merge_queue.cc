// Creation of a path's merge queue on the Data thread's epoll loop.
#include "merge/merge_internal.h"

namespace {

const char *PathName(uint32_t mergeType) { return mergeType == AS_MERGE_PATH_DAM ? "DAM" : "FES"; }

}  // namespace

MergeQueCtrlBlk *ASOrchCreatMergeQueue(ASOrchHandle *hdl, const char *name, int32_t epFd,
                                       const ASOrchMergePara *para, uint32_t mergeType) {
    MergeQueCreatePara qp = {
        .mallocFunc = hdl->memAlloc,
        .freeFunc = hdl->memFree,
        .memPtNo = hdl->memPtNo,
        .dataSize = sizeof(ASOrchMergeMsgVec),
        .hashSize = ASOrchMergeHashSize(para),
        .hashFunc = para->hashFunc,
        .cmpFunc = ASOrchPubCmpFunc,
        .epFd = epFd,
        .getKeyPtr = ASOrchPubGetKeyPtr,
        .schedFunc = mergeType == AS_MERGE_PATH_DAM ? ORCH_AutoSyncRecvDamMerge : ORCH_AutoSyncRecvFesMerge,
        .mergeFunc = ASOrchPubMergeNotify,
    };
    return QOV_MergeQueCreate(name, &qp);
}

uint32_t ASOrchRegMQue(ASOrchHandle *hdl, ASOrchMergeRec *rec, const ASOrchMergePara *para, uint32_t mergeType) {
    char name[MERGE_QUE_NAME_LEN];
    if (sprintf_s(name, sizeof name, "%s_%s", hdl->name, PathName(mergeType)) < 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Orch autosync create MQUE sprint mQname fail", hdl->name);
        return 1;
    }
    rec->mergeQue = ASOrchCreatMergeQueue(hdl, name, rec->epFd, para, mergeType);
    if (rec->mergeQue == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, %s Register Orch autosync create MQUE fail", hdl->name, name);
        return 1;
    }
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "%s, %s Register Orch autosync create MQUE ok", hdl->name, name);
    return 0;
}

uint32_t ASOrchCreatMergeQueAndFlowCtl(ASOrchHandle *hdl, ASOrchMergeRec *rec, const ASOrchMergePara *para,
                                       uint32_t mergeType) {
    if (ASOrchRegMQue(hdl, rec, para, mergeType) != 0) return 1;
    return ASOrchRegMQueFlowCtl(hdl, rec, para, mergeType);
}
