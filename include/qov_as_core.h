/* Orchestrator core of libqov_autosync_orch: the Orch autosync handle and its
 * lifecycle, the base-registration record, the module registry's small
 * containers and the hot-patch hooks.
 *
 * Rules that hold for every entry point of the library:
 * 1. Memory: the library allocates only through the memAlloc/memFree pair of the
 *    creation record (kept in the handle). Records the caller hands in stay the
 *    caller's and are copied where they are kept.
 * 2. Results: 0 success, 1 failure, unless an entry says a platform result is
 *    passed through; creating operations and lookups return a pointer or null.
 *    Every failure writes one log line (see qov_as_log.h).
 * 3. Null pointers: every entry point tests its pointer arguments and refuses a
 *    null one with a log line; nothing dereferences a null argument.
 * 4. Threads: create, register and destroy on the orchestrator's own thread, one
 *    call at a time across the process (the module registry is unprotected).
 *    Message handling runs on the EAL's Data thread.
 * 5. Destroying: stop feeding a handle before ASOrchDestroy — clear the
 *    receive functions of its channels and its timers (on the host platform
 *    both return only when no call of them is still running) and let no other
 *    thread write into its merge queues or send to its sync groups. The
 *    library's own queue readers it stops itself. */
#ifndef QOV_AS_CORE_H
#define QOV_AS_CORE_H

#include <stddef.h>
#include <stdint.h>
#include "qov_as_log.h"
#include "qov_as_inbound.h"
#include "qov_as_merge.h"
#include "qov_as_syncgrp.h"

QOV_AS_EXTERN_C_BEGIN

/* The Orch autosync handle; opaque. Its first field is the instance name, so
 * the handle itself may be printed as a string. */
typedef struct ASOrchHandle ASOrchHandle;

typedef void *(*ASOrchMemAllocFunc)(uint32_t size);
typedef void (*ASOrchMemFreeFunc)(void *ptr);

#define AS_ORCH_NAME_LEN 16u /* instance names: at most 15 characters */

/* Creation record; read only during ASOrchCreate. */
typedef struct ASOrchCreatePara {
    uint32_t ealCreateWord0;  /* handed to the EAL unchanged */
    uint32_t memPtNo;         /* memory partition of the merge queues */
    ASOrchMemAllocFunc memAlloc;
    ASOrchMemFreeFunc memFree;
    uint32_t ealCreateWord1;  /* handed to the EAL unchanged */
} ASOrchCreatePara;
QOV_AS_STATIC_ASSERT(sizeof(ASOrchCreatePara) == 32, "ASOrchCreatePara layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchCreatePara, memPtNo) == 4, "ASOrchCreatePara layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchCreatePara, memAlloc) == 8, "ASOrchCreatePara layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchCreatePara, memFree) == 16, "ASOrchCreatePara layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchCreatePara, ealCreateWord1) == 24, "ASOrchCreatePara layout");

/* Channel slot k of the base-registration record selects channel kind k. */
typedef struct ASOrchChanSlot {
    uint32_t realServerPort; /* 0: slot not used; low 16 bits: server port, host order */
    uint64_t chanUsrData;    /* copied into the channel parameter record */
} ASOrchChanSlot;
QOV_AS_STATIC_ASSERT(sizeof(ASOrchChanSlot) == 16, "ASOrchChanSlot layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchChanSlot, chanUsrData) == 8, "ASOrchChanSlot layout");

#define AS_ORCH_CHAN_SLOT_NUM 8u

/* Base-registration record: everything an instance needs, read during
 * ASOrchRegBase only; the arrays it points to are copied there. */
typedef struct ASOrchBasePara {
    uint32_t threadMask; /* bit 0 Data (mandatory), bit 1 Sync, bit 2 Event; see ASOrchThreadSet */
    uint64_t modStateRsp;    /* to QOV_EAL_RegModStateRsp */
    uint32_t modStateRspArg; /* to QOV_EAL_RegModStateRsp */
    uint64_t syncGrpMsgSet[AS_ORCH_SYNC_GRP_KIND_NUM]; /* per sync-group kind; kind 0 mandatory */
    uint32_t rsvPortPara0; /* to QOV_EAL_ReservePort */
    uint32_t rsvPortPara1;
    ASOrchChanSlot chan[AS_ORCH_CHAN_SLOT_NUM]; /* kinds 0 DAM, 1 FES, 2 UP, 3 EVT; 4..7 refused */
    ASOrchTblMsgList recvTblMsgList[2];
    ASOrchTblMsgList transTblMsgList[2]; /* [0] DAM path, [1] FES path */
    ASOrchMergePara damMerge;
    ASOrchMergePara fesMerge;
} ASOrchBasePara;
QOV_AS_STATIC_ASSERT(offsetof(ASOrchBasePara, modStateRsp) == 8, "ASOrchBasePara layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchBasePara, modStateRspArg) == 16, "ASOrchBasePara layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchBasePara, syncGrpMsgSet) == 24, "ASOrchBasePara layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchBasePara, rsvPortPara0) == 56, "ASOrchBasePara layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchBasePara, rsvPortPara1) == 60, "ASOrchBasePara layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchBasePara, chan) == 64, "ASOrchBasePara layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchBasePara, recvTblMsgList) == 192, "ASOrchBasePara layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchBasePara, transTblMsgList) == 224, "ASOrchBasePara layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchBasePara, damMerge) == 256, "ASOrchBasePara layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchBasePara, fesMerge) == 296, "ASOrchBasePara layout");
QOV_AS_STATIC_ASSERT(sizeof(ASOrchBasePara) == 336, "ASOrchBasePara layout");

/* Runs the seven registration steps ("RegThread", "ModStateRsp", "SyncGroup",
 * "ReservePort", "channel", "TblMsg", "MergeMQue") in that order and stops at
 * the first that fails; what earlier steps registered stays until
 * ASOrchDestroy. Call it once, after ASOrchCreate and before ASOrchStart. */
QOV_AS_API uint32_t ASOrchRegBase(ASOrchHandle *hdl, const ASOrchBasePara *para);

/* Builds a thread mask from count (1 to 3) distinct kinds given as further
 * u32 arguments (0 Data, 1 Sync, 2 Event; each below 32). 1 and *mask
 * untouched for a bad count, a kind given twice or a kind of 32 or more. */
QOV_AS_API uint32_t ASOrchThreadSet(uint32_t *mask, uint32_t count, ...);

/* ---- Channels ---- */

#define AS_ORCH_CHAN_KIND_NUM 4u /* 0 DAM, 1 FES, 2 UP, 3 EVT */

/* Channel parameter record as the EAL takes it (192 bytes, little-endian). */
typedef struct ASOrchChanPara {
    uint32_t chanIdx;       /* channel kind */
    uint32_t word4;
    char chanName[32];      /* table: the suffix; registered: instance name + suffix */
    uint8_t rsv40[32];
    uint32_t word72;
    uint32_t chanThreadId;  /* 2 Event thread, 0 Data thread */
    uint32_t word80;
    uint32_t rsv84;
    uint32_t (*serverAddrFunc)(void); /* server IPv4 address, network byte order */
    uint64_t word96;
    uint32_t rsv104;
    uint16_t serverPort;    /* network byte order */
    uint16_t rsv110;
    uint64_t rsv112;
    uint32_t word120;
    uint32_t rsv124;
    uint64_t chanUsrData;
    uint8_t rsv136[56];
} ASOrchChanPara;
QOV_AS_STATIC_ASSERT(sizeof(ASOrchChanPara) == 192, "ASOrchChanPara layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchChanPara, word4) == 4, "ASOrchChanPara layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchChanPara, chanName) == 8, "ASOrchChanPara layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchChanPara, word72) == 72, "ASOrchChanPara layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchChanPara, chanThreadId) == 76, "ASOrchChanPara layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchChanPara, word80) == 80, "ASOrchChanPara layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchChanPara, serverAddrFunc) == 88, "ASOrchChanPara layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchChanPara, word96) == 96, "ASOrchChanPara layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchChanPara, serverPort) == 108, "ASOrchChanPara layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchChanPara, word120) == 120, "ASOrchChanPara layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchChanPara, chanUsrData) == 128, "ASOrchChanPara layout");

/* Short names of the channel kinds; entries 4 to 7 are null. */
QOV_AS_API extern const char *const g_ASChannelName[AS_ORCH_CHAN_SLOT_NUM];
/* The parameter record of each channel kind before registration completes it. */
QOV_AS_API extern const ASOrchChanPara g_ASOrchChanParam[AS_ORCH_CHAN_KIND_NUM];
/* Short name of a channel kind ("DAM", "FES", "UP", "EVT"), null otherwise. */
QOV_AS_API const char *ASGetChnlName(uint32_t chanIdx);

/* Creates a handle under a process-unique name; null on failure. */
QOV_AS_API ASOrchHandle *ASOrchCreate(const char *name, const ASOrchCreatePara *para);
/* Initialises the EAL instance. */
QOV_AS_API uint32_t ASOrchInit(ASOrchHandle *hdl);
/* Starts the EAL instance and its threads. */
QOV_AS_API uint32_t ASOrchStart(ASOrchHandle *hdl);
/* Stores the on-demand value and passes it to the EAL; returns the EAL's result. */
QOV_AS_API uint32_t ASOrchSetOndemandParam(ASOrchHandle *hdl, uint64_t value);
/* Tells the EAL that module initialisation is complete; returns its result. */
QOV_AS_API uint32_t ASOrchModInitOk(ASOrchHandle *hdl);
/* Releases everything the handle holds, then the handle; null does nothing.
 * Stop feeding the handle first (rule 5 above). Called from inside one of the
 * handle's own callbacks (a handler, a table or smoothing callback) it is
 * refused with a log line and the handle stays. */
QOV_AS_API void ASOrchDestroy(ASOrchHandle *hdl);
/* The EAL instance of the handle, or null. */
QOV_AS_API void *ASOrchGetEalHdl(ASOrchHandle *hdl);
/* The epoll descriptor of a thread kind (0 Data, 1 Sync, 2 Event). */
QOV_AS_API int32_t ASOrchGetEpollFd(ASOrchHandle *hdl, uint32_t epollIdx);
/* Creates a platform timer in the epoll set of epollIdx. */
QOV_AS_API uint32_t ASOrchTimerInit(ASOrchHandle *hdl, uint32_t timerWord, uint64_t timerVal0,
                                    uint64_t timerVal1, uint32_t epollIdx);

/* ---- Small containers ---- */

/* Intrusive singly linked ring; an empty ring's head links to itself. */
typedef struct ASList {
    struct ASList *next;
} ASList;

/* Node of an integer hash; users embed it as the first member of their record. */
typedef struct ASIntHashNode {
    ASList link;
    uint32_t key;
} ASIntHashNode;

/* Integer hash with chained buckets; one block from the creator's allocator. */
typedef struct ASIntHash {
    uint64_t bucketNum;
    ASList bucket[];
} ASIntHash;

typedef uint32_t (*ASIntHashVisitFunc)(ASIntHashNode *node, void *usrData);

/* Makes head an empty ring. */
QOV_AS_API void ASListInit(ASList *head);
/* Inserts elem at the front of the ring. */
QOV_AS_API void ASListInsert(ASList *head, ASList *elem);
/* Makes a table of bucketNum (at least 1) empty buckets; null on failure. */
QOV_AS_API ASIntHash *ASIntHashCreate(uint64_t bucketNum, ASOrchMemAllocFunc memAlloc);
/* Links node under its key; 1 when the key is already present. */
QOV_AS_API uint32_t ASIntHashAdd(ASIntHash *hash, ASIntHashNode *node);
/* The node with this key, or null. */
QOV_AS_API ASIntHashNode *ASIntHashFind(const ASIntHash *hash, uint32_t key);
/* Visits every node; 1 when the visit function stopped the walk. */
QOV_AS_API uint32_t ASIntHashWalk(ASIntHash *hash, ASIntHashVisitFunc visit, void *usrData);
/* Drops the table; releases nothing (its owner frees the memory). */
QOV_AS_API void ASIntHashDelete(ASIntHash *hash);
/* Writes first then second into dst; 1 (and nothing written) when it does not fit. */
QOV_AS_API uint32_t ASCombineName(char *dst, uint32_t dstSize, const char *first, const char *second);

/* Node of the module registry. */
typedef struct AutoSyncNameNode {
    struct AutoSyncNameNode *next;
    char name[AS_ORCH_NAME_LEN];
} AutoSyncNameNode;

/* Head of the process-wide list of live instance names. */
typedef struct AutoSyncNameHead {
    uint32_t count;
    AutoSyncNameNode *first;
} AutoSyncNameHead;

QOV_AS_API extern AutoSyncNameHead g_AutoSyncCtrlBlkNameHead;

/* ---- Hot-patch hooks ---- */

/* Patch information record of the platform's patch framework. */
typedef struct ASOrchPatchInfo {
    char reserved[397];
    char libName[128]; /* target library, NUL-terminated */
} ASOrchPatchInfo;
QOV_AS_STATIC_ASSERT(sizeof(ASOrchPatchInfo) == 525, "ASOrchPatchInfo layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchPatchInfo, libName) == 397, "ASOrchPatchInfo layout");

/* Activates (0) or deactivates (1) a patch addressed to this library. */
QOV_AS_API uint32_t libqov_autosync_orch_PAT_C2HSyncHookFunc(uint32_t operCode, uint64_t value,
                                                             const ASOrchPatchInfo *info, uint32_t *handled);
QOV_AS_API void libqov_autosync_orch_ResPatchC2hActivefunc(void);
QOV_AS_API void libqov_autosync_orch_ResPatchC2hDeactivefunc(void);
QOV_AS_API void libqov_autosync_orch_ResPatchC2hActive01(void);
QOV_AS_API void libqov_autosync_orch_ResPatchC2hActive02(void);
QOV_AS_API void libqov_autosync_orch_ResPatchC2hDeActive01(void);
QOV_AS_API void libqov_autosync_orch_ResPatchC2hDeActive02(void);

QOV_AS_EXTERN_C_END

#endif
