#include "inbound_fixture.h"

namespace inboundtest {

void InboundTest::SetUp() {
    HostTest::SetUp();
    kept_.clear();
    ASOrchCreatePara para{0, 0, qovtest::TestAlloc, qovtest::TestFree, 0};
    hdl_ = ASOrchCreate("orchI", &para);
    ASSERT_NE(hdl_, nullptr);
    QovHostLogClear();
}

void InboundTest::TearDown() {
    ASOrchDestroy(hdl_);
    std::set<void *> left;
    for (const auto &block : qovtest::LiveBlocks()) left.insert(block.first);
    EXPECT_EQ(left, kept_) << "blocks left after destroy other than the registry's";
    qovtest::FreeLive();
    EXPECT_EQ(qovtest::AllocOutstanding(), 0);
    HostTest::TearDown();
}

}  // namespace inboundtest
