/* IDL messages and the asynchronous client stubs of the forwarding
 * manager's PPPoE+ interface. A stub sends its request over the newest
 * session client whose connection is up (tirn.h) and returns at once; the
 * completion callback runs later on the task serving that connection's
 * epoll set, with the answer's status and a copy of the request. */
#ifndef PLATFORM_RPC_H
#define PLATFORM_RPC_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define RPC_OK 0U
#define RPC_ERR_PARAM 0x7001U          /* null argument, message not from RPC_IdlMsgCreate or too short */
#define RPC_ERR_NOT_CONNECTED 0x7002U  /* no client with a live session to the service */
#define RPC_ERR_NO_SERVICE 0x7003U     /* the peer does not serve this interface */

/* Creates a zeroed message of size bytes for IDL message id msgId; owner
 * names the caller. Null on failure. */
void *RPC_IdlMsgCreate(uint32_t size, uint32_t msgId, const char *owner);
uint32_t RPC_IdlMsgDestroy(void *msg, uint32_t msgId, const char *owner);

/* Invocation attributes of an asynchronous call. */
typedef struct RPC_INVOKE_ATTR {
    uint32_t flags;
    uint32_t priority;
    uint32_t timeoutSec;
    uint32_t reserved[5];
} RPC_INVOKE_ATTR_S;

typedef void (*RPC_ASYNC_CALLBACK_FN)(uint32_t status, const void *request);

/* Requests of the PPPoE+ interface, each field a u32. */
typedef struct PPPOE_PLUS_GLOBAL_CFG_REQ {
    uint32_t enable;
} PPPOE_PLUS_GLOBAL_CFG_REQ_S;
typedef struct PPPOE_PLUS_IGNORE_REPLY_CFG_REQ {
    uint32_t enable;
} PPPOE_PLUS_IGNORE_REPLY_CFG_REQ_S;
typedef struct PPPOE_PLUS_TRUST_PORT_CFG_REQ {
    uint32_t enable;
    uint32_t ifIndex;
} PPPOE_PLUS_TRUST_PORT_CFG_REQ_S;

uint32_t PPPOE_PLUS_GlobalCfg_async(void *msg, RPC_ASYNC_CALLBACK_FN callback, void *context,
                                    const RPC_INVOKE_ATTR_S *attr);
uint32_t PPPOE_PLUS_IgnoreReplyCfg_async(void *msg, RPC_ASYNC_CALLBACK_FN callback, void *context,
                                         const RPC_INVOKE_ATTR_S *attr);
uint32_t PPPOE_PLUS_TrustPortCfg_async(void *msg, RPC_ASYNC_CALLBACK_FN callback, void *context,
                                       const RPC_INVOKE_ATTR_S *attr);

#ifdef __cplusplus
}
#endif
#endif
