// Captures go through libpcap's writer into a large stdio buffer: a frame
// costs its copy, and the file sees one write call per buffer.
#include "capture_writer.h"

#include <cerrno>
#include <cstring>

#include "qov_host_api.h"

namespace qovhost {
namespace {

constexpr uint64_t kFileHdrLen = 24;  // pcap file header
constexpr uint64_t kRecHdrLen = 16;   // pcap record header on disk

}  // namespace

bool CaptureWriter::Open(const char *path, uint64_t maxBytes, char *err, size_t errLen) {
    Close();
    dead_ = pcap_open_dead(QOV_HOST_RECORD_LINKTYPE, QOV_HOST_RECORD_SNAPLEN);
    file_ = dead_ != nullptr ? std::fopen(path, "wbe") : nullptr;
    if (file_ == nullptr) {
        std::snprintf(err, errLen, "cannot create %s: %s", path, dead_ != nullptr ? std::strerror(errno) : "no pcap");
        Close();
        return false;
    }
    fileBuf_.reset(new char[QOV_HOST_RECORD_BUF]);
    std::setvbuf(file_, fileBuf_.get(), _IOFBF, QOV_HOST_RECORD_BUF);
    out_ = pcap_dump_fopen(dead_, file_);
    if (out_ == nullptr) {
        std::snprintf(err, errLen, "cannot start a capture in %s: %s", path, pcap_geterr(dead_));
        std::fclose(file_);
        file_ = nullptr;
        Close();
        return false;
    }
    rec_.reset(new uint8_t[QOV_HOST_RECORD_SNAPLEN]);
    maxBytes_ = maxBytes;
    bytes_ = kFileHdrLen;
    frames_ = 0;
    cut_ = 0;
    return true;
}

CaptureWriter::Result CaptureWriter::Write(CaptureSource src, uint32_t msgId, std::span<const uint8_t> body,
                                           const timespec &ts) {
    if (out_ == nullptr) return Result::kError;
    constexpr uint32_t kHead = QOV_HOST_RECORD_PSEUDO_LEN + QOV_HOST_FRAME_HDR_LEN;
    const auto len = static_cast<uint32_t>(body.size());  // within the frame bound
    uint64_t whole = kHead + static_cast<uint64_t>(len);
    uint32_t caplen = whole < QOV_HOST_RECORD_SNAPLEN ? static_cast<uint32_t>(whole) : QOV_HOST_RECORD_SNAPLEN;
    if (maxBytes_ < bytes_ || maxBytes_ - bytes_ < kRecHdrLen + caplen) return Result::kFull;
    uint8_t *r = rec_.get();
    r[0] = QOV_HOST_RECORD_VERSION;
    r[1] = src.kind;
    r[2] = QOV_HOST_RECORD_IN;
    r[3] = 0;
    QovHostPutU32(r + 4, src.index);
    QovHostFrameHdrEncode(r + QOV_HOST_RECORD_PSEUDO_LEN, msgId, len);
    if (caplen > kHead) std::memcpy(r + kHead, body.data(), caplen - kHead);
    pcap_pkthdr h{};
    h.ts.tv_sec = ts.tv_sec;
    h.ts.tv_usec = static_cast<suseconds_t>(ts.tv_nsec / 1000);
    h.caplen = caplen;
    h.len = static_cast<bpf_u_int32>(whole);  // the frame bound keeps it far below 2^32
    pcap_dump(reinterpret_cast<u_char *>(out_), &h, r);
    if (std::ferror(file_) != 0) return Result::kError;
    bytes_ += kRecHdrLen + caplen;
    ++frames_;
    if (caplen < whole) ++cut_;
    return Result::kWritten;
}

bool CaptureWriter::Close() {
    bool ok = true;
    if (out_ != nullptr) {
        ok = pcap_dump_flush(out_) == 0 && std::ferror(file_) == 0;
        pcap_dump_close(out_);  // closes file_
        out_ = nullptr;
        file_ = nullptr;
    }
    if (dead_ != nullptr) pcap_close(dead_);
    dead_ = nullptr;
    fileBuf_.reset();
    rec_.reset();
    return ok;
}

}  // namespace qovhost
