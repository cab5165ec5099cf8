// The high-availability service of the Linux platform (MOLB_HA_), seen from
// outside the module: its thread ("HA service") delivers queued events in
// order to every registered component (or master-position subscriber) and
// records what each callback returned. The device layer's HA driver
// (device/ha.hpp) plays the switch's HA manager and queues the events.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace platform::ha {

inline constexpr uint32_t kRoleMaster = 1;
inline constexpr uint32_t kRoleStandby = 2;
inline constexpr uint32_t kRoleSlave = 3;

// Sequence number of a queued event (from 1).
using Seq = uint64_t;

enum class Kind : uint32_t { Event, MasterChange };

// Queues one event for the components: an event of eventType, or a master
// change, with its information words (none: a null pointer; one: a
// uint32_t; two: a chassis/board pair). Returns its sequence number.
Seq Queue(Kind kind, uint32_t eventType, std::vector<uint32_t> info);

// Waits up to timeoutMs (real time) until the event seq was delivered.
bool WaitDelivered(Seq seq, uint32_t timeoutMs = 5000);

struct Delivery {
    Seq seq = 0;
    Kind kind = Kind::Event;
    uint32_t eventType = 0;            // events only
    std::vector<uint32_t> info;        // the information words as sent
    std::vector<std::string> names;    // the components called, in order
    std::vector<uint32_t> returns;     // what each returned
};
// A delivered event (the last 256 are kept); nullopt when not delivered yet or forgotten.
std::optional<Delivery> GetDelivery(Seq seq);

struct Registration {
    std::string name;
    std::string type;
    uint32_t pid = 0;
    uint32_t flag = 0;
    bool mmbSubscribed = false;        // subscribed to master changes (type empty: subscribed only)
};
std::vector<Registration> Registrations();

struct SwitchoverReport {
    std::string name;
    uint32_t state = 0;
    uint32_t reserved = 0;
};
// Every switchover report, oldest first (the last 256).
std::vector<SwitchoverReport> SwitchoverReports();

// What the service last told the components.
struct State {
    uint32_t role = 0;                 // of the last start of work, 0 before
    uint32_t standbyChassis = 0;       // of the last new backup (0/0 none, cleared when the backup goes)
    uint32_t standbyBoard = 0;
    uint32_t masterChassis = 0;        // of the last master change
    uint32_t masterBoard = 0;
    Seq queued = 0;                    // events queued so far
    Seq delivered = 0;                 // events delivered so far
};
State GetState();

}  // namespace platform::ha
