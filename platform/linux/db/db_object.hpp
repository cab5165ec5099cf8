// The object model of the database client: an object is a cursor over one
// table of the world model, with at most one iterator of its own.
//
// A table is a row type plus a function returning the table's rows in order
// (from platform/world.hpp). TableObject<Row> keeps a snapshot taken when an
// iteration starts, a read is made (or the object is reset), so concurrent
// changes to the world never move rows under an iteration. A key narrows
// the snapshot to the matching rows. A further table is added by naming
// its row type and source in MakeObject (db.cpp) and writing its field
// getters with GetField. Child nodes ("dev", "l2") are NodeObjects holding
// a copy of their parent's current row; the parent owns them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "db.h"
#include "platform/world.hpp"
#include "world/world_internal.hpp"

namespace platform::db {

// What an object created for a subscription describes: the table, the
// change types, the fields, the push operation and the callback.
struct SubDescription {
    uint32_t table = 0;
    uint32_t eventMask = 0;
    std::vector<std::string> fields;
    uint32_t pushOp = 0;
    DB_SUB_CALLBACK_FN callback = nullptr;
    void *userCallback = nullptr;
};

}  // namespace platform::db

struct DB_ITER {
    DB_OBJ *owner = nullptr;
};

struct DB_OBJ {
    explicit DB_OBJ(uint32_t tableId) : table(tableId) { iter.owner = this; }
    DB_OBJ(const DB_OBJ &) = delete;
    DB_OBJ &operator=(const DB_OBJ &) = delete;
    virtual ~DB_OBJ() = default;

    // Rows in the world's table now.
    virtual size_t LiveCount() const = 0;
    // Takes a fresh snapshot of the table; no current row afterwards.
    virtual void Snapshot() = 0;
    // Rows in the snapshot.
    virtual size_t SnapshotCount() const = 0;

    // Steps to the next snapshot row and makes it current; false past the end.
    bool Next()
    {
        const size_t next = hasCurrent ? current + 1 : (started ? SnapshotCount() : 0);
        started = true;
        if (next >= SnapshotCount()) {
            hasCurrent = false;
            current = SnapshotCount();
            return false;
        }
        current = next;
        hasCurrent = true;
        return true;
    }

    void Rewind()
    {
        started = false;
        hasCurrent = false;
        current = 0;
    }

    // Back to the state of a new object, keeping storage, for reuse.
    virtual void Recycle() { Rewind(); }

    const uint32_t table;
    DB_ITER iter;
    std::vector<DB_OBJ *> children;   // child nodes, released with this object
    std::unique_ptr<platform::db::SubDescription> sub;   // objects describing a subscription only
    bool live = false;        // handed out and not released (pooled objects are not)
    bool started = false;     // Next was called since the last rewind
    bool hasCurrent = false;
    size_t current = 0;
};

namespace platform::db {

template <typename Row>
class TableObject final : public DB_OBJ {
public:
    using Match = platform::world::RowFilter<Row>;
    using Source = void (*)(const Match &, std::vector<Row> &);
    using KeyedSource = void (*)(uint32_t Row::*field, uint32_t key, std::vector<Row> &);

    TableObject(uint32_t tableId, Source source, KeyedSource keyed = nullptr)
        : DB_OBJ(tableId), source_(source), keyed_(keyed)
    {
    }

    size_t LiveCount() const override
    {
        std::vector<Row> rows;
        Fill(rows);
        return rows.size();
    }
    // The rows are fetched when the iteration first steps, so creating and
    // keying an object before its read costs no copy of the table.
    void Snapshot() override
    {
        stale_ = true;
        Rewind();
    }
    void Recycle() override
    {
        match_ = nullptr;
        keyField_ = nullptr;
        stale_ = true;
        Rewind();
    }
    // Narrows every later snapshot to the rows matching the key.
    void SetKey(Match match)
    {
        match_ = std::move(match);
        keyField_ = nullptr;
    }
    // The same for a key of one 32-bit field, which the world can compare
    // directly.
    void SetKeyField(uint32_t Row::*field, uint32_t key)
    {
        match_ = [field, key](const Row &r) { return r.*field == key; };
        keyField_ = field;
        keyValue_ = key;
    }
    bool HasKey() const { return static_cast<bool>(match_); }
    size_t SnapshotCount() const override
    {
        if (stale_) {
            Fill(rows_);
            stale_ = false;
        }
        return rows_.size();
    }

    const Row *CurrentRow() const { return hasCurrent ? &rows_[current] : nullptr; }

    // Holds exactly this row as the current one (the records of a change).
    void Pin(const Row &row)
    {
        rows_.assign(1, row);
        stale_ = false;
        started = true;
        hasCurrent = true;
        current = 0;
    }

private:
    // The rows this object sees now into out (over what it held).
    void Fill(std::vector<Row> &out) const
    {
        if (keyField_ != nullptr && keyed_ != nullptr) {
            keyed_(keyField_, keyValue_, out);
            return;
        }
        if (source_ != nullptr) {
            source_(match_, out);  // the world copies only the matching rows
            return;
        }
        // A change's object has no source: its pinned row is all it holds.
        if (&out != &rows_) {
            out = rows_;
        }
        if (match_) {
            std::erase_if(out, [this](const Row &r) { return !match_(r); });
        }
    }

    Source source_;
    KeyedSource keyed_;
    Match match_;
    uint32_t Row::*keyField_ = nullptr;
    uint32_t keyValue_ = 0;
    mutable std::vector<Row> rows_;
    mutable bool stale_ = true;
};

// A child node: one row, always current, never iterated.
template <typename Row>
class NodeObject final : public DB_OBJ {
public:
    NodeObject(uint32_t tableId, const Row &row) : DB_OBJ(tableId), row_(row)
    {
        started = true;
        hasCurrent = true;
    }

    size_t LiveCount() const override { return 1; }
    void Snapshot() override {}
    size_t SnapshotCount() const override { return 1; }

    const Row *CurrentRow() const { return &row_; }

private:
    Row row_;
};

}  // namespace platform::db

namespace platform::db {

// Between the object side (db.cpp) and the subscription side (db_sub.cpp).
// A copy of the description of a live subscription object; DB_ERR_PARAM
// for any other object.
uint32_t CopySubDescription(DB_OBJ *obj, SubDescription *out);
// Live objects holding one record of a change, for the length of a callback.
DB_OBJ *MakeChangeObject(const platform::IfRecord &row);
DB_OBJ *MakeChangeObject(const platform::BoardRecord &row);
void DropChangeObject(DB_OBJ *obj);

}  // namespace platform::db
