/* Internal event bus: device events ("board-plug", "if-chg") published from
 * the database callbacks, carried over the main queue and delivered on task
 * "PPPoE_Plus_Init" to the subscribers of the event, in list order. */
#ifndef PPPOE_PLUS_EVT_H
#define PPPOE_PLUS_EVT_H

#include <stdint.h>

#define PPPOE_PLUS_EVT_BOARD_PLUG 0U
#define PPPOE_PLUS_EVT_IF_CHG 1U
#define PPPOE_PLUS_EVT_MAX PPPOE_PLUS_EVT_IF_CHG
#define PPPOE_PLUS_EVT_RECORD_LEN 16U
#define PPPOE_PLUS_EVT_SUBTOPIC_LEN 32U     /* 31 characters and the terminator */
#define PPPOE_PLUS_EVT_STANDING_PRIORITY 128U

/* Sub-events of "if-chg". */
#define PPPOE_PLUS_IF_EVT_ON_BOARD 2U
#define PPPOE_PLUS_IF_EVT_OFF_BOARD 3U

#ifdef __cplusplus
extern "C" {
#endif

/* The 16-byte event records, four u32 each. */
typedef struct PppoePlusBoardPlugEvt {
    uint32_t event;      /* PPPOE_PLUS_EVT_BOARD_PLUG */
    uint32_t cssId;
    uint32_t slotId;
    uint32_t regState;   /* 0 registered, 1 left or not registered */
} PppoePlusBoardPlugEvt;

typedef struct PppoePlusIfChgEvt {
    uint32_t event;      /* PPPOE_PLUS_EVT_IF_CHG */
    uint32_t ifIndex;
    uint32_t subEvt;     /* PPPOE_PLUS_IF_EVT_ON_BOARD or PPPOE_PLUS_IF_EVT_OFF_BOARD */
    uint32_t reserved;
} PppoePlusIfChgEvt;

/* A subscriber: called with the 16-byte event record. */
typedef uint32_t (*PppoePlusEvtHandler)(const void *record);

typedef struct PppoePlusEvtSubEntry {
    uint32_t event;
    char subTopic[PPPOE_PLUS_EVT_SUBTOPIC_LEN];
    PppoePlusEvtHandler handler;
    uint8_t priority;
} PppoePlusEvtSubEntry;

/* A node of the circular subscription list. */
typedef struct PppoePlusEvtSllNode {
    struct PppoePlusEvtSllNode *next;
    PppoePlusEvtSubEntry *entry;
} PppoePlusEvtSllNode;

/* The list: a sentinel head, the last node, the entry count. */
typedef struct PppoePlusEvtSubList {
    PppoePlusEvtSllNode head;
    PppoePlusEvtSllNode *tail;
    uint32_t count;
    uint8_t initialised;
} PppoePlusEvtSubList;

extern PppoePlusEvtSubList g_pppoePlusEvtSubList;

uint32_t PPPOE_PLUS_EvtSubscribe(uint32_t event, const char *subTopic, uint8_t priority, PppoePlusEvtHandler handler);
uint32_t PPPOE_PLUS_EvtIsSubscribed(uint32_t event, const char *subTopic);
void PPPOE_PLUS_EvtPublishAsync(const void *record);
void PPPOE_PLUS_EvtDeliver(const void *record);
void PPPOE_PLUS_EvtPublish(uint32_t event, const void *data);
const char *PPPOE_PLUS_EvtName(uint32_t event);
uint32_t PPPOE_PLUS_EvtSubscribeInit(void);

uint32_t PPPOE_PLUS_BoardPlugEvtProc(const void *record);
uint32_t PPPOE_PLUS_IfChgEvtProc(const void *record);

#ifdef __cplusplus
static_assert(sizeof(PppoePlusBoardPlugEvt) == PPPOE_PLUS_EVT_RECORD_LEN, "event records are 16 bytes");
static_assert(sizeof(PppoePlusIfChgEvt) == PPPOE_PLUS_EVT_RECORD_LEN, "event records are 16 bytes");
}
#endif
#endif
