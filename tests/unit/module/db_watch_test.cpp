// The device database watch: the subscription connection and its retries,
// the board and interface subscriptions with every failing step, and the
// changes of the world that become "board-plug" and "if-chg" events on the
// bus, served the way the init task serves its epoll set. The whole path on
// the host (uplink off board and back, ACL at fwm) is in world_control_test.cpp.
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "mesh.h"
#include "module_fixture.hpp"
#include "platform/control.h"
#include "platform/world.hpp"
#include "pppoe_plus_cfg.h"
#include "pppoe_plus_db.h"
#include "pppoe_plus_evt.h"
#include "pppoe_plus_init.h"
#include "pppoe_plus_log.h"
#include "pppoe_plus_main.h"

using pplus_test::LogCount;
using pplus_test::LogHas;
using pplus_test::LogInOrder;

namespace {

using Record = std::array<uint32_t, 4>;
std::vector<Record> g_published;

uint32_t Collect(const void *record)
{
    const auto *w = static_cast<const uint32_t *>(record);
    g_published.push_back({w[0], w[1], w[2], w[3]});
    return 0;
}

// An epoll set and a main queue as start-up makes them, served by Pump on
// the test's thread instead of the init task; a bus subscriber collects
// every event.
class DbWatchTest : public pplus_test::ModuleTest {
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        ASSERT_EQ(PPPOE_PLUS_UpdateDebugSwitch(PPPOE_PLUS_DBG_ALL, 1), 0U);
        PPPOE_PLUS_InitGlobalCfgData();
        epfd_ = MESH_EpollCreate();
        ASSERT_GE(epfd_, 0);
        g_pppoePlusGlbEpollFd.store(epfd_);
        QueueHandle *queue = PPPOE_PLUS_CreateEpollQueue(epfd_, "pppoe_plus", 1024, PPPOE_PLUS_MainQueueProc);
        ASSERT_NE(queue, nullptr);
        g_pppoePlusRegQueHandle.store(queue);
        ASSERT_EQ(PPPOE_PLUS_EvtSubscribe(PPPOE_PLUS_EVT_BOARD_PLUG, "collect", 1, Collect), 0U);
        ASSERT_EQ(PPPOE_PLUS_EvtSubscribe(PPPOE_PLUS_EVT_IF_CHG, "collect", 1, Collect), 0U);
        g_published.clear();
    }

    // Runs the callbacks of ready descriptors until none is ready.
    void Pump()
    {
        MESH_EPOLL_EVENT_S events[5];
        for (int round = 0; round < 100; round++) {
            const int32_t ready = MESH_EpollWait(epfd_, events, 5, 0);
            if (ready <= 0) {
                return;
            }
            for (int32_t i = 0; i < ready; i++) {
                (void)events[i].callback(events[i].fd, events[i].events, events[i].arg);
            }
        }
        ADD_FAILURE() << "the epoll set never went quiet";
    }

    void ConnectAndSubscribe()
    {
        PPPOE_PLUS_CreateDBSubConn();
        ASSERT_NE(PPPOE_PLUS_GetDbSubConn(), nullptr);
        ASSERT_EQ(PPPOE_PLUS_DbSubFuncInit(), 0U);
    }

    int32_t epfd_ = -1;
};

}  // namespace

TEST_F(DbWatchTest, InterfaceAndBoardChangesBecomeBusEvents)
{
    platform::world::IfPut({.name = "GE0/0/5", .ifIndex = 5});
    platform::world::IfPut({.name = "GE0/0/60", .ifIndex = 60, .portSwitch = platform::kPortSwitchL3});
    (void)PPPOE_PLUS_SetEnable(1);
    ConnectAndSubscribe();
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPOE_PLUS_DB] Create sub connection ok"));
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPOE_PLUS_DB] Subscribe devm reg status with conn ok."));
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPOE_PLUS_DB] Subscribe if event with conn ok."));

    platform::world::IfSetOnBoard(5, false);
    platform::world::IfSetOnBoard(5, true);
    platform::world::IfSetOnBoard(60, false);  // a routed port is not followed
    platform::world::IfPut({.name = "GE0/0/5", .ifIndex = 5, .description = "uplink"});  // on_board unchanged
    platform::world::IfPut({.name = "GE0/0/7", .ifIndex = 7});                           // a new port on board
    platform::world::BoardPut({1, 3, platform::kBoardRegistered});                       // a board registers
    platform::world::BoardPut({1, 3, platform::kBoardUnregistered});                     // and leaves
    platform::world::BoardPut({1, 4, std::nullopt});                // no state reported: 0, nothing
    platform::world::BoardPut({1, 4, platform::kBoardRegistered});  // the missing old state reads 0
    platform::world::BoardPut({1, 4, platform::kBoardRegistered});  // same state again: nothing
    Pump();

    const std::vector<Record> expected = {
        {PPPOE_PLUS_EVT_IF_CHG, 5, PPPOE_PLUS_IF_EVT_OFF_BOARD, 0},
        {PPPOE_PLUS_EVT_IF_CHG, 5, PPPOE_PLUS_IF_EVT_ON_BOARD, 0},
        {PPPOE_PLUS_EVT_IF_CHG, 7, PPPOE_PLUS_IF_EVT_ON_BOARD, 0},
        {PPPOE_PLUS_EVT_BOARD_PLUG, 1, 3, 0},
        {PPPOE_PLUS_EVT_BOARD_PLUG, 1, 3, 1},
        {PPPOE_PLUS_EVT_BOARD_PLUG, 1, 4, 0},
    };
    EXPECT_EQ(g_published, expected);
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPPOE_PLUS_DB] If event notify: ifIndex:5, stateChg:1->0."));
    EXPECT_TRUE(
        LogHas(PLAT_LOG_DEBUG, "[PPPOE_PLUS_DB] Sub devm register status callback.cssId:1, slotId:3, regState:1->0"));
    EXPECT_TRUE(
        LogHas(PLAT_LOG_DEBUG, "[PPPOE_PLUS_DB] Sub devm register status callback.cssId:1, slotId:4, regState:0->1"));

    // With the feature off nothing is followed at all.
    (void)PPPOE_PLUS_SetEnable(0);
    g_published.clear();
    PLAT_LogClear();
    platform::world::IfSetOnBoard(5, false);
    platform::world::BoardPut({1, 3, platform::kBoardRegistered});
    Pump();
    EXPECT_TRUE(g_published.empty());
    EXPECT_FALSE(LogHas(PLAT_LOG_DEBUG, "[PPPOE_PLUS_DB]"));

    // Closed: the descriptor leaves the epoll set and changes reach no one.
    (void)PPPOE_PLUS_SetEnable(1);
    EXPECT_EQ(PPPOE_PLUS_DestroyDbSubConn(), 0U);
    EXPECT_EQ(PPPOE_PLUS_GetDbSubConn(), nullptr);
    EXPECT_EQ(PPPOE_PLUS_DestroyDbSubConn(), 0U);
    platform::world::IfSetOnBoard(5, true);
    Pump();
    EXPECT_TRUE(g_published.empty());
}

TEST_F(DbWatchTest, SixFailedConnectionsLeaveNoConnectionAndBothSubscriptionsFail)
{
    // Delays run at 1/1000: the six three-second waits take 18 ms.
    PLAT_FailSet("db_create_sub_connect", 0, PLAT_FAIL_FOREVER, 0x3006);
    const auto start = std::chrono::steady_clock::now();
    PPPOE_PLUS_CreateDBSubConn();
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(18));
    EXPECT_LT(took, std::chrono::seconds(5));
    EXPECT_EQ(PLAT_CallCount("db_create_sub_connect"), 6U);
    EXPECT_EQ(PPPOE_PLUS_GetDbSubConn(), nullptr);
    EXPECT_NE(LogInOrder(PLAT_LOG_DIAG, {"[PPPOE_PLUS_DB] Sub connection is not established, ret:12294, retryCnt:0.",
                                         "[PPPOE_PLUS_DB] Sub connection is not established, ret:12294, retryCnt:5.",
                                         "[PPPOE_PLUS_DB] Create sub connection failed, ret:12294."}),
              0U);
    EXPECT_EQ(LogCount(PLAT_LOG_DIAG, "[PPPOE_PLUS_DB] Sub connection is not established"), 6U);

    EXPECT_NE(PPPOE_PLUS_DbSubFuncInit(), 0U);
    EXPECT_EQ(PPPOE_PLUS_InitDbSubDevmRegStatus(), 1U);
    EXPECT_EQ(PPPOE_PLUS_InitDbIfRegEvt(), 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPOE_PLUS_DB] Failed to subscribe devm reg status."));
    EXPECT_EQ(PLAT_CallCount("db_create_devm_obj") + PLAT_CallCount("db_create_if_obj"), 0U);
    EXPECT_EQ(PPPOE_PLUS_DestroyDbSubConn(), 0U);  // nothing to close

    // Two failures, then a connection: the retries stop there.
    PLAT_FailSet("db_create_sub_connect", 0, 2, 0x3006);
    PLAT_LogClear();
    PPPOE_PLUS_CreateDBSubConn();
    EXPECT_NE(PPPOE_PLUS_GetDbSubConn(), nullptr);
    EXPECT_EQ(LogCount(PLAT_LOG_DIAG, "[PPPOE_PLUS_DB] Sub connection is not established"), 2U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPOE_PLUS_DB] Create sub connection ok"));
}

TEST_F(DbWatchTest, EachFailingSubscriptionStepIsLoggedAndTheObjectReleased)
{
    PPPOE_PLUS_CreateDBSubConn();
    ASSERT_NE(PPPOE_PLUS_GetDbSubConn(), nullptr);
    struct Row {
        bool devm;
        const char *op;
        const char *text;   // the line logged for the failing step
        uint32_t releases;  // object releases made (none when it was not created)
    };
    const Row rows[] = {
        {true, "db_create_devm_obj", "[PPPOE_PLUS_DB]Failed to create devm obj, ret = 119.", 0},
        {true, "db_sub_add_event", "[PPPOE_PLUS_DB]Failed to add event for subscribing devm obj, ret = 119.", 1},
        {true, "db_sub_add_field", "[PPPOE_PLUS_DB]Failed to add Register_status field, ret = 119.", 1},
        {true, "db_sub_add_push_op", "[PPPOE_PLUS_DB]Failed to add push op for subscribing devm obj, ret = 119.", 1},
        {true, "db_sub_reg_callback", "[PPPOE_PLUS_DB]Failed to set callback for subscribing devm obj, ret = 119.", 1},
        {true, "db_sub_with_conn", "[PPPOE_PLUS_DB]Failed to subscribe devm reg status with conn, ret = 119.", 1},
        {false, "db_create_if_obj", "[PPPOE_PLUS_DB]Failed to create if obj, ret = 119.", 0},
        {false, "db_sub_add_event", "[PPPOE_PLUS_DB]Failed to subscribe if event, ret = 119.", 1},
        {false, "db_sub_add_field", "[PPPOE_PLUS_DB]Failed to add if on_board field, ret = 119.", 1},
        {false, "db_sub_add_push_op", "[PPPOE_PLUS_DB]Failed to add push op for subscribing if obj, ret = 119.", 1},
        {false, "db_sub_reg_callback", "[PPPOE_PLUS_DB]Failed to set callback for subscribing if obj, ret = 119.", 1},
        {false, "db_sub_with_conn", "[PPPOE_PLUS_DB]Failed to subscribe if event with conn., ret = 119.", 1},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.op);
        PLAT_LogClear();
        PLAT_CallCountReset();
        PLAT_FailSet(row.op, 0, 1, 119);
        EXPECT_EQ(row.devm ? PPPOE_PLUS_InitDbSubDevmRegStatus() : PPPOE_PLUS_InitDbIfRegEvt(), 1U);
        EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, row.text));
        EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, row.devm ? "[PPPOE_PLUS_DB] Failed to subscribe devm reg status."
                                                   : "[PPPOE_PLUS_DB] Failed to subscribe if event."));
        EXPECT_EQ(PLAT_CallCount(row.devm ? "db_release_devm_object" : "db_release_if_object"), row.releases);
    }

    // A subscription call that succeeds without a subscription fails the step.
    PLAT_LogClear();
    PLAT_FailSet("db_sub_with_conn", 0, 3, 0);
    EXPECT_EQ(PPPOE_PLUS_InitDbSubDevmRegStatus(), 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPOE_PLUS_DB] Failed to subscribe devm reg status event."));
    EXPECT_NE(PPPOE_PLUS_DbSubFuncInit(), 0U);  // the if one fails the same way: said once more
    EXPECT_EQ(LogCount(PLAT_LOG_DIAG, "[PPPOE_PLUS_DB] Failed to subscribe if event."), 3U);

    // A failed board subscription does not keep the interface one from being made.
    PLAT_LogClear();
    PLAT_FailSet("db_create_devm_obj", 0, 1, 119);
    EXPECT_EQ(PPPOE_PLUS_DbSubFuncInit(), 0U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPOE_PLUS_DB] Subscribe if event with conn ok."));
}

TEST_F(DbWatchTest, AFailedReadDropsTheOneChange)
{
    platform::world::IfPut({.name = "GE0/0/5", .ifIndex = 5});
    platform::world::BoardPut({1, 3, platform::kBoardRegistered});
    (void)PPPOE_PLUS_SetEnable(1);
    ConnectAndSubscribe();
    struct Row {
        bool board;
        const char *op;
        uint32_t skip;     // reads of the op that succeed first
        const char *text;  // diagnostic for a board, debug for an interface
    };
    const Row rows[] = {
        {true, "db_get_devm_Chassis_ID", 0, "[PPPOE_PLUS_DB] Failed to get devm chassis id. ret:7."},
        {true, "db_get_devm_Slot_ID", 0, "[PPPOE_PLUS_DB] Failed to get devm slot id. ret:7."},
        {true, "db_get_devm_Register_status", 0, "[PPPOE_PLUS_DB] Failed to get devm old register status. ret:7."},
        {true, "db_get_devm_Register_status", 1, "[PPPOE_PLUS_DB] Failed to get devm new register status. ret:7."},
        {false, "db_get_if_ifindex", 0, "[PPPOE_PLUS_DB] Get port ifIndex failed. ret:7."},
        {false, "db_get_if_port_switch", 0, "[PPPOE_PLUS_DB] Get port type failed. ifIndex:5, ret:7."},
        {false, "db_get_if_on_board", 0, "[PPPOE_PLUS_DB] Get old status of on_board failed. ifIndex:5, ret:7."},
        {false, "db_get_if_on_board", 1, "[PPPOE_PLUS_DB] Get new status of on_board failed. ifIndex:5, ret:7."},
    };
    bool onBoard = true;
    uint32_t state = platform::kBoardRegistered;
    for (const Row &row : rows) {
        SCOPED_TRACE(std::string(row.op) + " after " + std::to_string(row.skip));
        PLAT_LogClear();
        g_published.clear();
        PLAT_FailSet(row.op, row.skip, 1, 7);
        if (row.board) {
            state = state == platform::kBoardRegistered ? platform::kBoardUnregistered : platform::kBoardRegistered;
            platform::world::BoardPut({1, 3, state});
        } else {
            onBoard = !onBoard;
            platform::world::IfSetOnBoard(5, onBoard);
        }
        Pump();
        EXPECT_TRUE(LogHas(row.board ? PLAT_LOG_DIAG : PLAT_LOG_DEBUG, row.text));
        EXPECT_TRUE(g_published.empty());
        PLAT_FailClear(row.op);
    }

    // A failed handling is reported and the change comes with the next wake-up.
    PLAT_LogClear();
    PLAT_FailSet("db_handle_event", 0, 1, 9);
    platform::world::IfSetOnBoard(5, !onBoard);
    Pump();
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPOE_PLUS_DB] DB event handle error, fd:"));
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, ", ret:9."));
    EXPECT_EQ(g_published.size(), 1U);
}

TEST_F(DbWatchTest, EpollRefusalFailsTheConnectionAndClosingReportsEachStep)
{
    // An epoll set that does not exist refuses the descriptor: every try fails.
    g_pppoePlusGlbEpollFd.store(-1);
    PPPOE_PLUS_CreateDBSubConn();
    EXPECT_EQ(PPPOE_PLUS_GetDbSubConn(), nullptr);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPOE_PLUS_DB]Sub connection epollctrl error: epoll fd:-1, fd:"));
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, ", type:0, errno:9."));
    g_pppoePlusGlbEpollFd.store(epfd_);

    // A disconnect that fails keeps the handle.
    PPPOE_PLUS_CreateDBSubConn();
    ASSERT_NE(PPPOE_PLUS_GetDbSubConn(), nullptr);
    PLAT_FailSet("db_disconnect", 0, 1, 5);
    EXPECT_EQ(PPPOE_PLUS_DestroyDbSubConn(), 1U);
    EXPECT_NE(PPPOE_PLUS_GetDbSubConn(), nullptr);
    EXPECT_EQ(PPPOE_PLUS_MainExit(), 0U);  // the exit path closes it
    EXPECT_EQ(PPPOE_PLUS_GetDbSubConn(), nullptr);
    EXPECT_TRUE(LogHas(PLAT_LOG_SYSLOG, "[PPPoE_PLUS] Main exit"));

    // Each failing step of closing and what it logs.
    const std::pair<const char *, const char *> rows[] = {
        {"db_set_current_server_locator",
         "[PPPOE_PLUS_DB] Close DB connection pool set server locator failed, ret:33."},
        {"db_set_current_user_name", "[PPPOE_PLUS_DB] Close DB connection pool set user name failed, ret:33."},
        {"db_close_connection_pool", "[PPPOE_PLUS_DB] DB close connection sync pool failed, ret:33."},
    };
    for (const auto &[op, text] : rows) {
        PLAT_FailSet(op, 0, 1, 33);
        EXPECT_EQ(PPPOE_PLUS_DbCloseConnectionPool(), 33U) << op;
        EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, text)) << op;
    }
    EXPECT_EQ(PPPOE_PLUS_DbCloseConnectionPool(), 0U);
}
