// A path's dispatch table: copies of the caller's dispatch entries in an
// integer hash keyed by msgId. Nodes and the table block come from the
// handle's memAlloc and go back to its memFree.
#include "merge/merge_private.h"

namespace {

constexpr uint32_t kDispatchBuckets = 32;

uint32_t FreeDispatchNode(ASIntHashNode *node, void *usrData) {
    static_cast<ASOrchHandle *>(usrData)->memFree(node);
    return 0;
}

uint32_t AddDispatchNode(ASIntHash *hash, const ASOrchMergeMsgDispatch *entry, ASOrchHandle *hdl) {
    auto *node = static_cast<ASOrchMergeDispatchNode *>(hdl->memAlloc(sizeof(ASOrchMergeDispatchNode)));
    if (node == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Orch auto sync merge msg failed to new hashNode", hdl->name);
        return 1;
    }
    if (memcpy_s(&node->entry, sizeof node->entry, entry, sizeof *entry) != 0) {
        hdl->memFree(node);
        return 1;
    }
    node->node.key = entry->msgId;
    if (ASIntHashAdd(hash, &node->node) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, merge failed to add hashNode(%u)", hdl->name, entry->msgId);
        hdl->memFree(node);
        return 1;
    }
    return 0;
}

uint32_t ASOrchCreatMergeMsgHashTable(ASIntHash *hash, const ASOrchMergePara *para, ASOrchHandle *hdl) {
    for (uint64_t i = 0; i < para->dispatchNum; ++i) {
        if (AddDispatchNode(hash, &para->dispatchTbl[i], hdl) != 0) return 1;
    }
    return 0;
}

}  // namespace

void ASOrchFreeDispatchHash(ASOrchHandle *hdl, ASIntHash *hash) {
    (void)ASIntHashWalk(hash, FreeDispatchNode, hdl);
    ASIntHashDelete(hash);
    hdl->memFree(hash);
}

uint32_t ASOrchInitMergeMsg(ASOrchMergeRec *rec, const ASOrchMergePara *para, ASOrchHandle *hdl) {
    ASIntHash *hash = ASIntHashCreate(kDispatchBuckets, hdl->memAlloc);
    if (hash == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Orch auto sync merge msg dispatch hash new Fail", hdl->name);
        return 1;
    }
    if (ASOrchCreatMergeMsgHashTable(hash, para, hdl) != 0) {
        ASOrchFreeDispatchHash(hdl, hash);
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Orch auto sync create merge msg hash Fail", hdl->name);
        return 1;
    }
    rec->dispatchHash = hash;
    return 0;
}
