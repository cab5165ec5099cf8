// What the platform's services read from the world model beyond
// platform/world.hpp: the identity together with which of its parts currently
// answer, taken in one consistent snapshot (the device manager), and the
// feed of interface and board-registry writes (the database's
// subscriptions).
#pragma once

#include <atomic>
#include <functional>
#include <optional>
#include <vector>

#include "platform/world.hpp"

namespace platform::world {

struct DeviceView {
    SystemIdentity identity;
    bool mainBoardReadable = false;
    bool selfBoardReadable = false;
};

DeviceView GetDeviceView();

// Keyed reads of the database: the rows of Row's table that keep accepts
// (all when keep is empty), copied into out over what it held so that a
// reused buffer costs no allocation. Lock-free; keep may call back into the
// world. Defined for every table row type.
template <typename Row>
using RowFilter = std::function<bool(const Row &)>;
template <typename Row>
void SelectRows(const RowFilter<Row> &keep, std::vector<Row> &out);
// The same for the rows whose field equals key; returns the serial number
// of the table's version they were read from.
template <typename Row>
uint64_t SelectRowsWhere(uint32_t Row::*field, uint32_t key, std::vector<Row> &out);
// The serial number of the table's current version. Every write of a table
// gives it a new one, never seen before, so rows read from a version are
// still the table's while its serial is.
template <typename Row>
uint64_t TableSerial();
// The word TableSerial reads, for readers that read it often: it lives as
// long as the process, and an acquire load of it is TableSerial().
template <typename Row>
const std::atomic<uint64_t> *TableSerialWord();
// The same for the identity and its readability (GetDeviceView).
uint64_t DeviceSerial();

// One write of a table that subscriptions follow, with the record as it was
// (none for a create) and as it is (none for a delete).
enum class ChangedTable : uint32_t { If, Board };
struct Change {
    ChangedTable table = ChangedTable::If;
    uint32_t type = 0;   // DB_CHANGE_CREATE, DB_CHANGE_UPDATE or DB_CHANGE_DELETE
    std::optional<IfRecord> oldIf;
    std::optional<IfRecord> newIf;
    std::optional<BoardRecord> oldBoard;
    std::optional<BoardRecord> newBoard;
};

// The one listener of the change feed (the database's subscription side).
// It is called under the world's lock, in the order of the writes, and must
// not call back into the world.
using ChangeListener = void (*)(const Change &change);
void SetChangeListener(ChangeListener listener);

}  // namespace platform::world
