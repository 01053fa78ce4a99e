// Internal interface of the smoothing subsystem: the dispatch of a transfer
// TLV's smoothing run to the table's smoothing callbacks and the platform's
// smoothing entries.
#ifndef QOV_AS_SMOOTH_INTERNAL_H
#define QOV_AS_SMOOTH_INTERNAL_H

#include <array>
#include <cstdint>
#include <span>

#include "core/as_handle.h"
#include "inbound/inbound_internal.h"
#include "qov_as_smooth.h"

constexpr uint32_t AS_SMOOTH_PROC_NUM = 207;      // handler rows, optType 0..206
constexpr uint32_t AS_SMOOTH_BATCH_FIRST = 193;   // first type of the batch remapping
constexpr uint32_t AS_SMOOTH_BATCH_NUM = 14;      // types 193..206
constexpr uint32_t AS_SMOOTH_BATCH_MASK = 0x270F; // bit (type - 193): the row is used
constexpr uint32_t AS_SMOOTH_BATCH_NONE = 3;      // batch type when no row is used

// A class handler. tlv runs from the smoothing TLV to the end of the transfer
// TLV's value (its size is the bytes remaining, at most INT32_MAX) and holds at
// least a smoothing head. Returns the bytes remaining after this TLV, or -1.
using ASOrchSmoothProc = int32_t(ASOrchHandle *hdl, std::span<const uint8_t> tlv, const TblMsgCtrlTrans *ctrl,
                                 uint32_t batchType);
using ASOrchSmoothProcFunc = ASOrchSmoothProc *;

extern const uint32_t g_ASOrchSmoothTlvType[AS_SMOOTH_BATCH_NUM];
extern const uint32_t g_ASOrchSmoothBatchType[AS_SMOOTH_BATCH_NUM];
extern const std::array<ASOrchSmoothProcFunc, AS_SMOOTH_PROC_NUM> g_ASOrchSmoothProc;

// Dispatches the smoothing run in the TLV's value; 0 when it was consumed, 1
// (logged) when a smoothing TLV was refused. Rewrites the first smoothing
// TLV's optType in the body with its remapped type.
uint32_t ASOrchTransTblSmooth(ASOrchHandle *hdl, const ASOrchTransTlv *tlv, const TblMsgCtrlTrans *ctrl);
// The remapping of the first smoothing TLV's type: *type keeps first and
// *batchType is 3 unless the mask selects a row.
void ASOrchTransTblSmoothGetTlvAndBatchType(uint32_t first, uint32_t *type, uint32_t *batchType);
// The handler of the smoothing TLV at the front of tlv; -1 for a type without
// one and for a tlv too short to hold a smoothing head.
ASOrchSmoothProc ASOrchSmoothMsgProc;
// 0 when length is the type's fixed length and fits in remaining, else 1 (logged).
uint32_t ASOrchSmoothMsgCheck(const ASOrchSmoothTlvHead *head, uint32_t fixedLen, uint32_t remaining);

// Class handlers, one per class record.
ASOrchSmoothProc ASOrchSmoothClassState;
ASOrchSmoothProc ASOrchSmoothVrfState;
ASOrchSmoothProc ASOrchSmoothVrfClassData;
ASOrchSmoothProc ASOrchSmoothPidState;
ASOrchSmoothProc ASOrchSmoothLrClassData;
ASOrchSmoothProc ASOrchSmoothDamClassData;

// Platform entries of the begin/end classes; begin and end are told apart by optType.
void ASOrchVrfStateEntry(const ASOrchHandle *hdl, uint32_t optType, ASOrchSmoothClassStateRec *rec);
void ASOrchVrfClassItemEntry(uint32_t optType, ASOrchSmoothVrfClassRec *rec);
void ASOrchVrfClassItemEntryWithType(uint32_t optType, ASOrchSmoothVrfClassRec *rec, uint32_t batchType);
void ASOrchLrDataEntry(uint32_t optType, ASOrchSmoothLrClassRec *rec);
void ASOrchLrDataEntryWithType(uint32_t optType, ASOrchSmoothLrClassRec *rec, uint32_t batchType);

#endif
