// Drives the library the way an orchestrator on the host does: a handle set up
// by ASOrchRegBase, and the input read as the byte stream of a broker's
// channel. The host's frame decoder cuts it into frames; each body is copied
// into a block of exactly its msgLen bytes (so AddressSanitizer sees any read
// past it) and handed to the receive function an orchestrator installs,
// receive, transfer and smoothing bodies alike. The stream ends where the host
// would drop the connection (bad magic, a frame over the bound) or wait for
// more bytes. The handle is fuzz_handle.cc's.
#include <cstdint>
#include <cstring>
#include <memory>

#include "fuzz/fuzz_handle.h"
#include "qov_host_api.h"
#include "qov_host_ctl.h"

namespace {

// The receive function of an orchestrator's channel, as it hands frames on.
uint32_t OnFrame(void *ctx, QovHostIpcMsg *msg) {
    ASOrchIpcMsg m = {msg->body, msg->msgId, msg->msgLen};
    return ASOrchMsgProc(static_cast<ASOrchHandle *>(ctx), &m);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static ASOrchHandle *const g_hdl = msgprocfuzz::RegisterHandle("framesF");
    const int32_t epFd = ASOrchGetEpollFd(g_hdl, 0);
    size_t off = 0;
    while (size - off >= QOV_HOST_FRAME_HDR_LEN) {
        uint32_t msgId = 0, msgLen = 0;
        if (QovHostFrameHdrDecode(data + off, QOV_HOST_FRAME_MAX_DEFAULT, &msgId, &msgLen) != 0) break;
        off += QOV_HOST_FRAME_HDR_LEN;
        if (size - off < msgLen) break;
        std::unique_ptr<uint8_t[]> body(new uint8_t[msgLen]);
        if (msgLen != 0) std::memcpy(body.get(), data + off, msgLen);
        off += msgLen;
        QovHostIpcMsg msg{body.get(), msgId, msgLen};
        (void)OnFrame(g_hdl, &msg);
        // The Data thread's turn: read and dispatch what was queued.
        while (QovHostEpollRunOnce(epFd, 0) > 0) {
        }
    }
    return 0;
}
