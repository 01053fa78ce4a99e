// Write side: messages into the path's merge queue (merge types 0..3) or
// straight to the path's handlers (4 and above). The merge type becomes a
// target here, once per call or once for a whole run of messages.
#include "core/base/as_bytes.h"
#include "core/base/as_serving.h"
#include "merge/merge_private.h"

namespace {

// One buffer of keySize + dataSize bytes, key first and data right behind
// it. Sizes that cannot be allocated in one u32 request are refused like a
// failed allocation. Data is copied only when there is some (a non-zero size
// and a pointer); otherwise data is cleared so no handler sees a dangling
// caller pointer. Sizes were checked against the buffer, so the copies are
// bounded by construction.
uint32_t MsgVecCopyAlloc(ASOrchHandle *hdl, const ASOrchMergeMsgVec *src, ASOrchMergeMsgVec *dst) {
    void *buf = nullptr;
    if (src->keySize <= UINT32_MAX && src->dataSize <= UINT32_MAX - src->keySize)
        buf = hdl->memAlloc(static_cast<uint32_t>(src->keySize + src->dataSize));
    if (buf == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Orch auto sync merge msg failed. malloc fail", hdl->name);
        return 1;
    }
    auto *bytes = static_cast<uint8_t *>(buf);
    ASCopyBytes(bytes, src->key, static_cast<size_t>(src->keySize));
    dst->key = bytes;
    dst->data = nullptr;
    if (src->dataSize != 0 && src->data != nullptr) {
        dst->data = bytes + src->keySize;
        ASCopyBytes(dst->data, src->data, static_cast<size_t>(src->dataSize));
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
    if (MsgVecCopyAlloc(hdl, vec, &copy) != 0) return 1;
    // The vector is its own key: the queue hashes and compares it whole.
    if (QOV_MergeQueWrite(que, &copy, &copy, moveToTail) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Orch auto sync merge msg failed. write mqueue fail", hdl->name);
        hdl->memFree(copy.key);
        return 1;
    }
    return 0;
}

// The handler gets the caller's vector as it is: nothing copied or freed.
uint32_t MsgNoMerge(ASOrchHandle *hdl, ASOrchPath path, ASOrchMergeMsgVec *vec) {
    ASOrchServingScope serving(hdl);
    if (ASOrchRecvDispatch(hdl, path, vec) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "[%s] msg proc Not merge failed! msgId:%u, opType:%u", hdl->name,
                            vec->msgId, vec->opType);
        return 1;
    }
    return 0;
}

}  // namespace

// Types 0..3 are queued (2 and 3 move a merged entry to the tail), 4 goes to
// the DAM handlers at once and every higher type to the FES handlers.
ASOrchMergeTarget ASOrchMergeTargetOf(const ASOrchHandle *hdl, uint32_t mergeType) {
    if (mergeType >= AS_ORCH_MERGE_DAM_DIRECT)
        return {mergeType == AS_ORCH_MERGE_DAM_DIRECT ? ASOrchPath::DAM : ASOrchPath::FES, false, 0, nullptr};
    const bool fes = mergeType == AS_ORCH_MERGE_FES || mergeType == AS_ORCH_MERGE_FES_TAIL;
    ASOrchMergeTarget t{fes ? ASOrchPath::FES : ASOrchPath::DAM, true,
                        mergeType >= AS_ORCH_MERGE_DAM_TAIL ? 1u : 0u, nullptr};
    if (hdl->mergeHandle != nullptr) t.que = ASOrchMergeRecOf(hdl, t.path)->mergeQue;
    return t;
}

// A queued type without a queue (no merge records, or the path has none)
// fails without a line.
uint32_t ASOrchMergeTo(ASOrchHandle *hdl, const ASOrchMergeTarget *target, ASOrchMergeMsgVec *vec) {
    if (!target->queued) return MsgNoMerge(hdl, target->path, vec);
    if (target->que == nullptr) return 1;
    return WriteMsgMerge(hdl, target->que, vec, target->moveToTail);
}

extern "C" QOV_AS_API uint32_t ASOrchMsgMerge(ASOrchHandle *hdl, uint32_t mergeType, ASOrchMergeMsgVec *vec) {
    if (hdl == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "Orch autosync send merge msg handle is NULL");
        return 1;
    }
    if (vec == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Orch autosync send merge msg vec is NULL", hdl->name);
        return 1;
    }
    const ASOrchMergeTarget target = ASOrchMergeTargetOf(hdl, mergeType);
    return ASOrchMergeTo(hdl, &target, vec);
}
