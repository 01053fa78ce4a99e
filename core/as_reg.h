// Core's own steps of base registration: the threads, the channels, and the
// two forwarders (module-state response, reserved port). The top floor
// (orch/as_orch.cc) runs them from its step table.
#ifndef QOV_AS_CORE_REG_H
#define QOV_AS_CORE_REG_H

#include <cstddef>
#include <cstdint>

#include "core/base/as_consts.h"
#include "core/base/as_handle.h"
#include "qov_utils_eal.h"

// The platform's channel record and the library's public copy of it must
// agree byte for byte: one is handed over as the other. (Each record's own
// layout is asserted beside it in its header.)
static_assert(sizeof(QOV_EAL_ChanPara) == sizeof(ASOrchChanPara));
static_assert(offsetof(QOV_EAL_ChanPara, word4) == offsetof(ASOrchChanPara, word4));
static_assert(offsetof(QOV_EAL_ChanPara, chanName) == offsetof(ASOrchChanPara, chanName));
static_assert(offsetof(QOV_EAL_ChanPara, word72) == offsetof(ASOrchChanPara, word72));
static_assert(offsetof(QOV_EAL_ChanPara, chanThreadId) == offsetof(ASOrchChanPara, chanThreadId));
static_assert(offsetof(QOV_EAL_ChanPara, word80) == offsetof(ASOrchChanPara, word80));
static_assert(offsetof(QOV_EAL_ChanPara, serverAddrFunc) == offsetof(ASOrchChanPara, serverAddrFunc));
static_assert(offsetof(QOV_EAL_ChanPara, word96) == offsetof(ASOrchChanPara, word96));
static_assert(offsetof(QOV_EAL_ChanPara, serverPort) == offsetof(ASOrchChanPara, serverPort));
static_assert(offsetof(QOV_EAL_ChanPara, word120) == offsetof(ASOrchChanPara, word120));
static_assert(offsetof(QOV_EAL_ChanPara, chanUsrData) == offsetof(ASOrchChanPara, chanUsrData));

constexpr uint32_t AS_THREAD_NAME_LEN = 32;  // thread and channel names, with the NUL

// Step "RegThread".
uint32_t ASOrchRegThread(ASOrchHandle *hdl, const ASOrchBasePara *para);

// Steps "ModStateRsp" and "ReservePort": forwarders whose result is the EAL's.
uint32_t ASOrchRegModStateRsp(ASOrchHandle *hdl, const ASOrchBasePara *para);
uint32_t ASOrchReservePort(ASOrchHandle *hdl, const ASOrchBasePara *para);

// Step "channel".
uint32_t ASOrchRegBaseChan(ASOrchHandle *hdl, const ASOrchBasePara *para);

#endif
