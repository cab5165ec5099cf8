// Topology files: what is accepted and how refusals name their place.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "devm.h"
#include "plat_world.hpp"

namespace {

std::string Refusal(const std::string &yaml)
{
    std::string error;
    const auto topology = plat::load_topology_text(yaml, &error);
    EXPECT_FALSE(topology.has_value()) << yaml;
    return error;
}

}  // namespace

TEST(Topology, FullFileIsRead)
{
    char path[] = "/tmp/topology-test-XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    std::ofstream(path) << "# a chassis\n"
                           "system:\n"
                           "  name: Edge-7\n"
                           "  mac: \"00:E0:fc:12:34:5a\"\n"
                           "  chassis: 2\n"
                           "  board: 4\n"
                           "  main-board: 1\n"
                           "  board-type: lpu\n"
                           "  ha-role: standby\n";
    std::string error;
    const auto topology = plat::load_topology_file(path, &error);
    unlink(path);
    ASSERT_TRUE(topology.has_value()) << error;
    const plat::SystemIdentity &sys = topology->system;
    EXPECT_EQ(sys.sysName, "Edge-7");
    EXPECT_EQ(sys.sysMac, (std::array<uint8_t, 6>{0x00, 0xe0, 0xfc, 0x12, 0x34, 0x5a}));
    EXPECT_EQ(sys.chassisId, 2U);
    EXPECT_EQ(sys.selfBoardId, 4U);
    EXPECT_EQ(sys.mainBoardId, 1U);
    EXPECT_EQ(sys.boardType, DEVM_BOARD_TYPE_LPU);
    EXPECT_EQ(topology->haRole, 2U);

    // Keys left out keep their defaults.
    const auto minimal = plat::load_topology_text("system:\n  name: S\n", &error);
    ASSERT_TRUE(minimal.has_value()) << error;
    EXPECT_EQ(minimal->system.chassisId, 1U);
    EXPECT_EQ(minimal->haRole, 1U);
}

TEST(Topology, RefusalsNameTheLineAndTheKey)
{
    struct Case {
        const char *yaml;
        const char *where;
        const char *what;
    };
    const Case cases[] = {
        {"system:\n  name: S\n  chassis: many\n", "topology:3:", "system.chassis"},
        {"system:\n  board: -1\n", "topology:2:", "system.board"},
        {"system:\n  main-board: 4294967296\n", "topology:2:", "system.main-board"},
        {"system:\n  name: S\n  colour: red\n", "topology:3:", "unknown key"},
        {"system:\n  mac: 00:e0:fc:12:34\n", "topology:2:", "system.mac"},
        {"system:\n  mac: \"00-e0-fc-12-34-56\"\n", "topology:2:", "system.mac"},
        {"system:\n  board-type: rack\n", "topology:2:", "box | mpu | lpu"},
        {"system:\n  ha-role: boss\n", "topology:2:", "system.ha-role"},
        {"system:\n  chassis: 1\n  chassis: 2\n", "topology:3:", "given twice"},
        {"system:\n  chassis: [1, 2]\n", "topology:2:", "system.chassis"},
        {"system:\n  name: S\n  chassis: [1,\n", "topology:", ""},
        {"system:\n  name: S\n - x\n", "topology:3", ""},
        {"other:\n  name: S\n", "topology:1:", "other"},
        {"system: plain\n", "topology:1:", "system"},
        {"", "topology", "system"},
    };
    for (const Case &c : cases) {
        const std::string error = Refusal(c.yaml);
        EXPECT_NE(error.find(c.where), std::string::npos) << c.yaml << " -> " << error;
        EXPECT_NE(error.find(c.what), std::string::npos) << c.yaml << " -> " << error;
    }
    std::string error;
    EXPECT_FALSE(plat::load_topology_file("/nonexistent/topo.yaml", &error).has_value());
    EXPECT_NE(error.find("/nonexistent/topo.yaml"), std::string::npos) << error;
    EXPECT_FALSE(plat::load_topology_text("system: [", nullptr).has_value());  // no message wanted
}
