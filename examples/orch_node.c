/* orch_node: one orchestrator process of an active/standby pair on the host
 * platform, for the restart and switchover scenarios (orch_failover runs
 * them). Its route table lives in a table file mapped into memory, as a
 * device's programmed tables outlive their orchestrator: a node that is killed
 * and started again finds the table as it left it, stale keys included.
 *
 * Active (MB role): connected to the broker (qov_broker --resync), it takes the
 * broker's frames on its Data thread and hands them to ASOrchMsgProc. The
 * broker resynchronises each table at every connection: the smoothing
 * callback marks the table at the data-class begin, the table handler
 * refreshes what is re-sent, and at the end the keys not re-sent are removed,
 * each as a delete through the library's dispatch (the handler every delete
 * reaches). Every entry the node hands its table also goes to the standby over
 * sync group kind 0 with ASOrchSyncBatchMsg, batched, while the link is ready;
 * when a standby (re)joins, the whole table goes to it first.
 *
 * Standby (not MB): linked to the active one's listener, it feeds what arrives
 * into its merge layer with ASOrchMergeSyncGrpDatas, so that its handlers keep
 * a mirror of the table, coalesced by the same rules. SIGUSR1 makes it take
 * over: it destroys its standby instance, keeps the table, and creates its
 * active one in the MB role, which the broker then resynchronises.
 *
 * SIGTERM ends a standby once its link is down and its queues are empty; an
 * active node ends after the broker's end of stream, with its queues drained.
 * Figures go to the table file's header. */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <errno.h>
#include <inttypes.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
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
#include "qov_table_file.h"
#include "qov_utils_eal.h"

static const char g_usage[] =
    "usage: orch_node --role active|standby --table FILE [options]\n"
    "  --name NAME           prefix of its output lines (default node)\n"
    "  --broker PORT         the broker's DAM port, FES on PORT+1 (required to be active)\n"
    "  --listen ADDR:PORT    where the sync link listens while active (default 127.0.0.1:0)\n"
    "  --peer ADDR:PORT      the active node's sync listener, for a standby\n"
    "  --keys N              route keys (default 100000; the table file's size)\n"
    "  --handler-ns N        time each handler call spends (default 1500)\n"
    "  --high N / --low N    merge queue water marks (default 20000 / 5000)\n"
    "  --log FILE            the library's and the platform's log lines (default orch_node.log)\n"
    "  --crash-in-resync N   SIGKILL itself after N resync rows (a resync cut by a kill)\n"
    "  --skip-sweep          fault: keep the keys a resync did not re-send\n"
    "  --drop-sync-frame N   fault: a standby drops the N-th sync frame it receives\n"
    "Signals: SIGUSR1 makes a standby take over, SIGTERM ends a standby.\n";

enum { PATHS = 2, BATCH = QOV_HOST_SYNC_ITEMS_MAX - 1, HIST = 8 * 30, CATCHUP_FRAMES_PER_TICK = 64 };
#define SYNC_KIND 0u   /* the sync group of the pair */
#define SYNC_GRP_ID 0u /* its EAL id: kind 0 is the only kind registered */
#define TICK_MS 2u

/* The head item of every sync frame: what the entries after it are. */
typedef struct SyncHead {
    uint32_t path, op;
} SyncHead;

/* Entries of one path and one operation waiting to go to the standby. */
typedef struct Batch {
    SyncHead head;
    uint32_t n;
    QovRouteEntry e[BATCH];
    QovHostSyncItem item[BATCH + 1];
} Batch;

typedef struct Resync {
    int open;
    uint32_t gen, rows, changed;
} Resync;

typedef struct Options {
    const char *name, *table, *log;
    int active;
    uint64_t broker, keys, handlerNs, high, low, crashRows, dropFrame;
    int skipSweep;
    uint32_t listenAddr, peerAddr;
    uint16_t listenPort, peerPort;
} Options;

/* Everything the Data thread works on; the main thread reads it once the
 * handle is gone, or the atomics. */
typedef struct Node {
    Options o;
    ASOrchHandle *hdl;
    QovTableFile tbl;
    uint32_t *seen;           /* per key: the resync generation that re-sent it */
    Resync rs[PATHS];
    uint64_t activeSinceUs;   /* start of the active instance: its channels connect */
    uint32_t rowsSeen;        /* resync rows, for --crash-in-resync */
    int forward;              /* active: entries go to the standby */
    Batch batch[PATHS], cu; /* live batches per path; the catch-up's */
    int needCatchUp, catching;
    uint32_t cuPath, cuOp, cuKey;
    uint64_t framesRecv;
    uint64_t hist[HIST];      /* us from the broker's send (active) or the active's handler (standby) */
    uint32_t ticks;
    _Atomic int endSeen[PATHS];
    _Atomic int done;         /* active: end seen, queues drained, batches sent */
    _Atomic int quiet;        /* standby: link down and queues empty */
} Node;

static Node g;
static volatile sig_atomic_t g_takeOver, g_term;

static void Say(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
static void Say(const char *fmt, ...) {
    char line[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(line, sizeof(line), fmt, ap);
    va_end(ap);
    printf("[%s] %s\n", g.o.name, line);
}

/* ---- Forwarding to the standby (Data thread) ---- */

/* Sends a batch as one sync frame: a head item, then the entries. 1 when it
 * could not go: no standby is linked, or the link dropped under the frame; the
 * next standby then starts from the whole table. */
static int SendBatch(Batch *b) {
    uint32_t n = b->n;
    b->n = 0;
    if (n == 0) return 0;
    if (ASOrchSyncIsSyncReadyOnlyTarn(g.hdl, SYNC_KIND) == 0) {
        g.needCatchUp = 1;
        g.catching = 0;
        return 1;
    }
    b->item[0] = (QovHostSyncItem){&b->head, sizeof(b->head), 0};
    for (uint32_t i = 0; i < n; ++i) b->item[i + 1] = (QovHostSyncItem){&b->e[i], sizeof(b->e[i]), 0};
    if (ASOrchSyncBatchMsg(g.hdl, SYNC_KIND, b->item, n + 1) != 0) {
        g.tbl.hdr->syncSendFails++;
        g.needCatchUp = 1;
        g.catching = 0;
        return 1;
    }
    g.tbl.hdr->syncFramesSent++;
    return 0;
}

/* Live entries keep their order: a frame holds one operation of one path, and
 * a change of operation sends what was gathered first. */
static void Forward(uint32_t path, uint32_t op, const QovRouteEntry *e) {
    if (!g.forward) return;
    Batch *b = &g.batch[path];
    if (b->n != 0 && b->head.op != op) SendBatch(b);
    b->head = (SyncHead){path, op};
    b->e[b->n] = *e;
    b->e[b->n++].sentUs = (uint32_t)QovBrokerNowUs(); /* the standby measures its lag from here */
    if (b->n == BATCH) SendBatch(b);
}

/* Sends the next part of the whole table to a standby that joined: per path
 * the present keys as sets, then the deleted ones as deletes. Live entries go
 * on meanwhile: a key sent here with its value of now may meet an older
 * change still in a live batch, but that batch ends with the key's latest. */
static void CatchUp(void) {
    Batch *b = &g.cu;
    for (uint32_t frames = 0; frames < CATCHUP_FRAMES_PER_TICK && g.catching;) {
        if (g.cuPath == PATHS) {
            g.catching = 0;
            Say("standby caught up: the whole table sent");
            return;
        }
        uint32_t want = g.cuOp == 0 ? QOV_WL_SET : QOV_WL_DEL;
        b->head = (SyncHead){g.cuPath, g.cuOp};
        for (; g.cuKey < g.o.keys && b->n < BATCH; ++g.cuKey) {
            const QovTableRow *r = &g.tbl.row[g.cuKey];
            if ((uint32_t)QovWlIsFes(g.cuKey) != g.cuPath || r->op != want) continue;
            QovWlEntry(g.cuKey, r->seq, (uint32_t)QovBrokerNowUs(), &b->e[b->n++]);
        }
        if (g.cuKey == g.o.keys) {
            g.cuKey = 0;
            if (++g.cuOp == 2) g.cuOp = 0, ++g.cuPath;
        }
        if (b->n == 0) continue;
        if (SendBatch(b) != 0) return;
        ++frames;
    }
}

/* ---- Table and handlers (Data thread) ---- */

static void Apply(uint32_t key, uint32_t fwdOp, const QovRouteEntry *e) {
    g.tbl.row[key].seq = e->seq;
    g.tbl.row[key].op = fwdOp == 1 ? QOV_WL_DEL : QOV_WL_SET;
    Forward((uint32_t)QovWlIsFes(key), fwdOp, e);
}

static void Spend(uint64_t ns) {
    if (ns == 0) return;
    uint64_t t0 = QovBrokerNowUs() * 1000u;
    while (QovBrokerNowUs() * 1000u - t0 < ns) {
    }
}

/* Latency buckets: eight a power of two, so a bucket is within 12.5 %. */
static unsigned HistBucket(uint32_t us) {
    if (us < 8) return us;
    unsigned msb = 31u - (unsigned)__builtin_clz(us);
    unsigned b = (msb - 2u) * 8u + ((us >> (msb - 3u)) & 7u);
    return b < HIST ? b : HIST - 1u;
}

static uint64_t HistValue(unsigned b) { return b < 8 ? b : (uint64_t)(8u + b % 8u) << (b / 8u - 1u); }

/* Every operation of both paths: 0 add/update, 1 delete, 2 delete then add. */
static uint32_t OnRoute(ASOrchHandle *hdl, ASOrchMergeMsgVec *vec) {
    (void)hdl;
    if (vec->dataSize != sizeof(QovRouteEntry) || vec->opType > 2) return 1;
    QovRouteEntry e;
    memcpy(&e, vec->data, sizeof(e));
    uint32_t key = QovWlKeyOf(e.prefix, (uint32_t)g.o.keys);
    if (key == UINT32_MAX) return 1;
    Spend(g.o.handlerNs);
    Apply(key, vec->opType, &e);
    g.tbl.hdr->delivered++;
    g.hist[HistBucket((uint32_t)QovBrokerNowUs() - e.sentUs)]++;
    return 0;
}

static void ResyncBegin(uint32_t path) {
    Resync *r = &g.rs[path];
    if (r->open) Say("resync of %s begun again before its end: starting over", path ? "FES" : "DAM");
    r->open = 1;
    r->gen = r->gen + 1 != 0 ? r->gen + 1 : 1;
    r->rows = r->changed = 0;
}

/* Removes the keys of the path that the resync did not re-send, each as a
 * delete dispatched by the library to the delete handler. */
static uint32_t Sweep(uint32_t path, uint32_t gen) {
    uint32_t stale = 0;
    for (uint32_t k = 0; k < g.o.keys; ++k) {
        if ((uint32_t)QovWlIsFes(k) != path || !QovTablePresent(&g.tbl.row[k]) || g.seen[k] == gen) continue;
        QovRouteEntry e;
        QovWlEntry(k, g.tbl.row[k].seq, (uint32_t)QovBrokerNowUs(), &e);
        ASOrchMergeMsgVec vec = {path ? QOV_WL_MERGE_FES : QOV_WL_MERGE_DAM, 1, e.prefix, QOV_WL_KEY_SIZE,
                                 (uint8_t *)&e, sizeof(e), 0, NULL};
        if (ASOrchMsgMerge(g.hdl, path ? AS_ORCH_MERGE_FES_DIRECT : AS_ORCH_MERGE_DAM_DIRECT, &vec) == 0) ++stale;
    }
    return stale;
}

static void ResyncEnd(uint32_t path) {
    Resync *r = &g.rs[path];
    const char *name = path ? "FES" : "DAM";
    if (!r->open) {
        Say("resync end of %s without a begin: ignored, nothing removed", name);
        return;
    }
    r->open = 0;
    uint32_t stale = g.o.skipSweep ? 0 : Sweep(path, r->gen);
    QovResyncFig *f = &g.tbl.hdr->resync[path];
    *f = (QovResyncFig){r->rows, r->changed, stale, 0, QovBrokerNowUs() - g.activeSinceUs};
    g.tbl.hdr->resyncs++;
    Say("resync of %s: %u rows re-sent, %u changed the table, %u stale keys removed; %.1f ms from the connection "
        "to the end",
        name, r->rows, r->changed, stale, (double)f->connectToEndUs / 1e3);
}

/* Smoothing callback of both tables, before the platform's entry. */
static uint32_t OnSmooth(uint32_t tableId, uint32_t type, void *rec, uint32_t recLen) {
    (void)rec, (void)recLen;
    uint32_t path = tableId == QOV_WL_TABLE_DAM ? 0 : tableId == QOV_WL_TABLE_FES ? 1 : PATHS;
    if (path == PATHS || (type != QOV_WL_CLASS_BEGIN && type != QOV_WL_CLASS_END)) {
        Say("smoothing type %u for table %u: not a resync of ours, ignored", type, tableId);
        return 1;
    }
    if (type == QOV_WL_CLASS_BEGIN) ResyncBegin(path);
    else ResyncEnd(path);
    return 0;
}

/* Table handler of both tables: the rows a resync re-sends. */
/* NOLINTNEXTLINE(bugprone-easily-swappable-parameters): the table handler type of the interface */
static uint32_t OnRows(ASOrchHandle *hdl, void *entries, uint32_t num, uint32_t size, ASOrchTblMsgInfo *info) {
    (void)hdl;
    uint32_t path = info->tblParam;
    if (size != sizeof(QovRouteEntry) || path >= PATHS) {
        Say("resync rows of %u bytes for table parameter %u: not ours, refused", size, path);
        return 1;
    }
    Resync *r = &g.rs[path];
    if (!r->open) Say("resync rows of %s outside a begin: applied, not counted as re-sent", path ? "FES" : "DAM");
    uint32_t bad = 0;
    for (uint32_t i = 0; i < num; ++i) {
        QovRouteEntry e;
        memcpy(&e, (uint8_t *)entries + (size_t)i * size, sizeof(e));
        uint32_t key = QovWlKeyOf(e.prefix, (uint32_t)g.o.keys);
        if (key == UINT32_MAX || (uint32_t)QovWlIsFes(key) != path) {
            ++bad;
            continue;
        }
        const QovTableRow *row = &g.tbl.row[key];
        if (!QovTablePresent(row) || row->seq != e.seq) {
            ++r->changed;
            Apply(key, 0, &e);
        }
        if (r->open) g.seen[key] = r->gen;
        ++r->rows;
        if (g.o.crashRows != 0 && ++g.rowsSeen == g.o.crashRows) {
            Say("killing itself in the middle of the resync, after %u rows", g.rowsSeen);
            fflush(stdout);
            raise(SIGKILL);
        }
    }
    if (bad != 0) Say("%u resync rows of %s name no key of this path: skipped", bad, path ? "FES" : "DAM");
    return bad != 0;
}

/* A frame of the broker's channel of a path. */
static uint32_t OnFrame(void *ctx, QovHostIpcMsg *msg) {
    uint32_t path = *(const uint32_t *)ctx;
    if (msg->msgId == QOV_WL_MSG_END) {
        atomic_store(&g.endSeen[path], 1);
        return 0;
    }
    ASOrchIpcMsg m = {msg->body, msg->msgId, msg->msgLen};
    return ASOrchMsgProc(g.hdl, &m);
}

/* A frame of the sync link, on the standby: a head item, then whole route entries. */
static void OnSync(void *ctx, uint32_t grpId, QovHostSyncItem *items, uint32_t count) {
    (void)ctx, (void)grpId;
    ++g.framesRecv;
    g.tbl.hdr->syncFramesRecv++;
    SyncHead head = {PATHS, 0};
    if (count != 0 && items[0].len == sizeof(head)) memcpy(&head, items[0].bytes, sizeof(head));
    const uint32_t none = UINT32_MAX;
    uint32_t bad = count == 0 || head.path >= PATHS || head.op > 2 ? 0 : none; /* the first bad item */
    for (uint32_t i = 1; bad == none && i < count; ++i)
        if (items[i].len != sizeof(QovRouteEntry)) bad = i;
    if (bad != none) {
        g.tbl.hdr->syncFramesBad++;
        Say("sync frame of %u items does not cut into a head and whole route entries (item %u): dropped", count, bad);
        return;
    }
    if (g.framesRecv == g.o.dropFrame) return; /* the fault asked for */
    ASOrchMergeMsgVec tmpl = {head.path ? QOV_WL_MERGE_FES : QOV_WL_MERGE_DAM, head.op, NULL, QOV_WL_KEY_SIZE,
                              NULL, sizeof(QovRouteEntry), 0, NULL};
    ASOrchMergeSyncGrpDatas(count - 1, (ASOrchSyncGrpData *)(items + 1), &tmpl, head.path, g.hdl);
}

/* ---- The tick (Data thread): queue depths, batches, catch-up, the end ---- */

static uint32_t ReportNumber(const char *report, const char *label) {
    const char *at = strstr(report, label);
    unsigned v = 0;
    if (at == NULL || sscanf(at + strlen(label), "%u", &v) != 1) return 0;
    return v;
}

static void OnTick(uint64_t usrData) {
    (void)usrData;
    uint32_t queued = 0;
    if (++g.ticks % 25 == 0) {
        char buf[4096], name[MERGE_QUE_NAME_LEN];
        for (uint32_t p = 0; p < PATHS; ++p) {
            snprintf(name, sizeof(name), "%s_%s", (const char *)g.hdl, p ? "FES" : "DAM");
            if (QOV_PrintMergeQueInfo(name, buf, sizeof(buf)) == 0) continue;
            uint32_t depth = ReportNumber(buf, "Mque CurrCnt"), peak = ReportNumber(buf, "MergeQue HistoryMaxCnt");
            g.tbl.hdr->depthNow[p] = depth;
            queued += depth;
            if (peak > g.tbl.hdr->peakDepth[p]) g.tbl.hdr->peakDepth[p] = peak;
        }
        if (!g.forward)
            atomic_store(&g.quiet, queued == 0 && ASOrchSyncIsSyncReadyOnlyTarn(g.hdl, SYNC_KIND) == 0);
    }
    if (!g.forward) return;
    if (!g.catching && g.needCatchUp && ASOrchSyncIsSyncReadyOnlyTarn(g.hdl, SYNC_KIND) != 0) {
        g.needCatchUp = 0;
        g.catching = 1;
        g.cuPath = g.cuOp = g.cuKey = 0;
        g.cu.n = 0;
        g.tbl.hdr->catchUps++;
        Say("a standby is linked: sending it the whole table");
    }
    if (g.catching) CatchUp();
    for (uint32_t p = 0; p < PATHS; ++p) SendBatch(&g.batch[p]);
    if (g.ticks % 25 == 0 && atomic_load(&g.endSeen[0]) && atomic_load(&g.endSeen[1]) && queued == 0 && !g.catching)
        atomic_store(&g.done, 1);
}

/* ---- Instances ---- */

static uint32_t HashDam(const void *vec) { return ASOrchMergeHashFunc(g.hdl, AS_ORCH_MERGE_DAM, vec); }
static uint32_t HashFes(const void *vec) { return ASOrchMergeHashFunc(g.hdl, AS_ORCH_MERGE_FES, vec); }

static uint32_t Register(ASOrchHandle *hdl) {
    static const ASOrchRecvTblMsg recv[] = {
        {QOV_WL_MERGE_DAM, QOV_WL_MSG_DAM_SET, 0, NULL, NULL, sizeof(QovRouteEntry), AS_ORCH_MERGE_DAM, NULL, 0,
         QOV_WL_KEY_SIZE},
        {QOV_WL_MERGE_DAM, QOV_WL_MSG_DAM_DEL, 0, NULL, NULL, sizeof(QovRouteEntry), AS_ORCH_MERGE_DAM, NULL, 1,
         QOV_WL_KEY_SIZE},
        {QOV_WL_MERGE_FES, QOV_WL_MSG_FES_SET, 0, NULL, NULL, sizeof(QovRouteEntry), AS_ORCH_MERGE_FES, NULL, 0,
         QOV_WL_KEY_SIZE},
        {QOV_WL_MERGE_FES, QOV_WL_MSG_FES_DEL, 0, NULL, NULL, sizeof(QovRouteEntry), AS_ORCH_MERGE_FES, NULL, 1,
         QOV_WL_KEY_SIZE},
    };
    static ASOrchTransTblMsg trans[PATHS];
    for (uint32_t p = 0; p < PATHS; ++p)
        trans[p] = (ASOrchTransTblMsg){QovWlTableId(p), sizeof(QovRouteEntry), {.fn = OnSmooth}, {.fn = NULL}, p,
                                       OnRows};
    static ASOrchMergeMsgDispatch damTbl[1] = {{QOV_WL_MERGE_DAM, {OnRoute, OnRoute, OnRoute, NULL}}};
    static ASOrchMergeMsgDispatch fesTbl[1] = {{QOV_WL_MERGE_FES, {OnRoute, OnRoute, OnRoute, NULL}}};
    uint32_t hash = 1024;
    while (hash < g.o.high && hash < (1u << 22)) hash <<= 1;
    ASOrchBasePara base;
    memset(&base, 0, sizeof(base));
    base.threadMask = 3; /* Data and Sync */
    base.syncGrpMsgSet[SYNC_KIND] = 1;
    /* A standby names the broker too (a channel is required); its host keeps
     * the channels idle outside the MB role. */
    for (uint32_t p = 0; p < PATHS; ++p) base.chan[p].realServerPort = (uint32_t)(g.o.broker != 0 ? g.o.broker + p : 1);
    base.recvTblMsgList[0] = (ASOrchTblMsgList){(void *)recv, sizeof(recv) / sizeof(recv[0])};
    base.transTblMsgList[0] = (ASOrchTblMsgList){&trans[0], 1};
    base.transTblMsgList[1] = (ASOrchTblMsgList){&trans[1], 1};
    base.damMerge = (ASOrchMergePara){damTbl, 1, hash, HashDam, (uint32_t)g.o.high, (uint32_t)g.o.low};
    base.fesMerge = (ASOrchMergePara){fesTbl, 1, hash, HashFes, (uint32_t)g.o.high, (uint32_t)g.o.low};
    return ASOrchRegBase(hdl, &base);
}

typedef struct Instance {
    int32_t epFd, timerFd;
} Instance;

/* Creates, registers and starts the instance of the role; 0 on success. */
static int BringUp(int active, Instance *in) {
    QovHostSetRoleMb(active ? 1u : 0u);
    ASOrchCreatePara cp = {0, 0, QovPoolAlloc, QovPoolFree, 0};
    g.hdl = ASOrchCreate("orchNode", &cp);
    if (g.hdl == NULL || Register(g.hdl) != 0 || ASOrchInit(g.hdl) != 0) return 1;
    void *eal = ASOrchGetEalHdl(g.hdl);
    uint32_t rc = 0;
    if (active) {
        static const uint32_t paths[PATHS] = {0, 1}; /* each channel's context: its path */
        for (uint32_t p = 0; p < PATHS; ++p) rc |= QovHostChanSetRecv(eal, p, OnFrame, (void *)&paths[p]);
        uint16_t port = g.o.listenPort;
        rc |= QovHostSyncListenAddr(eal, SYNC_GRP_ID, g.o.listenAddr, &port);
        char addr[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &g.o.listenAddr, addr, sizeof(addr));
        if (rc == 0) Say("active: broker on port %" PRIu64 ", a standby may link to %s:%u", g.o.broker, addr, port);
    } else {
        rc |= QovHostSyncSetRecv(eal, SYNC_GRP_ID, OnSync, NULL);
        rc |= QovHostSyncConnectAddr(eal, SYNC_GRP_ID, g.o.peerAddr, g.o.peerPort);
    }
    g.forward = active;
    g.needCatchUp = active;
    g.catching = 0;
    g.activeSinceUs = QovBrokerNowUs();
    if (rc != 0 || ASOrchStart(g.hdl) != 0) return 1;
    in->epFd = ASOrchGetEpollFd(g.hdl, 0);
    in->timerFd = QOV_TIMER_Create(TICK_MS, (uint64_t)(uintptr_t)OnTick, 0, in->epFd);
    return in->timerFd < 0;
}

/* Stops everything that feeds the handle, then destroys it; the table stays. */
static void TearDown(int active, Instance *in) {
    if (g.hdl == NULL) return;
    void *eal = ASOrchGetEalHdl(g.hdl);
    if (in->timerFd >= 0) QovHostTimerCancel(in->epFd, in->timerFd);
    in->timerFd = -1;
    if (active) {
        for (uint32_t p = 0; p < PATHS; ++p) QovHostChanSetRecv(eal, p, NULL, NULL);
    } else {
        QovHostSyncSetRecv(eal, SYNC_GRP_ID, NULL, NULL);
    }
    ASOrchDestroy(g.hdl);
    g.hdl = NULL;
}

/* ---- Options ---- */

static int AddrPort(const char *s, uint32_t *addr, uint16_t *port) {
    char host[64];
    const char *colon = strrchr(s, ':');
    if (colon == NULL || (size_t)(colon - s) >= sizeof(host)) return 1;
    memcpy(host, s, (size_t)(colon - s));
    host[colon - s] = '\0';
    char *end = NULL;
    unsigned long v = strtoul(colon + 1, &end, 10);
    if (inet_pton(AF_INET, host, addr) != 1 || end == colon + 1 || *end != '\0' || v > 65535) return 1;
    *port = (uint16_t)v;
    return 0;
}

static int ParseOptions(int argc, char **argv, Options *o) {
    *o = (Options){"node", NULL, "orch_node.log", -1, 0, 100000, 1500, 20000, 5000, 0, 0, 0,
                   htonl(INADDR_LOOPBACK), 0, 0, 0};
    const struct {
        const char *name;
        uint64_t *value, lo, hi;
    } nums[] = {
        {"--broker", &o->broker, 1, 65534},          {"--keys", &o->keys, 4, 1u << 24},
        {"--handler-ns", &o->handlerNs, 0, 100000000}, {"--high", &o->high, 2, 1u << 26},
        {"--low", &o->low, 1, 1u << 26},             {"--crash-in-resync", &o->crashRows, 1, UINT32_MAX},
        {"--drop-sync-frame", &o->dropFrame, 1, UINT64_MAX},
    };
    for (int i = 1; i < argc; ++i) {
        const char *arg = argv[i], *val = i + 1 < argc ? argv[i + 1] : NULL;
        if (strcmp(arg, "--help") == 0) {
            fputs(g_usage, stdout);
            exit(0);
        }
        if (strcmp(arg, "--skip-sweep") == 0) {
            o->skipSweep = 1;
            continue;
        }
        int bad = val == NULL;
        if (!bad && strcmp(arg, "--role") == 0) {
            o->active = strcmp(val, "active") == 0 ? 1 : strcmp(val, "standby") == 0 ? 0 : -2;
        } else if (!bad && (strcmp(arg, "--name") == 0 || strcmp(arg, "--table") == 0 || strcmp(arg, "--log") == 0)) {
            *(arg[2] == 'n' ? &o->name : arg[2] == 't' ? &o->table : &o->log) = val;
        } else if (!bad && strcmp(arg, "--listen") == 0) {
            bad = AddrPort(val, &o->listenAddr, &o->listenPort);
        } else if (!bad && strcmp(arg, "--peer") == 0) {
            bad = AddrPort(val, &o->peerAddr, &o->peerPort);
        } else {
            size_t k = 0, n = sizeof(nums) / sizeof(nums[0]);
            while (k < n && strcmp(arg, nums[k].name) != 0) ++k;
            char *end = NULL;
            errno = 0;
            unsigned long long v = (k < n && val != NULL) ? strtoull(val, &end, 10) : 0;
            bad = k == n || end == NULL || errno != 0 || *end != '\0' || v < nums[k].lo || v > nums[k].hi;
            if (!bad) *nums[k].value = v;
        }
        if (bad) {
            fprintf(stderr, "orch_node: bad option or value at '%s'\n%s", arg, g_usage);
            return 1;
        }
        ++i;
    }
    if (o->active < 0 || o->table == NULL || (o->active && o->broker == 0) || (!o->active && o->peerPort == 0) ||
        o->low >= o->high) {
        fprintf(stderr, "orch_node: --role, --table, --broker (active) or --peer (standby) missing, or --low not "
                        "below --high\n%s", g_usage);
        return 1;
    }
    return 0;
}

static void OnSignal(int sig) {
    if (sig == SIGUSR1) g_takeOver = 1;
    else g_term = 1;
}

static void Pause(void) {
    struct timespec t = {0, 5L * 1000 * 1000};
    nanosleep(&t, NULL);
}

/* Percentile of the latency buckets, as the bucket's lower bound in us. */
static uint64_t Percentile(double q) {
    uint64_t total = 0, seen = 0;
    for (unsigned b = 0; b < HIST; ++b) total += g.hist[b];
    for (unsigned b = 0; b < HIST; ++b) {
        seen += g.hist[b];
        if (total != 0 && (double)seen >= q * (double)total) return HistValue(b);
    }
    return 0;
}

int main(int argc, char **argv) {
    if (ParseOptions(argc, argv, &g.o) != 0) return 2;
    setvbuf(stdout, NULL, _IOLBF, 0);
    if (strcmp(g.o.log, "-") != 0 && freopen(g.o.log, "a", stderr) == NULL) {
        printf("orch_node: cannot write the log file %s\n", g.o.log);
        return 1;
    }
    /* A standby starts empty and is caught up by its active peer; an active
     * node finds the table as its predecessor left it. */
    g.seen = calloc(g.o.keys, sizeof(uint32_t));
    if (g.seen == NULL || QovTableOpen(&g.tbl, g.o.table, (uint32_t)g.o.keys, !g.o.active) != 0) return 1;
    QovTableHdr *h = g.tbl.hdr;
    h->starts++;
    h->highWater = (uint32_t)g.o.high;
    h->endSeen = 0;
    memset(h->peakDepth, 0, sizeof(h->peakDepth));
    uint32_t present = 0;
    for (uint32_t k = 0; k < g.o.keys; ++k) present += QovTablePresent(&g.tbl.row[k]);
    Say("%s, table %s holds %u present keys", g.o.active ? "active" : "standby", g.o.table, present);

    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = OnSignal;
    sigaction(SIGUSR1, &sa, NULL);
    sigaction(SIGTERM, &sa, NULL);

    int active = g.o.active, rc = 0;
    Instance in = {-1, -1};
    if (BringUp(active, &in) != 0) {
        Say("could not bring the %s instance up (the log lines in %s say why)", active ? "active" : "standby", g.o.log);
        TearDown(active, &in);
        rc = 1;
    }
    while (rc == 0) {
        Pause();
        if (!active && g_takeOver) {
            if (g.o.broker == 0) {
                Say("cannot take over: no --broker given");
                rc = 1;
                break;
            }
            /* What arrived from the active peer is handled first: the link is
             * down, so the queues only drain. */
            for (int i = 0; i < 400 && !atomic_load(&g.quiet); ++i) Pause();
            Say("taking over: the standby instance goes, the table stays, the active instance comes");
            TearDown(0, &in);
            active = 1;
            h->takeovers++;
            if (BringUp(1, &in) != 0) {
                Say("could not bring the active instance up");
                rc = 1;
            }
            continue;
        }
        if (active && atomic_load(&g.done)) break;
        if (!active && g_term && atomic_load(&g.quiet)) break;
    }
    TearDown(active, &in);
    h->endSeen = atomic_load(&g.done) != 0;
    h->peakBytes = QovPoolPeakBytes();
    h->latP50Us = Percentile(0.50);
    h->latP99Us = Percentile(0.99);
    h->active = (uint32_t)active;
    Say("done: peak queue depth DAM %u FES %u (high water %u), %.1f MiB peak through memAlloc, %s to handler "
        "p50 %" PRIu64 " us p99 %" PRIu64 " us; sync frames sent %" PRIu64 " (failed %" PRIu64 ", catch-ups %" PRIu64
        "), received %" PRIu64 " (bad %" PRIu64 ")",
        h->peakDepth[0], h->peakDepth[1], h->highWater, (double)h->peakBytes / 1048576.0,
        active ? "broker" : "active peer's handler", h->latP50Us, h->latP99Us,
        h->syncFramesSent, h->syncSendFails, h->catchUps, h->syncFramesRecv, h->syncFramesBad);
    QovTableClose(&g.tbl);
    (void)QovPoolRelease();
    free(g.seen);
    return rc;
}
