// Shared setup of the inbound suites: a handle whose allocator remembers every
// live block, so that the registry's blocks (which the handle keeps until the
// process ends) can be named after destroy and then released by the test.
#ifndef QOV_TEST_INBOUND_FIXTURE_H
#define QOV_TEST_INBOUND_FIXTURE_H

#include <set>

#include "inbound/inbound_private.h"
#include "support/test_env.h"

namespace inboundtest {

// The fixture's allocator, and its live blocks.
void *TrackAlloc(uint32_t size);
void TrackFree(void *p);
const std::set<void *> &LiveBlocks();

class InboundTest : public qovtest::HostTest {
protected:
    void SetUp() override;
    // Destroys the handle; the blocks left must be exactly kept_.
    void TearDown() override;
    // Runs a registration; the blocks it allocated are the registry's and
    // outlive the handle (the integer hash's delete releases nothing).
    template <typename F>
    uint32_t Reg(F &&f) {
        std::set<void *> before = LiveBlocks();
        uint32_t r = f();
        for (void *p : LiveBlocks())
            if (before.count(p) == 0) kept_.insert(p);
        return r;
    }
    ASOrchHandle *hdl_ = nullptr;
    std::set<void *> kept_;  // blocks that may outlive the handle
};

}  // namespace inboundtest

#endif
