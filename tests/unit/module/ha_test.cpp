// High availability against the platform's HA service: events are
// delivered on the service's thread, role changes travel over the main
// queue, which the test drains in place of the init task.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <tuple>
#include <vector>

#include "device/ha.hpp"
#include "devm.h"
#include "mesh.h"
#include "module_fixture.hpp"
#include "platform/control.h"
#include "pppoe_plus_ha.h"
#include "pppoe_plus_init.h"
#include "pppoe_plus_main.h"

using pplus_test::LogCount;
using pplus_test::LogHas;

namespace {

class HaTest : public pplus_test::ModuleTest {
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        ASSERT_EQ(PPPOE_PLUS_UpdateDebugSwitch(PPPOE_PLUS_DBG_ALL, 1), 0U);
        epfd_ = MESH_EpollCreate();
        ASSERT_GE(epfd_, 0);
        QueueHandle *queue = PPPOE_PLUS_CreateEpollQueue(epfd_, "pppoe_plus", 1024, PPPOE_PLUS_MainQueueProc);
        ASSERT_NE(queue, nullptr);
        g_pppoePlusRegQueHandle.store(queue);
        ASSERT_EQ(PPPOE_PLUS_HaInit(), 0U);
    }

    // A board of chassis 1 with this board type (DEVM_BOARD_TYPE_*).
    static void UseBoard(uint32_t selfBoard, uint32_t mainBoard, uint32_t boardType)
    {
        pplus_test::UseReadyWorld(selfBoard, mainBoard);
        platform::SystemIdentity id = platform::world::Identity();
        id.boardType = boardType;
        platform::world::SetIdentity(id);
    }

    // Waits for the event's delivery; what the module's callback returned.
    static uint32_t Delivered(device::ha::Seq seq)
    {
        EXPECT_TRUE(device::ha::WaitDelivered(seq));
        const auto d = device::ha::GetDelivery(seq);
        if (!d || d->returns.size() != 1) {
            ADD_FAILURE() << "event " << seq << " did not reach exactly one component";
            return 0xFFFFFFFFU;
        }
        EXPECT_EQ(d->names[0], "pppoe_plus");
        return d->returns[0];
    }

    // Runs the main queue's messages as the init task would; how many there were.
    int DrainMainQueue()
    {
        int handled = 0;
        MESH_EPOLL_EVENT_S events[5];
        while (MESH_EpollWait(epfd_, events, 5, 0) > 0) {
            (void)events[0].callback(events[0].fd, events[0].events, events[0].arg);
            handled++;
        }
        return handled;
    }

    int32_t epfd_ = -1;
};

}  // namespace

TEST_F(HaTest, InitRegistersAHardwareComponentAndReportsEachFailure)
{
    const auto regs = device::ha::Registrations();
    ASSERT_EQ(regs.size(), 1U);
    EXPECT_EQ(regs[0].name + " " + regs[0].type + " " + std::to_string(regs[0].flag), "pppoe_plus HARDWARE 1");
    EXPECT_EQ(regs[0].pid, static_cast<uint32_t>(getpid()));
    EXPECT_TRUE(regs[0].mmbSubscribed);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPLUS-HA] HA init successfully."));

    PLAT_FailSet("MOLB_HA_CompRegister", 0, 1, 0x7A);
    EXPECT_EQ(PPPOE_PLUS_HaInit(), 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPLUS-HA] MOLB HA CompRegister error, ret=0x7a"));
    PLAT_FailSet("MOLB_HA_SubsAMMBPosition", 0, 1, 5);
    EXPECT_EQ(PPPOE_PLUS_HaInit(), 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPLUS-HA] Reg ha master change event failed, ret=5."));
}

TEST_F(HaTest, EventsThatPostNothing)
{
    struct Row {
        const char *why;
        uint32_t type;
        std::vector<uint32_t> info;
        uint32_t result;
    };
    const Row rows[] = {
        {"board role 5 is refused", 1, {5}, 1},
        {"start of work without its role", 1, {}, 1},
        {"new backup without its boards", 2, {}, 1},
        {"type 0 is ignored", 0, {1}, 0},
        {"type 5 is ignored", 5, {}, 0},
        {"types above 7 are ignored", 8, {1}, 0},
    };
    for (const Row &row : rows) {
        EXPECT_EQ(Delivered(device::ha::SendEvent(row.type, row.info)), row.result) << row.why;
        EXPECT_EQ(DrainMainQueue(), 0) << row.why;
    }
    EXPECT_EQ(PPPOE_PLUS_HaGetRole(), PPPOE_PLUS_HA_ROLE_MASTER);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPLUS-HA] Start to process HA event : 8."));
    EXPECT_EQ(LogCount(PLAT_LOG_DIAG, "[PPLUS-HA] Get board role [5]."), 2U);  // informational, then error
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPLUS-HA] HaStartWork get startMsg fail."));
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPLUS-HA] HaStartWork get eventInfo null."));
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPLUS-HA] HaNewBackUp get eventInfo null."));
    EXPECT_TRUE(device::ha::SwitchoverReports().empty());
}

TEST_F(HaTest, StartWorkAsMasterOnALineBoardLeavesTheRoleUnknownYetStartsTheClient)
{
    UseBoard(2, 1, DEVM_BOARD_TYPE_LPU);
    g_pplusHaRole = PPPOE_PLUS_HA_ROLE_STANDBY;
    EXPECT_EQ(Delivered(device::ha::StartWork(1)), 0U);
    EXPECT_EQ(PPPOE_PLUS_HaGetRole(), PPPOE_PLUS_HA_ROLE_STANDBY);  // not applied on the service's thread
    EXPECT_EQ(DrainMainQueue(), 1);
    EXPECT_EQ(PPPOE_PLUS_HaGetRole(), PPPOE_PLUS_HA_ROLE_UNKNOWN);
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPLUS-HA] Get ha event, eventType=1."));
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPLUS-HA] StartWork get ha role, role=1."));
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPLUS-HA] Set role 0. (0: unknown 1: master 2: standby 3: slave)"));
    EXPECT_FALSE(LogHas(PLAT_LOG_ANY, "[PPLUS-HA] Run ydbc failed."));
}

TEST_F(HaTest, StartWorkPromoteAndDemoteMoveTheRoleOfAMainBoard)
{
    UseBoard(1, 1, DEVM_BOARD_TYPE_MPU);
    g_pplusHaRole = PPPOE_PLUS_HA_ROLE_UNKNOWN;
    EXPECT_EQ(Delivered(device::ha::StartWork(2)), 0U);
    EXPECT_EQ(DrainMainQueue(), 1);
    EXPECT_EQ(PPPOE_PLUS_HaIsStandby(), 1U);
    EXPECT_EQ(Delivered(device::ha::Promote()), 0U);
    EXPECT_EQ(DrainMainQueue(), 1);
    EXPECT_EQ(PPPOE_PLUS_HaIsMaster(), 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPLUS-HA] UpgradeMaster get ha role, role=1."));
    EXPECT_EQ(Delivered(device::ha::Demote()), 0U);
    EXPECT_EQ(DrainMainQueue(), 1);
    EXPECT_EQ(PPPOE_PLUS_HaGetRole(), PPPOE_PLUS_HA_ROLE_STANDBY);
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPLUS-HA] UpgradeBackUp get ha role, role=2."));
    // Diagnostic lines flow only while master: the promotion's line was not sent, the demotion's was.
    EXPECT_FALSE(LogHas(PLAT_LOG_DIAG, "[PPLUS-HA] HaPromptPrimary get board role eventType:4, role:1."));
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPLUS-HA] HaPromtBackUp get board role eventType:7, role:2."));
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPLUS-HA] Set role 2. (0: unknown 1: master 2: standby 3: slave)"));
}

TEST_F(HaTest, NewBackupRecordsOrClearsTheStandbySlotAndAlwaysReports)
{
    EXPECT_EQ(Delivered(device::ha::NewBackup(2, 5)), 0U);
    EXPECT_EQ(PPPOE_PLUS_HaGetSmbInstId(), 37U);  // (2 - 1) * 32 + 5
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPLUS-HA] HaNewBackUp get uiChassisID:2, uiBoardID:5."));
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPLUS-HA] Set smb inst to get global slot success. glbSlot:37"));

    // A pair without a global slot keeps the old value and still reports.
    PLAT_FailSet("DEVM_DB_GetGlobalSlotIdByLocalSlotId", 0, 1, 3);
    EXPECT_EQ(Delivered(device::ha::NewBackup(1, 4)), 0U);
    EXPECT_EQ(PPPOE_PLUS_HaGetSmbInstId(), 37U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPLUS-HA] Set smb inst to get global slot failed."));

    EXPECT_EQ(Delivered(device::ha::NewBackup(0, 0)), 0U);
    EXPECT_EQ(PPPOE_PLUS_HaGetSmbInstId(), 0U);
    EXPECT_EQ(PLAT_CallCount("DEVM_DB_GetGlobalSlotIdByLocalSlotId"), 2U);  // 0/0 is not converted
    const auto reports = device::ha::SwitchoverReports();
    ASSERT_EQ(reports.size(), 3U);
    EXPECT_EQ(device::ha::Describe(reports[2]), "pppoe_plus state 1");

    // The report's failure is what the service is told.
    PLAT_FailSet("MOLB_HA_ReportSwitchoverState", 0, 1, 9);
    EXPECT_EQ(Delivered(device::ha::NewBackup(1, 6)), 9U);
    EXPECT_EQ(PPPOE_PLUS_HaGetSmbInstId(), 6U);
    EXPECT_EQ(Delivered(device::ha::BackupRemoved()), 0U);
    EXPECT_EQ(PPPOE_PLUS_HaGetSmbInstId(), 0U);
    EXPECT_EQ(DrainMainQueue(), 0);
}

TEST_F(HaTest, MasterChangeKeepsTheMasterAddressAndPromotesWhenItNamesThisBoard)
{
    UseBoard(3, 3, DEVM_BOARD_TYPE_MPU);
    g_pplusHaRole = PPPOE_PLUS_HA_ROLE_STANDBY;
    EXPECT_EQ(Delivered(device::ha::MasterChange(1, 3)), 0U);
    uint32_t chassis = 0, board = 0, ip = 0;
    ASSERT_EQ(PPPOE_PLUS_HaGetMMBInfo(&chassis, &board, &ip), 0U);
    EXPECT_EQ(std::tie(chassis, board, ip), std::make_tuple(1U, 3U, 0xAC100103U));  // 172.16.1.3
    EXPECT_EQ(PPPOE_PLUS_HaGetRole(), PPPOE_PLUS_HA_ROLE_MASTER);                   // set on the service's thread
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPLUS-HA] Ha notify new mmb(1/3), old mmb(0/0), masterIp(2886729987)."));

    EXPECT_EQ(Delivered(device::ha::MasterChange(2, 1)), 0U);
    EXPECT_EQ(PPPOE_PLUS_HaGetRole(), PPPOE_PLUS_HA_ROLE_MASTER);  // another board: the role stays
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPLUS-HA] Ha notify new mmb(2/1), old mmb(1/3), masterIp(2886730241)."));

    // Named on a line board: the role becomes unknown, logged although unchanged.
    UseBoard(3, 1, DEVM_BOARD_TYPE_LPU);
    g_pplusHaRole = PPPOE_PLUS_HA_ROLE_UNKNOWN;
    EXPECT_EQ(Delivered(device::ha::MasterChange(1, 3)), 0U);
    EXPECT_EQ(PPPOE_PLUS_HaGetRole(), PPPOE_PLUS_HA_ROLE_UNKNOWN);
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPLUS-HA] Set role 0. (0: unknown 1: master 2: standby 3: slave)"));
    EXPECT_EQ(PPPOE_PLUS_HaMMBChange(nullptr), 1U);
}

TEST_F(HaTest, LostAndBadMessagesOnTheMainQueue)
{
    const uint32_t base = PLAT_MemOutstanding();
    PLAT_FailSet("RUK_QueueAsyWrite", 0, 1, 4);
    EXPECT_EQ(PPPOE_PLUS_SendHAEventMsgToMain(4, 1), 0U);  // the service is not told
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPLUS-HA] Send ha event msg to main queue failed, ret=1."));
    EXPECT_EQ(PLAT_MemOutstanding(), base);
    PLAT_FailSet("RUK_MemAlloc_F", 0, 1, 1);
    EXPECT_EQ(PPPOE_PLUS_SendHAEventMsgToMain(4, 1), 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPLUS-HA] SendHAEventMsgToMain malloc failed."));
    EXPECT_EQ(DrainMainQueue(), 0);

    EXPECT_EQ(PPPOE_PLUS_SendHAEventMsgToMain(9, 1), 0U);
    EXPECT_EQ(DrainMainQueue(), 1);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPLUS-HA] Get ha event invalid, eventType=9."));
    EXPECT_EQ(PLAT_MemOutstanding(), base);  // the payload is freed after handling
    PPPOE_PLUS_HaMsgProc(nullptr);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPLUS-HA] HA event msg is null."));
}
