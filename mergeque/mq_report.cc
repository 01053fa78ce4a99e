// Text reports for the platform's diagnostic commands: the list of queues and
// the full information of one queue. Each piece is formatted into what is left
// of the caller's buffer; a piece that does not fit is left out.
#include <cstdarg>

#include "mergeque/mq_private.h"

namespace {

constexpr uint32_t kTimeTextLen = 32;
constexpr char kDashes24[] = "------------------------\n";
constexpr char kDashes58[] = "----------------------------------------------------------\n";
constexpr char kStatRowFmt[] = "%-28s %12u    %s\n";

__attribute__((format(printf, 4, 5))) uint32_t MqPiece(char *buf, uint32_t size, uint32_t used,
                                                         const char *fmt, ...) {
    if (buf == nullptr || used >= size) return 0;
    va_list ap;
    va_start(ap, fmt);
    int n = vsprintf_s(buf + used, size - used, fmt, ap);
    va_end(ap);
    return n < 0 ? 0 : static_cast<uint32_t>(n);
}

uint32_t MqStatRow(char *buf, uint32_t size, uint32_t used, const char *text, const MergeQueStatSlot &slot) {
    char timeText[kTimeTextLen];
    QOV_MergeQueTrans2Time(timeText, sizeof timeText, &slot.stamp);
    return MqPiece(buf, size, used, kStatRowFmt, text, MqLoad(slot.cnt), timeText);
}

uint32_t QOV_PrintMergeQueBaseInfo(const MergeQueCtrlBlk *mque, char *buf, uint32_t size) {
    const MergeQueCreatePara &p = mque->para;
    uint32_t n = MqPiece(buf, size, 0, "MQUE-1THD-NAME : %s[%s]\n", mque->name, "MQUE");
    n += MqPiece(buf, size, n, "MQUE-1THD-INFO : MemPtNo [%4u], DataSize [%4u], HashSize [%4u], EpFd [%4d]\n",
                 p.memPtNo, p.dataSize, p.hashSize, p.epFd);
    n += MqPiece(buf, size, n, "MQUE-1THD-MONI : HighWater [%4u], LowWater [%4u], OverLoad [%4u]\n",
                 mque->monitor.highWater, mque->monitor.lowWater, MqLoad(mque->monitor.overLoad));
    return n;
}

uint32_t QOV_PrintMergeQueStat(const MergeQueCtrlBlk *mque, char *buf, uint32_t size) {
    MergeQueStatSlot curr = {static_cast<uint32_t>(LITE_HASH_GetHashCnt(mque->hash)), 0};
    uint32_t n = MqPiece(buf, size, 0, "\n%-28s %12s    TimeStamp\n", "Mque-1THD StatType", "Count");
    n += MqPiece(buf, size, n, "%s", kDashes58);
    n += MqStatRow(buf, size, n, QOV_MergeQueGetStatDesc(MQ_STAT_MAX_CONFLICT), mque->stat[MQ_STAT_MAX_CONFLICT]);
    n += MqStatRow(buf, size, n, QOV_MergeQueGetStatDesc(MQ_STAT_HISTORY_MAX_CNT),
                   mque->stat[MQ_STAT_HISTORY_MAX_CNT]);
    n += MqStatRow(buf, size, n, "Mque CurrCnt", curr);
    n += MqStatRow(buf, size, n, QOV_MergeQueGetStatDesc(MQ_STAT_OVER_HIGH_WATER),
                   mque->stat[MQ_STAT_OVER_HIGH_WATER]);
    n += MqStatRow(buf, size, n, QOV_MergeQueGetStatDesc(MQ_STAT_UNDER_LOW_WATER),
                   mque->stat[MQ_STAT_UNDER_LOW_WATER]);
    return n;
}

uint32_t QOV_PrintMergeQueReaderBaseInfo(const MergeQueReader *reader, char *buf, uint32_t size) {
    uint32_t n = MqPiece(buf, size, 0, "Reader-ItemCnt : %4u\n", MqLoad(reader->itemCnt));
    n += MqPiece(buf, size, n, "Reader-INFO : EventFd [%4d/%u]\n", reader->eventFd, MqLoad(reader->epollReg));
    return n;
}

uint32_t QOV_PrintMergeQueReaderInfo(const MergeQueReader *reader, char *buf, uint32_t size) {
    uint32_t n = MqPiece(buf, size, 0, "\n%s", kDashes58);
    n += QOV_PrintMergeQueReaderBaseInfo(reader, buf + n, size - n);
    n += MqPiece(buf, size, n, "\n%-28s %12s    TimeStamp\n", "Reader StatType", "Count");
    n += MqPiece(buf, size, n, "%s", kDashes58);
    for (uint32_t id = 0; id < MERGE_QUE_READER_STAT_NUM; ++id) {
        n += MqStatRow(buf, size, n, QOV_MergeQueGetReaderStatDesc(id), reader->stat[id]);
    }
    return n;
}

}  // namespace

extern "C" {

QOV_AS_API uint32_t QOV_PrintMergeQueListAll(char *buf, uint32_t size) {
    if (buf == nullptr || size == 0) return 0;
    uint32_t n = MqPiece(buf, size, 0, "%s", kDashes24);
    n += MqPiece(buf, size, n, "%-8s %-16s\n", "Index", "MQ-1THD Name");
    n += MqPiece(buf, size, n, "%s", kDashes24);
    if (!MqNameTreeReady() || pthread_mutex_lock(&g_qovMergeQueGlbCb.nameTreeMutex) != 0) return n;
    const YAV_AVL3_TREE_INFO *info = &g_qovMergeQueGlbCb.treeInfo;
    uint32_t index = 0;
    for (auto *q = static_cast<MergeQueCtrlBlk *>(YAV_AVL3_First(&g_qovMergeQueGlbCb.nameTree, info));
         q != nullptr; q = static_cast<MergeQueCtrlBlk *>(YAV_AVL3_Next(&q->nameNode, info))) {
        n += MqPiece(buf, size, n, "%-8u %-16s\n", index++, q->name);
    }
    pthread_mutex_unlock(&g_qovMergeQueGlbCb.nameTreeMutex);
    return n;
}

QOV_AS_API uint32_t QOV_PrintMergeQueInfo(const char *name, char *buf, uint32_t size) {
    if (name == nullptr || !MqNameTreeReady()) return 0;
    // The name tree's mutex is held while the queue is read, so that a
    // concurrent destruction (which takes the queue out of the tree first)
    // cannot release it underneath.
    if (pthread_mutex_lock(&g_qovMergeQueGlbCb.nameTreeMutex) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s mutex lock nameTreeMutex failed.", name);
        return 0;
    }
    const auto *mque = static_cast<const MergeQueCtrlBlk *>(
        YAV_AVL3_Find(&g_qovMergeQueGlbCb.nameTree, name, &g_qovMergeQueGlbCb.treeInfo));
    uint32_t n = 0;
    if (mque != nullptr) {
        n = QOV_PrintMergeQueBaseInfo(mque, buf, size);
        n += QOV_PrintMergeQueStat(mque, buf + n, size - n);
        n += QOV_PrintMergeQueReaderInfo(&mque->reader, buf + n, size - n);
    }
    pthread_mutex_unlock(&g_qovMergeQueGlbCb.nameTreeMutex);
    return n;
}

}  // extern "C"
