// The world model of the Linux platform: the switch the module believes it
// runs on. The device manager and the object database answer from it; the
// host fills it from a topology file and changes it at run time.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace plat {

// One record of the framework-instance table (table 9).
struct FrmInstRecord {
    uint32_t role = 0;
    uint32_t modState = 0;
    uint32_t state = 0;
    int32_t localSlot = 0;
};

struct SystemIdentity {
    std::string sysName = "Switch";
    std::array<uint8_t, 6> sysMac{};
    uint32_t chassisId = 1;
    uint32_t selfBoardId = 1;
    uint32_t mainBoardId = 1;
    uint32_t boardType = 6;          // DEVM_BOARD_TYPE_*, a single box by default
};

struct Topology {
    SystemIdentity system;
    uint32_t haRole = 1;             // role reported at start of work: 1 master, 2 standby, 3 slave
};

// Parses a topology file (YAML). On error returns nullopt and a message
// naming the file, line and offending key in *error.
std::optional<Topology> load_topology_file(const std::string &path, std::string *error);
std::optional<Topology> load_topology_text(const std::string &yaml, std::string *error);

namespace world {

// Replaces the identity; the device database answers with it once ready.
void set_identity(const SystemIdentity &identity);
SystemIdentity identity();

// While not ready, every DEVM read fails with DEVM_ERR_NOT_READY.
void set_devm_ready(bool ready);
// Finer control: the main board id and the self board id become readable
// separately (set_devm_ready sets both).
void set_main_board_readable(bool readable);
void set_self_board_readable(bool readable);

// Framework-instance table.
void frm_inst_clear();
void frm_inst_put(const FrmInstRecord &record);   // replaces the record of the same localSlot
std::vector<FrmInstRecord> frm_inst_records();

// Everything back to defaults (tests).
void reset();

}  // namespace world
}  // namespace plat
