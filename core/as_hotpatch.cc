// Hot-patch hooks: the platform's patch framework announces activation and
// deactivation here; the reserved functions are places for patch code.
#include <cstring>

#include "core/base/as_handle.h"

namespace {
constexpr char kLibName[] = "libqov_autosync_orch.so";
constexpr uint32_t kOperActive = 0;
constexpr uint32_t kOperDeactive = 1;
}  // namespace

extern "C" {

// Empty and never inlined: patch tooling replaces their bodies.
__attribute__((noinline)) QOV_AS_API void libqov_autosync_orch_ResPatchC2hActive01(void) { __asm__ volatile(""); }
__attribute__((noinline)) QOV_AS_API void libqov_autosync_orch_ResPatchC2hActive02(void) { __asm__ volatile(""); }
__attribute__((noinline)) QOV_AS_API void libqov_autosync_orch_ResPatchC2hDeActive01(void) { __asm__ volatile(""); }
__attribute__((noinline)) QOV_AS_API void libqov_autosync_orch_ResPatchC2hDeActive02(void) { __asm__ volatile(""); }

QOV_AS_API void libqov_autosync_orch_ResPatchC2hActivefunc(void) {
    libqov_autosync_orch_ResPatchC2hActive01();
    libqov_autosync_orch_ResPatchC2hActive02();
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "libqov_autosync_orch reserved patch c2h active.");
}

QOV_AS_API void libqov_autosync_orch_ResPatchC2hDeactivefunc(void) {
    libqov_autosync_orch_ResPatchC2hDeActive01();
    libqov_autosync_orch_ResPatchC2hDeActive02();
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "libqov_autosync_orch reserved patch c2h deactive.");
}

// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): the hot-patch hook's signature is fixed by the interface
QOV_AS_API uint32_t libqov_autosync_orch_PAT_C2HSyncHookFunc(uint32_t operCode, uint64_t value,
                                                             const ASOrchPatchInfo *info, uint32_t *handled) {
    (void)value;
    if (handled != nullptr) *handled = 0;
    // Compares at most the name and its terminator: never reads further.
    if (info == nullptr || std::strncmp(info->libName, kLibName, sizeof kLibName) != 0) return 0;
    uint32_t ret = 0;
    if (operCode == kOperActive) {
        libqov_autosync_orch_ResPatchC2hActivefunc();
    } else if (operCode == kOperDeactive) {
        libqov_autosync_orch_ResPatchC2hDeactivefunc();
    } else {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "libqov_autosync_orch c2h active or deactive oper failed, operCode %d",
                            static_cast<int>(operCode));
        ret = 1;
    }
    if (handled != nullptr) *handled = 1;
    return ret;
}

}  // extern "C"
