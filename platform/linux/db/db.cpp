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
// carry its description; the connections live in db_sub.cpp. Objects are
// snapshots taken when a read or an iteration starts (the world's tables are
// read without a lock). Objects live in blocks of the platform's block pool
// behind a state word, and a released one waits, with its storage, on a free
// list of the releasing thread for the next create of its table: a frame's
// reads take no lock and make no allocation once warm. A pointer is checked
// by its address and that word, so a stale or foreign pointer, or an object
// of another kind, is refused with DB_ERR_PARAM instead of being used.
// Every call passes failure injection under its own name.
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

#include "core/block_pool.hpp"
#include "core/internal.hpp"
#include "core/thread_ref.hpp"
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

uint64_t SysInfoSerial()
{
    return platform::world::DeviceSerial();
}

namespace pool = platform::internal::block_pool;

// In front of every object, in its pool block: its state word tells a live
// object from one waiting for reuse (or none at all).
using ObjHead = pool::BlockHead;
constexpr uint32_t kObjLive = 0x44424F4CU;
constexpr uint32_t kObjIdle = 0x44424F49U;

ObjHead *HeadOf(const DB_OBJ *obj)
{
    return reinterpret_cast<ObjHead *>(const_cast<char *>(reinterpret_cast<const char *>(obj)) - sizeof(ObjHead));
}

// A new object of type Obj in a block of its own; null when memory is out.
template <typename Obj, typename... Args>
Obj *NewObject(Args &&...args)
{
    void *block = pool::Take(sizeof(ObjHead) + sizeof(Obj));
    if (block == nullptr) {
        return nullptr;
    }
    auto *head = new (block) ObjHead{};
    head->state.store(kObjIdle, std::memory_order_relaxed);
    try {
        return new (head + 1) Obj(std::forward<Args>(args)...);
    } catch (const std::bad_alloc &) {
        head->state.store(0, std::memory_order_relaxed);
        pool::Give(block);
        return nullptr;
    }
}

void DestroyObject(DB_OBJ *obj)
{
    ObjHead *head = HeadOf(obj);
    head->state.store(0, std::memory_order_release);
    obj->~DB_OBJ();
    pool::Give(head);
}

// The object p points at when it is a live one of ours; nothing foreign is read.
// Inlined: every call on an object checks it.
inline __attribute__((always_inline)) DB_OBJ *LiveObject(const void *p)
{
    void *block = pool::BlockOf(p);
    if (block == nullptr) {
        return nullptr;
    }
    auto *head = static_cast<ObjHead *>(block);
    if (static_cast<const void *>(head + 1) != p || head->state.load(std::memory_order_acquire) != kObjLive) {
        return nullptr;
    }
    return reinterpret_cast<DB_OBJ *>(head + 1);
}

// Released objects of each table (and child-node kind) wait on the
// releasing thread's lists for the next create, at most this many each.
constexpr size_t kPooledPerTable = 16;
constexpr size_t kTableSlots = DB_TABLE_FRM_INST + 3;   // tables, then the "dev" and "l2" nodes

size_t SlotOf(uint32_t table)
{
    if (table == DB_TABLE_IF_DEV) {
        return DB_TABLE_FRM_INST + 1;
    }
    if (table == DB_TABLE_IF_L2) {
        return DB_TABLE_FRM_INST + 2;
    }
    return table;
}

// A thread's waiting objects: a plain record (reached without a call), and
// a guard made on the thread's first wait that destroys them when it ends.
struct IdleList {
    std::array<DB_OBJ *, kPooledPerTable> objs;
    size_t count;
};
struct ThreadObjects {
    std::array<IdleList, kTableSlots> idle;
    bool guardArmed;
};
thread_local ThreadObjects t_objects;

__attribute__((noinline)) ThreadObjects *ObjectsOfThread()
{
    return &t_objects;
}

ThreadObjects &ThreadIdle()
{
    return platform::internal::ThreadRef<ThreadObjects, ObjectsOfThread>(platform::internal::ThreadRefId::kDbObjects);
}

struct ThreadObjectsGuard {
    bool armed = false;
    ~ThreadObjectsGuard()
    {
        for (IdleList &list : t_objects.idle) {
            for (size_t i = 0; i < list.count; i++) {
                DestroyObject(list.objs[i]);
            }
            list.count = 0;
        }
    }
};
thread_local ThreadObjectsGuard t_objectsGuard;

// A live object of the table: a waiting one of this thread's, else made.
// Null when memory is out or the table is unknown.
inline __attribute__((always_inline)) DB_OBJ *TakeObject(uint32_t table,
                                                         std::unique_ptr<DB_OBJ, void (*)(DB_OBJ *)> (*make)(uint32_t))
{
    IdleList &idle = ThreadIdle().idle[SlotOf(table)];
    DB_OBJ *obj = nullptr;
    if (idle.count != 0) {
        obj = idle.objs[--idle.count];
    } else {
        obj = make(table).release();
        if (obj == nullptr) {
            return nullptr;
        }
    }
    HeadOf(obj)->state.store(kObjLive, std::memory_order_release);
    return obj;
}

void GiveObject(DB_OBJ *obj);

// Gives back the child nodes an object made.
__attribute__((noinline)) void GiveChildren(DB_OBJ *obj)
{
    for (DB_OBJ *child : obj->children) {
        GiveObject(child);
    }
    obj->children.clear();
}

// Gives a live object (not a subscription's) back for reuse. Inlined into
// the release calls, which make one per object a frame creates.
inline __attribute__((always_inline)) void GiveObject(DB_OBJ *obj)
{
    ObjHead *head = HeadOf(obj);
    head->state.store(kObjIdle, std::memory_order_release);
    if (!obj->children.empty()) {
        GiveChildren(obj);
    }
    obj->iterLive = false;
    ThreadObjects &objects = ThreadIdle();
    IdleList &idle = objects.idle[SlotOf(obj->table)];
    if (obj->sub == nullptr && idle.count < kPooledPerTable) {
        if (!objects.guardArmed) {
            objects.guardArmed = true;
            t_objectsGuard.armed = true;   // the thread's end destroys what waits
        }
        obj->Recycle();
        idle.objs[idle.count++] = obj;
        return;
    }
    DestroyObject(obj);
}

using ObjectPtr = std::unique_ptr<DB_OBJ, void (*)(DB_OBJ *)>;

// An object of one of the world's tables.
template <typename Row>
ObjectPtr WorldObject(uint32_t table)
{
    return ObjectPtr(NewObject<TableObject<Row>>(table, &platform::world::SelectRows<Row>,
                                                 &platform::world::SelectRowsWhere<Row>,
                                                 &platform::world::TableSerial<Row>,
                                                 platform::world::TableSerialWord<Row>()),
                     DestroyObject);
}

// The tables this client serves.
ObjectPtr MakeObject(uint32_t table)
{
    switch (table) {
        case DB_TABLE_FRM_INST: return WorldObject<platform::FrmInstRecord>(table);
        case DB_TABLE_IF: return WorldObject<platform::IfRecord>(table);
        case DB_TABLE_TRUNK: return WorldObject<platform::TrunkRecord>(table);
        case DB_TABLE_TRUNK_PORT: return WorldObject<platform::TrunkPortRecord>(table);
        case DB_TABLE_PORT_VLAN_MAP: return WorldObject<platform::PortVlanRecord>(table);
        case DB_TABLE_ACCESS_ISOLATE: return WorldObject<platform::AccessIsolateRecord>(table);
        case DB_TABLE_PORT_ISOLATE: return WorldObject<platform::PortIsolateRecord>(table);
        case DB_TABLE_SYS_INFO:
            return ObjectPtr(NewObject<TableObject<SysInfoRecord>>(table, &SysInfoRecords, nullptr, &SysInfoSerial),
                             DestroyObject);
        case DB_TABLE_DEVM: return WorldObject<platform::BoardRecord>(table);
        case DB_TABLE_IF_DEV:
        case DB_TABLE_IF_L2:
            return ObjectPtr(NewObject<NodeObject<platform::IfRecord>>(table, platform::IfRecord{}), DestroyObject);
        default: return ObjectPtr(nullptr, DestroyObject);
    }
}

bool IsNode(const DB_OBJ *obj)
{
    return obj->table == DB_TABLE_IF_DEV || obj->table == DB_TABLE_IF_L2;
}

// The object if it is live and of the table, else null. Inlined like
// LiveObject: a frame makes a few dozen of these checks, and the call
// around the check cost a third of it.
template <typename Obj>
inline __attribute__((always_inline)) Obj *Typed(DB_OBJ *obj, uint32_t table)
{
    DB_OBJ *live = LiveObject(obj);
    if (live == nullptr || live->table != table) {
        return nullptr;
    }
    // A table's objects are all of one type (MakeObject, AdoptChange and
    // the child nodes keep to it), so the id settles the type.
    return static_cast<Obj *>(live);
}

// Subscription descriptions are set up and copied under this lock.
std::mutex &SubMu()
{
    static auto *mu = new std::mutex();
    return *mu;
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
        static_assert(Id < kTableSlots, "objects of a table are pooled by its id");
        DB_OBJ *made = TakeObject(Id, MakeObject);
        if (made == nullptr) {
            return DB_ERR_NO_TABLE;
        }
        made->Snapshot();
        *obj = made;
        return DB_OK;
    }

    static uint32_t Release(const char *op, DB_OBJ_S *obj)
    {
        if (const auto failed = platform::FailPoint(op)) {
            return *failed;
        }
        DB_OBJ *live = LiveObject(obj);
        if (live == nullptr || live->table != Id) {
            return DB_ERR_PARAM;
        }
        GiveObject(live);
        return DB_OK;
    }

    // Runs use on the object once the call passed failure injection;
    // DB_ERR_PARAM when an out argument is missing or the object is no live
    // one of this table.
    template <typename As, typename Use>
    static uint32_t WithObject(const char *op, DB_OBJ *obj, bool outMissing, Use use)
    {
        if (const auto failed = platform::FailPoint(op)) {
            return *failed;
        }
        if (outMissing) {
            return DB_ERR_PARAM;
        }
        auto *typed = Typed<As>(obj, Id);
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
    std::lock_guard lock(SubMu());
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
    std::lock_guard lock(SubMu());
    DB_OBJ *live = LiveObject(obj);
    if (live == nullptr || !live->sub) {
        return DB_ERR_PARAM;
    }
    return use(*live->sub);
}

template <typename Row>
DB_OBJ *AdoptChange(uint32_t table, const Row &row)
{
    auto *made = NewObject<TableObject<Row>>(table, nullptr);
    if (made == nullptr) {
        return nullptr;
    }
    made->Pin(row);
    HeadOf(made)->state.store(kObjLive, std::memory_order_release);
    return made;
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
    std::lock_guard lock(SubMu());
    DB_OBJ *live = LiveObject(obj);
    if (live == nullptr || !live->sub) {
        return DB_ERR_PARAM;
    }
    *out = *live->sub;
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
    DB_OBJ *live = LiveObject(obj);
    if (live == nullptr) {
        return;
    }
    for (DB_OBJ *child : live->children) {
        GiveObject(child);
    }
    live->children.clear();
    DestroyObject(live);
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
    DB_OBJ *live = LiveObject(obj);
    if (live == nullptr) {
        return DB_ERR_PARAM;
    }
    live->Snapshot();
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
    // Two short names, asked for several times a frame: compared in place,
    // reading node no further than its first difference.
    auto named = [node](std::string_view want) {
        for (size_t i = 0; i < want.size(); i++) {
            if (node[i] != want[i]) {
                return false;
            }
        }
        return node[want.size()] == '\0';
    };
    uint32_t table = 0;
    if (named("dev")) {
        table = DB_TABLE_IF_DEV;
    } else if (named("l2")) {
        table = DB_TABLE_IF_L2;
    } else {
        return DB_ERR_PARAM;
    }
    auto *parent = Typed<TableObject<platform::IfRecord>>(obj, DB_TABLE_IF);
    if (parent == nullptr) {
        return DB_ERR_PARAM;
    }
    const platform::IfRecord *row = parent->CurrentRow();
    if (row == nullptr) {
        return DB_ERR_NO_RECORD;
    }
    DB_OBJ *made = TakeObject(table, MakeObject);
    if (made == nullptr) {
        return DB_ERR_NO_TABLE;
    }
    try {
        parent->children.push_back(made);
    } catch (const std::bad_alloc &) {
        GiveObject(made);
        return DB_ERR_NO_TABLE;
    }
    // A node serves only the numbers of its part ("dev": placement, "l2":
    // the trunk), so the interface's texts are not copied into it.
    auto *part = static_cast<NodeObject<platform::IfRecord> *>(made);
    part->Hold(*row, [](platform::IfRecord &to, const platform::IfRecord &from) {
        to.ifIndex = from.ifIndex;
        to.slot = from.slot;
        to.card = from.card;
        to.port = from.port;
        to.l2TrunkId = from.l2TrunkId;
        to.lagId = from.lagId;
        to.portSwitch = from.portSwitch;
        to.onBoard = from.onBoard;
        to.trunkMode = from.trunkMode;
        to.pvid = from.pvid;
    });
    *child = made;
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
    DB_OBJ *live = LiveObject(obj);
    if (live == nullptr) {
        return DB_ERR_PARAM;
    }
    *count = static_cast<uint32_t>(live->LiveCount());
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
    DB_OBJ *live = LiveObject(obj);
    if (live == nullptr || IsNode(live)) {
        return DB_ERR_PARAM;
    }
    // A second iteration starts over on a fresh snapshot, with the same iterator.
    live->Snapshot();
    live->iterLive = true;
    *iter = &live->iter;
    return DB_OK;
}

uint32_t db_root_iterator_next(DB_ITER_S *iter)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    // The iterator lies inside its object: found by the object's block,
    // whose head then tells a live object without a second look-up.
    void *block = iter != nullptr ? pool::BlockOf(iter) : nullptr;
    auto *head = static_cast<ObjHead *>(block);
    DB_OBJ *owner = head != nullptr && head->state.load(std::memory_order_acquire) == kObjLive
                        ? reinterpret_cast<DB_OBJ *>(head + 1)
                        : nullptr;
    if (owner == nullptr || &owner->iter != iter || !owner->iterLive) {
        return DB_ERR_PARAM;
    }
    return owner->Next() ? DB_OK : DB_ITER_END;
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
