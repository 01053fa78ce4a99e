/* Smoothing: the two forms of a table's smoothing callback, the smoothing TLV
 * header and the class records that the callbacks and the platform's
 * smoothing entries receive. All words are little-endian. */
#ifndef QOV_AS_SMOOTH_H
#define QOV_AS_SMOOTH_H

#include <stddef.h>
#include <stdint.h>
#include "qov_as_log.h"

QOV_AS_EXTERN_C_BEGIN

/* Four-argument form: (tableId, TLV type, class record or null, record length). */
typedef uint32_t (*ASOrchSmoothFunc)(uint32_t tableId, uint32_t tlvType, void *rec, uint32_t recLen);
/* Five-argument form, with the batch type. */
typedef uint32_t (*ASOrchSmoothWithTypeFunc)(uint32_t tableId, uint32_t batchType, uint32_t tlvType,
                                             void *rec, uint32_t recLen);

/* Head of one smoothing TLV inside the value of a transfer TLV; class words
 * follow up to `length` bytes (the head included). */
typedef struct ASOrchSmoothTlvHead {
    uint32_t optType; /* 0..206 */
    uint32_t length;  /* the fixed length of optType */
    uint32_t tableId;
} ASOrchSmoothTlvHead;

QOV_AS_STATIC_ASSERT(sizeof(ASOrchSmoothTlvHead) == 12, "ASOrchSmoothTlvHead layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchSmoothTlvHead, length) == 4, "ASOrchSmoothTlvHead layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchSmoothTlvHead, tableId) == 8, "ASOrchSmoothTlvHead layout");

/* Class records: the TLV's bytes from its tableId on, then zero bytes. */

/* Class state, types 7 (begin) and 8 (end); TLV length 16. */
typedef struct ASOrchSmoothClassStateRec {
    uint32_t tableId;
    uint32_t word;
    uint32_t zero;
} ASOrchSmoothClassStateRec;

QOV_AS_STATIC_ASSERT(sizeof(ASOrchSmoothClassStateRec) == 12, "ASOrchSmoothClassStateRec layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchSmoothClassStateRec, word) == 4, "ASOrchSmoothClassStateRec layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchSmoothClassStateRec, zero) == 8, "ASOrchSmoothClassStateRec layout");

/* VRF state, type 9; TLV length 32. */
typedef struct ASOrchSmoothVrfStateRec {
    uint32_t tableId;
    uint32_t word[5];
    uint8_t zero[48];
} ASOrchSmoothVrfStateRec;

QOV_AS_STATIC_ASSERT(sizeof(ASOrchSmoothVrfStateRec) == 72, "ASOrchSmoothVrfStateRec layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchSmoothVrfStateRec, word) == 4, "ASOrchSmoothVrfStateRec layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchSmoothVrfStateRec, zero) == 24, "ASOrchSmoothVrfStateRec layout");

/* VRF class data, types 10 (begin) and 11 (end); TLV length 28. */
typedef struct ASOrchSmoothVrfClassRec {
    uint32_t tableId;
    uint32_t word;
    uint8_t data[8];
    uint32_t word2;
    uint32_t zero;
} ASOrchSmoothVrfClassRec;

QOV_AS_STATIC_ASSERT(sizeof(ASOrchSmoothVrfClassRec) == 24, "ASOrchSmoothVrfClassRec layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchSmoothVrfClassRec, data) == 8, "ASOrchSmoothVrfClassRec layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchSmoothVrfClassRec, word2) == 16, "ASOrchSmoothVrfClassRec layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchSmoothVrfClassRec, zero) == 20, "ASOrchSmoothVrfClassRec layout");

/* PID state, type 15; TLV length 20. */
typedef struct ASOrchSmoothPidStateRec {
    uint32_t tableId;
    uint32_t word[2];
} ASOrchSmoothPidStateRec;

QOV_AS_STATIC_ASSERT(sizeof(ASOrchSmoothPidStateRec) == 12, "ASOrchSmoothPidStateRec layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchSmoothPidStateRec, word) == 4, "ASOrchSmoothPidStateRec layout");

/* LR class data, types 16 (begin) and 17 (end); TLV length 16. Handed to the
 * platform entry only: the callbacks get null and 0. */
typedef struct ASOrchSmoothLrClassRec {
    uint32_t tableId;
    uint32_t word;
} ASOrchSmoothLrClassRec;

QOV_AS_STATIC_ASSERT(sizeof(ASOrchSmoothLrClassRec) == 8, "ASOrchSmoothLrClassRec layout");
QOV_AS_STATIC_ASSERT(offsetof(ASOrchSmoothLrClassRec, word) == 4, "ASOrchSmoothLrClassRec layout");

QOV_AS_EXTERN_C_END

#endif
