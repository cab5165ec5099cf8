// The host's ports: pcap inputs replayed into the forwarding plane and pcap
// captures of what leaves it.
#include "ports.hpp"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "device/fwm.hpp"
#include "platform/world.hpp"
#include "wick.h"

namespace host {
namespace {

using namespace std::chrono_literals;

// The agent's receive thread: idle while it waits for frames.
constexpr const char *kAgentRxThread = "thread/dpx2ppplus";

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


bool HostPorts::Open(const PortOptions &opts, std::string *error)
{
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
    plane_ = std::make_unique<device::fplane::ForwardingPlane>(capture_);
    return true;
}

bool HostPorts::Replay()
{
    const std::lock_guard<std::mutex> lock(replayLock_);
    return Run(replay_);
}

bool HostPorts::ReplayMore(const std::string &binding, std::string *output)
{
    uint32_t ifIndex = 0;
    std::string path;
    device::fplane::PcapReplay more;
    if (!SplitBinding(binding, "replay", &ifIndex, &path, output) || !more.Add(ifIndex, path, output)) {
        return false;
    }
    const std::lock_guard<std::mutex> lock(replayLock_);
    if (!Run(more)) {
        *output = "the forwarding plane did not become idle after the replay";
        return false;
    }
    const auto c = plane_->AllCounters();
    std::ostringstream out;
    out << "replayed " << more.Size() << " frame(s) into " << device::fplane::PortName(ifIndex);
    for (const auto &[port, counters] : c) {
        out << "\nport " << device::fplane::PortName(port) << " (" << port << "): rx " << counters.rx << " tx "
            << counters.tx << " punted " << counters.punted << " dropped " << counters.dropped;
    }
    *output = out.str();
    return true;
}

bool HostPorts::Run(const device::fplane::PcapReplay &replay)
{
    // Idle: nothing in the channels, nothing handled for a while, and the
    // agent's receive thread back in its wait.
    const auto settled = [this](std::chrono::milliseconds quiet, std::chrono::milliseconds timeout) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < deadline) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (plane_->WaitIdle(quiet, left) && WICK_ThreadIsWaiting(kAgentRxThread) != 0 &&
                plane_->WaitIdle(quiet, quiet * 4)) {
                return true;
            }
            std::this_thread::sleep_for(5ms);
        }
        return false;
    };
    // Each frame goes in once the previous one has been handled, so that
    // answers follow the requests they answer; once the plane stalls, the
    // rest go in without waiting.
    bool ok = true;
    replay.Run([&](const device::fplane::ReplayFrame &frame) {
        plane_->Receive(frame.ifIndex, frame.bytes);
        ok = ok && settled(20ms, 2s);
    });
    return settled(200ms, ok ? 10s : 2s) && ok;
}

void HostPorts::PrintSummary() const
{
    for (const auto &[ifIndex, c] : plane_->AllCounters()) {
        const std::string name = device::fplane::PortName(ifIndex);
        std::printf("pppoe-plus-switch: port %s (%u): rx %llu tx %llu punted %llu dropped %llu\n",
                    name.empty() ? "?" : name.c_str(), ifIndex, static_cast<unsigned long long>(c.rx),
                    static_cast<unsigned long long>(c.tx), static_cast<unsigned long long>(c.punted),
                    static_cast<unsigned long long>(c.dropped));
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
    plane_.reset();
    capture_.Close();
}

}  // namespace host
