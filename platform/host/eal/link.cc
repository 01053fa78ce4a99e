// Framed TCP links: a channel's connection to its broker and a sync
// group's connection to its peer. Everything but sending and pressing runs
// on the thread of the serving epoll set: connecting (from a one-shot
// timer), accepting, reading, delivering and dropping.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <span>

#include "eal_internal.h"
#include "host_eal.h"
#include "host_internal.h"

namespace qovhost {
namespace {

constexpr uint32_t kBackoffMinMs = 10;
// Read room beyond one whole frame: one read takes up to this much more.
constexpr uint32_t kReadAhead = 64u * 1024u;

void Log(const Link &l, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void Log(const Link &l, const char *fmt, ...) {
    char what[160];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(what, sizeof what, fmt, ap);
    va_end(ap);
    char text[256];
    std::snprintf(text, sizeof text, "%s %s %u: %s", l.eal->name, l.kind == Link::Kind::kChan ? "chan" : "sync group",
                  l.index, what);
    KRT_DiagLogWrite("QOV_EAL", text);
}

void ArmTimer(const Link &l, uint32_t ms) {
    itimerspec t{};
    t.it_value.tv_sec = ms / 1000;
    t.it_value.tv_nsec = ms == 0 ? 1 : static_cast<long>(ms % 1000) * 1000000L;
    timerfd_settime(l.timerFd, 0, &t, nullptr);
}

// Closes the connection; a connector tries again after its back-off, a
// listener waits for the next peer.
void Drop(Link &l) {
    int32_t fd;
    {
        std::lock_guard<std::mutex> lk(l.mu);
        fd = l.fd;
        l.fd = -1;
    }
    if (fd >= 0) {
        EpollRemove(l.epFd, fd, false);
        close(fd);
    }
    l.off = l.have = 0;
    l.state = QOV_HOST_LINK_WAIT;
    if (!l.listener) ArmTimer(l, l.backoffMs);
}

// Hands the sync frame's items to the group's receive function; false when
// the body is not a sequence of at most QOV_HOST_SYNC_ITEMS_MAX {len, bytes}.
bool DeliverSync(EalSyncGrp &g, std::span<uint8_t> body) {
    QovHostSyncItem items[QOV_HOST_SYNC_ITEMS_MAX];
    uint32_t count = 0;
    size_t off = 0;
    while (off < body.size()) {
        if (count == QOV_HOST_SYNC_ITEMS_MAX || body.size() - off < 4) return false;
        uint32_t len = QovHostGetU32(&body[off]);
        off += 4;
        if (body.size() - off < len) return false;
        items[count++] = QovHostSyncItem{len != 0 ? &body[off] : nullptr, len, 0};
        off += len;
    }
    uint32_t ret = 0;
    g.recv.Call(&ret, g.link.index, items, count);
    return true;
}

// Hands one frame, in place, to the receive function of its owner.
bool Deliver(Link &l, uint32_t msgId, std::span<uint8_t> body) {
    ++l.framesIn;
    Link::Bump(l.bytesIn, QOV_HOST_FRAME_HDR_LEN + static_cast<uint64_t>(body.size()));
    RecordFrame(l, msgId, body.data(), static_cast<uint32_t>(body.size()));
    if (l.kind == Link::Kind::kSync) return DeliverSync(l.eal->syncGrp[l.index], body);
    QovHostIpcMsg msg{body.data(), msgId, static_cast<uint32_t>(body.size())};
    uint32_t ret = 0;
    if (!l.eal->chan[l.index].recv.Call(&ret, &msg)) Link::Bump(l.unclaimed, 1);
    else if (ret != 0) ++l.framesRefused;
    return true;
}

// Delivers the complete frames in buf[off, have), in order, until the link is
// pressed: a receive function that presses its own channel gets no further
// frame, read or not, until the release. false when the stream went bad
// (the link is dropped then).
bool DeliverBuffered(Link &l) {
    while (!l.pressed.load(std::memory_order_acquire) && l.have - l.off >= QOV_HOST_FRAME_HDR_LEN) {
        uint8_t *at = l.buf.get() + l.off;
        uint32_t msgId = 0, msgLen = 0;
        int bad = QovHostFrameHdrDecode(at, l.bufMax, &msgId, &msgLen);
        if (bad != 0) {
            ++l.framesBad;
            Link::Bump(bad == 1 ? l.badMagic : l.overBound, 1);
            if (bad == 1) Log(l, "garbage instead of a frame header, reconnecting");
            else Log(l, "frame of %u bytes over the bound %u, reconnecting", QovHostGetU32(at + 8), l.bufMax);
            Drop(l);
            return false;
        }
        if (l.have - l.off - QOV_HOST_FRAME_HDR_LEN < msgLen) break;
        l.off += QOV_HOST_FRAME_HDR_LEN + msgLen;
        if (!Deliver(l, msgId, std::span<uint8_t>(at + QOV_HOST_FRAME_HDR_LEN, msgLen))) {
            ++l.framesBad;
            Log(l, "malformed sync frame of %u bytes, reconnecting", msgLen);
            Drop(l);
            return false;
        }
    }
    if (l.off == l.have) l.off = l.have = 0;
    return true;
}

// One read per turn, as much as the buffer takes, then every complete frame
// it brought: many frames cost one system call, and the loop serves its other
// descriptors between reads.
uint32_t OnReadable(int32_t fd, uint32_t, void *usrData) {
    Link &l = *static_cast<Link *>(usrData);
    if (!DeliverBuffered(l) || l.pressed.load(std::memory_order_acquire)) return 0;
    if (l.bufCap - l.off < QOV_HOST_FRAME_HDR_LEN + l.bufMax) {  // the rest of a frame must fit behind off
        std::memmove(l.buf.get(), l.buf.get() + l.off, l.have - l.off);
        l.have -= l.off;
        l.off = 0;
    }
    ssize_t r = read(fd, l.buf.get() + l.have, l.bufCap - l.have);
    if (r < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) return 0;
    if (r <= 0) {
        Log(l, r == 0 ? "connection closed by the peer" : "connection failed (errno %d)", errno);
        Drop(l);
        return 0;
    }
    l.have += static_cast<uint32_t>(r);
    DeliverBuffered(l);
    return 0;
}

// Takes a connected socket into service.
void Attach(Link &l, int32_t s) {
    // Frames go out whole (QOV_CHAN_USendMsg, sync sends); without this a
    // small frame behind one not yet acknowledged waits for the peer's
    // delayed ACK (Nagle), up to 40 ms on Linux.
    int one = 1;
    setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    uint32_t fm = FrameMax();
    if (l.buf == nullptr || l.bufMax != fm) {
        l.bufCap = QOV_HOST_FRAME_HDR_LEN + fm + kReadAhead;
        l.buf.reset(new uint8_t[l.bufCap]);
        l.bufMax = fm;
    }
    l.off = l.have = 0;
    l.backoffMs = kBackoffMinMs;
    {
        std::lock_guard<std::mutex> lk(l.mu);
        if (EpollAddFd(l.epFd, s, !l.pressed, OnReadable, &l) != 0) {
            close(s);
            Log(l, "cannot serve the connection");
            l.state = QOV_HOST_LINK_WAIT;
            if (!l.listener) ArmTimer(l, l.backoffMs);
            return;
        }
        l.fd = s;
    }
    ++l.connects;
    l.state = QOV_HOST_LINK_UP;
    Log(l, "connected on port %u", l.port);
}

// The link's timer: while connected, a release's wake-up for the frames
// that stayed buffered while pressed (the socket may have nothing new to
// make it readable); otherwise, for a connector, the next try.
void OnLinkTimer(uint64_t arg) {
    // The timer hands its argument back as a u64.
    Link &l = *reinterpret_cast<Link *>(static_cast<uintptr_t>(arg));  // NOLINT(performance-no-int-to-ptr)
    if (l.fd >= 0) {
        DeliverBuffered(l);
        return;
    }
    if (l.listener) return;
    int32_t s = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(l.port);
    a.sin_addr.s_addr = l.addr;
    // Connects on the host's own addresses complete or fail at once; one still
    // in progress is waited for briefly rather than served, to keep one code path.
    int rc = s < 0 ? -1 : connect(s, reinterpret_cast<sockaddr *>(&a), sizeof a);
    if (rc != 0 && s >= 0 && errno == EINPROGRESS) {
        pollfd p{s, POLLOUT, 0};
        int err = 0;
        socklen_t n = sizeof err;
        rc = poll(&p, 1, 100) == 1 && getsockopt(s, SOL_SOCKET, SO_ERROR, &err, &n) == 0 && err == 0 ? 0 : -1;
    }
    if (rc == 0) {
        Attach(l, s);
        return;
    }
    if (s >= 0) close(s);
    if (l.backoffMs == kBackoffMinMs && l.connects == 0) Log(l, "peer not reachable on port %u, retrying", l.port);
    ArmTimer(l, l.backoffMs);
    l.backoffMs = std::min(l.backoffMs * 2, QOV_HOST_BACKOFF_MAX_MS);
}

uint32_t OnAccept(int32_t fd, uint32_t, void *usrData) {
    Link &l = *static_cast<Link *>(usrData);
    int32_t s = accept4(fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (s < 0) return 0;
    if (l.fd >= 0) {
        Log(l, "second peer refused");
        close(s);
        return 0;
    }
    Attach(l, s);
    return 0;
}

}  // namespace

uint32_t FrameMax() { return QovHostFrameMax(); }

void LinkStart(Link &l, int32_t epFd) {
    l.epFd = epFd;
    l.backoffMs = kBackoffMinMs;
    l.state = QOV_HOST_LINK_WAIT;
    l.timerFd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (l.timerFd < 0 || EpollAddTimer(epFd, l.timerFd, OnLinkTimer, U(&l)) != 0) {
        if (l.timerFd >= 0) close(l.timerFd);
        l.timerFd = -1;
        Log(l, "cannot make the link's timer");
        return;
    }
    if (l.listener) {
        if (EpollAddFd(epFd, l.listenFd, true, OnAccept, &l) != 0) Log(l, "cannot serve the listener");
        return;
    }
    ArmTimer(l, 0);
}

void LinkClose(Link &l) {
    std::lock_guard<std::mutex> lk(l.mu);
    if (l.fd >= 0) close(l.fd);
    if (l.listenFd >= 0) close(l.listenFd);
    l.fd = l.listenFd = l.timerFd = -1;  // the timer went with its set
    l.state = QOV_HOST_LINK_IDLE;
}

uint32_t LinkSend(Link &l, const uint8_t *frame, size_t len) {
    std::lock_guard<std::mutex> lk(l.mu);
    if (l.fd < 0) return 1;
    size_t off = 0;
    int waitedMs = 0;
    while (off < len) {
        ssize_t r = send(l.fd, frame + off, len - off, MSG_NOSIGNAL);
        if (r > 0) {
            off += static_cast<size_t>(r);
            continue;
        }
        if (r < 0 && errno == EINTR) continue;
        if (r < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) && waitedMs < static_cast<int>(QOV_HOST_SYNC_SEND_TIMEOUT_MS)) {
            pollfd p{l.fd, POLLOUT, 0};
            poll(&p, 1, 10);
            waitedMs += 10;
            continue;
        }
        // A part of the frame may be out: the stream is unusable, and the
        // serving thread drops the link when it sees the shutdown.
        if (off != 0) shutdown(l.fd, SHUT_RDWR);
        return 1;
    }
    ++l.sent;
    return 0;
}

uint32_t LinkPress(Link &l, bool press) {
    std::lock_guard<std::mutex> lk(l.mu);
    if (!press && !l.pressed) return 1;
    if (l.pressed != press) {
        l.pressed.store(press, std::memory_order_release);
        if (l.fd >= 0) EpollSetReading(l.epFd, l.fd, !press);
        if (!press && l.fd >= 0 && l.timerFd >= 0) ArmTimer(l, 0);  // frames may wait in the buffer
    }
    ++(press ? l.presses : l.releases);
    return 0;
}

}  // namespace qovhost
