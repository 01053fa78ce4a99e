// Transfer messages in a build without the TLV walk: refused with a log line.
// The walk's own definition takes precedence wherever it is linked in.
#include "inbound/inbound_internal.h"

__attribute__((weak)) uint32_t ASOrchMsgTransProc(ASOrchHandle *hdl, const ASOrchIpcMsg *msg) {
    QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, trans msg %u refused: no transfer processing in this build.", hdl->name,
                        msg->msgId);
    return 1;
}
