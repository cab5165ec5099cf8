// High availability: the module registers as a hardware component with the
// platform's HA service and follows the board's role. Events arrive on the
// service's thread; there only the standby slot and the master board are
// stored, role changes and the start of work are posted to the main queue
// and applied on "PPPoE_Plus_Init", where the start of work also starts the
// configuration client. The one exception is a master change naming this
// board, which sets the role on the service's thread.
#include "pppoe_plus_ha.h"

#include <unistd.h>

#include <cstddef>

#include "devm.h"
#include "plat_safe.h"
#include "pppoe_plus_db.h"
#include "pppoe_plus_intf.h"
#include "pppoe_plus_log.h"
#include "pppoe_plus_main.h"
#include "pppoe_plus_mem.h"
#include "pppoe_plus_types.h"
#include "pppoe_plus_yang.h"

static_assert(sizeof(MOLB_HA_COMP_INFO_S) == 152, "the HA registration record is 152 bytes");
static_assert(offsetof(MOLB_HA_COMP_INFO_S, compType) == 64 && offsetof(MOLB_HA_COMP_INFO_S, pid) == 128 &&
                  offsetof(MOLB_HA_COMP_INFO_S, flag) == 132 && offsetof(MOLB_HA_COMP_INFO_S, reserved) == 136,
              "name, type, process id, flag, 16 reserved bytes");
static_assert(sizeof(PppoePlusHaMsg) == 8, "the HA message payload is 8 bytes");
static_assert(sizeof(PppoePlusHaNewBackUp) == 8 && sizeof(PppoePlusHaMMBNotify) == 8, "two 32-bit ids");

namespace {

constexpr uint32_t kRegisterFlag = 1;
constexpr uint32_t kSwitchoverState = 1;

// The role a request for `role` may store: master only on a main processing board.
uint32_t AllowedRole(uint32_t role)
{
    if (role == PPPOE_PLUS_HA_ROLE_MASTER) {
        return PPPOE_PLUS_IsMpu() == 1 ? PPPOE_PLUS_HA_ROLE_MASTER : PPPOE_PLUS_HA_ROLE_UNKNOWN;
    }
    return role;
}

void StoreRole(uint32_t role)
{
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-HA] Set role %d. (0: unknown 1: master 2: standby 3: slave)",
                         static_cast<int>(role));
    PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG, "[PPLUS-HA] Set role %d. (0: unknown 1: master 2: standby 3: slave)",
                       static_cast<int>(role));
    g_pplusHaRole.store(role, std::memory_order_relaxed);
}

uint32_t HaStartWork(const MOLB_HA_EVENT_S *event)
{
    if (event->eventInfo == nullptr) {
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "[PPLUS-HA] HaStartWork get eventInfo null.");
        return 1;
    }
    const uint32_t boardRole = *static_cast<const uint32_t *>(event->eventInfo);
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-HA] Get board role [%d].", static_cast<int>(boardRole));
    PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG, "[PPLUS-HA] Get board role [%d].", static_cast<int>(boardRole));
    if (boardRole != PPPOE_PLUS_HA_ROLE_MASTER && boardRole != PPPOE_PLUS_HA_ROLE_STANDBY &&
        boardRole != PPPOE_PLUS_HA_ROLE_SLAVE) {
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "[PPLUS-HA] Get board role [%d].",
                           static_cast<int>(boardRole));
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "[PPLUS-HA] HaStartWork get startMsg fail.");
        return 1;
    }
    PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG, "[PPLUS-HA] HaStartWork get board role eventType:%u, role:%u.",
                       PPPOE_PLUS_HA_EVT_START_WORK, boardRole);
    return PPPOE_PLUS_SendHAEventMsgToMain(PPPOE_PLUS_HA_EVT_START_WORK, boardRole);
}

uint32_t HaNewBackUp(const MOLB_HA_EVENT_S *event)
{
    if (event->eventInfo == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-HA] HaNewBackUp get eventInfo null.");
        return 1;
    }
    const auto *backup = static_cast<const PppoePlusHaNewBackUp *>(event->eventInfo);
    PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG, "[PPLUS-HA] HaNewBackUp get uiChassisID:%u, uiBoardID:%u.",
                       backup->uiChassisID, backup->uiBoardID);
    if (backup->uiChassisID == 0 && backup->uiBoardID == 0) {
        PPPOE_PLUS_HaClearSmbInstId();
    } else {
        (void)PPPOE_PLUS_HaSetSmbInstIdByBoard(backup->uiChassisID, backup->uiBoardID);
    }
    return MOLB_HA_ReportSwitchoverState(PPPOE_PLUS_HA_COMP_NAME, kSwitchoverState, 0);
}

}  // namespace

extern "C" {

std::atomic<uint32_t> g_pplusHaRole{PPPOE_PLUS_HA_ROLE_UNKNOWN};
std::atomic<uint32_t> g_pplusHaSmbInstId{0};
PppoePlusHaMMBInfo g_pplusHaMMBInfo{};

uint32_t PPPOE_PLUS_HaInit(void)
{
    MOLB_HA_COMP_INFO_S record;
    (void)memset_s(&record, sizeof(record), 0, sizeof(record));
    (void)strcpy_s(record.compName, sizeof(record.compName), PPPOE_PLUS_HA_COMP_NAME);
    (void)strcpy_s(record.compType, sizeof(record.compType), PPPOE_PLUS_HA_COMP_TYPE);
    record.pid = static_cast<uint32_t>(getpid());
    record.flag = kRegisterFlag;
    uint32_t ret = MOLB_HA_CompRegister(&record, PPPOE_PLUS_HaEventProc, 0);
    if (ret != 0) {
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "[PPLUS-HA] MOLB HA CompRegister error, ret=0x%x", ret);
        return 1;
    }
    ret = MOLB_HA_SubsAMMBPosition(PPPOE_PLUS_HA_COMP_NAME, PPPOE_PLUS_HaMMBChange, 0);
    if (ret != 0) {
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "[PPLUS-HA] Reg ha master change event failed, ret=%u.",
                           ret);
        return 1;
    }
    PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG, "[PPLUS-HA] HA init successfully.");
    return 0;
}

uint32_t PPPOE_PLUS_HaEventProc(MOLB_HA_EVENT_S *event)
{
    if (event == nullptr) {
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "[PPLUS-HA] Event proc param is null.");
        return 1;
    }
    PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG, "[PPLUS-HA] Start to process HA event : %d.",
                       static_cast<int>(event->eventType));
    switch (event->eventType) {
        case PPPOE_PLUS_HA_EVT_START_WORK:
            return HaStartWork(event);
        case PPPOE_PLUS_HA_EVT_NEW_BACKUP:
            return HaNewBackUp(event);
        case PPPOE_PLUS_HA_EVT_BACKUP_REMOVED:
            PPPOE_PLUS_HaClearSmbInstId();
            return 0;
        case PPPOE_PLUS_HA_EVT_PROMPT_PRIMARY:
            PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG,
                               "[PPLUS-HA] HaPromptPrimary get board role eventType:%u, role:%u.",
                               PPPOE_PLUS_HA_EVT_PROMPT_PRIMARY, PPPOE_PLUS_HA_ROLE_MASTER);
            return PPPOE_PLUS_SendHAEventMsgToMain(PPPOE_PLUS_HA_EVT_PROMPT_PRIMARY, PPPOE_PLUS_HA_ROLE_MASTER);
        case PPPOE_PLUS_HA_EVT_PROMPT_BACKUP:
            PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG,
                               "[PPLUS-HA] HaPromtBackUp get board role eventType:%u, role:%u.",
                               PPPOE_PLUS_HA_EVT_PROMPT_BACKUP, PPPOE_PLUS_HA_ROLE_STANDBY);
            return PPPOE_PLUS_SendHAEventMsgToMain(PPPOE_PLUS_HA_EVT_PROMPT_BACKUP, PPPOE_PLUS_HA_ROLE_STANDBY);
        default:
            return 0;  // 5, 6 and unknown types are not this module's concern
    }
}

uint32_t PPPOE_PLUS_SendHAEventMsgToMain(uint32_t eventType, uint32_t role)
{
    auto *payload = static_cast<PppoePlusHaMsg *>(PPPOE_PLUS_MemAlloc(sizeof(PppoePlusHaMsg)));
    if (payload == nullptr) {
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "[PPLUS-HA] SendHAEventMsgToMain malloc failed.");
        return 1;
    }
    payload->eventType = eventType;
    payload->role = role;
    const MainQueueMsg msg = {PPPOE_PLUS_MSG_HA, reinterpret_cast<uint64_t>(payload), sizeof(PppoePlusHaMsg), 0};
    const uint32_t ret =
        PPPOE_PLUS_QueueWrite(g_pppoePlusRegQueHandle.load(std::memory_order_acquire), &msg, sizeof(msg));
    if (ret != 0) {
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "[PPLUS-HA] Send ha event msg to main queue failed, ret=%u.",
                           ret);
        PPPOE_PLUS_MemFree(payload);
    }
    // The HA service is not told of a queue failure: the next event brings the role.
    return 0;
}

void PPPOE_PLUS_HaMsgProc(const void *msg)
{
    if (msg == nullptr) {
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "[PPLUS-HA] HA event msg is null.");
        return;
    }
    const auto *haMsg = static_cast<const PppoePlusHaMsg *>(msg);
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-HA] Get ha event, eventType=%u.", haMsg->eventType);
    PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG, "[PPLUS-HA] Get ha event, eventType=%u.", haMsg->eventType);
    switch (haMsg->eventType) {
        case PPPOE_PLUS_HA_EVT_PROMPT_BACKUP:
            PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-HA] UpgradeBackUp get ha role, role=%u.", haMsg->role);
            PPPOE_PLUS_HaSetRole(haMsg->role);
            break;
        case PPPOE_PLUS_HA_EVT_PROMPT_PRIMARY:
            PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-HA] UpgradeMaster get ha role, role=%u.", haMsg->role);
            PPPOE_PLUS_HaSetRole(haMsg->role);
            break;
        case PPPOE_PLUS_HA_EVT_START_WORK:
            PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-HA] StartWork get ha role, role=%u.", haMsg->role);
            PPPOE_PLUS_HaSetRole(haMsg->role);
            if (PPPOE_PLUS_YdbcRun() != 0) {
                PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-HA] Run ydbc failed.");
                PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "[PPLUS-HA] Run ydbc failed.");
            }
            break;
        default:
            PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "[PPLUS-HA] Get ha event invalid, eventType=%u.",
                               haMsg->eventType);
            break;
    }
}

void PPPOE_PLUS_HaSetRole(uint32_t role)
{
    if (role == PPPOE_PLUS_HaGetRole()) {
        return;
    }
    StoreRole(AllowedRole(role));
}

uint32_t PPPOE_PLUS_HaMMBChange(void *info)
{
    if (info == nullptr) {
        return 1;
    }
    const auto *notify = static_cast<const PppoePlusHaMMBNotify *>(info);
    const uint32_t oldChassis = g_pplusHaMMBInfo.chassisId.load(std::memory_order_relaxed);
    const uint32_t oldBoard = g_pplusHaMMBInfo.boardId.load(std::memory_order_relaxed);
    const uint32_t masterIp = PPPOE_PLUS_HA_MASTER_IP_BASE | (notify->chassisId << 8) | notify->boardId;
    g_pplusHaMMBInfo.chassisId.store(notify->chassisId, std::memory_order_relaxed);
    g_pplusHaMMBInfo.boardId.store(notify->boardId, std::memory_order_relaxed);
    g_pplusHaMMBInfo.masterIp.store(masterIp, std::memory_order_relaxed);

    uint32_t glbSlot = 0;
    if (PPPOE_PLUS_GetGlobalSlotId(notify->chassisId, notify->boardId, &glbSlot) != PPPOE_PLUS_OK) {
        glbSlot = 0;
    }
    if (glbSlot == PPPOE_PLUS_GetSelfBoardId() && PPPOE_PLUS_HaGetRole() != PPPOE_PLUS_HA_ROLE_MASTER) {
        StoreRole(AllowedRole(PPPOE_PLUS_HA_ROLE_MASTER));
    }
    PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG, "[PPLUS-HA] Ha notify new mmb(%u/%u), old mmb(%u/%u), masterIp(%u).",
                       notify->chassisId, notify->boardId, oldChassis, oldBoard, masterIp);
    return 0;
}

uint32_t PPPOE_PLUS_HaGetRole(void)
{
    return g_pplusHaRole.load(std::memory_order_relaxed);
}

uint32_t PPPOE_PLUS_HaIsMaster(void)
{
    return PPPOE_PLUS_HaGetRole() == PPPOE_PLUS_HA_ROLE_MASTER ? 1U : 0U;
}

uint32_t PPPOE_PLUS_HaIsStandby(void)
{
    return PPPOE_PLUS_HaGetRole() == PPPOE_PLUS_HA_ROLE_STANDBY ? 1U : 0U;
}

uint32_t PPPOE_PLUS_HaGetSmbInstId(void)
{
    return g_pplusHaSmbInstId.load(std::memory_order_relaxed);
}

void PPPOE_PLUS_HaSetSmbInstId(uint32_t glbSlot)
{
    g_pplusHaSmbInstId.store(glbSlot, std::memory_order_relaxed);
}

uint32_t PPPOE_PLUS_HaSetSmbInstIdByBoard(uint32_t chassisId, uint32_t boardId)
{
    uint32_t glbSlot = 0;
    if (PPPOE_PLUS_GetGlobalSlotId(chassisId, boardId, &glbSlot) != PPPOE_PLUS_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-HA] Set smb inst to get global slot failed.");
        return 1;
    }
    PPPOE_PLUS_HaSetSmbInstId(glbSlot);
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-HA] Set smb inst to get global slot success. glbSlot:%u",
                         glbSlot);
    return 0;
}

void PPPOE_PLUS_HaClearSmbInstId(void)
{
    PPPOE_PLUS_HaSetSmbInstId(0);
}

uint32_t PPPOE_PLUS_HaGetMMBInfo(uint32_t *chassisId, uint32_t *boardId, uint32_t *masterIp)
{
    if (chassisId == nullptr || boardId == nullptr || masterIp == nullptr) {
        return 1;
    }
    *chassisId = g_pplusHaMMBInfo.chassisId.load(std::memory_order_relaxed);
    *boardId = g_pplusHaMMBInfo.boardId.load(std::memory_order_relaxed);
    *masterIp = g_pplusHaMMBInfo.masterIp.load(std::memory_order_relaxed);
    return 0;
}

}  // extern "C"
