// What the files of the merge layer share: the per-path merge record, the
// dispatch node, the key functions the queues are created with, and the steps
// one file hands to another. Inside the layer a record is found by its path,
// never by a merge type.
#ifndef QOV_AS_MERGE_PRIVATE_H
#define QOV_AS_MERGE_PRIVATE_H

#include <cstdint>

#include "core/base/as_handle.h"
#include "core/base/as_path.h"
#include "merge/merge_internal.h"
#include "qov_as_merge.h"
#include "qov_mergeque.h"
#include "qov_utils_base.h"

constexpr uint32_t AS_MERGE_DEF_HASH_SIZE = 8192;  // queue buckets when hashSize is 0

// One path's merge state; the handle's mergeHandle holds AS_PATH_NUM of them.
struct ASOrchMergeRec {
    int32_t epFd;
    MergeQueCtrlBlk *mergeQue;
    uint32_t hashSize;
    uint64_t hashMagic;  // ceil(2^64 / hashSize): the bucket is taken without a division
    ASIntHash *dispatchHash;
    uint32_t pressGrpId;  // sync group the monitor back-presses outside the MB role
};

// A dispatch table node: the hash link and a copy of the caller's entry.
struct ASOrchMergeDispatchNode {
    ASIntHashNode node;
    ASOrchMergeMsgDispatch entry;
};

// Bucket count of a path's queue: the sub-record's, or the default when 0.
inline uint32_t ASOrchMergeHashSize(const ASOrchMergePara *para) {
    return para->hashSize != 0 ? para->hashSize : AS_MERGE_DEF_HASH_SIZE;
}

// Sets a record's bucket count and the multiplier that divides by it.
inline void ASOrchMergeSetHashSize(ASOrchMergeRec *rec, uint32_t n) {
    rec->hashSize = n;
    rec->hashMagic = n == 0 ? 0 : UINT64_MAX / n + 1;
}

// The path's record; mergeHandle must be set.
inline ASOrchMergeRec *ASOrchMergeRecOf(const ASOrchHandle *hdl, ASOrchPath path) {
    return &hdl->mergeHandle[ASPathIndex(path)];
}

// Rules and keys: the queues' compare, key and merge functions.
uint32_t ASOrchGetMergeRule(uint32_t storedOp, uint32_t incomingOp, uint32_t *mergedOp);
void ASOrchPubMergeNotify(void *incoming, void *stored);
uint32_t ASOrchPubCmpFunc(const void *a, const void *b);
const void *ASOrchPubGetKeyPtr(const void *vec);

// Registration: the dispatch table, and the queue with its monitor.
uint32_t ASOrchInitMergeMsg(ASOrchMergeRec *rec, const ASOrchMergePara *para, ASOrchHandle *hdl);
void ASOrchFreeDispatchHash(ASOrchHandle *hdl, ASIntHash *hash);
uint32_t ASOrchCreatMergeQueAndFlowCtl(ASOrchHandle *hdl, ASOrchMergeRec *rec, const ASOrchMergePara *para,
                                       ASOrchPath path);
uint32_t ASOrchRegMQueFlowCtl(ASOrchHandle *hdl, ASOrchMergeRec *rec, const ASOrchMergePara *para, ASOrchPath path);

// The queues' reader functions, one per path.
uint32_t ORCH_AutoSyncRecvDamMerge(MergeQueCtrlBlk *que);
uint32_t ORCH_AutoSyncRecvFesMerge(MergeQueCtrlBlk *que);
// Hands vec to the handler that the path's dispatch table holds for its msgId
// and opType; 1 (logged) when there is none or it failed.
uint32_t ASOrchRecvDispatch(ASOrchHandle *hdl, ASOrchPath path, ASOrchMergeMsgVec *vec);

#endif
