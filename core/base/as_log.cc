// The one log function of the library.
#include <cstdarg>

#include "qov_as_log.h"
#include "qov_utils_base.h"

namespace {
constexpr char kModuleTag[] = "AUTOSYNC_ORCH";
constexpr size_t kLineMax = 256;  // 255 characters and the terminator
}  // namespace

extern "C" QOV_AS_API void QOV_AUTOSYNC_QovLog(uint32_t level, const char *format, ...) {
    (void)level;  // every level is written, and none is shown
    char line[kLineMax];
    va_list ap;
    va_start(ap, format);
    int n = vsprintf_s(line, sizeof line, format, ap);
    va_end(ap);
    if (n < 0) return;
    KRT_DiagLogWrite(kModuleTag, line);
}
