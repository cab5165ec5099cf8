/* Every allocation of the module goes through one memory handle. */
#ifndef PPPOE_PLUS_MEM_H
#define PPPOE_PLUS_MEM_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#include <atomic>
extern "C" {
extern std::atomic<uint32_t> g_pppoePlusMemHandle;  /* 0xFFFFFFFF until initialised */
extern std::atomic<uint32_t> g_pppoePlusMemPtNo;
#endif

uint32_t PPPOE_PLUS_InitMemHandle(void);
uint32_t PPPOE_PLUS_GetHandle(void);
void *PPPOE_PLUS_MemAlloc(size_t size);
void PPPOE_PLUS_MemFree(void *ptr);

#ifdef __cplusplus
}
#endif
#endif
