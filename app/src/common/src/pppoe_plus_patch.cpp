// Hot-patch hook (answers the patch service for this module's library
// only) and registration of the module's tasks with the dead-loop monitor.
#include "pppoe_plus_patch.h"

#include <cstring>

#include "molb.h"
#include "plat_safe.h"
#include "pppoe_plus_log.h"
#include "pppoe_plus_mem.h"
#include "zavk.h"

extern "C" {

const char g_pppoePlusPatchSo[] = "libpppoe_plus_frame.so";

uint32_t PPPOE_PLUS_C2hPatchEmbedment(void)
{
    if (MOLB_PAT_C2HRegisterHook(PPPOE_PLUS_PatchC2hHookfunc, 0) != MOLB_OK) {
        return 1;
    }
    PPPOE_PLUS_ResPatchC2hDeactiveFunc();
    PPPOE_PLUS_ResPatchC2hActiveFunc();
    return 0;
}

uint32_t PPPOE_PLUS_C2hPatchCheckSo(const void *request)
{
    const char *libName = static_cast<const char *>(request) + PPPOE_PLUS_PATCH_LIB_NAME_OFFSET;
    return std::strcmp(libName, g_pppoePlusPatchSo) == 0 ? 0U : 1U;
}

uint32_t PPPOE_PLUS_PatchC2hHookHandle(uint32_t action)
{
    PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG, "[PPPoE-Plus]Enter c2h hook handle func.");
    switch (action) {
        case MOLB_PAT_ACTIVATE: PPPOE_PLUS_ResPatchC2hActiveFunc(); return 0;
        case MOLB_PAT_DEACTIVATE: PPPOE_PLUS_ResPatchC2hDeactiveFunc(); return 0;
        default: return 1;
    }
}

uint32_t PPPOE_PLUS_PatchC2hHookProc(uint32_t action, void *request)
{
    if (action > MOLB_PAT_DEACTIVATE) {
        return 1;
    }
    const uint32_t ret = MOLB_PAT_C2HReplyProcessResult(request, PPPOE_PLUS_PatchC2hHookHandle(action));
    if (ret != MOLB_OK) {
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "[PPPoE-Plus]PatchC2HFailed, reply process failed, ret=%u .",
                           ret);
    }
    return ret;
}

uint32_t PPPOE_PLUS_PatchC2hHookfunc(uint32_t action, void *request, const char *libName, uint32_t *outFlag)
{
    if (request == nullptr || libName == nullptr || outFlag == nullptr) {
        return 1;
    }
    if (PPPOE_PLUS_C2hPatchCheckSo(request) != 0) {
        *outFlag = 1;  // another library's request: not handled here
        return 0;
    }
    void *head = PPPOE_PLUS_MemAlloc(PPPOE_PLUS_PATCH_REQ_HEAD_LEN);
    if (head == nullptr) {
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "[PPPoE-Plus]PatchC2HFailed, malloc msg failed, size=%u.",
                           PPPOE_PLUS_PATCH_REQ_HEAD_LEN);
        *outFlag = 1;
        return 1;
    }
    if (memcpy_s(head, PPPOE_PLUS_PATCH_REQ_HEAD_LEN, request, PPPOE_PLUS_PATCH_REQ_HEAD_LEN) != 0) {
        PPPOE_PLUS_MemFree(head);
        return 1;
    }
    if (action == MOLB_PAT_ACTIVATE || action == MOLB_PAT_DEACTIVATE) {
        const uint32_t ret = MOLB_PAT_C2HReplyProcessResult(head, PPPOE_PLUS_PatchC2hHookHandle(action));
        if (ret == MOLB_OK) {
            PPPOE_PLUS_MemFree(head);
            *outFlag = 0;
            return 0;
        }
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "[PPPoE-Plus]PatchC2HFailed, reply process failed, ret=%u .",
                           ret);
    }
    PPPOE_PLUS_MemFree(head);
    *outFlag = 1;
    return 1;
}

void PPPOE_PLUS_ResPatchC2hActiveFunc(void)
{
    PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG, "[PPPoE-Plus]Enter patch c2h active func.");
}

void PPPOE_PLUS_ResPatchC2hDeactiveFunc(void)
{
    PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG, "[PPPoE-Plus]Enter patch c2h deactive func.");
}

uint32_t PPPOE_PLUS_ThreadDeadLoopInit(void)
{
    const uint32_t ret = PppoePlusRegDeadloop();
    if (ret != 0) {
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR,
                           "[PPPoEPlus_THREAD]Register deadloop monitor failed, return is %d.", static_cast<int>(ret));
    }
    return ret;
}

void PPPOE_PLUS_InitDeadloopMon(void)
{
    if (PppoePlusRegDeadloop() != 0) {
        ZAVK_Assert("app/src/common/src/pppoe_plus_tirn", 99);
    }
}

}  // extern "C"
