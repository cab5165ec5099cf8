// The plane's subscriber table (see subscribers.hpp).
#include "subscribers.hpp"

#include <time.h>

#include <algorithm>
#include <tuple>

#include "hash_mix.hpp"

namespace device::fplane {

namespace {

// Ethernet and PPPoE discovery framing, as the table reads it.
constexpr size_t kDstMacOffset = 0;
constexpr size_t kSrcMacOffset = 6;
constexpr size_t kMacHeader = 12;
constexpr size_t kTagLen = 4;
constexpr size_t kTciOffset = 2;
constexpr size_t kTypeLen = 2;
constexpr uint16_t kVidMask = 0x0FFF;
constexpr uint16_t kTpidDot1q = 0x8100;
constexpr uint16_t kTpidQinq = 0x9100;
constexpr uint16_t kTpidDot1ad = 0x88a8;
constexpr uint16_t kEtherPppoeDiscovery = 0x8863;
constexpr size_t kPppoeCodeOffset = 1;       // within the PPPoE header: ver/type, code, session, length
constexpr size_t kPppoeSessionOffset = 2;
constexpr size_t kPppoeLengthOffset = 4;
constexpr size_t kPppoeHeader = 6;
constexpr size_t kPppoeTagHeader = 4;        // tag type, tag length
constexpr uint16_t kTagVendorSpecific = 0x0105;
constexpr size_t kVendorIdLen = 4;
constexpr size_t kSubOptionHeader = 2;       // sub-option type, length
constexpr uint8_t kSubOptionCircuitId = 1;
constexpr uint8_t kSubOptionRemoteId = 2;

constexpr size_t kMaxShards = 16;
constexpr size_t kShardedFrom = 1024;        // smaller tables keep one order in one shard

uint16_t U16(std::span<const uint8_t> b, size_t off)
{
    return static_cast<uint16_t>(b[off] << 8 | b[off + 1]);
}

Mac MacAt(std::span<const uint8_t> b, size_t off)
{
    Mac m{};
    std::copy_n(b.begin() + static_cast<std::ptrdiff_t>(off), m.size(), m.begin());
    return m;
}

bool IsGroup(const Mac &mac)
{
    return (mac[0] & 0x01U) != 0;
}

bool IsTag(uint16_t tpid)
{
    return tpid == kTpidDot1q || tpid == kTpidQinq || tpid == kTpidDot1ad;
}

// The facts of one discovery frame the table keeps.
struct Discovery {
    Mac dst{};
    Mac src{};
    uint16_t vlan = 0;
    uint16_t innerVlan = 0;
    uint8_t code = 0;
    uint16_t session = 0;
    std::span<const uint8_t> tags;   // the PPPoE payload, as far as the frame holds it
};

bool ReadDiscovery(std::span<const uint8_t> frame, Discovery *d)
{
    size_t off = kMacHeader;
    if (off + kTypeLen <= frame.size() && IsTag(U16(frame, off))) {
        if (off + kTagLen + kTypeLen > frame.size()) {
            return false;
        }
        d->vlan = U16(frame, off + kTciOffset) & kVidMask;
        off += kTagLen;
        if (off + kTagLen + kTypeLen <= frame.size() && U16(frame, off) == kTpidDot1q) {
            d->innerVlan = U16(frame, off + kTciOffset) & kVidMask;
            off += kTagLen;
        }
    }
    if (off + kTypeLen + kPppoeHeader > frame.size() || U16(frame, off) != kEtherPppoeDiscovery) {
        return false;
    }
    const std::span<const uint8_t> pppoe = frame.subspan(off + kTypeLen);
    d->dst = MacAt(frame, kDstMacOffset);
    d->src = MacAt(frame, kSrcMacOffset);
    d->code = pppoe[kPppoeCodeOffset];
    d->session = U16(pppoe, kPppoeSessionOffset);
    const size_t length = std::min<size_t>(U16(pppoe, kPppoeLengthOffset), pppoe.size() - kPppoeHeader);
    d->tags = pppoe.subspan(kPppoeHeader, length);
    return true;
}

// Sub-options 1 and 2 of the last Vendor-Specific tag (the one the agent
// inserts goes behind any other); both empty without one.
void ReadAgentIds(std::span<const uint8_t> tags, std::string *circuitId, std::string *remoteId)
{
    std::span<const uint8_t> vendor;
    for (size_t off = 0; off + kPppoeTagHeader <= tags.size();) {
        const uint16_t type = U16(tags, off);
        const size_t len = U16(tags, off + kTypeLen);
        if (off + kPppoeTagHeader + len > tags.size()) {
            break;
        }
        if (type == kTagVendorSpecific) {
            vendor = tags.subspan(off + kPppoeTagHeader, len);
        }
        off += kPppoeTagHeader + len;
    }
    circuitId->clear();
    remoteId->clear();
    for (size_t off = kVendorIdLen; off + kSubOptionHeader <= vendor.size();) {
        const uint8_t type = vendor[off];
        const size_t len = vendor[off + 1];
        if (off + kSubOptionHeader + len > vendor.size()) {
            break;
        }
        const auto *value = reinterpret_cast<const char *>(vendor.data() + off + kSubOptionHeader);
        if (type == kSubOptionCircuitId) {
            circuitId->assign(value, len);
        } else if (type == kSubOptionRemoteId) {
            remoteId->assign(value, len);
        }
        off += kSubOptionHeader + len;
    }
}

// The key of a client: its MAC above its VLANs.
uint64_t KeyOf(const Mac &mac, uint16_t vlan, uint16_t innerVlan)
{
    uint64_t key = 0;
    for (const uint8_t byte : mac) {
        key = key << 8 | byte;
    }
    return key << 24 | uint64_t{vlan} << 12 | innerVlan;
}

// Clocks cheap enough for every discovery frame: wall time for what the
// table shows, monotonic seconds for ageing.
std::chrono::system_clock::time_point WallNow()
{
    timespec ts{};
    clock_gettime(CLOCK_REALTIME_COARSE, &ts);
    return std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(std::chrono::seconds(ts.tv_sec) +
                                                                        std::chrono::nanoseconds(ts.tv_nsec)));
}

uint64_t MonoSeconds()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
    return static_cast<uint64_t>(ts.tv_sec);
}

}  // namespace

// One shard: its entries from the one idle longest to the one seen last,
// and an index by key into that order.
struct alignas(64) SubscriberTable::Shard {
    struct Entry {
        uint64_t key = 0;
        uint64_t seenMono = 0;
        Subscriber s;
    };
    using Order = std::list<Entry>;

    mutable std::mutex mu;   // everything below
    size_t capacity = 0;
    Order order;
    std::unordered_map<uint64_t, Order::iterator> index;
    uint64_t evictions = 0;
    uint64_t agedOut = 0;

    void DropAged(uint64_t nowMono, uint32_t idleSeconds)
    {
        while (idleSeconds != 0 && !order.empty() && nowMono - order.front().seenMono >= idleSeconds) {
            index.erase(order.front().key);
            order.pop_front();
            agedOut++;
        }
    }

    Entry *Find(uint64_t key)
    {
        const auto it = index.find(key);
        return it == index.end() ? nullptr : &*it->second;
    }

    // The entry of key, moved to the end of the order; created when absent
    // and create is set, in the place of the entry idle longest when full.
    Entry *Touch(uint64_t key, bool create, uint64_t nowMono)
    {
        const auto it = index.find(key);
        if (it != index.end()) {
            order.splice(order.end(), order, it->second);
            order.back().seenMono = nowMono;
            return &order.back();
        }
        if (!create || capacity == 0) {
            return nullptr;
        }
        if (index.size() >= capacity) {
            index.erase(order.front().key);
            order.splice(order.end(), order, order.begin());   // its node is reused
            order.back() = Entry{};
            evictions++;
        } else {
            order.emplace_back();
        }
        Entry &e = order.back();
        e.key = key;
        e.seenMono = nowMono;
        index.emplace(key, std::prev(order.end()));
        return &e;
    }

    void Remove(uint64_t key)
    {
        const auto it = index.find(key);
        if (it != index.end()) {
            order.erase(it->second);
            index.erase(it);
        }
    }
};

SubscriberTable::SubscriberTable(const platform::SubscriberTableSettings &settings)
    : capacity_(settings.size),
      idleSeconds_(settings.idleSeconds),
      shardCount_(settings.size >= kShardedFrom ? kMaxShards : 1),
      shards_(std::make_unique<Shard[]>(shardCount_))
{
    for (size_t i = 0; i < shardCount_; i++) {
        shards_[i].capacity = capacity_ / shardCount_ + (i < capacity_ % shardCount_ ? 1 : 0);
        shards_[i].index.reserve(shards_[i].capacity);
    }
}

SubscriberTable::~SubscriberTable() = default;

SubscriberTable::Shard &SubscriberTable::ShardOf(uint64_t key) const
{
    return shards_[Mix(key) % shardCount_];
}

void SubscriberTable::Punted(uint32_t ifIndex, std::span<const uint8_t> frame)
{
    Seen(Way::Punted, ifIndex, frame);
}

void SubscriberTable::Sent(uint32_t ifIndex, std::span<const uint8_t> frame)
{
    Seen(Way::Sent, ifIndex, frame);
}

void SubscriberTable::Seen(Way way, uint32_t ifIndex, std::span<const uint8_t> frame)
{
    Discovery d;
    if (!Enabled() || !ReadDiscovery(frame, &d)) {
        return;
    }
    const bool fromClient = d.code == kCodePadi || d.code == kCodePadr;
    const bool toClient = d.code == kCodePado || d.code == kCodePads;
    const uint64_t nowMono = MonoSeconds();

    if (d.code == kCodePadt) {
        // From either side: the client is the source or the destination,
        // and an entry that has a session must name the PADT's.
        for (const Mac &client : {d.src, d.dst}) {
            const uint64_t key = KeyOf(client, d.vlan, d.innerVlan);
            Shard &shard = ShardOf(key);
            const std::lock_guard lock(shard.mu);
            const Shard::Entry *e = shard.Find(key);
            if (e != nullptr && (!e->s.sessionId || *e->s.sessionId == d.session)) {
                shard.Remove(key);
                return;
            }
        }
        return;
    }
    if (!fromClient && !toClient) {
        return;
    }
    const Mac &client = fromClient ? d.src : d.dst;
    const Mac &peer = fromClient ? d.dst : d.src;
    if (IsGroup(client)) {
        return;
    }
    const uint64_t key = KeyOf(client, d.vlan, d.innerVlan);
    Shard &shard = ShardOf(key);
    const std::lock_guard lock(shard.mu);
    shard.DropAged(nowMono, idleSeconds_);
    const bool creates = fromClient && way == Way::Punted;
    Shard::Entry *e = shard.Touch(key, creates, nowMono);
    if (e == nullptr) {
        return;
    }
    Subscriber &s = e->s;
    const auto now = WallNow();
    // A client starting over after a session, or a new one: its discovery starts now.
    if (s.lastCode == 0 || (creates && d.code == kCodePadi && s.sessionId)) {
        s = Subscriber{};
        s.mac = client;
        s.vlan = d.vlan;
        s.innerVlan = d.innerVlan;
        s.started = now;
    }
    s.lastSeen = now;
    s.lastCode = d.code;
    if (creates) {
        s.ifIndex = ifIndex;
    }
    if (fromClient && way == Way::Sent) {
        ReadAgentIds(d.tags, &s.circuitId, &s.remoteId);
    }
    if (!IsGroup(peer) && (d.code != kCodePado || !s.acMac)) {
        s.acMac = peer;   // the concentrator that answered first, then the one chosen
    }
    if (d.code == kCodePads && d.session != 0) {
        s.sessionId = d.session;
    }
}

std::vector<Subscriber> SubscriberTable::Entries() const
{
    std::vector<Subscriber> out;
    const uint64_t nowMono = MonoSeconds();
    for (size_t i = 0; i < shardCount_; i++) {
        Shard &shard = shards_[i];
        const std::lock_guard lock(shard.mu);
        shard.DropAged(nowMono, idleSeconds_);
        for (const Shard::Entry &e : shard.order) {
            out.push_back(e.s);
        }
    }
    std::sort(out.begin(), out.end(), [](const Subscriber &a, const Subscriber &b) {
        return std::tie(a.ifIndex, a.vlan, a.innerVlan, a.mac) < std::tie(b.ifIndex, b.vlan, b.innerVlan, b.mac);
    });
    return out;
}

SubscriberTableStats SubscriberTable::Stats() const
{
    SubscriberTableStats stats;
    stats.capacity = capacity_;
    stats.idleSeconds = idleSeconds_;
    const uint64_t nowMono = MonoSeconds();
    for (size_t i = 0; i < shardCount_; i++) {
        Shard &shard = shards_[i];
        const std::lock_guard lock(shard.mu);
        shard.DropAged(nowMono, idleSeconds_);
        stats.entries += shard.index.size();
        stats.evictions += shard.evictions;
        stats.agedOut += shard.agedOut;
    }
    return stats;
}

}  // namespace device::fplane
