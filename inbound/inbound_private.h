// What the files of the inbound subsystem share: the registry's receive
// record and table nodes, the bounded reader for message bodies, and the
// transfer-message walk with its table-data layouts.
#ifndef QOV_AS_INBOUND_PRIVATE_H
#define QOV_AS_INBOUND_PRIVATE_H

#include <cstddef>
#include <cstdint>
#include <span>

#include "core/base/as_handle.h"
#include "core/base/as_trans_rec.h"
#include "inbound/inbound_internal.h"
#include "qov_as_inbound.h"

constexpr uint32_t AS_TBLMSG_HASH_BUCKETS = 128;

// The registry's record of a receive table message: the descriptor as
// registered, then the version the orchestrator raises.
struct TblMsgCtrlRecv {
    uint32_t mergeMsgId;
    uint32_t msgId;
    uint32_t opType;
    ASOrchUnpackFunc unpack;
    ASOrchUnpackFreeFunc unpackFree;
    uint32_t ipcSize;
    uint32_t mergeType;
    ASOrchUserDefProcFunc userDefProc;
    uint32_t mergeOp;
    uint32_t keySize;
    uint32_t version;
};
static_assert(offsetof(TblMsgCtrlRecv, version) == sizeof(ASOrchRecvTblMsg));

// Nodes of the two tables: one block per registered list holds them all.
struct TblMsgRecvNode {
    ASIntHashNode node;
    TblMsgCtrlRecv ctrl;
};
struct TblMsgTransNode {
    ASIntHashNode node;
    TblMsgCtrlTrans ctrl;
};
constexpr size_t AS_TBLMSG_CTRL_OFFSET = 16;  // of the record in either node
static_assert(offsetof(TblMsgRecvNode, ctrl) == AS_TBLMSG_CTRL_OFFSET);
static_assert(offsetof(TblMsgTransNode, ctrl) == AS_TBLMSG_CTRL_OFFSET);

// A read cursor over a byte range whose checks never form off + len: every
// take compares against what remains.
class ASByteCursor {
public:
    ASByteCursor(uint8_t *data, size_t len) : buf_(data, len) {}
    size_t Remaining() const { return buf_.size() - off_; }
    size_t Offset() const { return off_; }
    // The next n bytes, or null (and nothing consumed) when fewer remain.
    uint8_t *Take(size_t n) {
        if (Remaining() < n) return nullptr;
        uint8_t *p = buf_.data() + off_;
        off_ += n;
        return p;
    }
    // A little-endian u32, or false when fewer than 4 bytes remain.
    bool TakeU32(uint32_t *out) {
        const uint8_t *p = Take(sizeof(uint32_t));
        if (p == nullptr) return false;
        *out = static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
               static_cast<uint32_t>(p[3]) << 24;
        return true;
    }

private:
    std::span<uint8_t> buf_;
    size_t off_ = 0;
};

// ---- Transfer messages: the TLV walk and the table-data layouts ----

constexpr uint32_t AS_TRANS_MSG_ID_HIGH = 0x07F7F7F7;  // msgId >> 4 of a transfer message (ids 0x7F7F7F70..7F)

// TLV types of table data; every other type is a smoothing run.
constexpr uint32_t AS_TRANS_TLV_DATA = 1;        // entries of the table's tblSize
constexpr uint32_t AS_TRANS_TLV_DATA_SIZED = 2;  // entries of a size the value gives
constexpr uint32_t AS_TRANS_TLV_COMP = 18;       // the value is one entry
constexpr uint32_t AS_TRANS_TLV_COMP_ALT = 19;

// Head of one TLV of a transfer message; the value follows.
struct ASOrchTransTlvHead {
    uint32_t tableId;
    uint32_t tlvType;
    uint32_t tlvLen;  // bytes of the value
};
static_assert(sizeof(ASOrchTransTlvHead) == 12);
static_assert(offsetof(ASOrchTransTlvHead, tlvType) == 4);
static_assert(offsetof(ASOrchTransTlvHead, tlvLen) == 8);

constexpr uint32_t AS_TRANS_HEAD_LEN = 12;        // body bytes before the TLV area
constexpr uint32_t AS_TRANS_TOTAL_LEN_OFFSET = 8;  // of the TLV area's length in the body

// Walks a transfer message's TLVs; 1 for a head that refuses the message, else 0.
uint32_t ASOrchMsgTransProc(ASOrchHandle *hdl, const ASOrchIpcMsg *msg);

// Table data of types 1 and 2 by the table's path, and of types 18 and 19.
// Each returns false only for a value that breaks its layout (logged); a
// missing handler or a handler's failure is logged and counts as handled.
bool ASOrchTransTblParsePack(ASOrchHandle *hdl, const ASOrchTransTlv *tlv, const TblMsgCtrlTrans *ctrl,
                             uint32_t lowBits);
bool ASOrchTransCompTblParsePack(ASOrchHandle *hdl, const ASOrchTransTlv *tlv, const TblMsgCtrlTrans *ctrl,
                                 uint32_t lowBits);

#endif
