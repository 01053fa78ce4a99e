/* Inbound table messages: the descriptors of the receive and transfer table
 * messages an orchestrator accepts, their registry, and the intake of the
 * messages of the broker's data channel.
 *
 * Rules:
 * 1. Descriptors are copied at registration; the caller's arrays are not
 *    referenced afterwards. Registered ids stay registered for the handle's
 *    life: a second registration of an id fails.
 * 2. Table messages are registered only in a process that the platform reports
 *    in the MB role; elsewhere registration succeeds and registers nothing, and
 *    every receive message is dropped as unknown.
 * 3. A received message and its body stay the caller's; the library keeps no
 *    pointer into them once ASOrchMsgProc returns. The body is not read-only
 *    to the library, though: a transfer message's smoothing run has its first
 *    smoothing TLV's type word rewritten in place (see ASOrchMsgProc).
 * 4. Feed ASOrchMsgProc from the thread that serves the broker's data channel
 *    (the Data thread), and stop feeding a handle before destroying it. */
#ifndef QOV_AS_INBOUND_H
#define QOV_AS_INBOUND_H

#include <stddef.h>
#include <stdint.h>
#include "qov_as_log.h"
#include "qov_as_smooth.h"

QOV_AS_EXTERN_C_BEGIN

typedef struct ASOrchHandle ASOrchHandle;

/* A caller-owned array of receive (ASOrchRecvTblMsg) or transfer
 * (ASOrchTransTblMsg) descriptors; in use when num is non-zero and tblMsg is
 * non-null. */
typedef struct ASOrchTblMsgList {
    void *tblMsg;  /* first descriptor, or null */
    uint32_t num;  /* number of descriptors */
} ASOrchTblMsgList;

QOV_AS_STATIC_ASSERT(sizeof(ASOrchTblMsgList) == 16, "ASOrchTblMsgList layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchTblMsgList, num) == 8, "ASOrchTblMsgList layout");

/* ---- Receive table messages ---- */

/* What an unpack function decodes from a serialised body: num consecutive
 * entries of the registered ipcSize, valid until the matching unpackFree. */
typedef struct ASOrchUnpackRes {
    uint32_t opType;  /* must equal the registered opType */
    uint32_t num;
    void *entries;
} ASOrchUnpackRes;

QOV_AS_STATIC_ASSERT(sizeof(ASOrchUnpackRes) == 16, "ASOrchUnpackRes layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchUnpackRes, num) == 4, "ASOrchUnpackRes layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchUnpackRes, entries) == 8, "ASOrchUnpackRes layout");

/* Last argument of a user-defined handler. */
typedef struct ASOrchUserDefInfo {
    uint32_t version;    /* the message's current version */
    uint32_t mergeType;  /* the registered merge type */
    uint64_t reserved;   /* 0 */
} ASOrchUserDefInfo;

QOV_AS_STATIC_ASSERT(sizeof(ASOrchUserDefInfo) == 16, "ASOrchUserDefInfo layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchUserDefInfo, mergeType) == 4, "ASOrchUserDefInfo layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchUserDefInfo, reserved) == 8, "ASOrchUserDefInfo layout");

/* Must fill all three fields of res on every call; its result is not used. */
typedef uint32_t (*ASOrchUnpackFunc)(void *data, uint32_t len, ASOrchUnpackRes *res);
typedef void (*ASOrchUnpackFreeFunc)(ASOrchUnpackRes *res);
/* Receives all entries of one message at once; 0 for success. */
typedef uint32_t (*ASOrchUserDefProcFunc)(ASOrchHandle *hdl, void *entries, uint32_t num, ASOrchUserDefInfo *info);

/* One receive table message. */
typedef struct ASOrchRecvTblMsg {
    uint32_t mergeMsgId;              /* msgId of the merge vectors built from it */
    uint32_t msgId;                   /* IPC message id */
    uint32_t opType;                  /* op type unpack must report */
    ASOrchUnpackFunc unpack;          /* null: the body is unserialised */
    ASOrchUnpackFreeFunc unpackFree;  /* required when unpack is set */
    uint32_t ipcSize;                 /* bytes per entry */
    uint32_t mergeType;               /* see qov_as_merge.h */
    ASOrchUserDefProcFunc userDefProc; /* non-null: bypasses the merge layer */
    uint32_t mergeOp;                 /* non-zero: entries merge with opType 1, else 0 */
    uint32_t keySize;                 /* leading bytes of an entry that form its key */
} ASOrchRecvTblMsg;

QOV_AS_STATIC_ASSERT(sizeof(ASOrchRecvTblMsg) == 56, "ASOrchRecvTblMsg layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchRecvTblMsg, msgId) == 4, "ASOrchRecvTblMsg layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchRecvTblMsg, opType) == 8, "ASOrchRecvTblMsg layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchRecvTblMsg, unpack) == 16, "ASOrchRecvTblMsg layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchRecvTblMsg, unpackFree) == 24, "ASOrchRecvTblMsg layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchRecvTblMsg, ipcSize) == 32, "ASOrchRecvTblMsg layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchRecvTblMsg, mergeType) == 36, "ASOrchRecvTblMsg layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchRecvTblMsg, userDefProc) == 40, "ASOrchRecvTblMsg layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchRecvTblMsg, mergeOp) == 48, "ASOrchRecvTblMsg layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchRecvTblMsg, keySize) == 52, "ASOrchRecvTblMsg layout");

/* ---- Transfer table messages ---- */

/* Last argument of a table handler. */
typedef struct ASOrchTblMsgInfo {
    uint32_t version;   /* the table's current version */
    uint32_t tblParam;  /* the registered tblParam */
    uint32_t tlvType;   /* 1, 2, 18 or 19 */
} ASOrchTblMsgInfo;

QOV_AS_STATIC_ASSERT(sizeof(ASOrchTblMsgInfo) == 12, "ASOrchTblMsgInfo layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchTblMsgInfo, tblParam) == 4, "ASOrchTblMsgInfo layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchTblMsgInfo, tlvType) == 8, "ASOrchTblMsgInfo layout");

/* Table handler: num entries of size bytes each, valid during the call only. */
typedef uint32_t (*ASOrchTblMsgProcFunc)(ASOrchHandle *hdl, void *entries, uint32_t num, uint32_t size,
                                         ASOrchTblMsgInfo *info);

/* A smoothing callback of a transfer table. Set fn for tables registered with
 * the base registration and withType for tables registered with
 * ASOrchRegTblTrans. */
typedef union ASOrchSmoothCallback {
    ASOrchSmoothFunc fn;
    ASOrchSmoothWithTypeFunc withType;
} ASOrchSmoothCallback;

QOV_AS_STATIC_ASSERT(sizeof(ASOrchSmoothCallback) == 8, "ASOrchSmoothCallback layout");

/* One transfer table. */
typedef struct ASOrchTransTblMsg {
    uint32_t tableId;
    uint32_t tblSize;                   /* bytes per entry */
    ASOrchSmoothCallback smoothPreProc; /* before the platform's smoothing entry */
    ASOrchSmoothCallback smoothProc;    /* instead of the platform's smoothing entry */
    uint32_t tblParam;                  /* handed back in ASOrchTblMsgInfo */
    ASOrchTblMsgProcFunc tblMsgProc;    /* handler of table data */
} ASOrchTransTblMsg;

QOV_AS_STATIC_ASSERT(sizeof(ASOrchTransTblMsg) == 40, "ASOrchTransTblMsg layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchTransTblMsg, tblSize) == 4, "ASOrchTransTblMsg layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchTransTblMsg, smoothPreProc) == 8, "ASOrchTransTblMsg layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchTransTblMsg, smoothProc) == 16, "ASOrchTransTblMsg layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchTransTblMsg, tblParam) == 24, "ASOrchTransTblMsg layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchTransTblMsg, tblMsgProc) == 32, "ASOrchTransTblMsg layout");

/* The registry's records of a receive and a transfer table message; opaque. */
typedef struct TblMsgCtrlRecv TblMsgCtrlRecv;
typedef struct TblMsgCtrlTrans TblMsgCtrlTrans;

/* Registers transfer tables at run time into the path dataPath (0 DAM,
 * non-zero FES). Tables before a failing one stay registered. */
QOV_AS_API uint32_t ASOrchRegTblTrans(ASOrchHandle *hdl, uint32_t dataPath, const ASOrchTransTblMsg *tbl,
                                      uint32_t num);
/* The registry's record of a receive message id or a transfer table id, or null. */
QOV_AS_API TblMsgCtrlRecv *ASOrchGetTblMsgRecv(ASOrchHandle *hdl, uint32_t msgId);
QOV_AS_API TblMsgCtrlTrans *ASOrchGetTblMsgTrans(ASOrchHandle *hdl, uint32_t tableId);
/* Raises the version of a receive message id or a transfer table id by one
 * (wrapping to 0) and stores the new value; 1 for an unknown id. Messages handled
 * afterwards carry the new version. */
QOV_AS_API uint32_t ASOrchIncTblMsgVersion(ASOrchHandle *hdl, uint32_t msgId, uint32_t *version);
QOV_AS_API uint32_t ASOrchIncTransTblMsgVersion(ASOrchHandle *hdl, uint32_t tableId, uint32_t *version);

/* ---- Intake ---- */

/* A message received on the broker's data channel. */
typedef struct ASOrchIpcMsg {
    void *body;      /* must be non-null */
    uint32_t msgId;  /* 0x7F7F7F70..0x7F7F7F7F: transfer message */
    uint32_t msgLen; /* bytes of the body */
} ASOrchIpcMsg;

QOV_AS_STATIC_ASSERT(sizeof(ASOrchIpcMsg) == 16, "ASOrchIpcMsg layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchIpcMsg, msgId) == 8, "ASOrchIpcMsg layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchIpcMsg, msgLen) == 12, "ASOrchIpcMsg layout");

/* Handles one message of the broker's data channel.
 * Receive message, unserialised: an 8-byte prefix, then entries of the
 * registered ipcSize filling msgLen exactly. Serialised: decoded by the
 * registered unpack. An unknown id is dropped with result 0.
 * Transfer message: a 12-byte head whose u32 at offset 8 is the length of the
 * TLV area behind it. Each TLV is {u32 tableId, u32 tlvType, u32 tlvLen,
 * value}. The broker's length words (the area's and each tlvLen) are trusted
 * only within msgLen: nothing past msgLen bytes of the body is read, a body
 * shorter than its head is refused (result 1), and a TLV that would cross the
 * area's end or the body's end stops the walk with a log line.
 * The body is written in place: for a TLV that carries a smoothing run, the
 * first smoothing TLV's optType (the u32 at the start of the value) is
 * replaced by its remapped type before the run is dispatched. */
QOV_AS_API uint32_t ASOrchMsgProc(ASOrchHandle *hdl, const ASOrchIpcMsg *msg);

/* ---- Channel senders for table handlers ----
 * Send len bytes at buf on the broker's FES (channel 1) or DAM (channel 0)
 * data channel to 127.0.0.1; the channel's send result is returned unchanged,
 * 1 for a null handle. */
QOV_AS_API uint32_t ASOrchFesChanMsgVec(ASOrchHandle *hdl, void *buf, uint32_t len);
QOV_AS_API uint32_t ASOrchDamChanMsgVec(ASOrchHandle *hdl, void *buf, uint32_t len);

QOV_AS_EXTERN_C_END

#endif
