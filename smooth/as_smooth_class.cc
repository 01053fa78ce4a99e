// Smoothing class handlers: each checks its TLV's length, builds its class
// record on the stack and hands it to the first smoothing slot the table set,
// and after a pre-callback to the platform's smoothing entry.
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <type_traits>

#include "qov_as_log.h"
#include "qov_utils_smooth.h"
#include "smooth/smooth_private.h"

namespace {

// Fixed TLV lengths per class.
constexpr uint32_t kClassStateLen = 16, kVrfStateLen = 32, kVrfClassLen = 28, kPidStateLen = 20, kLrClassLen = 16,
                   kDamClassLen = 16;

constexpr uint32_t kVrfStateBegin = 7, kVrfDataBegin = 10, kLrDataBegin = 16;

ASOrchSmoothTlvHead Head(std::span<const uint8_t> tlv) {
    ASOrchSmoothTlvHead h;
    std::memcpy(&h, tlv.data(), sizeof(h));
    return h;
}

// The class record: the TLV's bytes from its tableId up to its fixed length,
// then zero bytes. The length has been checked against the bytes remaining.
template <class Rec>
Rec Build(std::span<const uint8_t> tlv, uint32_t fixedLen) {
    Rec rec{};
    std::span<const uint8_t> from = tlv.subspan(offsetof(ASOrchSmoothTlvHead, tableId),
                                                fixedLen - offsetof(ASOrchSmoothTlvHead, tableId));
    std::memcpy(&rec, from.data(), std::min(from.size(), sizeof(Rec)));
    return rec;
}

// The first slot that is set, in priority order, is called; a pre-callback is
// followed by the platform entry of its form (entry5 with the batch type,
// entry4 without).
template <class Entry5, class Entry4>
void Slots(const TblMsgCtrlTrans *ctrl, const ASOrchSmoothTlvHead &h, uint32_t batchType, void *rec,
           uint32_t recLen, Entry5 entry5, Entry4 entry4) {
    if (ctrl->smoothProcWithType != nullptr) {
        ctrl->smoothProcWithType(h.tableId, batchType, h.optType, rec, recLen);
    } else if (ctrl->smoothPreProcWithType != nullptr) {
        ctrl->smoothPreProcWithType(h.tableId, batchType, h.optType, rec, recLen);
        entry5();
    } else if (ctrl->smoothProc != nullptr) {
        ctrl->smoothProc(h.tableId, h.optType, rec, recLen);
    } else if (ctrl->smoothPreProc != nullptr) {
        ctrl->smoothPreProc(h.tableId, h.optType, rec, recLen);
        entry4();
    }
}

// Whether length is the type's fixed length and fits in remaining (logged when not).
bool SmoothMsgFits(const ASOrchSmoothTlvHead *head, uint32_t fixedLen, uint32_t remaining) {
    if (head->length == fixedLen && head->length <= remaining) return true;
    QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "smooth check msgSize failed. tableId = %u, optType = %u, length = %u, msgSize = %u",
                        head->tableId, head->optType, head->length, fixedLen);
    return false;
}

// Platform entries of the begin/end classes; begin and end are told apart by optType.
void ASOrchVrfStateEntry(const ASOrchHandle *hdl, uint32_t optType, ASOrchSmoothClassStateRec *rec) {
    if (optType == kVrfStateBegin) {
        QOV_ENTRY_ProcVrfStateBegin(rec);
    } else {
        QOV_ENTRY_ProcVrfStateEnd(rec, hdl->memAlloc, hdl->memFree);
    }
}

void ASOrchVrfClassItemEntry(uint32_t optType, ASOrchSmoothVrfClassRec *rec) {
    if (optType == kVrfDataBegin) {
        QOV_ENTRY_ProcVrfDataBegin(rec);
    } else {
        QOV_ENTRY_ProcVrfDataEnd(rec);
    }
}

void ASOrchVrfClassItemEntryWithType(uint32_t optType, ASOrchSmoothVrfClassRec *rec, uint32_t batchType) {
    if (optType == kVrfDataBegin) {
        QOV_ENTRY_ProcVrfDataBeginWithType(rec, batchType);
    } else {
        QOV_ENTRY_ProcVrfDataEndWithType(rec, batchType);
    }
}

void ASOrchLrDataEntry(uint32_t optType, ASOrchSmoothLrClassRec *rec) {
    if (optType == kLrDataBegin) {
        QOV_ENTRY_ProcLrDataBegin(rec);
    } else {
        QOV_ENTRY_ProcLrDataEnd(rec);
    }
}

void ASOrchLrDataEntryWithType(uint32_t optType, ASOrchSmoothLrClassRec *rec, uint32_t batchType) {
    if (optType == kLrDataBegin) {
        QOV_ENTRY_ProcLrDataBeginWithType(rec, batchType);
    } else {
        QOV_ENTRY_ProcLrDataEndWithType(rec, batchType);
    }
}

// The steps shared by every class: check, build, slots; the bytes remaining after.
template <class Rec, class Entry5, class Entry4>
int32_t Proc(std::span<const uint8_t> tlv, uint32_t fixedLen, const TblMsgCtrlTrans *ctrl, uint32_t batchType,
             bool recToCallbacks, Entry5 entry5, Entry4 entry4) {
    ASOrchSmoothTlvHead h = Head(tlv);
    if (!SmoothMsgFits(&h, fixedLen, static_cast<uint32_t>(tlv.size()))) return -1;
    Rec rec{};
    if constexpr (!std::is_empty_v<Rec>) rec = Build<Rec>(tlv, fixedLen);
    Slots(ctrl, h, batchType, recToCallbacks ? &rec : nullptr, recToCallbacks ? sizeof(Rec) : 0,
          [&] { entry5(h.optType, &rec); }, [&] { entry4(h.optType, &rec); });
    return static_cast<int32_t>(tlv.size() - fixedLen);
}

struct NoRec {};

}  // namespace

int32_t ASOrchSmoothClassState(ASOrchHandle *hdl, std::span<const uint8_t> tlv, const TblMsgCtrlTrans *ctrl,
                               uint32_t batchType) {
    auto entry = [hdl](uint32_t type, ASOrchSmoothClassStateRec *rec) { ASOrchVrfStateEntry(hdl, type, rec); };
    return Proc<ASOrchSmoothClassStateRec>(tlv, kClassStateLen, ctrl, batchType, true, entry, entry);
}

int32_t ASOrchSmoothVrfState(ASOrchHandle *, std::span<const uint8_t> tlv, const TblMsgCtrlTrans *ctrl,
                             uint32_t batchType) {
    auto entry = [](uint32_t, ASOrchSmoothVrfStateRec *rec) { QOV_ENTRY_ProcVrfState(rec); };
    return Proc<ASOrchSmoothVrfStateRec>(tlv, kVrfStateLen, ctrl, batchType, true, entry, entry);
}

int32_t ASOrchSmoothVrfClassData(ASOrchHandle *, std::span<const uint8_t> tlv, const TblMsgCtrlTrans *ctrl,
                                 uint32_t batchType) {
    return Proc<ASOrchSmoothVrfClassRec>(
        tlv, kVrfClassLen, ctrl, batchType, true,
        [batchType](uint32_t type, ASOrchSmoothVrfClassRec *rec) { ASOrchVrfClassItemEntryWithType(type, rec, batchType); },
        &ASOrchVrfClassItemEntry);
}

int32_t ASOrchSmoothPidState(ASOrchHandle *, std::span<const uint8_t> tlv, const TblMsgCtrlTrans *ctrl,
                             uint32_t batchType) {
    auto entry = [](uint32_t, ASOrchSmoothPidStateRec *rec) { QOV_ENTRY_ProcPidState(rec); };
    return Proc<ASOrchSmoothPidStateRec>(tlv, kPidStateLen, ctrl, batchType, true, entry, entry);
}

int32_t ASOrchSmoothLrClassData(ASOrchHandle *, std::span<const uint8_t> tlv, const TblMsgCtrlTrans *ctrl,
                                uint32_t batchType) {
    return Proc<ASOrchSmoothLrClassRec>(
        tlv, kLrClassLen, ctrl, batchType, false,
        [batchType](uint32_t type, ASOrchSmoothLrClassRec *rec) { ASOrchLrDataEntryWithType(type, rec, batchType); },
        &ASOrchLrDataEntry);
}

int32_t ASOrchSmoothDamClassData(ASOrchHandle *, std::span<const uint8_t> tlv, const TblMsgCtrlTrans *ctrl,
                                 uint32_t batchType) {
    auto none = [](uint32_t, NoRec *) {};
    return Proc<NoRec>(tlv, kDamClassLen, ctrl, batchType, false, none, none);
}
