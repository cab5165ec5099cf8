// Circuit-ID and Remote-ID sub-options.
//
// The format that applies to a packet is looked up on its port, from the
// most specific list to the least (QinQ pair, inner VLAN, outer VLAN, the
// whole port), and falls back to the device-wide format. A matched node is
// final: when it cannot be rendered the build fails rather than trying a
// less specific format. The lists and the user-defined strings are read
// under the configuration lock and copied out, so rendering (which reads the
// object database and the device manager) runs without holding it.
#include <cstring>

#include "plat_safe.h"
#include "pppoe_plus_cfg.h"
#include "pppoe_plus_intf.h"
#include "pppoe_plus_log.h"
#include "pppoe_plus_pkt.h"
#include "pppoe_plus_bounded.h"
#include "pppoe_plus_tlv.h"
#include "zavk.h"

namespace {

constexpr const char *kCidRidFile = "app/src/common/src/pppoe_plus_cidrid";
constexpr uint32_t kSubOptHeadLen = 2U;
constexpr uint32_t kValueRoom = PPPOE_PLUS_SUBOPT_BUF_LEN - kSubOptHeadLen;
constexpr uint32_t kCommonRenderLen = 512U;
constexpr uint32_t kCommonCidLimit = 256U;   // a common Circuit-ID must stay below this
constexpr uint32_t kShortNameLen = 64U;      // 63 characters and the terminator
constexpr uint32_t kPortNameLen = sizeof(UserInfo{}.portName);
constexpr uint32_t kMacLen = 6U;
constexpr uint32_t kMacTextBound = 257U;
constexpr uint8_t kExtendType = 0U;
constexpr uint8_t kExtendCidLen = 4U;
constexpr uint8_t kExtendRidLen = 6U;

// Where the format of a packet came from; the lists in order of precedence.
enum class FormatSource : uint8_t { Global, QinQ, CeVlan, Vlan, NoVlan };

// A format copied out of the store: its type and, for a user-defined one,
// its string and, when the store keeps it compiled, its program.
struct FormatChoice {
    FormatSource source = FormatSource::Global;
    uint8_t formatType = PPPOE_PLUS_FORMAT_COMMON;
    bool udfValid = false;
    bool progValid = false;
    char udf[PPPOE_PLUS_UDF_STR_LEN] = {};
    PppoePlusUdfProg prog;   // only its used part is written and read
};

// The texts that differ between the Circuit-ID and the Remote-ID build.
struct InfoKind {
    uint8_t infoType;
    const char *portCbFail;
    const char *listError[4];   // QinQ, CE-VLAN, VLAN, port-wide
};

constexpr InfoKind kCidKind = {
    PPPOE_PLUS_INFO_CID,
    "PPPOE PLUS CID getPortCBByIndex fail. (ifIndex: %u)",
    {"PPPOE PLUS Encap Port CID QinQ vlan Info Format By User Info error.",
     "PPPOE PLUS Encap Port CID CE vlan Info Format By User Info error.",
     "PPPOE PLUS Encap Port CID vlan Info Format By User Info error.",
     "PPPOE PLUS Encap Port CID no vlan Info Format By User Info error."},
};

constexpr InfoKind kRidKind = {
    PPPOE_PLUS_INFO_RID,
    "PPPOE PLUS RID getPortCBByIndex fail. (ifIndex: %u)",
    {"PPPOE PLUS Encap Port QinQ vlan Info Format By User Info error.",
     "PPPOE PLUS Encap Port RID CE vlan Info Format By User Info error.",
     "PPPOE PLUS Encap Port RID vlan Info Format By User Info error.",
     "PPPOE PLUS Encap Port RID no vlan Info Format By User Info error."},
};

// The word that names a list in the "Find Port ... Info Format" line.
const char *ListWord(FormatSource source)
{
    switch (source) {
        case FormatSource::QinQ:
            return "QinQ Vlan ";
        case FormatSource::CeVlan:
            return "Ce Vlan ";
        case FormatSource::Vlan:
            return "vlan ";
        default:
            return "";
    }
}

// The first node of a list for which match holds; the caller holds the
// configuration lock.
template <typename Match>
const InfoFormatNode *FindInList(const PppoePlusDllHead &head, Match match)
{
    if (head.count == 0U || head.first == nullptr) {
        return nullptr;
    }
    const PppoePlusDllNode *link = head.first;
    for (uint32_t i = 0; i < head.count && link != nullptr; ++i, link = link->next) {
        const auto *node = reinterpret_cast<const InfoFormatNode *>(link);
        if (match(node)) {
            return node;
        }
    }
    return nullptr;
}

// The port's node for the packet's VLANs, most specific list first; the
// caller holds the configuration lock and has ruled out outer VLAN 0.
const InfoFormatNode *FindPortFormat(const PortCB *cb, const UserInfo *info, uint8_t infoType, FormatSource *source)
{
    const uint32_t xpi = info->ulXpi;
    const uint32_t xci = info->ulXci;
    const InfoFormatNode *node = nullptr;
    if (xci != 0U) {
        node = FindInList(cb->qinqFormatList, [&](const InfoFormatNode *n) {
            return n->vlanId == xpi && n->ceVlanId == xci && n->infoType == infoType;
        });
        if (node != nullptr) {
            *source = FormatSource::QinQ;
            return node;
        }
        node = FindInList(cb->ceVlanFormatList,
                          [&](const InfoFormatNode *n) { return n->ceVlanId == xci && n->infoType == infoType; });
        if (node != nullptr) {
            *source = FormatSource::CeVlan;
            return node;
        }
    }
    node = FindInList(cb->vlanFormatList,
                      [&](const InfoFormatNode *n) { return n->vlanId == xpi && n->infoType == infoType; });
    if (node != nullptr) {
        *source = FormatSource::Vlan;
        return node;
    }
    node = FindInList(cb->noVlanFormatList, [&](const InfoFormatNode *n) { return n->infoType == infoType; });
    if (node != nullptr) {
        *source = FormatSource::NoVlan;
    }
    return node;
}

// The string is copied only for a user-defined format, the one that uses it.
void KeepFormat(FormatChoice *choice, FormatSource source, uint8_t formatType, const char *udf)
{
    choice->source = source;
    choice->formatType = formatType;
    choice->udfValid = false;
    if (formatType == PPPOE_PLUS_FORMAT_USER_DEFINE && udf != nullptr) {
        const size_t len = strnlen(udf, sizeof(choice->udf) - 1U);
        std::memcpy(choice->udf, udf, len);
        choice->udf[len] = '\0';
        choice->udfValid = true;
    }
}

// The compiled form of the format kept, when the store has it.
void KeepProgram(FormatChoice *choice, const PppoePlusUdfProg *prog)
{
    if (prog != nullptr) {
        PPPOE_PLUS_UdfProgCopy(&choice->prog, prog);
        choice->progValid = true;
    }
}

// The device-wide format of one info type; the caller holds the
// configuration lock.
void GlobalFormatLocked(const UserInfo *info, uint8_t infoType, FormatChoice *choice)
{
    if (infoType == PPPOE_PLUS_INFO_CID) {
        KeepFormat(choice, FormatSource::Global, PPPOE_PLUS_GetGlobalCidFormat(), PPPOE_PLUS_GetGlobalCidUdfFormat());
    } else {
        KeepFormat(choice, FormatSource::Global, PPPOE_PLUS_GetGlobalRidFormat(), PPPOE_PLUS_GetGlobalRidUdfFormat());
    }
    KeepProgram(choice, choice->udfValid ? PPPOE_PLUS_GetGlobalUdfProg(infoType, info) : nullptr);
}

// The format that applies to the packet on its port; the device-wide one
// when the outer VLAN is 0 or no node matches.
void LookupFormat(const PortCB *cb, const UserInfo *info, uint8_t infoType, FormatChoice *choice)
{
    // With no port format to look for (no outer VLAN, or none on any port)
    // and a global format without a string, nothing read is under the lock.
    const uint8_t globalType =
        infoType == PPPOE_PLUS_INFO_CID ? PPPOE_PLUS_GetGlobalCidFormat() : PPPOE_PLUS_GetGlobalRidFormat();
    if (globalType != PPPOE_PLUS_FORMAT_USER_DEFINE && (info->ulXpi == 0U || PPPOE_PLUS_PortFormatCount() == 0U)) {
        KeepFormat(choice, FormatSource::Global, globalType, nullptr);
        return;
    }
    PppoePlusCfgReadGuard guard(PppoePlusCfgLock());
    if (info->ulXpi != 0U) {
        FormatSource source = FormatSource::Global;
        const InfoFormatNode *node = FindPortFormat(cb, info, infoType, &source);
        if (node != nullptr) {
            PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO,
                                 "PPPOE PLUS Find Port %sInfo Format By User Info:ifindex = %u,vlanId = %u,"
                                 "ceVlanId = %u,infoType = %u,infoFormatType = %u, userDefineStr = %s.",
                                 ListWord(source), info->IfIndex, node->vlanId, node->ceVlanId, node->infoType,
                                 node->infoFormatType, node->userDefineStr);
            KeepFormat(choice, source, node->infoFormatType, node->userDefineStr);
            KeepProgram(choice, choice->udfValid ? PPPOE_PLUS_GetPortUdfProg(node, info) : nullptr);
            return;
        }
    }
    GlobalFormatLocked(info, infoType, choice);
}

// A built value as terminated text for the debug lines.
void ValueText(const uint8_t *value, uint32_t len, char (&text)[kValueRoom + 1U])
{
    std::memset(text, 0, sizeof(text));
    if (len != 0U) {
        (void)PppoePlusCopy(text, kValueRoom, value, len < kValueRoom ? len : kValueRoom);
    }
}

// Renders a user-defined value behind the sub-option head, then traces it
// with trace (port name, VLAN, value).
uint32_t RenderUdf(const UserInfo *info, const FormatChoice &choice, uint8_t *value, uint32_t *valueLen,
                   const char *trace)
{
    if (!choice.udfValid) {
        return PPPOE_PLUS_ERR;
    }
    const uint32_t ret = choice.progValid ? PPPOE_PLUS_EncodeUdfProg(info, choice.udf, &choice.prog, value, valueLen)
                                          : PPPOE_PLUS_EncodeUdfData(info, choice.udf, value, valueLen);
    if (ret != PPPOE_PLUS_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "PPPOE PLUS Build Port UserDefine error.");
        return PPPOE_PLUS_ERR;
    }
    char text[kValueRoom + 1U];
    ValueText(value, *valueLen, text);
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, trace, info->portName, static_cast<int>(info->ulXpi), text);
    return PPPOE_PLUS_OK;
}

void PutSubOptHead(uint8_t *subOpt, uint32_t subOptType, uint32_t valueLen, uint32_t *subOptLen)
{
    subOpt[0] = static_cast<uint8_t>(subOptType);
    subOpt[1] = static_cast<uint8_t>(valueLen);
    *subOptLen = valueLen + kSubOptHeadLen;
}

uint32_t RenderCid(const UserInfo *info, const FormatChoice &choice, uint8_t *cid, uint32_t *cidLen)
{
    uint8_t *value = cid + kSubOptHeadLen;
    uint32_t valueLen = 0;
    const bool global = choice.source == FormatSource::Global;
    switch (choice.formatType) {
        case PPPOE_PLUS_FORMAT_USER_DEFINE:
            if (RenderUdf(info, choice, value, &valueLen,
                          global ? "PPPOE PLUS Encap Global Info Format Circuit userdefined information."
                                   "(portname=%s,Vlan=%d,Circuit Id=%s)"
                                 : "PPPOE PLUS Encap Port Info Format Circuit userdefined information."
                                   "(portname=%s,Vlan=%d,Circuit Id=%s)") != PPPOE_PLUS_OK) {
                return PPPOE_PLUS_ERR;
            }
            break;
        case PPPOE_PLUS_FORMAT_EXTEND:
            value[0] = kExtendType;
            value[1] = kExtendCidLen;
            value[2] = static_cast<uint8_t>((info->ulXpi >> 8U) & 0xFFU);
            value[3] = static_cast<uint8_t>(info->ulXpi & 0xFFU);
            value[4] = static_cast<uint8_t>((info->ulNas_Slot * 8U + info->ulNas_SubSlot) & 0xFFU);
            value[5] = static_cast<uint8_t>(info->ulNas_Port & 0xFFU);
            valueLen = kExtendCidLen + 2U;
            PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO,
                                 "extendCid.type : %u extendCid.len : %u extendCid.slot : %u extendCid.subSlot : %u "
                                 "extendCid.portId : %u extendCid.vlanId : %u",
                                 kExtendType, kExtendCidLen, info->ulNas_Slot, info->ulNas_SubSlot, value[5],
                                 info->ulXpi & 0xFFFFU);
            break;
        case PPPOE_PLUS_FORMAT_COMMON:
            if (PPPOE_PLUS_EncapCommonCid(info, value, &valueLen) != PPPOE_PLUS_OK) {
                return PPPOE_PLUS_ERR;
            }
            break;
        default:
            ZAVK_Assert(kCidRidFile, __LINE__);
            return PPPOE_PLUS_ERR;
    }
    PutSubOptHead(cid, PPPOE_PLUS_SUBOPT_CID, valueLen, cidLen);
    return PPPOE_PLUS_OK;
}

uint32_t RenderRid(const UserInfo *info, const FormatChoice &choice, uint8_t *rid, uint32_t *ridLen)
{
    uint8_t mac[kMacLen] = {};
    if (PPPOE_PLUS_GetDevSysMac(mac) != PPPOE_PLUS_OK) {
        return PPPOE_PLUS_ERR;   // the read reported why
    }
    uint8_t *value = rid + kSubOptHeadLen;
    uint32_t valueLen = 0;
    const bool global = choice.source == FormatSource::Global;
    switch (choice.formatType) {
        case PPPOE_PLUS_FORMAT_USER_DEFINE:
            if (RenderUdf(info, choice, value, &valueLen,
                          global ? "Global Rid udf format.(portname=%s,Vlan=%d,RId=%s)"
                                 : "Port RID udf format.(portname=%s,Vlan=%d,RId=%s)") != PPPOE_PLUS_OK) {
                return PPPOE_PLUS_ERR;
            }
            break;
        case PPPOE_PLUS_FORMAT_EXTEND:
            value[0] = kExtendType;
            value[1] = kExtendRidLen;
            (void)PppoePlusCopy(value + 2, kValueRoom - 2U, mac, kMacLen);
            valueLen = kExtendRidLen + 2U;
            break;
        case PPPOE_PLUS_FORMAT_COMMON: {
            // As "%02x%02x-%02x%02x-%02x%02x".
            char text[kMacTextBound];   // kept terminated by the builder
            PppoePlusText mac4(text, sizeof(text));
            mac4.AppendHex2(mac[0]).AppendHex2(mac[1]).Append("-").AppendHex2(mac[2]).AppendHex2(mac[3]);
            mac4.Append("-").AppendHex2(mac[4]).AppendHex2(mac[5]);
            valueLen = mac4.Length() % 256U;
            if (valueLen != 0U) {
                (void)PppoePlusCopy(value, kValueRoom, text, valueLen);
            }
            PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO,
                                 global ? "Global Rid common format.(PortName=%s,Vlan=%d,RId=%s)"
                                        : "Port RID common format.(PortName=%s,Vlan=%d,RId=%s)",
                                 info->portName, static_cast<int>(info->ulXpi), text);
            break;
        }
        default:
            ZAVK_Assert(kCidRidFile, __LINE__);
            return PPPOE_PLUS_ERR;
    }
    PutSubOptHead(rid, PPPOE_PLUS_SUBOPT_RID, valueLen, ridLen);
    return PPPOE_PLUS_OK;
}

uint32_t Render(const InfoKind &kind, const UserInfo *info, const FormatChoice &choice, uint8_t *out,
                uint32_t *outLen)
{
    return kind.infoType == PPPOE_PLUS_INFO_CID ? RenderCid(info, choice, out, outLen)
                                                : RenderRid(info, choice, out, outLen);
}

// Looks up the packet's format on its port and renders it.
uint32_t EncodeInfo(const InfoKind &kind, const UserInfo *info, uint8_t *out, uint32_t *outLen)
{
    if (info == nullptr || out == nullptr || outLen == nullptr) {
        ZAVK_Assert(kCidRidFile, __LINE__);
        return PPPOE_PLUS_ERR;
    }
    // May create the block, under the write lock: never inside the read guard.
    PortCB *cb = nullptr;
    if (PPPOE_PLUS_GetPortCBByIndex(info->IfIndex, &cb) != PPPOE_PLUS_OK || cb == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, kind.portCbFail, info->IfIndex);
        return PPPOE_PLUS_ERR;
    }
    FormatChoice choice;
    LookupFormat(cb, info, kind.infoType, &choice);
    if (Render(kind, info, choice, out, outLen) != PPPOE_PLUS_OK) {
        if (choice.source != FormatSource::Global) {
            const auto list = static_cast<uint32_t>(choice.source) - 1U;
            PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "%s", kind.listError[list]);
        }
        return PPPOE_PLUS_ERR;
    }
    return PPPOE_PLUS_OK;
}

// "eth " and the port name from the first digit that follows a non-digit:
// "GigabitEthernet0/0/1" gives "eth 0/0/1", "10GE1/0/3" gives "eth 1/0/3".
void ShortPortName(const char *portName, char (&out)[kShortNameLen])
{
    uint32_t start = kPortNameLen;
    bool seenNonDigit = false;
    for (uint32_t i = 0; i < kPortNameLen && portName[i] != '\0'; ++i) {
        const bool digit = portName[i] >= '0' && portName[i] <= '9';
        if (!digit) {
            seenNonDigit = true;
        } else if (seenNonDigit) {
            start = i;
            break;
        }
    }
    const char *rest = start < kPortNameLen ? portName + start : "";
    const size_t restLen = strnlen(rest, kPortNameLen - (start < kPortNameLen ? start : 0U));
    PppoePlusText(out, sizeof(out)).Append("eth ").Append(std::string_view(rest, restLen));
}

}  // namespace

extern "C" {

uint32_t PPPOE_PLUS_EncapCommonCid(const UserInfo *info, uint8_t *value, uint32_t *valueLen)
{
    if (info == nullptr || value == nullptr || valueLen == nullptr) {
        ZAVK_Assert(kCidRidFile, __LINE__);
        return PPPOE_PLUS_ERR;
    }
    char sysName[PPPOE_PLUS_SYSNAME_LEN];
    sysName[0] = '\0';
    if (PPPOE_PLUS_GetSysName(sysName, sizeof(sysName)) != 0U) {
        sysName[0] = '\0';   // the circuit is still described without it
    }
    sysName[sizeof(sysName) - 1U] = '\0';
    // "eth": "%s:%u.%u %s/0/0/0/0/0" with the short name; otherwise
    // "%s %01u/%01u/%u:%u.%u %s/0/0/0/0/0" with the interface type.
    char text[kCommonRenderLen];   // kept terminated by the builder
    PppoePlusText cid(text, sizeof(text));
    if (strncmp(info->ifType, "eth", sizeof(info->ifType)) == 0) {
        char shortName[kShortNameLen] = {};
        ShortPortName(info->portName, shortName);
        cid.Append(shortName);
    } else {
        cid.Append(std::string_view(info->ifType, strnlen(info->ifType, sizeof(info->ifType)))).Append(" ");
        cid.AppendU32(info->ulNas_Slot).Append("/").AppendU32(info->ulNas_SubSlot).Append("/");
        cid.AppendU32(info->ulNas_Port);
    }
    cid.Append(":").AppendU32(info->ulXpi).Append(".").AppendU32(info->ulXci).Append(" ");
    cid.Append(sysName).Append("/0/0/0/0/0");
    const uint32_t len = cid.Length();
    if (len >= kCommonCidLimit) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "Encap info format circuit-id length error.");
        return PPPOE_PLUS_ERR;
    }
    if (len != 0U) {
        (void)PppoePlusCopy(value, kCommonCidLimit - 1U, text, len);
    }
    *valueLen = len;
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO,
                         "Encap common circuit-id by userinfo.(portname=%s, vlan=%u, infoLen=%u, circuit-id=%s)",
                         info->portName, info->ulXpi, len, text);
    return PPPOE_PLUS_OK;
}

uint32_t PPPOE_PLUS_EncodeCid(UserInfo *info, uint8_t *cid, uint32_t *cidLen)
{
    return EncodeInfo(kCidKind, info, cid, cidLen);
}

uint32_t PPPOE_PLUS_EncodeRid(UserInfo *info, uint8_t *rid, uint32_t *ridLen)
{
    return EncodeInfo(kRidKind, info, rid, ridLen);
}

uint32_t PPPOE_PLUS_EncodeCidRid(UserInfo *info, uint8_t *cid, uint32_t *cidLen, uint8_t *rid, uint32_t *ridLen)
{
    uint32_t ret = PPPOE_PLUS_OK;
    if (PPPOE_PLUS_IsEncapOnlyCid() == 1U) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "Encode Cid information");
        ret = PPPOE_PLUS_EncodeCid(info, cid, cidLen);
    } else if (PPPOE_PLUS_IsEncapOnlyRid() == 1U) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "Encode Rid information");
        ret = PPPOE_PLUS_EncodeRid(info, rid, ridLen);
    } else {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "Encode Cid and Rid information");
        // Both are attempted, so each failure leaves its own trace.
        const uint32_t cidRet = PPPOE_PLUS_EncodeCid(info, cid, cidLen);
        const uint32_t ridRet = PPPOE_PLUS_EncodeRid(info, rid, ridLen);
        ret = (cidRet != PPPOE_PLUS_OK || ridRet != PPPOE_PLUS_OK) ? PPPOE_PLUS_ERR : PPPOE_PLUS_OK;
    }
    if (ret != PPPOE_PLUS_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "Failed to build circuit ID string or remote ID string.");
    }
    return ret;
}

}  // extern "C"
