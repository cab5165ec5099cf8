// vlan-demux: splits a VLAN trunk into one untagged netdev per VLAN, in user
// space, for machines whose kernel has no 802.1Q sub-interfaces. A frame that
// enters the trunk with outer VLAN id VID leaves through VID's netdev with
// that tag removed; an untagged frame entering VID's netdev leaves through
// the trunk tagged 802.1Q VID. Anything else is dropped and counted. The lab
// puts an access concentrator behind a trunk port of the switch this way.
//
//   vlan-demux --trunk NETDEV --vlan VID=NETDEV [--vlan VID=NETDEV]...
//
// Runs until SIGINT or SIGTERM, then prints what it forwarded and dropped.
#include <csignal>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>

// CLI11 trips g++'s null-dereference analysis inside its own headers.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnull-dereference"
#include <CLI/CLI.hpp>
#pragma GCC diagnostic pop

#include "device/live.hpp"

namespace {

using device::fplane::kEthHeaderLen;
using device::fplane::kVlanTagLen;

constexpr uint32_t kTrunkPort = 0x10000;   // port numbers: VIDs for the VLAN netdevs, this for the trunk
constexpr size_t kMacsLen = 12;
constexpr uint16_t kTpidDot1q = 0x8100;
constexpr uint16_t kTpidDot1ad = 0x88a8;
constexpr uint16_t kVidMask = 0x0FFF;
constexpr size_t kMaxFrame = 65536;

uint16_t U16(std::span<const uint8_t> b, size_t off)
{
    return static_cast<uint16_t>(b[off] << 8 | b[off + 1]);
}

struct Counters {
    std::atomic<uint64_t> down{0};      // trunk -> VLAN netdev
    std::atomic<uint64_t> up{0};        // VLAN netdev -> trunk
    std::atomic<uint64_t> dropped{0};   // untagged or unknown VLAN on the trunk, tagged on a VLAN netdev
};

}  // namespace

int main(int argc, char **argv)
{
    std::string trunk;
    std::vector<std::string> vlanArgs;
    CLI::App app{"Splits a VLAN trunk netdev into untagged netdevs, one per VLAN"};
    app.add_option("--trunk", trunk, "The trunk netdev (frames tagged)")->required();
    app.add_option("--vlan", vlanArgs, "VID=NETDEV: the untagged netdev of VLAN VID (repeatable)")->required();
    CLI11_PARSE(app, argc, argv);

    std::vector<device::fplane::NetdevBinding> bindings{{kTrunkPort, trunk}};
    for (const std::string &arg : vlanArgs) {
        const size_t eq = arg.find('=');
        unsigned long vid = 0;
        try {
            vid = eq == std::string::npos ? 0 : std::stoul(arg.substr(0, eq));
        } catch (const std::exception &) {
            vid = 0;
        }
        if (vid < 1 || vid > 4094 || eq + 1 >= arg.size()) {
            std::fprintf(stderr, "vlan-demux: --vlan %s: expected VID=NETDEV with VID from 1 to 4094\n", arg.c_str());
            return 1;
        }
        bindings.push_back({static_cast<uint32_t>(vid), arg.substr(eq + 1)});
    }

    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    device::fplane::LivePorts ports([](const std::string &line) {
        std::printf("vlan-demux: %s\n", line.c_str());
        std::fflush(stdout);
    });
    std::string error;
    if (!ports.Open(bindings, &error)) {
        std::fprintf(stderr, "vlan-demux: %s\n", error.c_str());
        return 1;
    }
    Counters counters;
    // Each port's frames arrive on that port's thread: one buffer per thread.
    const auto forward = [&ports, &counters](uint32_t from, std::span<const uint8_t> frame) {
        thread_local std::vector<uint8_t> out(kMaxFrame + kVlanTagLen);
        if (frame.size() < kEthHeaderLen || frame.size() > kMaxFrame) {
            counters.dropped++;
            return;
        }
        const uint16_t type = U16(frame, kMacsLen);
        const bool tagged = type == kTpidDot1q || type == kTpidDot1ad;
        if (from == kTrunkPort) {
            const uint32_t vid = tagged && frame.size() >= kEthHeaderLen + kVlanTagLen
                                     ? U16(frame, kMacsLen + 2) & kVidMask
                                     : 0;
            if (vid == 0 || !ports.Owns(vid)) {
                counters.dropped++;
                return;
            }
            std::memcpy(out.data(), frame.data(), kMacsLen);
            std::memcpy(out.data() + kMacsLen, frame.data() + kMacsLen + kVlanTagLen,
                        frame.size() - kMacsLen - kVlanTagLen);
            ports.Transmit(vid, std::span<const uint8_t>(out.data(), frame.size() - kVlanTagLen));
            counters.down++;
            return;
        }
        if (tagged) {
            counters.dropped++;
            return;
        }
        std::memcpy(out.data(), frame.data(), kMacsLen);
        out[kMacsLen] = static_cast<uint8_t>(kTpidDot1q >> 8);
        out[kMacsLen + 1] = static_cast<uint8_t>(kTpidDot1q & 0xFFU);
        out[kMacsLen + 2] = static_cast<uint8_t>(from >> 8);
        out[kMacsLen + 3] = static_cast<uint8_t>(from & 0xFFU);
        std::memcpy(out.data() + kMacsLen + kVlanTagLen, frame.data() + kMacsLen, frame.size() - kMacsLen);
        ports.Transmit(kTrunkPort, std::span<const uint8_t>(out.data(), frame.size() + kVlanTagLen));
        counters.up++;
    };
    if (!ports.Start(forward, {}, &error)) {
        std::fprintf(stderr, "vlan-demux: %s\n", error.c_str());
        return 1;
    }
    std::printf("vlan-demux: trunk %s split into %zu VLAN(s)\n", trunk.c_str(), bindings.size() - 1);
    std::fflush(stdout);
    int sig = 0;
    sigwait(&stopSignals, &sig);
    ports.Stop();
    std::printf("vlan-demux: %llu frame(s) trunk to VLANs, %llu VLANs to trunk, %llu dropped\n",
                static_cast<unsigned long long>(counters.down.load()),
                static_cast<unsigned long long>(counters.up.load()),
                static_cast<unsigned long long>(counters.dropped.load()));
    for (const auto &s : ports.Stats()) {
        if (s.txOversize + s.txDropped + s.rxOversize + s.rxRingDrops != 0) {
            std::printf("vlan-demux: netdev %s: %llu too long to send, %llu not sent, %llu too long received, "
                        "%llu lost in the ring\n",
                        s.netdev.c_str(), static_cast<unsigned long long>(s.txOversize),
                        static_cast<unsigned long long>(s.txDropped), static_cast<unsigned long long>(s.rxOversize),
                        static_cast<unsigned long long>(s.rxRingDrops));
        }
    }
    return 0;
}
