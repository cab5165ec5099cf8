// The database client's switching tables: keyed reads, child nodes,
// filtered iteration, kind checks and failure injection.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "db.h"
#include "platform/control.h"
#include "platform/world.hpp"

namespace {

platform::IfRecord Port(const std::string &name, uint32_t ifIndex, uint32_t slot, uint32_t card, uint16_t port)
{
    platform::IfRecord r;
    r.name = name;
    r.ifIndex = ifIndex;
    r.slot = slot;
    r.card = card;
    r.port = port;
    return r;
}

// Reads the interface of ifIndex into a new object.
DB_OBJ_S *ReadIf(uint32_t ifIndex, uint32_t *ret)
{
    DB_OBJ_S *obj = nullptr;
    EXPECT_EQ(db_create_if_object(&obj), DB_OK);
    EXPECT_EQ(db_set_if_ifindex(obj, ifIndex), DB_OK);
    *ret = db_read_if_object(obj);
    return obj;
}

}  // namespace

TEST(DbTables, InterfacesReadByKeyWithTheirChildNodes)
{
    platform::world::Reset();
    platform::IfRecord member = Port("GigabitEthernet0/0/23", 27, 2, 255, 65535);
    member.l2TrunkId = 3;
    member.portSwitch = 1;
    member.onBoard = false;
    platform::world::IfPut(Port("GigabitEthernet0/0/1", 5, 0, 0, 1));
    platform::world::IfPut(member);
    platform::IfRecord trunk = Port("Eth-Trunk3", 100, 0, 0, 0);
    trunk.lagId = 3;
    platform::world::IfPut(trunk);

    DB_OBJ_S *obj = nullptr;
    ASSERT_EQ(db_create_if_object(&obj), DB_OK);
    EXPECT_EQ(db_read_if_object(obj), DB_ERR_NO_KEY);
    EXPECT_EQ(db_set_if_ifindex(obj, 999), DB_OK);
    EXPECT_EQ(db_read_if_object(obj), DB_ERR_NO_RECORD);
    EXPECT_EQ(db_set_if_ifindex(obj, 27), DB_OK);
    uint32_t v = 0;
    EXPECT_EQ(db_get_if_ifindex(obj, &v), DB_ERR_NO_RECORD);  // key set, not read yet
    ASSERT_EQ(db_read_if_object(obj), DB_OK);

    char name[32] = {};
    EXPECT_EQ(db_get_if_name(obj, name, sizeof(name)), DB_OK);
    EXPECT_STREQ(name, "GigabitEthernet0/0/23");
    EXPECT_EQ(db_get_if_name(obj, name, 21), DB_ERR_BUF_SMALL);  // no room for the terminator
    EXPECT_EQ(db_get_if_lag_id(obj, &v), DB_OK);
    EXPECT_EQ(v, DB_INVALID_ID);
    EXPECT_EQ(db_get_if_port_switch(obj, &v), DB_OK);
    EXPECT_EQ(v, 1U);
    EXPECT_EQ(db_get_if_on_board(obj, &v), DB_OK);
    EXPECT_EQ(v, 0U);

    DB_OBJ_S *dev = nullptr;
    DB_OBJ_S *l2 = nullptr;
    EXPECT_EQ(db_create_child_node(obj, "ifm", &dev), DB_ERR_PARAM);
    ASSERT_EQ(db_create_child_node(obj, "dev", &dev), DB_OK);
    ASSERT_EQ(db_create_child_node(obj, "l2", &l2), DB_OK);
    uint16_t port = 0;
    EXPECT_EQ(db_get_if_dev_slot_id(dev, &v), DB_OK);
    EXPECT_EQ(v, 2U);
    EXPECT_EQ(db_get_if_dev_card_id(dev, &v), DB_OK);
    EXPECT_EQ(v, 255U);
    EXPECT_EQ(db_get_if_dev_port_num(dev, &port), DB_OK);
    EXPECT_EQ(port, 65535);
    EXPECT_EQ(db_get_if_l2_trunk_id(l2, &v), DB_OK);
    EXPECT_EQ(v, 3U);
    // Each node answers only its own fields, and is no table to iterate.
    EXPECT_EQ(db_get_if_l2_trunk_id(dev, &v), DB_ERR_PARAM);
    EXPECT_EQ(db_get_if_dev_slot_id(l2, &v), DB_ERR_PARAM);
    EXPECT_EQ(db_get_if_ifindex(dev, &v), DB_ERR_PARAM);
    DB_ITER_S *iter = nullptr;
    EXPECT_EQ(db_create_root_iter(dev, 0, 0, &iter), DB_ERR_PARAM);

    // The read is a snapshot: the world changing under it does not move it.
    platform::world::IfRemove(27);
    EXPECT_EQ(db_get_if_ifindex(obj, &v), DB_OK);
    EXPECT_EQ(v, 27U);
    EXPECT_EQ(db_read_if_object(obj), DB_ERR_NO_RECORD);
    EXPECT_EQ(db_create_child_node(obj, "dev", &dev), DB_ERR_NO_RECORD);

    // Released with its parent; releases of the wrong kind are refused.
    EXPECT_EQ(db_release_trunk_obj(obj), DB_ERR_PARAM);
    EXPECT_EQ(db_release_if_object(obj), DB_OK);
    EXPECT_EQ(db_get_if_l2_trunk_id(l2, &v), DB_ERR_PARAM);
    EXPECT_EQ(db_release_if_object(obj), DB_ERR_PARAM);

    // Without a key an iteration visits every interface, in order.
    ASSERT_EQ(db_create_if_object(&obj), DB_OK);
    ASSERT_EQ(db_create_root_iter(obj, 0, 0, &iter), DB_OK);
    std::vector<uint32_t> seen;
    uint32_t ret = DB_OK;
    while ((ret = db_root_iterator_next(iter)) == DB_OK) {
        ASSERT_EQ(db_get_if_ifindex(obj, &v), DB_OK);
        seen.push_back(v);
    }
    EXPECT_EQ(ret, DB_ITER_END);
    EXPECT_EQ(seen, (std::vector<uint32_t>{5, 100}));
    EXPECT_EQ(db_release_if_object(obj), DB_OK);

    // Released objects are reused: a new one starts without the old key,
    // record or iteration.
    ASSERT_EQ(db_create_if_object(&obj), DB_OK);
    ASSERT_EQ(db_set_if_ifindex(obj, 5), DB_OK);
    ASSERT_EQ(db_read_if_object(obj), DB_OK);
    EXPECT_EQ(db_release_if_object(obj), DB_OK);
    DB_OBJ_S *fresh = nullptr;
    ASSERT_EQ(db_create_if_object(&fresh), DB_OK);
    EXPECT_EQ(db_get_if_ifindex(fresh, &v), DB_ERR_NO_RECORD);
    EXPECT_EQ(db_read_if_object(fresh), DB_ERR_NO_KEY);
    EXPECT_EQ(db_release_if_object(fresh), DB_OK);
}

TEST(DbTables, TrunkVlanIsolationAndSystemTables)
{
    platform::world::Reset();
    platform::world::TrunkPut({3, 100});
    platform::world::TrunkPut({3, 101});  // replaces
    platform::world::TrunkPortPut({27, 101});
    platform::world::PortVlanSet(5, 4095, true);
    platform::world::PortVlanSet(5, 100, true);
    platform::world::PortVlanSet(5, 100, false);
    platform::world::AccessIsolatePut({5, 0, 6});
    platform::world::PortIsolatePut({5, 7});
    platform::world::PortIsolatePut({6, 8});
    platform::world::PortIsolatePut({5, 70});
    platform::world::SetSysName("Edge-1");

    uint32_t v = 0;
    DB_OBJ_S *obj = nullptr;
    ASSERT_EQ(db_create_trunk_obj(&obj), DB_OK);
    ASSERT_EQ(db_set_trunk_trunk_id(obj, 3), DB_OK);
    ASSERT_EQ(db_read_trunk_obj(obj), DB_OK);
    EXPECT_EQ(db_get_trunk_trunk_if_index(obj, &v), DB_OK);
    EXPECT_EQ(v, 101U);
    EXPECT_EQ(db_get_trunk_port_trunk_if_index(obj, &v), DB_ERR_PARAM);  // another kind's field
    EXPECT_EQ(db_release_trunk_obj(obj), DB_OK);

    ASSERT_EQ(db_create_trunk_port_obj(&obj), DB_OK);
    ASSERT_EQ(db_set_trunk_port_if_index(obj, 27), DB_OK);
    ASSERT_EQ(db_read_trunk_port_obj(obj), DB_OK);
    EXPECT_EQ(db_get_trunk_port_trunk_if_index(obj, &v), DB_OK);
    EXPECT_EQ(v, 101U);
    EXPECT_EQ(db_release_trunk_port_obj(obj), DB_OK);

    uint8_t bitmap[DB_PORT_VLAN_BITMAP_LEN] = {};
    ASSERT_EQ(db_create_port_vlan_map_obj(&obj), DB_OK);
    ASSERT_EQ(db_set_port_vlan_map_if_index(obj, 5), DB_OK);
    ASSERT_EQ(db_read_port_vlan_map_obj(obj), DB_OK);
    EXPECT_EQ(db_get_port_vlan_map_bitmap(obj, bitmap, sizeof(bitmap) - 1), DB_ERR_BUF_SMALL);
    EXPECT_EQ(db_get_port_vlan_map_bitmap(obj, bitmap, sizeof(bitmap)), DB_OK);
    EXPECT_EQ(bitmap[511], 0x80);
    EXPECT_EQ(bitmap[12], 0);  // VLAN 100 was dropped again
    EXPECT_EQ(db_release_port_vlan_map_obj(obj), DB_OK);

    ASSERT_EQ(db_create_access_isolate_obj(&obj), DB_OK);
    ASSERT_EQ(db_set_access_isolate_key(obj, 5, 0, 6), DB_OK);
    EXPECT_EQ(db_read_access_isolate_obj(obj), DB_OK);
    ASSERT_EQ(db_set_access_isolate_key(obj, 6, 0, 5), DB_OK);
    EXPECT_EQ(db_read_access_isolate_obj(obj), DB_ERR_NO_RECORD);  // one direction only
    ASSERT_EQ(db_set_access_isolate_key(obj, 5, 10, 6), DB_OK);
    EXPECT_EQ(db_read_access_isolate_obj(obj), DB_ERR_NO_RECORD);
    EXPECT_EQ(db_release_access_isolate_obj(obj), DB_OK);

    // Port isolation iterates the records of the port the key names.
    ASSERT_EQ(db_create_port_isolate_obj(&obj), DB_OK);
    ASSERT_EQ(db_set_port_isolate_if_index(obj, 5), DB_OK);
    DB_ITER_S *iter = nullptr;
    ASSERT_EQ(db_create_root_iter(obj, 0, 0, &iter), DB_OK);
    std::vector<uint32_t> groups;
    while (db_root_iterator_next(iter) == DB_OK) {
        ASSERT_EQ(db_get_port_isolate_group_id(obj, &v), DB_OK);
        groups.push_back(v);
    }
    EXPECT_EQ(groups, (std::vector<uint32_t>{7, 70}));
    EXPECT_EQ(db_get_table_record_count(obj, &v), DB_OK);
    EXPECT_EQ(v, 2U);
    EXPECT_EQ(db_release_port_isolate_obj(obj), DB_OK);

    char name[8] = {};
    uint32_t length = 0;
    ASSERT_EQ(db_create_sys_info_obj(&obj), DB_OK);
    ASSERT_EQ(db_read_sys_info_obj(obj), DB_OK);
    EXPECT_EQ(db_get_sys_info_sys_name(obj, name, 6, &length), DB_ERR_BUF_SMALL);
    EXPECT_EQ(length, 6U);
    EXPECT_EQ(db_get_sys_info_sys_name(obj, name, sizeof(name), &length), DB_OK);
    EXPECT_STREQ(name, "Edge-1");
    EXPECT_EQ(db_release_sys_info_obj(obj), DB_OK);

    platform::world::TablesClear();
    EXPECT_TRUE(platform::world::TrunkRecords().empty());
    EXPECT_TRUE(platform::world::PortIsolateRecords().empty());
    EXPECT_EQ(platform::world::Identity().sysName, "Edge-1");  // the identity stays
}

TEST(DbTables, EveryCallFailsOnInjectionUnderItsOwnName)
{
    platform::world::Reset();
    platform::world::IfPut(Port("GigabitEthernet0/0/1", 5, 0, 0, 1));
    uint32_t ret = 0;
    DB_OBJ_S *obj = ReadIf(5, &ret);
    ASSERT_EQ(ret, DB_OK);
    DB_OBJ_S *dev = nullptr;
    ASSERT_EQ(db_create_child_node(obj, "dev", &dev), DB_OK);

    uint32_t v = 0;
    uint16_t port = 0;
    char name[32];
    DB_OBJ_S *other = nullptr;
    const std::vector<std::pair<const char *, std::function<uint32_t()>>> calls = {
        {"db_create_if_object", [&] { return db_create_if_object(&other); }},
        {"db_set_if_ifindex", [&] { return db_set_if_ifindex(obj, 5); }},
        {"db_read_if_object", [&] { return db_read_if_object(obj); }},
        {"db_get_if_name", [&] { return db_get_if_name(obj, name, sizeof(name)); }},
        {"db_get_if_ifindex", [&] { return db_get_if_ifindex(obj, &v); }},
        {"db_create_child_node", [&] { return db_create_child_node(obj, "l2", &other); }},
        {"db_get_if_dev_port_num", [&] { return db_get_if_dev_port_num(dev, &port); }},
        {"db_create_trunk_obj", [&] { return db_create_trunk_obj(&other); }},
        {"db_create_port_isolate_obj", [&] { return db_create_port_isolate_obj(&other); }},
        {"db_create_sys_info_obj", [&] { return db_create_sys_info_obj(&other); }},
        {"db_release_if_object", [&] { return db_release_if_object(obj); }},
    };
    for (const auto &[op, call] : calls) {
        PLAT_FailSet(op, 0, 1, 0x5150);
        EXPECT_EQ(call(), 0x5150U) << op;
        EXPECT_EQ(PLAT_FailHits(op), 1U) << op;
    }
    // The object survived its failed release and still answers.
    EXPECT_EQ(db_get_if_dev_port_num(dev, &port), DB_OK);
    EXPECT_EQ(port, 1);
    EXPECT_EQ(db_release_if_object(obj), DB_OK);
}
