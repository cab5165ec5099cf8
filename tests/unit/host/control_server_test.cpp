// The host's control socket under clients that misbehave: held-open
// connections, half-sent lines, a long command; a second server on a live
// socket.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <vector>

#include "control.hpp"
#include "control_server.hpp"
#include "fd_text.hpp"
#include "pplus_test.hpp"

namespace {

using namespace std::chrono_literals;

std::string SocketPath(const char *name)
{
    return "/tmp/pplus-ctl-" + std::to_string(getpid()) + "-" + name + ".sock";
}

// A request through the client the CLI uses, and how long it took.
std::string Request(const std::string &path, const std::string &line, std::chrono::milliseconds *took = nullptr)
{
    const auto start = std::chrono::steady_clock::now();
    std::string reply;
    std::string error;
    const bool ok = host::ControlRequest(path, line, &reply, &error);
    if (took != nullptr) {
        *took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    }
    return ok ? reply : "unreachable: " + error;
}

}  // namespace

TEST(ControlServer, ServesAWellBehavedClientWhileOthersHoldConnectionsSendHalfALineOrRunALongCommand)
{
    const std::string path = SocketPath("busy");
    const host::ControlServerLimits limits{.maxConnections = 8, .readTimeout = 1500ms};
    std::atomic<bool> release{false};
    host::ControlHooks hooks;
    hooks.replay = [&release](const std::string &, std::string *output) {
        pplus_test::WaitFor([&release]() { return release.load(); }, 20000);
        *output = "replayed";
        return true;
    };
    host::ControlServer server;
    std::string error;
    ASSERT_TRUE(server.Start(path, hooks, &error, {}, limits)) << error;
    // A live socket is not taken over; an unknown group is refused.
    host::ControlServer second;
    EXPECT_FALSE(second.Start(path, {}, &error));
    EXPECT_EQ(error, "another pppoe-plus-switch is listening on " + path);
    EXPECT_FALSE(second.Start(SocketPath("grp"), {}, &error, {"no-such-group-hd"}));
    EXPECT_EQ(error, "no group named \"no-such-group-hd\"");

    // Twenty idle clients, one of them with half a line.
    std::vector<int> idle;
    for (int i = 0; i < 20; i++) {
        idle.push_back(pplus_test::ConnectUnix(path));
        ASSERT_GE(idle.back(), 0);
    }
    ASSERT_EQ(send(idle.back(), "board li", 8, MSG_NOSIGNAL), 8);
    std::chrono::milliseconds took{};
    EXPECT_EQ(Request(path, "fwm", &took).rfind("ok\n", 0), 0U);
    EXPECT_LT(took, 1000ms);

    // The oldest idle clients made room, each told why; the newest wait on.
    size_t closedWithReason = 0;
    for (size_t i = 0; i <= idle.size() - limits.maxConnections; i++) {
        const std::string said = pplus_test::ReadAll(idle[i], 200ms);
        closedWithReason += said.find("error: too many connections (8 open)") == 0 ? 1 : 0;
    }
    EXPECT_EQ(closedWithReason, idle.size() - limits.maxConnections + 1);
    // Past the read timeout the half-sent line is refused, not run.
    EXPECT_EQ(pplus_test::ReadAll(idle.back(), 5000ms), "error: no command line received within 1.5 s\n");
    for (int fd : idle) {
        close(fd);
    }

    // A line over the limit is refused at once.
    EXPECT_EQ(Request(path, std::string(5000, 'x')), "error: command line longer than 4096 bytes\n");

    // A long command does not hold up the others; stop waits for it.
    const int slow = pplus_test::ConnectUnix(path);
    ASSERT_GE(slow, 0);
    ASSERT_EQ(send(slow, "port replay X=y.pcap\n", 21, MSG_NOSIGNAL), 21);
    EXPECT_EQ(Request(path, "board list", &took).rfind("ok\n", 0), 0U);
    EXPECT_LT(took, 1000ms);
    release = true;
    EXPECT_EQ(pplus_test::ReadAll(slow, 5000ms), "ok\nreplayed\n");
    close(slow);
    server.Stop();
    EXPECT_NE(access(path.c_str(), F_OK), 0);
}
