// Transfer messages: the walk over the TLV area, bounded by the total length
// in the body and by the body's own length (msgLen), and the dispatch of each
// TLV by type.
#include "inbound/inbound_private.h"
#include "qov_as_log.h"
#include "smooth/smooth_internal.h"

namespace {

constexpr uint32_t kLowBitsMask = 0xF;
// ASOrchMsgInfoProc's result for a TLV whose value breaks its layout: the walk stops.
constexpr uint32_t kTlvMalformed = 2;

// The TLV area as the walk sees it: the total length's bytes, cut at the end
// of the body when the total claims more than the body holds.
struct TlvArea {
    ASByteCursor bytes;
    bool cutByBody;  // the body ends before the total length does
    uint32_t msgLen;
};

// The next TLV of the area, or false (logged) when its head or value runs past
// the total length or past the body; nothing is read beyond either. A tlvLen
// that would wrap a 32-bit offset runs past as well.
bool TakeTlv(const ASOrchHandle *hdl, TlvArea *area, uint32_t index, ASOrchTransTlv *tlv) {
    const auto left = static_cast<uint32_t>(area->bytes.Remaining());
    if (left < sizeof(ASOrchTransTlvHead)) {
        if (area->cutByBody) {
            QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, trans msg tlv %u head runs past the body. left = %u, msgLen = %u",
                                hdl->name, index, left, area->msgLen);
        } else {
            QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, trans msg tlv %u head cut short. left = %u", hdl->name, index, left);
        }
        return false;
    }
    uint32_t tlvLen = 0;
    area->bytes.TakeU32(&tlv->tableId);
    area->bytes.TakeU32(&tlv->tlvType);
    area->bytes.TakeU32(&tlvLen);
    uint8_t *value = area->bytes.Take(tlvLen);
    if (value == nullptr) {
        const auto rest = static_cast<uint32_t>(area->bytes.Remaining());
        if (area->cutByBody) {
            QOV_AUTOSYNC_QovLog(AS_LOG_ERR,
                                "%s, trans msg tlv %u runs past the body. tbl = %u, tlvType = %u, tlvLen = %u, "
                                "left = %u, msgLen = %u",
                                hdl->name, index, tlv->tableId, tlv->tlvType, tlvLen, rest, area->msgLen);
        } else {
            QOV_AUTOSYNC_QovLog(AS_LOG_ERR,
                                "%s, trans msg tlv %u runs past the total length. tbl = %u, tlvType = %u, "
                                "tlvLen = %u, left = %u",
                                hdl->name, index, tlv->tableId, tlv->tlvType, tlvLen, rest);
        }
        return false;
    }
    tlv->value = std::span<uint8_t>(value, tlvLen);
    return true;
}

// Handles one TLV: 1 for an unknown table, the smoothing result for smoothing
// TLVs, kTlvMalformed for a value that breaks its layout, else 0.
uint32_t ASOrchMsgInfoProc(ASOrchHandle *hdl, const ASOrchTransTlv *tlv, uint32_t lowBits) {
    const TblMsgCtrlTrans *ctrl = ASOrchGetTblMsgTrans(hdl, tlv->tableId);
    if (ctrl == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, get tbl trans tbl failed.tableId = %u.", hdl->name, tlv->tableId);
        return 1;
    }
    switch (tlv->tlvType) {
        case AS_TRANS_TLV_COMP:
        case AS_TRANS_TLV_COMP_ALT:
            return ASOrchTransCompTblParsePack(hdl, tlv, ctrl, lowBits) ? 0 : kTlvMalformed;
        case AS_TRANS_TLV_DATA:
        case AS_TRANS_TLV_DATA_SIZED:
            return ASOrchTransTblParsePack(hdl, tlv, ctrl, lowBits) ? 0 : kTlvMalformed;
        default:
            return ASOrchTransTblSmooth(hdl, tlv, ctrl);
    }
}

}  // namespace

uint32_t ASOrchMsgTransProc(ASOrchHandle *hdl, const ASOrchIpcMsg *msg) {
    // msgLen bounds everything read here, whatever the total length claims:
    // a platform may read every frame into one buffer, so the bytes past
    // msgLen belong to an earlier frame, or to no one.
    ASByteCursor body(static_cast<uint8_t *>(msg->body), msg->msgLen);
    uint32_t total = 0;
    if (body.Take(AS_TRANS_TOTAL_LEN_OFFSET) == nullptr || !body.TakeU32(&total)) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, trans msg shorter than its head. len = %u", hdl->name, msg->msgLen);
        return 1;
    }
    if (total < AS_TRANS_HEAD_LEN) {
        // "zebbrk" is the system's own name for the broker in these lines.
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, recv zebbrk trans msg is error.", hdl->name);
        return 1;
    }
    const size_t inBody = body.Remaining();
    const bool cutByBody = total > inBody;
    const size_t areaLen = cutByBody ? inBody : total;
    TlvArea area{ASByteCursor(body.Take(areaLen), areaLen), cutByBody, msg->msgLen};
    const uint32_t lowBits = msg->msgId & kLowBitsMask;
    ASOrchTransTlv tlv{};
    // A total that claims more than the body holds ends the walk at the body's
    // end with a line, even when the body ends right after a whole TLV.
    for (uint32_t index = 0; (area.bytes.Remaining() > 0 || cutByBody) && TakeTlv(hdl, &area, index, &tlv);
         ++index) {
        uint32_t r = ASOrchMsgInfoProc(hdl, &tlv, lowBits);
        if (r == kTlvMalformed) break;
        if (r != 0) {
            QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, proc zebbrk trans msg %u failed. tbl = %u, tlvType = %u, tlvLen = %u",
                                hdl->name, index, tlv.tableId, tlv.tlvType, static_cast<uint32_t>(tlv.value.size()));
        }
    }
    return 0;
}
