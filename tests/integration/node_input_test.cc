// orch_node as a process, fed bad input on the paths of a restart and of a
// standby: a resync end without its begin must remove nothing, a begin for a
// table that is not the node's must be refused, and a sync frame that does not
// cut into whole route entries must be dropped, each with a log line and
// without ending the node.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "qov_table_file.h"
#include "support/loopback_broker.h"

namespace {

using qovtest::Broker;

std::string ReadAll(const std::string &file) {
    std::ifstream f(file);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
}

std::vector<uint8_t> Frame(uint32_t msgId, const void *body, uint32_t len) {
    std::vector<uint8_t> out(QOV_HOST_FRAME_HDR_LEN + len);
    QovHostFrameEncode(out.data(), out.size(), msgId, body, len);
    return out;
}

class NodeInput : public ::testing::Test {
protected:
    static constexpr uint32_t kKeys = 16;
    std::string dir_ = std::string(QOV_TEST_DIR) + "/node_input_" +
                       ::testing::UnitTest::GetInstance()->current_test_info()->name();
    std::string table_ = dir_ + ".tbl", out_ = dir_ + ".out", log_ = dir_ + ".log";
    pid_t pid_ = -1;

    void SetUp() override {
        for (const std::string &f : {table_, out_, log_}) unlink(f.c_str());
    }
    void TearDown() override {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    // The table file as a node left it (or as a test prepares it).
    QovTableFile Table(int fresh) {
        QovTableFile t{};
        EXPECT_EQ(QovTableOpen(&t, table_.c_str(), kKeys, fresh), 0);
        return t;
    }
    void Start(std::vector<std::string> args) {
        args.insert(args.begin(), {QOV_ORCH_NODE, "--table", table_, "--keys", std::to_string(kKeys), "--log", log_});
        pid_ = fork();
        if (pid_ == 0) {
            FILE *f = std::freopen(out_.c_str(), "w", stdout);
            (void)f;
            std::vector<char *> argv;
            for (std::string &a : args) argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        ASSERT_GT(pid_, 0);
    }
    // The node's exit status, once it ended by itself.
    int Exit() {
        int st = -1;
        bool ended = qovtest::WaitFor([&] { return waitpid(pid_, &st, WNOHANG) == pid_; }, 20000);
        pid_ = -1;
        return ended && WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    }
};

TEST_F(NodeInput, StrayResyncEndRemovesNothingAndForeignBeginsAreRefused) {
    QovTableFile t = Table(1);
    for (uint32_t k = 0; k < kKeys; ++k) t.row[k] = QovTableRow{7, QOV_WL_SET, {}};
    t.row[4] = QovTableRow{};
    QovTableClose(&t);
    // The node's FES channel goes to the port after the DAM one.
    Broker dam;
    int fesFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = qovtest::Loopback();
    a.sin_port = htons(static_cast<uint16_t>(dam.port + 1));
    if (bind(fesFd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
        close(fesFd);
        GTEST_SKIP() << "the port after the DAM one is taken";
    }
    Broker fesAt(false);
    close(fesAt.lfd);
    fesAt.lfd = fesFd;
    fesAt.Listen();
    Start({"--role", "active", "--name", "n", "--broker", std::to_string(dam.port)});
    ASSERT_TRUE(dam.Accept());
    ASSERT_TRUE(fesAt.Accept());

    // A whole resync of the DAM table without key 4, then key 4 set live:
    // an end that follows now closes no begin and must not sweep key 4 away.
    std::vector<uint32_t> seq(kKeys, 7);
    std::vector<uint8_t> op(kKeys, QOV_WL_SET);
    op[4] = QOV_WL_NONE;
    QovRouteWorkload wl;
    QovWlInit(&wl, kKeys, 1, 0, seq.data(), op.data());
    std::vector<uint8_t> body(QOV_WL_RESYNC_BODY_MAX);
    dam.Send(Frame(QOV_WL_MSG_TRANS, body.data(), QovWlResyncMark(body.data(), 0, 0)));
    uint32_t next = 0, rows = 0;
    dam.Send(Frame(QOV_WL_MSG_TRANS, body.data(), QovWlResyncRows(body.data(), &wl, &next, &rows, 0)));
    dam.Send(Frame(QOV_WL_MSG_TRANS, body.data(), QovWlResyncMark(body.data(), 0, 1)));
    uint8_t set[QOV_WL_BODY_PREFIX + sizeof(QovRouteEntry)] = {};
    QovRouteEntry e{};
    QovWlEntry(4, 9, 0, &e);
    std::memcpy(set + QOV_WL_BODY_PREFIX, &e, sizeof e);
    dam.Send(Frame(QOV_WL_MSG_DAM_SET, set, sizeof set));
    ASSERT_TRUE(qovtest::WaitFor([&] {  // through the merge queue into the table
        QovTableFile now = Table(0);
        bool there = QovTablePresent(&now.row[4]);
        QovTableClose(&now);
        return there;
    }));
    dam.Send(Frame(QOV_WL_MSG_TRANS, body.data(), QovWlResyncMark(body.data(), 0, 1)));

    uint32_t len = QovWlResyncMark(body.data(), 0, 0);
    QovWlPut32(body.data() + 12, 0x77);  // a begin addressed to a table nobody registered
    dam.Send(Frame(QOV_WL_MSG_TRANS, body.data(), len));
    len = QovWlResyncMark(body.data(), 1, 0);
    QovWlPut32(body.data() + 32, 0x77);  // the node's table, a smoothing TLV naming another
    fesAt.Send(Frame(QOV_WL_MSG_TRANS, body.data(), len));
    uint64_t end[3] = {};
    dam.Send(Frame(QOV_WL_MSG_END, end, sizeof end));
    fesAt.Send(Frame(QOV_WL_MSG_END, end, sizeof end));
    EXPECT_EQ(Exit(), 0);

    std::string out = ReadAll(out_), log = ReadAll(log_);
    EXPECT_NE(out.find("resync end of DAM without a begin: ignored, nothing removed"), std::string::npos) << out;
    EXPECT_NE(log.find("smoothing VRF data end without a begin, table 97"), std::string::npos) << log;
    EXPECT_NE(log.find("get tbl trans tbl failed.tableId = 119."), std::string::npos) << log;
    EXPECT_NE(out.find("smoothing type 10 for table 119: not a resync of ours, ignored"), std::string::npos) << out;
    t = Table(0);
    for (uint32_t k = 0; k < kKeys; ++k) EXPECT_TRUE(QovTablePresent(&t.row[k])) << "key " << k << " removed";
    EXPECT_EQ(t.row[4].seq, 9u);
    EXPECT_EQ(t.hdr->resync[0].rows, 11u) << "the DAM keys but 4";
    QovTableClose(&t);
}

TEST_F(NodeInput, SyncFrameOfPartialEntriesIsDroppedAndTheNextApplied) {
    Broker peer;
    Start({"--role", "standby", "--name", "s", "--peer", "127.0.0.1:" + std::to_string(peer.port)});
    ASSERT_TRUE(peer.Accept());
    auto syncFrame = [](const std::vector<std::vector<uint8_t>> &items) {
        std::vector<uint8_t> body;
        for (const auto &it : items) {
            uint8_t n[4];
            QovHostPutU32(n, static_cast<uint32_t>(it.size()));
            body.insert(body.end(), n, n + 4);
            body.insert(body.end(), it.begin(), it.end());
        }
        return Frame(0, body.data(), static_cast<uint32_t>(body.size()));
    };
    const uint32_t head[2] = {0, 0};  // DAM, op 0
    std::vector<uint8_t> headItem(reinterpret_cast<const uint8_t *>(head), reinterpret_cast<const uint8_t *>(head + 2));
    QovRouteEntry e{};
    QovWlEntry(1, 42, 0, &e);
    std::vector<uint8_t> entry(reinterpret_cast<uint8_t *>(&e), reinterpret_cast<uint8_t *>(&e + 1));
    peer.Send(syncFrame({headItem, std::vector<uint8_t>(entry.begin(), entry.end() - 1)}));
    peer.Send(syncFrame({headItem, entry}));
    ASSERT_TRUE(qovtest::WaitFor([&] {
        QovTableFile t = Table(0);
        bool got = QovTablePresent(&t.row[1]) && t.row[1].seq == 42;
        QovTableClose(&t);
        return got;
    }));
    peer.Drop();
    close(peer.lfd);  // no peer any more: the standby's link stays down
    peer.lfd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    kill(pid_, SIGTERM);
    EXPECT_EQ(Exit(), 0);
    std::string out = ReadAll(out_);
    EXPECT_NE(out.find("sync frame of 2 items does not cut into a head and whole route entries (item 1): dropped"),
              std::string::npos)
        << out;
    QovTableFile t = Table(0);
    EXPECT_EQ(t.hdr->syncFramesBad, 1u);
    EXPECT_EQ(t.hdr->syncFramesRecv, 2u);
    QovTableClose(&t);
}

}  // namespace
