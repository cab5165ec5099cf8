// The world model: the switch the module believes it runs on.
//
// On the real switch the device manager and the object database answer from
// the chassis' hardware and the framework's state. Ours answers from this
// model: an identity (name, MAC, chassis, boards, board type), whether the
// device database answers yet (main board and self board separately), the
// framework-instance table and the switching tables (interfaces, trunks,
// trunk ports, port VLANs, access and port isolation) and the board registry.
// The host fills it from a topology file (read by the device layer's
// loader) and tests and the host's control change it at any time; every
// access is locked. Writes of interfaces and of the board registry are
// handed, under the same lock and so in order, to the change listener of the
// database's subscription side.
#include <algorithm>
#include <atomic>
#include <charconv>
#include <mutex>

#include "core/internal.hpp"
#include "db.h"
#include "platform/world.hpp"
#include "world/world_internal.hpp"

namespace {

struct World {
    platform::internal::SpinMutex mu;
    platform::SystemIdentity identity;
    bool mainBoardReadable = false;
    bool selfBoardReadable = false;
    std::vector<platform::FrmInstRecord> frmInst;  // in insertion order
    // Keyed tables, each in insertion order.
    std::vector<platform::IfRecord> ifs;
    std::vector<platform::TrunkRecord> trunks;
    std::vector<platform::TrunkPortRecord> trunkPorts;
    std::vector<platform::PortVlanRecord> portVlans;
    std::vector<platform::AccessIsolateRecord> accessIsolation;
    std::vector<platform::PortIsolateRecord> portIsolation;
    std::vector<platform::BoardRecord> boards;
    platform::world::ChangeListener listener = nullptr;
    // Bumped under mu by every table write; read without it.
    std::atomic<uint64_t> generation{0};
};

World &TheWorld()
{
    return platform::internal::Leaky<World>();
}

// A table changed. Caller holds World::mu.
void Touch(World &w)
{
    w.generation.fetch_add(1, std::memory_order_release);
}

// Replaces the record with the same key in place, or appends.
template <typename Row, typename SameKey>
void Put(std::vector<Row> World::*table, const Row &record, SameKey same)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    std::vector<Row> &rows = w.*table;
    const auto it = std::find_if(rows.begin(), rows.end(), [&](const Row &r) { return same(r, record); });
    if (it != rows.end()) {
        *it = record;
    } else {
        rows.push_back(record);
    }
    Touch(w);
}

template <typename Row, typename Match>
bool Remove(std::vector<Row> World::*table, Match match)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    std::vector<Row> &rows = w.*table;
    const auto it = std::find_if(rows.begin(), rows.end(), match);
    if (it == rows.end()) {
        return false;
    }
    rows.erase(it);
    Touch(w);
    return true;
}

template <typename Row>
std::vector<Row> Rows(std::vector<Row> World::*table)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    return w.*table;
}

// The table of each row type, for SelectRows.
std::vector<platform::FrmInstRecord> &TableOf(World &w, const platform::FrmInstRecord *) { return w.frmInst; }
std::vector<platform::IfRecord> &TableOf(World &w, const platform::IfRecord *) { return w.ifs; }
std::vector<platform::TrunkRecord> &TableOf(World &w, const platform::TrunkRecord *) { return w.trunks; }
std::vector<platform::TrunkPortRecord> &TableOf(World &w, const platform::TrunkPortRecord *) { return w.trunkPorts; }
std::vector<platform::PortVlanRecord> &TableOf(World &w, const platform::PortVlanRecord *) { return w.portVlans; }
std::vector<platform::AccessIsolateRecord> &TableOf(World &w, const platform::AccessIsolateRecord *)
{
    return w.accessIsolation;
}
std::vector<platform::PortIsolateRecord> &TableOf(World &w, const platform::PortIsolateRecord *) { return w.portIsolation; }
std::vector<platform::BoardRecord> &TableOf(World &w, const platform::BoardRecord *) { return w.boards; }

// Caller holds World::mu.
void Notify(const World &w, const platform::world::Change &change)
{
    if (w.listener != nullptr) {
        w.listener(change);
    }
}

platform::world::Change IfChange(uint32_t type, std::optional<platform::IfRecord> before, std::optional<platform::IfRecord> after)
{
    platform::world::Change change;
    change.table = platform::world::ChangedTable::If;
    change.type = type;
    change.oldIf = std::move(before);
    change.newIf = std::move(after);
    return change;
}

platform::world::Change BoardChange(uint32_t type, std::optional<platform::BoardRecord> before,
                                std::optional<platform::BoardRecord> after)
{
    platform::world::Change change;
    change.table = platform::world::ChangedTable::Board;
    change.type = type;
    change.oldBoard = std::move(before);
    change.newBoard = std::move(after);
    return change;
}

// Caller holds World::mu.
std::vector<platform::IfRecord>::iterator FindIf(World &w, uint32_t ifIndex)
{
    return std::find_if(w.ifs.begin(), w.ifs.end(),
                        [ifIndex](const platform::IfRecord &r) { return r.ifIndex == ifIndex; });
}

bool SameBoard(const platform::BoardRecord &a, uint32_t chassisId, uint32_t slotId)
{
    return a.chassisId == chassisId && a.slotId == slotId;
}

bool SameIsolation(const platform::AccessIsolateRecord &a, const platform::AccessIsolateRecord &b)
{
    return a.srcIfIndex == b.srcIfIndex && a.vlanId == b.vlanId && a.dstIfIndex == b.dstIfIndex;
}

bool SameGroup(const platform::PortIsolateRecord &a, const platform::PortIsolateRecord &b)
{
    return a.ifIndex == b.ifIndex && a.groupId == b.groupId;
}

// Caller holds World::mu.
void ClearTables(World &w)
{
    Touch(w);
    w.ifs.clear();
    w.trunks.clear();
    w.trunkPorts.clear();
    w.portVlans.clear();
    w.accessIsolation.clear();
    w.portIsolation.clear();
    w.boards.clear();
}

}  // namespace

namespace platform::world {

void SetIdentity(const SystemIdentity &identity)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    w.identity = identity;
}

SystemIdentity Identity()
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    return w.identity;
}

void SetDevmReady(bool ready)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    w.mainBoardReadable = ready;
    w.selfBoardReadable = ready;
}

void SetMainBoardReadable(bool readable)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    w.mainBoardReadable = readable;
}

void SetSelfBoardReadable(bool readable)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    w.selfBoardReadable = readable;
}

DeviceView GetDeviceView()
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    return DeviceView{w.identity, w.mainBoardReadable, w.selfBoardReadable};
}

void FrmInstClear()
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    w.frmInst.clear();
}

void FrmInstPut(const FrmInstRecord &record)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    const auto it = std::find_if(w.frmInst.begin(), w.frmInst.end(),
                                 [&record](const FrmInstRecord &r) { return r.localSlot == record.localSlot; });
    if (it != w.frmInst.end()) {
        *it = record;
    } else {
        w.frmInst.push_back(record);
    }
}

std::vector<FrmInstRecord> FrmInstRecords()
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    return w.frmInst;
}

void IfPut(const IfRecord &record)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    const auto it = FindIf(w, record.ifIndex);
    if (it != w.ifs.end()) {
        const IfRecord before = *it;
        *it = record;
        Notify(w, IfChange(DB_CHANGE_UPDATE, before, record));
    } else {
        w.ifs.push_back(record);
        Notify(w, IfChange(DB_CHANGE_CREATE, std::nullopt, record));
    }
    Touch(w);
}

bool IfRemove(uint32_t ifIndex)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    const auto it = FindIf(w, ifIndex);
    if (it == w.ifs.end()) {
        return false;
    }
    const IfRecord before = *it;
    w.ifs.erase(it);
    Touch(w);
    Notify(w, IfChange(DB_CHANGE_DELETE, before, std::nullopt));
    return true;
}

std::optional<IfRecord> IfFind(uint32_t ifIndex)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    const auto it = FindIf(w, ifIndex);
    if (it == w.ifs.end()) {
        return std::nullopt;
    }
    return *it;
}

std::optional<IfRecord> IfResolve(std::string_view nameOrIndex)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    for (const IfRecord &r : w.ifs) {
        if (r.name == nameOrIndex) {
            return r;
        }
    }
    uint32_t ifIndex = 0;
    const char *end = nameOrIndex.data() + nameOrIndex.size();
    const auto [ptr, ec] = std::from_chars(nameOrIndex.data(), end, ifIndex);
    if (ec != std::errc() || ptr != end) {
        return std::nullopt;  // no decimal number, or one beyond 32 bits
    }
    const auto it = FindIf(w, ifIndex);
    return it == w.ifs.end() ? std::nullopt : std::optional<IfRecord>(*it);
}

bool IfSetOnBoard(uint32_t ifIndex, bool onBoard)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    const auto it = FindIf(w, ifIndex);
    if (it == w.ifs.end()) {
        return false;
    }
    const IfRecord before = *it;
    it->onBoard = onBoard;
    Touch(w);
    Notify(w, IfChange(DB_CHANGE_UPDATE, before, *it));
    return true;
}

void BoardPut(const BoardRecord &record)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    const auto it = std::find_if(w.boards.begin(), w.boards.end(), [&record](const BoardRecord &r) {
        return SameBoard(r, record.chassisId, record.slotId);
    });
    if (it != w.boards.end()) {
        const BoardRecord before = *it;
        *it = record;
        Notify(w, BoardChange(DB_CHANGE_UPDATE, before, record));
    } else {
        w.boards.push_back(record);
        Notify(w, BoardChange(DB_CHANGE_CREATE, std::nullopt, record));
    }
    Touch(w);
}

bool BoardRemove(uint32_t chassisId, uint32_t slotId)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    const auto it = std::find_if(w.boards.begin(), w.boards.end(),
                                 [chassisId, slotId](const BoardRecord &r) { return SameBoard(r, chassisId, slotId); });
    if (it == w.boards.end()) {
        return false;
    }
    const BoardRecord before = *it;
    w.boards.erase(it);
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

bool TrunkRemove(uint32_t trunkId)
{
    return Remove(&World::trunks, [trunkId](const TrunkRecord &r) { return r.trunkId == trunkId; });
}

std::vector<TrunkRecord> TrunkRecords()
{
    return Rows(&World::trunks);
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

std::vector<TrunkPortRecord> TrunkPortRecords()
{
    return Rows(&World::trunkPorts);
}

void PortVlanPut(const PortVlanRecord &record)
{
    Put(&World::portVlans, record,
        [](const PortVlanRecord &a, const PortVlanRecord &b) { return a.ifIndex == b.ifIndex; });
}

void PortVlanSet(uint32_t ifIndex, uint16_t vlan, bool member)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    auto it = std::find_if(w.portVlans.begin(), w.portVlans.end(),
                           [ifIndex](const PortVlanRecord &r) { return r.ifIndex == ifIndex; });
    if (it == w.portVlans.end()) {
        PortVlanRecord fresh;
        fresh.ifIndex = ifIndex;
        it = w.portVlans.insert(w.portVlans.end(), fresh);
    }
    if (member) {
        it->Add(vlan);
    } else {
        it->bitmap[(vlan / 8U) % kVlanBitmapBytes] &= static_cast<uint8_t>(~(1U << (vlan % 8U)));
    }
    Touch(w);
}

bool PortVlanRemove(uint32_t ifIndex)
{
    return Remove(&World::portVlans, [ifIndex](const PortVlanRecord &r) { return r.ifIndex == ifIndex; });
}

std::vector<PortVlanRecord> PortVlanRecords()
{
    return Rows(&World::portVlans);
}

void AccessIsolatePut(const AccessIsolateRecord &record)
{
    Put(&World::accessIsolation, record, SameIsolation);
}

bool AccessIsolateRemove(const AccessIsolateRecord &record)
{
    return Remove(&World::accessIsolation, [&record](const AccessIsolateRecord &r) { return SameIsolation(r, record); });
}

std::vector<AccessIsolateRecord> AccessIsolateRecords()
{
    return Rows(&World::accessIsolation);
}

void PortIsolatePut(const PortIsolateRecord &record)
{
    Put(&World::portIsolation, record, SameGroup);
}

bool PortIsolateRemove(const PortIsolateRecord &record)
{
    return Remove(&World::portIsolation, [&record](const PortIsolateRecord &r) { return SameGroup(r, record); });
}

std::vector<PortIsolateRecord> PortIsolateRecords()
{
    return Rows(&World::portIsolation);
}

void SetSysName(const std::string &name)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    w.identity.sysName = name;
}

uint64_t TablesGeneration()
{
    return TheWorld().generation.load(std::memory_order_acquire);
}

PortTables GetPortTables()
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    return PortTables{w.generation.load(std::memory_order_relaxed), w.ifs, w.trunkPorts, w.portVlans};
}

void TablesClear()
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    ClearTables(w);
}

void ApplyTopology(const Topology &topology)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    w.identity = topology.system;
    w.ifs = topology.interfaces;
    w.trunks = topology.trunks;
    w.trunkPorts = topology.trunkPorts;
    w.portVlans = topology.portVlans;
    w.accessIsolation = topology.accessIsolation;
    w.portIsolation = topology.portIsolation;
    w.boards = {BoardRecord{topology.system.chassisId, topology.system.selfBoardId, kBoardRegistered}};
    Touch(w);
}

void Reset()
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    w.identity = SystemIdentity{};
    w.mainBoardReadable = false;
    w.selfBoardReadable = false;
    w.frmInst.clear();
    ClearTables(w);
}

}  // namespace platform::world

namespace platform::world {

namespace {

// Copies the rows kept into out, over what it held: a reused buffer costs
// no allocation. Caller holds World::mu.
template <typename Row, typename Keep>
void CopyKept(const std::vector<Row> &rows, Keep keep, std::vector<Row> &out)
{
    size_t kept = 0;
    for (const Row &row : rows) {
        if (!keep(row)) {
            continue;
        }
        if (kept < out.size()) {
            out[kept] = row;  // reuses the element's storage
        } else {
            out.push_back(row);
        }
        kept++;
    }
    out.resize(kept);
}

}  // namespace

template <typename Row>
void SelectRows(const RowFilter<Row> &keep, std::vector<Row> &out)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    CopyKept(TableOf(w, static_cast<const Row *>(nullptr)), [&keep](const Row &r) { return !keep || keep(r); },
             out);
}

template <typename Row>
void SelectRowsWhere(uint32_t Row::*field, uint32_t key, std::vector<Row> &out)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    CopyKept(TableOf(w, static_cast<const Row *>(nullptr)), [field, key](const Row &r) { return r.*field == key; },
             out);
}

#define PLAT_WORLD_SELECT(Row)                                                     \
    template void SelectRows(const RowFilter<Row> &, std::vector<Row> &);        \
    template void SelectRowsWhere(uint32_t Row::*, uint32_t, std::vector<Row> &)
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
