// The plane's subscriber table (see subscribers.hpp).
#include "subscribers.hpp"

#include <time.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstring>
#include <string_view>
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

constexpr size_t kMaxShards = 16;           // a power of two
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
void ReadAgentIds(std::span<const uint8_t> tags, std::string_view *circuitId, std::string_view *remoteId)
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
    *circuitId = {};
    *remoteId = {};
    for (size_t off = kVendorIdLen; off + kSubOptionHeader <= vendor.size();) {
        const uint8_t type = vendor[off];
        const size_t len = vendor[off + 1];
        if (off + kSubOptionHeader + len > vendor.size()) {
            break;
        }
        const std::string_view value(reinterpret_cast<const char *>(vendor.data() + off + kSubOptionHeader), len);
        if (type == kSubOptionCircuitId) {
            *circuitId = value;
        } else if (type == kSubOptionRemoteId) {
            *remoteId = value;
        }
        off += kSubOptionHeader + len;
    }
}

// A fingerprint of the Circuit ID and Remote ID: whether a frame would
// change the entry's IDs, judged without its lock. Sixteen bytes at a time
// in two independent lanes, the last sixteen (or fewer) read as overlapping
// words, so that IDs of tens of bytes cost a few ns.
uint64_t Fold(std::string_view bytes, uint64_t seed)
{
    constexpr uint64_t kOdd1 = 0x9e3779b97f4a7c15ULL;
    constexpr uint64_t kOdd2 = 0xc2b2ae3d27d4eb4fULL;
    const auto load = [&bytes]<typename W>(size_t off, W) {
        W w = 0;
        std::memcpy(&w, bytes.data() + off, sizeof w);
        return uint64_t{w};
    };
    const size_t n = bytes.size();
    uint64_t a = seed ^ n;
    uint64_t b = ~seed;
    const auto lanes = [&a, &b](uint64_t w0, uint64_t w1) {
        a = std::rotl((a ^ w0) * kOdd1, 29);
        b = std::rotl((b ^ w1) * kOdd2, 31);
    };
    constexpr size_t kWord = sizeof(uint64_t);
    if (n >= 2 * kWord) {
        for (size_t off = 0; off + 2 * kWord < n; off += 2 * kWord) {
            lanes(load(off, uint64_t{}), load(off + kWord, uint64_t{}));
        }
        lanes(load(n - 2 * kWord, uint64_t{}), load(n - kWord, uint64_t{}));
    } else if (n >= kWord) {
        lanes(load(0, uint64_t{}), load(n - kWord, uint64_t{}));
    } else if (n >= sizeof(uint32_t)) {
        lanes(load(0, uint32_t{}), load(n - sizeof(uint32_t), uint32_t{}));
    } else if (n != 0) {
        lanes(uint64_t{static_cast<uint8_t>(bytes[0])} | uint64_t{static_cast<uint8_t>(bytes[n / 2])} << 8 |
                  uint64_t{static_cast<uint8_t>(bytes[n - 1])} << 16,
              0);
    }
    return a ^ std::rotl(b, 17);
}

// Both IDs folded in turn, mixed once.
uint64_t IdsPrint(std::string_view circuitId, std::string_view remoteId)
{
    return Mix(Fold(remoteId, Fold(circuitId, 0)));
}

// The key of a client: its MAC and its two VLANs, 72 bits in two words (a
// single word would lose the MAC's first octet).
struct ClientKey {
    uint64_t mac = 0;     // the MAC's 48 bits
    uint32_t vlans = 0;   // outer VLAN << 12 | inner VLAN

    bool operator==(const ClientKey &) const = default;
    uint64_t Hash() const { return Mix(mac ^ uint64_t{vlans} << 40); }
};

struct ClientKeyHash {
    size_t operator()(const ClientKey &k) const { return k.Hash(); }
};

ClientKey KeyOf(const Mac &mac, uint16_t vlan, uint16_t innerVlan)
{
    ClientKey key;
    for (const uint8_t byte : mac) {
        key.mac = key.mac << 8 | byte;
    }
    key.vlans = uint32_t{vlan} << 12 | innerVlan;
    return key;
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

constexpr uint64_t kNsPerSecond = 1000000000ULL;

uint64_t MonoSeconds()
{
    return CoarseMonotonicNs() / kNsPerSecond;
}

constexpr uint64_t kHasAc = uint64_t{1} << 48;
constexpr uint64_t kHasSession = uint64_t{1} << 56;

// What of an entry a frame may change, packed for the hint of its key.
struct Facts {
    uint64_t seen = 0;      // monotonic second of the last change
    uint64_t where = 0;     // ifIndex << 32 | last code
    uint64_t ac = 0;        // kHasAc | the concentrator's MAC
    uint64_t session = 0;   // kHasSession | session id
    uint64_t ids = 0;       // IdsPrint of the Circuit ID and Remote ID

    bool operator==(const Facts &) const = default;
};

uint64_t MacBits(const Mac &mac)
{
    uint64_t v = 0;
    for (const uint8_t byte : mac) {
        v = v << 8 | byte;
    }
    return v;
}

Facts FactsOf(uint64_t mono, const Subscriber &s)
{
    Facts f;
    f.seen = mono;
    f.where = uint64_t{s.ifIndex} << 32 | s.lastCode;
    f.ac = s.acMac ? kHasAc | MacBits(*s.acMac) : 0;
    f.session = s.sessionId ? kHasSession | *s.sessionId : 0;
    f.ids = IdsPrint(s.circuitId, s.remoteId);
    return f;
}

}  // namespace

// The facts of the entry of one key as its last change under the shard's
// lock left them, for frames that would change nothing but their order
// (the common case: a client repeating its PADI, the agent's copy of it)
// to be seen without the lock. A slot is direct-mapped by key; writers
// (holding the lock) make seq odd while they change it; a reader that sees
// seq odd or changed, or another key, takes the locked path.
struct alignas(64) SubscriberTable::Hint {
    std::atomic<uint32_t> seq{0};
    std::atomic<uint64_t> keyMac{0};   // with keyVlans and all facts 0: none (no frame leaves those facts)
    std::atomic<uint32_t> keyVlans{0};
    std::atomic<uint64_t> moved{0}; // the shard's moves when the entry last went to the end of its order
    std::atomic<uint64_t> seen{0};
    std::atomic<uint64_t> where{0};
    std::atomic<uint64_t> ac{0};
    std::atomic<uint64_t> session{0};
    std::atomic<uint64_t> ids{0};

    // Data stores are release stores, so a reader that sees any of them
    // sees the odd seq stored before them; data loads are acquire loads,
    // so the reader's second look at seq comes after them.
    void Publish(const ClientKey &k, uint64_t m, const Facts &f)
    {
        const uint32_t s = seq.load(std::memory_order_relaxed);
        seq.store(s + 1, std::memory_order_relaxed);
        keyMac.store(k.mac, std::memory_order_release);
        keyVlans.store(k.vlans, std::memory_order_release);
        moved.store(m, std::memory_order_release);
        seen.store(f.seen, std::memory_order_release);
        where.store(f.where, std::memory_order_release);
        ac.store(f.ac, std::memory_order_release);
        session.store(f.session, std::memory_order_release);
        ids.store(f.ids, std::memory_order_release);
        seq.store(s + 2, std::memory_order_release);
    }

    void Forget(const ClientKey &k)
    {
        if (keyMac.load(std::memory_order_relaxed) == k.mac && keyVlans.load(std::memory_order_relaxed) == k.vlans) {
            Publish(ClientKey{}, 0, Facts{});
        }
    }

    // The facts of key k and when its entry last moved; false when the
    // slot holds another key or a writer was changing it.
    bool Read(const ClientKey &k, Facts *f, uint64_t *m) const
    {
        const uint32_t s = seq.load(std::memory_order_acquire);
        if ((s & 1U) != 0 || keyMac.load(std::memory_order_acquire) != k.mac ||
            keyVlans.load(std::memory_order_acquire) != k.vlans) {
            return false;
        }
        f->seen = seen.load(std::memory_order_acquire);
        f->where = where.load(std::memory_order_acquire);
        f->ac = ac.load(std::memory_order_acquire);
        f->session = session.load(std::memory_order_acquire);
        f->ids = ids.load(std::memory_order_acquire);
        *m = moved.load(std::memory_order_acquire);
        return seq.load(std::memory_order_relaxed) == s;
    }
};

// One shard: its entries from the one idle longest to the one seen last,
// and an index by key into that order.
struct alignas(64) SubscriberTable::Shard {
    struct Entry {
        ClientKey key;
        uint64_t seenMono = 0;
        Subscriber s;
    };
    using Order = std::list<Entry>;

    mutable std::mutex mu;   // everything below but the hints' reading
    size_t capacity = 0;
    Order order;
    std::unordered_map<ClientKey, Order::iterator, ClientKeyHash> index;
    uint64_t evictions = 0;
    uint64_t agedOut = 0;
    // Entries moved to the end of the order (or added there) so far. A hit
    // that changes nothing moves its entry only when it moved more than
    // half the shard's capacity of moves ago: until then at least half the
    // entries are ahead of it in the order, so no entry seen since goes
    // before it by more than that.
    std::atomic<uint64_t> moves{0};
    std::unique_ptr<Hint[]> hints;
    size_t hintMask = 0;

    Hint &HintOf(uint64_t hash) const { return hints[(hash >> 32) & hintMask]; }

    void DropAged(uint64_t nowMono, uint32_t idleSeconds)
    {
        while (idleSeconds != 0 && !order.empty() && nowMono - order.front().seenMono >= idleSeconds) {
            Forget(order.front().key);
            index.erase(order.front().key);
            order.pop_front();
            agedOut++;
        }
    }

    void Forget(const ClientKey &key) { HintOf(key.Hash()).Forget(key); }

    Entry *Find(const ClientKey &key)
    {
        const auto it = index.find(key);
        return it == index.end() ? nullptr : &*it->second;
    }

    // The entry of key, moved to the end of the order; created when absent
    // and create is set, in the place of the entry idle longest when full.
    Entry *Touch(const ClientKey &key, bool create, uint64_t nowMono)
    {
        const auto it = index.find(key);
        if (it != index.end()) {
            order.splice(order.end(), order, it->second);
            order.back().seenMono = nowMono;
            moves.fetch_add(1, std::memory_order_relaxed);
            return &order.back();
        }
        if (!create || capacity == 0) {
            return nullptr;
        }
        moves.fetch_add(1, std::memory_order_relaxed);
        if (index.size() >= capacity) {
            Forget(order.front().key);
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

    void Remove(const ClientKey &key)
    {
        const auto it = index.find(key);
        if (it != index.end()) {
            Forget(key);
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
        const size_t hints = std::bit_ceil(std::max<size_t>(shards_[i].capacity, 1));
        shards_[i].hints = std::make_unique<Hint[]>(hints);
        shards_[i].hintMask = hints - 1;
    }
}

SubscriberTable::~SubscriberTable() = default;

inline SubscriberTable::Shard &SubscriberTable::ShardOf(uint64_t hash) const
{
    return shards_[hash & (shardCount_ - 1)];
}

void SubscriberTable::Punted(uint32_t ifIndex, std::span<const uint8_t> frame, uint64_t monoNs)
{
    Seen(Way::Punted, ifIndex, frame, monoNs / kNsPerSecond);
}

void SubscriberTable::Sent(uint32_t ifIndex, std::span<const uint8_t> frame, uint64_t monoNs)
{
    Seen(Way::Sent, ifIndex, frame, monoNs / kNsPerSecond);
}

void SubscriberTable::Seen(Way way, uint32_t ifIndex, std::span<const uint8_t> frame, uint64_t nowMono)
{
    Discovery d;
    if (!Enabled() || !ReadDiscovery(frame, &d)) {
        return;
    }
    const bool fromClient = d.code == kCodePadi || d.code == kCodePadr;
    const bool toClient = d.code == kCodePado || d.code == kCodePads;

    if (d.code == kCodePadt) {
        // From either side: the client is the source or the destination,
        // and an entry that has a session must name the PADT's.
        for (const Mac &client : {d.src, d.dst}) {
            const ClientKey key = KeyOf(client, d.vlan, d.innerVlan);
            Shard &shard = ShardOf(key.Hash());
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
    const ClientKey key = KeyOf(client, d.vlan, d.innerVlan);
    const uint64_t hash = key.Hash();
    Shard &shard = ShardOf(hash);
    Hint &hint = shard.HintOf(hash);
    const bool creates = fromClient && way == Way::Punted;
    const bool readsIds = fromClient && way == Way::Sent;
    std::string_view circuitId;
    std::string_view remoteId;
    if (readsIds) {
        ReadAgentIds(d.tags, &circuitId, &remoteId);
    }

    // Without the lock when the entry would stay as it is: the same second,
    // code, port, concentrator, session and IDs, and no need to move it.
    // Its last-seen time is written once a second (the first frame of the
    // second), its place in the order as the shard's moves tell.
    Facts was;
    uint64_t moved = 0;
    if (hint.Read(key, &was, &moved) && shard.moves.load(std::memory_order_relaxed) - moved < shard.capacity / 2 &&
        !(creates && d.code == kCodePadi && was.session != 0)) {
        Facts next = was;
        next.seen = nowMono;
        next.where = (creates ? uint64_t{ifIndex} : was.where >> 32) << 32 | d.code;
        if (!IsGroup(peer) && (d.code != kCodePado || was.ac == 0)) {
            next.ac = kHasAc | MacBits(peer);
        }
        if (d.code == kCodePads && d.session != 0) {
            next.session = kHasSession | d.session;
        }
        if (readsIds) {
            next.ids = IdsPrint(circuitId, remoteId);
        }
        if (next == was) {
            return;
        }
    }

    const std::lock_guard lock(shard.mu);
    shard.DropAged(nowMono, idleSeconds_);
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
    if (readsIds) {
        s.circuitId.assign(circuitId);
        s.remoteId.assign(remoteId);
    }
    if (!IsGroup(peer) && (d.code != kCodePado || !s.acMac)) {
        s.acMac = peer;   // the concentrator that answered first, then the one chosen
    }
    if (d.code == kCodePads && d.session != 0) {
        s.sessionId = d.session;
    }
    hint.Publish(key, shard.moves.load(std::memory_order_relaxed), FactsOf(nowMono, s));
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
