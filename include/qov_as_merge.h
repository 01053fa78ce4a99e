/* Orchestrator merge layer: table messages merged per key in the DAM and FES
 * merge queues and dispatched to the orchestrator's handlers.
 *
 * Rules:
 * 1. A queued message's key and data are copied into one buffer taken from the
 *    handle's memAlloc; the queue owns it until a newer message for the same key
 *    replaces it or its handler has run, and then it goes back to memFree.
 * 2. Results: 0 success, 1 failure.
 * 3. Writes into a queue must not overlap its reads: write from the Data thread,
 *    or keep the Data thread from reading meanwhile. Handlers of queued messages
 *    run on the Data thread; direct dispatch (merge type 4 and above) runs them
 *    on the caller's thread. */
#ifndef QOV_AS_MERGE_H
#define QOV_AS_MERGE_H

#include <stddef.h>
#include <stdint.h>
#include "qov_as_log.h"
#include "qov_mergeque.h"

QOV_AS_EXTERN_C_BEGIN

typedef struct ASOrchHandle ASOrchHandle;

/* Merge types: the queue (or direct dispatch table) a message goes to. */
#define AS_ORCH_MERGE_DAM 0u
#define AS_ORCH_MERGE_FES 1u
#define AS_ORCH_MERGE_DAM_TAIL 2u
#define AS_ORCH_MERGE_FES_TAIL 3u
#define AS_ORCH_MERGE_DAM_DIRECT 4u
#define AS_ORCH_MERGE_FES_DIRECT 5u

/* Operation codes; 2 is "1 then 0", 3 the age-info op. */
#define AS_ORCH_OP_NUM 4u

typedef struct ASOrchMergeMsgVec {
    uint32_t msgId;
    uint32_t opType;
    uint8_t *key;
    uint64_t keySize;
    uint8_t *data;
    uint64_t dataSize;
    uint32_t version;
    ASOrchHandle *usrData; /* set by the write path; its memFree frees key */
} ASOrchMergeMsgVec;
QOV_AS_STATIC_ASSERT(sizeof(ASOrchMergeMsgVec) == 56, "ASOrchMergeMsgVec layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchMergeMsgVec, opType) == 4, "ASOrchMergeMsgVec layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchMergeMsgVec, key) == 8, "ASOrchMergeMsgVec layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchMergeMsgVec, keySize) == 16, "ASOrchMergeMsgVec layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchMergeMsgVec, data) == 24, "ASOrchMergeMsgVec layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchMergeMsgVec, dataSize) == 32, "ASOrchMergeMsgVec layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchMergeMsgVec, version) == 40, "ASOrchMergeMsgVec layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchMergeMsgVec, usrData) == 48, "ASOrchMergeMsgVec layout");

/* Handler of a merged message; 0 for success. */
typedef uint32_t (*ASOrchMergeMsgProc)(ASOrchHandle *hdl, ASOrchMergeMsgVec *vec);

typedef struct ASOrchMergeMsgDispatch {
    uint32_t msgId;
    ASOrchMergeMsgProc msgProc[AS_ORCH_OP_NUM]; /* index = opType */
} ASOrchMergeMsgDispatch;
QOV_AS_STATIC_ASSERT(sizeof(ASOrchMergeMsgDispatch) == 40, "ASOrchMergeMsgDispatch layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchMergeMsgDispatch, msgProc) == 8, "ASOrchMergeMsgDispatch layout");

/* Merge sub-record of the base-registration record, one per path. */
typedef struct ASOrchMergePara {
    ASOrchMergeMsgDispatch *dispatchTbl;
    uint64_t dispatchNum;
    uint32_t hashSize;          /* 0: 8192 */
    MergeQueHashFunc hashFunc;  /* required; see ASOrchMergeHashFunc */
    uint32_t highWater;         /* 0: 65536 */
    uint32_t lowWater;          /* 0: 8192 */
} ASOrchMergePara;
QOV_AS_STATIC_ASSERT(sizeof(ASOrchMergePara) == 40, "ASOrchMergePara layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchMergePara, dispatchNum) == 8, "ASOrchMergePara layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchMergePara, hashSize) == 16, "ASOrchMergePara layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchMergePara, hashFunc) == 24, "ASOrchMergePara layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchMergePara, highWater) == 32, "ASOrchMergePara layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchMergePara, lowWater) == 36, "ASOrchMergePara layout");

typedef struct ASOrchMergeRule {
    uint32_t storedOp;
    uint32_t incomingOp;
    uint32_t mergedOp;
} ASOrchMergeRule;
QOV_AS_STATIC_ASSERT(sizeof(ASOrchMergeRule) == 12, "ASOrchMergeRule layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchMergeRule, incomingOp) == 4, "ASOrchMergeRule layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchMergeRule, mergedOp) == 8, "ASOrchMergeRule layout");

QOV_AS_API extern const ASOrchMergeRule g_ASOrchMergeRules[];
QOV_AS_API extern const uint32_t g_ASOrchMergeRulesNum;

/* Queues a message by merge type 0..3, or dispatches it at once for 4 and above. */
QOV_AS_API uint32_t ASOrchMsgMerge(ASOrchHandle *hdl, uint32_t mergeType, ASOrchMergeMsgVec *vec);
/* The merge queue of path 0 (DAM) or 1 (FES), or null. */
QOV_AS_API MergeQueCtrlBlk *ASOrchGetReaderHdl(ASOrchHandle *hdl, uint32_t mergeType);
/* Stops the reading of a path's queue; writes go on filling it. */
QOV_AS_API uint32_t ASOrchMergeBackPress(ASOrchHandle *hdl, uint32_t mergeType);
/* Resumes the reading of a path's queue. */
QOV_AS_API uint32_t ASOrchMergeUnBackPress(ASOrchHandle *hdl, uint32_t mergeType);
/* Bucket of a merge vector for a path's queue (FNV-1a over whole key words). */
QOV_AS_API uint32_t ASOrchMergeHashFunc(ASOrchHandle *hdl, uint32_t mergeType, const ASOrchMergeMsgVec *vec);

QOV_AS_EXTERN_C_END

#endif
