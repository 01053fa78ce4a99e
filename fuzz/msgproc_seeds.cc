// Writes the seed corpora of the intake fuzzers with the tests' message
// encoders: for msgproc_fuzz one file per message (a selector byte and the
// body), for frames_fuzz the same messages as host frames, one per file, and
// a few streams of several frames.
#include <cstdio>
#include <string>
#include <vector>

#include "fuzz/msgproc_ids.h"
#include "qov_host_api.h"
#include "support/msg_encode.h"

using namespace msgprocfuzz;
using qovtest::Bytes;

namespace {

int g_failed = 0;

void WriteFile(const std::string &path, const Bytes &bytes) {
    FILE *f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) {
        std::perror(path.c_str());
        g_failed = 1;
        return;
    }
    if (!bytes.empty()) std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
}

struct Msg {
    std::string name;
    uint8_t sel;  // msgproc_fuzz's selector
    Bytes body;
    uint32_t MsgId() const { return sel < 16 ? 0x7F7F7F70u + sel : kRecvIds[(sel - 16u) % kRecvIdCount]; }
};

// The frames of msgs, one after the other, as a broker writes them.
Bytes Frames(const std::vector<Msg> &msgs) {
    Bytes out;
    for (const Msg &m : msgs) {
        Bytes f(QOV_HOST_FRAME_HDR_LEN + m.body.size());
        QovHostFrameEncode(f.data(), f.size(), m.MsgId(), m.body.data(), static_cast<uint32_t>(m.body.size()));
        out.insert(out.end(), f.begin(), f.end());
    }
    return out;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2 || argc > 3) {
        std::fprintf(stderr, "usage: %s msgproc-corpus-dir [frames-corpus-dir]\n", argv[0]);
        return 2;
    }
    std::vector<Msg> msgs;
    for (uint32_t i = 0; i < kRecvIdCount; ++i) {
        uint32_t id = kRecvIds[i];
        uint32_t size = kIpcSize[i] == 0 ? 4 : kIpcSize[i];
        Bytes entries = qovtest::Entries(3, size, id);
        Bytes body = qovtest::EncodeRecv(entries);
        if (id == kSerial || id == kNoFree) {
            body.clear();
            qovtest::PutU32(body, kSerialOp);
            body.insert(body.end(), entries.begin(), entries.end());
        }
        msgs.push_back({"recv_" + std::to_string(id), SelectorOf(id), body});
    }
    // Table data of every type on every table, and a smoothing run per table.
    for (const TransTable &t : kTransTables) {
        std::vector<qovtest::Tlv> tlvs;
        for (uint32_t type : {1u, 2u, 18u, 19u})
            tlvs.push_back(qovtest::TableTlv(t.tableId, type, t.path, 3, t.tblSize == 0 ? 8 : t.tblSize, t.tableId));
        std::vector<qovtest::SmoothTlv> run;
        for (uint32_t type : {7u, 9u, 10u, 15u, 16u, 17u, 11u, 190u, 191u, 8u})
            run.push_back(qovtest::Smooth(type, t.tableId));
        tlvs.push_back(qovtest::SmoothTlvOf(t.tableId, 3, run));
        msgs.push_back(
            {"trans_table_" + std::to_string(t.tableId), static_cast<uint8_t>(t.tableId), qovtest::EncodeTrans(tlvs).bytes});
    }
    // Batch-remapped first types, each starting a run.
    for (uint32_t first = 193; first <= 206; ++first) {
        std::vector<qovtest::SmoothTlv> run{qovtest::Smooth(first, 5), qovtest::Smooth(11, 5)};
        run[0].words = qovtest::Smooth(10, 5).words;
        msgs.push_back({"trans_batch_" + std::to_string(first), 15,
                        qovtest::EncodeTrans({qovtest::SmoothTlvOf(first % 2 ? 5 : 6, 4, run)}).bytes});
    }
    for (const Msg &m : msgs) {
        Bytes file{m.sel};
        file.insert(file.end(), m.body.begin(), m.body.end());
        WriteFile(std::string(argv[1]) + "/" + m.name, file);
    }
    if (argc == 3) {
        const std::string dir = argv[2];
        for (const Msg &m : msgs) WriteFile(dir + "/" + m.name, Frames({m}));
        WriteFile(dir + "/stream_all", Frames(msgs));
        // Short transfer frames behind a good one, and a total length past the body.
        const Msg table = msgs[kRecvIdCount];
        const Msg empty{"", table.sel, {}};
        const Msg head{"", table.sel, Bytes(table.body.begin(), table.body.begin() + 11)};
        WriteFile(dir + "/stream_short_after_good", Frames({table, empty, empty, head}));
        Bytes past = qovtest::EncodeTrans({qovtest::TableTlv(1, 18, 0, 1, 4, 1)}, 64).bytes;
        WriteFile(dir + "/trans_total_past_body", Frames({{"", table.sel, past}}));
    }
    return g_failed;
}
