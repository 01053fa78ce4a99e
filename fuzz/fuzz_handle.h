// The registered handle the intake fuzzers (msgproc_fuzz, frames_fuzz) drive.
#ifndef QOV_FUZZ_FUZZ_HANDLE_H
#define QOV_FUZZ_FUZZ_HANDLE_H

#include "qov_autosync_orch.h"

namespace msgprocfuzz {

// Creates the handle and registers every id and table of msgproc_ids.h on it,
// with the Data thread and a DAM channel that is never started; traps when a
// step fails.
ASOrchHandle *RegisterHandle(const char *name);

}  // namespace msgprocfuzz

#endif
