// The host's EAL instance, shared by the files of libqov_utils_eal.
#ifndef QOV_HOST_EAL_H
#define QOV_HOST_EAL_H

#include <cstdint>
#include <thread>

#include "qov_utils_eal.h"

namespace qovhost {

constexpr uint32_t kChanNum = 8;
constexpr uint32_t kSyncGrpMax = 64;

// A unicast channel as registered; back-pressure stops its reading.
struct EalChannel {
    QOV_EAL_ChanPara para{};
    bool registered = false;
    bool backPressed = false;
};

struct EalSyncGrp {
    QOV_EAL_SyncGrpItem item{};
    bool registered = false;
    bool backPressed = false;
    uint64_t msgSet = 0;
};

struct EalInstance {
    char name[32] = {};
    QOV_EAL_CreatePara para{};
    int32_t epFd[QOV_EAL_THREAD_KIND_NUM] = {-1, -1, -1};
    int32_t stopFd = -1;
    bool inited = false;
    bool started = false;
    bool modInitOk = false;
    uint64_t ondemand = 0;
    uint32_t threadMask = 0;
    char threadName[QOV_EAL_THREAD_KIND_NUM][32] = {};
    std::thread threads[QOV_EAL_THREAD_KIND_NUM];
    EalChannel chan[kChanNum];
    EalSyncGrp syncGrp[kSyncGrpMax];
};

// The instance behind eal when it is live, else null.
EalInstance *LiveEal(void *eal);

}  // namespace qovhost

#endif
