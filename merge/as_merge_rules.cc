// The merge rules and the key functions that every merge queue of the layer
// is created with.
#include <cstddef>

#include "core/base/as_bytes.h"
#include "merge/merge_private.h"

namespace {
constexpr uint32_t kAgeInfoOp = 3;
}  // namespace

// Row index = incoming + 2 * stored; each row repeats its pair so a lookup can
// confirm it. Op 2 stands for "op 1 followed by op 0".
extern "C" QOV_AS_API constexpr ASOrchMergeRule g_ASOrchMergeRules[] = {
    // stored  incoming  merged
    {0, 0, 0},
    {0, 1, 1},
    {1, 0, 2},
    {1, 1, 1},
    {2, 0, 2},
    {2, 1, 1},
};
extern "C" QOV_AS_API constexpr uint32_t g_ASOrchMergeRulesNum =
    sizeof(g_ASOrchMergeRules) / sizeof(g_ASOrchMergeRules[0]);
static_assert(g_ASOrchMergeRulesNum == 6);

uint32_t ASOrchGetMergeRule(uint32_t storedOp, uint32_t incomingOp, uint32_t *mergedOp) {
    uint32_t idx = incomingOp + 2u * storedOp;
    if (idx >= g_ASOrchMergeRulesNum) return 1;
    const ASOrchMergeRule &row = g_ASOrchMergeRules[idx];
    if (row.storedOp != storedOp || row.incomingOp != incomingOp) return 1;
    *mergedOp = row.mergedOp;
    return 0;
}

namespace {

// The incoming op becomes the rule table's merge of the stored and incoming
// ops; an age-info op or a pair without a rule leaves it as it is (logged).
void PubMergeRule(const ASOrchMergeMsgVec *stored, ASOrchMergeMsgVec *incoming) {
    if (incoming->opType == kAgeInfoOp) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "Orch autosync merge notify is ageinfo error, msgId %u", incoming->msgId);
        return;
    }
    uint32_t merged = 0;
    if (ASOrchGetMergeRule(stored->opType, incoming->opType, &merged) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "Orch autosync merge notify get rule error");
        return;
    }
    incoming->opType = merged;
}

}  // namespace

// The queue calls this when a write meets a queued entry with the same key and
// then copies the incoming vector over the stored one: the stored buffer is
// released here, the incoming buffer takes its place.
// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): the merge queue's merge callback type
void ASOrchPubMergeNotify(void *incoming, void *stored) {
    auto *in = static_cast<ASOrchMergeMsgVec *>(incoming);
    auto *st = static_cast<ASOrchMergeMsgVec *>(stored);
    PubMergeRule(st, in);
    if (st->key == nullptr) return;
    st->usrData->memFree(st->key);
    st->key = nullptr;
}

// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): the merge queue's compare callback type
// A vector is equal to itself: the reader removes a queued entry by the
// entry's own vector, which needs no look at the key bytes.
uint32_t ASOrchPubCmpFunc(const void *a, const void *b) {
    if (a == b) return 1;
    const auto *va = static_cast<const ASOrchMergeMsgVec *>(a);
    const auto *vb = static_cast<const ASOrchMergeMsgVec *>(b);
    if (va->msgId != vb->msgId || va->version != vb->version || va->keySize != vb->keySize) return 0;
    return ASBytesEqual(va->key, vb->key, static_cast<size_t>(va->keySize)) ? 1 : 0;
}

// The whole vector is the key object the queue hands to hash and compare.
const void *ASOrchPubGetKeyPtr(const void *vec) { return vec; }
