// A loopback TCP listener standing in for a broker or a peer, with the
// frame encoder of the host API, for the suites that run over real sockets.
#ifndef QOV_TEST_LOOPBACK_BROKER_H
#define QOV_TEST_LOOPBACK_BROKER_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <thread>
#include <vector>

#include "qov_host_api.h"

namespace qovtest {

// Polls pred every 2 ms for up to ms milliseconds.
template <class P>
bool WaitFor(P pred, int ms = 5000) {
    for (auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
         std::chrono::steady_clock::now() < end; std::this_thread::sleep_for(std::chrono::milliseconds(2)))
        if (pred()) return true;
    return pred();
}

inline uint32_t Loopback() { return htonl(INADDR_LOOPBACK); }

// A loopback listener standing in for the broker; bound at once, listening
// when asked (until then connections are refused).
struct Broker {
    int lfd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int cfd = -1;
    uint16_t port = 0;

    explicit Broker(bool listenNow = true) {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = Loopback();
        socklen_t n = sizeof a;
        EXPECT_EQ(bind(lfd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
        EXPECT_EQ(getsockname(lfd, reinterpret_cast<sockaddr *>(&a), &n), 0);
        port = ntohs(a.sin_port);
        if (listenNow) Listen();
    }
    ~Broker() {
        Drop();
        close(lfd);
    }
    void Listen() { EXPECT_EQ(listen(lfd, 4), 0); }
    void Drop() {
        if (cfd >= 0) close(cfd);
        cfd = -1;
    }
    bool Accept() {
        Drop();
        pollfd p{lfd, POLLIN, 0};
        if (poll(&p, 1, 5000) != 1) return false;
        cfd = accept4(lfd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        return cfd >= 0;
    }
    // Sends copies of a frame without blocking until the socket takes no
    // more (or max bytes went); returns the bytes sent.
    size_t Flood(const std::vector<uint8_t> &f, size_t max) {
        size_t sent = 0;
        while (sent < max) {
            size_t off = sent % f.size();
            ssize_t r = send(cfd, f.data() + off, f.size() - off, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (r <= 0) {
                EXPECT_EQ(errno, EAGAIN);
                break;
            }
            sent += static_cast<size_t>(r);
        }
        return sent;
    }
    void Send(const std::vector<uint8_t> &bytes) {
        size_t off = 0;
        while (off < bytes.size()) {
            ssize_t r = send(cfd, bytes.data() + off, bytes.size() - off, MSG_NOSIGNAL);
            if (r > 0) off += static_cast<size_t>(r);
            else if (errno != EAGAIN && errno != EINTR) return ADD_FAILURE() << "send failed";
            else std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    bool Recv(void *out, size_t n) {
        auto *p = static_cast<uint8_t *>(out);
        for (size_t off = 0; off < n;) {
            pollfd pf{cfd, POLLIN, 0};
            if (poll(&pf, 1, 5000) != 1) return false;
            ssize_t r = recv(cfd, p + off, n - off, 0);
            if (r <= 0) return false;
            off += static_cast<size_t>(r);
        }
        return true;
    }
};

inline std::vector<uint8_t> Frame(uint32_t msgId, uint32_t len, uint8_t fill) {
    std::vector<uint8_t> body(len, fill), out(QOV_HOST_FRAME_HDR_LEN + len);
    EXPECT_EQ(QovHostFrameEncode(out.data(), out.size(), msgId, body.data(), len), out.size());
    return out;
}

}  // namespace qovtest

#endif
