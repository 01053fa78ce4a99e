// Per-entry cost of the intake: ASOrchMsgProc on receive messages of 32
// entries of 32 bytes (unserialised, merge type 0) into the DAM queue, then
// the Data thread's reader dispatching them (epoll turns on the calling
// thread); beside it the same entries written by ASOrchMsgMerge directly, the
// queue's own cost. "New" writes fresh keys, "Merge" keys that are already
// queued. A transfer message of 8 table-data TLVs gives the per-TLV cost of
// the transfer walk. Counters: memAlloc/memFree calls per entry.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "inbound/inbound_internal.h"
#include "merge/merge_internal.h"
#include "qov_host_ctl.h"
#include "support/msg_encode.h"

namespace {

constexpr uint32_t kEntries = 32;      // per message
constexpr uint32_t kEntrySize = 32;
constexpr uint32_t kKeySize = 8;
constexpr uint32_t kMessages = 256;    // per timed batch
constexpr uint32_t kRecvId = 10;
constexpr uint32_t kTransId = 0x7F7F7F70;
constexpr uint32_t kTlvs = 8;

uint64_t g_allocs = 0, g_frees = 0, g_handled = 0;

void *CountAlloc(uint32_t size) {
    ++g_allocs;
    return std::malloc(size);
}
void CountFree(void *p) {
    ++g_frees;
    std::free(p);
}

uint32_t Handler(ASOrchHandle *, ASOrchMergeMsgVec *v) {
    g_handled += v->dataSize == kEntrySize ? 1 : 0;
    return 0;
}
uint32_t TblProc(ASOrchHandle *, void *, uint32_t num, uint32_t, ASOrchTblMsgInfo *) {
    g_handled += num;
    return 0;
}
uint32_t Hash(const void *key) {
    const auto *v = static_cast<const ASOrchMergeMsgVec *>(key);
    return ASOrchMergeHashFunc(v->usrData, AS_ORCH_MERGE_DAM, v);
}

ASOrchMergeMsgDispatch g_tbl[1] = {{100, {Handler, Handler, Handler, Handler}}};
ASOrchRecvTblMsg g_recv[1] = {{100, kRecvId, 0, nullptr, nullptr, kEntrySize, 0, nullptr, 0, kKeySize}};
ASOrchTransTblMsg g_trans[1] = {{1, kEntrySize, {}, {}, 0, TblProc}};

ASOrchHandle *MakeHandle() {
    QovHostLogEcho(0);
    QovHostLogCapture(0);
    QovHostJournalEnable(0);
    ASOrchCreatePara cp{0, 0, CountAlloc, CountFree, 0};
    ASOrchHandle *hdl = ASOrchCreate("bench", &cp);
    if (hdl == nullptr) return nullptr;
    ASOrchBasePara base{};
    base.damMerge = {g_tbl, 1, 16384, Hash, 1u << 22, 0};
    base.recvTblMsgList[0] = {g_recv, 1};
    base.transTblMsgList[0] = {g_trans, 1};
    if (ASOrchRegMerge(hdl, &base, AS_SYNC_GRP_ID_NONE) != 0 || ASOrchRegTblMsg(hdl, &base) != 0) {
        ASOrchDestroy(hdl);
        return nullptr;
    }
    return hdl;
}

// kMessages receive bodies whose entries carry keys first, first + 1, ...
std::vector<qovtest::Bytes> Bodies(uint64_t first) {
    std::vector<qovtest::Bytes> out;
    for (uint32_t m = 0; m < kMessages; ++m) {
        qovtest::Bytes entries = qovtest::Entries(kEntries, kEntrySize, 0);
        for (uint32_t i = 0; i < kEntries; ++i) {
            uint64_t key = first + m * kEntries + i;
            std::memcpy(entries.data() + i * kEntrySize, &key, sizeof key);
        }
        out.push_back(qovtest::EncodeRecv(entries));
    }
    return out;
}

void ThroughIntake(ASOrchHandle *hdl, std::vector<qovtest::Bytes> &bodies) {
    for (auto &b : bodies) {
        ASOrchIpcMsg msg{b.data(), kRecvId, static_cast<uint32_t>(b.size())};
        if (ASOrchMsgProc(hdl, &msg) != 0) std::abort();
    }
}

// The same entries, each handed to the merge layer by hand.
void ThroughQueue(ASOrchHandle *hdl, std::vector<qovtest::Bytes> &bodies) {
    for (auto &b : bodies) {
        for (uint32_t i = 0; i < kEntries; ++i) {
            uint8_t *e = b.data() + 8 + i * kEntrySize;
            ASOrchMergeMsgVec v{100, 0, e, kKeySize, e, kEntrySize, 0, nullptr};
            if (ASOrchMsgMerge(hdl, AS_ORCH_MERGE_DAM, &v) != 0) std::abort();
        }
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

// Path: ThroughIntake or ThroughQueue. merge: every timed entry meets a queued
// entry of its key.
template <void (*Path)(ASOrchHandle *, std::vector<qovtest::Bytes> &)>
void BM_Recv(benchmark::State &state) {
    const bool merge = state.range(0) != 0;
    ASOrchHandle *hdl = MakeHandle();
    if (hdl == nullptr) return state.SkipWithError("registration failed");
    auto bodies = Bodies(0);
    uint64_t a = 0, f = 0, entries = 0;
    g_handled = 0;
    for (auto _ : state) {
        if (merge) {
            state.PauseTiming();
            ThroughQueue(hdl, bodies);
            state.ResumeTiming();
        }
        uint64_t a0 = g_allocs, f0 = g_frees;
        Path(hdl, bodies);
        ReadAll(hdl);
        a += g_allocs - a0;
        f += g_frees - f0;
        entries += kMessages * kEntries;
    }
    if (g_handled < entries) state.SkipWithError("entries lost");
    Report(state, entries, a, f);
    ASOrchDestroy(hdl);
}

// A transfer message of 8 DAM table-data TLVs of 32 entries each; per entry.
void BM_Transfer(benchmark::State &state) {
    ASOrchHandle *hdl = MakeHandle();
    if (hdl == nullptr) return state.SkipWithError("registration failed");
    std::vector<qovtest::Tlv> tlvs;
    for (uint32_t t = 0; t < kTlvs; ++t) tlvs.push_back(qovtest::TableTlv(1, 1, qovtest::kPathDam, kEntries, kEntrySize, t));
    qovtest::Bytes body = qovtest::EncodeTrans(tlvs).bytes;
    uint64_t a0 = g_allocs, entries = 0;
    g_handled = 0;
    for (auto _ : state) {
        ASOrchIpcMsg msg{body.data(), kTransId, static_cast<uint32_t>(body.size())};
        benchmark::DoNotOptimize(ASOrchMsgProc(hdl, &msg));
        entries += kTlvs * kEntries;
    }
    if (g_handled < entries) state.SkipWithError("entries lost (no transfer processing linked in?)");
    Report(state, entries, g_allocs - a0, 0);
    state.counters["ns_per_tlv"] =
        benchmark::Counter(static_cast<double>(entries / kEntries), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    ASOrchDestroy(hdl);
}

}  // namespace

BENCHMARK_TEMPLATE(BM_Recv, ThroughQueue)->ArgName("merge")->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK_TEMPLATE(BM_Recv, ThroughIntake)->ArgName("merge")->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Transfer)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
