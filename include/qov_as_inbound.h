/* Inbound table messages: the lists of table-message descriptors that the
 * base-registration record points to. */
#ifndef QOV_AS_INBOUND_H
#define QOV_AS_INBOUND_H

#include <stdint.h>
#include "qov_as_log.h"

QOV_AS_EXTERN_C_BEGIN

/* A caller-owned array of receive or transfer table-message descriptors. */
typedef struct ASOrchTblMsgList {
    void *tblMsg;  /* first descriptor, or null */
    uint32_t num;  /* number of descriptors */
} ASOrchTblMsgList;

QOV_AS_EXTERN_C_END

#endif
