// Intake of receive messages through ASOrchMsgProc: the worked examples, the
// refusals, and damaged bodies placed against a guard page.
#include <string>
#include <vector>

#include "inbound_fixture.h"
#include "merge/merge_internal.h"
#include "support/msg_encode.h"
#include "support/reg_env.h"

namespace inboundtest {
namespace {

using qovtest::Bytes;
using qovtest::HasLine;

struct Seen {  // one entry as a handler got it
    uint32_t msgId, opType, version;
    Bytes key, data;
    const uint8_t *keyPtr;
};
std::vector<Seen> g_seen;

uint32_t Record(ASOrchHandle *, ASOrchMergeMsgVec *v) {
    g_seen.push_back({v->msgId, v->opType, v->version, Bytes(v->key, v->key + v->keySize),
                      v->data == nullptr ? Bytes() : Bytes(v->data, v->data + v->dataSize), v->key});
    return 0;
}

struct UserCall {
    const void *entries;
    uint32_t num;
    ASOrchUserDefInfo info;
};
std::vector<UserCall> g_user;
uint32_t g_userResult = 0;

uint32_t UserDef(ASOrchHandle *, void *entries, uint32_t num, ASOrchUserDefInfo *info) {
    g_user.push_back({entries, num, *info});
    return g_userResult;
}

// Serialised form of the tests: a u32 op type, then the entries as they are.
uint32_t g_unpackFrees = 0;
uint32_t Unpack(void *data, uint32_t len, ASOrchUnpackRes *res) {
    auto *b = static_cast<uint8_t *>(data);
    res->opType = len >= 4 ? qovtest::GetU32(b) : 0xFFFFFFFF;
    res->num = len >= 4 ? (len - 4) / 12 : 0;
    res->entries = b + 4;
    return 0;
}
void UnpackFree(ASOrchUnpackRes *) { ++g_unpackFrees; }


ASOrchMergeMsgDispatch g_dispatch[] = {{100, {Record, Record, Record, Record}},
                                       {101, {Record, Record, Record, Record}}};

// Receive ids of the suite: entries of 12 bytes with a 4-byte key unless said.
enum : uint32_t {
    kQueued = 10,     // merge type 0, mergeOp 7
    kUserDef = 11,    // user-defined handler, merge type 3
    kSerial = 12,     // serialised, op type 5
    kDirect = 13,     // merge type 4, mergeOp 0
    kNoFree = 14,     // serialised without unpackFree
    kLongKey = 15,    // key of 13 bytes
    kZeroSize = 16,   // ipcSize 0
    kBelowTrans = 0x7F7F7F6F,
    kAboveTrans = 0x7F7F7F80,
    kTransLow = 0x7F7F7F70,
    kTransHigh = 0x7F7F7F7F,
};

class MsgProcTest : public InboundTest {
protected:
    void SetUp() override {
        InboundTest::SetUp();
        g_seen.clear();
        g_user.clear();
        g_userResult = 0;
        g_unpackFrees = 0;
        ASOrchBasePara base{};
        base.damMerge = {g_dispatch, 2, 64, qovtest::MergeHash<0>, 0, 0};
        base.fesMerge = {g_dispatch, 2, 64, qovtest::MergeHash<1>, 0, 0};
        base.recvTblMsgList[0] = {recv_.data(), static_cast<uint32_t>(recv_.size())};
        ASSERT_EQ(ASOrchRegMerge(hdl_, &base, AS_SYNC_GRP_ID_NONE), 0u);
        ASSERT_EQ(Reg([&] { return ASOrchRegTblMsg(hdl_, &base); }), 0u);
        QovHostLogClear();
    }
    // Hands the bytes in as a message whose body ends at a guard page.
    uint32_t Proc(uint32_t msgId, const Bytes &body) {
        qovtest::GuardedBytes g(body);
        ASOrchIpcMsg msg{g.data(), msgId, static_cast<uint32_t>(g.size())};
        lastBody_ = g.data();
        uint32_t r = ASOrchMsgProc(hdl_, &msg);
        Drain();
        return r;
    }
    void Drain() {
        while (QovHostEpollRunOnce(ASOrchGetEpollFd(hdl_, 0), 0) > 0) {
        }
    }
    static ASOrchRecvTblMsg Desc(uint32_t id, uint32_t type, uint32_t op) {
        return {100, id, 0, nullptr, nullptr, 12, type, nullptr, op, 4};
    }
    std::vector<ASOrchRecvTblMsg> recv_ = [] {
        std::vector<ASOrchRecvTblMsg> r{Desc(kQueued, 0, 7), Desc(kUserDef, 3, 0), Desc(kSerial, 1, 1),
                                        Desc(kDirect, 4, 0), Desc(kNoFree, 0, 0), Desc(kLongKey, 0, 0),
                                        Desc(kZeroSize, 0, 0), Desc(kBelowTrans, 4, 0), Desc(kAboveTrans, 4, 0),
                                        Desc(kTransLow, 4, 0), Desc(kTransHigh, 4, 0)};
        r[1].userDefProc = UserDef;
        r[2].unpack = Unpack;
        r[2].unpackFree = UnpackFree;
        r[2].opType = 5;
        r[2].mergeMsgId = 101;
        r[4].unpack = Unpack;
        r[5].keySize = 13;
        r[6].ipcSize = 0;
        return r;
    }();
    const uint8_t *lastBody_ = nullptr;
};

TEST_F(MsgProcTest, EntriesReachTheMergeLayerInOrderWithTheRegisteredFields) {
    struct Case {
        uint32_t id, op, version;
        bool direct;  // handled on the entry where it lies in the body
    } cases[] = {{kQueued, 1, 0, false}, {kDirect, 0, 0, true}, {kBelowTrans, 0, 0, true},
                 {kAboveTrans, 0, 0, true}, {kQueued, 1, 2, false}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.id);
        g_seen.clear();
        uint32_t v = 0;
        while (v < c.version) ASSERT_EQ(ASOrchIncTblMsgVersion(hdl_, c.id, &v), 0u);
        Bytes entries = qovtest::Entries(3, 12, 0x40 + c.version);
        ASSERT_EQ(Proc(c.id, qovtest::EncodeRecv(entries)), 0u);
        ASSERT_EQ(g_seen.size(), 3u);
        for (uint32_t i = 0; i < 3; ++i) {
            const Seen &s = g_seen[i];
            Bytes want(entries.begin() + 12 * i, entries.begin() + 12 * (i + 1));
            EXPECT_EQ(s.data, want) << "entry " << i << " in order, whole";
            EXPECT_EQ(s.key, Bytes(want.begin(), want.begin() + 4));
            EXPECT_EQ(std::make_tuple(s.msgId, s.opType, s.version), std::make_tuple(100u, c.op, c.version));
            if (c.direct) {
                EXPECT_EQ(s.keyPtr, lastBody_ + 8 + 12 * i);
            }
        }
    }
}

TEST_F(MsgProcTest, TransferIdsNeverReachTheReceiveTable) {
    for (uint32_t id : {kTransLow, kTransHigh}) {
        Proc(id, qovtest::EncodeTrans({qovtest::TableTlv(1, 1, 0, 1, 12, 0)}).bytes);
        EXPECT_TRUE(g_seen.empty()) << std::hex << id;
        EXPECT_FALSE(HasLine("OrchGetTblMsgCtrl from hash failed, unknown key " + std::to_string(id) + "."));
    }
}

TEST_F(MsgProcTest, UserDefinedHandlerGetsTheWholeRunAndItsInformation) {
    uint32_t v = 0;
    ASSERT_EQ(ASOrchIncTblMsgVersion(hdl_, kUserDef, &v), 0u);
    g_userResult = 5;
    ASSERT_EQ(Proc(kUserDef, qovtest::EncodeRecv(qovtest::Entries(4, 12, 1))), 0u) << "its failure is only logged";
    ASSERT_EQ(g_user.size(), 1u);
    EXPECT_EQ(g_user[0].entries, lastBody_ + 8);
    EXPECT_EQ(g_user[0].num, 4u);
    EXPECT_EQ(std::make_tuple(g_user[0].info.version, g_user[0].info.mergeType, g_user[0].info.reserved),
              std::make_tuple(1u, 3u, uint64_t{0}));
    EXPECT_TRUE(HasLine("ORCH_ASMsgProc fail, ret 5!"));
    EXPECT_TRUE(g_seen.empty()) << "the merge layer is bypassed";
}

TEST_F(MsgProcTest, SerialisedBodiesGoThroughUnpack) {
    Bytes good;
    qovtest::PutU32(good, 5);
    Bytes entries = qovtest::Entries(2, 12, 9);
    good.insert(good.end(), entries.begin(), entries.end());
    ASSERT_EQ(Proc(kSerial, good), 0u);
    ASSERT_EQ(g_seen.size(), 2u);
    EXPECT_EQ(g_seen[1].data, Bytes(entries.begin() + 12, entries.end()));
    EXPECT_EQ(std::make_tuple(g_seen[0].msgId, g_seen[0].opType), std::make_tuple(101u, 1u));
    EXPECT_EQ(g_unpackFrees, 1u);

    g_seen.clear();
    qovtest::SetU32(good.data(), 6);
    EXPECT_EQ(Proc(kSerial, good), 1u);
    EXPECT_EQ(g_unpackFrees, 2u) << "released exactly once";
    EXPECT_TRUE(g_seen.empty());
    EXPECT_TRUE(HasLine("ipc unpack msgId = 12 opType = 6 is error."));

    EXPECT_EQ(Proc(kNoFree, good), 1u);
    EXPECT_TRUE(HasLine("unpack para is null."));
}

TEST_F(MsgProcTest, RefusalsAndDrops) {
    struct Case {
        const char *name;
        uint32_t id;
        Bytes body;
        uint32_t result;
        std::string line;
    } cases[] = {
        {"EmptyBody", kQueued, qovtest::EncodeRecv({}), 0, ""},
        {"OneByteOver", kQueued, qovtest::EncodeRecv(qovtest::Entries(37, 1, 0)), 1,
         "msgLen is not multi of ipcSize, len = 37, size = 12."},
        {"ShorterThanPrefix", kQueued, Bytes(7, 0xAB), 1,
         "orchI, recv msg shorter than its prefix, msgId = 10, len = 7."},
        {"ZeroSizeEmpty", kZeroSize, qovtest::EncodeRecv({}), 0, ""},
        {"ZeroSizeWithBytes", kZeroSize, qovtest::EncodeRecv(Bytes(4, 1)), 1,
         "msgLen is not multi of ipcSize, len = 4, size = 0."},
        {"KeyLongerThanEntry", kLongKey, qovtest::EncodeRecv(qovtest::Entries(1, 12, 0)), 1,
         "orchI, recv msg key size 13 exceeds entry size 12, msgId = 15."},
        {"Unknown", 77, qovtest::EncodeRecv(qovtest::Entries(1, 12, 0)), 0, "msg proc unknown msg! msgId:77"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        QovHostLogClear();
        EXPECT_EQ(Proc(c.id, c.body), c.result);
        EXPECT_TRUE(g_seen.empty());
        if (c.line.empty()) {
            EXPECT_TRUE(qovtest::Logs().empty());
        } else {
            EXPECT_EQ(qovtest::Logs().back(), c.line);
        }
    }
    uint8_t byte = 0;
    ASOrchIpcMsg ok{&byte, kQueued, 8}, noBody{nullptr, kQueued, 8};
    EXPECT_EQ(ASOrchMsgProc(nullptr, &ok), 1u);
    EXPECT_TRUE(HasLine("recv zebbrk channel msg handle is null."));
    EXPECT_EQ(ASOrchMsgProc(hdl_, nullptr), 1u);
    EXPECT_EQ(ASOrchMsgProc(hdl_, &noBody), 1u);
    EXPECT_EQ(qovtest::CountLine("recv zebbrk channel msg is null."), 2u);
}

// Every prefix of a valid message: a whole number of entries is handled
// exactly, anything else is refused without a byte handed on or over-read.
TEST_F(MsgProcTest, EveryCutOfAMessageIsRefusedOrHandledExactly) {
    for (uint32_t id : {kQueued, kDirect, kUserDef}) {
        Bytes full = qovtest::EncodeRecv(qovtest::Entries(3, 12, 0x70));
        for (size_t len = 0; len <= full.size(); ++len) {
            SCOPED_TRACE(len);
            g_seen.clear();
            g_user.clear();
            bool whole = len >= 8 && (len - 8) % 12 == 0;
            EXPECT_EQ(Proc(id, Bytes(full.begin(), full.begin() + len)), whole ? 0u : 1u);
            size_t n = whole ? (len - 8) / 12 : 0;
            if (id == kUserDef) {
                EXPECT_EQ(g_user.size(), whole ? 1u : 0u);
                if (whole) {
                    EXPECT_EQ(g_user[0].num, n);
                }
            } else {
                EXPECT_EQ(g_seen.size(), n);
            }
        }
    }
}

}  // namespace
}  // namespace inboundtest
