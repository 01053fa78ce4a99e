/* Sync groups: the per-kind advanced settings that base registration reads,
 * the default sync-group parameters, and the sending of data to the groups.
 *
 * A group is addressed by its kind 0..3 (msgType); base registration gives the
 * configured kinds consecutive EAL ids in kind order. The advanced setters act
 * only when called before ASOrchRegBase. The sending operations may be called
 * from any thread once ASOrchRegBase has returned. */
#ifndef QOV_AS_SYNCGRP_H
#define QOV_AS_SYNCGRP_H

#include <stddef.h>
#include <stdint.h>
#include "qov_as_log.h"
#include "qov_as_merge.h"

QOV_AS_EXTERN_C_BEGIN

/* Number of sync-group kinds (0 to 3). */
#define AS_ORCH_SYNC_GRP_KIND_NUM 4u

/* Flow-control record of a sync group: 48 bytes whose content belongs to the
 * EAL; the library copies it unchanged. */
typedef struct ASOrchSyncGrpFlowCtl {
    uint32_t word[12];
} ASOrchSyncGrpFlowCtl;
QOV_AS_STATIC_ASSERT(sizeof(ASOrchSyncGrpFlowCtl) == 48, "ASOrchSyncGrpFlowCtl layout");

/* Notification function of a sync group, handed to the EAL unchanged. */
typedef void (*ASOrchSyncGrpNotifyFunc)(void);

/* Parameter item of one sync group as the EAL takes it (64 bytes, native byte
 * order). The words the library does not interpret go to the EAL unchanged. */
typedef struct ASOrchSyncGrpItem {
    uint32_t grpId;         /* default table: the kind; registered: the EAL id */
    uint32_t word1;
    uint32_t word2;
    uint32_t logicThreadId; /* 0 Data, 1 Sync, 2 Event thread */
    uint32_t commThreadId;
    uint32_t word5;
    uint32_t word6;
    uint32_t word7;
    uint32_t word8;
    uint32_t word9;
    uint32_t verifyInterval;
    uint32_t word11;
    uint32_t word12;
    uint32_t word13;
    ASOrchSyncGrpNotifyFunc notifyFunc;
} ASOrchSyncGrpItem;
QOV_AS_STATIC_ASSERT(sizeof(ASOrchSyncGrpItem) == 64, "ASOrchSyncGrpItem layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchSyncGrpItem, logicThreadId) == 12, "ASOrchSyncGrpItem layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchSyncGrpItem, commThreadId) == 16, "ASOrchSyncGrpItem layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchSyncGrpItem, word6) == 24, "ASOrchSyncGrpItem layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchSyncGrpItem, verifyInterval) == 40, "ASOrchSyncGrpItem layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchSyncGrpItem, word13) == 52, "ASOrchSyncGrpItem layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchSyncGrpItem, notifyFunc) == 56, "ASOrchSyncGrpItem layout");

/* The default items of kinds 0 to 3, in kind order. */
QOV_AS_API extern const ASOrchSyncGrpItem g_qovOrchAutoSyncGrpParam[AS_ORCH_SYNC_GRP_KIND_NUM];

/* One element of the array that ASOrchMergeSyncGrpDatas works through. */
typedef struct ASOrchSyncGrpData {
    uint8_t *data;   /* one table entry: key and data of the message */
    uint32_t rsv;    /* not read */
    uint32_t result; /* AS_ORCH_SYNC_DATA_REFUSED until accepted, then 0 */
} ASOrchSyncGrpData;
QOV_AS_STATIC_ASSERT(sizeof(ASOrchSyncGrpData) == 16, "ASOrchSyncGrpData layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchSyncGrpData, rsv) == 8, "ASOrchSyncGrpData layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchSyncGrpData, result) == 12, "ASOrchSyncGrpData layout");

#define AS_ORCH_SYNC_DATA_REFUSED 0x00010004u

/* Advanced settings of one kind; 1 (nothing stored) for a kind above 3 or a
 * null handle or record. A verify interval of 0 and a null notify function
 * keep the defaults. */
QOV_AS_API uint32_t ASOrchAdvSetSynGrpVerifyInterVal(ASOrchHandle *hdl, uint32_t kind, uint32_t interval);
QOV_AS_API uint32_t ASOrchAdvSetSynGrpNotifyFunc(ASOrchHandle *hdl, uint32_t kind, ASOrchSyncGrpNotifyFunc func);
QOV_AS_API uint32_t ASOrchAdvSetSynGrpFlowCtrl(ASOrchHandle *hdl, uint32_t kind, const ASOrchSyncGrpFlowCtl *flowCtrl);

/* Sends count units of data (the EAL's message format) to the group of a kind;
 * the EAL's result, or 1 when the kind has no group. */
QOV_AS_API uint32_t ASOrchSyncBatchMsg(ASOrchHandle *hdl, uint32_t msgType, void *data, uint32_t count);
/* ASOrchSyncBatchMsg with a count of 1. */
QOV_AS_API uint32_t ASOrchSyncMsg(ASOrchHandle *hdl, uint32_t msgType, void *data);
/* Sends to the index-th group numbered after the base groups; the EAL's
 * result, or 1 before base registration. */
QOV_AS_API uint32_t ASOrchSyncMsgToGrp(ASOrchHandle *hdl, uint32_t index, void *data);
/* The EAL's readiness answer for the group of a kind; 0 when it has no group. */
QOV_AS_API uint32_t ASOrchSyncIsSyncReadyOnlyTarn(ASOrchHandle *hdl, uint32_t msgType);
/* Hands each item's entry, through the template vector (key and data set to
 * the item's bytes, the rest as the caller filled it), to ASOrchMsgMerge with
 * mergeType; each item's result word tells whether it was accepted. */
QOV_AS_API void ASOrchMergeSyncGrpDatas(uint32_t count, ASOrchSyncGrpData *items, ASOrchMergeMsgVec *tmpl,
                                        uint32_t mergeType, ASOrchHandle *hdl);

QOV_AS_EXTERN_C_END

#endif
