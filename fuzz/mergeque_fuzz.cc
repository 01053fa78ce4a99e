// Drives up to three merge queues with parameters and operations taken from
// the input: bucket count, record size, hash quality, water marks and whether
// there is a merge function; writes that merge or append (moving to the tail
// or not), reads of both kinds with any count including 0, back-pressure,
// epoll turns, failing allocations, a failing table, failing callbacks,
// reports into buffers of any size, destruction and re-creation, duplicate
// and over-long names. Every record read, the order, the counts, the
// statistics and the monitor's notifications are checked against a plain
// model of what each queue must hold.
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <list>
#include <string>
#include <vector>

#include "mergeque/mq_private.h"
#include "qov_host_ctl.h"

namespace {

// The head of every record; the rest, up to the queue's record size, is a
// pattern derived from sum, so that a torn or misplaced copy shows.
struct Rec {
    uint32_t key;
    uint32_t merges;  // how many writes this record carries
    uint64_t sum;     // the sum of their values
};

constexpr uint32_t kQueues = 3;
constexpr uint32_t kRecSizes[] = {16, 24, 40, 56, 64, 72, 200};
constexpr uint32_t kMaxRead = 16;

void Check(bool ok) {
    if (!ok) __builtin_trap();
}

struct Model {
    bool live = false;
    bool pressed = false;
    bool merging = true;  // the queue has a merge function
    bool monitored = false;
    bool over = false;
    uint32_t recSize = 16, high = 0, low = 0;
    std::list<Rec> queued;  // read order
    uint32_t signals = 0;   // counts outstanding on the event descriptor
    uint32_t sched = 0, overNotes = 0, underNotes = 0;  // as the queue called back
    uint32_t expectOver = 0, expectUnder = 0;           // as the model predicts
    uint32_t writes = 0, merges = 0, reads = 0, failWrites = 0, emptyReads = 0;
    MergeQueCtrlBlk *q = nullptr;
    int epFd = -1;
};

Model g_models[kQueues];
uint32_t g_recSize;         // of the queue being written: the merge function needs it
int64_t g_outstanding;      // blocks allocated and not freed
uint32_t g_failAlloc;       // fail the next allocation when set
uint32_t g_failCallbackAt;  // a callback read fails on this record (1-based), 0 for none

void Stamp(uint8_t *rec, uint32_t size) {
    uint64_t sum;
    std::memcpy(&sum, rec + offsetof(Rec, sum), sizeof sum);
    for (uint32_t i = sizeof(Rec); i < size; ++i) rec[i] = static_cast<uint8_t>(sum * 31 + i);
}

bool Stamped(const uint8_t *rec, uint32_t size) {
    uint64_t sum;
    std::memcpy(&sum, rec + offsetof(Rec, sum), sizeof sum);
    for (uint32_t i = sizeof(Rec); i < size; ++i) {
        if (rec[i] != static_cast<uint8_t>(sum * 31 + i)) return false;
    }
    return true;
}

uint32_t HashGood(const void *key) { return *static_cast<const uint32_t *>(key) * 2654435761u; }
uint32_t HashPoor(const void *key) { return *static_cast<const uint32_t *>(key) & 3u; }
uint32_t HashSame(const void *) { return 7; }
uint32_t Cmp(const void *rec, const void *key) {
    return static_cast<const Rec *>(rec)->key == *static_cast<const uint32_t *>(key) ? 1 : 0;
}
const void *KeyOf(const void *rec) { return &static_cast<const Rec *>(rec)->key; }
void Merge(void *in, void *queued) {
    auto *i = static_cast<Rec *>(in);
    auto *q = static_cast<const Rec *>(queued);
    i->merges += q->merges;
    i->sum += q->sum;
    Stamp(static_cast<uint8_t *>(in), g_recSize);
}
void *Alloc(uint32_t size) {
    if (g_failAlloc != 0) {
        g_failAlloc = 0;
        return nullptr;
    }
    void *p = std::malloc(size);
    g_outstanding += p != nullptr ? 1 : 0;
    return p;
}
void Free(void *p) {
    g_outstanding -= p != nullptr ? 1 : 0;
    std::free(p);
}
uint32_t Sched(MergeQueCtrlBlk *q) {
    for (Model &m : g_models) m.sched += m.q == q ? 1 : 0;
    return 0;
}
uint32_t Notify(uint32_t evt, uint64_t usr) {
    Check(usr < kQueues);
    (evt == 0 ? g_models[usr].overNotes : g_models[usr].underNotes)++;
    return 0;
}

std::string NameOf(uint32_t i) { return "fuzz_q" + std::to_string(i); }

// Parameters from one byte each: bucket count, record size, hash, and the
// water marks with the merge function's presence.
void Create(uint32_t i, const uint8_t p[3]) {
    Model &m = g_models[i];
    int epFd = m.epFd;
    m = Model{};
    m.epFd = epFd;
    m.recSize = kRecSizes[p[1] % std::size(kRecSizes)];
    LITE_HASH_KEY_FUNC hashes[] = {HashGood, HashPoor, HashSame};
    m.merging = (p[2] & 0x80) == 0;
    MergeQueCreatePara para{Alloc, Free,  0,     m.recSize, p[0] % 64u + 1u, hashes[(p[1] >> 4) % 3u],
                            Cmp,   m.epFd, KeyOf, Sched,     m.merging ? Merge : nullptr};
    g_failAlloc = (p[2] & 0x40) != 0 ? 1u : 0u;  // the control block's allocation fails
    m.q = QOV_MergeQueCreate(NameOf(i).c_str(), &para);
    Check((m.q != nullptr) == ((p[2] & 0x40) == 0));
    g_failAlloc = 0;
    m.live = m.q != nullptr;
    if (!m.live) return;
    m.high = p[2] & 7u;
    m.low = (p[2] >> 3) & 7u;
    MergeQueMonitorAttr attr{m.high, m.low, i, Notify};
    m.monitored = QOV_MergeQueMonitorReg(m.q, &attr) == 0;
    Check(m.monitored == (m.high > m.low));
}

void Destroy(uint32_t i) {
    Model &m = g_models[i];
    if (!m.live) return;
    QOV_MergeQueDestory(m.q);
    Check(QOV_MergeQueNameTreeFind(NameOf(i).c_str()) == nullptr);
    m.live = false;
    m.q = nullptr;
}

void ModelWrite(Model &m, const Rec &r, uint32_t moveToTail) {
    for (auto it = m.queued.begin(); it != m.queued.end(); ++it) {
        if (it->key != r.key) continue;
        Rec merged = m.merging ? Rec{r.key, r.merges + it->merges, r.sum + it->sum} : r;
        if (moveToTail == 1) {
            m.queued.erase(it);
            m.queued.push_back(merged);
        } else {
            *it = merged;
        }
        m.merges++;
        return;
    }
    m.queued.push_back(r);
    m.writes++;
    if (m.queued.size() == 1) m.signals++;
    if (m.monitored && !m.over && m.queued.size() > m.high) {
        m.over = true;
        m.expectOver++;
    }
}

// What a read of maxCount must yield; removes it from the model.
void ModelRead(Model &m, const std::vector<uint8_t> &got, uint32_t gotN, uint32_t maxCount) {
    if (maxCount == 0) {
        Check(gotN == 0);
        return;
    }
    uint32_t want = std::min<uint32_t>(maxCount, static_cast<uint32_t>(m.queued.size()));
    Check(gotN == want);
    for (uint32_t k = 0; k < gotN; ++k) {
        const uint8_t *rec = got.data() + static_cast<size_t>(k) * m.recSize;
        Rec r;
        std::memcpy(&r, rec, sizeof r);
        const Rec &e = m.queued.front();
        Check(r.key == e.key && r.merges == e.merges && r.sum == e.sum && Stamped(rec, m.recSize));
        m.queued.pop_front();
    }
    m.reads += gotN;
    m.emptyReads += maxCount - gotN;
    if (!m.queued.empty()) m.signals++;
    if (m.monitored && m.over && m.queued.size() < m.low) {
        m.over = false;
        m.expectUnder++;
    }
}

struct Collected {
    std::vector<uint8_t> *out;
    uint32_t size, n;
};

uint32_t Collect(void *rec, uint32_t size, void *usr) {
    auto *c = static_cast<Collected *>(usr);
    Check(size == c->size);
    c->out->insert(c->out->end(), static_cast<uint8_t *>(rec), static_cast<uint8_t *>(rec) + size);
    return ++c->n == g_failCallbackAt ? 1u : 0u;
}

void CheckQueue(uint32_t i) {
    Model &m = g_models[i];
    if (!m.live) return;
    const MergeQueCtrlBlk *q = m.q;
    Check(q->reader.itemCnt == m.queued.size());
    Check(q->monitor.overLoad == (m.over ? 1u : 0u));
    Check(q->reader.stat[MQ_RSTAT_SUCCESS_WRITE].cnt == m.writes);
    Check(q->reader.stat[MQ_RSTAT_SUCCESS_MERGE].cnt == m.merges);
    Check(q->reader.stat[MQ_RSTAT_SUCCESS_READ].cnt == m.reads);
    Check(q->reader.stat[MQ_RSTAT_FAIL_WRITE].cnt == m.failWrites);
    Check(q->reader.stat[MQ_RSTAT_EMPTY_READ].cnt == m.emptyReads);
    Check(m.overNotes == m.expectOver && q->stat[MQ_STAT_OVER_HIGH_WATER].cnt == m.expectOver);
    Check(m.underNotes == m.expectUnder && q->stat[MQ_STAT_UNDER_LOW_WATER].cnt == m.expectUnder);
    Check(q->stat[MQ_STAT_HISTORY_MAX_CNT].cnt >= m.queued.size());
    Check(LITE_HASH_GetHashCnt(q->hash) == static_cast<int32_t>(m.queued.size()));
}

void Report(uint32_t i, uint8_t arg) {
    // Sizes from 0 up, and one big enough for everything; the buffer is
    // exactly that size, so an overrun shows under AddressSanitizer.
    uint32_t size = (arg & 0x80) != 0 ? 8192u : arg;
    std::vector<char> buf(size + 1, '\x7f');
    char *b = size == 0 ? nullptr : buf.data();
    uint32_t n = (arg & 1) != 0 ? QOV_PrintMergeQueListAll(b, size)
                                : QOV_PrintMergeQueInfo(NameOf(i).c_str(), b, size);
    Check(buf[size] == '\x7f');
    Check(size == 0 ? n == 0 : n < size);
    if (size == 8192 && g_models[i].live) Check(std::strstr(buf.data(), NameOf(i).c_str()) != nullptr);
}

bool Setup() {
    QovHostLogEcho(0);
    QovHostLogCapture(0);
    QovHostJournalEnable(0);
    for (Model &m : g_models) {
        m.epFd = epoll_create1(EPOLL_CLOEXEC);
        if (m.epFd < 0) return false;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool ready = Setup();
    if (!ready) return 0;
    // Three parameter bytes per queue; short inputs take fixed ones.
    uint8_t params[kQueues][3] = {{6, 0, 0x1e}, {16, 3, 0x2c}, {1, 0x16, 0x85}};
    size_t at = 0;
    uint32_t nq = 1;
    if (size > 0) {
        nq = data[at++] % kQueues + 1;
        for (uint32_t i = 0; i < nq && at + 3 <= size; ++i, at += 3) std::memcpy(params[i], data + at, 3);
    }
    g_outstanding = 0;
    for (uint32_t i = 0; i < kQueues; ++i) {
        g_models[i].live = false;
        if (i < nq) Create(i, params[i]);
    }
    for (; at + 1 < size; at += 2) {
        uint8_t op = data[at] & 0x0f, arg = data[at + 1];
        uint32_t i = (data[at] >> 4) % nq;
        Model &m = g_models[i];
        if (op == 12) {  // destroy and re-create with new parameters
            Destroy(i);
            uint8_t p[3] = {arg, static_cast<uint8_t>(arg * 7), static_cast<uint8_t>((arg * 13) & 0xbf)};
            Create(i, p);
            CheckQueue(i);
            continue;
        }
        if (op == 13) {  // names: a duplicate, and lengths around the limit
            MergeQueCreatePara para{Alloc, Free, 0, 16, 4, HashGood, Cmp, m.epFd, KeyOf, nullptr, nullptr};
            if (m.live) Check(QOV_MergeQueCreate(NameOf(i).c_str(), &para) == nullptr);
            std::string longName(28 + arg % 8u, 'n');
            MergeQueCtrlBlk *q = QOV_MergeQueCreate(longName.c_str(), &para);
            Check((q != nullptr) == (longName.size() < MERGE_QUE_NAME_LEN));
            QOV_MergeQueDestory(q);
            continue;
        }
        if (op == 14) {
            Report(i, arg);
            continue;
        }
        if (!m.live) continue;
        g_recSize = m.recSize;
        if (op <= 3) {  // write; op 1 moves a merged entry to the tail, op 2 passes another flag value
            uint32_t moveToTail = op == 2 ? 2u + arg : (op & 1u);
            std::vector<uint8_t> rec(m.recSize);
            Rec r{arg % 24u, 1, arg};
            std::memcpy(rec.data(), &r, sizeof r);
            Stamp(rec.data(), m.recSize);
            bool queued = std::any_of(m.queued.begin(), m.queued.end(), [&](const Rec &e) { return e.key == r.key; });
            // op 3: the table refuses a new element, or the node, for a new key
            if (op == 3) QovHostFailNext((arg & 1) != 0 ? "LITE_HASH_NewData" : "LITE_HASH_AddNode", 1, 0);
            uint32_t ret = QOV_MergeQueWrite(m.q, &r.key, rec.data(), op == 3 ? 0u : moveToTail);
            QovHostFailClear();
            if (op == 3 && !queued) {
                Check(ret == 1);
                m.failWrites++;
            } else {
                Check(ret == 0);
                ModelWrite(m, r, op == 3 ? 0u : moveToTail);
            }
        } else if (op <= 6) {  // reads: 4 callback, 5 copy-out, 6 callback with a failing callback
            uint32_t maxCount = arg % (kMaxRead + 1);
            std::vector<uint8_t> got;
            uint32_t n;
            if (op == 5) {
                got.resize(static_cast<size_t>(std::max(maxCount, 1u)) * m.recSize);
                n = QOV_MergeQueRead(m.q, got.data(), maxCount);
            } else {
                g_failCallbackAt = op == 6 ? arg % 4u + 1u : 0u;
                if (op == 6 && (arg & 0x40) != 0) QovHostFailNext("LITE_HASH_RemoveNodeByKey", 1, 0);
                Collected c{&got, m.recSize, 0};
                n = QOV_MergeQueReadCallBack(m.q, maxCount, Collect, &c);
                QovHostFailClear();
                g_failCallbackAt = 0;
            }
            ModelRead(m, got, n, maxCount);
        } else if (op == 7) {
            Check(QOV_MergeQueBackPress(m.q, arg) == 0);
            m.pressed = true;
        } else if (op == 8) {
            uint64_t ctx = 0;
            Check(QOV_MergeQueUnBackPress(m.q, &ctx) == (m.pressed ? 0u : 1u));
            m.pressed = false;
        } else {
            // A turn dispatches the reader once while a signal is outstanding
            // and the queue is in its epoll set.
            uint32_t before = m.sched;
            QovHostEpollRunOnce(m.epFd, 0);
            bool dispatched = !m.pressed && m.signals > 0;
            Check(m.sched == before + (dispatched ? 1u : 0u));
            m.signals -= dispatched ? 1u : 0u;
        }
        CheckQueue(i);
    }
    for (uint32_t i = 0; i < kQueues; ++i) Destroy(i);
    Check(g_outstanding == 0);
    return 0;
}
