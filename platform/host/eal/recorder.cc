// Recording of an instance's received frames (QovHostRecordStart/Stop): one
// recorder per instance, made at the first start and kept until the instance
// is destroyed, so that a delivering thread never meets a freed one. The
// delivering threads and the caller's start and stop meet under its mutex;
// while no recording runs, a delivery pays one atomic load.
#include <time.h>

#include <atomic>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "capture_writer.h"
#include "host_eal.h"
#include "host_internal.h"

namespace qovhost {

struct Recorder {
    std::mutex mu;
    std::atomic<bool> on{false};
    bool ever = false;
    CaptureWriter out;
    QovHostRecordStats stats{};
    char path[256] = {};
};

namespace {

void Log(const EalInstance &e, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void Log(const EalInstance &e, const char *fmt, ...) {
    char what[200];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(what, sizeof what, fmt, ap);
    va_end(ap);
    char text[256];
    std::snprintf(text, sizeof text, "%s recording: %s", e.name, what);
    KRT_DiagLogWrite("QOV_EAL", text);
}

// Ends the running recording; under r.mu.
void End(const EalInstance &e, Recorder &r, bool full, const char *why) {
    r.on.store(false, std::memory_order_relaxed);
    r.stats.frames = r.out.Frames();
    r.stats.bytes = r.out.Bytes();
    r.stats.cut = r.out.Cut();
    bool written = r.out.Close();
    r.stats.full = full || !written ? 1u : 0u;
    Log(e, "%s %s: %" PRIu64 " frames, %" PRIu64 " bytes%s", why, r.path, r.stats.frames, r.stats.bytes,
        written ? "" : " (the file could not be written out)");
}

}  // namespace

void RecordFrame(const Link &l, uint32_t msgId, const uint8_t *body, uint32_t len) {
    Recorder *r = l.eal->recorder.load(std::memory_order_acquire);
    if (r == nullptr || !r->on.load(std::memory_order_relaxed)) return;
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    std::lock_guard<std::mutex> lk(r->mu);
    if (!r->out.IsOpen()) return;
    uint8_t kind = l.kind == Link::Kind::kChan ? QOV_HOST_RECORD_CHAN : QOV_HOST_RECORD_SYNC;
    CaptureWriter::Result res = r->out.Write({kind, l.index}, msgId, {body, len}, ts);
    if (res == CaptureWriter::Result::kFull) End(*l.eal, *r, true, "stopped at its bound, file");
    else if (res == CaptureWriter::Result::kError) End(*l.eal, *r, true, "stopped by a write error, file");
}

void RecorderFree(EalInstance &e) {
    Recorder *r = e.recorder.exchange(nullptr);
    if (r == nullptr) return;
    {
        std::lock_guard<std::mutex> lk(r->mu);
        if (r->out.IsOpen()) End(e, *r, false, "ended with the instance, file");
    }
    delete r;
}

}  // namespace qovhost

using qovhost::EalInstance;
using qovhost::Recorder;

extern "C" {

QOV_PLAT_API uint32_t QovHostRecordStart(void *eal, const char *path, uint64_t maxBytes) {
    EalInstance *e = qovhost::LiveEal(eal);
    if (e == nullptr || path == nullptr || path[0] == '\0' || maxBytes < QOV_HOST_RECORD_MIN_BYTES) return 1;
    Recorder *r;
    {
        std::lock_guard<std::mutex> lk(e->mu);
        r = e->recorder.load(std::memory_order_relaxed);
        if (r == nullptr) {
            r = new Recorder;
            e->recorder.store(r, std::memory_order_release);
        }
    }
    std::lock_guard<std::mutex> lk(r->mu);
    if (r->out.IsOpen()) {
        qovhost::Log(*e, "already running into %s", r->path);
        return 1;
    }
    char err[200];
    if (!r->out.Open(path, maxBytes, err, sizeof err)) {
        qovhost::Log(*e, "%s", err);
        return 1;
    }
    std::snprintf(r->path, sizeof r->path, "%s", path);
    r->stats = QovHostRecordStats{};
    r->ever = true;
    r->on.store(true, std::memory_order_relaxed);
    qovhost::Log(*e, "into %s, at most %" PRIu64 " bytes", path, maxBytes);
    return 0;
}

QOV_PLAT_API uint32_t QovHostRecordStop(void *eal, QovHostRecordStats *stats) {
    EalInstance *e = qovhost::LiveEal(eal);
    Recorder *r = e != nullptr ? e->recorder.load(std::memory_order_acquire) : nullptr;
    if (r == nullptr) return 1;
    std::lock_guard<std::mutex> lk(r->mu);
    if (!r->ever) return 1;
    if (r->out.IsOpen()) qovhost::End(*e, *r, false, "ended, file");
    if (stats != nullptr) *stats = r->stats;
    return 0;
}

}  // extern "C"
