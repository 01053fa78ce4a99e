/* Sync groups: the per-kind advanced settings that base registration reads. */
#ifndef QOV_AS_SYNCGRP_H
#define QOV_AS_SYNCGRP_H

#include <stdint.h>
#include "qov_as_log.h"

QOV_AS_EXTERN_C_BEGIN

/* Number of sync-group kinds (0 to 3). */
#define AS_ORCH_SYNC_GRP_KIND_NUM 4u

/* Flow-control record of a sync group: 48 bytes whose content belongs to the
 * EAL; the library copies it unchanged. */
typedef struct ASOrchSyncGrpFlowCtl {
    uint32_t word[12];
} ASOrchSyncGrpFlowCtl;

/* Notification function of a sync group, handed to the EAL unchanged. */
typedef void (*ASOrchSyncGrpNotifyFunc)(void);

QOV_AS_EXTERN_C_END

#endif
