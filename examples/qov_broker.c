/* qov_broker: the example broker as a program of its own. It listens on two
 * loopback ports (DAM and FES path), waits for the orchestrator's channel on
 * each, streams the route-table workload of each path on its own thread, and
 * reports what it sent and how long the orchestrator held it back. */
#include <errno.h>
#include <inttypes.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "qov_broker.h"
#include "qov_table_file.h"


static int g_resync;

/* Writes the final table (every key's last value and operation) for a check. */
static int Dump(const char *file, uint32_t keys, const uint32_t *seq, const uint8_t *lastOp) {
    QovTableFile t;
    if (QovTableOpen(&t, file, keys, 1) != 0) return 1;
    for (uint32_t k = 0; k < keys; ++k) t.row[k] = (QovTableRow){seq[k], lastOp[k], {0}};
    QovTableClose(&t);
    return 0;
}

static const char g_usage[] =
    "usage: qov_broker [options]\n"
    "  --port N        loopback TCP port of the DAM path, N+1 is the FES path's\n"
    "                  (default 47470; 0: any free ports)\n"
    "  --keys N        route keys in the table (default 100000, at least 4)\n"
    "  --rate N        messages per second in the steady phase, three quarters DAM, one\n"
    "                  quarter FES (default 20000, 0: unlimited)\n"
    "  --duration MS   steady plus flood phase after the initial fill (default 5000)\n"
    "  --flood MS      last part of the duration sent as fast as possible (default 1500)\n"
    "  --transfer N    route rows of the transfer message at the end (default 64, 0: none)\n"
    "  --entries N     end the stream after about N entries (default 0: the duration ends it)\n"
    "  --seed N        workload seed (default 1)\n"
    "  --accept MS     how long to wait for the orchestrator (default 30000)\n"
    "  --resync        serve orchestrators that go away and come back: the table goes\n"
    "                  on changing while none is connected, each connection starts\n"
    "                  with a resync of the path's table (no transfer message at the end)\n"
    "  --dump FILE     write the final table there (a table file, for a check)\n"
    "  --help          this text\n"
    "Receive messages carry up to 32 entries of 32 bytes (16-byte prefix key); a quarter\n"
    "of the keys go the FES way, the rest the DAM way; one message in five deletes.\n";

/* Parses the value of argv[*i] into *out within [lo, hi]; 1 on a bad value. */
static int Number(int argc, char **argv, int *i, uint64_t lo, uint64_t hi, uint64_t *out) {
    if (*i + 1 >= argc) return 1;
    char *end = NULL;
    errno = 0;
    unsigned long long v = strtoull(argv[++*i], &end, 10);
    if (errno != 0 || end == argv[*i] || *end != '\0' || v < lo || v > hi) return 1;
    *out = v;
    return 0;
}

int main(int argc, char **argv) {
    uint64_t port = 47470, keys = 100000, seed = 1, rate = 20000, duration = 5000, flood = 1500, rows = 64,
             accept = 30000, entries = 0;
    const char *dump = NULL;
    const struct {
        const char *name;
        uint64_t *value;
        uint64_t lo, hi;
    } opts[] = {
        {"--port", &port, 0, 65534},           {"--keys", &keys, 4, 1u << 26},
        {"--rate", &rate, 0, 100000000},       {"--duration", &duration, 0, 86400000},
        {"--flood", &flood, 0, 86400000},      {"--transfer", &rows, 0, 1024},
        {"--seed", &seed, 0, UINT64_MAX},      {"--accept", &accept, 0, 86400000},
        {"--entries", &entries, 0, UINT64_MAX},
    };
    for (int i = 1; i < argc; ++i) {
        const char *arg = argv[i];
        if (strcmp(argv[i], "--help") == 0) {
            fputs(g_usage, stdout);
            return 0;
        }
        if (strcmp(argv[i], "--resync") == 0) {
            g_resync = 1;
            continue;
        }
        if (strcmp(argv[i], "--dump") == 0 && i + 1 < argc) {
            dump = argv[++i];
            continue;
        }
        size_t k = 0;
        while (k < sizeof(opts) / sizeof(opts[0]) && strcmp(argv[i], opts[k].name) != 0) ++k;
        if (k == sizeof(opts) / sizeof(opts[0]) || Number(argc, argv, &i, opts[k].lo, opts[k].hi, opts[k].value)) {
            fprintf(stderr, "qov_broker: bad option or value at '%s'\n%s", arg, g_usage);
            return 2;
        }
    }

    uint32_t *seq = calloc(keys, sizeof(*seq));
    uint8_t *lastOp = calloc(keys, 1);
    QovBrokerPath paths[2];
    int ok = seq != NULL && lastOp != NULL;
    for (uint32_t fes = 0; fes < 2; ++fes) {
        QovBrokerPath *p = &paths[fes];
        memset(p, 0, sizeof(*p));
        p->port = port == 0 ? 0 : (uint16_t)(port + fes);
        p->fd = ok ? QovBrokerListen(&p->port) : -1;
        ok = ok && p->fd >= 0;
        p->para = (QovBrokerPara){(uint32_t)(fes ? rate / 4 : rate - rate / 4), (uint32_t)duration, (uint32_t)flood,
                                  (uint32_t)rows, (uint32_t)accept, fes ? entries / 4 : entries - entries / 4};
        p->resync = g_resync;
        if (ok) QovWlInit(&p->wl, (uint32_t)keys, seed, fes, seq, lastOp);
    }
    if (ok) {
        printf("qov_broker: listening on 127.0.0.1:%u (DAM) and 127.0.0.1:%u (FES), %" PRIu64 " keys, seed %" PRIu64 "\n",
               paths[0].port, paths[1].port, keys, seed);
        fflush(stdout);
    }
    int started = 0;
    for (; ok && started < 2; ++started) ok = QovBrokerPathStart(&paths[started]) == 0;
    int rc = ok ? 0 : 1;
    for (int i = 0; i < started; ++i) {
        pthread_join(paths[i].thread, NULL);
        const QovBrokerPath *p = &paths[i];
        double secs = (double)atomic_load(&p->stats.streamUs) / 1e6 + 1e-9;
        printf("qov_broker: %s %s; %" PRIu64 " messages, %" PRIu64 " entries, %.1f MB in %.2f s (%.0f msg/s, "
               "%.0f entries/s), held back by the orchestrator %.2f s; final table digest %016" PRIx64 "\n",
               i ? "FES" : "DAM", p->rc == 0 ? "stream complete" : "stream cut short", p->wl.msgs, p->wl.entries,
               (double)atomic_load(&p->stats.bytes) / 1e6, secs, (double)p->wl.msgs / secs,
               (double)p->wl.entries / secs, (double)atomic_load(&p->stats.blockedUs) / 1e6,
               QovWlDigest(p->wl.keys, (uint32_t)i, seq, lastOp));
        rc |= p->rc;
    }
    if (ok && dump != NULL) rc |= Dump(dump, (uint32_t)keys, seq, lastOp);
    for (int i = 0; i < 2; ++i)
        if (paths[i].fd >= 0) close(paths[i].fd);
    free(seq);
    free(lastOp);
    return rc;
}
