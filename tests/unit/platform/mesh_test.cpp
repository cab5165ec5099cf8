// Epoll sets whose registrations carry a callback record. That a waiting
// thread is marked as waiting in MESH_EpollWait is what the module's
// session and start-up suites wait for (PLAT_TaskWaitUntilWaiting).
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <tuple>

#include "mesh.h"
#include "platform/control.h"

namespace {

uint32_t Callback(uint32_t, uint32_t, void *)
{
    return 0;
}

MESH_EPOLL_EVENT_S Record(uint32_t fd, void *arg)
{
    MESH_EPOLL_EVENT_S reg = {};
    reg.events = EPOLLIN;
    reg.callback = Callback;
    reg.arg = arg;
    reg.fd = fd;
    return reg;
}

}  // namespace

TEST(MeshEpoll, RecordsRoundTripAndDeleteStopsThem)
{
    const int32_t ep = MESH_EpollCreate();
    ASSERT_GE(ep, 0);
    const int efd = eventfd(0, EFD_NONBLOCK);
    const uint32_t fd = static_cast<uint32_t>(efd);
    int argA = 0;
    int argB = 0;
    MESH_EPOLL_EVENT_S reg = Record(fd, &argA);
    ASSERT_EQ(MESH_EpollCtl(ep, MESH_EPOLL_CTL_ADD, fd, &reg), 0);
    reg.arg = &argB;  // the platform holds its own copy

    MESH_EPOLL_EVENT_S out[4];
    std::memset(out, 0xff, sizeof(out));
    EXPECT_EQ(MESH_EpollWait(ep, out, 4, 0), 0);
    ASSERT_EQ(eventfd_write(efd, 1), 0);
    ASSERT_EQ(MESH_EpollWait(ep, out, 4, 100), 1);
    EXPECT_EQ(std::tie(out[0].callback, out[0].arg, out[0].fd, out[0].events),
              std::make_tuple(&Callback, static_cast<void *>(&argA), fd, uint32_t{EPOLLIN}));
    EXPECT_EQ(out[0].reserved[0] | out[0].reserved[11], 0);

    // Modify: the new record and mask come back.
    reg.events = EPOLLIN | EPOLLOUT;
    ASSERT_EQ(MESH_EpollCtl(ep, MESH_EPOLL_CTL_MOD, fd, &reg), 0);
    ASSERT_EQ(MESH_EpollWait(ep, out, 4, 100), 1);
    EXPECT_EQ(std::tie(out[0].arg, out[0].events),
              std::make_tuple(static_cast<void *>(&argB), uint32_t{EPOLLIN | EPOLLOUT}));

    // Delete: still readable, never reported again.
    ASSERT_EQ(MESH_EpollCtl(ep, MESH_EPOLL_CTL_DEL, fd, nullptr), 0);
    EXPECT_EQ(MESH_EpollWait(ep, out, 4, 10), 0);
    EXPECT_EQ(MESH_EpollCtl(ep, MESH_EPOLL_CTL_DEL, fd, nullptr), -1);
    EXPECT_EQ(MESH_GetErrorNo(), ENOENT);
    EXPECT_EQ(MESH_EpollCtl(ep, MESH_EPOLL_CTL_ADD, fd, nullptr), -1);
    EXPECT_EQ(MESH_GetErrorNo(), EINVAL);
    EXPECT_EQ(MESH_EpollCtl(ep, 7, fd, &reg), -1);
    EXPECT_EQ(MESH_EpollWait(ep, nullptr, 4, 0), -1);
    EXPECT_EQ(MESH_EpollWait(-1, out, 4, 0), -1);
    EXPECT_EQ(MESH_GetErrorNo(), EBADF);

    // A timed wait with nothing ready takes its time and returns 0.
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(MESH_EpollWait(ep, out, 4, 30), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(25));
    close(efd);
    close(ep);
}

TEST(MeshEpoll, RegistrationsChangingUnderAWaiterAreNeverReadAfterRemoval)
{
    const int32_t ep = MESH_EpollCreate();
    ASSERT_GE(ep, 0);
    const int efd = eventfd(1, EFD_NONBLOCK);  // always readable
    const uint32_t fd = static_cast<uint32_t>(efd);
    int arg = 0;
    std::atomic<bool> stop{false};
    std::atomic<uint32_t> seen{0};
    std::thread waiter([&]() {
        MESH_EPOLL_EVENT_S out[2];
        while (!stop) {
            const int32_t n = MESH_EpollWait(ep, out, 2, 5);
            for (int32_t i = 0; i < n; i++) {
                EXPECT_EQ(out[i].arg, &arg);
                EXPECT_EQ(out[i].fd, fd);
                out[i].callback(out[i].fd, out[i].events, out[i].arg);
                seen++;
            }
        }
    });
    for (int i = 0; i < 300; i++) {
        MESH_EPOLL_EVENT_S reg = Record(fd, &arg);
        ASSERT_EQ(MESH_EpollCtl(ep, MESH_EPOLL_CTL_ADD, fd, &reg), 0);
        std::this_thread::yield();
        ASSERT_EQ(MESH_EpollCtl(ep, MESH_EPOLL_CTL_DEL, fd, nullptr), 0);
    }
    stop = true;
    waiter.join();
    EXPECT_EQ(MESH_EpollCtl(ep, MESH_EPOLL_CTL_DEL, fd, nullptr), -1);
    close(efd);
    close(ep);
}
