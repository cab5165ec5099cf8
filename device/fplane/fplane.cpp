// The forwarding plane: what the switch's hardware does for the agent.
// A real switch classifies each frame into a VLAN, learns its source MAC,
// traps PPPoE discovery frames to the CPU when the agent's ACLs are
// installed and switches the rest; frames the agent sends back leave through
// the port it names. Ours does the same in software over a view of the world
// model's ports (port_view.hpp) and a lock-free MAC table (fdb.hpp), and the
// fast-path channels of libwick. Frames from several ports are handled at
// once on their receiving threads: each thread keeps the view it last used
// until the world's tables change, and counters are striped per thread, so
// the frame path takes no lock and allocates nothing for frames of the usual
// sizes. Discovery frames bound for the agent pass the punt policers (lock-
// free token buckets, punt_bucket.hpp) and, with what the agent sends back,
// feed the subscriber table (subscribers.hpp: a lock per shard, never one
// for the whole table, and none for a repeat that changes nothing). Tests see it through per-port counters, the MAC
// table, the subscriber table and whatever port backend they give it;
// failure injection on WICK_ChannelPut makes a punt fail (the frame is
// counted as dropped).

#include <algorithm>
#include <cstring>
#include <future>
#include <utility>

#include "device/fplane.hpp"
#include "device/fwm.hpp"
#include "fdb.hpp"
#include "platform/control.h"
#include "platform/world.hpp"
#include "port_view.hpp"
#include "subscribers.hpp"
#include "wick.h"

namespace device::fplane {

namespace world = platform::world;
using platform::IfRecord;

namespace {

// Ethernet framing, as the plane reads it.
constexpr size_t kDstMacOffset = 0;
constexpr size_t kSrcMacOffset = 6;
constexpr size_t kMacHeader = 12;            // destination and source MAC
constexpr size_t kTagLen = 4;                // TPID and TCI
constexpr size_t kTciOffset = 2;             // within a tag
constexpr size_t kTypeLen = 2;
constexpr uint16_t kVidMask = 0x0FFF;
constexpr uint16_t kPriorityVid = 0;         // a priority tag: priority only, no VLAN
constexpr uint16_t kTpidDot1q = 0x8100;
constexpr uint16_t kTpidQinq = 0x9100;
constexpr uint16_t kTpidDot1ad = 0x88a8;
constexpr uint16_t kEtherPppoeDiscovery = 0x8863;

constexpr const char *kTransmitThread = "thread/dpx";  // the thread the agent's sends name
constexpr uint32_t kSendDepth = 1024;
constexpr uint32_t kTakeWaitMs = 50;         // bounds how long stopping the transmit thread takes
constexpr uint32_t kTransmitBatch = 64;      // frames from the agent between two flushes of the ports
constexpr std::chrono::microseconds kTransmitNap{200};   // the longest a frame from the agent waits while frames flow
constexpr uint32_t kMaxMessage = 65536 + sizeof(DpxPktHead);

std::atomic<uint64_t> g_nextPlaneId{1};

uint16_t U16(std::span<const uint8_t> b, size_t off)
{
    return static_cast<uint16_t>(b[off] << 8 | b[off + 1]);
}

void PutU16(std::span<uint8_t> b, size_t off, uint16_t v)
{
    b[off] = static_cast<uint8_t>(v >> 8);
    b[off + 1] = static_cast<uint8_t>(v & 0xFFU);
}

bool IsTagTpid(uint16_t tpid)
{
    return tpid == kTpidDot1q || tpid == kTpidQinq || tpid == kTpidDot1ad;
}

bool IsGroupMac(const Mac &mac)
{
    return (mac[0] & 0x01U) != 0;
}

Mac MacAt(std::span<const uint8_t> frame, size_t off)
{
    Mac m{};
    std::copy_n(frame.begin() + static_cast<std::ptrdiff_t>(off), m.size(), m.begin());
    return m;
}

// Whether the agent reads a tag with this TPID at this place of the stack:
// an outer 802.1Q or 0x9100 tag, and one inner 802.1Q tag.
bool AgentReadsTag(size_t index, uint16_t tpid)
{
    return index == 0 ? tpid == kTpidDot1q || tpid == kTpidQinq : index == 1 && tpid == kTpidDot1q;
}

enum class Discovery { None, ForTheAgent, Unreadable };

// Whether a frame in the internal form is a PPPoE discovery frame, behind
// however many tags, and whether the agent can read its tag stack.
Discovery DiscoveryOf(std::span<const uint8_t> tagged)
{
    size_t off = kMacHeader;
    size_t tags = 0;
    bool readable = true;
    while (off + kTypeLen <= tagged.size() && IsTagTpid(U16(tagged, off))) {
        readable = readable && AgentReadsTag(tags, U16(tagged, off));
        off += kTagLen;
        tags++;
    }
    if (off + kTypeLen > tagged.size() || U16(tagged, off) != kEtherPppoeDiscovery) {
        return Discovery::None;
    }
    return readable ? Discovery::ForTheAgent : Discovery::Unreadable;
}

// The bytes of one frame: on the stack up to kInlineFrame, on the heap
// beyond (jumbo frames only).
class FrameBuf {
public:
    FrameBuf() = default;
    FrameBuf(const FrameBuf &) = delete;
    FrameBuf &operator=(const FrameBuf &) = delete;

    // n bytes, their content undefined.
    std::span<uint8_t> Resize(size_t n)
    {
        size_ = n;
        if (n > inline_.size()) {
            heap_.resize(n);
        }
        return {Data(), n};
    }
    std::span<uint8_t> Bytes() { return {Data(), size_}; }
    std::span<const uint8_t> Bytes() const { return {size_ <= inline_.size() ? inline_.data() : heap_.data(), size_}; }

private:
    uint8_t *Data() { return size_ <= inline_.size() ? inline_.data() : heap_.data(); }

    std::array<uint8_t, ForwardingPlane::kInlineFrame> inline_;
    std::vector<uint8_t> heap_;
    size_t size_ = 0;
};

// The view each thread used for its last frame, and whose: a thread keeps
// using it, touching no shared reference count, while the world's tables
// stay as they were.
struct ThreadView {
    uint64_t plane = 0;
    std::shared_ptr<const PortView> view;
    uint32_t depth = 0;   // frames in hand on this thread, nested when a port backend feeds a plane from Transmit
};
thread_local ThreadView t_view;

thread_local TransmitBatch *t_batch = nullptr;

}  // namespace

TransmitBatch::TransmitBatch() : outermost_(t_batch == nullptr)
{
    if (outermost_) {
        t_batch = this;
    }
}

TransmitBatch::~TransmitBatch()
{
    Flush();
    if (outermost_) {
        t_batch = nullptr;
    }
}

TransmitBatch *TransmitBatch::Current()
{
    return t_batch;
}

bool TransmitBatch::Defer(FlushFn fn, void *arg)
{
    for (size_t i = 0; i < count_; i++) {
        if (owed_[i].fn == fn && owed_[i].arg == arg) {
            return true;
        }
    }
    if (count_ == owed_.size()) {
        return false;
    }
    owed_[count_++] = Owed{fn, arg};
    return true;
}

void TransmitBatch::Flush()
{
    // A flush may transmit, and so owe, again: those wait for the next one.
    const size_t n = std::exchange(count_, 0);
    const std::array<Owed, kMaxOwed> owed = owed_;
    for (size_t i = 0; i < n; i++) {
        owed[i].fn(owed[i].arg);
    }
}

// A frame that entered a port and was accepted there: the port, the VLAN,
// and the frame in the internal form (the VLAN as its outer tag). A frame
// that came tagged is used where it lies; one the plane rewrites is built
// behind room for the agent's head, so that a punt copies nothing more.
struct ForwardingPlane::Ingress {
    const PortEntry *port = nullptr;
    uint16_t vlan = 0;
    std::span<const uint8_t> frame;
    FrameBuf message;
    bool built = false;   // frame lies in message

    // Room for an n-byte frame built by the plane.
    std::span<uint8_t> Build(size_t n)
    {
        const std::span<uint8_t> out = message.Resize(sizeof(DpxPktHead) + n).subspan(sizeof(DpxPktHead));
        frame = out;
        built = true;
        return out;
    }
    // The message for the agent: head, then frame.
    std::span<const uint8_t> WithHead(const DpxPktHead &head)
    {
        if (!built) {
            const std::span<const uint8_t> received = frame;
            std::copy(received.begin(), received.end(), Build(received.size()).begin());
        }
        const std::span<uint8_t> all = message.Bytes();
        std::memcpy(all.data(), &head, sizeof(head));
        return all;
    }
};

// A frame on its way out of the plane (internal form), and its untagged
// form, made at most once however many access ports it leaves through.
class ForwardingPlane::Outgoing {
public:
    explicit Outgoing(std::span<const uint8_t> tagged) : tagged_(tagged) {}

    // What leaves a port: untagged out of an access port, as it is out of a trunk port.
    std::span<const uint8_t> For(const PortEntry &sender)
    {
        const bool tagged = tagged_.size() >= kMacHeader + kTagLen + kTypeLen && IsTagTpid(U16(tagged_, kMacHeader));
        if (sender.trunkMode || !tagged) {
            return tagged_;
        }
        if (!untaggedMade_) {
            const std::span<uint8_t> out = untagged_.Resize(tagged_.size() - kTagLen);
            std::copy_n(tagged_.begin(), kMacHeader, out.begin());
            std::copy(tagged_.begin() + kMacHeader + kTagLen, tagged_.end(), out.begin() + kMacHeader);
            untaggedMade_ = true;
        }
        return untagged_.Bytes();
    }

private:
    std::span<const uint8_t> tagged_;
    FrameBuf untagged_;
    bool untaggedMade_ = false;
};

struct ForwardingPlane::Activity {
    StripedCounters<2> counts;   // frames taken in hand, frames done with
    static constexpr size_t kEntered = 0;
    static constexpr size_t kLeft = 1;
};

// Brackets one frame: WaitIdle sees it in hand, and it gets the view to
// switch by. The thread's cached view is replaced only by its outermost
// frame, so a view stays alive for as long as a frame uses it.
class ForwardingPlane::FrameScope {
public:
    explicit FrameScope(ForwardingPlane &plane) : plane_(plane)
    {
        plane_.activity_->counts.Add(Activity::kEntered);
        ThreadView &t = t_view;
        const uint64_t generation = world::TablesGeneration();
        if (t.plane == plane_.id_ && t.view != nullptr && t.view->Generation() >= generation) {
            view_ = t.view.get();
        } else if (t.depth == 0) {
            t.view = plane_.Published(generation);
            t.plane = plane_.id_;
            view_ = t.view.get();
        } else {
            hold_ = plane_.Published(generation);
            view_ = hold_.get();
        }
        t.depth++;
    }
    ~FrameScope()
    {
        t_view.depth--;
        plane_.activity_->counts.Add(Activity::kLeft);
    }
    FrameScope(const FrameScope &) = delete;
    FrameScope &operator=(const FrameScope &) = delete;

    const PortView &View() const { return *view_; }

private:
    ForwardingPlane &plane_;
    std::shared_ptr<const PortView> hold_;
    const PortView *view_ = nullptr;
};

std::string PortName(uint32_t ifIndex)
{
    const auto rec = world::IfFind(ifIndex);
    return rec ? rec->name : "";
}

ForwardingPlane::ForwardingPlane(PortBackend &backend, const platform::PlaneSettings &settings)
    : backend_(backend),
      id_(g_nextPlaneId.fetch_add(1)),
      fdb_(std::make_unique<Fdb>()),
      activity_(std::make_unique<Activity>()),
      policing_(settings.policing),
      globalBucket_(std::make_unique<PuntBucket>()),
      subscribers_(std::make_unique<SubscriberTable>(settings.subscribers))
{
    globalBucket_->Configure(policing_.global);
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

std::shared_ptr<const PortView> ForwardingPlane::Published(uint64_t generation)
{
    std::lock_guard lock(viewMu_);
    if (view_ == nullptr || view_->Generation() < generation) {
        view_ = PortView::Build(world::GetPortTables(), [this](uint32_t ifIndex) { return Block(ifIndex); });
    }
    return view_;
}

PortBlock *ForwardingPlane::Block(uint32_t ifIndex)
{
    std::lock_guard lock(countersMu_);
    std::unique_ptr<PortBlock> &block = blocks_[ifIndex];
    if (block == nullptr) {
        block = std::make_unique<PortBlock>();
        const auto own = policing_.ports.find(ifIndex);
        block->punt.Configure(own != policing_.ports.end() ? own->second : policing_.port);
    }
    return block.get();
}

// Ports of the view count without a lock; any other ifIndex (an unknown
// port, a bad head from the agent) goes through the locked table.
void ForwardingPlane::Count(const PortView &view, uint32_t ifIndex, Counter counter)
{
    const PortEntry *e = view.Find(ifIndex);
    (e != nullptr ? e->block : Block(ifIndex))->Add(counter);
}

void ForwardingPlane::Receive(uint32_t ifIndex, std::span<const uint8_t> frame)
{
    const FrameScope scope(*this);
    const PortView &view = scope.View();
    const PortEntry *port = view.Find(ifIndex);
    PortBlock &counters = port != nullptr ? *port->block : *Block(ifIndex);
    counters.Add(Counter::Rx);
    Ingress in;
    if (!Classify(port, frame, in)) {
        counters.Add(Counter::Dropped);
        return;
    }
    const std::optional<uint32_t> learnt = Learn(in);
    const Discovery discovery = DiscoveryOf(in.frame);
    if (discovery == Discovery::None || !fwm::FeatureEnabled()) {
        Switch(view, in, learnt);
    } else if (discovery == Discovery::ForTheAgent) {
        Punt(in, learnt);
    } else {
        // Switching it would let it past the agent.
        counters.Add(Counter::Dropped);
    }
}

// Ingress: the port must be a wire on board, and the frame must belong to
// one of its VLANs. An access port takes untagged and priority-tagged
// frames into its PVID and tagged ones of its PVID; a trunk port takes
// tagged frames of its member VLANs. The internal form carries the VLAN as
// the outer tag.
bool ForwardingPlane::Classify(const PortEntry *port, std::span<const uint8_t> frame, Ingress &in) const
{
    if (port == nullptr || !port->wire || !port->logicalKnown || frame.size() < kMacHeader + kTypeLen) {
        return false;
    }
    in.port = port;
    if (IsTagTpid(U16(frame, kMacHeader))) {
        if (frame.size() < kMacHeader + kTagLen + kTypeLen) {
            return false;
        }
        const uint16_t tci = U16(frame, kMacHeader + kTciOffset);
        in.vlan = tci & kVidMask;
        if (in.vlan != kPriorityVid) {
            in.frame = frame;
            return port->Member(in.vlan);
        }
        // A priority tag (802.1p) names no VLAN: the frame classifies as an
        // untagged one and keeps its priority.
        if (port->trunkMode) {
            return false;
        }
        in.vlan = port->pvid;
        const std::span<uint8_t> out = in.Build(frame.size());
        std::copy(frame.begin(), frame.end(), out.begin());
        PutU16(out, kMacHeader + kTciOffset, static_cast<uint16_t>((tci & ~kVidMask) | in.vlan));
        return true;
    }
    if (port->trunkMode) {
        return false;
    }
    in.vlan = port->pvid;
    const std::span<uint8_t> out = in.Build(frame.size() + kTagLen);
    std::copy_n(frame.begin(), kMacHeader, out.begin());
    PutU16(out, kMacHeader, kTpidDot1q);
    PutU16(out, kMacHeader + kTciOffset, in.vlan);
    std::copy(frame.begin() + kMacHeader, frame.end(), out.begin() + kMacHeader + kTagLen);
    return true;
}

// Learns the source in the frame's VLAN; the port the destination was
// learnt on, if it is a single station that was.
std::optional<uint32_t> ForwardingPlane::Learn(const Ingress &in)
{
    const Mac src = MacAt(in.frame, kSrcMacOffset);
    const Mac dst = MacAt(in.frame, kDstMacOffset);
    if (!IsGroupMac(src)) {
        fdb_->Learn(in.vlan, src, in.port->ifIndex);
    }
    return IsGroupMac(dst) ? std::nullopt : fdb_->Lookup(in.vlan, dst);
}

// Hands a discovery frame to the agent, tagged, behind a DpxPktHead that
// names the physical ingress port and the learnt port of the destination.
void ForwardingPlane::Punt(Ingress &in, std::optional<uint32_t> learnt)
{
    // One clock read for the policers and the table, none for neither.
    const bool polices = in.port->block->punt.Limits() || globalBucket_->Limits();
    const uint64_t now = polices || subscribers_->Enabled() ? CoarseMonotonicNs() : 0;
    if (polices && !Admit(*in.port, now)) {
        in.port->block->Add(Counter::Policed);
        return;
    }
    DpxPktHead head;
    head.msgType = kPuntMsgType;
    head.egrIfindex = learnt.value_or(kNoPort);
    head.igrIfindex = in.port->ifIndex;
    const std::span<const uint8_t> message = in.WithHead(head);
    // Into the table before the agent can answer, so that what it sends back
    // for this frame finds the entry.
    subscribers_->Punted(in.port->ifIndex, in.frame, now);
    if (WICK_ChannelPut(kPuntChannel, message.data(), static_cast<uint32_t>(message.size())) != 0) {
        in.port->block->Add(Counter::Dropped);
        return;
    }
    in.port->block->Add(Counter::Punted);
}

// Whether a discovery frame from port may go to the agent at now (ns of
// CoarseMonotonicNs): within the port's rate, then within the switch's.
// The port's bucket is asked first, so a port over its own rate spends
// nothing of the global one; a frame the global bucket refuses is handed
// back to the port's. The coarse clock judges a frame up to a tick (a few
// ms) late, which lets at most rate x tick frames more through than an
// exact clock would.
bool ForwardingPlane::Admit(const PortEntry &port, uint64_t now)
{
    if (!port.block->punt.Take(now)) {
        return false;
    }
    if (!globalBucket_->Take(now)) {
        port.block->punt.GiveBack();
        return false;
    }
    return true;
}

// Switches within the VLAN: to the learnt port unless it sits behind the
// ingress port, else a flood to every other interface of the VLAN (a trunk
// once, through one member).
void ForwardingPlane::Switch(const PortView &view, const Ingress &in, std::optional<uint32_t> learnt)
{
    Outgoing out(in.frame);
    if (learnt) {
        if (view.Logical(*learnt) == in.port->logical) {
            in.port->block->Add(Counter::Dropped);
            return;
        }
        Egress(view, *learnt, view.Find(*learnt), out);
        return;
    }
    for (const PortEntry *e : view.FloodOrder()) {
        if (e->ifIndex != in.port->logical && e->Member(in.vlan)) {
            Egress(view, e->ifIndex, e, out);
        }
    }
}

// Sends a frame out of ifIndex (a port, or a trunk's interface through its
// sending member); counted as dropped on ifIndex when nothing can send it.
bool ForwardingPlane::Egress(const PortView &view, uint32_t ifIndex, const PortEntry *entry, Outgoing &out)
{
    const PortEntry *sender = entry != nullptr ? entry->sender : nullptr;
    if (sender == nullptr) {
        Count(view, ifIndex, Counter::Dropped);
        return false;
    }
    // Counted before the port has it, so whoever takes the frame sees the count.
    sender->block->Add(Counter::Tx);
    backend_.Transmit(sender->ifIndex, out.For(*sender));
    return true;
}

// One message the agent wrote to "channel/ppplus2dpx"; taken is the length
// the channel reported, which may exceed what fitted in message; now is
// CoarseMonotonicNs for the subscriber table.
void ForwardingPlane::SendFromAgent(const PortView &view, std::span<const uint8_t> message, size_t taken,
                                    uint64_t now)
{
    DpxPktHead head;
    if (taken >= sizeof(head) && taken <= message.size()) {
        std::memcpy(&head, message.data(), sizeof(head));
    }
    if (taken < sizeof(head) + kMacHeader + kTypeLen || taken > message.size() || head.msgType != kSendMsgType) {
        // Not a frame the agent could have meant: counted against its
        // named port when there is one.
        Count(view, taken >= sizeof(head) ? head.egrIfindex : kNoPort, Counter::Dropped);
        return;
    }
    const std::span<const uint8_t> frame = message.subspan(sizeof(head), taken - sizeof(head));
    Outgoing out(frame);
    if (Egress(view, head.egrIfindex, view.Find(head.egrIfindex), out)) {
        subscribers_->Sent(head.egrIfindex, frame, now);
    }
}

// Frames the agent sent leave in batches: what the ports queued is sent
// when the channel runs dry, and at least every kTransmitBatch frames.
// While frames flow, a dry channel is looked at again after a nap rather
// than waited on: a waiting thread must be woken by the agent, which would
// pay a system call for every few frames. Only a channel still dry after
// the nap is waited on.
void ForwardingPlane::TransmitLoop()
{
    std::vector<uint8_t> buf(kMaxMessage);
    const auto cap = static_cast<uint32_t>(buf.size());
    TransmitBatch batch;
    uint32_t batched = 0;
    uint64_t now = 0;
    bool flowing = false;
    while (!stop_.load()) {
        uint32_t len = 0;
        if (WICK_ChannelTake(kSendChannel, buf.data(), cap, &len, 0) != 0) {
            batch.Flush();
            batched = 0;
            if (flowing) {
                flowing = false;
                std::this_thread::sleep_for(kTransmitNap);
                continue;
            }
            if (WICK_ChannelTake(kSendChannel, buf.data(), cap, &len, kTakeWaitMs) != 0) {
                continue;
            }
        }
        flowing = true;
        if (batched == 0 && subscribers_->Enabled()) {
            now = CoarseMonotonicNs();   // once a batch: frames of a batch go out within microseconds
        }
        {
            const FrameScope scope(*this);
            SendFromAgent(scope.View(), buf, len, now);
        }
        if (++batched == kTransmitBatch) {
            batch.Flush();
            batched = 0;
        }
    }
}

PortCounters ForwardingPlane::Counters(uint32_t ifIndex) const
{
    std::lock_guard lock(countersMu_);
    const auto it = blocks_.find(ifIndex);
    return it == blocks_.end() ? PortCounters{} : it->second->Read();
}

std::map<uint32_t, PortCounters> ForwardingPlane::AllCounters() const
{
    std::lock_guard lock(countersMu_);
    std::map<uint32_t, PortCounters> out;
    for (const auto &[ifIndex, block] : blocks_) {
        const PortCounters c = block->Read();
        if (c.rx != 0 || c.tx != 0 || c.punted != 0 || c.dropped != 0 || c.policed != 0) {
            out.emplace(ifIndex, c);
        }
    }
    return out;
}

PuntPolicing ForwardingPlane::Policing() const
{
    std::lock_guard lock(countersMu_);
    return policing_;
}

void ForwardingPlane::SetGlobalPolicing(const PuntRate &rate)
{
    std::lock_guard lock(countersMu_);
    policing_.global = rate;
    globalBucket_->Configure(rate);
}

void ForwardingPlane::SetDefaultPolicing(const PuntRate &rate)
{
    std::lock_guard lock(countersMu_);
    policing_.port = rate;
    for (const auto &[ifIndex, block] : blocks_) {
        if (policing_.ports.count(ifIndex) == 0) {
            block->punt.Configure(rate);
        }
    }
}

void ForwardingPlane::SetPortPolicing(uint32_t ifIndex, const std::optional<PuntRate> &rate)
{
    std::lock_guard lock(countersMu_);
    if (rate) {
        policing_.ports[ifIndex] = *rate;
    } else {
        policing_.ports.erase(ifIndex);
    }
    const auto it = blocks_.find(ifIndex);
    if (it != blocks_.end()) {
        it->second->punt.Configure(rate.value_or(policing_.port));
    }
}

std::vector<Subscriber> ForwardingPlane::Subscribers() const
{
    return subscribers_->Entries();
}

SubscriberTableStats ForwardingPlane::SubscriberStats() const
{
    return subscribers_->Stats();
}

std::string DiscoveryCodeName(uint8_t code)
{
    switch (code) {
        case kCodePadi: return "PADI";
        case kCodePado: return "PADO";
        case kCodePadr: return "PADR";
        case kCodePads: return "PADS";
        case kCodePadt: return "PADT";
        default: break;
    }
    static constexpr char kHex[] = "0123456789abcdef";
    return std::string("0x") + kHex[code >> 4] + kHex[code & 0x0FU];
}

std::string PrintableId(const std::string &raw)
{
    const bool printable = std::all_of(raw.begin(), raw.end(), [](char c) { return c >= 0x20 && c < 0x7f; });
    if (printable) {
        return raw;
    }
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out = "0x";
    for (const char c : raw) {
        const auto byte = static_cast<uint8_t>(c);
        out += kHex[byte >> 4];
        out += kHex[byte & 0x0FU];
    }
    return out;
}

std::vector<MacEntry> ForwardingPlane::MacTable() const
{
    return fdb_->Entries();
}

std::optional<uint32_t> ForwardingPlane::Lookup(uint16_t vlan, const Mac &mac) const
{
    return fdb_->Lookup(vlan, mac);
}

bool ForwardingPlane::WaitIdle(std::chrono::milliseconds quiet, std::chrono::milliseconds timeout) const
{
    using Clock = std::chrono::steady_clock;
    // Frames done are read before frames taken in hand, so a frame is never
    // seen done before it was seen taken.
    const auto sample = [this]() {
        const uint64_t left = activity_->counts.Sum(Activity::kLeft);
        const uint64_t entered = activity_->counts.Sum(Activity::kEntered);
        return std::pair<uint64_t, uint64_t>{entered - left, entered + left};
    };
    const auto deadline = Clock::now() + timeout;
    uint64_t seen = sample().second;
    auto quietSince = Clock::now();
    while (Clock::now() < deadline) {
        const auto [busy, events] = sample();
        const bool empty = busy == 0 && WICK_ChannelDepth(kPuntChannel) == 0 && WICK_ChannelDepth(kSendChannel) == 0;
        if (events != seen || !empty) {
            seen = events;
            quietSince = Clock::now();
        } else if (Clock::now() - quietSince >= quiet) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return false;
}

}  // namespace device::fplane
