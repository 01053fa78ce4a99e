// The host's EAL instance, shared by the files of libqov_utils_eal.
#ifndef QOV_HOST_EAL_H
#define QOV_HOST_EAL_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <type_traits>

#include "qov_host_api.h"
#include "qov_host_ctl.h"
#include "qov_utils_eal.h"

namespace qovhost {

constexpr uint32_t kChanNum = 8;
constexpr uint32_t kSyncGrpMax = 64;

// A caller's function that may be replaced or cleared while the serving
// thread calls it: Set returns only when no call is running on another thread.
template <class F>
class CallGate {
public:
    void Set(F fn, void *ctx) {
        std::unique_lock<std::mutex> lk(mu_);
        fn_ = fn;
        ctx_ = ctx;
        idle_.wait(lk, [&] { return running_ == 0 || runner_ == std::this_thread::get_id(); });
    }
    // Calls the current function, if any, with ctx and args; false when none.
    template <class... A>
    bool Call(uint32_t *ret, A... args) {
        F fn;
        void *ctx;
        {
            std::lock_guard<std::mutex> lk(mu_);
            if (fn_ == nullptr) return false;
            fn = fn_;
            ctx = ctx_;
            ++running_;
            runner_ = std::this_thread::get_id();
        }
        if constexpr (std::is_same_v<decltype(fn(ctx, args...)), void>) {
            fn(ctx, args...);
            *ret = 0;
        } else {
            *ret = fn(ctx, args...);
        }
        {
            std::lock_guard<std::mutex> lk(mu_);
            --running_;
        }
        idle_.notify_all();
        return true;
    }

private:
    std::mutex mu_;
    std::condition_variable idle_;
    F fn_ = nullptr;
    void *ctx_ = nullptr;
    uint32_t running_ = 0;
    std::thread::id runner_;
};

struct EalInstance;
struct Recorder;  // recorder.cc
struct CtlEndpoint;

// One TCP connection over loopback that carries frames: a channel to its
// broker, or a sync group's link to its peer. The socket and the reconnect
// timer are served by one epoll set; senders on other threads share the
// socket under mu.
struct Link {
    enum class Kind : uint8_t { kChan, kSync };
    Kind kind = Kind::kChan;
    uint32_t index = 0;     // channel index or group id
    EalInstance *eal = nullptr;
    bool configured = false;  // a peer to connect to, or a port to listen on
    bool listener = false;
    uint32_t addr = 0;        // network byte order
    uint16_t port = 0;        // host byte order
    int32_t epFd = -1;        // serving set, fixed at start
    int32_t timerFd = -1;     // reconnect timer, owned by the set
    int32_t listenFd = -1;
    uint32_t backoffMs = 0;

    std::mutex mu;            // fd and pressed, for senders and pressers
    int32_t fd = -1;
    std::atomic<bool> pressed{false};
    std::atomic<uint32_t> state{QOV_HOST_LINK_IDLE};

    // What was read and not yet delivered (serving thread only): frames are
    // handed over in place from buf[off, have); room for one whole frame
    // behind off is kept, so any frame fits.
    std::unique_ptr<uint8_t[]> buf;
    uint32_t bufMax = 0;      // body bound of a frame
    uint32_t bufCap = 0;      // bytes of buf
    uint32_t off = 0;         // first byte not delivered
    uint32_t have = 0;        // bytes read into buf

    std::atomic<uint32_t> connects{0};
    std::atomic<uint64_t> framesIn{0};
    std::atomic<uint64_t> framesRefused{0};
    std::atomic<uint64_t> framesBad{0};       // bad headers, malformed sync bodies
    std::atomic<uint64_t> badMagic{0};        // headers with a wrong magic
    std::atomic<uint64_t> overBound{0};       // headers announcing a body over the bound
    std::atomic<uint64_t> unclaimed{0};       // frames read with no receive function set
    std::atomic<uint64_t> bytesIn{0};         // bytes of the frames read, headers included
    std::atomic<uint64_t> sent{0};
    std::atomic<uint32_t> presses{0};
    std::atomic<uint32_t> releases{0};

    // Adds to a counter that only the serving thread writes: no locked
    // read-modify-write on the frame path, readers still see whole values.
    static void Bump(std::atomic<uint64_t> &c, uint64_t n) {
        c.store(c.load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
    }

    void Init(Kind k, uint32_t i, EalInstance *e) {
        kind = k;
        index = i;
        eal = e;
    }
};

struct EalChannel {
    QOV_EAL_ChanPara para{};
    bool registered = false;
    Link link;
    CallGate<QovHostChanRecvFunc> recv;
};

struct EalSyncGrp {
    QOV_EAL_SyncGrpItem item{};
    QOV_EAL_SyncGrpFlowCtl flowCtl{};
    uint64_t msgSet = 0;
    bool registered = false;
    bool flowCtlSet = false;
    bool msgSetSet = false;
    Link link;
    CallGate<QovHostSyncRecvFunc> recv;
};

struct EalInstance {
    char name[32] = {};
    QOV_EAL_CreatePara para{};
    int32_t epFd[QOV_EAL_THREAD_KIND_NUM] = {-1, -1, -1};
    int32_t stopFd = -1;
    bool inited = false;
    bool modInitOk = false;
    uint64_t ondemand = 0;
    std::mutex mu;            // started, and the links' start-up
    bool started = false;
    uint32_t threadMask = 0;  // kinds registered
    uint32_t runMask = 0;     // kinds running, fixed at start
    QOV_EAL_ThreadPara threadPara[QOV_EAL_THREAD_KIND_NUM] = {};
    std::thread threads[QOV_EAL_THREAD_KIND_NUM];
    std::atomic<int32_t> tid[QOV_EAL_THREAD_KIND_NUM] = {};
    uint64_t modStateRsp = 0;
    uint32_t modStateRspArg = 0;
    bool modStateSet = false;
    uint32_t rsvPort[2] = {};
    bool rsvPortSet = false;
    EalChannel chan[kChanNum];
    EalSyncGrp syncGrp[kSyncGrpMax];
    std::atomic<Recorder *> recorder{nullptr};  // made at the first recording, freed with the instance
    CtlEndpoint *ctl = nullptr;  // the control endpoint, under its own lock
};

// The instance behind eal when it is live, else null.
EalInstance *LiveEal(void *eal);

// The epoll set serving a thread id: its own when that thread runs, else the
// Data thread's.
int32_t ServingSet(const EalInstance &e, uint32_t threadId);

// Starts a configured link on the set that serves threadId: a connector tries
// at once on that set's thread, a listener starts accepting. Under e.mu, with
// the instance started.
void LinkStart(Link &l, int32_t epFd);
// Closes what a link holds; its set is already forgotten (threads joined).
void LinkClose(Link &l);
// Sends one encoded frame; 0 on success, 1 when the link is down or the peer
// did not take it in time (the link is then dropped).
uint32_t LinkSend(Link &l, const uint8_t *frame, size_t len);
uint32_t LinkPress(Link &l, bool press);

// Writes a delivered frame into the instance's recording, if one runs; called
// once per frame by the delivering thread, before the receive function.
void RecordFrame(const Link &l, uint32_t msgId, const uint8_t *body, uint32_t len);
// Ends a recording still running and frees the recorder; threads joined.
void RecorderFree(EalInstance &e);
// Closes the instance's control endpoint, if open; before its threads stop.
void CtlShut(EalInstance &e);

// The current body bound of frames.
uint32_t FrameMax();

}  // namespace qovhost

#endif
