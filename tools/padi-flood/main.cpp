// padi-flood: a misbehaving subscriber and a meter for it.
//
//   padi-flood send --netdev IF --seconds S [--rate PER_SECOND] [--sources N]
//       sends PADI (broadcast, Service-Name and Host-Uniq tags) out of IF for
//       S seconds, as fast as it can or at the given rate, from N source MACs
//       in turn; prints "sent=<frames> seconds=<s> rate=<frames per second>".
//   padi-flood count --netdev IF --seconds S [--vlan V]
//       counts the PADI that enter IF during S seconds (only those tagged
//       with V when given), and among them those carrying a Vendor-Specific
//       tag; prints "padi=<n> vendor=<n> span=<s> rate=<per second>", the
//       rate taken between the first and the last PADI counted.
#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

// CLI11 trips g++'s null-dereference analysis inside its own headers.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnull-dereference"
#include <CLI/CLI.hpp>
#pragma GCC diagnostic pop

#include "device/live.hpp"
#include "pppoe_frame.hpp"

namespace {

using Clock = std::chrono::steady_clock;

namespace wire = frames::wire;

constexpr size_t kMacsLen = 12;
constexpr size_t kMinFrame = 60;             // shortest Ethernet frame without FCS
constexpr uint8_t kPadi = 0x09;
constexpr uint16_t kTagHostUniq = 0x0103;
constexpr unsigned kBatch = 64;

uint16_t Get16(const uint8_t *p)
{
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

// A PADI from source MAC 02:00:5e:<source>, as rp-pppoe's client sends one:
// an empty Service-Name and a four-byte Host-Uniq.
std::vector<uint8_t> Padi(uint32_t source)
{
    const auto byte = [source](int i) { return static_cast<uint8_t>(source >> (8 * i)); };
    const frames::Mac mac{0x02, 0x00, 0x5e, byte(2), byte(1), byte(0)};
    std::vector<uint8_t> f =
        frames::Frame().padi().src(mac).serviceName().tag(kTagHostUniq, {byte(0), byte(1), byte(2), byte(3)}).bytes();
    f.resize(std::max(f.size(), kMinFrame), 0);
    return f;
}

int Send(const std::string &netdev, double seconds, double rate, uint32_t sources)
{
    const unsigned index = if_nametoindex(netdev.c_str());
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    sockaddr_ll addr = {};
    addr.sll_family = AF_PACKET;
    addr.sll_protocol = htons(ETH_P_ALL);
    addr.sll_ifindex = static_cast<int>(index);
    if (index == 0 || fd < 0 || bind(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof(addr)) != 0) {
        std::fprintf(stderr, "padi-flood: cannot send on %s: %s\n", netdev.c_str(), std::strerror(errno));
        return 1;
    }
    std::vector<std::vector<uint8_t>> frames;
    for (uint32_t s = 0; s < std::max(1U, sources); s++) {
        frames.push_back(Padi(s));
    }
    const unsigned batch = rate > 0 ? std::clamp(static_cast<unsigned>(rate / 1000), 1U, kBatch) : kBatch;
    std::vector<iovec> iov(batch);
    std::vector<mmsghdr> msgs(batch);
    uint64_t sent = 0;
    size_t next = 0;
    const auto start = Clock::now();
    const auto end = start + std::chrono::duration<double>(seconds);
    for (auto now = start; now < end; now = Clock::now()) {
        if (rate > 0) {
            const auto due = start + std::chrono::duration<double>(static_cast<double>(sent) / rate);
            if (due > now) {
                std::this_thread::sleep_until(std::min(due, end));
                continue;
            }
        }
        for (unsigned i = 0; i < batch; i++) {
            std::vector<uint8_t> &f = frames[next];
            next = (next + 1) % frames.size();
            iov[i] = {f.data(), f.size()};
            msgs[i] = {};
            msgs[i].msg_hdr.msg_iov = &iov[i];
            msgs[i].msg_hdr.msg_iovlen = 1;
        }
        const int n = sendmmsg(fd, msgs.data(), batch, 0);
        if (n > 0) {
            sent += static_cast<uint64_t>(n);
        } else if (errno != ENOBUFS && errno != EAGAIN && errno != EINTR) {
            std::fprintf(stderr, "padi-flood: send on %s: %s\n", netdev.c_str(), std::strerror(errno));
            close(fd);
            return 1;
        }
    }
    const double took = std::chrono::duration<double>(Clock::now() - start).count();
    close(fd);
    std::printf("sent=%llu seconds=%.3f rate=%.0f\n", static_cast<unsigned long long>(sent), took,
                static_cast<double>(sent) / took);
    return 0;
}

int Count(const std::string &netdev, double seconds, int vlan)
{
    struct Meter {
        std::atomic<uint64_t> padi{0};
        std::atomic<uint64_t> vendor{0};
        std::atomic<int64_t> firstNs{-1};
        std::atomic<int64_t> lastNs{-1};
    } meter;
    device::fplane::LivePorts port([](const std::string &line) { std::fprintf(stderr, "padi-flood: %s\n", line.c_str()); });
    std::string error;
    if (!port.Open({{1, netdev}}, &error)) {
        std::fprintf(stderr, "padi-flood: %s\n", error.c_str());
        return 1;
    }
    const auto start = Clock::now();
    const auto count = [&meter, vlan, start](uint32_t, std::span<const uint8_t> f) {
        size_t off = kMacsLen;
        int outer = -1;
        while (off + 4 <= f.size() && (Get16(&f[off]) == 0x8100 || Get16(&f[off]) == 0x88a8)) {
            outer = outer < 0 ? (Get16(&f[off + 2]) & 0x0FFF) : outer;
            off += 4;
        }
        if (off + 2 + wire::kPppoeHeadLen > f.size() || Get16(&f[off]) != wire::kEtherTypeDiscovery || f[off + 3] != kPadi ||
            (vlan >= 0 && outer != vlan)) {
            return;
        }
        const size_t tags = off + 2 + wire::kPppoeHeadLen;
        const size_t end = std::min(f.size(), tags + Get16(&f[off + 6]));
        bool vendorTag = false;
        for (size_t t = tags; t + wire::kTagHeadLen <= end; t += wire::kTagHeadLen + Get16(&f[t + 2])) {
            vendorTag = vendorTag || Get16(&f[t]) == wire::kTagVendorSpecific;
        }
        const int64_t ns = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count();
        int64_t unset = -1;
        meter.firstNs.compare_exchange_strong(unset, ns);
        meter.lastNs = ns;
        meter.padi++;
        meter.vendor += vendorTag ? 1 : 0;
    };
    if (!port.Start(count, {}, &error)) {
        std::fprintf(stderr, "padi-flood: %s\n", error.c_str());
        return 1;
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    port.Stop();
    const double span = meter.padi > 1 ? static_cast<double>(meter.lastNs - meter.firstNs) / 1e9 : 0.0;
    std::printf("padi=%llu vendor=%llu span=%.3f rate=%.0f\n", static_cast<unsigned long long>(meter.padi.load()),
                static_cast<unsigned long long>(meter.vendor.load()), span,
                span > 0 ? static_cast<double>(meter.padi - 1) / span : 0.0);
    return 0;
}

}  // namespace

int main(int argc, char **argv)
{
    CLI::App app{"Sends PADI out of a netdev, or counts the PADI arriving on one"};
    app.require_subcommand(1);
    std::string netdev;
    double seconds = 5;
    double rate = 0;
    uint32_t sources = 1;
    int vlan = -1;
    CLI::App *send = app.add_subcommand("send", "Send PADI");
    send->add_option("--netdev", netdev, "Netdev to send out of")->required();
    send->add_option("--seconds", seconds, "How long")->check(CLI::PositiveNumber);
    send->add_option("--rate", rate, "PADI per second (0: as fast as possible)")->check(CLI::NonNegativeNumber);
    send->add_option("--sources", sources, "Source MACs to take turns")->check(CLI::Range(1U, 1U << 24));
    CLI::App *count = app.add_subcommand("count", "Count PADI");
    count->add_option("--netdev", netdev, "Netdev to count on")->required();
    count->add_option("--seconds", seconds, "How long")->check(CLI::PositiveNumber);
    count->add_option("--vlan", vlan, "Count only PADI with this outer VLAN")->check(CLI::Range(0, 4095));
    CLI11_PARSE(app, argc, argv);
    return send->parsed() ? Send(netdev, seconds, rate, sources) : Count(netdev, seconds, vlan);
}
