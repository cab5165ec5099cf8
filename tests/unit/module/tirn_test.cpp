// Sessions of the module: the orchestration client to fwm and the
// application server.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>

#include "device/fwm.hpp"
#include "module_fixture.hpp"
#include "platform/control.h"
#include "platform/tirn.hpp"
#include "pppoe_plus_db.h"
#include "pppoe_plus_tirn.h"

using pplus_test::LogHas;
using pplus_test::WaitFor;

namespace {

constexpr const char *kSrc = "app/src/common/src/pppoe_plus_tirn";
constexpr const char *kAppUri = "talvo_mesh://ipv4:127.0.0.1:34584";

void SetBoardType(uint32_t type)
{
    platform::SystemIdentity id = platform::world::Identity();
    id.boardType = type;
    platform::world::SetIdentity(id);
}

bool TaskExists(const char *name)
{
    PLAT_TASK_INFO_S info = {};
    return PLAT_TaskGetInfo(name, &info) == 0 && info.exists != 0;
}

uint8_t PeerQuit()
{
    PppoePlusTirnCtrl &ctrl = g_pppoeplusTirnCtrl;
    pthread_mutex_lock(&ctrl.mutex);
    const uint8_t flag = ctrl.peerQuit;
    pthread_mutex_unlock(&ctrl.mutex);
    return flag;
}

class TirnTest : public pplus_test::ModuleTest {};

}  // namespace

TEST_F(TirnTest, ConnectsToFwmOnceAndMarksOnlyItsOwnPeerQuit)
{
    ASSERT_TRUE(device::fwm::Start());
    ASSERT_EQ(PPPOE_PLUS_InitTirn(), 0U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPoE-Plus] Tirn WaitReady end."));
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPoE-Plus] TIRN_CreateClient connect to fwm success!!! ret=0"));
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPoE-Plus] TIRN create client success!!! ret=0"));
    EXPECT_EQ(device::fwm::GetState().clients, std::vector<std::string>{"PPPOE_PLUS"});
    EXPECT_TRUE(PLAT_TaskWaitUntilWaiting("PPPoE_Plus_OrchClient", "MESH_EpollWait", 5000) != 0);
    const TIRN_CONN_HANDLE conn = g_pppoeplusTirnCtrl.connection.load();
    ASSERT_NE(conn, 0U);
    EXPECT_NE(g_pppoeplusTirnCtrl.client.load(), 0U);
    EXPECT_EQ(g_pppoeplusTirnCtrl.ready.load(), 1U);
    EXPECT_EQ(PLAT_CallCount("TIRN_SetConnKeepAliveAttr"), 1U);
    EXPECT_FALSE(LogHas(PLAT_LOG_SYSLOG, "Client keepalive attr set ret"));

    // A connected record is left as it is.
    PPPOE_PLUS_TirnConnect("PPPOE_PLUS", &g_pppoeplusTirnCtrl, device::fwm::kUri);
    PPPOE_PLUS_ConnectFwmTirn();
    EXPECT_EQ(PLAT_CallCount("TIRN_Connect"), 1U);
    EXPECT_EQ(g_pppoeplusTirnCtrl.connection.load(), conn);
    EXPECT_EQ(platform::tirn::OpenConnections(), 1U);

    PPPOE_PLUS_TirnClientPeerQuitNotify(conn + 100);
    EXPECT_EQ(PeerQuit(), 0U);
    device::fwm::Stop();  // the library tells the session task
    ASSERT_TRUE(WaitFor([]() { return PeerQuit() == 1; }));
    EXPECT_EQ(g_pppoeplusTirnCtrl.connection.load(), conn);  // handles stay until destroyed

    PPPOE_PLUS_TirnDestroy(&g_pppoeplusTirnCtrl);
    EXPECT_EQ(g_pppoeplusTirnCtrl.connection.load(), 0U);
    EXPECT_EQ(g_pppoeplusTirnCtrl.client.load(), 0U);
    EXPECT_EQ(platform::tirn::OpenConnections(), 0U);
    ASSERT_TRUE(device::fwm::Start());
    PPPOE_PLUS_ConnectFwmTirn();
    EXPECT_NE(g_pppoeplusTirnCtrl.connection.load(), 0U);
    EXPECT_EQ(PLAT_AssertCount(), 0U);
}

TEST_F(TirnTest, ConnectAndClientFailuresLeaveTheRecordUnconnected)
{
    // fwm not running: the connect fails, InitTirn still succeeds.
    ASSERT_EQ(PPPOE_PLUS_InitTirn(), 0U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPoE-Plus]Failed to TIRN_CreateClient connect."));
    EXPECT_EQ(g_pppoeplusTirnCtrl.connection.load(), 0U);
    EXPECT_EQ(g_pppoeplusTirnCtrl.ready.load(), 0U);

    ASSERT_TRUE(device::fwm::Start());
    PLAT_FailSet("TIRN_CreateClient", 0, 1, 0x55);
    PPPOE_PLUS_ConnectFwmTirn();
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPoE-Plus] TIRN_CreateClient connect to fwm success!!! ret=0"));
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPoE-Plus]Failed to TIRN create client."));
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPoE-Plus] TIRN create client success!!! ret=85"));
    EXPECT_TRUE(LogHas(PLAT_LOG_SYSLOG, "<3> [PPPOE_PLUS] Client keepalive attr set ret 20484."));
    EXPECT_EQ(g_pppoeplusTirnCtrl.connection.load(), 0U);
    EXPECT_EQ(platform::tirn::OpenConnections(), 0U);
    EXPECT_EQ(g_pppoeplusTirnCtrl.ready.load(), 1U);
    EXPECT_TRUE(device::fwm::GetState().clients.empty());

    PLAT_FailSet("TIRN_SetConnKeepAliveAttr", 0, 1, 7);
    PPPOE_PLUS_ConnectFwmTirn();  // keepalive faults are only logged
    EXPECT_TRUE(LogHas(PLAT_LOG_SYSLOG, "[PPPOE_PLUS] Client keepalive attr set ret 7."));
    EXPECT_NE(g_pppoeplusTirnCtrl.connection.load(), 0U);
}

TEST_F(TirnTest, ClientSetupFaultsAssertAtTheirLines)
{
    PLAT_FailSet("MESH_EpollCreate", 0, 1, 24);
    EXPECT_EQ(PPPOE_PLUS_InitTirn(), 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_SYSLOG, "<3> [PPPOE_PLUS] Tirn client epoll id invalid."));
    EXPECT_TRUE(LogHas(PLAT_LOG_SYSLOG, "<3> [PPPOE_PLUS] Failed to create orch tirn client."));
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPoE-Plus]Failed to create orch tirn client."));
    EXPECT_TRUE(LogHas(PLAT_LOG_SYSLOG, "<3> [PPPOE_PLUS] Failed to init orch tirn."));
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPoE-Plus]Failed to init orch tirn."));
    EXPECT_EQ(PLAT_AssertCount(), 0U);

    // Each failing step and the line it asserts at.
    const std::pair<const char *, uint32_t> steps[] = {{"RUK_TaskCreate", 154},
                                                       {"TIRN_RegisterPeerQuitNotifyFunc", 160},
                                                       {"TIRN_InitClientModuleConfig", 167},
                                                       {"TIRN_ClientModuleInit", 173},
                                                       {"TIRN_InitConnectionAttr", 179},
                                                       {"TIRN_ConnectionAttrSetEpollFd", 185}};
    for (const auto &[op, line] : steps) {
        PLAT_FailSet(op, 0, 1, 0x33);
        EXPECT_NE(PPPOE_PLUS_CreateOrchTirnCilent(), 0U) << op;
        EXPECT_EQ(PLAT_AssertCountAt(kSrc, line), 1U) << op;
    }
    EXPECT_EQ(PLAT_AssertCount(), 6U);
    // The peer-quit registration returns the library's own code.
    PLAT_FailSet("TIRN_RegisterPeerQuitNotifyFunc", 0, 1, 0x44);
    EXPECT_EQ(PPPOE_PLUS_CreateOrchTirnCilent(), 0x44U);

    // A session task whose dead-loop registration fails asserts and serves on.
    PLAT_FailSet("ZAVK_RegDeadloopMon", 0, 1, 1);
    ASSERT_EQ(PPPOE_PLUS_CreateOrchTirnCilent(), 0U);
    ASSERT_TRUE(WaitFor([]() { return PLAT_AssertCountAt(kSrc, 99) == 1; }));
    EXPECT_TRUE(PLAT_TaskWaitUntilWaiting("PPPoE_Plus_OrchClient", "MESH_EpollWait", 5000) != 0);
}

TEST_F(TirnTest, AppServerOnTheMainBoardWithBothTasksAndItsRole)
{
    SetBoardType(1);
    ASSERT_EQ(PPPOE_PLUS_InitAppTirn(), 0U);
    EXPECT_TRUE(TaskExists("PPPoE_Plus_AppServer"));
    EXPECT_TRUE(TaskExists("PPPoE_Plus_AppClient"));
    EXPECT_TRUE(PLAT_TaskWaitUntilWaiting("PPPoE_Plus_AppClient", "MESH_EpollWait", 5000) != 0);
    EXPECT_TRUE(LogHas(PLAT_LOG_SYSLOG, "<6> [PPPOE_PLUS] Init app tirn task successfully."));
    EXPECT_TRUE(LogHas(PLAT_LOG_SYSLOG, "[PPPOE_PLUS] Bind server ip, talvo_mesh://ipv4:127.0.0.1:34584."));
    EXPECT_TRUE(LogHas(PLAT_LOG_SYSLOG, "<6> [PPPOE_PLUS] Create app tirn server successfully."));
    EXPECT_NE(g_pppoeplusAppTirnServer.load(), 0U);
    EXPECT_EQ(platform::tirn::BoundServerName(kAppUri), "PPPOEPLUS_APP_INTF");
    EXPECT_EQ(platform::tirn::BoundServerEpollFd(kAppUri), g_pppoeplusAppTirnServerEpollFd.load());
    const auto role = platform::tirn::LastSelectorRole();
    ASSERT_TRUE(role.has_value());
    EXPECT_EQ(std::make_tuple(role->boardType, std::string(role->serviceName), std::string(role->roleName),
                              role->enable, role->slotMask),
              std::make_tuple(1U, "pppoe_plus", "mpu", 1U, 0xFFFFFFFFU));
    EXPECT_EQ(PLAT_AssertCount(), 0U);
}

TEST_F(TirnTest, LineBoardRunsOnlyTheServerTaskAndBadBoardTypeStillServes)
{
    SetBoardType(2);
    ASSERT_EQ(PPPOE_PLUS_InitAppTirn(), 0U);
    EXPECT_TRUE(TaskExists("PPPoE_Plus_AppServer"));
    EXPECT_FALSE(TaskExists("PPPoE_Plus_AppClient"));
    EXPECT_FALSE(LogHas(PLAT_LOG_SYSLOG, "Init app tirn task successfully."));
    EXPECT_STREQ(platform::tirn::LastSelectorRole()->roleName, "lpu");

    // Board type 7: the role step fails, is logged, the server comes up anyway.
    ASSERT_EQ(TIRN_DestroyServer(g_pppoeplusAppTirnServer.load()), TIRN_OK);
    SetBoardType(7);
    EXPECT_EQ(PPPOE_PLUS_IsMpu(), 0U);
    TIRN_SERVER_HANDLE server = 0;
    ASSERT_EQ(PPPOE_PLUS_CreateAppTirnServer("PPPOEPLUS_APP_INTF", 34584, &server), 0U);
    EXPECT_TRUE(LogHas(PLAT_LOG_SYSLOG, "[PPPOE_PLUS] Tirn set role failed, ret 1."));
    EXPECT_TRUE(LogHas(PLAT_LOG_SYSLOG, "[PPPOE_PLUS] Tirn talvo auth failed, ret 1."));
    EXPECT_EQ(PLAT_CallCount("DDM_AuthorizeSetSelectorRole"), 1U);
    EXPECT_EQ(platform::tirn::BoundServerName(kAppUri), "PPPOEPLUS_APP_INTF");
    EXPECT_EQ(PLAT_AssertCount(), 0U);
}

TEST_F(TirnTest, AppServerFaultsAreLoggedAndUnwound)
{
    ASSERT_EQ(PPPOE_PLUS_InitAppTirnTask(), 0U);  // a box: both tasks
    EXPECT_TRUE(TaskExists("PPPoE_Plus_AppClient"));
    TIRN_SERVER_HANDLE server = 0;

    // Attribute fault: logged twice, no role is set, the server comes up.
    PLAT_FailSet("TIRN_SetSvrAttr", 0, 1, 0x21);
    ASSERT_EQ(PPPOE_PLUS_CreateAppTirnServer("PPPOEPLUS_APP_INTF", 1001, &server), 0U);
    EXPECT_TRUE(LogHas(PLAT_LOG_SYSLOG, "[PPPOE_PLUS] Tirn init svr attr failed, ret 33"));
    EXPECT_TRUE(LogHas(PLAT_LOG_SYSLOG, "[PPPOE_PLUS] Tirn talvo auth failed, ret 33."));
    EXPECT_EQ(PLAT_CallCount("DDM_AuthorizeSetSelectorRole"), 0U);
    EXPECT_EQ(platform::tirn::BoundServerName("talvo_mesh://ipv4:127.0.0.1:1001"), "PPPOEPLUS_APP_INTF");

    PLAT_FailSet("DEVM_GetSelfBoardIp", 0, 1, 0x2001);
    EXPECT_EQ(PPPOE_PLUS_CreateAppTirnServer("PPPOEPLUS_APP_INTF", 1002, &server), 0x2001U);
    EXPECT_TRUE(LogHas(PLAT_LOG_SYSLOG, "[PPPOE_PLUS] Init tirn server to get selfIp failed, ret 8193."));
    PLAT_FailSet("TIRN_CreateServer", 0, 1, 5);
    EXPECT_EQ(PPPOE_PLUS_CreateAppTirnServer("PPPOEPLUS_APP_INTF", 1003, &server), 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_SYSLOG, "[PPPOE_PLUS] Create server failed, ret 5."));

    // Each failing step, what it logs and the port it was to serve on.
    const std::tuple<const char *, const char *, uint32_t> steps[] = {
        {"TIRN_ServerBind", "[PPPOE_PLUS] Bind server failed, ret 6.", 1004},
        {"TIRN_SetServerKeepAliveAttr", "[PPPOE_PLUS] Set keepalive attr failed, ret 6.", 1005},
        {"TIRN_RegisterEpollFd", "[PPPOE_PLUS] Register epoll fd failed, ret 6.", 1006}};
    uint32_t destroyed = 0;
    for (const auto &[op, text, port] : steps) {
        PLAT_FailSet(op, 0, 1, 6);
        EXPECT_EQ(PPPOE_PLUS_CreateAppTirnServer("PPPOEPLUS_APP_INTF", port, &server), 1U) << op;
        EXPECT_TRUE(LogHas(PLAT_LOG_SYSLOG, text)) << op;
        EXPECT_EQ(PLAT_CallCount("TIRN_DestroyServer"), ++destroyed) << op;
        EXPECT_EQ(platform::tirn::BoundServerName("talvo_mesh://ipv4:127.0.0.1:" + std::to_string(port)), "");
    }

    // Task faults assert at their lines and fail the application side.
    PLAT_FailSet("RUK_TaskCreate", 1, 1, 3);  // the client task
    EXPECT_EQ(PPPOE_PLUS_InitAppTirn(), 1U);
    EXPECT_EQ(PLAT_AssertCountAt(kSrc, 299), 1U);
    EXPECT_EQ(PLAT_AssertCountAt(kSrc, 435), 1U);
    PLAT_FailSet("MESH_EpollCreate", 0, 1, 3);
    EXPECT_EQ(PPPOE_PLUS_InitAppTirnTask(), 1U);
    EXPECT_EQ(PLAT_AssertCountAt(kSrc, 275), 1U);
}
