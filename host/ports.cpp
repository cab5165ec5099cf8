// The host's ports: live ports on Linux netdevs, pcap inputs replayed into
// the forwarding plane and pcap captures of what leaves the other ports.
#include "ports.hpp"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "device/fwm.hpp"
#include "platform/control.h"
#include "platform/world.hpp"
#include "wick.h"

namespace host {
namespace {

using namespace std::chrono_literals;

// PORT=FILE, PORT a name or an ifIndex.
bool SplitBinding(const std::string &binding, const char *option, uint32_t *ifIndex, std::string *path,
                  std::string *error)
{
    const size_t eq = binding.find('=');
    if (eq == std::string::npos || eq == 0 || eq + 1 == binding.size()) {
        *error = std::string(option) + " " + binding + ": expected PORT=FILE.pcap";
        return false;
    }
    const std::string port = binding.substr(0, eq);
    const auto resolved = platform::world::IfResolve(port);
    if (!resolved) {
        *error = std::string(option) + " " + binding + ": unknown port " + port;
        return false;
    }
    *ifIndex = resolved->ifIndex;
    *path = binding.substr(eq + 1);
    return true;
}

}  // namespace

void AddPortOptions(CLI::App &app, PortOptions &opts)
{
    app.add_option("--in", opts.inputs, "Replay FILE.pcap into PORT (PORT=FILE.pcap, PORT a name or ifIndex)");
    app.add_option("--out", opts.outputs, "Capture what leaves PORT into FILE.pcap (PORT=FILE.pcap)");
    app.add_option("--capture-dir", opts.captureDir, "Capture every other port that sends into DIR/<port-name>.pcap");
    app.add_option("--netdev", opts.netdevs,
                   "Bind PORT to the Linux interface NETDEV (PORT=NETDEV, PORT a name or ifIndex; "
                   "beside the topology's netdev keys)");
    AddReplayOptions(app, opts.pace);
}

void MakePathsAbsolute(PortOptions &opts)
{
    const auto absolute = [](const std::string &path) {
        std::error_code ec;
        return path.empty() ? path : std::filesystem::absolute(path, ec).string();
    };
    for (auto *list : {&opts.inputs, &opts.outputs}) {
        for (std::string &binding : *list) {
            const size_t eq = binding.find('=');
            if (eq != std::string::npos && eq + 1 < binding.size()) {
                binding = binding.substr(0, eq + 1) + absolute(binding.substr(eq + 1));
            }
        }
    }
    opts.captureDir = absolute(opts.captureDir);
}

// What leaves the plane: through a live port when it is bound to a netdev,
// into the captures otherwise.
class HostPorts::Backends : public device::fplane::PortBackend {
public:
    Backends(device::fplane::LivePorts &live, device::fplane::PcapCapture &capture) : live_(live), capture_(capture) {}
    void Transmit(uint32_t ifIndex, std::span<const uint8_t> frame) override
    {
        if (live_.Owns(ifIndex)) {
            live_.Transmit(ifIndex, frame);
        } else {
            capture_.Transmit(ifIndex, frame);
        }
    }

private:
    device::fplane::LivePorts &live_;
    device::fplane::PcapCapture &capture_;
};

HostPorts::HostPorts()
    : live_([](const std::string &line) { PLAT_LogWrite(PLAT_LOG_PLATFORM, "[live] %s", line.c_str()); }),
      backends_(std::make_unique<Backends>(live_, capture_))
{
}

HostPorts::~HostPorts()
{
    Close();
}

namespace {

// The topology's bindings with --netdev PORT=NETDEV over them; ports that
// carry frames only (a trunk's own interface has none to carry).
bool Bindings(const std::vector<std::string> &options, const std::map<uint32_t, std::string> &topology,
              std::vector<device::fplane::NetdevBinding> *out, std::string *error)
{
    std::map<uint32_t, std::string> byPort = topology;
    for (const std::string &binding : options) {
        const size_t eq = binding.find('=');
        if (eq == std::string::npos || eq == 0 || eq + 1 == binding.size()) {
            *error = "--netdev " + binding + ": expected PORT=NETDEV";
            return false;
        }
        const auto port = platform::world::IfResolve(binding.substr(0, eq));
        if (!port) {
            *error = "--netdev " + binding + ": unknown port " + binding.substr(0, eq);
            return false;
        }
        byPort[port->ifIndex] = binding.substr(eq + 1);
    }
    for (const auto &[ifIndex, netdev] : byPort) {
        const auto rec = platform::world::IfFind(ifIndex);
        if (rec && rec->lagId != platform::kNoId) {
            *error = "port " + rec->name + " is a trunk's interface and carries no frames of its own: bind netdev " +
                     netdev + " to one of its members";
            return false;
        }
        out->push_back({ifIndex, netdev});
    }
    return true;
}

}  // namespace

bool HostPorts::Open(const PortOptions &opts, const std::map<uint32_t, std::string> &netdevs,
                     const platform::PlaneSettings &plane, std::string *error)
{
    std::vector<device::fplane::NetdevBinding> bindings;
    if (!Bindings(opts.netdevs, netdevs, &bindings, error) || !live_.Open(bindings, error)) {
        return false;
    }
    hasLive_ = !bindings.empty();
    for (const device::fplane::NetdevBinding &b : bindings) {
        (void)platform::world::IfSetOnBoard(b.ifIndex, live_.IsUp(b.ifIndex));
    }
    for (const std::string &binding : opts.inputs) {
        uint32_t ifIndex = 0;
        std::string path;
        if (!SplitBinding(binding, "--in", &ifIndex, &path, error) || !replay_.Add(ifIndex, path, error)) {
            return false;
        }
    }
    hasInputs_ = !opts.inputs.empty();
    for (const std::string &binding : opts.outputs) {
        uint32_t ifIndex = 0;
        std::string path;
        if (!SplitBinding(binding, "--out", &ifIndex, &path, error) || !capture_.Bind(ifIndex, path, error)) {
            return false;
        }
    }
    if (!opts.captureDir.empty() && !capture_.SetFolder(opts.captureDir, error)) {
        return false;
    }
    plane_ = std::make_unique<device::fplane::ForwardingPlane>(*backends_, plane);
    pace_ = opts.pace;
    replayer_ = std::make_unique<Replayer>(*plane_);
    return live_.Start([this](uint32_t ifIndex, std::span<const uint8_t> frame) { plane_->Receive(ifIndex, frame); },
                       [](uint32_t ifIndex, bool up) { (void)platform::world::IfSetOnBoard(ifIndex, up); }, error);
}

ReplayResult HostPorts::Replay()
{
    const std::lock_guard<std::mutex> lock(replayLock_);
    return replayer_->Run(replay_.Merged(), pace_);
}

void HostPorts::StopReplays()
{
    if (replayer_) {
        replayer_->Stop();
    }
}

bool HostPorts::ReplayMore(const std::string &binding, std::string *output)
{
    uint32_t ifIndex = 0;
    std::string path;
    device::fplane::PcapReplay more;
    if (!SplitBinding(binding, "replay", &ifIndex, &path, output) || !more.Add(ifIndex, path, output)) {
        return false;
    }
    // One replay at a time; none once the host stops.
    std::unique_lock<std::mutex> lock(replayLock_, std::defer_lock);
    while (!lock.try_lock() && !replayer_->Stopping()) {
        std::this_thread::sleep_for(10ms);
    }
    if (replayer_->Stopping()) {
        *output = "the switch is stopping";
        return false;
    }
    ReplayPace once = pace_;
    once.loops = 1;
    const ReplayResult result = replayer_->Run(more.Merged(), once);
    if (!result.idle) {
        *output = "the forwarding plane did not become idle after the replay";
        return false;
    }
    *output = result.Describe() + " into " + device::fplane::PortName(ifIndex) + "\n" + Describe();
    return true;
}

std::string HostPorts::Describe() const
{
    std::ostringstream out;
    const auto portName = [](uint32_t ifIndex) {
        const std::string name = device::fplane::PortName(ifIndex);
        return (name.empty() ? "?" : name) + " (" + std::to_string(ifIndex) + ")";
    };
    for (const auto &[ifIndex, c] : plane_->AllCounters()) {
        out << "port " << portName(ifIndex) << ": rx " << c.rx << " tx " << c.tx << " punted " << c.punted
            << " dropped " << c.dropped << " policed " << c.policed << "\n";
    }
    for (const device::fplane::LivePortStats &s : live_.Stats()) {
        out << "port " << portName(s.ifIndex) << " on netdev " << s.netdev << ": " << (s.up ? "up" : "down")
            << ", mtu " << s.mtu << ", rx " << s.rx << " tx " << s.tx << ", too long rx " << s.rxOversize
            << " tx " << s.txOversize << ", not sent " << s.txDropped << ", lost in the receive ring "
            << s.rxRingDrops << "\n";
    }
    std::string text = out.str();
    if (!text.empty()) {
        text.pop_back();
    }
    return text;
}

void HostPorts::PrintSummary() const
{
    PLAT_LogFlush();   // the log lines of the replay before its summary
    std::istringstream lines(Describe());
    for (std::string line; std::getline(lines, line);) {
        std::printf("pppoe-plus-switch: %s\n", line.c_str());
    }
    std::printf("pppoe-plus-switch: fwm: %s\n", device::fwm::Describe(device::fwm::GetState()).c_str());
    for (const auto &[ifIndex, file] : capture_.Files()) {
        std::printf("pppoe-plus-switch: captured %llu frame(s) of port %s into %s\n",
                    static_cast<unsigned long long>(file.second), device::fplane::PortName(ifIndex).c_str(),
                    file.first.c_str());
    }
    for (const std::string &e : capture_.Errors()) {
        std::printf("pppoe-plus-switch: capture error: %s\n", e.c_str());
    }
    std::fflush(stdout);
}

void HostPorts::Close()
{
    // Frames a stopped replay or the live ports left under way are handled
    // first, so that the exit report counts no frame buffer still on its way.
    constexpr auto kDrainLimit = 2s;
    live_.Stop();
    if (replayer_) {
        (void)replayer_->Drain(kDrainLimit);
    }
    plane_.reset();
    capture_.Close();
}

}  // namespace host
