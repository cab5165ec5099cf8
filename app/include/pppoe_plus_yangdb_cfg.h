/* Handlers of the configuration database: configuration changes, queries
 * and operations. All run on the "PPPoE_Plus_Ydbc" task, one at a time. */
#ifndef PPPOE_PLUS_YANGDB_CFG_H
#define PPPOE_PLUS_YANGDB_CFG_H

#include <libxml/tree.h>
#include <stdint.h>

#include "pppoe_plus_cfg.h"
#include "ydbc.h"

#define PPPOE_PLUS_YANG_FORMAT_INFO_LEN 2048U
#define PPPOE_PLUS_YANG_IFNAME_LEN 64U
#define PPPOE_PLUS_PORTDESC_MAX_LEN 242U

#ifdef __cplusplus
extern "C" {
#endif

/* Work record of the interface policy handler. */
typedef struct PppoePlusIfPolicyInput {
    uint32_t ifIndex;
    uint8_t policy;
    uint8_t enable;
} PppoePlusIfPolicyInput;

/* Work record of the port trust handler. */
typedef struct PppoePlusPortTrustInput {
    uint32_t ifIndex;
    uint32_t enable;
} PppoePlusPortTrustInput;

/* Input of set-debugging. */
typedef struct PppoePlusDebugInput {
    uint32_t debugType;
    uint32_t debugSwitch;
} PppoePlusDebugInput;

/* Configuration handlers: 0 accepted, 1 rejected (or the store's code). */
uint32_t PPPOE_PLUS_SwitchSys(void *ctx, uint32_t opType, uint32_t reserved1, uint32_t reserved2, const char *path);
uint32_t PPPOE_PLUS_PolicySys(void *ctx, uint32_t opType, uint32_t reserved1, uint32_t reserved2, const char *path);
uint32_t PPPOE_PLUS_PolicyIf(void *ctx, uint32_t opType, uint32_t reserved1, uint32_t reserved2, const char *path);
uint32_t PPPOE_PLUS_VendorId(void *ctx, uint32_t opType, uint32_t reserved1, uint32_t reserved2, const char *path);
uint32_t PPPOE_PLUS_PortTrust(void *ctx, uint32_t opType, uint32_t reserved1, uint32_t reserved2, const char *path);
uint32_t PPPOE_PLUS_EncapType(void *ctx, uint32_t opType, uint32_t reserved1, uint32_t reserved2, const char *path);
uint32_t PPPOE_PLUS_IgnoreReply(void *ctx, uint32_t opType, uint32_t reserved1, uint32_t reserved2,
                                const char *path);
uint32_t PPPOE_PLUS_FormatSys(void *ctx, uint32_t opType, uint32_t reserved1, uint32_t reserved2, const char *path);
uint32_t PPPOE_PLUS_FormatIf(void *ctx, uint32_t opType, uint32_t reserved1, uint32_t reserved2, const char *path);
uint32_t PPPOE_PLUS_PortDesc(void *ctx, uint32_t opType, uint32_t reserved1, uint32_t reserved2, const char *path);

/* Input readers of the configuration handlers. */
uint32_t PPPOE_PLUS_GetSysSwitchInput(void *ctx, uint32_t opType, const char *path, uint8_t *enable);
uint32_t PPPOE_PLUS_GetSysPolicyInput(void *ctx, uint32_t opType, const char *path, uint8_t *policy);
uint32_t PPPOE_PLUS_GetIfPolicyInput(void *ctx, uint32_t opType, const char *path, PppoePlusIfPolicyInput *input);
uint32_t PPPOE_PLUS_GetPortTrustInput(void *ctx, uint32_t opType, const char *path, PppoePlusPortTrustInput *input);
uint32_t PPPOE_PLUS_GetVendorIdInput(void *ctx, uint32_t opType, const char *path, uint32_t *vendorId);
uint32_t PPPOE_PLUS_GetIgnoreReplyInput(void *ctx, uint32_t opType, const char *path, uint8_t *ignoreReply);
uint32_t PPPOE_PLUS_GetPortFormatOpType(void *ctx, uint32_t opType, const char *path, uint8_t *enable,
                                        uint32_t *ifIndex);
uint32_t PPPOE_PLUS_GetPortFormatCfg(void *ctx, uint32_t opType, const char *path, InfoFormatNode *cfg);
uint32_t PPPOE_PLUS_SetGlobalFormat(xmlNodePtr element, uint32_t infoType, const char *formatLeaf,
                                    const char *textLeaf);

/* Query handlers: 0 with *out set, else 1. */
uint32_t PPPOE_PLUS_GetEncapsulation(void *ctx, const char *path, uint32_t reserved, ydbc_bytes **out);
uint32_t PPPOE_PLUS_GetPolicy(void *ctx, const char *path, uint32_t reserved, ydbc_bytes **out);
uint32_t PPPOE_PLUS_GetStatistics(void *ctx, const char *path, uint32_t reserved, ydbc_bytes **out);
uint32_t PPPOE_PLUS_GetFormat(void *ctx, const char *path, uint32_t reserved, ydbc_bytes **out);
uint32_t PPPOE_PLUS_GetFormatCheckResult(void *ctx, const char *path, uint32_t reserved, ydbc_bytes **out);

/* Reply builders: add the query's subtree under root; 0 or 1. */
uint32_t PPPOE_PLUS_YangCreateEncapsulationXmlNode(const char *path, xmlNodePtr root);
uint32_t PPPOE_PLUS_YangCreatePolicyXmlNode(const char *path, xmlNodePtr root);
uint32_t PPPOE_PLUS_YangCreateStatisticsXmlNode(const char *path, xmlNodePtr root);
uint32_t PPPOE_PLUS_YangCreateFormatXmlNode(const char *path, xmlNodePtr root);
uint32_t PPPOE_PLUS_YangCreateFormatCheckResultXmlNode(const char *path, xmlNodePtr root);
uint32_t PPPOE_PLUS_YangAddFormatCheckResultToNode(xmlNodePtr parent, const char *text, uint32_t result);

/* Operations. */
uint32_t PPPOE_PLUS_Debugging(void *ctx, ydbc_bytes *input, uint32_t reserved, ydbc_bytes **out);
uint32_t PPPOE_PLUS_YANG_GetDebugInput(const ydbc_bytes *input, PppoePlusDebugInput *out);
uint32_t PPPOE_PLUS_YANG_ParseDebugMsg(xmlNodePtr node, char *switchBuf, uint32_t switchSize, char *typeBuf,
                                       uint32_t typeSize);
uint32_t PPPOE_PLUS_ProcDebugSwitch(uint32_t debugType, uint32_t debugSwitch);
uint32_t PPPOE_PLUS_ResetStatistics(void *ctx, ydbc_bytes *input, uint32_t reserved, ydbc_bytes **out);
/* Clears every port's fifteen packet counters; nothing else. */
void PPPOE_PLUS_ResetStatisticsProc(void);

#ifdef __cplusplus
}
#endif
#endif
