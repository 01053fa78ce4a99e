// Writing into a merge queue: a record whose key is queued merges into the
// queued entry, any other record becomes a new entry at the tail.
#include <sys/eventfd.h>

#include "mergeque/mq_private.h"

namespace {

inline void MqListAddTail(MergeQueLink *head, MergeQueLink *l) {
    l->prev = head->prev;
    l->next = head;
    head->prev->next = l;
    head->prev = l;
}

// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): key and record in the order QOV_MergeQueWrite takes them
MergeQueEntry *QOV_MergeQueNewHashData(MergeQueCtrlBlk *mque, const void *key, const void *record) {
    auto *entry = static_cast<MergeQueEntry *>(LITE_HASH_NewData(mque->hash, 0));
    if (entry == nullptr) return nullptr;
    entry->owner = mque;
    entry->link.next = &entry->link;
    entry->link.prev = &entry->link;
    MqCopyRecord(MqEntryData(entry), record, mque->para.dataSize);
    if (LITE_HASH_AddNode(mque->hash, key, entry, 0) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s failed to hash addNode", mque->name);
        LITE_HASH_FreeData(mque->hash, entry);
        return nullptr;
    }
    return entry;
}

void QOV_MergeQueAttachMsgList(MergeQueCtrlBlk *mque, MergeQueEntry *entry) {
    MqListAddTail(&mque->reader.list, &entry->link);
    MqCountReaderStat(mque, MQ_RSTAT_SUCCESS_WRITE);
    const uint32_t items = mque->reader.itemCnt + 1;
    MqStore(mque->reader.itemCnt, items);
    if (items != 1) return;
    if (eventfd_write(mque->reader.eventFd, 1) < 0) MqCountReaderStat(mque, MQ_RSTAT_WRITE_NOTIFY_ERR);
}

uint32_t QOV_MergeQueNewWrite(MergeQueCtrlBlk *mque, const void *key, const void *record) {
    MergeQueEntry *entry = QOV_MergeQueNewHashData(mque, key, record);
    if (entry == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s failed to new hashNode", mque->name);
        MqCountReaderStat(mque, MQ_RSTAT_FAIL_WRITE);
        return 1;
    }
    QOV_MergeQueSetStat(mque, key);
    QOV_MergeQueAttachMsgList(mque, entry);
    QOV_MergeQueMonitorWrite(mque);
    return 0;
}

// The merge, inline so that the write's hot path makes no call of its own.
// Only the record's address is kept across the merge function's call, and
// the entry is found again from it: the empty asm hides where the address
// came from, so that the compiler does not keep the entry in a second
// register.
template <bool kMoveToTail>
inline void MqMerge(MergeQueCtrlBlk *mque, void *record, MergeQueEntry *entry) {
    uint8_t *queued = MqEntryData(entry);
    asm("" : "+r"(queued));
    if (mque->para.mergeFunc != nullptr) mque->para.mergeFunc(record, queued);
    MqCopyRecord(queued, record, mque->para.dataSize);
    if (kMoveToTail) {
        entry = reinterpret_cast<MergeQueEntry *>(queued) - 1;
        MqListUnlink(&entry->link);
        MqListAddTail(&mque->reader.list, &entry->link);
    }
    MqCountReaderStat(mque, MQ_RSTAT_SUCCESS_MERGE);
}

// A write with its arguments checked. The two kinds of move are two copies
// of this code, so that the flag does not take a register across the calls.
template <bool kMoveToTail>
inline uint32_t MqWrite(MergeQueCtrlBlk *mque, const void *key, void *record) {
    LITE_HASH_NODE_S *node = LITE_HASH_FindNodeFromFirst(mque->hash, key);
    if (node == nullptr || node->data == nullptr) return QOV_MergeQueNewWrite(mque, key, record);
    MqMerge<kMoveToTail>(mque, record, static_cast<MergeQueEntry *>(node->data));
    return 0;
}

__attribute__((noinline, cold)) uint32_t MqWriteRefused(const MergeQueCtrlBlk *mque, const void *key,
                                                        const void *record) {
    QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "merge queue write failed, mqueHandle: %u, key: %u, record: %u.",
                        mque == nullptr ? 1u : 0u, key == nullptr ? 1u : 0u, record == nullptr ? 1u : 0u);
    return 1;
}

}  // namespace

extern "C" {

QOV_AS_API uint32_t QOV_MergeQueWrite(MergeQueCtrlBlk *mque, const void *key, void *record, uint32_t moveToTail) {
    if (__builtin_expect(mque == nullptr, 0) || __builtin_expect(key == nullptr, 0) ||
        __builtin_expect(record == nullptr, 0)) {
        return MqWriteRefused(mque, key, record);
    }
    return moveToTail == 1 ? MqWrite<true>(mque, key, record) : MqWrite<false>(mque, key, record);
}

}  // extern "C"
