// The host's control socket: one-line commands that change the world at run
// time (interfaces on and off board, boards registering and leaving, HA
// events) and show the forwarding manager's and the HA state, so an operator or a test can watch
// the agent react. pppoe-plus-cli is its client.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace host {

// Where the host listens and the tool connects unless told otherwise:
// $XDG_RUNTIME_DIR/pppoe-plus-switch.sock, or under /tmp without it.
std::string DefaultControlPath();

// Sends one command line and reads the whole reply (waiting up to 10 s,
// or as long as a "port replay" takes). The reply's first line is "ok" or
// "error: <why>", further lines are the command's output. False, with
// *error set, when the host cannot be reached.
bool ControlRequest(const std::string &path, const std::string &line, std::string *reply, std::string *error);

// What the control socket asks of the rest of the host.
struct ControlHooks {
    // Replays a pcap file into a port ("PORT=FILE.pcap"); false with the
    // reason in *output.
    std::function<bool(const std::string &binding, std::string *output)> replay;
    // Per-port counters of the forwarding plane and the live ports.
    std::function<std::string()> ports;
    // "police ..." (the words of the line): punt policing shown or changed;
    // false with the reason in *output.
    std::function<bool(const std::vector<std::string> &words, std::string *output)> police;
    // The agent's HA accessors, for "ha show" (null when the module lacks one).
    uint32_t (*haGetRole)() = nullptr;
    uint32_t (*haGetSmbInstId)() = nullptr;
    uint32_t (*haGetMMBInfo)(uint32_t *chassisId, uint32_t *boardId, uint32_t *masterIp) = nullptr;
};

// Runs one command line against the world model and the forwarding
// manager; returns the reply as ControlRequest hands it back.
std::string RunControlCommand(const std::string &line, const ControlHooks &hooks);

}  // namespace host
