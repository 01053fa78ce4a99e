// Statistic slots: their description tables, counting, time stamps and the
// two high-water statistics of appends.
#include <sys/time.h>

#include <ctime>

#include "mergeque/mq_private.h"

namespace {

constexpr uint64_t kStampSecMask = (uint64_t{1} << 44) - 1;
constexpr uint32_t kStampUsecShift = 44;

void MqSetIfHigher(MergeQueStatSlot *slot, int32_t value) {
    if (value <= static_cast<int32_t>(slot->cnt)) return;
    MqStore(slot->cnt, static_cast<uint32_t>(value));
    QOV_MergeQueSetTimeStamp(&slot->stamp);
}

}  // namespace

extern "C" {

constexpr MergeQueStatDesc g_mergeQueStatDesc[MERGE_QUE_STAT_NUM] = {
    {0, "MergeQue MaxConflict", 1},
    {1, "MergeQue HistoryMaxCnt", 1},
    {2, "MergeQue OverHighWater", 1},
    {3, "MergeQue UnderLowWater", 1},
};

constexpr MergeQueStatDesc g_mergeQueReaderStatDesc[MERGE_QUE_READER_STAT_NUM] = {
    {0, "Success Merge", 0},    {1, "Fail Merge", 1},       {2, "Success Write", 0},
    {3, "Success Read", 0},     {4, "Fail Write", 1},       {5, "Fail Read", 1},
    {6, "Empty Read", 1},       {7, "Write Notify Err", 1}, {8, "Read Notify Err", 1},
    {9, "BackPress", 1},        {10, "UnBackPress", 1},
};

}  // extern "C"

namespace {

constexpr uint32_t MqStampMask(const MergeQueStatDesc *rows, uint32_t n) {
    uint32_t mask = 0;
    for (uint32_t i = 0; i < n; ++i) mask |= rows[i].stampFlag == 1 ? uint32_t{1} << rows[i].id : 0;
    return mask;
}
static_assert(MqStampMask(g_mergeQueReaderStatDesc, MERGE_QUE_READER_STAT_NUM) == kMqReaderStampMask);
static_assert(MqStampMask(g_mergeQueStatDesc, MERGE_QUE_STAT_NUM) == kMqStatStampMask);

}  // namespace

extern "C" {

int QOV_MergeQueSetTimeStamp(uint64_t *stamp) {
    struct timeval tv {};
    int ret = gettimeofday(&tv, nullptr);
    MqStore(*stamp, (static_cast<uint64_t>(tv.tv_sec) & kStampSecMask) |
                        (static_cast<uint64_t>(tv.tv_usec) << kStampUsecShift));
    return ret;
}

const char *QOV_MergeQueGetStatDesc(uint32_t id) {
    for (const MergeQueStatDesc &row : g_mergeQueStatDesc) {
        if (row.id == id) return row.text;
    }
    return "MergeQue Unknown Error";
}

const char *QOV_MergeQueGetReaderStatDesc(uint32_t id) {
    for (const MergeQueStatDesc &row : g_mergeQueReaderStatDesc) {
        if (row.id == id) return row.text;
    }
    return "MergeQue Reader Unknown Error";
}

void QOV_MergeQueSetStat(MergeQueCtrlBlk *mque, const void *key) {
    MqSetIfHigher(&mque->stat[MQ_STAT_MAX_CONFLICT], LITE_HASH_GetListCntByKey(mque->hash, key));
    // Every entry is in the hash table and the list at once, and the new entry
    // is linked in the table but not yet in the list: the table holds
    // itemCnt + 1, known here without asking it.
    MqSetIfHigher(&mque->stat[MQ_STAT_HISTORY_MAX_CNT], static_cast<int32_t>(mque->reader.itemCnt + 1));
}

char *QOV_MergeQueTrans2Time(char *buf, uint32_t size, const uint64_t *stamp) {
    const uint64_t word = MqLoad(*stamp);
    if (word == 0) {
        if (sprintf_s(buf, size, "%s", "--:--:--.---") < 0 && buf != nullptr && size != 0) buf[0] = '\0';
        return buf;
    }
    time_t sec = static_cast<time_t>(word & kStampSecMask);
    auto msec = static_cast<uint32_t>((word >> kStampUsecShift) / 1000);
    struct tm local {};
    char scratch[32];
    if (localtime_r(&sec, &local) == nullptr || strftime(scratch, sizeof scratch, "%Y-%m-%d %H:%M:%S", &local) < 5 ||
        sprintf_s(buf, size, "%s.%03u", scratch + 5, msec) < 0) {
        if (buf != nullptr && size != 0) buf[0] = '\0';
    }
    return buf;
}

}  // extern "C"
