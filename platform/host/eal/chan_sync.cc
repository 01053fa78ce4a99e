// Role, channels and sync groups of an EAL instance, with their back-pressure
// state.
#include <cstring>

#include "host_eal.h"
#include "host_internal.h"

using qovhost::EalInstance;
using qovhost::LiveEal;

using qovhost::Enter;

namespace {

qovhost::EalChannel *FindChan(void *chan) {
    // A channel handle is the address of a registered channel of a live instance.
    auto *c = static_cast<qovhost::EalChannel *>(chan);
    return c != nullptr && c->registered ? c : nullptr;
}

uint32_t SetChanPress(const char *op, void *chan, bool press) {
    uint32_t ret = 0;
    if (Enter(op, {qovhost::U(chan)}, &ret)) return ret;
    qovhost::EalChannel *c = FindChan(chan);
    if (c == nullptr) return 1;
    c->backPressed = press;
    return 0;
}

uint32_t SetSyncPress(const char *op, void *eal, uint32_t grpId, bool press) {
    uint32_t ret = 0;
    if (Enter(op, {qovhost::U(eal), grpId}, &ret)) return ret;
    EalInstance *e = LiveEal(eal);
    if (e == nullptr || grpId >= qovhost::kSyncGrpMax || !e->syncGrp[grpId].registered) return 1;
    e->syncGrp[grpId].backPressed = press;
    return 0;
}

}  // namespace

extern "C" {

QOV_PLAT_API uint32_t QOV_EAL_SelfRoleIsMb(void *eal) {
    qovhost::Journal("QOV_EAL_SelfRoleIsMb", {qovhost::U(eal)});
    return QovHostRoleMb();
}

QOV_PLAT_API uint32_t QOV_EAL_RegUcChannel(void *eal, const QOV_EAL_ChanPara *para, uint32_t num) {
    qovhost::Journal("QOV_EAL_RegUcChannel", {qovhost::U(eal), qovhost::U(para), num}, nullptr, para,
                     para != nullptr ? sizeof *para : 0);
    int64_t r = 0;
    if (qovhost::Fail("QOV_EAL_RegUcChannel", &r)) return static_cast<uint32_t>(r);
    EalInstance *e = LiveEal(eal);
    if (e == nullptr || para == nullptr || num == 0) return 1;
    for (uint32_t i = 0; i < num; ++i)
        if (para[i].chanIdx >= qovhost::kChanNum || e->chan[para[i].chanIdx].registered) return 1;
    for (uint32_t i = 0; i < num; ++i) {
        qovhost::EalChannel &c = e->chan[para[i].chanIdx];
        c.para = para[i];
        c.registered = true;
    }
    return 0;
}

QOV_PLAT_API void *QOV_EAL_GetChannelHdl(void *eal, uint32_t chanIdx) {
    qovhost::Journal("QOV_EAL_GetChannelHdl", {qovhost::U(eal), chanIdx});
    int64_t r = 0;
    if (qovhost::Fail("QOV_EAL_GetChannelHdl", &r)) return nullptr;
    EalInstance *e = LiveEal(eal);
    if (e == nullptr || chanIdx >= qovhost::kChanNum || !e->chan[chanIdx].registered) return nullptr;
    return &e->chan[chanIdx];
}

QOV_PLAT_API uint32_t QOV_CHAN_BackPress(void *chan) { return SetChanPress("QOV_CHAN_BackPress", chan, true); }
QOV_PLAT_API uint32_t QOV_CHAN_UnBackPress(void *chan) {
    return SetChanPress("QOV_CHAN_UnBackPress", chan, false);
}

QOV_PLAT_API uint32_t QOV_CHAN_USendMsg(void *chan, uint32_t ipAddr, uint32_t flags, void *buf, uint32_t len) {
    uint32_t ret = 0;
    if (Enter("QOV_CHAN_USendMsg", {qovhost::U(chan), ipAddr, flags, qovhost::U(buf), len}, &ret)) return ret;
    return FindChan(chan) != nullptr && (buf != nullptr || len == 0) ? 0 : 1;
}

QOV_PLAT_API uint32_t QOV_EAL_RegSyncGroup(void *eal, const QOV_EAL_SyncGrpItem *items, uint32_t num) {
    qovhost::Journal("QOV_EAL_RegSyncGroup", {qovhost::U(eal), qovhost::U(items), num}, nullptr, items,
                     items != nullptr && num <= 4 ? num * sizeof *items : 0);
    int64_t r = 0;
    if (qovhost::Fail("QOV_EAL_RegSyncGroup", &r)) return static_cast<uint32_t>(r);
    EalInstance *e = LiveEal(eal);
    if (e == nullptr || (items == nullptr && num != 0)) return 1;
    for (uint32_t i = 0; i < num; ++i)
        if (items[i].grpId >= qovhost::kSyncGrpMax) return 1;
    for (uint32_t i = 0; i < num; ++i) {
        e->syncGrp[items[i].grpId].item = items[i];
        e->syncGrp[items[i].grpId].registered = true;
    }
    return 0;
}

QOV_PLAT_API uint32_t QOV_EAL_RegSyncGrpMsgSet(void *eal, uint32_t grpId, uint64_t msgSet) {
    uint32_t ret = 0;
    if (Enter("QOV_EAL_RegSyncGrpMsgSet", {qovhost::U(eal), grpId, msgSet}, &ret)) return ret;
    EalInstance *e = LiveEal(eal);
    if (e == nullptr || grpId >= qovhost::kSyncGrpMax) return 1;
    e->syncGrp[grpId].msgSet = msgSet;
    return 0;
}

QOV_PLAT_API uint32_t QOV_EAL_SetSyncGrpFlowCtl(void *eal, uint32_t grpId, const QOV_EAL_SyncGrpFlowCtl *flowCtl) {
    qovhost::Journal("QOV_EAL_SetSyncGrpFlowCtl", {qovhost::U(eal), grpId, qovhost::U(flowCtl)}, nullptr, flowCtl,
                     flowCtl != nullptr ? sizeof *flowCtl : 0);
    int64_t r = 0;
    if (qovhost::Fail("QOV_EAL_SetSyncGrpFlowCtl", &r)) return static_cast<uint32_t>(r);
    return LiveEal(eal) != nullptr && flowCtl != nullptr && grpId < qovhost::kSyncGrpMax ? 0 : 1;
}

QOV_PLAT_API uint32_t QOV_EAL_SyncMsg(void *eal, uint32_t grpId, void *data, uint32_t count) {
    uint32_t ret = 0;
    if (Enter("QOV_EAL_SyncMsg", {qovhost::U(eal), grpId, qovhost::U(data), count}, &ret)) return ret;
    EalInstance *e = LiveEal(eal);
    return e != nullptr && grpId < qovhost::kSyncGrpMax && e->syncGrp[grpId].registered ? 0 : 1;
}

QOV_PLAT_API uint32_t QOV_EAL_IsSyncReadyOnlyTarn(void *eal, uint32_t grpId) {
    uint32_t ret = 0;
    if (Enter("QOV_EAL_IsSyncReadyOnlyTarn", {qovhost::U(eal), grpId}, &ret)) return ret;
    EalInstance *e = LiveEal(eal);
    return e != nullptr && grpId < qovhost::kSyncGrpMax && e->syncGrp[grpId].registered ? 1 : 0;
}

QOV_PLAT_API uint32_t QOV_EAL_SyncBackPress(void *eal, uint32_t grpId) {
    return SetSyncPress("QOV_EAL_SyncBackPress", eal, grpId, true);
}

QOV_PLAT_API uint32_t QOV_EAL_SyncUnBackPress(void *eal, uint32_t grpId) {
    return SetSyncPress("QOV_EAL_SyncUnBackPress", eal, grpId, false);
}

}  // extern "C"
