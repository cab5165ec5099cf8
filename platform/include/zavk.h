/* Support services: assertion and dead-loop monitoring. */
#ifndef PLATFORM_ZAVK_H
#define PLATFORM_ZAVK_H

#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Records an impossible state at file:line and logs it. Never aborts: the
 * caller goes on to return its failure value. */
void ZAVK_Assert(const char *file, uint32_t line);

/* Registers the thread tid with the dead-loop watchdog. The four thresholds
 * are seconds spent inside one unit of work before a report of rising
 * severity (warning, error, critical, reset-worthy). */
uint32_t ZAVK_RegDeadloopMon(pid_t tid, uint32_t warnSec, uint32_t errorSec, uint32_t criticalSec,
                             uint32_t resetSec);

#define ZAVK_DM_BEGIN 0U
#define ZAVK_DM_END 1U
/* Brackets one unit of work of the calling (registered) thread. */
void ZAVK_DmOpers(uint32_t op);

#ifdef __cplusplus
}
#endif
#endif
