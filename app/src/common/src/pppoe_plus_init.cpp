// Entry points of the module and its start-up order. The framework's
// thread builds the memory handle, the patch hook, the diagnostic-log
// handle and the epoll set, then starts "PPPoE_Plus_Init", which waits for
// the device database, brings the subsystems up in a fixed order and
// becomes the module's event loop.
#include "pppoe_plus_init.h"

#include <syslog.h>

#include "db.h"
#include "devm.h"
#include "pppoe_plus_cfg.h"
#include "pppoe_plus_db.h"
#include "pppoe_plus_evt.h"
#include "pppoe_plus_fpc.h"
#include "pppoe_plus_guard.hpp"
#include "pppoe_plus_ha.h"
#include "pppoe_plus_log.h"
#include "pppoe_plus_main.h"
#include "pppoe_plus_mem.h"
#include "pppoe_plus_patch.h"
#include "pppoe_plus_tirn.h"
#include "pppoe_plus_tlv.h"
#include "pppoe_plus_yang.h"
#include "ruk.h"

namespace {

constexpr uint32_t kTaskPriority = 100;
constexpr uint32_t kFrmInstResetMode = 5;

void Info(const char *text)
{
    PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG, "%s", text);
}

void Error(const char *text)
{
    PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "%s", text);
}

uint32_t CreateInitTask()
{
    uint32_t taskId = 0;
    const uint32_t ret =
        RUK_TaskCreate("PPPoE_Plus_Init", &taskId, PPPOE_PLUS_InitTaskEntry, kTaskPriority, 0, 0, 0, 0, 0, 0);
    if (ret != RUK_OK) {
        Error("[PPPOEPLUS_FRAME]Create init task failed!");
        return ret;
    }
    Info("[PPPOEPLUS_FRAME]Create init task succeed!");
    return RUK_OK;
}

// Reads the self board id until the device database answers.
uint32_t WaitSelfBoardId(uint32_t *boardId)
{
    uint32_t ret = DEVM_DB_GetSelfBoardId(boardId);
    while (ret != DEVM_OK) {
        RUK_T_Delay(PPPOE_PLUS_READY_WAIT_MS);
        ret = DEVM_DB_GetSelfBoardId(boardId);
    }
    return ret;
}

}  // namespace

extern "C" {

uint32_t PPPOE_PLUS_PreFrameInit(void)
{
    return 0;
}

uint32_t PPPOE_PLUS_FrameInit(void)
{
    syslog(LOG_INFO, "[PPPoE_PLUS] Udf Create");
    if (PPPOE_PLUS_InitMemHandle() != 0) {
        return 1;
    }
    (void)PPPOE_PLUS_C2hPatchEmbedment();
    if (PPPOE_PLUS_InitIMAgent() != 0) {
        return 1;
    }
    Info("[PPPOEPLUS_FRAME] frame init start.");
    const int32_t epollFd = MESH_EpollCreate();
    if (epollFd < 0) {
        Error("[PPPOEPLUS_FRAME] Create epoll fd failed.");
        return 1;
    }
    g_pppoePlusGlbEpollFd.store(epollFd, std::memory_order_release);
    if (CreateInitTask() != RUK_OK) {
        return 1;
    }
    Info("[PPPOEPLUS_FRAME] frame init end.");
    return 0;
}

uint32_t PPPOE_PLUS_Run(void)
{
    return CreateInitTask();
}

uint32_t PPPOE_PLUS_InitTaskEntry(uintptr_t, uintptr_t, uintptr_t, uintptr_t)
{
    const uint32_t ret = PPPOE_PLUS_TaskInit();
    if (ret != 0) {
        return ret;
    }
    return PPPOE_PLUS_InitTaskLoop(g_pppoePlusGlbEpollFd.load(std::memory_order_acquire));
}

uint32_t PPPOE_PLUS_TaskInit(void)
{
    if (PPPOE_PLUS_YdbcInit() != 0) {
        Error("[PPPOEPLUS_FRAME]Ydbc Init failed.");
        return 1;
    }
    PPPOE_PLUS_WaitForDevmDBReady();
    (void)PPPOE_PLUS_InitData();  // a failed first step does not stop the start-up
    if (PPPOE_PLUS_HaInit() != 0) {
        Error("[PPPOEPLUS_FRAME]Ha init failed.");
        return 1;
    }
    return 0;
}

uint32_t PPPOE_PLUS_InitData(void)
{
    if (PPPOE_PLUS_InitFpcIntf() != 0) {
        Error("[PPPoE-Plus]Init Fpc Intf fail.");
        return 1;
    }
    Info("[PPPOEPLUS_FRAME] InitData step1 end.");
    (void)PPPOE_PLUS_InitTirn();  // waits for readiness; a session fault does not stop the start-up
    Info("[PPPOEPLUS_FRAME] InitData step2 end.");
    (void)PPPOE_PLUS_CreateMainTask();
    Info("[PPPOEPLUS_FRAME] InitData step3 end.");
    PPPOE_PLUS_RegSubScribeCallBack(PPPOE_PLUS_SUB_SLOT_CFG, PPPOE_PLUS_YdbcSubScribeCfg);
    PPPOE_PLUS_RegSubScribeCallBack(PPPOE_PLUS_SUB_SLOT_RPC, PPPOE_PLUS_YdbcSubScribeRpc);
    PPPOE_PLUS_RegSubScribeCallBack(PPPOE_PLUS_SUB_SLOT_GET, PPPOE_PLUS_YdbcSubScribeGet);
    PPPOE_PLUS_CreateDBSubConn();
    (void)PPPOE_PLUS_DbSubFuncInit();
    (void)PPPOE_PLUS_EvtSubscribeInit();
    (void)PPPOE_PLUS_InitKeyWordDict();
    PPPOE_PLUS_InitGlobalCfgData();
    Info("[PPPOEPLUS_FRAME] InitData finish.");
    return 0;
}

uint32_t PPPOE_PLUS_MainExit(void)
{
    syslog(LOG_INFO, "[PPPoE_PLUS] Main exit");
    return PPPOE_PLUS_DestroyDbSubConn();
}

uint32_t PPPOE_PLUS_WaitDevmReady(void)
{
    uint32_t boardId = 0;
    return WaitSelfBoardId(&boardId);
}

uint32_t PPPOE_PLUS_GetSelfFrmInstInfo(uint32_t slot, FrmInstInfo *info)
{
    DB_OBJ_S *obj = nullptr;
    uint32_t ret = db_create_frm_inst_obj(DB_TABLE_FRM_INST, 0, &obj);
    if (ret != DB_OK) {
        return ret;
    }
    PppoePlusScopeExit release([obj]() { (void)db_release_frm_inst_object(obj); });

    uint32_t count = 0;
    ret = db_get_table_record_count(obj, &count);
    if (ret != DB_OK || count == 0) {
        return ret;  // an empty table is no error: the record stays zero
    }
    DB_ITER_S *iter = nullptr;
    ret = db_reset_frm_inst_object(obj, kFrmInstResetMode);
    if (ret == DB_OK) {
        ret = db_create_root_iter(obj, 0, 0, &iter);
    }
    if (ret == DB_OK) {
        ret = db_root_iterator_next(iter);
    }
    if (ret != DB_OK) {
        return ret;
    }
    for (uint32_t i = 1;; i++) {
        ret = db_get_frm_inst_local_slot(obj, &info->localSlot);
        if (ret == DB_OK && info->localSlot == static_cast<int32_t>(slot)) {
            break;
        }
        if (i == count || db_root_iterator_next(iter) != DB_OK) {
            return ret;  // not found is no error
        }
    }
    ret = db_get_frm_inst_role(obj, &info->role);
    if (ret == DB_OK) {
        ret = db_get_frm_inst_mod_state(obj, &info->modState);
    }
    if (ret == DB_OK) {
        ret = db_get_frm_inst_state(obj, &info->state);
    }
    return ret;
}

uint32_t PPPOE_PLUS_GetFrmReadyState(uint32_t slot, const FrmInstInfo *info)
{
    uint32_t mainBoardId = 0;
    if (info == nullptr || DEVM_DB_GetMainBoardId(&mainBoardId) != DEVM_OK) {
        return 0;
    }
    if (mainBoardId == slot) {
        return info->modState == PPPOE_PLUS_MODSTATE_MAIN_READY ? 1U : 0U;
    }
    return (info->modState == PPPOE_PLUS_MODSTATE_READY || info->modState == PPPOE_PLUS_MODSTATE_RUNNING) ? 1U : 0U;
}

uint32_t PPPOE_PLUS_WaitFrmReady(uint32_t slot)
{
    for (;;) {
        FrmInstInfo info = {};
        const uint32_t ret = PPPOE_PLUS_GetSelfFrmInstInfo(slot, &info);
        if (PPPOE_PLUS_GetFrmReadyState(slot, &info) != 0) {
            return ret;
        }
        RUK_T_Delay(PPPOE_PLUS_READY_WAIT_MS);
    }
}

uint32_t PPPOE_PLUS_WaitReady(void)
{
    uint32_t boardId = 0;
    (void)WaitSelfBoardId(&boardId);
    return PPPOE_PLUS_WaitFrmReady(boardId);
}

void PPPOE_PLUS_WaitForDevmDBReady(void)
{
    uint32_t mainId = 0;
    uint32_t selfId = 0;
    for (;;) {
        uint32_t ret = DEVM_DB_GetMainBoardId(&mainId);
        if (ret != DEVM_OK) {
            syslog(LOG_INFO, "[PPPOEPLUS_FRAME]MainBoardId is not ready.ret=%u.", ret);
        } else if ((ret = DEVM_DB_GetSelfBoardId(&selfId)) != DEVM_OK) {
            syslog(LOG_INFO, "[PPPOEPLUS_FRAME]SelfBoardId is not ready.ret=%u.", ret);
        } else {
            break;
        }
        RUK_TaskDelay(PPPOE_PLUS_READY_WAIT_MS);
    }
    syslog(LOG_INFO, "DEVM_DB is ready. mainId= %u, selfId = %u..", mainId, selfId);
}

}  // extern "C"
