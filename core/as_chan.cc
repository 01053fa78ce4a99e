// Channel registration, step "channel": one EAL unicast channel per used slot
// of the base-registration record, from the constant channel table completed
// with the instance name, the port, the server address and the slot's value.
#include <arpa/inet.h>

#include <cstring>

#include "core/as_reg.h"

namespace {

constexpr size_t kMaxSuffixLen = AS_ORCH_NAME_LEN - 1;  // instance name plus suffix fit in 31

template <size_t N>
// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): one row of the channel table below
constexpr ASOrchChanPara ChanRow(uint32_t idx, const char (&suffix)[N], uint32_t w72, uint32_t threadId,
                                 uint32_t w120) {
    static_assert(N <= kMaxSuffixLen + 1);
    ASOrchChanPara p{};
    p.chanIdx = idx;
    for (size_t i = 0; i < N; ++i) p.chanName[i] = suffix[i];
    p.word72 = w72;
    p.chanThreadId = threadId;
    p.word120 = w120;
    return p;
}

uint32_t ASOrchGetChanServerIp(void) {
    in_addr addr{};
    if (inet_pton(AF_INET, "127.0.0.1", &addr) != 1) return 0;
    return addr.s_addr;
}

void ASOrchChanParamCfg(ASOrchChanPara *chan, const ASOrchChanSlot *slot) {
    chan->word4 = AS_ALL_LOW30;
    chan->word80 = 0;
    chan->word96 = 0;
    chan->serverAddrFunc = ASOrchGetChanServerIp;
    chan->serverPort = htons(static_cast<uint16_t>(slot->realServerPort & 0xFFFFu));
    chan->chanUsrData = slot->chanUsrData;
}

uint32_t ASOrchChanAddNamePrefix(const char *orchName, char chanName[AS_THREAD_NAME_LEN]) {
    if (strnlen(chanName, AS_THREAD_NAME_LEN) > kMaxSuffixLen) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, chanName %.*s over max name length.", orchName,
                            static_cast<int>(AS_THREAD_NAME_LEN), chanName);
        return 1;
    }
    char buf[AS_THREAD_NAME_LEN] = {};
    if (strcpy_s(buf, sizeof buf, orchName) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Broker autosync Name Excceeds", buf);  // sic: the line's own spelling
        return 1;
    }
    if (strcat_s(buf, sizeof buf, chanName) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "Cat %s and %s failed.", buf, chanName);
        return 1;
    }
    if (memcpy_s(chanName, AS_THREAD_NAME_LEN, buf, sizeof buf) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Broker autosync chanName Excceeds", chanName);
        return 1;
    }
    return 0;
}

uint32_t ASOrchRegChannel(ASOrchHandle *hdl, const ASOrchChanSlot *slot, const ASOrchChanPara *row) {
    ASOrchChanPara chan = *row;
    if ((hdl->threadMask & AS_THREAD_BIT_EVENT) == 0) chan.chanThreadId = QOV_EAL_THREAD_DATA;
    if (ASOrchChanAddNamePrefix(hdl->name, chan.chanName) != 0) return 1;
    ASOrchChanParamCfg(&chan, slot);
    QOV_EAL_ChanPara eal;
    if (memcpy_s(&eal, sizeof eal, &chan, sizeof chan) != 0 || QOV_EAL_RegUcChannel(hdl->ealHdl, &eal, 1) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, RegUcChannel %s fail.", hdl->name, chan.chanName);
        return 1;
    }
    return 0;
}

}  // namespace

extern "C" {

const char *const g_ASChannelName[AS_ORCH_CHAN_SLOT_NUM] = {"DAM", "FES", "UP", "EVT"};  // 4..7: null

const ASOrchChanPara g_ASOrchChanParam[AS_ORCH_CHAN_KIND_NUM] = {
    ChanRow(0, "_DATA_DAM", 1, QOV_EAL_THREAD_DATA, 25),
    ChanRow(1, "_DATA_FES", 1, QOV_EAL_THREAD_DATA, 25),
    ChanRow(2, "_DATA_UP", 3, QOV_EAL_THREAD_DATA, 9),
    ChanRow(3, "_EVT", 3, QOV_EAL_THREAD_EVENT, 25),
};

QOV_AS_API const char *ASGetChnlName(uint32_t chanIdx) {
    return chanIdx < AS_ORCH_CHAN_SLOT_NUM ? g_ASChannelName[chanIdx] : nullptr;
}

}  // extern "C"

uint32_t ASOrchRegBaseChan(ASOrchHandle *hdl, const ASOrchBasePara *para) {
    uint32_t used = 0;
    for (uint32_t k = 0; k < AS_ORCH_CHAN_SLOT_NUM; ++k) {
        const ASOrchChanSlot &slot = para->chan[k];
        if (slot.realServerPort == 0) continue;
        // Slots 4 to 7 exist in the record but name no channel kind.
        if (k >= AS_ORCH_CHAN_KIND_NUM) {
            QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, chan slot %u has no channel kind.", hdl->name, k);
            return 1;
        }
        if (ASOrchRegChannel(hdl, &slot, &g_ASOrchChanParam[k]) != 0) return 1;
        ++used;
    }
    if (used == 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, no valid realServerPort.", hdl->name);
        return 1;
    }
    return 0;
}
