// The module registry: the names of all live handles of the process. It is
// unprotected; callers serialise ASOrchCreate and ASOrchDestroy.
#ifndef QOV_AS_CORE_BASE_REGISTRY_H
#define QOV_AS_CORE_BASE_REGISTRY_H

#include <cstdint>

#include "qov_as_core.h"

// Whether a handle of this name is registered.
bool AutoSyncNameExisted(const char *name);
// Enters name with a node from memAlloc. 1, and nothing entered, when the
// name is taken, too long for a node, or the node cannot be allocated.
uint32_t AutoSyncAddModule(const char *name, ASOrchMemAllocFunc memAlloc);
// Removes name's node and gives it to memFree; nothing when name is absent.
void AutoSyncDelModule(const char *name, ASOrchMemFreeFunc memFree);

#endif
