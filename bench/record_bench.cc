// What recording adds to the delivering thread per frame: the steps a
// delivery takes while a recording runs (receive time, the recorder's lock,
// the copy into the capture through libpcap into its stdio buffer), for a
// one-entry frame, the example workload's full message and the largest
// default frame. Counters: write system calls per frame (from /proc/self/io,
// the buffer's flushes) and bytes per frame. The file is started again every
// 256 MiB, outside the timing.
#include <benchmark/benchmark.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include "capture_writer.h"
#include "qov_host_api.h"

namespace {

uint64_t WriteCalls() {
    std::ifstream io("/proc/self/io");
    std::string key;
    uint64_t v = 0;
    while (io >> key >> v)
        if (key == "syscw:") return v;
    return 0;
}

void BM_RecordFrame(benchmark::State &state) {
    const auto len = static_cast<uint32_t>(state.range(0));
    std::vector<uint8_t> body(len, 0x5A);
    std::string path = "/tmp/qov_record_bench_" + std::to_string(getpid()) + ".pcap";
    qovhost::CaptureWriter out;
    std::mutex mu;
    char err[256];
    if (!out.Open(path.c_str(), 256u << 20, err, sizeof err)) {
        state.SkipWithError(err);
        return;
    }
    uint64_t frames = 0, calls0 = WriteCalls();
    for (auto _ : state) {
        timespec ts{};
        clock_gettime(CLOCK_REALTIME, &ts);
        std::lock_guard<std::mutex> lk(mu);
        if (out.Write({QOV_HOST_RECORD_CHAN, 0}, 0x51000001u, body, ts) !=
            qovhost::CaptureWriter::Result::kWritten) {
            state.PauseTiming();
            out.Open(path.c_str(), 256u << 20, err, sizeof err);
            state.ResumeTiming();
        }
        ++frames;
    }
    uint64_t calls = WriteCalls() - calls0;
    out.Close();
    std::remove(path.c_str());
    state.counters["writes_per_frame"] = static_cast<double>(calls) / static_cast<double>(frames);
    state.counters["bytes_per_frame"] = 16.0 + QOV_HOST_RECORD_PSEUDO_LEN + QOV_HOST_FRAME_HDR_LEN + len;
    state.SetBytesProcessed(static_cast<int64_t>(frames) * len);
}
// One 32-byte entry with its 8-byte prefix; 32 entries; the default frame bound.
BENCHMARK(BM_RecordFrame)->Arg(40)->Arg(1032)->Arg(QOV_HOST_FRAME_MAX_DEFAULT);

}  // namespace

BENCHMARK_MAIN();
