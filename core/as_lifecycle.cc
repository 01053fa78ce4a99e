// Thin forwarders from the handle to its EAL instance.
#include "core/base/as_handle.h"
#include "qov_utils_eal.h"

namespace {

// One forwarder row: the texts of its log lines and the EAL call.
struct Forwarder {
    const char *nullHandle;
    const char *nullEal;
    const char *fail;
    const char *ok;
    uint32_t (*call)(void *eal);
};

constexpr Forwarder kInit = {"Init Orch autosync Fail, handle is Null", "%s, Init Orch autosync Fail, ealHdl is Null",
                             "%s, Init Orch autosync Fail", "%s, Init Orch autosync ok", QOV_EAL_Init};
constexpr Forwarder kStart = {"Start Orch autosync Fail, handle is Null",
                              "%s, Start Orch autosync Fail, ealHdl is Null", "%s, Start Orch autosync Fail",
                              "%s, Start Orch autosync ok", QOV_EAL_Start};

uint32_t Forward(ASOrchHandle *hdl, const Forwarder &f) {
    if (hdl == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s", f.nullHandle);
        return 1;
    }
    if (hdl->ealHdl == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, f.nullEal, hdl->name);
        return 1;
    }
    if (f.call(hdl->ealHdl) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, f.fail, hdl->name);
        return 1;
    }
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, f.ok, hdl->name);
    return 0;
}

}  // namespace

extern "C" {

QOV_AS_API uint32_t ASOrchInit(ASOrchHandle *hdl) { return Forward(hdl, kInit); }

QOV_AS_API uint32_t ASOrchStart(ASOrchHandle *hdl) { return Forward(hdl, kStart); }

QOV_AS_API uint32_t ASOrchSetOndemandParam(ASOrchHandle *hdl, uint64_t value) {
    if (hdl == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "Start Orch autosync Fail, handle is Null");
        return 1;
    }
    hdl->ondemandParam = value;
    return QOV_EAL_SetOndemandParam(hdl->ealHdl, value);
}

QOV_AS_API void *ASOrchGetEalHdl(ASOrchHandle *hdl) {
    if (hdl == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "Get Orch autosync eal hdl Fail, handle is NULL");
        return nullptr;
    }
    return hdl->ealHdl;
}

// A null handle is refused before the platform is asked anything.
QOV_AS_API uint32_t ASOrchModInitOk(ASOrchHandle *hdl) {
    if (hdl == nullptr) {
        (void)ASOrchGetEalHdl(hdl);  // logs the null handle
        return 1;
    }
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "%s, Orch auto sync ModInitOk.", hdl->name);
    return QOV_EAL_ModInitOk(ASOrchGetEalHdl(hdl));
}

QOV_AS_API int32_t ASOrchGetEpollFd(ASOrchHandle *hdl, uint32_t epollIdx) {
    if (hdl == nullptr) {
        (void)ASOrchGetEalHdl(hdl);  // logs the null handle
        return -1;
    }
    return QOV_EAL_GetEpollFd(ASOrchGetEalHdl(hdl), epollIdx);
}

// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): exported; the signature is fixed by the interface
QOV_AS_API uint32_t ASOrchTimerInit(ASOrchHandle *hdl, uint32_t timerWord, uint64_t timerVal0, uint64_t timerVal1,
                                    uint32_t epollIdx) {
    void *eal = ASOrchGetEalHdl(hdl);
    if (eal == nullptr) {
        if (hdl != nullptr) QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, auto sync timer init Fail, ealHdl is NULL", hdl->name);
        return 1;
    }
    int32_t epFd = QOV_EAL_GetEpollFd(eal, epollIdx);
    if (QOV_TIMER_Create(timerWord, timerVal0, timerVal1, epFd) < 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, auto sync timer init Fail", hdl->name);
        return 1;
    }
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "%s, auto sync timer init ok", hdl->name);
    return 0;
}

}  // extern "C"
