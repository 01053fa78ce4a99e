// Internal interface of the orchestrator merge layer: the per-path merge
// records, the dispatch nodes, and the operations behind the exported ones.
#ifndef QOV_AS_MERGE_INTERNAL_H
#define QOV_AS_MERGE_INTERNAL_H

#include <cstdint>

#include "core/as_handle.h"
#include "qov_as_merge.h"
#include "qov_mergeque.h"
#include "qov_utils_base.h"

// Paths: index of a merge record and of the path's data channel.
constexpr uint32_t AS_MERGE_PATH_DAM = 0;
constexpr uint32_t AS_MERGE_PATH_FES = 1;
constexpr uint32_t AS_MERGE_PATH_NUM = 2;

constexpr uint32_t AS_MERGE_DEF_HASH_SIZE = 8192;  // queue buckets when hashSize is 0
constexpr uint32_t AS_MERGE_DISPATCH_BUCKETS = 32;
constexpr uint32_t AS_MERGE_READ_BATCH = 32;      // entries per scheduling of a queue
constexpr uint32_t AS_MERGE_DEF_HIGH_WATER = 65536;
constexpr uint32_t AS_MERGE_DEF_LOW_WATER = 8192;
constexpr uint32_t AS_MERGE_NO_SYNC_GRP = 0xFFFFFFFFu;

// One path's merge state; the handle's mergeHandle holds two, [0] DAM, [1] FES.
struct ASOrchMergeRec {
    int32_t epFd;
    MergeQueCtrlBlk *mergeQue;
    uint32_t hashSize;
    ASIntHash *dispatchHash;
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

inline ASOrchMergeRec *ASOrchMergeRecs(const ASOrchHandle *hdl) { return hdl->mergeHandle; }

// Rules and keys.
uint32_t ASOrchGetMergeRule(uint32_t storedOp, uint32_t incomingOp, uint32_t *mergedOp);
void ASOrchPubMergeRule(const ASOrchMergeMsgVec *stored, ASOrchMergeMsgVec *incoming);
void ASOrchPubMergeNotify(void *incoming, void *stored);
uint32_t ASOrchPubCmpFunc(const void *a, const void *b);
const void *ASOrchPubGetKeyPtr(const void *vec);

// Registration and release: the "MergeMQue" step of base registration, and
// the release that ASOrchDestroy calls (nothing when mergeHandle is null; the
// field is cleared after).
uint32_t ASOrchRegMerge(ASOrchHandle *hdl, const ASOrchBasePara *para);
void ASOrchFreeMergeHandle(ASOrchHandle *hdl);
// Takes both queues out of the Data thread's epoll set, waiting for a reader
// still running there; after it no reader or monitor of the handle runs.
void ASOrchMergeStopReaders(ASOrchHandle *hdl);
uint32_t ASOrchMergeIsValid(const ASOrchMergePara *para);
ASOrchMergeRec *ASOrchCreatMergeHandle(ASOrchHandle *hdl, const ASOrchMergePara *para, uint32_t mergeType);
ASOrchMergeRec *ASOrchAllocMergeHandle(ASOrchHandle *hdl);
uint32_t ASOrchInitMergeHandle(ASOrchMergeRec *rec, const ASOrchMergePara *para, ASOrchHandle *hdl);
uint32_t ASOrchInitMergeMsg(ASOrchMergeRec *rec, const ASOrchMergePara *para, ASOrchHandle *hdl);
uint32_t ASOrchCreatMergeMsgHashTable(ASIntHash *hash, const ASOrchMergePara *para, ASOrchHandle *hdl);
void ASOrchFreeDispatchHash(ASOrchHandle *hdl, ASIntHash *hash);
uint32_t ASOrchCreatMergeQueAndFlowCtl(ASOrchHandle *hdl, ASOrchMergeRec *rec, const ASOrchMergePara *para,
                                       uint32_t mergeType);
uint32_t ASOrchRegMQue(ASOrchHandle *hdl, ASOrchMergeRec *rec, const ASOrchMergePara *para, uint32_t mergeType);
MergeQueCtrlBlk *ASOrchCreatMergeQueue(ASOrchHandle *hdl, const char *name, int32_t epFd,
                                       const ASOrchMergePara *para, uint32_t mergeType);
void ASOrchFreeMergeMsg(ASOrchHandle *hdl, ASOrchMergeRec *recs);

// Writing.
uint32_t ASOrchMsgMergeInner(ASOrchHandle *hdl, uint32_t mergeType, const ASOrchMergeMsgVec *vec);
uint32_t ASOrchWriteMsgMerge(ASOrchHandle *hdl, MergeQueCtrlBlk *que, const ASOrchMergeMsgVec *vec,
                             uint32_t moveToTail);
uint32_t ASOrchMsgVecCopyAlloc(ASOrchHandle *hdl, const ASOrchMergeMsgVec *src, ASOrchMergeMsgVec *dst);
uint32_t ASOrchMsgNoMerge(ASOrchHandle *hdl, uint32_t mergeType, ASOrchMergeMsgVec *vec);

// Reading and dispatch.
uint32_t ORCH_AutoSyncRecvDamMerge(MergeQueCtrlBlk *que);
uint32_t ORCH_AutoSyncRecvFesMerge(MergeQueCtrlBlk *que);
uint32_t ASOrchReadMergeMsgCallBack(void *vec, uint32_t size, void *usrData);
uint32_t ASOrchRecvMergeMsgDispatch(ASOrchMergeMsgVec *vec, uint32_t mergeType);
uint32_t ASOrchRecvDispatch(ASOrchHandle *hdl, uint32_t mergeType, ASOrchMergeMsgVec *vec);
uint32_t ASOrchRecvDispatchProc(const ASOrchMergeMsgDispatch *entry, ASOrchHandle *hdl, ASOrchMergeMsgVec *vec);

// Monitoring and back-pressure.
uint32_t ASOrchRegMQueFlowCtl(ASOrchHandle *hdl, ASOrchMergeRec *rec, const ASOrchMergePara *para,
                              uint32_t mergeType);
void ASOrchMQueCfgFlowCtl(MergeQueMonitorAttr *attr, const ASOrchMergePara *para, uint32_t mergeType);
uint32_t ASOrchMergeDamMonitorProc(uint32_t evtType, uint64_t usrData);
uint32_t ASOrchMergeFesMonitorProc(uint32_t evtType, uint64_t usrData);
uint32_t ASOrchMergeFesDamMonitorProc(uint32_t evtType, uint64_t usrData, uint32_t chanId);
uint32_t ASOrchMonitorHighWater(ASOrchHandle *hdl, uint32_t chanId);
uint32_t ASOrchMonitorLowWater(ASOrchHandle *hdl, uint32_t chanId);
void ASOrchMqueHighWaterWithoutSyncThread(ASOrchHandle *hdl);

#endif
