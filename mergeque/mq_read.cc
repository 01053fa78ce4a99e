// Reading from a merge queue, from the head of the read-order list: copied out
// into the caller's buffer, or handed record by record to a callback.
#include "mergeque/mergeque_internal.h"
#include "mergeque/mq_private.h"

namespace {

inline MergeQueEntry *MqEntryOfLink(MergeQueLink *l) {
    return reinterpret_cast<MergeQueEntry *>(reinterpret_cast<uint8_t *>(l) - offsetof(MergeQueEntry, link));
}

void QOV_MergeQueDetachMsgList(MergeQueCtrlBlk *mque, MergeQueEntry *entry) {
    MqListUnlink(&entry->link);
    entry->link.next = &entry->link;
    entry->link.prev = &entry->link;
    if (mque->reader.itemCnt != 0) MqStore(mque->reader.itemCnt, mque->reader.itemCnt - 1);
    MqCountReaderStat(mque, MQ_RSTAT_SUCCESS_READ);
}

uint32_t QOV_MergeQueRemoveHash(MergeQueCtrlBlk *mque, MergeQueEntry *entry) {
    const void *key = mque->para.getKeyPtr(MqEntryData(entry));
    if (LITE_HASH_RemoveNodeByKey(mque->hash, key) == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s failed to remove HashNode!", mque->name);
        return 1;
    }
    return 0;
}

// Takes an entry out of the list and the hash table; the caller releases it.
inline void MqTakeOut(MergeQueCtrlBlk *mque, MergeQueEntry *entry) {
    QOV_MergeQueDetachMsgList(mque, entry);
    QOV_MergeQueRemoveHash(mque, entry);
}

// Reads do not overlap: a read from inside a read callback of the same queue
// would take the entry the outer walk goes on with. Such a read is refused.
inline bool MqReadBegin(MergeQueCtrlBlk *mque) {
    if (mque->reader.reading != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s read refused, the queue is already being read.", mque->name);
        return false;
    }
    mque->reader.reading = 1;
    return true;
}

// Signals again while entries remain and checks the low water, then ends the read.
inline void MqReadEnd(MergeQueCtrlBlk *mque) {
    QOV_MergeQueNotifyByRead(mque);
    QOV_MergeQueMonitorRemove(mque);
    mque->reader.reading = 0;
}

// A read that emptied the queue before its maxCount counts the shortfall.
inline void MqCountShortfall(MergeQueCtrlBlk *mque, uint32_t maxCount, uint32_t read) {
    if (read < maxCount) MqAddReaderStat(mque, MQ_RSTAT_EMPTY_READ, maxCount - read);
}

uint32_t QOV_MergeQueReadBase(MergeQueCtrlBlk *mque, uint32_t recSize, void *buf, uint32_t maxCount) {
    uint32_t limit = maxCount == 0 ? 1 : maxCount;
    MergeQueLink *head = &mque->reader.list;
    auto *out = static_cast<uint8_t *>(buf);
    uint32_t read = 0;
    for (MergeQueLink *l = head->next, *next; l != head && read < limit; l = next, ++read) {
        next = l->next;
        MergeQueEntry *entry = MqEntryOfLink(l);
        // The caller's buffer holds maxCount records.
        MqCopyRecord(out + static_cast<size_t>(read) * recSize, MqEntryData(entry), recSize);
        MqTakeOut(mque, entry);
        LITE_HASH_FreeData(mque->hash, entry);
    }
    if (read < limit) MqCountShortfall(mque, maxCount, read);
    return read;
}

uint32_t QOV_MergeQueReadToCallBack(MergeQueCtrlBlk *mque, uint32_t maxCount, MergeQueReadFunc func,
                                    void *usrData) {
    uint32_t limit = maxCount == 0 ? 1 : maxCount;
    MergeQueLink *head = &mque->reader.list;
    uint32_t read = 0;
    for (MergeQueLink *l = head->next, *next; l != head && read < limit; l = next) {
        next = l->next;
        MergeQueEntry *entry = MqEntryOfLink(l);
        MqTakeOut(mque, entry);
        ++read;
        if (func(MqEntryData(entry), mque->para.dataSize, usrData) != 0) {
            QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s read %u msgVec callBack proc failed!", mque->name, read);
        }
        LITE_HASH_FreeData(mque->hash, entry);
    }
    if (read < limit) MqCountShortfall(mque, maxCount, read);
    return read;
}

}  // namespace

extern "C" {

QOV_AS_API uint32_t QOV_MergeQueRead(MergeQueCtrlBlk *mque, void *buf, uint32_t maxCount) {
    if (mque == nullptr || buf == nullptr || maxCount == 0 || !MqReadBegin(mque)) return 0;
    uint32_t read = QOV_MergeQueReadBase(mque, mque->para.dataSize, buf, maxCount);
    MqReadEnd(mque);
    return read;
}

QOV_AS_API uint32_t QOV_MergeQueReadCallBack(MergeQueCtrlBlk *mque, uint32_t maxCount, MergeQueReadFunc func,
                                             void *usrData) {
    if (maxCount == 0 || mque == nullptr || func == nullptr || !MqReadBegin(mque)) return 0;
    uint32_t read = QOV_MergeQueReadToCallBack(mque, maxCount, func, usrData);
    MqReadEnd(mque);
    return read;
}

}  // extern "C"

uint32_t QOV_MergeQueDrain(MergeQueCtrlBlk *mque, MergeQueReadFunc func, void *usrData) {
    return QOV_MergeQueReadToCallBack(mque, UINT32_MAX, func, usrData);
}
