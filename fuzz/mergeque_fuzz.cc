// Drives a merge queue with a sequence of writes, merging writes, reads of both
// kinds, back-pressure and epoll turns taken from the input, and checks every
// record read, the order, the counts and the monitor's notifications against a
// plain model of what the queue must hold.
#include <sys/epoll.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <algorithm>
#include <cstring>
#include <list>

#include "mergeque/mq_private.h"
#include "qov_host_ctl.h"

namespace {

struct Rec {
    uint32_t key;
    uint32_t merges;  // how many writes this record carries
    uint64_t sum;     // the sum of their values
};

struct Model {
    std::list<Rec> queued;  // read order
    uint32_t overNotes = 0, underNotes = 0;
    uint32_t signals = 0;  // counts outstanding on the event descriptor
    bool over = false;
};

constexpr uint32_t kHigh = 6, kLow = 3;

Model *g_model;
MergeQueCtrlBlk *g_q;
int g_epFd = -1;
uint32_t g_sched;

void Check(bool ok) {
    if (!ok) __builtin_trap();
}

uint32_t Hash(const void *key) { return *static_cast<const uint32_t *>(key) * 2654435761u; }
uint32_t Cmp(const void *rec, const void *key) {
    return static_cast<const Rec *>(rec)->key == *static_cast<const uint32_t *>(key) ? 1 : 0;
}
const void *KeyOf(const void *rec) { return &static_cast<const Rec *>(rec)->key; }
void Merge(void *in, void *queued) {
    auto *i = static_cast<Rec *>(in);
    auto *q = static_cast<const Rec *>(queued);
    i->merges += q->merges;
    i->sum += q->sum;
}
void *Alloc(uint32_t size) { return std::malloc(size); }
void Free(void *p) { std::free(p); }
uint32_t Sched(MergeQueCtrlBlk *) { return ++g_sched, 0; }
uint32_t Notify(uint32_t evt, uint64_t) {
    (evt == 0 ? g_model->overNotes : g_model->underNotes)++;
    return 0;
}

// The model's side of a write.
void ModelWrite(const Rec &r, bool moveToTail) {
    for (auto it = g_model->queued.begin(); it != g_model->queued.end(); ++it) {
        if (it->key != r.key) continue;
        Rec merged{r.key, r.merges + it->merges, r.sum + it->sum};
        if (moveToTail) {
            g_model->queued.erase(it);
            g_model->queued.push_back(merged);
        } else {
            *it = merged;
        }
        return;
    }
    g_model->queued.push_back(r);
    if (g_model->queued.size() == 1) g_model->signals++;
    if (!g_model->over && g_model->queued.size() > kHigh) g_model->over = true;
}

// The model's side of a read of n, after the queue's read: expects what came out.
void ModelRead(const Rec *got, uint32_t gotN, uint32_t maxCount) {
    uint32_t want = std::min<uint32_t>(maxCount, static_cast<uint32_t>(g_model->queued.size()));
    Check(gotN == want);
    for (uint32_t i = 0; i < gotN; ++i) {
        const Rec &m = g_model->queued.front();
        Check(got[i].key == m.key && got[i].merges == m.merges && got[i].sum == m.sum);
        g_model->queued.pop_front();
    }
    if (!g_model->queued.empty()) g_model->signals++;
    if (g_model->over && g_model->queued.size() < kLow) g_model->over = false;
}

struct Collected {
    Rec recs[16];
    uint32_t n;
};

uint32_t Collect(void *rec, uint32_t size, void *usr) {
    Check(size == sizeof(Rec));
    auto *c = static_cast<Collected *>(usr);
    std::memcpy(&c->recs[c->n++], rec, sizeof(Rec));
    return 0;
}

bool Setup() {
    QovHostLogEcho(0);
    QovHostLogCapture(0);
    QovHostJournalEnable(0);
    g_epFd = epoll_create1(EPOLL_CLOEXEC);
    return g_epFd >= 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool ready = Setup();
    if (!ready) return 0;
    Model model;
    g_model = &model;
    g_sched = 0;
    MergeQueCreatePara para{Alloc, Free, 0, sizeof(Rec), 7, Hash, Cmp, g_epFd, KeyOf, Sched, Merge};
    g_q = QOV_MergeQueCreate("fuzz_q", &para);
    Check(g_q != nullptr);
    MergeQueMonitorAttr attr{kHigh, kLow, 0, Notify};
    Check(QOV_MergeQueMonitorReg(g_q, &attr) == 0);
    bool pressed = false;
    for (size_t i = 0; i + 1 < size; i += 2) {
        uint8_t op = data[i] % 6, arg = data[i + 1];
        if (op <= 1) {  // write, op 1 moving a merged entry to the tail
            const Rec r{arg % 12u, 1, arg};
            Rec in = r;  // the queue's merge function works on the incoming record in place
            Check(QOV_MergeQueWrite(g_q, &in.key, &in, op) == 0);
            ModelWrite(r, op == 1);
        } else if (op == 2) {
            Collected c{};
            uint32_t n = QOV_MergeQueReadCallBack(g_q, arg % 16u + 1, Collect, &c);
            ModelRead(c.recs, n, arg % 16u + 1);
        } else if (op == 3) {
            Rec buf[16];
            uint32_t n = QOV_MergeQueRead(g_q, buf, arg % 16u + 1);
            ModelRead(buf, n, arg % 16u + 1);
        } else if (op == 4) {
            Check((pressed ? QOV_MergeQueUnBackPress(g_q, nullptr) : QOV_MergeQueBackPress(g_q, arg)) == 0);
            pressed = !pressed;
        } else {
            // A turn dispatches the reader once while a signal is outstanding and
            // the queue is in the epoll set.
            uint32_t before = g_sched;
            QovHostEpollRunOnce(g_epFd, 0);
            bool dispatched = !pressed && model.signals > 0;
            Check(g_sched == before + (dispatched ? 1u : 0u));
            model.signals -= dispatched ? 1u : 0u;
        }
        Check(g_q->reader.itemCnt == model.queued.size());
        Check(g_q->monitor.overLoad == (model.over ? 1u : 0u));
    }
    Check(g_q->stat[MQ_STAT_OVER_HIGH_WATER].cnt == model.overNotes);
    Check(g_q->stat[MQ_STAT_UNDER_LOW_WATER].cnt == model.underNotes);
    QOV_MergeQueDestory(g_q);
    return 0;
}
