// The plane's table of subscribers, built from the discovery frames that go
// to the agent and come back from it, the way an access switch's PPPoE
// intermediate agent shows who is on which port: the client's MAC, port and
// VLANs, the access concentrator it chose, the session id of the PADS and
// the Circuit ID and Remote ID sent up on its behalf.
//
// A client is one (MAC, outer VLAN, inner VLAN). PADI and PADR on their way
// from a port to the agent create or refresh its entry there; PADO and PADS (either way)
// refresh only an entry that exists; the agent's PADI and PADR towards the
// concentrator give the Circuit ID and Remote ID; a PADT from either side
// removes the entry. Frames from or to group MACs are ignored.
//
// Bounded: at most the configured number of entries; a new client in a
// full table takes the place of the entry idle longest (counted as an
// eviction), and an entry idle for the configured time goes (counted as
// aged out) when its part of the table is next touched or read. The table
// is split into shards of their own lock, chosen by the client's key, so
// receiving threads meet only when their clients share a shard; order,
// eviction and ageing are per shard (a shard keeps capacity / shards
// entries), which with keys spread evenly is within a few entries of one
// table-wide order. Every operation costs O(1) besides reading the tags of
// the frame.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <span>
#include <unordered_map>
#include <vector>

#include "device/fplane.hpp"
#include "platform/world.hpp"

namespace device::fplane {

class SubscriberTable {
public:
    explicit SubscriberTable(const platform::SubscriberTableSettings &settings);
    ~SubscriberTable();
    SubscriberTable(const SubscriberTable &) = delete;
    SubscriberTable &operator=(const SubscriberTable &) = delete;

    bool Enabled() const { return capacity_ != 0; }

    // A discovery frame in the plane's internal form (its VLAN as the
    // outer tag) that entered port ifIndex, on its way to the agent.
    void Punted(uint32_t ifIndex, std::span<const uint8_t> frame);
    // A discovery frame the agent sent out of port ifIndex.
    void Sent(uint32_t ifIndex, std::span<const uint8_t> frame);

    // Every entry not aged out, by port, VLANs and MAC.
    std::vector<Subscriber> Entries() const;
    SubscriberTableStats Stats() const;

private:
    struct Shard;
    enum class Way { Punted, Sent };
    void Seen(Way way, uint32_t ifIndex, std::span<const uint8_t> frame);
    Shard &ShardOf(uint64_t key) const;

    size_t capacity_ = 0;
    uint32_t idleSeconds_ = 0;
    size_t shardCount_ = 0;
    std::unique_ptr<Shard[]> shards_;
};

}  // namespace device::fplane
