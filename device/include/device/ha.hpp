// The HA driver of the device layer: it plays the switch's HA manager for
// the host and tests. Each call below queues one event on the platform's HA
// service (platform/ha.hpp), whose thread delivers it to the registered
// components; what happened is read back from the service.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/ha.hpp"

namespace device::ha {

// The service's records and readings, under the driver's name.
using platform::ha::Delivery;
using platform::ha::GetDelivery;
using platform::ha::GetState;
using platform::ha::Kind;
using platform::ha::kRoleMaster;
using platform::ha::kRoleSlave;
using platform::ha::kRoleStandby;
using platform::ha::Registration;
using platform::ha::Registrations;
using platform::ha::Seq;
using platform::ha::State;
using platform::ha::SwitchoverReport;
using platform::ha::SwitchoverReports;
using platform::ha::WaitDelivered;

// What the components are told. Each returns the event's sequence number.
Seq StartWork(uint32_t role);
Seq NewBackup(uint32_t chassisId, uint32_t boardId);
Seq BackupRemoved();
Seq Promote();
Seq Demote();
Seq MasterChange(uint32_t chassisId, uint32_t boardId);
// Any event type with optional information words (none: a null pointer;
// one: a uint32_t; two: a chassis/board pair), for events the service
// itself never sends.
Seq SendEvent(uint32_t eventType, const std::vector<uint32_t> &info);

// "role 1, standby 0/0, master 1/1, events 3 queued 3 delivered".
std::string Describe(const State &state);
// "pppoe_plus state 1".
std::string Describe(const SwitchoverReport &report);

}  // namespace device::ha
