// The world model: the switch the module believes it runs on.
//
// On the real switch the device manager and the object database answer from
// the chassis' hardware and the framework's state. Ours answers from this
// model: an identity (name, MAC, chassis, boards, board type), whether the
// device database answers yet (main board and self board separately), the
// framework-instance table and the switching tables (interfaces, trunks,
// trunk ports, port VLANs, access and port isolation) and the board registry.
// The host fills it from a topology file (read by the device layer's
// loader) and tests and the host's control change it at any time.
//
// Readers (the object database and the device manager, many times per
// frame) take no lock: every table, and the identity, is an immutable
// version published through an atomic pointer; a read pins the epoch
// (core/epoch.hpp), looks the rows up (by a sorted key index for the
// table's key) and copies what it needs. Writers are serialised by one
// lock, copy the table they change into a new version, publish it and
// retire the old one, which is freed once no reader can hold it. Writes of
// interfaces and of the board registry are handed, under the writers' lock
// and so in order, to the change listener of the database's subscription
// side.
#include <algorithm>
#include <atomic>
#include <charconv>
#include <memory>
#include <mutex>
#include <utility>

#include "core/epoch.hpp"
#include "core/internal.hpp"
#include "db.h"
#include "platform/world.hpp"
#include "world/world_internal.hpp"

namespace {

using platform::AccessIsolateRecord;
using platform::BoardRecord;
using platform::FrmInstRecord;
using platform::IfRecord;
using platform::PortIsolateRecord;
using platform::PortVlanRecord;
using platform::TrunkPortRecord;
using platform::TrunkRecord;
using platform::world::DeviceView;
namespace epoch = platform::internal::epoch;

// The field a table is looked up by most, indexed in every version; none
// for the tables read whole.
template <typename Row>
constexpr uint32_t Row::*KeyField = nullptr;
template <>
constexpr uint32_t IfRecord::*KeyField<IfRecord> = &IfRecord::ifIndex;
template <>
constexpr uint32_t TrunkRecord::*KeyField<TrunkRecord> = &TrunkRecord::trunkId;
template <>
constexpr uint32_t TrunkPortRecord::*KeyField<TrunkPortRecord> = &TrunkPortRecord::memberIfIndex;
template <>
constexpr uint32_t PortVlanRecord::*KeyField<PortVlanRecord> = &PortVlanRecord::ifIndex;
template <>
constexpr uint32_t AccessIsolateRecord::*KeyField<AccessIsolateRecord> = &AccessIsolateRecord::srcIfIndex;
template <>
constexpr uint32_t PortIsolateRecord::*KeyField<PortIsolateRecord> = &PortIsolateRecord::ifIndex;

// Serial numbers of table versions, unique over every table.
std::atomic<uint64_t> g_nextSerial{1};

// One version of a table: its rows in insertion order and, for its key
// field in a table of more than a few rows, (key, position) pairs in order.
template <typename Row>
struct Version {
    static constexpr size_t kIndexFrom = 16;   // fewer rows are scanned
    const uint64_t serial;
    std::vector<Row> rows;
    std::vector<std::pair<uint32_t, uint32_t>> byKey;

    explicit Version(std::vector<Row> from)
        : serial(g_nextSerial.fetch_add(1, std::memory_order_relaxed)), rows(std::move(from))
    {
        if constexpr (KeyField<Row> != nullptr) {
            if (rows.size() < kIndexFrom) {
                return;
            }
            byKey.reserve(rows.size());
            for (uint32_t i = 0; i < rows.size(); i++) {
                byKey.emplace_back(rows[i].*KeyField<Row>, i);
            }
            std::sort(byKey.begin(), byKey.end());
        }
    }

    // Visits the rows whose field equals key, in insertion order.
    template <typename Visit>
    void ForEachWhere(uint32_t Row::*field, uint32_t key, Visit visit) const
    {
        if constexpr (KeyField<Row> != nullptr) {
            if (field == KeyField<Row> && !byKey.empty()) {
                auto it = std::lower_bound(byKey.begin(), byKey.end(), std::make_pair(key, uint32_t{0}));
                for (; it != byKey.end() && it->first == key; ++it) {
                    visit(rows[it->second]);
                }
                return;
            }
        }
        for (const Row &row : rows) {
            if (row.*field == key) {
                visit(row);
            }
        }
    }
};

template <typename Row>
class Table {
public:
    Table() : current_(new Version<Row>({})) { serial_.store(current_.load()->serial); }

    // Valid while the caller holds an epoch pin.
    const Version<Row> &Read() const { return *current_.load(std::memory_order_seq_cst); }

    uint64_t Serial() const { return serial_.load(std::memory_order_acquire); }
    const std::atomic<uint64_t> *SerialWord() const { return &serial_; }

    // Publishes rows as the new version. Caller holds World::mu.
    void Publish(std::vector<Row> rows)
    {
        auto *next = new Version<Row>(std::move(rows));
        const Version<Row> *old = current_.exchange(next, std::memory_order_seq_cst);
        serial_.store(next->serial, std::memory_order_release);
        epoch::Retire(const_cast<Version<Row> *>(old),
                      [](void *p) { delete static_cast<Version<Row> *>(p); });
    }

    // A copy of the rows. Caller holds World::mu (the version cannot go).
    std::vector<Row> Rows() const { return current_.load(std::memory_order_relaxed)->rows; }

private:
    std::atomic<const Version<Row> *> current_;
    // The current version's serial, readable without a pin; it may lag the
    // pointer by a moment during a write, as any read may.
    std::atomic<uint64_t> serial_{0};
};

struct World {
    platform::internal::SpinMutex mu;  // writers
    std::atomic<const DeviceView *> device{new DeviceView()};
    std::atomic<uint64_t> deviceSerial{g_nextSerial.fetch_add(1, std::memory_order_relaxed)};
    Table<FrmInstRecord> frmInst;
    Table<IfRecord> ifs;
    Table<TrunkRecord> trunks;
    Table<TrunkPortRecord> trunkPorts;
    Table<PortVlanRecord> portVlans;
    Table<AccessIsolateRecord> accessIsolation;
    Table<PortIsolateRecord> portIsolation;
    Table<BoardRecord> boards;
    platform::world::ChangeListener listener = nullptr;
    // Bumped under mu by every write of the switching tables and the board
    // registry; read without it.
    std::atomic<uint64_t> generation{0};
};

World &TheWorld()
{
    return platform::internal::Leaky<World>();
}

// The table of each row type.
Table<FrmInstRecord> &TableOf(World &w, const FrmInstRecord *) { return w.frmInst; }
Table<IfRecord> &TableOf(World &w, const IfRecord *) { return w.ifs; }
Table<TrunkRecord> &TableOf(World &w, const TrunkRecord *) { return w.trunks; }
Table<TrunkPortRecord> &TableOf(World &w, const TrunkPortRecord *) { return w.trunkPorts; }
Table<PortVlanRecord> &TableOf(World &w, const PortVlanRecord *) { return w.portVlans; }
Table<AccessIsolateRecord> &TableOf(World &w, const AccessIsolateRecord *) { return w.accessIsolation; }
Table<PortIsolateRecord> &TableOf(World &w, const PortIsolateRecord *) { return w.portIsolation; }
Table<BoardRecord> &TableOf(World &w, const BoardRecord *) { return w.boards; }

// A table changed. Caller holds World::mu.
void Touch(World &w)
{
    w.generation.fetch_add(1, std::memory_order_release);
}

// Publishes a changed device view. Caller holds World::mu.
template <typename Edit>
void EditDevice(World &w, Edit edit)
{
    auto next = std::make_unique<DeviceView>(*w.device.load(std::memory_order_relaxed));
    edit(*next);
    const DeviceView *old = w.device.exchange(next.release(), std::memory_order_seq_cst);
    w.deviceSerial.store(g_nextSerial.fetch_add(1, std::memory_order_relaxed), std::memory_order_release);
    epoch::Retire(const_cast<DeviceView *>(old), [](void *p) { delete static_cast<DeviceView *>(p); });
}

// Replaces the record with the same key in place, or appends.
template <typename Row, typename SameKey>
void Put(Table<Row> World::*table, const Row &record, SameKey same)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    std::vector<Row> rows = (w.*table).Rows();
    const auto it = std::find_if(rows.begin(), rows.end(), [&](const Row &r) { return same(r, record); });
    if (it != rows.end()) {
        *it = record;
    } else {
        rows.push_back(record);
    }
    (w.*table).Publish(std::move(rows));
    Touch(w);
}

template <typename Row, typename Match>
bool Remove(Table<Row> World::*table, Match match)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    std::vector<Row> rows = (w.*table).Rows();
    const auto it = std::find_if(rows.begin(), rows.end(), match);
    if (it == rows.end()) {
        return false;
    }
    rows.erase(it);
    (w.*table).Publish(std::move(rows));
    Touch(w);
    return true;
}

template <typename Row>
std::vector<Row> Rows(Table<Row> World::*table)
{
    World &w = TheWorld();
    const epoch::Pin pin;
    return (w.*table).Read().rows;
}

// Caller holds World::mu.
void Notify(const World &w, const platform::world::Change &change)
{
    if (w.listener != nullptr) {
        w.listener(change);
    }
}

platform::world::Change IfChange(uint32_t type, std::optional<IfRecord> before, std::optional<IfRecord> after)
{
    platform::world::Change change;
    change.table = platform::world::ChangedTable::If;
    change.type = type;
    change.oldIf = std::move(before);
    change.newIf = std::move(after);
    return change;
}

platform::world::Change BoardChange(uint32_t type, std::optional<BoardRecord> before,
                                    std::optional<BoardRecord> after)
{
    platform::world::Change change;
    change.table = platform::world::ChangedTable::Board;
    change.type = type;
    change.oldBoard = std::move(before);
    change.newBoard = std::move(after);
    return change;
}

std::vector<IfRecord>::iterator FindIf(std::vector<IfRecord> &ifs, uint32_t ifIndex)
{
    return std::find_if(ifs.begin(), ifs.end(), [ifIndex](const IfRecord &r) { return r.ifIndex == ifIndex; });
}

bool SameBoard(const BoardRecord &a, uint32_t chassisId, uint32_t slotId)
{
    return a.chassisId == chassisId && a.slotId == slotId;
}

bool SameIsolation(const AccessIsolateRecord &a, const AccessIsolateRecord &b)
{
    return a.srcIfIndex == b.srcIfIndex && a.vlanId == b.vlanId && a.dstIfIndex == b.dstIfIndex;
}

bool SameGroup(const PortIsolateRecord &a, const PortIsolateRecord &b)
{
    return a.ifIndex == b.ifIndex && a.groupId == b.groupId;
}

// Caller holds World::mu.
void ClearTables(World &w)
{
    Touch(w);
    w.ifs.Publish({});
    w.trunks.Publish({});
    w.trunkPorts.Publish({});
    w.portVlans.Publish({});
    w.accessIsolation.Publish({});
    w.portIsolation.Publish({});
    w.boards.Publish({});
}

}  // namespace

namespace platform::world {

void SetIdentity(const SystemIdentity &identity)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    EditDevice(w, [&identity](DeviceView &view) { view.identity = identity; });
}

SystemIdentity Identity()
{
    const epoch::Pin pin;
    return TheWorld().device.load(std::memory_order_seq_cst)->identity;
}

void SetDevmReady(bool ready)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    EditDevice(w, [ready](DeviceView &view) {
        view.mainBoardReadable = ready;
        view.selfBoardReadable = ready;
    });
}

void SetMainBoardReadable(bool readable)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    EditDevice(w, [readable](DeviceView &view) { view.mainBoardReadable = readable; });
}

void SetSelfBoardReadable(bool readable)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    EditDevice(w, [readable](DeviceView &view) { view.selfBoardReadable = readable; });
}

DeviceView GetDeviceView()
{
    const epoch::Pin pin;
    return *TheWorld().device.load(std::memory_order_seq_cst);
}

void FrmInstClear()
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    w.frmInst.Publish({});
}

// Not a table the generation follows: written directly, not through Put.
void FrmInstPut(const FrmInstRecord &record)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    std::vector<FrmInstRecord> rows = w.frmInst.Rows();
    const auto it = std::find_if(rows.begin(), rows.end(),
                                 [&record](const FrmInstRecord &r) { return r.localSlot == record.localSlot; });
    if (it != rows.end()) {
        *it = record;
    } else {
        rows.push_back(record);
    }
    w.frmInst.Publish(std::move(rows));
}

void IfPut(const IfRecord &record)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    std::vector<IfRecord> ifs = w.ifs.Rows();
    const auto it = FindIf(ifs, record.ifIndex);
    if (it != ifs.end()) {
        const IfRecord before = *it;
        *it = record;
        w.ifs.Publish(std::move(ifs));
        Notify(w, IfChange(DB_CHANGE_UPDATE, before, record));
    } else {
        ifs.push_back(record);
        w.ifs.Publish(std::move(ifs));
        Notify(w, IfChange(DB_CHANGE_CREATE, std::nullopt, record));
    }
    Touch(w);
}

bool IfRemove(uint32_t ifIndex)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    std::vector<IfRecord> ifs = w.ifs.Rows();
    const auto it = FindIf(ifs, ifIndex);
    if (it == ifs.end()) {
        return false;
    }
    const IfRecord before = *it;
    ifs.erase(it);
    w.ifs.Publish(std::move(ifs));
    Touch(w);
    Notify(w, IfChange(DB_CHANGE_DELETE, before, std::nullopt));
    return true;
}

std::optional<IfRecord> IfFind(uint32_t ifIndex)
{
    const epoch::Pin pin;
    std::optional<IfRecord> found;
    TheWorld().ifs.Read().ForEachWhere(&IfRecord::ifIndex, ifIndex, [&found](const IfRecord &r) {
        if (!found) {
            found = r;
        }
    });
    return found;
}

std::optional<IfRecord> IfResolve(std::string_view nameOrIndex)
{
    const epoch::Pin pin;
    const auto &rows = TheWorld().ifs.Read().rows;
    const auto named =
        std::find_if(rows.begin(), rows.end(), [nameOrIndex](const IfRecord &r) { return r.name == nameOrIndex; });
    if (named != rows.end()) {
        return *named;
    }
    uint32_t ifIndex = 0;
    const char *end = nameOrIndex.data() + nameOrIndex.size();
    const auto [ptr, ec] = std::from_chars(nameOrIndex.data(), end, ifIndex);
    if (ec != std::errc() || ptr != end) {
        return std::nullopt;  // no decimal number, or one beyond 32 bits
    }
    return IfFind(ifIndex);
}

bool IfSetOnBoard(uint32_t ifIndex, bool onBoard)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    std::vector<IfRecord> ifs = w.ifs.Rows();
    const auto it = FindIf(ifs, ifIndex);
    if (it == ifs.end()) {
        return false;
    }
    const IfRecord before = *it;
    it->onBoard = onBoard;
    const IfRecord after = *it;
    w.ifs.Publish(std::move(ifs));
    Touch(w);
    Notify(w, IfChange(DB_CHANGE_UPDATE, before, after));
    return true;
}

void BoardPut(const BoardRecord &record)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    std::vector<BoardRecord> boards = w.boards.Rows();
    const auto it = std::find_if(boards.begin(), boards.end(), [&record](const BoardRecord &r) {
        return SameBoard(r, record.chassisId, record.slotId);
    });
    if (it != boards.end()) {
        const BoardRecord before = *it;
        *it = record;
        w.boards.Publish(std::move(boards));
        Notify(w, BoardChange(DB_CHANGE_UPDATE, before, record));
    } else {
        boards.push_back(record);
        w.boards.Publish(std::move(boards));
        Notify(w, BoardChange(DB_CHANGE_CREATE, std::nullopt, record));
    }
    Touch(w);
}

bool BoardRemove(uint32_t chassisId, uint32_t slotId)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    std::vector<BoardRecord> boards = w.boards.Rows();
    const auto it = std::find_if(boards.begin(), boards.end(),
                                 [chassisId, slotId](const BoardRecord &r) { return SameBoard(r, chassisId, slotId); });
    if (it == boards.end()) {
        return false;
    }
    const BoardRecord before = *it;
    boards.erase(it);
    w.boards.Publish(std::move(boards));
    Touch(w);
    Notify(w, BoardChange(DB_CHANGE_DELETE, before, std::nullopt));
    return true;
}

std::vector<BoardRecord> BoardRecords()
{
    return Rows(&World::boards);
}

void SetChangeListener(ChangeListener listener)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    w.listener = listener;
}

std::vector<IfRecord> IfRecords()
{
    return Rows(&World::ifs);
}

void TrunkPut(const TrunkRecord &record)
{
    Put(&World::trunks, record, [](const TrunkRecord &a, const TrunkRecord &b) { return a.trunkId == b.trunkId; });
}

void TrunkPortPut(const TrunkPortRecord &record)
{
    Put(&World::trunkPorts, record,
        [](const TrunkPortRecord &a, const TrunkPortRecord &b) { return a.memberIfIndex == b.memberIfIndex; });
}

bool TrunkPortRemove(uint32_t memberIfIndex)
{
    return Remove(&World::trunkPorts,
                  [memberIfIndex](const TrunkPortRecord &r) { return r.memberIfIndex == memberIfIndex; });
}

void PortVlanSet(uint32_t ifIndex, uint16_t vlan, bool member)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    std::vector<PortVlanRecord> maps = w.portVlans.Rows();
    auto it = std::find_if(maps.begin(), maps.end(), [ifIndex](const PortVlanRecord &r) { return r.ifIndex == ifIndex; });
    if (it == maps.end()) {
        PortVlanRecord fresh;
        fresh.ifIndex = ifIndex;
        it = maps.insert(maps.end(), fresh);
    }
    if (member) {
        it->Add(vlan);
    } else {
        it->bitmap[(vlan / 8U) % kVlanBitmapBytes] &= static_cast<uint8_t>(~(1U << (vlan % 8U)));
    }
    w.portVlans.Publish(std::move(maps));
    Touch(w);
}

void AccessIsolatePut(const AccessIsolateRecord &record)
{
    Put(&World::accessIsolation, record, SameIsolation);
}

void PortIsolatePut(const PortIsolateRecord &record)
{
    Put(&World::portIsolation, record, SameGroup);
}

bool PortIsolateRemove(const PortIsolateRecord &record)
{
    return Remove(&World::portIsolation, [&record](const PortIsolateRecord &r) { return SameGroup(r, record); });
}

void SetSysName(const std::string &name)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    EditDevice(w, [&name](DeviceView &view) { view.identity.sysName = name; });
}

uint64_t TablesGeneration()
{
    return TheWorld().generation.load(std::memory_order_acquire);
}

PortTables GetPortTables()
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    return PortTables{w.generation.load(std::memory_order_relaxed), w.ifs.Rows(), w.trunkPorts.Rows(),
                      w.portVlans.Rows()};
}

void ApplyTopology(const Topology &topology)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    EditDevice(w, [&topology](DeviceView &view) { view.identity = topology.system; });
    w.ifs.Publish(topology.interfaces);
    w.trunks.Publish(topology.trunks);
    w.trunkPorts.Publish(topology.trunkPorts);
    w.portVlans.Publish(topology.portVlans);
    w.accessIsolation.Publish(topology.accessIsolation);
    w.portIsolation.Publish(topology.portIsolation);
    w.boards.Publish({BoardRecord{topology.system.chassisId, topology.system.selfBoardId, kBoardRegistered}});
    Touch(w);
}

void Reset()
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    EditDevice(w, [](DeviceView &view) { view = DeviceView(); });
    w.frmInst.Publish({});
    ClearTables(w);
}

}  // namespace platform::world

namespace platform::world {

namespace {

// Copies a row into out at kept, over what it held: a reused buffer costs
// no allocation.
template <typename Row>
void Keep(const Row &row, size_t &kept, std::vector<Row> &out)
{
    if (kept < out.size()) {
        out[kept] = row;  // reuses the element's storage
    } else {
        out.push_back(row);
    }
    kept++;
}

}  // namespace

template <typename Row>
void SelectRows(const RowFilter<Row> &keep, std::vector<Row> &out)
{
    const epoch::Pin pin;
    size_t kept = 0;
    for (const Row &row : TableOf(TheWorld(), static_cast<const Row *>(nullptr)).Read().rows) {
        if (!keep || keep(row)) {
            Keep(row, kept, out);
        }
    }
    out.resize(kept);
}

template <typename Row>
uint64_t SelectRowsWhere(uint32_t Row::*field, uint32_t key, std::vector<Row> &out)
{
    const epoch::Pin pin;
    size_t kept = 0;
    const Version<Row> &version = TableOf(TheWorld(), static_cast<const Row *>(nullptr)).Read();
    version.ForEachWhere(field, key, [&kept, &out](const Row &row) { Keep(row, kept, out); });
    out.resize(kept);
    return version.serial;
}

uint64_t DeviceSerial()
{
    return TheWorld().deviceSerial.load(std::memory_order_acquire);
}

template <typename Row>
uint64_t TableSerial()
{
    return TableOf(TheWorld(), static_cast<const Row *>(nullptr)).Serial();
}

template <typename Row>
const std::atomic<uint64_t> *TableSerialWord()
{
    return TableOf(TheWorld(), static_cast<const Row *>(nullptr)).SerialWord();
}

#define PLAT_WORLD_SELECT(Row)                                                     \
    template void SelectRows(const RowFilter<Row> &, std::vector<Row> &);        \
    template uint64_t SelectRowsWhere(uint32_t Row::*, uint32_t, std::vector<Row> &); \
    template uint64_t TableSerial<Row>();                                           \
    template const std::atomic<uint64_t> *TableSerialWord<Row>()
PLAT_WORLD_SELECT(FrmInstRecord);
PLAT_WORLD_SELECT(IfRecord);
PLAT_WORLD_SELECT(TrunkRecord);
PLAT_WORLD_SELECT(TrunkPortRecord);
PLAT_WORLD_SELECT(PortVlanRecord);
PLAT_WORLD_SELECT(AccessIsolateRecord);
PLAT_WORLD_SELECT(PortIsolateRecord);
PLAT_WORLD_SELECT(BoardRecord);
#undef PLAT_WORLD_SELECT

}  // namespace platform::world
