// Platform services (MOLB): the high-availability service.
//
// On the real switch the HA manager tells every registered component when
// to start work and with which board role, that a standby board came or
// went, that this board was promoted or demoted, and every change of the
// master board; components answer switchover events with a state report.
// Ours is driven through platform/ha.hpp (by the device layer's HA driver,
// device/ha.hpp): each event is queued and a thread of the service ("HA
// service") delivers the events in order, calling the callbacks without
// holding the service's lock (a callback may report its switchover state or
// register). It keeps what was registered,
// reported and returned so the host can show it and tests can assert it.
// Every MOLB_HA_ call passes failure injection.
#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>

#include "core/internal.hpp"
#include "molb.h"
#include "platform/fail_point.hpp"
#include "platform/ha.hpp"

static_assert(sizeof(MOLB_HA_COMP_INFO_S) == 152, "the registration record is 152 bytes");
static_assert(offsetof(MOLB_HA_COMP_INFO_S, compType) == 64, "type at offset 64");
static_assert(offsetof(MOLB_HA_COMP_INFO_S, pid) == 128, "process id at offset 128");
static_assert(offsetof(MOLB_HA_COMP_INFO_S, flag) == 132, "flag at offset 132");
static_assert(offsetof(MOLB_HA_COMP_INFO_S, reserved) == 136, "16 reserved bytes at offset 136");

namespace {

using platform::ha::Delivery;
using platform::ha::Kind;
using platform::ha::Seq;

constexpr size_t kKeep = 256;

struct Component {
    platform::ha::Registration reg;
    MOLB_HA_EVENT_FN onEvent = nullptr;
    MOLB_HA_MMB_FN onMasterChange = nullptr;
};

struct Pending {
    Seq seq = 0;
    Kind kind = Kind::Event;
    uint32_t eventType = 0;
    std::vector<uint32_t> info;
};

struct Service {
    std::mutex mu;
    std::condition_variable queuedCv;
    std::condition_variable deliveredCv;
    std::vector<Component> components;
    std::deque<Pending> queue;
    std::deque<Delivery> delivered;
    std::deque<platform::ha::SwitchoverReport> reports;
    platform::ha::State state;
    bool threadStarted = false;
};

Service &TheService()
{
    return platform::internal::Leaky<Service>();
}

// A fixed-size field holds a terminated string.
bool Terminated(const char *field, size_t size)
{
    return std::memchr(field, '\0', size) != nullptr;
}

Component *FindLocked(Service &svc, const std::string &name)
{
    for (Component &c : svc.components) {
        if (c.reg.name == name) {
            return &c;
        }
    }
    return nullptr;
}

Component &FindOrAddLocked(Service &svc, const std::string &name)
{
    if (Component *c = FindLocked(svc, name)) {
        return *c;
    }
    svc.components.emplace_back();
    svc.components.back().reg.name = name;
    return svc.components.back();
}

template <typename T>
void Keep(std::deque<T> &ring, T item)
{
    ring.push_back(std::move(item));
    while (ring.size() > kKeep) {
        ring.pop_front();
    }
}

void ApplyLocked(platform::ha::State &state, const Pending &ev)
{
    // Events sent without their information tell nothing about the state.
    if (ev.kind == Kind::MasterChange) {
        state.masterChassis = ev.info[0];
        state.masterBoard = ev.info[1];
        return;
    }
    switch (ev.eventType) {
        case MOLB_HA_EVENT_START_WORK:
            if (!ev.info.empty()) {
                state.role = ev.info[0];
            }
            break;
        case MOLB_HA_EVENT_NEW_BACKUP:
            if (ev.info.size() >= 2) {
                state.standbyChassis = ev.info[0];
                state.standbyBoard = ev.info[1];
            }
            break;
        case MOLB_HA_EVENT_BACKUP_REMOVED:
            state.standbyChassis = 0;
            state.standbyBoard = 0;
            break;
        default: break;
    }
}

// Calls the callbacks the event is for; the information lives on this
// thread's stack for the length of the calls.
Delivery Deliver(const Pending &ev, const std::vector<Component> &components)
{
    Delivery out;
    out.seq = ev.seq;
    out.kind = ev.kind;
    out.eventType = ev.eventType;
    out.info = ev.info;
    std::vector<uint32_t> words = ev.info;
    MOLB_HA_BOARD_S board = {words.size() > 0 ? words[0] : 0U, words.size() > 1 ? words[1] : 0U};
    void *info = nullptr;
    if (words.size() == 2 || ev.kind == Kind::MasterChange) {
        info = &board;
    } else if (!words.empty()) {
        info = words.data();
    }
    for (const Component &c : components) {
        if (ev.kind == Kind::MasterChange && c.onMasterChange != nullptr) {
            out.names.push_back(c.reg.name);
            out.returns.push_back(c.onMasterChange(info));
        } else if (ev.kind == Kind::Event && c.onEvent != nullptr) {
            MOLB_HA_EVENT_S event = {ev.eventType, info};
            out.names.push_back(c.reg.name);
            out.returns.push_back(c.onEvent(&event));
        }
    }
    return out;
}

void ServiceLoop()
{
    (void)pthread_setname_np(pthread_self(), "HA service");
    Service &svc = TheService();
    for (;;) {
        Pending ev;
        std::vector<Component> components;
        {
            std::unique_lock lock(svc.mu);
            svc.queuedCv.wait(lock, [&svc]() { return !svc.queue.empty(); });
            ev = std::move(svc.queue.front());
            svc.queue.pop_front();
            components = svc.components;
        }
        Delivery done = Deliver(ev, components);
        {
            std::lock_guard lock(svc.mu);
            ApplyLocked(svc.state, ev);
            svc.state.delivered = ev.seq;
            Keep(svc.delivered, std::move(done));
        }
        svc.deliveredCv.notify_all();
    }
}

}  // namespace

extern "C" {

uint32_t MOLB_HA_CompRegister(const MOLB_HA_COMP_INFO_S *info, MOLB_HA_EVENT_FN callback, uint32_t reserved)
{
    (void)reserved;
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (info == nullptr || callback == nullptr || !Terminated(info->compName, sizeof(info->compName)) ||
        !Terminated(info->compType, sizeof(info->compType)) || info->compName[0] == '\0') {
        return MOLB_ERR_PARAM;
    }
    Service &svc = TheService();
    std::lock_guard lock(svc.mu);
    Component &c = FindOrAddLocked(svc, info->compName);
    c.reg.type = info->compType;
    c.reg.pid = info->pid;
    c.reg.flag = info->flag;
    c.onEvent = callback;
    return MOLB_OK;
}

uint32_t MOLB_HA_SubsAMMBPosition(const char *compName, MOLB_HA_MMB_FN callback, uint32_t reserved)
{
    (void)reserved;
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (compName == nullptr || compName[0] == '\0' || callback == nullptr ||
        !Terminated(compName, MOLB_HA_NAME_LEN)) {
        return MOLB_ERR_PARAM;
    }
    Service &svc = TheService();
    std::lock_guard lock(svc.mu);
    Component &c = FindOrAddLocked(svc, compName);
    c.onMasterChange = callback;
    c.reg.mmbSubscribed = true;
    return MOLB_OK;
}

uint32_t MOLB_HA_ReportSwitchoverState(const char *compName, uint32_t state, uint32_t reserved)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (compName == nullptr || !Terminated(compName, MOLB_HA_NAME_LEN)) {
        return MOLB_ERR_PARAM;
    }
    Service &svc = TheService();
    std::lock_guard lock(svc.mu);
    const Component *c = FindLocked(svc, compName);
    if (c == nullptr || c->onEvent == nullptr) {
        return MOLB_ERR_UNKNOWN_COMP;
    }
    Keep(svc.reports, platform::ha::SwitchoverReport{compName, state, reserved});
    return MOLB_OK;
}

}  // extern "C"

namespace platform::ha {

Seq Queue(Kind kind, uint32_t eventType, std::vector<uint32_t> info)
{
    Service &svc = TheService();
    Seq seq = 0;
    {
        std::lock_guard lock(svc.mu);
        if (!svc.threadStarted) {
            // The service runs for the life of the process, like the tasks.
            std::thread(ServiceLoop).detach();
            svc.threadStarted = true;
        }
        seq = ++svc.state.queued;
        svc.queue.push_back(Pending{seq, kind, eventType, std::move(info)});
    }
    svc.queuedCv.notify_one();
    return seq;
}

bool WaitDelivered(Seq seq, uint32_t timeoutMs)
{
    Service &svc = TheService();
    std::unique_lock lock(svc.mu);
    return svc.deliveredCv.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                    [&svc, seq]() { return svc.state.delivered >= seq; });
}

std::optional<Delivery> GetDelivery(Seq seq)
{
    Service &svc = TheService();
    std::lock_guard lock(svc.mu);
    for (const Delivery &d : svc.delivered) {
        if (d.seq == seq) {
            return d;
        }
    }
    return std::nullopt;
}

std::vector<Registration> Registrations()
{
    Service &svc = TheService();
    std::lock_guard lock(svc.mu);
    std::vector<Registration> out;
    for (const Component &c : svc.components) {
        out.push_back(c.reg);
    }
    return out;
}

std::vector<SwitchoverReport> SwitchoverReports()
{
    Service &svc = TheService();
    std::lock_guard lock(svc.mu);
    return {svc.reports.begin(), svc.reports.end()};
}

State GetState()
{
    Service &svc = TheService();
    std::lock_guard lock(svc.mu);
    return svc.state;
}

}  // namespace platform::ha
