// The world model of the Linux platform: the switch the module believes it
// runs on. The device manager and the object database answer from it; the
// device layer fills it from a topology file (device/world.hpp) and the
// host and tests change it at run time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

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
    uint32_t boardIp = 0x7F000001;   // mesh address of this board, host byte order (127.0.0.1)
};

constexpr uint32_t kNoId = 0xFFFFFFFFU;         // no trunk, no lag, no interface
constexpr uint32_t kPortSwitchL2 = 5;            // port-switch attribute of a switched (layer-2) port
constexpr uint32_t kPortSwitchL3 = 1;            // a routed port
constexpr size_t kVlanBitmapBytes = 512;         // one bit per VLAN 0..4095

// One interface: a port, or the interface of a trunk.
struct IfRecord {
    std::string name{};
    uint32_t ifIndex = kNoId;
    uint32_t slot = 0;               // "dev" child: placement
    uint32_t card = 0;
    uint16_t port = 0;
    uint32_t l2TrunkId = kNoId;      // "l2" child: the trunk this port is a member of
    uint32_t lagId = kNoId;          // the trunk id when this is a trunk's own interface
    uint32_t portSwitch = kPortSwitchL2;
    bool onBoard = true;
    bool trunkMode = false;          // VLAN mode: access (false) or trunk
    uint16_t pvid = 1;
    std::string description{};  // a default, so designated initializers may leave it out
};

// Trunk id -> the trunk's interface.
struct TrunkRecord {
    uint32_t trunkId = kNoId;
    uint32_t trunkIfIndex = kNoId;
};

// Trunk-port configuration: member port -> the trunk's interface.
struct TrunkPortRecord {
    uint32_t memberIfIndex = kNoId;
    uint32_t trunkIfIndex = kNoId;
};

// The VLANs a port belongs to: bit v%8 of byte v/8, least significant bit first.
struct PortVlanRecord {
    uint32_t ifIndex = kNoId;
    std::array<uint8_t, kVlanBitmapBytes> bitmap{};

    void Add(uint16_t vlan) { bitmap[(vlan / 8U) % kVlanBitmapBytes] |= static_cast<uint8_t>(1U << (vlan % 8U)); }
    bool Has(uint16_t vlan) const { return (bitmap[(vlan / 8U) % kVlanBitmapBytes] >> (vlan % 8U) & 1U) != 0; }
};

// Access isolation: traffic from source may not reach destination. Keyed
// (source, vlan, destination); vlan 0 stands for every VLAN.
struct AccessIsolateRecord {
    uint32_t srcIfIndex = kNoId;
    uint32_t vlanId = 0;
    uint32_t dstIfIndex = kNoId;
};

// Port isolation: a port's membership in one isolation group (one record
// per port and group).
struct PortIsolateRecord {
    uint32_t ifIndex = kNoId;
    uint32_t groupId = 0;
};

// One board of the board registry (the database's "devm" object): the
// registration state its board manager reported, none before the first report.
struct BoardRecord {
    uint32_t chassisId = 1;
    uint32_t slotId = 0;
    std::optional<uint32_t> registerStatus;
};
constexpr uint32_t kBoardRegistered = 1;     // registerStatus of a board that is up
constexpr uint32_t kBoardUnregistered = 0;   // a board that left

// The tables the forwarding plane switches by, read together in one
// consistent snapshot, with the generation of the tables they were read at.
struct PortTables {
    uint64_t generation = 0;
    std::vector<IfRecord> interfaces;
    std::vector<TrunkPortRecord> trunkPorts;
    std::vector<PortVlanRecord> portVlans;
};

// A token bucket for discovery frames punted to the agent: rate frames a
// second, up to burst at once; rate 0 lets every frame through.
struct PuntRate {
    uint32_t rate = 0;
    uint32_t burst = 0;

    bool Limits() const { return rate != 0; }
    bool operator==(const PuntRate &) const = default;
};

// How the forwarding plane polices what it punts: a bucket per port (the
// default one, or the port's own) and one for the whole switch.
struct PuntPolicing {
    PuntRate port{100, 200};
    PuntRate global{2000, 4000};
    std::map<uint32_t, PuntRate> ports;   // ifIndex -> a port's own bucket
};

// The forwarding plane's table of subscribers seen in discovery: at most
// size entries (0: no table), each dropped after idleSeconds without a
// discovery frame (0: kept until a PADT or eviction).
struct SubscriberTableSettings {
    uint32_t size = 65536;
    uint32_t idleSeconds = 86400;
};

struct PlaneSettings {
    PuntPolicing policing;
    SubscriberTableSettings subscribers;
};

struct Topology {
    SystemIdentity system;
    uint32_t haRole = 1;             // role reported at start of work: 1 master, 2 standby, 3 slave
    std::vector<IfRecord> interfaces;            // ports and trunk interfaces, in file order
    std::vector<TrunkRecord> trunks;
    std::vector<TrunkPortRecord> trunkPorts;
    std::vector<PortVlanRecord> portVlans;
    std::vector<AccessIsolateRecord> accessIsolation;
    std::vector<PortIsolateRecord> portIsolation;
    std::map<uint32_t, std::string> netdevs;     // port ifIndex -> the Linux netdev it is bound to
    PlaneSettings plane;                         // punt policing and the subscriber table
};

namespace world {

// Replaces the identity; the device database answers with it once ready.
void SetIdentity(const SystemIdentity &identity);
SystemIdentity Identity();

// While not ready, every DEVM read fails with DEVM_ERR_NOT_READY.
void SetDevmReady(bool ready);
// Finer control: the main board id and the self board id become readable
// separately (SetDevmReady sets both).
void SetMainBoardReadable(bool readable);
void SetSelfBoardReadable(bool readable);

// Framework-instance table.
void FrmInstClear();
void FrmInstPut(const FrmInstRecord &record);   // replaces the record of the same localSlot

// Interface table, keyed by ifIndex: put replaces the record of the same
// ifIndex in place, remove returns whether there was one.
void IfPut(const IfRecord &record);
bool IfRemove(uint32_t ifIndex);
std::vector<IfRecord> IfRecords();

// One interface; nullopt when there is none of this ifIndex.
std::optional<IfRecord> IfFind(uint32_t ifIndex);
// The interface a user or a file names: by its name, or else by its ifIndex
// in decimal. nullopt when neither names one.
std::optional<IfRecord> IfResolve(std::string_view nameOrIndex);
// Takes an interface on board or off; false when there is none of this ifIndex.
bool IfSetOnBoard(uint32_t ifIndex, bool onBoard);

// Board registry, keyed by (chassis, slot). ApplyTopology registers this
// board (state kBoardRegistered).
void BoardPut(const BoardRecord &record);
bool BoardRemove(uint32_t chassisId, uint32_t slotId);
std::vector<BoardRecord> BoardRecords();

// Interface and board-registry writes (IfPut, IfRemove, IfSetOnBoard,
// BoardPut, BoardRemove) are pushed to the object database's subscription
// connections as they happen; bulk loads (ApplyTopology, Reset) are not.

// Trunk table, keyed by trunk id.
void TrunkPut(const TrunkRecord &record);

// Trunk-port configuration, keyed by member ifIndex.
void TrunkPortPut(const TrunkPortRecord &record);
bool TrunkPortRemove(uint32_t memberIfIndex);

// Port-VLAN maps, keyed by ifIndex; PortVlanSet adds or drops one VLAN of
// a port (creating its map when absent).
void PortVlanSet(uint32_t ifIndex, uint16_t vlan, bool member);

// Access-isolation entries, keyed by (source, vlan, destination).
void AccessIsolatePut(const AccessIsolateRecord &record);

// Port-isolation memberships, keyed by (ifIndex, group).
void PortIsolatePut(const PortIsolateRecord &record);
bool PortIsolateRemove(const PortIsolateRecord &record);

// The system name (also part of the identity).
void SetSysName(const std::string &name);

// Changes with every write of a table above (interfaces, boards, trunks,
// trunk ports, port VLANs, isolation) and every bulk load: a reader that
// sees the same generation twice saw the same tables in between. The
// identity, readiness and the framework-instance table do not count. Never
// locks: cheap enough to read for every frame.
uint64_t TablesGeneration();
// The interface, trunk-port and port-VLAN tables and their generation,
// taken under one lock.
PortTables GetPortTables();

// Installs a loaded topology: identity and every table, replacing what was there.
void ApplyTopology(const Topology &topology);

// Everything back to defaults (tests).
void Reset();

}  // namespace world
}  // namespace platform
