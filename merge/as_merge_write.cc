// Write side: messages into the path's merge queue (merge types 0..3) or
// straight to the path's handlers (4 and above). The merge type becomes a
// path here, once.
#include "merge/merge_private.h"

namespace {

// What a merge type asks for: the path, and whether the message is queued
// (and then whether a merged entry moves to the tail) or dispatched at once.
struct MergeRoute {
    ASOrchPath path;
    bool queued;
    uint32_t moveToTail;
};

MergeRoute RouteOf(uint32_t mergeType) {
    if (mergeType >= AS_ORCH_MERGE_DAM_DIRECT)
        return {mergeType == AS_ORCH_MERGE_DAM_DIRECT ? ASOrchPath::DAM : ASOrchPath::FES, false, 0};
    const bool fes = mergeType == AS_ORCH_MERGE_FES || mergeType == AS_ORCH_MERGE_FES_TAIL;
    return {fes ? ASOrchPath::FES : ASOrchPath::DAM, true, mergeType >= AS_ORCH_MERGE_DAM_TAIL ? 1u : 0u};
}

// One buffer of keySize + dataSize bytes, key first and data right behind
// it. Sizes that cannot be allocated in one u32 request are refused like a
// failed allocation. Data is copied only when there is some (a non-zero size
// and a pointer); otherwise data is cleared so no handler sees a dangling
// caller pointer.
uint32_t MsgVecCopyAlloc(ASOrchHandle *hdl, const ASOrchMergeMsgVec *src, ASOrchMergeMsgVec *dst) {
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

uint32_t WriteMsgMerge(ASOrchHandle *hdl, MergeQueCtrlBlk *que, const ASOrchMergeMsgVec *vec, uint32_t moveToTail) {
    if (vec->keySize == 0 || vec->key == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Orch auto sync merge msg failed. key size is %u", hdl->name,
                            static_cast<uint32_t>(vec->keySize));
        return 1;
    }
    ASOrchMergeMsgVec copy = *vec;
    copy.usrData = nullptr;
    if (MsgVecCopyAlloc(hdl, vec, &copy) != 0) return 1;
    // The vector is its own key: the queue hashes and compares it whole.
    if (QOV_MergeQueWrite(que, &copy, &copy, moveToTail) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Orch auto sync merge msg failed. write mqueue fail", hdl->name);
        hdl->memFree(copy.key);
        return 1;
    }
    return 0;
}

uint32_t MsgMergeInner(ASOrchHandle *hdl, const MergeRoute &route, const ASOrchMergeMsgVec *vec) {
    if (hdl->mergeHandle == nullptr) return 1;
    MergeQueCtrlBlk *que = ASOrchMergeRecOf(hdl, route.path)->mergeQue;
    if (que == nullptr) return 1;
    return WriteMsgMerge(hdl, que, vec, route.moveToTail);
}

// The handler gets the caller's vector as it is: nothing copied or freed.
uint32_t MsgNoMerge(ASOrchHandle *hdl, ASOrchPath path, ASOrchMergeMsgVec *vec) {
    if (ASOrchRecvDispatch(hdl, path, vec) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "[%s] msg proc Not merge failed! msgId:%u, opType:%u", hdl->name,
                            vec->msgId, vec->opType);
        return 1;
    }
    return 0;
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
    const MergeRoute route = RouteOf(mergeType);
    return route.queued ? MsgMergeInner(hdl, route, vec) : MsgNoMerge(hdl, route.path, vec);
}
