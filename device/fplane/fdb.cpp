// The plane's forwarding database: a fixed open-addressed table of (VLAN,
// MAC) -> port, read and written by every receiving thread without a lock
// (see fdb.hpp).
#include "fdb.hpp"
#include "hash_mix.hpp"

#include <time.h>

#include <algorithm>
#include <set>
#include <thread>

namespace device::fplane {

namespace {

constexpr uint64_t kUsed = uint64_t{1} << 63;     // sets a bit no (VLAN, MAC) key has alone
constexpr unsigned kVlanShift = 48;
constexpr uint64_t kVlanMask = 0x0FFF;
constexpr int kLearnAttempts = 4;                 // a learn that keeps losing races gives up; the next frame learns

// The MAC's bytes in order, below the VLAN: keys sort by VLAN, then MAC.
uint64_t KeyOf(uint16_t vlan, const Mac &mac)
{
    uint64_t macBits = 0;
    for (const uint8_t byte : mac) {
        macBits = macBits << 8 | byte;
    }
    return kUsed | (uint64_t{vlan} & kVlanMask) << kVlanShift | macBits;
}

MacEntry EntryOf(uint64_t key, uint32_t port)
{
    MacEntry e;
    e.vlan = static_cast<uint16_t>(key >> kVlanShift & kVlanMask);
    for (size_t i = 0; i < e.mac.size(); i++) {
        e.mac[e.mac.size() - 1 - i] = static_cast<uint8_t>(key >> (8 * i));
    }
    e.ifIndex = port;
    return e;
}

// Seconds of a clock that is cheap to read on every frame.
uint32_t CoarseNow()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
    return static_cast<uint32_t>(ts.tv_sec);
}

}  // namespace

Fdb::Fdb() : slots_(std::make_unique<Slot[]>(kSlots)) {}

Fdb::Slot &Fdb::At(uint64_t key, size_t probe) const
{
    return slots_[(Mix(key) + probe) & (kSlots - 1)];
}

// The data loads are acquire so that the closing seq load cannot move
// before them: when seq is unchanged, key and port belong together.
Fdb::Content Fdb::Read(const Slot &slot)
{
    for (;;) {
        const uint32_t before = slot.seq.load(std::memory_order_acquire);
        if ((before & 1U) != 0) {
            std::this_thread::yield();
            continue;
        }
        const Content c{slot.key.load(std::memory_order_acquire), slot.port.load(std::memory_order_acquire)};
        if (slot.seq.load(std::memory_order_relaxed) == before) {
            return c;
        }
    }
}

bool Fdb::Replace(Slot &slot, uint64_t expectedKey, uint64_t key, uint32_t port, uint32_t now)
{
    uint32_t seq = slot.seq.load(std::memory_order_relaxed);
    while ((seq & 1U) != 0 || !slot.seq.compare_exchange_weak(seq, seq + 1, std::memory_order_acquire,
                                                              std::memory_order_relaxed)) {
        std::this_thread::yield();
        seq = slot.seq.load(std::memory_order_relaxed);
    }
    const bool holds = slot.key.load(std::memory_order_relaxed) == expectedKey;
    if (holds) {
        slot.key.store(key, std::memory_order_release);
        slot.port.store(port, std::memory_order_release);
        slot.seen.store(now, std::memory_order_relaxed);
    }
    slot.seq.store(seq + 2, std::memory_order_release);
    return holds;
}

bool Fdb::TryLearn(uint64_t key, uint32_t port, uint32_t now)
{
    Slot *stalest = nullptr;
    uint64_t stalestKey = 0;
    uint32_t stalestSeen = 0;
    for (size_t probe = 0; probe < kWindow; probe++) {
        Slot &slot = At(key, probe);
        const Content c = Read(slot);
        if (c.key == key) {
            if (c.port != port) {
                return Replace(slot, key, key, port, now);
            }
            if (slot.seen.load(std::memory_order_relaxed) != now) {
                slot.seen.store(now, std::memory_order_relaxed);
            }
            return true;
        }
        if (c.key == 0) {
            return Replace(slot, 0, key, port, now);
        }
        const uint32_t seen = slot.seen.load(std::memory_order_relaxed);
        if (stalest == nullptr || seen < stalestSeen) {
            stalest = &slot;
            stalestKey = c.key;
            stalestSeen = seen;
        }
    }
    return Replace(*stalest, stalestKey, key, port, now);
}

void Fdb::Learn(uint16_t vlan, const Mac &mac, uint32_t port)
{
    const uint64_t key = KeyOf(vlan, mac);
    const uint32_t now = CoarseNow();
    for (int attempt = 0; attempt < kLearnAttempts && !TryLearn(key, port, now); attempt++) {
    }
}

std::optional<uint32_t> Fdb::Find(uint64_t key) const
{
    for (size_t probe = 0; probe < kWindow; probe++) {
        const Content c = Read(At(key, probe));
        if (c.key == key) {
            return c.port;
        }
        if (c.key == 0) {
            break;   // slots fill in probe order and never empty again
        }
    }
    return std::nullopt;
}

std::optional<uint32_t> Fdb::Lookup(uint16_t vlan, const Mac &mac) const
{
    return Find(KeyOf(vlan, mac));
}

// A MAC can sit in two slots for a while (a learn that raced an eviction);
// the answer is the one Lookup gives.
std::vector<MacEntry> Fdb::Entries() const
{
    std::set<uint64_t> keys;
    for (size_t i = 0; i < kSlots; i++) {
        const uint64_t key = Read(slots_[i]).key;
        if (key != 0) {
            keys.insert(key);
        }
    }
    std::vector<MacEntry> out;
    out.reserve(keys.size());
    for (const uint64_t key : keys) {
        if (const auto port = Find(key)) {
            out.push_back(EntryOf(key, *port));
        }
    }
    return out;
}

}  // namespace device::fplane
