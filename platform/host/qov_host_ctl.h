/* Control of the host platform, for tests and examples only (the library
 * never includes it). It captures the diagnostic log, journals platform calls
 * with their arguments and the bytes of the records handed over, makes a named
 * operation fail on demand, sets the process's identity, and runs single turns
 * of an epoll set. Every function here is thread-safe. */
#ifndef QOV_HOST_CTL_H
#define QOV_HOST_CTL_H

#include <stddef.h>
#include <stdint.h>
#include "qov_utils_base.h"
#include "qov_utils_eal.h"
#include "qov_host_api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Diagnostic log capture ---- */
typedef struct QovHostLogLine {
    char module[32];
    char text[512];
} QovHostLogLine;

/* Echo each line to stderr (default on). The echo is written in blocks of up
 * to 16 KiB, at the latest 100 ms after a line, and at exit; a run of
 * identical lines is written once, then "last message repeated N times".
 * A crash loses at most the last block. */
QOV_PLAT_API void QovHostLogEcho(int toStderr);
/* Writes what the echo holds now. */
QOV_PLAT_API void QovHostLogFlush(void);
/* Keep lines in memory, up to 65 536 (default off: a process that never
 * reads them back keeps none). */
QOV_PLAT_API void QovHostLogCapture(int on);
QOV_PLAT_API uint32_t QovHostLogCount(void);
/* Copies line i (0 = oldest kept); 0 on success, -1 when i is out of range. */
QOV_PLAT_API int QovHostLogGet(uint32_t i, QovHostLogLine *out);
QOV_PLAT_API void QovHostLogClear(void);

/* ---- Journal of platform calls ----
 * Journaled: COMP_GetVTable and the orchpub entries, eventfd_s, every QOV_EAL_,
 * QOV_CHAN_, QOV_EPOLL_, QOV_TIMER_ and QOV_ENTRY_ operation. The hash table
 * and tree operations are not journaled (they are the hot path) but can fail
 * on demand. */
#define QOV_HOST_CALL_ARGS 8u
#define QOV_HOST_CALL_REC 256u
typedef struct QovHostCall {
    char op[48];
    uint32_t argc;
    uint64_t arg[QOV_HOST_CALL_ARGS]; /* integer and pointer arguments, in order */
    char str[48];                     /* the string argument, when the call has one */
    uint32_t recLen;                  /* bytes of the record(s) handed over */
    uint8_t rec[QOV_HOST_CALL_REC];
} QovHostCall;

/* Record calls, up to 65 536 (default off). */
QOV_PLAT_API void QovHostJournalEnable(int on);
QOV_PLAT_API uint32_t QovHostJournalCount(void);
/* Copies call i; 0 on success, -1 when i is out of range. */
QOV_PLAT_API int QovHostJournalGet(uint32_t i, QovHostCall *out);
/* Index of the first call of op at or after from; UINT32_MAX when none. */
QOV_PLAT_API uint32_t QovHostJournalFind(const char *op, uint32_t from);
/* Number of journaled calls of op. */
QOV_PLAT_API uint32_t QovHostJournalCountOf(const char *op);
QOV_PLAT_API void QovHostJournalClear(void);

/* ---- Failure on demand ----
 * The next `times` calls of the named operation fail with `result` (an
 * operation returning a pointer returns null instead). Names are the
 * operations' own, plus "getOrchIdBySlotAndCpu" for the orchpub entry 18.
 * COMP_GetVTable failed with result 0 returns 0 and a null table. */
QOV_PLAT_API void QovHostFailNext(const char *op, uint32_t times, int64_t result);
QOV_PLAT_API void QovHostFailClear(void);

/* ---- Identity of the process ---- */
/* The role: QovHostSetRoleMb in qov_host_api.h (default 1). */
QOV_PLAT_API void QovHostSetSlot(uint32_t slot);   /* default 1 */
QOV_PLAT_API void QovHostSetCpu(uint32_t cpu);     /* default 0 */
QOV_PLAT_API void QovHostSetOrchId(uint32_t orchId); /* default 0 */
/* Whether orchpub entry 18 (getOrchIdBySlotAndCpu) is present (default 1). */
QOV_PLAT_API void QovHostSetOrchIdEntry(int present);

/* Clears the log, the journal and the failures, and restores the defaults. */
QOV_PLAT_API void QovHostReset(void);

/* ---- Epoll sets (libqov_utils_eal) ----
 * Waits up to timeoutMs for the epoll set and dispatches what is ready on the
 * calling thread; returns the number of callbacks run, -1 on error. Use it
 * only on a set that no EAL thread is serving. */
QOV_PLAT_API int32_t QovHostEpollRunOnce(int32_t epFd, int32_t timeoutMs);

/* ---- EAL instances: what was registered, and how it runs ----
 * Each row is a snapshot; 0 on success, -1 for an unknown instance or an
 * index out of range. */
typedef struct QovHostThreadRow {
    QOV_EAL_ThreadPara para; /* the record as registered (zero when not) */
    uint32_t registered;
    uint32_t running;        /* 1 between QOV_EAL_Start and QOV_EAL_Destroy */
    int32_t tid;             /* the kernel's id of the running thread, else 0 */
    uint32_t rsv;
} QovHostThreadRow;
QOV_PLAT_API int QovHostThreadGet(void *eal, uint32_t kind, QovHostThreadRow *out);

/* Connection states of a channel or a sync-group link. */
#define QOV_HOST_LINK_IDLE 0u    /* not started, or no link set up */
#define QOV_HOST_LINK_WAIT 1u    /* waiting to (re)connect, or listening */
#define QOV_HOST_LINK_UP 2u
typedef struct QovHostChanRow {
    QOV_EAL_ChanPara para;
    uint32_t registered;
    uint32_t pressed;
    uint32_t state;          /* QOV_HOST_LINK_ */
    uint32_t connects;       /* connections made */
    uint64_t framesIn;       /* frames read */
    uint64_t framesRefused;  /* frames the receive function returned non-zero for */
    uint64_t framesBad;      /* frames dropped for magic or length */
    uint32_t presses;        /* QOV_CHAN_BackPress calls that succeeded */
    uint32_t releases;       /* QOV_CHAN_UnBackPress calls that succeeded */
} QovHostChanRow;
QOV_PLAT_API int QovHostChanGet(void *eal, uint32_t chanIdx, QovHostChanRow *out);

typedef struct QovHostSyncRow {
    QOV_EAL_SyncGrpItem item;
    QOV_EAL_SyncGrpFlowCtl flowCtl;
    uint64_t msgSet;
    uint32_t registered;
    uint32_t flowCtlSet;
    uint32_t msgSetSet;
    uint32_t pressed;
    uint32_t state;          /* QOV_HOST_LINK_ */
    uint32_t rsv;
    uint64_t sent;           /* frames sent by QOV_EAL_SyncMsg */
    uint64_t delivered;      /* frames handed to the receive function */
} QovHostSyncRow;
QOV_PLAT_API int QovHostSyncGet(void *eal, uint32_t grpId, QovHostSyncRow *out);

typedef struct QovHostModRow {
    uint64_t modStateRsp;    /* as given to QOV_EAL_RegModStateRsp */
    uint32_t modStateRspArg;
    uint32_t modStateSet;
    uint32_t rsvPortPara0;   /* as given to QOV_EAL_ReservePort */
    uint32_t rsvPortPara1;
    uint32_t rsvPortSet;
    uint32_t rsv;
} QovHostModRow;
QOV_PLAT_API int QovHostModGet(void *eal, QovHostModRow *out);

/* The bound on a frame's body (QOV_HOST_FRAME_MAX_DEFAULT at first). A
 * connection uses the bound in force when it was made. Values of 0 or over
 * QOV_HOST_FRAME_MAX_LIMIT are refused with -1. */
QOV_PLAT_API int QovHostSetFrameMax(uint32_t maxBody);
QOV_PLAT_API uint32_t QovHostFrameMax(void);

/* ---- Smoothing brackets (libqov_utils_smooth) ----
 * The smoothing entries count, per table (the class record's first word) and
 * bracket kind, the begins not yet closed by an end: VRF state begin/end, VRF
 * data begin/end (with or without batch type), LR data begin/end. Not cleared
 * by QovHostReset (another library): call QovHostSmoothReset. */
#define QOV_HOST_SMOOTH_VRF_STATE 0u
#define QOV_HOST_SMOOTH_VRF_DATA 1u
#define QOV_HOST_SMOOTH_LR_DATA 2u
/* Begins minus ends: 0 balanced, above 0 open, below 0 an end without its
 * begin (each such end is logged under "QOV_SMOOTH"). */
QOV_PLAT_API int32_t QovHostSmoothOpen(uint32_t tableId, uint32_t kind);
/* Number of (table, kind) brackets that do not balance. */
QOV_PLAT_API uint32_t QovHostSmoothUnbalanced(void);
QOV_PLAT_API void QovHostSmoothReset(void);

#ifdef __cplusplus
}
#endif

#endif
