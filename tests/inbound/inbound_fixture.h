// Shared setup of the inbound suites: a handle on the counting allocator, and
// a record of the blocks registrations take: the registry's, which the handle
// keeps until the process ends, named after destroy and then released.
#ifndef QOV_TEST_INBOUND_FIXTURE_H
#define QOV_TEST_INBOUND_FIXTURE_H

#include <set>

#include "inbound/inbound_private.h"
#include "support/test_env.h"

namespace inboundtest {

class InboundTest : public qovtest::HostTest {
protected:
    void SetUp() override;
    // Destroys the handle; the blocks left must be exactly kept_.
    void TearDown() override;
    // Runs a registration; the blocks it allocated are the registry's and
    // outlive the handle (the integer hash's delete releases nothing).
    template <typename F>
    uint32_t Reg(F &&f) {
        auto before = qovtest::LiveBlocks();
        uint32_t r = f();
        for (const auto &block : qovtest::LiveBlocks())
            if (before.count(block.first) == 0) kept_.insert(block.first);
        return r;
    }
    ASOrchHandle *hdl_ = nullptr;
    std::set<void *> kept_;  // blocks that may outlive the handle
};

}  // namespace inboundtest

#endif
