// Circuit-ID and Remote-ID sub-options: format lookup on the port, the
// common, extend and user-defined renderings. Which sub-options the
// encapsulation setting puts in the tag is checked on relayed frames in
// pkt_test.cpp.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

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

using Bytes = std::vector<uint8_t>;

Bytes Text(const std::string &s)
{
    return Bytes(s.begin(), s.end());
}

// System SW1 with MAC 0a1b-2c3d-4e5f; GE0/0/1 (5) and 10GE1/0/3 (6).
class CidRidTest : public pplus_test::ModuleTest {
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        UseIdentity("SW1", {0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f});
        platform::world::IfPut({.name = "GE0/0/1", .ifIndex = 5});
        platform::world::IfPut({.name = "10GE1/0/3", .ifIndex = 6});
        PPPOE_PLUS_InitGlobalCfgData();
        ReadyTagBuilders();
        PLAT_LogClear();
        PLAT_AssertReset();
    }

    static UserInfo Info(uint32_t xpi, uint32_t xci, const char *portName = "GE0/0/1", uint32_t ifIndex = 5)
    {
        UserInfo info = {};
        info.IfIndex = ifIndex;
        info.ulXpi = xpi;
        info.ulXci = xci;
        (void)strcpy_s(info.ifType, sizeof(info.ifType), "eth");
        (void)strcpy_s(info.portName, sizeof(info.portName), portName);
        return info;
    }

    static void SetFormat(uint16_t vlan, uint16_t ceVlan, uint8_t infoType, uint8_t type, const char *udf = "",
                          uint32_t ifIndex = 5)
    {
        const InfoFormatNode node = pplus_test::Format(vlan, ceVlan, infoType, type, udf);
        ASSERT_EQ(PPPOE_PLUS_SetPortFormat(&node, ifIndex, 1), 0U);
    }

    // The built sub-option (head included), or nothing when the build failed.
    static std::optional<Bytes> Build(uint32_t infoType, UserInfo info)
    {
        uint8_t buf[PPPOE_PLUS_SUBOPT_BUF_LEN] = {};
        uint32_t len = 0;
        const uint32_t ret = infoType == PPPOE_PLUS_INFO_CID ? PPPOE_PLUS_EncodeCid(&info, buf, &len)
                                                             : PPPOE_PLUS_EncodeRid(&info, buf, &len);
        if (ret != 0U) {
            return std::nullopt;
        }
        return Bytes(buf, buf + len);
    }

    // Both sub-options at once: the result and the two lengths.
    static std::tuple<uint32_t, uint32_t, uint32_t> BuildBoth(UserInfo info)
    {
        uint8_t cid[PPPOE_PLUS_SUBOPT_BUF_LEN] = {};
        uint8_t rid[PPPOE_PLUS_SUBOPT_BUF_LEN] = {};
        uint32_t cidLen = 0, ridLen = 0;
        const uint32_t ret = PPPOE_PLUS_EncodeCidRid(&info, cid, &cidLen, rid, &ridLen);
        return {ret, cidLen, ridLen};
    }

    // The value of a built sub-option after checking its head.
    static std::optional<Bytes> Value(uint32_t infoType, const UserInfo &info)
    {
        const auto sub = Build(infoType, info);
        if (!sub) {
            return std::nullopt;
        }
        EXPECT_GE(sub->size(), 2U);
        EXPECT_EQ((*sub)[0], infoType);
        EXPECT_EQ((*sub)[1], sub->size() - 2U);
        return Bytes(sub->begin() + 2, sub->end());
    }

    static bool DebugHas(const std::string &text) { return LogHas(PLAT_LOG_DEBUG, text); }
};

const Bytes kMacText = Text("0a1b-2c3d-4e5f");
const Bytes kGlobalCid100 = Text("eth 0/0/1:100.0 SW1/0/0/0/0/0");

}  // namespace

TEST_F(CidRidTest, MostSpecificPortListWinsAndOuterVlanZeroGoesGlobal)
{
    SetFormat(100, 200, PPPOE_PLUS_INFO_CID, PPPOE_PLUS_FORMAT_USER_DEFINE, "\"qinq\"");
    SetFormat(0, 300, PPPOE_PLUS_INFO_CID, PPPOE_PLUS_FORMAT_USER_DEFINE, "\"ce\"");
    SetFormat(100, 0, PPPOE_PLUS_INFO_CID, PPPOE_PLUS_FORMAT_USER_DEFINE, "\"vlan\"");
    SetFormat(0, 0, PPPOE_PLUS_INFO_CID, PPPOE_PLUS_FORMAT_USER_DEFINE, "\"port\"");
    struct Case {
        uint32_t xpi;
        uint32_t xci;
        Bytes cid;
        const char *why;
    };
    const Case cases[] = {
        {100, 200, Text("qinq"), "QinQ pair beats CE, VLAN and port-wide"},
        {100, 300, Text("ce"), "inner VLAN beats the outer VLAN's node; the CE node's outer VLAN is not compared"},
        {100, 0, Text("vlan"), "single tag: QinQ and CE lists are never consulted"},
        {100, 201, Text("vlan"), "no node for the inner VLAN: the outer VLAN's"},
        {101, 200, Text("port"), "no VLAN match at all: the port-wide node"},
        {0, 200, Text("eth 0/0/1:0.200 SW1/0/0/0/0/0"), "outer VLAN 0: global, even with a port-wide node"},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(Value(PPPOE_PLUS_INFO_CID, Info(c.xpi, c.xci)), c.cid) << c.why;
    }
    for (const char *line : {"PPPOE PLUS Find Port QinQ Vlan Info Format By User Info:ifindex = 5,vlanId = 100,"
                             "ceVlanId = 200,infoType = 1,infoFormatType = 2, userDefineStr = \"qinq\".",
                             "PPPOE PLUS Find Port Ce Vlan Info Format By User Info:ifindex = 5,vlanId = 0,"
                             "ceVlanId = 300,infoType = 1,infoFormatType = 2, userDefineStr = \"ce\".",
                             "PPPOE PLUS Find Port vlan Info Format By User Info:ifindex = 5,vlanId = 100,"
                             "ceVlanId = 0,infoType = 1,infoFormatType = 2, userDefineStr = \"vlan\".",
                             "PPPOE PLUS Find Port Info Format By User Info:ifindex = 5,vlanId = 0,"
                             "ceVlanId = 0,infoType = 1,infoFormatType = 2, userDefineStr = \"port\".",
                             "PPPOE PLUS Encap Port Info Format Circuit userdefined information.(portname=GE0/0/1,"
                             "Vlan=100,Circuit Id=qinq)"}) {
        EXPECT_TRUE(DebugHas(line)) << line;
    }

    // Circuit-ID nodes never answer for the Remote-ID.
    EXPECT_EQ(Value(PPPOE_PLUS_INFO_RID, Info(100, 200)), kMacText);
    EXPECT_TRUE(DebugHas("Global Rid common format.(PortName=GE0/0/1,Vlan=100,RId=0a1b-2c3d-4e5f)"));
    SetFormat(100, 0, PPPOE_PLUS_INFO_RID, PPPOE_PLUS_FORMAT_USER_DEFINE, "\"rid\"");
    EXPECT_EQ(Value(PPPOE_PLUS_INFO_RID, Info(100, 200)), Text("rid"));
    EXPECT_TRUE(DebugHas("Port RID udf format.(portname=GE0/0/1,Vlan=100,RId=rid)"));
}

TEST_F(CidRidTest, MatchedNodeThatCannotRenderFailsWithoutFallingBack)
{
    // The port-wide node and the global format would both render.
    const char *kTooLong = "\"%300sysname\"";
    struct Case {
        uint16_t vlan;
        uint16_t ceVlan;
        uint8_t infoType;
        const char *error;
    };
    const Case cases[] = {
        {100, 200, PPPOE_PLUS_INFO_CID, "PPPOE PLUS Encap Port CID QinQ vlan Info Format By User Info error."},
        {0, 200, PPPOE_PLUS_INFO_CID, "PPPOE PLUS Encap Port CID CE vlan Info Format By User Info error."},
        {100, 0, PPPOE_PLUS_INFO_CID, "PPPOE PLUS Encap Port CID vlan Info Format By User Info error."},
        {100, 200, PPPOE_PLUS_INFO_RID, "PPPOE PLUS Encap Port QinQ vlan Info Format By User Info error."},
        {0, 200, PPPOE_PLUS_INFO_RID, "PPPOE PLUS Encap Port RID CE vlan Info Format By User Info error."},
        {100, 0, PPPOE_PLUS_INFO_RID, "PPPOE PLUS Encap Port RID vlan Info Format By User Info error."},
    };
    uint32_t port = 10;
    for (const Case &c : cases) {
        platform::world::IfPut({.name = "GE0/0/" + std::to_string(port), .ifIndex = port});
        SetFormat(0, 0, c.infoType, PPPOE_PLUS_FORMAT_USER_DEFINE, "\"fine\"", port);
        SetFormat(c.vlan, c.ceVlan, c.infoType, PPPOE_PLUS_FORMAT_USER_DEFINE, kTooLong, port);
        PLAT_LogClear();
        EXPECT_EQ(Build(c.infoType, Info(100, 200, "GE0/0/1", port)), std::nullopt) << c.error;
        EXPECT_TRUE(DebugHas("PPPOE PLUS Build Port UserDefine error.")) << c.error;
        EXPECT_TRUE(DebugHas(c.error));
        EXPECT_FALSE(DebugHas("circuit-id by userinfo")) << c.error;
        EXPECT_FALSE(DebugHas("common format")) << c.error;
        ++port;
    }
    // The port-wide list's own failure.
    SetFormat(0, 0, PPPOE_PLUS_INFO_CID, PPPOE_PLUS_FORMAT_USER_DEFINE, kTooLong);
    SetFormat(0, 0, PPPOE_PLUS_INFO_RID, PPPOE_PLUS_FORMAT_USER_DEFINE, kTooLong);
    PLAT_LogClear();
    EXPECT_EQ(std::get<0>(BuildBoth(Info(100, 0))), 1U);
    EXPECT_TRUE(DebugHas("PPPOE PLUS Encap Port CID no vlan Info Format By User Info error."));
    EXPECT_TRUE(DebugHas("PPPOE PLUS Encap Port RID no vlan Info Format By User Info error."));
    EXPECT_TRUE(DebugHas("Failed to build circuit ID string or remote ID string."));
}

TEST_F(CidRidTest, CommonCircuitIdNamesTheShortPortOrTheTrunk)
{
    const std::string longName = "X" + std::string(62, '7');
    // The port's name and type, and the Circuit-ID.
    const std::tuple<const char *, const char *, std::string> cases[] = {
        {"GE0/0/1", "eth", "eth 0/0/1:100.0 SW1/0/0/0/0/0"},
        {"10GE1/0/3", "eth", "eth 1/0/3:100.0 SW1/0/0/0/0/0"},  // leading digits skipped
        {"1234", "eth", "eth :100.0 SW1/0/0/0/0/0"},            // no digit after a non-digit
        {longName.c_str(), "eth", "eth " + std::string(59, '7') + ":100.0 SW1/0/0/0/0/0"},  // cut to 63
        {"Eth-Trunk3", "trunk", "trunk 0/0/3:100.0 SW1/0/0/0/0/0"},
    };
    for (const auto &[portName, ifType, expected] : cases) {
        UserInfo info = Info(100, 0, portName);
        (void)strcpy_s(info.ifType, sizeof(info.ifType), ifType);
        info.ulNas_Port = 3;
        EXPECT_EQ(Value(PPPOE_PLUS_INFO_CID, info), Text(expected)) << portName;
    }
    EXPECT_TRUE(
        DebugHas("Encap common circuit-id by userinfo.(portname=GE0/0/1, vlan=100, infoLen=29, "
                 "circuit-id=eth 0/0/1:100.0 SW1/0/0/0/0/0)"));

    // A system name that cannot be read leaves it out.
    PLAT_FailSet("db_read_sys_info_obj", 0, 1, 7);
    EXPECT_EQ(Value(PPPOE_PLUS_INFO_CID, Info(100, 0)), Text("eth 0/0/1:100.0 /0/0/0/0/0"));
}

TEST_F(CidRidTest, CommonCircuitIdOf255CharactersPassesAnd256Fails)
{
    // "eth 0/0/1:100.0 " and "/0/0/0/0/0" around the system name: 26 characters.
    const std::string name255(229, 'n');
    platform::world::SetSysName(name255);
    const std::string expected = "eth 0/0/1:100.0 " + name255 + "/0/0/0/0/0";
    ASSERT_EQ(expected.size(), 255U);
    EXPECT_EQ(Value(PPPOE_PLUS_INFO_CID, Info(100, 0)), Text(expected));

    platform::world::SetSysName(name255 + "n");
    UserInfo info = Info(100, 0);
    uint8_t value[PPPOE_PLUS_SUBOPT_BUF_LEN] = {};
    uint32_t len = 0xABCD;
    EXPECT_EQ(PPPOE_PLUS_EncapCommonCid(&info, value, &len), 1U);
    EXPECT_EQ(len, 0xABCDU);
    EXPECT_TRUE(DebugHas("Encap info format circuit-id length error."));
    EXPECT_EQ(Build(PPPOE_PLUS_INFO_CID, info), std::nullopt);
}

TEST_F(CidRidTest, ExtendFormatsPackVlanSlotPortAndMac)
{
    PPPOE_PLUS_SetGlobalCidFormat(PPPOE_PLUS_FORMAT_EXTEND, nullptr);
    PPPOE_PLUS_SetGlobalRidFormat(PPPOE_PLUS_FORMAT_EXTEND, nullptr);
    UserInfo info = Info(0x123, 0);
    info.ulNas_Slot = 40;
    info.ulNas_SubSlot = 1;
    info.ulNas_Port = 300;
    // 40 * 8 + 1 = 321 keeps its low byte 0x41; port 300 keeps 0x2C.
    EXPECT_EQ(Build(PPPOE_PLUS_INFO_CID, info), (Bytes{0x01, 0x06, 0x00, 0x04, 0x01, 0x23, 0x41, 0x2C}));
    EXPECT_TRUE(
        DebugHas("extendCid.type : 0 extendCid.len : 4 extendCid.slot : 40 extendCid.subSlot : 1 "
                 "extendCid.portId : 44 extendCid.vlanId : 291"));
    EXPECT_EQ(Build(PPPOE_PLUS_INFO_RID, info), (Bytes{0x02, 0x08, 0x00, 0x06, 0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f}));

    // A format code outside the table is an impossible state.
    g_pppoePlusGlobalInfo.cidFormatType = 7;
    EXPECT_EQ(Build(PPPOE_PLUS_INFO_CID, info), std::nullopt);
    EXPECT_EQ(PLAT_AssertCount(), 1U);
}

TEST_F(CidRidTest, RemoteIdNeedsTheSystemMacWhateverItsFormat)
{
    PLAT_FailSet("DEVM_DB_GetSysMac", 0, PLAT_FAIL_FOREVER, 5);
    for (uint8_t type : {PPPOE_PLUS_FORMAT_COMMON, PPPOE_PLUS_FORMAT_EXTEND, PPPOE_PLUS_FORMAT_USER_DEFINE}) {
        PPPOE_PLUS_SetGlobalRidFormat(type, "\"text only\"");
        EXPECT_EQ(Build(PPPOE_PLUS_INFO_RID, Info(100, 0)), std::nullopt) << int{type};
    }
    EXPECT_TRUE(DebugHas("fail to get SysMac, ret 5."));

    // Both are attempted: the Circuit-ID is still built, the result fails.
    PLAT_LogClear();
    EXPECT_EQ(BuildBoth(Info(100, 0)), std::make_tuple(1U, static_cast<uint32_t>(kGlobalCid100.size() + 2U), 0U));
    EXPECT_TRUE(DebugHas("Failed to build circuit ID string or remote ID string."));

    // Once the device manager answers, the MAC is read and kept.
    PLAT_FailClear("DEVM_DB_GetSysMac");
    PPPOE_PLUS_SetGlobalRidFormat(PPPOE_PLUS_FORMAT_COMMON, nullptr);
    EXPECT_EQ(Value(PPPOE_PLUS_INFO_RID, Info(100, 0)), kMacText);
    PLAT_FailSet("DEVM_DB_GetSysMac", 0, PLAT_FAIL_FOREVER, 5);
    EXPECT_EQ(Value(PPPOE_PLUS_INFO_RID, Info(100, 0)), kMacText);
}

TEST_F(CidRidTest, PortBlockThatCannotBeMadeFailsTheBuild)
{
    PLAT_FailSet("RUK_MemAlloc_F", 0, PLAT_FAIL_FOREVER, 1);
    EXPECT_EQ(Build(PPPOE_PLUS_INFO_CID, Info(100, 0)), std::nullopt);
    EXPECT_TRUE(DebugHas("PPPOE PLUS CID getPortCBByIndex fail. (ifIndex: 5)"));
    EXPECT_EQ(Build(PPPOE_PLUS_INFO_RID, Info(100, 0)), std::nullopt);
    EXPECT_TRUE(DebugHas("PPPOE PLUS RID getPortCBByIndex fail. (ifIndex: 5)"));
}

TEST_F(CidRidTest, BuildsStayWholeWhileFormatsChangeUnderThem)
{
    // The configuration task replaces the port's node, the global string and
    // trust while the packet task builds, makes blocks and matches trusted
    // ports: every build sees one whole format, and under ThreadSanitizer
    // all of it stays silent.
    PPPOE_PLUS_SetGlobalCidFormat(PPPOE_PLUS_FORMAT_USER_DEFINE, "\"global-a\"");
    ASSERT_TRUE(Value(PPPOE_PLUS_INFO_CID, Info(100, 0)).has_value());  // the block exists
    std::atomic<bool> stop{false};
    std::thread config([&] {
        for (uint32_t i = 0; i < 2000 && !stop.load(); ++i) {
            const bool odd = (i % 2U) != 0U;
            SetFormat(100, 0, PPPOE_PLUS_INFO_CID, PPPOE_PLUS_FORMAT_USER_DEFINE, odd ? "\"port-b\"" : "\"port-a\"");
            PPPOE_PLUS_SetGlobalCidFormat(PPPOE_PLUS_FORMAT_USER_DEFINE, odd ? "\"global-b\"" : "\"global-a\"");
            const InfoFormatNode node = pplus_test::Format(100, 0, PPPOE_PLUS_INFO_CID);
            (void)PPPOE_PLUS_SetPortFormat(&node, 5, 0);
            (void)PPPOE_PLUS_SetPortTrust(1 + i % 4U, odd ? 1 : 0);
        }
    });
    const Bytes allowed[] = {Text("port-a"), Text("port-b"), Text("global-a"), Text("global-b")};
    uint32_t odd = 0;
    for (uint32_t i = 0; i < 2000; ++i) {
        const auto cid = Value(PPPOE_PLUS_INFO_CID, Info(100, 0));
        ASSERT_TRUE(cid.has_value());
        bool known = false;
        for (const Bytes &a : allowed) {
            known = known || *cid == a;
        }
        odd += known ? 0U : 1U;
        PortCB *fresh = nullptr;
        ASSERT_EQ(PPPOE_PLUS_GetPortCBByIndex(1000 + i, &fresh), 0U);
        uint32_t ports[8];
        uint32_t count = 0;
        PPPOE_PLUS_GetAllMatchTrustPort(ports, 8, &count, 100, 5);
    }
    stop = true;
    config.join();
    EXPECT_EQ(odd, 0U);
}
