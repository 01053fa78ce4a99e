// Bucket computation offered to the orchestrator's merge-queue hash function.
#include <cstring>

#include "merge/merge_private.h"

namespace {

constexpr uint32_t kFnvOffset = 2166136261u;
constexpr uint32_t kFnvPrime = 16777619u;

// 32-bit FNV-1a over whole native words; trailing bytes take no part.
uint32_t KeyWordsHash(const uint8_t *key, uint64_t keySize) {
    uint32_t words = static_cast<uint32_t>(keySize / sizeof(uint32_t));
    uint32_t h = kFnvOffset;
    for (uint32_t i = 0; i < words; ++i) {
        uint32_t w;
        std::memcpy(&w, key + static_cast<size_t>(i) * sizeof w, sizeof w);  // keys may be unaligned
        h = (h ^ w) * kFnvPrime;
    }
    return h;
}

uint32_t FinalMix(uint32_t h) {
    h += h << 13;
    h ^= h >> 7;
    h += h << 3;
    h ^= h >> 17;
    h += h << 5;
    return h;
}

// Without the handle's merge records, or for a merge type that names no
// queue's path, the queue default stands in.
uint32_t BucketCount(const ASOrchHandle *hdl, uint32_t mergeType) {
    ASOrchPath path;
    if (!ASPathFromIndex(mergeType, &path) || hdl == nullptr || hdl->mergeHandle == nullptr)
        return AS_MERGE_DEF_HASH_SIZE;
    return ASOrchMergeRecOf(hdl, path)->hashSize;
}

}  // namespace

// Reads only msgId, version, keySize and the key, so vectors that compare equal
// land in the same bucket. It runs on every queue write, so it logs nothing.
extern "C" QOV_AS_API uint32_t ASOrchMergeHashFunc(ASOrchHandle *hdl, uint32_t mergeType,
                                                   const ASOrchMergeMsgVec *vec) {
    if (vec == nullptr) return 0;
    uint32_t n = BucketCount(hdl, mergeType);
    uint64_t keySize = vec->key != nullptr ? vec->keySize : 0;
    uint32_t s = vec->msgId + FinalMix(KeyWordsHash(vec->key, keySize)) + vec->version;
    return n == 0 ? s : s % n;
}
