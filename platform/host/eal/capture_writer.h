// A pcap capture file of received frames, in the record layout that
// qov_host_api.h describes, bounded in size. Not thread-safe: its owner
// serialises the calls. Kept apart from the instance so that it can be
// measured on its own.
#ifndef QOV_HOST_CAPTURE_WRITER_H
#define QOV_HOST_CAPTURE_WRITER_H

#include <pcap/pcap.h>
#include <time.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>

namespace qovhost {

// Where a frame came in: QOV_HOST_RECORD_CHAN and the channel index, or
// QOV_HOST_RECORD_SYNC and the sync group id.
struct CaptureSource {
    uint8_t kind;
    uint32_t index;
};

class CaptureWriter {
public:
    enum class Result { kWritten, kFull, kError };

    CaptureWriter() = default;
    ~CaptureWriter() { Close(); }
    CaptureWriter(const CaptureWriter &) = delete;
    CaptureWriter &operator=(const CaptureWriter &) = delete;

    // Creates or truncates path and writes the file header. false with a
    // reason in err when the file cannot be made; nothing is then held.
    bool Open(const char *path, uint64_t maxBytes, char *err, size_t errLen);
    bool IsOpen() const { return out_ != nullptr; }

    // Appends one frame. kFull when it would take the file past its bound and
    // kError when the file cannot be written: nothing more is appended then,
    // and the file holds every frame written before.
    Result Write(CaptureSource src, uint32_t msgId, std::span<const uint8_t> body, const timespec &ts);

    // Flushes and closes; false when the file could not be written out.
    bool Close();

    uint64_t Frames() const { return frames_; }
    uint64_t Bytes() const { return bytes_; }
    uint32_t Cut() const { return cut_; }

private:
    pcap_t *dead_ = nullptr;
    pcap_dumper_t *out_ = nullptr;
    FILE *file_ = nullptr;
    std::unique_ptr<char[]> fileBuf_;
    std::unique_ptr<uint8_t[]> rec_;  // the record being assembled
    uint64_t maxBytes_ = 0;
    uint64_t bytes_ = 0;
    uint64_t frames_ = 0;
    uint32_t cut_ = 0;
};

}  // namespace qovhost

#endif
