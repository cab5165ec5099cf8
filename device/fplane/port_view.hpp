// What the forwarding plane keeps between frames: the ports of the world as
// it switches by them (an immutable view, built from one consistent read of
// the world and replaced whenever the world changes) and per-port counters
// that receiving threads bump without sharing a cache line.
#pragma once

#include <array>
#include <atomic>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "device/fplane.hpp"
#include "platform/world.hpp"
#include "punt_bucket.hpp"

namespace device::fplane {

// Counters are striped: each thread adds to its own stripe (a cache line of
// its own), readers sum the stripes.
inline constexpr size_t kStripes = 8;
// This thread's stripe, fixed for its life.
size_t ThreadStripe();

template <size_t N>
class StripedCounters {
public:
    void Add(size_t which) { stripes_[ThreadStripe()].values[which].fetch_add(1, std::memory_order_relaxed); }
    uint64_t Sum(size_t which) const
    {
        uint64_t sum = 0;
        for (const Stripe &s : stripes_) {
            sum += s.values[which].load(std::memory_order_relaxed);
        }
        return sum;
    }

private:
    struct alignas(64) Stripe {
        std::array<std::atomic<uint64_t>, N> values{};
    };
    std::array<Stripe, kStripes> stripes_{};
};

// The per-port counters, one row per field of PortCounters.
enum class Counter : size_t { Rx, Tx, Punted, Dropped, Policed };
inline constexpr std::array<uint64_t PortCounters::*, 5> kCounterFields{
    &PortCounters::rx, &PortCounters::tx, &PortCounters::punted, &PortCounters::dropped, &PortCounters::policed};

// What the plane keeps of a port across views: its counters and the bucket
// that polices its punts.
class PortBlock {
public:
    void Add(Counter c) { counts_.Add(static_cast<size_t>(c)); }
    PortCounters Read() const;

    PuntBucket punt;

private:
    StripedCounters<kCounterFields.size()> counts_;
};

using VlanSet = std::bitset<platform::kVlanBitmapBytes * 8>;

// One interface of the world, resolved for switching.
struct PortEntry {
    uint32_t ifIndex = kNoPort;
    bool wire = false;              // frames enter here: an on-board port that is not a trunk's interface
    bool floods = false;            // a flood leaves through it: not a trunk member, on board or a trunk's interface
    bool logicalKnown = false;      // the interface whose VLAN settings apply exists
    uint32_t logical = kNoPort;     // that interface: the trunk's for a member, else itself
    bool trunkMode = false;         // VLAN settings of the logical interface
    uint16_t pvid = 0;
    const VlanSet *vlans = nullptr; // member VLANs of a trunk-mode logical interface (none: no VLAN)
    // The physical port that sends for this interface (itself on board, the
    // lowest on-board member for a trunk's interface); none when nothing can.
    const PortEntry *sender = nullptr;
    PortBlock *block = nullptr;

    bool Member(uint16_t vlan) const { return trunkMode ? vlans != nullptr && vlans->test(vlan) : pvid == vlan; }
};

class PortView {
public:
    // The block of a port, created on first use; it outlives every view.
    using BlockOf = std::function<PortBlock *(uint32_t ifIndex)>;

    static std::shared_ptr<const PortView> Build(const platform::PortTables &tables, const BlockOf &blockOf);

    uint64_t Generation() const { return generation_; }
    const PortEntry *Find(uint32_t ifIndex) const;
    // The interface whose VLAN settings apply to ifIndex: its trunk's when it
    // is a trunk member (even one the world has no interface for), else itself.
    uint32_t Logical(uint32_t ifIndex) const;
    // The interfaces a flood may leave through, in the world's order.
    std::span<const PortEntry *const> FloodOrder() const { return flood_; }

private:
    uint64_t generation_ = 0;
    std::vector<PortEntry> entries_;                          // in the world's order
    std::vector<std::pair<uint32_t, size_t>> byIfIndex_;      // sorted: ifIndex -> entry
    std::vector<std::pair<uint32_t, uint32_t>> memberToTrunk_;  // sorted: member ifIndex -> trunk's interface
    std::vector<VlanSet> vlanSets_;
    std::vector<const PortEntry *> flood_;
};

}  // namespace device::fplane
