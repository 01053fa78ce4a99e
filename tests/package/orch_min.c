/* The smallest orchestrator, built against the installed package only: one
 * instance created, started and destroyed, with the library's own bookkeeping
 * of live instances checked along the way. */
#include <stdio.h>
#include <stdlib.h>

#include "qov_autosync_orch.h"
#include "qov_host_api.h"

static unsigned g_live; /* blocks the library holds from this allocator */

static void *OrchAlloc(uint32_t size) {
    void *p = malloc(size);
    g_live += p != NULL;
    return p;
}

static void OrchFree(void *p) {
    g_live -= p != NULL;
    free(p);
}

int main(void) {
    ASOrchCreatePara para = {0, 0, OrchAlloc, OrchFree, 0};
    ASOrchHandle *hdl = ASOrchCreate("pkgOrch", &para);
    if (hdl == NULL || g_AutoSyncCtrlBlkNameHead.count != 1) return 1;
    int ok = ASOrchInit(hdl) == 0 && ASOrchStart(hdl) == 0 && ASOrchGetEpollFd(hdl, 0) >= 0;
    ASOrchDestroy(hdl);
    /* The host's wire format, as a broker feeding this orchestrator writes it. */
    uint8_t frame[QOV_HOST_FRAME_HDR_LEN + 4];
    uint32_t msgId = 0, msgLen = 0;
    ok = ok && QovHostFrameEncode(frame, sizeof(frame), 7, "abcd", 4) == sizeof(frame) &&
         QovHostFrameHdrDecode(frame, 4, &msgId, &msgLen) == 0 && msgId == 7 && msgLen == 4;
    ok = ok && g_AutoSyncCtrlBlkNameHead.count == 0 && g_live == 0;
    printf("installed package orchestrator: %s\n", ok ? "ok" : "FAILED");
    return ok ? 0 : 1;
}
