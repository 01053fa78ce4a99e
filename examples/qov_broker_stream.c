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

/* Steady phase: bursts every 10 ms at the given rate; flood phase: no pause. */
/* NOLINTNEXTLINE(bugprone-easily-swappable-parameters): a limit in time and one in entries, named at the two calls */
static int StreamTimed(Stream *s, QovRouteWorkload *wl, uint32_t rate, uint64_t untilUs, uint64_t maxEntries) {
    uint64_t start = QovBrokerNowUs(), sent = 0;
    while (QovBrokerNowUs() < untilUs && (maxEntries == 0 || wl->entries < maxEntries)) {
        if (rate != 0) {
            uint64_t due = (QovBrokerNowUs() - start) * rate / 1000000u + rate / 100u + 1u;
            if (sent >= due) {
                if (Flush(s) != 0) return 1;
                struct timespec pause = {0, 10L * 1000 * 1000};
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
    /* Each burst goes out in one send. Without TCP_NODELAY the burst's last
     * segment, smaller than a full one, waits until the orchestrator has
     * acknowledged the previous data, and its delayed ACK can hold that for
     * up to 40 ms: the paced stream's p99 latency would be the ACK timer's. */
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
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
