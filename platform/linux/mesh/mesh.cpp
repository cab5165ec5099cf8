// Mesh epoll wrappers.
//
// The real platform's epoll sets carry a registration record (mask,
// callback, argument, descriptor) per descriptor and hand the record back
// when the descriptor is ready. Ours sits on Linux epoll: the platform keeps
// a copy of every record (per epoll fd and fd) and registers the fd with a
// registration number as its epoll data; MESH_EpollWait looks the number up
// and returns a copy of the record with the ready mask. A record deleted
// while another thread waits is simply not found, so nothing freed is ever
// read. MESH_EpollWait marks the caller as waiting in "MESH_EpollWait" for
// the task registry. Every call passes failure injection (-1, and
// MESH_GetErrorNo then returns the injected code).
#include <sys/epoll.h>

#include <cerrno>
#include <chrono>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "core/internal.hpp"
#include "mesh.h"
#include "platform/control.h"
#include "platform/fail_point.hpp"

namespace {

struct Registration {
    uint64_t number = 0;
    MESH_EPOLL_EVENT_S record{};
};

struct EpollSet {
    std::map<uint32_t, Registration> byFd;
};

struct Mesh {
    std::mutex mu;
    std::map<int32_t, EpollSet> sets;
    uint64_t nextNumber = 1;
};

Mesh &TheMesh()
{
    return platform::internal::Leaky<Mesh>();
}

thread_local int32_t t_lastError = 0;

int32_t Fail(int err)
{
    t_lastError = err;
    return -1;
}

}  // namespace

extern "C" {

int32_t MESH_EpollCreate(void)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        t_lastError = static_cast<int32_t>(*failed);
        return -1;
    }
    const int fd = epoll_create1(EPOLL_CLOEXEC);
    if (fd < 0) {
        return Fail(errno);
    }
    // A closed epoll fd's number may come back: forget what it had.
    Mesh &mesh = TheMesh();
    std::lock_guard lock(mesh.mu);
    mesh.sets[fd] = EpollSet{};
    return fd;
}

int32_t MESH_EpollCtl(int32_t epfd, int32_t op, uint32_t fd, const MESH_EPOLL_EVENT_S *reg)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        t_lastError = static_cast<int32_t>(*failed);
        return -1;
    }
    if (op != MESH_EPOLL_CTL_DEL && reg == nullptr) {
        return Fail(EINVAL);
    }
    const int fdArg = static_cast<int>(fd);
    Mesh &mesh = TheMesh();
    std::lock_guard lock(mesh.mu);
    EpollSet &set = mesh.sets[epfd];
    epoll_event ev{};
    switch (op) {
        case MESH_EPOLL_CTL_ADD: {
            const uint64_t number = mesh.nextNumber++;
            ev.events = reg->events;
            ev.data.u64 = number;
            if (epoll_ctl(epfd, EPOLL_CTL_ADD, fdArg, &ev) != 0) {
                return Fail(errno);
            }
            set.byFd[fd] = Registration{number, *reg};
            return 0;
        }
        case MESH_EPOLL_CTL_MOD: {
            const auto it = set.byFd.find(fd);
            if (it == set.byFd.end()) {
                return Fail(ENOENT);
            }
            ev.events = reg->events;
            ev.data.u64 = it->second.number;
            if (epoll_ctl(epfd, EPOLL_CTL_MOD, fdArg, &ev) != 0) {
                return Fail(errno);
            }
            it->second.record = *reg;
            return 0;
        }
        case MESH_EPOLL_CTL_DEL: {
            if (epoll_ctl(epfd, EPOLL_CTL_DEL, fdArg, &ev) != 0) {
                const int err = errno;
                set.byFd.erase(fd);
                return Fail(err);
            }
            set.byFd.erase(fd);
            return 0;
        }
        default:
            return Fail(EINVAL);
    }
}

int32_t MESH_EpollWait(int32_t epfd, MESH_EPOLL_EVENT_S *events, int32_t maxEvents, int32_t timeoutMs)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        t_lastError = static_cast<int32_t>(*failed);
        return -1;
    }
    if (events == nullptr || maxEvents <= 0) {
        return Fail(EINVAL);
    }
    PLAT_TaskMarkWaiting("MESH_EpollWait");
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs < 0 ? 0 : timeoutMs);
    std::vector<epoll_event> ready(static_cast<size_t>(maxEvents));
    for (;;) {
        int waitMs = timeoutMs;
        if (timeoutMs > 0) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
            waitMs = left > 0 ? static_cast<int>(left) : 0;
        }
        const int n = epoll_wait(epfd, ready.data(), maxEvents, waitMs);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return Fail(errno);
        }
        if (n == 0) {
            return 0;
        }
        int32_t count = 0;
        {
            Mesh &mesh = TheMesh();
            std::lock_guard lock(mesh.mu);
            const auto setIt = mesh.sets.find(epfd);
            for (int i = 0; i < n && setIt != mesh.sets.end(); i++) {
                const epoll_event &ev = ready[static_cast<size_t>(i)];
                // Registrations are few per set; a linear look-up by number.
                for (const auto &[fd, registration] : setIt->second.byFd) {
                    if (registration.number == ev.data.u64) {
                        events[count] = registration.record;
                        events[count].events = ev.events;
                        count++;
                        break;
                    }
                }
            }
        }
        if (count > 0 || timeoutMs == 0) {
            return count;
        }
        // Only registrations deleted meanwhile were ready: wait on.
        if (timeoutMs > 0 && Clock::now() >= deadline) {
            return 0;
        }
    }
}

int32_t MESH_GetErrorNo(void)
{
    if (platform::FailPoint(__func__)) {
        return -1;
    }
    return t_lastError;
}

}  // extern "C"
