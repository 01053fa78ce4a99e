// Release of a handle's merge records: dispatch tables, queues, the block.
#include "core/base/as_serving.h"
#include "merge/merge_private.h"
#include "mergeque/mergeque_internal.h"

namespace {

// Entries still queued at release own their key/data buffers; hand those back
// before the queue goes, so nothing of the handle's memory stays behind.
uint32_t DropQueuedMsg(void *vec, uint32_t size, void * /*usrData*/) {
    auto *v = static_cast<ASOrchMergeMsgVec *>(vec);
    if (size != sizeof *v || v->key == nullptr || v->usrData == nullptr) return 0;
    v->usrData->memFree(v->key);
    v->key = nullptr;
    return 0;
}

// Takes a path's queue out of the Data thread's epoll set for good and waits
// for a reader dispatch still running there, whatever its handlers press or
// release meanwhile; once both paths are stopped nothing reads the queues,
// their entries or the dispatch tables any more.
void StopReader(ASOrchMergeRec *rec) {
    if (rec->mergeQue != nullptr) QOV_MergeQueStopReader(rec->mergeQue);
}

void FreeMergeRec(ASOrchHandle *hdl, ASOrchMergeRec *rec) {
    if (rec->mergeQue != nullptr) {
        // The drain takes the entries straight out: no signal and no low-water
        // check, so an overloaded queue releases no source while it goes.
        (void)QOV_MergeQueDrain(rec->mergeQue, DropQueuedMsg, nullptr);
        (void)QOV_MergeQueDestory(rec->mergeQue);
    }
    rec->mergeQue = nullptr;
    if (rec->dispatchHash != nullptr) ASOrchFreeDispatchHash(hdl, rec->dispatchHash);
    rec->dispatchHash = nullptr;
    rec->epFd = 0;
    ASOrchMergeSetHashSize(rec, 0);
}

}  // namespace

bool ASOrchMergeReadingHere(const ASOrchHandle *hdl) {
    if (hdl->mergeHandle == nullptr) return false;
    for (ASOrchPath path : AS_PATHS) {
        const MergeQueCtrlBlk *que = ASOrchMergeRecOf(hdl, path)->mergeQue;
        if (que != nullptr && ASOrchServingNow(que)) return true;
    }
    return false;
}

void ASOrchMergeStopReaders(ASOrchHandle *hdl) {
    if (hdl->mergeHandle == nullptr) return;
    for (ASOrchPath path : AS_PATHS) StopReader(ASOrchMergeRecOf(hdl, path));
}

void ASOrchFreeMergeHandle(ASOrchHandle *hdl) {
    if (hdl->mergeHandle == nullptr) return;
    // Both readers stop before anything goes: a reader's handlers may reach
    // the other path through direct dispatch.
    for (ASOrchPath path : AS_PATHS) StopReader(ASOrchMergeRecOf(hdl, path));
    for (ASOrchPath path : AS_PATHS) FreeMergeRec(hdl, ASOrchMergeRecOf(hdl, path));
    hdl->memFree(hdl->mergeHandle);
    hdl->mergeHandle = nullptr;
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "%s, Orch auto sync free merge handle ok.", hdl->name);
}
