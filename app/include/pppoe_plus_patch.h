/* Hot-patch hook and dead-loop monitor registration. */
#ifndef PPPOE_PLUS_PATCH_H
#define PPPOE_PLUS_PATCH_H

#include <stdint.h>

#define PPPOE_PLUS_PATCH_LIB_NAME_OFFSET 397U
#define PPPOE_PLUS_PATCH_REQ_HEAD_LEN 16U

#ifdef __cplusplus
extern "C" {
#endif

extern const char g_pppoePlusPatchSo[];

uint32_t PPPOE_PLUS_C2hPatchEmbedment(void);
uint32_t PPPOE_PLUS_PatchC2hHookfunc(uint32_t action, void *request, const char *libName, uint32_t *outFlag);
uint32_t PPPOE_PLUS_C2hPatchCheckSo(const void *request);
uint32_t PPPOE_PLUS_PatchC2hHookHandle(uint32_t action);
uint32_t PPPOE_PLUS_PatchC2hHookProc(uint32_t action, void *request);
void PPPOE_PLUS_ResPatchC2hActiveFunc(void);
void PPPOE_PLUS_ResPatchC2hDeactiveFunc(void);

uint32_t PPPOE_PLUS_ThreadDeadLoopInit(void);
void PPPOE_PLUS_InitDeadloopMon(void);

#ifdef __cplusplus
}

#include <sys/syscall.h>
#include <unistd.h>

#include "zavk.h"

/* Registers the calling thread with the dead-loop monitor; the thresholds
 * are the same for every task of the module. */
inline uint32_t PppoePlusRegDeadloop()
{
    return ZAVK_RegDeadloopMon(static_cast<pid_t>(syscall(SYS_gettid)), 20, 40, 60, 120);
}
#endif
#endif
