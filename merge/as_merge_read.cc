// Read side: the queues' reader functions and the dispatch of each merged
// message to the handler registered for its msgId and opType.
#include "merge/merge_private.h"

namespace {

constexpr uint32_t kReadBatch = 32;  // entries per scheduling of a queue

uint32_t RecvDispatchProc(const ASOrchMergeMsgDispatch *entry, ASOrchHandle *hdl, ASOrchMergeMsgVec *vec) {
    if (vec->opType >= AS_ORCH_OP_NUM) return 1;
    ASOrchMergeMsgProc proc = entry->msgProc[vec->opType];
    uint32_t ret = proc != nullptr ? proc(hdl, vec) : 1;
    if (ret == 0) return 0;
    QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Orch RecvDispatch process fail. msgid = %u, optType = %u. msgProc = %u",
                        hdl->name, vec->msgId, vec->opType, proc != nullptr ? 1u : 0u);
    return ret;
}

// The entry's buffer goes back to its handle whether or not the handler ran.
// The lines call the path "mergeType": the system's own texts.
uint32_t RecvMergeMsgDispatch(ASOrchMergeMsgVec *vec, ASOrchPath path) {
    ASOrchHandle *hdl = vec->usrData;
    if (hdl == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "mergeType %u read merge queue msgvec usrData handle NULL! msgId:%u, opType:%u",
                            ASPathIndex(path), vec->msgId, vec->opType);
        return 1;
    }
    uint32_t ret = ASOrchRecvDispatch(hdl, path, vec);
    if (ret != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "[%s %u] from broker ipc msg proc failed! msgId:%u, opType:%u", hdl->name,
                            ASPathIndex(path), vec->msgId, vec->opType);
    }
    hdl->memFree(vec->key);
    vec->key = nullptr;
    return ret != 0 ? 1 : 0;
}

// The queue's read callback; the user word points at the path.
uint32_t ReadMergeMsgCallBack(void *vec, uint32_t size, void *usrData) {
    const ASOrchPath path = *static_cast<const ASOrchPath *>(usrData);
    auto *v = static_cast<ASOrchMergeMsgVec *>(vec);
    if (size != sizeof(ASOrchMergeMsgVec))
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "mergeType %u read merge queue msgvec error!", ASPathIndex(path));
    if (v->key == nullptr || v->keySize == 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "mergeType %u read merge queue msgvec key error! msgId:%u, opType:%u",
                            ASPathIndex(path), v->msgId, v->opType);
        return 1;
    }
    return RecvMergeMsgDispatch(v, path);
}

// Reads one batch from a path's queue.
uint32_t RecvMerge(MergeQueCtrlBlk *que, ASOrchPath path, const char *doneFmt) {
    uint32_t n = QOV_MergeQueReadCallBack(que, kReadBatch, ReadMergeMsgCallBack, &path);
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, doneFmt, n);
    return 0;
}

}  // namespace

uint32_t ORCH_AutoSyncRecvDamMerge(MergeQueCtrlBlk *que) {
    return RecvMerge(que, ASOrchPath::DAM, "read DAM merge msg count %u finished.");
}

uint32_t ORCH_AutoSyncRecvFesMerge(MergeQueCtrlBlk *que) {
    return RecvMerge(que, ASOrchPath::FES, "read FES merge msg count %u finished.");
}

uint32_t ASOrchRecvDispatch(ASOrchHandle *hdl, ASOrchPath path, ASOrchMergeMsgVec *vec) {
    if (hdl->mergeHandle == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "[%s] from broker ipc msg dispatch proc failed! mergeHandle is NULL",
                            hdl->name);
        return 1;
    }
    const ASIntHash *table = ASOrchMergeRecOf(hdl, path)->dispatchHash;
    if (table == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "[%s %u] from broker ipc msg dispatch proc failed! dispatch table is NULL",
                            hdl->name, ASPathIndex(path));
        return 1;
    }
    ASIntHashNode *node = ASIntHashFind(table, vec->msgId);
    if (node == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "OrchGetMergeMsg unknown msgId %u.", vec->msgId);
        return 1;
    }
    const auto *dispatch = reinterpret_cast<const ASOrchMergeDispatchNode *>(node);
    if (RecvDispatchProc(&dispatch->entry, hdl, vec) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "RecvDispatch fail. msgId %u, opType %u.", vec->msgId, vec->opType);
        return 1;
    }
    return 0;
}
