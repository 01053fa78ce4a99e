// The two data paths, DAM and FES. A path indexes the block of merge records,
// the transfer lists of the base-registration record and the broker's data
// channels (channel kind 0 DAM, 1 FES). Merge types and the public path
// numbers become a path once, where they enter; inside, only a path is used.
#ifndef QOV_AS_CORE_BASE_PATH_H
#define QOV_AS_CORE_BASE_PATH_H

#include <cstdint>

enum class ASOrchPath : uint32_t { DAM = 0, FES = 1 };
constexpr uint32_t AS_PATH_NUM = 2;
constexpr ASOrchPath AS_PATHS[AS_PATH_NUM] = {ASOrchPath::DAM, ASOrchPath::FES};

// The path's number: the index of its record, list or channel.
constexpr uint32_t ASPathIndex(ASOrchPath path) { return static_cast<uint32_t>(path); }

// The path a number from outside names; false when it names none.
constexpr bool ASPathFromIndex(uint32_t index, ASOrchPath *path) {
    if (index >= AS_PATH_NUM) return false;
    *path = static_cast<ASOrchPath>(index);
    return true;
}

#endif
