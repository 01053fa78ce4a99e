/* libqov_autosync_orch: the auto-sync library of an orchestrator process.
 * One header for the whole external interface. */
#ifndef QOV_AUTOSYNC_ORCH_H
#define QOV_AUTOSYNC_ORCH_H

#include "qov_as_log.h"
#include "qov_as_core.h"
#include "qov_as_inbound.h"
#include "qov_mergeque.h"
#include "qov_as_merge.h"
#include "qov_as_syncgrp.h"
#include "qov_as_smooth.h"

#endif
