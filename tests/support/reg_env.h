// Base registration for the suites that need a registered handle: a record
// that every step accepts, and a destroy that tells the blocks the
// table-message registry keeps by design from a leak.
#ifndef QOV_TEST_REG_ENV_H
#define QOV_TEST_REG_ENV_H

#include <cstddef>
#include <map>

#include "qov_autosync_orch.h"
#include "support/test_env.h"

namespace qovtest {

// The merge layer's bucket function on path Path, as a queue's hash function.
template <uint32_t Path>
uint32_t MergeHash(const void *key) {
    const auto *v = static_cast<const ASOrchMergeMsgVec *>(key);
    return ASOrchMergeHashFunc(v->usrData, Path, v);
}

// Data thread, sync kind 0 (message set 0x10), the DAM channel on port
// 0x1234, one receive and one FES transfer descriptor, both merge paths with
// handlers for msgId 100 that refuse an entry whose first byte is '!'.
ASOrchBasePara ValidBase();
// A handle on the counting allocator.
ASOrchHandle *Create(const char *name);
// Destroys h. Every block taken since `before` that is still taken afterwards
// must come from the "TblMsg" step (told by the log, so keep the log from
// registration on); those are given back here.
void Destroy(ASOrchHandle *h, const std::map<void *, size_t> &before = {});

}  // namespace qovtest

#endif
