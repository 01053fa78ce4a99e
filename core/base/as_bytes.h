// Copies and compares of the short byte runs that every queued entry carries
// (keys of 4 to 32 bytes, entries of up to 64), without a library call:
// copies of 8 to 64 bytes and compares of 8 to 32 go by fixed-size pieces that
// may overlap in the middle, other lengths to memcpy/memcmp.
#ifndef QOV_AS_CORE_BASE_BYTES_H
#define QOV_AS_CORE_BASE_BYTES_H

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace as_bytes_detail {
struct Piece16 {
    uint64_t w[2];
};
inline uint64_t Load8(const uint8_t *p) {
    uint64_t v;
    __builtin_memcpy(&v, p, 8);
    return v;
}
}  // namespace as_bytes_detail

// Copies of 16 to 32 and of 32 to 64 bytes as two or four 16-byte pieces.
// Every piece is loaded before any is stored, so a copy onto itself leaves
// the bytes as they were.
inline void ASCopy16To32(uint8_t *d, const uint8_t *s, size_t n) {
    as_bytes_detail::Piece16 a, b;
    __builtin_memcpy(&a, s, 16);
    __builtin_memcpy(&b, s + n - 16, 16);
    __builtin_memcpy(d, &a, 16);
    __builtin_memcpy(d + n - 16, &b, 16);
}

inline void ASCopy32To64(uint8_t *d, const uint8_t *s, size_t n) {
    as_bytes_detail::Piece16 a, b, c, e;
    __builtin_memcpy(&a, s, 16);
    __builtin_memcpy(&b, s + 16, 16);
    __builtin_memcpy(&c, s + n - 32, 16);
    __builtin_memcpy(&e, s + n - 16, 16);
    __builtin_memcpy(d, &a, 16);
    __builtin_memcpy(d + 16, &b, 16);
    __builtin_memcpy(d + n - 32, &c, 16);
    __builtin_memcpy(d + n - 16, &e, 16);
}

// dst and src do not overlap. Keys (mostly 16 bytes) are tried first.
// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): memcpy's order, which every caller writes
inline void ASCopyBytes(void *dst, const void *src, size_t n) {
    auto *d = static_cast<uint8_t *>(dst);
    const auto *s = static_cast<const uint8_t *>(src);
    if (n >= 16 && n <= 32) {
        ASCopy16To32(d, s, n);
    } else if (n > 32 && n <= 64) {
        ASCopy32To64(d, s, n);
    } else if (n >= 8 && n < 16) {
        uint64_t a = as_bytes_detail::Load8(s), b = as_bytes_detail::Load8(s + n - 8);
        __builtin_memcpy(d, &a, 8);
        __builtin_memcpy(d + n - 8, &b, 8);
    } else if (n != 0) {
        std::memcpy(d, s, n);
    }
}

// The n bytes at a and at b are equal.
// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): memcmp's order; equality is symmetric
inline bool ASBytesEqual(const void *a, const void *b, size_t n) {
    using as_bytes_detail::Load8;
    const auto *x = static_cast<const uint8_t *>(a);
    const auto *y = static_cast<const uint8_t *>(b);
    if (n >= 8 && n <= 16) return ((Load8(x) ^ Load8(y)) | (Load8(x + n - 8) ^ Load8(y + n - 8))) == 0;
    if (n > 16 && n <= 32) {
        return ((Load8(x) ^ Load8(y)) | (Load8(x + 8) ^ Load8(y + 8)) | (Load8(x + n - 16) ^ Load8(y + n - 16)) |
                (Load8(x + n - 8) ^ Load8(y + n - 8))) == 0;
    }
    return n == 0 || std::memcmp(x, y, n) == 0;
}

#endif
