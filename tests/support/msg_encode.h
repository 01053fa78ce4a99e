// Encoders of the messages of the broker's data channel, for tests, the
// fuzzer's seed corpus and the benchmark: receive messages, transfer messages
// of table-data and smoothing TLVs, and smoothing runs. Each also reports
// where its length and type fields lie, so that damage tests can change them.
// Everything is little-endian.
#ifndef QOV_TEST_MSG_ENCODE_H
#define QOV_TEST_MSG_ENCODE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace qovtest {

using Bytes = std::vector<uint8_t>;

// An encoded message with the offsets of its u32 length and type fields.
struct Encoded {
    Bytes bytes;
    std::vector<size_t> lenFields;
    std::vector<size_t> typeFields;
};

void PutU32(Bytes &b, uint32_t v);
uint32_t GetU32(const uint8_t *p);
void SetU32(uint8_t *p, uint32_t v);

// n entries of size bytes; entry i starts with the u32 key + i (when size
// allows) and the rest is a pattern of key, i and the byte position.
Bytes Entries(uint32_t n, uint32_t size, uint32_t key);

// Receive message, unserialised: the 8-byte prefix, then the entries.
Bytes EncodeRecv(std::span<const uint8_t> entries, uint64_t prefix = 0x5052454649580000ull);

// One TLV of a transfer message; tlvLen defaults to the value's size.
struct Tlv {
    uint32_t tableId;
    uint32_t tlvType;
    Bytes value;
    std::optional<uint32_t> tlvLen;
};

// Transfer message: a 12-byte head {word0, word1, total length of the TLV
// area} and the TLVs. total defaults to the TLVs' size.
Encoded EncodeTrans(const std::vector<Tlv> &tlvs, std::optional<uint32_t> total = {}, uint32_t word0 = 0,
                    uint32_t word1 = 0);

// Data paths of a transfer table.
constexpr uint32_t kPathDam = 0;
constexpr uint32_t kPathFes = 1;

// A table-data TLV of type 1, 2, 18 or 19 for the path, carrying n entries
// of size bytes (types 2 on the DAM path, 18 and 19: one entry of size bytes).
// On the FES path the value starts with the header {unread word, W}: W is the
// entries' byte length for type 1 and the entry size for type 2.
Tlv TableTlv(uint32_t tableId, uint32_t tlvType, uint32_t path, uint32_t n, uint32_t size, uint32_t key);

// One smoothing TLV: {optType, length, tableId, words}; length defaults to
// 12 + 4 * words.
struct SmoothTlv {
    uint32_t optType;
    uint32_t tableId;
    std::vector<uint32_t> words;
    std::optional<uint32_t> length;
};

// The fixed length of a smoothing type, or 0 for a type without a handler.
uint32_t SmoothFixedLen(uint32_t optType);
// A smoothing TLV of its type's fixed length (16 for a type without one),
// words seed, seed + 1, ...
SmoothTlv Smooth(uint32_t optType, uint32_t tableId, uint32_t seed = 0x100);
// A run of smoothing TLVs; fields of each go into lenFields/typeFields (offsets
// relative to the run).
Encoded EncodeSmoothRun(const std::vector<SmoothTlv> &run);
// A transfer TLV (type tlvType, not 1, 2, 18 or 19) carrying a smoothing run.
Tlv SmoothTlvOf(uint32_t tableId, uint32_t tlvType, const std::vector<SmoothTlv> &run);

// Bytes placed so that they end right at a PROT_NONE page: a read one byte
// past the end faults. Copies the bytes in; data() is writable.
class GuardedBytes {
public:
    explicit GuardedBytes(std::span<const uint8_t> bytes);
    ~GuardedBytes();
    GuardedBytes(const GuardedBytes &) = delete;
    GuardedBytes &operator=(const GuardedBytes &) = delete;
    uint8_t *data() { return data_; }
    size_t size() const { return size_; }

private:
    void *map_ = nullptr;
    size_t mapLen_ = 0;
    uint8_t *data_ = nullptr;
    size_t size_ = 0;
};

}  // namespace qovtest

#endif
