// ACL requests to the forwarding manager. Each request is an IDL message
// sent asynchronously over the orchestration session; the message is
// destroyed as soon as the call returns (the library keeps what it needs)
// and the answer arrives later in a completion that only logs it.
#include "pppoe_plus_acl.h"

#include "pppoe_plus_cfg.h"
#include "pppoe_plus_log.h"

namespace {

// Invocation attributes of every request; only the third word is set.
RPC_INVOKE_ATTR_S g_pppoePlusBrkInvokeAttr = {0, 0, PPPOE_PLUS_INVOKE_TIMEOUT, {0, 0, 0, 0, 0}};

}  // namespace

extern "C" {

uint32_t PPPOE_PLUS_GlobalAclProc(uint32_t enable)
{
    static const char *const owner = "PPPOE_PLUS_GlobalAclProc";
    auto *msg = static_cast<PPPOE_PLUS_GLOBAL_CFG_REQ_S *>(
        RPC_IdlMsgCreate(sizeof(PPPOE_PLUS_GLOBAL_CFG_REQ_S), PPPOE_PLUS_IDL_MSG_ID, owner));
    if (msg == nullptr) {
        return 1;
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "Set global enable cfg. enable:%u", enable);
    msg->enable = enable;
    const uint32_t ret = PPPOE_PLUS_GlobalCfg_async(msg, PPPOE_PLUS_GlobalCfgCallBack, nullptr,
                                                    &g_pppoePlusBrkInvokeAttr);
    if (ret != 0) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "Set pppoe plus cfg to fwm failed. enable:%u ret:%u", msg->enable,
                             ret);
    } else {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "Set pppoe plus cfg to fwm success. enable:%u", msg->enable);
    }
    (void)RPC_IdlMsgDestroy(msg, PPPOE_PLUS_IDL_MSG_ID, owner);
    return ret != 0 ? 1U : 0U;
}

uint32_t PPPOE_PLUS_IgnoreReplyAclProc(uint32_t enable)
{
    static const char *const owner = "PPPOE_PLUS_IgnoreReplyAclProc";
    auto *msg = static_cast<PPPOE_PLUS_IGNORE_REPLY_CFG_REQ_S *>(
        RPC_IdlMsgCreate(sizeof(PPPOE_PLUS_IGNORE_REPLY_CFG_REQ_S), PPPOE_PLUS_IDL_MSG_ID, owner));
    if (msg == nullptr) {
        return 1;
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "Set ignore reply cfg. enable:%u", enable);
    msg->enable = enable;
    const uint32_t ret = PPPOE_PLUS_IgnoreReplyCfg_async(msg, PPPOE_PLUS_IgnoreReplyCfgCallBack, nullptr,
                                                         &g_pppoePlusBrkInvokeAttr);
    if (ret != 0) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "Set ignore reply to fwm failed. enable:%u ret:%u", msg->enable,
                             ret);
    } else {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "Set ignore reply to fwm success. enable:%u", msg->enable);
    }
    (void)RPC_IdlMsgDestroy(msg, PPPOE_PLUS_IDL_MSG_ID, owner);
    return ret != 0 ? 1U : 0U;
}

uint32_t PPPOE_PLUS_TrustPortAclProc(uint32_t enable, uint32_t ifIndex)
{
    static const char *const owner = "PPPOE_PLUS_TrustPortAclProc";
    auto *msg = static_cast<PPPOE_PLUS_TRUST_PORT_CFG_REQ_S *>(
        RPC_IdlMsgCreate(sizeof(PPPOE_PLUS_TRUST_PORT_CFG_REQ_S), PPPOE_PLUS_IDL_MSG_ID, owner));
    if (msg == nullptr) {
        return 1;
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "Set Trust port cfg. enable:%u ifIndex:%u", enable, ifIndex);
    msg->enable = enable;
    msg->ifIndex = ifIndex;
    const uint32_t ret = PPPOE_PLUS_TrustPortCfg_async(msg, PPPOE_PLUS_TrustPortCfgCallBack, nullptr,
                                                       &g_pppoePlusBrkInvokeAttr);
    if (ret != 0) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "Set trust port to fwm failed. enable:%u ifIndex = %u, ret:%u",
                             msg->enable, msg->ifIndex, ret);
    } else {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "Set trust port to fwm success. enable:%u ifIndex:%u", msg->enable,
                             msg->ifIndex);
    }
    (void)RPC_IdlMsgDestroy(msg, PPPOE_PLUS_IDL_MSG_ID, owner);
    return ret != 0 ? 1U : 0U;
}

uint32_t PPPOE_PLUS_UpdateTrustPortAcl4PortChg(uint32_t ifIndex, uint32_t enable)
{
    // Only a trusted port has an ACL to refresh.
    const PortCB *cb = PPPOE_PLUS_FindPortCBByindex(ifIndex);
    if (cb == nullptr || cb->trust.load(std::memory_order_relaxed) != 1) {
        return 0;
    }
    const uint32_t ret = PPPOE_PLUS_TrustPortAclProc(enable, ifIndex);
    if (ret != 0) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR,
                             "[PPPOE_PLUS_EVT] Proc ignore reply to update acl failed. enable:%u ifIndex:%u ret:%u",
                             enable, ifIndex, ret);
    }
    return ret;
}

void PPPOE_PLUS_GlobalCfgCallBack(uint32_t status, const void *request)
{
    if (request == nullptr) {
        return;
    }
    const auto *msg = static_cast<const PPPOE_PLUS_GLOBAL_CFG_REQ_S *>(request);
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "Set pppoe+ global cfg tirn. status.rpc:%u enable:%u", status,
                         msg->enable);
}

void PPPOE_PLUS_IgnoreReplyCfgCallBack(uint32_t status, const void *request)
{
    if (request == nullptr) {
        return;
    }
    const auto *msg = static_cast<const PPPOE_PLUS_IGNORE_REPLY_CFG_REQ_S *>(request);
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "Set ignore reply cfg tirn. status.rpc:%u enable:%u", status,
                         msg->enable);
}

void PPPOE_PLUS_TrustPortCfgCallBack(uint32_t status, const void *request)
{
    if (request == nullptr) {
        return;
    }
    const auto *msg = static_cast<const PPPOE_PLUS_TRUST_PORT_CFG_REQ_S *>(request);
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "Set pppoe+ trust port cfg tirn. status.rpc:%u, enable:%u, ifIndex = %u",
                         status, msg->enable, msg->ifIndex);
}

const RPC_INVOKE_ATTR_S *PPPOE_PLUS_GetInvokeAttr(void)
{
    return &g_pppoePlusBrkInvokeAttr;
}

uint32_t GlobalCfg(void *msg, RPC_ASYNC_CALLBACK_FN callback, void *context, const RPC_INVOKE_ATTR_S *attr)
{
    return PPPOE_PLUS_GlobalCfg_async(msg, callback, context, attr);
}

uint32_t IgnoreReplyCfg(void *msg, RPC_ASYNC_CALLBACK_FN callback, void *context, const RPC_INVOKE_ATTR_S *attr)
{
    return PPPOE_PLUS_IgnoreReplyCfg_async(msg, callback, context, attr);
}

uint32_t TrustPortCfg(void *msg, RPC_ASYNC_CALLBACK_FN callback, void *context, const RPC_INVOKE_ATTR_S *attr)
{
    return PPPOE_PLUS_TrustPortCfg_async(msg, callback, context, attr);
}

}  // extern "C"
