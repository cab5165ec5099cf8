// Topology files: what is accepted and how refusals name their place.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "device/world.hpp"
#include "devm.h"

namespace {

std::string Refusal(const std::string &yaml)
{
    std::string error;
    const auto topology = device::world::LoadTopologyText(yaml, &error);
    EXPECT_FALSE(topology.has_value()) << yaml;
    return error;
}

// What f picks from each record, in order.
template <typename Record, typename F>
auto Each(const std::vector<Record> &records, F f)
{
    std::vector<decltype(f(records.front()))> picked;
    for (const Record &r : records) {
        picked.push_back(f(r));
    }
    return picked;
}

using Pairs = std::vector<std::pair<uint32_t, uint32_t>>;

}  // namespace

TEST(Topology, RefusalsNameTheLineAndTheKey)
{
    struct Case {
        std::string yaml;
        const char *where;
        const char *what;
    };
    const std::string sys = "system:\n  name: S\n";
    const Case cases[] = {
        {"system:\n  name: S\n  chassis: many\n", "topology:3:", "system.chassis"},
        {"system:\n  main-board: 4294967296\n", "topology:2:", "system.main-board"},
        {"system:\n  name: S\n  colour: red\n", "topology:3:", "unknown key"},
        {"system:\n  mac: 00:e0:fc:12:34\n", "topology:2:", "system.mac"},
        {"system:\n  board-type: rack\n", "topology:2:", "box | mpu | lpu"},
        {"system:\n  chassis: 1\n  chassis: 2\n", "topology:3:", "given twice"},
        {"system:\n  chassis: [1, 2]\n", "topology:2:", "system.chassis"},
        {"system:\n  name: S\n  chassis: [1,\n", "topology:", ""},
        {"other:\n  name: S\n", "topology:1:", "other"},
        {"system: plain\n", "topology:1:", "system"},
        {"", "topology", "system"},
        // Switching sections.
        {sys + "interfaces:\n  - {name: A, ifindex: 5, port: 70000}\n", "topology:4:", "interfaces[0].port"},
        {sys + "interfaces:\n  - {name: A}\n", "topology:4:", "missing key 'ifindex'"},
        {sys + "interfaces:\n  - {name: A, ifindex: 5}\n  - {name: A, ifindex: 6}\n", "topology:5:", "'A' given twice"},
        {sys + "interfaces:\n  - {name: A, ifindex: 5}\n  - {name: B, ifindex: 5}\n",
         "topology:5:", "interfaces[1].ifindex"},
        {sys + "interfaces:\n  - {name: A, ifindex: 5,\n     vlans: [\"110-100\"]}\n",
         "topology:5:", "interfaces[0].vlans"},
        {sys + "interfaces:\n  - {name: A, ifindex: 5, vlans: 4095}\n", "topology:4:", "interfaces[0].vlans"},
        {sys + "interfaces:\n  - {name: A, ifindex: 5, pvid: 0}\n", "topology:4:", "interfaces[0].pvid"},
        {sys + "interfaces: {name: A}\n", "topology:3:", "expected a list"},
        {sys + "trunks:\n  - {name: T, id: 1, ifindex: 9,\n     members: [Nope]}\n",
         "topology:5:", "no interface named 'Nope'"},
        {sys + "interfaces:\n  - {name: A, ifindex: 5}\ntrunks:\n  - {name: T, id: 1, ifindex: 9, members: [A]}\n"
               "  - {name: U, id: 2, ifindex: 10, members: [A]}\n",
         "topology:7:", "another trunk"},
        {sys + "trunks:\n  - {name: T, id: 1, ifindex: 9, netdev: eth0}\n",
         "topology:4:", "trunks[0].netdev: unknown key"},
        {sys + "interfaces:\n  - {name: A, ifindex: 5, netdev: \"\"}\n", "topology:4:", "interfaces[0].netdev"},
        {sys + "isolation:\n  groups:\n    - {id: 7, members: [Ghost]}\n", "topology:5:", "no interface named 'Ghost'"},
        {sys + "interfaces:\n  - {name: A, ifindex: 5}\nisolation:\n  access-pairs:\n    - [A]\n",
         "topology:7:", "pair"},
        // The forwarding plane's section and an interface's policing.
        {sys + "forwarding-plane: {punt-policing: {port: {rate: 0}}}\n",
         "topology:", "forwarding-plane.punt-policing.port.rate"},
        {sys + "forwarding-plane: {punt-policing: {port: {burst: 5}}}\n", "topology:", "missing key 'rate'"},
        {sys + "forwarding-plane: {punt-policing: {global: fast}}\n",
         "topology:", "expected off or {rate: R, burst: B}"},
        {sys + "forwarding-plane: {subscriber-table: {size: many}}\n",
         "topology:", "forwarding-plane.subscriber-table.size"},
        {sys + "interfaces:\n  - {name: A, ifindex: 5, punt-policing: {rate: 5, colour: red}}\n",
         "topology:", "interfaces[0].punt-policing.colour: unknown key"},
    };
    for (const Case &c : cases) {
        const std::string error = Refusal(c.yaml);
        EXPECT_NE(error.find(c.where), std::string::npos) << c.yaml << " -> " << error;
        EXPECT_NE(error.find(c.what), std::string::npos) << c.yaml << " -> " << error;
    }
    std::string error;
    EXPECT_FALSE(device::world::LoadTopologyFile("/nonexistent/topo.yaml", &error).has_value());
    EXPECT_NE(error.find("/nonexistent/topo.yaml"), std::string::npos) << error;
    EXPECT_FALSE(device::world::LoadTopologyText("system: [", nullptr).has_value());  // no message wanted
}

// Reading the file itself is the host's (the e2e suites start it on the
// example topology).
TEST(Topology, FullTopologyFillsTheTables)
{
    std::string error;
    const auto topology = device::world::LoadTopologyText(
        "# a chassis\n"
        "system:\n"
        "  name: S\n"
        "  mac: \"00:E0:fc:12:34:5a\"\n"
        "  chassis: 2\n"
        "  board: 4\n"
        "  main-board: 1\n"
        "  board-type: lpu\n"
        "  ha-role: standby\n"
        "trunks:\n"
        "  - {name: Eth-Trunk1, id: 1, ifindex: 100, members: [Gi3, Gi4],"
        " mode: trunk, vlans: [\"200-202\"]}\n"
        "interfaces:\n"
        "  - {name: Gi1, ifindex: 5, slot: 1, card: 2, port: 65535,"
        " pvid: 100, vlans: 4094, description: line one}\n"
        "  - {name: Gi2, ifindex: 6, port-switch: false, on-board: false}\n"
        "  - {name: Gi3, ifindex: 7, netdev: eth3}\n"
        "  - {name: Gi4, ifindex: 8}\n"
        "isolation:\n"
        "  groups:\n"
        "    - {id: 7, members: [Gi1, Gi2]}\n"
        "  access-pairs:\n"
        "    - [Gi1, Gi3]\n",
        &error);
    ASSERT_TRUE(topology.has_value()) << error;
    const platform::SystemIdentity &sys = topology->system;
    EXPECT_EQ(std::tie(sys.sysName, sys.chassisId, sys.selfBoardId, sys.mainBoardId, sys.boardType, topology->haRole),
              std::make_tuple("S", 2U, 4U, 1U, DEVM_BOARD_TYPE_LPU, 2U));
    EXPECT_EQ(sys.sysMac, (std::array<uint8_t, 6>{0x00, 0xe0, 0xfc, 0x12, 0x34, 0x5a}));
    // Name, own trunk id, trunk it is a member of, switching, on board.
    using Role = std::tuple<std::string, uint32_t, uint32_t, uint32_t, bool>;
    const auto roles = Each(topology->interfaces, [](const auto &r) {
        return Role{r.name, r.lagId, r.l2TrunkId, r.portSwitch, r.onBoard};
    });
    const uint32_t none = platform::kNoId;
    const uint32_t l2 = platform::kPortSwitchL2;
    EXPECT_EQ(roles, (std::vector<Role>{{"Eth-Trunk1", 1, none, l2, true},
                                        {"Gi1", none, none, l2, true},
                                        {"Gi2", none, none, platform::kPortSwitchL3, false},
                                        {"Gi3", none, 1, l2, true},
                                        {"Gi4", none, 1, l2, true}}));
    const platform::IfRecord &gi1 = topology->interfaces[1];
    EXPECT_EQ(std::tie(gi1.slot, gi1.card, gi1.port, gi1.description),
              std::make_tuple(1U, 2U, uint16_t{65535}, "line one"));
    EXPECT_EQ(topology->netdevs, (std::map<uint32_t, std::string>{{7, "eth3"}})) << "a trunk member bound to a netdev";

    ASSERT_EQ(topology->trunks.size(), 1U);
    EXPECT_EQ(std::tie(topology->trunks[0].trunkId, topology->trunks[0].trunkIfIndex), std::make_tuple(1U, 100U));
    // Member -> trunk interface.
    EXPECT_EQ(Each(topology->trunkPorts, [](const auto &r) { return std::pair(r.memberIfIndex, r.trunkIfIndex); }),
              (Pairs{{7, 100}, {8, 100}}));

    // Maps: the listed VLANs and the pvid (1 when not given).
    ASSERT_EQ(topology->portVlans.size(), 5U);
    const platform::PortVlanRecord &trunkVlans = topology->portVlans[0];
    EXPECT_TRUE(trunkVlans.Has(200) && trunkVlans.Has(201) && trunkVlans.Has(202) && trunkVlans.Has(1));
    EXPECT_FALSE(trunkVlans.Has(203));
    const platform::PortVlanRecord &gi1Vlans = topology->portVlans[1];
    EXPECT_EQ(gi1Vlans.ifIndex, 5U);
    EXPECT_TRUE(gi1Vlans.Has(100) && gi1Vlans.Has(4094));
    EXPECT_FALSE(gi1Vlans.Has(1));

    // Port -> group; access pairs both ways.
    EXPECT_EQ(Each(topology->portIsolation, [](const auto &r) { return std::pair(r.ifIndex, r.groupId); }),
              (Pairs{{5, 7}, {6, 7}}));
    EXPECT_EQ(Each(topology->accessIsolation, [](const auto &r) { return std::pair(r.srcIfIndex, r.dstIfIndex); }),
              (Pairs{{5, 7}, {7, 5}}));

    // Installed, the world answers with it.
    platform::world::ApplyTopology(*topology);
    EXPECT_EQ(platform::world::IfRecords().size(), 5U);
    EXPECT_EQ(platform::world::Identity().sysName, "S");
    platform::world::Reset();
    EXPECT_TRUE(platform::world::IfRecords().empty());
}

TEST(Topology, PlaneSectionSetsPuntPolicingAndTheSubscriberTable)
{
    std::string error;
    const auto defaults = device::world::LoadTopologyText("system: {name: S}\n", &error);
    ASSERT_TRUE(defaults) << error;
    // Keys left out keep their defaults.
    EXPECT_EQ(std::tie(defaults->system.chassisId, defaults->haRole), std::make_tuple(1U, 1U));
    EXPECT_EQ(defaults->plane.policing.port, (platform::PuntRate{100, 200}));
    EXPECT_EQ(defaults->plane.policing.global, (platform::PuntRate{2000, 4000}));
    EXPECT_EQ(defaults->plane.subscribers.size, 65536U);

    const auto set = device::world::LoadTopologyText(
        "system: {name: S}\n"
        "interfaces:\n"
        "  - {name: A, ifindex: 5, punt-policing: {rate: 7}}\n"
        "  - {name: B, ifindex: 6, punt-policing: off}\n"
        "forwarding-plane:\n"
        "  punt-policing: {port: {rate: 10, burst: 15}, global: off}\n"
        "  subscriber-table: {size: 0, idle-timeout: 30}\n",
        &error);
    ASSERT_TRUE(set) << error;
    EXPECT_EQ(set->plane.policing.port, (platform::PuntRate{10, 15}));
    EXPECT_FALSE(set->plane.policing.global.Limits());
    EXPECT_EQ(set->plane.policing.ports.at(5), (platform::PuntRate{7, 14})) << "burst defaults to twice the rate";
    EXPECT_FALSE(set->plane.policing.ports.at(6).Limits());
    EXPECT_EQ(std::tie(set->plane.subscribers.size, set->plane.subscribers.idleSeconds), std::make_tuple(0U, 30U));
}
