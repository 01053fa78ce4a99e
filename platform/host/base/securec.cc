// Bounded memory and string operations: the destination size is always
// respected, and failure is reported by the result.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "qov_utils_base.h"

namespace {

constexpr size_t kMaxDest = SIZE_MAX >> 1;  // larger sizes are taken as corrupt
constexpr int kEOverlap = 54;

bool BadDest(const void *dest, size_t destMax) { return dest == nullptr || destMax == 0 || destMax > kMaxDest; }

bool Overlap(const void *a, size_t alen, const void *b, size_t blen) {
    auto pa = reinterpret_cast<uintptr_t>(a);
    auto pb = reinterpret_cast<uintptr_t>(b);
    return pa < pb ? pb - pa < alen : pa - pb < blen;
}

}  // namespace

extern "C" {

QOV_PLAT_API int memcpy_s(void *dest, size_t destMax, const void *src, size_t count) {
    if (BadDest(dest, destMax)) return EINVAL;
    if (count == 0) return 0;
    if (src == nullptr) return EINVAL;
    if (count > destMax) return ERANGE;
    if (Overlap(dest, count, src, count)) return kEOverlap;
    std::memcpy(dest, src, count);
    return 0;
}

// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): the signature of the bounded C library call
QOV_PLAT_API int memset_s(void *dest, size_t destMax, int c, size_t count) {
    if (BadDest(dest, destMax)) return EINVAL;
    if (count > destMax) return ERANGE;
    std::memset(dest, c, count);
    return 0;
}

QOV_PLAT_API int strcpy_s(char *dest, size_t destMax, const char *src) {
    if (BadDest(dest, destMax)) return EINVAL;
    if (src == nullptr) {
        dest[0] = '\0';
        return EINVAL;
    }
    size_t len = strnlen(src, destMax);
    if (len == destMax) {  // no room for the terminator
        dest[0] = '\0';
        return ERANGE;
    }
    if (Overlap(dest, len + 1, src, len + 1)) {
        dest[0] = '\0';
        return kEOverlap;
    }
    std::memcpy(dest, src, len + 1);
    return 0;
}

QOV_PLAT_API int strcat_s(char *dest, size_t destMax, const char *src) {
    if (BadDest(dest, destMax)) return EINVAL;
    size_t dlen = strnlen(dest, destMax);
    if (src == nullptr || dlen == destMax) {
        dest[0] = '\0';
        return EINVAL;
    }
    size_t room = destMax - dlen;  // includes the terminator
    size_t slen = strnlen(src, room);
    if (slen == room) {
        dest[0] = '\0';
        return ERANGE;
    }
    if (Overlap(dest, destMax, src, slen + 1)) {
        dest[0] = '\0';
        return kEOverlap;
    }
    std::memcpy(dest + dlen, src, slen + 1);
    return 0;
}

QOV_PLAT_API int vsprintf_s(char *dest, size_t destMax, const char *format, va_list ap) {
    if (BadDest(dest, destMax)) return -1;
    if (format == nullptr) {
        dest[0] = '\0';
        return -1;
    }
    int n = std::vsnprintf(dest, destMax, format, ap);
    if (n < 0 || static_cast<size_t>(n) >= destMax) {
        dest[0] = '\0';
        return -1;
    }
    return n;
}

QOV_PLAT_API int sprintf_s(char *dest, size_t destMax, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    int n = vsprintf_s(dest, destMax, format, ap);
    va_end(ap);
    return n;
}

}  // extern "C"
