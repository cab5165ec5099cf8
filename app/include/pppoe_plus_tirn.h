/* Sessions of the module: the orchestration client to the forwarding
 * manager (fwm), over which the ACL requests travel, and the application
 * server "PPPOEPLUS_APP_INTF" through which the module's instances on
 * different boards reach each other. */
#ifndef PPPOE_PLUS_TIRN_H
#define PPPOE_PLUS_TIRN_H

#include <pthread.h>
#include <stdint.h>

#include "tirn.h"

#define PPPOE_PLUS_FWM_TIRN_URI "talvo_mesh://peer:ipv4:127.0.0.1:%d"
#define PPPOE_PLUS_FWM_TIRN_PORT 39711
#define PPPOE_PLUS_APP_TIRN_URI "talvo_mesh://ipv4:%s:%u"
#define PPPOE_PLUS_APP_TIRN_PORT 34584U
#define PPPOE_PLUS_TIRN_CLIENT_NAME "PPPOE_PLUS"
#define PPPOE_PLUS_APP_TIRN_SERVICE "PPPOEPLUS_APP_INTF"
#define PPPOE_PLUS_TIRN_URI_LEN 128U
#define PPPOE_PLUS_TIRN_EPOLL_EVENTS 32
#define PPPOE_PLUS_TIRN_EPOLL_TIMEOUT_MS 10000

#ifdef __cplusplus
#include <atomic>
extern "C" {

/* The orchestration client. The handles are written on the init task and
 * read by the session task's peer-quit notification; the peer-quit flag is
 * guarded by the mutex, which exists once ready is 1. */
typedef struct PppoePlusTirnCtrl {
    std::atomic<int32_t> epollFd;
    std::atomic<TIRN_CLIENT_HANDLE> client;
    std::atomic<TIRN_CONN_HANDLE> connection;
    uint8_t peerQuit;
    std::atomic<uint8_t> ready;
    pthread_mutex_t mutex;
    TIRN_CLIENT_MODULE_CONFIG_S moduleCfg;
    TIRN_CONN_ATTR_S connAttr;
} PppoePlusTirnCtrl;

extern PppoePlusTirnCtrl g_pppoeplusTirnCtrl;
extern std::atomic<TIRN_SERVER_HANDLE> g_pppoeplusAppTirnServer;
extern std::atomic<int32_t> g_pppoeplusAppTirnServerEpollFd;
extern std::atomic<int32_t> g_pppoeplusAppTirnClientEpollFd;
#else
typedef struct PppoePlusTirnCtrl PppoePlusTirnCtrl;
#endif

uint32_t PPPOE_PLUS_InitTirn(void);
uint32_t PPPOE_PLUS_InitOrchTirn(void);
uint32_t PPPOE_PLUS_CreateOrchTirnCilent(void);
void PPPOE_PLUS_TirnConnect(const char *name, PppoePlusTirnCtrl *record, const char *uri);
void PPPOE_PLUS_ConnectFwmTirn(void);
void PPPOE_PLUS_TirnDestroy(PppoePlusTirnCtrl *record);
uint32_t PPPOE_PLUS_SetTirnClientKeepaliveAttr(TIRN_CONN_HANDLE connection);
/* Body of the session tasks; arg0 is the epoll descriptor they serve. */
uint32_t PPPOE_PLUS_TirnEpollTask(uintptr_t epollFd, uintptr_t arg1, uintptr_t arg2, uintptr_t arg3);
void PPPOE_PLUS_TirnClientPeerQuitNotify(TIRN_CONN_HANDLE connection);

uint32_t PPPOE_PLUS_InitAppTirn(void);
uint32_t PPPOE_PLUS_InitAppTirnTask(void);
uint32_t PPPOE_PLUS_CreateAppTirnServer(const char *serviceName, uint32_t port, TIRN_SERVER_HANDLE *server);
/* Initialises the server attributes and asks for peer authorisation
 * (attribute 12 = 1); *authValue receives the value set. */
uint32_t PPPOE_PLUS_TirnSetAttr(TIRN_SVR_ATTR_S *attr, uint32_t port, uint32_t *authValue);
uint32_t PPPOE_PLUS_TirnSetRole(void);
uint32_t PPPOE_PLUS_TirnTalvoAuth(TIRN_SVR_ATTR_S *attr, uint32_t port);
uint32_t PPPOE_PLUS_SetTirnServerKeepaliveAttr(TIRN_SERVER_HANDLE server);

#ifdef __cplusplus
}
#endif
#endif
