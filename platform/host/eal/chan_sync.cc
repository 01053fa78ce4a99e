// Role, channels and sync groups of an EAL instance: what is registered, the
// receive functions, sending, back-pressure, and the set-up of sync links.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <memory>

#include "host_eal.h"
#include "host_internal.h"

using qovhost::EalInstance;
using qovhost::Enter;
using qovhost::LiveEal;

namespace {

qovhost::EalChannel *FindChan(void *chan) {
    // A channel handle is the address of a registered channel of a live instance.
    auto *c = static_cast<qovhost::EalChannel *>(chan);
    return c != nullptr && c->registered ? c : nullptr;
}

qovhost::EalSyncGrp *FindGrp(void *eal, uint32_t grpId) {
    EalInstance *e = LiveEal(eal);
    if (e == nullptr || grpId >= qovhost::kSyncGrpMax || !e->syncGrp[grpId].registered) return nullptr;
    return &e->syncGrp[grpId];
}

uint32_t SetChanPress(const char *op, void *chan, bool press) {
    uint32_t ret = 0;
    if (Enter(op, {qovhost::U(chan)}, &ret)) return ret;
    qovhost::EalChannel *c = FindChan(chan);
    return c != nullptr ? qovhost::LinkPress(c->link, press) : 1;
}

uint32_t SetSyncPress(const char *op, void *eal, uint32_t grpId, bool press) {
    uint32_t ret = 0;
    if (Enter(op, {qovhost::U(eal), grpId}, &ret)) return ret;
    qovhost::EalSyncGrp *g = FindGrp(eal, grpId);
    return g != nullptr ? qovhost::LinkPress(g->link, press) : 1;
}

// Sets up a group's link once: a listener on addr:*port, or a peer at
// addr:*port to connect to; started at once on a running instance.
uint32_t SetUpLink(void *eal, uint32_t grpId, bool listen, uint32_t addr, uint16_t *port) {
    EalInstance *e = LiveEal(eal);
    qovhost::EalSyncGrp *g = FindGrp(eal, grpId);
    if (g == nullptr || port == nullptr) return 1;
    std::lock_guard<std::mutex> lk(e->mu);
    qovhost::Link &l = g->link;
    if (l.configured) return 1;
    l.addr = addr;
    if (listen) {
        int32_t s = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        int one = 1;
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(*port);
        a.sin_addr.s_addr = l.addr;
        socklen_t n = sizeof a;
        if (s < 0 || setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0 ||
            bind(s, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || ::listen(s, 4) != 0 ||
            getsockname(s, reinterpret_cast<sockaddr *>(&a), &n) != 0) {
            if (s >= 0) close(s);
            return 1;
        }
        l.listenFd = s;
        *port = ntohs(a.sin_port);
    }
    l.listener = listen;
    l.port = *port;
    l.configured = true;
    if (e->started) qovhost::LinkStart(l, qovhost::ServingSet(*e, g->item.logicThreadId));
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
    std::lock_guard<std::mutex> lk(e->mu);
    if (e->started) return 1;
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
    qovhost::EalChannel *c = FindChan(chan);
    if (c == nullptr || (buf == nullptr && len != 0) || len > qovhost::FrameMax()) return 1;
    size_t n = QOV_HOST_FRAME_HDR_LEN + static_cast<size_t>(len);
    std::unique_ptr<uint8_t[]> frame(new uint8_t[n]);
    QovHostFrameEncode(frame.get(), n, flags, buf, len);
    return qovhost::LinkSend(c->link, frame.get(), n);
}

QOV_PLAT_API uint32_t QOV_EAL_RegSyncGroup(void *eal, const QOV_EAL_SyncGrpItem *items, uint32_t num) {
    qovhost::Journal("QOV_EAL_RegSyncGroup", {qovhost::U(eal), qovhost::U(items), num}, nullptr, items,
                     items != nullptr && num <= 4 ? num * sizeof *items : 0);
    int64_t r = 0;
    if (qovhost::Fail("QOV_EAL_RegSyncGroup", &r)) return static_cast<uint32_t>(r);
    EalInstance *e = LiveEal(eal);
    if (e == nullptr || (items == nullptr && num != 0)) return 1;
    std::lock_guard<std::mutex> lk(e->mu);
    for (uint32_t i = 0; i < num; ++i)
        if (items[i].grpId >= qovhost::kSyncGrpMax || e->syncGrp[items[i].grpId].link.configured) return 1;
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
    std::lock_guard<std::mutex> lk(e->mu);
    e->syncGrp[grpId].msgSet = msgSet;
    e->syncGrp[grpId].msgSetSet = true;
    return 0;
}

QOV_PLAT_API uint32_t QOV_EAL_SetSyncGrpFlowCtl(void *eal, uint32_t grpId, const QOV_EAL_SyncGrpFlowCtl *flowCtl) {
    qovhost::Journal("QOV_EAL_SetSyncGrpFlowCtl", {qovhost::U(eal), grpId, qovhost::U(flowCtl)}, nullptr, flowCtl,
                     flowCtl != nullptr ? sizeof *flowCtl : 0);
    int64_t r = 0;
    if (qovhost::Fail("QOV_EAL_SetSyncGrpFlowCtl", &r)) return static_cast<uint32_t>(r);
    EalInstance *e = LiveEal(eal);
    if (e == nullptr || flowCtl == nullptr || grpId >= qovhost::kSyncGrpMax) return 1;
    std::lock_guard<std::mutex> lk(e->mu);
    e->syncGrp[grpId].flowCtl = *flowCtl;
    e->syncGrp[grpId].flowCtlSet = true;
    return 0;
}

QOV_PLAT_API uint32_t QOV_EAL_SyncMsg(void *eal, uint32_t grpId, void *data, uint32_t count) {
    uint32_t ret = 0;
    if (Enter("QOV_EAL_SyncMsg", {qovhost::U(eal), grpId, qovhost::U(data), count}, &ret)) return ret;
    qovhost::EalSyncGrp *g = FindGrp(eal, grpId);
    if (g == nullptr || count > QOV_HOST_SYNC_ITEMS_MAX || (data == nullptr && count != 0)) return 1;
    if (!g->link.configured) return 0;  // a group without a peer: nothing to deliver
    const auto *items = static_cast<const QovHostSyncItem *>(data);
    uint64_t body = 0;
    for (uint32_t i = 0; i < count; ++i) {
        if (items[i].bytes == nullptr && items[i].len != 0) return 1;
        body += 4u + static_cast<uint64_t>(items[i].len);
    }
    if (body > qovhost::FrameMax()) return 1;
    size_t n = QOV_HOST_FRAME_HDR_LEN + static_cast<size_t>(body);
    std::unique_ptr<uint8_t[]> frame(new uint8_t[n]);
    QovHostFrameHdrEncode(frame.get(), grpId, static_cast<uint32_t>(body));
    uint8_t *p = frame.get() + QOV_HOST_FRAME_HDR_LEN;
    for (uint32_t i = 0; i < count; ++i) {
        QovHostPutU32(p, items[i].len);
        if (items[i].len != 0) std::memcpy(p + 4, items[i].bytes, items[i].len);
        p += 4 + items[i].len;
    }
    return qovhost::LinkSend(g->link, frame.get(), n);
}

QOV_PLAT_API uint32_t QOV_EAL_IsSyncReadyOnlyTarn(void *eal, uint32_t grpId) {
    uint32_t ret = 0;
    if (Enter("QOV_EAL_IsSyncReadyOnlyTarn", {qovhost::U(eal), grpId}, &ret)) return ret;
    qovhost::EalSyncGrp *g = FindGrp(eal, grpId);
    return g != nullptr && g->link.state == QOV_HOST_LINK_UP ? 1 : 0;
}

QOV_PLAT_API uint32_t QOV_EAL_SyncBackPress(void *eal, uint32_t grpId) {
    return SetSyncPress("QOV_EAL_SyncBackPress", eal, grpId, true);
}

QOV_PLAT_API uint32_t QOV_EAL_SyncUnBackPress(void *eal, uint32_t grpId) {
    return SetSyncPress("QOV_EAL_SyncUnBackPress", eal, grpId, false);
}

// ---- Host API ----

QOV_PLAT_API uint32_t QovHostChanSetRecv(void *eal, uint32_t chanIdx, QovHostChanRecvFunc fn, void *ctx) {
    EalInstance *e = LiveEal(eal);
    if (e == nullptr || chanIdx >= qovhost::kChanNum || !e->chan[chanIdx].registered) return 1;
    e->chan[chanIdx].recv.Set(fn, ctx);
    return 0;
}

QOV_PLAT_API uint32_t QovHostSyncSetRecv(void *eal, uint32_t grpId, QovHostSyncRecvFunc fn, void *ctx) {
    qovhost::EalSyncGrp *g = FindGrp(eal, grpId);
    if (g == nullptr) return 1;
    g->recv.Set(fn, ctx);
    return 0;
}

QOV_PLAT_API uint32_t QovHostSyncListen(void *eal, uint32_t grpId, uint16_t *port) {
    return SetUpLink(eal, grpId, true, htonl(INADDR_LOOPBACK), port);
}

QOV_PLAT_API uint32_t QovHostSyncConnect(void *eal, uint32_t grpId, uint16_t port) {
    return SetUpLink(eal, grpId, false, htonl(INADDR_LOOPBACK), &port);
}

QOV_PLAT_API uint32_t QovHostSyncListenAddr(void *eal, uint32_t grpId, uint32_t addr, uint16_t *port) {
    return SetUpLink(eal, grpId, true, addr, port);
}

QOV_PLAT_API uint32_t QovHostSyncConnectAddr(void *eal, uint32_t grpId, uint32_t addr, uint16_t port) {
    return SetUpLink(eal, grpId, false, addr, &port);
}

// ---- Control rows ----

QOV_PLAT_API int QovHostChanGet(void *eal, uint32_t chanIdx, QovHostChanRow *out) {
    EalInstance *e = LiveEal(eal);
    if (e == nullptr || chanIdx >= qovhost::kChanNum || out == nullptr) return -1;
    std::lock_guard<std::mutex> lk(e->mu);
    const qovhost::EalChannel &c = e->chan[chanIdx];
    *out = QovHostChanRow{c.para, c.registered, c.link.pressed, c.link.state, c.link.connects, c.link.framesIn,
                          c.link.framesRefused, c.link.framesBad, c.link.presses, c.link.releases};
    return 0;
}

QOV_PLAT_API int QovHostSyncGet(void *eal, uint32_t grpId, QovHostSyncRow *out) {
    EalInstance *e = LiveEal(eal);
    if (e == nullptr || grpId >= qovhost::kSyncGrpMax || out == nullptr) return -1;
    std::lock_guard<std::mutex> lk(e->mu);
    const qovhost::EalSyncGrp &g = e->syncGrp[grpId];
    *out = QovHostSyncRow{g.item,          g.flowCtl, g.msgSet, g.registered, g.flowCtlSet, g.msgSetSet,
                          g.link.pressed,  g.link.state, 0,     g.link.sent,  g.link.framesIn};
    return 0;
}

}  // extern "C"
