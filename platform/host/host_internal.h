// Shared by the three host libraries: journaling, failure on demand and the
// process identity kept by libqov_utils_base.
#ifndef QOV_HOST_INTERNAL_H
#define QOV_HOST_INTERNAL_H

#include <atomic>
#include <cstdint>
#include <initializer_list>

#include "qov_utils_base.h"

extern "C" {
QOV_PLAT_API void QovHostJournalRecord(const char *op, const uint64_t *args, uint32_t argc, const char *str,
                                       const void *rec, uint32_t recLen);
// 1 when the operation is to fail now; *result gets the failure value.
QOV_PLAT_API int QovHostFaultHit(const char *op, int64_t *result);
QOV_PLAT_API uint32_t QovHostRoleMb(void);
}

namespace qovhost {

inline uint64_t U(const void *p) { return reinterpret_cast<uintptr_t>(p); }

// Journals op with its integer/pointer arguments, an optional string and record.
inline void Journal(const char *op, std::initializer_list<uint64_t> args, const char *str = nullptr,
                    const void *rec = nullptr, uint32_t recLen = 0) {
    QovHostJournalRecord(op, args.begin(), static_cast<uint32_t>(args.size()), str, rec, recLen);
}

// Non-zero while any failure is armed: the common case costs a flag test, not a call.
QOV_PLAT_API extern std::atomic<uint32_t> g_faultsArmed;

inline bool Fail(const char *op, int64_t *result) {
    return g_faultsArmed.load(std::memory_order_relaxed) != 0 && QovHostFaultHit(op, result) != 0;
}

// The preamble of a journaled operation: journals the call, and answers true
// with *ret set when the operation is to fail now.
template <class R>
bool Enter(const char *op, std::initializer_list<uint64_t> args, R *ret) {
    Journal(op, args);
    int64_t r = 0;
    if (!Fail(op, &r)) return false;
    *ret = static_cast<R>(r);
    return true;
}

}  // namespace qovhost

#endif
