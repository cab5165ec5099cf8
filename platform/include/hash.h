/* Hash service: a table of fixed-size elements in chained buckets. The
 * caller supplies how a key picks a bucket and how an element is compared
 * with a key; the service never interprets element data itself.
 *
 * An element is the pointer to its elementSize bytes of data. It is made
 * with HASH_NewData (zero-filled, not yet in the table), put in with
 * HASH_AddNode, taken out with HASH_RemoveElmtByKey and freed with
 * HASH_FreeData once it is out of the table. Iteration visits bucket after
 * bucket, each in the order its elements were added. Calls are serialised
 * by one lock; an element's data stays in place until it is freed. Every
 * call passes the platform's failure injection under its own name (failing
 * means null for the calls returning a pointer). */
#ifndef PLATFORM_HASH_H
#define PLATFORM_HASH_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define HASH_OK 0U
#define HASH_ERR_PARAM 0x4001U      /* null, unknown or foreign table or element */
#define HASH_ERR_IN_TABLE 0x4002U   /* the element is in a table (add twice, free before removal) */

typedef struct HASH_TABLE HASH_TABLE_S;

/* Bucket of a key (taken modulo the bucket count). */
typedef uint32_t (*HASH_GEN_KEY_FN)(const void *key);
/* 0 when the element's data matches the key. */
typedef uint32_t (*HASH_COMP_KEY_FN)(const void *elmtData, const void *key);

/* Null on a zero bucket count or element size, or a missing function. */
HASH_TABLE_S *HASH_CreateNew(uint32_t bucketCount, uint32_t elementSize, HASH_GEN_KEY_FN genKey,
                             HASH_COMP_KEY_FN compKey);
/* Frees the table with every element, in it or not. */
uint32_t HASH_Destroy(HASH_TABLE_S *table);

void *HASH_NewData(HASH_TABLE_S *table);
/* Adds an element made by this table under key (at the end of its bucket). */
uint32_t HASH_AddNode(HASH_TABLE_S *table, void *elmtData, const void *key);
/* Frees an element that is not in the table. */
uint32_t HASH_FreeData(HASH_TABLE_S *table, void *elmtData);

/* The first element of key's bucket that matches key, null when none. */
void *HASH_FindElmtFromFirst(HASH_TABLE_S *table, const void *key);
/* Takes the first element matching key out of the table and returns it
 * (still to be freed with HASH_FreeData); null when none. */
void *HASH_RemoveElmtByKey(HASH_TABLE_S *table, const void *key);

void *HASH_GetFirstElmt(HASH_TABLE_S *table);
/* The element after elmtData in iteration order; null at the end or when
 * elmtData is not in the table. */
void *HASH_GetNextElmt(HASH_TABLE_S *table, const void *elmtData);
/* Elements in the table (0 for a null table). */
uint32_t HASH_GetElmtCount(HASH_TABLE_S *table);

#ifdef __cplusplus
}
#endif
#endif
