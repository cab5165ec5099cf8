// Sessions of the module. The orchestration client connects to the
// forwarding manager on this board and carries the ACL requests; its task
// "PPPoE_Plus_OrchClient" runs the session library's callbacks (request
// completions, peer quit). The application server "PPPOEPLUS_APP_INTF" is
// bound to the board's own address and served by "PPPoE_Plus_AppServer";
// the main control board also runs "PPPoE_Plus_AppClient". Set-up faults
// are platform or programming faults and raise assertions.
#include "pppoe_plus_tirn.h"

#include <syslog.h>

#include "ddm.h"
#include "devm.h"
#include "mesh.h"
#include "plat_safe.h"
#include "pppoe_plus_db.h"
#include "pppoe_plus_init.h"
#include "pppoe_plus_log.h"
#include "pppoe_plus_patch.h"
#include "ruk.h"
#include "zavk.h"

namespace {

constexpr const char *kSrcFile = "app/src/common/src/pppoe_plus_tirn";
constexpr uint32_t kClientTaskPriority = 1;
constexpr uint32_t kKeepaliveMode = TIRN_KEEPALIVE_MODE_ON;
constexpr TIRN_KEEPALIVE_ATTR_S kKeepalive = {10, 1, 5, 0};
constexpr uint32_t kMaxBoardType = DEVM_BOARD_TYPE_BOX;
constexpr uint32_t kIpTextLen = 16;

// Role names by board type.
constexpr const char *kRoleNames[] = {"all", "mpu", "lpu", "sfu", "spu_ctl", "spu_fwd", "box"};

// Assert lines of this file's set-up steps.
enum : uint32_t {
    kLineOrchTask = 154,
    kLinePeerQuit = 160,
    kLineModuleCfg = 167,
    kLineModuleInit = 173,
    kLineConnAttr = 179,
    kLineConnEpoll = 185,
    kLineSvrEpoll = 275,
    kLineSvrTask = 283,
    kLineCliEpoll = 292,
    kLineCliTask = 299,
    kLineAppTask = 435,
};

void Assert(uint32_t line)
{
    ZAVK_Assert(kSrcFile, line);
}

uint32_t CreateSessionTask(const char *name, int32_t epollFd)
{
    uint32_t taskId = 0;
    return RUK_TaskCreate(name, &taskId, PPPOE_PLUS_TirnEpollTask, kClientTaskPriority, 0, 0,
                          static_cast<uintptr_t>(epollFd), 0, 0, 0);
}

// Fills the fwm URI; false when it does not fit.
bool FormatFwmUri(char (&uri)[PPPOE_PLUS_TIRN_URI_LEN])
{
    return sprintf_s(uri, sizeof(uri), PPPOE_PLUS_FWM_TIRN_URI, PPPOE_PLUS_FWM_TIRN_PORT) > 0;
}

// The authorisation half of the server set-up: attributes, then the role.
// Each failure is logged; the caller goes on without authorisation.
uint32_t Authorise(TIRN_SVR_ATTR_S *attr, uint32_t port)
{
    uint32_t authValue = 0;
    uint32_t ret = PPPOE_PLUS_TirnSetAttr(attr, port, &authValue);
    if (ret == 0) {
        ret = PPPOE_PLUS_TirnSetRole();
        if (ret != 0) {
            syslog(LOG_ERR, "[PPPOE_PLUS] Tirn set role failed, ret %u.", ret);
        }
    }
    if (ret != 0) {
        syslog(LOG_ERR, "[PPPOE_PLUS] Tirn talvo auth failed, ret %u.", ret);
    }
    return ret;
}

}  // namespace

extern "C" {

PppoePlusTirnCtrl g_pppoeplusTirnCtrl = {};
std::atomic<TIRN_SERVER_HANDLE> g_pppoeplusAppTirnServer{0};
std::atomic<int32_t> g_pppoeplusAppTirnServerEpollFd{-1};
std::atomic<int32_t> g_pppoeplusAppTirnClientEpollFd{-1};

uint32_t PPPOE_PLUS_InitTirn(void)
{
    (void)PPPOE_PLUS_WaitReady();
    PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG, "[PPPoE-Plus] Tirn WaitReady end.");
    const uint32_t ret = PPPOE_PLUS_InitOrchTirn();
    if (ret != 0) {
        syslog(LOG_ERR, "[PPPOE_PLUS] Failed to init orch tirn.");
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "[PPPoE-Plus]Failed to init orch tirn.");
    }
    return ret;
}

uint32_t PPPOE_PLUS_InitOrchTirn(void)
{
    if (PPPOE_PLUS_CreateOrchTirnCilent() != 0) {
        syslog(LOG_ERR, "[PPPOE_PLUS] Failed to create orch tirn client.");
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "[PPPoE-Plus]Failed to create orch tirn client.");
        return 1;
    }
    char uri[PPPOE_PLUS_TIRN_URI_LEN] = {};
    if (FormatFwmUri(uri)) {
        // A failed connect leaves the record unconnected; requests then fail at the library.
        PPPOE_PLUS_TirnConnect(PPPOE_PLUS_TIRN_CLIENT_NAME, &g_pppoeplusTirnCtrl, uri);
    }
    return 0;
}

uint32_t PPPOE_PLUS_CreateOrchTirnCilent(void)
{
    PppoePlusTirnCtrl &ctrl = g_pppoeplusTirnCtrl;
    const int32_t epollFd = MESH_EpollCreate();
    if (epollFd == -1) {
        syslog(LOG_ERR, "[PPPOE_PLUS] Tirn client epoll id invalid.");
        return 1;
    }
    ctrl.epollFd.store(epollFd);
    if (CreateSessionTask("PPPoE_Plus_OrchClient", epollFd) != RUK_OK) {
        Assert(kLineOrchTask);
        return 1;
    }
    uint32_t ret = TIRN_RegisterPeerQuitNotifyFunc(TIRN_PEER_QUIT_CLIENT_CONN, PPPOE_PLUS_TirnClientPeerQuitNotify);
    if (ret != TIRN_OK) {
        Assert(kLinePeerQuit);
        return ret;
    }
    if (TIRN_InitClientModuleConfig(&ctrl.moduleCfg) != TIRN_OK) {
        Assert(kLineModuleCfg);
        return 1;
    }
    if (TIRN_ClientModuleInit(&ctrl.moduleCfg) != TIRN_OK) {
        Assert(kLineModuleInit);
        return 1;
    }
    if (TIRN_InitConnectionAttr(&ctrl.connAttr) != TIRN_OK) {
        Assert(kLineConnAttr);
        return 1;
    }
    if (TIRN_ConnectionAttrSetEpollFd(epollFd, &ctrl.connAttr) != TIRN_OK) {
        Assert(kLineConnEpoll);
        return 1;
    }
    return 0;
}

void PPPOE_PLUS_TirnConnect(const char *name, PppoePlusTirnCtrl *record, const char *uri)
{
    if (record == nullptr || record->connection.load() != 0) {
        return;
    }
    TIRN_CONN_HANDLE connection = 0;
    uint32_t ret = TIRN_Connect(uri, &record->connAttr, &connection);
    if (ret != TIRN_OK) {
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "[PPPoE-Plus]Failed to TIRN_CreateClient connect.");
        return;
    }
    record->connection.store(connection);
    PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG, "[PPPoE-Plus] TIRN_CreateClient connect to fwm success!!! ret=%u",
                       ret);
    TIRN_CLIENT_HANDLE client = 0;
    ret = TIRN_CreateClient(name, &connection, 0, &client);
    if (ret != TIRN_OK) {
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "[PPPoE-Plus]Failed to TIRN create client.");
        PPPOE_PLUS_TirnDestroy(record);
    } else {
        record->client.store(client);
    }
    // Logged and followed by the keepalive whatever the outcome; after a
    // failure the keepalive is applied to the cleared connection and fails.
    PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG, "[PPPoE-Plus] TIRN create client success!!! ret=%u", ret);
    (void)PPPOE_PLUS_SetTirnClientKeepaliveAttr(record->connection.load());
    if (record->ready.load() == 0) {
        (void)pthread_mutex_init(&record->mutex, nullptr);
        record->ready.store(1);
    }
}

void PPPOE_PLUS_ConnectFwmTirn(void)
{
    char uri[PPPOE_PLUS_TIRN_URI_LEN] = {};
    if (FormatFwmUri(uri)) {
        PPPOE_PLUS_TirnConnect(PPPOE_PLUS_TIRN_CLIENT_NAME, &g_pppoeplusTirnCtrl, uri);
    }
}

void PPPOE_PLUS_TirnDestroy(PppoePlusTirnCtrl *record)
{
    if (record == nullptr) {
        return;
    }
    const TIRN_CLIENT_HANDLE client = record->client.exchange(0);
    if (client != 0) {
        (void)TIRN_DestroyClient(client);
    }
    const TIRN_CONN_HANDLE connection = record->connection.exchange(0);
    if (connection != 0) {
        (void)TIRN_Disconnect(connection);
    }
}

uint32_t PPPOE_PLUS_SetTirnClientKeepaliveAttr(TIRN_CONN_HANDLE connection)
{
    const uint32_t ret = TIRN_SetConnKeepAliveAttr(connection, kKeepaliveMode, &kKeepalive);
    if (ret != TIRN_OK) {
        syslog(LOG_ERR, "[PPPOE_PLUS] Client keepalive attr set ret %d.", static_cast<int32_t>(ret));
    }
    return ret;
}

uint32_t PPPOE_PLUS_TirnEpollTask(uintptr_t epollFd, uintptr_t, uintptr_t, uintptr_t)
{
    PPPOE_PLUS_InitDeadloopMon();
    const auto fd = static_cast<int32_t>(epollFd);
    MESH_EPOLL_EVENT_S events[PPPOE_PLUS_TIRN_EPOLL_EVENTS];
    for (;;) {
        const int32_t n = MESH_EpollWait(fd, events, PPPOE_PLUS_TIRN_EPOLL_EVENTS, PPPOE_PLUS_TIRN_EPOLL_TIMEOUT_MS);
        ZAVK_DmOpers(ZAVK_DM_BEGIN);
        for (int32_t i = 0; i < n; i++) {
            const MESH_EPOLL_EVENT_S &ev = events[i];
            if (ev.callback != nullptr) {
                (void)ev.callback(ev.fd, ev.events, ev.arg);
            }
        }
        ZAVK_DmOpers(ZAVK_DM_END);
    }
}

void PPPOE_PLUS_TirnClientPeerQuitNotify(TIRN_CONN_HANDLE connection)
{
    PppoePlusTirnCtrl &ctrl = g_pppoeplusTirnCtrl;
    if (ctrl.ready.load() == 0 || connection != ctrl.connection.load()) {
        return;
    }
    if (pthread_mutex_lock(&ctrl.mutex) != 0) {
        return;
    }
    ctrl.peerQuit = 1;
    (void)pthread_mutex_unlock(&ctrl.mutex);
}

uint32_t PPPOE_PLUS_InitAppTirn(void)
{
    if (PPPOE_PLUS_InitAppTirnTask() != 0) {
        Assert(kLineAppTask);
        return 1;
    }
    TIRN_SERVER_HANDLE server = 0;
    const uint32_t ret = PPPOE_PLUS_CreateAppTirnServer(PPPOE_PLUS_APP_TIRN_SERVICE, PPPOE_PLUS_APP_TIRN_PORT, &server);
    if (ret == 0) {
        g_pppoeplusAppTirnServer.store(server);
    }
    return ret;
}

uint32_t PPPOE_PLUS_InitAppTirnTask(void)
{
    const int32_t serverFd = MESH_EpollCreate();
    if (serverFd < 0) {
        Assert(kLineSvrEpoll);
        return 1;
    }
    g_pppoeplusAppTirnServerEpollFd.store(serverFd);
    if (CreateSessionTask("PPPoE_Plus_AppServer", serverFd) != RUK_OK) {
        Assert(kLineSvrTask);
        return 1;
    }
    if (PPPOE_PLUS_IsMpu() == 0) {
        return 0;
    }
    const int32_t clientFd = MESH_EpollCreate();
    if (clientFd < 0) {
        Assert(kLineCliEpoll);
        return 1;
    }
    g_pppoeplusAppTirnClientEpollFd.store(clientFd);
    if (CreateSessionTask("PPPoE_Plus_AppClient", clientFd) != RUK_OK) {
        Assert(kLineCliTask);
        return 1;
    }
    syslog(LOG_INFO, "[PPPOE_PLUS] Init app tirn task successfully.");
    return 0;
}

uint32_t PPPOE_PLUS_CreateAppTirnServer(const char *serviceName, uint32_t port, TIRN_SERVER_HANDLE *server)
{
    if (server == nullptr) {
        return 1;
    }
    TIRN_SVR_ATTR_S attr = {};
    (void)Authorise(&attr, port);

    uint32_t selfIp = 0;
    uint32_t ret = DEVM_GetSelfBoardIp(&selfIp);
    if (ret != DEVM_OK) {
        syslog(LOG_ERR, "[PPPOE_PLUS] Init tirn server to get selfIp failed, ret %u.", ret);
        return ret;
    }
    char ipText[kIpTextLen] = {};
    char uri[PPPOE_PLUS_TIRN_URI_LEN] = {};
    if (RUK_IpAddrToStr(selfIp, ipText, sizeof(ipText)) != RUK_OK ||
        sprintf_s(uri, sizeof(uri), PPPOE_PLUS_APP_TIRN_URI, ipText, port) <= 0) {
        return 1;
    }
    syslog(LOG_INFO, "[PPPOE_PLUS] Bind server ip, %s.", uri);

    TIRN_SERVER_HANDLE created = 0;
    ret = TIRN_CreateServer(serviceName, &attr, &created);
    if (ret != TIRN_OK) {
        syslog(LOG_ERR, "[PPPOE_PLUS] Create server failed, ret %u.", ret);
        return 1;
    }
    ret = TIRN_ServerBind(created, uri);
    if (ret != TIRN_OK) {
        syslog(LOG_ERR, "[PPPOE_PLUS] Bind server failed, ret %u.", ret);
    } else if ((ret = PPPOE_PLUS_SetTirnServerKeepaliveAttr(created)) != TIRN_OK) {
        syslog(LOG_ERR, "[PPPOE_PLUS] Set keepalive attr failed, ret %u.", ret);
    } else if ((ret = TIRN_RegisterEpollFd(uri, g_pppoeplusAppTirnServerEpollFd.load())) != TIRN_OK) {
        syslog(LOG_ERR, "[PPPOE_PLUS] Register epoll fd failed, ret %u.", ret);
    }
    if (ret != TIRN_OK) {
        (void)TIRN_DestroyServer(created);
        return 1;
    }
    syslog(LOG_INFO, "[PPPOE_PLUS] Create app tirn server successfully.");
    *server = created;
    return 0;
}

uint32_t PPPOE_PLUS_TirnSetAttr(TIRN_SVR_ATTR_S *attr, uint32_t, uint32_t *authValue)
{
    const uint32_t value = 1;
    uint32_t ret = TIRN_InitSvrAttr(attr);
    if (ret == TIRN_OK) {
        ret = TIRN_SetSvrAttr(attr, TIRN_SVR_ATTR_AUTH, &value, sizeof(value));
    }
    if (ret != TIRN_OK) {
        syslog(LOG_ERR, "[PPPOE_PLUS] Tirn init svr attr failed, ret %u", ret);
        return ret;
    }
    if (authValue != nullptr) {
        *authValue = value;
    }
    return 0;
}

uint32_t PPPOE_PLUS_TirnSetRole(void)
{
    DDM_SELECTOR_ROLE_S role = {};
    role.enable = 1;
    role.slotMask = 0xFFFFFFFFU;
    if (strcpy_s(role.serviceName, sizeof(role.serviceName), "pppoe_plus") != 0) {
        return 1;
    }
    uint32_t ret = DEVM_GetSelfBoardType(&role.boardType);
    if (ret != DEVM_OK) {
        return ret;
    }
    if (role.boardType > kMaxBoardType) {
        return 1;
    }
    if (strcpy_s(role.roleName, sizeof(role.roleName), kRoleNames[role.boardType]) != 0) {
        return 1;
    }
    return DDM_AuthorizeSetSelectorRole(&role);
}

uint32_t PPPOE_PLUS_TirnTalvoAuth(TIRN_SVR_ATTR_S *attr, uint32_t port)
{
    return Authorise(attr, port);
}

uint32_t PPPOE_PLUS_SetTirnServerKeepaliveAttr(TIRN_SERVER_HANDLE server)
{
    return TIRN_SetServerKeepAliveAttr(server, kKeepaliveMode, &kKeepalive);
}

}  // extern "C"
