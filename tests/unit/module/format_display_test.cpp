// The format display: the current device-wide formats and a worked example
// for a sample subscriber on the first layer-2 port.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>

#include "module_fixture.hpp"
#include "plat_safe.h"
#include "platform/control.h"
#include "platform/world.hpp"
#include "pplus_test.hpp"
#include "pppoe_plus_cfg.h"
#include "pppoe_plus_log.h"
#include "pppoe_plus_pkt.h"
#include "pppoe_plus_tlv.h"

using pplus_test::LogHas;

namespace {

constexpr const char *kFormatsCommon =
    " The current information format :\r\n   Circuit ID : COMMON\r\n   Remote  ID : COMMON";
constexpr const char *kExampleHeader =
    "\r\n For example: \r\n  interface GE0/0/1 SVLAN:200 CVLAN:100\r\n"
    "  The PPPOE Intermediate Agent information is as follows:";
constexpr const char *kMacHex = "0a 1b 2c 3d 4e 5f ";

// System SW1 with MAC 0a1b-2c3d-4e5f; a routed port (4) before the first
// layer-2 port GE0/0/1 (5, slot 0 card 0 port 1).
class FormatDisplayTest : public pplus_test::ModuleTest {
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        UseIdentity("SW1", {0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f});
        platform::world::IfPut({.name = "Vlanif1", .ifIndex = 4, .port = 1, .portSwitch = platform::kPortSwitchL3});
        platform::world::IfPut({.name = "GE0/0/1", .ifIndex = 5, .port = 1});
        PPPOE_PLUS_InitGlobalCfgData();
        ReadyTagBuilders();
        PLAT_LogClear();
    }

    // The whole display, or what was written before it failed.
    static std::string Display(uint32_t expectRet = 0, uint32_t size = 4096)
    {
        std::string buf(size, 'x');
        EXPECT_EQ(PPPOE_PLUS_GetFormatInfo(buf.data(), size), expectRet);
        return std::string(buf.c_str());
    }
};

}  // namespace

TEST_F(FormatDisplayTest, BothCommonShowTwoTextValues)
{
    EXPECT_EQ(Display(), std::string(kFormatsCommon) + kExampleHeader +
                             "\r\n  Circuit ID:eth 0/0/1:200.100 SW1/0/0/0/0/0"
                             "\r\n  Remote  ID:0a1b-2c3d-4e5f");

    // The example is built the way the packet path builds it, so a format of
    // the sample port for its VLANs shows: an extend value (its first byte
    // is 0) printed as text under the device-wide common type is empty.
    const InfoFormatNode node = pplus_test::Format(200, 100, PPPOE_PLUS_INFO_CID, PPPOE_PLUS_FORMAT_EXTEND);
    ASSERT_EQ(PPPOE_PLUS_SetPortFormat(&node, 5, 1), 0U);
    EXPECT_NE(Display().find("\r\n  Circuit ID:\r\n  Remote  ID:0a1b-2c3d-4e5f"), std::string::npos);

    // A small buffer keeps a terminated prefix.
    EXPECT_EQ(Display(0, 20), std::string(kFormatsCommon).substr(0, 19));
}

TEST_F(FormatDisplayTest, BinaryValuesAreDumpedSixteenBytesALine)
{
    PPPOE_PLUS_SetGlobalCidFormat(PPPOE_PLUS_FORMAT_EXTEND, nullptr);
    PPPOE_PLUS_SetGlobalRidFormat(PPPOE_PLUS_FORMAT_EXTEND, nullptr);
    EXPECT_EQ(Display(), std::string(" The current information format :\r\n   Circuit ID : EXTEND"
                                     "\r\n   Remote  ID : EXTEND") +
                             kExampleHeader + "\r\n  Circuit ID:00 04 00 c8 00 01 " + "\r\n  Remote  ID:00 06 " +
                             kMacHex);

    // 20 bytes: 16 on the first line, 4 under them; the Remote-ID label is
    // one character longer, so is its indent.
    const char *kTwentyBytes = "%mac%mac%mac%svlan";
    PPPOE_PLUS_SetGlobalCidFormat(PPPOE_PLUS_FORMAT_USER_DEFINE, kTwentyBytes);
    PPPOE_PLUS_SetGlobalRidFormat(PPPOE_PLUS_FORMAT_USER_DEFINE, kTwentyBytes);
    const std::string tail = std::string(kMacHex) + kMacHex + "0a 1b 2c 3d ";
    const std::string wrap = std::string("4e 5f 00 c8 ");
    EXPECT_EQ(Display(), std::string(" The current information format :") + "\r\n   Circuit ID : USER DEFINE.  " +
                             kTwentyBytes + "\r\n   Remote  ID : USER DEFINE.  " + kTwentyBytes + kExampleHeader +
                             "\r\n  Circuit ID:" + tail + "\r\n" + std::string(12, ' ') + wrap +
                             "\r\n  Remote  ID:" + tail + "\r\n" + std::string(13, ' ') + wrap);
}

TEST_F(FormatDisplayTest, UserDefinedValueIsTextOnlyWhenTheFormatStartsQuoted)
{
    // The format and the end of the display.
    const std::pair<const char *, std::string> cases[] = {
        {"\"%portname/%svlan\"", "\r\n  Remote  ID:GE0/0/1/200"},
        {"%svlan\"x\"", "\r\n  Remote  ID:00 c8 78 "},
    };
    for (const auto &[fmt, end] : cases) {
        PPPOE_PLUS_SetGlobalRidFormat(PPPOE_PLUS_FORMAT_USER_DEFINE, fmt);
        const std::string shown = Display();
        EXPECT_NE(shown.find(std::string("\r\n   Remote  ID : USER DEFINE.  ") + fmt), std::string::npos) << shown;
        EXPECT_EQ(shown.substr(shown.size() - end.size()), end) << shown;
    }
    EXPECT_EQ(PPPOE_PLUS_UdfIsAllAssic(nullptr), 0U);
}

TEST_F(FormatDisplayTest, DisplayFailsAfterTheFormatLinesWhenNoExampleCanBeBuilt)
{
    // No layer-2 port.
    platform::world::IfPut({.name = "GE0/0/1", .ifIndex = 5, .port = 1, .portSwitch = platform::kPortSwitchL3});
    EXPECT_EQ(Display(1), kFormatsCommon);
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPLUS_SHOW] Failed to get a layer 2 port"));
    uint8_t sub[PPPOE_PLUS_SUBOPT_BUF_LEN] = {};
    uint32_t len = 0;
    EXPECT_EQ(PPPOE_PLUS_GetExampleFormatStr(PPPOE_PLUS_INFO_CID, sub, &len), 1U);

    // The Remote-ID cannot be built: the Circuit-ID block stays.
    platform::world::IfPut({.name = "GE0/0/1", .ifIndex = 5, .port = 1});
    PLAT_FailSet("DEVM_DB_GetSysMac", 0, PLAT_FAIL_FOREVER, 5);
    EXPECT_EQ(Display(1),
              std::string(kFormatsCommon) + kExampleHeader + "\r\n  Circuit ID:eth 0/0/1:200.100 SW1/0/0/0/0/0");
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPLUS_SHOW] Failed to get remote id data"));

    // The Circuit-ID cannot be built: the header stays.
    PLAT_FailClear("DEVM_DB_GetSysMac");
    PPPOE_PLUS_SetGlobalCidFormat(PPPOE_PLUS_FORMAT_USER_DEFINE, "\"%300sysname\"");
    EXPECT_EQ(Display(1), std::string(" The current information format :") +
                              "\r\n   Circuit ID : USER DEFINE.  \"%300sysname\"" + "\r\n   Remote  ID : COMMON" +
                              kExampleHeader);
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPLUS_SHOW] Failed to get circuit id data"));
    EXPECT_EQ(PPPOE_PLUS_GetFormatInfo(nullptr, 10), 1U);
}

TEST_F(FormatDisplayTest, SampleSubscriberOnATrunkIsNamedTrunk)
{
    platform::world::IfPut({.name = "Eth-Trunk3", .ifIndex = 5, .port = 3, .lagId = 3});
    uint8_t sub[PPPOE_PLUS_SUBOPT_BUF_LEN] = {};
    uint32_t len = 0;
    ASSERT_EQ(PPPOE_PLUS_GetExampleFormatStr(PPPOE_PLUS_INFO_CID, sub, &len), 0U);
    const std::string expected = "trunk 0/0/3:200.100 SW1/0/0/0/0/0";
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(sub + 2), len - 2), expected);
}
