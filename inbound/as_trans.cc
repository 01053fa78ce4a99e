// Transfer messages: the walk over the TLV area, bounded by the total length
// in the body, and the dispatch of each TLV by type.
#include "inbound/inbound_internal.h"
#include "qov_as_log.h"
#include "smooth/smooth_internal.h"

namespace {

constexpr uint32_t kTlvData = 1, kTlvDataSized = 2, kTlvComp = 18, kTlvCompAlt = 19;
constexpr uint32_t kLowBitsMask = 0xF;

// The next TLV of the area, or false (logged) when its head or value runs past
// the total length; nothing is read beyond it. A tlvLen that would wrap a
// 32-bit offset runs past as well.
bool TakeTlv(const ASOrchHandle *hdl, ASByteCursor *area, uint32_t index, ASOrchTransTlv *tlv) {
    if (area->Remaining() < sizeof(ASOrchTransTlvHead)) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, trans msg tlv %u head cut short. left = %u", hdl->name, index,
                            static_cast<uint32_t>(area->Remaining()));
        return false;
    }
    uint32_t tlvLen = 0;
    area->TakeU32(&tlv->tableId);
    area->TakeU32(&tlv->tlvType);
    area->TakeU32(&tlvLen);
    uint8_t *value = area->Take(tlvLen);
    if (value == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR,
                            "%s, trans msg tlv %u runs past the total length. tbl = %u, tlvType = %u, tlvLen = %u, "
                            "left = %u",
                            hdl->name, index, tlv->tableId, tlv->tlvType, tlvLen,
                            static_cast<uint32_t>(area->Remaining()));
        return false;
    }
    tlv->value = std::span<uint8_t>(value, tlvLen);
    return true;
}

}  // namespace

uint32_t ASOrchMsgTransProc(ASOrchHandle *hdl, const ASOrchIpcMsg *msg) {
    // The caller guarantees that the head and the TLV area behind it lie in the body.
    auto *body = static_cast<uint8_t *>(msg->body);
    ASByteCursor head(body, AS_TRANS_HEAD_LEN);
    uint32_t total = 0;
    head.Take(AS_TRANS_TOTAL_LEN_OFFSET);
    head.TakeU32(&total);
    if (total < AS_TRANS_HEAD_LEN) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, recv zebbrk trans msg is error.", hdl->name);
        return 1;
    }
    ASByteCursor area(body + AS_TRANS_HEAD_LEN, total);
    const uint32_t lowBits = msg->msgId & kLowBitsMask;
    ASOrchTransTlv tlv{};
    for (uint32_t index = 0; area.Remaining() > 0 && TakeTlv(hdl, &area, index, &tlv); ++index) {
        uint32_t r = ASOrchMsgInfoProc(hdl, &tlv, lowBits);
        if (r == AS_TRANS_TLV_MALFORMED) break;
        if (r != 0) {
            QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, proc zebbrk trans msg %u failed. tbl = %u, tlvType = %u, tlvLen = %u",
                                hdl->name, index, tlv.tableId, tlv.tlvType, static_cast<uint32_t>(tlv.value.size()));
        }
    }
    return 0;
}

uint32_t ASOrchMsgInfoProc(ASOrchHandle *hdl, const ASOrchTransTlv *tlv, uint32_t lowBits) {
    const TblMsgCtrlTrans *ctrl = ASOrchGetTblMsgTrans(hdl, tlv->tableId);
    if (ctrl == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, get tbl trans tbl failed.tableId = %u.", hdl->name, tlv->tableId);
        return 1;
    }
    switch (tlv->tlvType) {
        case kTlvComp:
        case kTlvCompAlt:
            return ASOrchTransCompTblParsePack(hdl, tlv, ctrl, lowBits) ? 0 : AS_TRANS_TLV_MALFORMED;
        case kTlvData:
        case kTlvDataSized:
            return ASOrchTransTblParsePack(hdl, tlv, ctrl, lowBits) ? 0 : AS_TRANS_TLV_MALFORMED;
        default:
            return ASOrchTransTblSmooth(hdl, tlv, ctrl);
    }
}
