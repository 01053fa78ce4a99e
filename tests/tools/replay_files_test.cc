// qov_replay on files it must refuse: each row makes a damaged recording and
// expects exit status 1 with its message, before anything listens.
#include <gtest/gtest.h>
#include <pcap/pcap.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "qov_host_api.h"

namespace {

struct Rec {
    std::vector<uint8_t> bytes;
    uint32_t len;  // length on the wire; above bytes.size() for a record kept cut
};

// A record as the host writes it: pseudo-header, frame header, body.
Rec Good(uint32_t bodyLen, uint32_t chan = 0, uint32_t msgId = 0x51000001u) {
    std::vector<uint8_t> r(QOV_HOST_RECORD_PSEUDO_LEN + QOV_HOST_FRAME_HDR_LEN + bodyLen, 0xAB);
    r[0] = QOV_HOST_RECORD_VERSION, r[1] = QOV_HOST_RECORD_CHAN, r[2] = QOV_HOST_RECORD_IN, r[3] = 0;
    QovHostPutU32(r.data() + 4, chan);
    QovHostFrameHdrEncode(r.data() + QOV_HOST_RECORD_PSEUDO_LEN, msgId, bodyLen);
    return {r, static_cast<uint32_t>(r.size())};
}

void WriteCapture(const std::string &path, int linkType, const std::vector<Rec> &recs) {
    pcap_t *dead = pcap_open_dead(linkType, QOV_HOST_RECORD_SNAPLEN);
    pcap_dumper_t *d = pcap_dump_open(dead, path.c_str());
    ASSERT_NE(d, nullptr);
    for (const Rec &r : recs) {
        pcap_pkthdr h{};
        h.caplen = static_cast<bpf_u_int32>(r.bytes.size());
        h.len = r.len;
        pcap_dump(reinterpret_cast<u_char *>(d), &h, r.bytes.data());
    }
    pcap_dump_close(d);
    pcap_close(dead);
}

void Cut(const std::string &path, size_t keep) {
    std::string all;
    {
        std::ifstream in(path, std::ios::binary);
        all.assign(std::istreambuf_iterator<char>(in), {});
    }
    std::ofstream(path, std::ios::binary | std::ios::trunc) << all.substr(0, keep);
}

struct BadFile {
    const char *name;
    std::function<void(const std::string &)> make;
    const char *message;  // part of what the tool must say
};

void PrintTo(const BadFile &c, std::ostream *os) { *os << c.name; }

Rec With(Rec r, size_t at, uint8_t v) {
    r.bytes[at] = v;
    return r;
}

const BadFile kBadFiles[] = {
    {"Missing", [](const std::string &) {}, "not a readable capture file"},
    {"NotACapture", [](const std::string &p) { std::ofstream(p) << "route 2001:db8::/64 via fe80::1\n"; },
     "not a readable capture file"},
    {"FileHeaderCut",
     [](const std::string &p) {
         WriteCapture(p, QOV_HOST_RECORD_LINKTYPE, {Good(40)});
         Cut(p, 12);
     },
     "not a readable capture file"},
    {"LastRecordCut",
     [](const std::string &p) {
         WriteCapture(p, QOV_HOST_RECORD_LINKTYPE, {Good(40), Good(40)});
         Cut(p, 24 + 2 * (16 + 60) - 10);
     },
     "after record 1"},
    {"WrongLinkType", [](const std::string &p) { WriteCapture(p, DLT_EN10MB, {Good(40)}); }, "link type 1 (EN10MB)"},
    {"FrameOverBound",
     [](const std::string &p) { WriteCapture(p, QOV_HOST_RECORD_LINKTYPE, {Good(40), Good(QOV_HOST_FRAME_MAX_DEFAULT + 1)}); },
     "record 2: frame body of 65537 bytes is over the bound of 65536"},
    {"RecordKeptCut",
     [](const std::string &p) {
         Rec r = Good(40);
         r.len += 100;
         WriteCapture(p, QOV_HOST_RECORD_LINKTYPE, {r});
     },
     "kept cut at 60 of 160 bytes"},
    {"RecordShorterThanHeaders",
     [](const std::string &p) { WriteCapture(p, QOV_HOST_RECORD_LINKTYPE, {Rec{std::vector<uint8_t>(19, 1), 19}}); },
     "19 bytes, shorter than its two headers"},
    {"UnknownRecordVersion", [](const std::string &p) { WriteCapture(p, QOV_HOST_RECORD_LINKTYPE, {With(Good(4), 0, 9)}); },
     "record version 9"},
    {"UnknownLinkKind", [](const std::string &p) { WriteCapture(p, QOV_HOST_RECORD_LINKTYPE, {With(Good(4), 1, 5)}); },
     "unknown link kind 5"},
    {"ChannelOutOfRange", [](const std::string &p) { WriteCapture(p, QOV_HOST_RECORD_LINKTYPE, {Good(4, 7)}); },
     "channel 7 does not exist"},
    {"WrongMagic", [](const std::string &p) { WriteCapture(p, QOV_HOST_RECORD_LINKTYPE, {With(Good(4), 8, 0)}); },
     "magic is wrong"},
    {"BodyLengthDisagrees",
     [](const std::string &p) { WriteCapture(p, QOV_HOST_RECORD_LINKTYPE, {With(Good(4), 19, 9)}); },
     "the frame header says 9 body bytes, the record holds 4"},
    {"NoChannelFrames", [](const std::string &p) { WriteCapture(p, QOV_HOST_RECORD_LINKTYPE, {}); },
     "no channel frames to send"},
};

class ReplayBadFile : public ::testing::TestWithParam<BadFile> {};

TEST_P(ReplayBadFile, RefusedWithMessageBeforeListening) {
    const BadFile &c = GetParam();
    std::string path = "/tmp/qov_replay_bad_" + std::to_string(getpid()) + "_" + c.name + ".pcap";
    std::remove(path.c_str());
    c.make(path);
    std::string cmd = std::string(QOV_REPLAY) + " --port 0 --accept 100 " + path + " 2>&1";
    FILE *p = popen(cmd.c_str(), "r");
    ASSERT_NE(p, nullptr);
    std::string out;
    char buf[512];
    while (std::fgets(buf, sizeof buf, p) != nullptr) out += buf;
    int st = pclose(p);
    std::remove(path.c_str());
    ASSERT_TRUE(WIFEXITED(st)) << "the tool did not exit normally: " << out;
    EXPECT_EQ(WEXITSTATUS(st), 1) << out;
    EXPECT_NE(out.find(c.message), std::string::npos) << out;
    EXPECT_EQ(out.find("listening"), std::string::npos) << out;
}

INSTANTIATE_TEST_SUITE_P(Files, ReplayBadFile, ::testing::ValuesIn(kBadFiles),
                         [](const auto &i) { return std::string(i.param.name); });

}  // namespace
