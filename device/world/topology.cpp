// Topology files: the YAML description of the switch the host builds.
//
//   system:
//     name: AccessSwitch-1        # system name
//     mac: "00:e0:fc:12:34:56"
//     chassis: 1
//     board: 1                    # this board
//     main-board: 1
//     board-type: box             # box | mpu | lpu
//     ha-role: master             # master | standby | slave
//   interfaces:                   # ports
//     - name: GigabitEthernet0/0/1
//       ifindex: 5
//       slot: 0                   # placement: slot, card, port (0..65535)
//       card: 0
//       port: 1
//       mode: access              # access | trunk
//       pvid: 100                 # 1..4094, also a member VLAN
//       vlans: [100, "200-210"]   # VLANs and ranges, or one of them
//       port-switch: true         # switched (layer-2) port; false: routed
//       description: subscriber line 1
//       on-board: true
//       netdev: eth1             # the Linux interface the port is bound to (live ports)
//   trunks:                       # link aggregations
//     - name: Eth-Trunk1
//       id: 1
//       ifindex: 100
//       members: [GigabitEthernet0/0/23, GigabitEthernet0/0/24]
//       mode: trunk               # and pvid, vlans, port-switch, description
//   isolation:
//     groups:                     # ports of a group are isolated from each other
//       - id: 7
//         members: [GigabitEthernet0/0/1, GigabitEthernet0/0/2]
//     access-pairs:               # the two ports are isolated both ways
//       - [GigabitEthernet0/0/3, GigabitEthernet0/0/4]
//   forwarding-plane:
//     punt-policing:              # discovery frames punted to the agent, frames a second
//       port: {rate: 100, burst: 200}     # each port without its own (interface key punt-policing)
//       global: {rate: 2000, burst: 4000} # the whole switch; "off": no limit
//     subscriber-table:
//       size: 65536               # entries at most; 0: no table
//       idle-timeout: 86400       # seconds without discovery before an entry goes; 0: never
//
// An interface may carry its own bucket: punt-policing: {rate: 1000, burst: 2000}
// or punt-policing: off. A bucket's burst defaults to twice its rate.
// Every key is optional except the system section itself, and name and
// ifindex of an interface, name, id and ifindex of a trunk, id of a group;
// an unknown key, a repeated key, a bad value, a name or ifIndex given
// twice or a name that no interface has is refused with a message naming
// the source, the line and the key. yaml-cpp reports syntax errors by exception; they
// are caught here and never leave the library.
#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>

#include "devm.h"
#include "device/world.hpp"

namespace {

// A refusal: where and what.
struct ParseError {
    std::string message;
};

std::string Where(const std::string &source, const YAML::Mark &mark)
{
    if (mark.line < 0) {
        return source;
    }
    return source + ":" + std::to_string(mark.line + 1);
}

[[noreturn]] void Refuse(const std::string &source, const YAML::Node &node, const std::string &key,
                         const std::string &problem)
{
    throw ParseError{Where(source, node.Mark()) + ": " + key + ": " + problem};
}

std::string ScalarOf(const std::string &source, const YAML::Node &node, const std::string &key)
{
    if (!node.IsScalar()) {
        Refuse(source, node, key, "expected a single value");
    }
    return node.Scalar();
}

uint32_t NumberOf(const std::string &source, const YAML::Node &node, const std::string &key)
{
    const std::string text = ScalarOf(source, node, key);
    uint32_t value = 0;
    const char *end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, value);
    if (text.empty() || ec != std::errc() || ptr != end) {
        Refuse(source, node, key, "expected a whole number from 0 to 4294967295, got '" + text + "'");
    }
    return value;
}

std::array<uint8_t, 6> MacOf(const std::string &source, const YAML::Node &node, const std::string &key)
{
    const std::string text = ScalarOf(source, node, key);
    std::array<uint8_t, 6> mac{};
    bool ok = text.size() == 17;
    for (size_t i = 0; ok && i < mac.size(); i++) {
        const char *part = text.data() + i * 3;
        if (i + 1 < mac.size() && part[2] != ':') {
            ok = false;
            break;
        }
        const auto [ptr, ec] = std::from_chars(part, part + 2, mac[i], 16);
        ok = ec == std::errc() && ptr == part + 2;
    }
    if (!ok) {
        Refuse(source, node, key, "expected a MAC address like 00:e0:fc:12:34:56, got '" + text + "'");
    }
    return mac;
}

template <size_t N>
uint32_t ChoiceOf(const std::string &source, const YAML::Node &node, const std::string &key,
                  const std::array<std::pair<const char *, uint32_t>, N> &choices)
{
    const std::string text = ScalarOf(source, node, key);
    std::string allowed;
    for (const auto &[name, value] : choices) {
        if (text == name) {
            return value;
        }
        allowed += allowed.empty() ? name : std::string(" | ") + name;
    }
    Refuse(source, node, key, "expected " + allowed + ", got '" + text + "'");
}

void ParseSystem(const std::string &source, const YAML::Node &system, platform::Topology &topology)
{
    if (!system.IsMap()) {
        Refuse(source, system, "system", "expected a section of keys");
    }
    static constexpr std::array<std::pair<const char *, uint32_t>, 6> kBoardTypes = {{{"box", DEVM_BOARD_TYPE_BOX},
                                                                                      {"mpu", DEVM_BOARD_TYPE_MPU},
                                                                                      {"lpu", DEVM_BOARD_TYPE_LPU},
                                                                                      {"sfu", DEVM_BOARD_TYPE_SFU},
                                                                                      {"spu-ctl", DEVM_BOARD_TYPE_SPU_CTL},
                                                                                      {"spu-fwd", DEVM_BOARD_TYPE_SPU_FWD}}};
    static constexpr std::array<std::pair<const char *, uint32_t>, 3> kHaRoles = {
        {{"master", 1}, {"standby", 2}, {"slave", 3}}};
    platform::SystemIdentity &sys = topology.system;
    std::set<std::string> seen;
    for (auto it = system.begin(); it != system.end(); ++it) {
        const std::string name = ScalarOf(source, it->first, "system key");
        const std::string key = "system." + name;
        const YAML::Node value = it->second;
        if (!seen.insert(name).second) {
            Refuse(source, it->first, key, "given twice");
        }
        if (name == "name") {
            sys.sysName = ScalarOf(source, value, key);
            if (sys.sysName.empty()) {
                Refuse(source, value, key, "must not be empty");
            }
        } else if (name == "mac") {
            sys.sysMac = MacOf(source, value, key);
        } else if (name == "chassis") {
            sys.chassisId = NumberOf(source, value, key);
        } else if (name == "board") {
            sys.selfBoardId = NumberOf(source, value, key);
        } else if (name == "main-board") {
            sys.mainBoardId = NumberOf(source, value, key);
        } else if (name == "board-type") {
            sys.boardType = ChoiceOf(source, value, key, kBoardTypes);
        } else if (name == "ha-role") {
            topology.haRole = ChoiceOf(source, value, key, kHaRoles);
        } else {
            Refuse(source, it->first, key, "unknown key");
        }
    }
}

uint32_t RangedOf(const std::string &source, const YAML::Node &node, const std::string &key, uint32_t low,
                  uint32_t high)
{
    const std::string text = ScalarOf(source, node, key);
    uint32_t value = 0;
    const char *end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, value);
    if (text.empty() || ec != std::errc() || ptr != end || value < low || value > high) {
        Refuse(source, node, key,
               "expected a whole number from " + std::to_string(low) + " to " + std::to_string(high) + ", got '" +
                   text + "'");
    }
    return value;
}

bool BoolOf(const std::string &source, const YAML::Node &node, const std::string &key)
{
    static constexpr std::array<std::pair<const char *, uint32_t>, 4> kBools = {
        {{"true", 1}, {"false", 0}, {"yes", 1}, {"no", 0}}};
    return ChoiceOf(source, node, key, kBools) != 0;
}

constexpr uint32_t kRateMax = 10000000;   // frames a second, and frames of a burst

// A punt bucket: "off", or {rate: R, burst: B} with burst twice the rate
// when not given.
platform::PuntRate PuntRateOf(const std::string &source, const YAML::Node &node, const std::string &key)
{
    if (node.IsScalar() && node.Scalar() == "off") {
        return {};
    }
    if (!node.IsMap()) {
        Refuse(source, node, key, "expected off or {rate: R, burst: B}");
    }
    platform::PuntRate r;
    std::set<std::string> seen;
    for (auto it = node.begin(); it != node.end(); ++it) {
        const std::string name = ScalarOf(source, it->first, key + " key");
        if (!seen.insert(name).second) {
            Refuse(source, it->first, key + "." + name, "given twice");
        }
        if (name == "rate") {
            r.rate = RangedOf(source, it->second, key + ".rate", 1, kRateMax);
        } else if (name == "burst") {
            r.burst = RangedOf(source, it->second, key + ".burst", 1, kRateMax);
        } else {
            Refuse(source, it->first, key + "." + name, "unknown key");
        }
    }
    if (seen.count("rate") == 0) {
        Refuse(source, node, key, "missing key 'rate'");
    }
    if (seen.count("burst") == 0) {
        r.burst = std::min(kRateMax, r.rate * 2);
    }
    return r;
}

// Keys of a section, each once, through fn(name, key, value); an unknown
// one is refused by fn returning false.
template <typename Fn>
void ForEachKey(const std::string &source, const YAML::Node &section, const std::string &what, Fn fn)
{
    if (!section.IsMap()) {
        Refuse(source, section, what, "expected a section of keys");
    }
    std::set<std::string> seen;
    for (auto it = section.begin(); it != section.end(); ++it) {
        const std::string name = ScalarOf(source, it->first, what + " key");
        const std::string key = what + "." + name;
        if (!seen.insert(name).second) {
            Refuse(source, it->first, key, "given twice");
        }
        if (!fn(name, key, it->second)) {
            Refuse(source, it->first, key, "unknown key");
        }
    }
}

void ParsePlane(const std::string &source, const YAML::Node &plane, platform::PlaneSettings &settings)
{
    ForEachKey(source, plane, "forwarding-plane", [&](const std::string &name, const std::string &key,
                                                      const YAML::Node &value) {
        if (name == "punt-policing") {
            ForEachKey(source, value, key, [&](const std::string &which, const std::string &k, const YAML::Node &v) {
                if (which != "port" && which != "global") {
                    return false;
                }
                (which == "port" ? settings.policing.port : settings.policing.global) = PuntRateOf(source, v, k);
                return true;
            });
        } else if (name == "subscriber-table") {
            ForEachKey(source, value, key, [&](const std::string &which, const std::string &k, const YAML::Node &v) {
                if (which == "size") {
                    settings.subscribers.size = RangedOf(source, v, k, 0, kRateMax);
                } else if (which == "idle-timeout") {
                    settings.subscribers.idleSeconds = NumberOf(source, v, k);
                } else {
                    return false;
                }
                return true;
            });
        } else {
            return false;
        }
        return true;
    });
}

constexpr uint32_t kVlanMin = 1;
constexpr uint32_t kVlanMax = 4094;

// One VLAN ("100") or a range ("100-110") into the map.
void AddVlanItem(const std::string &source, const YAML::Node &node, const std::string &key,
                 platform::PortVlanRecord &map)
{
    const std::string text = ScalarOf(source, node, key);
    const size_t dash = text.find('-');
    auto number = [&](const std::string &part, uint32_t *out) {
        const char *end = part.data() + part.size();
        const auto [ptr, ec] = std::from_chars(part.data(), end, *out);
        return !part.empty() && ec == std::errc() && ptr == end && *out >= kVlanMin && *out <= kVlanMax;
    };
    uint32_t first = 0;
    uint32_t last = 0;
    const bool ok = dash == std::string::npos
                        ? number(text, &first) && ((last = first), true)
                        : number(text.substr(0, dash), &first) && number(text.substr(dash + 1), &last) && first <= last;
    if (!ok) {
        Refuse(source, node, key, "expected a VLAN from 1 to 4094 or a range like 100-110, got '" + text + "'");
    }
    for (uint32_t v = first; v <= last; v++) {
        map.Add(static_cast<uint16_t>(v));
    }
}

void AddVlans(const std::string &source, const YAML::Node &node, const std::string &key, platform::PortVlanRecord &map)
{
    if (node.IsSequence()) {
        for (const YAML::Node &item : node) {
            AddVlanItem(source, item, key, map);
        }
    } else {
        AddVlanItem(source, node, key, map);
    }
}

// An interface or trunk entry while the file is read: its record, its VLAN
// map and, for a trunk, the member names still to resolve.
struct Entry {
    platform::IfRecord record;
    platform::PortVlanRecord vlans;
    std::string netdev;          // interfaces only
    std::optional<platform::PuntRate> punt;   // interfaces only: its own punt bucket
    YAML::Node members;          // trunks only
    YAML::Node mark;
};

// Keys an interface and a trunk share; false when name is none of them.
bool ParseCommonKey(const std::string &source, const std::string &name, const std::string &key,
                    const YAML::Node &value, Entry &entry)
{
    static constexpr std::array<std::pair<const char *, uint32_t>, 2> kModes = {{{"access", 0}, {"trunk", 1}}};
    platform::IfRecord &r = entry.record;
    if (name == "name") {
        r.name = ScalarOf(source, value, key);
        if (r.name.empty()) {
            Refuse(source, value, key, "must not be empty");
        }
    } else if (name == "ifindex") {
        r.ifIndex = RangedOf(source, value, key, 1, 0xFFFFFFFEU);
    } else if (name == "mode") {
        r.trunkMode = ChoiceOf(source, value, key, kModes) != 0;
    } else if (name == "pvid") {
        r.pvid = static_cast<uint16_t>(RangedOf(source, value, key, kVlanMin, kVlanMax));
    } else if (name == "vlans") {
        AddVlans(source, value, key, entry.vlans);
    } else if (name == "port-switch") {
        r.portSwitch = BoolOf(source, value, key) ? platform::kPortSwitchL2 : platform::kPortSwitchL3;
    } else if (name == "description") {
        r.description = ScalarOf(source, value, key);
    } else {
        return false;
    }
    return true;
}

void RequireKeys(const std::string &source, const YAML::Node &node, const std::string &what,
                 const std::set<std::string> &seen, std::initializer_list<const char *> required)
{
    for (const char *name : required) {
        if (seen.count(name) == 0) {
            Refuse(source, node, what, std::string("missing key '") + name + "'");
        }
    }
}

Entry ParseInterface(const std::string &source, const YAML::Node &node, size_t index)
{
    const std::string what = "interfaces[" + std::to_string(index) + "]";
    if (!node.IsMap()) {
        Refuse(source, node, what, "expected a section of keys");
    }
    Entry entry;
    entry.mark = node;
    std::set<std::string> seen;
    for (auto it = node.begin(); it != node.end(); ++it) {
        const std::string name = ScalarOf(source, it->first, what + " key");
        const std::string key = what + "." + name;
        const YAML::Node value = it->second;
        if (!seen.insert(name).second) {
            Refuse(source, it->first, key, "given twice");
        }
        platform::IfRecord &r = entry.record;
        if (ParseCommonKey(source, name, key, value, entry)) {
            continue;
        }
        if (name == "slot") {
            r.slot = NumberOf(source, value, key);
        } else if (name == "card") {
            r.card = NumberOf(source, value, key);
        } else if (name == "port") {
            r.port = static_cast<uint16_t>(RangedOf(source, value, key, 0, 0xFFFF));
        } else if (name == "on-board") {
            r.onBoard = BoolOf(source, value, key);
        } else if (name == "netdev") {
            entry.netdev = ScalarOf(source, value, key);
            if (entry.netdev.empty()) {
                Refuse(source, value, key, "must not be empty");
            }
        } else if (name == "punt-policing") {
            entry.punt = PuntRateOf(source, value, key);
        } else {
            Refuse(source, it->first, key, "unknown key");
        }
    }
    RequireKeys(source, node, what, seen, {"name", "ifindex"});
    return entry;
}

Entry ParseTrunk(const std::string &source, const YAML::Node &node, size_t index)
{
    const std::string what = "trunks[" + std::to_string(index) + "]";
    if (!node.IsMap()) {
        Refuse(source, node, what, "expected a section of keys");
    }
    Entry entry;
    entry.mark = node;
    std::set<std::string> seen;
    for (auto it = node.begin(); it != node.end(); ++it) {
        const std::string name = ScalarOf(source, it->first, what + " key");
        const std::string key = what + "." + name;
        const YAML::Node value = it->second;
        if (!seen.insert(name).second) {
            Refuse(source, it->first, key, "given twice");
        }
        if (ParseCommonKey(source, name, key, value, entry)) {
            continue;
        }
        if (name == "id") {
            entry.record.lagId = RangedOf(source, value, key, 0, 0xFFFFFFFEU);
        } else if (name == "members") {
            if (!value.IsSequence()) {
                Refuse(source, value, key, "expected a list of interface names");
            }
            entry.members = value;
        } else {
            Refuse(source, it->first, key, "unknown key");
        }
    }
    RequireKeys(source, node, what, seen, {"name", "id", "ifindex"});
    return entry;
}

// Resolves names to the interfaces read so far.
class Interfaces {
public:
    void Add(const std::string &source, const std::string &what, Entry entry)
    {
        if (byName_.count(entry.record.name) != 0) {
            Refuse(source, entry.mark["name"], what + ".name", "'" + entry.record.name + "' given twice");
        }
        for (const Entry &e : entries_) {
            if (e.record.ifIndex == entry.record.ifIndex) {
                Refuse(source, entry.mark["ifindex"], what + ".ifindex",
                       std::to_string(entry.record.ifIndex) + " given twice");
            }
        }
        byName_[entry.record.name] = entries_.size();
        entries_.push_back(std::move(entry));
    }

    Entry &Named(const std::string &source, const YAML::Node &node, const std::string &key)
    {
        const std::string name = ScalarOf(source, node, key);
        const auto it = byName_.find(name);
        if (it == byName_.end()) {
            Refuse(source, node, key, "no interface named '" + name + "'");
        }
        return entries_[it->second];
    }

    std::vector<Entry> &All() { return entries_; }

private:
    std::vector<Entry> entries_;
    std::map<std::string, size_t> byName_;
};

template <typename Fn>
void ForEachItem(const std::string &source, const YAML::Node &list, const std::string &key, Fn fn)
{
    if (!list.IsSequence()) {
        Refuse(source, list, key, "expected a list");
    }
    size_t index = 0;
    for (const YAML::Node &item : list) {
        fn(item, index++);
    }
}

void ParseIsolation(const std::string &source, const YAML::Node &isolation, Interfaces &ifs, platform::Topology &topology)
{
    if (!isolation.IsMap()) {
        Refuse(source, isolation, "isolation", "expected a section of keys");
    }
    std::set<std::string> seen;
    for (auto it = isolation.begin(); it != isolation.end(); ++it) {
        const std::string name = ScalarOf(source, it->first, "isolation key");
        const std::string key = "isolation." + name;
        if (!seen.insert(name).second) {
            Refuse(source, it->first, key, "given twice");
        }
        if (name == "groups") {
            ForEachItem(source, it->second, key, [&](const YAML::Node &group, size_t index) {
                const std::string what = key + "[" + std::to_string(index) + "]";
                if (!group.IsMap()) {
                    Refuse(source, group, what, "expected a section of keys");
                }
                for (auto g = group.begin(); g != group.end(); ++g) {
                    const std::string gname = ScalarOf(source, g->first, what + " key");
                    if (gname != "id" && gname != "members") {
                        Refuse(source, g->first, what + "." + gname, "unknown key");
                    }
                }
                if (!group["id"]) {
                    Refuse(source, group, what, "missing key 'id'");
                }
                const uint32_t id = NumberOf(source, group["id"], what + ".id");
                if (group["members"]) {
                    ForEachItem(source, group["members"], what + ".members", [&](const YAML::Node &m, size_t) {
                        const Entry &port = ifs.Named(source, m, what + ".members");
                        topology.portIsolation.push_back({port.record.ifIndex, id});
                    });
                }
            });
        } else if (name == "access-pairs") {
            ForEachItem(source, it->second, key, [&](const YAML::Node &pair, size_t index) {
                const std::string what = key + "[" + std::to_string(index) + "]";
                if (!pair.IsSequence() || pair.size() != 2) {
                    Refuse(source, pair, what, "expected a pair of interface names [a, b]");
                }
                const uint32_t a = ifs.Named(source, pair[0], what).record.ifIndex;
                const uint32_t b = ifs.Named(source, pair[1], what).record.ifIndex;
                topology.accessIsolation.push_back({a, 0, b});
                topology.accessIsolation.push_back({b, 0, a});
            });
        } else {
            Refuse(source, it->first, key, "unknown key");
        }
    }
}

// Interfaces and trunks into the topology's tables, members resolved.
void ResolveTrunks(const std::string &source, Interfaces &ifs, platform::Topology &topology)
{
    std::set<uint32_t> trunkIds;
    for (Entry &trunk : ifs.All()) {
        if (trunk.record.lagId == platform::kNoId) {
            continue;
        }
        if (!trunkIds.insert(trunk.record.lagId).second) {
            Refuse(source, trunk.mark["id"], "trunks.id", std::to_string(trunk.record.lagId) + " given twice");
        }
        topology.trunks.push_back({trunk.record.lagId, trunk.record.ifIndex});
        if (!trunk.members.IsSequence()) {
            continue;
        }
        const std::string key = "trunks(" + trunk.record.name + ").members";
        for (const YAML::Node &m : trunk.members) {
            Entry &member = ifs.Named(source, m, key);
            if (member.record.lagId != platform::kNoId) {
                Refuse(source, m, key, "'" + member.record.name + "' is a trunk");
            }
            if (member.record.l2TrunkId != platform::kNoId) {
                Refuse(source, m, key, "'" + member.record.name + "' is a member of another trunk");
            }
            member.record.l2TrunkId = trunk.record.lagId;
            topology.trunkPorts.push_back({member.record.ifIndex, trunk.record.ifIndex});
        }
    }
}

std::optional<platform::Topology> Parse(const std::string &source, const std::string &text, std::string *error)
{
    try {
        const YAML::Node root = YAML::Load(text);
        if (!root.IsMap()) {
            throw ParseError{source + ": expected a 'system' section"};
        }
        platform::Topology topology;
        std::set<std::string> seen;
        YAML::Node isolation;
        Interfaces ifs;
        for (auto it = root.begin(); it != root.end(); ++it) {
            const std::string name = ScalarOf(source, it->first, "top-level key");
            if (name != "system" && name != "interfaces" && name != "trunks" && name != "isolation" &&
                name != "forwarding-plane") {
                Refuse(source, it->first, name, "unknown key");
            }
            if (!seen.insert(name).second) {
                Refuse(source, it->first, name, "given twice");
            }
            if (name == "system") {
                ParseSystem(source, it->second, topology);
            } else if (name == "interfaces") {
                ForEachItem(source, it->second, name, [&](const YAML::Node &item, size_t index) {
                    ifs.Add(source, "interfaces[" + std::to_string(index) + "]", ParseInterface(source, item, index));
                });
            } else if (name == "trunks") {
                ForEachItem(source, it->second, name, [&](const YAML::Node &item, size_t index) {
                    ifs.Add(source, "trunks[" + std::to_string(index) + "]", ParseTrunk(source, item, index));
                });
            } else if (name == "forwarding-plane") {
                ParsePlane(source, it->second, topology.plane);
            } else {
                isolation = it->second;  // after every interface is known
            }
        }
        if (seen.count("system") == 0) {
            throw ParseError{source + ": expected a 'system' section"};
        }
        ResolveTrunks(source, ifs, topology);
        if (seen.count("isolation") != 0) {
            ParseIsolation(source, isolation, ifs, topology);
        }
        for (Entry &entry : ifs.All()) {
            entry.vlans.ifIndex = entry.record.ifIndex;
            entry.vlans.Add(entry.record.pvid);
            topology.interfaces.push_back(entry.record);
            topology.portVlans.push_back(entry.vlans);
            if (!entry.netdev.empty()) {
                topology.netdevs[entry.record.ifIndex] = entry.netdev;
            }
            if (entry.punt) {
                topology.plane.policing.ports[entry.record.ifIndex] = *entry.punt;
            }
        }
        return topology;
    } catch (const ParseError &e) {
        if (error != nullptr) {
            *error = e.message;
        }
    } catch (const YAML::Exception &e) {
        if (error != nullptr) {
            *error = Where(source, e.mark) + ": " + e.msg;
        }
    } catch (const std::exception &e) {
        if (error != nullptr) {
            *error = source + ": " + e.what();
        }
    }
    return std::nullopt;
}

}  // namespace

namespace device::world {

using platform::Topology;

std::optional<Topology> LoadTopologyFile(const std::string &path, std::string *error)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        if (error != nullptr) {
            *error = path + ": cannot read the topology file: " + std::strerror(errno);
        }
        return std::nullopt;
    }
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) {
        if (error != nullptr) {
            *error = path + ": cannot read the topology file";
        }
        return std::nullopt;
    }
    return Parse(path, text.str(), error);
}

std::optional<Topology> LoadTopologyText(const std::string &yaml, std::string *error)
{
    return Parse("topology", yaml, error);
}

}  // namespace device::world
