// Object database client.
//
// On the real switch modules read the framework's tables through typed
// database objects: create an object on a table, set its key, read the
// matching record or iterate the records, read fields of the current one,
// release it. Ours serves the tables of the world model through the same
// calls: framework instances, interfaces (with their "dev" and "l2" child
// nodes), trunks, trunk ports, port-VLAN maps, access isolation, port
// isolation, system information and the board registry ("devm"). Objects
// created for a subscription (db_create_devm_obj, db_create_if_obj) also
// carry its description; the connections live in db_sub.cpp. Objects are snapshots taken when a read
// or an iteration starts; every object and iterator handed out is tracked,
// so a stale or foreign pointer, or an object of another kind, is refused
// with DB_ERR_PARAM instead of being used. Every call passes failure
// injection under its own name.
#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_set>

#include "core/internal.hpp"
#include "db.h"
#include "db/db_object.hpp"
#include "platform/fail_point.hpp"
#include "platform/world.hpp"

namespace {

using platform::db::NodeObject;
using platform::db::TableObject;

// The one record of the system-information table.
struct SysInfoRecord {
    std::string sysName;
};

void SysInfoRecords(const platform::world::RowFilter<SysInfoRecord> &keep, std::vector<SysInfoRecord> &out)
{
    SysInfoRecord only{platform::world::Identity().sysName};
    out.clear();
    if (!keep || keep(only)) {
        out.push_back(std::move(only));
    }
}

// Released table objects wait here for the next create of their table, so
// the lookups a frame makes cost no allocation; at most this many per table.
constexpr size_t kPooledPerTable = 64;

struct Db {
    platform::internal::SpinMutex mu;  // guards every object's state and the members below
    // Every object that exists, handed out (DB_OBJ::live) or pooled.
    std::unordered_set<DB_OBJ *> objs;
    std::unordered_set<DB_ITER *> liveIters;
    std::array<std::vector<std::unique_ptr<DB_OBJ>>, DB_TABLE_FRM_INST + 1> pool;  // by table id
};

Db &TheDb()
{
    return platform::internal::Leaky<Db>();
}

// An object of one of the world's tables.
template <typename Row>
std::unique_ptr<DB_OBJ> WorldObject(uint32_t table)
{
    return std::make_unique<TableObject<Row>>(table, &platform::world::SelectRows<Row>,
                                              &platform::world::SelectRowsWhere<Row>);
}

// The tables this client serves.
std::unique_ptr<DB_OBJ> MakeObject(uint32_t table)
{
    switch (table) {
        case DB_TABLE_FRM_INST: return WorldObject<platform::FrmInstRecord>(table);
        case DB_TABLE_IF: return WorldObject<platform::IfRecord>(table);
        case DB_TABLE_TRUNK: return WorldObject<platform::TrunkRecord>(table);
        case DB_TABLE_TRUNK_PORT: return WorldObject<platform::TrunkPortRecord>(table);
        case DB_TABLE_PORT_VLAN_MAP: return WorldObject<platform::PortVlanRecord>(table);
        case DB_TABLE_ACCESS_ISOLATE: return WorldObject<platform::AccessIsolateRecord>(table);
        case DB_TABLE_PORT_ISOLATE: return WorldObject<platform::PortIsolateRecord>(table);
        case DB_TABLE_SYS_INFO: return std::make_unique<TableObject<SysInfoRecord>>(table, &SysInfoRecords);
        case DB_TABLE_DEVM: return WorldObject<platform::BoardRecord>(table);
        default: return nullptr;
    }
}

bool IsNode(const DB_OBJ *obj)
{
    return obj->table == DB_TABLE_IF_DEV || obj->table == DB_TABLE_IF_L2;
}

// Caller holds Db::mu.
bool IsLive(const Db &db, DB_OBJ *obj)
{
    return obj != nullptr && db.objs.count(obj) != 0 && obj->live;
}

// Caller holds Db::mu. The object if it is live and of the table, else null.
template <typename Obj>
Obj *Typed(const Db &db, DB_OBJ *obj, uint32_t table)
{
    if (!IsLive(db, obj) || obj->table != table) {
        return nullptr;
    }
    // A table's objects are all of one type (MakeObject, AdoptChange and
    // the child nodes keep to it), so the id settles the type.
    return static_cast<Obj *>(obj);
}

// The calls on one table of Row records, read through objects of type Obj
// (a TableObject, or a NodeObject for an interface's child nodes). Each
// takes the name the call passes failure injection under.
template <uint32_t Id, typename Row, typename Obj = TableObject<Row>>
struct Table {
    // asked: the table the caller names, for the calls that take one.
    static uint32_t Create(const char *op, DB_OBJ_S **obj, uint32_t asked = Id)
    {
        if (const auto failed = platform::FailPoint(op)) {
            return *failed;
        }
        if (obj == nullptr) {
            return DB_ERR_PARAM;
        }
        if (asked != Id) {
            return DB_ERR_NO_TABLE;
        }
        static_assert(Id < std::tuple_size_v<decltype(Db::pool)>, "objects of a table are pooled by its id");
        Db &db = TheDb();
        std::lock_guard lock(db.mu);
        std::unique_ptr<DB_OBJ> made;
        if (auto &pooled = db.pool[Id]; !pooled.empty()) {
            made = std::move(pooled.back());
            pooled.pop_back();
        } else {
            made = MakeObject(Id);
            if (!made) {
                return DB_ERR_NO_TABLE;
            }
            db.objs.insert(made.get());
        }
        made->Snapshot();
        made->live = true;
        *obj = made.release();
        return DB_OK;
    }

    static uint32_t Release(const char *op, DB_OBJ_S *obj)
    {
        if (const auto failed = platform::FailPoint(op)) {
            return *failed;
        }
        std::unique_ptr<DB_OBJ> owned;
        std::vector<std::unique_ptr<DB_OBJ>> children;
        {
            Db &db = TheDb();
            std::lock_guard lock(db.mu);
            if (!IsLive(db, obj) || obj->table != Id) {
                return DB_ERR_PARAM;
            }
            for (DB_OBJ *child : obj->children) {
                db.objs.erase(child);
                db.liveIters.erase(&child->iter);
                children.emplace_back(child);
            }
            obj->children.clear();
            db.liveIters.erase(&obj->iter);
            obj->live = false;
            auto &pooled = db.pool[Id];
            if (obj->sub == nullptr && pooled.size() < kPooledPerTable) {
                obj->Recycle();
                pooled.emplace_back(obj);
            } else {
                db.objs.erase(obj);
                owned.reset(obj);
            }
        }
        return DB_OK;
    }

    // Runs use on the object, under the lock, once the call passed failure
    // injection; DB_ERR_PARAM when an out argument is missing or the object
    // is no live one of this table.
    template <typename As, typename Use>
    static uint32_t WithObject(const char *op, DB_OBJ *obj, bool outMissing, Use use)
    {
        if (const auto failed = platform::FailPoint(op)) {
            return *failed;
        }
        if (outMissing) {
            return DB_ERR_PARAM;
        }
        Db &db = TheDb();
        std::lock_guard lock(db.mu);
        auto *typed = Typed<As>(db, obj, Id);
        return typed == nullptr ? DB_ERR_PARAM : use(*typed);
    }

    // Keys the object to the records whose Fields equal keys; no current
    // record afterwards.
    template <auto... Fields, typename... Keys>
    static uint32_t SetKey(const char *op, DB_OBJ_S *obj, Keys... keys)
    {
        return WithObject<Obj>(op, obj, false, [keys...](Obj &typed) {
            if constexpr (sizeof...(Fields) == 1 && (std::is_same_v<decltype(Fields), uint32_t Row::*> && ...)) {
                typed.SetKeyField(Fields..., keys...);  // the world reads it without a call per row
            } else {
                typed.SetKey([keys...](const Row &r) { return ((r.*Fields == keys) && ...); });
            }
            typed.Snapshot();
            return DB_OK;
        });
    }

    // Reads the first record matching the key: it becomes the current one.
    static uint32_t Read(const char *op, DB_OBJ_S *obj, bool needsKey = true)
    {
        return WithObject<Obj>(op, obj, false, [needsKey](Obj &typed) {
            if (needsKey && !typed.HasKey()) {
                return DB_ERR_NO_KEY;
            }
            typed.Snapshot();
            return typed.Next() ? DB_OK : DB_ERR_NO_RECORD;
        });
    }

    // Runs use on the object's current row; use returns the call's result.
    template <typename Use>
    static uint32_t WithRow(const char *op, DB_OBJ *obj, bool outMissing, Use use)
    {
        return WithObject<const Obj>(op, obj, outMissing, [&use](const Obj &typed) {
            const auto *row = typed.CurrentRow();
            return row == nullptr ? DB_ERR_NO_RECORD : use(*row);
        });
    }

    // Reads the field Field of the current row.
    template <auto Field, typename T>
    static uint32_t GetField(const char *op, DB_OBJ *obj, T *out)
    {
        return WithRow(op, obj, out == nullptr, [out](const Row &r) {
            *out = r.*Field;
            return DB_OK;
        });
    }
};

using platform::AccessIsolateRecord;
using platform::FrmInstRecord;
using platform::IfRecord;
using platform::PortIsolateRecord;
using platform::PortVlanRecord;
using platform::TrunkPortRecord;
using platform::TrunkRecord;

using FrmInst = Table<DB_TABLE_FRM_INST, FrmInstRecord>;
using If = Table<DB_TABLE_IF, IfRecord>;
using IfDev = Table<DB_TABLE_IF_DEV, IfRecord, NodeObject<IfRecord>>;
using IfL2 = Table<DB_TABLE_IF_L2, IfRecord, NodeObject<IfRecord>>;
using Trunk = Table<DB_TABLE_TRUNK, TrunkRecord>;
using TrunkPort = Table<DB_TABLE_TRUNK_PORT, TrunkPortRecord>;
using PortVlan = Table<DB_TABLE_PORT_VLAN_MAP, PortVlanRecord>;
using AccessIsolate = Table<DB_TABLE_ACCESS_ISOLATE, AccessIsolateRecord>;
using PortIsolate = Table<DB_TABLE_PORT_ISOLATE, PortIsolateRecord>;
using SysInfo = Table<DB_TABLE_SYS_INFO, SysInfoRecord>;
using Devm = Table<DB_TABLE_DEVM, platform::BoardRecord>;

// The fields a subscription may name, per table.
bool KnownField(uint32_t table, const char *tableName, const char *field)
{
    // Constant tables: nothing to destroy at exit under a task still subscribing.
    static constexpr std::string_view kIfFields[] = {"ifindex", "name", "port_switch", "on_board", "lag_id"};
    static constexpr std::string_view kDevmFields[] = {"Chassis_ID", "Slot_ID", "Register_status"};
    std::span<const std::string_view> known;
    if (table == DB_TABLE_IF && std::strcmp(tableName, "if") == 0) {
        known = kIfFields;
    } else if (table == DB_TABLE_DEVM && std::strcmp(tableName, "devm") == 0) {
        known = kDevmFields;
    } else {
        return false;
    }
    return std::find(known.begin(), known.end(), std::string_view(field)) != known.end();
}

// Creates an object of a table that also describes a subscription.
uint32_t CreateSubObject(uint32_t code, DB_OBJ_S **obj, uint32_t table)
{
    if (code != DB_OK) {
        return code;
    }
    Db &db = TheDb();
    std::lock_guard lock(db.mu);
    (*obj)->sub = std::make_unique<platform::db::SubDescription>();
    (*obj)->sub->table = table;
    return DB_OK;
}

// Runs use on the description of a live subscription object, once the call
// passed failure injection.
template <typename Use>
uint32_t WithSubDescription(const char *op, DB_OBJ *obj, Use use)
{
    if (const auto failed = platform::FailPoint(op)) {
        return *failed;
    }
    Db &db = TheDb();
    std::lock_guard lock(db.mu);
    if (!IsLive(db, obj) || !obj->sub) {
        return DB_ERR_PARAM;
    }
    return use(*obj->sub);
}

template <typename Row>
DB_OBJ *AdoptChange(uint32_t table, const Row &row)
{
    auto made = std::make_unique<TableObject<Row>>(table, nullptr);
    made->Pin(row);
    Db &db = TheDb();
    std::lock_guard lock(db.mu);
    DB_OBJ *obj = made.release();
    obj->live = true;
    db.objs.insert(obj);
    return obj;
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

namespace platform::db {

uint32_t CopySubDescription(DB_OBJ *obj, SubDescription *out)
{
    Db &db = TheDb();
    std::lock_guard lock(db.mu);
    if (!IsLive(db, obj) || !obj->sub) {
        return DB_ERR_PARAM;
    }
    *out = *obj->sub;
    return DB_OK;
}

DB_OBJ *MakeChangeObject(const platform::IfRecord &row)
{
    return AdoptChange(DB_TABLE_IF, row);
}

DB_OBJ *MakeChangeObject(const platform::BoardRecord &row)
{
    return AdoptChange(DB_TABLE_DEVM, row);
}

void DropChangeObject(DB_OBJ *obj)
{
    if (obj == nullptr) {
        return;
    }
    Db &db = TheDb();
    std::lock_guard lock(db.mu);
    db.objs.erase(obj);
    db.liveIters.erase(&obj->iter);
    delete obj;
}

}  // namespace platform::db

extern "C" {

uint32_t db_create_frm_inst_obj(uint32_t table, uint32_t flags, DB_OBJ_S **obj)
{
    (void)flags;
    return FrmInst::Create(__func__, obj, table);
}

uint32_t db_reset_frm_inst_object(DB_OBJ_S *obj, uint32_t mode)
{
    (void)mode;
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
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
    return FrmInst::Release(__func__, obj);
}

uint32_t db_get_frm_inst_local_slot(DB_OBJ_S *obj, int32_t *localSlot)
{
    return FrmInst::GetField<&FrmInstRecord::localSlot>(__func__, obj, localSlot);
}

uint32_t db_get_frm_inst_role(DB_OBJ_S *obj, uint32_t *role)
{
    return FrmInst::GetField<&FrmInstRecord::role>(__func__, obj, role);
}

uint32_t db_get_frm_inst_mod_state(DB_OBJ_S *obj, uint32_t *modState)
{
    return FrmInst::GetField<&FrmInstRecord::modState>(__func__, obj, modState);
}

uint32_t db_get_frm_inst_state(DB_OBJ_S *obj, uint32_t *state)
{
    return FrmInst::GetField<&FrmInstRecord::state>(__func__, obj, state);
}

// ---- Interfaces ----

uint32_t db_create_if_object(DB_OBJ_S **obj)
{
    return If::Create(__func__, obj);
}

uint32_t db_set_if_ifindex(DB_OBJ_S *obj, uint32_t ifIndex)
{
    return If::SetKey<&IfRecord::ifIndex>(__func__, obj, ifIndex);
}

uint32_t db_read_if_object(DB_OBJ_S *obj)
{
    return If::Read(__func__, obj);
}

uint32_t db_release_if_object(DB_OBJ_S *obj)
{
    return If::Release(__func__, obj);
}

uint32_t db_get_if_ifindex(DB_OBJ_S *obj, uint32_t *ifIndex)
{
    return If::GetField<&IfRecord::ifIndex>(__func__, obj, ifIndex);
}

uint32_t db_get_if_name(DB_OBJ_S *obj, char *name, uint32_t size)
{
    return If::WithRow(__func__, obj, name == nullptr,
                       [name, size](const IfRecord &r) { return CopyText(r.name, name, size); });
}

uint32_t db_get_if_lag_id(DB_OBJ_S *obj, uint32_t *lagId)
{
    return If::GetField<&IfRecord::lagId>(__func__, obj, lagId);
}

uint32_t db_get_if_port_switch(DB_OBJ_S *obj, uint32_t *portSwitch)
{
    return If::GetField<&IfRecord::portSwitch>(__func__, obj, portSwitch);
}

uint32_t db_get_if_on_board(DB_OBJ_S *obj, uint32_t *onBoard)
{
    return If::GetField<&IfRecord::onBoard>(__func__, obj, onBoard);
}

uint32_t db_create_child_node(DB_OBJ_S *obj, const char *node, DB_OBJ_S **child)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
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
    auto *parent = Typed<TableObject<platform::IfRecord>>(db, obj, DB_TABLE_IF);
    if (parent == nullptr) {
        return DB_ERR_PARAM;
    }
    const platform::IfRecord *row = parent->CurrentRow();
    if (row == nullptr) {
        return DB_ERR_NO_RECORD;
    }
    auto made = std::make_unique<NodeObject<platform::IfRecord>>(table, *row);
    *child = made.get();
    made->live = true;
    parent->children.push_back(made.get());
    db.objs.insert(made.release());
    return DB_OK;
}

uint32_t db_get_if_dev_slot_id(DB_OBJ_S *dev, uint32_t *slotId)
{
    return IfDev::GetField<&IfRecord::slot>(__func__, dev, slotId);
}

uint32_t db_get_if_dev_card_id(DB_OBJ_S *dev, uint32_t *cardId)
{
    return IfDev::GetField<&IfRecord::card>(__func__, dev, cardId);
}

uint32_t db_get_if_dev_port_num(DB_OBJ_S *dev, uint16_t *portNum)
{
    return IfDev::GetField<&IfRecord::port>(__func__, dev, portNum);
}

uint32_t db_get_if_l2_trunk_id(DB_OBJ_S *l2, uint32_t *trunkId)
{
    return IfL2::GetField<&IfRecord::l2TrunkId>(__func__, l2, trunkId);
}

// ---- Trunks ----

uint32_t db_create_trunk_obj(DB_OBJ_S **obj)
{
    return Trunk::Create(__func__, obj);
}

uint32_t db_set_trunk_trunk_id(DB_OBJ_S *obj, uint32_t trunkId)
{
    return Trunk::SetKey<&TrunkRecord::trunkId>(__func__, obj, trunkId);
}

uint32_t db_read_trunk_obj(DB_OBJ_S *obj)
{
    return Trunk::Read(__func__, obj);
}

uint32_t db_release_trunk_obj(DB_OBJ_S *obj)
{
    return Trunk::Release(__func__, obj);
}

uint32_t db_get_trunk_trunk_if_index(DB_OBJ_S *obj, uint32_t *trunkIfIndex)
{
    return Trunk::GetField<&TrunkRecord::trunkIfIndex>(__func__, obj, trunkIfIndex);
}

// ---- Trunk ports ----

uint32_t db_create_trunk_port_obj(DB_OBJ_S **obj)
{
    return TrunkPort::Create(__func__, obj);
}

uint32_t db_set_trunk_port_if_index(DB_OBJ_S *obj, uint32_t memberIfIndex)
{
    return TrunkPort::SetKey<&TrunkPortRecord::memberIfIndex>(__func__, obj, memberIfIndex);
}

uint32_t db_read_trunk_port_obj(DB_OBJ_S *obj)
{
    return TrunkPort::Read(__func__, obj);
}

uint32_t db_release_trunk_port_obj(DB_OBJ_S *obj)
{
    return TrunkPort::Release(__func__, obj);
}

uint32_t db_get_trunk_port_trunk_if_index(DB_OBJ_S *obj, uint32_t *trunkIfIndex)
{
    return TrunkPort::GetField<&TrunkPortRecord::trunkIfIndex>(__func__, obj, trunkIfIndex);
}

// ---- Port-VLAN maps ----

uint32_t db_create_port_vlan_map_obj(DB_OBJ_S **obj)
{
    return PortVlan::Create(__func__, obj);
}

uint32_t db_set_port_vlan_map_if_index(DB_OBJ_S *obj, uint32_t ifIndex)
{
    return PortVlan::SetKey<&PortVlanRecord::ifIndex>(__func__, obj, ifIndex);
}

uint32_t db_read_port_vlan_map_obj(DB_OBJ_S *obj)
{
    return PortVlan::Read(__func__, obj);
}

uint32_t db_release_port_vlan_map_obj(DB_OBJ_S *obj)
{
    return PortVlan::Release(__func__, obj);
}

uint32_t db_get_port_vlan_map_bitmap(DB_OBJ_S *obj, uint8_t *bitmap, uint32_t size)
{
    return PortVlan::WithRow(__func__, obj, bitmap == nullptr, [bitmap, size](const PortVlanRecord &r) {
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
    return AccessIsolate::Create(__func__, obj);
}

uint32_t db_set_access_isolate_key(DB_OBJ_S *obj, uint32_t srcIfIndex, uint32_t vlanId, uint32_t dstIfIndex)
{
    return AccessIsolate::SetKey<&AccessIsolateRecord::srcIfIndex, &AccessIsolateRecord::vlanId,
                                 &AccessIsolateRecord::dstIfIndex>(__func__, obj, srcIfIndex, vlanId, dstIfIndex);
}

uint32_t db_read_access_isolate_obj(DB_OBJ_S *obj)
{
    return AccessIsolate::Read(__func__, obj);
}

uint32_t db_release_access_isolate_obj(DB_OBJ_S *obj)
{
    return AccessIsolate::Release(__func__, obj);
}

// ---- Port isolation ----

uint32_t db_create_port_isolate_obj(DB_OBJ_S **obj)
{
    return PortIsolate::Create(__func__, obj);
}

uint32_t db_set_port_isolate_if_index(DB_OBJ_S *obj, uint32_t ifIndex)
{
    return PortIsolate::SetKey<&PortIsolateRecord::ifIndex>(__func__, obj, ifIndex);
}

uint32_t db_release_port_isolate_obj(DB_OBJ_S *obj)
{
    return PortIsolate::Release(__func__, obj);
}

uint32_t db_get_port_isolate_group_id(DB_OBJ_S *obj, uint32_t *groupId)
{
    return PortIsolate::GetField<&PortIsolateRecord::groupId>(__func__, obj, groupId);
}

// ---- System information ----

uint32_t db_create_sys_info_obj(DB_OBJ_S **obj)
{
    return SysInfo::Create(__func__, obj);
}

// The one record needs no key.
uint32_t db_read_sys_info_obj(DB_OBJ_S *obj) { return SysInfo::Read(__func__, obj, false); }

uint32_t db_release_sys_info_obj(DB_OBJ_S *obj)
{
    return SysInfo::Release(__func__, obj);
}

uint32_t db_get_sys_info_sys_name(DB_OBJ_S *obj, char *name, uint32_t size, uint32_t *length)
{
    return SysInfo::WithRow(__func__, obj, name == nullptr || length == nullptr,
                            [name, size, length](const SysInfoRecord &r) {
                                *length = static_cast<uint32_t>(r.sysName.size());
                                return CopyText(r.sysName, name, size);
                            });
}

// ---- Any object ----

uint32_t db_get_table_record_count(DB_OBJ_S *obj, uint32_t *count)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
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
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
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
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    Db &db = TheDb();
    std::lock_guard lock(db.mu);
    if (iter == nullptr || db.liveIters.count(iter) == 0) {
        return DB_ERR_PARAM;
    }
    return iter->owner->Next() ? DB_OK : DB_ITER_END;
}

// ---- Subscription objects and the board registry ----

uint32_t db_create_devm_obj(uint32_t mode, uint32_t flags, DB_OBJ_S **obj)
{
    (void)mode;
    (void)flags;
    return CreateSubObject(Devm::Create(__func__, obj), obj, DB_TABLE_DEVM);
}

uint32_t db_release_devm_object(DB_OBJ_S *obj)
{
    return Devm::Release(__func__, obj);
}

uint32_t db_create_if_obj(uint32_t mode, uint32_t flags, DB_OBJ_S **obj)
{
    (void)mode;
    (void)flags;
    return CreateSubObject(If::Create(__func__, obj), obj, DB_TABLE_IF);
}

uint32_t db_sub_add_event(DB_OBJ_S *obj, uint32_t eventMask)
{
    return WithSubDescription(__func__, obj, [eventMask](platform::db::SubDescription &desc) {
        const uint32_t all = DB_CHANGE_CREATE | DB_CHANGE_UPDATE | DB_CHANGE_DELETE;
        if (eventMask == 0 || (eventMask & ~all) != 0) {
            return DB_ERR_PARAM;
        }
        desc.eventMask |= eventMask;
        return DB_OK;
    });
}

uint32_t db_sub_add_field(DB_OBJ_S *obj, const char *table, const char *field, uint32_t a, uint32_t b, uint32_t c)
{
    (void)a;
    (void)b;
    (void)c;
    return WithSubDescription(__func__, obj, [table, field](platform::db::SubDescription &desc) {
        if (table == nullptr || field == nullptr || !KnownField(desc.table, table, field)) {
            return DB_ERR_PARAM;
        }
        desc.fields.emplace_back(field);
        return DB_OK;
    });
}

uint32_t db_sub_add_push_op(DB_OBJ_S *obj, uint32_t pushOp)
{
    return WithSubDescription(__func__, obj, [pushOp](platform::db::SubDescription &desc) {
        if (pushOp != DB_SUB_PUSH_OBJECT) {
            return DB_ERR_PARAM;
        }
        desc.pushOp = pushOp;
        return DB_OK;
    });
}

uint32_t db_sub_reg_callback(DB_OBJ_S *obj, DB_SUB_CALLBACK_FN callback, void *userCallback)
{
    return WithSubDescription(__func__, obj, [callback, userCallback](platform::db::SubDescription &desc) {
        if (callback == nullptr) {
            return DB_ERR_PARAM;
        }
        desc.callback = callback;
        desc.userCallback = userCallback;
        return DB_OK;
    });
}

uint32_t db_get_devm_Chassis_ID(DB_OBJ_S *obj, uint32_t *chassisId)
{
    return Devm::GetField<&platform::BoardRecord::chassisId>(__func__, obj, chassisId);
}

uint32_t db_get_devm_Slot_ID(DB_OBJ_S *obj, uint32_t *slotId)
{
    return Devm::GetField<&platform::BoardRecord::slotId>(__func__, obj, slotId);
}

uint32_t db_get_devm_Register_status(DB_OBJ_S *obj, uint32_t *status)
{
    return Devm::WithRow(__func__, obj, status == nullptr, [status](const platform::BoardRecord &r) {
        if (!r.registerStatus) {
            return DB_NO_VALUE;
        }
        *status = *r.registerStatus;
        return DB_OK;
    });
}

}  // extern "C"
