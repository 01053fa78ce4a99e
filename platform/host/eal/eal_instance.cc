// EAL instances: one epoll set per thread kind, created with the instance;
// Start runs a loop thread for each registered thread kind (Data always).
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <mutex>
#include <set>
#include <thread>

#include "eal_internal.h"
#include "host_eal.h"
#include "host_internal.h"

namespace qovhost {
namespace {

std::mutex g_liveMu;
std::set<EalInstance *> *g_live = new std::set<EalInstance *>;

// The instance whose loop runs on this thread, for a destroy to know that it
// is called on one of the instance's own threads.
thread_local const EalInstance *t_ownEal = nullptr;

void RunLoop(EalInstance *eal, uint32_t kind) {
    t_ownEal = eal;
    const char *name = eal->threadPara[kind].threadName;
    if (name[0] != '\0') {
        char shortName[16] = {};  // what the kernel takes
        std::memcpy(shortName, name, strnlen(name, sizeof shortName - 1));
        pthread_setname_np(pthread_self(), shortName);
    }
    eal->tid[kind] = static_cast<int32_t>(gettid());
    bool stopped = false;
    while (!stopped) {
        if (EpollRunOnce(eal->epFd[kind], -1, eal->stopFd, &stopped) < 0) break;
    }
    eal->tid[kind] = 0;
}

void CloseAll(EalInstance *eal) {
    for (int32_t &fd : eal->epFd) {
        if (fd < 0) continue;
        EpollForgetSet(fd);
        close(fd);
        fd = -1;
    }
    if (eal->stopFd >= 0) close(eal->stopFd);
    eal->stopFd = -1;
}

// Makes the epoll sets and the stop descriptor watched by each of them.
bool OpenAll(EalInstance *eal) {
    eal->stopFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (eal->stopFd < 0) return false;
    for (int32_t &fd : eal->epFd) {
        fd = epoll_create1(EPOLL_CLOEXEC);
        if (fd < 0) return false;
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.u64 = 0;
        if (epoll_ctl(fd, EPOLL_CTL_ADD, eal->stopFd, &ev) != 0) return false;
    }
    return true;
}

}  // namespace

int32_t ServingSet(const EalInstance &e, uint32_t threadId) {
    bool runs = threadId < QOV_EAL_THREAD_KIND_NUM && (e.runMask & (1u << threadId)) != 0;
    return e.epFd[runs ? threadId : QOV_EAL_THREAD_DATA];
}

EalInstance *LiveEal(void *eal) {
    std::lock_guard<std::mutex> lk(g_liveMu);
    auto *e = static_cast<EalInstance *>(eal);
    return g_live->count(e) != 0 ? e : nullptr;
}

}  // namespace qovhost

using qovhost::EalInstance;
using qovhost::LiveEal;

extern "C" {

QOV_PLAT_API void *QOV_EAL_Create(const char *name, const QOV_EAL_CreatePara *para) {
    qovhost::Journal("QOV_EAL_Create", {qovhost::U(name), qovhost::U(para)}, name, para,
                     para != nullptr ? sizeof *para : 0);
    int64_t r = 0;
    if (qovhost::Fail("QOV_EAL_Create", &r) || name == nullptr || para == nullptr) return nullptr;
    auto *eal = new EalInstance;
    std::snprintf(eal->name, sizeof eal->name, "%s", name);
    eal->para = *para;
    for (uint32_t i = 0; i < qovhost::kChanNum; ++i) eal->chan[i].link.Init(qovhost::Link::Kind::kChan, i, eal);
    for (uint32_t i = 0; i < qovhost::kSyncGrpMax; ++i) eal->syncGrp[i].link.Init(qovhost::Link::Kind::kSync, i, eal);
    if (!qovhost::OpenAll(eal)) {
        qovhost::CloseAll(eal);
        delete eal;
        return nullptr;
    }
    std::lock_guard<std::mutex> lk(qovhost::g_liveMu);
    qovhost::g_live->insert(eal);
    return eal;
}

QOV_PLAT_API uint32_t QOV_EAL_Init(void *eal) {
    uint32_t ret = 0;
    if (qovhost::Enter("QOV_EAL_Init", {qovhost::U(eal)}, &ret)) return ret;
    EalInstance *e = LiveEal(eal);
    if (e == nullptr) return 1;
    e->inited = true;
    return 0;
}

QOV_PLAT_API uint32_t QOV_EAL_Start(void *eal) {
    uint32_t ret = 0;
    if (qovhost::Enter("QOV_EAL_Start", {qovhost::U(eal)}, &ret)) return ret;
    EalInstance *e = LiveEal(eal);
    if (e == nullptr) return 1;
    std::lock_guard<std::mutex> lk(e->mu);
    if (!e->inited || e->started) return 1;
    e->runMask = e->threadMask | (1u << QOV_EAL_THREAD_DATA);
    for (uint32_t k = 0; k < QOV_EAL_THREAD_KIND_NUM; ++k) {
        if ((e->runMask & (1u << k)) == 0) continue;
        e->threads[k] = std::thread(qovhost::RunLoop, e, k);
    }
    e->started = true;
    // Every registered channel connects to its broker, in the MB role only:
    // the broker serves the MB, a standby's channels stay idle. Sync links
    // that are set up already start too (later ones start when they are set up).
    const bool mb = QovHostRoleMb() != 0;
    for (qovhost::EalChannel &c : e->chan) {
        if (!c.registered || !mb) continue;
        c.link.addr = c.para.serverAddrFunc != nullptr ? c.para.serverAddrFunc() : htonl(INADDR_LOOPBACK);
        c.link.port = ntohs(c.para.serverPort);
        c.link.configured = true;
        qovhost::LinkStart(c.link, qovhost::ServingSet(*e, c.para.chanThreadId));
    }
    for (qovhost::EalSyncGrp &g : e->syncGrp)
        if (g.link.configured) qovhost::LinkStart(g.link, qovhost::ServingSet(*e, g.item.logicThreadId));
    return 0;
}

QOV_PLAT_API uint32_t QOV_EAL_SetOndemandParam(void *eal, uint64_t value) {
    uint32_t ret = 0;
    if (qovhost::Enter("QOV_EAL_SetOndemandParam", {qovhost::U(eal), value}, &ret)) return ret;
    EalInstance *e = LiveEal(eal);
    if (e == nullptr) return 1;
    e->ondemand = value;
    return 0;
}

QOV_PLAT_API uint32_t QOV_EAL_ModInitOk(void *eal) {
    uint32_t ret = 0;
    if (qovhost::Enter("QOV_EAL_ModInitOk", {qovhost::U(eal)}, &ret)) return ret;
    EalInstance *e = LiveEal(eal);
    if (e == nullptr) return 1;
    e->modInitOk = true;
    return 0;
}

QOV_PLAT_API int32_t QOV_EAL_GetEpollFd(void *eal, uint32_t epollIdx) {
    int32_t ret = 0;
    if (qovhost::Enter("QOV_EAL_GetEpollFd", {qovhost::U(eal), epollIdx}, &ret)) return ret;
    EalInstance *e = LiveEal(eal);
    if (e == nullptr || epollIdx >= QOV_EAL_THREAD_KIND_NUM) return -1;
    return e->epFd[epollIdx];
}

QOV_PLAT_API void QOV_EAL_Destroy(void *eal) {
    qovhost::Journal("QOV_EAL_Destroy", {qovhost::U(eal)});
    EalInstance *e = nullptr;
    {
        std::lock_guard<std::mutex> lk(qovhost::g_liveMu);
        auto *cand = static_cast<EalInstance *>(eal);
        if (qovhost::g_live->count(cand) == 0) return;
        // A thread of the instance cannot wait for itself to end: the call is
        // refused and the instance stays as it is.
        if (qovhost::t_ownEal == cand) {
            char text[128];
            std::snprintf(text, sizeof text, "%s destroy refused: called on the instance's own thread", cand->name);
            KRT_DiagLogWrite("QOV_EAL", text);
            return;
        }
        qovhost::g_live->erase(cand);
        e = cand;
    }
    qovhost::CtlShut(*e);
    uint64_t one = 1;
    if (e->stopFd >= 0 && write(e->stopFd, &one, sizeof one) < 0) std::perror("QOV_EAL_Destroy: stop");
    for (std::thread &t : e->threads)
        if (t.joinable()) t.join();
    qovhost::CloseAll(e);
    for (qovhost::EalChannel &c : e->chan) qovhost::LinkClose(c.link);
    for (qovhost::EalSyncGrp &g : e->syncGrp) qovhost::LinkClose(g.link);
    qovhost::RecorderFree(*e);
    delete e;
}

QOV_PLAT_API uint32_t QOV_EAL_RegThread(void *eal, const QOV_EAL_ThreadPara *threads, uint32_t num) {
    qovhost::Journal("QOV_EAL_RegThread", {qovhost::U(eal), qovhost::U(threads), num}, nullptr, threads,
                     threads != nullptr && num <= QOV_EAL_THREAD_KIND_NUM ? num * sizeof *threads : 0);
    int64_t r = 0;
    if (qovhost::Fail("QOV_EAL_RegThread", &r)) return static_cast<uint32_t>(r);
    EalInstance *e = LiveEal(eal);
    if (e == nullptr || (threads == nullptr && num != 0) || num > QOV_EAL_THREAD_KIND_NUM) return 1;
    std::lock_guard<std::mutex> lk(e->mu);
    if (e->started) return 1;
    for (uint32_t i = 0; i < num; ++i) {
        if (threads[i].threadId >= QOV_EAL_THREAD_KIND_NUM) return 1;
    }
    for (uint32_t i = 0; i < num; ++i) {
        uint32_t k = threads[i].threadId;
        e->threadMask |= 1u << k;
        e->threadPara[k] = threads[i];
        e->threadPara[k].threadName[sizeof e->threadPara[k].threadName - 1] = '\0';
    }
    return 0;
}

QOV_PLAT_API uint32_t QOV_EAL_RegModStateRsp(void *eal, uint64_t modStateRsp, uint32_t modStateRspArg) {
    uint32_t ret = 0;
    if (qovhost::Enter("QOV_EAL_RegModStateRsp", {qovhost::U(eal), modStateRsp, modStateRspArg}, &ret)) return ret;
    EalInstance *e = LiveEal(eal);
    if (e == nullptr) return 1;
    std::lock_guard<std::mutex> lk(e->mu);
    e->modStateRsp = modStateRsp;
    e->modStateRspArg = modStateRspArg;
    e->modStateSet = true;
    return 0;
}

QOV_PLAT_API uint32_t QOV_EAL_ReservePort(void *eal, uint32_t para0, uint32_t para1) {
    uint32_t ret = 0;
    if (qovhost::Enter("QOV_EAL_ReservePort", {qovhost::U(eal), para0, para1}, &ret)) return ret;
    EalInstance *e = LiveEal(eal);
    if (e == nullptr) return 1;
    std::lock_guard<std::mutex> lk(e->mu);
    e->rsvPort[0] = para0;
    e->rsvPort[1] = para1;
    e->rsvPortSet = true;
    return 0;
}

QOV_PLAT_API int QovHostThreadGet(void *eal, uint32_t kind, QovHostThreadRow *out) {
    EalInstance *e = LiveEal(eal);
    if (e == nullptr || kind >= QOV_EAL_THREAD_KIND_NUM || out == nullptr) return -1;
    std::lock_guard<std::mutex> lk(e->mu);
    *out = QovHostThreadRow{e->threadPara[kind], (e->threadMask >> kind) & 1u, (e->runMask >> kind) & 1u,
                            e->tid[kind].load(), 0};
    return 0;
}

QOV_PLAT_API int QovHostModGet(void *eal, QovHostModRow *out) {
    EalInstance *e = LiveEal(eal);
    if (e == nullptr || out == nullptr) return -1;
    std::lock_guard<std::mutex> lk(e->mu);
    *out = QovHostModRow{e->modStateRsp, e->modStateRspArg, e->modStateSet, e->rsvPort[0], e->rsvPort[1],
                         e->rsvPortSet, 0};
    return 0;
}

}  // extern "C"
