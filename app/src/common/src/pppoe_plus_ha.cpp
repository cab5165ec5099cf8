// High-availability role of this board, read by every task (diagnostic
// logs are sent only on the master).
#include "pppoe_plus_ha.h"

extern "C" {

std::atomic<uint32_t> g_pplusHaRole{PPPOE_PLUS_HA_ROLE_UNKNOWN};

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

}  // extern "C"
