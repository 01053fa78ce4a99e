/* A C orchestrator's view of the library: the umbrella header alone, C11, and
 * the shared library. Creates, registers, starts and destroys a handle. */
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

static uint32_t CHandler(ASOrchHandle *hdl, ASOrchMergeMsgVec *vec) {
    (void)hdl;
    (void)vec;
    return 0;
}

static uint32_t CHash(const void *key) {
    const ASOrchMergeMsgVec *vec = (const ASOrchMergeMsgVec *)key;
    return ASOrchMergeHashFunc(vec->usrData, AS_ORCH_MERGE_DAM, vec);
}

int main(void) {
    ASOrchCreatePara para = {0, 0, CAlloc, CFree, 0};
    ASOrchHandle *hdl = ASOrchCreate("c_orch", &para);
    CHECK(hdl != NULL);

    /* Base registration as a C orchestrator fills the record. */
    static ASOrchMergeMsgDispatch dispatch[] = {{100, {CHandler, CHandler, CHandler, CHandler}}};
    ASOrchBasePara base = {0};
    CHECK(ASOrchThreadSet(&base.threadMask, 3, 2u, 0u, 1u) == 0 && base.threadMask == 7);
    CHECK(ASOrchThreadSet(&base.threadMask, 2, 0u, 0u) == 1 && base.threadMask == 7);
    base.syncGrpMsgSet[0] = 1;
    base.chan[AS_ORCH_MERGE_DAM].realServerPort = 7000;
    base.damMerge.dispatchTbl = dispatch;
    base.damMerge.dispatchNum = 1;
    base.damMerge.hashFunc = CHash;
    CHECK(ASOrchAdvSetSynGrpVerifyInterVal(hdl, 0, 100) == 0);
    CHECK(ASOrchRegBase(hdl, &base) == 0);
    CHECK(ASOrchGetReaderHdl(hdl, AS_ORCH_MERGE_DAM) != NULL);
    CHECK(ASOrchSyncIsSyncReadyOnlyTarn(hdl, 1) == 0); /* kind 1 not configured */
    CHECK(g_ASOrchChanParam[3].chanThreadId == 2 && ASGetChnlName(4) == NULL);
    CHECK(g_qovOrchAutoSyncGrpParam[0].verifyInterval == 2000);
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
