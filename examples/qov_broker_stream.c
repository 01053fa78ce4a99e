/* The example broker's stream: framing with the host's encoder, pacing, and
 * waiting (and counting the wait) when the orchestrator presses back. */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "qov_broker.h"
#include "qov_host_api.h"

#define OUT_BUF_SIZE ((size_t)256 * 1024)
#define TRANSFER_ROWS_MAX 1024u

typedef struct Stream {
    int fd;
    uint8_t out[OUT_BUF_SIZE];
    size_t used;
    QovBrokerStats *stats;
    _Atomic int *stop;
} Stream;

uint64_t QovBrokerNowUs(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (uint64_t)ts.tv_sec * 1000000u + (uint64_t)ts.tv_nsec / 1000u;
}

int QovBrokerListen(uint16_t *port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        perror("broker: socket");
        return -1;
    }
    int one = 1;
    struct sockaddr_in addr = {.sin_family = AF_INET, .sin_port = htons(*port)};
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one)) != 0 ||
        bind(fd, (struct sockaddr *)&addr, sizeof(addr)) != 0 || listen(fd, 1) != 0 ||
        getsockname(fd, (struct sockaddr *)&addr, &len) != 0) {
        fprintf(stderr, "broker: cannot listen on 127.0.0.1:%u: %s\n", *port, strerror(errno));
        close(fd);
        return -1;
    }
    *port = ntohs(addr.sin_port);
    return fd;
}

/* Each burst goes out in one send. Without TCP_NODELAY the burst's last
 * segment, smaller than a full one, waits until the orchestrator has
 * acknowledged the previous data, and its delayed ACK can hold that for up to
 * 40 ms: the paced stream's p99 latency would be the ACK timer's. */
static void NoDelay(int fd) {
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
}

static int Stopped(const Stream *s) { return s->stop != NULL && atomic_load(s->stop) != 0; }

/* Sends everything buffered; waits while the socket is full (the
 * orchestrator's back-pressure reaching us through TCP) and counts the wait. */
static int Flush(Stream *s) {
    size_t off = 0;
    while (off < s->used) {
        ssize_t n = send(s->fd, s->out + off, s->used - off, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            off += (size_t)n;
            continue;
        }
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) return 1;
        atomic_store(&s->stats->blocked, 1);
        uint64_t t0 = QovBrokerNowUs();
        struct pollfd p = {.fd = s->fd, .events = POLLOUT};
        int r = poll(&p, 1, 100);
        atomic_fetch_add(&s->stats->blockedUs, QovBrokerNowUs() - t0);
        atomic_store(&s->stats->blocked, 0);
        if ((r > 0 && (p.revents & (POLLERR | POLLHUP)) != 0) || Stopped(s)) return 1;
    }
    atomic_fetch_add(&s->stats->bytes, s->used);
    s->used = 0;
    return 0;
}

static int Put(Stream *s, uint32_t msgId, const void *body, uint32_t len) {
    if (OUT_BUF_SIZE - s->used < QOV_HOST_FRAME_HDR_LEN + (size_t)len && Flush(s) != 0) return 1;
    size_t n = QovHostFrameEncode(s->out + s->used, OUT_BUF_SIZE - s->used, msgId, body, len);
    if (n == 0) return 1;
    s->used += n;
    return 0;
}

static int PutNext(Stream *s, QovRouteWorkload *wl) {
    uint8_t body[QOV_WL_BODY_MAX];
    uint32_t len = 0;
    uint32_t msgId = QovWlNext(wl, body, &len, (uint32_t)QovBrokerNowUs());
    atomic_store(&s->stats->msgs, wl->msgs);
    atomic_store(&s->stats->entries, wl->entries);
    return Put(s, msgId, body, len);
}

/* Steady phase: a burst every millisecond at the given rate, so that a
 * message waits for at most a millisecond's worth of the ones before it (with
 * 10 ms bursts, the last of 30 messages of a burst waited for the handlers of
 * all 30, over a millisecond at the demo's rate whatever the consumer);
 * flood phase: no pause. */
/* NOLINTNEXTLINE(bugprone-easily-swappable-parameters): a limit in time and one in entries, named at the two calls */
static int StreamTimed(Stream *s, QovRouteWorkload *wl, uint32_t rate, uint64_t untilUs, uint64_t maxEntries) {
    uint64_t start = QovBrokerNowUs(), sent = 0;
    while (QovBrokerNowUs() < untilUs && (maxEntries == 0 || wl->entries < maxEntries)) {
        if (rate != 0) {
            uint64_t due = (QovBrokerNowUs() - start) * rate / 1000000u + rate / 1000u + 1u;
            if (sent >= due) {
                if (Flush(s) != 0) return 1;
                struct timespec pause = {0, 1000L * 1000};
                nanosleep(&pause, NULL);
                continue;
            }
        }
        if (PutNext(s, wl) != 0 || Stopped(s)) return 1;
        ++sent;
    }
    return Flush(s);
}

static int StreamAll(Stream *s, const QovBrokerPara *para, QovRouteWorkload *wl) {
    atomic_store(&s->stats->phase, QOV_BROKER_FILL);
    while (wl->fillNext < wl->keys) {
        if (PutNext(s, wl) != 0 || Stopped(s)) return 1;
    }
    uint64_t start = QovBrokerNowUs();
    uint32_t steadyMs = para->durationMs > para->floodMs ? para->durationMs - para->floodMs : 0;
    atomic_store(&s->stats->phase, QOV_BROKER_STEADY);
    if (StreamTimed(s, wl, para->rate, start + steadyMs * 1000ull, para->maxEntries) != 0) return 1;
    atomic_store(&s->stats->phase, QOV_BROKER_FLOOD);
    if (StreamTimed(s, wl, 0, start + para->durationMs * 1000ull, para->maxEntries) != 0) return 1;

    if (para->transferRows != 0 && !wl->fes) { /* the transfer table is the DAM path's */
        uint8_t body[24 + TRANSFER_ROWS_MAX * sizeof(QovRouteEntry) + 12 + 52];
        uint32_t rows = para->transferRows < TRANSFER_ROWS_MAX ? para->transferRows : TRANSFER_ROWS_MAX;
        if (Put(s, QOV_WL_MSG_TRANS, body, QovWlTransfer(body, rows, wl)) != 0) return 1;
    }
    uint64_t end[3] = {wl->msgs, wl->entries, QovWlDigest(wl->keys, wl->fes, wl->seq, wl->lastOp)};
    if (Put(s, QOV_WL_MSG_END, end, sizeof(end)) != 0) return 1;
    return Flush(s);
}

/* Waits for the orchestrator to close its side, reading and dropping what it sends. */
static void AwaitClose(int fd, _Atomic int *stop) {
    char sink[4096];
    for (int i = 0; i < 300 && (stop == NULL || atomic_load(stop) == 0); ++i) {
        struct pollfd p = {.fd = fd, .events = POLLIN};
        if (poll(&p, 1, 100) > 0 && recv(fd, sink, sizeof(sink), MSG_DONTWAIT) <= 0) return;
    }
}

int QovBrokerServe(int listenFd, const QovBrokerPara *para, QovRouteWorkload *wl, QovBrokerStats *stats,
                   _Atomic int *stop) {
    atomic_store(&stats->phase, QOV_BROKER_WAITING);
    int fd = -1;
    for (uint32_t waited = 0; fd < 0 && waited < para->acceptMs && (stop == NULL || atomic_load(stop) == 0);
         waited += 100) {
        struct pollfd p = {.fd = listenFd, .events = POLLIN};
        if (poll(&p, 1, 100) > 0) fd = accept4(listenFd, NULL, NULL, SOCK_CLOEXEC);
    }
    if (fd < 0) {
        fprintf(stderr, "broker: no orchestrator connected\n");
        return 1;
    }
    NoDelay(fd);
    Stream *s = malloc(sizeof(*s));
    if (s == NULL) {
        close(fd);
        return 1;
    }
    s->fd = fd;
    s->used = 0;
    s->stats = stats;
    s->stop = stop;
    uint64_t t0 = QovBrokerNowUs();
    int rc = StreamAll(s, para, wl);
    free(s);
    atomic_store(&stats->streamUs, QovBrokerNowUs() - t0);
    atomic_store(&stats->phase, QOV_BROKER_DONE);
    if (rc == 0) AwaitClose(fd, stop);
    close(fd);
    return rc;
}

/* ---- Serving orchestrators that restart ---- */

static int StreamOver(uint64_t startUs, const QovBrokerPara *para) {
    return startUs != 0 && QovBrokerNowUs() >= startUs + para->durationMs * 1000ull;
}

/* While no orchestrator is connected the table goes on changing: ms worth of
 * messages at the steady rate are built and applied, not sent. */
static void ChangeWhileAway(QovRouteWorkload *wl, uint32_t rate, uint32_t ms) {
    uint8_t body[QOV_WL_BODY_MAX];
    uint32_t len = 0, n = (rate != 0 ? rate : 10000u) * ms / 1000u;
    for (uint32_t i = 0; i < (n != 0 ? n : 1u); ++i) QovWlNext(wl, body, &len, (uint32_t)QovBrokerNowUs());
}

/* The resync of the path's table: begin, the present rows, end. */
static int SendResync(Stream *s, const QovRouteWorkload *wl, uint32_t *rows) {
    static _Thread_local uint8_t body[QOV_WL_RESYNC_BODY_MAX];
    *rows = 0;
    if (Put(s, QOV_WL_MSG_TRANS, body, QovWlResyncMark(body, wl->fes, 0)) != 0) return 1;
    for (uint32_t next = 0, n = 0; next < wl->keys; *rows += n)
        if (Put(s, QOV_WL_MSG_TRANS, body, QovWlResyncRows(body, wl, &next, &n, (uint32_t)QovBrokerNowUs())) != 0)
            return 1;
    if (Put(s, QOV_WL_MSG_TRANS, body, QovWlResyncMark(body, wl->fes, 1)) != 0) return 1;
    return Flush(s);
}

/* The live stream from where it stands: what is left of the initial fill,
 * then the steady and the flood phase, timed from the first connection. */
static int StreamLive(Stream *s, const QovBrokerPara *para, QovRouteWorkload *wl, uint64_t startUs) {
    atomic_store(&s->stats->phase, QOV_BROKER_FILL);
    while (wl->fillNext < wl->keys)
        if (PutNext(s, wl) != 0 || Stopped(s)) return 1;
    uint32_t steadyMs = para->durationMs > para->floodMs ? para->durationMs - para->floodMs : 0;
    atomic_store(&s->stats->phase, QOV_BROKER_STEADY);
    if (StreamTimed(s, wl, para->rate, startUs + steadyMs * 1000ull, para->maxEntries) != 0) return 1;
    atomic_store(&s->stats->phase, QOV_BROKER_FLOOD);
    return StreamTimed(s, wl, 0, startUs + para->durationMs * 1000ull, para->maxEntries);
}

/* Accepts the next orchestrator, changing the table while it waits; -1 after
 * acceptMs without one, or when stopped. */
static int AcceptChanging(int listenFd, const QovBrokerPara *para, QovRouteWorkload *wl, uint64_t startUs,
                          _Atomic int *stop) {
    uint64_t t0 = QovBrokerNowUs();
    while ((stop == NULL || atomic_load(stop) == 0) && QovBrokerNowUs() - t0 < para->acceptMs * 1000ull) {
        struct pollfd p = {.fd = listenFd, .events = POLLIN};
        if (poll(&p, 1, 10) > 0) {
            int fd = accept4(listenFd, NULL, NULL, SOCK_CLOEXEC);
            if (fd >= 0) NoDelay(fd);
            if (fd >= 0) return fd;
        }
        if (startUs != 0 && !StreamOver(startUs, para)) ChangeWhileAway(wl, para->rate, 10);
    }
    return -1;
}

int QovBrokerServeResync(int listenFd, const QovBrokerPara *para, QovRouteWorkload *wl, QovBrokerStats *stats,
                         _Atomic int *stop) {
    Stream *s = malloc(sizeof(*s));
    uint32_t *seqAt = calloc(wl->keys, sizeof(*seqAt)); /* the table when the connection dropped */
    uint8_t *opAt = calloc(wl->keys, 1);
    const char *path = wl->fes ? "FES" : "DAM";
    int rc = 1;
    uint64_t startUs = 0;
    for (uint32_t conn = 1; s != NULL && seqAt != NULL && opAt != NULL; ++conn) {
        atomic_store(&stats->phase, QOV_BROKER_WAITING);
        int fd = AcceptChanging(listenFd, para, wl, startUs, stop);
        if (fd < 0) {
            fprintf(stderr, "broker: %s: no orchestrator connected\n", path);
            break;
        }
        uint64_t t0 = QovBrokerNowUs();
        if (startUs == 0) startUs = t0;
        uint32_t deleted = 0, changed = 0, rows = 0;
        for (uint32_t k = 0; conn > 1 && k < wl->keys; ++k) {
            if ((uint32_t)QovWlIsFes(k) != wl->fes || opAt[k] != QOV_WL_SET) continue;
            deleted += wl->lastOp[k] != QOV_WL_SET;
            changed += wl->lastOp[k] == QOV_WL_SET && wl->seq[k] != seqAt[k];
        }
        s->fd = fd;
        s->used = 0;
        s->stats = stats;
        s->stop = stop;
        int lost = SendResync(s, wl, &rows);
        printf("broker: %s connection %u: resync of %u rows sent in %.1f ms; while the orchestrator was away %u of "
               "its keys were deleted and %u changed\n",
               path, conn, rows, (double)(QovBrokerNowUs() - t0) / 1e3, deleted, changed);
        fflush(stdout);
        lost = lost || StreamLive(s, para, wl, startUs);
        if (!lost) {
            uint64_t end[3] = {wl->msgs, wl->entries, QovWlDigest(wl->keys, wl->fes, wl->seq, wl->lastOp)};
            lost = Put(s, QOV_WL_MSG_END, end, sizeof(end)) != 0 || Flush(s) != 0;
        }
        if (!lost) {
            atomic_store(&stats->phase, QOV_BROKER_DONE);
            atomic_store(&stats->streamUs, QovBrokerNowUs() - startUs);
            AwaitClose(fd, stop);
            close(fd);
            rc = 0;
            break;
        }
        close(fd);
        for (uint32_t k = 0; k < wl->keys; ++k) { /* this path's keys: the other path's thread writes its own */
            if ((uint32_t)QovWlIsFes(k) != wl->fes) continue;
            seqAt[k] = wl->seq[k];
            opAt[k] = wl->lastOp[k];
        }
        if (Stopped(s)) break;
        printf("broker: %s connection %u lost; the table goes on changing\n", path, conn);
        fflush(stdout);
    }
    free(s);
    free(seqAt);
    free(opAt);
    return rc;
}

static void *ServePath(void *arg) {
    QovBrokerPath *p = arg;
    p->rc = (p->resync ? QovBrokerServeResync : QovBrokerServe)(p->fd, &p->para, &p->wl, &p->stats, p->stop);
    return NULL;
}

int QovBrokerPathStart(QovBrokerPath *p) { return pthread_create(&p->thread, NULL, ServePath, p) == 0 ? 0 : 1; }
