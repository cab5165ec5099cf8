/* Device manager: identity of this board and of the chassis. Every read
 * fails until the world model is marked ready (the device database is
 * then "answering"). */
#ifndef PLATFORM_DEVM_H
#define PLATFORM_DEVM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define DEVM_OK 0U
#define DEVM_ERR_NOT_READY 0x2001U
#define DEVM_ERR_PARAM 0x2002U

/* Board types reported by DEVM_GetSelfBoardType. */
#define DEVM_BOARD_TYPE_ALL 0U
#define DEVM_BOARD_TYPE_MPU 1U       /* main processing board of a chassis */
#define DEVM_BOARD_TYPE_LPU 2U       /* line-processing board */
#define DEVM_BOARD_TYPE_SFU 3U       /* switch fabric board */
#define DEVM_BOARD_TYPE_SPU_CTL 4U   /* service board, control side */
#define DEVM_BOARD_TYPE_SPU_FWD 5U   /* service board, forwarding side */
#define DEVM_BOARD_TYPE_BOX 6U       /* single-box system */

uint32_t DEVM_DB_GetSelfBoardId(uint32_t *boardId);
uint32_t DEVM_DB_GetMainBoardId(uint32_t *boardId);
uint32_t DEVM_DB_GetSelfChassisId(uint32_t *chassisId);
uint32_t DEVM_GetSelfBoardType(uint32_t *boardType);

/* Slots: a chassis has DEVM_SLOTS_PER_CHASSIS local slots (0..31); the
 * global slot of local slot s in chassis c (from 1) is (c - 1) * 32 + s.
 * Out-of-range ids give DEVM_ERR_PARAM. */
#define DEVM_SLOTS_PER_CHASSIS 32U
uint32_t DEVM_DB_GetGlobalSlotIdByLocalSlotId(uint32_t chassisId, uint32_t localSlotId, uint32_t *globalSlotId);
uint32_t DEVM_DB_GetLocalSlotIdByGlobalSlotId(uint32_t globalSlotId, uint32_t *chassisId, uint32_t *localSlotId);
/* Slot of this board (its board id). */
uint32_t DEVM_GetSelfSlotId(uint32_t *slotId);
/* Logical slot of this board as the board driver numbers it (its board id);
 * 0xFFFFFFFF when it cannot be read. */
uint32_t drv_board_get_self_logic_slotid(void);
/* System MAC address, 6 bytes. */
uint32_t DEVM_DB_GetSysMac(uint8_t *mac);
/* IPv4 address of this board on the internal mesh, host byte order. */
uint32_t DEVM_GetSelfBoardIp(uint32_t *ipAddr);

#ifdef __cplusplus
}
#endif
#endif
