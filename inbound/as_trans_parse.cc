// Table data of transfer TLVs, cut into entries by the table's path and handed
// to the table's handler in place; and the channel senders offered to handlers.
#include <arpa/inet.h>

#include "core/base/as_path.h"
#include "inbound/inbound_private.h"
#include "qov_as_log.h"
#include "qov_utils_eal.h"

namespace {

constexpr uint32_t kLoopback = 0x7F000001;  // 127.0.0.1

// The checks every layout starts with; false when there is nothing to call.
bool HasHandler(const ASOrchHandle *hdl, const ASOrchTransTlv *tlv, const TblMsgCtrlTrans *ctrl,
                const char *noHandlerFmt) {
    if (ctrl == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "[error]%s, trans table msg proc is NULL, tbl:%u.", hdl->name, tlv->tableId);
        return false;
    }
    if (ctrl->tblMsgProc == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, noHandlerFmt, hdl->name, tlv->tableId);
        return false;
    }
    return true;
}

bool SizeIsZero(uint32_t size) {
    if (size != 0) return false;
    QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "[error] tblSize is zero.");
    return true;
}

// Calls the handler with the table's version as it is now; true when it succeeded.
bool Call(ASOrchHandle *hdl, const ASOrchTransTlv *tlv, const TblMsgCtrlTrans *ctrl, uint8_t *entries,
          uint32_t num, uint32_t size) {
    ASOrchTblMsgInfo info{ctrl->version, ctrl->tblParam, tlv->tlvType};
    return ctrl->tblMsgProc(hdl, entries, num, size, &info) == 0;
}


bool ASOrchFesTblParsePack(ASOrchHandle *hdl, const ASOrchTransTlv *tlv, const TblMsgCtrlTrans *ctrl, uint32_t) {
    if (!HasHandler(hdl, tlv, ctrl, "[error]%s, trans fes tblMsgProc is NULL, tbl:%u.")) return true;
    const auto tlvLen = static_cast<uint32_t>(tlv->value.size());
    ASByteCursor value(tlv->value.data(), tlv->value.size());
    uint32_t w = 0;
    if (value.Take(sizeof(uint32_t)) == nullptr || !value.TakeU32(&w)) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, trans fes tbl value shorter than its head. tbl = %u, tlvType = %u, tlvLen = %u",
                            hdl->name, tlv->tableId, tlv->tlvType, tlvLen);
        return false;
    }
    // Type 1: entries of tblSize filling w bytes; type 2: entries of w bytes
    // filling the rest of the value.
    const bool sized = tlv->tlvType != AS_TRANS_TLV_DATA;
    const uint32_t size = sized ? w : ctrl->tblSize;
    if (SizeIsZero(size)) return true;
    const auto left = static_cast<uint32_t>(value.Remaining());
    if (!sized && w > left) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR,
                            "%s, trans fes tbl entries run past the value. tbl = %u, tlvType = %u, tlvLen = %u, len = %u",
                            hdl->name, tlv->tableId, tlv->tlvType, tlvLen, w);
        return false;
    }
    const uint32_t num = (sized ? left : w) / size;
    if (!Call(hdl, tlv, ctrl, value.Take(0), num, size)) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, proc trans fes tbl failed. tbl nums = %u, tblsize = %u.", hdl->name, num,
                            size);
    }
    return true;
}

bool ASOrchDamTblParsePack(ASOrchHandle *hdl, const ASOrchTransTlv *tlv, const TblMsgCtrlTrans *ctrl, uint32_t) {
    if (!HasHandler(hdl, tlv, ctrl, "[error]%s, trans dam tblMsgProc is NULL, tbl:%u.")) return true;
    const auto tlvLen = static_cast<uint32_t>(tlv->value.size());
    const uint32_t size = tlv->tlvType == AS_TRANS_TLV_DATA ? ctrl->tblSize : tlvLen;
    if (SizeIsZero(size)) return true;
    const uint32_t num = tlvLen / size;
    if (!Call(hdl, tlv, ctrl, tlv->value.data(), num, size)) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, proc trans dam tbl failed. tbl nums = %u, tblsize = %u.", hdl->name, num,
                            size);
    }
    return true;
}

// Sends on the broker's data channel of the path.
uint32_t ASOrchFesDamChanMsgVec(ASOrchHandle *hdl, void *buf, uint32_t len, ASOrchPath path) {
    void *chan = QOV_EAL_GetChannelHdl(hdl->ealHdl, ASPathIndex(path));
    return QOV_CHAN_USendMsg(chan, htonl(kLoopback), 0, buf, len);
}

}  // namespace


bool ASOrchTransTblParsePack(ASOrchHandle *hdl, const ASOrchTransTlv *tlv, const TblMsgCtrlTrans *ctrl,
                             uint32_t lowBits) {
    return ctrl->dataPath != 0 ? ASOrchFesTblParsePack(hdl, tlv, ctrl, lowBits)
                               : ASOrchDamTblParsePack(hdl, tlv, ctrl, lowBits);
}

bool ASOrchTransCompTblParsePack(ASOrchHandle *hdl, const ASOrchTransTlv *tlv, const TblMsgCtrlTrans *ctrl,
                                 uint32_t) {
    // Either path logs the FES line for a missing handler.
    if (!HasHandler(hdl, tlv, ctrl, "[error]%s, trans fes tblMsgProc is NULL, tbl:%u.")) return true;
    if (!Call(hdl, tlv, ctrl, tlv->value.data(), 1, static_cast<uint32_t>(tlv->value.size()))) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, proc trans comp tbl failed. tbl = %u, tblType = %u.", hdl->name,
                            tlv->tableId, tlv->tlvType);
    }
    return true;
}

uint32_t ASOrchFesChanMsgVec(ASOrchHandle *hdl, void *buf, uint32_t len) {
    if (hdl == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "Orch autosync fes chan msg handle is NULL");
        return 1;
    }
    return ASOrchFesDamChanMsgVec(hdl, buf, len, ASOrchPath::FES);
}

uint32_t ASOrchDamChanMsgVec(ASOrchHandle *hdl, void *buf, uint32_t len) {
    if (hdl == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "Orch autosync dam chan msg handle is NULL");
        return 1;
    }
    return ASOrchFesDamChanMsgVec(hdl, buf, len, ASOrchPath::DAM);
}
