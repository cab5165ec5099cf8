// The host's ports: the forwarding plane with live ports (Linux netdevs)
// and pcap replay and capture behind it.
#pragma once

#include <map>
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
#include "device/live.hpp"
#include "platform/world.hpp"
#include "replay.hpp"

namespace host {

struct PortOptions {
    std::vector<std::string> inputs;    // PORT=FILE.pcap
    std::vector<std::string> outputs;   // PORT=FILE.pcap
    std::string captureDir;
    std::vector<std::string> netdevs;   // PORT=NETDEV
    ReplayPace pace;
};

// --in, --out, --capture-dir, --netdev and the replay's pace.
void AddPortOptions(CLI::App &app, PortOptions &opts);
// Paths on the command line are relative to where the host was started;
// call before the host changes folder.
void MakePathsAbsolute(PortOptions &opts);

// The forwarding plane and its ports for one run of the host: ports bound
// to netdevs are live, the others send into the pcap captures.
class HostPorts {
public:
    HostPorts();
    ~HostPorts();
    HostPorts(const HostPorts &) = delete;
    HostPorts &operator=(const HostPorts &) = delete;

    // Resolves the ports, binds the live ones (the topology's netdevs, then
    // --netdev), reads every input, opens the captures and starts the plane;
    // false and a message when anything is wrong. A live port is on board
    // in the world while its netdev is up, from here on.
    bool Open(const PortOptions &opts, const std::map<uint32_t, std::string> &netdevs,
              const platform::PlaneSettings &plane, std::string *error);
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
    // Per-port counters of the plane and of the live ports, one line each.
    std::string Describe() const;
    bool HasLivePorts() const { return hasLive_; }
    // The plane, from Open until Close; null outside.
    device::fplane::ForwardingPlane *Plane() { return plane_.get(); }
    // Lets the plane and the agent finish the frames under way (up to two
    // seconds), stops the plane and closes the captures.
    void Close();

private:
    std::mutex replayLock_;
    ReplayPace pace_;
    std::unique_ptr<Replayer> replayer_;
    device::fplane::PcapReplay replay_;
    device::fplane::PcapCapture capture_;
    device::fplane::LivePorts live_;
    class Backends;
    std::unique_ptr<Backends> backends_;
    std::unique_ptr<device::fplane::ForwardingPlane> plane_;
    bool hasInputs_ = false;
    bool hasLive_ = false;
};

}  // namespace host
