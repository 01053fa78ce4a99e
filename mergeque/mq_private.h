// The merge queue's control block, entries and process-wide state, and every
// internal operation of the queue; only mergeque/ and its tests include this.
#ifndef QOV_MERGEQUE_PRIVATE_H
#define QOV_MERGEQUE_PRIVATE_H

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "core/base/as_bytes.h"
#include "core/base/as_log_level.h"
#include "qov_mergeque.h"
#include "qov_utils_base.h"

struct MergeQueEntry;

// Words that a report reads on another thread while the queue's own thread
// changes them (statistics, the item count, the press and overload flags) are
// read and written as relaxed atomics, so each is seen whole. A report may mix
// two moments; it is a diagnostic. The owner's own reads stay plain.
template <class T>
inline T MqLoad(const T &word) {
    return __atomic_load_n(&word, __ATOMIC_RELAXED);
}
template <class T>
inline void MqStore(T &word, T value) {
    __atomic_store_n(&word, value, __ATOMIC_RELAXED);
}

// Links of the circular read-order list; the list head is one of these too.
struct MergeQueLink {
    MergeQueLink *next;
    MergeQueLink *prev;
};

// A statistic slot: a count and a packed time stamp (0 for never).
struct MergeQueStatSlot {
    uint32_t cnt;
    uint64_t stamp;
};

enum MergeQueStatId : uint32_t {
    MQ_STAT_MAX_CONFLICT = 0,
    MQ_STAT_HISTORY_MAX_CNT = 1,
    MQ_STAT_OVER_HIGH_WATER = 2,
    MQ_STAT_UNDER_LOW_WATER = 3,
};

enum MergeQueReaderStatId : uint32_t {
    MQ_RSTAT_SUCCESS_MERGE = 0,
    MQ_RSTAT_FAIL_MERGE = 1,
    MQ_RSTAT_SUCCESS_WRITE = 2,
    MQ_RSTAT_SUCCESS_READ = 3,
    MQ_RSTAT_FAIL_WRITE = 4,
    MQ_RSTAT_FAIL_READ = 5,
    MQ_RSTAT_EMPTY_READ = 6,
    MQ_RSTAT_WRITE_NOTIFY_ERR = 7,
    MQ_RSTAT_READ_NOTIFY_ERR = 8,
    MQ_RSTAT_BACK_PRESS = 9,
    MQ_RSTAT_UNBACK_PRESS = 10,
};

struct MergeQueReader {
    MergeQueLink list;  // head of the read-order list
    uint32_t itemCnt;
    MergeQueStatSlot stat[MERGE_QUE_READER_STAT_NUM];
    int32_t eventFd;    // -1 while none has been made
    uint32_t epollReg;  // 1 while eventFd is in the epoll set; changed under kMqCtlRegLock
    uint64_t backPressCtx;
    uint32_t ctl;       // kMqCtl* bits, shared with a destroying thread: atomic accesses only
    uint32_t reading;   // 1 while a read walks the list, so that a nested read is refused
};

// Bits of the reader's control word. The registration lock orders changes of
// epollReg made by back-pressure on the queue's own thread against the stop of
// a destroying thread; it is held for flag changes and the queue thread's own
// epoll calls, never while waiting for a dispatch. A dispatch marks itself
// running while it is inside the queue, and none enters once it is stopped.
constexpr uint32_t kMqCtlRegLock = 1u;
constexpr uint32_t kMqCtlRunning = 2u;
constexpr uint32_t kMqCtlStopped = 4u;

struct MergeQueMonitor {
    uint32_t highWater;
    uint32_t lowWater;
    MergeQueFlowCtrlNotify flowCtrlNotify;
    uint64_t usrData;
    uint32_t overLoad;
};

struct MergeQueCtrlBlk {
    YAV_AVL3_NODE nameNode;  // first member: the block hangs in the name tree by it
    char name[MERGE_QUE_NAME_LEN];
    MergeQueCreatePara para;
    LITE_HASH_S *hash;
    MergeQueReader reader;
    MergeQueStatSlot stat[MERGE_QUE_STAT_NUM];
    MergeQueMonitor monitor;
};
static_assert(offsetof(MergeQueCtrlBlk, nameNode) == 0);

// An element of the queue's hash table: three words of header, then the record.
struct MergeQueEntry {
    MergeQueCtrlBlk *owner;
    MergeQueLink link;
};
static_assert(sizeof(MergeQueEntry) == 3 * sizeof(void *));
static_assert(offsetof(MergeQueEntry, link) == sizeof(void *));

inline uint8_t *MqEntryData(MergeQueEntry *e) { return reinterpret_cast<uint8_t *>(e + 1); }

// Copies one record. Entries and the caller's records are dataSize bytes by
// the queue's contract, so the bound is the record size itself; the copy is
// inline because it sits on every write, merge and copy-out read. A record
// may be copied onto itself (a merge function that stored in place).
// Records of 16 to 64 bytes, the usual kind, are copied without a call, as
// pieces that leave a copy onto itself as it was.
inline void MqCopyRecord(void *dst, const void *src, uint32_t dataSize) {
    auto *d = static_cast<uint8_t *>(dst);
    const auto *s = static_cast<const uint8_t *>(src);
    if (dataSize >= 32 && dataSize <= 64) {
        ASCopy32To64(d, s, dataSize);
    } else if (dataSize >= 16 && dataSize < 32) {
        ASCopy16To32(d, s, dataSize);
    } else if (dst != src) {
        __builtin_memcpy(d, s, dataSize);
    }
}

// The read-order list, circular with its head among the links.
inline void MqListUnlink(MergeQueLink *l) {
    l->prev->next = l->next;
    l->next->prev = l->prev;
}

struct MergeQueGlbCb {
    YAV_AVL3_TREE nameTree;
    YAV_AVL3_TREE_INFO treeInfo;
    uint32_t initFlag;
    pthread_mutex_t glbInitMutex;
    pthread_mutex_t nameTreeMutex;
};

extern "C" {

// Core and name tree.
// Whether para can make a queue (the name tree is set up first); false after
// a log line naming what is missing.
bool QOV_MergeQueCreateCheck(const char *name, const MergeQueCreatePara *para);
void QOV_MergeQueNameTreeInit(void);
MergeQueCtrlBlk *QOV_MergeQueNameTreeFind(const char *name);
uint32_t QOV_MergeQueNameTreeInsert(MergeQueCtrlBlk *mque);

// Notification and flow control.
uint32_t QOV_MergeQueEpollReg(MergeQueCtrlBlk *mque);
uint32_t QOV_MergeQueSchedProc(int32_t fd, uint32_t events, void *usrData);
void QOV_MergeQueNotifyByRead(MergeQueCtrlBlk *mque);
void QOV_MergeQueMonitorWrite(MergeQueCtrlBlk *mque);
void QOV_MergeQueMonitorRemove(MergeQueCtrlBlk *mque);

// Statistics and reports.
int QOV_MergeQueSetTimeStamp(uint64_t *stamp);
const char *QOV_MergeQueGetStatDesc(uint32_t id);
const char *QOV_MergeQueGetReaderStatDesc(uint32_t id);
void QOV_MergeQueSetStat(MergeQueCtrlBlk *mque, const void *key);
char *QOV_MergeQueTrans2Time(char *buf, uint32_t size, const uint64_t *stamp);

}  // extern "C"

// The name tree has been made (by the first creation). A report that may run
// before any creation asks first: the tree is made under the global-init
// mutex, and the two mutexes are never held together.
bool MqNameTreeReady();
// Takes this very block out of the name tree, if it is there; the tree's
// mutex is held meanwhile, so a report holding it never sees a block that is
// being destroyed.
bool MqNameTreeUnlink(MergeQueCtrlBlk *mque);

// The stampFlag columns of the two description tables as bit masks (bit id
// set: that slot stamps the time when counted), so that counting a slot that
// does not stamp is one add; the tables are checked against them.
constexpr uint32_t kMqReaderStampMask = 0x7F2;  // all but Success Merge, Success Write and Success Read
constexpr uint32_t kMqStatStampMask = 0xF;

// Counting a slot: add to its count and stamp the time when the slot's row
// says so. Inline, since appends, merges and reads count on every call.
inline void MqAddReaderStat(MergeQueCtrlBlk *mque, uint32_t id, uint32_t n) {
    MqStore(mque->reader.stat[id].cnt, mque->reader.stat[id].cnt + n);
    if (((kMqReaderStampMask >> id) & 1) != 0) QOV_MergeQueSetTimeStamp(&mque->reader.stat[id].stamp);
}
inline void MqCountReaderStat(MergeQueCtrlBlk *mque, uint32_t id) { MqAddReaderStat(mque, id, 1); }

#endif
