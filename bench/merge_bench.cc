// Per-entry cost of a message through the merge layer: ASOrchMsgMerge into
// the DAM queue, then the Data thread's reader dispatching it to a handler
// (driven by epoll turns on the calling thread). "New" writes fresh keys;
// "Merge" writes keys that are already queued, so each write replaces an
// entry. Allocation counters: memAlloc and memFree calls per entry.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>

#include "merge/merge_internal.h"
#include "qov_host_ctl.h"

namespace {

uint64_t g_allocs = 0;
uint64_t g_frees = 0;
uint64_t g_handled = 0;

void *CountAlloc(uint32_t size) {
    ++g_allocs;
    return std::malloc(size);
}

void CountFree(void *p) {
    ++g_frees;
    std::free(p);
}

uint32_t Handler(ASOrchHandle *, ASOrchMergeMsgVec *v) {
    g_handled += v->dataSize != 0 ? 1 : 0;
    return 0;
}

uint32_t Hash(const void *key) {
    const auto *v = static_cast<const ASOrchMergeMsgVec *>(key);
    return ASOrchMergeHashFunc(v->usrData, AS_ORCH_MERGE_DAM, v);
}

ASOrchMergeMsgDispatch g_tbl[1] = {{100, {Handler, Handler, Handler, Handler}}};

// A handle with a DAM queue sized for n keys and a monitor that never trips.
ASOrchHandle *MakeHandle(uint32_t n) {
    QovHostLogEcho(0);
    QovHostLogCapture(0);
    QovHostJournalEnable(0);
    ASOrchCreatePara cp{0, 0, CountAlloc, CountFree, 0};
    ASOrchHandle *hdl = ASOrchCreate("bench", &cp);
    if (hdl == nullptr) return nullptr;
    ASOrchBasePara base{};
    base.damMerge = {g_tbl, 1, n < 8192 ? 8192 : n, Hash, 1u << 22, 0};
    if (ASOrchRegMerge(hdl, &base, AS_SYNC_GRP_ID_NONE) != 0) {
        ASOrchDestroy(hdl);
        return nullptr;
    }
    return hdl;
}

void WriteKeys(ASOrchHandle *hdl, uint32_t n, uint32_t op) {
    uint8_t item[24] = {};
    for (uint64_t i = 0; i < n; ++i) {
        std::memcpy(item, &i, sizeof i);
        ASOrchMergeMsgVec v{100, op, item, 8, item + 8, 16, 1, nullptr};
        if (ASOrchMsgMerge(hdl, AS_ORCH_MERGE_DAM, &v) != 0) std::abort();
    }
}

void ReadAll(ASOrchHandle *hdl) {
    int32_t epFd = ASOrchGetEpollFd(hdl, 0);
    while (QovHostEpollRunOnce(epFd, 0) > 0) {
    }
}

void Report(benchmark::State &state, uint64_t entries, uint64_t allocs, uint64_t frees) {
    using benchmark::Counter;
    state.counters["ns_per_entry"] = Counter(static_cast<double>(entries), Counter::kIsRate | Counter::kInvert);
    state.counters["allocs_per_entry"] = static_cast<double>(allocs) / static_cast<double>(entries);
    state.counters["frees_per_entry"] = static_cast<double>(frees) / static_cast<double>(entries);
}

void BM_NewKeys(benchmark::State &state) {
    auto n = static_cast<uint32_t>(state.range(0));
    ASOrchHandle *hdl = MakeHandle(n);
    if (hdl == nullptr) return state.SkipWithError("registration failed");
    uint64_t a0 = g_allocs, f0 = g_frees, entries = 0;
    for (auto _ : state) {
        WriteKeys(hdl, n, 0);
        ReadAll(hdl);
        entries += n;
    }
    if (g_handled < entries) state.SkipWithError("entries lost");
    Report(state, entries, g_allocs - a0, g_frees - f0);
    g_handled = 0;
    ASOrchDestroy(hdl);
}

// Each timed write meets a queued entry of the same key; the reader then
// delivers the merged entries.
void BM_Merges(benchmark::State &state) {
    auto n = static_cast<uint32_t>(state.range(0));
    ASOrchHandle *hdl = MakeHandle(n);
    if (hdl == nullptr) return state.SkipWithError("registration failed");
    uint64_t a = 0, f = 0, entries = 0;
    for (auto _ : state) {
        state.PauseTiming();
        WriteKeys(hdl, n, 1);
        uint64_t a0 = g_allocs, f0 = g_frees;
        state.ResumeTiming();
        WriteKeys(hdl, n, 0);
        ReadAll(hdl);
        a += g_allocs - a0;
        f += g_frees - f0;
        entries += n;
    }
    if (g_handled < entries) state.SkipWithError("entries lost");
    Report(state, entries, a, f);
    g_handled = 0;
    ASOrchDestroy(hdl);
}

}  // namespace

BENCHMARK(BM_NewKeys)->Arg(1 << 10)->Arg(1 << 16)->Arg(1 << 20)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Merges)->Arg(1 << 10)->Arg(1 << 16)->Arg(1 << 20)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
