/* orch_failover: runs the restart and the switchover scenario over real
 * processes (qov_broker --resync and orch_node, from the directory of this
 * program) and checks the outcome against the broker's final table.
 *
 * restart: an active node is SIGKILLed in the middle of the stream and started
 * again on its table file after a while; the broker goes on changing its table
 * meanwhile and resynchronises the node when it is back. With --interrupt the
 * restarted node kills itself in the middle of that resync and is started a
 * third time.
 * switchover: an active node and a standby linked by their sync group; the
 * active one is SIGKILLed, the standby takes over (SIGUSR1) and the broker
 * resynchronises it; a new standby joins the new active one and catches up.
 *
 * The check: every key holds the broker's last value and operation (a key the
 * broker deleted is absent), the keys the broker deleted since the kill are
 * gone, no key was removed that the broker still has; each merge queue's
 * peak stayed within its high water plus one frame; for a switchover, the
 * last standby holds the same table as the active node. */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <errno.h>
#include <inttypes.h>
#include <limits.h>
#include <netinet/in.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdatomic.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "qov_broker.h"
#include "qov_table_file.h"

static const char g_usage[] =
    "usage: orch_failover --scenario restart|switchover [options]\n"
    "  --keys N             route keys (default 100000)\n"
    "  --rate N             broker messages per second outside the flood (default 4000)\n"
    "  --duration MS        the broker's stream from the first connection (default 6000)\n"
    "  --flood MS           last part of it sent as fast as possible (default 2500)\n"
    "  --kill-at MS         when the active node is killed (default 1500)\n"
    "  --down MS            restart: how long the node stays down (default 500)\n"
    "  --interrupt          restart: the restarted node is killed again in the middle of its resync\n"
    "  --handler-ns N       handler cost of the nodes (default 1500)\n"
    "  --standby-handler-ns N  of the last standby (default: as --handler-ns)\n"
    "  --high N / --low N   merge queue water marks (default 20000 / 5000)\n"
    "  --sync-addr ADDR     address the active node's sync link listens on (default 127.0.0.1;\n"
    "                       127.0.0.2 puts the pair on two addresses)\n"
    "  --fault skip-sweep|drop-sync-frame  a fault the check must catch: the resync keeps\n"
    "                       stale keys / the last standby drops its 100th sync frame\n"
    "  --seed N             workload seed (default 1)\n"
    "  --csv FILE           time series every 100 ms: the active and the standby node's queues\n"
    "                       and deliveries, the kill and the restart or takeover marked\n"
    "                       (tools/plot_failover.sh makes a PNG of it)\n"
    "  --dir DIR            table files and logs (default failover-<scenario>)\n";

typedef struct Opts {
    const char *scenario, *dir, *fault, *syncAddr, *csv;
    uint64_t keys, rate, duration, flood, killAt, down, handlerNs, standbyNs, high, low, seed;
    int interrupt;
} Opts;

static Opts g_o;
static char g_bin[PATH_MAX];
static pid_t g_kids[8];
static int g_nkids;

static void Say(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
#include <stdarg.h>
static void Say(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    printf("[failover] ");
    vprintf(fmt, ap);
    printf("\n");
    va_end(ap);
}

static void Sleep(uint64_t ms) {
    struct timespec t = {(time_t)(ms / 1000), (long)(ms % 1000) * 1000000L};
    while (nanosleep(&t, &t) != 0 && errno == EINTR) {
    }
}

/* A loopback port whose successor is free too (the broker takes both). */
static uint16_t FreePorts(int two) {
    for (int attempt = 0; attempt < 50; ++attempt) {
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        struct sockaddr_in a = {.sin_family = AF_INET, .sin_addr.s_addr = htonl(INADDR_LOOPBACK)};
        socklen_t n = sizeof(a);
        if (fd < 0 || bind(fd, (struct sockaddr *)&a, sizeof(a)) != 0 || getsockname(fd, (struct sockaddr *)&a, &n)) {
            if (fd >= 0) close(fd);
            continue;
        }
        uint16_t port = ntohs(a.sin_port);
        int fd2 = -1, ok = 1;
        if (two) {
            fd2 = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            a.sin_port = htons((uint16_t)(port + 1));
            ok = port < 65534 && fd2 >= 0 && bind(fd2, (struct sockaddr *)&a, sizeof(a)) == 0;
        }
        close(fd);
        if (fd2 >= 0) close(fd2);
        if (ok) return port;
    }
    return 0;
}

static pid_t Spawn(const char *prog, char *const args[]) {
    char path[PATH_MAX + 32];
    snprintf(path, sizeof(path), "%s/%s", g_bin, prog);
    char *argv[48];
    int n = 0;
    argv[n++] = path;
    for (int i = 0; args[i] != NULL && n < 47; ++i) argv[n++] = args[i];
    argv[n] = NULL;
    fflush(stdout);
    pid_t pid = fork();
    if (pid == 0) {
        execv(path, argv);
        perror(path);
        _exit(127);
    }
    if (pid > 0 && g_nkids < 8) g_kids[g_nkids++] = pid;
    return pid;
}

/* Waits for pid up to ms; its wait status, or -1 on time-out. */
/* NOLINTNEXTLINE(bugprone-easily-swappable-parameters): a child and its time-out, a pid is never a time */
static int WaitFor(pid_t pid, uint64_t ms) {
    for (uint64_t waited = 0;; waited += 10) {
        int st = 0;
        pid_t r = waitpid(pid, &st, WNOHANG);
        if (r == pid) {
            for (int i = 0; i < g_nkids; ++i)
                if (g_kids[i] == pid) g_kids[i] = 0;
            return st;
        }
        if (r < 0 || waited >= ms) return -1;
        Sleep(10);
    }
}

static void KillAll(void) {
    for (int i = 0; i < g_nkids; ++i)
        if (g_kids[i] > 0) {
            kill(g_kids[i], SIGKILL);
            waitpid(g_kids[i], NULL, 0);
        }
}

static const char *Num(uint64_t v) {
    static char pool[32][24];
    static int next;
    char *s = pool[next++ % 32];
    snprintf(s, sizeof(pool[0]), "%" PRIu64, v);
    return s;
}

static const char *Path(const char *file) {
    static char pool[8][PATH_MAX];
    static int next;
    char *s = pool[next++ % 8];
    snprintf(s, PATH_MAX, "%s/%s", g_o.dir, file);
    return s;
}

/* A node to start: name (its files), role, and its ports. */
typedef struct NodeSpec {
    const char *name, *role; /* "active" or "standby" */
    uint16_t broker, listen, peer; /* listen: its sync listener once active; peer: the active one's */
    uint64_t handlerNs, crashRows;
    const char *fault;
} NodeSpec;

static pid_t Node(NodeSpec n) {
    char table[32], log[32], lis[64], per[64];
    snprintf(table, sizeof(table), "%s.tbl", n.name);
    snprintf(log, sizeof(log), "%s.log", n.name);
    snprintf(lis, sizeof(lis), "%s:%u", g_o.syncAddr, n.listen);
    snprintf(per, sizeof(per), "%s:%u", g_o.syncAddr, n.peer);
    char *args[40];
    int k = 0;
    const char *fixed[] = {"--name", n.name, "--role", n.role, "--table", Path(table), "--log", Path(log), "--keys",
                           Num(g_o.keys), "--handler-ns", Num(n.handlerNs), "--high", Num(g_o.high), "--low",
                           Num(g_o.low), "--broker", Num(n.broker), "--listen", lis};
    for (size_t i = 0; i < sizeof(fixed) / sizeof(fixed[0]); ++i) args[k++] = (char *)fixed[i];
    if (n.peer != 0) args[k++] = "--peer", args[k++] = per;
    if (n.crashRows != 0) args[k++] = "--crash-in-resync", args[k++] = (char *)Num(n.crashRows);
    if (n.fault != NULL && strcmp(n.fault, "skip-sweep") == 0) args[k++] = "--skip-sweep";
    if (n.fault != NULL && strcmp(n.fault, "drop-sync-frame") == 0) args[k++] = "--drop-sync-frame", args[k++] = "100";
    args[k] = NULL;
    return Spawn("orch_node", args);
}

static pid_t Broker(uint16_t port) {
    char *args[] = {"--resync", "--port", (char *)Num(port), "--keys", (char *)Num(g_o.keys), "--rate",
                    (char *)Num(g_o.rate), "--duration", (char *)Num(g_o.duration), "--flood", (char *)Num(g_o.flood),
                    "--seed", (char *)Num(g_o.seed), "--accept", "20000", "--dump", (char *)Path("broker.tbl"), NULL};
    return Spawn("qov_broker", args);
}

/* ---- The check ---- */

typedef struct Tables {
    QovTableFile broker, node;
} Tables;

/* Compares a node's final table with the broker's; 0 when it follows it. */
static int CheckTable(const char *name, const QovTableFile *b, const QovTableFile *t, const uint8_t *hadAtKill) {
    uint64_t wrongValue = 0, notDeleted = 0, removed = 0, goneSinceKill = 0, staleLeft = 0;
    for (uint32_t k = 0; k < g_o.keys; ++k) {
        int bp = QovTablePresent(&b->row[k]), tp = QovTablePresent(&t->row[k]);
        if (bp && tp && b->row[k].seq != t->row[k].seq) ++wrongValue;
        if (!bp && tp) ++notDeleted;
        if (bp && !tp) ++removed;
        if (hadAtKill != NULL && hadAtKill[k] && !bp) {
            ++goneSinceKill;
            staleLeft += tp;
        }
    }
    int bad = wrongValue + notDeleted + removed != 0;
    if (!bad)
        printf("check: passed, all %" PRIu64 " keys of %s hold the broker's last value and operation; the %" PRIu64
               " keys it had at the kill that the broker deleted since are gone; no key removed that the broker "
               "still has\n",
               g_o.keys, name, goneSinceKill);
    else
        printf("check: FAILED, %s: %" PRIu64 " keys with another value, %" PRIu64 " keys the broker deleted still "
               "there (%" PRIu64 " of them deleted since the kill), %" PRIu64 " keys removed that the broker has\n",
               name, wrongValue, notDeleted, staleLeft, removed);
    return bad;
}

static int CheckMemory(const char *name, const QovTableHdr *h) {
    /* Back-pressure stops the source after the frame being handled: up to 32
     * entries from the broker, 63 from an active peer. */
    uint32_t bound = h->highWater + 64u;
    int bad = h->peakDepth[0] > bound || h->peakDepth[1] > bound;
    printf("memory %s: %s, peak queue depth DAM %u FES %u against high water %u (plus one frame), %.1f MiB peak "
           "through memAlloc\n",
           name, bad ? "FAILED" : "passed", h->peakDepth[0], h->peakDepth[1], h->highWater,
           (double)h->peakBytes / 1048576.0);
    return bad;
}

static void Figures(const char *name, const QovTableHdr *h) {
    for (int p = 0; p < 2; ++p)
        printf("figures %s %s: last resync %u rows re-sent, %u changed the table, %u stale keys removed, %.1f ms from "
               "the connection to the end of the resync\n",
               name, p ? "FES" : "DAM", h->resync[p].rows, h->resync[p].changed, h->resync[p].stale,
               (double)h->resync[p].connectToEndUs / 1e3);
    printf("figures %s: %s to handler p50 %" PRIu64 " us p99 %" PRIu64 " us; sync frames sent %" PRIu64
           " (failed %" PRIu64 ", catch-ups %" PRIu64 "), received %" PRIu64 " (bad %" PRIu64 ")\n",
           name, h->active ? "broker" : "active peer's handler", h->latP50Us, h->latP99Us, h->syncFramesSent, h->syncSendFails, h->catchUps, h->syncFramesRecv,
           h->syncFramesBad);
}

static int Open(QovTableFile *t, const char *file) {
    struct stat st;
    if (stat(Path(file), &st) != 0 || QovTableOpen(t, Path(file), (uint32_t)g_o.keys, 0) != 0) {
        printf("check: FAILED, no table %s\n", Path(file));
        return 1;
    }
    return 0;
}

/* ---- Time series ----
 * A thread reads the live figures of the active and the standby node from
 * their table files' headers every 100 ms; the scenario names the nodes and
 * marks its events (bit 0 a kill, bit 1 a restart or a takeover). */

static _Atomic int g_active = 'A', g_standby = 0, g_event, g_stopSampling;

/* nodes: the active node's letter, then the standby's, if any ("A", "BC"). */
static void Mark(int event, const char *nodes) {
    atomic_store(&g_active, nodes[0]);
    atomic_store(&g_standby, nodes[1]);
    atomic_fetch_or(&g_event, event);
}

/* The live header of a node's table, zero when there is none yet. */
static QovTableHdr Live(int node) {
    QovTableHdr h;
    memset(&h, 0, sizeof(h));
    char file[8] = {(char)node, '.', 't', 'b', 'l', '\0'};
    int fd = node != 0 ? open(Path(file), O_RDONLY | O_CLOEXEC) : -1;
    if (fd >= 0 && pread(fd, &h, sizeof(h), 0) != (ssize_t)sizeof(h)) memset(&h, 0, sizeof(h));
    if (fd >= 0) close(fd);
    return h;
}

static void *Sample(void *arg) {
    FILE *csv = arg;
    fprintf(csv, "t_s,dam_depth,fes_depth,high_water,delivered_s,standby_dam_depth,standby_fes_depth,"
                 "standby_delivered_s,event\n");
    uint64_t t0 = QovBrokerNowUs(), last[2] = {0, 0};
    int lastNode[2] = {0, 0};
    for (uint64_t tick = 1; !atomic_load(&g_stopSampling); ++tick) {
        Sleep(100);
        int node[2] = {atomic_load(&g_active), atomic_load(&g_standby)};
        QovTableHdr h[2] = {Live(node[0]), Live(node[1])};
        uint64_t rate[2];
        for (int i = 0; i < 2; ++i) {
            if (node[i] != lastNode[i]) last[i] = h[i].delivered;
            rate[i] = h[i].delivered >= last[i] ? (h[i].delivered - last[i]) * 10 : 0;
            last[i] = h[i].delivered, lastNode[i] = node[i];
        }
        fprintf(csv, "%.1f,%u,%u,%u,%" PRIu64 ",%u,%u,%" PRIu64 ",%d\n", (double)(QovBrokerNowUs() - t0) / 1e6,
                h[0].depthNow[0], h[0].depthNow[1], (unsigned)g_o.high, rate[0], h[1].depthNow[0], h[1].depthNow[1],
                rate[1], atomic_exchange(&g_event, 0));
        (void)tick;
    }
    return NULL;
}

/* ---- Scenarios ---- */

static int Ended(const char *what, int st) {
    if (st != -1 && WIFEXITED(st) && WEXITSTATUS(st) == 0) return 0;
    printf("check: FAILED, %s did not end cleanly (%s %d)\n", what, st == -1 ? "time-out" : "status", st);
    return 1;
}

static int Restart(uint16_t port, uint8_t *hadAtKill) {
    pid_t broker = Broker(port);
    pid_t a = Node((NodeSpec){"A", "active", port, 0, 0, g_o.handlerNs, 0, NULL});
    Sleep(g_o.killAt);
    kill(a, SIGKILL);
    WaitFor(a, 5000);
    Mark(1, "A");
    Say("A killed at %" PRIu64 " ms; down for %" PRIu64 " ms while the broker goes on", g_o.killAt, g_o.down);
    QovTableFile t;
    if (Open(&t, "A.tbl") != 0) return 1;
    for (uint32_t k = 0; k < g_o.keys; ++k) hadAtKill[k] = (uint8_t)QovTablePresent(&t.row[k]);
    QovTableClose(&t);
    Sleep(g_o.down);
    if (g_o.interrupt) {
        a = Node((NodeSpec){"A", "active", port, 0, 0, g_o.handlerNs, g_o.keys / 8 + 1, NULL});
        Mark(2, "A");
        int st = WaitFor(a, 20000);
        Mark(1, "A");
        if (st == -1 || !WIFSIGNALED(st) || WTERMSIG(st) != SIGKILL) {
            printf("check: FAILED, the restarted node was not killed in its resync\n");
            return 1;
        }
        Say("A killed again in the middle of its resync; started once more");
    }
    a = Node((NodeSpec){"A", "active", port, 0, 0, g_o.handlerNs, 0, g_o.fault});
    Mark(2, "A");
    int bad = Ended("the broker", WaitFor(broker, g_o.duration + 60000));
    bad |= Ended("node A", WaitFor(a, 30000));
    return bad;
}

static int Switchover(uint16_t port) {
    uint16_t s1 = FreePorts(0), s2 = FreePorts(0);
    pid_t broker = Broker(port);
    pid_t a = Node((NodeSpec){"A", "active", port, s1, 0, g_o.handlerNs, 0, NULL});
    pid_t b = Node((NodeSpec){"B", "standby", port, s2, s1, g_o.handlerNs, 0, NULL});
    Mark(0, "AB");
    Sleep(g_o.killAt);
    kill(a, SIGKILL);
    WaitFor(a, 5000);
    kill(b, SIGUSR1);
    Mark(1, "B");
    Say("A killed at %" PRIu64 " ms; B takes over, C joins B as its standby", g_o.killAt);
    pid_t c = Node((NodeSpec){"C", "standby", port, 0, s2, g_o.standbyNs, 0, g_o.fault});
    Mark(2, "BC");
    int bad = Ended("the broker", WaitFor(broker, g_o.duration + 60000));
    bad |= Ended("node B", WaitFor(b, 30000));
    kill(c, SIGTERM);
    bad |= Ended("node C", WaitFor(c, 30000));
    return bad;
}

static int ParseOptions(int argc, char **argv) {
    g_o = (Opts){NULL, NULL, NULL, "127.0.0.1", NULL, 100000, 4000, 6000, 2500, 1500, 500, 1500, UINT64_MAX, 20000, 5000,
                 1, 0};
    const struct {
        const char *name;
        uint64_t *v;
    } nums[] = {{"--keys", &g_o.keys},       {"--rate", &g_o.rate},     {"--duration", &g_o.duration},
                {"--flood", &g_o.flood},     {"--kill-at", &g_o.killAt}, {"--down", &g_o.down},
                {"--handler-ns", &g_o.handlerNs}, {"--standby-handler-ns", &g_o.standbyNs},
                {"--high", &g_o.high},       {"--low", &g_o.low},       {"--seed", &g_o.seed}};
    for (int i = 1; i < argc; ++i) {
        const char *a = argv[i], *v = i + 1 < argc ? argv[i + 1] : NULL;
        if (strcmp(a, "--help") == 0) {
            fputs(g_usage, stdout);
            exit(0);
        }
        if (strcmp(a, "--interrupt") == 0) {
            g_o.interrupt = 1;
            continue;
        }
        const char **str = strcmp(a, "--scenario") == 0 ? &g_o.scenario
                           : strcmp(a, "--dir") == 0    ? &g_o.dir
                           : strcmp(a, "--fault") == 0  ? &g_o.fault
                           : strcmp(a, "--sync-addr") == 0 ? &g_o.syncAddr
                           : strcmp(a, "--csv") == 0    ? &g_o.csv
                                                        : NULL;
        size_t k = 0, n = sizeof(nums) / sizeof(nums[0]);
        while (str == NULL && k < n && strcmp(a, nums[k].name) != 0) ++k;
        char *end = NULL;
        if (v == NULL || (str == NULL && k == n)) goto bad;
        if (str != NULL) *str = v;
        else if ((*nums[k].v = strtoull(v, &end, 10), *end != '\0')) goto bad;
        ++i;
        continue;
    bad:
        fprintf(stderr, "orch_failover: bad option or value at '%s'\n%s", a, g_usage);
        return 1;
    }
    int restart = g_o.scenario != NULL && strcmp(g_o.scenario, "restart") == 0;
    if (g_o.scenario == NULL || (!restart && strcmp(g_o.scenario, "switchover") != 0) || g_o.keys < 4 ||
        (g_o.fault != NULL && strcmp(g_o.fault, "skip-sweep") != 0 && strcmp(g_o.fault, "drop-sync-frame") != 0)) {
        fprintf(stderr, "orch_failover: --scenario restart|switchover, --keys at least 4, a known --fault\n%s", g_usage);
        return 1;
    }
    if (g_o.standbyNs == UINT64_MAX) g_o.standbyNs = g_o.handlerNs;
    return 0;
}

int main(int argc, char **argv) {
    if (ParseOptions(argc, argv) != 0) return 2;
    setvbuf(stdout, NULL, _IOLBF, 0);
    ssize_t n = readlink("/proc/self/exe", g_bin, sizeof(g_bin) - 1);
    if (n <= 0) return 1;
    g_bin[n] = '\0';
    *strrchr(g_bin, '/') = '\0';
    static char dir[PATH_MAX];
    if (g_o.dir == NULL) snprintf(dir, sizeof(dir), "failover-%s", g_o.scenario), g_o.dir = dir;
    mkdir(g_o.dir, 0755);
    const char *files[] = {"A.tbl", "B.tbl", "C.tbl", "broker.tbl", "A.log", "B.log", "C.log"};
    for (size_t i = 0; i < sizeof(files) / sizeof(files[0]); ++i) unlink(Path(files[i]));
    uint16_t port = FreePorts(1);
    uint8_t *hadAtKill = calloc(g_o.keys, 1);
    if (port == 0 || hadAtKill == NULL) return 1;
    Say("%s: %" PRIu64 " keys, broker on 127.0.0.1:%u and :%u, sync links on %s, files in %s", g_o.scenario, g_o.keys,
        port, port + 1, g_o.syncAddr, g_o.dir);
    int restart = strcmp(g_o.scenario, "restart") == 0;
    FILE *csv = g_o.csv != NULL ? fopen(g_o.csv, "w") : NULL;
    pthread_t sampler;
    int sampling = csv != NULL && pthread_create(&sampler, NULL, Sample, csv) == 0;
    if (g_o.csv != NULL && !sampling) printf("orch_failover: cannot write %s\n", g_o.csv);
    int bad = restart ? Restart(port, hadAtKill) : Switchover(port);
    atomic_store(&g_stopSampling, 1);
    if (sampling) pthread_join(sampler, NULL);
    if (csv != NULL) fclose(csv);
    KillAll();
    Tables t = {{0}, {0}};
    if (!bad) bad = Open(&t.broker, "broker.tbl") || Open(&t.node, restart ? "A.tbl" : "B.tbl");
    if (!bad) {
        const char *name = restart ? "A" : "B";
        Figures(name, t.node.hdr);
        bad |= CheckTable(restart ? "A after its restart" : "B after the switchover", &t.broker, &t.node,
                          restart ? hadAtKill : NULL);
        bad |= CheckMemory(name, t.node.hdr);
        if (!restart) {
            QovTableFile c = {0};
            bad |= Open(&c, "C.tbl");
            if (c.hdr != NULL) {
                Figures("C", c.hdr);
                bad |= CheckMemory("C", c.hdr);
                uint64_t differ = 0;
                for (uint32_t k = 0; k < g_o.keys; ++k)
                    differ += QovTablePresent(&c.row[k]) != QovTablePresent(&t.node.row[k]) ||
                              (QovTablePresent(&c.row[k]) && c.row[k].seq != t.node.row[k].seq);
                printf("mirror: %s, standby C %s active B's table (%" PRIu64 " of %" PRIu64 " keys differ)\n",
                       differ ? "FAILED" : "passed", differ ? "does not hold" : "holds", differ, g_o.keys);
                bad |= differ != 0;
                QovTableClose(&c);
            }
        }
    }
    QovTableClose(&t.broker);
    QovTableClose(&t.node);
    free(hadAtKill);
    return bad;
}
