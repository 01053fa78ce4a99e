/* Smoothing: the two forms of a table's smoothing callback. */
#ifndef QOV_AS_SMOOTH_H
#define QOV_AS_SMOOTH_H

#include <stdint.h>
#include "qov_as_log.h"

QOV_AS_EXTERN_C_BEGIN

/* Four-argument form: (tableId, TLV type, class record or null, record length). */
typedef uint32_t (*ASOrchSmoothFunc)(uint32_t tableId, uint32_t tlvType, void *rec, uint32_t recLen);
/* Five-argument form, with the batch type. */
typedef uint32_t (*ASOrchSmoothWithTypeFunc)(uint32_t tableId, uint32_t batchType, uint32_t tlvType,
                                             void *rec, uint32_t recLen);

QOV_AS_EXTERN_C_END

#endif
