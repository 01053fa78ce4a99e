// Creation of a path's merge queue on the Data thread's epoll loop.
#include "merge/merge_private.h"

namespace {

const char *PathName(ASOrchPath path) { return path == ASOrchPath::DAM ? "DAM" : "FES"; }

MergeQueCtrlBlk *CreatMergeQueue(ASOrchHandle *hdl, const char *name, int32_t epFd, const ASOrchMergePara *para,
                                 ASOrchPath path) {
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
        .schedFunc = path == ASOrchPath::DAM ? ORCH_AutoSyncRecvDamMerge : ORCH_AutoSyncRecvFesMerge,
        .mergeFunc = ASOrchPubMergeNotify,
    };
    return QOV_MergeQueCreate(name, &qp);
}

uint32_t RegMQue(ASOrchHandle *hdl, ASOrchMergeRec *rec, const ASOrchMergePara *para, ASOrchPath path) {
    char name[MERGE_QUE_NAME_LEN];
    if (sprintf_s(name, sizeof name, "%s_%s", hdl->name, PathName(path)) < 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Orch autosync create MQUE sprint mQname fail", hdl->name);
        return 1;
    }
    rec->mergeQue = CreatMergeQueue(hdl, name, rec->epFd, para, path);
    if (rec->mergeQue == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, %s Register Orch autosync create MQUE fail", hdl->name, name);
        return 1;
    }
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "%s, %s Register Orch autosync create MQUE ok", hdl->name, name);
    return 0;
}

}  // namespace

uint32_t ASOrchCreatMergeQueAndFlowCtl(ASOrchHandle *hdl, ASOrchMergeRec *rec, const ASOrchMergePara *para,
                                       ASOrchPath path) {
    if (RegMQue(hdl, rec, para, path) != 0) return 1;
    return ASOrchRegMQueFlowCtl(hdl, rec, para, path);
}
