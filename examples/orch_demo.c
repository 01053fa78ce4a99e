/* orch_demo: an orchestrator on the host platform, built on the installed
 * headers only. It registers a route table on both data paths through
 * ASOrchRegBase, takes the broker's frames on its Data thread and hands them to
 * ASOrchMsgProc; its handlers keep, per key, the last value and operation
 * delivered. Without --connect it runs the example broker in two threads of
 * its own. It prints a progress line a second, then a summary, the library's
 * queue reports and a check of every key against what the broker last sent. */
#define _GNU_SOURCE
#include <errno.h>
#include <inttypes.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "qov_autosync_orch.h"
#include "qov_broker.h"
#include "qov_host_api.h"
#include "qov_mem_pool.h"
#include "qov_utils_eal.h"

static const char g_usage[] =
    "usage: orch_demo [options]   (no options: a run of about ten seconds with its own broker)\n"
    "  --keys N        route keys (default 100000)\n"
    "  --rate N        broker messages per second in the steady phase (default 4000)\n"
    "  --duration MS   steady plus flood phase (default 6000)\n"
    "  --flood MS      last part of the duration sent as fast as possible (default 2500)\n"
    "  --handler-ns N  time each handler call spends (default 1500)\n"
    "  --high N        merge queue high water (default 20000)\n"
    "  --low N         merge queue low water (default 5000)\n"
    "  --threads MASK  worker threads: bit 0 Data (required), 1 Sync, 2 Event (default 3)\n"
    "  --entries N     end the broker's streams after about N entries (default 0: the\n"
    "                  duration ends them)\n"
    "  --seed N        workload seed (default 1)\n"
    "  --csv FILE      time series every 100 ms (tools/plot_csv.sh makes a PNG of it)\n"
    "  --log FILE      where the library's and the platform's log lines go (default\n"
    "                  orch_demo.log; - for the terminal)\n"
    "  --ctl PATH      open the control endpoint at PATH (a Unix socket) for qovctl\n"
    "  --connect PORT  use a running qov_broker (DAM on PORT, FES on PORT+1) instead of\n"
    "                  the built-in one; give it the same --keys and --seed\n"
    "  --record FILE   write every frame the channels receive to FILE (pcap; qov_replay\n"
    "                  plays it back, tools/wireshark/qov.lua reads it)\n"
    "  --record-max N  end the recording before the file passes N bytes (default 1 GiB)\n"
    "  --help          this text\n";

enum { PATHS = 2, HIST_BUCKETS = 8 * 40 };

typedef struct Channel {
    ASOrchHandle *hdl;
    uint32_t path;
} Channel;

/* Everything the Data thread updates and the main thread reads. */
typedef struct Demo {
    ASOrchHandle *hdl;
    uint32_t keys;
    uint64_t handlerNs;
    uint32_t *gotSeq; /* per key: last value delivered */
    uint8_t *gotOp;   /* per key: QOV_WL_SET or QOV_WL_DEL, as last delivered */
    _Atomic uint64_t recvMsgs, recvEntries, delivered, perOp[AS_ORCH_OP_NUM];
    _Atomic uint64_t transferRows, smoothCalls;
    _Atomic uint32_t depth[PATHS], overLoad[PATHS], peak[PATHS];
    _Atomic int endSeen[PATHS];
    _Atomic int drained; /* both streams ended and both queues empty, seen on the Data thread */
    uint64_t endInfo[PATHS][3]; /* messages, entries, digest from the broker; after endSeen */
    _Atomic int reportWanted, reportDone;
    char report[8192];
    uint64_t hist[PATHS][HIST_BUCKETS]; /* send-to-handler latency per path, Data thread only */
    uint64_t histSumUs[PATHS];
    _Atomic uint64_t firstRecvUs, lastDeliverUs;
} Demo;

static Demo g_demo;
static Channel g_chan[PATHS];

/* ---- Handlers, on the Data thread ---- */

static unsigned HistBucket(uint64_t us) {
    if (us < 8) return (unsigned)us;
    unsigned msb = 63u - (unsigned)__builtin_clzll(us);
    unsigned b = (msb - 2u) * 8u + (unsigned)((us >> (msb - 3u)) & 7u);
    return b < HIST_BUCKETS ? b : HIST_BUCKETS - 1u;
}

static uint64_t HistValue(unsigned b) {
    if (b < 8) return b;
    unsigned msb = b / 8u + 2u;
    return (8u + (b % 8u)) << (msb - 3u);
}

static void Spend(uint64_t ns) {
    if (ns == 0) return;
    struct timespec t0, t;
    clock_gettime(CLOCK_MONOTONIC, &t0);
    do {
        clock_gettime(CLOCK_MONOTONIC, &t);
    } while ((uint64_t)(t.tv_sec - t0.tv_sec) * 1000000000u + (uint64_t)t.tv_nsec - (uint64_t)t0.tv_nsec < ns);
}

/* One handler for every operation of both tables: op 0 add/update, op 1
 * delete, op 2 delete then add (the entry is there again). */
static uint32_t OnRoute(ASOrchHandle *hdl, ASOrchMergeMsgVec *vec) {
    (void)hdl;
    if (vec->dataSize != sizeof(QovRouteEntry) || vec->opType >= AS_ORCH_OP_NUM) return 1;
    QovRouteEntry e;
    memcpy(&e, vec->data, sizeof(e));
    uint32_t key = QovWlKeyOf(e.prefix, g_demo.keys);
    if (key == UINT32_MAX) return 1;
    Spend(g_demo.handlerNs);
    g_demo.gotSeq[key] = e.seq;
    g_demo.gotOp[key] = vec->opType == 1 ? QOV_WL_DEL : QOV_WL_SET;
    uint64_t now = QovBrokerNowUs();
    uint32_t path = vec->msgId == QOV_WL_MERGE_FES, us = (uint32_t)now - e.sentUs;
    g_demo.hist[path][HistBucket(us)]++;
    g_demo.histSumUs[path] += us;
    atomic_fetch_add_explicit(&g_demo.perOp[vec->opType], 1, memory_order_relaxed);
    atomic_fetch_add_explicit(&g_demo.delivered, 1, memory_order_relaxed);
    atomic_store_explicit(&g_demo.lastDeliverUs, now, memory_order_relaxed);
    return 0;
}

/* NOLINTNEXTLINE(bugprone-easily-swappable-parameters): the table handler type of the interface */
static uint32_t OnTransferRows(ASOrchHandle *hdl, void *entries, uint32_t num, uint32_t size, ASOrchTblMsgInfo *info) {
    (void)hdl, (void)entries, (void)info;
    if (size != sizeof(QovRouteEntry)) return 1;
    atomic_fetch_add(&g_demo.transferRows, num);
    return 0;
}

static uint32_t OnSmooth(uint32_t tableId, uint32_t tlvType, void *rec, uint32_t recLen) {
    (void)tableId, (void)tlvType, (void)rec, (void)recLen;
    atomic_fetch_add(&g_demo.smoothCalls, 1);
    return 0;
}

static uint32_t HashDam(const void *vec) { return ASOrchMergeHashFunc(g_demo.hdl, AS_ORCH_MERGE_DAM, vec); }
static uint32_t HashFes(const void *vec) { return ASOrchMergeHashFunc(g_demo.hdl, AS_ORCH_MERGE_FES, vec); }

/* A frame of the broker: the end-of-stream note is the demo's own, anything
 * else is a table message for the library. */
static uint32_t OnFrame(void *ctx, QovHostIpcMsg *msg) {
    const Channel *ch = ctx;
    uint64_t now = QovBrokerNowUs(), zero = 0;
    atomic_compare_exchange_strong(&g_demo.firstRecvUs, &zero, now);
    if (msg->msgId == QOV_WL_MSG_END) {
        if (msg->msgLen != sizeof(g_demo.endInfo[0])) return 1;
        memcpy(g_demo.endInfo[ch->path], msg->body, sizeof(g_demo.endInfo[0]));
        atomic_store(&g_demo.endSeen[ch->path], 1);
        return 0;
    }
    atomic_fetch_add_explicit(&g_demo.recvMsgs, 1, memory_order_relaxed);
    if (msg->msgId != QOV_WL_MSG_TRANS && msg->msgLen >= QOV_WL_BODY_PREFIX)
        atomic_fetch_add_explicit(&g_demo.recvEntries, (msg->msgLen - QOV_WL_BODY_PREFIX) / sizeof(QovRouteEntry),
                                  memory_order_relaxed);
    ASOrchIpcMsg m = {msg->body, msg->msgId, msg->msgLen};
    return ASOrchMsgProc(ch->hdl, &m);
}

/* ---- Queue sampling, on the Data thread (the queues' own thread) ---- */

static uint32_t ReportNumber(const char *report, const char *label) {
    const char *at = strstr(report, label);
    unsigned v = 0;
    if (at == NULL || sscanf(at + strlen(label), " [%u", &v) != 1) {
        if (at == NULL || sscanf(at + strlen(label), "%u", &v) != 1) return 0;
    }
    return v;
}

static void QueueName(uint32_t path, char *name, size_t size) {
    snprintf(name, size, "%s_%s", (const char *)g_demo.hdl, path ? "FES" : "DAM");
}

static void OnSample(uint64_t usrData) {
    (void)usrData;
    char buf[4096], name[MERGE_QUE_NAME_LEN];
    uint32_t queued = 0;
    for (uint32_t p = 0; p < PATHS; ++p) {
        QueueName(p, name, sizeof(name));
        if (QOV_PrintMergeQueInfo(name, buf, sizeof(buf)) == 0) continue;
        uint32_t depth = ReportNumber(buf, "Mque CurrCnt");
        queued += depth;
        atomic_store(&g_demo.depth[p], depth);
        atomic_store(&g_demo.overLoad[p], ReportNumber(buf, "OverLoad"));
        if (depth > atomic_load(&g_demo.peak[p])) atomic_store(&g_demo.peak[p], depth);
    }
    /* The channels are served by this thread too, so an end seen here came with
     * everything sent before it, and an empty queue means all of it was handled. */
    if (atomic_load(&g_demo.endSeen[0]) && atomic_load(&g_demo.endSeen[1]) && queued == 0)
        atomic_store(&g_demo.drained, 1);
    if (atomic_load(&g_demo.reportWanted) && !atomic_load(&g_demo.reportDone)) {
        uint32_t n = QOV_PrintMergeQueListAll(g_demo.report, sizeof(g_demo.report));
        for (uint32_t p = 0; p < PATHS && n < sizeof(g_demo.report); ++p) {
            QueueName(p, name, sizeof(name));
            n += QOV_PrintMergeQueInfo(name, g_demo.report + n, (uint32_t)sizeof(g_demo.report) - n);
        }
        atomic_store(&g_demo.reportDone, 1);
    }
}

/* The demo's own metrics for the control endpoint, on the Data thread (where
 * the histograms are kept): send-to-handler latency per path as a Prometheus
 * histogram with 1-2-5 bounds from 1 us to 10 s. */
static uint32_t DemoMetrics(void *ctx, char *buf, uint32_t size) {
    (void)ctx;
    uint32_t n = 0;
    int w = snprintf(buf, size,
                     "# HELP qov_path_latency_seconds Time from the broker's send to the handler, per path.\n"
                     "# TYPE qov_path_latency_seconds histogram\n");
    for (uint32_t p = 0; w > 0 && p < PATHS; ++p) {
        n += (uint32_t)w;
        char name[MERGE_QUE_NAME_LEN];
        QueueName(p, name, sizeof(name));
        uint64_t below = 0;
        unsigned b = 0;
        static const uint64_t kLeUs[] = {1,     2,     5,     10,     20,     50,     100,     200,
                                         500,   1000,  2000,  5000,   10000,  20000,  50000,   100000,
                                         200000, 500000, 1000000, 2000000, 5000000, 10000000};
        for (unsigned k = 0; k < sizeof(kLeUs) / sizeof(kLeUs[0]); ++k) {
            uint64_t le = kLeUs[k];
            /* Bucket b holds values from HistValue(b) up to below HistValue(b + 1). */
            while (b < HIST_BUCKETS && (b + 1 == HIST_BUCKETS ? UINT64_MAX : HistValue(b + 1)) <= le + 1)
                below += g_demo.hist[p][b++];
            w = snprintf(buf + n, size - n, "qov_path_latency_seconds_bucket{queue=\"%s\",le=\"%g\"} %" PRIu64 "\n",
                         name, (double)le / 1e6, below);
            if (w <= 0 || (uint32_t)w >= size - n) return n;
            n += (uint32_t)w;
        }
        uint64_t total = 0;
        for (unsigned i = 0; i < HIST_BUCKETS; ++i) total += g_demo.hist[p][i];
        w = snprintf(buf + n, size - n,
                     "qov_path_latency_seconds_bucket{queue=\"%s\",le=\"+Inf\"} %" PRIu64 "\n"
                     "qov_path_latency_seconds_sum{queue=\"%s\"} %.6f\n"
                     "qov_path_latency_seconds_count{queue=\"%s\"} %" PRIu64 "\n",
                     name, total, name, (double)g_demo.histSumUs[p] / 1e6, name, total);
        if (w <= 0 || (uint32_t)w >= size - n) return n;
    }
    return w > 0 ? n + (uint32_t)w : n;
}

/* ---- Set-up ---- */

typedef struct Options {
    uint64_t keys, rate, duration, flood, handlerNs, high, low, threads, seed, connect, entries, recordMax;
    const char *csv, *log, *ctl, *record;
} Options;

static int ParseOptions(int argc, char **argv, Options *o) {
    *o = (Options){100000, 4000, 6000, 2500, 1500, 20000, 5000, 3, 1, 0, 0, 1u << 30, NULL, "orch_demo.log", NULL, NULL};
    const struct {
        const char *name;
        uint64_t *value, lo, hi;
    } opts[] = {
        {"--keys", &o->keys, 4, 1u << 24},          {"--rate", &o->rate, 0, 10000000},
        {"--duration", &o->duration, 0, 86400000},  {"--flood", &o->flood, 0, 86400000},
        {"--handler-ns", &o->handlerNs, 0, 100000000}, {"--high", &o->high, 2, 1u << 26},
        {"--low", &o->low, 1, 1u << 26},            {"--threads", &o->threads, 1, 7},
        {"--seed", &o->seed, 0, UINT64_MAX},        {"--connect", &o->connect, 1, 65534},
        {"--entries", &o->entries, 0, UINT64_MAX}, {"--record-max", &o->recordMax, QOV_HOST_RECORD_MIN_BYTES, UINT64_MAX},
    };
    for (int i = 1; i < argc; ++i) {
        const char *arg = argv[i];
        if (strcmp(arg, "--help") == 0) {
            fputs(g_usage, stdout);
            exit(0);
        }
        const char **text = strcmp(arg, "--csv") == 0      ? &o->csv
                            : strcmp(arg, "--log") == 0    ? &o->log
                            : strcmp(arg, "--ctl") == 0    ? &o->ctl
                            : strcmp(arg, "--record") == 0 ? &o->record
                                                           : NULL;
        if (text != NULL && i + 1 < argc) {
            *text = argv[++i];
            continue;
        }
        size_t k = 0, n = sizeof(opts) / sizeof(opts[0]);
        while (k < n && strcmp(arg, opts[k].name) != 0) ++k;
        char *end = NULL;
        errno = 0;
        unsigned long long v = (k < n && i + 1 < argc) ? strtoull(argv[++i], &end, 10) : 0;
        if (k == n || end == NULL || errno != 0 || *end != '\0' || v < opts[k].lo || v > opts[k].hi) {
            fprintf(stderr, "orch_demo: bad option or value at '%s'\n%s", arg, g_usage);
            return 1;
        }
        *opts[k].value = v;
    }
    if ((o->threads & 1u) == 0 || o->low >= o->high) {
        fprintf(stderr, "orch_demo: the Data thread is required and --low must be below --high\n");
        return 1;
    }
    return 0;
}

static uint32_t HashSize(uint64_t high) {
    uint32_t n = 1024;
    while (n < high && n < (1u << 22)) n <<= 1;
    return n;
}

/* Registers the route table of both paths and the channels to the broker. */
static uint32_t Register(ASOrchHandle *hdl, const Options *o, const uint16_t port[PATHS]) {
    static const ASOrchRecvTblMsg recv[] = {
        /* mergeMsgId, msgId, opType, unpack, unpackFree, ipcSize, mergeType, userDefProc, mergeOp, keySize */
        {QOV_WL_MERGE_DAM, QOV_WL_MSG_DAM_SET, 0, NULL, NULL, sizeof(QovRouteEntry), AS_ORCH_MERGE_DAM, NULL, 0,
         QOV_WL_KEY_SIZE},
        {QOV_WL_MERGE_DAM, QOV_WL_MSG_DAM_DEL, 0, NULL, NULL, sizeof(QovRouteEntry), AS_ORCH_MERGE_DAM, NULL, 1,
         QOV_WL_KEY_SIZE},
        {QOV_WL_MERGE_FES, QOV_WL_MSG_FES_SET, 0, NULL, NULL, sizeof(QovRouteEntry), AS_ORCH_MERGE_FES, NULL, 0,
         QOV_WL_KEY_SIZE},
        {QOV_WL_MERGE_FES, QOV_WL_MSG_FES_DEL, 0, NULL, NULL, sizeof(QovRouteEntry), AS_ORCH_MERGE_FES, NULL, 1,
         QOV_WL_KEY_SIZE},
    };
    static ASOrchTransTblMsg trans[1];
    trans[0] = (ASOrchTransTblMsg){QOV_WL_TRANS_TABLE, sizeof(QovRouteEntry), {.fn = OnSmooth}, {.fn = NULL}, 0,
                                   OnTransferRows};
    static ASOrchMergeMsgDispatch damTbl[1] = {{QOV_WL_MERGE_DAM, {OnRoute, OnRoute, OnRoute, NULL}}};
    static ASOrchMergeMsgDispatch fesTbl[1] = {{QOV_WL_MERGE_FES, {OnRoute, OnRoute, OnRoute, NULL}}};

    ASOrchBasePara base;
    memset(&base, 0, sizeof(base));
    base.threadMask = (uint32_t)o->threads;
    base.syncGrpMsgSet[0] = 1;
    for (uint32_t p = 0; p < PATHS; ++p) base.chan[p].realServerPort = port[p];
    base.recvTblMsgList[0] = (ASOrchTblMsgList){(void *)recv, sizeof(recv) / sizeof(recv[0])};
    base.transTblMsgList[0] = (ASOrchTblMsgList){trans, 1};
    base.damMerge = (ASOrchMergePara){damTbl, 1, HashSize(o->high), HashDam, (uint32_t)o->high, (uint32_t)o->low};
    base.fesMerge = (ASOrchMergePara){fesTbl, 1, HashSize(o->high), HashFes, (uint32_t)o->high, (uint32_t)o->low};
    return ASOrchRegBase(hdl, &base);
}

/* ---- Output ---- */

static uint64_t Percentile(double q) {
    uint64_t total = 0, seen = 0;
    for (unsigned b = 0; b < HIST_BUCKETS; ++b) total += g_demo.hist[0][b] + g_demo.hist[1][b];
    for (unsigned b = 0; b < HIST_BUCKETS; ++b) {
        seen += g_demo.hist[0][b] + g_demo.hist[1][b];
        if (total != 0 && (double)seen >= q * (double)total) return HistValue(b);
    }
    return 0;
}

/* Compares every key with the broker's final table; 0 when all agree. */
static int Check(const QovRouteWorkload *wl, int external) {
    uint64_t bad = 0;
    /* The same stream, live or replayed from a recording, gives the same line. */
    printf("final table digest: DAM %016" PRIx64 " FES %016" PRIx64 "\n",
           QovWlDigest(g_demo.keys, 0, g_demo.gotSeq, g_demo.gotOp), QovWlDigest(g_demo.keys, 1, g_demo.gotSeq, g_demo.gotOp));
    if (external) {
        for (uint32_t p = 0; p < PATHS; ++p)
            bad += QovWlDigest(g_demo.keys, p, g_demo.gotSeq, g_demo.gotOp) != g_demo.endInfo[p][2];
        printf("check: %s (digest of every key's final value and operation, per path, against the broker's)\n",
               bad ? "FAILED" : "passed");
        return bad != 0;
    }
    for (uint32_t k = 0; k < g_demo.keys; ++k) {
        if (g_demo.gotSeq[k] == wl->seq[k] && g_demo.gotOp[k] == wl->lastOp[k]) continue;
        if (bad++ < 10)
            printf("check: key %u differs: delivered value %u op %s, broker last sent value %u op %s\n", k,
                   g_demo.gotSeq[k], g_demo.gotOp[k] == QOV_WL_DEL ? "delete" : "set", wl->seq[k],
                   wl->lastOp[k] == QOV_WL_DEL ? "delete" : "set");
    }
    if (bad == 0)
        printf("check: passed, all %u keys hold the value and operation the broker last sent\n", g_demo.keys);
    else
        printf("check: FAILED, %" PRIu64 " of %u keys differ\n", bad, g_demo.keys);
    return bad != 0;
}

static _Atomic int g_brokerStop;

static void PrintSummary(double secs, const QovBrokerPath br[PATHS], int external) {
    uint64_t entries = atomic_load(&g_demo.recvEntries), delivered = atomic_load(&g_demo.delivered);
    double e2e = (double)(atomic_load(&g_demo.lastDeliverUs) - atomic_load(&g_demo.firstRecvUs)) / 1e6 + 1e-9;
    printf("\n== summary ==\n");
    printf("%-34s %" PRIu64 " in %.2f s\n", "messages received", atomic_load(&g_demo.recvMsgs), secs);
    printf("%-34s %" PRIu64 "\n", "entries received", entries);
    printf("%-34s %" PRIu64 " (coalescing ratio %.2f entries per delivery)\n", "deliveries to handlers", delivered,
           delivered ? (double)entries / (double)delivered : 0.0);
    printf("%-34s op0 set %" PRIu64 ", op1 delete %" PRIu64 ", op2 delete-then-set %" PRIu64 "\n",
           "deliveries per operation", atomic_load(&g_demo.perOp[0]), atomic_load(&g_demo.perOp[1]),
           atomic_load(&g_demo.perOp[2]));
    /* Exact peaks and back-pressure episodes from the queues' own statistics. */
    uint32_t peak[PATHS], episodes[PATHS];
    for (uint32_t p = 0; p < PATHS; ++p) {
        char name[MERGE_QUE_NAME_LEN + 8];
        QueueName(p, name, MERGE_QUE_NAME_LEN);
        strcat(name, "[MQUE]");
        const char *at = atomic_load(&g_demo.reportDone) ? strstr(g_demo.report, name) : NULL;
        peak[p] = at ? ReportNumber(at, "MergeQue HistoryMaxCnt") : atomic_load(&g_demo.peak[p]);
        episodes[p] = at ? ReportNumber(at, "MergeQue OverHighWater") : 0;
    }
    printf("%-34s DAM %u, FES %u\n", "peak queue depth", peak[0], peak[1]);
    printf("%-34s DAM %u, FES %u (high water crossed, source pressed until the low water)\n",
           "back-pressure episodes", episodes[0], episodes[1]);
    printf("%-34s %.0f entries/s received, %.0f deliveries/s\n", "end-to-end throughput", (double)entries / e2e,
           (double)delivered / e2e);
    printf("%-34s p50 %" PRIu64 " us, p99 %" PRIu64 " us (bucket lower bounds, within 12.5%%)\n",
           "broker send to handler", Percentile(0.50), Percentile(0.99));
    printf("%-34s %" PRIu64 " table rows to the handler, %" PRIu64 " smoothing callbacks\n", "transfer message",
           atomic_load(&g_demo.transferRows), atomic_load(&g_demo.smoothCalls));
    printf("%-34s %.1f MiB\n", "peak memory through memAlloc", (double)QovPoolPeakBytes() / 1048576.0);
    if (!external)
        printf("%-34s DAM %.2f s, FES %.2f s\n", "broker held back (blocked sends)",
               (double)atomic_load(&br[0].stats.blockedUs) / 1e6, (double)atomic_load(&br[1].stats.blockedUs) / 1e6);
}

int main(int argc, char **argv) {
    Options o;
    if (ParseOptions(argc, argv, &o) != 0) return 2;
    setvbuf(stdout, NULL, _IOLBF, 0);
    g_demo.keys = (uint32_t)o.keys;
    g_demo.handlerNs = o.handlerNs;
    g_demo.gotSeq = calloc(o.keys, sizeof(uint32_t));
    g_demo.gotOp = calloc(o.keys, 1);
    uint32_t *sentSeq = calloc(o.keys, sizeof(uint32_t));
    uint8_t *sentOp = calloc(o.keys, 1);
    FILE *csv = o.csv ? fopen(o.csv, "w") : NULL;
    if (!g_demo.gotSeq || !g_demo.gotOp || !sentSeq || !sentOp || (o.csv && !csv)) {
        fprintf(stderr, "orch_demo: out of memory or cannot write %s\n", o.csv ? o.csv : "");
        return 1;
    }
    /* The log lines (one per reader batch, one per water mark crossed) go to a
     * file, so that the terminal shows the progress. */
    if (strcmp(o.log, "-") != 0) {
        fflush(stderr);
        if (freopen(o.log, "w", stderr) == NULL) {
            printf("orch_demo: cannot write the log file %s\n", o.log);
            return 1;
        }
        setvbuf(stderr, NULL, _IOLBF, 0);
    }

    /* The broker: two listeners and two threads of our own, or one already running. */
    static QovBrokerPath br[PATHS];
    int external = o.connect != 0;
    for (uint32_t p = 0; p < PATHS; ++p) {
        br[p].port = external ? (uint16_t)(o.connect + p) : 0;
        br[p].fd = external ? -1 : QovBrokerListen(&br[p].port);
        if (!external && br[p].fd < 0) return 1;
        br[p].para = (QovBrokerPara){(uint32_t)(p ? o.rate / 4 : o.rate - o.rate / 4), (uint32_t)o.duration,
                                     (uint32_t)o.flood, 64, 10000, p ? o.entries / 4 : o.entries - o.entries / 4};
        QovWlInit(&br[p].wl, g_demo.keys, o.seed, p, sentSeq, sentOp);
        br[p].stop = &g_brokerStop;
    }

    /* The orchestrator: create, register, feed the channels to the library, start. */
    ASOrchCreatePara cp = {0, 0, QovPoolAlloc, QovPoolFree, 0};
    ASOrchHandle *hdl = ASOrchCreate("orchDemo", &cp);
    g_demo.hdl = hdl;
    uint16_t ports[PATHS] = {br[0].port, br[1].port};
    int up = hdl != NULL && Register(hdl, &o, ports) == 0 && ASOrchInit(hdl) == 0;
    for (uint32_t p = 0; up && p < PATHS; ++p) {
        g_chan[p] = (Channel){hdl, p};
        up = QovHostChanSetRecv(ASOrchGetEalHdl(hdl), p, OnFrame, &g_chan[p]) == 0;
    }
    if (up && o.record != NULL && QovHostRecordStart(ASOrchGetEalHdl(hdl), o.record, o.recordMax) != 0) {
        printf("orch_demo: cannot record into %s\n", o.record);
        up = 0;
    }
    up = up && ASOrchStart(hdl) == 0;
    int32_t epFd = up ? ASOrchGetEpollFd(hdl, 0) : -1;
    int32_t timerFd = up ? QOV_TIMER_Create(100, (uint64_t)(uintptr_t)OnSample, 0, epFd) : -1;
    /* The control endpoint, for qovctl: the library's own reports, the host's
     * counters and the demo's latency histograms, answered on the Data thread. */
    QovHostCtlPara ctl = {QOV_PrintMergeQueListAll, QOV_PrintMergeQueInfo, NULL, 0, 0, DemoMetrics, NULL};
    if (timerFd >= 0 && o.ctl != NULL && QovHostCtlOpen(ASOrchGetEalHdl(hdl), o.ctl, &ctl) != 0) {
        printf("orch_demo: cannot open the control endpoint at %s\n", o.ctl);
        QovHostTimerCancel(epFd, timerFd);
        timerFd = -1;
    }
    if (timerFd < 0) {
        printf("orch_demo: could not bring the orchestrator up (the log lines in %s say why)\n", o.log);
        ASOrchDestroy(hdl);
        return 1;
    }
    printf("orch_demo: %u keys, broker on 127.0.0.1:%u (DAM) and :%u (FES)%s, high/low water %" PRIu64 "/%" PRIu64
           ", handler %" PRIu64 " ns, thread mask 0x%" PRIx64 ", log lines in %s%s%s\n",
           g_demo.keys, ports[0], ports[1], external ? " (external)" : "", o.high, o.low, o.handlerNs, o.threads,
           strcmp(o.log, "-") != 0 ? o.log : "the terminal", o.ctl ? ", control endpoint " : "", o.ctl ? o.ctl : "");
    int started = 0;
    while (!external && started < PATHS && QovBrokerPathStart(&br[started]) == 0) ++started;

    /* Progress until both streams ended and both queues drained, or a time limit. */
    if (csv)
        fprintf(csv, "t_s,dam_depth,fes_depth,high_water,low_water,backpressure,recv_msgs_s,recv_entries_s,"
                     "delivered_s,broker_blocked_ms\n");
    uint64_t t0 = QovBrokerNowUs(), limitUs = (o.duration + 60000u) * 1000u;
    uint64_t lastMsgs = 0, lastEntries = 0, lastDelivered = 0, lastBlocked = 0, secMsgs = 0, secEntries = 0,
             secDelivered = 0, secBlocked = 0, secMerged = 0;
    int drained = 0;
    for (uint64_t tick = 1; !drained && QovBrokerNowUs() - t0 < limitUs; ++tick) {
        struct timespec pause = {0, 100L * 1000 * 1000};
        nanosleep(&pause, NULL);
        uint64_t msgs = atomic_load(&g_demo.recvMsgs), entries = atomic_load(&g_demo.recvEntries);
        uint64_t delivered = atomic_load(&g_demo.delivered);
        uint64_t blocked = atomic_load(&br[0].stats.blockedUs) + atomic_load(&br[1].stats.blockedUs);
        uint32_t dam = atomic_load(&g_demo.depth[0]), fes = atomic_load(&g_demo.depth[1]);
        int pressed = atomic_load(&g_demo.overLoad[0]) || atomic_load(&g_demo.overLoad[1]);
        if (csv)
            fprintf(csv, "%.1f,%u,%u,%" PRIu64 ",%" PRIu64 ",%d,%" PRIu64 ",%" PRIu64 ",%" PRIu64 ",%.1f\n",
                    (double)tick / 10.0, dam, fes, o.high, o.low, pressed, (msgs - lastMsgs) * 10,
                    (entries - lastEntries) * 10, (delivered - lastDelivered) * 10,
                    (double)(blocked - lastBlocked) / 100.0);
        lastMsgs = msgs, lastEntries = entries, lastDelivered = delivered, lastBlocked = blocked;
        if (tick % 10 == 0) {
            /* Every entry received is still queued, delivered, or merged into a newer one. */
            uint64_t merged = entries > delivered + dam + fes ? entries - delivered - dam - fes : 0;
            printf("[%3" PRIu64 " s] recv %6" PRIu64 " msg/s %7" PRIu64 " entries/s | merged %7" PRIu64
                   "/s delivered %7" PRIu64 "/s | queue DAM %6u FES %6u | back-pressure %-3s | broker blocked %4" PRIu64
                   " ms\n",
                   tick / 10, msgs - secMsgs, entries - secEntries, merged > secMerged ? merged - secMerged : 0,
                   delivered - secDelivered, dam, fes, pressed ? "on" : "off", (blocked - secBlocked) / 1000);
            secMsgs = msgs, secEntries = entries, secDelivered = delivered, secBlocked = blocked, secMerged = merged;
        }
        drained = atomic_load(&g_demo.drained);
    }
    double secs = (double)(QovBrokerNowUs() - t0) / 1e6;
    if (!drained) printf("orch_demo: the streams did not end within the time limit\n");

    /* The library's own queue reports, taken on the Data thread. */
    atomic_store(&g_demo.reportWanted, 1);
    for (int i = 0; i < 50 && !atomic_load(&g_demo.reportDone); ++i) {
        struct timespec pause = {0, 20L * 1000 * 1000};
        nanosleep(&pause, NULL);
    }

    /* Stop feeding the handle, then destroy it; the broker sees the connections close. */
    if (o.ctl != NULL) QovHostCtlClose(ASOrchGetEalHdl(hdl));
    QovHostTimerCancel(epFd, timerFd);
    for (uint32_t p = 0; p < PATHS; ++p) QovHostChanSetRecv(ASOrchGetEalHdl(hdl), p, NULL, NULL);
    PrintSummary(secs, br, external);
    QovHostRecordStats rec;
    if (o.record != NULL && QovHostRecordStop(ASOrchGetEalHdl(hdl), &rec) == 0)
        printf("%-34s %" PRIu64 " frames, %" PRIu64 " bytes in %s%s\n", "recording", rec.frames, rec.bytes, o.record,
               rec.full ? " (ended early at its bound)" : "");
    if (atomic_load(&g_demo.reportDone)) printf("\n== merge queue reports ==\n%s\n", g_demo.report);
    ASOrchDestroy(hdl);
    atomic_store(&g_brokerStop, !drained);
    for (int p = 0; p < started; ++p) pthread_join(br[p].thread, NULL);
    for (uint32_t p = 0; p < PATHS; ++p)
        if (br[p].fd >= 0) close(br[p].fd);
    if (csv) fclose(csv);

    int rc = drained ? Check(&br[0].wl, external) : 1;
    uint64_t kept = QovPoolLiveBytes();
    printf("memory the library kept after destroy: %" PRIu64 " bytes in %u blocks (its table-message registry; "
           "the orchestrator's pool takes them back)\n", kept, QovPoolRelease());
    free(g_demo.gotSeq);
    free(g_demo.gotOp);
    free(sentSeq);
    free(sentOp);
    return rc;
}
