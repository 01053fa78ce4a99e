/* The end-to-end bench's stream: the example broker's DAM path, served by a
 * broker thread or built in memory. */
#define _GNU_SOURCE
#include "e2e_stream.h"

#include <pthread.h>
#include <stdatomic.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "qov_broker.h"
#include "qov_host_api.h"

static QovRouteWorkload g_wl;
static uint32_t *g_seq;
static uint8_t *g_op;
static QovBrokerPara g_para;
static QovBrokerStats g_stats;
static pthread_t g_thread;
static int g_listenFd = -1;

static int Reset(const E2eStreamCfg *cfg) {
    free(g_seq);
    free(g_op);
    g_seq = calloc(cfg->keys, sizeof(uint32_t));
    g_op = calloc(cfg->keys, 1);
    if (g_seq == NULL || g_op == NULL) return 1;
    QovWlInit(&g_wl, cfg->keys, cfg->seed, 0, g_seq, g_op);
    return 0;
}

static void *Serve(void *arg) {
    (void)arg;
    QovBrokerServe(g_listenFd, &g_para, &g_wl, &g_stats, NULL);
    return NULL;
}

uint16_t E2eBrokerStart(const E2eStreamCfg *cfg) {
    uint16_t port = 0;
    if (Reset(cfg) != 0 || (g_listenFd = QovBrokerListen(&port)) < 0) return 0;
    memset(&g_stats, 0, sizeof(g_stats));
    uint32_t ms = cfg->rate != 0 ? cfg->durationMs : 3600u * 1000u;
    g_para = (QovBrokerPara){cfg->rate, ms, cfg->rate != 0 ? 0 : ms, 0, 10000, cfg->maxEntries};
    if (pthread_create(&g_thread, NULL, Serve, NULL) != 0) {
        close(g_listenFd);
        return 0;
    }
    return port;
}

int E2eBrokerPhase(void) { return atomic_load(&g_stats.phase); }

void E2eBrokerJoin(void) {
    pthread_join(g_thread, NULL);
    close(g_listenFd);
    g_listenFd = -1;
}

uint8_t *E2eStreamBuild(const E2eStreamCfg *cfg, size_t *len, uint64_t *entries) {
    if (Reset(cfg) != 0) return NULL;
    size_t cap = (size_t)(cfg->maxEntries + cfg->keys) * sizeof(QovRouteEntry) * 5 / 4 + (1u << 20), used = 0;
    uint8_t *out = malloc(cap);
    uint8_t body[QOV_WL_BODY_MAX];
    while (out != NULL && (g_wl.fillNext < g_wl.keys || g_wl.entries < cfg->maxEntries)) {
        uint32_t n = 0, id = QovWlNext(&g_wl, body, &n, 0);
        if (cap - used < QOV_HOST_FRAME_HDR_LEN + QOV_WL_BODY_MAX + 64) {
            uint8_t *more = realloc(out, cap * 2);
            if (more == NULL) break;
            out = more;
            cap *= 2;
        }
        used += QovHostFrameEncode(out + used, cap - used, id, body, n);
    }
    uint64_t end[3] = {g_wl.msgs, g_wl.entries, QovWlDigest(g_wl.keys, 0, g_seq, g_op)};
    if (out != NULL) used += QovHostFrameEncode(out + used, cap - used, QOV_WL_MSG_END, end, sizeof(end));
    *len = used;
    *entries = g_wl.entries;
    return out;
}

const uint32_t *E2eSentSeq(void) { return g_seq; }
const uint8_t *E2eSentOp(void) { return g_op; }
uint64_t E2eDigest(uint32_t keys, const uint32_t *seq, const uint8_t *op) { return QovWlDigest(keys, 0, seq, op); }
uint32_t E2eKeyOf(const void *entry, uint32_t keys) { return QovWlKeyOf((const uint8_t *)entry, keys); }
uint32_t E2eMsgSet(void) { return QOV_WL_MSG_DAM_SET; }
uint32_t E2eMsgDel(void) { return QOV_WL_MSG_DAM_DEL; }
uint32_t E2eMsgEnd(void) { return QOV_WL_MSG_END; }
uint32_t E2eMergeId(void) { return QOV_WL_MERGE_DAM; }
