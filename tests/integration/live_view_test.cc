// The control endpoint of a running instance as qovctl and a scraper use it:
// answers under a broker's flood that are taken between the queues'
// operations, the commands, the metrics text as a scraper parses it, clients
// that misbehave, and the refusals of the opening call.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <string_view>
#include <string>
#include <thread>
#include <vector>

#include "qov_autosync_orch.h"
#include "qov_host_api.h"
#include "support/loopback_broker.h"
#include "support/reg_env.h"
#include "support/test_env.h"

namespace {

using namespace std::chrono_literals;
using qovtest::Broker;
using qovtest::ReportCount;
using qovtest::WaitFor;

constexpr uint32_t kMsgId = 100, kIpcMsgId = 7, kEntrySize = 16, kPrefix = 8, kKeySize = 4;

uint32_t Handler(ASOrchHandle *, ASOrchMergeMsgVec *) { return 0; }
ASOrchMergeMsgDispatch g_tbl[] = {{kMsgId, {Handler, Handler, Handler, Handler}}};
ASOrchRecvTblMsg g_recv[] = {
    {kMsgId, kIpcMsgId, 0, nullptr, nullptr, kEntrySize, AS_ORCH_MERGE_DAM, nullptr, 0, kKeySize}};

uint32_t OnFrame(void *ctx, QovHostIpcMsg *m) {
    return ASOrchMsgProc(static_cast<ASOrchHandle *>(ctx), reinterpret_cast<const ASOrchIpcMsg *>(m));
}

// The orchestrator's own metric lines: a histogram, and padding lines that
// make the answer as long as a test needs.
std::atomic<uint32_t> g_padLines{0};
uint32_t ExtraMetrics(void *, char *buf, uint32_t size) {
    std::string s =
        "# HELP qov_path_latency_seconds Send to handler.\n# TYPE qov_path_latency_seconds histogram\n"
        "qov_path_latency_seconds_bucket{queue=\"lvA_DAM\",le=\"0.001\"} 3\n"
        "qov_path_latency_seconds_bucket{queue=\"lvA_DAM\",le=\"+Inf\"} 4\n"
        "qov_path_latency_seconds_sum{queue=\"lvA_DAM\"} 0.25\n"
        "qov_path_latency_seconds_count{queue=\"lvA_DAM\"} 4\n"
        "# HELP test_pad Padding.\n# TYPE test_pad gauge\n";
    for (uint32_t i = 0; i < g_padLines; ++i) s += "test_pad{i=\"" + std::to_string(i) + "\"} 1\n";
    uint32_t n = std::min<uint32_t>(static_cast<uint32_t>(s.size()), size);
    std::memcpy(buf, s.data(), n);
    return n;
}

int Connect(const std::string &path) {
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::memcpy(a.sun_path, path.data(), path.size());
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    return fd;
}

// Everything the endpoint answers until it closes (or is silent for 5 s).
std::string ReadAll(int fd) {
    std::string out;
    char buf[4096];
    for (pollfd p{fd, POLLIN, 0}; poll(&p, 1, 5000) == 1;) {
        ssize_t r = recv(fd, buf, sizeof buf, 0);
        if (r <= 0) break;
        out.append(buf, static_cast<size_t>(r));
    }
    return out;
}

// One request: bytes sent as they are (then the sending side shut when asked),
// then the whole answer.
std::string Ask(const std::string &path, const std::string &bytes, bool shut = false) {
    int fd = Connect(path);
    EXPECT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    if (shut) shutdown(fd, SHUT_WR);
    std::string out = ReadAll(fd);
    close(fd);
    return out;
}

// A sample's value in a metrics text, or -1.
double Sample(const std::string &text, const std::string &series) {
    size_t at = text.find("\n" + series + " ");
    return at == std::string::npos ? -1 : std::stod(text.substr(at + series.size() + 2));
}

// Length of the metric or label name at the start of s (colons allowed in
// metric names only); 0 when there is none.
size_t NameLen(std::string_view s, bool metric) {
    size_t n = 0;
    for (char ch : s) {
        bool ok = std::isalpha(static_cast<unsigned char>(ch)) != 0 || ch == '_' || (metric && ch == ':') ||
                  (n != 0 && std::isdigit(static_cast<unsigned char>(ch)) != 0);
        if (!ok) break;
        ++n;
    }
    return n;
}

// Parses a sample line: its metric name into *name, its series (name and
// labels) into *id; false when the line is not a sample.
bool ParseSample(std::string_view l, std::string *name, std::string *id) {
    size_t n = NameLen(l, true);
    if (n == 0) return false;
    *name = l.substr(0, n);
    size_t i = n;
    if (i < l.size() && l[i] == '{') {
        for (++i;;) {
            size_t k = NameLen(l.substr(i), false);
            if (k == 0 || l.substr(i + k, 2) != "=\"") return false;
            for (i += k + 2; i < l.size() && l[i] != '"'; ++i)
                if (l[i] == '\\' && (++i == l.size() || (l[i] != '\\' && l[i] != '"' && l[i] != 'n'))) return false;
            if (++i >= l.size()) return false;
            if (l[i] == '}') break;
            if (l[i++] != ',') return false;
        }
        ++i;
    }
    if (i >= l.size() || l[i] != ' ') return false;
    *id = l.substr(0, i);
    std::string v(l.substr(i + 1));
    if (v == "NaN" || v == "+Inf" || v == "-Inf") return true;
    if (v.empty() || v.find_first_not_of("0123456789.eE+-") != std::string::npos) return false;
    char *end = nullptr;
    std::strtod(v.c_str(), &end);
    return *end == '\0';
}

// Checks a text against the Prometheus text exposition format 0.0.4; returns
// what is wrong, or "".
std::string ExpositionError(const std::string &text) {
    static const std::set<std::string> kTypes = {"counter", "gauge", "histogram", "summary", "untyped"};
    if (text.empty() || text.back() != '\n') return "does not end with a newline";
    std::map<std::string, std::string> types;
    std::set<std::string> families, series;
    std::string current;
    size_t pos = 0;
    for (size_t eol; (eol = text.find('\n', pos)) != std::string::npos; pos = eol + 1) {
        std::string l = text.substr(pos, eol - pos);
        if (l.starts_with("# TYPE ")) {
            std::string rest = l.substr(7);
            size_t n = NameLen(rest, true);
            std::string f = rest.substr(0, n);
            if (n == 0 || rest.size() <= n || rest[n] != ' ' || kTypes.count(rest.substr(n + 1)) == 0)
                return "bad TYPE: " + l;
            if (types.count(f) != 0 || families.count(f) != 0) return "TYPE late or twice: " + l;
            types[f] = rest.substr(n + 1);
            continue;
        }
        if (l.starts_with("#")) continue;  // HELP lines and comments
        std::string name, id;
        if (!ParseSample(l, &name, &id)) return "bad line: " + l;
        std::string family = name;
        for (const char *suffix : {"_bucket", "_sum", "_count"}) {
            std::string f = name.substr(0, name.size() - std::min(name.size(), std::strlen(suffix)));
            if (name.ends_with(suffix) && types.count(f) != 0 && types[f] == "histogram") family = f;
        }
        if (types.count(family) != 0 && types[family] == "counter" && !family.ends_with("_total"))
            return "counter without _total: " + family;
        if (family != name && name.ends_with("_bucket") && id.find("le=\"") == std::string::npos)
            return "bucket without le: " + l;
        if (family != current && families.count(family) != 0) return "family split: " + family;
        families.insert(family);
        current = family;
        if (!series.insert(id).second) return "series twice: " + id;
    }
    return "";
}

class LiveView : public qovtest::HostTest {
protected:
    void SetUp() override {
        HostTest::SetUp();
        char tmpl[] = "/tmp/qov_liveview.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        sock_ = dir_ + "/ctl.sock";
        g_padLines = 0;
        ASOrchCreatePara cp{0, 0, qovtest::TestAlloc, qovtest::TestFree, 0};
        hdl_ = ASOrchCreate("lvA", &cp);
        ASSERT_NE(hdl_, nullptr);
        eal_ = ASOrchGetEalHdl(hdl_);
        ASOrchBasePara b{};
        b.threadMask = 1;
        b.syncGrpMsgSet[0] = 0x10;
        b.chan[0].realServerPort = broker_.port;
        b.damMerge = {g_tbl, 1, 64, qovtest::MergeHash<0>, 0, 0};
        b.fesMerge = {g_tbl, 1, 64, qovtest::MergeHash<0>, 0, 0};
        b.recvTblMsgList[0] = {g_recv, 1};
        ASSERT_EQ(ASOrchRegBase(hdl_, &b), 0u);
        ASSERT_EQ(QovHostChanSetRecv(eal_, 0, OnFrame, hdl_), 0u);
        ASSERT_EQ(ASOrchInit(hdl_), 0u);
        ASSERT_EQ(QovHostCtlOpen(eal_, sock_.c_str(), &para_), 0u);
        ASSERT_EQ(ASOrchStart(hdl_), 0u);
        ASSERT_TRUE(broker_.Accept());
    }
    void TearDown() override {
        if (hdl_ != nullptr) {
            EXPECT_EQ(QovHostCtlClose(eal_), 0u);
            EXPECT_FALSE(std::filesystem::exists(sock_)) << "the socket file stayed";
            QovHostChanSetRecv(eal_, 0, nullptr, nullptr);
            ASOrchDestroy(hdl_);
            EXPECT_EQ(qovtest::FreeLive(), qovtest::kRegistryKept);
        }
        std::filesystem::remove_all(dir_);
        HostTest::TearDown();
    }
    // Endpoint log lines since from.
    std::vector<std::string> CtlLines(size_t from) {
        std::vector<std::string> out, logs = qovtest::Logs();
        for (size_t i = from; i < logs.size(); ++i)
            if (logs[i].find("lvA ctl: ") != std::string::npos) out.push_back(logs[i]);
        return out;
    }
    QovHostCtlPara para_{QOV_PrintMergeQueListAll, QOV_PrintMergeQueInfo, nullptr, 0, 0, ExtraMetrics, nullptr};
    Broker broker_;
    std::string dir_, sock_;
    ASOrchHandle *hdl_ = nullptr;
    void *eal_ = nullptr;
};

// Reports made while the broker floods the queue must each see the queue
// between two operations: entries appended minus entries read is the depth.
TEST_F(LiveView, AnswersUnderAFloodAreTakenBetweenQueueOperations) {
    std::atomic<bool> stop{false};
    std::thread feeder([&] {
        std::vector<uint8_t> feed;
        for (uint32_t k = 0; k < 256; ++k) {
            uint8_t body[kPrefix + kEntrySize] = {};
            QovHostPutU32(body + kPrefix, k % 97);  // repeated keys merge
            uint8_t f[QOV_HOST_FRAME_HDR_LEN + sizeof body];
            QovHostFrameEncode(f, sizeof f, kIpcMsgId, body, sizeof body);
            feed.insert(feed.end(), f, f + sizeof f);
        }
        while (!stop) broker_.Send(feed);
    });
    int64_t lastAppends = 0;
    auto end = std::chrono::steady_clock::now() + 1500ms;
    for (int i = 0; std::chrono::steady_clock::now() < end || i < 40; ++i) {
        std::string rep = Ask(sock_, "queue lvA_DAM\n");
        int64_t w = ReportCount(rep, "Success Write"), r = ReportCount(rep, "Success Read"), cur = ReportCount(rep, "Mque CurrCnt");
        ASSERT_GE(w, 0) << rep;
        EXPECT_EQ(static_cast<uint32_t>(w - r), static_cast<uint32_t>(cur)) << rep;
        std::string met = Ask(sock_, "metrics\n");
        EXPECT_EQ(ExpositionError(met), "");
        double appends = Sample(met, "qov_queue_appends_total{queue=\"lvA_DAM\"}");
        EXPECT_EQ(appends - Sample(met, "qov_queue_reads_total{queue=\"lvA_DAM\"}"),
                  Sample(met, "qov_queue_depth{queue=\"lvA_DAM\"}"));
        EXPECT_GE(Sample(met, "qov_chan_frames_in_total{chan=\"0\",name=\"lvA_DATA_DAM\"}"), 0) << met;
        lastAppends = static_cast<int64_t>(appends);
    }
    stop = true;
    feeder.join();
    EXPECT_GT(lastAppends, 0) << "the flood never reached the queue";
}

struct CommandRow {
    const char *name;
    std::string request;
    bool shut;  // the client shuts its sending side instead of a newline
    std::vector<std::string> want;
};

TEST_F(LiveView, CommandsAnswerWithTheirReports) {
    std::vector<uint8_t> f = qovtest::Frame(kIpcMsgId, kPrefix + kEntrySize, 0);
    broker_.Send(f);
    ASSERT_TRUE(WaitFor([&] { return Ask(sock_, "channels\n").find(" 1   ") != std::string::npos; }));
    const CommandRow rows[] = {
        {"queues", "queues\n", false, {"MQ-1THD Name", "lvA_DAM", "lvA_FES"}},
        {"queue", "queue lvA_FES\n", false, {"MQUE-1THD-NAME : lvA_FES[MQUE]", "Success Write"}},
        {"queue_of_another_instance", "queue lvB_DAM\n", false, {"error: no queue lvB_DAM in this instance\n"}},
        {"channels", "channels\r\n", false, {"lvA_DATA_DAM", " up ", "RECONNECTS", "BAD_MAGIC"}},
        {"links", "links\n", false, {"GROUP", "FRAMES_OUT"}},
        {"help", "help\n", false, {"queue NAME", "metrics"}},
        {"request_ended_by_shutdown", "queues", true, {"lvA_FES"}},
        {"metrics", "metrics\n", false,
         {"# TYPE qov_queue_depth gauge\n", "qov_chan_frames_in_total{chan=\"0\",name=\"lvA_DATA_DAM\"} 1\n",
          "qov_chan_bytes_in_total{chan=\"0\",name=\"lvA_DATA_DAM\"} 36\n",
          "qov_chan_frames_dropped_total{chan=\"0\",name=\"lvA_DATA_DAM\",reason=\"unclaimed\"} 0\n",
          "qov_queue_appends_total{queue=\"lvA_DAM\"} 1\n", "qov_path_latency_seconds_count{queue=\"lvA_DAM\"} 4\n"}},
    };
    for (const CommandRow &row : rows) {
        SCOPED_TRACE(row.name);
        std::string a = Ask(sock_, row.request, row.shut);
        for (const std::string &w : row.want) EXPECT_NE(a.find(w), std::string::npos) << w << " in\n" << a;
        if (row.request == "metrics\n") {
            EXPECT_EQ(ExpositionError(a), "");
        }
    }
    EXPECT_EQ(CtlLines(0).size(), 1u) << "only the opening line";
}

// The checker must refuse what a scraper refuses, or it proves nothing.
TEST(Exposition, CheckerRefusesBrokenTexts) {
    const std::pair<const char *, std::string> rows[] = {
        {"no_final_newline", "a 1"},
        {"bad_value", "a one\n"},
        {"unquoted_label", "a{b=c} 1\n"},
        {"type_after_sample", "a 1\n# TYPE a gauge\n"},
        {"split_family", "a 1\nb 1\na{x=\"1\"} 1\n"},
        {"counter_without_total", "# TYPE a counter\na 1\n"},
        {"series_twice", "a{x=\"1\"} 1\na{x=\"1\"} 2\n"},
        {"bad_escape", "a{x=\"\\q\"} 1\n"},
        {"bucket_without_le", "# TYPE h histogram\nh_bucket{x=\"1\"} 1\n"},
        {"unknown_type", "# TYPE a meter\n"},
    };
    for (const auto &[name, text] : rows) EXPECT_NE(ExpositionError(text), "") << name;
    EXPECT_EQ(ExpositionError("# HELP a_total x\n# TYPE a_total counter\na_total{x=\"\\\"\"} 1e3\n"), "");
}

// A client that misbehaves gets one log line and is dropped, and the endpoint
// goes on answering others meanwhile.
struct HostileRow {
    const char *name;
    std::string send;
    uint32_t padLines;  // answer length for the readers
    enum { kReadAll, kNoRead, kReadSomeThenClose } read;
    const char *answer;  // prefix of what the client reads, kReadAll only
    const char *line;    // the endpoint's log line
};

class Hostile : public LiveView, public ::testing::WithParamInterface<HostileRow> {};

TEST_P(Hostile, OneLineAndOthersStillServed) {
    const HostileRow &row = GetParam();
    g_padLines = row.padLines;
    size_t from = qovtest::Logs().size();
    int fd = Connect(sock_);
    EXPECT_EQ(send(fd, row.send.data(), row.send.size(), MSG_NOSIGNAL), static_cast<ssize_t>(row.send.size()));
    if (row.read == HostileRow::kReadAll) {
        std::string got = ReadAll(fd);
        EXPECT_TRUE(got.starts_with(row.answer)) << got;
    } else {
        if (row.read == HostileRow::kReadSomeThenClose) {
            char buf[100];
            EXPECT_EQ(recv(fd, buf, sizeof buf, MSG_WAITALL), 100);
            close(fd);
            fd = -1;
        }
        // While this client holds its connection, others are answered at once.
        auto t0 = std::chrono::steady_clock::now();
        EXPECT_EQ(Ask(sock_, "queue lvA_DAM\n").find("MQUE-1THD-NAME"), 0u);
        EXPECT_LT(std::chrono::steady_clock::now() - t0, 1s);
    }
    EXPECT_TRUE(WaitFor([&] { return !CtlLines(from).empty(); }, 3 * QOV_HOST_CTL_TIMEOUT_MS));
    if (fd >= 0) close(fd);
    std::vector<std::string> lines = CtlLines(from);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find(row.line), std::string::npos) << lines[0];
}

INSTANTIATE_TEST_SUITE_P(
    LiveView, Hostile,
    ::testing::Values(
        HostileRow{"oversized", std::string(QOV_HOST_CTL_REQ_MAX + 40, 'q'), 0, HostileRow::kReadAll,
                   "error: request too long", "request over 256 bytes refused"},
        HostileRow{"garbage", "\x16\x03\x01\xff\xfe\n", 0, HostileRow::kReadAll, "error: not a command",
                   "garbage request of 5 bytes refused"},
        HostileRow{"unknown_command", "shutdown now\n", 0, HostileRow::kReadAll, "error: unknown command",
                   "unknown request \"shutdown now\" refused"},
        HostileRow{"silent", "", 0, HostileRow::kNoRead, "", "client timed out sending its request"},
        HostileRow{"slow_reader", "metrics\n", 2500, HostileRow::kNoRead, "", "client timed out reading its answer"},
        HostileRow{"gone_mid_reply", "metrics\n", 2500, HostileRow::kReadSomeThenClose, "",
                   "client went away after"}),
    qovtest::RowName());

TEST_F(LiveView, OpenRefusesWhatItCannotServe) {
    std::string longPath = dir_ + "/" + std::string(120, 'p');
    std::string inUse = dir_ + "/busy.sock";
    int live = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::memcpy(a.sun_path, inUse.data(), inUse.size());
    ASSERT_EQ(bind(live, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    ASSERT_EQ(listen(live, 1), 0);
    QovHostCtlPara noList = para_, tooMany = para_;
    noList.queueList = nullptr;
    tooMany.queueNum = QOV_HOST_CTL_QUEUES_MAX + 1;
    const char *names[QOV_HOST_CTL_QUEUES_MAX + 1] = {};
    tooMany.queueNames = names;
    // A second instance, with the first one's endpoint open.
    QOV_EAL_CreatePara ep{};
    void *other = QOV_EAL_Create("lvB", &ep);
    std::string fresh = dir_ + "/b.sock", missing = dir_ + "/no/such.sock";
    const struct {
        const char *name;
        void *eal;
        const char *path;
        const QovHostCtlPara *para;
    } rows[] = {
        {"already_open", eal_, fresh.c_str(), &para_},
        {"null_path", other, nullptr, &para_},
        {"empty_path", other, "", &para_},
        {"path_too_long", other, longPath.c_str(), &para_},
        {"null_para", other, fresh.c_str(), nullptr},
        {"no_list_function", other, fresh.c_str(), &noList},
        {"too_many_queues", other, fresh.c_str(), &tooMany},
        {"another_endpoint_answers", other, inUse.c_str(), &para_},
        {"missing_directory", other, missing.c_str(), &para_},
        {"the_same_path_as_a_live_endpoint", other, sock_.c_str(), &para_},
        {"unknown_instance", &ep, fresh.c_str(), &para_},
    };
    // The instance's channel may log meanwhile: only the endpoint's lines count.
    auto ctlLines = [] {
        size_t n = 0;
        for (const std::string &l : qovtest::Logs())
            n += l.find(" ctl: ") != std::string::npos || l.find("QovHostCtlOpen: ") != std::string::npos;
        return n;
    };
    for (const auto &row : rows) {
        size_t before = ctlLines();
        EXPECT_EQ(QovHostCtlOpen(row.eal, row.path, row.para), 1u) << row.name;
        EXPECT_EQ(ctlLines(), before + 1) << row.name << ": one line says why";
    }
    EXPECT_FALSE(std::filesystem::exists(fresh));
    close(live);
    // A socket file that nobody answers on any more is taken over.
    ASSERT_TRUE(std::filesystem::exists(inUse));
    EXPECT_EQ(QovHostCtlOpen(other, inUse.c_str(), &para_), 0u);
    EXPECT_EQ(QovHostCtlClose(other), 0u);
    EXPECT_EQ(QovHostCtlClose(other), 1u);
    QOV_EAL_Destroy(other);
    EXPECT_EQ(Ask(sock_, "help\n").find("queues"), 0u) << "the first endpoint still answers";
}

}  // namespace
