// What other folders of the library ask of the merge layer beyond its
// exported operations: the "MergeMQue" step of base registration, and the
// stop and release that ASOrchDestroy runs.
#ifndef QOV_AS_MERGE_INTERNAL_H
#define QOV_AS_MERGE_INTERNAL_H

#include <cstdint>

#include "core/base/as_handle.h"
#include "core/base/as_consts.h"

// Step "MergeMQue": the merge record, dispatch table, queue and monitor of
// each configured path. pressGrpId is the sync group that a queue over its
// high water back-presses outside the MB role (AS_SYNC_GRP_ID_NONE: none, and
// the monitor logs its failure). On failure the handle's whole merge state
// goes and 1 is returned.
uint32_t ASOrchRegMerge(ASOrchHandle *hdl, const ASOrchBasePara *para, uint32_t pressGrpId);

// Takes both queues out of the Data thread's epoll set, waiting for a reader
// still running there; after it no reader or monitor of the handle runs.
void ASOrchMergeStopReaders(ASOrchHandle *hdl);

// Releases the merge records with their queues and dispatch tables (nothing
// when mergeHandle is null; the field is cleared after).
void ASOrchFreeMergeHandle(ASOrchHandle *hdl);

#endif
