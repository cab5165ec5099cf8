// The port description table over the platform hash.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "module_fixture.hpp"
#include "platform/control.h"
#include "pplus_test.hpp"
#include "pppoe_plus_log.h"
#include "pppoe_plus_portdesc.h"

using pplus_test::LogHas;

namespace {

class PortDescTest : public pplus_test::ModuleTest {
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        ASSERT_EQ(PPPOE_PLUS_UpdateDebugSwitch(PPPOE_PLUS_DBG_ALL, 1), 0U);
        PLAT_LogClear();
    }

    // As the configuration handler does: 242 bytes of a zero-filled buffer.
    static uint32_t Add(uint32_t ifIndex, const std::string &text)
    {
        char buf[256] = {};
        std::memcpy(buf, text.data(), std::min(text.size(), sizeof(buf) - 1));
        return PPPOE_PLUS_PortDescAdd(ifIndex, buf, 242);
    }

    static std::string Desc(uint32_t ifIndex)
    {
        const PppoePlusPortDescEntry *e = PPPOE_PLUS_PortDescHashFind(ifIndex);
        return e == nullptr ? "<none>" : e->description;
    }

    // The list in insertion order, checked link by link.
    static std::vector<uint32_t> ListOrder()
    {
        std::vector<uint32_t> order;
        const PppoePlusPortDescHash *t = g_pppoePlusPortDescHash;
        for (const PppoePlusDListNode *n = t->listHead.next; n != &t->listHead; n = n->next) {
            EXPECT_EQ(n->next->prev, n);
            order.push_back(reinterpret_cast<const PppoePlusPortDescEntry *>(n)->ifIndex);
        }
        EXPECT_EQ(order.size(), t->count);
        return order;
    }
};

}  // namespace

TEST_F(PortDescTest, AddUpdateFindAndDelete)
{
    EXPECT_EQ(PPPOE_PLUS_PortDescHashFind(5), nullptr);  // no table yet
    EXPECT_EQ(g_pppoePlusPortDescHash, nullptr);
    const uint32_t before = PLAT_MemOutstanding();

    // 5 and 133 share bucket 5; both are found.
    const uint32_t colliding = 133;
    EXPECT_EQ(PPPOE_PLUS_PortHashGenKey(&colliding), 5U);
    EXPECT_EQ(Add(5, "line five"), 0U);
    EXPECT_EQ(Add(133, "line one-three-three"), 0U);
    EXPECT_EQ(Add(6, "line six"), 0U);
    EXPECT_EQ(Desc(5), "line five");
    EXPECT_EQ(Desc(133), "line one-three-three");
    EXPECT_EQ(Desc(261), "<none>");
    EXPECT_TRUE(
        LogHas(PLAT_LOG_DEBUG, "[PPPOE_PLUS_PORTDESC] Add port description, ifIndex:133, desc:line one-three-three"));
    EXPECT_EQ(ListOrder(), (std::vector<uint32_t>{5, 133, 6}));

    // An update overwrites the whole text in place.
    EXPECT_EQ(Add(133, "short"), 0U);
    EXPECT_EQ(Desc(133), "short");
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPPOE_PLUS_PORTDESC] Update port description, ifIndex:133, desc:short"));
    EXPECT_EQ(ListOrder(), (std::vector<uint32_t>{5, 133, 6}));
    // A 300-character description keeps its first 242.
    EXPECT_EQ(Add(6, std::string(300, 'x')), 0U);
    EXPECT_EQ(Desc(6), std::string(242, 'x'));

    EXPECT_EQ(PPPOE_PLUS_PortDescDel(5), 0U);
    EXPECT_EQ(Desc(5), "<none>");
    EXPECT_EQ(Desc(133), "short");  // its bucket neighbour stays
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPPOE_PLUS_PORTDESC] Del port description, ifIndex:5"));
    EXPECT_NE(PPPOE_PLUS_PortDescDel(5), 0U);
    EXPECT_NE(PPPOE_PLUS_PortDescDel(77), 0U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPPOE_PLUS_PORTDESC] Del port description failed, ifIndex:77"));
    EXPECT_EQ(ListOrder(), (std::vector<uint32_t>{133, 6}));

    // Delete-all empties the table and keeps it; everything is freed but it.
    PppoePlusPortDescHash *table = g_pppoePlusPortDescHash;
    EXPECT_EQ(Add(7, "seven"), 0U);
    PPPOE_PLUS_PortDescDelAll();
    EXPECT_EQ(g_pppoePlusPortDescHash, table);
    EXPECT_EQ(table->count, 0U);
    EXPECT_EQ(HASH_GetElmtCount(table->hash), 0U);
    EXPECT_TRUE(ListOrder().empty());
    EXPECT_EQ(PLAT_MemOutstanding(), before + 1);  // the table record
    EXPECT_EQ(PPPOE_PLUS_CreateAndGetPortDescHash(), table);
}

TEST_F(PortDescTest, CreationManyEntriesWalkAndFailures)
{
    // A table that cannot be made refuses the add; the next use makes it.
    PLAT_FailSet("HASH_CreateNew", 0, 1, 1);
    EXPECT_EQ(Add(5, "five"), 1U);
    EXPECT_EQ(g_pppoePlusPortDescHash, nullptr);
    EXPECT_EQ(PLAT_MemOutstanding(), 0U);
    // Past the recorded capacity of 1024.
    for (uint32_t i = 1; i <= 1100; i++) {
        ASSERT_EQ(Add(i, "d" + std::to_string(i)), 0U) << i;
    }
    EXPECT_EQ(g_pppoePlusPortDescHash->count, 1100U);
    EXPECT_EQ(Desc(1100), "d1100");
    uint32_t seen = 0;
    PPPOE_PLUS_PortDescWalk([](PppoePlusPortDescEntry *, void *arg) { (*static_cast<uint32_t *>(arg))++; }, &seen);
    EXPECT_EQ(seen, 1100U);
    PPPOE_PLUS_PortDescWalk(nullptr, &seen);  // nothing happens

    // The snapshot cannot be taken: the walk does nothing.
    const uint32_t memBefore = PLAT_MemOutstanding();
    PLAT_FailSet("RUK_MemAlloc_F", 0, 1, 1);
    PPPOE_PLUS_PortDescDelAll();
    EXPECT_EQ(g_pppoePlusPortDescHash->count, 1100U);
    PPPOE_PLUS_PortDescDelAll();
    EXPECT_EQ(g_pppoePlusPortDescHash->count, 0U);
    EXPECT_EQ(PLAT_MemOutstanding(), memBefore - 1100U);

    // An add that fails half way leaves nothing behind.
    const uint32_t outstanding = PLAT_MemOutstanding();
    PLAT_FailSet("HASH_NewData", 0, 1, 1);
    EXPECT_EQ(Add(9, "nine"), 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPPOE_PLUS_PORTDESC] Add port description failed, ifIndex:9"));
    PLAT_FailSet("HASH_AddNode", 0, 1, 1);
    EXPECT_EQ(Add(9, "nine"), 1U);
    EXPECT_EQ(PLAT_MemOutstanding(), outstanding);
    EXPECT_EQ(Desc(9), "<none>");
    EXPECT_EQ(g_pppoePlusPortDescHash->count, 0U);
    EXPECT_EQ(PPPOE_PLUS_PortDescHashAdd(9, "nine", 300), 1U);  // beyond the 256-byte bound
    EXPECT_EQ(PPPOE_PLUS_PortDescHashAdd(9, nullptr, 4), 1U);
    EXPECT_EQ(PLAT_MemOutstanding(), outstanding);
}
