// Registration of table messages: the receive and transfer lists of the
// base-registration record, and transfer tables added at run time.
#include "core/base/as_path.h"
#include "inbound/inbound_private.h"
#include "qov_utils_eal.h"

namespace {

// One block for num nodes of type Node, or null when the allocator fails or
// the size does not fit its 32-bit byte count.
template <typename Node>
Node *AllocNodes(ASOrchHandle *hdl, uint32_t num) {
    if (num > UINT32_MAX / sizeof(Node)) return nullptr;
    return static_cast<Node *>(hdl->memAlloc(static_cast<uint32_t>(num * sizeof(Node))));
}

// The handle's table, created with 128 buckets on first use.
ASIntHash *TableOf(ASOrchHandle *hdl, ASIntHash **slot) {
    if (*slot == nullptr) {
        *slot = ASIntHashCreate(AS_TBLMSG_HASH_BUCKETS, hdl->memAlloc);
        if (*slot == nullptr) QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Orch auto sync create new tblmsg hash Fail", hdl->name);
    }
    return *slot;
}

// Which smoothing slots a transfer table's callbacks go to.
enum class SmoothSlots { FourArg, WithType };

// Fills nodes from descs and adds them; logs and returns 1 at the first key
// already present (the nodes before it stay added).
// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): count and path in the order ASOrchRegTblTrans takes them
uint32_t AddTransNodes(ASIntHash *table, TblMsgTransNode *nodes, const ASOrchTransTblMsg *descs, uint32_t num,
                       uint32_t dataPath, SmoothSlots slots) {
    for (uint32_t i = 0; i < num; ++i) {
        const ASOrchTransTblMsg &d = descs[i];
        TblMsgTransNode &n = nodes[i];
        n = TblMsgTransNode{};
        n.node.key = d.tableId;
        n.ctrl.tableId = d.tableId;
        n.ctrl.tblSize = d.tblSize;
        n.ctrl.tblParam = d.tblParam;
        n.ctrl.tblMsgProc = d.tblMsgProc;
        if (slots == SmoothSlots::FourArg) {
            n.ctrl.smoothPreProc = d.smoothPreProc.fn;
            n.ctrl.smoothProc = d.smoothProc.fn;
        } else {
            n.ctrl.smoothPreProcWithType = d.smoothPreProc.withType;
            n.ctrl.smoothProcWithType = d.smoothProc.withType;
        }
        n.ctrl.dataPath = dataPath;
        if (ASIntHashAdd(table, &n.node) != 0) {
            QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "Orch autosync trans add HashNode(%u) fail", d.tableId);
            return 1;
        }
    }
    return 0;
}

bool ASOrchTblMsgRecvIsValid(const ASOrchTblMsgList *list) { return list->num != 0 && list->tblMsg != nullptr; }
bool ASOrchTblMsgTransIsExist(const ASOrchTblMsgList *list) { return list->num != 0 && list->tblMsg != nullptr; }

uint32_t ASOrchFillTblMsgRecvHashTable(ASOrchHandle *hdl, ASIntHash *table, const ASOrchTblMsgList *list) {
    auto *nodes = AllocNodes<TblMsgRecvNode>(hdl, list->num);
    if (nodes == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "Orch auto sync recv tbl msg failed to new HashNode");
        return 1;
    }
    const auto *descs = static_cast<const ASOrchRecvTblMsg *>(list->tblMsg);
    for (uint32_t i = 0; i < list->num; ++i) {
        const ASOrchRecvTblMsg &d = descs[i];
        nodes[i] = TblMsgRecvNode{{{nullptr}, d.msgId},
                                  {d.mergeMsgId, d.msgId, d.opType, d.unpack, d.unpackFree, d.ipcSize, d.mergeType,
                                   d.userDefProc, d.mergeOp, d.keySize, 0}};
        if (ASIntHashAdd(table, &nodes[i].node) != 0) {
            QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "Orch autosync recv add HashNode(%u) fail", d.msgId);
            return 1;
        }
    }
    return 0;
}

uint32_t ASOrchFillTblMsgTransHashTable(ASOrchHandle *hdl, ASIntHash *table, const ASOrchTblMsgList *list,
                                        uint32_t dataPath) {
    auto *nodes = AllocNodes<TblMsgTransNode>(hdl, list->num);
    if (nodes == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "Orch auto sync trans tbl msg failed to new HashNode");
        return 1;
    }
    return AddTransNodes(table, nodes, static_cast<const ASOrchTransTblMsg *>(list->tblMsg), list->num, dataPath,
                         SmoothSlots::FourArg);
}

uint32_t ASOrchInitTblMsgRecvHash(ASOrchHandle *hdl, const ASOrchTblMsgList *list) {
    ASIntHash *table = TableOf(hdl, &hdl->recvTblMsgHash);
    if (table == nullptr) return 1;
    if (ASOrchFillTblMsgRecvHashTable(hdl, table, list) == 0) return 0;
    // The lists registered into this table before are dropped with it.
    hdl->recvTblMsgHash = nullptr;
    QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Orch auto sync create tblmsg hash Fail", hdl->name);
    return 1;
}

uint32_t ASOrchInitTblMsgTransHash(ASOrchHandle *hdl, const ASOrchTblMsgList *list, uint32_t dataPath) {
    ASIntHash *table = TableOf(hdl, &hdl->transTblMsgHash);
    if (table == nullptr) return 1;
    if (ASOrchFillTblMsgTransHashTable(hdl, table, list, dataPath) == 0) return 0;
    hdl->transTblMsgHash = nullptr;
    QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Orch auto sync create tblmsg hash Fail", hdl->name);
    return 1;
}

uint32_t ASOrchRegTblMsgRecv(ASOrchHandle *hdl, const ASOrchBasePara *para) {
    for (const ASOrchTblMsgList &list : para->recvTblMsgList) {
        if (ASOrchTblMsgRecvIsValid(&list) && ASOrchInitTblMsgRecvHash(hdl, &list) != 0) return 1;
    }
    return 0;
}

uint32_t ASOrchRegTblMsgTrans(ASOrchHandle *hdl, const ASOrchBasePara *para) {
    for (ASOrchPath path : AS_PATHS) {
        const ASOrchTblMsgList &list = para->transTblMsgList[ASPathIndex(path)];
        if (ASOrchTblMsgTransIsExist(&list) && ASOrchInitTblMsgTransHash(hdl, &list, ASPathIndex(path)) != 0)
            return 1;
    }
    return 0;
}

uint32_t ASOrchRegTblMsgTransNew(ASOrchHandle *hdl, const ASOrchTransTblMsg *tbl, uint32_t num, uint32_t dataPath) {
    if (QOV_EAL_SelfRoleIsMb(hdl->ealHdl) == 0 || tbl == nullptr || num == 0) return 0;
    ASIntHash *table = TableOf(hdl, &hdl->transTblMsgHash);
    if (table == nullptr) return 1;
    auto *nodes = AllocNodes<TblMsgTransNode>(hdl, num);
    if (nodes == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "Orch auto sync trans tbl new msg failed to new HashNode");
        return 1;
    }
    return AddTransNodes(table, nodes, tbl, num, dataPath, SmoothSlots::WithType);
}

}  // namespace

uint32_t ASOrchRegTblMsg(ASOrchHandle *hdl, const ASOrchBasePara *para) {
    if (QOV_EAL_SelfRoleIsMb(hdl->ealHdl) == 0) return 0;
    if (ASOrchRegTblMsgRecv(hdl, para) != 0) return 1;
    return ASOrchRegTblMsgTrans(hdl, para) != 0 ? 1 : 0;
}

extern "C" QOV_AS_API uint32_t ASOrchRegTblTrans(ASOrchHandle *hdl, uint32_t dataPath, const ASOrchTransTblMsg *tbl,
                                                 uint32_t num) {
    if (hdl == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "Orch autosync reg trans tbl msg handle is null.");
        return 1;
    }
    return ASOrchRegTblMsgTransNew(hdl, tbl, num, dataPath);
}
