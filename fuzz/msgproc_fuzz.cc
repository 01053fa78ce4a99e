// Drives ASOrchMsgProc with arbitrary messages on a fully registered handle
// (fuzz_handle.cc): receive messages of every merge type, serialised,
// user-defined and refused registrations, and transfer messages for tables of
// both paths registered both ways, with smoothing callbacks in every slot.
#include <cstdint>
#include <cstring>
#include <memory>

#include "fuzz/fuzz_handle.h"
#include "fuzz/msgproc_ids.h"
#include "qov_host_ctl.h"

using namespace msgprocfuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static ASOrchHandle *const g_hdl = RegisterHandle("fuzzI");
    if (size < 1 || size > (1u << 20)) return 0;
    uint8_t sel = data[0];
    bool trans = sel < 16;
    uint32_t msgId = trans ? 0x7F7F7F70u + sel : kRecvIds[(sel - 16u) % kRecvIdCount];
    size_t len = size - 1;
    // The body in a block of exactly its length: a read past it shows.
    std::unique_ptr<uint8_t[]> body(new uint8_t[len]);
    if (len != 0) std::memcpy(body.get(), data + 1, len);
    ASOrchIpcMsg msg{body.get(), msgId, static_cast<uint32_t>(len)};
    (void)ASOrchMsgProc(g_hdl, &msg);
    // The Data thread's turn: read and dispatch what was queued.
    while (QovHostEpollRunOnce(ASOrchGetEpollFd(g_hdl, 0), 0) > 0) {
    }
    return 0;
}
