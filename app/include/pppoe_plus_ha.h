/* High availability: registration with the platform's HA service, the role
 * of this board, the standby board and the current master board. */
#ifndef PPPOE_PLUS_HA_H
#define PPPOE_PLUS_HA_H

#include <stdint.h>

#include "molb.h"

#define PPPOE_PLUS_HA_ROLE_UNKNOWN 0U
#define PPPOE_PLUS_HA_ROLE_MASTER 1U
#define PPPOE_PLUS_HA_ROLE_STANDBY 2U
#define PPPOE_PLUS_HA_ROLE_SLAVE 3U

/* HA event types the module handles. */
#define PPPOE_PLUS_HA_EVT_START_WORK 1U
#define PPPOE_PLUS_HA_EVT_NEW_BACKUP 2U
#define PPPOE_PLUS_HA_EVT_BACKUP_REMOVED 3U
#define PPPOE_PLUS_HA_EVT_PROMPT_PRIMARY 4U
#define PPPOE_PLUS_HA_EVT_PROMPT_BACKUP 7U

#define PPPOE_PLUS_HA_COMP_NAME "pppoe_plus"
#define PPPOE_PLUS_HA_COMP_TYPE "HARDWARE"
#define PPPOE_PLUS_HA_MASTER_IP_BASE 0xAC100000U   /* 172.16.0.0 */

/* Payload of a main-queue message of type 0. */
typedef struct PppoePlusHaMsg {
    uint32_t eventType;
    uint32_t role;
} PppoePlusHaMsg;

/* Information of a new-backup event. */
typedef struct PppoePlusHaNewBackUp {
    uint32_t uiChassisID;
    uint32_t uiBoardID;
} PppoePlusHaNewBackUp;

/* Information of a master-change notification. */
typedef struct PppoePlusHaMMBNotify {
    uint32_t chassisId;
    uint32_t boardId;
} PppoePlusHaMMBNotify;

#ifdef __cplusplus
#include <atomic>
extern "C" {
/* The current master board: written on the HA service thread, read by
 * every task, hence one relaxed atomic per field (plain 32-bit layout). */
typedef struct PppoePlusHaMMBInfo {
    std::atomic<uint32_t> chassisId;
    std::atomic<uint32_t> boardId;
    std::atomic<uint32_t> masterIp;   /* 172.16.chassisId.boardId, host order */
} PppoePlusHaMMBInfo;
static_assert(sizeof(PppoePlusHaMMBInfo) == 12, "three 32-bit words");

extern std::atomic<uint32_t> g_pplusHaRole;
extern std::atomic<uint32_t> g_pplusHaSmbInstId;
extern PppoePlusHaMMBInfo g_pplusHaMMBInfo;
#endif

/* Registers the component and subscribes to master changes; 0 or 1. */
uint32_t PPPOE_PLUS_HaInit(void);
/* The event callback (HA service thread); 0 or 1. */
uint32_t PPPOE_PLUS_HaEventProc(MOLB_HA_EVENT_S *event);
/* The master-change callback (HA service thread); 0 or 1. */
uint32_t PPPOE_PLUS_HaMMBChange(void *info);
/* Posts {eventType, role} to the main queue; 1 only when the payload
 * cannot be allocated. */
uint32_t PPPOE_PLUS_SendHAEventMsgToMain(uint32_t eventType, uint32_t role);
/* Applies an HA message on the init task (payload: PppoePlusHaMsg). */
void PPPOE_PLUS_HaMsgProc(const void *msg);
void PPPOE_PLUS_HaSetRole(uint32_t role);

uint32_t PPPOE_PLUS_HaGetRole(void);
uint32_t PPPOE_PLUS_HaIsMaster(void);
uint32_t PPPOE_PLUS_HaIsStandby(void);
uint32_t PPPOE_PLUS_HaGetSmbInstId(void);
void PPPOE_PLUS_HaSetSmbInstId(uint32_t glbSlot);
/* Sets the standby slot from a chassis and board; 0, or 1 (slot kept) when
 * the pair has no global slot. */
uint32_t PPPOE_PLUS_HaSetSmbInstIdByBoard(uint32_t chassisId, uint32_t boardId);
void PPPOE_PLUS_HaClearSmbInstId(void);
/* Copies the current master board; 1 for a null argument. */
uint32_t PPPOE_PLUS_HaGetMMBInfo(uint32_t *chassisId, uint32_t *boardId, uint32_t *masterIp);

#ifdef __cplusplus
}
#endif
#endif
