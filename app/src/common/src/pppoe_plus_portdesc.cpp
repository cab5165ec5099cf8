// Port description table.
//
// The descriptions pushed by the configuration task are kept twice: in a
// platform hash of entry pointers (128 buckets, bucket = ifIndex AND 127)
// for the look-ups of the keyword encoders, and in a ring list in
// insertion order with its count. The table is created on first use and
// lives as long as the module. The configuration task and the packet path
// run on the main task, so there is no lock.
#include "pppoe_plus_portdesc.h"

#include <cstring>

#include "plat_safe.h"
#include "pppoe_plus_log.h"
#include "pppoe_plus_mem.h"
#include "pppoe_plus_types.h"

PppoePlusPortDescHash *g_pppoePlusPortDescHash = nullptr;

namespace {

constexpr uint32_t kKeyMask = PPPOE_PLUS_PORTDESC_BUCKETS - 1U;
constexpr uint32_t kElementSize = sizeof(PppoePlusPortDescEntry *);

PppoePlusPortDescEntry *EntryOf(const void *elmtData)
{
    PppoePlusPortDescEntry *entry = nullptr;
    std::memcpy(&entry, elmtData, kElementSize);
    return entry;
}

// Copies length bytes of text over the description; the last byte stays a
// terminator whatever the text.
uint32_t CopyDescription(PppoePlusPortDescEntry *entry, const char *text, uint32_t length)
{
    if (memcpy_s(entry->description, sizeof(entry->description), text, length) != EOK) {
        return PPPOE_PLUS_ERR;
    }
    entry->description[sizeof(entry->description) - 1U] = '\0';
    return PPPOE_PLUS_OK;
}

void FreeEntry(const PppoePlusPortDescHash *table, PppoePlusPortDescEntry *entry)
{
    if (table->freeEntry != nullptr) {
        table->freeEntry(entry);
    } else {
        PPPOE_PLUS_MemFree(entry);
    }
}

}  // namespace

extern "C" {

uint32_t PPPOE_PLUS_PortHashGenKey(const void *key)
{
    uint32_t ifIndex = 0;
    std::memcpy(&ifIndex, key, sizeof(ifIndex));
    return ifIndex & kKeyMask;
}

uint32_t PPPOE_PLUS_PortHashCompKey(const void *elmtData, const void *key)
{
    const PppoePlusPortDescEntry *entry = EntryOf(elmtData);
    uint32_t ifIndex = 0;
    std::memcpy(&ifIndex, key, sizeof(ifIndex));
    return (entry != nullptr && entry->ifIndex == ifIndex) ? 0U : 1U;
}

PppoePlusPortDescHash *PPPOE_PLUS_PortDescHashCreate(void)
{
    auto *table = static_cast<PppoePlusPortDescHash *>(PPPOE_PLUS_MemAlloc(sizeof(PppoePlusPortDescHash)));
    if (table == nullptr) {
        return nullptr;
    }
    table->hash = HASH_CreateNew(PPPOE_PLUS_PORTDESC_BUCKETS, kElementSize, PPPOE_PLUS_PortHashGenKey,
                                 PPPOE_PLUS_PortHashCompKey);
    if (table->hash == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPPOE_PLUS_PORTDESC] Create port description hash failed.");
        PPPOE_PLUS_MemFree(table);
        return nullptr;
    }
    table->listHead.next = &table->listHead;
    table->listHead.prev = &table->listHead;
    table->count = 0;
    table->capacity = PPPOE_PLUS_PORTDESC_CAPACITY;
    table->freeEntry = nullptr;
    g_pppoePlusPortDescHash = table;
    return table;
}

PppoePlusPortDescHash *PPPOE_PLUS_CreateAndGetPortDescHash(void)
{
    if (g_pppoePlusPortDescHash == nullptr) {
        return PPPOE_PLUS_PortDescHashCreate();
    }
    return g_pppoePlusPortDescHash;
}

PppoePlusPortDescEntry *PPPOE_PLUS_PortDescHashFind(uint32_t ifIndex)
{
    const PppoePlusPortDescHash *table = g_pppoePlusPortDescHash;
    if (table == nullptr) {
        return nullptr;
    }
    const void *data = HASH_FindElmtFromFirst(table->hash, &ifIndex);
    return data == nullptr ? nullptr : EntryOf(data);
}

uint32_t PPPOE_PLUS_PortDescHashAdd(uint32_t ifIndex, const char *text, uint32_t length)
{
    PppoePlusPortDescHash *table = PPPOE_PLUS_CreateAndGetPortDescHash();
    if (table == nullptr || text == nullptr) {
        return PPPOE_PLUS_ERR;
    }
    auto *entry = static_cast<PppoePlusPortDescEntry *>(PPPOE_PLUS_MemAlloc(sizeof(PppoePlusPortDescEntry)));
    if (entry == nullptr) {
        return PPPOE_PLUS_ERR;
    }
    (void)memset_s(entry, sizeof(*entry), 0, sizeof(*entry));
    entry->ifIndex = ifIndex;
    void *data = nullptr;
    if (CopyDescription(entry, text, length) != PPPOE_PLUS_OK || (data = HASH_NewData(table->hash)) == nullptr) {
        FreeEntry(table, entry);
        return PPPOE_PLUS_ERR;
    }
    std::memcpy(data, &entry, kElementSize);
    if (HASH_AddNode(table->hash, data, &entry->ifIndex) != HASH_OK) {
        (void)HASH_FreeData(table->hash, data);
        FreeEntry(table, entry);
        return PPPOE_PLUS_ERR;
    }
    PppoePlusDListNode *tail = table->listHead.prev;
    entry->node.prev = tail;
    entry->node.next = &table->listHead;
    tail->next = &entry->node;
    table->listHead.prev = &entry->node;
    table->count++;
    return PPPOE_PLUS_OK;
}

uint32_t PPPOE_PLUS_PortDescAdd(uint32_t ifIndex, const char *text, uint32_t length)
{
    PppoePlusPortDescEntry *entry = PPPOE_PLUS_PortDescHashFind(ifIndex);
    if (entry != nullptr) {
        if (text == nullptr || CopyDescription(entry, text, length) != PPPOE_PLUS_OK) {
            return PPPOE_PLUS_ERR;
        }
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPPOE_PLUS_PORTDESC] Update port description, ifIndex:%u, desc:%s",
                             ifIndex, entry->description);
        return PPPOE_PLUS_OK;
    }
    if (PPPOE_PLUS_PortDescHashAdd(ifIndex, text, length) != PPPOE_PLUS_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPPOE_PLUS_PORTDESC] Add port description failed, ifIndex:%u",
                             ifIndex);
        return PPPOE_PLUS_ERR;
    }
    entry = PPPOE_PLUS_PortDescHashFind(ifIndex);
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPPOE_PLUS_PORTDESC] Add port description, ifIndex:%u, desc:%s",
                         ifIndex, entry != nullptr ? entry->description : "");
    return PPPOE_PLUS_OK;
}

uint32_t PPPOE_PLUS_PortDescDel(uint32_t ifIndex)
{
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPPOE_PLUS_PORTDESC] Del port description, ifIndex:%u", ifIndex);
    PppoePlusPortDescHash *table = g_pppoePlusPortDescHash;
    void *data = table == nullptr ? nullptr : HASH_FindElmtFromFirst(table->hash, &ifIndex);
    if (data == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPPOE_PLUS_PORTDESC] Del port description failed, ifIndex:%u",
                             ifIndex);
        return PPPOE_PLUS_ERR;
    }
    PppoePlusPortDescEntry *entry = EntryOf(data);
    data = HASH_RemoveElmtByKey(table->hash, &ifIndex);
    if (entry != nullptr) {
        PppoePlusDListNode *node = &entry->node;
        // Unlinked only when its neighbours point back at it.
        if (node->next != nullptr && node->prev != nullptr && node->next->prev == node && node->prev->next == node) {
            node->prev->next = node->next;
            node->next->prev = node->prev;
            node->next = nullptr;
            node->prev = nullptr;
            table->count--;
        }
        FreeEntry(table, entry);
    }
    if (data != nullptr) {
        (void)HASH_FreeData(table->hash, data);
    }
    return PPPOE_PLUS_OK;
}

void PPPOE_PLUS_PortDescWalk(PppoePlusPortDescWalkFn walk, void *arg)
{
    PppoePlusPortDescHash *table = g_pppoePlusPortDescHash;
    if (walk == nullptr || table == nullptr) {
        return;
    }
    const uint32_t total = HASH_GetElmtCount(table->hash);
    if (total == 0) {
        return;
    }
    // A snapshot first, so the callback may delete the entry it is given.
    auto **snapshot = static_cast<PppoePlusPortDescEntry **>(PPPOE_PLUS_MemAlloc(total * sizeof(void *)));
    if (snapshot == nullptr) {
        return;
    }
    uint32_t taken = 0;
    for (void *data = HASH_GetFirstElmt(table->hash); data != nullptr && taken < total;
         data = HASH_GetNextElmt(table->hash, data)) {
        snapshot[taken++] = EntryOf(data);
    }
    for (uint32_t i = 0; i < taken; i++) {
        walk(snapshot[i], arg);
    }
    PPPOE_PLUS_MemFree(snapshot);
}

void PPPOE_PLUS_PortDescDelInner(PppoePlusPortDescEntry *entry, void *arg)
{
    (void)arg;
    if (entry != nullptr) {
        (void)PPPOE_PLUS_PortDescDel(entry->ifIndex);
    }
}

void PPPOE_PLUS_PortDescDelAll(void)
{
    PPPOE_PLUS_PortDescWalk(PPPOE_PLUS_PortDescDelInner, nullptr);
}

}  // extern "C"
