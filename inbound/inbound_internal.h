// Internal interface of the inbound subsystem: the table-message registry's
// release that ASOrchDestroy calls.
#ifndef QOV_AS_INBOUND_INTERNAL_H
#define QOV_AS_INBOUND_INTERNAL_H

#include "core/as_handle.h"

// Release of the receive and transfer tables (each cleared after).
void ASOrchFreeTblMsg(ASOrchHandle *hdl);

#endif
