/* Merge queue: a named, single-reader queue of fixed-size records keyed by a
 * caller-defined key. A write whose key is already queued merges into the queued
 * record; the reader is woken through an event descriptor in an epoll set.
 *
 * Rules that hold for every operation below:
 * 1. The queue's control block comes from the creator's mallocFunc and goes back
 *    through its freeFunc; entries come from the queue's hash table.
 * 2. Results: 0 success, 1 failure; reads return the number of records read;
 *    creation returns the handle or null. Every failure writes one log line.
 * 3. A queue has no lock: its writes, reads, back-pressure and monitor calls must
 *    not overlap. Creation, destruction and the reports may run on any thread.
 * 4. The reader callback (schedFunc) runs on the thread that serves epFd. */
#ifndef QOV_MERGEQUE_H
#define QOV_MERGEQUE_H

#include <stddef.h>
#include <stdint.h>
#include "qov_as_log.h"

QOV_AS_EXTERN_C_BEGIN

typedef struct MergeQueCtrlBlk MergeQueCtrlBlk; /* the queue handle */

/* Hash function of the queue's hash table: a hash value for a key; the table
 * takes it modulo its bucket count. Keys that compare equal must hash equal. */
typedef uint32_t (*MergeQueHashFunc)(const void *key);
typedef void *(*MergeQueMallocFunc)(uint32_t size);
typedef void (*MergeQueFreeFunc)(void *block);
/* Non-zero when the stored record has this key. */
typedef uint32_t (*MergeQueCmpFunc)(const void *record, const void *key);
/* The key of a stored record. */
typedef const void *(*MergeQueGetKeyFunc)(const void *record);
/* Reader callback, called on the epoll thread when the queue signals. */
typedef uint32_t (*MergeQueSchedFunc)(MergeQueCtrlBlk *mque);
/* Merges the incoming record into the queued one before it is copied over it. */
typedef void (*MergeQueMergeFunc)(void *incoming, void *queued);
/* Read callback: (record, record size, user data); 0 for success. */
typedef uint32_t (*MergeQueReadFunc)(void *record, uint32_t size, void *usrData);
/* Monitor notification: event 0 over high water, 1 back under low water. */
typedef uint32_t (*MergeQueFlowCtrlNotify)(uint32_t evtType, uint64_t usrData);

typedef struct MergeQueCreatePara {
    MergeQueMallocFunc mallocFunc;
    MergeQueFreeFunc freeFunc;
    uint32_t memPtNo;
    uint32_t dataSize;
    uint32_t hashSize;
    MergeQueHashFunc hashFunc;
    MergeQueCmpFunc cmpFunc;
    int32_t epFd;
    MergeQueGetKeyFunc getKeyPtr;
    MergeQueSchedFunc schedFunc;
    MergeQueMergeFunc mergeFunc;
} MergeQueCreatePara;
QOV_AS_STATIC_ASSERT(sizeof(MergeQueCreatePara) == 80, "MergeQueCreatePara layout");
QOV_AS_STATIC_ASSERT(offsetof(MergeQueCreatePara, freeFunc) == 8, "MergeQueCreatePara layout");
QOV_AS_STATIC_ASSERT(offsetof(MergeQueCreatePara, memPtNo) == 16, "MergeQueCreatePara layout");
QOV_AS_STATIC_ASSERT(offsetof(MergeQueCreatePara, dataSize) == 20, "MergeQueCreatePara layout");
QOV_AS_STATIC_ASSERT(offsetof(MergeQueCreatePara, hashSize) == 24, "MergeQueCreatePara layout");
QOV_AS_STATIC_ASSERT(offsetof(MergeQueCreatePara, hashFunc) == 32, "MergeQueCreatePara layout");
QOV_AS_STATIC_ASSERT(offsetof(MergeQueCreatePara, cmpFunc) == 40, "MergeQueCreatePara layout");
QOV_AS_STATIC_ASSERT(offsetof(MergeQueCreatePara, epFd) == 48, "MergeQueCreatePara layout");
QOV_AS_STATIC_ASSERT(offsetof(MergeQueCreatePara, getKeyPtr) == 56, "MergeQueCreatePara layout");
QOV_AS_STATIC_ASSERT(offsetof(MergeQueCreatePara, schedFunc) == 64, "MergeQueCreatePara layout");
QOV_AS_STATIC_ASSERT(offsetof(MergeQueCreatePara, mergeFunc) == 72, "MergeQueCreatePara layout");

typedef struct MergeQueMonitorAttr {
    uint32_t highWater;
    uint32_t lowWater;
    uint64_t usrData;
    MergeQueFlowCtrlNotify flowCtrlNotify;
} MergeQueMonitorAttr;
QOV_AS_STATIC_ASSERT(sizeof(MergeQueMonitorAttr) == 24, "MergeQueMonitorAttr layout");
QOV_AS_STATIC_ASSERT(offsetof(MergeQueMonitorAttr, lowWater) == 4, "MergeQueMonitorAttr layout");
QOV_AS_STATIC_ASSERT(offsetof(MergeQueMonitorAttr, usrData) == 8, "MergeQueMonitorAttr layout");
QOV_AS_STATIC_ASSERT(offsetof(MergeQueMonitorAttr, flowCtrlNotify) == 16, "MergeQueMonitorAttr layout");

/* A row of a statistics description table. */
typedef struct MergeQueStatDesc {
    uint32_t id;
    const char *text;
    uint32_t stampFlag;
} MergeQueStatDesc;
QOV_AS_STATIC_ASSERT(sizeof(MergeQueStatDesc) == 24, "MergeQueStatDesc layout");
QOV_AS_STATIC_ASSERT(offsetof(MergeQueStatDesc, text) == 8, "MergeQueStatDesc layout");
QOV_AS_STATIC_ASSERT(offsetof(MergeQueStatDesc, stampFlag) == 16, "MergeQueStatDesc layout");

#define MERGE_QUE_STAT_NUM 4u
#define MERGE_QUE_READER_STAT_NUM 11u
#define MERGE_QUE_NAME_LEN 32u

QOV_AS_API extern const MergeQueStatDesc g_mergeQueStatDesc[MERGE_QUE_STAT_NUM];
QOV_AS_API extern const MergeQueStatDesc g_mergeQueReaderStatDesc[MERGE_QUE_READER_STAT_NUM];
/* Process-wide control block: the name tree and its two mutexes. */
QOV_AS_API extern struct MergeQueGlbCb g_qovMergeQueGlbCb;

/* Creates a queue named name (at most 31 characters, unique in the process). */
QOV_AS_API MergeQueCtrlBlk *QOV_MergeQueCreate(const char *name, const MergeQueCreatePara *para);
/* Destroys a queue with whatever it still holds; null does nothing. */
QOV_AS_API uint32_t QOV_MergeQueDestory(MergeQueCtrlBlk *mque);
/* Registers (or replaces) the high/low-water monitor. */
QOV_AS_API uint32_t QOV_MergeQueMonitorReg(MergeQueCtrlBlk *mque, const MergeQueMonitorAttr *attr);
/* Takes the queue's event descriptor out of its epoll set, keeping ctx. */
QOV_AS_API uint32_t QOV_MergeQueBackPress(MergeQueCtrlBlk *mque, uint64_t ctx);
/* Puts the event descriptor back; stores the kept context in *ctx when given. */
QOV_AS_API uint32_t QOV_MergeQueUnBackPress(MergeQueCtrlBlk *mque, uint64_t *ctx);
/* Merges record into the queued record with the same key, or appends it. The
 * merge function may change record before it is stored, so it is writable. */
QOV_AS_API uint32_t QOV_MergeQueWrite(MergeQueCtrlBlk *mque, const void *key, void *record, uint32_t moveToTail);
/* Copies up to maxCount records from the head into buf. */
QOV_AS_API uint32_t QOV_MergeQueRead(MergeQueCtrlBlk *mque, void *buf, uint32_t maxCount);
/* Hands up to maxCount records from the head to func, one by one. */
QOV_AS_API uint32_t QOV_MergeQueReadCallBack(MergeQueCtrlBlk *mque, uint32_t maxCount,
                                             MergeQueReadFunc func, void *usrData);
/* Text report listing every queue by name; returns the characters written. */
QOV_AS_API uint32_t QOV_PrintMergeQueListAll(char *buf, uint32_t size);
/* Text report of one queue; 0 when no queue has this name. */
QOV_AS_API uint32_t QOV_PrintMergeQueInfo(const char *name, char *buf, uint32_t size);

QOV_AS_EXTERN_C_END

#endif
