// The session library, the PPPoE+ IDL stubs and the forwarding manager:
// requests reach fwm and change its state, the peer's quit is delivered on
// the task serving the connection's epoll set.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "ddm.h"
#include "device/fwm.hpp"
#include "devm.h"
#include "mesh.h"
#include "platform/control.h"
#include "platform/tirn.hpp"
#include "pplus_test.hpp"
#include "rpc.h"
#include "ruk.h"
#include "tirn.h"

using pplus_test::WaitFor;

namespace {

constexpr uint32_t kMsgId = 888;

pid_t Tid()
{
    return static_cast<pid_t>(syscall(SYS_gettid));
}

// A task serving one mesh epoll set the way the module's session tasks do.
class EpollServer {
public:
    EpollServer() : epfd_(MESH_EpollCreate())
    {
        thread_ = std::thread([this]() {
            tid_.store(Tid());
            MESH_EPOLL_EVENT_S events[32];
            while (!stop_.load()) {
                const int32_t n = MESH_EpollWait(epfd_, events, 32, 20);
                for (int32_t i = 0; i < n; i++) {
                    events[i].callback(events[i].fd, events[i].events, events[i].arg);
                }
            }
        });
    }
    ~EpollServer()
    {
        stop_.store(true);
        thread_.join();
        close(epfd_);
    }
    int32_t fd() const { return epfd_; }
    pid_t tid() const { return tid_.load(); }

private:
    int32_t epfd_;
    std::atomic<bool> stop_{false};
    std::atomic<pid_t> tid_{0};
    std::thread thread_;
};

std::atomic<size_t> g_done{0};
std::atomic<TIRN_CONN_HANDLE> g_quitConn{0};
std::atomic<pid_t> g_quitTid{0};

// Counts completions of either request.
void OnDone(uint32_t, const void *)
{
    g_done++;
}

void OnQuit(TIRN_CONN_HANDLE conn)
{
    g_quitConn.store(conn);
    g_quitTid.store(Tid());
}

// Connection attributes naming the server's epoll set (none when null),
// the client module initialised.
TIRN_CONN_ATTR_S Attr(const EpollServer *server)
{
    TIRN_CLIENT_MODULE_CONFIG_S cfg;
    TIRN_CONN_ATTR_S attr;
    EXPECT_EQ(TIRN_InitClientModuleConfig(&cfg), TIRN_OK);
    EXPECT_EQ(TIRN_ClientModuleInit(&cfg), TIRN_OK);
    EXPECT_EQ(TIRN_InitConnectionAttr(&attr), TIRN_OK);
    if (server != nullptr) {
        EXPECT_EQ(TIRN_ConnectionAttrSetEpollFd(server->fd(), &attr), TIRN_OK);
    }
    return attr;
}

// Connects a client "PPPOE_PLUS" to fwm over the server's epoll set.
TIRN_CONN_HANDLE Connect(const EpollServer &server, TIRN_CLIENT_HANDLE *client)
{
    TIRN_CONN_ATTR_S attr = Attr(&server);
    TIRN_CONN_HANDLE conn = 0;
    EXPECT_EQ(TIRN_Connect(device::fwm::kUri, &attr, &conn), TIRN_OK);
    EXPECT_EQ(TIRN_CreateClient("PPPOE_PLUS", &conn, 0, client), TIRN_OK);
    return conn;
}

uint32_t SendGlobal(uint32_t enable)
{
    auto *msg = static_cast<PPPOE_PLUS_GLOBAL_CFG_REQ_S *>(RPC_IdlMsgCreate(4, kMsgId, "test"));
    msg->enable = enable;
    RPC_INVOKE_ATTR_S attr = {};
    const uint32_t ret = PPPOE_PLUS_GlobalCfg_async(msg, OnDone, nullptr, &attr);
    EXPECT_EQ(RPC_IdlMsgDestroy(msg, kMsgId, "test"), RPC_OK);
    return ret;
}

uint32_t SendTrust(uint32_t enable, uint32_t ifIndex)
{
    auto *msg = static_cast<PPPOE_PLUS_TRUST_PORT_CFG_REQ_S *>(RPC_IdlMsgCreate(8, kMsgId, "test"));
    *msg = {enable, ifIndex};
    RPC_INVOKE_ATTR_S attr = {};
    const uint32_t ret = PPPOE_PLUS_TrustPortCfg_async(msg, OnDone, nullptr, &attr);
    EXPECT_EQ(RPC_IdlMsgDestroy(msg, kMsgId, "test"), RPC_OK);
    return ret;
}

}  // namespace

TEST(TirnFwm, RequestsChangeFwmStateAndEndWithTheConnection)
{
    EpollServer server;
    // Nothing serves the URI yet, and no client exists.
    TIRN_CONN_ATTR_S attr;
    ASSERT_EQ(TIRN_InitConnectionAttr(&attr), TIRN_OK);
    ASSERT_EQ(TIRN_ConnectionAttrSetEpollFd(server.fd(), &attr), TIRN_OK);
    TIRN_CONN_HANDLE conn = 0;
    EXPECT_EQ(TIRN_Connect(device::fwm::kUri, &attr, &conn), TIRN_ERR_NOT_INIT);
    EXPECT_EQ(SendGlobal(1), RPC_ERR_NOT_CONNECTED);

    // The client's attachment reported to fwm's observer is the host's
    // (e2e Host.ReadinessWaits...: "[fwm] client PPPOE_PLUS attached").
    ASSERT_TRUE(device::fwm::Start());
    EXPECT_FALSE(device::fwm::Start());
    TIRN_CLIENT_HANDLE client = 0;
    conn = Connect(server, &client);
    ASSERT_NE(conn, 0U);

    EXPECT_EQ(SendGlobal(1), RPC_OK);
    EXPECT_EQ(SendTrust(1, 5), RPC_OK);
    EXPECT_EQ(SendTrust(1, 7), RPC_OK);
    EXPECT_EQ(SendTrust(0, 5), RPC_OK);
    // What each completion carries and the task it runs on are the ACL
    // suite's (acl_test.cpp), through these same stubs.
    // The request counts and their descriptions are the ACL suite's and the
    // host's; ignore-reply was never told: the agent's default.
    ASSERT_TRUE(WaitFor([]() { return g_done == 4; }));
    EXPECT_EQ(device::fwm::Describe(device::fwm::GetState()),
              "feature on, ignore-reply on, trusted ports 7, clients PPPOE_PLUS");
    EXPECT_EQ(platform::tirn::IdlMessagesOutstanding(), 0U);

    // A message the library did not make, or one already destroyed, is refused.
    PPPOE_PLUS_GLOBAL_CFG_REQ_S onStack = {1};
    RPC_INVOKE_ATTR_S invoke = {};
    EXPECT_EQ(PPPOE_PLUS_GlobalCfg_async(&onStack, OnDone, nullptr, &invoke), RPC_ERR_PARAM);
    void *small = RPC_IdlMsgCreate(4, kMsgId, "test");
    EXPECT_EQ(PPPOE_PLUS_TrustPortCfg_async(small, OnDone, nullptr, &invoke), RPC_ERR_PARAM);
    EXPECT_EQ(RPC_IdlMsgDestroy(small, kMsgId + 1, "test"), RPC_ERR_PARAM);
    EXPECT_EQ(RPC_IdlMsgDestroy(small, kMsgId, "test"), RPC_OK);
    EXPECT_EQ(RPC_IdlMsgDestroy(small, kMsgId, "test"), RPC_ERR_PARAM);

    // After a disconnect nothing is sent and the client has no session.
    EXPECT_EQ(TIRN_Disconnect(conn), TIRN_OK);
    EXPECT_EQ(TIRN_Disconnect(conn), TIRN_ERR_NO_HANDLE);
    EXPECT_EQ(SendGlobal(0), RPC_ERR_NOT_CONNECTED);
    EXPECT_EQ(TIRN_SetConnKeepAliveAttr(conn, 1, nullptr), TIRN_ERR_PARAM);
    TIRN_KEEPALIVE_ATTR_S keepalive = {10, 1, 5, 0};
    EXPECT_EQ(TIRN_SetConnKeepAliveAttr(conn, 1, &keepalive), TIRN_ERR_NO_HANDLE);
    EXPECT_EQ(TIRN_DestroyClient(client), TIRN_OK);
    EXPECT_EQ(platform::tirn::OpenConnections(), 0U);
    device::fwm::Stop();
}

TEST(TirnFwm, StoppingFwmNotifiesPeerQuitOnTheTaskAndRefusesRequests)
{
    EpollServer server;
    ASSERT_EQ(TIRN_RegisterPeerQuitNotifyFunc(TIRN_PEER_QUIT_KIND_MAX, OnQuit), TIRN_ERR_PARAM);
    ASSERT_EQ(TIRN_RegisterPeerQuitNotifyFunc(TIRN_PEER_QUIT_CLIENT_CONN, OnQuit), TIRN_OK);
    ASSERT_TRUE(device::fwm::Start());
    TIRN_CLIENT_HANDLE client = 0;
    (void)Connect(server, &client);
    EXPECT_EQ(g_quitConn.load(), 0U);

    // Which connection the quit names, and connecting again once fwm is
    // back, are the module's session suite's (tirn_test.cpp).
    device::fwm::Stop();
    ASSERT_TRUE(WaitFor([]() { return g_quitConn.load() != 0; }));
    EXPECT_EQ(g_quitTid.load(), server.tid());
    EXPECT_EQ(SendGlobal(1), RPC_ERR_NOT_CONNECTED);
    EXPECT_TRUE(device::fwm::GetState().clients.empty());
}

TEST(TirnFwm, InjectedFailuresLeaveNothingOpen)
{
    EpollServer server;
    ASSERT_TRUE(device::fwm::Start());
    TIRN_CONN_ATTR_S attr = Attr(nullptr);
    TIRN_CONN_HANDLE conn = 0;
    EXPECT_EQ(TIRN_Connect(device::fwm::kUri, &attr, &conn), TIRN_ERR_PARAM);  // no epoll set named
    attr.epollFd = server.fd();

    // The call's own injected failure is the shared prologue's (the core
    // test's failure forms); these are the resources it takes.
    PLAT_FailSet("eventfd_s", 0, 1, 24);
    EXPECT_EQ(TIRN_Connect(device::fwm::kUri, &attr, &conn), TIRN_ERR_RESOURCE);
    PLAT_FailSet("MESH_EpollCtl", 0, 1, 9);
    EXPECT_EQ(TIRN_Connect(device::fwm::kUri, &attr, &conn), TIRN_ERR_RESOURCE);
    EXPECT_EQ(platform::tirn::OpenConnections(), 0U);
    EXPECT_EQ(conn, 0U);
    // A failed client and message creation are the module's session and ACL
    // suites'; a stub's injected failure the agent datastore suite's (the
    // trust-port and ignore-reply stubs open as every stub does).
    device::fwm::Stop();
}

TEST(TirnServer, BindRegisterAndDestroy)
{
    TIRN_SVR_ATTR_S attr;
    ASSERT_EQ(TIRN_InitSvrAttr(&attr), TIRN_OK);
    const uint32_t one = 1;
    EXPECT_EQ(TIRN_SetSvrAttr(&attr, TIRN_SVR_ATTR_MAX, &one, 4), TIRN_ERR_PARAM);
    EXPECT_EQ(TIRN_SetSvrAttr(&attr, TIRN_SVR_ATTR_AUTH, &one, 5), TIRN_ERR_PARAM);
    ASSERT_EQ(TIRN_SetSvrAttr(&attr, TIRN_SVR_ATTR_AUTH, &one, 4), TIRN_OK);

    const char *uri = "talvo_mesh://ipv4:127.0.0.1:34584";
    TIRN_SERVER_HANDLE a = 0;
    TIRN_SERVER_HANDLE b = 0;
    ASSERT_EQ(TIRN_CreateServer("APP", &attr, &a), TIRN_OK);
    ASSERT_EQ(TIRN_CreateServer("OTHER", &attr, &b), TIRN_OK);
    EXPECT_EQ(TIRN_RegisterEpollFd(uri, 3), TIRN_ERR_NOT_BOUND);
    EXPECT_EQ(TIRN_ServerBind(a, "tcp://x"), TIRN_ERR_PARAM);
    ASSERT_EQ(TIRN_ServerBind(a, uri), TIRN_OK);
    EXPECT_EQ(TIRN_ServerBind(b, uri), TIRN_ERR_ADDR_IN_USE);
    EXPECT_EQ(TIRN_ServerBind(b, device::fwm::kUri), TIRN_OK);  // fwm not running: free
    EXPECT_FALSE(device::fwm::Start());                         // and now taken
    EXPECT_EQ(platform::tirn::BoundServerEpollFd(uri), -1);
    // What a registered server answers, and that a destroyed one frees its
    // address, are the module's session suite's (tirn_test.cpp).
    ASSERT_EQ(TIRN_RegisterEpollFd(uri, 3), TIRN_OK);
    TIRN_KEEPALIVE_ATTR_S keepalive = {10, 1, 5, 0};
    EXPECT_EQ(TIRN_SetServerKeepAliveAttr(a, 1, &keepalive), TIRN_OK);
    EXPECT_EQ(TIRN_SetServerKeepAliveAttr(a, 2, &keepalive), TIRN_ERR_PARAM);
    EXPECT_EQ(TIRN_DestroyServer(a), TIRN_OK);
    EXPECT_EQ(TIRN_DestroyServer(a), TIRN_ERR_NO_HANDLE);
    EXPECT_EQ(TIRN_DestroyServer(b), TIRN_OK);
    EXPECT_TRUE(device::fwm::Start());
    device::fwm::Stop();
}

TEST(TirnServer, SelectorRoleAndBoardAddress)
{
    pplus_test::UseReadyWorld();
    DDM_SELECTOR_ROLE_S role = {6, "pppoe_plus", "", 1, 0xFFFFFFFFU};
    EXPECT_EQ(DDM_AuthorizeSetSelectorRole(&role), DDM_ERR_PARAM);  // no role name
    EXPECT_EQ(DDM_AuthorizeSetSelectorRole(nullptr), DDM_ERR_PARAM);
    EXPECT_FALSE(platform::tirn::LastSelectorRole().has_value());

    // The role set and the board's own address (127.0.0.1 on the bound URI)
    // are the module's session suite's; these octets all differ.
    char text[16];
    EXPECT_EQ(RUK_IpAddrToStr(0xC0A80A0BU, text, sizeof(text)), RUK_OK);
    EXPECT_STREQ(text, "192.168.10.11");
    EXPECT_EQ(RUK_IpAddrToStr(0xC0A80A0BU, text, 8), RUK_ERR_PARAM);
    platform::world::SetDevmReady(false);
    uint32_t ip = 0;
    EXPECT_EQ(DEVM_GetSelfBoardIp(&ip), DEVM_ERR_NOT_READY);
}
