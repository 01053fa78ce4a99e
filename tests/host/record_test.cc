// Recording of received frames: what the capture holds for each frame, a
// bound that ends the recording with a complete file, and the refusals.
#include <arpa/inet.h>
#include <pcap/pcap.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <vector>

#include "qov_host_api.h"
#include "qov_utils_eal.h"
#include "support/loopback_broker.h"
#include "support/test_env.h"

namespace {

using qovtest::Broker;
using qovtest::Frame;
using qovtest::WaitFor;

struct Record {
    timeval ts;
    uint32_t len;
    std::vector<uint8_t> bytes;
};

// Every record of a capture file; fails the test on anything libpcap refuses.
std::vector<Record> ReadAll(const std::string &path, int *linkType) {
    char err[PCAP_ERRBUF_SIZE];
    pcap_t *p = pcap_open_offline(path.c_str(), err);
    std::vector<Record> out;
    if (p == nullptr) {
        ADD_FAILURE() << err;
        return out;
    }
    *linkType = pcap_datalink(p);
    pcap_pkthdr *h;
    const u_char *d;
    int r;
    while ((r = pcap_next_ex(p, &h, &d)) == 1) out.push_back({h->ts, h->len, std::vector<uint8_t>(d, d + h->caplen)});
    EXPECT_EQ(r, PCAP_ERROR_BREAK) << pcap_geterr(p);
    pcap_close(p);
    return out;
}

class RecordTest : public qovtest::HostTest {
protected:
    void SetUp() override {
        HostTest::SetUp();
        path_ = "/tmp/qov_record_test_" + std::to_string(getpid()) + ".pcap";
        QOV_EAL_CreatePara cp{};
        eal_ = QOV_EAL_Create("rec", &cp);
        ASSERT_NE(eal_, nullptr);
        ASSERT_EQ(QOV_EAL_Init(eal_), 0u);
        QOV_EAL_ThreadPara t{};
        std::snprintf(t.threadName, sizeof t.threadName, "rec_DATA");
        ASSERT_EQ(QOV_EAL_RegThread(eal_, &t, 1), 0u);
    }
    void TearDown() override {
        QOV_EAL_Destroy(eal_);
        std::remove(path_.c_str());
        HostTest::TearDown();
    }
    // Starts the instance with channel idx connected to b, counting deliveries.
    void Connect(Broker &b, uint32_t idx) {
        QOV_EAL_ChanPara p{};
        p.chanIdx = idx;
        p.serverAddrFunc = qovtest::Loopback;
        p.serverPort = htons(b.port);
        ASSERT_EQ(QOV_EAL_RegUcChannel(eal_, &p, 1), 0u);
        ASSERT_EQ(QovHostChanSetRecv(eal_, idx, Count, &got_), 0u);
        ASSERT_EQ(QOV_EAL_Start(eal_), 0u);
        ASSERT_TRUE(b.Accept());
    }
    static uint32_t Count(void *ctx, QovHostIpcMsg *) {
        ++*static_cast<std::atomic<uint32_t> *>(ctx);
        return 0;
    }
    void *eal_ = nullptr;
    std::string path_;
    std::atomic<uint32_t> got_{0};
};

TEST_F(RecordTest, EveryFrameWithPseudoHeaderFrameHeaderBodyAndReceiveTime) {
    Broker b;
    ASSERT_EQ(QovHostRecordStart(eal_, path_.c_str(), 1u << 24), 0u);
    Connect(b, 1);
    const uint32_t lens[] = {0, 1, 4096, QOV_HOST_FRAME_MAX_DEFAULT};
    timeval before;
    gettimeofday(&before, nullptr);
    for (uint32_t i = 0; i < std::size(lens); ++i) b.Send(Frame(0x200 + i, lens[i], static_cast<uint8_t>(i + 7)));
    ASSERT_TRUE(WaitFor([&] { return got_ == std::size(lens); }));
    QovHostRecordStats st{};
    ASSERT_EQ(QovHostRecordStop(eal_, &st), 0u);
    timeval after;
    gettimeofday(&after, nullptr);

    int link = 0;
    std::vector<Record> recs = ReadAll(path_, &link);
    EXPECT_EQ(link, static_cast<int>(QOV_HOST_RECORD_LINKTYPE));
    ASSERT_EQ(recs.size(), std::size(lens));
    EXPECT_EQ(st.frames, std::size(lens));
    struct stat sb{};
    ASSERT_EQ(stat(path_.c_str(), &sb), 0);
    EXPECT_EQ(st.bytes, static_cast<uint64_t>(sb.st_size));
    EXPECT_EQ(st.full, 0u);
    for (uint32_t i = 0; i < std::size(lens); ++i) {
        const Record &r = recs[i];
        std::vector<uint8_t> want = {QOV_HOST_RECORD_VERSION, QOV_HOST_RECORD_CHAN, QOV_HOST_RECORD_IN, 0, 0, 0, 0, 1};
        std::vector<uint8_t> frame = Frame(0x200 + i, lens[i], static_cast<uint8_t>(i + 7));
        want.insert(want.end(), frame.begin(), frame.end());
        EXPECT_EQ(r.bytes, want) << "record " << i;
        EXPECT_EQ(r.len, want.size());
        EXPECT_FALSE(timercmp(&r.ts, &before, <)) << "record " << i;
        EXPECT_FALSE(timercmp(&r.ts, &after, >)) << "record " << i;
    }
}

TEST_F(RecordTest, BoundEndsRecordingLeavingACompleteFile) {
    Broker b;
    const uint64_t bound = 2048;  // file header 24, each record 16 + 8 + 12 + 300
    ASSERT_EQ(QovHostRecordStart(eal_, path_.c_str(), bound), 0u);
    Connect(b, 0);
    for (int i = 0; i < 10; ++i) b.Send(Frame(0x300, 300, 1));
    ASSERT_TRUE(WaitFor([&] { return got_ == 10; }));
    QovHostRecordStats st{};
    ASSERT_EQ(QovHostRecordStop(eal_, &st), 0u);
    EXPECT_EQ(st.full, 1u);
    EXPECT_EQ(st.frames, (bound - 24) / 336);
    int link = 0;
    EXPECT_EQ(ReadAll(path_, &link).size(), st.frames);
    struct stat sb{};
    ASSERT_EQ(stat(path_.c_str(), &sb), 0);
    EXPECT_LE(static_cast<uint64_t>(sb.st_size), bound);
    EXPECT_EQ(st.bytes, static_cast<uint64_t>(sb.st_size));
}

// Each row must fail with 1 and leave a later valid start working.
struct Refusal {
    const char *name;
    const char *path;  // null: the test's own path
    uint64_t bound;
    bool startFirst;  // a recording already runs
    bool unknownInstance;
};

void PrintTo(const Refusal &c, std::ostream *os) { *os << c.name; }

class RecordRefusal : public RecordTest, public ::testing::WithParamInterface<Refusal> {};

TEST_P(RecordRefusal, FailsAndLeavesRecordingPossible) {
    const Refusal &c = GetParam();
    std::string other = path_ + ".first";
    if (c.startFirst) {
        ASSERT_EQ(QovHostRecordStart(eal_, other.c_str(), 1u << 20), 0u);
    }
    int dummy = 0;
    void *target = c.unknownInstance ? static_cast<void *>(&dummy) : eal_;
    EXPECT_EQ(QovHostRecordStart(target, c.path != nullptr ? c.path : path_.c_str(), c.bound), 1u);
    if (c.startFirst) {
        EXPECT_EQ(QovHostRecordStop(eal_, nullptr), 0u);
    }
    EXPECT_EQ(QovHostRecordStart(eal_, path_.c_str(), 1u << 20), 0u);
    EXPECT_EQ(QovHostRecordStop(eal_, nullptr), 0u);
    std::remove(other.c_str());
}

INSTANTIATE_TEST_SUITE_P(
    Starts, RecordRefusal,
    ::testing::Values(Refusal{"EmptyPath", "", 1u << 20, false, false},
                      Refusal{"BoundBelowMinimum", nullptr, QOV_HOST_RECORD_MIN_BYTES - 1, false, false},
                      Refusal{"AlreadyRunning", nullptr, 1u << 20, true, false},
                      Refusal{"FolderMissing", "/nonexistent-qov-dir/x.pcap", 1u << 20, false, false},
                      Refusal{"UnknownInstance", nullptr, 1u << 20, false, true}),
    [](const auto &i) { return std::string(i.param.name); });

TEST_F(RecordTest, StopWithoutRecordingFails) { EXPECT_EQ(QovHostRecordStop(eal_, nullptr), 1u); }

}  // namespace
