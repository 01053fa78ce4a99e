// The records that the inbound and smoothing subsystems both need: the
// registry's record of a transfer table, which inbound/ builds and both read,
// and one TLV of a transfer message as inbound/'s walk hands it to smooth/.
#ifndef QOV_AS_CORE_BASE_TRANS_REC_H
#define QOV_AS_CORE_BASE_TRANS_REC_H

#include <cstddef>
#include <cstdint>
#include <span>

#include "qov_as_inbound.h"

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
    uint32_t dataPath;  // as registered: 0 DAM, non-zero FES
    uint32_t version;
};
static_assert(offsetof(TblMsgCtrlTrans, smoothPreProcWithType) == 40);
static_assert(offsetof(TblMsgCtrlTrans, dataPath) == 56);
static_assert(sizeof(TblMsgCtrlTrans) == 64);

// One TLV as the walk found it: its value lies inside the total length.
struct ASOrchTransTlv {
    uint32_t tableId;
    uint32_t tlvType;
    std::span<uint8_t> value;  // tlvLen bytes
};

#endif
