// Waking the reader through the queue's event descriptor, the high/low-water
// monitor, and back-pressure (the descriptor taken out of its epoll set).
#include <sys/eventfd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include "core/base/as_serving.h"
#include "mergeque/mergeque_internal.h"
#include "mergeque/mq_private.h"
#include "qov_utils_eal.h"

namespace {

// Semaphore mode (each read takes one count), non-blocking, close-on-exec.
constexpr int kEventFdFlags = EFD_SEMAPHORE | EFD_NONBLOCK | EFD_CLOEXEC;
static_assert(kEventFdFlags == 0x80801);

// How long a stop sleeps between looks at a dispatch still running.
constexpr auto kStopPoll = std::chrono::microseconds(50);

std::atomic_ref<uint32_t> Ctl(MergeQueCtrlBlk *mque) { return std::atomic_ref<uint32_t>(mque->reader.ctl); }

// Returns the control word as it was when the lock was taken.
uint32_t RegLock(MergeQueCtrlBlk *mque) {
    uint32_t was;
    while (((was = Ctl(mque).fetch_or(kMqCtlRegLock, std::memory_order_acquire)) & kMqCtlRegLock) != 0) {
        std::this_thread::yield();
    }
    return was;
}

void RegUnlock(MergeQueCtrlBlk *mque) { Ctl(mque).fetch_and(~kMqCtlRegLock, std::memory_order_release); }

uint32_t EpollRegLocked(MergeQueCtrlBlk *mque, uint32_t ctl) {
    MergeQueReader &rd = mque->reader;
    if ((ctl & kMqCtlStopped) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s reader is stopped, epoll reg refused.", mque->name);
        return 1;
    }
    if (rd.eventFd == -1) rd.eventFd = eventfd_s(0, kEventFdFlags);
    if (rd.eventFd < 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s Create Eventfd Fail, errno=%d", mque->name, errno);
        return 1;
    }
    if (rd.epollReg == 1) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s has add epoll.", mque->name);
        return 1;
    }
    if (QOV_EPOLL_Add(mque->para.epFd, rd.eventFd, QOV_EPOLL_IN, QOV_MergeQueSchedProc, mque) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s failed to add epoll", mque->name);
        return 1;
    }
    MqStore(rd.epollReg, 1u);
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "%s epoll reg, epfd = %d, quefd = %d.", mque->name, mque->para.epFd, rd.eventFd);
    return 0;
}

// On the queue's own thread the removal never waits: a dispatch of this queue
// running there is the caller itself.
void QOV_MergeQueEpollUnReg(MergeQueCtrlBlk *mque) {
    MergeQueReader &rd = mque->reader;
    (void)RegLock(mque);
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "epfd unreg, epfd = %d(%u), quefd = %d.", mque->para.epFd, rd.epollReg, rd.eventFd);
    if (rd.epollReg == 1) {
        QOV_EPOLL_DEL(mque->para.epFd, rd.eventFd);
        MqStore(rd.epollReg, 0u);
    }
    RegUnlock(mque);
}

// Whether attr can watch the queue; false after a log line naming what is wrong.
bool QOV_MergeQueMonitorCheck(const MergeQueCtrlBlk *mque, const MergeQueMonitorAttr *attr) {
    if (mque == nullptr || attr == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "MonitorReg failed, para is null, mqueHandle: %u, monitorAttr: %u.",
                            mque == nullptr ? 1u : 0u, attr == nullptr ? 1u : 0u);
        return false;
    }
    if (attr->highWater <= attr->lowWater) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "merge queue %s MonitorReg failed, highWater(%u) less than lowWater(%u).",
                            mque->name, attr->highWater, attr->lowWater);
        return false;
    }
    if (attr->flowCtrlNotify == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "merge queue %s MonitorReg failed, flowCtrlNotify is null.", mque->name);
        return false;
    }
    return true;
}

// Counts a queue statistic, stamped as the mask says.
void MqCountStat(MergeQueCtrlBlk *mque, uint32_t id) {
    MqStore(mque->stat[id].cnt, mque->stat[id].cnt + 1);
    if (((kMqStatStampMask >> id) & 1) != 0) QOV_MergeQueSetTimeStamp(&mque->stat[id].stamp);
}

}  // namespace

extern "C" {

uint32_t QOV_MergeQueEpollReg(MergeQueCtrlBlk *mque) {
    uint32_t ret = EpollRegLocked(mque, RegLock(mque));
    RegUnlock(mque);
    return ret;
}

// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): the platform's epoll callback type
uint32_t QOV_MergeQueSchedProc(int32_t fd, uint32_t events, void *usrData) {
    (void)events;
    auto *mque = static_cast<MergeQueCtrlBlk *>(usrData);
    if (fd < 0 || mque == nullptr) return 1;
    std::atomic_ref<uint32_t> ctl = Ctl(mque);
    if ((ctl.fetch_or(kMqCtlRunning, std::memory_order_acquire) & kMqCtlStopped) != 0) {
        ctl.fetch_and(~kMqCtlRunning, std::memory_order_release);
        return 1;
    }
    uint32_t ret = 0;
    eventfd_t value = 0;
    if (eventfd_read(fd, &value) < 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "merge queue %s Fail To Sched, errno=%d", mque->name, errno);
        ret = 1;
    } else if (mque->para.schedFunc != nullptr) {
        ASOrchServingScope serving(mque);
        mque->para.schedFunc(mque);
    }
    ctl.fetch_and(~kMqCtlRunning, std::memory_order_release);  // the last touch of the queue
    return ret;
}

void QOV_MergeQueNotifyByRead(MergeQueCtrlBlk *mque) {
    if (mque->reader.itemCnt == 0) return;
    if (eventfd_write(mque->reader.eventFd, 1) < 0) MqCountReaderStat(mque, MQ_RSTAT_READ_NOTIFY_ERR);
}

QOV_AS_API uint32_t QOV_MergeQueMonitorReg(MergeQueCtrlBlk *mque, const MergeQueMonitorAttr *attr) {
    if (!QOV_MergeQueMonitorCheck(mque, attr)) return 1;
    // The queue is already in the name tree, where reports read the monitor
    // under the tree's mutex; written under it, the monitor is seen whole.
    bool locked = pthread_mutex_lock(&g_qovMergeQueGlbCb.nameTreeMutex) == 0;
    mque->monitor.highWater = attr->highWater;
    mque->monitor.lowWater = attr->lowWater;
    mque->monitor.flowCtrlNotify = attr->flowCtrlNotify;
    mque->monitor.usrData = attr->usrData;
    mque->monitor.overLoad = 0;
    if (locked) pthread_mutex_unlock(&g_qovMergeQueGlbCb.nameTreeMutex);
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "merge queue %s MonitorReg ok.", mque->name);
    return 0;
}

void QOV_MergeQueMonitorWrite(MergeQueCtrlBlk *mque) {
    MergeQueMonitor &mon = mque->monitor;
    if (mon.flowCtrlNotify == nullptr || mon.overLoad != 0 || mque->reader.itemCnt <= mon.highWater) return;
    MqStore(mon.overLoad, 1u);
    MqCountStat(mque, MQ_STAT_OVER_HIGH_WATER);
    mon.flowCtrlNotify(0, mon.usrData);
}

void QOV_MergeQueMonitorRemove(MergeQueCtrlBlk *mque) {
    MergeQueMonitor &mon = mque->monitor;
    if (mon.flowCtrlNotify == nullptr || mon.overLoad != 1 || mque->reader.itemCnt >= mon.lowWater) return;
    MqStore(mon.overLoad, 0u);
    MqCountStat(mque, MQ_STAT_UNDER_LOW_WATER);
    mon.flowCtrlNotify(1, mon.usrData);
}

QOV_AS_API uint32_t QOV_MergeQueBackPress(MergeQueCtrlBlk *mque, uint64_t ctx) {
    if (mque == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "merge queue BackPress failed, handle is null.");
        return 1;
    }
    QOV_MergeQueEpollUnReg(mque);
    mque->reader.backPressCtx = ctx;
    MqCountReaderStat(mque, MQ_RSTAT_BACK_PRESS);
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "merge queue %s BackPress ok.", mque->name);
    return 0;
}

QOV_AS_API uint32_t QOV_MergeQueUnBackPress(MergeQueCtrlBlk *mque, uint64_t *ctx) {
    if (mque == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "merge queue UnbackPress failed, handle is null.");
        return 1;
    }
    if (QOV_MergeQueEpollReg(mque) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "merge queue %s UnbackPress failed.", mque->name);
        return 1;
    }
    if (ctx != nullptr) *ctx = mque->reader.backPressCtx;
    MqCountReaderStat(mque, MQ_RSTAT_UNBACK_PRESS);
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "merge queue %s UnbackPress ok.", mque->name);
    return 0;
}

}  // extern "C"

void QOV_MergeQueStopReader(MergeQueCtrlBlk *mque) {
    MergeQueReader &rd = mque->reader;
    (void)RegLock(mque);
    Ctl(mque).fetch_or(kMqCtlStopped, std::memory_order_relaxed);
    uint32_t wasReg = rd.epollReg;
    MqStore(rd.epollReg, 0u);
    RegUnlock(mque);
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "epfd unreg, epfd = %d(%u), quefd = %d.", mque->para.epFd, wasReg, rd.eventFd);
    // The removal waits for a dispatch of the registration running on another
    // thread; one whose handler has already pressed the queue out of the set
    // is waited for by its running mark.
    if (wasReg == 1) QOV_EPOLL_DEL(mque->para.epFd, rd.eventFd);
    while ((Ctl(mque).load(std::memory_order_acquire) & kMqCtlRunning) != 0) std::this_thread::sleep_for(kStopPoll);
}
