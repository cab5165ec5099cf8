/* Session library: clients connect to services of the mesh by URI
 * ("talvo_mesh://..."), servers bind such URIs. Every connection delivers
 * its events (request completions, peer quit) on the task that serves the
 * epoll set named in its connection attributes. Every call returns 0 on
 * success and a TIRN_ERR_* code otherwise. Handles are non-zero numbers; 0
 * means none. */
#ifndef PLATFORM_TIRN_H
#define PLATFORM_TIRN_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define TIRN_OK 0U
#define TIRN_ERR_PARAM 0x5001U        /* null, malformed or out-of-range argument */
#define TIRN_ERR_NOT_INIT 0x5002U     /* TIRN_ClientModuleInit not called */
#define TIRN_ERR_NO_PEER 0x5003U      /* nothing serves the URI */
#define TIRN_ERR_NO_HANDLE 0x5004U    /* unknown connection, client or server */
#define TIRN_ERR_ADDR_IN_USE 0x5005U  /* the URI is bound already */
#define TIRN_ERR_NOT_BOUND 0x5006U    /* no server is bound to the URI */
#define TIRN_ERR_RESOURCE 0x5007U     /* descriptor or epoll registration failed */

typedef uint64_t TIRN_CONN_HANDLE;
typedef uint64_t TIRN_CLIENT_HANDLE;
typedef uint64_t TIRN_SERVER_HANDLE;

typedef struct TIRN_CLIENT_MODULE_CONFIG {
    uint32_t maxConnections;   /* 0: no limit */
    uint32_t reserved[7];
} TIRN_CLIENT_MODULE_CONFIG_S;

typedef struct TIRN_CONN_ATTR {
    int32_t epollFd;           /* mesh epoll set that dispatches the connection's events; -1 none */
    uint32_t reserved[7];
} TIRN_CONN_ATTR_S;

/* Keepalive: idle seconds before probing, seconds between probes, probes
 * lost before the peer counts as gone, flags. */
typedef struct TIRN_KEEPALIVE_ATTR {
    uint32_t idleSec;
    uint32_t intervalSec;
    uint32_t probes;
    uint32_t flags;
} TIRN_KEEPALIVE_ATTR_S;
#define TIRN_KEEPALIVE_MODE_OFF 0U
#define TIRN_KEEPALIVE_MODE_ON 1U

#define TIRN_SVR_ATTR_MAX 16U
#define TIRN_SVR_ATTR_AUTH 12U     /* 4 bytes: 1 = peers are authorised by selector role */
typedef struct TIRN_SVR_ATTR {
    uint32_t value[TIRN_SVR_ATTR_MAX];
    uint32_t isSet;            /* bit n: attribute n was set */
} TIRN_SVR_ATTR_S;

/* Peer-quit notification kinds. */
#define TIRN_PEER_QUIT_KIND_MAX 8U
#define TIRN_PEER_QUIT_CLIENT_CONN 4U   /* the service a client connection reaches went away */
typedef void (*TIRN_PEER_QUIT_FN)(TIRN_CONN_HANDLE conn);

uint32_t TIRN_InitClientModuleConfig(TIRN_CLIENT_MODULE_CONFIG_S *config);
uint32_t TIRN_ClientModuleInit(const TIRN_CLIENT_MODULE_CONFIG_S *config);
uint32_t TIRN_InitConnectionAttr(TIRN_CONN_ATTR_S *attr);
uint32_t TIRN_ConnectionAttrSetEpollFd(int32_t epollFd, TIRN_CONN_ATTR_S *attr);
/* Connects to the service bound to uri; the attributes must name an epoll
 * set. */
uint32_t TIRN_Connect(const char *uri, const TIRN_CONN_ATTR_S *attr, TIRN_CONN_HANDLE *conn);
/* Drops the connection; completions not yet delivered are discarded. */
uint32_t TIRN_Disconnect(TIRN_CONN_HANDLE conn);
/* A named client over *conn; IDL calls travel over the newest client whose
 * connection is up. flags must be 0. */
uint32_t TIRN_CreateClient(const char *name, const TIRN_CONN_HANDLE *conn, uint32_t flags,
                           TIRN_CLIENT_HANDLE *client);
uint32_t TIRN_DestroyClient(TIRN_CLIENT_HANDLE client);
uint32_t TIRN_SetConnKeepAliveAttr(TIRN_CONN_HANDLE conn, uint32_t mode, const TIRN_KEEPALIVE_ATTR_S *attr);
/* kind < TIRN_PEER_QUIT_KIND_MAX; the function runs on the connection's task. */
uint32_t TIRN_RegisterPeerQuitNotifyFunc(uint32_t kind, TIRN_PEER_QUIT_FN fn);

uint32_t TIRN_InitSvrAttr(TIRN_SVR_ATTR_S *attr);
/* Sets attribute id (< TIRN_SVR_ATTR_MAX) from len (1..4) bytes at value. */
uint32_t TIRN_SetSvrAttr(TIRN_SVR_ATTR_S *attr, uint32_t id, const void *value, uint32_t len);
uint32_t TIRN_CreateServer(const char *serviceName, const TIRN_SVR_ATTR_S *attr, TIRN_SERVER_HANDLE *server);
uint32_t TIRN_ServerBind(TIRN_SERVER_HANDLE server, const char *uri);
uint32_t TIRN_SetServerKeepAliveAttr(TIRN_SERVER_HANDLE server, uint32_t mode, const TIRN_KEEPALIVE_ATTR_S *attr);
/* The server bound to uri dispatches its events on epollFd. */
uint32_t TIRN_RegisterEpollFd(const char *uri, int32_t epollFd);
/* Unbinds and forgets the server. */
uint32_t TIRN_DestroyServer(TIRN_SERVER_HANDLE server);

#ifdef __cplusplus
}
#endif
#endif
