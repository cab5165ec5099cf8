// Interface and device lookups against a small switch in the world model.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "db.h"
#include "devm.h"
#include "module_fixture.hpp"
#include "platform/control.h"
#include "platform/world.hpp"
#include "pplus_test.hpp"
#include "pppoe_plus_intf.h"
#include "pppoe_plus_log.h"

using pplus_test::LogHas;

namespace {

constexpr uint32_t kNone = 0xFFFFFFFFU;

// Gi1 (5), Gi2 (6), Gi3 (7, routed), members Gi23 (27) and Gi24 (28) of
// trunk 3 = Eth-Trunk3 (100); Gi25 (29) claims trunk 4, which has no
// interface.
class IntfTest : public pplus_test::ModuleTest {
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        using platform::world::IfPut;
        IfPut({.name = "GigabitEthernet0/0/1", .ifIndex = 5, .card = 255, .port = 1});
        IfPut({.name = "GigabitEthernet0/0/2", .ifIndex = 6, .slot = 1, .card = 2, .port = 65535});
        IfPut({.name = "GigabitEthernet0/0/3", .ifIndex = 7, .port = 3, .portSwitch = platform::kPortSwitchL3});
        IfPut({.name = "GigabitEthernet0/0/23", .ifIndex = 27, .port = 23, .l2TrunkId = 3});
        IfPut({.name = "GigabitEthernet0/0/24", .ifIndex = 28, .port = 24, .l2TrunkId = 3});
        IfPut({.name = "GigabitEthernet0/0/25", .ifIndex = 29, .port = 25, .l2TrunkId = 4});
        IfPut({.name = "Eth-Trunk3", .ifIndex = 100, .lagId = 3});
        platform::world::TrunkPut({3, 100});
        platform::world::TrunkPortPut({27, 100});
        platform::world::TrunkPortPut({28, 100});
        ASSERT_EQ(PPPOE_PLUS_UpdateDebugSwitch(PPPOE_PLUS_DBG_ALL, 1), 0U);
        PLAT_LogClear();
        PLAT_CallCountReset();
    }

    // Every object created was released, whatever path was taken.
    static void ExpectAllReleased()
    {
        const std::pair<const char *, const char *> kinds[] = {
            {"db_create_if_object", "db_release_if_object"},
            {"db_create_trunk_obj", "db_release_trunk_obj"},
            {"db_create_trunk_port_obj", "db_release_trunk_port_obj"},
            {"db_create_port_vlan_map_obj", "db_release_port_vlan_map_obj"},
            {"db_create_access_isolate_obj", "db_release_access_isolate_obj"},
            {"db_create_port_isolate_obj", "db_release_port_isolate_obj"},
            {"db_create_sys_info_obj", "db_release_sys_info_obj"},
        };
        for (const auto &[create, release] : kinds) {
            EXPECT_EQ(PLAT_CallCount(create) - PLAT_FailHits(create), PLAT_CallCount(release)) << create;
        }
    }
};

bool DebugHas(const std::string &text)
{
    return LogHas(PLAT_LOG_DEBUG, text);
}

}  // namespace

TEST_F(IntfTest, NamesAndTrunkMembership)
{
    // A member is named by its trunk, or by itself when the trunk has no
    // interface: KeywordsNumbersAndTextInBothStretches (tlv_test.cpp). Its raw
    // name is its own.
    char name[64] = {};
    EXPECT_EQ(PPPOE_PLUS_GetIfNameRaw(27, name, sizeof(name)), 0U);
    EXPECT_STREQ(name, "GigabitEthernet0/0/23");
    EXPECT_EQ(PPPOE_PLUS_GetIfNameByIfIndex(29, name, sizeof(name)), 0U);
    EXPECT_TRUE(DebugHas("read trunk object failed, ret = 12290."));

    EXPECT_EQ(PPPOE_PLUS_GetIfNameByIfIndex(5, name, 8), 1U);
    EXPECT_TRUE(DebugHas("Fail to copy ifname(name=GigabitEthernet0/0/1, length=8)."));
    EXPECT_EQ(PPPOE_PLUS_GetIfNameRaw(999, name, sizeof(name)), DB_ERR_NO_RECORD);
    EXPECT_TRUE(DebugHas("read object failed, ret = 12290."));
    PLAT_FailSet("db_get_if_name", 0, 1, 77);
    EXPECT_EQ(PPPOE_PLUS_GetIfNameRaw(5, name, sizeof(name)), 77U);
    EXPECT_TRUE(DebugHas("db_get_if_name failed, ret = 77."));

    EXPECT_EQ(PPPOE_PLUS_GetTrunkIfIndex(5), kNone);
    EXPECT_EQ(PPPOE_PLUS_GetTrunkIfIndex(29), kNone);
    EXPECT_EQ(PPPOE_PLUS_GetTrunkIfIndex(999), kNone);
    EXPECT_TRUE(DebugHas("read if object failed, ret = 12290."));
    PLAT_FailSet("db_get_if_l2_trunk_id", 0, 1, 78);
    EXPECT_EQ(PPPOE_PLUS_GetIfL2TrunkId(27), kNone);
    EXPECT_TRUE(DebugHas("db_get_if_l2_trunk_id failed, ret = 78."));
    PLAT_FailSet("db_get_trunk_trunk_if_index", 0, 1, 79);
    EXPECT_EQ(PPPOE_PLUS_GetTrunkIfIndexByTrunkId(3), kNone);
    EXPECT_TRUE(DebugHas("db_get_trunk_trunk_if_index failed, ret = 79."));

    EXPECT_EQ(PPPOE_PLUS_IsTrunkIf(27), 0U);
    EXPECT_EQ(PPPOE_PLUS_IsTrunkIf(999), 0U);
    EXPECT_TRUE(DebugHas("Get trunk id, failed to read object, ret = 12290."));
    PLAT_FailSet("db_get_if_lag_id", 0, 1, 80);
    EXPECT_EQ(PPPOE_PLUS_IsTrunkIf(100), 0U);
    EXPECT_TRUE(DebugHas("Get trunk id, failed to get lag id, ret = 80."));

    // The name, the result and the id after it: a refused name leaves the id alone.
    const std::tuple<const char *, uint32_t, uint32_t> trunkNames[] = {
        {"Eth-Trunk10", 0, 10}, {"Trunk7a", 0, 7}, {"Eth-Trunk", 1, 7}, {"", 1, 7}, {"T99999999999", 1, 7}};
    uint32_t id = 0;
    for (const auto &[ifName, ret, after] : trunkNames) {
        EXPECT_EQ(PPPOE_PLUS_GetConfigTrunkIdByIfName(ifName, &id), ret) << ifName;
        EXPECT_EQ(id, after) << ifName;
    }
    ExpectAllReleased();
}

TEST_F(IntfTest, PlacementSystemNameAndSwitchedPort)
{
    // The result, then slot, card and port.
    auto placement = [](uint32_t ifIndex) {
        uint32_t slot = 9, card = 9, port = 9;
        const uint32_t ret = PPPOE_PLUS_GetIfSlotCardPort(ifIndex, &slot, &card, &port);
        return std::make_tuple(ret, slot, card, port);
    };
    EXPECT_EQ(placement(5), std::make_tuple(0U, 0U, 0U, 1U));  // card 255 reads as 0
    EXPECT_EQ(placement(6), std::make_tuple(0U, 1U, 2U, 65535U));
    EXPECT_TRUE(DebugHas("read if object, ifIndex = 6"));

    const std::pair<const char *, const char *> failures[] = {
        {"db_create_if_object", "db_create_if_object failed, ret = 81."},
        {"db_read_if_object", "read if object failed, ret = 81."},
        {"db_create_child_node", "db_create_child_node, ret = 81."},
        {"db_get_if_dev_slot_id", "db get slot id failed, ret = 81."},
        {"db_get_if_dev_card_id", "db get card id failed, ret = 81."},
        {"db_get_if_dev_port_num", "db get port id failed, ret = 81."},
    };
    for (const auto &[op, message] : failures) {
        PLAT_FailSet(op, 0, 1, 81);
        EXPECT_EQ(std::get<0>(placement(6)), 81U) << op;
        EXPECT_TRUE(DebugHas(message)) << message;
    }

    char sysName[PPPOE_PLUS_SYSNAME_LEN] = {};
    EXPECT_EQ(PPPOE_PLUS_GetSysName(sysName, 4), DB_ERR_BUF_SMALL);
    EXPECT_TRUE(DebugHas("Get sysname failed. ret:12292,inputSize:4,length:10"));
    PLAT_FailSet("db_read_sys_info_obj", 0, 1, 82);
    EXPECT_EQ(PPPOE_PLUS_GetSysName(sysName, sizeof(sysName)), 82U);

    // The routed Gi3 is skipped; with no switched port the output stays.
    uint32_t first = 0;
    platform::world::IfRemove(5);
    platform::world::IfRemove(6);
    EXPECT_EQ(PPPOE_PLUS_GetFirstSwitchPort(&first), 0U);
    EXPECT_EQ(first, 27U);
    first = 1234;
    for (uint32_t ifIndex : {27U, 28U, 29U, 100U}) {
        platform::world::IfRemove(ifIndex);
    }
    EXPECT_EQ(PPPOE_PLUS_GetFirstSwitchPort(&first), 0U);
    EXPECT_EQ(first, 1234U);
    PLAT_FailSet("db_create_root_iter", 0, 1, 83);
    EXPECT_EQ(PPPOE_PLUS_GetFirstSwitchPort(&first), 83U);
    EXPECT_TRUE(DebugHas("Failed to create rootIter. ret=83"));
    ExpectAllReleased();
}

TEST_F(IntfTest, VlanMembershipAndIsolation)
{
    platform::world::PortVlanSet(5, 4095, true);
    platform::world::PortVlanSet(5, 100, true);
    // The port, the VLAN and whether the port is in it; 6 has no map.
    const uint32_t memberships[][3] = {{5, 4095, 1}, {5, 100, 1}, {5, 101, 0}, {5, 4096, 0}, {6, 100, 0}};
    for (const auto &[ifIndex, vlan, in] : memberships) {
        EXPECT_EQ(PPPOE_PLUS_IsPortInVlan(ifIndex, static_cast<uint16_t>(vlan)), in) << ifIndex << " in " << vlan;
    }
    uint8_t bitmap[PPPOE_PLUS_VLAN_BITMAP_LEN] = {};
    EXPECT_EQ(PPPOE_PLUS_GetPortVlanBitmap(5, bitmap, 100), 1U);  // too small
    PLAT_FailSet("db_get_port_vlan_map_bitmap", 0, 1, 84);
    EXPECT_EQ(PPPOE_PLUS_IsPortInVlan(5, 100), 0U);

    // Access pair: one direction as the database holds it.
    platform::world::AccessIsolatePut({5, 0, 6});
    EXPECT_EQ(PPPOE_PLUS_IsPortIsolate(5, 6), 1U);
    EXPECT_EQ(PPPOE_PLUS_IsPortIsolate(6, 5), 0U);
    // A shared group isolates up to group 64 (7 and 70 on relayed frames:
    // SharedIsolationGroupDropsBelowId65Only, pkt_test.cpp).
    const platform::PortIsolateRecord members[] = {{6, 3}, {6, 7}, {27, 7}, {28, 70}, {29, 70}, {29, 64}, {7, 64}};
    for (const platform::PortIsolateRecord &member : members) {
        platform::world::PortIsolatePut(member);
    }
    EXPECT_EQ(PPPOE_PLUS_IsPortIsolate(27, 6), 1U);
    EXPECT_EQ(PPPOE_PLUS_IsPortIsolate(29, 7), 1U);  // group 64 is the last that counts
    EXPECT_EQ(PPPOE_PLUS_IsPortIsolate(6, 28), 0U);
    EXPECT_EQ(PPPOE_PLUS_IsPortIsolate(100, 6), 0U);  // no group

    // The result and the groups read, up to capacity.
    auto groups = [](uint32_t ifIndex, uint32_t capacity) {
        uint32_t ids[4] = {};
        uint32_t count = 0;
        const uint32_t ret = PPPOE_PLUS_GetPortIsolateGroupIds(ifIndex, ids, capacity, &count);
        return std::make_pair(ret, std::vector<uint32_t>(ids, ids + count));
    };
    EXPECT_EQ(groups(6, 4), std::make_pair(0U, std::vector<uint32_t>{3, 7}));
    EXPECT_EQ(groups(6, 1), std::make_pair(0U, std::vector<uint32_t>{3}));  // stops at the capacity
    EXPECT_EQ(groups(100, 4), std::make_pair(0U, std::vector<uint32_t>{}));

    // Failed reads: reported, and not isolated.
    PLAT_FailSet("db_root_iterator_next", 1, 1, 85);
    EXPECT_EQ(PPPOE_PLUS_IsPortIsolate(6, 27), 0U);
    EXPECT_TRUE(DebugHas("Get group id, db root iterator next failed, ret = 85."));
    PLAT_FailSet("db_get_port_isolate_group_id", 0, 1, 86);
    EXPECT_EQ(groups(6, 4).first, 86U);
    EXPECT_TRUE(DebugHas("Get group id, create root iter failed, ret = 86."));
    PLAT_FailSet("db_create_port_isolate_obj", 0, 1, 87);
    EXPECT_EQ(groups(6, 4).first, 87U);
    EXPECT_TRUE(DebugHas("Get group id, create object failed, ret = 87."));
    PLAT_FailSet("db_create_root_iter", 0, 1, 88);
    EXPECT_EQ(groups(6, 4).first, 88U);
    EXPECT_TRUE(DebugHas("Get group id, create root iter failed, ret = 88."));
    ExpectAllReleased();
}

TEST_F(IntfTest, DeviceManagerWrappersFollowTheBoardType)
{
    EXPECT_EQ(PPPOE_PLUS_GetSelfBoardId(), 1U);
    uint32_t global = 0;
    EXPECT_EQ(PPPOE_PLUS_GetGlobalSlotId(2, 3, &global), 0U);
    EXPECT_EQ(global, 35U);
    EXPECT_EQ(PPPOE_PLUS_GetGlobalSlotId(1, 32, &global), 1U);
    uint32_t chassis = 0, local = 0;
    EXPECT_EQ(PPPOE_PLUS_GetLocalSlotId(35, &chassis, &local), 0U);
    EXPECT_EQ(std::tie(chassis, local), std::make_tuple(2U, 3U));
    PLAT_FailSet("DEVM_DB_GetLocalSlotIdByGlobalSlotId", 0, 1, 5);
    EXPECT_EQ(PPPOE_PLUS_GetLocalSlotId(35, &chassis, &local), 1U);
    EXPECT_EQ(std::tie(chassis, local), std::make_tuple(1U, 1U));

    // A box answers with its slot, a chassis board with the chassis id and
    // the driver's logical slot.
    platform::SystemIdentity id = platform::world::Identity();
    id.chassisId = 4;
    id.selfBoardId = 9;
    id.boardType = DEVM_BOARD_TYPE_BOX;
    platform::world::SetIdentity(id);
    uint32_t value = 0;
    EXPECT_EQ(PPPOE_PLUS_GetSelfChassisOrSlotId(&value), 0U);
    EXPECT_EQ(value, 9U);
    PLAT_FailSet("drv_board_get_self_logic_slotid", 0, PLAT_FAIL_FOREVER, 1);
    EXPECT_EQ(PPPOE_PLUS_GetSelfLogicSlotId(), 9U);
    id.boardType = DEVM_BOARD_TYPE_LPU;
    platform::world::SetIdentity(id);
    EXPECT_EQ(PPPOE_PLUS_GetSelfChassisOrSlotId(&value), 0U);
    EXPECT_EQ(value, 4U);
    EXPECT_EQ(PPPOE_PLUS_GetSelfLogicSlotId(), kNone);
    PLAT_FailClear("drv_board_get_self_logic_slotid");
    EXPECT_EQ(PPPOE_PLUS_GetSelfLogicSlotId(), 9U);
    PLAT_FailSet("DEVM_DB_GetSelfChassisId", 0, 1, 6);
    EXPECT_EQ(PPPOE_PLUS_GetSelfChassisOrSlotId(&value), 1U);
    platform::world::SetDevmReady(false);
    EXPECT_EQ(PPPOE_PLUS_GetSelfBoardId(), kNone);
}
