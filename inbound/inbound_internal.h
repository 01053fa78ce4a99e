// Internal interface of the inbound subsystem: the table-message registry
// (its control records, the "TblMsg" registration step, lookups and release),
// the intake of receive messages, and a bounded reader for message bodies.
#ifndef QOV_AS_INBOUND_INTERNAL_H
#define QOV_AS_INBOUND_INTERNAL_H

#include <cstddef>
#include <cstdint>
#include <span>

#include "core/as_handle.h"
#include "qov_as_inbound.h"
#include "qov_as_merge.h"

constexpr uint32_t AS_TBLMSG_HASH_BUCKETS = 128;
constexpr uint32_t AS_TBLMSG_PATH_DAM = 0;
constexpr uint32_t AS_TBLMSG_PATH_FES = 1;

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

// The registry's record of a transfer table. The base registration puts the
// descriptor's smoothing callbacks into the four-argument slots,
// ASOrchRegTblTrans into the with-type slots; the other pair stays null.
struct TblMsgCtrlTrans {
    uint32_t tableId;
    uint32_t tblSize;
    ASOrchSmoothFunc smoothPreProc;
    ASOrchSmoothFunc smoothProc;
    uint32_t tblParam;
    ASOrchTblMsgProcFunc tblMsgProc;
    ASOrchSmoothWithTypeFunc smoothPreProcWithType;
    ASOrchSmoothWithTypeFunc smoothProcWithType;
    uint32_t dataPath;  // 0 DAM, non-zero FES
    uint32_t version;
};

static_assert(offsetof(TblMsgCtrlRecv, version) == sizeof(ASOrchRecvTblMsg));
static_assert(offsetof(TblMsgCtrlTrans, smoothPreProcWithType) == 40);
static_assert(offsetof(TblMsgCtrlTrans, dataPath) == 56);
static_assert(sizeof(TblMsgCtrlTrans) == 64);

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

// Registration: the "TblMsg" step of base registration and its parts.
uint32_t ASOrchRegTblMsg(ASOrchHandle *hdl, const ASOrchBasePara *para);
uint32_t ASOrchRegTblMsgRecv(ASOrchHandle *hdl, const ASOrchBasePara *para);
uint32_t ASOrchRegTblMsgTrans(ASOrchHandle *hdl, const ASOrchBasePara *para);
bool ASOrchTblMsgRecvIsValid(const ASOrchTblMsgList *list);
bool ASOrchTblMsgTransIsExist(const ASOrchTblMsgList *list);
uint32_t ASOrchInitTblMsgRecvHash(ASOrchHandle *hdl, const ASOrchTblMsgList *list);
uint32_t ASOrchInitTblMsgTransHash(ASOrchHandle *hdl, const ASOrchTblMsgList *list, uint32_t dataPath);
uint32_t ASOrchFillTblMsgRecvHashTable(ASOrchHandle *hdl, ASIntHash *table, const ASOrchTblMsgList *list);
uint32_t ASOrchFillTblMsgTransHashTable(ASOrchHandle *hdl, ASIntHash *table, const ASOrchTblMsgList *list,
                                        uint32_t dataPath);
uint32_t ASOrchRegTblMsgTransNew(ASOrchHandle *hdl, const ASOrchTransTblMsg *tbl, uint32_t num, uint32_t dataPath);

// The control record under key in table (a TblMsgCtrlRecv or TblMsgCtrlTrans by
// table), or null with a log line.
void *ASOrchGetTblMsgHashData(const ASIntHash *table, const uint32_t *key);

// Release of the receive and transfer tables (each cleared after). The blocks
// stay with the allocator: the integer hash's delete releases nothing.
void ASOrchFreeTblMsg(ASOrchHandle *hdl);

// Intake of one received message and its steps.
bool ASOrchMsgIsValid(const ASOrchHandle *hdl, const ASOrchIpcMsg *msg);
uint32_t ASOrchMsgRecvProc(ASOrchHandle *hdl, const ASOrchIpcMsg *msg);
uint32_t ASOrchMsgDispatchProc(const TblMsgCtrlRecv *ctrl, const ASOrchIpcMsg *msg, ASOrchHandle *hdl);
uint32_t ORCH_AutoSyncMsgProcUnSerialPack(const TblMsgCtrlRecv *ctrl, const ASOrchIpcMsg *msg, ASOrchHandle *hdl);
uint32_t ORCH_AutoSyncMsgProcSerialPack(const TblMsgCtrlRecv *ctrl, const ASOrchIpcMsg *msg, ASOrchHandle *hdl);

// A run of equal-size entries: an unserialised body after its prefix, or what
// an unpack function decoded.
struct ASOrchIpcBuf {
    uint32_t num;
    uint8_t *data;
    uint32_t size;
};

// A user-defined handler with the information it is called with.
struct ASOrchUserDefCall {
    ASOrchUserDefProcFunc proc;
    ASOrchUserDefInfo info;
};

// Context of the per-entry merge call: the message's vector and merge type.
struct ASOrchMqueCtx {
    ASOrchMergeMsgVec *vec;
    uint32_t mergeType;
};

using ASOrchIpcEntryFunc = uint32_t (*)(uint8_t *entry, ASOrchHandle *hdl, void *ctx);

void ORCH_AutoSyncProcMqueOrUserDef(const TblMsgCtrlRecv *ctrl, const ASOrchIpcBuf *run, ASOrchHandle *hdl);
void ASOrchProcIpcUserDef(ASOrchHandle *hdl, const ASOrchIpcBuf *run, ASOrchUserDefCall *call);
void ORCH_AutoSyncProcIpcBuf(const ASOrchIpcBuf *run, ASOrchHandle *hdl, ASOrchIpcEntryFunc func, void *ctx);
void ORCH_AutoSyncFillMergeMsgVec(ASOrchMergeMsgVec *vec, const TblMsgCtrlRecv *ctrl, uint32_t version);
uint32_t ASOrchProc1IpcMque(uint8_t *entry, ASOrchHandle *hdl, void *ctx);

// Transfer messages (ids 0x7F7F7F70..7F), walked TLV by TLV.
constexpr uint32_t AS_TRANS_MSG_ID_HIGH = 0x07F7F7F7;  // msgId >> 4 of a transfer message
uint32_t ASOrchMsgTransProc(ASOrchHandle *hdl, const ASOrchIpcMsg *msg);

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

// Head of one TLV of a transfer message; the value follows.
struct ASOrchTransTlvHead {
    uint32_t tableId;
    uint32_t tlvType;  // 1, 2: table data; 18, 19: one piece; else smoothing
    uint32_t tlvLen;   // bytes of the value
};
static_assert(sizeof(ASOrchTransTlvHead) == 12);
static_assert(offsetof(ASOrchTransTlvHead, tlvType) == 4);
static_assert(offsetof(ASOrchTransTlvHead, tlvLen) == 8);

// One TLV as the walk found it: its value lies inside the total length.
struct ASOrchTransTlv {
    uint32_t tableId;
    uint32_t tlvType;
    std::span<uint8_t> value;  // tlvLen bytes
};

constexpr uint32_t AS_TRANS_HEAD_LEN = 12;        // body bytes before the TLV area
constexpr uint32_t AS_TRANS_TOTAL_LEN_OFFSET = 8;  // of the TLV area's length in the body
constexpr uint32_t AS_TRANS_FES_HEAD_LEN = 8;      // u32 not read, then the entries' byte length
// ASOrchMsgInfoProc's result for a TLV whose value breaks its layout: the walk stops.
constexpr uint32_t AS_TRANS_TLV_MALFORMED = 2;

// Handles one TLV: 1 for an unknown table, the smoothing result for
// smoothing TLVs, AS_TRANS_TLV_MALFORMED for a refused FES layout, else 0.
uint32_t ASOrchMsgInfoProc(ASOrchHandle *hdl, const ASOrchTransTlv *tlv, uint32_t lowBits);
// Table data of types 1 and 2 by the table's path, and types 18 and 19. Each
// returns false only for a value that breaks its layout (logged); a missing
// handler or a handler's failure is logged and counts as handled.
bool ASOrchTransTblParsePack(ASOrchHandle *hdl, const ASOrchTransTlv *tlv, const TblMsgCtrlTrans *ctrl,
                             uint32_t lowBits);
bool ASOrchFesTblParsePack(ASOrchHandle *hdl, const ASOrchTransTlv *tlv, const TblMsgCtrlTrans *ctrl,
                           uint32_t lowBits);
bool ASOrchDamTblParsePack(ASOrchHandle *hdl, const ASOrchTransTlv *tlv, const TblMsgCtrlTrans *ctrl,
                           uint32_t lowBits);
bool ASOrchTransCompTblParsePack(ASOrchHandle *hdl, const ASOrchTransTlv *tlv, const TblMsgCtrlTrans *ctrl,
                                 uint32_t lowBits);

// Sends on the broker's data channel of index chanIdx (0 DAM, 1 FES).
uint32_t ASOrchFesDamChanMsgVec(ASOrchHandle *hdl, void *buf, uint32_t len, uint32_t chanIdx);

#endif
