/* A C orchestrator's view of the library: the umbrella header alone, C11, and
 * the shared library. Creates, starts and destroys a handle. */
#include <stdio.h>
#include <stdlib.h>

#include "qov_autosync_orch.h"

static unsigned g_live;

static void *CAlloc(uint32_t size) {
    void *p = malloc(size);
    if (p != NULL) g_live++;
    return p;
}

static void CFree(void *p) {
    if (p != NULL) g_live--;
    free(p);
}

#define CHECK(cond)                                               \
    do {                                                          \
        if (!(cond)) {                                            \
            fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #cond); \
            return 1;                                             \
        }                                                         \
    } while (0)

int main(void) {
    ASOrchCreatePara para = {0, 0, CAlloc, CFree, 0};
    ASOrchHandle *hdl = ASOrchCreate("c_orch", &para);
    CHECK(hdl != NULL);
    CHECK(ASOrchGetEalHdl(hdl) != NULL);
    CHECK(ASOrchInit(hdl) == 0);
    CHECK(ASOrchStart(hdl) == 0);
    CHECK(ASOrchGetEpollFd(hdl, 0) >= 0);
    CHECK(ASOrchCreate("c_orch", &para) == NULL); /* the name is taken */
    CHECK(g_AutoSyncCtrlBlkNameHead.count == 1);
    ASOrchDestroy(hdl);
    CHECK(g_AutoSyncCtrlBlkNameHead.count == 0);
    CHECK(g_live == 0);
    printf("1 passed, 0 failed\n");
    return 0;
}
