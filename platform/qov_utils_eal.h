/* Operations of the platform's execution abstraction layer (libqov_utils_eal)
 * that libqov_autosync_orch calls, and the records exchanged with it. All
 * records are little-endian with the layouts given; u32 results are 0 for
 * success unless said otherwise. */
#ifndef QOV_UTILS_EAL_H
#define QOV_UTILS_EAL_H

#include <stdint.h>
#include "qov_utils_base.h"

#ifdef __cplusplus
#include <cstddef>
#define QOV_EAL_STATIC_ASSERT(c, m) static_assert(c, m)
extern "C" {
#else
#include <stddef.h>
#define QOV_EAL_STATIC_ASSERT(c, m) _Static_assert(c, m)
#endif

typedef void *(*QOV_EAL_MEM_ALLOC)(uint32_t size);
typedef void (*QOV_EAL_MEM_FREE)(void *ptr);

/* EAL creation record (40 bytes). */
typedef struct QOV_EAL_CreatePara {
    uint32_t orchId;
    uint32_t createWord0;
    uint32_t createWord1;
    uint32_t rsv0;
    QOV_EAL_MEM_ALLOC memAlloc;
    QOV_EAL_MEM_FREE memFree;
    uint64_t rsv1;
} QOV_EAL_CreatePara;
QOV_EAL_STATIC_ASSERT(sizeof(QOV_EAL_CreatePara) == 40, "EAL creation record is 40 bytes");
QOV_EAL_STATIC_ASSERT(offsetof(QOV_EAL_CreatePara, createWord0) == 4 && offsetof(QOV_EAL_CreatePara, createWord1) == 8,
                      "creation words at 4 and 8");
QOV_EAL_STATIC_ASSERT(offsetof(QOV_EAL_CreatePara, memAlloc) == 16 && offsetof(QOV_EAL_CreatePara, memFree) == 24,
                      "memory functions at 16 and 24");

/* Thread kinds, which are also the epoll indexes of QOV_EAL_GetEpollFd. */
#define QOV_EAL_THREAD_DATA 0u
#define QOV_EAL_THREAD_SYNC 1u
#define QOV_EAL_THREAD_EVENT 2u
#define QOV_EAL_THREAD_KIND_NUM 3u

/* EAL thread record (40 bytes). */
typedef struct QOV_EAL_ThreadPara {
    uint32_t threadId;
    char threadName[32];
    uint32_t threadAttr;
} QOV_EAL_ThreadPara;
QOV_EAL_STATIC_ASSERT(sizeof(QOV_EAL_ThreadPara) == 40, "EAL thread record is 40 bytes");
QOV_EAL_STATIC_ASSERT(offsetof(QOV_EAL_ThreadPara, threadName) == 4, "thread name at 4");
QOV_EAL_STATIC_ASSERT(offsetof(QOV_EAL_ThreadPara, threadAttr) == 36, "thread attribute at 36");

/* Unicast channel parameter record (192 bytes). */
typedef struct QOV_EAL_ChanPara {
    uint32_t chanIdx;
    uint32_t word4;
    char chanName[32];
    uint8_t rsv40[32];
    uint32_t word72;
    uint32_t chanThreadId;
    uint32_t word80;
    uint32_t rsv84;
    uint32_t (*serverAddrFunc)(void); /* server IPv4 address, network byte order */
    uint64_t word96;
    uint32_t rsv104;
    uint16_t serverPort;              /* network byte order */
    uint16_t rsv110;
    uint64_t rsv112;
    uint32_t word120;
    uint32_t rsv124;
    uint64_t chanUsrData;
    uint8_t rsv136[56];
} QOV_EAL_ChanPara;
QOV_EAL_STATIC_ASSERT(sizeof(QOV_EAL_ChanPara) == 192, "channel record is 192 bytes");
QOV_EAL_STATIC_ASSERT(offsetof(QOV_EAL_ChanPara, word4) == 4, "word at 4");
QOV_EAL_STATIC_ASSERT(offsetof(QOV_EAL_ChanPara, chanName) == 8, "channel name at 8");
QOV_EAL_STATIC_ASSERT(offsetof(QOV_EAL_ChanPara, word72) == 72, "word at 72");
QOV_EAL_STATIC_ASSERT(offsetof(QOV_EAL_ChanPara, chanThreadId) == 76, "chanThreadId at 76");
QOV_EAL_STATIC_ASSERT(offsetof(QOV_EAL_ChanPara, word80) == 80, "word at 80");
QOV_EAL_STATIC_ASSERT(offsetof(QOV_EAL_ChanPara, serverAddrFunc) == 88, "server address function at 88");
QOV_EAL_STATIC_ASSERT(offsetof(QOV_EAL_ChanPara, word96) == 96, "word at 96");
QOV_EAL_STATIC_ASSERT(offsetof(QOV_EAL_ChanPara, serverPort) == 108, "server port at 108");
QOV_EAL_STATIC_ASSERT(offsetof(QOV_EAL_ChanPara, word120) == 120, "word at 120");
QOV_EAL_STATIC_ASSERT(offsetof(QOV_EAL_ChanPara, chanUsrData) == 128, "user value at 128");

/* Sync-group item (64 bytes). */
typedef struct QOV_EAL_SyncGrpItem {
    uint32_t grpId;
    uint32_t word1;
    uint32_t word2;
    uint32_t logicThreadId;
    uint32_t commThreadId;
    uint32_t word5;
    uint32_t word6;
    uint32_t word7;
    uint32_t word8;
    uint32_t word9;
    uint32_t verifyInterval;
    uint32_t word11;
    uint32_t word12;
    uint32_t word13;
    void (*notifyFunc)(void);
} QOV_EAL_SyncGrpItem;
QOV_EAL_STATIC_ASSERT(sizeof(QOV_EAL_SyncGrpItem) == 64, "sync-group item is 64 bytes");
QOV_EAL_STATIC_ASSERT(offsetof(QOV_EAL_SyncGrpItem, logicThreadId) == 12, "logicThreadId at 12");
QOV_EAL_STATIC_ASSERT(offsetof(QOV_EAL_SyncGrpItem, commThreadId) == 16, "commThreadId at 16");
QOV_EAL_STATIC_ASSERT(offsetof(QOV_EAL_SyncGrpItem, verifyInterval) == 40, "verifyInterval at 40");
QOV_EAL_STATIC_ASSERT(offsetof(QOV_EAL_SyncGrpItem, notifyFunc) == 56, "notifyFunc at 56");

/* Sync-group flow-control record (48 bytes), the EAL's own content. */
typedef struct QOV_EAL_SyncGrpFlowCtl {
    uint32_t word[12];
} QOV_EAL_SyncGrpFlowCtl;
QOV_EAL_STATIC_ASSERT(sizeof(QOV_EAL_SyncGrpFlowCtl) == 48, "flow-control record is 48 bytes");

/* ---- Instance lifecycle ---- */
QOV_PLAT_API void *QOV_EAL_Create(const char *name, const QOV_EAL_CreatePara *para);
QOV_PLAT_API uint32_t QOV_EAL_Init(void *eal);
QOV_PLAT_API uint32_t QOV_EAL_Start(void *eal);
QOV_PLAT_API uint32_t QOV_EAL_SetOndemandParam(void *eal, uint64_t value);
QOV_PLAT_API uint32_t QOV_EAL_ModInitOk(void *eal);
/* The epoll descriptor served by the thread of the given kind; -1 for none. */
QOV_PLAT_API int32_t QOV_EAL_GetEpollFd(void *eal, uint32_t epollIdx);
QOV_PLAT_API void QOV_EAL_Destroy(void *eal);

/* ---- Registration ---- */
QOV_PLAT_API uint32_t QOV_EAL_RegModStateRsp(void *eal, uint64_t modStateRsp, uint32_t modStateRspArg);
QOV_PLAT_API uint32_t QOV_EAL_ReservePort(void *eal, uint32_t para0, uint32_t para1);
QOV_PLAT_API uint32_t QOV_EAL_RegThread(void *eal, const QOV_EAL_ThreadPara *threads, uint32_t num);
QOV_PLAT_API uint32_t QOV_EAL_RegUcChannel(void *eal, const QOV_EAL_ChanPara *para, uint32_t num);
/* Non-zero when this process runs in the MB role. */
QOV_PLAT_API uint32_t QOV_EAL_SelfRoleIsMb(void *eal);
/* The channel registered under a channel index, or null. */
QOV_PLAT_API void *QOV_EAL_GetChannelHdl(void *eal, uint32_t chanIdx);

/* ---- Sync groups ---- */
QOV_PLAT_API uint32_t QOV_EAL_RegSyncGroup(void *eal, const QOV_EAL_SyncGrpItem *items, uint32_t num);
QOV_PLAT_API uint32_t QOV_EAL_RegSyncGrpMsgSet(void *eal, uint32_t grpId, uint64_t msgSet);
QOV_PLAT_API uint32_t QOV_EAL_SetSyncGrpFlowCtl(void *eal, uint32_t grpId, const QOV_EAL_SyncGrpFlowCtl *flowCtl);
QOV_PLAT_API uint32_t QOV_EAL_SyncMsg(void *eal, uint32_t grpId, void *data, uint32_t count);
QOV_PLAT_API uint32_t QOV_EAL_IsSyncReadyOnlyTarn(void *eal, uint32_t grpId);
QOV_PLAT_API uint32_t QOV_EAL_SyncBackPress(void *eal, uint32_t grpId);
QOV_PLAT_API uint32_t QOV_EAL_SyncUnBackPress(void *eal, uint32_t grpId);

/* ---- Channels ---- */
QOV_PLAT_API uint32_t QOV_CHAN_USendMsg(void *chan, uint32_t ipAddr, uint32_t flags, void *buf, uint32_t len);
QOV_PLAT_API uint32_t QOV_CHAN_BackPress(void *chan);
QOV_PLAT_API uint32_t QOV_CHAN_UnBackPress(void *chan);

/* ---- Epoll sets and timers ----
 * The loop of an epoll set calls the callback on its own thread, with the
 * descriptor, the ready events and the user data, whenever the descriptor is
 * ready. QOV_EPOLL_DEL returns only when no call for that descriptor is still
 * running on another thread. */
#define QOV_EPOLL_IN 1u
typedef uint32_t (*QOV_EPOLL_CALLBACK)(int32_t fd, uint32_t events, void *usrData);
QOV_PLAT_API uint32_t QOV_EPOLL_Add(int32_t epFd, int32_t fd, uint32_t events, QOV_EPOLL_CALLBACK callback,
                                    void *usrData);
QOV_PLAT_API uint32_t QOV_EPOLL_DEL(int32_t epFd, int32_t fd);

/* Periodic timer in an epoll set: timerWord is the period in milliseconds
 * (non-zero), timerVal0 the address of a function void (*)(uint64_t) to call
 * on each expiry (0 for none) and timerVal1 its argument. Returns the timer's
 * descriptor, negative on failure. */
typedef void (*QOV_TIMER_CALLBACK)(uint64_t usrData);
QOV_PLAT_API int32_t QOV_TIMER_Create(uint32_t timerWord, uint64_t timerVal0, uint64_t timerVal1, int32_t epFd);

#ifdef __cplusplus
}
#endif

#endif
