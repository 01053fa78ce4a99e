/* The smallest orchestrator, built against the installed package only: one
 * instance created, started and destroyed, with the library's own bookkeeping
 * of live instances checked along the way. */
#include <stdio.h>
#include <stdlib.h>

#include "qov_autosync_orch.h"

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
    ok = ok && g_AutoSyncCtrlBlkNameHead.count == 0 && g_live == 0;
    printf("installed package orchestrator: %s\n", ok ? "ok" : "FAILED");
    return ok ? 0 : 1;
}
