// The HA driver: the switch's HA manager as the host and tests play it.
// Each call queues one event on the platform's HA service with the
// information words the components expect for it.
#include <sstream>

#include "device/ha.hpp"
#include "molb.h"

namespace device::ha {

using platform::ha::Queue;

Seq StartWork(uint32_t role)
{
    return Queue(Kind::Event, MOLB_HA_EVENT_START_WORK, {role});
}

Seq NewBackup(uint32_t chassisId, uint32_t boardId)
{
    return Queue(Kind::Event, MOLB_HA_EVENT_NEW_BACKUP, {chassisId, boardId});
}

Seq BackupRemoved()
{
    return Queue(Kind::Event, MOLB_HA_EVENT_BACKUP_REMOVED, {});
}

Seq Promote()
{
    return Queue(Kind::Event, MOLB_HA_EVENT_PROMOTE, {});
}

Seq Demote()
{
    return Queue(Kind::Event, MOLB_HA_EVENT_DEMOTE, {});
}

Seq MasterChange(uint32_t chassisId, uint32_t boardId)
{
    return Queue(Kind::MasterChange, 0, {chassisId, boardId});
}

Seq SendEvent(uint32_t eventType, const std::vector<uint32_t> &info)
{
    return Queue(Kind::Event, eventType, info);
}

std::string Describe(const State &s)
{
    std::ostringstream out;
    out << "role " << s.role << ", standby " << s.standbyChassis << "/" << s.standbyBoard << ", master "
        << s.masterChassis << "/" << s.masterBoard << ", events " << s.queued << " queued " << s.delivered
        << " delivered";
    return out.str();
}

std::string Describe(const SwitchoverReport &report)
{
    return report.name + " state " + std::to_string(report.state);
}

}  // namespace device::ha
