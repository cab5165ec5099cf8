// The forwarding plane: what the switch's hardware does for the agent.
// A real switch classifies each frame into a VLAN, learns its source MAC,
// traps PPPoE discovery frames to the CPU when the agent's ACLs are
// installed and switches the rest; frames the agent sends back leave through
// the port it names. Ours does the same in software over the world model and
// the fast-path channels of libwick. Tests see it through per-port counters,
// the MAC table and whatever port backend they give it; failure injection
// on WICK_ChannelPut makes a punt fail (the frame is counted as dropped).
#include <algorithm>
#include <cstring>
#include <future>

#include "platform/control.h"
#include "device/fplane.hpp"
#include "device/fwm.hpp"
#include "platform/world.hpp"
#include "wick.h"

namespace device::fplane {

namespace world = platform::world;
using platform::IfRecord;
using platform::kNoId;
using platform::PortVlanRecord;
using platform::TrunkPortRecord;

namespace {

constexpr size_t kMacHeader = 12;            // destination and source MAC
constexpr size_t kTagLen = 4;
constexpr uint16_t kTpidDot1q = 0x8100;
constexpr uint16_t kEtherPppoeDiscovery = 0x8863;
constexpr const char *kTransmitThread = "thread/dpx";  // the thread the agent's sends name
constexpr uint32_t kSendDepth = 1024;
constexpr uint32_t kTakeWaitMs = 50;         // bounds how long stopping the transmit thread takes
constexpr uint32_t kMaxMessage = 65536 + sizeof(DpxPktHead);

uint16_t U16(std::span<const uint8_t> b, size_t off)
{
    return static_cast<uint16_t>(b[off] << 8 | b[off + 1]);
}

bool IsOuterTpid(uint16_t tpid)
{
    return tpid == 0x8100 || tpid == 0x9100 || tpid == 0x88a8;
}

bool IsGroupMac(std::span<const uint8_t> mac)
{
    return (mac[0] & 0x01U) != 0;
}

Mac MacAt(std::span<const uint8_t> frame, size_t off)
{
    Mac m{};
    std::copy_n(frame.begin() + static_cast<std::ptrdiff_t>(off), m.size(), m.begin());
    return m;
}

}  // namespace

// The ports of the world as the plane sees them for one frame.
struct ForwardingPlane::PortView {
    std::vector<IfRecord> ifs;
    std::vector<PortVlanRecord> vlans;
    std::map<uint32_t, uint32_t> memberToTrunk;   // member ifIndex -> trunk ifIndex

    static PortView Now()
    {
        PortView v;
        v.ifs = world::IfRecords();
        v.vlans = world::PortVlanRecords();
        for (const TrunkPortRecord &tp : world::TrunkPortRecords()) {
            v.memberToTrunk[tp.memberIfIndex] = tp.trunkIfIndex;
        }
        return v;
    }

    const IfRecord *Find(uint32_t ifIndex) const
    {
        for (const IfRecord &r : ifs) {
            if (r.ifIndex == ifIndex) {
                return &r;
            }
        }
        return nullptr;
    }

    static bool IsTrunkInterface(const IfRecord &r) { return r.lagId != kNoId; }

    // The interface whose VLAN settings apply to a physical port: its trunk's
    // when it is a member.
    uint32_t Logical(uint32_t ifIndex) const
    {
        const auto it = memberToTrunk.find(ifIndex);
        return it == memberToTrunk.end() ? ifIndex : it->second;
    }

    bool Member(const IfRecord &logical, uint16_t vlan) const
    {
        if (!logical.trunkMode) {
            return logical.pvid == vlan;
        }
        for (const PortVlanRecord &pv : vlans) {
            if (pv.ifIndex == logical.ifIndex) {
                return pv.Has(vlan);
            }
        }
        return false;
    }

    // The physical port that sends for ifIndex: itself when it is an
    // on-board port, the on-board member with the lowest ifIndex for a
    // trunk's interface; nullopt when nothing can send.
    std::optional<uint32_t> Sender(uint32_t ifIndex) const
    {
        const IfRecord *r = Find(ifIndex);
        if (r == nullptr) {
            return std::nullopt;
        }
        if (!IsTrunkInterface(*r)) {
            return r->onBoard ? std::optional<uint32_t>(ifIndex) : std::nullopt;
        }
        std::optional<uint32_t> best;
        for (const auto &[member, trunk] : memberToTrunk) {
            const IfRecord *m = Find(member);
            if (trunk == ifIndex && m != nullptr && m->onBoard && (!best || member < *best)) {
                best = member;
            }
        }
        return best;
    }
};

std::string PortName(uint32_t ifIndex)
{
    const auto rec = world::IfFind(ifIndex);
    return rec ? rec->name : "";
}

ForwardingPlane::ForwardingPlane(PortBackend &backend) : backend_(backend)
{
    // The plane owns the channel the agent sends on, as the switch's
    // forwarding plane does: it exists before the constructor returns, so
    // the agent's first send finds it.
    std::promise<void> created;
    std::future<void> ready = created.get_future();
    transmitter_ = std::thread([this, &created]() {
        if (FPC_ThreadInfoRegByName(kTransmitThread) != 0 ||
            FPC_ChannelCreate(kSendChannel, kSendDepth) == FPC_INVALID_ID) {
            PLAT_LogWrite(PLAT_LOG_PLATFORM, "[fplane] cannot create %s", kSendChannel);
        }
        created.set_value();
        TransmitLoop();
    });
    ready.wait();
}

ForwardingPlane::~ForwardingPlane()
{
    stop_.store(true);
    transmitter_.join();
}

void ForwardingPlane::Count(uint32_t ifIndex, uint64_t PortCounters::*field)
{
    std::lock_guard lock(mu_);
    counters_[ifIndex].*field += 1;
}

void ForwardingPlane::Receive(uint32_t ifIndex, std::span<const uint8_t> frame)
{
    busy_.fetch_add(1);
    activity_.fetch_add(1);
    struct Done {
        std::atomic<uint32_t> &busy;
        ~Done() { busy.fetch_sub(1); }
    } done{busy_};

    Count(ifIndex, &PortCounters::rx);
    const PortView view = PortView::Now();
    const IfRecord *port = view.Find(ifIndex);
    const IfRecord *logical = port == nullptr ? nullptr : view.Find(view.Logical(ifIndex));
    if (port == nullptr || logical == nullptr || PortView::IsTrunkInterface(*port) || !port->onBoard ||
        frame.size() < kMacHeader + 2) {
        Count(ifIndex, &PortCounters::dropped);
        return;
    }

    // Classify: the VLAN of the frame and its internal, tagged form.
    Frame tagged;
    uint16_t vlan = 0;
    const uint16_t tpid = U16(frame, kMacHeader);
    if (IsOuterTpid(tpid)) {
        if (frame.size() < kMacHeader + kTagLen + 2) {
            Count(ifIndex, &PortCounters::dropped);
            return;
        }
        vlan = U16(frame, kMacHeader + 2) & 0x0FFFU;
        const bool accepted = logical->trunkMode ? view.Member(*logical, vlan) : vlan == logical->pvid;
        if (!accepted) {
            Count(ifIndex, &PortCounters::dropped);
            return;
        }
        tagged.assign(frame.begin(), frame.end());
    } else {
        if (logical->trunkMode) {
            Count(ifIndex, &PortCounters::dropped);
            return;
        }
        vlan = logical->pvid;
        tagged.reserve(frame.size() + kTagLen);
        tagged.assign(frame.begin(), frame.begin() + kMacHeader);
        tagged.push_back(static_cast<uint8_t>(kTpidDot1q >> 8));
        tagged.push_back(static_cast<uint8_t>(kTpidDot1q & 0xFFU));
        tagged.push_back(static_cast<uint8_t>(vlan >> 8));
        tagged.push_back(static_cast<uint8_t>(vlan & 0xFFU));
        tagged.insert(tagged.end(), frame.begin() + kMacHeader, frame.end());
    }

    // Learn the source.
    const std::span<const uint8_t> bytes(tagged);
    const Mac dst = MacAt(bytes, 0);
    const Mac src = MacAt(bytes, 6);
    std::optional<uint32_t> learnt;
    {
        std::lock_guard lock(mu_);
        if (!IsGroupMac(src)) {
            macs_[{vlan, src}] = ifIndex;
        }
        if (!IsGroupMac(dst)) {
            const auto it = macs_.find({vlan, dst});
            if (it != macs_.end()) {
                learnt = it->second;
            }
        }
    }

    // Ether type behind the outer tag and an optional inner tag.
    size_t typeOff = kMacHeader + kTagLen;
    if (tagged.size() >= typeOff + kTagLen + 2 && U16(bytes, typeOff) == kTpidDot1q) {
        typeOff += kTagLen;
    }
    const bool discovery = tagged.size() >= typeOff + 2 && U16(bytes, typeOff) == kEtherPppoeDiscovery;
    if (discovery && fwm::FeatureEnabled()) {
        DpxPktHead head;
        head.msgType = kPuntMsgType;
        head.egrIfindex = learnt.value_or(kNoPort);
        head.igrIfindex = ifIndex;
        Frame message(sizeof(head));
        std::memcpy(message.data(), &head, sizeof(head));
        message.insert(message.end(), tagged.begin(), tagged.end());
        if (WICK_ChannelPut(kPuntChannel, message.data(), static_cast<uint32_t>(message.size())) != 0) {
            Count(ifIndex, &PortCounters::dropped);
            return;
        }
        Count(ifIndex, &PortCounters::punted);
        return;
    }

    // Switch within the VLAN.
    const uint32_t ingressLogical = view.Logical(ifIndex);
    if (learnt) {
        if (view.Logical(*learnt) == ingressLogical) {
            Count(ifIndex, &PortCounters::dropped);   // the destination sits behind the ingress port
            return;
        }
        Egress(*learnt, tagged, view);
        return;
    }
    for (const IfRecord &r : view.ifs) {
        if (r.ifIndex == ingressLogical || view.memberToTrunk.contains(r.ifIndex) || !view.Member(r, vlan)) {
            continue;
        }
        if (r.onBoard || PortView::IsTrunkInterface(r)) {
            Egress(r.ifIndex, tagged, view);
        }
    }
}

// Sends a frame out of ifIndex (a port or a trunk's interface): untagged
// out of an access port, as it is out of a trunk port.
void ForwardingPlane::Egress(uint32_t ifIndex, const Frame &frame, const PortView &view)
{
    const std::optional<uint32_t> sender = view.Sender(ifIndex);
    const IfRecord *logical = sender ? view.Find(view.Logical(*sender)) : nullptr;
    if (!sender || logical == nullptr) {
        Count(ifIndex, &PortCounters::dropped);
        return;
    }
    // Counted before the port has it, so whoever takes the frame sees the count.
    Count(*sender, &PortCounters::tx);
    const std::span<const uint8_t> bytes(frame);
    if (!logical->trunkMode && frame.size() >= kMacHeader + kTagLen + 2 && IsOuterTpid(U16(bytes, kMacHeader))) {
        Frame untagged(frame.begin(), frame.begin() + kMacHeader);
        untagged.insert(untagged.end(), frame.begin() + kMacHeader + kTagLen, frame.end());
        backend_.Transmit(*sender, untagged);
    } else {
        backend_.Transmit(*sender, bytes);
    }
}

void ForwardingPlane::TransmitLoop()
{
    std::vector<uint8_t> buf(kMaxMessage);
    while (!stop_.load()) {
        uint32_t len = 0;
        if (WICK_ChannelTake(kSendChannel, buf.data(), static_cast<uint32_t>(buf.size()), &len, kTakeWaitMs) != 0) {
            continue;
        }
        busy_.fetch_add(1);
        activity_.fetch_add(1);
        DpxPktHead head;
        if (len >= sizeof(head) && len <= buf.size()) {
            std::memcpy(&head, buf.data(), sizeof(head));
        }
        if (len < sizeof(head) + kMacHeader + 2 || len > buf.size() || head.msgType != kSendMsgType) {
            // Not a frame the agent could have meant: counted against its
            // named port when there is one.
            Count(len >= sizeof(head) ? head.egrIfindex : kNoPort, &PortCounters::dropped);
        } else {
            const Frame frame(buf.begin() + sizeof(head), buf.begin() + len);
            Egress(head.egrIfindex, frame, PortView::Now());
        }
        activity_.fetch_add(1);
        busy_.fetch_sub(1);
    }
}

PortCounters ForwardingPlane::Counters(uint32_t ifIndex) const
{
    std::lock_guard lock(mu_);
    const auto it = counters_.find(ifIndex);
    return it == counters_.end() ? PortCounters{} : it->second;
}

std::map<uint32_t, PortCounters> ForwardingPlane::AllCounters() const
{
    std::lock_guard lock(mu_);
    return counters_;
}

std::vector<MacEntry> ForwardingPlane::MacTable() const
{
    std::lock_guard lock(mu_);
    std::vector<MacEntry> out;
    out.reserve(macs_.size());
    for (const auto &[key, ifIndex] : macs_) {
        out.push_back(MacEntry{key.first, key.second, ifIndex});
    }
    return out;
}

std::optional<uint32_t> ForwardingPlane::Lookup(uint16_t vlan, const Mac &mac) const
{
    std::lock_guard lock(mu_);
    const auto it = macs_.find({vlan, mac});
    return it == macs_.end() ? std::nullopt : std::optional<uint32_t>(it->second);
}

bool ForwardingPlane::WaitIdle(std::chrono::milliseconds quiet, std::chrono::milliseconds timeout) const
{
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + timeout;
    uint64_t seen = activity_.load();
    auto quietSince = Clock::now();
    while (Clock::now() < deadline) {
        const uint64_t now = activity_.load();
        const bool empty = busy_.load() == 0 && WICK_ChannelDepth(kPuntChannel) == 0 &&
                           WICK_ChannelDepth(kSendChannel) == 0;
        if (now != seen || !empty) {
            seen = now;
            quietSince = Clock::now();
        } else if (Clock::now() - quietSince >= quiet) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return false;
}

}  // namespace device::fplane
