// Transfer messages end to end: the table-data layouts, the smoothing runs
// with their class records and callback priority, and damaged messages placed
// against a guard page (a clean refusal, or exactly the well-formed prefix).
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "inbound_fixture.h"
#include "support/msg_encode.h"

namespace inboundtest {
namespace {

using qovtest::Bytes;
using qovtest::SmoothTlv;
using qovtest::Tlv;

constexpr uint32_t kDam = 5, kFes = 7, kTyped = 8;  // tables: DAM, FES (base route), DAM (with-type route)
constexpr uint32_t kTransId = 0x7F7F7F73;

// What the handlers and callbacks saw, in order, and the body they saw it in.
std::vector<std::string> g_ev;
std::vector<Bytes> g_recs;  // class record bytes per smoothing callback that got one
const uint8_t *g_body = nullptr;
size_t g_bodyLen = 0;
uint32_t g_tblResult = 0;
uint8_t g_sum = 0;  // keeps the reads of the entries

void Ev(const char *fmt, auto... a) {
    char buf[160];
    std::snprintf(buf, sizeof(buf), fmt, a...);
    g_ev.emplace_back(buf);
}

uint32_t TblProc(ASOrchHandle *, void *e, uint32_t n, uint32_t size, ASOrchTblMsgInfo *info) {
    auto *p = static_cast<const uint8_t *>(e);
    // The entries lie in the body; reading them all lets the guard page catch an overrun.
    EXPECT_TRUE(p >= g_body && uint64_t{n} * size <= static_cast<size_t>(g_body + g_bodyLen - p));
    uint8_t sum = 0;
    for (uint64_t i = 0; i < uint64_t{n} * size; ++i) sum = static_cast<uint8_t>(sum + p[i]);
    g_sum = sum;
    Ev("tbl @%td n=%u size=%u v=%u param=%u type=%u", p - g_body, n, size, info->version, info->tblParam,
       info->tlvType);
    return g_tblResult;
}

// A smoothing callback: its slot, arguments (batch type only in the with-type
// form) and the record's bytes.
uint32_t Cb(const char *slot, uint32_t t, const char *b, uint32_t type, void *rec, uint32_t len) {
    Ev("%s t=%u%s type=%u len=%u", slot, t, b, type, len);
    if (rec != nullptr) g_recs.emplace_back(static_cast<uint8_t *>(rec), static_cast<uint8_t *>(rec) + len);
    return 0;
}
std::string B(uint32_t b) { return " b=" + std::to_string(b); }
uint32_t Pre4(uint32_t t, uint32_t ty, void *r, uint32_t l) { return Cb("pre", t, "", ty, r, l); }
uint32_t Proc4(uint32_t t, uint32_t ty, void *r, uint32_t l) { return Cb("proc", t, "", ty, r, l); }
uint32_t Pre5(uint32_t t, uint32_t b, uint32_t ty, void *r, uint32_t l) { return Cb("pre", t, B(b).c_str(), ty, r, l); }
uint32_t Proc5(uint32_t t, uint32_t b, uint32_t ty, void *r, uint32_t l) { return Cb("proc", t, B(b).c_str(), ty, r, l); }

// The platform's smoothing entries as called, in order.
std::vector<QovHostCall> EntryCalls() {
    std::vector<QovHostCall> out;
    QovHostCall c;
    for (uint32_t i = 0; QovHostJournalGet(i, &c) == 0; ++i)
        if (std::strncmp(c.op, "QOV_ENTRY_", 10) == 0) out.push_back(c);
    return out;
}

// Their names, with the batch type where one is passed.
std::vector<std::string> Entries() {
    std::vector<std::string> out;
    for (const QovHostCall &c : EntryCalls())
        out.push_back(c.op + (std::strstr(c.op, "WithType") != nullptr ? " " + std::to_string(c.arg[1]) : ""));
    return out;
}

class TransTest : public InboundTest {
protected:
    // Tables 5 (DAM) and 7 (FES) through the base registration, 8 through the
    // run-time registration; smoothing slots as asked.
    void Register(bool proc, bool pre) {
        ASOrchTransTblMsg dam{kDam, 16, {}, {}, 50, TblProc}, fes{kFes, 16, {}, {}, 70, TblProc};
        ASOrchTransTblMsg typed{kTyped, 16, {}, {}, 80, TblProc};
        if (proc) dam.smoothProc.fn = Proc4, typed.smoothProc.withType = Proc5;
        if (pre) dam.smoothPreProc.fn = Pre4, typed.smoothPreProc.withType = Pre5;
        ASOrchBasePara base{};
        base.transTblMsgList[0] = {&dam, 1};
        base.transTblMsgList[1] = {&fes, 1};
        ASSERT_EQ(Reg([&] { return ASOrchRegTblMsg(hdl_, &base); }), 0u);
        ASSERT_EQ(Reg([&] { return ASOrchRegTblTrans(hdl_, 0, &typed, 1); }), 0u);
        QovHostLogClear();
        QovHostJournalClear();
    }
    // Runs the bytes, placed against the guard page, through the intake as
    // the host hands them over: msgLen is their length.
    uint32_t Run(const Bytes &bytes, Bytes *after = nullptr) {
        g_ev.clear();
        g_recs.clear();
        qovtest::GuardedBytes g(bytes);
        g_body = g.data();
        g_bodyLen = g.size();
        ASOrchIpcMsg msg{g.data(), kTransId, static_cast<uint32_t>(g.size())};
        uint32_t r = ASOrchMsgProc(hdl_, &msg);
        if (after != nullptr) after->assign(g.data(), g.data() + g.size());
        return r;
    }
};

// ---- Table data ----

struct LayoutCase {
    const char *name;
    Tlv tlv;
    std::string expect;
};

class TransLayoutTest : public TransTest, public ::testing::WithParamInterface<LayoutCase> {};

TEST_P(TransLayoutTest, EntriesReachTheHandlerInTheLayoutOfTheirPath) {
    Register(false, false);
    uint32_t v = 0;
    ASSERT_EQ(ASOrchIncTransTblMsgVersion(hdl_, GetParam().tlv.tableId, &v), 0u);
    ASSERT_EQ(ASOrchIncTransTblMsgVersion(hdl_, GetParam().tlv.tableId, &v), 0u);
    EXPECT_EQ(Run(qovtest::EncodeTrans({GetParam().tlv}).bytes), 0u);
    EXPECT_EQ(g_ev, std::vector<std::string>{GetParam().expect});
}

Tlv DamOf(uint32_t type, uint32_t len) { return Tlv{kDam, type, qovtest::Entries(1, len, 3), {}}; }

INSTANTIATE_TEST_SUITE_P(
    Layouts, TransLayoutTest,
    ::testing::Values(
        LayoutCase{"FesType1", qovtest::TableTlv(kFes, 1, qovtest::kPathFes, 3, 16, 1), "tbl @32 n=3 size=16 v=2 param=70 type=1"},
        LayoutCase{"FesType2", qovtest::TableTlv(kFes, 2, qovtest::kPathFes, 3, 8, 1), "tbl @32 n=3 size=8 v=2 param=70 type=2"},
        LayoutCase{"DamType1TrailingBytes", DamOf(1, 50), "tbl @24 n=3 size=16 v=2 param=50 type=1"},
        LayoutCase{"DamType2OneEntry", DamOf(2, 50), "tbl @24 n=1 size=50 v=2 param=50 type=2"},
        LayoutCase{"DamType18Empty", DamOf(18, 0), "tbl @24 n=1 size=0 v=2 param=50 type=18"},
        LayoutCase{"FesType19", qovtest::TableTlv(kFes, 19, qovtest::kPathFes, 1, 9, 1), "tbl @24 n=1 size=9 v=2 param=70 type=19"}),
    qovtest::RowName());

// The total length's bounds are NothingPastMsgLenIsRead's rows.
TEST_F(TransTest, FailuresDoNotStopTheWalkAndFesValuesAreBounded) {
    Register(false, false);
    g_tblResult = 1;
    EXPECT_EQ(Run(qovtest::EncodeTrans({DamOf(2, 4), Tlv{6, 1, Bytes(16), {}}, DamOf(18, 4)}).bytes), 0u);
    g_tblResult = 0;
    EXPECT_EQ(g_ev.size(), 2u);
    EXPECT_TRUE(qovtest::HasLine("orchI, proc zebbrk trans msg 1 failed. tbl = 6, tlvType = 1, tlvLen = 16"));
    EXPECT_TRUE(qovtest::HasLine("orchI, proc trans dam tbl failed. tbl nums = 1, tblsize = 4."));
    EXPECT_TRUE(qovtest::HasLine("orchI, proc trans comp tbl failed. tbl = 5, tblType = 18."));

    // An FES value without its whole head, or whose entries run past it, stops the walk.
    Tlv past = qovtest::TableTlv(kFes, 1, qovtest::kPathFes, 2, 16, 1);
    qovtest::SetU32(past.value.data() + 4, 33);
    for (const Tlv &bad : {Tlv{kFes, 2, Bytes(7), {}}, past}) {
        EXPECT_EQ(Run(qovtest::EncodeTrans({bad, DamOf(18, 0)}).bytes), 0u);
        EXPECT_TRUE(g_ev.empty()) << bad.value.size();
    }
    EXPECT_TRUE(qovtest::HasLine("orchI, trans fes tbl value shorter than its head. tbl = 7, tlvType = 2, tlvLen = 7"));
    EXPECT_TRUE(qovtest::HasLine(
        "orchI, trans fes tbl entries run past the value. tbl = 7, tlvType = 1, tlvLen = 40, len = 33"));
}

// ---- Smoothing runs ----

struct SmoothCase {
    const char *name;
    bool proc, pre;
    uint32_t table;  // 5: four-argument slots, 8: with-type slots
    std::vector<SmoothTlv> run;
    size_t keep;  // value bytes kept; SIZE_MAX: all
    std::vector<std::string> ev, entries;
    std::string line;     // a failure line expected besides the walk's, or ""
    uint32_t unbalanced;  // begin/end brackets left unbalanced at the platform
};

class SmoothRunTest : public TransTest, public ::testing::WithParamInterface<SmoothCase> {};

// The class record of the smoothing TLV at off: its bytes from 8 up to its length, then zeros.
Bytes ClassRec(const Bytes &run, size_t off, size_t recLen) {
    Bytes r(recLen, 0);
    size_t len = qovtest::GetU32(run.data() + off + 4);
    std::memcpy(r.data(), run.data() + off + 8, std::min(len - 8, recLen));
    return r;
}

TEST_P(SmoothRunTest, CallbacksAndEntriesSeeTheClassRecords) {
    const SmoothCase &c = GetParam();
    Register(c.proc, c.pre);
    Bytes run = qovtest::EncodeSmoothRun(c.run).bytes;
    Tlv tlv{c.table, 3, run, {}};
    tlv.value.resize(std::min(c.keep, run.size()));
    Bytes after;
    EXPECT_EQ(Run(qovtest::EncodeTrans({tlv}).bytes, &after), 0u);
    EXPECT_EQ(g_ev, c.ev);
    EXPECT_EQ(Entries(), c.entries);
    bool ok = c.line.empty();
    EXPECT_EQ(qovtest::HasLine("orchI, smooth tbl proc failed. tableId = " + std::to_string(c.table) +
                               ", tlvType = 3, tlvLen = " + std::to_string(tlv.value.size())), !ok);
    if (!ok) {
        EXPECT_TRUE(qovtest::HasLine(c.line));
    }
    EXPECT_EQ(QovHostSmoothUnbalanced(), c.unbalanced);
    // Records handed on are the TLVs' bytes from their tableId on, zero-filled.
    std::vector<size_t> offs;
    for (size_t off = 0; off + 12 <= run.size(); off += qovtest::GetU32(run.data() + off + 4)) offs.push_back(off);
    for (size_t i = 0; i < g_recs.size(); ++i) EXPECT_EQ(g_recs[i], ClassRec(run, offs[i], g_recs[i].size())) << i;
    size_t k = 0;
    for (const QovHostCall &call : EntryCalls()) {
        EXPECT_EQ(Bytes(call.rec, call.rec + call.recLen), ClassRec(run, offs[k++], call.recLen)) << call.op;
        if (std::strcmp(call.op, "QOV_ENTRY_ProcVrfStateEnd") == 0) {
            EXPECT_EQ(call.arg[1], reinterpret_cast<uintptr_t>(&qovtest::TestAlloc));
            EXPECT_EQ(call.arg[2], reinterpret_cast<uintptr_t>(&qovtest::TestFree));
        }
    }
    if (tlv.value.size() < 12) {
        EXPECT_EQ(Bytes(after.begin() + 24, after.end()), tlv.value) << "short value written";
    }
}

// Smoothing TLVs whose words have no zero byte, so a record cut short shows.
SmoothTlv Smooth(uint32_t type, uint32_t table) { return qovtest::Smooth(type, table, 0xA1B2C3D4); }
const std::vector<std::string> kNone;
const std::string kCheck8 = "smooth check msgSize failed. tableId = 5, optType = 8, length = 16, msgSize = 16";

INSTANTIATE_TEST_SUITE_P(
    Runs, SmoothRunTest,
    ::testing::Values(
        SmoothCase{"ClassPidClass52", false, true, kDam, {Smooth(7, kDam), Smooth(15, kDam), Smooth(8, kDam)}, SIZE_MAX,
                   {"pre t=5 type=7 len=12", "pre t=5 type=15 len=12", "pre t=5 type=8 len=12"},
                   {"QOV_ENTRY_ProcVrfStateBegin", "QOV_ENTRY_ProcPidState", "QOV_ENTRY_ProcVrfStateEnd"}, "", 0},
        SmoothCase{"ClassPidClass50", false, true, kDam, {Smooth(7, kDam), Smooth(15, kDam), Smooth(8, kDam)}, 50,
                   {"pre t=5 type=7 len=12", "pre t=5 type=15 len=12"},
                   {"QOV_ENTRY_ProcVrfStateBegin", "QOV_ENTRY_ProcPidState"}, kCheck8, 1},
        SmoothCase{"First195IsVrfBeginOfBatch2", false, true, kTyped, {{195, kTyped, {1, 2, 3, 4}, {}}, Smooth(11, kTyped)},
                   SIZE_MAX, {"pre t=8 b=2 type=10 len=24", "pre t=8 b=2 type=11 len=24"},
                   {"QOV_ENTRY_ProcVrfDataBeginWithType 2", "QOV_ENTRY_ProcVrfDataEndWithType 2"}, "", 0},
        SmoothCase{"First197HasNoHandler", false, true, kTyped, {Smooth(197, kTyped)}, SIZE_MAX, kNone, kNone,
                   "orchI, proc zebbrk trans msg 0 failed. tbl = 8, tlvType = 3, tlvLen = 16", 0},
        SmoothCase{"First201OnFourArgumentSlots", false, true, kDam, {Smooth(201, kDam), Smooth(17, kDam)}, SIZE_MAX,
                   {"pre t=5 type=16 len=0", "pre t=5 type=17 len=0"},
                   {"QOV_ENTRY_ProcLrDataBegin", "QOV_ENTRY_ProcLrDataEnd"}, "", 0},
        SmoothCase{"First206EndsWithoutBegin", false, true, kTyped, {Smooth(206, kTyped)}, SIZE_MAX,
                   {"pre t=8 b=2 type=17 len=0"}, {"QOV_ENTRY_ProcLrDataEndWithType 2"}, "", 1},
        SmoothCase{"ProcBeatsPreProc", true, true, kDam, {Smooth(7, kDam)}, SIZE_MAX, {"proc t=5 type=7 len=12"}, kNone,
                   "", 0},
        SmoothCase{"ProcWithTypeBeatsAll", true, true, kTyped, {Smooth(10, kTyped)}, SIZE_MAX,
                   {"proc t=8 b=3 type=10 len=24"}, kNone, "", 0},
        SmoothCase{"NoCallbackStillConsumes", false, false, kDam, {Smooth(7, kDam), Smooth(9, kDam)}, SIZE_MAX, kNone,
                   kNone, "", 0},
        SmoothCase{"VrfStateRecordIs72Bytes", false, true, kDam, {Smooth(9, kDam)}, SIZE_MAX, {"pre t=5 type=9 len=72"},
                   {"QOV_ENTRY_ProcVrfState"}, "", 0},
        SmoothCase{"DamClassHasNoRecordNorEntry", false, true, kTyped, {Smooth(190, kTyped), Smooth(191, kTyped)},
                   SIZE_MAX, {"pre t=8 b=3 type=190 len=0", "pre t=8 b=3 type=191 len=0"}, kNone, "", 0},
        SmoothCase{"EmptyValue", false, true, kDam, {Smooth(7, kDam)}, 0, kNone, kNone, "", 0},
        SmoothCase{"ValueShorterThanHeadUntouched", false, true, kTyped, {{195, kTyped, {1, 2, 3, 4}, {}}}, 11, kNone,
                   kNone, "orchI, smooth tlv head cut short. remaining = 11", 0}),
    qovtest::RowName());

TEST_F(TransTest, FirstTypesOfBatchRunsMapToTheirClassAndBatch) {
    // {first type, dispatched as, batch type}; the neighbours and unused rows
    // stay as they are with batch 3. The type is seen in the body, the batch
    // by the with-type callback where the type has one.
    Register(false, true);
    const uint32_t rows[][3] = {{192, 192, 3}, {193, 10, 1}, {194, 11, 1}, {195, 10, 2}, {196, 11, 2}, {197, 197, 3},
                                {200, 200, 3}, {201, 16, 1}, {202, 17, 1}, {203, 16, 2}, {204, 204, 3}, {205, 205, 3},
                                {206, 17, 2},  {207, 207, 3}, {7, 7, 3},    {0xFFFFFFFF, 0xFFFFFFFF, 3}};
    for (const auto &r : rows) {
        SmoothTlv first = Smooth(r[1], kTyped);  // sized as the type it is dispatched as
        first.optType = r[0];
        Bytes after;
        Run(qovtest::EncodeTrans({Tlv{kTyped, 3, qovtest::EncodeSmoothRun({first}).bytes, {}}}).bytes, &after);
        EXPECT_EQ(qovtest::GetU32(after.data() + 24), r[1]) << r[0];
        EXPECT_TRUE(r[2] == 3 || !g_ev.empty()) << r[0];
        if (!g_ev.empty()) {
            EXPECT_EQ(g_ev[0].rfind("pre t=8" + B(r[2]) + " type=" + std::to_string(r[1]) + " ", 0), 0u) << g_ev[0];
        }
    }
}

std::vector<std::string> Prefix(const std::vector<std::string> &v, size_t n) { return {v.begin(), v.begin() + n}; }

TEST_F(TransTest, DamagedSmoothingRunsStopRightBeforeTheDamagedTlv) {
    Register(false, true);
    std::vector<SmoothTlv> run{Smooth(7, kDam),  Smooth(15, kDam), Smooth(9, kDam),   Smooth(10, kDam), Smooth(11, kDam),
                               Smooth(16, kDam), Smooth(17, kDam), Smooth(190, kDam), Smooth(8, kDam)};
    qovtest::Encoded good = qovtest::EncodeSmoothRun(run);
    auto runWith = [&](const Bytes &value) {
        Run(qovtest::EncodeTrans({Tlv{kDam, 3, value, {}}}).bytes);
        return g_ev;
    };
    const std::vector<std::string> full = runWith(good.bytes);
    ASSERT_EQ(full.size(), run.size());
    for (size_t cut = 0, whole = 0, end = 0; cut <= good.bytes.size(); ++cut) {
        if (whole < run.size() && cut == end + qovtest::SmoothFixedLen(run[whole].optType))
            end += qovtest::SmoothFixedLen(run[whole++].optType);
        EXPECT_EQ(runWith(Bytes(good.bytes.begin(), good.bytes.begin() + cut)), Prefix(full, whole)) << "cut " << cut;
    }
    for (size_t i = 0; i < run.size(); ++i) {
        for (uint32_t delta : {1u, 4u, 0xFFFFFFFFu, 0x80000000u}) {
            Bytes b = good.bytes;
            qovtest::SetU32(b.data() + good.lenFields[i], qovtest::GetU32(b.data() + good.lenFields[i]) + delta);
            EXPECT_EQ(runWith(b), Prefix(full, i)) << "length of " << i << " + " << delta;
        }
        for (uint32_t type : {0u, 6u, 9u, 15u, 189u, 197u, 207u, 0xFFFFFFFFu}) {
            if (qovtest::SmoothFixedLen(type) == qovtest::SmoothFixedLen(run[i].optType)) continue;
            Bytes b = good.bytes;
            qovtest::SetU32(b.data() + good.typeFields[i], type);
            EXPECT_EQ(runWith(b), Prefix(full, i)) << "type of " << i << " = " << type;
        }
    }
}

TEST_F(TransTest, DamagedTransferMessagesHandleExactlyTheWellFormedPrefix) {
    Register(false, true);
    const std::vector<Tlv> tlvs{qovtest::TableTlv(kFes, 1, qovtest::kPathFes, 3, 16, 1), DamOf(2, 10),
                                qovtest::TableTlv(kFes, 2, qovtest::kPathFes, 2, 12, 2),
                                qovtest::SmoothTlvOf(kDam, 3, {Smooth(7, kDam), Smooth(8, kDam)}), DamOf(18, 3)};
    const size_t events[] = {1, 1, 1, 2, 1};
    const qovtest::Encoded good = qovtest::EncodeTrans(tlvs);
    ASSERT_EQ(Run(good.bytes), 0u);
    const std::vector<std::string> full = g_ev;
    ASSERT_EQ(full.size(), 6u);
    // Events of the TLVs that lie wholly in the first n bytes of the TLV area.
    auto seenIn = [&](size_t n) {
        size_t seen = 0;
        for (size_t i = 0, end = 0; i < tlvs.size() && (end += 12 + tlvs[i].value.size()) <= n; ++i) seen += events[i];
        return Prefix(full, seen);
    };
    const size_t area = good.bytes.size() - 12;
    // Cut at every offset (the body ends at the guard page), the total length
    // following the cut or still claiming the whole area: a cut head is
    // refused, a TLV cut by the total or by the body's end stops the walk
    // with one line.
    auto atTlvEnd = [&](size_t n) {
        for (size_t i = 0, end = 0; i < tlvs.size() && end <= n; end += 12 + tlvs[i++].value.size())
            if (end == n) return true;
        return n == area;
    };
    for (size_t cut = 0; cut <= good.bytes.size(); ++cut) {
        for (bool follow : {true, false}) {
            Bytes b(good.bytes.begin(), good.bytes.begin() + cut);
            const size_t total = follow && cut >= 12 ? cut - 12 : area;
            if (cut >= 12) qovtest::SetU32(b.data() + 8, static_cast<uint32_t>(total));
            QovHostLogClear();
            const bool refused = cut < 12 || total < 12;
            const std::string at = "cut " + std::to_string(cut) + (follow ? ", total follows" : ", total kept");
            EXPECT_EQ(Run(b), refused ? 1u : 0u) << at;
            EXPECT_EQ(g_ev, seenIn(refused ? 0 : cut - 12)) << at;
            EXPECT_EQ(qovtest::Logs().size(), refused || !atTlvEnd(cut - 12) || total > cut - 12 ? 1u : 0u) << at;
            if (cut < 12) {
                EXPECT_TRUE(qovtest::HasLine("orchI, trans msg shorter than its head. len = " + std::to_string(cut)));
            }
        }
    }
    // The total length changed: the walk never leaves the body.
    for (uint32_t total : {0u, 11u, 12u, uint32_t(area - 1), uint32_t(area + 1), uint32_t(area + 12), 0x7FFFFFFFu,
                           0xFFFFFFFFu}) {
        Bytes b = good.bytes;
        qovtest::SetU32(b.data() + 8, total);
        QovHostLogClear();
        EXPECT_EQ(Run(b), total < 12 ? 1u : 0u) << "total " << total;
        EXPECT_EQ(g_ev, seenIn(total < 12 ? 0 : std::min<size_t>(total, area))) << "total " << total;
        if (total > area) {
            EXPECT_TRUE(qovtest::HasLine("orchI, trans msg tlv 5 head runs past the body. left = 0, msgLen = " +
                                         std::to_string(good.bytes.size())));
        }
    }
    // Each tlvLen changed, each type flipped: nothing read outside the body and
    // the TLVs before the damaged one handled as before.
    for (size_t i = 0, before = 0; i < tlvs.size(); before += events[i++]) {
        const size_t lenAt = good.lenFields[i + 1];
        const uint32_t len = qovtest::GetU32(good.bytes.data() + lenAt);
        for (uint32_t v : {0u, len - 1, len + 1, len + 13, 0x7FFFFFFFu, 0xFFFFFFF4u, 0xFFFFFFFFu}) {
            Bytes b = good.bytes;
            qovtest::SetU32(b.data() + lenAt, v);
            EXPECT_EQ(Run(b), 0u);
            EXPECT_EQ(Prefix(g_ev, std::min(before, g_ev.size())), Prefix(full, before)) << i << " tlvLen " << v;
        }
        for (uint32_t type : {1u, 2u, 18u, 19u, 3u, 195u}) {
            Bytes b = good.bytes;
            qovtest::SetU32(b.data() + good.typeFields[i], type);
            EXPECT_EQ(Run(b), 0u);
            EXPECT_EQ(Prefix(g_ev, std::min(before, g_ev.size())), Prefix(full, before)) << i << " type " << type;
        }
    }
}

// Frames as the host hands them over, the body in a heap block of exactly
// msgLen bytes, so that AddressSanitizer sees a read past it: the head and
// every TLV stay inside msgLen whatever the total length claims.
TEST_F(TransTest, NothingPastMsgLenIsRead) {
    Register(false, false);
    const Bytes two = qovtest::EncodeTrans({DamOf(18, 0), DamOf(18, 4)}).bytes;  // 40 bytes, total 28
    auto cut = [](Bytes b, size_t len, uint32_t total) {
        b.resize(len);
        if (len >= 12) qovtest::SetU32(b.data() + 8, total);
        return b;
    };
    const std::string body = "orchI, trans msg tlv ";
    struct Row {
        const char *name;
        Bytes bytes;
        uint32_t result;
        size_t events;
        std::string line;  // "" when nothing is logged
    } rows[] = {
        {"Empty", {}, 1, 0, "orchI, trans msg shorter than its head. len = 0"},
        {"HeadCut", cut(two, 11, 0), 1, 0, "orchI, trans msg shorter than its head. len = 11"},
        {"Total64In16", cut(two, 16, 64), 0, 0, body + "0 head runs past the body. left = 4, msgLen = 16"},
        {"ValuePastBody", cut(two, 39, 28), 0, 1,
         body + "1 runs past the body. tbl = 5, tlvType = 18, tlvLen = 4, left = 3, msgLen = 39"},
        {"HeadPastBody", cut(two, 40, 40), 0, 2, body + "2 head runs past the body. left = 0, msgLen = 40"},
        {"Total11", cut(two, 40, 11), 1, 0, "orchI, recv zebbrk trans msg is error."},
        {"Total12OneTlv", cut(two, 40, 12), 0, 1, ""},
        {"Whole", two, 0, 2, ""},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.name);
        g_ev.clear();
        QovHostLogClear();
        std::unique_ptr<uint8_t[]> exact(new uint8_t[r.bytes.size()]);
        std::copy(r.bytes.begin(), r.bytes.end(), exact.get());
        g_body = exact.get();
        g_bodyLen = r.bytes.size();
        ASOrchIpcMsg msg{exact.get(), kTransId, static_cast<uint32_t>(r.bytes.size())};
        EXPECT_EQ(ASOrchMsgProc(hdl_, &msg), r.result);
        EXPECT_EQ(g_ev.size(), r.events);
        EXPECT_EQ(qovtest::Logs(), r.line.empty() ? std::vector<std::string>{} : std::vector<std::string>{r.line});
    }
}

// The host reads every frame into the same buffer: a short frame that follows
// a good one has the good one's bytes behind its body, and they are not its rows.
TEST_F(TransTest, ShortFramesDoNotReplayTheRowsOfTheFrameBefore) {
    Register(false, false);
    qovtest::GuardedBytes buf(qovtest::EncodeTrans({qovtest::TableTlv(kDam, 1, qovtest::kPathDam, 4, 16, 1)}).bytes);
    g_body = buf.data();
    g_bodyLen = buf.size();
    g_ev.clear();
    ASOrchIpcMsg good{buf.data(), kTransId, static_cast<uint32_t>(buf.size())};
    ASSERT_EQ(ASOrchMsgProc(hdl_, &good), 0u);
    ASSERT_EQ(g_ev, std::vector<std::string>{"tbl @24 n=4 size=16 v=0 param=50 type=1"});
    for (uint32_t len : {0u, 0u, 0u, 0u, 0u, 11u}) {
        ASOrchIpcMsg shortFrame{buf.data(), kTransId, len};
        EXPECT_EQ(ASOrchMsgProc(hdl_, &shortFrame), 1u) << len;
    }
    EXPECT_EQ(g_ev.size(), 1u) << "rows of the frame before delivered again";
}

TEST_F(TransTest, ChannelSendersGoToTheirChannelOnLoopback) {
    uint8_t buf[4] = {};
    const std::pair<uint32_t (*)(ASOrchHandle *, void *, uint32_t), uint32_t> senders[] = {
        {ASOrchFesChanMsgVec, 1}, {ASOrchDamChanMsgVec, 0}};
    for (auto [send, chan] : senders) {
        QovHostJournalClear();
        QovHostFailNext("QOV_CHAN_USendMsg", 1, 7);
        EXPECT_EQ(send(hdl_, buf, 4), 7u) << "the channel's result is passed through";
        auto get = qovtest::Calls("QOV_EAL_GetChannelHdl");
        auto sent = qovtest::Calls("QOV_CHAN_USendMsg");
        ASSERT_EQ(get.size(), 1u);
        ASSERT_EQ(sent.size(), 1u);
        EXPECT_EQ(get[0].arg[1], chan);
        EXPECT_EQ(sent[0].arg[1], uint64_t{0x0100007F}) << "127.0.0.1 in network byte order";
        EXPECT_EQ(sent[0].arg[2], 0u);
        EXPECT_EQ(sent[0].arg[3], reinterpret_cast<uintptr_t>(buf));
        EXPECT_EQ(sent[0].arg[4], 4u);
        EXPECT_EQ(send(nullptr, buf, 4), 1u);
    }
}

}  // namespace
}  // namespace inboundtest
