/* Platform services: hot-patch hooks. */
#ifndef PLATFORM_MOLB_H
#define PLATFORM_MOLB_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define MOLB_OK 0U
#define MOLB_ERR_PARAM 0x4001U
#define MOLB_ERR_UNKNOWN_REQUEST 0x4002U

#define MOLB_PAT_ACTIVATE 0U
#define MOLB_PAT_DEACTIVATE 1U

/* A patch request as the patch service hands it to a hook. The first 16
 * bytes identify the request; a reply quotes them. */
typedef struct MOLB_PAT_C2H_REQ {
    uint64_t requestId;
    uint32_t sequence;
    uint32_t action;
    uint8_t reserved[381];
    char libName[115];               /* NUL-terminated, at byte offset 397 */
} MOLB_PAT_C2H_REQ_S;

/* Hook: action, request, library name, out flag (0 handled, 1 not handled
 * here). Returns 0 or 1. */
typedef uint32_t (*MOLB_PAT_C2H_HOOK_FN)(uint32_t action, void *request, const char *libName, uint32_t *outFlag);

uint32_t MOLB_PAT_C2HRegisterHook(MOLB_PAT_C2H_HOOK_FN hook, uint32_t reserved);
/* Answer to a request: the first 16 bytes of the request and the result. */
uint32_t MOLB_PAT_C2HReplyProcessResult(const void *requestHead, uint32_t result);
/* Re-applies the patches belonging to the library just opened with dlopen. */
uint32_t MOLB_PAT_RestoreForDLL(void *dlHandle);

#ifdef __cplusplus
}
#endif
#endif
