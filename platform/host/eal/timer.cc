// Periodic timers on timerfd, owned by the epoll set they are made in.
#include <sys/timerfd.h>
#include <unistd.h>

#include "eal_internal.h"
#include "host_internal.h"

extern "C" QOV_PLAT_API int32_t QOV_TIMER_Create(uint32_t timerWord, uint64_t timerVal0, uint64_t timerVal1,
                                                 int32_t epFd) {
    int32_t ret = 0;
    if (qovhost::Enter("QOV_TIMER_Create", {timerWord, timerVal0, timerVal1, static_cast<uint64_t>(epFd)}, &ret)) return ret;
    if (timerWord == 0 || epFd < 0) return -1;
    int fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (fd < 0) return -1;
    itimerspec period{};
    period.it_interval.tv_sec = timerWord / 1000;
    period.it_interval.tv_nsec = static_cast<long>(timerWord % 1000) * 1000000L;
    period.it_value = period.it_interval;
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the platform's timer call takes the callback as a 64-bit word
    auto cb = reinterpret_cast<QOV_TIMER_CALLBACK>(static_cast<uintptr_t>(timerVal0));
    if (timerfd_settime(fd, 0, &period, nullptr) != 0 || qovhost::EpollAddTimer(epFd, fd, cb, timerVal1) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}
