// What other folders of the library ask of the sync groups beyond their
// exported operations: the "SyncGroup" step of base registration, the
// release that ASOrchDestroy runs, and the EAL id of a kind's group.
#ifndef QOV_AS_SYNCGRP_INTERNAL_H
#define QOV_AS_SYNCGRP_INTERNAL_H

#include <cstdint>

#include "core/base/as_consts.h"
#include "core/base/as_handle.h"

// Step "SyncGroup": the handle's sync-group resource, the configured kinds
// registered under consecutive EAL ids, their message sets and their flow
// control. 1 on failure, and the resource is released.
uint32_t ASOrchRegSyncGrpBase(ASOrchHandle *hdl, const ASOrchBasePara *para);

// Release of the handle's resource (nothing when null; the field is cleared).
void ASOrchFreeGrpRes(ASOrchHandle *hdl);

// The EAL id of a kind's group, or AS_SYNC_GRP_ID_NONE (logged when the
// handle has no resource).
uint32_t ASOrchGetSyncGrpId(ASOrchHandle *hdl, uint32_t kind);

#endif
