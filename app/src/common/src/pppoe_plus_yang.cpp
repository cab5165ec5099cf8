// The configuration database's client library is opened by name at
// start-up and its nine functions are bound into g_pplusYdbcCfg. Every use
// goes through a wrapper that answers a fixed default when the library
// lacks the function, so a missing symbol never crashes the module.
#include <dlfcn.h>

#include "molb.h"
#include "pppoe_plus_binding.hpp"
#include "pppoe_plus_log.h"
#include "pppoe_plus_yang.h"
#include "zavk.h"

namespace {

constexpr const char *kYangFile = "app/src/common/src/pppoe_plus_yang";
constexpr uint32_t kLineNoClientName = 145;  // the assert line of a nameless client, fixed

using Ydbc = PppoePlusBoundLibrary<g_pplusYdbcCfg>;

}  // namespace

extern "C" {

PppoePlusYdbcCfg g_pplusYdbcCfg = {};

uint32_t PPPOE_PLUS_InitializeYdbcApi(void)
{
    return Ydbc::CallOr<&PppoePlusYdbcCfg::initialize>(0U);
}

ydbc_client *PPPOE_PLUS_NewClientApi(const char *name, uint32_t mode, void *reserved)
{
    return Ydbc::CallOr<&PppoePlusYdbcCfg::clientNew>(static_cast<ydbc_client *>(nullptr), name, mode, reserved);
}

int32_t PPPOE_PLUS_ConnectYdbcApi(ydbc_client *client, const char *url)
{
    return Ydbc::CallOr<&PppoePlusYdbcCfg::connect>(0, client, url);
}

uint32_t PPPOE_PLUS_SubscribeYdbcApi(ydbc_client *client, const ydbc_subscription *row)
{
    return Ydbc::CallOr<&PppoePlusYdbcCfg::subscribe>(0U, client, row);
}

uint32_t PPPOE_PLUS_ActiveYdbcApi(ydbc_client *client, uint32_t flag, ydbc_recover_end_cb recoverEnd, void *ctx)
{
    return Ydbc::CallOr<&PppoePlusYdbcCfg::activate>(0U, client, flag, recoverEnd, ctx);
}

uint32_t PPPOE_PLUS_PullYdbcApi(void *ctx, uint32_t old, const char *path, uint32_t depth, ydbc_bytes **out)
{
    return Ydbc::CallOr<&PppoePlusYdbcCfg::pull>(0U, ctx, old, path, depth, out);
}

ydbc_bytes *PPPOE_PLUS_COM_NewBytesApi(const char *text, uint32_t length, uint32_t kind)
{
    return Ydbc::CallOr<&PppoePlusYdbcCfg::newBytes>(static_cast<ydbc_bytes *>(nullptr), text, length, kind);
}

void PPPOE_PLUS_COM_FreeBytesApi(ydbc_bytes *bytes)
{
    const auto fn = g_pplusYdbcCfg.freeBytes;
    if (fn != nullptr) {
        fn(bytes);
    }
}

uint32_t PPPOE_PLUS_RunYdbcApi(ydbc_client *client, uint32_t budget)
{
    return Ydbc::CallOr<&PppoePlusYdbcCfg::run>(0U, client, budget);
}

uint32_t PPPOE_PLUS_YdbcInit(void)
{
    void *lib = dlopen(PPPOE_PLUS_YDBC_SO, PPPOE_PLUS_YDBC_DLOPEN_FLAGS);
    if (lib == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPPOE_PLUS_YANG] Ydbc dlopen failed.");
        return 1;
    }
    if (MOLB_PAT_RestoreForDLL(lib) != MOLB_OK) {
        // The patch mechanism is restoring the library: it must not be bound now.
        const int ret = dlclose(lib);
        if (ret != 0) {
            PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPPOE_PLUS_YANG] InitYdbcIntf close handle failed, ret %d.",
                                 ret);
        }
        return 1;
    }
    g_pplusYdbcCfg.handle = lib;
    Ydbc::Bind<&PppoePlusYdbcCfg::initialize>(lib, "ydbc_initialize");
    Ydbc::Bind<&PppoePlusYdbcCfg::clientNew>(lib, "ydbc_client_new");
    Ydbc::Bind<&PppoePlusYdbcCfg::connect>(lib, "ydbc_connect");
    Ydbc::Bind<&PppoePlusYdbcCfg::subscribe>(lib, "ydbc_subscribe");
    Ydbc::Bind<&PppoePlusYdbcCfg::activate>(lib, "ydbc_activate");
    Ydbc::Bind<&PppoePlusYdbcCfg::pull>(lib, "ydbc_pull");
    Ydbc::Bind<&PppoePlusYdbcCfg::newBytes>(lib, "ydbc_new_bytes");
    Ydbc::Bind<&PppoePlusYdbcCfg::freeBytes>(lib, "ydbc_free_bytes");
    Ydbc::Bind<&PppoePlusYdbcCfg::run>(lib, "ydbc_run");
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPPOE_PLUS_YANG] Ydbc Intf ok.");

    if (PPPOE_PLUS_InitializeYdbcApi() != 0) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPPOE_PLUS_YANG] Init ydbc Api failed");
        return 1;
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPPOE_PLUS_YANG]Init ydbc ok.");
    return 0;
}

ydbc_client *PPPOE_PLUS_CreateYdbcClient(const char *name)
{
    if (name == nullptr) {
        ZAVK_Assert(kYangFile, kLineNoClientName);
        return nullptr;
    }
    ydbc_client *client = PPPOE_PLUS_NewClientApi(name, 1, nullptr);
    if (client == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPPOE_PLUS_YANG] Create ydbc client fail.");
    }
    return client;
}

uint32_t PPPOE_PLUS_ConnectYdbcClient(ydbc_client *client, int32_t *fd, const char *url)
{
    if (client == nullptr || fd == nullptr || url == nullptr) {
        return 1;
    }
    if (*fd >= 0) {
        return 0;
    }
    if (g_pplusYdbcCfg.connect == nullptr) {
        *fd = 0;  // an unbound connect counts as connected on descriptor 0
        return 0;
    }
    // No retry limit: the task waits here until the database answers.
    do {
        (void)sleep(1);
        *fd = PPPOE_PLUS_ConnectYdbcApi(client, url);
    } while (*fd < 0);
    return 0;
}

uint32_t PPPOE_PLUS_SubscribeYdbc(ydbc_client *client, const ydbc_subscription *rows, uint32_t count)
{
    if (client == nullptr || rows == nullptr || count == 0) {
        return 1;
    }
    if (g_pplusYdbcCfg.subscribe == nullptr) {
        return 0;
    }
    for (uint32_t i = 0; i < count; i++) {
        if (PPPOE_PLUS_SubscribeYdbcApi(client, &rows[i]) != 0) {
            PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPPOE_PLUS_YANG] Subscribe ydbc client fail.");
            return 1;
        }
    }
    return 0;
}

uint32_t PPPOE_PLUS_ActiveYdbc(ydbc_client *client)
{
    if (PPPOE_PLUS_ActiveYdbcApi(client, 1, PPPOE_PLUS_CfgRecoverEnd, nullptr) != 0) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPPOE_PLUS_YANG] Active ydbc client fail.");
        return 1;
    }
    return 0;
}

uint32_t PPPOE_PLUS_CfgRecoverEnd(void *ctx, uint32_t result)
{
    (void)ctx;
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO,
                         "[PPPOE_PLUS_YANG] YangDb cfg recover result %u. (0:failed, 1:success)", result);
    return 0;
}

void PPPOE_PLUS_ReconnectYdbc(ydbc_client *client, int32_t *fd, const char *url)
{
    if (client == nullptr || fd == nullptr) {
        return;
    }
    if (url == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPPOE_PLUS_YANG] Connect ydbc client fail.");
        return;
    }
    while (*fd < 0) {
        (void)sleep(1);
        if (g_pplusYdbcCfg.connect == nullptr) {
            *fd = 0;
            break;
        }
        *fd = PPPOE_PLUS_ConnectYdbcApi(client, url);
    }
    // The client keeps its subscriptions over a reconnect; activating again
    // restores the service and replays the stored configuration.
    if (PPPOE_PLUS_ActiveYdbc(client) != 0) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPPOE_PLUS_YANG] Reconnect ydbc client fail.");
    }
}

}  // extern "C"
