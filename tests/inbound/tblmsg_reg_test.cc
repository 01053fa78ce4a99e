// The table-message registry: what registration keeps, where, and what it
// leaves behind when it fails.
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "inbound_fixture.h"

namespace inboundtest {
namespace {

using qovtest::Logs;

uint32_t Smooth4(uint32_t, uint32_t, void *, uint32_t) { return 0; }
uint32_t Smooth4b(uint32_t, uint32_t, void *, uint32_t) { return 0; }
uint32_t TblProc(ASOrchHandle *, void *, uint32_t, uint32_t, ASOrchTblMsgInfo *) { return 0; }
uint32_t UserDef(ASOrchHandle *, void *, uint32_t, ASOrchUserDefInfo *) { return 0; }

ASOrchRecvTblMsg Recv(uint32_t msgId) { return {msgId + 1000, msgId, 3, nullptr, nullptr, 16, 1, UserDef, 7, 4}; }
ASOrchTransTblMsg Trans(uint32_t tableId) {
    return {tableId, 24, {Smooth4}, {Smooth4b}, tableId * 10, TblProc};
}
ASOrchTblMsgList List(void *p, uint32_t n) { return {p, n}; }

class TblMsgRegTest : public InboundTest {
protected:
    uint32_t RegBase(const ASOrchBasePara &base) {
        return Reg([&] { return ASOrchRegTblMsg(hdl_, &base); });
    }
    uint32_t RegTrans(uint32_t path, const ASOrchTransTblMsg *t, uint32_t n) {
        return Reg([&] { return ASOrchRegTblTrans(hdl_, path, t, n); });
    }
    std::vector<ASOrchRecvTblMsg> recv0_{Recv(1), Recv(2)}, recv1_{Recv(3)};
    std::vector<ASOrchTransTblMsg> trans0_{Trans(1)}, trans1_{Trans(2), Trans(3)};
    ASOrchBasePara Full() {
        ASOrchBasePara b{};
        b.recvTblMsgList[0] = List(recv0_.data(), 2);
        b.recvTblMsgList[1] = List(recv1_.data(), 1);
        b.transTblMsgList[0] = List(trans0_.data(), 1);
        b.transTblMsgList[1] = List(trans1_.data(), 2);
        return b;
    }
};

TEST_F(TblMsgRegTest, OnlyTheMbRoleRegistersAndLookupsThenFail) {
    for (uint32_t mb : {0u, 1u}) {
        SCOPED_TRACE(mb);
        TearDown();
        SetUp();
        QovHostSetRoleMb(mb);
        ASOrchBasePara base = Full();
        ASOrchTransTblMsg late = Trans(9);
        EXPECT_EQ(RegBase(base), 0u);
        EXPECT_EQ(RegTrans(0, &late, 1), 0u);
        EXPECT_EQ(kept_.size(), mb ? 7u : 0u) << "two tables and one block per registered list";
        EXPECT_EQ(ASOrchGetTblMsgRecv(hdl_, 3) != nullptr, mb == 1);
        EXPECT_EQ(ASOrchGetTblMsgTrans(hdl_, 9) != nullptr, mb == 1);
        EXPECT_EQ(qovtest::HasLine("hashTble is null, unknown key 3."), mb == 0);
    }
}

struct ListCase {
    const char *name;
    bool recv0, recv1, trans0, trans1;  // list in use
    bool nullPtr;                       // an unused list has count but no array (else array, count 0)
};

class TblMsgListTest : public TblMsgRegTest, public ::testing::WithParamInterface<ListCase> {};

TEST_P(TblMsgListTest, ListsNotInUseAreSkippedSilently) {
    const ListCase &c = GetParam();
    ASOrchBasePara base = Full();
    bool use[] = {c.recv0, c.recv1, c.trans0, c.trans1};
    ASOrchTblMsgList *lists[] = {&base.recvTblMsgList[0], &base.recvTblMsgList[1], &base.transTblMsgList[0],
                                 &base.transTblMsgList[1]};
    for (int i = 0; i < 4; ++i) {
        if (use[i]) continue;
        if (c.nullPtr)
            lists[i]->tblMsg = nullptr;
        else
            lists[i]->num = 0;
    }
    ASSERT_EQ(RegBase(base), 0u);
    size_t blocks = (c.recv0 || c.recv1) + (c.trans0 || c.trans1) + c.recv0 + c.recv1 + c.trans0 + c.trans1;
    EXPECT_EQ(kept_.size(), blocks);
    size_t before = Logs().size();
    EXPECT_EQ(ASOrchGetTblMsgRecv(hdl_, 1) != nullptr, c.recv0);
    EXPECT_EQ(ASOrchGetTblMsgRecv(hdl_, 3) != nullptr, c.recv1);
    EXPECT_EQ(ASOrchGetTblMsgTrans(hdl_, 1) != nullptr, c.trans0);
    EXPECT_EQ(ASOrchGetTblMsgTrans(hdl_, 3) != nullptr, c.trans1);
    if (!(c.recv0 || c.recv1 || c.trans0 || c.trans1)) {
        EXPECT_EQ(before, 0u) << "skipping logs nothing";
    }
}

INSTANTIATE_TEST_SUITE_P(, TblMsgListTest,
                         ::testing::Values(ListCase{"NoneByCount", false, false, false, false, false},
                                           ListCase{"NoneByNullArray", false, false, false, false, true},
                                           ListCase{"SecondOfEach", false, true, false, true, false},
                                           ListCase{"FirstOfEach", true, false, true, false, true},
                                           ListCase{"All", true, true, true, true, false}),
                         qovtest::RowName());

TEST_F(TblMsgRegTest, ADuplicateIdDropsTheWholeTable) {
    struct Case {
        const char *name;
        bool inRecv;    // the duplicate is a msgId, else a tableId
        bool acrossLists;
    } cases[] = {{"RecvAcross", true, true}, {"RecvWithin", true, false},
                 {"TransAcross", false, true}, {"TransWithin", false, false}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        TearDown();
        SetUp();
        ASOrchBasePara base = Full();
        if (c.inRecv && c.acrossLists) recv1_[0].msgId = 2;
        if (c.inRecv && !c.acrossLists) recv0_[1].msgId = 1;
        if (!c.inRecv && c.acrossLists) trans1_[1].tableId = 1;
        if (!c.inRecv && !c.acrossLists) trans1_[1].tableId = 2;
        uint32_t dup = c.inRecv ? (c.acrossLists ? 2 : 1) : (c.acrossLists ? 1 : 2);
        EXPECT_EQ(RegBase(base), 1u);
        std::string add = std::string("Orch autosync ") + (c.inRecv ? "recv" : "trans") + " add HashNode(" +
                          std::to_string(dup) + ") fail";
        size_t at = qovtest::FindLine(add);
        ASSERT_NE(at, std::string::npos);
        EXPECT_EQ(qovtest::FindLine("orchI, Orch auto sync create tblmsg hash Fail"), at + 1);
        EXPECT_EQ(ASOrchGetTblMsgRecv(hdl_, 1) != nullptr, !c.inRecv) << "entries registered before are gone too";
        EXPECT_EQ(ASOrchGetTblMsgTrans(hdl_, 3), nullptr) << "the transfer table, registered last, is not there";
        recv0_ = {Recv(1), Recv(2)};
        recv1_ = {Recv(3)};
        trans1_ = {Trans(2), Trans(3)};
    }
}

// Run-time registration: nothing without tables, a failure keeps what came
// before it, and the table stays usable.
TEST_F(TblMsgRegTest, RunTimeRegistrationKeepsWhatCameBefore) {
    ASOrchTransTblMsg t[] = {Trans(40), Trans(41), Trans(40), Trans(42)};
    uint64_t allocs = qovtest::AllocCount();
    EXPECT_EQ(RegTrans(1, t, 0), 0u);
    EXPECT_EQ(RegTrans(1, nullptr, 2), 0u);
    EXPECT_EQ(qovtest::AllocCount(), allocs) << "no table without tables";
    qovtest::AllocFailAt(allocs + 1);
    EXPECT_EQ(RegTrans(0, t, 1), 1u);
    EXPECT_TRUE(qovtest::HasLine("orchI, Orch auto sync create new tblmsg hash Fail"));
    qovtest::AllocFailAt(allocs + 3);
    EXPECT_EQ(RegTrans(0, t, 1), 1u);
    EXPECT_TRUE(qovtest::HasLine("Orch auto sync trans tbl new msg failed to new HashNode"));
    EXPECT_EQ(RegTrans(1, t, 4), 1u);
    EXPECT_TRUE(qovtest::HasLine("Orch autosync trans add HashNode(40) fail"));
    EXPECT_NE(ASOrchGetTblMsgTrans(hdl_, 41), nullptr);
    EXPECT_EQ(ASOrchGetTblMsgTrans(hdl_, 42), nullptr);
    EXPECT_EQ(RegTrans(1, t + 3, 1), 0u);
    EXPECT_EQ(kept_.size(), 3u);
    EXPECT_EQ(ASOrchRegTblTrans(nullptr, 0, t, 1), 1u);
}

// Fail the k-th allocation of a full registration, k = 1..6, then none.
class TblMsgAllocTest : public TblMsgRegTest, public ::testing::WithParamInterface<int> {};

TEST_P(TblMsgAllocTest, EachAllocationFailureIsCleanAndLogged) {
    const int k = GetParam();
    // recv table, recv blocks x2, trans table, trans blocks x2.
    const char *const lines[][2] = {
        {"orchI, Orch auto sync create new tblmsg hash Fail", nullptr},
        {"Orch auto sync recv tbl msg failed to new HashNode", "orchI, Orch auto sync create tblmsg hash Fail"},
        {"Orch auto sync recv tbl msg failed to new HashNode", "orchI, Orch auto sync create tblmsg hash Fail"},
        {"orchI, Orch auto sync create new tblmsg hash Fail", nullptr},
        {"Orch auto sync trans tbl msg failed to new HashNode", "orchI, Orch auto sync create tblmsg hash Fail"},
        {"Orch auto sync trans tbl msg failed to new HashNode", "orchI, Orch auto sync create tblmsg hash Fail"},
    };
    qovtest::AllocFailAt(qovtest::AllocCount() + k);
    ASOrchBasePara base = Full();
    uint32_t r = RegBase(base);
    if (k > 6) {
        EXPECT_EQ(r, 0u);
        EXPECT_EQ(kept_.size(), 6u);
        return;
    }
    EXPECT_EQ(r, 1u);
    EXPECT_EQ(kept_.size(), static_cast<size_t>(k - 1)) << "memory taken before the failure stays";
    std::vector<std::string> want{lines[k - 1][0]};
    if (lines[k - 1][1] != nullptr) want.push_back(lines[k - 1][1]);
    EXPECT_EQ(Logs(), want);
    EXPECT_EQ(ASOrchGetTblMsgRecv(hdl_, 1) != nullptr, k > 3);
    EXPECT_EQ(ASOrchGetTblMsgTrans(hdl_, 1), nullptr);
}

INSTANTIATE_TEST_SUITE_P(, TblMsgAllocTest, ::testing::Range(1, 8),
                         [](const auto &p) { return "Fail" + std::to_string(p.param); });

TEST_F(TblMsgRegTest, VersionsCountFromOnePerId) {
    ASOrchBasePara base = Full();
    ASSERT_EQ(RegBase(base), 0u);
    struct Kind {
        uint32_t (*inc)(ASOrchHandle *, uint32_t, uint32_t *);
        const char *unknownLine;
    } kinds[] = {
        {ASOrchIncTblMsgVersion, "Orch set tblmsg version failed. msgId:99"},
        {ASOrchIncTransTblMsgVersion, "Orch set tblmsg version failed. tableId:99"},
    };
    for (const Kind &k : kinds) {
        uint32_t v = 123;
        EXPECT_EQ(k.inc(hdl_, 2, &v), 0u);
        EXPECT_EQ(v, 1u);
        EXPECT_EQ(k.inc(hdl_, 2, &v), 0u);
        EXPECT_EQ(v, 2u);
        EXPECT_EQ(k.inc(hdl_, 3, &v), 0u);
        EXPECT_EQ(v, 1u) << "each id counts on its own";
        v = 123;
        EXPECT_EQ(k.inc(hdl_, 99, &v), 1u);
        EXPECT_EQ(v, 123u) << "nothing stored for an unknown id";
        size_t at = qovtest::FindLine("OrchGetTblMsgCtrl from hash failed, unknown key 99.");
        EXPECT_EQ(qovtest::FindLine(k.unknownLine, at), at + 1);
        EXPECT_EQ(k.inc(hdl_, 2, nullptr), 1u);
        EXPECT_EQ(k.inc(nullptr, 2, &v), 1u);
        EXPECT_EQ(ASOrchGetTblMsgRecv(nullptr, 2), nullptr);
        QovHostLogClear();
    }
}

}  // namespace
}  // namespace inboundtest
