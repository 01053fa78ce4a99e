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

// Step "RegThread" and its parts.
uint32_t ASOrchRegThread(ASOrchHandle *hdl, const ASOrchBasePara *para);
uint32_t ASOrchSetThreadName(const char *orchName, QOV_EAL_ThreadPara *rows, uint32_t rowNum);
uint32_t ASOrchRegThreadBase(ASOrchHandle *hdl, const ASOrchBasePara *para, const QOV_EAL_ThreadPara *rows,
                             uint32_t rowNum);

// Steps "ModStateRsp" and "ReservePort": forwarders whose result is the EAL's.
uint32_t ASOrchRegModStateRsp(ASOrchHandle *hdl, const ASOrchBasePara *para);
uint32_t ASOrchReservePort(ASOrchHandle *hdl, const ASOrchBasePara *para);

// Step "channel" and its parts.
uint32_t ASOrchRegBaseChan(ASOrchHandle *hdl, const ASOrchBasePara *para);
uint32_t ASOrchRegChannel(ASOrchHandle *hdl, const ASOrchChanSlot *slot, const ASOrchChanPara *row);
uint32_t ASOrchChanAddNamePrefix(const char *orchName, uint32_t orchNameLen, char chanName[AS_THREAD_NAME_LEN]);
void ASOrchChanParamCfg(ASOrchChanPara *chan, const ASOrchChanSlot *slot);
uint32_t ASOrchGetChanServerIp(void);

// Runs the step table over a checked handle and record.
uint32_t ASOrchBaseProc(ASOrchHandle *hdl, const ASOrchBasePara *para);

#endif
