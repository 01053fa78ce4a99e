// The component function-table lookup, answering the orchpub table from the
// identity set through the control header.
#include <atomic>

#include "host_internal.h"

namespace qovhost {
extern std::atomic<uint32_t> g_slot;
extern std::atomic<uint32_t> g_cpu;
extern std::atomic<uint32_t> g_orchId;
extern std::atomic<int> g_orchIdEntry;
}  // namespace qovhost

namespace {

uint32_t GetSlot() { return qovhost::g_slot.load(); }
uint32_t GetCpu() { return qovhost::g_cpu.load(); }

uint32_t GetOrchIdBySlotAndCpu(uint32_t slot, uint32_t cpu, uint32_t *orchId) {
    qovhost::Journal("getOrchIdBySlotAndCpu", {slot, cpu, qovhost::U(orchId)});
    int64_t r = 0;
    if (qovhost::Fail("getOrchIdBySlotAndCpu", &r)) return static_cast<uint32_t>(r);
    if (orchId == nullptr) return 1;
    *orchId = qovhost::g_orchId.load();
    return 0;
}

constexpr unsigned kOrchPubEntries = 32;

COMP_VFUNC g_orchPub[kOrchPubEntries];
COMP_VFUNC g_orchPubNoOrchId[kOrchPubEntries];

// Both tables are filled once; entry 18 is left out of the second.
bool FillTables() {
    for (COMP_VFUNC *t : {g_orchPub, g_orchPubNoOrchId}) {
        t[ORCHPUB_VT_GET_SLOT] = reinterpret_cast<COMP_VFUNC>(&GetSlot);
        t[ORCHPUB_VT_GET_CPU] = reinterpret_cast<COMP_VFUNC>(&GetCpu);
    }
    g_orchPub[ORCHPUB_VT_GET_ORCHID] = reinterpret_cast<COMP_VFUNC>(&GetOrchIdBySlotAndCpu);
    return true;
}
const bool g_filled = FillTables();

}  // namespace

extern "C" QOV_PLAT_API uint32_t COMP_GetVTable(uint32_t compId, uint32_t subCompId, COMP_VFUNC **table) {
    qovhost::Journal("COMP_GetVTable", {compId, subCompId, qovhost::U(table)});
    if (table == nullptr) return 1;
    int64_t r = 0;
    if (qovhost::Fail("COMP_GetVTable", &r)) {
        if (r == 0) *table = nullptr;
        return static_cast<uint32_t>(r);
    }
    if (compId != COMP_ID_ORCHPUB || subCompId != COMP_SUBID_ORCHPUB || !g_filled) return 2;
    *table = qovhost::g_orchIdEntry.load() != 0 ? g_orchPub : g_orchPubNoOrchId;
    return 0;
}
