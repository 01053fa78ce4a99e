// What other folders of the library ask of the merge layer beyond its
// exported operations: the write of many messages of one merge type, the
// "MergeMQue" step of base registration, and the stop and release that
// ASOrchDestroy runs.
#ifndef QOV_AS_MERGE_INTERNAL_H
#define QOV_AS_MERGE_INTERNAL_H

#include <cstdint>

#include "core/base/as_consts.h"
#include "core/base/as_handle.h"
#include "core/base/as_path.h"
#include "qov_as_merge.h"

// Where the messages of one merge type go: a path's queue (que, or null when
// the path has none) or, for the direct types, the path's handlers at once.
// Decided once for a run of messages; only the writes follow.
struct ASOrchMergeTarget {
    ASOrchPath path;
    bool queued;
    uint32_t moveToTail;
    MergeQueCtrlBlk *que;
};

// The target of a merge type on this handle, as ASOrchMsgMerge decides it.
ASOrchMergeTarget ASOrchMergeTargetOf(const ASOrchHandle *hdl, uint32_t mergeType);

// ASOrchMsgMerge of one message to a target found above, on the same
// handle: the same copy, write, dispatch, results and lines.
uint32_t ASOrchMergeTo(ASOrchHandle *hdl, const ASOrchMergeTarget *target, ASOrchMergeMsgVec *vec);

// Step "MergeMQue": the merge record, dispatch table, queue and monitor of
// each configured path. pressGrpId is the sync group that a queue over its
// high water back-presses outside the MB role (AS_SYNC_GRP_ID_NONE: none, and
// the monitor logs its failure). On failure the handle's whole merge state
// goes and 1 is returned.
uint32_t ASOrchRegMerge(ASOrchHandle *hdl, const ASOrchBasePara *para, uint32_t pressGrpId);

// Whether this thread is inside a read of one of the handle's queues.
bool ASOrchMergeReadingHere(const ASOrchHandle *hdl);

// Takes both queues out of the Data thread's epoll set, waiting for a reader
// still running there; after it no reader or monitor of the handle runs.
void ASOrchMergeStopReaders(ASOrchHandle *hdl);

// Releases the merge records with their queues and dispatch tables (nothing
// when mergeHandle is null; the field is cleared after).
void ASOrchFreeMergeHandle(ASOrchHandle *hdl);

#endif
