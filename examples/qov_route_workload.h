/* The route-table workload of the example broker, shared by the broker and the
 * orchestrator demo so that both agree on message ids, entry layout and the
 * final state of every key.
 *
 * Keys are 16-byte route prefixes; an entry is the prefix followed by next hop,
 * interface, the key's sequence number (its "value") and the broker's send time.
 * One quarter of the keys belong to the FES path, the rest to the DAM path; each
 * path has a stream (a channel) of its own. Each path has two receive messages under one merge message id: "set" (registered
 * with mergeOp 0, add or update) and "delete" (mergeOp 1). A receive body is an
 * 8-byte prefix followed by up to 32 entries. */
#ifndef QOV_ROUTE_WORKLOAD_H
#define QOV_ROUTE_WORKLOAD_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#define QOV_WL_KEY_SIZE 16u
#define QOV_WL_BODY_PREFIX 8u
#define QOV_WL_BATCH_MAX 32u
#define QOV_WL_BODY_MAX (QOV_WL_BODY_PREFIX + QOV_WL_BATCH_MAX * sizeof(QovRouteEntry))

/* Receive message ids (IPC) and the merge message ids they travel under. */
#define QOV_WL_MSG_DAM_SET 0x51000001u
#define QOV_WL_MSG_DAM_DEL 0x51000002u
#define QOV_WL_MSG_FES_SET 0x52000001u
#define QOV_WL_MSG_FES_DEL 0x52000002u
#define QOV_WL_MERGE_DAM 0x5100u
#define QOV_WL_MERGE_FES 0x5200u
/* Transfer message (an id of the transfer range) and its route table. */
#define QOV_WL_MSG_TRANS 0x7F7F7F71u
#define QOV_WL_TRANS_TABLE 0x61u
/* End of a path's stream, not a table message: u64 messages, u64 entries, u64
 * digest of the path's final table. */
#define QOV_WL_MSG_END 0x5F000000u

typedef struct QovRouteEntry {
    uint8_t prefix[QOV_WL_KEY_SIZE]; /* 2001:db8:<key index>::/64 */
    uint32_t nextHop;
    uint32_t ifIndex;
    uint32_t seq;    /* how often the broker has sent this key: its value */
    uint32_t sentUs; /* broker's send time, CLOCK_MONOTONIC microseconds mod 2^32 */
} QovRouteEntry;
#ifdef __cplusplus /* the tests include it too */
static_assert(sizeof(QovRouteEntry) == 32, "route entry is 32 bytes");
static_assert(offsetof(QovRouteEntry, seq) == 24, "seq follows next hop and interface");
#else
_Static_assert(sizeof(QovRouteEntry) == 32, "route entry is 32 bytes");
_Static_assert(offsetof(QovRouteEntry, seq) == 24, "seq follows next hop and interface");
#endif

/* The last operation sent for a key: none yet, set (add/update) or delete. */
enum { QOV_WL_NONE = 0, QOV_WL_SET = 1, QOV_WL_DEL = 2 };

/* The workload of one path. The per-key arrays are shared by the workloads of
 * both paths (each writes only its own keys) and start zeroed. */
typedef struct QovRouteWorkload {
    uint64_t rng;
    uint32_t keys;
    uint32_t fes;      /* 1: the FES path's keys and messages, 0: the DAM path's */
    uint32_t fillNext; /* next key of the initial fill */
    uint32_t *seq;     /* per key: `keys` elements */
    uint8_t *lastOp;   /* per key: `keys` elements */
    uint64_t msgs, entries;
} QovRouteWorkload;

static inline uint64_t QovWlRand(QovRouteWorkload *wl) {
    uint64_t x = wl->rng; /* xorshift64* */
    x ^= x >> 12;
    x ^= x << 25;
    x ^= x >> 27;
    wl->rng = x;
    return x * 0x2545F4914F6CDD1DULL;
}

static inline int QovWlIsFes(uint32_t key) { return (key & 3u) == 3u; }

static inline void QovWlPrefix(uint32_t key, uint8_t prefix[QOV_WL_KEY_SIZE]) {
    static const uint8_t head[4] = {0x20, 0x01, 0x0d, 0xb8};
    memset(prefix, 0, QOV_WL_KEY_SIZE);
    memcpy(prefix, head, sizeof(head));
    prefix[4] = (uint8_t)(key >> 24);
    prefix[5] = (uint8_t)(key >> 16);
    prefix[6] = (uint8_t)(key >> 8);
    prefix[7] = (uint8_t)key;
    prefix[15] = 64;
}

/* The key index of a prefix, or UINT32_MAX when it is none of this workload's. */
static inline uint32_t QovWlKeyOf(const uint8_t prefix[QOV_WL_KEY_SIZE], uint32_t keys) {
    uint32_t key = (uint32_t)prefix[4] << 24 | (uint32_t)prefix[5] << 16 | (uint32_t)prefix[6] << 8 | prefix[7];
    return prefix[0] == 0x20 && prefix[1] == 0x01 && key < keys ? key : UINT32_MAX;
}

/* NOLINTNEXTLINE(bugprone-easily-swappable-parameters): the workload's shape, named at its one call */
static inline void QovWlInit(QovRouteWorkload *wl, uint32_t keys, uint64_t seed, uint32_t fes, uint32_t *seq,
                             uint8_t *lastOp) {
    memset(wl, 0, sizeof(*wl));
    wl->rng = (seed * 2u + fes + 1u) * 0x9E3779B97F4A7C15ULL;
    wl->keys = keys;
    wl->fes = fes;
    wl->seq = seq;
    wl->lastOp = lastOp;
}

/* A key of the given path: half the picks fall on a hot sixteenth of the keys,
 * so that updates meet queued entries of the same key. */
static inline uint32_t QovWlPick(QovRouteWorkload *wl, uint32_t fes) {
    uint64_t r = QovWlRand(wl);
    uint32_t span = (r & 1u) ? wl->keys : (wl->keys / 16u > 4u ? wl->keys / 16u : wl->keys);
    uint32_t key = (uint32_t)((r >> 8) % span);
    key = fes ? (key | 3u) : (QovWlIsFes(key) ? key - 1u : key);
    return key < wl->keys ? key : (fes ? 3u : 0u);
}

/* The entry of a key with its value; next hop and interface follow from them. */
/* NOLINTNEXTLINE(bugprone-easily-swappable-parameters): key, value, time: the entry's own order */
static inline void QovWlEntry(uint32_t key, uint32_t seq, uint32_t nowUs, QovRouteEntry *e) {
    QovWlPrefix(key, e->prefix);
    e->seq = seq;
    e->nextHop = 0x0A000001u + (seq & 0xFFu);
    e->ifIndex = 1u + key % 48u;
    e->sentUs = nowUs;
}

/* Builds the next receive message of the path into body (QOV_WL_BODY_MAX
 * bytes): the initial fill first (every key of the path set once, in order), then a mix of sets and deletes on
 * random keys, sometimes the same key several times in one message. Returns the
 * message id; *len is the body length. */
static inline uint32_t QovWlNext(QovRouteWorkload *wl, uint8_t *body, uint32_t *len, uint32_t nowUs) {
    uint64_t r = QovWlRand(wl);
    uint32_t fes = wl->fes;
    while (wl->fillNext < wl->keys && (uint32_t)QovWlIsFes(wl->fillNext) != fes) ++wl->fillNext;
    int filling = wl->fillNext < wl->keys;
    int del = !filling && (r >> 8) % 5u == 0u; /* one message in five deletes */
    uint32_t n = filling ? QOV_WL_BATCH_MAX : 1u + (uint32_t)((r >> 16) % QOV_WL_BATCH_MAX);
    uint32_t count = 0;
    memset(body, 0, QOV_WL_BODY_PREFIX);
    for (uint32_t i = 0; i < n; ++i) {
        uint32_t key;
        if (filling) {
            while (wl->fillNext < wl->keys && (uint32_t)QovWlIsFes(wl->fillNext) != fes) ++wl->fillNext;
            if (wl->fillNext >= wl->keys) break;
            key = wl->fillNext++;
        } else {
            key = ((r >> 24) % 8u == 0u && i > 0) ? QovWlKeyOf(body + QOV_WL_BODY_PREFIX, wl->keys) : QovWlPick(wl, fes);
        }
        QovRouteEntry e;
        QovWlEntry(key, ++wl->seq[key], nowUs, &e);
        wl->lastOp[key] = del ? QOV_WL_DEL : QOV_WL_SET;
        memcpy(body + QOV_WL_BODY_PREFIX + count * sizeof(e), &e, sizeof(e));
        ++count;
    }
    wl->msgs += 1;
    wl->entries += count;
    *len = QOV_WL_BODY_PREFIX + count * (uint32_t)sizeof(QovRouteEntry);
    if (fes) return del ? QOV_WL_MSG_FES_DEL : QOV_WL_MSG_FES_SET;
    return del ? QOV_WL_MSG_DAM_DEL : QOV_WL_MSG_DAM_SET;
}

/* FNV-1a over (index, last operation, value) of every key of one path: equal
 * digests mean the receiver ended with the broker's final table of that path. */
/* NOLINTNEXTLINE(bugprone-easily-swappable-parameters): key count and FES share, named at every call */
static inline uint64_t QovWlDigest(uint32_t keys, uint32_t fes, const uint32_t *seq, const uint8_t *lastOp) {
    uint64_t h = 0xCBF29CE484222325ULL;
    for (uint32_t k = 0; k < keys; ++k) {
        if ((uint32_t)QovWlIsFes(k) != fes) continue;
        uint32_t words[3] = {k, lastOp[k], seq[k]};
        const uint8_t *b = (const uint8_t *)words;
        for (size_t i = 0; i < sizeof(words); ++i) h = (h ^ b[i]) * 0x100000001B3ULL;
    }
    return h;
}

static inline void QovWlPut32(uint8_t *p, uint32_t v) { memcpy(p, &v, sizeof(v)); }

/* A transfer message as sent after a restart: one TLV of route-table data (up to
 * `rows` entries of the path's first keys, as last sent) and one smoothing run for the same table:
 * class state begin, PID state, class state end. Returns the body length; body
 * must hold 12 + 12 + rows * 32 + 12 + 52 bytes. */
static inline uint32_t QovWlTransfer(uint8_t *body, uint32_t rows, const QovRouteWorkload *wl) {
    uint32_t off = 24, sent = 0;
    for (uint32_t k = 0; k < wl->keys && sent < rows; ++k) {
        if ((uint32_t)QovWlIsFes(k) != wl->fes) continue;
        QovRouteEntry e;
        memset(&e, 0, sizeof(e));
        QovWlPrefix(k, e.prefix);
        e.seq = wl->seq[k];
        memcpy(body + off, &e, sizeof(e));
        off += (uint32_t)sizeof(e);
        ++sent;
    }
    QovWlPut32(body + 12, QOV_WL_TRANS_TABLE);
    QovWlPut32(body + 16, 1); /* table data, entries of the registered size */
    QovWlPut32(body + 20, sent * (uint32_t)sizeof(QovRouteEntry));
    static const uint32_t run[][2] = {{7, 16}, {15, 20}, {8, 16}}; /* {type, length} */
    QovWlPut32(body + off, QOV_WL_TRANS_TABLE);
    QovWlPut32(body + off + 4, 100); /* not table data: a run of smoothing TLVs */
    QovWlPut32(body + off + 8, 52);
    off += 12;
    for (size_t i = 0; i < sizeof(run) / sizeof(run[0]); ++i) {
        memset(body + off, 0, run[i][1]);
        QovWlPut32(body + off, run[i][0]);
        QovWlPut32(body + off + 4, run[i][1]);
        QovWlPut32(body + off + 8, QOV_WL_TRANS_TABLE);
        QovWlPut32(body + off + 12, 1); /* class / pid word */
        off += run[i][1];
    }
    memset(body, 0, 8);
    QovWlPut32(body + 8, off - 12);
    return off;
}

/* ---- Resynchronisation after a restart or a switchover ----
 * Each path's keys form a transfer table of their own, on the path's channel.
 * A resync of a table is a run of transfer messages of one TLV each: the
 * begin of a VRF data class (smoothing type 10), the table's present rows as
 * table data (type 1, up to QOV_WL_RESYNC_ROWS a message), the end (type 11). */
#define QOV_WL_TABLE_DAM QOV_WL_TRANS_TABLE
#define QOV_WL_TABLE_FES 0x62u
#define QOV_WL_RESYNC_ROWS 2000u
#define QOV_WL_RESYNC_BODY_MAX (24u + 8u + QOV_WL_RESYNC_ROWS * (uint32_t)sizeof(QovRouteEntry))
#define QOV_WL_SMOOTH_TLV 100u /* a transfer TLV type that carries smoothing TLVs */
#define QOV_WL_CLASS_BEGIN 10u
#define QOV_WL_CLASS_END 11u
#define QOV_WL_CLASS_LEN 28u

static inline uint32_t QovWlTableId(uint32_t fes) { return fes ? QOV_WL_TABLE_FES : QOV_WL_TABLE_DAM; }

/* The begin (end 0) or end (end 1) of a resync of the path's table; returns
 * the body length (52 bytes). */
static inline uint32_t QovWlResyncMark(uint8_t *body, uint32_t fes, int end) {
    uint32_t table = QovWlTableId(fes);
    memset(body, 0, 24u + QOV_WL_CLASS_LEN);
    QovWlPut32(body + 8, 12u + QOV_WL_CLASS_LEN);
    QovWlPut32(body + 12, table);
    QovWlPut32(body + 16, QOV_WL_SMOOTH_TLV);
    QovWlPut32(body + 20, QOV_WL_CLASS_LEN);
    QovWlPut32(body + 24, end ? QOV_WL_CLASS_END : QOV_WL_CLASS_BEGIN);
    QovWlPut32(body + 28, QOV_WL_CLASS_LEN);
    QovWlPut32(body + 32, table);
    QovWlPut32(body + 36, 1); /* the class */
    return 24u + QOV_WL_CLASS_LEN;
}

/* The next rows of a resync: the path's present keys (last operation a set)
 * from *next on, at most QOV_WL_RESYNC_ROWS, as table data in the path's
 * layout (FES: an 8-byte header whose second word is the rows' byte length).
 * *next goes past the last key looked at, *rows gets the rows written.
 * Returns the body length; body holds QOV_WL_RESYNC_BODY_MAX bytes. */
/* NOLINTNEXTLINE(bugprone-easily-swappable-parameters): the cursor in and out, then what was written */
static inline uint32_t QovWlResyncRows(uint8_t *body, const QovRouteWorkload *wl, uint32_t *next, uint32_t *rows,
                                       uint32_t nowUs) {
    uint32_t hdr = wl->fes ? 8u : 0u, n = 0, k = *next;
    for (; k < wl->keys && n < QOV_WL_RESYNC_ROWS; ++k) {
        if ((uint32_t)QovWlIsFes(k) != wl->fes || wl->lastOp[k] != QOV_WL_SET) continue;
        QovRouteEntry e;
        QovWlEntry(k, wl->seq[k], nowUs, &e);
        memcpy(body + 24u + hdr + n * sizeof(e), &e, sizeof(e));
        ++n;
    }
    uint32_t valueLen = hdr + n * (uint32_t)sizeof(QovRouteEntry);
    memset(body, 0, 24u + hdr);
    QovWlPut32(body + 8, 12u + valueLen);
    QovWlPut32(body + 12, QovWlTableId(wl->fes));
    QovWlPut32(body + 16, 1); /* table data, entries of the registered size */
    QovWlPut32(body + 20, valueLen);
    if (wl->fes) QovWlPut32(body + 28, n * (uint32_t)sizeof(QovRouteEntry));
    *next = k;
    *rows = n;
    return 24u + valueLen;
}

#endif
