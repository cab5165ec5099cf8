// The host's ports: the forwarding plane with pcap replay and capture
// behind it.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

// CLI11 trips g++'s null-dereference analysis inside its own headers.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnull-dereference"
#include <CLI/CLI.hpp>
#pragma GCC diagnostic pop

#include "device/fplane.hpp"
#include "replay.hpp"

namespace host {

struct PortOptions {
    std::vector<std::string> inputs;    // PORT=FILE.pcap
    std::vector<std::string> outputs;   // PORT=FILE.pcap
    std::string captureDir;
    ReplayPace pace;
};

// --in, --out, --capture-dir and the replay's pace.
void AddPortOptions(CLI::App &app, PortOptions &opts);
// Paths on the command line are relative to where the host was started;
// call before the host changes folder.
void MakePathsAbsolute(PortOptions &opts);

// The forwarding plane and its pcap ports for one run of the host.
class HostPorts {
public:
    // Resolves the ports, reads every input, opens the captures and starts
    // the plane; false and a message when anything is wrong.
    bool Open(const PortOptions &opts, std::string *error);
    bool HasInputs() const { return hasInputs_; }
    // Replays the inputs into their ports at the pace of the options, then
    // waits until the plane and the agent are idle.
    ReplayResult Replay();
    // Replays one more file into a port while the host runs ("PORT=FILE"),
    // once, at the same pace; false with the reason in *output, else the
    // port counters after it.
    bool ReplayMore(const std::string &binding, std::string *output);
    // Ends the running replay and refuses later ones (the host is stopping).
    void StopReplays();
    // Per-port counters and the files written.
    void PrintSummary() const;
    // Lets the plane and the agent finish the frames under way (up to a
    // second), stops the plane and closes the captures.
    void Close();

private:
    std::mutex replayLock_;
    ReplayPace pace_;
    std::unique_ptr<Replayer> replayer_;
    device::fplane::PcapReplay replay_;
    device::fplane::PcapCapture capture_;
    std::unique_ptr<device::fplane::ForwardingPlane> plane_;
    bool hasInputs_ = false;
};

}  // namespace host
