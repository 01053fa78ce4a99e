// Release of the table-message tables of a handle.
#include "inbound/inbound_private.h"

void ASOrchFreeTblMsg(ASOrchHandle *hdl) {
    ASIntHash **tables[] = {&hdl->recvTblMsgHash, &hdl->transTblMsgHash};
    for (ASIntHash **table : tables) {
        if (*table == nullptr) continue;
        ASIntHashDelete(*table);
        *table = nullptr;
    }
}
