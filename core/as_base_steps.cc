// Steps "ModStateRsp" and "ReservePort" of base registration: the record's
// words go to the EAL unchanged and its result comes back unchanged.
#include "core/as_reg.h"

uint32_t ASOrchRegModStateRsp(ASOrchHandle *hdl, const ASOrchBasePara *para) {
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "%s, Orch autosync register module state rsp", hdl->name);
    return QOV_EAL_RegModStateRsp(hdl->ealHdl, para->modStateRsp, para->modStateRspArg);
}

uint32_t ASOrchReservePort(ASOrchHandle *hdl, const ASOrchBasePara *para) {
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "%s, Orch auto sync Register reserver port.", hdl->name);
    return QOV_EAL_ReservePort(hdl->ealHdl, para->rsvPortPara0, para->rsvPortPara1);
}
