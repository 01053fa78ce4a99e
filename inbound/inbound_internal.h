// What other folders of the library ask of the inbound subsystem beyond its
// exported operations: the "TblMsg" step of base registration and the release
// of the table-message tables.
#ifndef QOV_AS_INBOUND_INTERNAL_H
#define QOV_AS_INBOUND_INTERNAL_H

#include <cstdint>

#include "core/base/as_handle.h"

// Step "TblMsg": the receive and transfer lists of the record, in a process in
// the MB role (elsewhere nothing, and 0). 1 at the first failure; the lists
// registered before it stay.
uint32_t ASOrchRegTblMsg(ASOrchHandle *hdl, const ASOrchBasePara *para);

// Release of the receive and transfer tables (each cleared after). The blocks
// stay with the allocator: the integer hash's delete releases nothing.
void ASOrchFreeTblMsg(ASOrchHandle *hdl);

#endif
