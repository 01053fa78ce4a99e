// A merge queue of 56-byte records keyed by their first 8 bytes, on an epoll
// set of the test's own, with the counting allocator.
#ifndef QOV_TEST_MQ_FIXTURE_H
#define QOV_TEST_MQ_FIXTURE_H

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "mergeque/mq_private.h"
#include "support/test_env.h"

namespace mqtest {

struct Rec {
    uint64_t key;
    uint64_t val;
    uint8_t pad[40];
};

inline uint32_t Hash(const void *key) { return static_cast<uint32_t>(*static_cast<const uint64_t *>(key)); }
inline uint32_t Cmp(const void *rec, const void *key) {
    return static_cast<const Rec *>(rec)->key == *static_cast<const uint64_t *>(key) ? 1 : 0;
}
inline const void *KeyOf(const void *rec) { return &static_cast<const Rec *>(rec)->key; }
// Keeps the history of merged values: queued 1 merged with incoming 2 stores 12.
inline void Merge(void *in, void *queued) {
    static_cast<Rec *>(in)->val += static_cast<Rec *>(queued)->val * 10;
}
inline uint32_t Collect(void *rec, uint32_t, void *usr) {
    static_cast<std::vector<Rec> *>(usr)->push_back(*static_cast<Rec *>(rec));
    return 0;
}

class MqTest : public qovtest::HostTest {
public:
    void SetUp() override {
        HostTest::SetUp();
        epFd_ = epoll_create1(EPOLL_CLOEXEC);
        para_ = {qovtest::TestAlloc, qovtest::TestFree, 3, sizeof(Rec), 16, Hash, Cmp, epFd_, KeyOf, nullptr, Merge};
    }
    void TearDown() override {
        QOV_MergeQueDestory(q_);
        close(epFd_);
        EXPECT_EQ(qovtest::AllocOutstanding(), 0);
        HostTest::TearDown();
    }
    MergeQueCtrlBlk *Make(const char *name = "mq_test") {
        name_ = name;
        return q_ = QOV_MergeQueCreate(name, &para_);
    }
    uint32_t Write(uint64_t key, uint64_t val, uint32_t moveToTail = 0) {
        Rec r{key, val, {}};
        return QOV_MergeQueWrite(q_, &r.key, &r, moveToTail);
    }
    std::vector<Rec> ReadCb(uint32_t maxCount) {
        std::vector<Rec> out;
        QOV_MergeQueReadCallBack(q_, maxCount, Collect, &out);
        return out;
    }
    // A row of the queue's report (QOV_PrintMergeQueInfo), found by its title:
    // the count after it, and whether the row carries a time stamp.
    std::string Row(const std::string &title) const {
        char buf[2048];
        QOV_PrintMergeQueInfo(name_.c_str(), buf, sizeof buf);
        std::string report = std::string("\n") + buf;
        size_t at = report.find("\n" + title + " ");
        if (at == std::string::npos) at = report.find(" " + title + " ");
        EXPECT_NE(at, std::string::npos) << title;
        if (at == std::string::npos) return "";
        return report.substr(at + 1 + title.size(), report.find('\n', at + 1) - at - 1 - title.size());
    }
    uint32_t Count(const std::string &title) const {
        std::string row = Row(title);
        return static_cast<uint32_t>(std::strtoul(row.c_str() + row.find_first_not_of(" :["), nullptr, 10));
    }
    bool Stamped(const std::string &title) const { return Row(title).find("--:--:--.---") == std::string::npos; }
    // Signals outstanding on the queue's event descriptor (taken by the count).
    uint32_t DrainSignals() const {
        uint32_t n = 0;
        for (eventfd_t v; eventfd_read(q_->reader.eventFd, &v) == 0;) ++n;
        return n;
    }
    int epFd_ = -1;
    MergeQueCreatePara para_{};
    MergeQueCtrlBlk *q_ = nullptr;
    std::string name_;
};

}  // namespace mqtest

#endif
