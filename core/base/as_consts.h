// Constants that more than one folder of the library names: the thread-kind
// bits of the thread mask, the "no sync group" id, the all-ones low 30 bits of
// the platform's records, and the text a null handle's name stands as.
#ifndef QOV_AS_CORE_BASE_CONSTS_H
#define QOV_AS_CORE_BASE_CONSTS_H

#include <cstdint>

#include "qov_utils_eal.h"

// Bit k of a thread mask: a thread of kind k (0 Data, 1 Sync, 2 Event).
constexpr uint32_t AS_THREAD_BIT_DATA = 1u << QOV_EAL_THREAD_DATA;
constexpr uint32_t AS_THREAD_BIT_SYNC = 1u << QOV_EAL_THREAD_SYNC;
constexpr uint32_t AS_THREAD_BIT_EVENT = 1u << QOV_EAL_THREAD_EVENT;

// The sync-group id of a kind that has no group.
constexpr uint32_t AS_SYNC_GRP_ID_NONE = 0xFFFFFFFFu;

// The low 30 bits set: a platform word the library fills with "all".
constexpr uint32_t AS_ALL_LOW30 = 0x3FFFFFFFu;

// Stands for the name of a null handle in log lines. The misspelling is the
// system's own text, kept byte for byte.
constexpr char AS_NULL_HANDLE_NAME[] = "UNKONWN";

#endif
