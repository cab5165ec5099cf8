// The forwarding plane of the software switch (libfplane.so): ports of the
// world model carry Ethernet frames; frames are classified into VLANs,
// source MACs are learnt, PPPoE discovery frames are punted to the agent
// over "channel/dpx2ppplus" while the forwarding manager has the feature on,
// and what the agent writes to "channel/ppplus2dpx" leaves through the port
// its head names. Everything else is switched within its VLAN.
//
// Port model (a view of platform::world kept between frames and rebuilt at
// the first frame after any change of the world's tables, so on-board
// changes and VLAN edits apply from the next frame on):
//  - Physical ports carry frames. A trunk's own interface (lagId set) is
//    reached through its on-board members: the member with the lowest
//    ifIndex sends. A member port takes its VLAN mode, PVID and membership
//    from its trunk's interface.
//  - Access port: an untagged frame enters in the PVID; a tagged frame only
//    with VID == PVID (anything else is dropped); frames leave untagged.
//  - Trunk port: tagged frames of member VLANs enter, untagged frames are
//    dropped; frames leave tagged, as they are.
//  - A priority-tagged frame (VID 0) classifies as an untagged one and keeps
//    its priority.
//  - Inside the plane every frame carries its VLAN as the outer tag; this is
//    also the form the agent receives.
//  - Tags are 0x8100, 0x9100 and 0x88a8. The agent reads an outer 0x8100 or
//    0x9100 tag and one inner 0x8100 tag: while the feature is on, a
//    discovery frame behind any other tag stack is dropped and counted on
//    its port, never switched past the agent.
//
// Discovery frames bound for the agent are policed first: a token bucket
// per port and one for the whole switch (platform::PuntPolicing, from the
// topology, changeable while frames flow); a frame over either rate is
// dropped before the agent and counted on its port as policed. A flooding
// port spends its own bucket, never the other ports' share of the global
// one.
//
// The plane also keeps a table of subscribers from the discovery frames
// going to and coming from the agent (Subscribers(), subscribers.hpp).
//
// Frames reach the world through a PortBackend: in memory (tests) or pcap
// files (the host's replay and capture).
#pragma once

#include <pcap/pcap.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "platform/world.hpp"

namespace device::fplane {

inline constexpr const char *kPuntChannel = "channel/dpx2ppplus";
inline constexpr const char *kSendChannel = "channel/ppplus2dpx";
inline constexpr uint32_t kPuntMsgType = 0;
inline constexpr uint32_t kSendMsgType = 133;
inline constexpr uint32_t kNoPort = 0xFFFFFFFFU;

// The head in front of every frame exchanged with the agent; three 32-bit
// words in host byte order.
struct DpxPktHead {
    uint32_t msgType = 0;
    uint32_t egrIfindex = kNoPort;
    uint32_t igrIfindex = 0;
};
static_assert(sizeof(DpxPktHead) == 12);

using Frame = std::vector<uint8_t>;
using Mac = std::array<uint8_t, 6>;

struct PortCounters {
    uint64_t rx = 0;       // frames that entered the port
    uint64_t tx = 0;       // frames that left it
    uint64_t punted = 0;   // entered and went to the agent
    uint64_t dropped = 0;  // entered and went nowhere, or could not leave through it
    uint64_t policed = 0;  // discovery frames that entered over the punt rate, dropped before the agent
};

// PPPoE discovery codes.
inline constexpr uint8_t kCodePadi = 0x09;
inline constexpr uint8_t kCodePado = 0x07;
inline constexpr uint8_t kCodePadr = 0x19;
inline constexpr uint8_t kCodePads = 0x65;
inline constexpr uint8_t kCodePadt = 0xA7;
// "PADI", ... for a discovery code, "0x%02x" for any other.
std::string DiscoveryCodeName(uint8_t code);

// A subscriber as discovery showed it (see subscribers.hpp).
struct Subscriber {
    Mac mac{};                          // the client
    uint32_t ifIndex = kNoPort;         // the port its PADI and PADR entered
    uint16_t vlan = 0;                  // outer VLAN
    uint16_t innerVlan = 0;             // inner VLAN; 0: none
    std::optional<Mac> acMac;           // the concentrator that answered, then the one chosen
    std::optional<uint16_t> sessionId;  // from the PADS
    std::string circuitId;              // sub-options of the Vendor-Specific tag sent towards the
    std::string remoteId;               // concentrator, as bytes (empty: none)
    uint8_t lastCode = 0;               // code of the last discovery frame of the client
    std::chrono::system_clock::time_point started;    // its discovery began (the first PADI or PADR)
    std::chrono::system_clock::time_point lastSeen;
};

struct SubscriberTableStats {
    size_t entries = 0;
    size_t capacity = 0;
    uint64_t evictions = 0;    // entries that made room for a new client
    uint64_t agedOut = 0;      // entries idle for idleSeconds
    uint32_t idleSeconds = 0;
};

// A Circuit ID or Remote ID for display: as it is when every byte is
// printable ASCII, else "0x" and its bytes in hex.
std::string PrintableId(const std::string &raw);

// The MAC table holds at most this many (VLAN, MAC) entries, like a
// switch's hardware table; when a MAC finds no room, the entry near it that
// was seen longest ago gives way.
inline constexpr size_t kMacTableSlots = size_t{1} << 16;

struct MacEntry {
    uint16_t vlan = 0;
    Mac mac{};
    uint32_t ifIndex = kNoPort;   // the physical port the MAC was seen on
};

// Where frames leave the plane. Transmit is called from every thread that
// calls Receive and from the plane's transmit thread, so implementations
// lock (or are otherwise safe from several threads).
class PortBackend {
public:
    virtual ~PortBackend() = default;
    virtual void Transmit(uint32_t ifIndex, std::span<const uint8_t> frame) = 0;
};

// While a TransmitBatch lives on a thread, a backend that must tell the
// kernel to send (live ports) may leave frames that thread queued waiting
// until the batch flushes (Flush, or its end): a thread handing over many
// frames then costs one system call per port and batch, and wakes no
// port's thread. Backends that send at once ignore it. The thread that
// made a batch flushes it before it waits for anything. A batch made while
// another lives on the thread leaves the flushes to the outer one.
class TransmitBatch {
public:
    using FlushFn = void (*)(void *arg);

    TransmitBatch();
    ~TransmitBatch();
    TransmitBatch(const TransmitBatch &) = delete;
    TransmitBatch &operator=(const TransmitBatch &) = delete;

    // Runs every flush owed, in the order first owed.
    void Flush();

    // The calling thread's outermost batch, or null.
    static TransmitBatch *Current();
    // Owes fn(arg) at the next flush (once however often it is owed); false
    // when the batch has no room left: the caller sends at once.
    bool Defer(FlushFn fn, void *arg);

private:
    static constexpr size_t kMaxOwed = 16;
    struct Owed {
        FlushFn fn = nullptr;
        void *arg = nullptr;
    };
    std::array<Owed, kMaxOwed> owed_{};
    size_t count_ = 0;
    bool outermost_ = false;
};

// The interface name of an ifIndex ("" when unknown). A port a user names
// is found with platform::world::IfResolve.
std::string PortName(uint32_t ifIndex);

class Fdb;
class PortView;
class PortBlock;
class PuntBucket;
class SubscriberTable;
struct PortEntry;
enum class Counter : size_t;

// The punt policing in force: the global bucket, the per-port default and
// the ports with a bucket of their own.
using platform::PuntPolicing;
using platform::PuntRate;

class ForwardingPlane {
public:
    // Starts the transmit thread, which serves "channel/ppplus2dpx" until
    // the plane is destroyed.
    explicit ForwardingPlane(PortBackend &backend, const platform::PlaneSettings &settings = {});
    ~ForwardingPlane();
    ForwardingPlane(const ForwardingPlane &) = delete;
    ForwardingPlane &operator=(const ForwardingPlane &) = delete;

    // A frame enters port ifIndex. Any number of threads may call it at once
    // (one per port, say); it takes no lock unless the world changed since
    // the calling thread's previous frame, and allocates nothing for frames
    // of up to kInlineFrame bytes.
    void Receive(uint32_t ifIndex, std::span<const uint8_t> frame);

    PortCounters Counters(uint32_t ifIndex) const;
    // The ports that counted anything.
    std::map<uint32_t, PortCounters> AllCounters() const;
    std::vector<MacEntry> MacTable() const;
    // The learnt port of mac in vlan.
    std::optional<uint32_t> Lookup(uint16_t vlan, const Mac &mac) const;

    // Punt policing, changed while frames flow (from the next frame on).
    PuntPolicing Policing() const;
    void SetGlobalPolicing(const PuntRate &rate);
    // The bucket of every port without one of its own.
    void SetDefaultPolicing(const PuntRate &rate);
    // A port's own bucket; nullopt: the port follows the default again.
    void SetPortPolicing(uint32_t ifIndex, const std::optional<PuntRate> &rate);

    std::vector<Subscriber> Subscribers() const;
    SubscriberTableStats SubscriberStats() const;

    // Waits until both channels are empty and neither the plane nor the
    // transmit thread has handled a frame for quiet; false when that did not
    // happen within timeout.
    bool WaitIdle(std::chrono::milliseconds quiet, std::chrono::milliseconds timeout) const;

    // Frames up to this size are handled in buffers on the stack.
    static constexpr size_t kInlineFrame = 2048;

private:
    struct Ingress;
    class Outgoing;
    class FrameScope;
    struct Activity;

    // The decisions on a frame, in the order they are taken.
    bool Classify(const PortEntry *port, std::span<const uint8_t> frame, Ingress &in) const;
    std::optional<uint32_t> Learn(const Ingress &in);
    void Punt(Ingress &in, std::optional<uint32_t> learnt);
    void Switch(const PortView &view, const Ingress &in, std::optional<uint32_t> learnt);
    bool Admit(const PortEntry &port, uint64_t now);
    bool Egress(const PortView &view, uint32_t ifIndex, const PortEntry *entry, Outgoing &out);
    void SendFromAgent(const PortView &view, std::span<const uint8_t> message, size_t taken, uint64_t now);
    void TransmitLoop();

    // The current view, rebuilt when it is older than generation. Takes viewMu_.
    std::shared_ptr<const PortView> Published(uint64_t generation);
    // The block (counters, punt bucket) of ifIndex, created on first use. Takes countersMu_.
    PortBlock *Block(uint32_t ifIndex);
    void Count(const PortView &view, uint32_t ifIndex, Counter counter);

    PortBackend &backend_;
    const uint64_t id_;                      // tells this plane's views, cached per thread, from another plane's
    std::unique_ptr<Fdb> fdb_;
    std::unique_ptr<Activity> activity_;     // frames in hand and handled, for WaitIdle
    std::mutex viewMu_;                      // guards view_
    std::shared_ptr<const PortView> view_;
    mutable std::mutex countersMu_;          // guards blocks_ and policing_ (never taken for a port of the view)
    std::map<uint32_t, std::unique_ptr<PortBlock>> blocks_;
    PuntPolicing policing_;
    std::unique_ptr<PuntBucket> globalBucket_;
    std::unique_ptr<SubscriberTable> subscribers_;
    std::atomic<bool> stop_{false};
    std::thread transmitter_;
};

// ---- The plane's state as YANG data (yang/quendal-forwarding-plane.yang) ----
inline constexpr const char *kStateNamespace = "urn:quendal:yang:quendal-forwarding-plane";
inline constexpr const char *kStatePath = "/quendal-forwarding-plane:forwarding-plane";
// The subscriber table, the punt policing and the ports that counted
// anything, as XML rooted at the module's top container.
std::string StateXml(const ForwardingPlane &plane);
// "00:e0:fc:12:34:56".
std::string MacText(const Mac &mac);

// ---- In-memory ports (tests) ----
class MemoryPorts : public PortBackend {
public:
    void Transmit(uint32_t ifIndex, std::span<const uint8_t> frame) override;
    // The oldest frame that left port ifIndex, waiting up to timeout.
    std::optional<Frame> Take(uint32_t ifIndex, std::chrono::milliseconds timeout);
    // Frames that left port ifIndex and were not taken yet.
    size_t Pending(uint32_t ifIndex) const;

private:
    mutable std::mutex mu_;
    std::condition_variable cv_;
    std::map<uint32_t, std::deque<Frame>> out_;
};

// ---- pcap files ----

// One frame read from a file bound to a port.
struct ReplayFrame {
    uint32_t ifIndex = kNoPort;
    timeval ts{};
    Frame bytes;
};

// Reads several pcap files (DLT_EN10MB), each bound to a port, and hands
// their frames on merged in timestamp order; frames of equal time keep the
// order of the files as added, then their order in the file.
class PcapReplay {
public:
    // Reads the whole file; false and a message naming the file in *error
    // when it cannot be read or is not Ethernet.
    bool Add(uint32_t ifIndex, const std::string &path, std::string *error);
    size_t Size() const { return frames_.size(); }
    // The merged frames, in the order Run delivers them.
    std::vector<ReplayFrame> Merged() const;
    // Calls deliver with each frame in merged order.
    void Run(const std::function<void(const ReplayFrame &)> &deliver) const;

private:
    struct Entry {
        ReplayFrame frame;
        size_t file = 0;
        size_t index = 0;
    };
    std::vector<Entry> frames_;
    size_t files_ = 0;
};

// Writes what leaves ports into pcap files (DLT_EN10MB): a file bound to a
// port, and, with a capture folder, "<port-name>.pcap" for every other port
// that transmits anything (opened at its first frame).
class PcapCapture : public PortBackend {
public:
    PcapCapture() = default;
    ~PcapCapture() override;
    PcapCapture(const PcapCapture &) = delete;
    PcapCapture &operator=(const PcapCapture &) = delete;

    // Opens path for port ifIndex now; false and a message in *error when it
    // cannot be created.
    bool Bind(uint32_t ifIndex, const std::string &path, std::string *error);
    // Captures every port without a bound file into folder (which must exist).
    bool SetFolder(const std::string &folder, std::string *error);
    void Transmit(uint32_t ifIndex, std::span<const uint8_t> frame) override;
    // Flushes and closes every file; later frames are not written.
    void Close();
    // Files written so far, per port, and the frames written to each.
    std::map<uint32_t, std::pair<std::string, uint64_t>> Files() const;
    // Errors met while opening a folder file at a port's first frame.
    std::vector<std::string> Errors() const;

private:
    struct Sink {
        std::string path;
        pcap_t *dead = nullptr;
        pcap_dumper_t *dumper = nullptr;
        uint64_t frames = 0;
    };
    bool Open(uint32_t ifIndex, const std::string &path, std::string *error);

    mutable std::mutex mu_;
    std::map<uint32_t, Sink> sinks_;
    std::string folder_;
    std::vector<std::string> errors_;
    bool closed_ = false;
};

}  // namespace device::fplane
