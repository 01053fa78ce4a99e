/* What an orchestrator running on the host platform uses beside the library:
 * the wire format of its channels and sync-group links, the receive
 * functions through which the host hands it what arrives, the set-up of
 * sync-group links, and timer cancellation. Installed with the host
 * libraries; plain C11 and C++.
 *
 * Channels. At QOV_EAL_Start every registered channel connects over TCP to
 * the address its record's server-address function returns and the port at
 * offset 108 (both in network byte order). A broker that is not there yet, or
 * that goes away, is retried with a back-off that doubles from 10 ms up to
 * QOV_HOST_BACKOFF_MAX_MS. The socket is served by the epoll set of the
 * record's chanThreadId (by the Data thread's when that thread does not run).
 *
 * Wire format: one frame per IPC message, a 12-byte header then the body:
 *   offset 0  u32 magic QOV_HOST_FRAME_MAGIC  (network byte order)
 *   offset 4  u32 msgId                       (network byte order)
 *   offset 8  u32 msgLen, body bytes          (network byte order)
 *   offset 12 msgLen bytes of body
 * A frame whose msgLen is over the host's frame bound (QOV_HOST_FRAME_MAX_DEFAULT
 * unless changed through the control header), or whose magic is wrong, is
 * dropped with a log line and the connection is closed and made again: the
 * stream cannot be trusted past it. The host reads into a buffer of one frame
 * bound plus 64 KiB, as much as the socket has, and hands every complete
 * frame to the receive function in place; nothing a peer sends makes it
 * allocate more.
 * QOV_CHAN_USendMsg sends one frame towards the broker: its msgId is the
 * call's flags argument (0 from the library), its body the buffer.
 *
 * Back-pressure: QOV_CHAN_BackPress stops reading the socket (the frame being
 * delivered finishes; no further frame is delivered, whether already read or
 * not, until the release), so the kernel's buffers
 * fill and TCP flow control stops the broker, whose non-blocking sends then
 * fail with EAGAIN. QOV_CHAN_UnBackPress resumes reading. Pressing is a state,
 * not a count, as for the merge queue: pressing twice and releasing once
 * leaves the channel released; releasing a channel that is not pressed fails
 * with 1 and changes nothing.
 *
 * Stopping the feed: clearing a channel's or a sync group's receive function
 * (QovHostChanSetRecv / QovHostSyncSetRecv with a null function) and
 * cancelling a timer (QovHostTimerCancel) return only once no call of it is
 * still running on another thread, as QOV_EPOLL_DEL does. An orchestrator
 * clears them before ASOrchDestroy so that nothing writes into a handle
 * that is being released. Called from inside the very function being cleared,
 * they return at once (the running call is the caller's own). */
#ifndef QOV_HOST_API_H
#define QOV_HOST_API_H

#include <stdint.h>
#include <string.h>

#include "qov_utils_base.h"

#ifdef __cplusplus
#include <cstddef>
#define QOV_HOST_STATIC_ASSERT(c, m) static_assert(c, m)
extern "C" {
#else
#include <stddef.h>
#define QOV_HOST_STATIC_ASSERT(c, m) _Static_assert(c, m)
#endif

#define QOV_HOST_FRAME_MAGIC 0x514F5646u /* "QOVF" on the wire */
#define QOV_HOST_FRAME_HDR_LEN 12u
#define QOV_HOST_FRAME_MAX_DEFAULT 65536u  /* body bytes */
#define QOV_HOST_FRAME_MAX_LIMIT 16777216u /* the largest bound that may be set */
#define QOV_HOST_BACKOFF_MAX_MS 640u

/* A received message as the receive functions get it; the same shape as the
 * library's received-message record, so it can be handed to ASOrchMsgProc.
 * body points into the host's buffer and is valid only during the call. */
typedef struct QovHostIpcMsg {
    void *body;
    uint32_t msgId;
    uint32_t msgLen;
} QovHostIpcMsg;
QOV_HOST_STATIC_ASSERT(sizeof(QovHostIpcMsg) == 16, "received message record is 16 bytes");
QOV_HOST_STATIC_ASSERT(offsetof(QovHostIpcMsg, body) == 0, "body at 0");
QOV_HOST_STATIC_ASSERT(offsetof(QovHostIpcMsg, msgId) == 8, "msgId at 8");
QOV_HOST_STATIC_ASSERT(offsetof(QovHostIpcMsg, msgLen) == 12, "msgLen at 12");

/* ---- Frame encoding, shared by the host, brokers, tests and demos ---- */
static inline void QovHostPutU32(uint8_t *p, uint32_t v) {
    p[0] = (uint8_t)(v >> 24);
    p[1] = (uint8_t)(v >> 16);
    p[2] = (uint8_t)(v >> 8);
    p[3] = (uint8_t)v;
}

static inline uint32_t QovHostGetU32(const uint8_t *p) {
    return ((uint32_t)p[0] << 24) | ((uint32_t)p[1] << 16) | ((uint32_t)p[2] << 8) | (uint32_t)p[3];
}

/* Writes the header for a body of msgLen bytes into hdr (12 bytes). */
static inline void QovHostFrameHdrEncode(uint8_t *hdr, uint32_t msgId, uint32_t msgLen) {
    QovHostPutU32(hdr, QOV_HOST_FRAME_MAGIC);
    QovHostPutU32(hdr + 4, msgId);
    QovHostPutU32(hdr + 8, msgLen);
}

/* Writes a whole frame into out (outMax bytes). Returns the frame's length,
 * or 0 when it does not fit or body is null with a non-zero length. */
/* NOLINTNEXTLINE(bugprone-easily-swappable-parameters): the order of the platform's send calls */
static inline size_t QovHostFrameEncode(uint8_t *out, size_t outMax, uint32_t msgId, const void *body,
                                        uint32_t msgLen) {
    if (out == NULL || outMax < QOV_HOST_FRAME_HDR_LEN || outMax - QOV_HOST_FRAME_HDR_LEN < msgLen) return 0;
    if (body == NULL && msgLen != 0) return 0;
    QovHostFrameHdrEncode(out, msgId, msgLen);
    if (msgLen != 0) memcpy(out + QOV_HOST_FRAME_HDR_LEN, body, msgLen);
    return QOV_HOST_FRAME_HDR_LEN + (size_t)msgLen;
}

/* Header check: 0 when hdr (12 bytes) is a frame header whose body is at
 * most maxBody bytes, filling *msgId and *msgLen; 1 for a wrong magic, 2 for
 * a body over maxBody. */
/* NOLINTNEXTLINE(bugprone-easily-swappable-parameters): the two results in the order of the frame header */
static inline int QovHostFrameHdrDecode(const uint8_t *hdr, uint32_t maxBody, uint32_t *msgId, uint32_t *msgLen) {
    if (QovHostGetU32(hdr) != QOV_HOST_FRAME_MAGIC) return 1;
    uint32_t len = QovHostGetU32(hdr + 8);
    if (len > maxBody) return 2;
    *msgId = QovHostGetU32(hdr + 4);
    *msgLen = len;
    return 0;
}

/* ---- Channels ----
 * fn runs on the thread serving the channel for each received frame, with
 * ctx (an orchestrator passes its ASOrchHandle) and the message. Its result
 * is counted (frames refused) and otherwise ignored. A null fn clears it:
 * frames that arrive without a receive function are read and dropped. Returns
 * 0, or 1 for an unknown instance or an unregistered channel. */
typedef uint32_t (*QovHostChanRecvFunc)(void *ctx, QovHostIpcMsg *msg);
QOV_PLAT_API uint32_t QovHostChanSetRecv(void *eal, uint32_t chanIdx, QovHostChanRecvFunc fn, void *ctx);

/* ---- Sync groups ----
 * A sync group links two peer instances (in one process or two) over a TCP
 * connection, on loopback unless an address is given: one side listens, the
 * other connects, per group id.
 * Both calls are made after the group's registration; the link is set up
 * once the instance is started (at once when it already is). The connecting
 * side reconnects with the channels' back-off; the listening side accepts the
 * next peer when the link drops. The link is served by the epoll set of the
 * group's logicThreadId (by the Data thread's when that thread does not run).
 *
 * QOV_EAL_SyncMsg(eal, grpId, data, count): data is an array of count sync
 * items; each item's len bytes at bytes go to the peer in one frame (header
 * msgId = the group id, body = count records of {u32 len, len bytes}, network
 * byte order). Up to QOV_HOST_SYNC_ITEMS_MAX items per call; the whole body
 * must fit the frame bound. It fails with 1 when the link is not up, or when
 * the peer has not taken the frame within QOV_HOST_SYNC_SEND_TIMEOUT_MS (the
 * link is then dropped, since a part of the frame may have gone out).
 * At the peer the receive function gets the items again, bytes pointing into
 * the host's buffer (valid during the call), len as sent and result 0: the
 * array has the shape of the library's sync item, so it can be handed to
 * ASOrchMergeSyncGrpDatas as it is.
 * QOV_EAL_IsSyncReadyOnlyTarn answers 1 while the link is up, else 0.
 * QOV_EAL_SyncBackPress stops reading the link (the peer's sends then block
 * and fail after the timeout); QOV_EAL_SyncUnBackPress resumes; the same
 * state rule as for channels.
 * The group's flow-control record and its message set are kept as given and
 * shown by the control header; the host applies no rate limit of its own,
 * its flow control is TCP's plus back-pressure. Of the group item the host
 * reads grpId and logicThreadId; the other words are kept as given. */
#define QOV_HOST_SYNC_ITEMS_MAX 64u
#define QOV_HOST_SYNC_SEND_TIMEOUT_MS 1000u

typedef struct QovHostSyncItem {
    void *bytes;
    uint32_t len;
    uint32_t result;
} QovHostSyncItem;
QOV_HOST_STATIC_ASSERT(sizeof(QovHostSyncItem) == 16, "sync item is 16 bytes");
QOV_HOST_STATIC_ASSERT(offsetof(QovHostSyncItem, bytes) == 0, "bytes at 0");
QOV_HOST_STATIC_ASSERT(offsetof(QovHostSyncItem, len) == 8, "len at 8");
QOV_HOST_STATIC_ASSERT(offsetof(QovHostSyncItem, result) == 12, "result at 12");

typedef void (*QovHostSyncRecvFunc)(void *ctx, uint32_t grpId, QovHostSyncItem *items, uint32_t count);
QOV_PLAT_API uint32_t QovHostSyncSetRecv(void *eal, uint32_t grpId, QovHostSyncRecvFunc fn, void *ctx);
/* Listens on 127.0.0.1:*port (host byte order; 0 picks a free port, which is
 * written back). 0 on success, 1 on failure. */
QOV_PLAT_API uint32_t QovHostSyncListen(void *eal, uint32_t grpId, uint16_t *port);
/* Connects to the peer listening on 127.0.0.1:port (host byte order). */
QOV_PLAT_API uint32_t QovHostSyncConnect(void *eal, uint32_t grpId, uint16_t port);
/* The same on any IPv4 address of the host, addr in network byte order (as
 * inet_pton gives it): a standby on another host connects to the address its
 * active peer listens on. INADDR_ANY listens on every address. */
QOV_PLAT_API uint32_t QovHostSyncListenAddr(void *eal, uint32_t grpId, uint32_t addr, uint16_t *port);
QOV_PLAT_API uint32_t QovHostSyncConnectAddr(void *eal, uint32_t grpId, uint32_t addr, uint16_t port);

/* ---- Role of the process ----
 * Whether this process runs in the MB role, the one the broker serves: what
 * QOV_EAL_SelfRoleIsMb answers for every instance of the process (1 until set).
 * An orchestrator sets it before it creates an instance: a standby sets 0, and
 * sets 1 when it takes over, before it creates its active instance. The
 * channels of an instance started outside the MB role are registered but stay
 * idle (they do not connect to the broker); its sync-group links run. */
QOV_PLAT_API void QovHostSetRoleMb(uint32_t isMb);

/* ---- Recording ----
 * Writes every frame that the instance's channels and sync-group links
 * receive, with its receive time, to a capture file in the classic pcap
 * format (written through libpcap), so that a broker stream can be replayed
 * (tools/qov_replay) and read in Wireshark (tools/wireshark/qov.lua).
 *
 * Link type QOV_HOST_RECORD_LINKTYPE (DLT_USER0, 147). Each record's
 * timestamp is the receive time (CLOCK_REALTIME, microseconds); its bytes are
 * an 8-byte pseudo-header, then the frame as it came over the wire:
 *   offset 0  u8  version QOV_HOST_RECORD_VERSION
 *   offset 1  u8  link kind: QOV_HOST_RECORD_CHAN or QOV_HOST_RECORD_SYNC
 *   offset 2  u8  direction: QOV_HOST_RECORD_IN (received)
 *   offset 3  u8  0
 *   offset 4  u32 channel index (0 DAM, 1 FES, 2 UP, 3 EVT) or sync group id,
 *                 network byte order
 *   offset 8  the 12-byte frame header, then the body
 * A record is at most QOV_HOST_RECORD_SNAPLEN bytes (what libpcap and
 * Wireshark read back); a longer frame, possible only with a raised frame
 * bound, is kept cut at that length (its record length says how long it was)
 * and cannot be replayed.
 *
 * The frame is written on the thread that delivers it, before the receive
 * function sees it (the library may rewrite parts of a body in place), into a
 * buffer of QOV_HOST_RECORD_BUF bytes: the thread pays a copy, and a write
 * call once per buffer. The file never grows past maxBytes: the frame that
 * would pass it ends the recording (one log line; the file stays a complete
 * capture of everything before it). A write error ends it the same way.
 * Recording does not rotate: a replay needs the stream from its start. */
#define QOV_HOST_RECORD_LINKTYPE 147u /* DLT_USER0 */
#define QOV_HOST_RECORD_VERSION 1u
#define QOV_HOST_RECORD_PSEUDO_LEN 8u
#define QOV_HOST_RECORD_SNAPLEN 262144u
#define QOV_HOST_RECORD_BUF (1u << 20)
#define QOV_HOST_RECORD_MIN_BYTES 1024u
enum { QOV_HOST_RECORD_CHAN = 0, QOV_HOST_RECORD_SYNC = 1 };
enum { QOV_HOST_RECORD_IN = 0 };

typedef struct QovHostRecordStats {
    uint64_t frames;  /* frames written */
    uint64_t bytes;   /* file size, the pcap file header included */
    uint32_t full;    /* 1: the bound or a write error ended the recording */
    uint32_t cut;     /* frames kept cut at the snap length */
} QovHostRecordStats;
QOV_HOST_STATIC_ASSERT(sizeof(QovHostRecordStats) == 24, "record stats are 24 bytes");

/* Starts recording into path (created or truncated), at most maxBytes bytes
 * (at least QOV_HOST_RECORD_MIN_BYTES). 0 on success; 1 for an unknown
 * instance, a recording already running, a bound too small, or a file that
 * cannot be made (with a log line). May be called before or after the
 * instance starts, from any thread. */
QOV_PLAT_API uint32_t QovHostRecordStart(void *eal, const char *path, uint64_t maxBytes);
/* Ends the recording (flushing and closing the file; also done by
 * QOV_EAL_Destroy) and fills *stats when stats is not null; the stats of a
 * recording that the bound already ended are still reported. Returns once no
 * frame is being written. 0 on success; 1 for an unknown instance or when no
 * recording was ever started. */
QOV_PLAT_API uint32_t QovHostRecordStop(void *eal, QovHostRecordStats *stats);

/* ---- Timers ----
 * Cancels a timer that QOV_TIMER_Create made in the epoll set epFd and closes
 * its descriptor; returns once no call of its function is still running on
 * another thread. 0 on success, 1 when there is no such timer. */
QOV_PLAT_API uint32_t QovHostTimerCancel(int32_t epFd, int32_t timerFd);

/* ---- Control endpoint ----
 * A Unix-domain stream socket at a path the orchestrator chooses, on which a
 * tool (qovctl) asks a running instance for its live state. Off unless
 * QovHostCtlOpen is called. One request per connection: one line of at most
 * QOV_HOST_CTL_REQ_MAX bytes ended by a newline (or by the client shutting
 * down its sending side), then one text answer, then the endpoint closes:
 *   queues       the list report of all merge queues (para->queueList)
 *   queue NAME   the full report of one of the instance's queues (queueInfo)
 *   channels     per registered channel: state, pressed, connections and
 *                reconnections, frames and bytes in, frames dropped by reason
 *   links        per sync-group link: state, pressed, frames out and in
 *   metrics      every counter in the Prometheus text exposition format
 *                (version 0.0.4), for a scraper or a textfile collector
 *   help         this list
 * An answer that reports a failure is one line starting with "error: ".
 *
 * The host does not know the library: the queue reports come from the two
 * functions in para, which have the shapes of QOV_PrintMergeQueListAll and
 * QOV_PrintMergeQueInfo (an orchestrator passes those). "queue" and "metrics"
 * read only the instance's own queues, named in para->queueNames (null: the
 * names the library gives them, the instance name then "_DAM" and "_FES"), so
 * that an answer never reads the queues of an instance served by another
 * thread. The metrics answer takes its queue figures from those reports and
 * appends what para->metrics writes (optional; the orchestrator's own
 * counters, whole lines in the same format). qovctl top shows a histogram
 * named qov_path_latency_seconds with a queue label as the latency per path.
 *
 * Every answer is made on the instance's Data thread, as one callback of its
 * epoll loop, so it sees the queues between two of their reads and writes and
 * never races them. The socket is served by a thread of the endpoint with
 * non-blocking I/O: a client that sends too much or garbage, or does not send
 * or read within QOV_HOST_CTL_TIMEOUT_MS, gets one log line and is
 * disconnected, and never holds up the Data thread. Answers need a started
 * instance; a Data thread that does not answer within the timeout gets the
 * client an error.
 *
 * QovHostCtlOpen: 0 on success; 1, with nothing opened, for an unknown
 * instance, a null or too long path, a null para or report function, more
 * than QOV_HOST_CTL_QUEUES_MAX queue names, an endpoint already open, or a
 * path that cannot be bound (a socket file that no endpoint answers on is
 * replaced; one that answers is left alone). The socket file is made readable
 * and writable by its owner only. The strings in para are copied.
 * QovHostCtlClose: closes the endpoint and removes the socket file, once no
 * answer is being made; 1 when none is open. An orchestrator closes it before
 * ASOrchDestroy, as it clears its receive functions (the reports read the
 * queues that ASOrchDestroy frees); QOV_EAL_Destroy closes one left open. */
#define QOV_HOST_CTL_REQ_MAX 256u
#define QOV_HOST_CTL_TIMEOUT_MS 2000u
#define QOV_HOST_CTL_QUEUES_MAX 8u

typedef uint32_t (*QovHostCtlListFunc)(char *buf, uint32_t size);
typedef uint32_t (*QovHostCtlQueueFunc)(const char *name, char *buf, uint32_t size);
/* Writes at most size bytes of text into buf; returns the bytes written. */
typedef uint32_t (*QovHostCtlMetricsFunc)(void *ctx, char *buf, uint32_t size);
typedef struct QovHostCtlPara {
    QovHostCtlListFunc queueList;
    QovHostCtlQueueFunc queueInfo;
    const char *const *queueNames; /* queueNum names, or null */
    uint32_t queueNum;
    uint32_t rsv;
    QovHostCtlMetricsFunc metrics;  /* or null */
    void *ctx;                      /* handed to metrics */
} QovHostCtlPara;
QOV_HOST_STATIC_ASSERT(sizeof(QovHostCtlPara) == 48, "control endpoint record is 48 bytes");
QOV_HOST_STATIC_ASSERT(offsetof(QovHostCtlPara, queueInfo) == 8, "queueInfo at 8");
QOV_HOST_STATIC_ASSERT(offsetof(QovHostCtlPara, queueNames) == 16, "queueNames at 16");
QOV_HOST_STATIC_ASSERT(offsetof(QovHostCtlPara, queueNum) == 24, "queueNum at 24");
QOV_HOST_STATIC_ASSERT(offsetof(QovHostCtlPara, metrics) == 32, "metrics at 32");
QOV_HOST_STATIC_ASSERT(offsetof(QovHostCtlPara, ctx) == 40, "ctx at 40");

QOV_PLAT_API uint32_t QovHostCtlOpen(void *eal, const char *path, const QovHostCtlPara *para);
QOV_PLAT_API uint32_t QovHostCtlClose(void *eal);

#ifdef __cplusplus
}
#endif

#endif
