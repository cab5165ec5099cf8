// The HA driver: the switch's HA manager as the host and tests play it.
// Each call queues one event on the platform's HA service with the
// information words the components expect for it.
#include <sstream>

#include "device/ha.hpp"
#include "molb.h"

namespace plat::ha {

Seq start_work(uint32_t role)
{
    return Queue(Kind::Event, MOLB_HA_EVENT_START_WORK, {role});
}

Seq new_backup(uint32_t chassisId, uint32_t boardId)
{
    return Queue(Kind::Event, MOLB_HA_EVENT_NEW_BACKUP, {chassisId, boardId});
}

Seq backup_removed()
{
    return Queue(Kind::Event, MOLB_HA_EVENT_BACKUP_REMOVED, {});
}

Seq promote()
{
    return Queue(Kind::Event, MOLB_HA_EVENT_PROMOTE, {});
}

Seq demote()
{
    return Queue(Kind::Event, MOLB_HA_EVENT_DEMOTE, {});
}

Seq master_change(uint32_t chassisId, uint32_t boardId)
{
    return Queue(Kind::MasterChange, 0, {chassisId, boardId});
}

Seq send_event(uint32_t eventType, const std::vector<uint32_t> &info)
{
    return Queue(Kind::Event, eventType, info);
}

std::string describe(const State &s)
{
    std::ostringstream out;
    out << "role " << s.role << ", standby " << s.standbyChassis << "/" << s.standbyBoard << ", master "
        << s.masterChassis << "/" << s.masterBoard << ", events " << s.queued << " queued " << s.delivered
        << " delivered";
    return out.str();
}

std::string describe(const SwitchoverReport &report)
{
    return report.name + " state " + std::to_string(report.state);
}

}  // namespace plat::ha
