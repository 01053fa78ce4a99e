// Writes the seed corpus of the intake fuzzer with the tests' message
// encoders: one file per message, a selector byte and the body.
#include <cstdio>
#include <string>

#include "fuzz/msgproc_ids.h"
#include "support/msg_encode.h"

using namespace msgprocfuzz;
using qovtest::Bytes;

namespace {

int g_failed = 0;

void Write(const std::string &dir, const std::string &name, uint8_t sel, const Bytes &body) {
    std::string path = dir + "/" + name;
    FILE *f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) {
        std::perror(path.c_str());
        g_failed = 1;
        return;
    }
    std::fputc(sel, f);
    if (!body.empty()) std::fwrite(body.data(), 1, body.size(), f);
    std::fclose(f);
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s corpus-dir\n", argv[0]);
        return 2;
    }
    std::string dir = argv[1];
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
        Write(dir, "recv_" + std::to_string(id), SelectorOf(id), body);
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
        Write(dir, "trans_table_" + std::to_string(t.tableId), static_cast<uint8_t>(t.tableId),
              qovtest::EncodeTrans(tlvs).bytes);
    }
    // Batch-remapped first types, each starting a run.
    for (uint32_t first = 193; first <= 206; ++first) {
        std::vector<qovtest::SmoothTlv> run{qovtest::Smooth(first, 5), qovtest::Smooth(11, 5)};
        run[0].words = qovtest::Smooth(10, 5).words;
        Write(dir, "trans_batch_" + std::to_string(first), 15,
              qovtest::EncodeTrans({qovtest::SmoothTlvOf(first % 2 ? 5 : 6, 4, run)}).bytes);
    }
    return g_failed;
}
