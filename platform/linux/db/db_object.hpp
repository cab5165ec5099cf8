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
// a copy of their parent's current row; the parent owns them. Objects are
// reused (db.cpp): Recycle puts one back to the state of a new one while it
// keeps its storage.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/internal.hpp"
#include "core/thread_ref.hpp"
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
        const size_t count = SnapshotCount();   // fetches the rows on the first step
        const size_t next = hasCurrent ? current + 1 : (started ? count : 0);
        started = true;
        if (next >= count) {
            hasCurrent = false;
            current = count;
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
    bool iterLive = false;    // db_create_root_iter handed iter out
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
    using KeyedSource = uint64_t (*)(uint32_t Row::*field, uint32_t key, std::vector<Row> &);
    using SerialSource = uint64_t (*)();

    // serialWord, when given, is the word serial reads (read directly).
    TableObject(uint32_t tableId, Source source, KeyedSource keyed = nullptr, SerialSource serial = nullptr,
                const std::atomic<uint64_t> *serialWord = nullptr)
        : DB_OBJ(tableId), source_(source), keyed_(keyed), serial_(serial), serialWord_(serialWord)
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
        if (match_) {
            match_ = nullptr;
        }
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
    // The same for a key of one 32-bit field, which the world compares
    // directly (through its index when the field is the table's key).
    void SetKeyField(uint32_t Row::*field, uint32_t key)
    {
        if (match_) {
            match_ = nullptr;
        }
        keyField_ = field;
        keyValue_ = key;
    }
    bool HasKey() const { return keyField_ != nullptr || static_cast<bool>(match_); }

    // Whether the rows held are those of a keyed read of field = key.
    bool HoldsReadOf(uint32_t Row::*field, uint32_t key) const
    {
        return filledSerial_ != 0 && filledField_ == field && filledKey_ == key;
    }

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
        filledSerial_ = 0;
        wholeSerial_ = 0;
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
            if (&out != &rows_) {
                (void)keyed_(keyField_, keyValue_, out);
                return;
            }
            // Rows of the same key from a version that is still the
            // table's are what a new read would copy: kept as they are,
            // whether this object holds them or the thread kept them.
            const uint64_t serial = Serial();
            if (serial != 0 && HoldsReadOf(keyField_, keyValue_) && filledSerial_ == serial) {
                return;
            }
            // The rows held are parked in the slot of their own key, for a
            // later read of it; the slot of this key gives what it keeps.
            if (filledSerial_ != 0 && filledKey_ != keyValue_) {
                Trade(Kept().reads[KeptSlot(filledKey_)]);
            }
            Trade(Kept().reads[KeptSlot(keyValue_)]);
            if (serial != 0 && HoldsReadOf(keyField_, keyValue_) && filledSerial_ == serial) {
                return;
            }
            filledSerial_ = keyed_(keyField_, keyValue_, out);
            filledField_ = keyField_;
            filledKey_ = keyValue_;
            return;
        }
        if (&out == &rows_) {
            filledSerial_ = 0;   // rows_ no longer holds a keyed read
        }
        if (source_ != nullptr && keyField_ == nullptr && !match_ && serial_ != nullptr && &out == &rows_) {
            // The whole table, kept while its version is: the serial is read
            // first, so a write during the copy makes the next read copy again.
            const uint64_t serial = Serial();
            if (wholeSerial_ == serial) {
                return;
            }
            source_(match_, out);
            wholeSerial_ = serial;
            return;
        }
        if (&out == &rows_) {
            wholeSerial_ = 0;
        }
        if (source_ != nullptr && match_ && serial_ != nullptr && &out == &rows_) {
            // A key of several fields: the matching rows are picked from a
            // copy of the whole table kept while its version is (the serial
            // read first, as above), so an unchanged table costs no visit
            // of the world.
            const uint64_t serial = Serial();
            if (tableSerial_ != serial) {
                source_(Match{}, table_);
                tableSerial_ = serial;
            }
            size_t kept = 0;
            for (const Row &row : table_) {
                if (match_(row)) {
                    if (kept < out.size()) {
                        out[kept] = row;
                    } else {
                        out.push_back(row);
                    }
                    kept++;
                }
            }
            out.resize(kept);
            return;
        }
        if (source_ != nullptr) {
            if (keyField_ != nullptr) {
                const auto field = keyField_;
                const uint32_t key = keyValue_;
                source_([field, key](const Row &r) { return r.*field == key; }, out);
            } else {
                source_(match_, out);  // the world copies only the matching rows
            }
            return;
        }
        // A change's object has no source: its pinned row is all it holds.
        if (&out != &rows_) {
            out = rows_;
        }
        if (keyField_ != nullptr) {
            std::erase_if(out, [this](const Row &r) { return r.*keyField_ != keyValue_; });
        } else if (match_) {
            std::erase_if(out, [this](const Row &r) { return !match_(r); });
        }
    }

    // Keyed reads a thread set aside, so that reads alternating between a
    // few keys (the two ports of an isolation check) each keep theirs.
    struct KeptRead {
        std::vector<Row> rows;
        uint64_t serial = 0;
        uint32_t Row::*field = nullptr;
        uint32_t key = 0;
    };
    static constexpr size_t kKept = 16;   // slots, by key
    struct KeptReads {
        std::array<KeptRead, kKept> reads;
    };
    static size_t KeptSlot(uint32_t key) { return (key * 0x9E3779B1U) >> 28U; }
    static KeptReads *KeptOfThread()
    {
        static thread_local KeptReads kept;
        return &kept;
    }
    KeptReads &Kept() const
    {
        if (table >= platform::internal::kKeptReadTables) {
            return *KeptOfThread();
        }
        return platform::internal::ThreadRef<KeptReads, KeptOfThread>(platform::internal::ThreadRefId::kKeptReads,
                                                                      table);
    }

    // The table's serial (0: none kept).
    uint64_t Serial() const
    {
        if (serialWord_ != nullptr) {
            return serialWord_->load(std::memory_order_acquire);
        }
        return serial_ != nullptr ? serial_() : 0;
    }

    // Swaps the keyed read held with one kept.
    void Trade(KeptRead &read) const
    {
        rows_.swap(read.rows);
        std::swap(filledSerial_, read.serial);
        std::swap(filledField_, read.field);
        std::swap(filledKey_, read.key);
    }

    Source source_;
    KeyedSource keyed_;
    SerialSource serial_;
    const std::atomic<uint64_t> *serialWord_;
    // What rows_ holds when it was filled by key: kept across reuse of the
    // object (0: nothing kept).
    mutable uint64_t filledSerial_ = 0;
    mutable uint32_t Row::*filledField_ = nullptr;
    mutable uint32_t filledKey_ = 0;
    mutable uint64_t wholeSerial_ = 0;   // the same for a read of the whole table
    // The whole table as of tableSerial_, for reads keyed by several fields.
    mutable std::vector<Row> table_;
    mutable uint64_t tableSerial_ = 0;
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
    void Recycle() override {}

    const Row *CurrentRow() const { return &row_; }
    // Holds what copy takes of row (a reused node keeps its storage).
    template <typename Copy>
    void Hold(const Row &row, Copy copy)
    {
        copy(row_, row);
    }

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
