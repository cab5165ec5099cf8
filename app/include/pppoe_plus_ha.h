/* High-availability role of this board. */
#ifndef PPPOE_PLUS_HA_H
#define PPPOE_PLUS_HA_H

#include <stdint.h>

#define PPPOE_PLUS_HA_ROLE_UNKNOWN 0U
#define PPPOE_PLUS_HA_ROLE_MASTER 1U
#define PPPOE_PLUS_HA_ROLE_STANDBY 2U
#define PPPOE_PLUS_HA_ROLE_SLAVE 3U

#ifdef __cplusplus
#include <atomic>
extern "C" {
extern std::atomic<uint32_t> g_pplusHaRole;
#endif

uint32_t PPPOE_PLUS_HaGetRole(void);
uint32_t PPPOE_PLUS_HaIsMaster(void);
uint32_t PPPOE_PLUS_HaIsStandby(void);

#ifdef __cplusplus
}
#endif
#endif
