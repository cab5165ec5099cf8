/* Platform services: hot-patch hooks and the high-availability service. */
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

/* ---- High-availability service ----
 * Components register with a record and an event callback; the service
 * calls every registered callback on its own thread ("HA service") with
 * an event: its type and a pointer to information whose form depends on
 * the type. Master-position subscribers are told each change of the
 * master board. */
#define MOLB_ERR_UNKNOWN_COMP 0x4003U

#define MOLB_HA_EVENT_START_WORK 1U      /* info: board role, uint32_t */
#define MOLB_HA_EVENT_NEW_BACKUP 2U      /* info: MOLB_HA_BOARD_S of the standby board (0/0: none) */
#define MOLB_HA_EVENT_BACKUP_REMOVED 3U  /* no info */
#define MOLB_HA_EVENT_PROMOTE 4U         /* no info: this board becomes master */
#define MOLB_HA_EVENT_DEMOTE 7U          /* no info: this board becomes standby */

#define MOLB_HA_NAME_LEN 64U

/* Component registration record, 152 bytes, zero-filled. */
typedef struct MOLB_HA_COMP_INFO {
    char compName[MOLB_HA_NAME_LEN];   /* NUL-terminated */
    char compType[MOLB_HA_NAME_LEN];   /* NUL-terminated, e.g. "HARDWARE" */
    uint32_t pid;
    uint32_t flag;
    uint8_t reserved[16];
} MOLB_HA_COMP_INFO_S;

typedef struct MOLB_HA_EVENT {
    uint32_t eventType;
    void *eventInfo;                   /* may be null */
} MOLB_HA_EVENT_S;

/* A board by chassis and board id: new-backup and master-change information. */
typedef struct MOLB_HA_BOARD {
    uint32_t chassisId;
    uint32_t boardId;
} MOLB_HA_BOARD_S;

/* The event callback returns 0 when it handled the event, else non-zero;
 * the service records what each callback returned. */
typedef uint32_t (*MOLB_HA_EVENT_FN)(MOLB_HA_EVENT_S *event);
/* The master-change callback gets a MOLB_HA_BOARD_S. */
typedef uint32_t (*MOLB_HA_MMB_FN)(void *info);

/* Registers (or re-registers, by name) a component. MOLB_ERR_PARAM for a
 * null record or callback or a name or type without terminator or empty name. */
uint32_t MOLB_HA_CompRegister(const MOLB_HA_COMP_INFO_S *info, MOLB_HA_EVENT_FN callback, uint32_t reserved);
/* Subscribes a registered or unregistered component name to master changes. */
uint32_t MOLB_HA_SubsAMMBPosition(const char *compName, MOLB_HA_MMB_FN callback, uint32_t reserved);
/* Reports a component's switchover state; MOLB_ERR_UNKNOWN_COMP for a name
 * that never registered. */
uint32_t MOLB_HA_ReportSwitchoverState(const char *compName, uint32_t state, uint32_t reserved);

#ifdef __cplusplus
}
#endif
#endif
