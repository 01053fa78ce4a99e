// Registrations of descriptors in epoll sets and their dispatch. A
// registration is found by an id carried in the epoll event, so an event that
// races with a removal finds nothing instead of a stale pointer; removal waits
// for a dispatch of the same registration running on another thread.
#include <sys/epoll.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>

#include "eal_internal.h"
#include "host_internal.h"
#include "qov_host_ctl.h"

namespace qovhost {
namespace {

struct Reg {
    int32_t epFd;
    int32_t fd;
    QOV_EPOLL_CALLBACK cb;
    void *usrData;
    QOV_TIMER_CALLBACK timerCb;  // set for timers, which the set owns
    uint64_t timerArg;
    bool isTimer;
    uint32_t running;            // dispatches in progress
    std::thread::id runner;      // thread of the last dispatch started
};

struct Table {
    std::mutex mu;
    std::condition_variable idle;
    uint64_t nextId = 1;  // 0 marks the stop descriptor of a loop
    std::unordered_map<uint64_t, Reg> byId;
    std::map<std::pair<int32_t, int32_t>, uint64_t> byFd;
};

Table &T() {
    static Table *t = new Table;
    return *t;
}

uint32_t Add(const Reg &reg, uint32_t events) {
    Table &t = T();
    std::lock_guard<std::mutex> lk(t.mu);
    if (reg.epFd < 0 || reg.fd < 0 || t.byFd.count({reg.epFd, reg.fd}) != 0) return 1;
    uint64_t id = t.nextId++;
    epoll_event ev{};
    ev.events = (events & QOV_EPOLL_IN) != 0 ? EPOLLIN : events;
    ev.data.u64 = id;
    if (epoll_ctl(reg.epFd, EPOLL_CTL_ADD, reg.fd, &ev) != 0) return 1;
    t.byId.emplace(id, reg);
    t.byFd.emplace(std::make_pair(reg.epFd, reg.fd), id);
    return 0;
}

// Removes a registration; waits while another thread dispatches it.
void Remove(std::unique_lock<std::mutex> &lk, uint64_t id) {
    Table &t = T();
    auto it = t.byId.find(id);
    if (it == t.byId.end()) return;
    epoll_ctl(it->second.epFd, EPOLL_CTL_DEL, it->second.fd, nullptr);
    t.byFd.erase({it->second.epFd, it->second.fd});
    t.idle.wait(lk, [&] {
        auto cur = t.byId.find(id);
        return cur == t.byId.end() || cur->second.running == 0 ||
               cur->second.runner == std::this_thread::get_id();
    });
    it = t.byId.find(id);
    if (it == t.byId.end()) return;
    if (it->second.isTimer) close(it->second.fd);
    t.byId.erase(it);
}

// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): the epoll event's data word and events, as epoll reports them
uint32_t Dispatch(uint64_t id, uint32_t events) {
    Table &t = T();
    Reg reg;
    {
        std::lock_guard<std::mutex> lk(t.mu);
        auto it = t.byId.find(id);
        if (it == t.byId.end()) return 0;
        it->second.running++;
        it->second.runner = std::this_thread::get_id();
        reg = it->second;
    }
    if (reg.isTimer) {
        uint64_t expiries = 0;
        if (read(reg.fd, &expiries, sizeof expiries) == static_cast<ssize_t>(sizeof expiries) && reg.timerCb)
            reg.timerCb(reg.timerArg);
    } else {
        reg.cb(reg.fd, events, reg.usrData);
    }
    {
        std::lock_guard<std::mutex> lk(t.mu);
        auto it = t.byId.find(id);
        if (it != t.byId.end()) it->second.running--;
    }
    t.idle.notify_all();
    return 1;
}

}  // namespace

uint32_t EpollAddTimer(int32_t epFd, int32_t timerFd, QOV_TIMER_CALLBACK cb, uint64_t usrData) {
    Reg reg{epFd, timerFd, nullptr, nullptr, cb, usrData, true, 0, {}};
    return Add(reg, QOV_EPOLL_IN);
}

uint32_t EpollAddFd(int32_t epFd, int32_t fd, bool reading, QOV_EPOLL_CALLBACK cb, void *usrData) {
    Reg reg{epFd, fd, cb, usrData, nullptr, 0, false, 0, {}};
    return Add(reg, reading ? QOV_EPOLL_IN : 0);
}

uint32_t EpollSetReading(int32_t epFd, int32_t fd, bool reading) {
    Table &t = T();
    std::lock_guard<std::mutex> lk(t.mu);
    auto it = t.byFd.find({epFd, fd});
    if (it == t.byFd.end()) return 1;
    epoll_event ev{};
    ev.events = reading ? static_cast<uint32_t>(EPOLLIN) : 0u;
    ev.data.u64 = it->second;
    return epoll_ctl(epFd, EPOLL_CTL_MOD, fd, &ev) == 0 ? 0 : 1;
}

uint32_t EpollRemove(int32_t epFd, int32_t fd, bool timerOnly) {
    Table &t = T();
    std::unique_lock<std::mutex> lk(t.mu);
    auto it = t.byFd.find({epFd, fd});
    if (it == t.byFd.end()) return 1;
    if (timerOnly && !t.byId[it->second].isTimer) return 1;
    Remove(lk, it->second);
    return 0;
}

void EpollForgetSet(int32_t epFd) {
    Table &t = T();
    std::unique_lock<std::mutex> lk(t.mu);
    for (;;) {
        auto it = t.byFd.lower_bound({epFd, INT32_MIN});
        if (it == t.byFd.end() || it->first.first != epFd) break;
        Remove(lk, it->second);
    }
}

// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): the platform's epoll call with the loop's stop descriptor
int32_t EpollRunOnce(int32_t epFd, int32_t timeoutMs, int32_t stopFd, bool *stopped) {
    epoll_event evs[64];
    int n = epoll_wait(epFd, evs, 64, timeoutMs);
    if (n < 0) return errno == EINTR ? 0 : -1;
    int32_t ran = 0;
    for (int i = 0; i < n; ++i) {
        if (evs[i].data.u64 == 0) {
            if (stopFd >= 0 && stopped != nullptr) *stopped = true;
            continue;
        }
        ran += static_cast<int32_t>(Dispatch(evs[i].data.u64, evs[i].events));
    }
    return ran;
}

}  // namespace qovhost

extern "C" {

QOV_PLAT_API uint32_t QOV_EPOLL_Add(int32_t epFd, int32_t fd, uint32_t events, QOV_EPOLL_CALLBACK callback,
                                    void *usrData) {
    uint32_t ret = 0;
    const void *cb = reinterpret_cast<const void *>(callback);
    if (qovhost::Enter("QOV_EPOLL_Add",
                       {static_cast<uint64_t>(epFd), static_cast<uint64_t>(fd), events, qovhost::U(cb), qovhost::U(usrData)},
                       &ret)) {
        return ret;
    }
    if (callback == nullptr) return 1;
    qovhost::Reg reg{epFd, fd, callback, usrData, nullptr, 0, false, 0, {}};
    return qovhost::Add(reg, events);
}

QOV_PLAT_API uint32_t QOV_EPOLL_DEL(int32_t epFd, int32_t fd) {
    uint32_t ret = 0;
    if (qovhost::Enter("QOV_EPOLL_DEL", {static_cast<uint64_t>(epFd), static_cast<uint64_t>(fd)}, &ret)) return ret;
    qovhost::Table &t = qovhost::T();
    std::unique_lock<std::mutex> lk(t.mu);
    auto it = t.byFd.find({epFd, fd});
    if (it == t.byFd.end()) return 1;
    qovhost::Remove(lk, it->second);
    return 0;
}

QOV_PLAT_API uint32_t QovHostTimerCancel(int32_t epFd, int32_t timerFd) {
    return qovhost::EpollRemove(epFd, timerFd, true);
}

QOV_PLAT_API int32_t QovHostEpollRunOnce(int32_t epFd, int32_t timeoutMs) {
    return qovhost::EpollRunOnce(epFd, timeoutMs, -1, nullptr);
}

}  // extern "C"
