// The message ids the intake fuzzer registers, shared with its seed writer.
// An input is one selector byte and the body: a selector below 16 is transfer
// id 0x7F7F7F70 + selector, any other picks kRecvIds[(selector - 16) % count].
#ifndef QOV_FUZZ_MSGPROC_IDS_H
#define QOV_FUZZ_MSGPROC_IDS_H

#include <cstdint>

namespace msgprocfuzz {

// Receive ids: merge types 0 to 5, serialised, user-defined, entry size 0, a
// key longer than its entry, serialised without a release, and an unknown id.
enum : uint32_t {
    kType0 = 20, kType1, kType2, kType3, kType4, kType5,
    kSerial, kUserDef, kZeroSize, kLongKey, kNoFree, kUnknown,
};
constexpr uint32_t kRecvIds[] = {kType0, kType1, kType2,    kType3,   kType4, kType5,
                                 kSerial, kUserDef, kZeroSize, kLongKey, kNoFree, kUnknown};
constexpr uint32_t kRecvIdCount = sizeof(kRecvIds) / sizeof(kRecvIds[0]);
constexpr uint32_t kSerialOp = 3;
constexpr uint32_t kSerialEntry = 8;  // bytes per decoded entry

// Entry sizes of the receive ids above (0 for the unknown id).
constexpr uint32_t kIpcSize[] = {16, 8, 12, 4, 16, 16, kSerialEntry, 6, 0, 4, 8, 0};

// Transfer tables: {tableId, tblSize, path}; 1-4 through the base
// registration, 5-7 at run time.
struct TransTable {
    uint32_t tableId, tblSize, path;
};
constexpr TransTable kTransTables[] = {{1, 8, 0}, {2, 0, 0}, {3, 12, 1}, {4, 0, 1},
                                       {5, 4, 0}, {6, 16, 1}, {7, 24, 0}};

constexpr uint8_t SelectorOf(uint32_t recvId) {
    for (uint32_t i = 0; i < kRecvIdCount; ++i)
        if (kRecvIds[i] == recvId) return static_cast<uint8_t>(16 + i);
    return 0;
}

}  // namespace msgprocfuzz

#endif
