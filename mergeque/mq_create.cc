// Creation and destruction of merge queues, and the queue's hash table.
#include <unistd.h>

#include "mergeque/mergeque_internal.h"
#include "mergeque/mq_private.h"

namespace {

// Entry header plus record, as the hash table's 16-bit element size; 0 when it does not fit.
uint16_t MqElemSize(uint32_t dataSize) {
    uint64_t size = uint64_t{dataSize} + sizeof(MergeQueEntry);
    return size > UINT16_MAX ? 0 : static_cast<uint16_t>(size);
}

uint32_t QOV_MergeQueHashCmpFunc(const void *element, const void *key) {
    if (element == nullptr || key == nullptr) return 0;
    auto *entry = static_cast<MergeQueEntry *>(const_cast<void *>(element));
    if (entry->owner == nullptr || entry->owner->para.cmpFunc == nullptr) return 0;
    return entry->owner->para.cmpFunc(MqEntryData(entry), key);
}

uint32_t QOV_MergeQueHashCreate(MergeQueCtrlBlk *mque) {
    uint16_t elemSize = MqElemSize(mque->para.dataSize);
    if (elemSize != 0) {
        mque->hash = LITE_HASH_CreateWithLock(mque->para.memPtNo, elemSize, mque->para.hashSize,
                                              mque->para.hashFunc, QOV_MergeQueHashCmpFunc, 0);
    }
    if (mque->hash == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "[QOV_MERGE_QUE HashCreate] %s hash new Fail", mque->name);
        return 1;
    }
    return 0;
}

void QOV_MergeQueHashDelete(MergeQueCtrlBlk *mque) {
    if (mque->hash == nullptr) return;
    LITE_HASH_DeleteHash(&mque->hash);
    mque->hash = nullptr;
}

uint32_t QOV_MergeQueReaderInit(MergeQueCtrlBlk *mque) {
    mque->reader.list.next = &mque->reader.list;
    mque->reader.list.prev = &mque->reader.list;
    mque->reader.itemCnt = 0;
    mque->reader.eventFd = -1;
    mque->reader.epollReg = 0;
    return QOV_MergeQueEpollReg(mque);
}

// Stops the reader and closes its event descriptor, so that no dispatch can
// reach the queue once it is gone.
void MqReaderRelease(MergeQueCtrlBlk *mque) {
    if (mque->reader.eventFd < 0) return;
    QOV_MergeQueStopReader(mque);
    close(mque->reader.eventFd);
    mque->reader.eventFd = -1;
}

// Undoes a creation that failed in QOV_Merge_Init, which enters the block in
// the name tree only as its last step.
void MqCreateUndo(MergeQueCtrlBlk *mque, const MergeQueCreatePara *para) {
    MqReaderRelease(mque);
    QOV_MergeQueHashDelete(mque);
    para->freeFunc(mque);
}

uint32_t QOV_MergeQueGlbInit(const char *name) {
    if (pthread_mutex_lock(&g_qovMergeQueGlbCb.glbInitMutex) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "[QOV_MERGE_QUE Create] %s glb init failed.", name);
        return 1;
    }
    if (g_qovMergeQueGlbCb.initFlag == 0) {
        QOV_MergeQueNameTreeInit();
        g_qovMergeQueGlbCb.initFlag = 1;
    }
    pthread_mutex_unlock(&g_qovMergeQueGlbCb.glbInitMutex);
    return 0;
}

// The block enters the name tree last, complete: a report on another thread
// finds a queue by name from then on and reads all of it.
uint32_t QOV_Merge_Init(const char *name, MergeQueCtrlBlk *mque, const MergeQueCreatePara *para) {
    if (strcpy_s(mque->name, sizeof mque->name, name) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "[QOV_MERGE_QUE Create] %s strcpy Fail", name);
        return 1;
    }
    mque->para = *para;
    if (QOV_MergeQueHashCreate(mque) != 0 || QOV_MergeQueReaderInit(mque) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "[QOV_MERGE_QUE Create] %s hash create Fail", name);
        return 1;
    }
    if (QOV_MergeQueNameTreeInsert(mque) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "[QOV_MERGE_QUE Create] %s nameInsert Fail", name);
        return 1;
    }
    return 0;
}

}  // namespace

extern "C" {

bool QOV_MergeQueCreateCheck(const char *name, const MergeQueCreatePara *para) {
    if (QOV_MergeQueGlbInit(name) != 0) return false;
    if (para->mallocFunc == nullptr || para->freeFunc == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "[QOV_MERGE_QUE Create] %s para mem func invalid.", name);
        return false;
    }
    if (para->hashFunc == nullptr || para->cmpFunc == nullptr || para->getKeyPtr == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "[QOV_MQUE Create] %s para hash func invalid.", name);
        return false;
    }
    if (para->epFd < 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "[QOV_MERGE_QUE Create] %s para epFd invalid.", name);
        return false;
    }
    return true;
}

QOV_AS_API MergeQueCtrlBlk *QOV_MergeQueCreate(const char *name, const MergeQueCreatePara *para) {
    if (name == nullptr || para == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "[QOV_MERGE_QUE Create] para is null, name: %u, para: %u.", name == nullptr ? 1u : 0u,
                            para == nullptr ? 1u : 0u);
        return nullptr;
    }
    if (!QOV_MergeQueCreateCheck(name, para)) return nullptr;
    if (QOV_MergeQueNameTreeFind(name) != nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "[QOV_MERGE_QUE Create] create Fail because find %s exist!", name);
        return nullptr;
    }
    auto *mque = static_cast<MergeQueCtrlBlk *>(para->mallocFunc(sizeof(MergeQueCtrlBlk)));
    if (mque == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "[QOV_MERGE_QUE Create] malloc Fail");
        return nullptr;
    }
    if (memset_s(mque, sizeof *mque, 0, sizeof *mque) != 0) {
        para->freeFunc(mque);
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "[QOV_MERGE_QUE Create] %s init Fail", name);
        return nullptr;
    }
    mque->reader.eventFd = -1;  // no descriptor yet; a cleared 0 would name stdin
    if (QOV_Merge_Init(name, mque, para) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "[QOV_MERGE_QUE Create] %s init Fail", name);
        MqCreateUndo(mque, para);
        return nullptr;
    }
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "[QOV_MERGE_QUE Create] %s ok", name);
    return mque;
}

QOV_AS_API uint32_t QOV_MergeQueDestory(MergeQueCtrlBlk *mque) {
    if (mque == nullptr) return 0;
    // Out of the name tree first, so that no report reads the block from here
    // on; then the reader stops, so that none runs while itemCnt is read and
    // the entries go.
    MqNameTreeUnlink(mque);
    MqReaderRelease(mque);
    if (mque->reader.itemCnt != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "[QOV_MERGE_QUE Destroy] %s reader list is not empty!", mque->name);
    }
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "%s NameTreeDelete.", mque->name);
    QOV_MergeQueHashDelete(mque);
    mque->para.freeFunc(mque);
    return 0;
}

}  // extern "C"
