#include "inbound_fixture.h"

namespace inboundtest {
namespace {

std::set<void *> g_live;

}  // namespace

void *TrackAlloc(uint32_t size) {
    void *p = qovtest::TestAlloc(size);
    if (p != nullptr) g_live.insert(p);
    return p;
}

void TrackFree(void *p) {
    g_live.erase(p);
    qovtest::TestFree(p);
}

const std::set<void *> &LiveBlocks() { return g_live; }

void InboundTest::SetUp() {
    HostTest::SetUp();
    g_live.clear();
    kept_.clear();
    ASOrchCreatePara para{0, 0, TrackAlloc, TrackFree, 0};
    hdl_ = ASOrchCreate("orchI", &para);
    ASSERT_NE(hdl_, nullptr);
    QovHostLogClear();
}

void InboundTest::TearDown() {
    ASOrchDestroy(hdl_);
    EXPECT_EQ(g_live, kept_) << "blocks left after destroy other than the registry's";
    for (void *p : std::set<void *>(g_live)) TrackFree(p);
    EXPECT_EQ(qovtest::AllocOutstanding(), 0);
    HostTest::TearDown();
}

}  // namespace inboundtest
