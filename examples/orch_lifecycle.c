/* The life of one orchestrator instance: create the handle, initialise and
 * start it, arm a timer that the Data thread serves, then destroy it, and show
 * the library's log lines along the way. */
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include "qov_autosync_orch.h"
#include "qov_host_ctl.h"

static atomic_uint g_ticks;

static void *OrchAlloc(uint32_t size) { return malloc(size); }
static void OrchFree(void *p) { free(p); }
static void OnTimer(uint64_t usrData) { atomic_fetch_add(&g_ticks, (unsigned)usrData); }

static void PrintLog(void) {
    QovHostLogLine line;
    for (uint32_t i = 0; QovHostLogGet(i, &line) == 0; ++i) printf("  [%s] %s\n", line.module, line.text);
    QovHostLogClear();
}

int main(void) {
    QovHostLogEcho(0); /* the example prints the captured lines itself */
    QovHostLogCapture(1);
    ASOrchCreatePara para = {0, 0, OrchAlloc, OrchFree, 0};
    ASOrchHandle *hdl = ASOrchCreate("orchDemo", &para);
    if (hdl == NULL || ASOrchInit(hdl) != 0 || ASOrchStart(hdl) != 0) {
        PrintLog();
        fprintf(stderr, "could not bring the instance up\n");
        ASOrchDestroy(hdl);
        return 1;
    }
    /* A 5 ms timer in the Data thread's epoll set (index 0). */
    if (ASOrchTimerInit(hdl, 5, (uint64_t)(uintptr_t)OnTimer, 1, 0) != 0) {
        PrintLog();
        ASOrchDestroy(hdl);
        return 1;
    }
    printf("instance up:\n");
    PrintLog();

    struct timespec pause = {0, 1000000};
    for (int i = 0; i < 2000 && atomic_load(&g_ticks) < 3; ++i) nanosleep(&pause, NULL);
    printf("timer ticks seen on the Data thread: %u\n", atomic_load(&g_ticks));

    ASOrchDestroy(hdl);
    printf("instance destroyed:\n");
    PrintLog();
    return atomic_load(&g_ticks) >= 3 ? 0 : 1;
}
