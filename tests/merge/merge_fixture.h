// Shared setup of the merge-layer suites: a handle on the counting allocator,
// both paths registered with recording handlers, and one-turn epoll reads.
#ifndef QOV_TEST_MERGE_FIXTURE_H
#define QOV_TEST_MERGE_FIXTURE_H

#include <string>
#include <vector>

#include "merge/merge_private.h"
#include "support/test_env.h"

namespace mergetest {

struct Seen {  // what a handler saw
    uint32_t path, msgId, opType;
    std::string key;
    const uint8_t *data;
};
extern std::vector<Seen> g_seen;
extern uint32_t g_handlerResult;

ASOrchMergePara DamPara();  // msgId 100 and 101, hashSize 64
ASOrchMergePara FesPara();  // msgId 100 and 101, hashSize 0
// Points at the given bytes: they must outlive the vector.
ASOrchMergeMsgVec Vec(uint32_t msgId, uint32_t op, const char *key, const char *data = "");

class MergeTest : public qovtest::HostTest {
protected:
    void SetUp() override;
    void TearDown() override;  // destroys the handle: nothing may stay allocated
    uint32_t Reg(const ASOrchMergePara &dam, const ASOrchMergePara &fes);
    uint32_t Put(uint32_t type, uint32_t msgId, uint32_t op, const std::string &key, const std::string &data = "");
    std::vector<int32_t> Drain();  // epoll turns until idle; callbacks per turn
    std::string Order() const;     // keys in the order handled
    ASOrchHandle *hdl_ = nullptr;
};

}  // namespace mergetest

#endif
