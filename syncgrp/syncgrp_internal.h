// Internal interface of the sync groups: the handle's sync-group resource, the
// step "SyncGroup" with its parts, and the lookups that other subsystems
// address the groups through.
#ifndef QOV_AS_SYNCGRP_INTERNAL_H
#define QOV_AS_SYNCGRP_INTERNAL_H

#include <cstddef>
#include <cstdint>

#include "core/base/as_handle.h"
#include "qov_as_syncgrp.h"

#include "core/base/as_consts.h"

// Which EAL sync-group id each kind got at registration.
struct ASOrchSyncGrpRes {
    uint32_t grpBitmap;  // bit k: kind k configured
    uint32_t grpNum;     // base sync groups registered
    uint32_t grpId[AS_ORCH_SYNC_GRP_KIND_NUM];  // AS_SYNC_GRP_ID_NONE: no group of that kind
};
static_assert(sizeof(ASOrchSyncGrpRes) == 24);

// Step "SyncGroup" of base registration.
uint32_t ASOrchRegSyncGrpBase(ASOrchHandle *hdl, const ASOrchBasePara *para);
uint32_t ASOrchMallocGrpRes(ASOrchHandle *hdl);
uint32_t ASOrchSyncGrpSetBase(ASOrchHandle *hdl, const ASOrchBasePara *para);
uint32_t ASOrchSetBaseSynGrpPara(ASOrchHandle *hdl, const ASOrchBasePara *para, ASOrchSyncGrpItem **items,
                                 uint32_t *count);
ASOrchSyncGrpItem *ASOrchGetBaseSynGrpPara(ASOrchHandle *hdl, const ASOrchBasePara *para);
void ASOrchSetUserDefSyncGrpPara(ASOrchHandle *hdl, ASOrchSyncGrpItem *items);
void ASOrchResetBaseLogicThd(ASOrchSyncGrpItem *items, uint32_t count);
void ASOrchResetBaseCommThd(ASOrchSyncGrpItem *items, uint32_t count);
uint32_t ASOrchGetSynGrpBitmap(ASOrchSyncGrpRes *res, const uint64_t msgSet[AS_ORCH_SYNC_GRP_KIND_NUM]);
void ASOrchSetSynGrpBase(ASOrchSyncGrpRes *res, const ASOrchSyncGrpItem *items, uint32_t count,
                         ASOrchSyncGrpItem *out, uint32_t *counter);
void ASOrchSetGrpItem(ASOrchSyncGrpItem *out, const ASOrchSyncGrpItem *src, uint32_t *counter);
uint32_t ASOrchSyncGroupRegister(void *ealHdl, const ASOrchSyncGrpItem *items, uint32_t count);
uint32_t ASOrchSyncGrpMsgSetBase(ASOrchHandle *hdl, const ASOrchBasePara *para);
uint32_t ASOrchSetSynGrpFlowCtrl(ASOrchHandle *hdl);

// Release of the handle's resource (nothing when null; the field is cleared).
void ASOrchFreeGrpRes(ASOrchHandle *hdl);
// The handle's resource, or null (logged).
ASOrchSyncGrpRes *ASOrchGroupGetRes(ASOrchHandle *hdl);
// The EAL id of a kind's group, or AS_SYNC_GRP_ID_NONE.
uint32_t ASOrchGetSyncGrpId(ASOrchHandle *hdl, uint32_t kind);

#endif
