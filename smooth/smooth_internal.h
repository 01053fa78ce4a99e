// What other folders ask of the smoothing subsystem: the dispatch of a
// transfer TLV's smoothing run to the table's smoothing callbacks and the
// platform's smoothing entries.
#ifndef QOV_AS_SMOOTH_INTERNAL_H
#define QOV_AS_SMOOTH_INTERNAL_H

#include <cstdint>

#include "core/base/as_handle.h"
#include "core/base/as_trans_rec.h"

// Dispatches the smoothing run in the TLV's value; 0 when it was consumed, 1
// (logged) when a smoothing TLV was refused. Rewrites the first smoothing
// TLV's optType in the body with its remapped type.
uint32_t ASOrchTransTblSmooth(ASOrchHandle *hdl, const ASOrchTransTlv *tlv, const TblMsgCtrlTrans *ctrl);

#endif
