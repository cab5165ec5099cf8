// The hash service: buckets chosen by the caller, element life cycle,
// iteration order and refusals.
#include <gtest/gtest.h>

#include <vector>

#include "hash.h"
#include "platform/control.h"

namespace {

struct Item {
    uint32_t key;
    uint32_t value;
};

uint32_t GenKey(const void *key)
{
    return *static_cast<const uint32_t *>(key) & 7U;
}

uint32_t CompKey(const void *data, const void *key)
{
    return static_cast<const Item *>(data)->key == *static_cast<const uint32_t *>(key) ? 0U : 1U;
}

Item *AddItem(HASH_TABLE_S *table, uint32_t key, uint32_t value)
{
    auto *item = static_cast<Item *>(HASH_NewData(table));
    EXPECT_NE(item, nullptr);
    if (item == nullptr) {
        return nullptr;
    }
    EXPECT_EQ(item->key, 0U);  // zero-filled
    item->key = key;
    item->value = value;
    EXPECT_EQ(HASH_AddNode(table, item, &key), HASH_OK);
    return item;
}

std::vector<uint32_t> Keys(HASH_TABLE_S *table)
{
    std::vector<uint32_t> keys;
    for (void *e = HASH_GetFirstElmt(table); e != nullptr; e = HASH_GetNextElmt(table, e)) {
        keys.push_back(static_cast<Item *>(e)->key);
    }
    return keys;
}

}  // namespace

TEST(Hash, CollidingKeysChainInTheirBucketAndIterateBucketByBucket)
{
    EXPECT_EQ(HASH_CreateNew(0, 8, GenKey, CompKey), nullptr);
    EXPECT_EQ(HASH_CreateNew(8, 0, GenKey, CompKey), nullptr);
    EXPECT_EQ(HASH_CreateNew(8, 8, nullptr, CompKey), nullptr);
    HASH_TABLE_S *table = HASH_CreateNew(8, sizeof(Item), GenKey, CompKey);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(HASH_GetFirstElmt(table), nullptr);

    AddItem(table, 13, 1);               // bucket 5
    AddItem(table, 2, 2);                // bucket 2
    AddItem(table, 5, 3);                // bucket 5, after 13
    Item *last = AddItem(table, 21, 4);  // bucket 5, after 5
    EXPECT_EQ(HASH_GetElmtCount(table), 4U);
    EXPECT_EQ(Keys(table), (std::vector<uint32_t>{2, 13, 5, 21}));

    uint32_t key = 5;
    auto *found = static_cast<Item *>(HASH_FindElmtFromFirst(table, &key));
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->value, 3U);
    key = 29;  // bucket 5, absent
    EXPECT_EQ(HASH_FindElmtFromFirst(table, &key), nullptr);
    EXPECT_EQ(HASH_RemoveElmtByKey(table, &key), nullptr);

    // Taken out of the middle of a chain: the chain stays whole.
    key = 5;
    void *removed = HASH_RemoveElmtByKey(table, &key);
    EXPECT_EQ(removed, found);
    EXPECT_EQ(HASH_GetElmtCount(table), 3U);
    EXPECT_EQ(Keys(table), (std::vector<uint32_t>{2, 13, 21}));
    EXPECT_EQ(HASH_GetNextElmt(table, removed), nullptr);  // no longer in the table

    // An element in the table cannot be added again nor freed; out of it,
    // it is freed once.
    key = 21;
    EXPECT_EQ(HASH_AddNode(table, last, &key), HASH_ERR_IN_TABLE);
    EXPECT_EQ(HASH_FreeData(table, last), HASH_ERR_IN_TABLE);
    EXPECT_EQ(HASH_FreeData(table, removed), HASH_OK);
    EXPECT_EQ(HASH_FreeData(table, removed), HASH_ERR_PARAM);

    // Elements and tables of others are refused.
    HASH_TABLE_S *other = HASH_CreateNew(4, sizeof(Item), GenKey, CompKey);
    ASSERT_NE(other, nullptr);
    Item foreign{};
    EXPECT_EQ(HASH_AddNode(table, &foreign, &key), HASH_ERR_PARAM);
    EXPECT_EQ(HASH_AddNode(other, last, &key), HASH_ERR_PARAM);
    EXPECT_EQ(HASH_Destroy(other), HASH_OK);
    EXPECT_EQ(HASH_Destroy(other), HASH_ERR_PARAM);
    EXPECT_EQ(HASH_NewData(other), nullptr);
    EXPECT_EQ(HASH_GetElmtCount(other), 0U);
    EXPECT_EQ(HASH_Destroy(table), HASH_OK);
}

// Creating a table, an element and adding it are injected by the module's
// port description suite (portdesc_test.cpp). Every call opens with the same
// failure prologue (platform::FailPoint): a removal stands for the calls
// that answer null, a free for those that answer the code.
TEST(Hash, InjectedFailuresReturnNullOrTheCode)
{
    HASH_TABLE_S *table = HASH_CreateNew(8, sizeof(Item), GenKey, CompKey);
    ASSERT_NE(table, nullptr);
    AddItem(table, 1, 1);
    uint32_t key = 1;
    PLAT_FailSet("HASH_RemoveElmtByKey", 0, 1, 1);
    EXPECT_EQ(HASH_RemoveElmtByKey(table, &key), nullptr);
    EXPECT_EQ(HASH_GetElmtCount(table), 1U);  // the failed removal took nothing
    void *data = HASH_NewData(table);
    ASSERT_NE(data, nullptr);
    PLAT_FailSet("HASH_FreeData", 0, 1, 0x98);
    EXPECT_EQ(HASH_FreeData(table, data), 0x98U);
    EXPECT_EQ(HASH_FreeData(table, data), HASH_OK);
    EXPECT_EQ(HASH_Destroy(table), HASH_OK);
}
