// Shared setup of the merge-layer suites: a handle on the counting allocator,
// merge sub-records with recording handlers, and helpers to queue and read.
#ifndef QOV_TEST_MERGE_FIXTURE_H
#define QOV_TEST_MERGE_FIXTURE_H

#include <string>
#include <vector>

#include "merge/as_merge.h"
#include "support/test_env.h"

namespace mergetest {

// What a handler saw: the bytes are copied during the call.
struct Seen {
    uint32_t path;
    uint32_t msgId;
    uint32_t opType;
    std::string key;
    std::string data;
    const uint8_t *dataPtr;
    uint64_t dataSize;
};

extern std::vector<Seen> g_seen;
extern uint32_t g_handlerResult;  // what every recording handler returns

uint32_t DamHash(const void *key);
uint32_t FesHash(const void *key);

// Dispatch entries: msgId 100 and 101 on both paths with handlers for ops 0..3.
extern ASOrchMergeMsgDispatch g_damTbl[2];
extern ASOrchMergeMsgDispatch g_fesTbl[2];
ASOrchMergePara DamPara();
ASOrchMergePara FesPara();

ASOrchMergeMsgVec Vec(uint32_t msgId, uint32_t op, const std::string &key, const std::string &data = "");

class MergeTest : public qovtest::HostTest {
protected:
    void SetUp() override;
    void TearDown() override;
    // Registers the given paths; the result of the step.
    uint32_t Reg(const ASOrchMergePara &dam, const ASOrchMergePara &fes);
    uint32_t Put(uint32_t mergeType, uint32_t msgId, uint32_t op, const std::string &key,
                 const std::string &data = "");
    // One turn of the Data thread's epoll loop; the callbacks run.
    int32_t Turn();
    ASOrchMergeRec *Recs() const { return ASOrchMergeRecs(hdl_); }
    ASOrchHandle *hdl_ = nullptr;
};

}  // namespace mergetest

#endif
