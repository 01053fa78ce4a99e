// What the files of the smoothing subsystem share: the class handlers that
// the dispatch table names, and the batch remapping of a run's first TLV.
#ifndef QOV_AS_SMOOTH_PRIVATE_H
#define QOV_AS_SMOOTH_PRIVATE_H

#include <array>
#include <cstdint>
#include <span>

#include "qov_as_smooth.h"
#include "smooth/smooth_internal.h"

// A class handler. tlv runs from the smoothing TLV to the end of the transfer
// TLV's value (its size is the bytes remaining, at most INT32_MAX) and holds at
// least a smoothing head. Returns the bytes remaining after this TLV, or -1.
using ASOrchSmoothProc = int32_t(ASOrchHandle *hdl, std::span<const uint8_t> tlv, const TblMsgCtrlTrans *ctrl,
                                 uint32_t batchType);
using ASOrchSmoothProcFunc = ASOrchSmoothProc *;

// Class handlers, one per class record.
ASOrchSmoothProc ASOrchSmoothClassState;
ASOrchSmoothProc ASOrchSmoothVrfState;
ASOrchSmoothProc ASOrchSmoothVrfClassData;
ASOrchSmoothProc ASOrchSmoothPidState;
ASOrchSmoothProc ASOrchSmoothLrClassData;
ASOrchSmoothProc ASOrchSmoothDamClassData;

#endif
