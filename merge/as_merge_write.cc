// Write side: messages into the path's merge queue (merge types 0..3) or
// straight to the path's handlers (4 and above).
#include "merge/merge_internal.h"

namespace {

uint32_t QueuePath(uint32_t mergeType) {
    return mergeType == AS_ORCH_MERGE_FES || mergeType == AS_ORCH_MERGE_FES_TAIL ? AS_MERGE_PATH_FES
                                                                                 : AS_MERGE_PATH_DAM;
}

}  // namespace

extern "C" QOV_AS_API uint32_t ASOrchMsgMerge(ASOrchHandle *hdl, uint32_t mergeType, ASOrchMergeMsgVec *vec) {
    if (hdl == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "Orch autosync send merge msg handle is NULL");
        return 1;
    }
    if (vec == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Orch autosync send merge msg vec is NULL", hdl->name);
        return 1;
    }
    if (mergeType < AS_ORCH_MERGE_DAM_DIRECT) return ASOrchMsgMergeInner(hdl, mergeType, vec);
    return ASOrchMsgNoMerge(hdl, mergeType, vec);
}

uint32_t ASOrchMsgMergeInner(ASOrchHandle *hdl, uint32_t mergeType, const ASOrchMergeMsgVec *vec) {
    if (hdl->mergeHandle == nullptr) return 1;
    MergeQueCtrlBlk *que = ASOrchMergeRecs(hdl)[QueuePath(mergeType)].mergeQue;
    if (que == nullptr) return 1;
    uint32_t moveToTail = mergeType >= AS_ORCH_MERGE_DAM_TAIL ? 1u : 0u;
    return ASOrchWriteMsgMerge(hdl, que, vec, moveToTail);
}

uint32_t ASOrchWriteMsgMerge(ASOrchHandle *hdl, MergeQueCtrlBlk *que, const ASOrchMergeMsgVec *vec,
                             uint32_t moveToTail) {
    if (vec->keySize == 0 || vec->key == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Orch auto sync merge msg failed. key size is %u", hdl->name,
                            static_cast<uint32_t>(vec->keySize));
        return 1;
    }
    ASOrchMergeMsgVec copy = *vec;
    copy.usrData = nullptr;
    if (ASOrchMsgVecCopyAlloc(hdl, vec, &copy) != 0) return 1;
    // The vector is its own key: the queue hashes and compares it whole.
    if (QOV_MergeQueWrite(que, &copy, &copy, moveToTail) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Orch auto sync merge msg failed. write mqueue fail", hdl->name);
        hdl->memFree(copy.key);
        return 1;
    }
    return 0;
}

// One buffer of keySize + dataSize bytes, key first and data right behind
// it. Sizes that cannot be allocated in one u32 request are refused like a
// failed allocation. Data is copied only when there is some (a non-zero size
// and a pointer); otherwise data is cleared so no handler sees a dangling
// caller pointer.
uint32_t ASOrchMsgVecCopyAlloc(ASOrchHandle *hdl, const ASOrchMergeMsgVec *src, ASOrchMergeMsgVec *dst) {
    void *buf = nullptr;
    if (src->keySize <= UINT32_MAX && src->dataSize <= UINT32_MAX - src->keySize)
        buf = hdl->memAlloc(static_cast<uint32_t>(src->keySize + src->dataSize));
    if (buf == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Orch auto sync merge msg failed. malloc fail", hdl->name);
        return 1;
    }
    size_t total = static_cast<size_t>(src->keySize + src->dataSize);
    bool hasData = src->dataSize != 0 && src->data != nullptr;
    auto *bytes = static_cast<uint8_t *>(buf);
    dst->key = bytes;
    dst->data = hasData ? bytes + src->keySize : nullptr;
    if (memcpy_s(bytes, total, src->key, src->keySize) != 0 ||
        (hasData && memcpy_s(dst->data, total - src->keySize, src->data, src->dataSize) != 0)) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Orch auto sync merge msg failed. copy fail", hdl->name);
        hdl->memFree(buf);
        dst->key = nullptr;
        return 1;
    }
    dst->usrData = hdl;
    return 0;
}

// The handler gets the caller's vector as it is: nothing copied or freed.
uint32_t ASOrchMsgNoMerge(ASOrchHandle *hdl, uint32_t mergeType, ASOrchMergeMsgVec *vec) {
    uint32_t path = mergeType == AS_ORCH_MERGE_DAM_DIRECT ? AS_MERGE_PATH_DAM : AS_MERGE_PATH_FES;
    if (ASOrchRecvDispatch(hdl, path, vec) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "[%s] msg proc Not merge failed! msgId:%u, opType:%u", hdl->name,
                            vec->msgId, vec->opType);
        return 1;
    }
    return 0;
}
