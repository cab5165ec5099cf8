// The HA driver of the device layer: it plays the switch's HA manager for
// the host and tests. Each call below queues one event on the platform's HA
// service (platform/ha.hpp), whose thread delivers it to the registered
// components; what happened is read back from the service.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/ha.hpp"

namespace plat::ha {

// What the components are told. Each returns the event's sequence number.
Seq start_work(uint32_t role);
Seq new_backup(uint32_t chassisId, uint32_t boardId);
Seq backup_removed();
Seq promote();
Seq demote();
Seq master_change(uint32_t chassisId, uint32_t boardId);
// Any event type with optional information words (none: a null pointer;
// one: a uint32_t; two: a chassis/board pair), for events the service
// itself never sends.
Seq send_event(uint32_t eventType, const std::vector<uint32_t> &info);

// "role 1, standby 0/0, master 1/1, events 3 queued 3 delivered".
std::string describe(const State &state);
// "pppoe_plus state 1".
std::string describe(const SwitchoverReport &report);

}  // namespace plat::ha
