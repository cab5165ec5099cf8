// libFuzzer target: arbitrary text as a topology file. A finding is a
// sanitizer report, an exception leaving the loader, or a broken invariant
// (trap): a refusal always says why; an accepted topology names each
// interface and ifIndex once, its trunk records point at its own
// interfaces, and the world model takes it and reads back what it was given.
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>

#include "fuzz_support.hpp"
#include "device/world.hpp"
#include "platform/world.hpp"

using pplus_fuzz::Require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    std::string error;
    const auto topology = device::world::LoadTopologyText(text, &error);
    if (!topology) {
        Require(!error.empty());
        return 0;
    }
    std::set<std::string> names;
    std::set<uint32_t> ifIndexes;
    for (const platform::IfRecord &rec : topology->interfaces) {
        Require(names.insert(rec.name).second);
        Require(ifIndexes.insert(rec.ifIndex).second);
    }
    for (const platform::TrunkRecord &trunk : topology->trunks) {
        Require(ifIndexes.contains(trunk.trunkIfIndex));
    }
    for (const platform::TrunkPortRecord &member : topology->trunkPorts) {
        Require(ifIndexes.contains(member.memberIfIndex) && ifIndexes.contains(member.trunkIfIndex));
    }
    platform::world::ApplyTopology(*topology);
    Require(platform::world::IfRecords().size() == topology->interfaces.size());
    for (const platform::IfRecord &rec : topology->interfaces) {
        const auto found = platform::world::IfFind(rec.ifIndex);
        Require(found.has_value() && found->name == rec.name);
    }
    return 0;
}
