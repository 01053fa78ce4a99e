// Pieces of libqov_utils_eal shared between its files.
#ifndef QOV_HOST_EAL_INTERNAL_H
#define QOV_HOST_EAL_INTERNAL_H

#include <atomic>
#include <cstdint>

#include "qov_utils_eal.h"

namespace qovhost {

// Registers a timer descriptor that the epoll set owns: it is closed when the
// set is forgotten. The callback gets usrData on every expiry.
uint32_t EpollAddTimer(int32_t epFd, int32_t timerFd, QOV_TIMER_CALLBACK cb, uint64_t usrData);

// Registers a descriptor the set does not own, watched for reading or not.
uint32_t EpollAddFd(int32_t epFd, int32_t fd, bool reading, QOV_EPOLL_CALLBACK cb, void *usrData);
// Starts or stops watching a registered descriptor for reading.
uint32_t EpollSetReading(int32_t epFd, int32_t fd, bool reading);
// Removes a registration (only a timer's when timerOnly), closing what the set
// owns; waits while another thread dispatches it. 1 when there is none.
uint32_t EpollRemove(int32_t epFd, int32_t fd, bool timerOnly);

// Removes every registration of an epoll set, closing the descriptors it owns.
void EpollForgetSet(int32_t epFd);

// Waits on epFd and dispatches; returns the callbacks run, or -1. A ready
// stopFd (when not -1) ends the wait without being read.
int32_t EpollRunOnce(int32_t epFd, int32_t timeoutMs, int32_t stopFd, bool *stopped);

}  // namespace qovhost

#endif
