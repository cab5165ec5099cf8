/* Port description table: the interface descriptions pushed by the
 * configuration interface, keyed by ifIndex, for the port-description
 * keyword of user-defined formats. */
#ifndef PPPOE_PLUS_PORTDESC_H
#define PPPOE_PLUS_PORTDESC_H

#include <stdint.h>

#include "hash.h"

#ifdef __cplusplus
extern "C" {
#endif

#define PPPOE_PLUS_PORTDESC_LEN 256U
#define PPPOE_PLUS_PORTDESC_BUCKETS 128U
#define PPPOE_PLUS_PORTDESC_CAPACITY 1024U

typedef struct PppoePlusDListNode {
    struct PppoePlusDListNode *next;
    struct PppoePlusDListNode *prev;
} PppoePlusDListNode;

/* One described port; node first, so a list node is its entry. */
typedef struct PppoePlusPortDescEntry {
    PppoePlusDListNode node;
    uint32_t ifIndex;
    char description[PPPOE_PLUS_PORTDESC_LEN];
} PppoePlusPortDescEntry;

typedef void (*PppoePlusPortDescFreeFn)(PppoePlusPortDescEntry *entry);
typedef void (*PppoePlusPortDescWalkFn)(PppoePlusPortDescEntry *entry, void *arg);

/* The hash holds one entry pointer per element; the list (a ring through
 * listHead) holds the same entries in insertion order. */
typedef struct PppoePlusPortDescHash {
    HASH_TABLE_S *hash;
    PppoePlusDListNode listHead;
    uint32_t count;
    uint32_t capacity;                    /* recorded, not enforced */
    PppoePlusPortDescFreeFn freeEntry;    /* null: PPPOE_PLUS_MemFree */
} PppoePlusPortDescHash;

extern PppoePlusPortDescHash *g_pppoePlusPortDescHash;

uint32_t PPPOE_PLUS_PortHashGenKey(const void *key);
uint32_t PPPOE_PLUS_PortHashCompKey(const void *elmtData, const void *key);

PppoePlusPortDescHash *PPPOE_PLUS_PortDescHashCreate(void);
PppoePlusPortDescHash *PPPOE_PLUS_CreateAndGetPortDescHash(void);
PppoePlusPortDescEntry *PPPOE_PLUS_PortDescHashFind(uint32_t ifIndex);
uint32_t PPPOE_PLUS_PortDescHashAdd(uint32_t ifIndex, const char *text, uint32_t length);
/* Add or update; 0 or 1. */
uint32_t PPPOE_PLUS_PortDescAdd(uint32_t ifIndex, const char *text, uint32_t length);
uint32_t PPPOE_PLUS_PortDescDel(uint32_t ifIndex);
/* Calls walk for every entry, over a snapshot: walk may delete its entry. */
void PPPOE_PLUS_PortDescWalk(PppoePlusPortDescWalkFn walk, void *arg);
void PPPOE_PLUS_PortDescDelInner(PppoePlusPortDescEntry *entry, void *arg);
void PPPOE_PLUS_PortDescDelAll(void);

#ifdef __cplusplus
}
#endif
#endif
