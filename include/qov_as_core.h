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
 *    Message handling runs on the EAL's Data thread. */
#ifndef QOV_AS_CORE_H
#define QOV_AS_CORE_H

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

/* Channel slot k of the base-registration record selects channel kind k. */
typedef struct ASOrchChanSlot {
    uint32_t realServerPort; /* 0: slot not used; low 16 bits: server port */
    uint64_t chanUsrData;
} ASOrchChanSlot;

#define AS_ORCH_CHAN_SLOT_NUM 8u

/* Base-registration record: everything an instance needs, read during
 * registration only. */
typedef struct ASOrchBasePara {
    uint32_t threadMask; /* bit 0 Data (mandatory), bit 1 Sync, bit 2 Event */
    uint64_t modStateRsp;
    uint32_t modStateRspArg;
    uint64_t syncGrpMsgSet[AS_ORCH_SYNC_GRP_KIND_NUM]; /* kind 0 mandatory */
    uint32_t rsvPortPara0;
    uint32_t rsvPortPara1;
    ASOrchChanSlot chan[AS_ORCH_CHAN_SLOT_NUM];
    ASOrchTblMsgList recvTblMsgList[2];
    ASOrchTblMsgList transTblMsgList[2]; /* [0] DAM path, [1] FES path */
    ASOrchMergePara damMerge;
    ASOrchMergePara fesMerge;
} ASOrchBasePara;

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
/* Releases everything the handle holds, then the handle; null does nothing. */
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
