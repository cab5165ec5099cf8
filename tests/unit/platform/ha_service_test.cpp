// The HA service: registration, in-order delivery on the service's own
// thread, the information each event carries, recorded results and reports,
// failure injection.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "device/ha.hpp"
#include "molb.h"

namespace {

std::mutex g_mu;
std::vector<uint32_t> g_types;    // the events seen, 100 for a master change
std::set<std::string> g_threads;  // the threads they came on
std::atomic<bool> g_hold{false};

void See(uint32_t type)
{
    char name[16] = {};
    (void)pthread_getname_np(pthread_self(), name, sizeof(name));
    std::lock_guard lock(g_mu);
    g_types.push_back(type);
    g_threads.insert(name);
}

// Records the event and the thread it came on; a new backup reports its
// switchover state from inside the callback.
uint32_t OnEvent(MOLB_HA_EVENT_S *event)
{
    while (g_hold.load()) {
    }
    const uint32_t ret =
        event->eventType == MOLB_HA_EVENT_NEW_BACKUP ? MOLB_HA_ReportSwitchoverState("comp", 1, 0) : 0U;
    See(event->eventType);
    return ret;
}

uint32_t OnMaster(void *)
{
    See(100);
    return 3;
}

MOLB_HA_COMP_INFO_S Record(const char *name, const char *type)
{
    MOLB_HA_COMP_INFO_S rec{};
    std::strncpy(rec.compName, name, sizeof(rec.compName) - 1);
    std::strncpy(rec.compType, type, sizeof(rec.compType) - 1);
    rec.pid = 42;
    rec.flag = 1;
    return rec;
}

}  // namespace

// Injected failures of all three calls are the module's HA suite's
// (ha_test.cpp), which checks the code each returns.
TEST(HaService, RegistrationChecksItsArgumentsAndReplacesByName)
{
    MOLB_HA_COMP_INFO_S rec = Record("comp", "HARDWARE");
    MOLB_HA_COMP_INFO_S unterminated = rec;
    std::memset(unterminated.compType, 'x', sizeof(unterminated.compType));
    const MOLB_HA_COMP_INFO_S nameless = Record("", "HARDWARE");
    EXPECT_EQ(MOLB_HA_CompRegister(nullptr, OnEvent, 0), MOLB_ERR_PARAM);
    EXPECT_EQ(MOLB_HA_CompRegister(&rec, nullptr, 0), MOLB_ERR_PARAM);
    EXPECT_EQ(MOLB_HA_CompRegister(&unterminated, OnEvent, 0), MOLB_ERR_PARAM);
    EXPECT_EQ(MOLB_HA_CompRegister(&nameless, OnEvent, 0), MOLB_ERR_PARAM);
    EXPECT_EQ(MOLB_HA_SubsAMMBPosition("comp", nullptr, 0), MOLB_ERR_PARAM);
    EXPECT_EQ(MOLB_HA_ReportSwitchoverState("comp", 1, 0), MOLB_ERR_UNKNOWN_COMP);

    // Registering again under the same name replaces, it does not add.
    ASSERT_EQ(MOLB_HA_CompRegister(&rec, OnEvent, 0), MOLB_OK);
    rec.pid = 43;
    ASSERT_EQ(MOLB_HA_CompRegister(&rec, OnEvent, 0), MOLB_OK);
    const auto regs = device::ha::Registrations();
    ASSERT_EQ(regs.size(), 1U);
    EXPECT_EQ(regs[0].pid, 43U);
}

TEST(HaService, DeliversInOrderOnItsOwnThreadAndRecordsWhatCallbacksReturned)
{
    MOLB_HA_COMP_INFO_S rec = Record("comp", "HARDWARE");
    ASSERT_EQ(MOLB_HA_CompRegister(&rec, OnEvent, 0), MOLB_OK);
    ASSERT_EQ(MOLB_HA_SubsAMMBPosition("comp", OnMaster, 0), MOLB_OK);
    ASSERT_EQ(MOLB_HA_SubsAMMBPosition("watcher", OnMaster, 0), MOLB_OK);  // subscribed, not registered

    // Held in the first callback: later events queue up behind it.
    g_hold = true;
    const device::ha::Seq first = device::ha::StartWork(2);
    EXPECT_FALSE(device::ha::WaitDelivered(first, 50));
    device::ha::NewBackup(1, 7);
    device::ha::BackupRemoved();
    device::ha::Promote();
    device::ha::Demote();
    const device::ha::Seq master = device::ha::MasterChange(1, 3);
    const device::ha::Seq bare = device::ha::SendEvent(1, {});
    g_hold = false;
    ASSERT_TRUE(device::ha::WaitDelivered(bare));

    std::lock_guard lock(g_mu);
    EXPECT_EQ(g_types, (std::vector<uint32_t>{1, 2, 3, 4, 7, 100, 100, 1}));  // two see the master change
    EXPECT_EQ(g_threads, std::set<std::string>{"HA service"});
    // The information each event carries and the one component's return are
    // what the module's HA suite reads (ha_test.cpp); here two subscribers.
    const auto toSubscribers = device::ha::GetDelivery(master);
    ASSERT_TRUE(toSubscribers.has_value());
    EXPECT_EQ(toSubscribers->names, (std::vector<std::string>{"comp", "watcher"}));
    EXPECT_EQ(toSubscribers->returns, (std::vector<uint32_t>{3, 3}));
    EXPECT_FALSE(device::ha::GetDelivery(bare + 1).has_value());

    const device::ha::State state = device::ha::GetState();
    EXPECT_EQ(device::ha::Describe(state), "role 2, standby 0/0, master 1/3, events 7 queued 7 delivered");
}
