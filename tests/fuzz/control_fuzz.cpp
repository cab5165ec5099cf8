// libFuzzer target: arbitrary bytes sent to the host's control socket, in
// arbitrary pieces, then the client's half-close, through the real server
// (event loop, line reader, command threads) and its commands against a
// small switch. A finding is a sanitizer report or a broken invariant
// (trap): every connection that sent anything gets one reply, "ok" or
// "error: ...", ending in a newline, and is closed.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "../support/fd_text.hpp"
#include "control.hpp"
#include "control_server.hpp"
#include "device/world.hpp"
#include "fuzz_support.hpp"
#include "platform/world.hpp"

using pplus_fuzz::Require;

namespace {

using namespace std::chrono_literals;

std::string g_path;
platform::Topology g_topology;
host::ControlServer *g_server = nullptr;

constexpr const char *kTopology = R"(system: {name: FuzzSwitch, mac: "00:e0:fc:12:34:56"}
interfaces:
  - {name: GigabitEthernet0/0/1, ifindex: 5, pvid: 100}
  - {name: XGigabitEthernet0/0/1, ifindex: 49, mode: trunk, vlans: ["100-102"]}
trunks:
  - {name: Eth-Trunk1, id: 1, ifindex: 100, members: [GigabitEthernet0/0/1]}
)";

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    std::string error;
    auto topology = device::world::LoadTopologyText(kTopology, &error);
    Require(topology.has_value());
    g_topology = *topology;
    g_path = "/tmp/pplus-control-fuzz-" + std::to_string(getpid()) + ".sock";
    const host::ControlServerLimits limits{.readTimeout = 2000ms};
    g_server = new host::ControlServer();  // serves for the life of the process
    Require(g_server->Start(g_path, {}, &error, {}, limits));
    std::atexit([] { ::unlink(g_path.c_str()); });  // libFuzzer ends runs with exit()
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    platform::world::ApplyTopology(g_topology);
    // The first byte cuts the rest into pieces of 1 to 256 bytes.
    const size_t piece = static_cast<size_t>(data[0]) + 1;
    const int fd = pplus_test::ConnectUnix(g_path);
    Require(fd >= 0);
    for (size_t at = 1; at < size; at += piece) {
        const size_t n = std::min(piece, size - at);
        if (send(fd, data + at, n, MSG_NOSIGNAL) != static_cast<ssize_t>(n)) {
            break;  // the server answered early (a line too long) and closed
        }
    }
    shutdown(fd, SHUT_WR);
    std::string reply;
    for (;;) {
        // A reply that never comes is a hang, which libFuzzer's -timeout
        // reports; its timer interrupts the wait now and then.
        pollfd p = {fd, POLLIN, 0};
        int ready = 0;
        while ((ready = poll(&p, 1, -1)) < 0 && errno == EINTR) {
        }
        Require(ready == 1);
        char buf[4096];
        const ssize_t n = read(fd, buf, sizeof(buf));
        if (n <= 0) {
            break;
        }
        reply.append(buf, static_cast<size_t>(n));
    }
    close(fd);
    if (size == 1) {
        Require(reply.empty());  // nothing sent, nothing answered
        return 0;
    }
    Require(!reply.empty() && reply.back() == '\n');
    Require(reply.rfind("ok\n", 0) == 0 || reply.rfind("error: ", 0) == 0);
    return 0;
}
