// Smoothing dispatch: the batch remapping of a run's first smoothing TLV, the
// handler table by optType and the walk over a transfer TLV's smoothing run.
#include <cstring>

#include "qov_as_log.h"
#include "smooth/smooth_private.h"

namespace {

constexpr uint32_t AS_SMOOTH_PROC_NUM = 207;      // handler rows, optType 0..206
constexpr uint32_t AS_SMOOTH_BATCH_FIRST = 193;   // first type of the batch remapping
constexpr uint32_t AS_SMOOTH_BATCH_NUM = 14;      // types 193..206
constexpr uint32_t AS_SMOOTH_BATCH_MASK = 0x270F; // bit (type - 193): the row is used
constexpr uint32_t AS_SMOOTH_BATCH_NONE = 3;      // batch type when no row is used

// New type and batch type per first type 193..206; rows outside the mask are
// never read (zero here).
constexpr uint32_t kSmoothTlvType[AS_SMOOTH_BATCH_NUM] = {10, 11, 10, 11, 0, 0, 0, 0, 16, 17, 16, 0, 0, 17};
constexpr uint32_t kSmoothBatchType[AS_SMOOTH_BATCH_NUM] = {1, 1, 2, 2, 0, 0, 0, 0, 1, 1, 2, 0, 0, 2};

constexpr std::array<ASOrchSmoothProcFunc, AS_SMOOTH_PROC_NUM> MakeSmoothProc() {
    std::array<ASOrchSmoothProcFunc, AS_SMOOTH_PROC_NUM> t{};
    t[7] = t[8] = &ASOrchSmoothClassState;
    t[9] = &ASOrchSmoothVrfState;
    t[10] = t[11] = &ASOrchSmoothVrfClassData;
    t[15] = &ASOrchSmoothPidState;
    t[16] = t[17] = &ASOrchSmoothLrClassData;
    t[190] = t[191] = &ASOrchSmoothDamClassData;
    return t;
}

uint32_t LoadU32(const uint8_t *p) {
    uint32_t v;
    std::memcpy(&v, p, sizeof(v));
    return v;
}

constexpr std::array<ASOrchSmoothProcFunc, AS_SMOOTH_PROC_NUM> kSmoothProc = MakeSmoothProc();

// The handler of the smoothing TLV at the front of tlv; -1 for a type without
// one and for a tlv too short to hold a smoothing head.
int32_t ASOrchSmoothMsgProc(ASOrchHandle *hdl, std::span<const uint8_t> tlv, const TblMsgCtrlTrans *ctrl,
                            uint32_t batchType) {
    if (tlv.size() < sizeof(ASOrchSmoothTlvHead)) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, smooth tlv head cut short. remaining = %u", hdl->name,
                            static_cast<uint32_t>(tlv.size()));
        return -1;
    }
    uint32_t optType = LoadU32(tlv.data());
    if (optType >= AS_SMOOTH_PROC_NUM || kSmoothProc[optType] == nullptr) return -1;
    return kSmoothProc[optType](hdl, tlv, ctrl, batchType);
}

// The remapping of the first smoothing TLV's type: *type keeps first and
// *batchType is 3 unless the mask selects a row.
// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): two results, named at every call
void ASOrchTransTblSmoothGetTlvAndBatchType(uint32_t first, uint32_t *type, uint32_t *batchType) {
    *type = first;
    *batchType = AS_SMOOTH_BATCH_NONE;
    uint32_t row = first - AS_SMOOTH_BATCH_FIRST;  // wraps far above the rows for types below 193
    if (row >= AS_SMOOTH_BATCH_NUM || (AS_SMOOTH_BATCH_MASK & (1u << row)) == 0) return;
    *type = kSmoothTlvType[row];
    *batchType = kSmoothBatchType[row];
}

}  // namespace

uint32_t ASOrchTransTblSmooth(ASOrchHandle *hdl, const ASOrchTransTlv *tlv, const TblMsgCtrlTrans *ctrl) {
    std::span<uint8_t> value = tlv->value;
    uint32_t batchType = AS_SMOOTH_BATCH_NONE;
    // Only a value that holds a whole smoothing head is remapped; a shorter
    // one is refused below without being read.
    if (value.size() >= sizeof(ASOrchSmoothTlvHead)) {
        uint32_t type = 0;
        ASOrchTransTblSmoothGetTlvAndBatchType(LoadU32(value.data()), &type, &batchType);
        std::memcpy(value.data(), &type, sizeof(type));  // in the caller's body: its header says so
    }
    // A value of 2 GiB or more counts as negative: refused untouched.
    int32_t remaining = static_cast<int32_t>(static_cast<uint32_t>(value.size()));
    std::span<const uint8_t> rest = value;
    while (remaining > 0) {
        remaining = ASOrchSmoothMsgProc(hdl, rest, ctrl, batchType);
        if (remaining > 0) rest = rest.last(static_cast<size_t>(remaining));
    }
    if (remaining < 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, smooth tbl proc failed. tableId = %u, tlvType = %u, tlvLen = %u",
                            hdl->name, tlv->tableId, tlv->tlvType, static_cast<uint32_t>(value.size()));
        return 1;
    }
    return 0;
}
