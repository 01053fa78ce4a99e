// Step "SyncGroup" of base registration: the handle's sync-group resource, the
// configured kinds registered under consecutive EAL ids, their message sets
// and their flow control.
#include <cstring>

#include "qov_utils_eal.h"
#include "syncgrp/syncgrp_private.h"

// The library's items and flow-control records are handed to the EAL by address.
static_assert(sizeof(QOV_EAL_SyncGrpItem) == sizeof(ASOrchSyncGrpItem));
static_assert(offsetof(QOV_EAL_SyncGrpItem, logicThreadId) == offsetof(ASOrchSyncGrpItem, logicThreadId));
static_assert(offsetof(QOV_EAL_SyncGrpItem, commThreadId) == offsetof(ASOrchSyncGrpItem, commThreadId));
static_assert(offsetof(QOV_EAL_SyncGrpItem, verifyInterval) == offsetof(ASOrchSyncGrpItem, verifyInterval));
static_assert(offsetof(QOV_EAL_SyncGrpItem, notifyFunc) == offsetof(ASOrchSyncGrpItem, notifyFunc));
static_assert(sizeof(QOV_EAL_SyncGrpFlowCtl) == sizeof(ASOrchSyncGrpFlowCtl));

namespace {

constexpr uint32_t kKinds = AS_ORCH_SYNC_GRP_KIND_NUM;
constexpr uint32_t kItemsSize = sizeof(ASOrchSyncGrpItem) * kKinds;

// Flow control of kind 0 when the orchestrator set none.
constexpr ASOrchSyncGrpFlowCtl kDefaultFlowCtl = {{0, 0, 0, 0, 0, 0, 65536, 51200, 25600, 0, 0, 0}};

// Four zeroed items from the handle's allocator, or null.
ASOrchSyncGrpItem *AllocItems(ASOrchHandle *hdl) {
    void *p = hdl->memAlloc(kItemsSize);
    if (p == nullptr) return nullptr;
    if (memset_s(p, kItemsSize, 0, kItemsSize) != 0) {
        hdl->memFree(p);
        return nullptr;
    }
    return static_cast<ASOrchSyncGrpItem *>(p);
}

const QOV_EAL_SyncGrpFlowCtl *EalFlowCtl(const ASOrchSyncGrpFlowCtl *f) {
    return reinterpret_cast<const QOV_EAL_SyncGrpFlowCtl *>(f);
}

uint32_t ASOrchMallocGrpRes(ASOrchHandle *hdl) {
    if (hdl->syncGrpRes != nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "%s, Register Orch autosync syncGrpRes exist", hdl->name);
        return 0;
    }
    auto *res = static_cast<ASOrchSyncGrpRes *>(hdl->memAlloc(sizeof(ASOrchSyncGrpRes)));
    if (res == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Register Orch autosync malloc syncGrpRes fail", hdl->name);
        return 1;
    }
    *res = ASOrchSyncGrpRes{0, 0, {AS_SYNC_GRP_ID_NONE, AS_SYNC_GRP_ID_NONE, AS_SYNC_GRP_ID_NONE, AS_SYNC_GRP_ID_NONE}};
    hdl->syncGrpRes = res;
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "%s, Register Orch autosync malloc syncGrpRes ok", hdl->name);
    return 0;
}

void ASOrchSetUserDefSyncGrpPara(ASOrchHandle *hdl, ASOrchSyncGrpItem *items) {
    for (uint32_t k = 0; k < kKinds; ++k) {
        const ASOrchAdvSynGrp &adv = hdl->advSynGrp[k];
        if (adv.verifyInterval != 0) items[k].verifyInterval = adv.verifyInterval;
        if (adv.notifyFunc != nullptr) items[k].notifyFunc = adv.notifyFunc;
    }
}

// Without an Event thread every group's logic runs on the Data thread.
void ASOrchResetBaseLogicThd(ASOrchSyncGrpItem *items, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) items[i].logicThreadId = QOV_EAL_THREAD_DATA;
}

// Without a Sync thread communication runs where the logic runs.
void ASOrchResetBaseCommThd(ASOrchSyncGrpItem *items, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) items[i].commThreadId = items[i].logicThreadId;
}

ASOrchSyncGrpItem *ASOrchGetBaseSynGrpPara(ASOrchHandle *hdl, const ASOrchBasePara *para) {
    ASOrchSyncGrpItem *work = AllocItems(hdl);
    if (work == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "malloc SyncGroup Fail.");
        return nullptr;
    }
    for (uint32_t k = 0; k < kKinds; ++k) work[k] = g_qovOrchAutoSyncGrpParam[k];
    ASOrchSetUserDefSyncGrpPara(hdl, work);
    if ((para->threadMask & AS_THREAD_BIT_EVENT) == 0) ASOrchResetBaseLogicThd(work, kKinds);
    if ((para->threadMask & AS_THREAD_BIT_SYNC) == 0) ASOrchResetBaseCommThd(work, kKinds);
    return work;
}

uint32_t ASOrchGetSynGrpBitmap(ASOrchSyncGrpRes *res, const uint64_t msgSet[AS_ORCH_SYNC_GRP_KIND_NUM]) {
    if (msgSet[0] == 0) return 1;
    uint32_t bits = 1;
    for (uint32_t k = 1; k < kKinds; ++k)
        if (msgSet[k] != 0) bits |= 1u << k;
    res->grpBitmap |= bits;
    return 0;
}

void ASOrchSetGrpItem(ASOrchSyncGrpItem *out, const ASOrchSyncGrpItem *src, uint32_t *counter) {
    *out = *src;
    out->grpId = *counter;
    ++*counter;
}

void ASOrchSetSynGrpBase(ASOrchSyncGrpRes *res, const ASOrchSyncGrpItem *items, uint32_t count,
                         ASOrchSyncGrpItem *out, uint32_t *counter) {
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t kind = items[i].grpId;  // the default table's id is the kind
        if (kind >= kKinds || (res->grpBitmap & (1u << kind)) == 0) continue;
        res->grpId[kind] = *counter;
        ASOrchSetGrpItem(&out[*counter], &items[i], counter);
    }
    res->grpNum = *counter;
}

uint32_t ASOrchSetBaseSynGrpPara(ASOrchHandle *hdl, const ASOrchBasePara *para, ASOrchSyncGrpItem **items,
                                 uint32_t *count) {
    ASOrchSyncGrpItem *out = AllocItems(hdl);
    if (out == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, malloc SyncGroup Fail.", hdl->name);
        return 1;
    }
    ASOrchSyncGrpItem *work = ASOrchGetBaseSynGrpPara(hdl, para);
    if (work == nullptr) {
        hdl->memFree(out);
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, GetBaseSynGrpPara Fail.", hdl->name);
        return 1;
    }
    if (ASOrchGetSynGrpBitmap(hdl->syncGrpRes, para->syncGrpMsgSet) != 0) {
        hdl->memFree(work);
        hdl->memFree(out);
        return 1;
    }
    uint32_t counter = 0;
    ASOrchSetSynGrpBase(hdl->syncGrpRes, work, kKinds, out, &counter);
    hdl->memFree(work);
    *items = out;
    *count = counter;
    return 0;
}

uint32_t ASOrchSyncGroupRegister(void *ealHdl, const ASOrchSyncGrpItem *items, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i)
        QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "Sync group id %u set ok. logicThreadId = %u, commThreadId = %u",
                            items[i].grpId, items[i].logicThreadId, items[i].commThreadId);
    if (QOV_EAL_RegSyncGroup(ealHdl, reinterpret_cast<const QOV_EAL_SyncGrpItem *>(items), count) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "QOV_EAL reg SyncGroup Fail.");
        return 1;
    }
    return 0;
}

uint32_t ASOrchSyncGrpSetBase(ASOrchHandle *hdl, const ASOrchBasePara *para) {
    ASOrchSyncGrpItem *items = nullptr;
    uint32_t count = 0;
    if (ASOrchSetBaseSynGrpPara(hdl, para, &items, &count) != 0 || items == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "Calc SyncGroup Fail.");
        return 1;
    }
    if (ASOrchSyncGroupRegister(hdl->ealHdl, items, count) != 0)
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Sync group set base group fail.", hdl->name);
    else
        QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "%s, Sync group set base group ok.", hdl->name);
    hdl->memFree(items);
    return 0;  // the EAL's refusal is logged; the ids stay as assigned
}

uint32_t ASOrchSyncGrpMsgSetBase(ASOrchHandle *hdl, const ASOrchBasePara *para) {
    const ASOrchSyncGrpRes *res = hdl->syncGrpRes;
    for (uint32_t k = 0; k < kKinds; ++k) {
        if (para->syncGrpMsgSet[k] == 0) continue;
        if (QOV_EAL_RegSyncGrpMsgSet(hdl->ealHdl, res->grpId[k], para->syncGrpMsgSet[k]) != 0) {
            QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, syncGrpId = %u, auto sync reg SyncGroupMsgSet Fail.", hdl->name,
                                res->grpId[k]);
            return 1;
        }
        QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "%s, syncGrpId = %u, auto sync register SyncGroupMsgSet ok.", hdl->name,
                            res->grpId[k]);
    }
    return 0;
}

uint32_t ASOrchSetSynGrpFlowCtrl(ASOrchHandle *hdl) {
    const ASOrchSyncGrpRes *res = hdl->syncGrpRes;
    const ASOrchAdvSynGrp *adv = hdl->advSynGrp;
    const ASOrchSyncGrpFlowCtl *kind0 = adv[0].flowCtrlSet == 1 ? &adv[0].flowCtrl : &kDefaultFlowCtl;
    uint32_t ret = QOV_EAL_SetSyncGrpFlowCtl(hdl->ealHdl, res->grpId[0], EalFlowCtl(kind0));
    for (uint32_t k = 1; k < kKinds; ++k) {
        if (adv[k].flowCtrlSet != 1 || res->grpId[k] == AS_SYNC_GRP_ID_NONE) continue;
        ret = QOV_EAL_SetSyncGrpFlowCtl(hdl->ealHdl, res->grpId[k], EalFlowCtl(&adv[k].flowCtrl));
    }
    return ret;
}

}  // namespace

uint32_t ASOrchRegSyncGrpBase(ASOrchHandle *hdl, const ASOrchBasePara *para) {
    if (ASOrchMallocGrpRes(hdl) != 0) return 1;
    if (ASOrchSyncGrpSetBase(hdl, para) != 0 || ASOrchSyncGrpMsgSetBase(hdl, para) != 0) {
        ASOrchFreeGrpRes(hdl);
        return 1;
    }
    (void)ASOrchSetSynGrpFlowCtrl(hdl);  // flow control is the EAL's advice; its refusal fails nothing
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "%s, Orch auto sync Register SyncGroup base ok.", hdl->name);
    return 0;
}
