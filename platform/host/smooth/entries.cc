// Smoothing entry points: each journals the class record it is handed.
#include "host_internal.h"
#include "qov_utils_smooth.h"

namespace {

// Record lengths of the classes, as the library builds them.
constexpr uint32_t kClassState = 12, kVrfState = 72, kVrfClass = 24, kPidState = 12, kLrClass = 8;

uint32_t Entry(const char *op, void *rec, uint32_t len, std::initializer_list<uint64_t> extra = {}) {
    uint64_t args[4] = {qovhost::U(rec)};
    uint32_t n = 1;
    for (uint64_t a : extra) args[n++] = a;
    QovHostJournalRecord(op, args, n, nullptr, rec, rec != nullptr ? len : 0);
    int64_t r = 0;
    if (qovhost::Fail(op, &r)) return static_cast<uint32_t>(r);
    return rec != nullptr ? 0 : 1;
}

}  // namespace

extern "C" {

QOV_PLAT_API uint32_t QOV_ENTRY_ProcVrfStateBegin(void *rec) {
    return Entry("QOV_ENTRY_ProcVrfStateBegin", rec, kClassState);
}
QOV_PLAT_API uint32_t QOV_ENTRY_ProcVrfStateEnd(void *rec, QOV_ENTRY_MEM_ALLOC memAlloc, QOV_ENTRY_MEM_FREE memFree) {
    return Entry("QOV_ENTRY_ProcVrfStateEnd", rec, kClassState,
                 {qovhost::U(reinterpret_cast<void *>(memAlloc)), qovhost::U(reinterpret_cast<void *>(memFree))});
}
QOV_PLAT_API uint32_t QOV_ENTRY_ProcVrfState(void *rec) { return Entry("QOV_ENTRY_ProcVrfState", rec, kVrfState); }
QOV_PLAT_API uint32_t QOV_ENTRY_ProcVrfDataBegin(void *rec) {
    return Entry("QOV_ENTRY_ProcVrfDataBegin", rec, kVrfClass);
}
QOV_PLAT_API uint32_t QOV_ENTRY_ProcVrfDataEnd(void *rec) { return Entry("QOV_ENTRY_ProcVrfDataEnd", rec, kVrfClass); }
QOV_PLAT_API uint32_t QOV_ENTRY_ProcVrfDataBeginWithType(void *rec, uint32_t batchType) {
    return Entry("QOV_ENTRY_ProcVrfDataBeginWithType", rec, kVrfClass, {batchType});
}
QOV_PLAT_API uint32_t QOV_ENTRY_ProcVrfDataEndWithType(void *rec, uint32_t batchType) {
    return Entry("QOV_ENTRY_ProcVrfDataEndWithType", rec, kVrfClass, {batchType});
}
QOV_PLAT_API uint32_t QOV_ENTRY_ProcPidState(void *rec) { return Entry("QOV_ENTRY_ProcPidState", rec, kPidState); }
QOV_PLAT_API uint32_t QOV_ENTRY_ProcLrDataBegin(void *rec) { return Entry("QOV_ENTRY_ProcLrDataBegin", rec, kLrClass); }
QOV_PLAT_API uint32_t QOV_ENTRY_ProcLrDataEnd(void *rec) { return Entry("QOV_ENTRY_ProcLrDataEnd", rec, kLrClass); }
QOV_PLAT_API uint32_t QOV_ENTRY_ProcLrDataBeginWithType(void *rec, uint32_t batchType) {
    return Entry("QOV_ENTRY_ProcLrDataBeginWithType", rec, kLrClass, {batchType});
}
QOV_PLAT_API uint32_t QOV_ENTRY_ProcLrDataEndWithType(void *rec, uint32_t batchType) {
    return Entry("QOV_ENTRY_ProcLrDataEndWithType", rec, kLrClass, {batchType});
}

}  // extern "C"
