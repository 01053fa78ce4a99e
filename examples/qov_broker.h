/* The example broker: one loopback TCP listener per path (DAM and FES), each
 * taking the orchestrator's channel of that path and streaming the path's
 * route-table workload to it in the host's frames. Used by the qov_broker
 * program and, as two threads, by the orchestrator demo. */
#ifndef QOV_BROKER_H
#define QOV_BROKER_H

#include <pthread.h>
#include <stdatomic.h>
#include <stdint.h>

#include "qov_route_workload.h"

typedef struct QovBrokerPara {
    uint32_t rate;         /* messages per second of this path in the steady phase, 0: as fast as it goes */
    uint32_t durationMs;   /* steady phase plus flood phase, after the initial fill */
    uint32_t floodMs;      /* last part of the duration, sent as fast as it goes */
    uint32_t transferRows; /* route rows of the transfer message sent at the end, 0: none */
    uint32_t acceptMs;     /* how long to wait for the orchestrator to connect */
    uint64_t maxEntries;   /* the stream ends once this many entries went out, 0: no bound */
} QovBrokerPara;

/* Counters the broker updates as it goes, readable from another thread. */
typedef struct QovBrokerStats {
    _Atomic uint64_t msgs, entries, bytes;
    _Atomic uint64_t blockedUs; /* time spent waiting for the socket to take data */
    _Atomic int blocked;        /* 1 while a send waits */
    _Atomic int phase;          /* QOV_BROKER_* below */
    _Atomic uint64_t streamUs;  /* from the connection to the last byte sent */
} QovBrokerStats;

enum { QOV_BROKER_WAITING, QOV_BROKER_FILL, QOV_BROKER_STEADY, QOV_BROKER_FLOOD, QOV_BROKER_DONE };

/* Listens on 127.0.0.1:*port (0 picks a free port, written back); the
 * descriptor, or -1 with a message on stderr. */
int QovBrokerListen(uint16_t *port);

/* Accepts one connection on listenFd and streams wl to it (initial fill,
 * steady phase, flood phase, on the DAM path the transfer message, the
 * end-of-stream message),
 * then waits for the orchestrator to close the connection. stop, when it
 * becomes non-zero, ends the stream early. 0 when the whole stream went out,
 * 1 otherwise (no peer, peer gone, stopped). */
int QovBrokerServe(int listenFd, const QovBrokerPara *para, QovRouteWorkload *wl, QovBrokerStats *stats,
                   _Atomic int *stop);

/* QovBrokerServe for orchestrators that go away and come back: serves one
 * connection after the other until the stream is over. While none is
 * connected the table goes on changing at the steady rate. Each connection
 * first gets the resync of the path's table (begin, present rows, end, see
 * qov_route_workload.h), then the live stream from where it stands; the end
 * of stream goes to the connection open when the duration is over. 0 when
 * the end went out, 1 otherwise. */
int QovBrokerServeResync(int listenFd, const QovBrokerPara *para, QovRouteWorkload *wl, QovBrokerStats *stats,
                         _Atomic int *stop);

/* One path's broker run on a thread of its own: the caller fills port, fd
 * (from QovBrokerListen), para and wl, and resync and stop as wanted; rc is
 * the serve's result once the thread is joined. */
typedef struct QovBrokerPath {
    uint16_t port;
    int fd;
    QovBrokerPara para;
    QovRouteWorkload wl;
    QovBrokerStats stats;
    int resync;         /* serve with QovBrokerServeResync */
    _Atomic int *stop;  /* handed to the serve; may be NULL */
    pthread_t thread;
    int rc;
} QovBrokerPath;

/* Starts p's thread; 0 when it runs. */
int QovBrokerPathStart(QovBrokerPath *p);

/* CLOCK_MONOTONIC in microseconds. */
uint64_t QovBrokerNowUs(void);

#endif
