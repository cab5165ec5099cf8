/* Debug output, diagnostic logs and the packet dump helpers. */
#ifndef PPPOE_PLUS_LOG_H
#define PPPOE_PLUS_LOG_H

#include <stdint.h>

#include "im_agent.h"
#include "wick.h"

#define PPPOE_PLUS_LOG_ID_DIAGDEBUG 0x0478047CU  /* informational */
#define PPPOE_PLUS_LOG_ID_DIAGERROR 0x0478047DU
#define PPPOE_PLUS_LOG_ID_DIAGWARN 0x0478047EU

/* Debug levels of PPPOE_PLUS_DbgOutput. */
#define PPPOE_PLUS_DBG_PKT 0U     /* packet dumps */
#define PPPOE_PLUS_DBG_INFO 1U
#define PPPOE_PLUS_DBG_ERR 2U
#define PPPOE_PLUS_DBG_LEVELS 4U
#define PPPOE_PLUS_DBG_ALL 4U     /* UpdateDebugSwitch: every level at once */

#ifdef __cplusplus
#include <atomic>
extern "C" {

/* One entry per debug level: {level, enabled}, written by the configuration
 * task, read by every task. */
typedef struct PppoePlusDebugSwitch {
    std::atomic<uint32_t> level;
    std::atomic<uint32_t> enabled;
} PppoePlusDebugSwitch;
static_assert(sizeof(PppoePlusDebugSwitch) == 8, "two 32-bit words per level");
extern PppoePlusDebugSwitch g_debugSwitch[PPPOE_PLUS_DBG_LEVELS];
extern std::atomic<IM_AGENT_HANDLE_S *> g_pppoePlusIMAgentHandle;
#endif

uint32_t PPPOE_PLUS_InitIMAgent(void);
void PPPOE_PLUS_DbgOutput(uint32_t level, const char *format, ...) __attribute__((format(printf, 2, 3)));
void PPPOE_PLUS_DiagLog(uint32_t logId, const char *format, ...) __attribute__((format(printf, 2, 3)));
void PPPOE_PLUS_Log(uint32_t logId, const char *format, ...) __attribute__((format(printf, 2, 3)));
uint32_t PPPOE_PLUS_UpdateDebugSwitch(uint32_t level, uint32_t enabled);
uint32_t PPPOE_PLUS_GetDebugIdbyLevel(uint32_t level);
void PPPOE_PLUS_DumpPkt(const FpcMbuf *frame);
void PPPOE_PLUS_PrintVendorSpecInfo(const uint8_t *tag);

#ifdef __cplusplus
}

/* Whether debug level level is switched on. */
inline bool PPPOE_PLUS_DbgLevelOn(uint32_t level)
{
    return level < PPPOE_PLUS_DBG_LEVELS && g_debugSwitch[level].enabled.load(std::memory_order_relaxed) != 0;
}

/* Most levels are off most of the time, and the packet path writes dozens of
 * debug lines a frame: the switch is looked at before the call, so a line of
 * a level that is off costs neither the call nor its arguments (which have
 * no effects of their own). The function checks again, as it always did. */
#define PPPOE_PLUS_DbgOutput(level, ...) \
    (PPPOE_PLUS_DbgLevelOn(level) ? PPPOE_PLUS_DbgOutput((level), __VA_ARGS__) : (void)0)
#endif
#endif
