// Bucket computation offered to the orchestrator's merge-queue hash function.
#include <cstring>

#include "merge/merge_private.h"

namespace {

constexpr uint32_t kFnvOffset = 2166136261u;
constexpr uint32_t kFnvPrime = 16777619u;

inline uint32_t Word(const uint8_t *p) {
    uint32_t w;
    std::memcpy(&w, p, sizeof w);  // keys may be unaligned
    return w;
}

// 32-bit FNV-1a over whole native words; trailing bytes take no part. Four
// words a round, since keys are mostly 16 bytes or more.
uint32_t KeyWordsHash(const uint8_t *key, uint64_t keySize) {
    const uint8_t *end = key + (keySize / sizeof(uint32_t)) % (uint64_t{1} << 32) * sizeof(uint32_t);
    uint32_t h = kFnvOffset;
    for (; end - key >= 16; key += 16) {
        h = (h ^ Word(key)) * kFnvPrime;
        h = (h ^ Word(key + 4)) * kFnvPrime;
        h = (h ^ Word(key + 8)) * kFnvPrime;
        h = (h ^ Word(key + 12)) * kFnvPrime;
    }
    for (; key != end; key += 4) h = (h ^ Word(key)) * kFnvPrime;
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

// s modulo the bucket count. Without the handle's merge records, or for a
// merge type that names no queue's path, the queue default stands in.
// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): the order of ASOrchMergeHashFunc, its one caller
uint32_t BucketOf(const ASOrchHandle *hdl, uint32_t mergeType, uint32_t s) {
    ASOrchPath path;
    if (!ASPathFromIndex(mergeType, &path) || hdl == nullptr || hdl->mergeHandle == nullptr)
        return s % AS_MERGE_DEF_HASH_SIZE;
    const ASOrchMergeRec *rec = ASOrchMergeRecOf(hdl, path);
    if (rec->hashSize == 0) return s;
    // Lemire's fastmod: exact for every 32-bit s and bucket count.
    uint64_t low = rec->hashMagic * s;
    return static_cast<uint32_t>((static_cast<__uint128_t>(low) * rec->hashSize) >> 64);
}

}  // namespace

// Reads only msgId, version, keySize and the key, so vectors that compare equal
// land in the same bucket. It runs on every queue write, so it logs nothing.
extern "C" QOV_AS_API uint32_t ASOrchMergeHashFunc(ASOrchHandle *hdl, uint32_t mergeType,
                                                   const ASOrchMergeMsgVec *vec) {
    if (vec == nullptr) return 0;
    uint64_t keySize = vec->key != nullptr ? vec->keySize : 0;
    return BucketOf(hdl, mergeType, vec->msgId + FinalMix(KeyWordsHash(vec->key, keySize)) + vec->version);
}
