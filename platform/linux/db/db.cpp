// Object database client.
//
// On the real switch modules read the framework's tables through typed
// database objects: create an object on a table, set its key, read the
// matching record or iterate the records, read fields of the current one,
// release it. Ours serves the tables of the world model through the same
// calls: framework instances, interfaces (with their "dev" and "l2" child
// nodes), trunks, trunk ports, port-VLAN maps, access isolation, port
// isolation and system information. Objects are snapshots taken when a read
// or an iteration starts; every object and iterator handed out is tracked,
// so a stale or foreign pointer, or an object of another kind, is refused
// with DB_ERR_PARAM instead of being used. Every call passes failure
// injection under its own name.
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>

#include "core/internal.hpp"
#include "db.h"
#include "db/db_object.hpp"
#include "plat_world.hpp"

namespace {

using plat::db::NodeObject;
using plat::db::TableObject;

// The one record of the system-information table.
struct SysInfoRecord {
    std::string sysName;
};

std::vector<SysInfoRecord> SysInfoRecords()
{
    return {SysInfoRecord{plat::world::identity().sysName}};
}

struct Db {
    std::mutex mu;  // guards every object's state and the sets below
    std::unordered_set<DB_OBJ *> liveObjs;
    std::unordered_set<DB_ITER *> liveIters;
};

Db &TheDb()
{
    return plat::internal::Leaky<Db>();
}

// The tables this client serves.
std::unique_ptr<DB_OBJ> MakeObject(uint32_t table)
{
    switch (table) {
        case DB_TABLE_FRM_INST:
            return std::make_unique<TableObject<plat::FrmInstRecord>>(table, &plat::world::frm_inst_records);
        case DB_TABLE_IF:
            return std::make_unique<TableObject<plat::IfRecord>>(table, &plat::world::if_records);
        case DB_TABLE_TRUNK:
            return std::make_unique<TableObject<plat::TrunkRecord>>(table, &plat::world::trunk_records);
        case DB_TABLE_TRUNK_PORT:
            return std::make_unique<TableObject<plat::TrunkPortRecord>>(table, &plat::world::trunk_port_records);
        case DB_TABLE_PORT_VLAN_MAP:
            return std::make_unique<TableObject<plat::PortVlanRecord>>(table, &plat::world::port_vlan_records);
        case DB_TABLE_ACCESS_ISOLATE:
            return std::make_unique<TableObject<plat::AccessIsolateRecord>>(table,
                                                                            &plat::world::access_isolate_records);
        case DB_TABLE_PORT_ISOLATE:
            return std::make_unique<TableObject<plat::PortIsolateRecord>>(table, &plat::world::port_isolate_records);
        case DB_TABLE_SYS_INFO:
            return std::make_unique<TableObject<SysInfoRecord>>(table, &SysInfoRecords);
        default:
            return nullptr;
    }
}

bool IsNode(const DB_OBJ *obj)
{
    return obj->table == DB_TABLE_IF_DEV || obj->table == DB_TABLE_IF_L2;
}

// Caller holds Db::mu.
bool IsLive(const Db &db, DB_OBJ *obj)
{
    return obj != nullptr && db.liveObjs.count(obj) != 0;
}

// Caller holds Db::mu. The object if it is live and of the table, else null.
template <typename Obj>
Obj *Typed(const Db &db, DB_OBJ *obj, uint32_t table)
{
    if (!IsLive(db, obj) || obj->table != table) {
        return nullptr;
    }
    return dynamic_cast<Obj *>(obj);
}

uint32_t Create(const char *op, uint32_t table, DB_OBJ_S **obj)
{
    uint32_t code = 0;
    if (plat::internal::Injected(op, &code)) {
        return code;
    }
    if (obj == nullptr) {
        return DB_ERR_PARAM;
    }
    std::unique_ptr<DB_OBJ> made = MakeObject(table);
    if (!made) {
        return DB_ERR_NO_TABLE;
    }
    made->Snapshot();
    Db &db = TheDb();
    std::lock_guard lock(db.mu);
    *obj = made.get();
    db.liveObjs.insert(made.release());
    return DB_OK;
}

uint32_t Release(const char *op, uint32_t table, DB_OBJ_S *obj)
{
    uint32_t code = 0;
    if (plat::internal::Injected(op, &code)) {
        return code;
    }
    std::unique_ptr<DB_OBJ> owned;
    std::vector<std::unique_ptr<DB_OBJ>> children;
    {
        Db &db = TheDb();
        std::lock_guard lock(db.mu);
        if (!IsLive(db, obj) || obj->table != table) {
            return DB_ERR_PARAM;
        }
        for (DB_OBJ *child : obj->children) {
            db.liveObjs.erase(child);
            db.liveIters.erase(&child->iter);
            children.emplace_back(child);
        }
        db.liveObjs.erase(obj);
        db.liveIters.erase(&obj->iter);
        owned.reset(obj);
    }
    return DB_OK;
}

// Sets the key of an object on a table of Row; no current record afterwards.
template <typename Row>
uint32_t SetKey(const char *op, uint32_t table, DB_OBJ_S *obj, typename TableObject<Row>::Match match)
{
    uint32_t code = 0;
    if (plat::internal::Injected(op, &code)) {
        return code;
    }
    Db &db = TheDb();
    std::lock_guard lock(db.mu);
    auto *typed = Typed<TableObject<Row>>(db, obj, table);
    if (typed == nullptr) {
        return DB_ERR_PARAM;
    }
    typed->SetKey(std::move(match));
    typed->Snapshot();
    return DB_OK;
}

// Reads the first record matching the key: it becomes the current one.
template <typename Row>
uint32_t ReadRecord(const char *op, uint32_t table, DB_OBJ_S *obj, bool needsKey)
{
    uint32_t code = 0;
    if (plat::internal::Injected(op, &code)) {
        return code;
    }
    Db &db = TheDb();
    std::lock_guard lock(db.mu);
    auto *typed = Typed<TableObject<Row>>(db, obj, table);
    if (typed == nullptr) {
        return DB_ERR_PARAM;
    }
    if (needsKey && !typed->HasKey()) {
        return DB_ERR_NO_KEY;
    }
    typed->Snapshot();
    return typed->Next() ? DB_OK : DB_ERR_NO_RECORD;
}

// Runs use on the current row of an object of Obj (a TableObject or a
// NodeObject) on the table; use returns the call's result.
template <typename Obj, typename Use>
uint32_t WithRow(const char *op, uint32_t table, DB_OBJ *obj, bool outMissing, Use use)
{
    uint32_t code = 0;
    if (plat::internal::Injected(op, &code)) {
        return code;
    }
    if (outMissing) {
        return DB_ERR_PARAM;
    }
    Db &db = TheDb();
    std::lock_guard lock(db.mu);
    const auto *typed = Typed<const Obj>(db, obj, table);
    if (typed == nullptr) {
        return DB_ERR_PARAM;
    }
    const auto *row = typed->CurrentRow();
    if (row == nullptr) {
        return DB_ERR_NO_RECORD;
    }
    return use(*row);
}

// Reads one field of the current row of an object on a table of Row.
template <typename Row, typename T, typename Get>
uint32_t GetField(const char *op, uint32_t table, DB_OBJ *obj, T *out, Get get)
{
    return WithRow<TableObject<Row>>(op, table, obj, out == nullptr, [out, &get](const Row &r) {
        *out = get(r);
        return DB_OK;
    });
}

// Reads one field of an interface's child node.
template <typename T, typename Get>
uint32_t GetNodeField(const char *op, uint32_t table, DB_OBJ *obj, T *out, Get get)
{
    return WithRow<NodeObject<plat::IfRecord>>(op, table, obj, out == nullptr, [out, &get](const plat::IfRecord &r) {
        *out = get(r);
        return DB_OK;
    });
}

// Copies a text with its terminator into a caller's buffer.
uint32_t CopyText(const std::string &text, char *buf, uint32_t size)
{
    if (text.size() + 1 > size) {
        return DB_ERR_BUF_SMALL;
    }
    std::memcpy(buf, text.c_str(), text.size() + 1);
    return DB_OK;
}

}  // namespace

extern "C" {

uint32_t db_create_frm_inst_obj(uint32_t table, uint32_t flags, DB_OBJ_S **obj)
{
    (void)flags;
    uint32_t code = 0;
    if (plat::internal::Injected("db_create_frm_inst_obj", &code)) {
        return code;
    }
    if (obj == nullptr) {
        return DB_ERR_PARAM;
    }
    if (table != DB_TABLE_FRM_INST) {
        return DB_ERR_NO_TABLE;
    }
    std::unique_ptr<DB_OBJ> made = MakeObject(table);
    if (!made) {
        return DB_ERR_NO_TABLE;
    }
    made->Snapshot();
    Db &db = TheDb();
    std::lock_guard lock(db.mu);
    *obj = made.get();
    db.liveObjs.insert(made.release());
    return DB_OK;
}

uint32_t db_reset_frm_inst_object(DB_OBJ_S *obj, uint32_t mode)
{
    (void)mode;
    uint32_t code = 0;
    if (plat::internal::Injected("db_reset_frm_inst_object", &code)) {
        return code;
    }
    Db &db = TheDb();
    std::lock_guard lock(db.mu);
    if (!IsLive(db, obj)) {
        return DB_ERR_PARAM;
    }
    obj->Snapshot();
    return DB_OK;
}

uint32_t db_release_frm_inst_object(DB_OBJ_S *obj)
{
    return Release("db_release_frm_inst_object", DB_TABLE_FRM_INST, obj);
}

uint32_t db_get_frm_inst_local_slot(DB_OBJ_S *obj, int32_t *localSlot)
{
    return GetField<plat::FrmInstRecord>("db_get_frm_inst_local_slot", DB_TABLE_FRM_INST, obj, localSlot,
                                         [](const plat::FrmInstRecord &r) { return r.localSlot; });
}

uint32_t db_get_frm_inst_role(DB_OBJ_S *obj, uint32_t *role)
{
    return GetField<plat::FrmInstRecord>("db_get_frm_inst_role", DB_TABLE_FRM_INST, obj, role,
                                         [](const plat::FrmInstRecord &r) { return r.role; });
}

uint32_t db_get_frm_inst_mod_state(DB_OBJ_S *obj, uint32_t *modState)
{
    return GetField<plat::FrmInstRecord>("db_get_frm_inst_mod_state", DB_TABLE_FRM_INST, obj, modState,
                                         [](const plat::FrmInstRecord &r) { return r.modState; });
}

uint32_t db_get_frm_inst_state(DB_OBJ_S *obj, uint32_t *state)
{
    return GetField<plat::FrmInstRecord>("db_get_frm_inst_state", DB_TABLE_FRM_INST, obj, state,
                                         [](const plat::FrmInstRecord &r) { return r.state; });
}

// ---- Interfaces ----

uint32_t db_create_if_object(DB_OBJ_S **obj)
{
    return Create("db_create_if_object", DB_TABLE_IF, obj);
}

uint32_t db_set_if_ifindex(DB_OBJ_S *obj, uint32_t ifIndex)
{
    return SetKey<plat::IfRecord>("db_set_if_ifindex", DB_TABLE_IF, obj,
                                  [ifIndex](const plat::IfRecord &r) { return r.ifIndex == ifIndex; });
}

uint32_t db_read_if_object(DB_OBJ_S *obj)
{
    return ReadRecord<plat::IfRecord>("db_read_if_object", DB_TABLE_IF, obj, true);
}

uint32_t db_release_if_object(DB_OBJ_S *obj)
{
    return Release("db_release_if_object", DB_TABLE_IF, obj);
}

uint32_t db_get_if_ifindex(DB_OBJ_S *obj, uint32_t *ifIndex)
{
    return GetField<plat::IfRecord>("db_get_if_ifindex", DB_TABLE_IF, obj, ifIndex,
                                    [](const plat::IfRecord &r) { return r.ifIndex; });
}

uint32_t db_get_if_name(DB_OBJ_S *obj, char *name, uint32_t size)
{
    return WithRow<TableObject<plat::IfRecord>>("db_get_if_name", DB_TABLE_IF, obj, name == nullptr,
                                                [name, size](const plat::IfRecord &r) {
                                                    return CopyText(r.name, name, size);
                                                });
}

uint32_t db_get_if_lag_id(DB_OBJ_S *obj, uint32_t *lagId)
{
    return GetField<plat::IfRecord>("db_get_if_lag_id", DB_TABLE_IF, obj, lagId,
                                    [](const plat::IfRecord &r) { return r.lagId; });
}

uint32_t db_get_if_port_switch(DB_OBJ_S *obj, uint32_t *portSwitch)
{
    return GetField<plat::IfRecord>("db_get_if_port_switch", DB_TABLE_IF, obj, portSwitch,
                                    [](const plat::IfRecord &r) { return r.portSwitch; });
}

uint32_t db_get_if_on_board(DB_OBJ_S *obj, uint32_t *onBoard)
{
    return GetField<plat::IfRecord>("db_get_if_on_board", DB_TABLE_IF, obj, onBoard,
                                    [](const plat::IfRecord &r) { return r.onBoard ? 1U : 0U; });
}

uint32_t db_create_child_node(DB_OBJ_S *obj, const char *node, DB_OBJ_S **child)
{
    uint32_t code = 0;
    if (plat::internal::Injected("db_create_child_node", &code)) {
        return code;
    }
    if (node == nullptr || child == nullptr) {
        return DB_ERR_PARAM;
    }
    uint32_t table = 0;
    if (std::strcmp(node, "dev") == 0) {
        table = DB_TABLE_IF_DEV;
    } else if (std::strcmp(node, "l2") == 0) {
        table = DB_TABLE_IF_L2;
    } else {
        return DB_ERR_PARAM;
    }
    Db &db = TheDb();
    std::lock_guard lock(db.mu);
    auto *parent = Typed<TableObject<plat::IfRecord>>(db, obj, DB_TABLE_IF);
    if (parent == nullptr) {
        return DB_ERR_PARAM;
    }
    const plat::IfRecord *row = parent->CurrentRow();
    if (row == nullptr) {
        return DB_ERR_NO_RECORD;
    }
    auto made = std::make_unique<NodeObject<plat::IfRecord>>(table, *row);
    *child = made.get();
    parent->children.push_back(made.get());
    db.liveObjs.insert(made.release());
    return DB_OK;
}

uint32_t db_get_if_dev_slot_id(DB_OBJ_S *dev, uint32_t *slotId)
{
    return GetNodeField("db_get_if_dev_slot_id", DB_TABLE_IF_DEV, dev, slotId,
                        [](const plat::IfRecord &r) { return r.slot; });
}

uint32_t db_get_if_dev_card_id(DB_OBJ_S *dev, uint32_t *cardId)
{
    return GetNodeField("db_get_if_dev_card_id", DB_TABLE_IF_DEV, dev, cardId,
                        [](const plat::IfRecord &r) { return r.card; });
}

uint32_t db_get_if_dev_port_num(DB_OBJ_S *dev, uint16_t *portNum)
{
    return GetNodeField("db_get_if_dev_port_num", DB_TABLE_IF_DEV, dev, portNum,
                        [](const plat::IfRecord &r) { return r.port; });
}

uint32_t db_get_if_l2_trunk_id(DB_OBJ_S *l2, uint32_t *trunkId)
{
    return GetNodeField("db_get_if_l2_trunk_id", DB_TABLE_IF_L2, l2, trunkId,
                        [](const plat::IfRecord &r) { return r.l2TrunkId; });
}

// ---- Trunks ----

uint32_t db_create_trunk_obj(DB_OBJ_S **obj)
{
    return Create("db_create_trunk_obj", DB_TABLE_TRUNK, obj);
}

uint32_t db_set_trunk_trunk_id(DB_OBJ_S *obj, uint32_t trunkId)
{
    return SetKey<plat::TrunkRecord>("db_set_trunk_trunk_id", DB_TABLE_TRUNK, obj,
                                     [trunkId](const plat::TrunkRecord &r) { return r.trunkId == trunkId; });
}

uint32_t db_read_trunk_obj(DB_OBJ_S *obj)
{
    return ReadRecord<plat::TrunkRecord>("db_read_trunk_obj", DB_TABLE_TRUNK, obj, true);
}

uint32_t db_release_trunk_obj(DB_OBJ_S *obj)
{
    return Release("db_release_trunk_obj", DB_TABLE_TRUNK, obj);
}

uint32_t db_get_trunk_trunk_if_index(DB_OBJ_S *obj, uint32_t *trunkIfIndex)
{
    return GetField<plat::TrunkRecord>("db_get_trunk_trunk_if_index", DB_TABLE_TRUNK, obj, trunkIfIndex,
                                       [](const plat::TrunkRecord &r) { return r.trunkIfIndex; });
}

// ---- Trunk ports ----

uint32_t db_create_trunk_port_obj(DB_OBJ_S **obj)
{
    return Create("db_create_trunk_port_obj", DB_TABLE_TRUNK_PORT, obj);
}

uint32_t db_set_trunk_port_if_index(DB_OBJ_S *obj, uint32_t memberIfIndex)
{
    return SetKey<plat::TrunkPortRecord>(
        "db_set_trunk_port_if_index", DB_TABLE_TRUNK_PORT, obj,
        [memberIfIndex](const plat::TrunkPortRecord &r) { return r.memberIfIndex == memberIfIndex; });
}

uint32_t db_read_trunk_port_obj(DB_OBJ_S *obj)
{
    return ReadRecord<plat::TrunkPortRecord>("db_read_trunk_port_obj", DB_TABLE_TRUNK_PORT, obj, true);
}

uint32_t db_release_trunk_port_obj(DB_OBJ_S *obj)
{
    return Release("db_release_trunk_port_obj", DB_TABLE_TRUNK_PORT, obj);
}

uint32_t db_get_trunk_port_trunk_if_index(DB_OBJ_S *obj, uint32_t *trunkIfIndex)
{
    return GetField<plat::TrunkPortRecord>("db_get_trunk_port_trunk_if_index", DB_TABLE_TRUNK_PORT, obj,
                                           trunkIfIndex,
                                           [](const plat::TrunkPortRecord &r) { return r.trunkIfIndex; });
}

// ---- Port-VLAN maps ----

uint32_t db_create_port_vlan_map_obj(DB_OBJ_S **obj)
{
    return Create("db_create_port_vlan_map_obj", DB_TABLE_PORT_VLAN_MAP, obj);
}

uint32_t db_set_port_vlan_map_if_index(DB_OBJ_S *obj, uint32_t ifIndex)
{
    return SetKey<plat::PortVlanRecord>("db_set_port_vlan_map_if_index", DB_TABLE_PORT_VLAN_MAP, obj,
                                        [ifIndex](const plat::PortVlanRecord &r) { return r.ifIndex == ifIndex; });
}

uint32_t db_read_port_vlan_map_obj(DB_OBJ_S *obj)
{
    return ReadRecord<plat::PortVlanRecord>("db_read_port_vlan_map_obj", DB_TABLE_PORT_VLAN_MAP, obj, true);
}

uint32_t db_release_port_vlan_map_obj(DB_OBJ_S *obj)
{
    return Release("db_release_port_vlan_map_obj", DB_TABLE_PORT_VLAN_MAP, obj);
}

uint32_t db_get_port_vlan_map_bitmap(DB_OBJ_S *obj, uint8_t *bitmap, uint32_t size)
{
    return WithRow<TableObject<plat::PortVlanRecord>>(
        "db_get_port_vlan_map_bitmap", DB_TABLE_PORT_VLAN_MAP, obj, bitmap == nullptr,
        [bitmap, size](const plat::PortVlanRecord &r) {
            if (size < r.bitmap.size()) {
                return DB_ERR_BUF_SMALL;
            }
            std::memcpy(bitmap, r.bitmap.data(), r.bitmap.size());
            return DB_OK;
        });
}

// ---- Access isolation ----

uint32_t db_create_access_isolate_obj(DB_OBJ_S **obj)
{
    return Create("db_create_access_isolate_obj", DB_TABLE_ACCESS_ISOLATE, obj);
}

uint32_t db_set_access_isolate_key(DB_OBJ_S *obj, uint32_t srcIfIndex, uint32_t vlanId, uint32_t dstIfIndex)
{
    return SetKey<plat::AccessIsolateRecord>(
        "db_set_access_isolate_key", DB_TABLE_ACCESS_ISOLATE, obj,
        [srcIfIndex, vlanId, dstIfIndex](const plat::AccessIsolateRecord &r) {
            return r.srcIfIndex == srcIfIndex && r.vlanId == vlanId && r.dstIfIndex == dstIfIndex;
        });
}

uint32_t db_read_access_isolate_obj(DB_OBJ_S *obj)
{
    return ReadRecord<plat::AccessIsolateRecord>("db_read_access_isolate_obj", DB_TABLE_ACCESS_ISOLATE, obj, true);
}

uint32_t db_release_access_isolate_obj(DB_OBJ_S *obj)
{
    return Release("db_release_access_isolate_obj", DB_TABLE_ACCESS_ISOLATE, obj);
}

// ---- Port isolation ----

uint32_t db_create_port_isolate_obj(DB_OBJ_S **obj)
{
    return Create("db_create_port_isolate_obj", DB_TABLE_PORT_ISOLATE, obj);
}

uint32_t db_set_port_isolate_if_index(DB_OBJ_S *obj, uint32_t ifIndex)
{
    return SetKey<plat::PortIsolateRecord>("db_set_port_isolate_if_index", DB_TABLE_PORT_ISOLATE, obj,
                                           [ifIndex](const plat::PortIsolateRecord &r) { return r.ifIndex == ifIndex; });
}

uint32_t db_release_port_isolate_obj(DB_OBJ_S *obj)
{
    return Release("db_release_port_isolate_obj", DB_TABLE_PORT_ISOLATE, obj);
}

uint32_t db_get_port_isolate_group_id(DB_OBJ_S *obj, uint32_t *groupId)
{
    return GetField<plat::PortIsolateRecord>("db_get_port_isolate_group_id", DB_TABLE_PORT_ISOLATE, obj, groupId,
                                             [](const plat::PortIsolateRecord &r) { return r.groupId; });
}

// ---- System information ----

uint32_t db_create_sys_info_obj(DB_OBJ_S **obj)
{
    return Create("db_create_sys_info_obj", DB_TABLE_SYS_INFO, obj);
}

uint32_t db_read_sys_info_obj(DB_OBJ_S *obj)
{
    return ReadRecord<SysInfoRecord>("db_read_sys_info_obj", DB_TABLE_SYS_INFO, obj, false);
}

uint32_t db_release_sys_info_obj(DB_OBJ_S *obj)
{
    return Release("db_release_sys_info_obj", DB_TABLE_SYS_INFO, obj);
}

uint32_t db_get_sys_info_sys_name(DB_OBJ_S *obj, char *name, uint32_t size, uint32_t *length)
{
    return WithRow<TableObject<SysInfoRecord>>("db_get_sys_info_sys_name", DB_TABLE_SYS_INFO, obj,
                                               name == nullptr || length == nullptr,
                                               [name, size, length](const SysInfoRecord &r) {
                                                   *length = static_cast<uint32_t>(r.sysName.size());
                                                   return CopyText(r.sysName, name, size);
                                               });
}

// ---- Any object ----

uint32_t db_get_table_record_count(DB_OBJ_S *obj, uint32_t *count)
{
    uint32_t code = 0;
    if (plat::internal::Injected("db_get_table_record_count", &code)) {
        return code;
    }
    if (count == nullptr) {
        return DB_ERR_PARAM;
    }
    Db &db = TheDb();
    std::lock_guard lock(db.mu);
    if (!IsLive(db, obj)) {
        return DB_ERR_PARAM;
    }
    *count = static_cast<uint32_t>(obj->LiveCount());
    return DB_OK;
}

uint32_t db_create_root_iter(DB_OBJ_S *obj, uint32_t keyMask, uint32_t filter, DB_ITER_S **iter)
{
    (void)keyMask;
    (void)filter;
    uint32_t code = 0;
    if (plat::internal::Injected("db_create_root_iter", &code)) {
        return code;
    }
    if (iter == nullptr) {
        return DB_ERR_PARAM;
    }
    Db &db = TheDb();
    std::lock_guard lock(db.mu);
    if (!IsLive(db, obj) || IsNode(obj)) {
        return DB_ERR_PARAM;
    }
    // A second iteration starts over on a fresh snapshot, with the same iterator.
    obj->Snapshot();
    db.liveIters.insert(&obj->iter);
    *iter = &obj->iter;
    return DB_OK;
}

uint32_t db_root_iterator_next(DB_ITER_S *iter)
{
    uint32_t code = 0;
    if (plat::internal::Injected("db_root_iterator_next", &code)) {
        return code;
    }
    Db &db = TheDb();
    std::lock_guard lock(db.mu);
    if (iter == nullptr || db.liveIters.count(iter) == 0) {
        return DB_ERR_PARAM;
    }
    return iter->owner->Next() ? DB_OK : DB_ITER_END;
}

}  // extern "C"
