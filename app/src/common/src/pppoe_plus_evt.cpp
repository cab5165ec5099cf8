// The internal event bus. Subscribers sit in one circular list with a
// sentinel head, ordered by the placement rule of PPPOE_PLUS_EvtSubscribe;
// publications from foreign threads travel as main-queue messages and are
// delivered on "PPPoE_Plus_Init", which also makes every subscription, so
// the list needs no lock.
#include "pppoe_plus_evt.h"

#include <array>

#include "plat_safe.h"
#include "pppoe_plus_acl.h"
#include "pppoe_plus_cfg.h"
#include "pppoe_plus_log.h"
#include "pppoe_plus_main.h"
#include "pppoe_plus_mem.h"
#include "ruk.h"

namespace {

// The search key of a subscription: its event and topic.
struct EvtKey {
    uint32_t event;
    char subTopic[PPPOE_PLUS_EVT_SUBTOPIC_LEN];
};

struct StandingSub {
    uint32_t event;
    const char *subTopic;
    uint8_t priority;
    PppoePlusEvtHandler handler;
};

constexpr std::array<StandingSub, 2> kStandingSubs = {{
    {PPPOE_PLUS_EVT_BOARD_PLUG, "board-plug", PPPOE_PLUS_EVT_STANDING_PRIORITY, PPPOE_PLUS_BoardPlugEvtProc},
    {PPPOE_PLUS_EVT_IF_CHG, "if-chg", PPPOE_PLUS_EVT_STANDING_PRIORITY, PPPOE_PLUS_IfChgEvtProc},
}};

PppoePlusEvtSllNode *Sentinel()
{
    return &g_pppoePlusEvtSubList.head;
}

void ListInitOnce()
{
    PppoePlusEvtSubList &list = g_pppoePlusEvtSubList;
    if (list.initialised != 0) {
        return;
    }
    list.head.next = Sentinel();
    list.head.entry = nullptr;
    list.tail = Sentinel();
    list.count = 0;
    list.initialised = 1;
}

bool ListExists(const EvtKey &key)
{
    for (const PppoePlusEvtSllNode *node = g_pppoePlusEvtSubList.head.next; node != Sentinel(); node = node->next) {
        if (node->entry->event == key.event && RUK_StrCmp(node->entry->subTopic, key.subTopic) == 0) {
            return true;
        }
    }
    return false;
}

// A new node never becomes the first of a non-empty list: it goes right
// after the first node whose priority is not lower than its own, or at the
// tail when every node's priority is lower.
void ListInsert(PppoePlusEvtSllNode *node)
{
    PppoePlusEvtSubList &list = g_pppoePlusEvtSubList;
    if (list.head.next == Sentinel()) {
        list.head.next = node;
        node->next = Sentinel();
        list.tail = node;
        return;
    }
    for (PppoePlusEvtSllNode *at = list.head.next; at != Sentinel(); at = at->next) {
        if (at->entry->priority >= node->entry->priority) {
            node->next = at->next;
            at->next = node;
            if (list.tail == at) {
                list.tail = node;
            }
            return;
        }
    }
    node->next = Sentinel();
    list.tail->next = node;
    list.tail = node;
}

uint32_t EventOf(const void *record)
{
    return static_cast<const uint32_t *>(record)[0];
}

// Calls, in list order, the handler of every subscription to the event.
void Deliver(uint32_t event, const void *record)
{
    if (event > PPPOE_PLUS_EVT_MAX) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPPOE_PLUS_EVT] Invalid subscribe event %u.", event);
        return;
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPPOE_PLUS_EVT] Publish event %s.", PPPOE_PLUS_EvtName(event));
    if (g_pppoePlusEvtSubList.initialised == 0 || g_pppoePlusEvtSubList.count == 0) {
        return;
    }
    for (const PppoePlusEvtSllNode *node = g_pppoePlusEvtSubList.head.next; node != Sentinel(); node = node->next) {
        if (node->entry->event == event) {
            (void)node->entry->handler(record);
        }
    }
}

}  // namespace

extern "C" {

PppoePlusEvtSubList g_pppoePlusEvtSubList = {};

uint32_t PPPOE_PLUS_EvtSubscribe(uint32_t event, const char *subTopic, uint8_t priority, PppoePlusEvtHandler handler)
{
    if (event > PPPOE_PLUS_EVT_MAX || subTopic == nullptr || handler == nullptr) {
        return 1;
    }
    if (strnlen_s(subTopic, PPPOE_PLUS_EVT_SUBTOPIC_LEN) >= PPPOE_PLUS_EVT_SUBTOPIC_LEN) {
        return 1;
    }
    ListInitOnce();
    EvtKey key = {event, {}};
    if (strcpy_s(key.subTopic, sizeof(key.subTopic), subTopic) != EOK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPPOE_PLUS_EVT] Failed to strcpy subtopic %s in exist judge.",
                             subTopic);
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPPOE_PLUS_EVT] Exist event %u subTopic %s.", event, subTopic);
        return 1;
    }
    if (ListExists(key)) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPPOE_PLUS_EVT] Exist event %u subTopic %s.", event, subTopic);
        return 1;
    }
    auto *node = static_cast<PppoePlusEvtSllNode *>(PPPOE_PLUS_MemAlloc(sizeof(PppoePlusEvtSllNode)));
    if (node == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPPOE_PLUS_EVT] Alloc sllNode memory failed.");
        return 1;
    }
    auto *entry = static_cast<PppoePlusEvtSubEntry *>(PPPOE_PLUS_MemAlloc(sizeof(PppoePlusEvtSubEntry)));
    if (entry == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPPOE_PLUS_EVT] Alloc sllHandle memory failed.");
        PPPOE_PLUS_MemFree(node);
        return 1;
    }
    entry->event = event;
    entry->handler = handler;
    entry->priority = priority;
    if (strcpy_s(entry->subTopic, sizeof(entry->subTopic), subTopic) != EOK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR,
                             "[PPPOE_PLUS_EVT] Failed to strcpy in subscribe.(event:%u, subTopic:%s)", event, subTopic);
        PPPOE_PLUS_MemFree(entry);
        PPPOE_PLUS_MemFree(node);
        return 1;
    }
    node->entry = entry;
    node->next = nullptr;
    ListInsert(node);
    g_pppoePlusEvtSubList.count++;
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPPOE_PLUS_EVT] Subscribe success.(event:%u, subTopic:%s, priority:%u)",
                         event, subTopic, static_cast<uint32_t>(priority));
    return 0;
}

uint32_t PPPOE_PLUS_EvtIsSubscribed(uint32_t event, const char *subTopic)
{
    EvtKey key = {event, {}};
    if (subTopic == nullptr || strcpy_s(key.subTopic, sizeof(key.subTopic), subTopic) != EOK) {
        return 1;  // a key that cannot be built counts as taken
    }
    if (g_pppoePlusEvtSubList.initialised == 0) {
        return 0;
    }
    return ListExists(key) ? 1U : 0U;
}

void PPPOE_PLUS_EvtPublishAsync(const void *record)
{
    if (record == nullptr) {
        return;
    }
    void *payload = PPPOE_PLUS_MemAlloc(PPPOE_PLUS_EVT_RECORD_LEN);
    if (payload == nullptr) {
        return;
    }
    (void)memcpy_s(payload, PPPOE_PLUS_EVT_RECORD_LEN, record, PPPOE_PLUS_EVT_RECORD_LEN);
    const MainQueueMsg msg = {PPPOE_PLUS_MSG_EVENT, reinterpret_cast<uint64_t>(payload), PPPOE_PLUS_EVT_RECORD_LEN, 0};
    if (PPPOE_PLUS_QueueWrite(g_pppoePlusRegQueHandle.load(std::memory_order_acquire), &msg, sizeof(msg)) != 0) {
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "[PPPOE_PLUS_EVT] Send msg to queue failed.");
        PPPOE_PLUS_MemFree(payload);
    }
}

void PPPOE_PLUS_EvtDeliver(const void *record)
{
    if (record == nullptr) {
        return;
    }
    Deliver(EventOf(record), record);
}

void PPPOE_PLUS_EvtPublish(uint32_t event, const void *data)
{
    if (data == nullptr) {
        return;
    }
    Deliver(event, data);
}

const char *PPPOE_PLUS_EvtName(uint32_t event)
{
    switch (event) {
        case PPPOE_PLUS_EVT_BOARD_PLUG: return "board-plug";
        case PPPOE_PLUS_EVT_IF_CHG: return "if-chg";
        default: return "invalid event";
    }
}

uint32_t PPPOE_PLUS_EvtSubscribeInit(void)
{
    // A failed subscription stops the ones after it.
    for (const StandingSub &sub : kStandingSubs) {
        if (PPPOE_PLUS_EvtSubscribe(sub.event, sub.subTopic, sub.priority, sub.handler) != 0) {
            PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "[PPPOE_PLUS_EVT] Subscribe %s failed.", sub.subTopic);
            return 1;
        }
    }
    return 0;
}

uint32_t PPPOE_PLUS_BoardPlugEvtProc(const void * /*record*/)
{
    // A board plug asks only whether the feature is on; nothing follows from it.
    (void)PPPOE_PLUS_IsEnable();
    return 0;
}

uint32_t PPPOE_PLUS_IfChgEvtProc(const void *record)
{
    if (record == nullptr) {
        return 0;
    }
    const auto *evt = static_cast<const PppoePlusIfChgEvt *>(record);
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPPOE_PLUS_EVT] If notify subEvt %u, ifIndex %u.", evt->subEvt,
                         evt->ifIndex);
    if ((PPPOE_PLUS_IsEnable() & 0xFFU) != 1) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPPOE_PLUS_EVT] PPPoE plus is disabled.");
        return 0;
    }
    if ((PPPOE_PLUS_GetIgnoreReply() & 0xFFU) == 0) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPPOE_PLUS_EVT] Ignore reply is disabled.");
        return 0;
    }
    if (evt->subEvt == PPPOE_PLUS_IF_EVT_ON_BOARD || evt->subEvt == PPPOE_PLUS_IF_EVT_OFF_BOARD) {
        return PPPOE_PLUS_UpdateTrustPortAcl4PortChg(evt->ifIndex, evt->subEvt == PPPOE_PLUS_IF_EVT_ON_BOARD ? 1U : 0U);
    }
    return 0;
}

}  // extern "C"
