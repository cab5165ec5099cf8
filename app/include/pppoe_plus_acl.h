/* ACL requests to the forwarding manager: the feature switch, ignore-reply
 * and trusted ports, each an asynchronous call over the orchestration
 * session whose completion only logs the answer. */
#ifndef PPPOE_PLUS_ACL_H
#define PPPOE_PLUS_ACL_H

#include <stdint.h>

#include "rpc.h"

#define PPPOE_PLUS_IDL_MSG_ID 888U
#define PPPOE_PLUS_INVOKE_TIMEOUT 25U

#ifdef __cplusplus
extern "C" {
#endif

/* 0 when the request was sent, 1 when it could not be made or sent. */
uint32_t PPPOE_PLUS_GlobalAclProc(uint32_t enable);
uint32_t PPPOE_PLUS_IgnoreReplyAclProc(uint32_t enable);
uint32_t PPPOE_PLUS_TrustPortAclProc(uint32_t enable, uint32_t ifIndex);
/* An interface came on board (enable 1) or left (0): resends the trusted-
 * port request when the port is trusted; 0 when there is nothing to send. */
uint32_t PPPOE_PLUS_UpdateTrustPortAcl4PortChg(uint32_t ifIndex, uint32_t enable);

/* Completions, run on task "PPPoE_Plus_OrchClient". */
void PPPOE_PLUS_GlobalCfgCallBack(uint32_t status, const void *request);
void PPPOE_PLUS_IgnoreReplyCfgCallBack(uint32_t status, const void *request);
void PPPOE_PLUS_TrustPortCfgCallBack(uint32_t status, const void *request);

const RPC_INVOKE_ATTR_S *PPPOE_PLUS_GetInvokeAttr(void);

/* Short entry points to the three asynchronous stubs. */
uint32_t GlobalCfg(void *msg, RPC_ASYNC_CALLBACK_FN callback, void *context, const RPC_INVOKE_ATTR_S *attr);
uint32_t IgnoreReplyCfg(void *msg, RPC_ASYNC_CALLBACK_FN callback, void *context, const RPC_INVOKE_ATTR_S *attr);
uint32_t TrustPortCfg(void *msg, RPC_ASYNC_CALLBACK_FN callback, void *context, const RPC_INVOKE_ATTR_S *attr);

#ifdef __cplusplus
}
#endif
#endif
