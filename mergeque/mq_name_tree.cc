// The process-wide tree of queue names and its two mutexes.
#include <cstring>

#include "mergeque/mq_private.h"

namespace {

int QOV_MergeQueStrCompare(const void *name1, const void *name2) {
    return strcmp(static_cast<const char *>(name1), static_cast<const char *>(name2));
}

}  // namespace

extern "C" {

MergeQueGlbCb g_qovMergeQueGlbCb = {
    {nullptr, nullptr, nullptr}, {nullptr, 0, 0}, 0, PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER,
};

void QOV_MergeQueNameTreeInit(void) {
    g_qovMergeQueGlbCb.nameTree = YAV_AVL3_TREE{nullptr, nullptr, nullptr};
    g_qovMergeQueGlbCb.treeInfo.compare = QOV_MergeQueStrCompare;
    g_qovMergeQueGlbCb.treeInfo.keyOffset = static_cast<uint16_t>(offsetof(MergeQueCtrlBlk, name));
    g_qovMergeQueGlbCb.treeInfo.nodeOffset = static_cast<uint16_t>(offsetof(MergeQueCtrlBlk, nameNode));
}

MergeQueCtrlBlk *QOV_MergeQueNameTreeFind(const char *name) {
    if (pthread_mutex_lock(&g_qovMergeQueGlbCb.nameTreeMutex) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s mutex lock nameTreeMutex failed.", name);
        return nullptr;
    }
    auto *mque = static_cast<MergeQueCtrlBlk *>(
        YAV_AVL3_Find(&g_qovMergeQueGlbCb.nameTree, name, &g_qovMergeQueGlbCb.treeInfo));
    pthread_mutex_unlock(&g_qovMergeQueGlbCb.nameTreeMutex);
    return mque;
}

uint32_t QOV_MergeQueNameTreeInsert(MergeQueCtrlBlk *mque) {
    YAV_AVL3_INIT_NODE(mque->nameNode);
    if (pthread_mutex_lock(&g_qovMergeQueGlbCb.nameTreeMutex) != 0) return 1;
    void *found = YAV_AVL3_Insert_Or_Find(&g_qovMergeQueGlbCb.nameTree, &mque->nameNode,
                                          &g_qovMergeQueGlbCb.treeInfo);
    pthread_mutex_unlock(&g_qovMergeQueGlbCb.nameTreeMutex);
    if (found != nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s NameTreeInsert %s.", mque->name, "Fail");
        return 1;
    }
    return 0;
}

}  // extern "C"

bool MqNameTreeReady() {
    if (pthread_mutex_lock(&g_qovMergeQueGlbCb.glbInitMutex) != 0) return false;
    bool ready = g_qovMergeQueGlbCb.initFlag != 0;
    pthread_mutex_unlock(&g_qovMergeQueGlbCb.glbInitMutex);
    return ready;
}

bool MqNameTreeUnlink(MergeQueCtrlBlk *mque) {
    if (pthread_mutex_lock(&g_qovMergeQueGlbCb.nameTreeMutex) != 0) return false;
    auto *found = static_cast<MergeQueCtrlBlk *>(
        YAV_AVL3_Find(&g_qovMergeQueGlbCb.nameTree, mque->name, &g_qovMergeQueGlbCb.treeInfo));
    if (found == mque) YAV_AVL3_Delete(&g_qovMergeQueGlbCb.nameTree, &mque->nameNode);
    pthread_mutex_unlock(&g_qovMergeQueGlbCb.nameTreeMutex);
    return found == mque;
}
