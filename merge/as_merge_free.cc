// Release of the merge records of a handle.
#include "core/as_handle.h"

void ASOrchFreeMergeHandle(ASOrchHandle *hdl) {
    if (hdl->mergeHandle == nullptr) return;
    hdl->memFree(hdl->mergeHandle);
    hdl->mergeHandle = nullptr;
}
