// The configuration database client: the subscription tables, the client
// control record, the task "PPPoE_Plus_Ydbc" that serves the client from an
// epoll loop and reconnects when the database goes away, and the XML
// helpers the handlers use to read requests and build replies.
#include <libxml/parser.h>
#include <strings.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

#include "plat_safe.h"
#include "pppoe_plus_db.h"
#include "pppoe_plus_log.h"
#include "pppoe_plus_mem.h"
#include "pppoe_plus_patch.h"
#include "pppoe_plus_yang.h"
#include "pppoe_plus_yangdb_cfg.h"
#include "ruk.h"
#include "zavk.h"

namespace {

constexpr const char *kYangDbFile = "app/src/yangdb/src/pppoe_plus_yangdb";
// Fixed assert lines: the client task not created, a leaf value not copied.
constexpr uint32_t kLineTaskCreate = 366;
constexpr uint32_t kLineLeafCopy = 439;
constexpr uint32_t kTaskPriority = 100;
constexpr uint32_t kPullWholeTree = 0xFFFFFFFFU;
constexpr int kXmlParseNoBlanks = 256;  // XML_PARSE_NOBLANKS
constexpr uint32_t kKeyPatternLen = 32;

// Set from the creation of the client task until that task ends: one client
// serves for the life of the module, whatever the number of starts of work.
std::atomic<bool> g_ydbcTaskServing{false};

// The client task ends on a failure; a later start of work may try again.
uint32_t EndYdbcTask(const char *why)
{
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "%s", why);
    g_ydbcTaskServing.store(false, std::memory_order_release);
    return 1;
}

ydbc_subscription CfgRow(const char *path, ydbc_config_cb callback)
{
    ydbc_subscription row{};
    row.path = path;
    row.kind = YDBC_SUB_CONFIG;
    row.u.config.priority = YDBC_PRIORITY_DEFAULT;
    row.u.config.events = YDBC_EV_DEFAULT;
    row.configCallback = reinterpret_cast<void *>(callback);
    return row;
}

template <typename Callback>
ydbc_subscription CallRow(const char *path, uint32_t kind, Callback callback)
{
    ydbc_subscription row{};
    row.path = path;
    row.kind = kind;
    row.u.callback = reinterpret_cast<void *>(callback);
    return row;
}

// The text of a byte object parsed into a copied root element, or null.
xmlNodePtr ParseText(const char *text)
{
    if (text == nullptr) {
        return nullptr;
    }
    xmlDocPtr doc = xmlReadMemory(text, static_cast<int>(strlen(text)), nullptr, "utf-8", kXmlParseNoBlanks);
    if (doc == nullptr) {
        return nullptr;
    }
    xmlNodePtr root = xmlDocGetRootElement(doc);
    xmlNodePtr copy = root != nullptr ? xmlCopyNode(root, 1) : nullptr;
    xmlFreeDoc(doc);
    return copy;
}

// The first "]" of text that no backslash escapes, or null.
const char *EscapedKeyEnd(const char *text)
{
    for (const char *at = text; *at != '\0'; at++) {
        if (*at == '\\' && at[1] != '\0') {
            at++;
        } else if (*at == ']') {
            return at;
        }
    }
    return nullptr;
}

const char *NodeName(xmlNodePtr node)
{
    return (node != nullptr && node->name != nullptr) ? reinterpret_cast<const char *>(node->name) : "";
}

}  // namespace

extern "C" {

PppoePlusYdbcCtlTbl g_pplusYdbcCtlTbl = {0, -1, PPPOE_PLUS_YDBC_CLIENT_NAME, PPPOE_PLUS_YDBC_TASK_NAME, nullptr};

const ydbc_subscription g_pplusCommYdbcSubCfg[PPPOE_PLUS_SUB_CFG_ROWS] = {
    CfgRow("/quendal-pppoe-plus:pppoe-plus/global-enable", PPPOE_PLUS_SwitchSys),
    CfgRow("/quendal-pppoe-plus:pppoe-plus/global-tags-policy", PPPOE_PLUS_PolicySys),
    CfgRow("/quendal-ifm:ifm/interfaces/interface/quendal-pppoe-plus:pppoe-plus-port/port-tags-policy",
           PPPOE_PLUS_PolicyIf),
    CfgRow("/quendal-pppoe-plus:pppoe-plus/vendor-id", PPPOE_PLUS_VendorId),
    CfgRow("/quendal-ifm:ifm/interfaces/interface/quendal-pppoe-plus:pppoe-plus-port/trusted-port",
           PPPOE_PLUS_PortTrust),
    CfgRow("/quendal-pppoe-plus:pppoe-plus/global-encapsulation-type", PPPOE_PLUS_EncapType),
    CfgRow("/quendal-pppoe-plus:pppoe-plus/global-ignore-policy", PPPOE_PLUS_IgnoreReply),
    CfgRow("/quendal-pppoe-plus:pppoe-plus/global-tags-format", PPPOE_PLUS_FormatSys),
    CfgRow("/quendal-ifm:ifm/interfaces/interface/quendal-pppoe-plus:pppoe-plus-port/port-tags-formats/"
           "port-tags-format",
           PPPOE_PLUS_FormatIf),
    CfgRow("/quendal-ifm:ifm/interfaces/interface/quendal-pppoe-plus:pppoe-plus-port/if-description",
           PPPOE_PLUS_PortDesc),
};

const ydbc_subscription g_pplusCommYdbcSubGet[PPPOE_PLUS_SUB_GET_ROWS] = {
    CallRow("/quendal-pppoe-plus:pppoe-plus/query-encapsulation", YDBC_SUB_GET, PPPOE_PLUS_GetEncapsulation),
    CallRow("/quendal-pppoe-plus:pppoe-plus/query-policy", YDBC_SUB_GET, PPPOE_PLUS_GetPolicy),
    CallRow("/quendal-pppoe-plus:pppoe-plus/query-statistics/query-table", YDBC_SUB_GET, PPPOE_PLUS_GetStatistics),
    CallRow("/quendal-pppoe-plus:pppoe-plus/query-format", YDBC_SUB_GET, PPPOE_PLUS_GetFormat),
    CallRow("/quendal-pppoe-plus:pppoe-plus/query-format-check/query-format-check-list", YDBC_SUB_GET,
            PPPOE_PLUS_GetFormatCheckResult),
};

const ydbc_subscription g_pplusCommYdbcSubRpc[PPPOE_PLUS_SUB_RPC_ROWS] = {
    CallRow("/quendal-pppoe-plus:set-debugging", YDBC_SUB_RPC, PPPOE_PLUS_Debugging),
    CallRow("/quendal-pppoe-plus:reset-statistics", YDBC_SUB_RPC, PPPOE_PLUS_ResetStatistics),
};

std::atomic<PppoePlusYdbcSubScribeFn> g_pplusYdbcSubScribeTbl[PPPOE_PLUS_SUB_SLOTS] = {};

/* ---- Control record ---- */

ydbc_client *PPPOE_PLUS_GetYdbcClient(void)
{
    return g_pplusYdbcCtlTbl.client.load(std::memory_order_acquire);
}

void PPPOE_PLUS_SetYdbcClient(ydbc_client *client)
{
    g_pplusYdbcCtlTbl.client.store(client, std::memory_order_release);
}

int32_t PPPOE_PLUS_GetYdbcConnectFd(void)
{
    return g_pplusYdbcCtlTbl.connectFd.load(std::memory_order_acquire);
}

void PPPOE_PLUS_SetYdbcConnectFd(int32_t fd)
{
    g_pplusYdbcCtlTbl.connectFd.store(fd, std::memory_order_release);
}

/* ---- Subscriptions ---- */

void PPPOE_PLUS_RegSubScribeCallBack(uint32_t slot, PppoePlusYdbcSubScribeFn fn)
{
    if (slot >= PPPOE_PLUS_SUB_SLOTS) {
        return;
    }
    PppoePlusYdbcSubScribeFn empty = nullptr;
    // The first registration of a slot wins.
    (void)g_pplusYdbcSubScribeTbl[slot].compare_exchange_strong(empty, fn, std::memory_order_acq_rel);
}

uint32_t PPPOE_PLUS_YdbcSubscribe(const ydbc_subscription *rows, uint32_t count)
{
    ydbc_client *client = PPPOE_PLUS_GetYdbcClient();
    if (client == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Get ydbc client fail.");
        return 1;
    }
    if (PPPOE_PLUS_SubscribeYdbc(client, rows, count) != 0) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Subscribe ydbc client fail.");
        return 1;
    }
    return 0;
}

uint32_t PPPOE_PLUS_YdbcSubScribeCfg(void)
{
    return PPPOE_PLUS_YdbcSubscribe(g_pplusCommYdbcSubCfg, PPPOE_PLUS_SUB_CFG_ROWS);
}

uint32_t PPPOE_PLUS_YdbcSubScribeGet(void)
{
    return PPPOE_PLUS_YdbcSubscribe(g_pplusCommYdbcSubGet, PPPOE_PLUS_SUB_GET_ROWS);
}

uint32_t PPPOE_PLUS_YdbcSubScribeRpc(void)
{
    return PPPOE_PLUS_YdbcSubscribe(g_pplusCommYdbcSubRpc, PPPOE_PLUS_SUB_RPC_ROWS);
}

uint32_t PPPOE_PLUS_SubScribeYang(void)
{
    uint32_t ret = 0;
    // A failing group does not stop the later ones.
    for (auto &slot : g_pplusYdbcSubScribeTbl) {
        const PppoePlusYdbcSubScribeFn fn = slot.load(std::memory_order_acquire);
        if (fn != nullptr) {
            ret |= fn();
        }
    }
    return ret;
}

uint32_t PPPOE_PLUS_ActiveYdbcSubscribe(void)
{
    ydbc_client *client = PPPOE_PLUS_GetYdbcClient();
    if (client == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Get ydbc client fail.");
        return 1;
    }
    if (PPPOE_PLUS_ActiveYdbc(client) != 0) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Active ydbc client fail.");
        return 1;
    }
    return 0;
}

uint32_t PPPOE_PLUS_InitYang(void)
{
    if (PPPOE_PLUS_SubScribeYang() != 0) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] SubScribe yang fail.");
        return 1;
    }
    if (PPPOE_PLUS_ActiveYdbcSubscribe() != 0) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Active ydbc subscribe fail.");
        return 1;
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-CFG] Init yang.");
    return 0;
}

/* ---- Client and task ---- */

uint32_t PPPOE_PLUS_InitYdbc(void)
{
    ydbc_client *client = PPPOE_PLUS_CreateYdbcClient(g_pplusYdbcCtlTbl.clientName);
    if (client == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Create ydbc client fail.");
        return 1;
    }
    PPPOE_PLUS_SetYdbcClient(client);
    int32_t fd = PPPOE_PLUS_GetYdbcConnectFd();
    const uint32_t ret = PPPOE_PLUS_ConnectYdbcClient(client, &fd, PPPOE_PLUS_YDBC_URL);
    PPPOE_PLUS_SetYdbcConnectFd(fd);
    if (ret != 0) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Connect ydbc client fail.");
        return 1;
    }
    return 0;
}

uint32_t PPPOE_PLUS_YdbcTaskEntry(uintptr_t arg0, uintptr_t arg1, uintptr_t arg2, uintptr_t arg3)
{
    (void)arg0;
    (void)arg1;
    (void)arg2;
    (void)arg3;
    if (PPPOE_PLUS_InitYdbc() != 0) {
        return EndYdbcTask("[PPLUS-CFG] Init ydbc client fail.");
    }
    if (PPPOE_PLUS_InitYang() != 0) {
        return EndYdbcTask("[PPLUS-CFG] Init yang fail.");
    }
    ydbc_client *client = PPPOE_PLUS_GetYdbcClient();
    if (client == nullptr) {
        return EndYdbcTask("[PPLUS-CFG] Get ydbc client fail.");
    }

    const int epfd = epoll_create(1);
    int32_t fd = PPPOE_PLUS_GetYdbcConnectFd();
    epoll_event ev{};
    ev.events = PPPOE_PLUS_YDBC_EPOLL_EVENTS;
    ev.data.ptr = client;
    (void)epoll_ctl(epfd, EPOLL_CTL_ADD, fd, &ev);
    (void)PPPOE_PLUS_ThreadDeadLoopInit();

    for (;;) {
        epoll_event got{};
        if (epoll_wait(epfd, &got, 1, -1) < 1) {
            continue;
        }
        ZAVK_DmOpers(0);
        if ((got.events & (EPOLLIN | EPOLLPRI)) == 0) {
            // Hang-up or error: the database went away. The client keeps its
            // subscriptions; reconnect and activate again.
            (void)epoll_ctl(epfd, EPOLL_CTL_DEL, fd, nullptr);
            PPPOE_PLUS_SetYdbcConnectFd(-1);
            fd = -1;
            PPPOE_PLUS_ReconnectYdbc(client, &fd, PPPOE_PLUS_YDBC_URL);
            PPPOE_PLUS_SetYdbcConnectFd(fd);
            epoll_event again{};
            again.events = PPPOE_PLUS_YDBC_EPOLL_EVENTS;
            again.data.ptr = client;
            (void)epoll_ctl(epfd, EPOLL_CTL_ADD, fd, &again);
        } else {
            (void)PPPOE_PLUS_RunYdbcApi(client, PPPOE_PLUS_YDBC_RUN_BUDGET);
        }
        ZAVK_DmOpers(1);
    }
}

uint32_t PPPOE_PLUS_YdbcRun(void)
{
    // The client exists only on the main control board or a single box.
    if (PPPOE_PLUS_IsMpu() != 1) {
        return 0;
    }
    // A second task would make a second client and put it in the control
    // record in place of the one that serves.
    if (g_ydbcTaskServing.exchange(true, std::memory_order_acq_rel)) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-CFG] Ydbc client serves already, task %u kept.",
                             g_pplusYdbcCtlTbl.taskId.load(std::memory_order_acquire));
        return 0;
    }
    uint32_t taskId = 0;
    const uint32_t ret = RUK_TaskCreate(g_pplusYdbcCtlTbl.taskName, &taskId, PPPOE_PLUS_YdbcTaskEntry,
                                        kTaskPriority, 0, 0, 0, 0, 0, 0);
    g_pplusYdbcCtlTbl.taskId.store(taskId, std::memory_order_release);
    if (ret != RUK_OK) {
        g_ydbcTaskServing.store(false, std::memory_order_release);
        ZAVK_Assert(kYangDbFile, kLineTaskCreate);
        return 1;
    }
    return 0;
}

/* ---- XML helpers ---- */

uint32_t PPPOE_PLUS_GetPathNode(void *ctx, uint32_t opType, const char *path, xmlNodePtr *out)
{
    if (out == nullptr) {
        return 1;
    }
    *out = nullptr;
    // A delete reads the data as it stood before the change.
    const uint32_t deleting = (opType & YDBC_OP_DELETE) != 0 ? 1U : 0U;
    ydbc_bytes *bytes = nullptr;
    if (PPPOE_PLUS_PullYdbcApi(ctx, deleting, path, kPullWholeTree, &bytes) != 0) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Failed to get content from path. path:%s",
                             path != nullptr ? path : "");
        return 1;
    }
    if (bytes == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Content is NULL. path:%s", path != nullptr ? path : "");
        return 1;
    }
    *out = ParseText(bytes->text);
    if (*out == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Failed to get path node from xml node. content:%s",
                             bytes->text != nullptr ? bytes->text : "");
        PPPOE_PLUS_COM_FreeBytesApi(bytes);
        return 1;
    }
    PPPOE_PLUS_COM_FreeBytesApi(bytes);
    return 0;
}

xmlNodePtr PPPOE_PLUS_YangParse2XmlNode(const ydbc_bytes *bytes)
{
    if (bytes == nullptr) {
        return nullptr;
    }
    xmlNodePtr node = ParseText(bytes->text);
    if (node == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Failed to get path node from xml node. content:%s",
                             bytes->text != nullptr ? bytes->text : "");
    }
    return node;
}

uint32_t PPPOE_PLUS_YangGetXmlNodeByName(xmlNodePtr first, const char *name, char *buf, uint32_t size)
{
    if (first == nullptr || name == nullptr || buf == nullptr || size == 0) {
        return 1;
    }
    for (xmlNodePtr node = first; node != nullptr && node->name != nullptr; node = node->next) {
        if (node->type != XML_ELEMENT_NODE || strcasecmp(reinterpret_cast<const char *>(node->name), name) != 0) {
            continue;
        }
        xmlChar *content = xmlNodeGetContent(node);
        if (content == nullptr) {
            return 1;
        }
        const char *text = reinterpret_cast<const char *>(content);
        if (strlen(text) >= size) {
            xmlFree(content);  // a value that does not fit reads as absent
            return 1;
        }
        if (strcpy_s(buf, size, text) != 0) {
            xmlFree(content);
            ZAVK_Assert(kYangDbFile, kLineLeafCopy);
            return 1;
        }
        xmlFree(content);
        return buf[0] == '\0' ? 1U : 0U;
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-CFG] Can not get node, name:%s startnode:%s.", name,
                         NodeName(first));
    return 1;
}

uint32_t PPPOE_PLUS_YangGetChildXmlNodeByName(xmlNodePtr parent, const char *name, char *buf, uint32_t size)
{
    if (parent == nullptr) {
        return 1;
    }
    return PPPOE_PLUS_YangGetXmlNodeByName(parent->children, name, buf, size);
}

void PPPOE_PLUS_FreeXmlNode(xmlNodePtr node)
{
    if (node != nullptr) {
        xmlFreeNode(node);
    }
}

uint32_t PPPOE_PLUS_YangGetKeyValueByPath(const char *path, const char *key, char *buf, uint32_t size)
{
    if (path == nullptr || key == nullptr || buf == nullptr || size == 0 || path[0] == '\0' || key[0] == '\0') {
        return 1;
    }
    char pattern[kKeyPatternLen] = {};
    if (sprintf_s(pattern, sizeof(pattern), "[%s=", key) <= 0) {
        return 1;
    }
    const char *found = strstr(path, pattern);
    if (found == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] cannot find key field, keyname=%s.", key);
        return 1;
    }
    // Skip the pattern and the opening quote; the value ends before the
    // character that precedes the next "]" (the closing quote). In the
    // format-check key an escaped "]" is part of the value.
    const size_t patternLen = strlen(pattern);
    const char *start = found + patternLen + (found[patternLen] != '\0' ? 1 : 0);
    const char *end = strcmp(key, PPPOE_PLUS_YANG_FORMAT_CHECK_KEY) == 0 ? EscapedKeyEnd(start) : strchr(start, ']');
    if (end == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] cannot find key end flag, keyname=%s.", key);
        return 1;
    }
    if (end - 1 <= start) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] get key field error, keyname=%s.", key);
        return 1;
    }
    const size_t len = static_cast<size_t>(end - 1 - start);
    if (len >= size || strncpy_s(buf, size, start, len) != 0) {
        return 1;
    }
    return 0;
}

xmlNodePtr PPPOE_PLUS_YangSetContentAndAddChild(xmlNodePtr parent, const char *name, const char *text)
{
    if (name == nullptr) {
        return nullptr;
    }
    xmlNodePtr node = xmlNewNode(nullptr, reinterpret_cast<const xmlChar *>(name));
    if (node == nullptr) {
        return nullptr;
    }
    if (text != nullptr) {
        // Added as a text child: the value is taken literally, "&" included.
        xmlNodeAddContent(node, reinterpret_cast<const xmlChar *>(text));
    }
    if (parent != nullptr && xmlAddChild(parent, node) == nullptr) {
        xmlFreeNode(node);
        return nullptr;
    }
    return node;
}

xmlNodePtr PPPOE_PLUS_YangCreateXmlRoot(void)
{
    xmlNodePtr root = xmlNewNode(nullptr, reinterpret_cast<const xmlChar *>(PPPOE_PLUS_YANG_ROOT));
    if (root == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Create yang root failed.");
        return nullptr;
    }
    xmlNsPtr ns = xmlNewNs(root, reinterpret_cast<const xmlChar *>(PPPOE_PLUS_YANG_NS), nullptr);
    if (ns == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Create yang root node failed.");
        xmlFreeNode(root);
        return nullptr;
    }
    xmlSetNs(root, ns);
    return root;
}

char *PPPOE_PLUS_YangParseXml2Str(xmlNodePtr node)
{
    xmlBufferPtr buffer = xmlBufferCreate();
    if (buffer == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Parse xml:pstNodeBuffer is null.");
        return nullptr;
    }
    if (node == nullptr || xmlNodeDump(buffer, node->doc, node, 0, 0) < 0) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Parse xml:parse node error.");
        xmlBufferFree(buffer);
        return nullptr;
    }
    const size_t len = static_cast<size_t>(xmlBufferLength(buffer));
    auto *text = static_cast<char *>(PPPOE_PLUS_MemAlloc(len + 1));
    if (text == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Allocate memory for xml-data failed.");
        xmlBufferFree(buffer);
        return nullptr;
    }
    text[len] = '\0';
    if (len != 0 && memcpy_s(text, len + 1, xmlBufferContent(buffer), len) != 0) {
        PPPOE_PLUS_MemFree(text);
        xmlBufferFree(buffer);
        return nullptr;
    }
    xmlBufferFree(buffer);
    return text;
}

uint32_t PPPOE_PLUS_YangSetResult(uint32_t kind, const char *text, ydbc_bytes **out)
{
    if (out == nullptr) {
        return 1;
    }
    const uint32_t length = text != nullptr ? static_cast<uint32_t>(strlen(text)) : 0U;
    ydbc_bytes *bytes = PPPOE_PLUS_COM_NewBytesApi(text, length, kind);
    if (bytes == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] Ydbc_new_bytes return null.");
        return 1;
    }
    *out = bytes;
    return 0;
}

uint32_t PPPOE_PLUS_YangSetYdbcResult(xmlNodePtr node, ydbc_bytes **out)
{
    if (node == nullptr || out == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] SetYdbcResult input params is null.");
        return 1;
    }
    char *text = PPPOE_PLUS_YangParseXml2Str(node);
    if (text == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] SetYdbcResult parse str is null.");
        return 1;
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-CFG] SetYdbcResult parse str is %s.", text);
    const uint32_t ret = PPPOE_PLUS_YangSetResult(YDBC_BYTES_XML, text, out);
    PPPOE_PLUS_MemFree(text);
    if (ret != 0) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] SetYdbcResult set result fail, ret=%d.",
                             static_cast<int>(ret));
        return 1;
    }
    return 0;
}

void PPPOE_PLUS_SplitParentNodeByOffsize(uint32_t count, char *path)
{
    if (path == nullptr) {
        return;
    }
    // Callers pass a count the path can satisfy: a path without enough "/"
    // never finishes.
    uint32_t cut = 0;
    while (cut < count) {
        char *close = strrchr(path, ']');
        char *open = strrchr(path, '[');
        char *slash = strrchr(path, '/');
        if (close != nullptr && open != nullptr && slash != nullptr) {
            if (slash > open && slash < close) {
                *open = '\0';  // a slash inside a key: drop the key, not a level
                continue;
            }
            *slash = '\0';
            cut++;
        } else if (close == nullptr && open == nullptr && slash != nullptr) {
            *slash = '\0';
            cut++;
        }
    }
}

void PPPOE_PLUS_GetDealWithValue(const char *text, uint32_t length, char *out, uint32_t size)
{
    if (text == nullptr || out == nullptr || size == 0) {
        return;
    }
    uint32_t o = 0;
    for (uint32_t i = 0; i < length && text[i] != '\0' && o + 1 < size; i++) {
        if (text[i] == '\\') {
            i++;
            if (i >= length || text[i] == '\0') {
                break;
            }
        }
        out[o++] = text[i];
    }
    out[o] = '\0';
}

}  // extern "C"
