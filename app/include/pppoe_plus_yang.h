/* The configuration database client: the binding of "libydbc.so", the
 * client's lifecycle and subscriptions, the task that serves it, and the
 * XML helpers the handlers use to read requests and build replies. */
#ifndef PPPOE_PLUS_YANG_H
#define PPPOE_PLUS_YANG_H

#include <libxml/tree.h>
#include <stdint.h>

#include "ydbc.h"

#define PPPOE_PLUS_YDBC_SO "libydbc.so"
#define PPPOE_PLUS_YDBC_DLOPEN_FLAGS 0x102 /* RTLD_NOW | RTLD_GLOBAL */
#define PPPOE_PLUS_YDBC_URL "unix:///var/orvale/yangdb.sock"
#define PPPOE_PLUS_YDBC_CLIENT_NAME "pppoe_plus"
#define PPPOE_PLUS_YDBC_TASK_NAME "PPPoE_Plus_Ydbc"
#define PPPOE_PLUS_YDBC_RUN_BUDGET 1000U
#define PPPOE_PLUS_YDBC_NAME_LEN 16U
#define PPPOE_PLUS_YDBC_EPOLL_EVENTS 0x80002005U /* EPOLLIN | EPOLLPRI | EPOLLRDHUP | EPOLLET */

/* Subscribe-group slots. */
#define PPPOE_PLUS_SUB_SLOT_CFG 0U
#define PPPOE_PLUS_SUB_SLOT_GET 1U
#define PPPOE_PLUS_SUB_SLOT_RPC 2U
#define PPPOE_PLUS_SUB_SLOTS 4U

#define PPPOE_PLUS_SUB_CFG_ROWS 10U
#define PPPOE_PLUS_SUB_GET_ROWS 5U
#define PPPOE_PLUS_SUB_RPC_ROWS 2U

/* Leaf buffers of the handlers. */
#define PPPOE_PLUS_YANG_LEAF_LEN 32U
#define PPPOE_PLUS_YANG_TEXT_LEN 256U

#define PPPOE_PLUS_YANG_NS "urn:quendal:yang:quendal-pppoe-plus"
#define PPPOE_PLUS_YANG_ROOT "pppoe-plus"
/* The key of the format-check query. Any text may be checked, so in its
 * value a backslash escapes the character after it: "\\" is a backslash and
 * "\]" a "]" that does not end the key. */
#define PPPOE_PLUS_YANG_FORMAT_CHECK_KEY "user-define-text"

#ifdef __cplusplus
#include <atomic>
extern "C" {

/* The functions of the client library, bound by name. Written once by
 * PPPOE_PLUS_YdbcInit before the client task exists. */
typedef struct PppoePlusYdbcCfg {
    void *handle;
    uint32_t (*initialize)(void);
    ydbc_client *(*clientNew)(const char *name, uint32_t mode, void *reserved);
    int32_t (*connect)(ydbc_client *client, const char *url);
    uint32_t (*subscribe)(ydbc_client *client, const ydbc_subscription *row);
    uint32_t (*activate)(ydbc_client *client, uint32_t flag, ydbc_recover_end_cb recoverEnd, void *ctx);
    uint32_t (*pull)(void *ctx, uint32_t old, const char *path, uint32_t depth, ydbc_bytes **out);
    ydbc_bytes *(*newBytes)(const char *text, uint32_t length, uint32_t kind);
    void (*freeBytes)(ydbc_bytes *bytes);
    uint32_t (*run)(ydbc_client *client, uint32_t budget);
} PppoePlusYdbcCfg;
static_assert(sizeof(PppoePlusYdbcCfg) == 10 * sizeof(void *), "handle and nine functions");

/* The client control record. The task writes the descriptor and the handle
 * while other threads may read them through the accessors. */
typedef struct PppoePlusYdbcCtlTbl {
    std::atomic<uint32_t> taskId;
    std::atomic<int32_t> connectFd;
    char clientName[PPPOE_PLUS_YDBC_NAME_LEN];
    char taskName[PPPOE_PLUS_YDBC_NAME_LEN];
    std::atomic<ydbc_client *> client;
} PppoePlusYdbcCtlTbl;

typedef uint32_t (*PppoePlusYdbcSubScribeFn)(void);

extern PppoePlusYdbcCfg g_pplusYdbcCfg;
extern PppoePlusYdbcCtlTbl g_pplusYdbcCtlTbl;
extern const ydbc_subscription g_pplusCommYdbcSubCfg[PPPOE_PLUS_SUB_CFG_ROWS];
extern const ydbc_subscription g_pplusCommYdbcSubGet[PPPOE_PLUS_SUB_GET_ROWS];
extern const ydbc_subscription g_pplusCommYdbcSubRpc[PPPOE_PLUS_SUB_RPC_ROWS];
extern std::atomic<PppoePlusYdbcSubScribeFn> g_pplusYdbcSubScribeTbl[PPPOE_PLUS_SUB_SLOTS];
#endif

/* Library wrappers: each answers a fixed default when its function is not
 * bound (0, null, or nothing). */
uint32_t PPPOE_PLUS_InitializeYdbcApi(void);
ydbc_client *PPPOE_PLUS_NewClientApi(const char *name, uint32_t mode, void *reserved);
int32_t PPPOE_PLUS_ConnectYdbcApi(ydbc_client *client, const char *url);
uint32_t PPPOE_PLUS_SubscribeYdbcApi(ydbc_client *client, const ydbc_subscription *row);
uint32_t PPPOE_PLUS_ActiveYdbcApi(ydbc_client *client, uint32_t flag, ydbc_recover_end_cb recoverEnd, void *ctx);
uint32_t PPPOE_PLUS_PullYdbcApi(void *ctx, uint32_t old, const char *path, uint32_t depth, ydbc_bytes **out);
ydbc_bytes *PPPOE_PLUS_COM_NewBytesApi(const char *text, uint32_t length, uint32_t kind);
void PPPOE_PLUS_COM_FreeBytesApi(ydbc_bytes *bytes);
uint32_t PPPOE_PLUS_RunYdbcApi(ydbc_client *client, uint32_t budget);

/* Binds the library and initialises it; 0 or 1. */
uint32_t PPPOE_PLUS_YdbcInit(void);

/* Lifecycle. */
void PPPOE_PLUS_RegSubScribeCallBack(uint32_t slot, PppoePlusYdbcSubScribeFn fn);
ydbc_client *PPPOE_PLUS_CreateYdbcClient(const char *name);
uint32_t PPPOE_PLUS_ConnectYdbcClient(ydbc_client *client, int32_t *fd, const char *url);
uint32_t PPPOE_PLUS_SubscribeYdbc(ydbc_client *client, const ydbc_subscription *rows, uint32_t count);
uint32_t PPPOE_PLUS_YdbcSubscribe(const ydbc_subscription *rows, uint32_t count);
uint32_t PPPOE_PLUS_YdbcSubScribeCfg(void);
uint32_t PPPOE_PLUS_YdbcSubScribeGet(void);
uint32_t PPPOE_PLUS_YdbcSubScribeRpc(void);
uint32_t PPPOE_PLUS_SubScribeYang(void);
uint32_t PPPOE_PLUS_ActiveYdbc(ydbc_client *client);
uint32_t PPPOE_PLUS_ActiveYdbcSubscribe(void);
uint32_t PPPOE_PLUS_InitYang(void);
uint32_t PPPOE_PLUS_CfgRecoverEnd(void *ctx, uint32_t result);
void PPPOE_PLUS_ReconnectYdbc(ydbc_client *client, int32_t *fd, const char *url);
uint32_t PPPOE_PLUS_YdbcRun(void);
uint32_t PPPOE_PLUS_YdbcTaskEntry(uintptr_t arg0, uintptr_t arg1, uintptr_t arg2, uintptr_t arg3);
ydbc_client *PPPOE_PLUS_GetYdbcClient(void);
void PPPOE_PLUS_SetYdbcClient(ydbc_client *client);
int32_t PPPOE_PLUS_GetYdbcConnectFd(void);
void PPPOE_PLUS_SetYdbcConnectFd(int32_t fd);
uint32_t PPPOE_PLUS_InitYdbc(void);

/* XML helpers. Nodes handed out are deep copies owned by the caller. */
uint32_t PPPOE_PLUS_GetPathNode(void *ctx, uint32_t opType, const char *path, xmlNodePtr *out);
xmlNodePtr PPPOE_PLUS_YangParse2XmlNode(const ydbc_bytes *bytes);
uint32_t PPPOE_PLUS_YangGetXmlNodeByName(xmlNodePtr first, const char *name, char *buf, uint32_t size);
uint32_t PPPOE_PLUS_YangGetChildXmlNodeByName(xmlNodePtr parent, const char *name, char *buf, uint32_t size);
void PPPOE_PLUS_FreeXmlNode(xmlNodePtr node);
/* The value of a list key ([key='value']) as the path carries it, escapes
 * of the format-check key kept for the caller to undo. */
uint32_t PPPOE_PLUS_YangGetKeyValueByPath(const char *path, const char *key, char *buf, uint32_t size);
xmlNodePtr PPPOE_PLUS_YangSetContentAndAddChild(xmlNodePtr parent, const char *name, const char *text);
xmlNodePtr PPPOE_PLUS_YangCreateXmlRoot(void);
char *PPPOE_PLUS_YangParseXml2Str(xmlNodePtr node);
uint32_t PPPOE_PLUS_YangSetResult(uint32_t kind, const char *text, ydbc_bytes **out);
uint32_t PPPOE_PLUS_YangSetYdbcResult(xmlNodePtr node, ydbc_bytes **out);
void PPPOE_PLUS_SplitParentNodeByOffsize(uint32_t count, char *path);
void PPPOE_PLUS_GetDealWithValue(const char *text, uint32_t length, char *out, uint32_t size);

#ifdef __cplusplus
}
#endif
#endif
