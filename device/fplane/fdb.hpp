// The forwarding database of the plane: source MACs learnt per VLAN, the
// table a switch ASIC keeps in its own memory. Ours is a fixed open-addressed
// table that any number of receiving threads read and write at once with no
// lock: a lookup only loads, and a frame from a MAC already learnt on its
// port writes nothing but, at most once a second, the time it was last seen.
//
// Capacity is fixed, like a hardware table. A MAC is kept in one of the
// kWindow slots after its hash; when all of them hold other MACs, the one
// seen longest ago gives way, so a flood of source MACs can neither grow the
// table nor keep the MACs in active use from being learnt.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "device/fplane.hpp"

namespace device::fplane {

class Fdb {
public:
    static_assert((kMacTableSlots & (kMacTableSlots - 1)) == 0);
    static constexpr size_t kSlots = kMacTableSlots;     // a power of two
    static constexpr size_t kWindow = 16;                // slots a MAC may sit in

    Fdb();

    // mac was seen in vlan on port: learns it, or moves it to port.
    // Safe from any thread.
    void Learn(uint16_t vlan, const Mac &mac, uint32_t port);
    // The port mac was learnt on in vlan. Safe from any thread.
    std::optional<uint32_t> Lookup(uint16_t vlan, const Mac &mac) const;
    // Every entry, ordered by VLAN, then MAC.
    std::vector<MacEntry> Entries() const;

private:
    // One entry. seq is odd while a writer changes key and port (readers
    // retry); writers take the slot by moving seq from even to odd. seen is
    // a hint for eviction only and is written without taking the slot.
    struct Slot {
        std::atomic<uint32_t> seq{0};
        std::atomic<uint32_t> port{kNoPort};
        std::atomic<uint64_t> key{0};   // 0: never used; slots never become empty again
        std::atomic<uint32_t> seen{0};  // coarse seconds of the last frame from this MAC
    };
    struct Content {
        uint64_t key;
        uint32_t port;
    };

    static Content Read(const Slot &slot);
    // Sets key and port when the slot still holds expectedKey.
    static bool Replace(Slot &slot, uint64_t expectedKey, uint64_t key, uint32_t port, uint32_t now);
    bool TryLearn(uint64_t key, uint32_t port, uint32_t now);
    std::optional<uint32_t> Find(uint64_t key) const;
    Slot &At(uint64_t key, size_t probe) const;

    std::unique_ptr<Slot[]> slots_;
};

}  // namespace device::fplane
