// Per-entry cost of the merge queue (append, merge into a queued key, callback
// read) against a plain baseline doing the same work: std::unordered_map from
// key to a std::list iterator, records in the list. Ends with a table of the
// ratios baseline/queue per operation and key count. The merge runs also show
// heap_growth_B, the heap taken during the timed merges (0: no allocation).
// Then instructions and allocations per merge, per append and per read at
// 1 k keys, queue and baseline, counted by callgrind (--qov-count-only prints
// just these).
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <utility>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <map>
#include <numeric>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "qov_host_ctl.h"
#include "qov_mergeque.h"

namespace {

struct Rec {  // 56 bytes: an 8-byte key and the message it stands for
    uint64_t key;
    uint32_t opType;
    uint32_t version;
    uint8_t body[40];
};
static_assert(sizeof(Rec) == 56);

inline uint32_t Mix(uint64_t k) {  // the 64-bit finaliser of MurmurHash3
    k ^= k >> 33;
    k *= 0xff51afd7ed558ccdULL;
    k ^= k >> 33;
    k *= 0xc4ceb9fe1a85ec53ULL;
    k ^= k >> 33;
    return static_cast<uint32_t>(k);
}

uint32_t HashKey(const void *key) { return Mix(*static_cast<const uint64_t *>(key)); }
uint32_t CmpKey(const void *rec, const void *key) {
    return static_cast<const Rec *>(rec)->key == *static_cast<const uint64_t *>(key) ? 1 : 0;
}
const void *KeyOf(const void *rec) { return &static_cast<const Rec *>(rec)->key; }
void MergeRec(void *in, void *queued) {
    static_cast<Rec *>(in)->opType |= static_cast<const Rec *>(queued)->opType;
}
uint32_t Consume(void *rec, uint32_t, void *usr) {
    *static_cast<uint64_t *>(usr) += static_cast<const Rec *>(rec)->version;
    return 0;
}
void *Alloc(uint32_t size) { return std::malloc(size); }

constexpr uint32_t kBatch = 32;  // records per read, as a reader takes them per dispatch

// Distinct random keys, and their records in a shuffled order for the merges.
struct Workload {
    std::vector<Rec> recs;
    std::vector<Rec> shuffled;
    explicit Workload(size_t n) : recs(n) {
        std::mt19937_64 rng(n);
        for (size_t i = 0; i < n; ++i) recs[i] = Rec{rng() | 1, 1, static_cast<uint32_t>(i), {}};
        shuffled = recs;
        std::shuffle(shuffled.begin(), shuffled.end(), rng);
    }
};

const Workload &Load(size_t n) {
    static std::map<size_t, Workload> loads;
    return loads.try_emplace(n, n).first->second;
}

class Queue {
public:
    explicit Queue(uint32_t keys) : epFd_(epoll_create1(EPOLL_CLOEXEC)) {
        MergeQueCreatePara p{Alloc, std::free, 0, sizeof(Rec), keys, HashKey, CmpKey, epFd_, KeyOf, nullptr, MergeRec};
        q_ = QOV_MergeQueCreate("bench_q", &p);
        if (q_ == nullptr) std::abort();
    }
    ~Queue() {
        QOV_MergeQueDestory(q_);
        close(epFd_);
    }
    void Write(Rec r) { QOV_MergeQueWrite(q_, &r.key, &r, 0); }  // the merge function works on the copy
    MergeQueCtrlBlk *Handle() const { return q_; }
    uint32_t Read(uint64_t *sink) { return QOV_MergeQueReadCallBack(q_, kBatch, Consume, sink); }

private:
    int epFd_;
    MergeQueCtrlBlk *q_;
};

class Baseline {
public:
    explicit Baseline(uint32_t keys) { index_.reserve(keys); }
    void Write(const Rec &r) {
        auto it = index_.find(r.key);
        if (it != index_.end()) {
            Rec in = r;
            MergeRec(&in, &*it->second);
            *it->second = in;
            return;
        }
        list_.push_back(r);
        index_.emplace(r.key, std::prev(list_.end()));
    }
    uint32_t Read(uint64_t *sink) {
        uint32_t n = 0;
        for (; n < kBatch && !list_.empty(); ++n) {
            Rec &r = list_.front();
            index_.erase(r.key);
            Consume(&r, sizeof r, sink);
            list_.pop_front();
        }
        return n;
    }

private:
    struct Hasher {
        size_t operator()(uint64_t k) const { return Mix(k); }
    };
    std::list<Rec> list_;
    std::unordered_map<uint64_t, std::list<Rec>::iterator, Hasher> index_;
};

template <class Q>
void Drain(Q &q) {
    uint64_t sink = 0;
    while (q.Read(&sink) != 0) {
    }
    benchmark::DoNotOptimize(sink);
}

// One fill and drain before timing, as in a process that has been running:
// allocators warmed up, the high-water statistics already at their maximum.
template <class Q>
void WarmUp(Q &q, const Workload &w) {
    for (const Rec &r : w.recs) q.Write(r);
    Drain(q);
}

void PerEntry(benchmark::State &state, size_t n) {
    state.counters["per_entry"] =
        benchmark::Counter(static_cast<double>(n), benchmark::Counter::kIsIterationInvariantRate |
                                                       benchmark::Counter::kInvert);
}

template <class Q>
void BM_Append(benchmark::State &state) {
    auto n = static_cast<size_t>(state.range(0));
    const Workload &w = Load(n);
    Q q(static_cast<uint32_t>(n));
    WarmUp(q, w);
    for (auto _ : state) {
        for (const Rec &r : w.recs) q.Write(r);
        state.PauseTiming();
        Drain(q);
        state.ResumeTiming();
    }
    PerEntry(state, n);
}

template <class Q>
void BM_Merge(benchmark::State &state) {
    auto n = static_cast<size_t>(state.range(0));
    const Workload &w = Load(n);
    Q q(static_cast<uint32_t>(n));
    for (const Rec &r : w.recs) q.Write(r);
    size_t heapBefore = mallinfo2().uordblks;
    for (auto _ : state) {
        for (const Rec &r : w.shuffled) q.Write(r);
    }
    state.counters["heap_growth_B"] = static_cast<double>(mallinfo2().uordblks - heapBefore);
    Drain(q);
    PerEntry(state, n);
}

template <class Q>
void BM_Read(benchmark::State &state) {
    auto n = static_cast<size_t>(state.range(0));
    const Workload &w = Load(n);
    Q q(static_cast<uint32_t>(n));
    WarmUp(q, w);
    uint64_t sink = 0;
    for (auto _ : state) {
        state.PauseTiming();
        for (const Rec &r : w.recs) q.Write(r);
        state.ResumeTiming();
        while (q.Read(&sink) != 0) {
        }
    }
    benchmark::DoNotOptimize(sink);
    PerEntry(state, n);
}

#define QOV_BENCH(fn, Q, name) \
    BENCHMARK_TEMPLATE(fn, Q)->Name(name)->Arg(1 << 10)->Arg(1 << 16)->Arg(1 << 20)->Unit(benchmark::kMillisecond) \
        ->Repetitions(5)->DisplayAggregatesOnly(true)

QOV_BENCH(BM_Append, Queue, "append/queue");
QOV_BENCH(BM_Append, Baseline, "append/baseline");
QOV_BENCH(BM_Merge, Queue, "merge/queue");
QOV_BENCH(BM_Merge, Baseline, "merge/baseline");
QOV_BENCH(BM_Read, Queue, "read/queue");
QOV_BENCH(BM_Read, Baseline, "read/baseline");

// Keeps the median per-entry time of each benchmark's repetitions (robust
// against other load on the machine) for the closing ratio table.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run> &runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &r : runs) {
            auto it = r.counters.find("per_entry");
            if (r.aggregate_name != "median" || it == r.counters.end()) continue;
            perEntryNs_[r.run_name.function_name + "/" + r.run_name.args] = it->second.value * 1e9;
        }
    }
    void PrintRatios() const {
        std::printf("\nMedian of the repetitions, per entry:\n%-8s %8s %12s %12s %8s\n", "op", "keys", "queue ns",
                    "baseline ns", "ratio");
        for (const char *op : {"append", "merge", "read"}) {
            for (const char *keys : {"1024", "65536", "1048576"}) {
                double q = Get(std::string(op) + "/queue/" + keys);
                double b = Get(std::string(op) + "/baseline/" + keys);
                if (q > 0 && b > 0) std::printf("%-8s %8s %12.1f %12.1f %7.2fx\n", op, keys, q, b, b / q);
            }
        }
    }

private:
    double Get(const std::string &name) const {
        auto it = perEntryNs_.find(name);
        return it == perEntryNs_.end() ? 0 : it->second;
    }
    std::map<std::string, double> perEntryNs_;
};

// Instructions per operation, counted by callgrind (deterministic, unlike
// time on a shared machine; this machine has no hardware counter to ask).
// The program runs itself under valgrind with --qov-count=<op>, and callgrind
// collects only inside the named function below, which does kCountOps
// operations of that kind on a warmed-up queue (or baseline) of 1 k keys;
// a read is one entry of the drain, in batches as timed above.
constexpr size_t kCountKeys = 1 << 10;
constexpr size_t kCountRounds = 8;
constexpr size_t kCountOps = kCountKeys * kCountRounds;

// The records are written in place (the merge function may change them), so
// the count is the queue's own work, not copies made by the loop. The
// baseline is counted the same way, for comparison.
void QueueWrite(MergeQueCtrlBlk *q, Rec &rec) { QOV_MergeQueWrite(q, &rec.key, &rec, 0); }
void BaselineWrite(Baseline *b, Rec &rec) { b->Write(rec); }

template <class H, class W>
__attribute__((noinline)) void QovCountMerges(H h, std::vector<Rec> &recs, W write) {
    for (size_t r = 0; r < kCountRounds; ++r) {
        for (Rec &rec : recs) write(h, rec);
    }
}

template <class H, class W>
__attribute__((noinline)) void QovCountAppends(H h, std::vector<Rec> &recs, W write) {
    for (Rec &rec : recs) write(h, rec);
}

template <class Q>
__attribute__((noinline)) void QovCountReads(Q &q) {
    Drain(q);
}

template <class Q, class H, class W>
void CountOps(Q &q, H h, W write, const std::string &op) {
    const Workload &w = Load(kCountKeys);
    WarmUp(q, w);
    std::vector<Rec> recs = op == "merge" ? w.shuffled : w.recs;
    if (op == "merge") {
        for (const Rec &r : w.recs) q.Write(r);
        QovCountMerges(h, recs, write);
        Drain(q);
        return;
    }
    for (size_t r = 0; r < kCountRounds; ++r) {
        if (op == "append") {
            QovCountAppends(h, recs, write);
            Drain(q);
        } else {
            for (const Rec &rec : w.recs) q.Write(rec);
            QovCountReads(q);
        }
    }
}

// op: "merge", "append" or "read", then "-baseline" for the baseline.
int CountChild(std::string op) {
    bool baseline = op.size() > 9 && op.compare(op.size() - 9, 9, "-baseline") == 0;
    if (baseline) op.resize(op.size() - 9);
    if (baseline) {
        Baseline b(kCountKeys);
        CountOps(b, &b, [](Baseline *h, Rec &r) __attribute__((always_inline)) { BaselineWrite(h, r); }, op);
    } else {
        Queue q(kCountKeys);
        CountOps(q, q.Handle(), [](MergeQueCtrlBlk *h, Rec &r) __attribute__((always_inline)) { QueueWrite(h, r); },
                 op);
    }
    return 0;
}

struct Counted {
    double instructions = -1;  // per operation; negative when valgrind is not at hand
    double allocations = 0;    // calls of the malloc family per operation
};

// The name a compressed callgrind name line defines, or looks up: "(id) name"
// or "(id)".
const std::string &CallgrindName(std::map<std::string, std::string> &names, const std::string &rest) {
    size_t close = rest.find(')');
    std::string id = rest.substr(0, close + 1);
    if (close != std::string::npos && close + 2 < rest.size()) names[id] = rest.substr(close + 2);
    return names[id];
}

// Runs this program under callgrind for op and reads back the collected
// instructions and the calls made to the malloc family, per operation.
Counted CountOp(const char *self, const std::string &op, const char *fn) {
    std::string out = "/tmp/qov_mq_callgrind." + std::to_string(getpid()) + "." + op;
    std::string cmd = std::string("valgrind --tool=callgrind '--toggle-collect=*") + fn + "*'" +
                      " --callgrind-out-file=" + out + " " + self + " --qov-count=" + op + " >/dev/null 2>&1";
    Counted c;
    if (std::system(cmd.c_str()) != 0) return c;
    FILE *f = std::fopen(out.c_str(), "r");
    if (f == nullptr) return c;
    std::map<std::string, std::string> names;
    bool callsAlloc = false;
    unsigned long long allocs = 0;
    char buf[4096];
    while (std::fgets(buf, sizeof buf, f) != nullptr) {
        std::string line(buf);
        while (!line.empty() && line.back() == '\n') line.pop_back();
        unsigned long long n = 0;
        if (line.rfind("cfn=", 0) == 0) {
            const std::string &name = CallgrindName(names, line.substr(4));
            callsAlloc = name == "malloc" || name == "calloc" || name == "realloc" || name == "aligned_alloc" ||
                         name == "memalign" || name == "posix_memalign";
        } else if (line.rfind("fn=", 0) == 0) {
            CallgrindName(names, line.substr(3));
        } else if (std::sscanf(line.c_str(), "calls=%llu", &n) == 1) {
            if (callsAlloc) allocs += n;
            callsAlloc = false;
        } else if (std::sscanf(line.c_str(), "totals: %llu", &n) == 1 ||
                   std::sscanf(line.c_str(), "summary: %llu", &n) == 1) {
            c.instructions = static_cast<double>(n) / kCountOps;
        }
    }
    std::fclose(f);
    std::remove(out.c_str());
    c.allocations = static_cast<double>(allocs) / kCountOps;
    return c;
}

void PrintCounts(const char *self) {
    std::printf("\nPer operation at %zu keys (callgrind, %zu operations):\n%-8s %12s %12s %12s %12s\n", kCountKeys,
                kCountOps, "op", "queue instr", "base instr", "queue alloc", "base alloc");
    for (const auto &[op, fn] : {std::pair{"merge", "QovCountMerges"}, std::pair{"append", "QovCountAppends"},
                                 std::pair{"read", "QovCountReads"}}) {
        Counted q = CountOp(self, op, fn);
        Counted b = CountOp(self, std::string(op) + "-baseline", fn);
        if (q.instructions < 0 || b.instructions < 0) {
            std::printf("%-8s (valgrind not available)\n", op);
        } else {
            std::printf("%-8s %12.1f %12.1f %12.2f %12.2f\n", op, q.instructions, b.instructions, q.allocations,
                        b.allocations);
        }
    }
}

}  // namespace

int main(int argc, char **argv) {
    QovHostLogEcho(0);
    QovHostLogCapture(0);
    QovHostJournalEnable(0);
    const std::string countFlag = "--qov-count=";
    if (argc == 2 && std::string(argv[1]).rfind(countFlag, 0) == 0) return CountChild(argv[1] + countFlag.size());
    bool countOnly = argc == 2 && std::string(argv[1]) == "--qov-count-only";
    if (!countOnly) {
        benchmark::Initialize(&argc, argv);
        RatioReporter reporter;
        benchmark::RunSpecifiedBenchmarks(&reporter);
        reporter.PrintRatios();
        benchmark::Shutdown();
    }
    PrintCounts(argv[0]);
    return 0;
}
