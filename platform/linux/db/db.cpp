// Object database client.
//
// On the real switch modules read the framework's tables through typed
// database objects: create an object on a table, iterate its records, read
// fields of the current one, release it. Ours serves the tables of the
// world model (so far table 9, framework instances) through the same calls.
// Objects are snapshots taken when an iteration starts; every object and
// iterator handed out is tracked, so a stale or foreign pointer is refused
// with DB_ERR_PARAM instead of being used. Every call passes failure
// injection under its own name.
#include <memory>
#include <mutex>
#include <unordered_set>

#include "core/internal.hpp"
#include "db.h"
#include "db/db_object.hpp"
#include "plat_world.hpp"

namespace {

using plat::db::TableObject;

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
        default:
            return nullptr;
    }
}

// Caller holds Db::mu.
bool IsLive(const Db &db, DB_OBJ *obj)
{
    return obj != nullptr && db.liveObjs.count(obj) != 0;
}

// Reads one field of the current row of an object on a table of Row.
template <typename Row, typename T, typename Get>
uint32_t GetField(const char *op, DB_OBJ *obj, T *out, Get get)
{
    uint32_t code = 0;
    if (plat::internal::Injected(op, &code)) {
        return code;
    }
    if (out == nullptr) {
        return DB_ERR_PARAM;
    }
    Db &db = TheDb();
    std::lock_guard lock(db.mu);
    if (!IsLive(db, obj)) {
        return DB_ERR_PARAM;
    }
    const auto *typed = dynamic_cast<const TableObject<Row> *>(obj);
    if (typed == nullptr) {
        return DB_ERR_PARAM;
    }
    const Row *row = typed->CurrentRow();
    if (row == nullptr) {
        return DB_ERR_NO_RECORD;
    }
    *out = get(*row);
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
    uint32_t code = 0;
    if (plat::internal::Injected("db_release_frm_inst_object", &code)) {
        return code;
    }
    std::unique_ptr<DB_OBJ> owned;
    {
        Db &db = TheDb();
        std::lock_guard lock(db.mu);
        if (!IsLive(db, obj)) {
            return DB_ERR_PARAM;
        }
        db.liveObjs.erase(obj);
        db.liveIters.erase(&obj->iter);
        owned.reset(obj);
    }
    return DB_OK;
}

uint32_t db_get_frm_inst_local_slot(DB_OBJ_S *obj, int32_t *localSlot)
{
    return GetField<plat::FrmInstRecord>("db_get_frm_inst_local_slot", obj, localSlot,
                                         [](const plat::FrmInstRecord &r) { return r.localSlot; });
}

uint32_t db_get_frm_inst_role(DB_OBJ_S *obj, uint32_t *role)
{
    return GetField<plat::FrmInstRecord>("db_get_frm_inst_role", obj, role,
                                         [](const plat::FrmInstRecord &r) { return r.role; });
}

uint32_t db_get_frm_inst_mod_state(DB_OBJ_S *obj, uint32_t *modState)
{
    return GetField<plat::FrmInstRecord>("db_get_frm_inst_mod_state", obj, modState,
                                         [](const plat::FrmInstRecord &r) { return r.modState; });
}

uint32_t db_get_frm_inst_state(DB_OBJ_S *obj, uint32_t *state)
{
    return GetField<plat::FrmInstRecord>("db_get_frm_inst_state", obj, state,
                                         [](const plat::FrmInstRecord &r) { return r.state; });
}

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
    if (!IsLive(db, obj)) {
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
