/* Entry points called by the hosting framework, the start-up order and the
 * readiness waits. */
#ifndef PPPOE_PLUS_INIT_H
#define PPPOE_PLUS_INIT_H

#include <stdint.h>

#define PPPOE_PLUS_READY_WAIT_MS 10000U
#define PPPOE_PLUS_MODSTATE_MAIN_READY 12U
#define PPPOE_PLUS_MODSTATE_READY 5U
#define PPPOE_PLUS_MODSTATE_RUNNING 8U

#ifdef __cplusplus
extern "C" {
#endif

/* A framework instance as table 9 of the object database holds it. */
typedef struct FrmInstInfo {
    uint32_t role;
    uint32_t modState;
    uint32_t state;
    int32_t localSlot;
} FrmInstInfo;

uint32_t PPPOE_PLUS_PreFrameInit(void);
uint32_t PPPOE_PLUS_FrameInit(void);
uint32_t PPPOE_PLUS_Run(void);
uint32_t PPPOE_PLUS_InitTaskEntry(uintptr_t arg0, uintptr_t arg1, uintptr_t arg2, uintptr_t arg3);
uint32_t PPPOE_PLUS_TaskInit(void);
uint32_t PPPOE_PLUS_InitData(void);
uint32_t PPPOE_PLUS_MainExit(void);

uint32_t PPPOE_PLUS_WaitDevmReady(void);
uint32_t PPPOE_PLUS_GetSelfFrmInstInfo(uint32_t slot, FrmInstInfo *info);
uint32_t PPPOE_PLUS_GetFrmReadyState(uint32_t slot, const FrmInstInfo *info);
uint32_t PPPOE_PLUS_WaitFrmReady(uint32_t slot);
uint32_t PPPOE_PLUS_WaitReady(void);
void PPPOE_PLUS_WaitForDevmDBReady(void);

#ifdef __cplusplus
}
#endif
#endif
