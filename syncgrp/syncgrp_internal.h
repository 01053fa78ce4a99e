// Internal interface of the sync groups: the handle's sync-group resource and
// the lookups that other subsystems address the groups through.
#ifndef QOV_AS_SYNCGRP_INTERNAL_H
#define QOV_AS_SYNCGRP_INTERNAL_H

#include <cstdint>

#include "core/as_handle.h"

constexpr uint32_t AS_SYNC_GRP_ID_NONE = 0xFFFFFFFFu;

// Which EAL sync-group id each kind got at registration.
struct ASOrchSyncGrpRes {
    uint32_t grpBitmap;  // bit k: kind k configured
    uint32_t grpNum;     // base sync groups registered
    uint32_t grpId[AS_ORCH_SYNC_GRP_KIND_NUM];  // AS_SYNC_GRP_ID_NONE: no group of that kind
};
static_assert(sizeof(ASOrchSyncGrpRes) == 24);

// Release of the handle's resource (nothing when null; the field is cleared).
void ASOrchFreeGrpRes(ASOrchHandle *hdl);
// The handle's resource, or null (logged).
ASOrchSyncGrpRes *ASOrchGroupGetRes(ASOrchHandle *hdl);
// The EAL id of a kind's group, or AS_SYNC_GRP_ID_NONE.
uint32_t ASOrchGetSyncGrpId(ASOrchHandle *hdl, uint32_t kind);

#endif
