// Ground floor of the library: the Orch autosync handle with typed pointers to
// each subsystem's state, and the log levels. It includes no subsystem; every
// floor above includes it.
#ifndef QOV_AS_CORE_HANDLE_H
#define QOV_AS_CORE_HANDLE_H

#include <cstddef>
#include <cstdint>

#include "core/base/as_log_level.h"
#include "qov_as_core.h"
#include "qov_as_log.h"

// Advanced settings of one sync-group kind.
struct ASOrchAdvSynGrp {
    uint32_t verifyInterval;      // 0: default
    ASOrchSyncGrpNotifyFunc notifyFunc;  // null: default
    uint32_t flowCtrlSet;         // 1 when flowCtrl was set
    ASOrchSyncGrpFlowCtl flowCtrl;
};

// Each subsystem's state, defined in its own folder.
struct ASOrchSyncGrpRes;
struct ASOrchMergeRec;

struct ASOrchHandle {
    char name[AS_ORCH_NAME_LEN];
    uint32_t ealCreateWord0;
    uint32_t memPtNo;
    uint32_t ealCreateWord1;
    ASOrchMemAllocFunc memAlloc;
    ASOrchMemFreeFunc memFree;  // non-null marks a live handle
    void *ealHdl;
    ASOrchSyncGrpRes *syncGrpRes;
    ASOrchMergeRec *mergeHandle;  // two merge records: [0] DAM, [1] FES
    uint32_t threadMask;
    ASIntHash *recvTblMsgHash;
    ASIntHash *transTblMsgHash;
    ASOrchAdvSynGrp advSynGrp[AS_ORCH_SYNC_GRP_KIND_NUM];
    uint64_t ondemandParam;
};

// The one layout promise of the opaque handle: the name comes first, so the
// handle may be printed as a string.
static_assert(offsetof(ASOrchHandle, name) == 0);

#endif
