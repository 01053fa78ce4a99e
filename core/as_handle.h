// Ground floor of the library: the Orch autosync handle with typed pointers to
// each subsystem's state, the module registry, the log levels and the steps of
// creation. It includes no subsystem; subsystems include it.
#ifndef QOV_AS_CORE_HANDLE_H
#define QOV_AS_CORE_HANDLE_H

#include <cstddef>
#include <cstdint>

#include "qov_as_core.h"

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

static_assert(offsetof(ASOrchHandle, name) == 0);
static_assert(offsetof(ASOrchHandle, ealCreateWord0) == 16);
static_assert(offsetof(ASOrchHandle, memPtNo) == 20);
static_assert(offsetof(ASOrchHandle, ealCreateWord1) == 24);
static_assert(offsetof(ASOrchHandle, memAlloc) == 32);
static_assert(offsetof(ASOrchHandle, memFree) == 40);
static_assert(offsetof(ASOrchHandle, ealHdl) == 48);
static_assert(offsetof(ASOrchHandle, syncGrpRes) == 56);
static_assert(offsetof(ASOrchHandle, mergeHandle) == 64);
static_assert(offsetof(ASOrchHandle, threadMask) == 72);
static_assert(offsetof(ASOrchHandle, recvTblMsgHash) == 80);
static_assert(offsetof(ASOrchHandle, transTblMsgHash) == 88);
static_assert(offsetof(ASOrchHandle, advSynGrp) == 96);
static_assert(offsetof(ASOrchAdvSynGrp, notifyFunc) == 8);
static_assert(offsetof(ASOrchAdvSynGrp, flowCtrlSet) == 16);
static_assert(offsetof(ASOrchAdvSynGrp, flowCtrl) == 20);
static_assert(sizeof(ASOrchAdvSynGrp) == 72);
static_assert(offsetof(ASOrchHandle, ondemandParam) == 384);
static_assert(sizeof(ASOrchHandle) == 392);

// Log levels: 0 progress and success, 1 failure.
constexpr uint32_t AS_LOG_INFO = 0;
constexpr uint32_t AS_LOG_ERR = 1;

// Module registry (process-wide, unprotected: callers serialise).
uint32_t AutoSyncNameExisted(const char *name);
uint32_t AutoSyncSetNameNode(AutoSyncNameNode *node, const char *name);
uint32_t AutoSyncAddModule(const char *name, ASOrchMemAllocFunc memAlloc);
void AutoSyncDelModule(const char *name, ASOrchMemFreeFunc memFree);
void AutoSyncDelNode(AutoSyncNameNode *prev, AutoSyncNameNode *node, ASOrchMemFreeFunc memFree);

// Steps of ASOrchCreate.
uint32_t ASNameCreatCheckValid(const char *name, const ASOrchCreatePara *para);
ASOrchHandle *ASOrchMallocHandle(const char *name, const ASOrchCreatePara *para);
ASOrchHandle *ASOrchCreatHandle(const char *name, const ASOrchCreatePara *para);
uint32_t ASOrchCreateEal(ASOrchHandle *hdl);
uint32_t ASOrchGetOrchId(uint32_t *orchId);

#endif
