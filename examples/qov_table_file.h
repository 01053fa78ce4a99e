/* A route table kept in a file that is mapped into memory: the state an
 * orchestrator node has programmed, which outlives the node's process as a
 * device's forwarding tables outlive their orchestrator (a SIGKILL loses
 * nothing written to the mapping), and the broker's final table for the check.
 * The header also carries the node's figures, so that the scenario driver can
 * read them once the node is gone. */
#ifndef QOV_TABLE_FILE_H
#define QOV_TABLE_FILE_H

#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "qov_route_workload.h"

#define QOV_TABLE_MAGIC 0x31544C42544F5551ull /* "QOUTBLT1" */

typedef struct QovTableRow {
    uint32_t seq; /* value last applied */
    uint8_t op;   /* QOV_WL_NONE, QOV_WL_SET or QOV_WL_DEL */
    uint8_t pad[3];
} QovTableRow;

/* Figures of one path's last completed resync. */
typedef struct QovResyncFig {
    uint32_t rows;     /* rows re-sent */
    uint32_t changed;  /* rows that changed the table (new key or other value) */
    uint32_t stale;    /* keys removed at the end: not re-sent */
    uint32_t pad;
    uint64_t connectToEndUs; /* from the channel's connection to the end of the resync */
} QovResyncFig;

typedef struct QovTableHdr {
    uint64_t magic;
    uint32_t keys;
    uint32_t starts;     /* processes that opened the table */
    uint32_t resyncs;    /* resyncs completed, both paths counted */
    uint32_t takeovers;  /* standby instances replaced by active ones */
    QovResyncFig resync[2];
    uint32_t peakDepth[2];   /* merge queue peaks of the last process */
    uint32_t highWater;
    uint32_t active;         /* the role the last process ended in */
    uint64_t peakBytes;      /* memory taken through memAlloc, peak */
    uint64_t syncFramesSent, syncSendFails, catchUps, syncFramesRecv, syncFramesBad;
    uint64_t latP50Us, latP99Us; /* to this node's handler: from the broker's send (active),
                                  * from the active peer's handler (standby: its lag) */
    uint64_t endSeen;        /* 1 once the broker's end of stream reached both paths */
    /* Live, for a sampler in another process: */
    uint32_t depthNow[2];    /* merge queue depths, every 50 ms */
    uint64_t delivered;      /* entries handed to the table by the handlers */
    uint64_t rsv[6];
} QovTableHdr;

typedef struct QovTableFile {
    QovTableHdr *hdr;
    QovTableRow *row;
    size_t size;
} QovTableFile;

/* Maps the table of path (created with keys rows when missing or of another
 * size; with fresh set, emptied). 0 on success, with a message on stderr
 * otherwise. */
/* NOLINTNEXTLINE(bugprone-easily-swappable-parameters): the size, then whether to empty it */
static inline int QovTableOpen(QovTableFile *t, const char *path, uint32_t keys, int fresh) {
    size_t size = sizeof(QovTableHdr) + (size_t)keys * sizeof(QovTableRow);
    int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0) {
        perror(path);
        if (fd >= 0) close(fd);
        return 1;
    }
    int reuse = !fresh && (size_t)st.st_size == size;
    if (!reuse && (ftruncate(fd, 0) != 0 || ftruncate(fd, (off_t)size) != 0)) {
        perror(path);
        close(fd);
        return 1;
    }
    void *m = mmap(NULL, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (m == MAP_FAILED) {
        perror(path);
        return 1;
    }
    t->hdr = (QovTableHdr *)m;
    t->row = (QovTableRow *)(t->hdr + 1);
    t->size = size;
    if (!reuse || t->hdr->magic != QOV_TABLE_MAGIC || t->hdr->keys != keys) {
        memset(m, 0, size);
        t->hdr->magic = QOV_TABLE_MAGIC;
        t->hdr->keys = keys;
    }
    return 0;
}

static inline void QovTableClose(QovTableFile *t) {
    if (t->hdr == NULL) return;
    msync(t->hdr, t->size, MS_SYNC);
    munmap(t->hdr, t->size);
    t->hdr = NULL;
    t->row = NULL;
}

/* 1 when a key's row holds a present route. */
static inline int QovTablePresent(const QovTableRow *r) { return r->op == QOV_WL_SET; }

#endif
