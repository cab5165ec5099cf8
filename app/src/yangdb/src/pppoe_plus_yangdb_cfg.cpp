// Handlers of the configuration database. Configuration handlers pull the
// data of their path, map the YANG values onto the store's codes and call
// one setter; query handlers build a reply tree from the live state;
// operations switch debug output and clear the packet counters.
#include "pppoe_plus_yangdb_cfg.h"

#include <strings.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "plat_safe.h"
#include "pppoe_plus_intf.h"
#include "pppoe_plus_log.h"
#include "pppoe_plus_mem.h"
#include "pppoe_plus_pkt.h"
#include "pppoe_plus_portdesc.h"
#include "pppoe_plus_udfchk.h"
#include "pppoe_plus_yang.h"
#include "zavk.h"

namespace {

constexpr const char *kYangDbCfgFile = "app/src/yangdb/src/pppoe_plus_yangdb_cfg";
constexpr uint32_t kLinePolicyAlloc = 287;  // fixed assert line: no work record for a port policy
constexpr uint32_t kDiag = PPPOE_PLUS_LOG_ID_DIAGDEBUG;

using LeafBuf = std::array<char, PPPOE_PLUS_YANG_LEAF_LEN>;
using TextBuf = std::array<char, PPPOE_PLUS_YANG_TEXT_LEN>;

struct XmlNodeFree {
    void operator()(xmlNode *node) const { PPPOE_PLUS_FreeXmlNode(node); }
};
using XmlNode = std::unique_ptr<xmlNode, XmlNodeFree>;

bool IsDelete(uint32_t opType)
{
    return (opType & YDBC_OP_DELETE) != 0;
}

const char *OrEmpty(const char *text)
{
    return text != nullptr ? text : "";
}

// The element as one line of XML, for a log line.
struct XmlTextFree {
    void operator()(char *text) const { PPPOE_PLUS_MemFree(text); }
};
using XmlText = std::unique_ptr<char, XmlTextFree>;

XmlText Content(xmlNode *node)
{
    return XmlText{PPPOE_PLUS_YangParseXml2Str(node)};
}

// Fetches the element of a configuration path; null when it cannot be had.
XmlNode FetchPath(void *ctx, uint32_t opType, const char *path)
{
    xmlNodePtr node = nullptr;
    if (PPPOE_PLUS_GetPathNode(ctx, opType, path, &node) != 0) {
        return XmlNode{};
    }
    return XmlNode{node};
}

// A leaf among the element's children; false when missing, empty or too
// long for the buffer.
template <size_t N>
bool ReadLeaf(const XmlNode &node, const char *name, std::array<char, N> &buf)
{
    buf.fill('\0');
    return PPPOE_PLUS_YangGetChildXmlNodeByName(node.get(), name, buf.data(), static_cast<uint32_t>(N)) == 0;
}

// Unsigned decimal; absent or non-numeric reads as 0.
uint32_t ReadNumber(const XmlNode &node, const char *name)
{
    LeafBuf buf{};
    if (!ReadLeaf(node, name, buf)) {
        return 0;
    }
    return static_cast<uint32_t>(strtoul(buf.data(), nullptr, 10));
}

bool TextIs(const char *text, const char *value)
{
    return strcasecmp(text, value) == 0;
}

uint8_t MapSwitch(const char *text)
{
    return TextIs(text, "true") ? 1U : 0U;
}

uint8_t MapPolicy(const char *text)
{
    if (TextIs(text, "drop")) {
        return PPPOE_PLUS_POLICY_DROP;
    }
    if (TextIs(text, "keep")) {
        return PPPOE_PLUS_POLICY_KEEP;
    }
    return PPPOE_PLUS_POLICY_REPLACE;
}

uint8_t MapFormat(const char *text)
{
    if (TextIs(text, "extend")) {
        return PPPOE_PLUS_FORMAT_EXTEND;
    }
    if (TextIs(text, "user-define")) {
        return PPPOE_PLUS_FORMAT_USER_DEFINE;
    }
    return PPPOE_PLUS_FORMAT_COMMON;
}

// "circuit-id" 1, "remote-id" 2, anything else `other`.
uint8_t MapInfoType(const char *text, uint8_t other)
{
    if (TextIs(text, "circuit-id")) {
        return PPPOE_PLUS_ENCAP_CID;
    }
    if (TextIs(text, "remote-id")) {
        return PPPOE_PLUS_ENCAP_RID;
    }
    return other;
}

xmlNodePtr AddLeaf(xmlNodePtr parent, const char *name, uint32_t value)
{
    LeafBuf text{};
    (void)snprintf_truncated_s(text.data(), text.size(), "%u", value);
    return PPPOE_PLUS_YangSetContentAndAddChild(parent, name, text.data());
}

using Builder = uint32_t (*)(const char *path, xmlNodePtr root);

// The common frame of the five queries; `what` names the query in the log.
uint32_t AnswerQuery(void *ctx, const char *path, ydbc_bytes **out, const char *what, Builder build)
{
    if (ctx == nullptr || path == nullptr || out == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Get %s para failed, para is null.", what);
        return 1;
    }
    XmlNode root{PPPOE_PLUS_YangCreateXmlRoot()};
    if (root == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Create %s root failed.", what);
        return 1;
    }
    if (build(path, root.get()) != 0) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Create %s record xml Tree failed.", what);
        return 1;
    }
    if (PPPOE_PLUS_YangSetYdbcResult(root.get(), out) != 0) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Set %s record ydbc result failed.", what);
        return 1;
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-CFG] Get %s record successfully.", what);
    return 0;
}

// One port's row of the statistics reply, copied under the store's lock.
struct PortStats {
    uint32_t ifIndex;
    uint8_t trust;
    std::array<uint32_t, PPPOE_PLUS_PORT_COUNTERS> counters;
};

std::vector<PortStats> SnapshotPorts()
{
    std::vector<PortStats> ports;
    PppoePlusForEachPort([&ports](const PortCB &cb) {
        PortStats row{cb.ifIndex, cb.trust.load(std::memory_order_relaxed), {}};
        for (size_t c = 0; c < row.counters.size(); c++) {
            row.counters[c] = cb.stats[c].load(std::memory_order_relaxed);
        }
        ports.push_back(row);
    });
    return ports;
}

}  // namespace

extern "C" {

/* ---- Configuration handlers ---- */

uint32_t PPPOE_PLUS_GetSysSwitchInput(void *ctx, uint32_t opType, const char *path, uint8_t *enable)
{
    if (ctx == nullptr || path == nullptr || enable == nullptr) {
        return 1;
    }
    XmlNode node = FetchPath(ctx, opType, path);
    if (node == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR,
                             "[PPLUS-CFG] Failed to get global enable path node from xml node. path:%s", path);
        return 1;
    }
    LeafBuf value{};
    if (!ReadLeaf(node, "enable", value)) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-CFG] Can not get enable from path node, set to disable.");
        *enable = 0;
        return 0;
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-CFG] Success to get node from path node. enable:%s",
                         value.data());
    PPPOE_PLUS_DiagLog(kDiag, "[PPLUS-CFG] Success to get node from path node. enable:%s.", value.data());
    *enable = MapSwitch(value.data());
    return 0;
}

uint32_t PPPOE_PLUS_SwitchSys(void *ctx, uint32_t opType, uint32_t reserved1, uint32_t reserved2, const char *path)
{
    (void)reserved1;
    (void)reserved2;
    uint8_t enable = 0;
    if (PPPOE_PLUS_GetSysSwitchInput(ctx, opType, path, &enable) != 0) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Failed to get global switch input.");
        return 1;
    }
    PPPOE_PLUS_DiagLog(kDiag, "[PPLUS-CFG] Global pppoe+ enable status change, enable:%u.", enable);
    (void)PPPOE_PLUS_SetEnable(enable);  // the ACL request's outcome is not the database's concern
    return 0;
}

uint32_t PPPOE_PLUS_GetSysPolicyInput(void *ctx, uint32_t opType, const char *path, uint8_t *policy)
{
    if (ctx == nullptr || path == nullptr || policy == nullptr) {
        return 1;
    }
    XmlNode node = FetchPath(ctx, opType, path);
    if (node == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR,
                             "[PPLUS-CFG] Failed to get global policy path node from xml node. path:%s", path);
        return 1;
    }
    LeafBuf value{};
    if (!ReadLeaf(node, "tags-policy", value)) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO,
                             "[PPLUS-CFG] Can not get global policy from path node, set to replace.");
        *policy = PPPOE_PLUS_POLICY_REPLACE;
        return 0;
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-CFG] Success to get node from path node. infoPolicy:%s",
                         value.data());
    PPPOE_PLUS_DiagLog(kDiag, "[PPLUS-CFG] Success to get node from path node. infoPolicy:%s.", value.data());
    *policy = MapPolicy(value.data());
    return 0;
}

uint32_t PPPOE_PLUS_PolicySys(void *ctx, uint32_t opType, uint32_t reserved1, uint32_t reserved2, const char *path)
{
    (void)reserved1;
    (void)reserved2;
    uint8_t policy = PPPOE_PLUS_POLICY_REPLACE;
    if (PPPOE_PLUS_GetSysPolicyInput(ctx, opType, path, &policy) != 0) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Failed to get global policy input.");
        return 1;
    }
    PPPOE_PLUS_DiagLog(kDiag, "[PPLUS-CFG] Global policy input change success, infoPolicy:%u.", policy);
    PPPOE_PLUS_SetGlobalInfoPolicy(policy);
    return 0;
}

uint32_t PPPOE_PLUS_GetIfPolicyInput(void *ctx, uint32_t opType, const char *path, PppoePlusIfPolicyInput *input)
{
    if (ctx == nullptr || path == nullptr || input == nullptr) {
        return 1;
    }
    XmlNode node = FetchPath(ctx, opType, path);
    if (node == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR,
                             "[PPLUS-CFG] Failed to get interface policy path node from xml node. path:%s", path);
        return 1;
    }
    LeafBuf ifIndex{};
    if (!ReadLeaf(node, "ifindex", ifIndex)) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Can not get node ifindex from path node.");
        return 1;
    }
    LeafBuf policy{};
    if (!ReadLeaf(node, "tags-policy", policy)) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Can not get node interface policy from path node.");
        return 1;
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO,
                         "[PPLUS-CFG] Success to get node from path node. ifIndex:%s, infoPolicy:%s", ifIndex.data(),
                         policy.data());
    PPPOE_PLUS_DiagLog(kDiag, "[PPLUS-CFG] Success to get node from path node. ifIndex:%s, infoPolicy:%s",
                       ifIndex.data(), policy.data());
    input->ifIndex = static_cast<uint32_t>(strtoul(ifIndex.data(), nullptr, 10));
    input->policy = MapPolicy(policy.data());
    input->enable = IsDelete(opType) ? 0U : 1U;
    return 0;
}

uint32_t PPPOE_PLUS_PolicyIf(void *ctx, uint32_t opType, uint32_t reserved1, uint32_t reserved2, const char *path)
{
    (void)reserved1;
    (void)reserved2;
    auto *input = static_cast<PppoePlusIfPolicyInput *>(PPPOE_PLUS_MemAlloc(sizeof(PppoePlusIfPolicyInput)));
    if (input == nullptr) {
        ZAVK_Assert(kYangDbCfgFile, kLinePolicyAlloc);
        return 1;
    }
    (void)memset_s(input, sizeof(*input), 0, sizeof(*input));
    if (PPPOE_PLUS_GetIfPolicyInput(ctx, opType, path, input) != 0) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Failed to get interface policy input.");
        PPPOE_PLUS_MemFree(input);
        return 1;
    }
    PPPOE_PLUS_DiagLog(kDiag,
                       "[PPLUS-CFG] Interface policy input change success, ifIndex:%u, infoPolicy:%u, enable:%u.",
                       input->ifIndex, input->policy, input->enable);
    (void)PPPOE_PLUS_SetPortPolicy(input->ifIndex, input->policy, input->enable);
    PPPOE_PLUS_MemFree(input);
    return 0;
}

uint32_t PPPOE_PLUS_GetVendorIdInput(void *ctx, uint32_t opType, const char *path, uint32_t *vendorId)
{
    if (ctx == nullptr || path == nullptr || vendorId == nullptr) {
        return 1;
    }
    XmlNode node = FetchPath(ctx, opType, path);
    if (node == nullptr) {
        PPPOE_PLUS_DiagLog(kDiag, "[PPLUS-CFG] Failed to get vendor-id path node from xml node. path:%s", path);
        return 1;
    }
    LeafBuf value{};
    if (!ReadLeaf(node, "vendor-id", value)) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO,
                             "[PPLUS-CFG] Can not get vendor-id from path node, set to default value. content:%s",
                             OrEmpty(Content(node.get()).get()));
        *vendorId = PPPOE_PLUS_DEFAULT_VENDOR_ID;
        return 0;
    }
    *vendorId = static_cast<uint32_t>(strtoul(value.data(), nullptr, 10));
    return 0;
}

uint32_t PPPOE_PLUS_VendorId(void *ctx, uint32_t opType, uint32_t reserved1, uint32_t reserved2, const char *path)
{
    (void)reserved1;
    (void)reserved2;
    if (ctx == nullptr || path == nullptr) {
        return 1;
    }
    uint32_t vendorId = PPPOE_PLUS_DEFAULT_VENDOR_ID;
    if (PPPOE_PLUS_GetVendorIdInput(ctx, opType, path, &vendorId) != 0) {
        PPPOE_PLUS_DiagLog(kDiag, "[PPLUS-CFG] Failed to get vendor-id input.");
        return 1;
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-CFG] Set vendorId:%u.", vendorId);
    PPPOE_PLUS_SetVendorId(vendorId);
    return 0;
}

uint32_t PPPOE_PLUS_GetPortTrustInput(void *ctx, uint32_t opType, const char *path, PppoePlusPortTrustInput *input)
{
    if (ctx == nullptr || path == nullptr || input == nullptr) {
        return 1;
    }
    XmlNode node = FetchPath(ctx, opType, path);
    if (node == nullptr) {
        PPPOE_PLUS_DiagLog(kDiag, "[PPLUS-CFG] Failed to get port trusted path node from xml node. path:%s", path);
        return 1;
    }
    input->ifIndex = ReadNumber(node, "ifindex");  // not required: absent applies to 0
    LeafBuf value{};
    if (!ReadLeaf(node, "trusted-enable", value)) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO,
                             "[PPLUS-CFG] Can not get port trusted enable from path node, set to disable");
        input->enable = 0;
    } else {
        input->enable = IsDelete(opType) ? 0U : MapSwitch(value.data());
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-CFG] Success to get node from path node. ifindex=%u, enable:%u",
                         input->ifIndex, input->enable);
    return 0;
}

uint32_t PPPOE_PLUS_PortTrust(void *ctx, uint32_t opType, uint32_t reserved1, uint32_t reserved2, const char *path)
{
    (void)reserved1;
    (void)reserved2;
    if (ctx == nullptr || path == nullptr) {
        return 1;
    }
    PppoePlusPortTrustInput input{};
    if (PPPOE_PLUS_GetPortTrustInput(ctx, opType, path, &input) != 0) {
        PPPOE_PLUS_DiagLog(kDiag, "[PPLUS-CFG] Failed to get port trust input.");
        return 1;
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-CFG] Port trusted cfg, ifIndex:%u, enable:%u.", input.ifIndex,
                         input.enable);
    return PPPOE_PLUS_SetPortTrust(input.ifIndex, input.enable);
}

uint32_t PPPOE_PLUS_EncapType(void *ctx, uint32_t opType, uint32_t reserved1, uint32_t reserved2, const char *path)
{
    (void)reserved1;
    (void)reserved2;
    if (ctx == nullptr || path == nullptr) {
        return 1;
    }
    XmlNode node = FetchPath(ctx, opType, path);
    if (node == nullptr) {
        PPPOE_PLUS_DiagLog(kDiag, "[PPLUS-CFG] Failed to get encapsulation Type path node from xml node. path:%s",
                           path);
        return 1;
    }
    LeafBuf value{};
    const uint8_t encap =
        ReadLeaf(node, "global-encapsulation", value) ? MapInfoType(value.data(), PPPOE_PLUS_ENCAP_BOTH)
                                                      : static_cast<uint8_t>(PPPOE_PLUS_ENCAP_BOTH);
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-CFG] Set encapsulation type:%u.", encap);
    PPPOE_PLUS_SetInfoEncap(1, encap);
    return 0;
}

uint32_t PPPOE_PLUS_GetIgnoreReplyInput(void *ctx, uint32_t opType, const char *path, uint8_t *ignoreReply)
{
    if (ctx == nullptr || path == nullptr || ignoreReply == nullptr) {
        return 1;
    }
    XmlNode node = FetchPath(ctx, opType, path);
    if (node == nullptr) {
        PPPOE_PLUS_DiagLog(kDiag, "[PPLUS-CFG] Failed to get ignore-reply path node from xml node. path:%s", path);
        return 1;
    }
    LeafBuf value{};
    if (!ReadLeaf(node, "ignore-policy", value)) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO,
                             "[PPLUS-CFG] Can not get ignore-reply from path node, set to disable. content:%s",
                             OrEmpty(Content(node.get()).get()));
        *ignoreReply = 0;
        return 0;
    }
    // Inverted on purpose: the stored switch is 1 only for a present leaf
    // that is not "true".
    *ignoreReply = TextIs(value.data(), "true") ? 0U : 1U;
    return 0;
}

uint32_t PPPOE_PLUS_IgnoreReply(void *ctx, uint32_t opType, uint32_t reserved1, uint32_t reserved2,
                                const char *path)
{
    (void)reserved1;
    (void)reserved2;
    if (ctx == nullptr || path == nullptr) {
        return 1;
    }
    uint8_t value = 0;
    if (PPPOE_PLUS_GetIgnoreReplyInput(ctx, opType, path, &value) != 0) {
        PPPOE_PLUS_DiagLog(kDiag, "[PPLUS-CFG] Failed to get ignore-reply input.");
        return 1;
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-CFG] Set ignore-reply enable:%u.", value);
    return PPPOE_PLUS_SetIgnoreReply(value);
}

uint32_t PPPOE_PLUS_SetGlobalFormat(xmlNodePtr element, uint32_t infoType, const char *formatLeaf,
                                    const char *textLeaf)
{
    if (element == nullptr || formatLeaf == nullptr || textLeaf == nullptr) {
        return 1;
    }
    LeafBuf format{};
    TextBuf text{};
    const uint8_t formatType =
        PPPOE_PLUS_YangGetChildXmlNodeByName(element, formatLeaf, format.data(), format.size()) == 0
            ? MapFormat(format.data())
            : static_cast<uint8_t>(PPPOE_PLUS_FORMAT_COMMON);
    if (PPPOE_PLUS_YangGetChildXmlNodeByName(element, textLeaf, text.data(), text.size()) != 0) {
        text.fill('\0');
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-CFG] Set system format: encapType:%u, formatType:%u, usrDefStr:%s.",
                         infoType, formatType, text.data());
    if (infoType == PPPOE_PLUS_INFO_CID) {
        return PPPOE_PLUS_SetGlobalCidFormat(formatType, text.data());
    }
    return PPPOE_PLUS_SetGlobalRidFormat(formatType, text.data());
}

uint32_t PPPOE_PLUS_FormatSys(void *ctx, uint32_t opType, uint32_t reserved1, uint32_t reserved2, const char *path)
{
    (void)reserved1;
    (void)reserved2;
    if (ctx == nullptr || path == nullptr) {
        return 1;
    }
    XmlNode node = FetchPath(ctx, opType, path);
    if (node == nullptr) {
        PPPOE_PLUS_DiagLog(kDiag, "[PPLUS-CFG] Failed to get system format path node from xml node. path:%s", path);
        return 1;
    }
    if (PPPOE_PLUS_SetGlobalFormat(node.get(), PPPOE_PLUS_INFO_CID, "tags-cid-encapsulation-format",
                                   "cid-user-define-text") != 0) {
        PPPOE_PLUS_DiagLog(kDiag, "[PPLUS-CFG] Failed to set system circuit-id format. path:%s", path);
        return 1;
    }
    // A failing Remote-ID half leaves the Circuit-ID half applied.
    if (PPPOE_PLUS_SetGlobalFormat(node.get(), PPPOE_PLUS_INFO_RID, "tags-rid-encapsulation-format",
                                   "rid-user-define-text") != 0) {
        PPPOE_PLUS_DiagLog(kDiag, "[PPLUS-CFG] Failed to set system remote-id format. path:%s", path);
        return 1;
    }
    return 0;
}

uint32_t PPPOE_PLUS_GetPortFormatOpType(void *ctx, uint32_t opType, const char *path, uint8_t *enable,
                                        uint32_t *ifIndex)
{
    if (enable == nullptr || ifIndex == nullptr) {
        return 1;
    }
    XmlNode node = FetchPath(ctx, opType, path);
    if (node == nullptr) {
        PPPOE_PLUS_DiagLog(kDiag, "[PPLUS-CFG] Failed to get port format path (opType), path:%s", OrEmpty(path));
        return 1;
    }
    *enable = IsDelete(opType) ? 0U : 1U;
    *ifIndex = ReadNumber(node, "ifIndex");
    return 0;
}

uint32_t PPPOE_PLUS_GetPortFormatCfg(void *ctx, uint32_t opType, const char *path, InfoFormatNode *cfg)
{
    if (cfg == nullptr) {
        return 1;
    }
    XmlNode node = FetchPath(ctx, opType, path);
    if (node == nullptr) {
        PPPOE_PLUS_DiagLog(kDiag, "[PPLUS-CFG] Failed to get port format path (formatCfg), path:%s", OrEmpty(path));
        return 1;
    }
    cfg->vlanId = static_cast<uint16_t>(ReadNumber(node, "vlan-id"));
    cfg->ceVlanId = static_cast<uint16_t>(ReadNumber(node, "cevlan-id"));
    LeafBuf value{};
    if (ReadLeaf(node, "tags-encapsulation-type", value)) {
        cfg->infoType = MapInfoType(value.data(), 0);
    }
    cfg->infoFormatType =
        ReadLeaf(node, "tags-encapsulation-format", value) ? MapFormat(value.data()) : PPPOE_PLUS_FORMAT_COMMON;
    cfg->userDefineStr[0] = '\0';
    if (cfg->infoFormatType == PPPOE_PLUS_FORMAT_USER_DEFINE) {
        TextBuf text{};
        (void)ReadLeaf(node, "user-define-text", text);
        if (strnlen(text.data(), text.size()) >= sizeof(cfg->userDefineStr) ||
            strcpy_s(cfg->userDefineStr, sizeof(cfg->userDefineStr), text.data()) != 0) {
            cfg->userDefineStr[0] = '\0';
            PPPOE_PLUS_DiagLog(kDiag, "[PPLUS-CFG] Save userDefineStr failed, encapType:%u, formatType=%u",
                               cfg->infoType, cfg->infoFormatType);
            return 1;
        }
    }
    return 0;
}

uint32_t PPPOE_PLUS_FormatIf(void *ctx, uint32_t opType, uint32_t reserved1, uint32_t reserved2, const char *path)
{
    (void)reserved1;
    (void)reserved2;
    if (ctx == nullptr || path == nullptr) {
        return 1;
    }
    uint8_t enable = 0;
    uint32_t ifIndex = 0;
    if (PPPOE_PLUS_GetPortFormatOpType(ctx, opType, path, &enable, &ifIndex) != 0) {
        PPPOE_PLUS_DiagLog(kDiag, "[PPLUS-CFG] Failed to get port format optype.");
        return 1;
    }
    InfoFormatNode cfg{};
    if (PPPOE_PLUS_GetPortFormatCfg(ctx, opType, path, &cfg) != 0) {
        PPPOE_PLUS_DiagLog(kDiag, "[PPLUS-CFG] Failed to get port format cfg.");
        return 1;
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO,
                         "[PPLUS-CFG] Set port format: enable:%u, ifIndex:%u, vlanId:%u, ceVlanId:%u, encapType:%u, "
                         "formatType:%u, usrDefStr:%s",
                         enable, ifIndex, cfg.vlanId, cfg.ceVlanId, cfg.infoType, cfg.infoFormatType,
                         cfg.userDefineStr);
    return PPPOE_PLUS_SetPortFormat(&cfg, ifIndex, enable);
}

uint32_t PPPOE_PLUS_PortDesc(void *ctx, uint32_t opType, uint32_t reserved1, uint32_t reserved2, const char *path)
{
    (void)reserved1;
    (void)reserved2;
    if (ctx == nullptr || path == nullptr) {
        return 1;
    }
    XmlNode node = FetchPath(ctx, opType, path);
    if (node == nullptr) {
        PPPOE_PLUS_DiagLog(kDiag, "[PPLUS-CFG] Failed to get port description path, path:%s", path);
        return 1;
    }
    const uint32_t ifIndex = ReadNumber(node, "ifIndex");
    TextBuf descr{};
    (void)ReadLeaf(node, "ifDescr", descr);  // absent, or too long for the buffer: an empty text
    const bool deleting = IsDelete(opType);
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-CFG] Set port description: opType:%u, ifIndex:%u, desc:%s.",
                         deleting ? 0U : 1U, ifIndex, descr.data());
    if (deleting) {
        (void)PPPOE_PLUS_PortDescDel(ifIndex);
    } else {
        (void)PPPOE_PLUS_PortDescAdd(ifIndex, descr.data(), PPPOE_PLUS_PORTDESC_MAX_LEN);
    }
    return 0;
}

/* ---- Query handlers ---- */

uint32_t PPPOE_PLUS_YangCreateEncapsulationXmlNode(const char *path, xmlNodePtr root)
{
    (void)path;
    xmlNodePtr query = PPPOE_PLUS_YangSetContentAndAddChild(root, "query-encapsulation", nullptr);
    if (query == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Add query-encapsulation failed.");
        return 1;
    }
    const uint32_t vendorId = PPPOE_PLUS_GetVendorId();
    const uint32_t encap = PPPOE_PLUS_GetInfoEncap();
    if (AddLeaf(query, "vendor-id", vendorId) == nullptr || AddLeaf(query, "encapsulation-type", encap) == nullptr) {
        return 1;
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-CFG] Success to get encapsulation record. vendorId:%u, encapType:%u.",
                         vendorId, encap);
    PPPOE_PLUS_DiagLog(kDiag, "[PPLUS-CFG] Success to get encapsulation record. vendorId:%u, encapType:%u.",
                       vendorId, encap);
    return 0;
}

uint32_t PPPOE_PLUS_YangCreatePolicyXmlNode(const char *path, xmlNodePtr root)
{
    (void)path;
    xmlNodePtr query = PPPOE_PLUS_YangSetContentAndAddChild(root, "query-policy", nullptr);
    if (query == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Add query-policy failed.");
        return 1;
    }
    const uint32_t policy = PPPOE_PLUS_GetGlobalInfoPolicy() & 0xFFU;
    const uint32_t ignoreReply = PPPOE_PLUS_GetIgnoreReply() & 0xFFU;
    if (AddLeaf(query, "policy", policy) == nullptr || AddLeaf(query, "ignore-reply", ignoreReply) == nullptr) {
        return 1;
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-CFG] Success to get policy record. policy:%u, ignoreReply:%u.",
                         policy, ignoreReply);
    PPPOE_PLUS_DiagLog(kDiag, "[PPLUS-CFG] Success to get policy record. policy:%u, ignoreReply:%u.", policy,
                       ignoreReply);
    return 0;
}

uint32_t PPPOE_PLUS_YangCreateStatisticsXmlNode(const char *path, xmlNodePtr root)
{
    (void)path;
    xmlNodePtr stats = PPPOE_PLUS_YangSetContentAndAddChild(root, "query-statistics", nullptr);
    if (stats == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Add query-statistics node failed.");
        return 1;
    }
    // Names are looked up outside the store's lock.
    for (const PortStats &port : SnapshotPorts()) {
        char name[PPPOE_PLUS_YANG_IFNAME_LEN] = {};
        (void)PPPOE_PLUS_GetIfNameByIfIndex(port.ifIndex, name, sizeof(name));
        if (name[0] == '\0') {
            continue;  // a port without a name is not reported
        }
        char label[PPPOE_PLUS_YANG_IFNAME_LEN + 8] = {};
        if (port.trust == 1) {
            (void)snprintf_truncated_s(label, sizeof(label), "%s(*T)", name);
        } else {
            (void)snprintf_truncated_s(label, sizeof(label), "%s", name);
        }
        xmlNodePtr table = PPPOE_PLUS_YangSetContentAndAddChild(stats, "query-table", nullptr);
        if (table == nullptr) {
            PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Add query-table node failed.");
            break;  // the entries already built stay in the reply
        }
        (void)PPPOE_PLUS_YangSetContentAndAddChild(table, "interface-name", label);
        auto count = [&port](uint8_t code, uint32_t kind) {
            return port.counters[static_cast<size_t>(PppoePlusCounterIndex(code, kind))];
        };
        uint32_t discarded = 0;
        for (const PppoePlusCounterGroup &group : g_pppoePlusCounterGroups) {
            (void)AddLeaf(table, group.receiveLeaf, count(group.code, PPPOE_PLUS_STAT_RECV));
            (void)AddLeaf(table, group.sendLeaf, count(group.code, PPPOE_PLUS_STAT_SEND));
            discarded += count(group.code, PPPOE_PLUS_STAT_DISCARD);  // wraps at 2^32
        }
        (void)AddLeaf(table, "discarded-packets", discarded);
    }
    return 0;
}

uint32_t PPPOE_PLUS_YangCreateFormatXmlNode(const char *path, xmlNodePtr root)
{
    (void)path;
    xmlNodePtr query = PPPOE_PLUS_YangSetContentAndAddChild(root, "query-format", nullptr);
    if (query == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Add query-format failed.");
        return 1;
    }
    auto *text = static_cast<char *>(PPPOE_PLUS_MemAlloc(PPPOE_PLUS_YANG_FORMAT_INFO_LEN));
    if (text == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Alloc format str memory for xml-data failed.");
        return 1;
    }
    uint32_t ret = 0;
    if (PPPOE_PLUS_GetFormatInfo(text, PPPOE_PLUS_YANG_FORMAT_INFO_LEN) != 0) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Get format info failed.");
        ret = 1;
    } else if (PPPOE_PLUS_YangSetContentAndAddChild(query, "encapsulation-format", text) == nullptr) {
        ret = 1;
    } else {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-CFG] Success to get format record:\r\n%s.", text);
    }
    PPPOE_PLUS_MemFree(text);
    return ret;
}

uint32_t PPPOE_PLUS_YangAddFormatCheckResultToNode(xmlNodePtr parent, const char *text, uint32_t result)
{
    xmlNodePtr entry =
        parent != nullptr ? PPPOE_PLUS_YangSetContentAndAddChild(parent, "query-format-check-list", nullptr) : nullptr;
    if (entry == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Add query format check list node failed.");
        return 1;
    }
    if (AddLeaf(entry, "check-result", result) == nullptr ||
        PPPOE_PLUS_YangSetContentAndAddChild(entry, "user-define-text", OrEmpty(text)) == nullptr) {
        return 1;
    }
    return 0;
}

uint32_t PPPOE_PLUS_YangCreateFormatCheckResultXmlNode(const char *path, xmlNodePtr root)
{
    xmlNodePtr query = PPPOE_PLUS_YangSetContentAndAddChild(root, "query-format-check", nullptr);
    if (query == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Add query format check node failed.");
        return 1;
    }
    TextBuf raw{};
    if (PPPOE_PLUS_YangGetKeyValueByPath(path, PPPOE_PLUS_YANG_FORMAT_CHECK_KEY, raw.data(), raw.size()) != 0) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Failed to get content. path: %s", OrEmpty(path));
        return 1;
    }
    // A backslash is dropped and the character after it taken as it stands.
    TextBuf text{};
    PPPOE_PLUS_GetDealWithValue(raw.data(), static_cast<uint32_t>(strnlen(raw.data(), raw.size())), text.data(),
                                text.size());
    const uint32_t result = PPPOE_PLUS_UserDfdFmtCheck(text.data());
    xmlNodePtr entry = PPPOE_PLUS_YangSetContentAndAddChild(query, "query-format-check-list", nullptr);
    if (entry == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Add query format check list node failed.");
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] add format check result node failed. (ret: %d)", 1);
        return 1;
    }
    if (AddLeaf(entry, "check-result", result) == nullptr ||
        PPPOE_PLUS_YangSetContentAndAddChild(entry, "user-define-text", text.data()) == nullptr) {
        return 1;
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO,
                         "[PPLUS-CFG] Success to get format check result. (userDefineStr: %s, dealWithStr: %s, "
                         "checkResult: %u)",
                         raw.data(), text.data(), result);
    PPPOE_PLUS_DiagLog(kDiag,
                       "[PPLUS-CFG] Success to get format check result. (userDefineStr: %s, dealWithStr: %s, "
                       "checkResult: %u)",
                       raw.data(), text.data(), result);
    return 0;
}

uint32_t PPPOE_PLUS_GetEncapsulation(void *ctx, const char *path, uint32_t reserved, ydbc_bytes **out)
{
    (void)reserved;
    return AnswerQuery(ctx, path, out, "encapsulation", PPPOE_PLUS_YangCreateEncapsulationXmlNode);
}

uint32_t PPPOE_PLUS_GetPolicy(void *ctx, const char *path, uint32_t reserved, ydbc_bytes **out)
{
    (void)reserved;
    return AnswerQuery(ctx, path, out, "policy", PPPOE_PLUS_YangCreatePolicyXmlNode);
}

uint32_t PPPOE_PLUS_GetStatistics(void *ctx, const char *path, uint32_t reserved, ydbc_bytes **out)
{
    (void)reserved;
    return AnswerQuery(ctx, path, out, "statistics", PPPOE_PLUS_YangCreateStatisticsXmlNode);
}

uint32_t PPPOE_PLUS_GetFormat(void *ctx, const char *path, uint32_t reserved, ydbc_bytes **out)
{
    (void)reserved;
    return AnswerQuery(ctx, path, out, "format", PPPOE_PLUS_YangCreateFormatXmlNode);
}

uint32_t PPPOE_PLUS_GetFormatCheckResult(void *ctx, const char *path, uint32_t reserved, ydbc_bytes **out)
{
    (void)reserved;
    return AnswerQuery(ctx, path, out, "format check", PPPOE_PLUS_YangCreateFormatCheckResultXmlNode);
}

/* ---- Operations ---- */

uint32_t PPPOE_PLUS_YANG_ParseDebugMsg(xmlNodePtr node, char *switchBuf, uint32_t switchSize, char *typeBuf,
                                       uint32_t typeSize)
{
    if (node == nullptr) {
        return 1;
    }
    if (PPPOE_PLUS_YangGetChildXmlNodeByName(node, "debug-switch", switchBuf, switchSize) != 0) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG]YANG_RPC: failed to get debug-switch.");
        return 1;
    }
    if (PPPOE_PLUS_YangGetChildXmlNodeByName(node, "debug-type", typeBuf, typeSize) != 0) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG]YANG_RPC: failed to get debug-type.");
        return 1;
    }
    return 0;
}

uint32_t PPPOE_PLUS_YANG_GetDebugInput(const ydbc_bytes *input, PppoePlusDebugInput *out)
{
    if (input == nullptr || out == nullptr) {
        return 1;
    }
    XmlNode node{PPPOE_PLUS_YangParse2XmlNode(input)};
    if (node == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG]Parse YANG xml, pathNode is null.");
        return 1;
    }
    LeafBuf debugSwitch{};
    LeafBuf debugType{};
    if (PPPOE_PLUS_YANG_ParseDebugMsg(node.get(), debugSwitch.data(), debugSwitch.size(), debugType.data(),
                                      debugType.size()) != 0) {
        return 1;
    }
    out->debugSwitch = MapSwitch(debugSwitch.data());
    out->debugType = static_cast<uint32_t>(strtoul(debugType.data(), nullptr, 10));
    return 0;
}

uint32_t PPPOE_PLUS_ProcDebugSwitch(uint32_t debugType, uint32_t debugSwitch)
{
    if (debugType > PPPOE_PLUS_DBG_ALL || debugSwitch > 1) {
        return 1;
    }
    if (PPPOE_PLUS_UpdateDebugSwitch(debugType, debugSwitch) == 1) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG]YANG_RPC: failed to update debug-switch.");
        return 1;
    }
    return 0;
}

uint32_t PPPOE_PLUS_Debugging(void *ctx, ydbc_bytes *input, uint32_t reserved, ydbc_bytes **out)
{
    (void)ctx;
    (void)reserved;
    (void)out;
    PppoePlusDebugInput debug{};
    if (PPPOE_PLUS_YANG_GetDebugInput(input, &debug) != 0) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG]YANG_RPC: failed to get debugging input params.");
        return 1;
    }
    if (PPPOE_PLUS_ProcDebugSwitch(debug.debugType, debug.debugSwitch) != 0) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG]YANG_RPC: failed to set debug switch.");
        return 1;
    }
    return 0;
}

void PPPOE_PLUS_ResetStatisticsProc(void)
{
    PppoePlusForEachPort([](PortCB &cb) {
        for (auto &counter : cb.stats) {
            counter.store(0, std::memory_order_relaxed);
        }
    });
}

uint32_t PPPOE_PLUS_ResetStatistics(void *ctx, ydbc_bytes *input, uint32_t reserved, ydbc_bytes **out)
{
    (void)ctx;
    (void)input;
    (void)reserved;
    (void)out;
    PPPOE_PLUS_ResetStatisticsProc();
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-CFG] Reset statistics successfully.");
    return 0;
}

}  // extern "C"
