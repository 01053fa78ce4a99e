// Smoothing entry points: each journals the class record it is handed and
// keeps, per table, how many begins of each bracket kind are still open, so
// that a test can see a begin without its end (or an end without its begin).
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <utility>

#include "host_internal.h"
#include "qov_host_ctl.h"
#include "qov_utils_smooth.h"

namespace {

// Record lengths of the classes, as the library builds them.
constexpr uint32_t kClassState = 12, kVrfState = 72, kVrfClass = 24, kPidState = 12, kLrClass = 8;

struct Brackets {
    std::mutex mu;
    std::map<std::pair<uint32_t, uint32_t>, int32_t> open;  // (tableId, kind) -> begins - ends
};

Brackets &B() {
    static Brackets *b = new Brackets;  // outlives every static destructor that may still smooth
    return *b;
}

constexpr const char *kKindName[] = {"VRF state", "VRF data", "LR data"};

// Begin (+1) or end (-1) of a bracket of kind for the table in the record's
// first word. An end that finds no begin open is logged: the table's state
// between the two cannot be trusted.
void Bracket(const void *rec, uint32_t kind, int32_t step) {
    if (rec == nullptr) return;
    uint32_t tableId = 0;
    std::memcpy(&tableId, rec, sizeof(tableId));
    int32_t open;
    {
        std::lock_guard<std::mutex> lk(B().mu);
        open = B().open[{tableId, kind}] += step;
    }
    if (step < 0 && open < 0) {
        char text[128];
        std::snprintf(text, sizeof text, "smoothing %s end without a begin, table %u", kKindName[kind], tableId);
        KRT_DiagLogWrite("QOV_SMOOTH", text);
    }
}

uint32_t Entry(const char *op, void *rec, uint32_t len, std::initializer_list<uint64_t> extra = {}) {
    uint64_t args[4] = {qovhost::U(rec)};
    uint32_t n = 1;
    for (uint64_t a : extra) args[n++] = a;
    QovHostJournalRecord(op, args, n, nullptr, rec, rec != nullptr ? len : 0);
    int64_t r = 0;
    if (qovhost::Fail(op, &r)) return static_cast<uint32_t>(r);
    return rec != nullptr ? 0 : 1;
}

// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): length and kind of the platform's smoothing entries
uint32_t Begin(const char *op, void *rec, uint32_t len, uint32_t kind, std::initializer_list<uint64_t> extra = {}) {
    Bracket(rec, kind, 1);
    return Entry(op, rec, len, extra);
}

// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): length and kind of the platform's smoothing entries
uint32_t End(const char *op, void *rec, uint32_t len, uint32_t kind, std::initializer_list<uint64_t> extra = {}) {
    Bracket(rec, kind, -1);
    return Entry(op, rec, len, extra);
}

}  // namespace

extern "C" {

QOV_PLAT_API uint32_t QOV_ENTRY_ProcVrfStateBegin(void *rec) {
    return Begin("QOV_ENTRY_ProcVrfStateBegin", rec, kClassState, QOV_HOST_SMOOTH_VRF_STATE);
}
QOV_PLAT_API uint32_t QOV_ENTRY_ProcVrfStateEnd(void *rec, QOV_ENTRY_MEM_ALLOC memAlloc, QOV_ENTRY_MEM_FREE memFree) {
    return End("QOV_ENTRY_ProcVrfStateEnd", rec, kClassState, QOV_HOST_SMOOTH_VRF_STATE,
               {qovhost::U(reinterpret_cast<void *>(memAlloc)), qovhost::U(reinterpret_cast<void *>(memFree))});
}
QOV_PLAT_API uint32_t QOV_ENTRY_ProcVrfState(void *rec) { return Entry("QOV_ENTRY_ProcVrfState", rec, kVrfState); }
QOV_PLAT_API uint32_t QOV_ENTRY_ProcVrfDataBegin(void *rec) {
    return Begin("QOV_ENTRY_ProcVrfDataBegin", rec, kVrfClass, QOV_HOST_SMOOTH_VRF_DATA);
}
QOV_PLAT_API uint32_t QOV_ENTRY_ProcVrfDataEnd(void *rec) {
    return End("QOV_ENTRY_ProcVrfDataEnd", rec, kVrfClass, QOV_HOST_SMOOTH_VRF_DATA);
}
QOV_PLAT_API uint32_t QOV_ENTRY_ProcVrfDataBeginWithType(void *rec, uint32_t batchType) {
    return Begin("QOV_ENTRY_ProcVrfDataBeginWithType", rec, kVrfClass, QOV_HOST_SMOOTH_VRF_DATA, {batchType});
}
QOV_PLAT_API uint32_t QOV_ENTRY_ProcVrfDataEndWithType(void *rec, uint32_t batchType) {
    return End("QOV_ENTRY_ProcVrfDataEndWithType", rec, kVrfClass, QOV_HOST_SMOOTH_VRF_DATA, {batchType});
}
QOV_PLAT_API uint32_t QOV_ENTRY_ProcPidState(void *rec) { return Entry("QOV_ENTRY_ProcPidState", rec, kPidState); }
QOV_PLAT_API uint32_t QOV_ENTRY_ProcLrDataBegin(void *rec) {
    return Begin("QOV_ENTRY_ProcLrDataBegin", rec, kLrClass, QOV_HOST_SMOOTH_LR_DATA);
}
QOV_PLAT_API uint32_t QOV_ENTRY_ProcLrDataEnd(void *rec) {
    return End("QOV_ENTRY_ProcLrDataEnd", rec, kLrClass, QOV_HOST_SMOOTH_LR_DATA);
}
QOV_PLAT_API uint32_t QOV_ENTRY_ProcLrDataBeginWithType(void *rec, uint32_t batchType) {
    return Begin("QOV_ENTRY_ProcLrDataBeginWithType", rec, kLrClass, QOV_HOST_SMOOTH_LR_DATA, {batchType});
}
QOV_PLAT_API uint32_t QOV_ENTRY_ProcLrDataEndWithType(void *rec, uint32_t batchType) {
    return End("QOV_ENTRY_ProcLrDataEndWithType", rec, kLrClass, QOV_HOST_SMOOTH_LR_DATA, {batchType});
}

QOV_PLAT_API int32_t QovHostSmoothOpen(uint32_t tableId, uint32_t kind) {
    std::lock_guard<std::mutex> lk(B().mu);
    auto it = B().open.find({tableId, kind});
    return it == B().open.end() ? 0 : it->second;
}

QOV_PLAT_API uint32_t QovHostSmoothUnbalanced(void) {
    std::lock_guard<std::mutex> lk(B().mu);
    uint32_t n = 0;
    for (const auto &kv : B().open) n += kv.second != 0 ? 1u : 0u;
    return n;
}

QOV_PLAT_API void QovHostSmoothReset(void) {
    std::lock_guard<std::mutex> lk(B().mu);
    B().open.clear();
}

}  // extern "C"
