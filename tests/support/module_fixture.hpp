// A ready world with the module's memory and agent handles in place and the
// board as HA master, so diagnostic logs reach the sink. Header-only: only
// suites that link the module include it.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <string>

#include "plat_safe.h"
#include "platform/world.hpp"
#include "pplus_test.hpp"
#include "pppoe_plus_cfg.h"
#include "pppoe_plus_ha.h"
#include "pppoe_plus_log.h"
#include "pppoe_plus_mem.h"
#include "pppoe_plus_tlv.h"

namespace pplus_test {

// A per-interface format record as a handler or a test hands it to the store.
inline InfoFormatNode Format(uint16_t vlan, uint16_t ceVlan, uint8_t infoType,
                             uint8_t type = PPPOE_PLUS_FORMAT_COMMON, const char *udf = "")
{
    InfoFormatNode node = {};
    node.vlanId = vlan;
    node.ceVlanId = ceVlan;
    node.infoType = infoType;
    node.infoFormatType = type;
    (void)strcpy_s(node.userDefineStr, sizeof(node.userDefineStr), udf);
    return node;
}

class ModuleTest : public testing::Test {
protected:
    void SetUp() override
    {
        UseReadyWorld();
        ASSERT_EQ(PPPOE_PLUS_InitMemHandle(), 0U);
        ASSERT_EQ(PPPOE_PLUS_InitIMAgent(), 0U);
        g_pplusHaRole = PPPOE_PLUS_HA_ROLE_MASTER;
    }

    // The switch's system name and MAC, as the tag builders read them.
    static void UseIdentity(const std::string &sysName, const std::array<uint8_t, 6> &sysMac)
    {
        platform::SystemIdentity id = platform::world::Identity();
        id.sysName = sysName;
        id.sysMac = sysMac;
        platform::world::SetIdentity(id);
        platform::world::SetSysName(sysName);
    }

    // What the tag builders need: the keyword dictionary, the system MAC
    // not read yet, every debug level on.
    static void ReadyTagBuilders()
    {
        ASSERT_EQ(PPPOE_PLUS_InitKeyWordDict(), 0U);
        std::memset(g_pppoePlusSystemMac, 0xFF, sizeof(g_pppoePlusSystemMac));
        ASSERT_EQ(PPPOE_PLUS_UpdateDebugSwitch(PPPOE_PLUS_DBG_ALL, 1), 0U);
    }
};

}  // namespace pplus_test
