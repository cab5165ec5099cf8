// The database client's switching tables: keyed reads, child nodes,
// filtered iteration, kind checks, failure injection, and reads that follow
// the world's writes.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "db.h"
#include "platform/control.h"
#include "platform/world.hpp"
#include "ruk.h"

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

// A field read through its getter: the getter's code and the value.
template <typename T>
std::pair<uint32_t, T> Field(uint32_t (*get)(DB_OBJ_S *, T *), DB_OBJ_S *obj)
{
    T value{};
    const uint32_t ret = get(obj, &value);
    return {ret, value};
}

template <typename T>
std::pair<uint32_t, T> Ok(T value)
{
    return {DB_OK, value};
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

// The name an interface object holds; "" when it cannot be read.
std::string NameIn(DB_OBJ_S *obj)
{
    char name[64] = {};
    return db_get_if_name(obj, name, sizeof(name)) == DB_OK ? name : "";
}

// The name of the interface of ifIndex, read through a new object as the
// module reads it; "" when there is none.
std::string NameOf(uint32_t ifIndex)
{
    uint32_t ret = 0;
    DB_OBJ_S *obj = ReadIf(ifIndex, &ret);
    const std::string name = ret == DB_OK ? NameIn(obj) : "";
    EXPECT_EQ(db_release_if_object(obj), DB_OK);
    return name;
}

}  // namespace

TEST(DbTables, InterfacesReadByKeyWithTheirChildNodes)
{
    platform::world::Reset();
    platform::world::IfPut(Port("GigabitEthernet0/0/1", 5, 0, 0, 1));
    platform::world::IfPut(Port("GigabitEthernet0/0/23", 27, 2, 255, 65535));

    DB_OBJ_S *obj = nullptr;
    ASSERT_EQ(db_create_if_object(&obj), DB_OK);
    EXPECT_EQ(db_read_if_object(obj), DB_ERR_NO_KEY);
    EXPECT_EQ(db_set_if_ifindex(obj, 999), DB_OK);
    EXPECT_EQ(db_read_if_object(obj), DB_ERR_NO_RECORD);
    EXPECT_EQ(db_set_if_ifindex(obj, 27), DB_OK);
    uint32_t v = 0;
    EXPECT_EQ(db_get_if_ifindex(obj, &v), DB_ERR_NO_RECORD);  // key set, not read yet
    ASSERT_EQ(db_read_if_object(obj), DB_OK);

    EXPECT_EQ(NameIn(obj), "GigabitEthernet0/0/23");
    char name[21];
    EXPECT_EQ(db_get_if_name(obj, name, sizeof(name)), DB_ERR_BUF_SMALL);  // no room for the terminator

    // The fields' values (lag id, switching, placement, trunk) are read by
    // the module's interface suite (intf_test.cpp), on board by the
    // subscription test (db_sub_test.cpp).
    DB_OBJ_S *dev = nullptr;
    DB_OBJ_S *l2 = nullptr;
    EXPECT_EQ(db_create_child_node(obj, "ifm", &dev), DB_ERR_PARAM);
    ASSERT_EQ(db_create_child_node(obj, "dev", &dev), DB_OK);
    ASSERT_EQ(db_create_child_node(obj, "l2", &l2), DB_OK);
    // Each node answers only its own fields, and is no table to iterate.
    EXPECT_EQ(db_get_if_l2_trunk_id(dev, &v), DB_ERR_PARAM);
    EXPECT_EQ(db_get_if_dev_slot_id(l2, &v), DB_ERR_PARAM);
    EXPECT_EQ(db_get_if_ifindex(dev, &v), DB_ERR_PARAM);
    DB_ITER_S *iter = nullptr;
    EXPECT_EQ(db_create_root_iter(dev, 0, 0, &iter), DB_ERR_PARAM);

    // The read is a snapshot: the world changing under it does not move it.
    platform::world::IfRemove(27);
    EXPECT_EQ(Field(db_get_if_ifindex, obj), Ok(27U));
    EXPECT_EQ(db_read_if_object(obj), DB_ERR_NO_RECORD);
    EXPECT_EQ(db_create_child_node(obj, "dev", &dev), DB_ERR_NO_RECORD);

    // Released with its parent; releases of the wrong kind are refused.
    EXPECT_EQ(db_release_trunk_obj(obj), DB_ERR_PARAM);
    EXPECT_EQ(db_release_if_object(obj), DB_OK);
    EXPECT_EQ(db_get_if_l2_trunk_id(l2, &v), DB_ERR_PARAM);
    EXPECT_EQ(db_release_if_object(obj), DB_ERR_PARAM);

    // An iteration without a key (every interface in order) is the module
    // interface suite's (IntfTest.Placement...: the first switched port);
    // the iterator, shared by every table, the framework instance test's.

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

// What the module reads of these tables (a member's trunk, VLAN bits,
// access pairs in one direction, a port's isolation groups in order, a
// system name too long for the buffer) is its interface suite's
// (intf_test.cpp).
TEST(DbTables, TrunkVlanIsolationAndSystemTables)
{
    platform::world::Reset();
    platform::world::TrunkPut({3, 100});
    platform::world::TrunkPut({3, 101});  // replaces
    platform::world::PortVlanSet(5, 4095, true);
    platform::world::PortVlanSet(5, 100, true);
    platform::world::PortVlanSet(5, 100, false);
    platform::world::AccessIsolatePut({5, 0, 6});
    platform::world::PortIsolatePut({5, 7});
    platform::world::PortIsolatePut({6, 8});
    platform::world::PortIsolatePut({5, 70});

    uint32_t v = 0;
    DB_OBJ_S *obj = nullptr;
    ASSERT_EQ(db_create_trunk_obj(&obj), DB_OK);
    ASSERT_EQ(db_set_trunk_trunk_id(obj, 3), DB_OK);
    ASSERT_EQ(db_read_trunk_obj(obj), DB_OK);
    EXPECT_EQ(Field(db_get_trunk_trunk_if_index, obj), Ok(101U));
    EXPECT_EQ(db_get_trunk_port_trunk_if_index(obj, &v), DB_ERR_PARAM);  // another kind's field
    EXPECT_EQ(db_release_trunk_obj(obj), DB_OK);

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
    ASSERT_EQ(db_set_access_isolate_key(obj, 5, 10, 6), DB_OK);  // every field of the key counts
    EXPECT_EQ(db_read_access_isolate_obj(obj), DB_ERR_NO_RECORD);
    EXPECT_EQ(db_release_access_isolate_obj(obj), DB_OK);

    // A port's isolation records are counted for the port the key names.
    ASSERT_EQ(db_create_port_isolate_obj(&obj), DB_OK);
    ASSERT_EQ(db_set_port_isolate_if_index(obj, 5), DB_OK);
    EXPECT_EQ(Field(db_get_table_record_count, obj), Ok(2U));
    EXPECT_EQ(db_release_port_isolate_obj(obj), DB_OK);
}

// Every call opens with the same failure prologue (platform::FailPoint),
// whose failure form the core test's table checks for a getter of this
// client; a failed release must leave the object whole.
TEST(DbTables, CallsFailOnInjectionUnderTheirOwnName)
{
    platform::world::Reset();
    platform::world::IfPut(Port("GigabitEthernet0/0/1", 5, 0, 0, 1));
    uint32_t ret = 0;
    DB_OBJ_S *obj = ReadIf(5, &ret);
    ASSERT_EQ(ret, DB_OK);
    DB_OBJ_S *dev = nullptr;
    ASSERT_EQ(db_create_child_node(obj, "dev", &dev), DB_OK);
    PLAT_FailSet("db_release_if_object", 0, 1, 0x5150);
    EXPECT_EQ(db_release_if_object(obj), 0x5150U);
    EXPECT_EQ(Field(db_get_if_dev_port_num, dev), Ok(uint16_t{1}));
    EXPECT_EQ(db_release_if_object(obj), DB_OK);
}

TEST(DbTables, ReadsSeeEveryWriteWhateverTheyReadBefore)
{
    // Objects are reused and a thread keeps what it read per key, so reads
    // that alternate between ports, with the table written between them,
    // must each see the table as it is now.
    platform::world::Reset();
    platform::world::IfPut(Port("a-1", 5, 0, 0, 1));
    platform::world::IfPut(Port("b-1", 7, 0, 0, 3));
    for (int round = 2; round < 6; round++) {
        EXPECT_EQ(NameOf(5), "a-" + std::to_string(round - 1));
        EXPECT_EQ(NameOf(7), "b-" + std::to_string(round - 1));
        platform::world::IfPut(Port("a-" + std::to_string(round), 5, 0, 0, 1));
        EXPECT_EQ(NameOf(5), "a-" + std::to_string(round));
        EXPECT_EQ(NameOf(7), "b-" + std::to_string(round - 1));
        platform::world::IfPut(Port("b-" + std::to_string(round), 7, 0, 0, 3));
    }
    EXPECT_TRUE(platform::world::IfRemove(5));
    EXPECT_EQ(NameOf(5), "");

    // The same for a key of several fields (access isolation).
    const auto isolated = [](uint32_t src, uint32_t dst) {
        DB_OBJ_S *obj = nullptr;
        EXPECT_EQ(db_create_access_isolate_obj(&obj), DB_OK);
        EXPECT_EQ(db_set_access_isolate_key(obj, src, 0, dst), DB_OK);
        const uint32_t ret = db_read_access_isolate_obj(obj);
        EXPECT_EQ(db_release_access_isolate_obj(obj), DB_OK);
        return ret == DB_OK;
    };
    for (int round = 0; round < 3; round++) {
        EXPECT_FALSE(isolated(5, 7));
        platform::world::AccessIsolatePut({5, 0, 7});
        EXPECT_TRUE(isolated(5, 7));
        EXPECT_FALSE(isolated(7, 5));
        platform::world::Reset();
    }
    EXPECT_FALSE(isolated(5, 7));
    platform::world::SetSysName("Renamed");
    DB_OBJ_S *sys = nullptr;
    ASSERT_EQ(db_create_sys_info_obj(&sys), DB_OK);
    ASSERT_EQ(db_read_sys_info_obj(sys), DB_OK);
    char name[32] = {};
    uint32_t length = 0;
    EXPECT_EQ(db_get_sys_info_sys_name(sys, name, sizeof(name), &length), DB_OK);
    EXPECT_EQ(std::make_pair(std::string(name), length), std::make_pair(std::string("Renamed"), 7U));
    EXPECT_EQ(db_release_sys_info_obj(sys), DB_OK);

    // Tables of many interfaces are read through their index.
    for (uint32_t i = 0; i < 300; i++) {
        platform::world::IfPut(Port("many-" + std::to_string(i), 1000 + i, 1, 0, static_cast<uint16_t>(i)));
    }
    EXPECT_EQ(NameOf(1000), "many-0");
    EXPECT_EQ(NameOf(1299), "many-299");
    EXPECT_EQ(NameOf(1300), "");
}

TEST(DbTables, ReadersNeverSeeAHalfWrittenTableWhileItChanges)
{
    // A writer rewrites a port (name and placement together) and the table
    // around it while readers read it: each read is one whole record.
    platform::world::Reset();
    platform::world::IfPut(Port("p-0", 5, 0, 0, 0));
    std::atomic<bool> stop{false};
    std::thread writer([&stop]() {
        for (uint16_t n = 1; n < 2000 && !stop.load(); n++) {
            platform::world::IfPut(Port("p-" + std::to_string(n), 5, n, 0, n));
            platform::world::IfPut(Port("other", 6u + n % 3u, 0, 0, 0));
        }
    });
    auto reader = [](uint32_t *odd) {
        for (int i = 0; i < 2000; i++) {
            uint32_t ret = 0;
            DB_OBJ_S *obj = ReadIf(5, &ret);
            uint32_t slot = 0;
            uint16_t port = 0;
            DB_OBJ_S *dev = nullptr;
            if (ret == DB_OK && db_create_child_node(obj, "dev", &dev) == DB_OK &&
                db_get_if_dev_slot_id(dev, &slot) == DB_OK && db_get_if_dev_port_num(dev, &port) == DB_OK) {
                *odd += NameIn(obj) == "p-" + std::to_string(slot) && slot == port ? 0U : 1U;
            } else {
                (*odd)++;
            }
            (void)db_release_if_object(obj);
        }
    };
    uint32_t oddA = 0;
    uint32_t oddB = 0;
    std::thread readerA(reader, &oddA);
    reader(&oddB);
    readerA.join();
    stop = true;
    writer.join();
    EXPECT_EQ(oddA + oddB, 0U);
}

TEST(DbTables, ObjectsMadeInMemoryTheMemoryServiceGaveBackAreWhole)
{
    // The memory service and the database share one pool of blocks: blocks
    // of every size a module freed are the next ones the database's objects
    // (more than it keeps aside for reuse) are made in. Under
    // AddressSanitizer a freed block stays poisoned until the pool hands it
    // out again, whoever takes it.
    platform::world::Reset();
    platform::IfRecord port = Port("GigabitEthernet0/0/7", 11, 1, 2, 7);
    port.l2TrunkId = 4;
    platform::world::IfPut(port);
    uint32_t h = 0;
    uint32_t pt = 0;
    ASSERT_EQ(RUK_HandleInitialize("reuse", &h), RUK_OK);
    ASSERT_EQ(RUK_MemPtNoGet("EXTPT", &pt), RUK_OK);
    std::vector<void *> blocks;
    for (size_t size = 1; size <= 16384; size += 8) {
        void *p = RUK_MemAlloc_F(h, pt, size, "reuse.c", 1);
        ASSERT_NE(p, nullptr);
        std::memset(p, 0xA5, size);
        blocks.push_back(p);
    }
    for (void *p : blocks) {
        ASSERT_EQ(RUK_MemFree_F(h, p, "reuse.c", 2), RUK_OK);
    }

    std::vector<DB_OBJ_S *> objs;
    for (int i = 0; i < 48; i++) {
        uint32_t ret = 0;
        objs.push_back(ReadIf(11, &ret));
        DB_OBJ_S *obj = objs.back();
        ASSERT_EQ(ret, DB_OK);
        DB_OBJ_S *dev = nullptr;
        DB_OBJ_S *l2 = nullptr;
        ASSERT_EQ(db_create_child_node(obj, "dev", &dev), DB_OK);
        ASSERT_EQ(db_create_child_node(obj, "l2", &l2), DB_OK);
        EXPECT_EQ(Field(db_get_if_dev_port_num, dev), Ok(uint16_t{7}));
        EXPECT_EQ(Field(db_get_if_l2_trunk_id, l2), Ok(4U));
        EXPECT_EQ(NameIn(obj), "GigabitEthernet0/0/7");
    }
    for (DB_OBJ_S *obj : objs) {
        EXPECT_EQ(db_release_if_object(obj), DB_OK);
    }
}
