// Read side: the queues' reader functions and the dispatch of each merged
// message to the handler registered for its msgId and opType.
#include "merge/merge_internal.h"

namespace {

// Reads one batch from a path's queue; the user word carries the path.
uint32_t RecvMerge(MergeQueCtrlBlk *que, uint32_t path, const char *doneFmt) {
    uint64_t usrWord = path;
    uint32_t n = QOV_MergeQueReadCallBack(que, AS_MERGE_READ_BATCH, ASOrchReadMergeMsgCallBack, &usrWord);
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, doneFmt, n);
    return 0;
}

}  // namespace

uint32_t ORCH_AutoSyncRecvDamMerge(MergeQueCtrlBlk *que) {
    return RecvMerge(que, AS_MERGE_PATH_DAM, "read DAM merge msg count %u finished.");
}

uint32_t ORCH_AutoSyncRecvFesMerge(MergeQueCtrlBlk *que) {
    return RecvMerge(que, AS_MERGE_PATH_FES, "read FES merge msg count %u finished.");
}

uint32_t ASOrchReadMergeMsgCallBack(void *vec, uint32_t size, void *usrData) {
    auto mergeType = static_cast<uint32_t>(*static_cast<const uint64_t *>(usrData));
    auto *v = static_cast<ASOrchMergeMsgVec *>(vec);
    if (size != sizeof(ASOrchMergeMsgVec))
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "mergeType %u read merge queue msgvec error!", mergeType);
    if (v->key == nullptr || v->keySize == 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "mergeType %u read merge queue msgvec key error! msgId:%u, opType:%u",
                            mergeType, v->msgId, v->opType);
        return 1;
    }
    return ASOrchRecvMergeMsgDispatch(v, mergeType);
}

// The entry's buffer goes back to its handle whether or not the handler ran.
uint32_t ASOrchRecvMergeMsgDispatch(ASOrchMergeMsgVec *vec, uint32_t mergeType) {
    ASOrchHandle *hdl = vec->usrData;
    if (hdl == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "mergeType %u read merge queue msgvec usrData handle NULL! msgId:%u, opType:%u",
                            mergeType, vec->msgId, vec->opType);
        return 1;
    }
    uint32_t ret = ASOrchRecvDispatch(hdl, mergeType, vec);
    if (ret != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "[%s %u] from broker ipc msg proc failed! msgId:%u, opType:%u", hdl->name,
                            mergeType, vec->msgId, vec->opType);
    }
    hdl->memFree(vec->key);
    vec->key = nullptr;
    return ret != 0 ? 1 : 0;
}

uint32_t ASOrchRecvDispatch(ASOrchHandle *hdl, uint32_t mergeType, ASOrchMergeMsgVec *vec) {
    if (hdl->mergeHandle == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "[%s] from broker ipc msg dispatch proc failed! mergeHandle is NULL",
                            hdl->name);
        return 1;
    }
    const ASIntHash *table = ASOrchMergeRecs(hdl)[mergeType].dispatchHash;
    if (table == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "[%s %u] from broker ipc msg dispatch proc failed! dispatch table is NULL",
                            hdl->name, mergeType);
        return 1;
    }
    ASIntHashNode *node = ASIntHashFind(table, vec->msgId);
    if (node == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "OrchGetMergeMsg unknown msgId %u.", vec->msgId);
        return 1;
    }
    const auto *dispatch = reinterpret_cast<const ASOrchMergeDispatchNode *>(node);
    if (ASOrchRecvDispatchProc(&dispatch->entry, hdl, vec) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "RecvDispatch fail. msgId %u, opType %u.", vec->msgId, vec->opType);
        return 1;
    }
    return 0;
}

uint32_t ASOrchRecvDispatchProc(const ASOrchMergeMsgDispatch *entry, ASOrchHandle *hdl, ASOrchMergeMsgVec *vec) {
    if (vec->opType >= AS_ORCH_OP_NUM) return 1;
    ASOrchMergeMsgProc proc = entry->msgProc[vec->opType];
    uint32_t ret = proc != nullptr ? proc(hdl, vec) : 1;
    if (ret == 0) return 0;
    QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Orch RecvDispatch process fail. msgid = %u, optType = %u. msgProc = %u",
                        hdl->name, vec->msgId, vec->opType, proc != nullptr ? 1u : 0u);
    return ret;
}
