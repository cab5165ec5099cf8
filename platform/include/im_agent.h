/* Information-management agent: structured diagnostic records with fixed
 * log ids, and debug lines. Everything sent lands in the platform's log sink
 * (an in-memory ring that tests read, and the host's output). */
#ifndef PLATFORM_IM_AGENT_H
#define PLATFORM_IM_AGENT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One log id a module registers: id, class, name, description, parameter format. */
typedef struct IM_AGENT_LOG_ID {
    uint32_t id;
    uint32_t logClass;
    const char *name;
    const char *description;   /* "... (Info=[Info])": [Info] is replaced by the first parameter */
    const char *paraFormat;    /* "[STRING]", "[UINT32][MAC]", ... */
} IM_AGENT_LOG_ID_S;

typedef struct IM_AGENT_HANDLE IM_AGENT_HANDLE_S;
typedef struct IM_AGENT_OBJ IM_AGENT_OBJ_S;

/* Parameter type codes of IM_Agent_AddPara. */
#define IM_AGENT_PARA_UINT32 5U
#define IM_AGENT_PARA_INT32 6U
#define IM_AGENT_PARA_MAC 20U
#define IM_AGENT_PARA_STRING 25U

/* The module's handle; registers its log ids. Null on failure. */
IM_AGENT_HANDLE_S *IM_Agent_GetHandle(const char *module, const IM_AGENT_LOG_ID_S *ids, uint32_t count);

/* One diagnostic record for a registered id; null when the id is unknown. */
IM_AGENT_OBJ_S *IM_Agent_ObjCreate(IM_AGENT_HANDLE_S *handle, uint32_t logId);
uint32_t IM_Agent_AddPara(IM_AGENT_OBJ_S *obj, uint32_t type, uint32_t size, const void *value);
uint32_t IM_Agent_Send(IM_AGENT_OBJ_S *obj);
uint32_t IM_Agent_ObjFree(IM_AGENT_OBJ_S *obj);

/* A debug line under debugId. fmt is printf-like; "%_VSID" stands for the
 * virtual-system id and renders as nothing on this platform. */
uint32_t IM_Agent_Debug(IM_AGENT_HANDLE_S *handle, uint32_t debugId, const char *module, const char *fmt, ...);

#ifdef __cplusplus
}
#endif
#endif
