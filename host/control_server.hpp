// The server side of the host's control socket: one event loop serves
// every client at once. A client sends one command line and gets the
// command's reply, then the connection closes. Commands run on threads of
// their own, so a long one (a replay) never holds up the others; a client
// that does not send its line within the read timeout gets an error and is
// closed; past the connection cap the oldest client still sending its line
// is closed with a message to make room (when every client has a command
// running, the newcomer is refused with one instead).
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

#include "control.hpp"
#include "device/sockets.hpp"

namespace host {

struct ControlServerLimits {
    size_t maxConnections = 64;
    std::chrono::milliseconds readTimeout{5000};   // to receive the command line
    std::chrono::milliseconds writeTimeout{5000};  // to hand over the reply
    size_t maxLine = 4096;
};

// Serves the control socket on a thread of its own.
class ControlServer {
public:
    ControlServer();
    ~ControlServer();
    ControlServer(const ControlServer &) = delete;
    ControlServer &operator=(const ControlServer &) = delete;

    // Listens at path (a stale socket file there is replaced; one a live
    // host serves is not), with the access of `access`; false with *error
    // when the socket cannot be set up.
    bool Start(const std::string &path, const ControlHooks &hooks, std::string *error,
               const device::sockets::SocketAccess &access = {}, const ControlServerLimits &limits = {});
    // Stops serving, waits for running commands, removes the socket file.
    void Stop();

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace host
