/* Diagnostic log of libqov_autosync_orch, and the export and linkage macros
 * that every public header of the library uses. */
#ifndef QOV_AS_LOG_H
#define QOV_AS_LOG_H

#include <stdint.h>

#ifdef __cplusplus
#define QOV_AS_EXTERN_C_BEGIN extern "C" {
#define QOV_AS_EXTERN_C_END }
#else
#define QOV_AS_EXTERN_C_BEGIN
#define QOV_AS_EXTERN_C_END
#endif

/* Marks a symbol of the library's external interface; everything else is hidden. */
#define QOV_AS_API __attribute__((visibility("default")))

/* Layout check of a record exchanged with the platform or the caller: C11's
 * _Static_assert, or static_assert when the header is read as C++. */
#ifdef __cplusplus
#define QOV_AS_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define QOV_AS_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

QOV_AS_EXTERN_C_BEGIN

/* Formats one line (at most 255 characters; a longer one is dropped) and writes
 * it to the platform's diagnostic log under the module tag "AUTOSYNC_ORCH".
 * The level (0 progress, 1 failure) is accepted and not written. */
QOV_AS_API void QOV_AUTOSYNC_QovLog(uint32_t level, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

QOV_AS_EXTERN_C_END

#endif
