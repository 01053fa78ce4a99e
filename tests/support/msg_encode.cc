#include "support/msg_encode.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace qovtest {

void PutU32(Bytes &b, uint32_t v) {
    for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

uint32_t GetU32(const uint8_t *p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
}

void SetU32(uint8_t *p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

Bytes Entries(uint32_t n, uint32_t size, uint32_t key) {
    Bytes out;
    out.reserve(static_cast<size_t>(n) * size);
    for (uint32_t i = 0; i < n; ++i) {
        size_t start = out.size();
        for (uint32_t j = 0; j < size; ++j) out.push_back(static_cast<uint8_t>(key * 7 + i * 13 + j));
        if (size >= 4) SetU32(out.data() + start, key + i);
    }
    return out;
}

Bytes EncodeRecv(std::span<const uint8_t> entries, uint64_t prefix) {
    Bytes out;
    PutU32(out, static_cast<uint32_t>(prefix));
    PutU32(out, static_cast<uint32_t>(prefix >> 32));
    out.insert(out.end(), entries.begin(), entries.end());
    return out;
}

Encoded EncodeTrans(const std::vector<Tlv> &tlvs, std::optional<uint32_t> total, uint32_t word0, uint32_t word1) {
    Encoded e;
    PutU32(e.bytes, word0);
    PutU32(e.bytes, word1);
    e.lenFields.push_back(e.bytes.size());
    PutU32(e.bytes, 0);
    for (const Tlv &t : tlvs) {
        PutU32(e.bytes, t.tableId);
        e.typeFields.push_back(e.bytes.size());
        PutU32(e.bytes, t.tlvType);
        e.lenFields.push_back(e.bytes.size());
        PutU32(e.bytes, t.tlvLen.value_or(static_cast<uint32_t>(t.value.size())));
        e.bytes.insert(e.bytes.end(), t.value.begin(), t.value.end());
    }
    SetU32(e.bytes.data() + 8, total.value_or(static_cast<uint32_t>(e.bytes.size() - 12)));
    return e;
}

Tlv TableTlv(uint32_t tableId, uint32_t tlvType, uint32_t path, uint32_t n, uint32_t size, uint32_t key) {
    Tlv t{tableId, tlvType, {}, {}};
    bool single = tlvType == 18 || tlvType == 19 || (path == kPathDam && tlvType == 2);
    Bytes entries = Entries(single ? 1 : n, size, key);
    if (path == kPathFes && !(tlvType == 18 || tlvType == 19)) {
        PutU32(t.value, 0xFE5FE5u);
        PutU32(t.value, tlvType == 1 ? static_cast<uint32_t>(entries.size()) : size);
    }
    t.value.insert(t.value.end(), entries.begin(), entries.end());
    return t;
}

uint32_t SmoothFixedLen(uint32_t optType) {
    switch (optType) {
        case 7: case 8: case 16: case 17: case 190: case 191: return 16;
        case 9: return 32;
        case 10: case 11: return 28;
        case 15: return 20;
        default: return 0;
    }
}

SmoothTlv Smooth(uint32_t optType, uint32_t tableId, uint32_t seed) {
    uint32_t len = SmoothFixedLen(optType);
    if (len == 0) len = 16;
    SmoothTlv s{optType, tableId, {}, {}};
    for (uint32_t i = 0; i < (len - 12) / 4; ++i) s.words.push_back(seed + i);
    return s;
}

Encoded EncodeSmoothRun(const std::vector<SmoothTlv> &run) {
    Encoded e;
    for (const SmoothTlv &s : run) {
        e.typeFields.push_back(e.bytes.size());
        PutU32(e.bytes, s.optType);
        e.lenFields.push_back(e.bytes.size());
        PutU32(e.bytes, s.length.value_or(static_cast<uint32_t>(12 + 4 * s.words.size())));
        PutU32(e.bytes, s.tableId);
        for (uint32_t w : s.words) PutU32(e.bytes, w);
    }
    return e;
}

Tlv SmoothTlvOf(uint32_t tableId, uint32_t tlvType, const std::vector<SmoothTlv> &run) {
    return Tlv{tableId, tlvType, EncodeSmoothRun(run).bytes, {}};
}

GuardedBytes::GuardedBytes(std::span<const uint8_t> bytes) : size_(bytes.size()) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    size_t dataPages = (bytes.size() + page - 1) / page;
    mapLen_ = (dataPages + 1) * page;
    map_ = mmap(nullptr, mapLen_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (map_ == MAP_FAILED) std::abort();
    auto *base = static_cast<uint8_t *>(map_);
    if (mprotect(base + dataPages * page, page, PROT_NONE) != 0) std::abort();
    data_ = base + dataPages * page - bytes.size();
    if (!bytes.empty()) std::memcpy(data_, bytes.data(), bytes.size());
}

GuardedBytes::~GuardedBytes() { munmap(map_, mapLen_); }

}  // namespace qovtest
