// Live ports: switch ports bound to Linux network interfaces (netdevs).
//
// Each bound port has one AF_PACKET socket on its netdev with a
// memory-mapped receive ring (TPACKET_V3), a stage of frames to send (one
// sendmmsg sends them all), promiscuous membership, and
// PACKET_IGNORE_OUTGOING so that the switch never reads back what it sent.
// One thread per port serves both: it hands every received frame to the
// receiver (the forwarding plane), and it sends the staged frames whenever
// Transmit has staged some, so frames staged while it is busy leave in one
// batch. A thread that stages inside a TransmitBatch sends them itself when
// the batch flushes, and wakes no port's thread.
//
// Frames are seen as they were on the wire: a VLAN tag that the kernel or the
// NIC moved into the packet's metadata (the auxdata the ring header carries:
// TCI and TPID) is put back in front of the ether type. A frame longer than
// the netdev's MTU allows (MaxFrameLen) is dropped and counted, in both
// directions, never truncated.
//
// Link state comes from netlink (libnl-route-3): a netdev that goes down,
// loses its carrier or disappears takes its port off board; back up, the port
// comes back on board (a netdev that reappears under the same name, with a
// new kernel index, is bound again). A netdev missing at start is a warning
// and its port starts off board.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "device/fplane.hpp"

namespace device::fplane {

inline constexpr size_t kEthHeaderLen = 14;   // destination, source, ether type
inline constexpr size_t kVlanTagLen = 4;

// The longest frame a netdev of this MTU carries: the MTU plus the Ethernet
// header, plus one VLAN tag when the frame is tagged (as the kernel allows).
constexpr size_t MaxFrameLen(uint32_t mtu, bool tagged)
{
    return mtu + kEthHeaderLen + (tagged ? kVlanTagLen : 0);
}

// One netdev as netlink reports it.
struct LinkInfo {
    int kernelIndex = 0;
    std::string name;
    bool up = false;          // administratively up and running (carrier)
    uint32_t mtu = 0;
    bool removed = false;     // the netdev is gone
};

// Follows the network interfaces of this process's network namespace
// through a netlink cache (libnl-route-3). Open reads the current links;
// Start reports every later change on the watcher's own thread.
class LinkWatcher {
public:
    using Handler = std::function<void(const LinkInfo &link)>;

    LinkWatcher();
    ~LinkWatcher();
    LinkWatcher(const LinkWatcher &) = delete;
    LinkWatcher &operator=(const LinkWatcher &) = delete;

    // Connects to the kernel and reads every link; false with *error.
    bool Open(std::string *error);
    // The links as last read (before Start, or on the handler's thread).
    std::vector<LinkInfo> Links() const;
    // Reports each new, changed or removed link to handler until Stop.
    bool Start(Handler handler, std::string *error);
    void Stop();

private:
    struct State;
    std::unique_ptr<State> state_;
};

// The named network namespaces (those of `ip netns`, under /run/netns) other
// than this process's own that hold a netdev of this name; empty when there
// is none or the namespaces cannot be entered.
std::vector<std::string> NamespacesHolding(const std::string &netdev);

// Whether a Linux interface could have this name: 1 to 15 characters, not
// "." or "..", no '/', ':' or blanks.
bool ValidNetdevName(const std::string &name);

// A port of the switch and the netdev it is bound to.
struct NetdevBinding {
    uint32_t ifIndex = kNoPort;
    std::string netdev;
};

// What a live port did, besides what the forwarding plane counts.
struct LivePortStats {
    uint32_t ifIndex = kNoPort;
    std::string netdev;
    bool up = false;             // bound to its netdev, which is up with carrier: the port is on board
    uint32_t mtu = 0;
    uint64_t rx = 0;             // frames received and handed on
    uint64_t tx = 0;             // frames queued to the kernel
    uint64_t rxOversize = 0;     // received frames longer than the MTU allows (or cut short): dropped
    uint64_t txOversize = 0;     // frames to send longer than the MTU allows: dropped
    uint64_t txDropped = 0;      // frames not sent: link down or gone, stage full, kernel refused
    uint64_t rxRingDrops = 0;    // frames the kernel dropped because the receive ring was full
};

// The port backend of ports bound to netdevs.
class LivePorts : public PortBackend {
public:
    // A frame entered port ifIndex (called on that port's thread).
    using Receiver = std::function<void(uint32_t ifIndex, std::span<const uint8_t> frame)>;
    // Port ifIndex came on board (true) or went off board (false).
    using LinkHandler = std::function<void(uint32_t ifIndex, bool up)>;
    // A line worth telling the operator (warnings, link changes).
    using Reporter = std::function<void(const std::string &line)>;

    explicit LivePorts(Reporter report = {});
    ~LivePorts() override;
    LivePorts(const LivePorts &) = delete;
    LivePorts &operator=(const LivePorts &) = delete;

    // Checks the bindings, reads the links and binds a packet socket to each
    // netdev present. Refused with *error: a netdev bound to two ports, a
    // name no Linux interface can have, a netdev that lives in another
    // network namespace, no permission to open packet sockets. A netdev
    // that is simply missing is reported and its port starts off board.
    // Called once: a second call, even after a refusal, is refused too (a
    // refused LivePorts is thrown away, not mended).
    bool Open(const std::vector<NetdevBinding> &bindings, std::string *error);
    // Whether ifIndex is one of the bound ports.
    bool Owns(uint32_t ifIndex) const;
    // Whether the port's netdev is up with carrier (false for unknown ports).
    bool IsUp(uint32_t ifIndex) const;
    // Starts the ports' threads and the link watcher.
    bool Start(Receiver receiver, LinkHandler onLink, std::string *error);
    // Stops every thread and closes the sockets; Transmit drops from then on.
    void Stop();

    // Stages a frame to send on port ifIndex; dropped and counted when it
    // is too long, the link is down or the stage stays full.
    void Transmit(uint32_t ifIndex, std::span<const uint8_t> frame) override;

    std::vector<LivePortStats> Stats() const;

private:
    struct Port;
    void OnLink(const LinkInfo &link);
    Port *Find(uint32_t ifIndex) const;

    Reporter report_;
    std::vector<std::unique_ptr<Port>> ports_;
    LinkWatcher watcher_;
    bool opened_ = false;
    Receiver receiver_;
    LinkHandler onLink_;
};

}  // namespace device::fplane
