// What the files of the sync groups share: the handle's sync-group resource
// and its checked lookup.
#ifndef QOV_AS_SYNCGRP_PRIVATE_H
#define QOV_AS_SYNCGRP_PRIVATE_H

#include <cstddef>
#include <cstdint>

#include "qov_as_syncgrp.h"
#include "syncgrp/syncgrp_internal.h"

// Which EAL sync-group id each kind got at registration.
struct ASOrchSyncGrpRes {
    uint32_t grpBitmap;  // bit k: kind k configured
    uint32_t grpNum;     // base sync groups registered
    uint32_t grpId[AS_ORCH_SYNC_GRP_KIND_NUM];  // AS_SYNC_GRP_ID_NONE: no group of that kind
};
static_assert(sizeof(ASOrchSyncGrpRes) == 24);

// The handle's resource, or null (logged).
ASOrchSyncGrpRes *ASOrchGroupGetRes(ASOrchHandle *hdl);

#endif
