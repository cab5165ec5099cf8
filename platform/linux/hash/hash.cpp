// Hash service: chained buckets of caller-shaped elements.
//
// Each element's data is a zero-filled block of the table's element size,
// aligned for any type; the table tracks every block it handed out (in the
// table or not), so a foreign, stale or doubly freed pointer is refused
// instead of being used. Tables themselves are tracked the same way. One
// lock serialises every call; the caller's key functions run under it and
// must not call back into the service.
#include "hash.h"

#include <cstddef>
#include <list>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "core/internal.hpp"
#include "platform/fail_point.hpp"

struct HASH_TABLE {
    struct Element {
        std::unique_ptr<std::max_align_t[]> storage;
        bool inTable = false;
        uint32_t bucket = 0;
    };

    HASH_TABLE(uint32_t bucketCount, uint32_t size, HASH_GEN_KEY_FN gen, HASH_COMP_KEY_FN comp)
        : buckets(bucketCount), elementSize(size), genKey(gen), compKey(comp)
    {
    }

    uint32_t BucketOf(const void *key) const { return genKey(key) % static_cast<uint32_t>(buckets.size()); }

    // The element of data, null when data is none of this table's.
    Element *Find(const void *data)
    {
        const auto it = elements.find(data);
        return it == elements.end() ? nullptr : &it->second;
    }

    std::vector<std::list<void *>> buckets;
    const uint32_t elementSize;
    const HASH_GEN_KEY_FN genKey;
    const HASH_COMP_KEY_FN compKey;
    std::unordered_map<const void *, Element> elements;  // every block handed out
    uint32_t count = 0;                                   // blocks in the table
};

namespace {

struct Registry {
    std::mutex mu;
    std::unordered_set<HASH_TABLE *> tables;
};

Registry &TheRegistry()
{
    return platform::internal::Leaky<Registry>();
}

// Caller holds Registry::mu.
bool IsLive(const Registry &reg, HASH_TABLE *table)
{
    return table != nullptr && reg.tables.count(table) != 0;
}

// First element matching key in its bucket: the bucket and the position.
std::list<void *>::iterator Lookup(HASH_TABLE &t, const void *key, std::list<void *> **bucketOut)
{
    std::list<void *> &bucket = t.buckets[t.BucketOf(key)];
    *bucketOut = &bucket;
    for (auto it = bucket.begin(); it != bucket.end(); ++it) {
        if (t.compKey(*it, key) == 0) {
            return it;
        }
    }
    return bucket.end();
}

// First element of the first non-empty bucket at or after index.
void *FirstFrom(const HASH_TABLE &t, size_t index)
{
    for (; index < t.buckets.size(); index++) {
        if (!t.buckets[index].empty()) {
            return t.buckets[index].front();
        }
    }
    return nullptr;
}

}  // namespace

extern "C" {

HASH_TABLE_S *HASH_CreateNew(uint32_t bucketCount, uint32_t elementSize, HASH_GEN_KEY_FN genKey,
                             HASH_COMP_KEY_FN compKey)
{
    if (platform::FailPoint(__func__)) {
        return nullptr;
    }
    if (bucketCount == 0 || elementSize == 0 || genKey == nullptr || compKey == nullptr) {
        return nullptr;
    }
    auto table = std::make_unique<HASH_TABLE>(bucketCount, elementSize, genKey, compKey);
    Registry &reg = TheRegistry();
    std::lock_guard lock(reg.mu);
    reg.tables.insert(table.get());
    return table.release();
}

uint32_t HASH_Destroy(HASH_TABLE_S *table)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    std::unique_ptr<HASH_TABLE> owned;
    Registry &reg = TheRegistry();
    std::lock_guard lock(reg.mu);
    if (!IsLive(reg, table)) {
        return HASH_ERR_PARAM;
    }
    reg.tables.erase(table);
    owned.reset(table);
    return HASH_OK;
}

void *HASH_NewData(HASH_TABLE_S *table)
{
    if (platform::FailPoint(__func__)) {
        return nullptr;
    }
    Registry &reg = TheRegistry();
    std::lock_guard lock(reg.mu);
    if (!IsLive(reg, table)) {
        return nullptr;
    }
    const size_t units = (table->elementSize + sizeof(std::max_align_t) - 1) / sizeof(std::max_align_t);
    HASH_TABLE::Element element;
    element.storage.reset(new std::max_align_t[units]());
    void *data = element.storage.get();
    table->elements.emplace(data, std::move(element));
    return data;
}

uint32_t HASH_AddNode(HASH_TABLE_S *table, void *elmtData, const void *key)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    Registry &reg = TheRegistry();
    std::lock_guard lock(reg.mu);
    if (!IsLive(reg, table)) {
        return HASH_ERR_PARAM;
    }
    HASH_TABLE::Element *element = table->Find(elmtData);
    if (element == nullptr) {
        return HASH_ERR_PARAM;
    }
    if (element->inTable) {
        return HASH_ERR_IN_TABLE;
    }
    element->bucket = table->BucketOf(key);
    element->inTable = true;
    table->buckets[element->bucket].push_back(elmtData);
    table->count++;
    return HASH_OK;
}

uint32_t HASH_FreeData(HASH_TABLE_S *table, void *elmtData)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    Registry &reg = TheRegistry();
    std::lock_guard lock(reg.mu);
    if (!IsLive(reg, table)) {
        return HASH_ERR_PARAM;
    }
    const HASH_TABLE::Element *element = table->Find(elmtData);
    if (element == nullptr) {
        return HASH_ERR_PARAM;
    }
    if (element->inTable) {
        return HASH_ERR_IN_TABLE;
    }
    table->elements.erase(elmtData);
    return HASH_OK;
}

void *HASH_FindElmtFromFirst(HASH_TABLE_S *table, const void *key)
{
    if (platform::FailPoint(__func__)) {
        return nullptr;
    }
    Registry &reg = TheRegistry();
    std::lock_guard lock(reg.mu);
    if (!IsLive(reg, table)) {
        return nullptr;
    }
    std::list<void *> *bucket = nullptr;
    const auto it = Lookup(*table, key, &bucket);
    return it == bucket->end() ? nullptr : *it;
}

void *HASH_RemoveElmtByKey(HASH_TABLE_S *table, const void *key)
{
    if (platform::FailPoint(__func__)) {
        return nullptr;
    }
    Registry &reg = TheRegistry();
    std::lock_guard lock(reg.mu);
    if (!IsLive(reg, table)) {
        return nullptr;
    }
    std::list<void *> *bucket = nullptr;
    const auto it = Lookup(*table, key, &bucket);
    if (it == bucket->end()) {
        return nullptr;
    }
    void *data = *it;
    bucket->erase(it);
    if (HASH_TABLE::Element *element = table->Find(data); element != nullptr) {
        element->inTable = false;
    }
    table->count--;
    return data;
}

void *HASH_GetFirstElmt(HASH_TABLE_S *table)
{
    if (platform::FailPoint(__func__)) {
        return nullptr;
    }
    Registry &reg = TheRegistry();
    std::lock_guard lock(reg.mu);
    if (!IsLive(reg, table)) {
        return nullptr;
    }
    return FirstFrom(*table, 0);
}

void *HASH_GetNextElmt(HASH_TABLE_S *table, const void *elmtData)
{
    if (platform::FailPoint(__func__)) {
        return nullptr;
    }
    Registry &reg = TheRegistry();
    std::lock_guard lock(reg.mu);
    if (!IsLive(reg, table)) {
        return nullptr;
    }
    const HASH_TABLE::Element *element = table->Find(elmtData);
    if (element == nullptr || !element->inTable) {
        return nullptr;
    }
    const std::list<void *> &bucket = table->buckets[element->bucket];
    for (auto it = bucket.begin(); it != bucket.end(); ++it) {
        if (*it == elmtData) {
            ++it;
            return it != bucket.end() ? *it : FirstFrom(*table, element->bucket + 1U);
        }
    }
    return nullptr;
}

uint32_t HASH_GetElmtCount(HASH_TABLE_S *table)
{
    if (platform::FailPoint(__func__)) {
        return 0;
    }
    Registry &reg = TheRegistry();
    std::lock_guard lock(reg.mu);
    return IsLive(reg, table) ? table->count : 0U;
}

}  // extern "C"
