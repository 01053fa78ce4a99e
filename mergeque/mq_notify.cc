// Waking the reader through the queue's event descriptor, the high/low-water
// monitor, and back-pressure (the descriptor taken out of its epoll set).
#include <sys/eventfd.h>

#include <cerrno>

#include "mergeque/mq_private.h"
#include "qov_utils_eal.h"

namespace {

// Semaphore mode (each read takes one count), non-blocking, close-on-exec.
constexpr int kEventFdFlags = EFD_SEMAPHORE | EFD_NONBLOCK | EFD_CLOEXEC;
static_assert(kEventFdFlags == 0x80801);

}  // namespace

extern "C" {

uint32_t QOV_MergeQueEpollReg(MergeQueCtrlBlk *mque) {
    MergeQueReader &rd = mque->reader;
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
    rd.epollReg = 1;
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "%s epoll reg, epfd = %d, quefd = %d.", mque->name, mque->para.epFd, rd.eventFd);
    return 0;
}

void QOV_MergeQueEpollUnReg(MergeQueCtrlBlk *mque) {
    MergeQueReader &rd = mque->reader;
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "epfd unreg, epfd = %d(%u), quefd = %d.", mque->para.epFd, rd.epollReg, rd.eventFd);
    if (rd.epollReg != 1) return;
    QOV_EPOLL_DEL(mque->para.epFd, rd.eventFd);
    rd.epollReg = 0;
}

// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): the platform's epoll callback type
uint32_t QOV_MergeQueSchedProc(int32_t fd, uint32_t events, void *usrData) {
    (void)events;
    auto *mque = static_cast<MergeQueCtrlBlk *>(usrData);
    if (fd < 0 || mque == nullptr) return 1;
    eventfd_t value = 0;
    if (eventfd_read(fd, &value) < 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "merge queue %s Fail To Sched, errno=%d", mque->name, errno);
        return 1;
    }
    if (mque->para.schedFunc != nullptr) mque->para.schedFunc(mque);
    return 0;
}

void QOV_MergeQueNotifyByRead(MergeQueCtrlBlk *mque) {
    if (mque->reader.itemCnt == 0) return;
    if (eventfd_write(mque->reader.eventFd, 1) < 0) MqCountReaderStat(mque, MQ_RSTAT_READ_NOTIFY_ERR);
}

uint32_t QOV_MergeQueMonitorCheck(const MergeQueCtrlBlk *mque, const MergeQueMonitorAttr *attr) {
    if (mque == nullptr || attr == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "MonitorReg failed, para is null, mqueHandle: %u, monitorAttr: %u.",
                            mque == nullptr ? 1u : 0u, attr == nullptr ? 1u : 0u);
        return 1;
    }
    if (attr->highWater <= attr->lowWater) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "merge queue %s MonitorReg failed, highWater(%u) less than lowWater(%u).",
                            mque->name, attr->highWater, attr->lowWater);
        return 1;
    }
    if (attr->flowCtrlNotify == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "merge queue %s MonitorReg failed, flowCtrlNotify is null.", mque->name);
        return 1;
    }
    return 0;
}

QOV_AS_API uint32_t QOV_MergeQueMonitorReg(MergeQueCtrlBlk *mque, const MergeQueMonitorAttr *attr) {
    if (QOV_MergeQueMonitorCheck(mque, attr) != 0) return 1;
    mque->monitor.highWater = attr->highWater;
    mque->monitor.lowWater = attr->lowWater;
    mque->monitor.flowCtrlNotify = attr->flowCtrlNotify;
    mque->monitor.usrData = attr->usrData;
    mque->monitor.overLoad = 0;
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "merge queue %s MonitorReg ok.", mque->name);
    return 0;
}

void QOV_MergeQueMonitorWrite(MergeQueCtrlBlk *mque) {
    MergeQueMonitor &mon = mque->monitor;
    if (mon.flowCtrlNotify == nullptr || mon.overLoad != 0 || mque->reader.itemCnt <= mon.highWater) return;
    mon.overLoad = 1;
    MqCountStat(mque, MQ_STAT_OVER_HIGH_WATER);
    mon.flowCtrlNotify(0, mon.usrData);
}

void QOV_MergeQueMonitorRemove(MergeQueCtrlBlk *mque) {
    MergeQueMonitor &mon = mque->monitor;
    if (mon.flowCtrlNotify == nullptr || mon.overLoad != 1 || mque->reader.itemCnt >= mon.lowWater) return;
    mon.overLoad = 0;
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
