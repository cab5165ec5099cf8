// The configuration store: global settings, port control blocks, formats.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "module_fixture.hpp"
#include "platform/control.h"
#include "platform/world.hpp"
#include "pppoe_plus_cfg.h"

using pplus_test::LogCount;
using pplus_test::LogHas;

namespace {

class CfgTest : public pplus_test::ModuleTest {
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        PPPOE_PLUS_InitGlobalCfgData();
        PPPOE_PLUS_UpdateDebugSwitch(4, 1);
    }
};

using pplus_test::Format;

uint32_t SetFormat(const InfoFormatNode &node, uint32_t ifIndex, uint8_t enable)
{
    return PPPOE_PLUS_SetPortFormat(&node, ifIndex, enable);
}

// The trusted ports in the VLAN a frame from ingress may go to, at most eight.
std::vector<uint32_t> Match(uint16_t vlan, uint32_t ingress)
{
    uint32_t ports[8] = {};
    uint32_t count = 0;
    PPPOE_PLUS_GetAllMatchTrustPort(ports, 8, &count, vlan, ingress);
    return std::vector<uint32_t>(ports, ports + count);
}

}  // namespace

TEST_F(CfgTest, EnableIgnoreReplyAndTrustRequestOnlyOnChange)
{
    // No session to the forwarding manager here: requests fail, values stay.
    EXPECT_EQ(PPPOE_PLUS_SetEnable(1), 1U);
    EXPECT_EQ(PPPOE_PLUS_SetEnable(1), 0U);
    EXPECT_EQ(LogCount(PLAT_LOG_DEBUG, "Set global enable cfg. enable:1"), 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPLUS-CFG] Set same enable value.(enable: 1)"));
    EXPECT_EQ(PPPOE_PLUS_IsEnable(), 1U);

    PPPOE_PLUS_SetEnable(2);  // only exactly 1 asks for "enabled"
    EXPECT_EQ(PPPOE_PLUS_IsEnable(), 2U);
    EXPECT_EQ(LogCount(PLAT_LOG_DEBUG, "Set global enable cfg. enable:0"), 1U);

    EXPECT_EQ(PPPOE_PLUS_SetIgnoreReply(1), 0U);  // unchanged: silent
    EXPECT_EQ(LogCount(PLAT_LOG_DEBUG, "Set ignore reply cfg."), 0U);
    PPPOE_PLUS_SetIgnoreReply(0);
    PPPOE_PLUS_SetIgnoreReply(2);  // any non-zero value asks for "on"
    EXPECT_EQ(PPPOE_PLUS_GetIgnoreReply(), 2U);
    EXPECT_TRUE(pplus_test::LogInOrder(PLAT_LOG_DEBUG,
                                       {"Set ignore reply cfg. enable:0", "Set ignore reply cfg. enable:1"}) != 0);

    PPPOE_PLUS_SetPortTrust(3, 1);
    EXPECT_EQ(PPPOE_PLUS_SetPortTrust(3, 1), 0U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPLUS-CFG] Set same value. (enable: 1)"));
    EXPECT_EQ(LogCount(PLAT_LOG_DEBUG, "Set Trust port cfg. enable:1 ifIndex:3"), 1U);
    PPPOE_PLUS_SetPortTrust(3, 2);
    EXPECT_EQ(PPPOE_PLUS_FindPortCBByindex(3)->trust.load(), 2U);
}

TEST_F(CfgTest, DefaultPolicyEncapAndGlobalFormats)
{
    // The other defaults show in every tag pkt_test.cpp builds, in the
    // requests above and in what fwm starts with (acl_test.cpp).
    EXPECT_EQ(PPPOE_PLUS_GetGlobalInfoPolicy(), PPPOE_PLUS_POLICY_REPLACE);

    // Without a value the encapsulation is both sub-options, whatever type comes with it.
    PPPOE_PLUS_SetInfoEncap(0, PPPOE_PLUS_ENCAP_CID);
    EXPECT_EQ(PPPOE_PLUS_GetInfoEncap(), PPPOE_PLUS_ENCAP_BOTH);

    EXPECT_EQ(PPPOE_PLUS_SetGlobalCidFormat(PPPOE_PLUS_FORMAT_USER_DEFINE, "%sysname %port"), 0U);
    EXPECT_EQ(PPPOE_PLUS_SetGlobalCidFormat(PPPOE_PLUS_FORMAT_COMMON, nullptr), 0U);
    EXPECT_STREQ(PPPOE_PLUS_GetGlobalCidUdfFormat(), "%sysname %port");  // kept for a switch back
    EXPECT_EQ(PPPOE_PLUS_GetGlobalCidFormat(), PPPOE_PLUS_FORMAT_COMMON);

    const std::string tooLong(128, 'x');
    EXPECT_EQ(PPPOE_PLUS_SetGlobalRidFormat(PPPOE_PLUS_FORMAT_USER_DEFINE, tooLong.c_str()), 1U);
    EXPECT_EQ(PPPOE_PLUS_GetGlobalRidFormat(), PPPOE_PLUS_FORMAT_USER_DEFINE);  // type kept
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPLUS-CFG] Save rid Udf format failed, ret = "));
    const std::string fits(127, 'y');
    EXPECT_EQ(PPPOE_PLUS_SetGlobalRidFormat(PPPOE_PLUS_FORMAT_USER_DEFINE, fits.c_str()), 0U);
    EXPECT_EQ(std::string(PPPOE_PLUS_GetGlobalRidUdfFormat()), fits);
}

TEST_F(CfgTest, ThirtyTwoFormatsPerPortAndUpdatesStillWork)
{
    for (uint16_t i = 1; i <= 16; i++) {
        ASSERT_EQ(SetFormat(Format(i, 0, PPPOE_PLUS_INFO_CID), 9, 1), 0U);
        ASSERT_EQ(SetFormat(Format(0, i, PPPOE_PLUS_INFO_RID), 9, 1), 0U);
    }
    EXPECT_EQ(SetFormat(Format(500, 501, PPPOE_PLUS_INFO_CID), 9, 1), PPPOE_PLUS_FORMAT_TABLE_FULL);
    const InfoFormatNode update = Format(3, 0, PPPOE_PLUS_INFO_CID, PPPOE_PLUS_FORMAT_USER_DEFINE, "%svlan");
    EXPECT_EQ(PPPOE_PLUS_SetPortFormat(&update, 9, 1), 0U);
    PortCB *cb = PPPOE_PLUS_FindPortCBByindex(9);
    {
        PppoePlusCfgReadGuard guard(PppoePlusCfgLock());
        const InfoFormatNode *node = PPPOE_PLUS_FindInfoFormatOnInterface(cb, &update);
        ASSERT_NE(node, nullptr);
        EXPECT_STREQ(node->userDefineStr, "%svlan");
        EXPECT_EQ(node->infoFormatType, PPPOE_PLUS_FORMAT_USER_DEFINE);
        const UserInfo info{};
        EXPECT_NE(PPPOE_PLUS_GetPortUdfProg(node, &info), nullptr);  // compiled when set
    }
    {
        // A node changed in place is no longer taken for compiled.
        PppoePlusCfgWriteGuard guard(PppoePlusCfgLock());
        InfoFormatNode *node = PPPOE_PLUS_FindInfoFormatOnInterface(cb, &update);
        ASSERT_NE(node, nullptr);
        (void)strcpy_s(node->userDefineStr, sizeof(node->userDefineStr), "%port");
        const UserInfo info{};
        EXPECT_EQ(PPPOE_PLUS_GetPortUdfProg(node, &info), nullptr);
    }
    const uint32_t before = PLAT_MemOutstanding();
    EXPECT_EQ(PPPOE_PLUS_SetPortFormat(&update, 9, 0), 0U);
    EXPECT_EQ(PLAT_MemOutstanding(), before - 1);
    EXPECT_EQ(SetFormat(Format(500, 501, PPPOE_PLUS_INFO_CID), 9, 1), 0U);  // room again

    // Deleting a key never configured succeeds and creates the port's block.
    EXPECT_EQ(SetFormat(Format(1, 1, PPPOE_PLUS_INFO_CID), 44, 0), 0U);
    EXPECT_NE(PPPOE_PLUS_FindPortCBByindex(44), nullptr);

    PLAT_FailSet("RUK_MemAlloc_F", 0, 1, 1);
    EXPECT_EQ(SetFormat(Format(600, 0, PPPOE_PLUS_INFO_CID), 44, 1), 1U);
}

TEST_F(CfgTest, PortPolicyClearsAndABlockThatCannotBeMadeAssertsTwice)
{
    PortCB *a = nullptr;
    ASSERT_EQ(PPPOE_PLUS_GetPortCBByIndex(5, &a), 0U);
    EXPECT_EQ(PPPOE_PLUS_SetPortPolicy(5, PPPOE_PLUS_POLICY_KEEP, 1), 0U);
    EXPECT_EQ(a->infoPolicy.load(), PPPOE_PLUS_POLICY_KEEP);
    EXPECT_EQ(PPPOE_PLUS_SetPortPolicy(5, PPPOE_PLUS_POLICY_DROP, 0), 0U);
    EXPECT_EQ(a->infoPolicy.load(), PPPOE_PLUS_POLICY_UNSET);

    PLAT_FailSet("RUK_MemAlloc_F", 0, 1, 1);
    PortCB *c = nullptr;
    const uint32_t asserts = PLAT_AssertCount();
    EXPECT_EQ(PPPOE_PLUS_GetPortCBByIndex(8, &c), 1U);
    EXPECT_EQ(c, nullptr);
    // The module's allocation failure and the store's own, which names its file.
    EXPECT_EQ(PLAT_AssertCount(), asserts + 2);
    EXPECT_EQ(LogCount(PLAT_LOG_PLATFORM, "ZAVK assert at app/src/common/src/pppoe_plus_cfg:"), 1U);
    EXPECT_EQ(PPPOE_PLUS_GetGlobalPortList().count, 1U);
}

TEST_F(CfgTest, TrustedPortsMatchByVlanInListOrderAtMostEight)
{
    // Ports 1..12 trusted, all in VLAN 100 but port 4; port 11 trusted with 2:
    // nine match besides the ingress port 2, the ninth (12) is left out.
    for (uint32_t port = 1; port <= 12; port++) {
        PPPOE_PLUS_SetPortTrust(port, port == 11 ? 2 : 1);
        platform::world::PortVlanSet(port, 100, port != 4);
    }
    platform::world::PortVlanSet(20, 4095, true);
    PPPOE_PLUS_SetPortTrust(20, 1);

    EXPECT_EQ(Match(100, 2), (std::vector<uint32_t>{1, 3, 5, 6, 7, 8, 9, 10}));  // the ingress port is never chosen
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPLUS-CFG] Trusted port 4 is not join vlan 100."));
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPLUS-CFG] Find matched trusted port cnt 8."));

    EXPECT_EQ(Match(4095, 2), std::vector<uint32_t>{20});  // byte 511, bit 7
    EXPECT_TRUE(Match(300, 2).empty());
}

TEST_F(CfgTest, TrustedPortMatchFollowsTrustHoweverWritten)
{
    // The match walks the ports it last saw trusted: a trust byte written
    // through the setter or straight into the block, and a list made anew,
    // each show in the next match, in list order.
    PPPOE_PLUS_UpdateDebugSwitch(4, 0);
    for (uint32_t port = 1; port <= 3; port++) {
        platform::world::PortVlanSet(port, 100, true);
    }
    PortCB *second = nullptr;
    ASSERT_EQ(PPPOE_PLUS_GetPortCBByIndex(1, &second), 0U);
    ASSERT_EQ(PPPOE_PLUS_GetPortCBByIndex(2, &second), 0U);
    PPPOE_PLUS_SetPortTrust(3, 1);
    EXPECT_EQ(Match(100, 99), std::vector<uint32_t>{3});
    second->trust = 1;
    PPPOE_PLUS_SetPortTrust(1, 1);
    EXPECT_EQ(Match(100, 99), (std::vector<uint32_t>{1, 2, 3}));
    second->trust.store(0);
    PPPOE_PLUS_SetPortTrust(3, 2);
    EXPECT_EQ(Match(100, 99), std::vector<uint32_t>{1});
    PPPOE_PLUS_InitGlobalCfgData();
    EXPECT_EQ(Match(100, 99), std::vector<uint32_t>{});
    PPPOE_PLUS_SetPortTrust(2, 1);
    EXPECT_EQ(Match(100, 99), std::vector<uint32_t>{2});
}

TEST_F(CfgTest, BlocksBeyondTheIndexAreFoundThroughTheList)
{
    // More blocks than the index holds: the later ones are found by walking
    // the list, each exactly once and never made twice.
    PPPOE_PLUS_UpdateDebugSwitch(4, 0);
    constexpr uint32_t kPorts = 13000;
    std::vector<PortCB *> made(kPorts);
    for (uint32_t i = 0; i < kPorts; i++) {
        ASSERT_EQ(PPPOE_PLUS_GetPortCBByIndex(100000 + i * 7, &made[i]), 0U);
    }
    for (uint32_t i = 0; i < kPorts; i += 97) {
        EXPECT_EQ(PPPOE_PLUS_FindPortCBByindex(100000 + i * 7), made[i]);
        PortCB *again = nullptr;
        ASSERT_EQ(PPPOE_PLUS_GetPortCBByIndex(100000 + i * 7, &again), 0U);
        EXPECT_EQ(again, made[i]);
    }
    EXPECT_EQ(PPPOE_PLUS_FindPortCBByindex(100000 + kPorts * 7), nullptr);
    EXPECT_EQ(PPPOE_PLUS_GetGlobalPortList().count, kPorts);
}
