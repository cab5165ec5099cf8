// Keyword dictionary, field encoders and the user-defined format encoder.
#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "module_fixture.hpp"
#include "platform/control.h"
#include "platform/world.hpp"
#include "pplus_test.hpp"
#include "pppoe_plus_log.h"
#include "pppoe_plus_mem.h"
#include "pppoe_plus_portdesc.h"
#include "pppoe_plus_tlv.h"

using pplus_test::LogHas;

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Text(const std::string &s)
{
    return Bytes(s.begin(), s.end());
}

// Gi1 (5) on slot 1 card 2 port 3; member Gi9 (9) of trunk 3 = Eth-Trunk3
// (100); Gi10 (10) claims trunk 4, which has no interface.
class TlvTest : public pplus_test::ModuleTest {
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        UseIdentity("AB", {0x00, 0x12, 0x34, 0x56, 0x78, 0x9a});
        platform::world::IfPut({.name = "GigabitEthernet0/0/1", .ifIndex = 5});
        platform::world::IfPut({.name = "GigabitEthernet0/0/9", .ifIndex = 9, .l2TrunkId = 3});
        platform::world::IfPut({.name = "GigabitEthernet0/0/10", .ifIndex = 10, .l2TrunkId = 4});
        platform::world::IfPut({.name = "Eth-Trunk3", .ifIndex = 100, .lagId = 3});
        platform::world::TrunkPut({3, 100});
        ReadyTagBuilders();
        info_.IfIndex = 5;
        info_.ulNas_Slot = 1;
        info_.ulNas_SubSlot = 2;
        info_.ulNas_Port = 3;
        PLAT_LogClear();
        PLAT_AssertReset();
        PLAT_CallCountReset();
    }

    std::optional<Bytes> Encode(const std::string &fmt)
    {
        uint8_t out[PPPOE_PLUS_UDF_OUT_MAX] = {};
        uint32_t len = 0xDEAD;
        if (PPPOE_PLUS_EncodeUdfData(&info_, fmt.c_str(), out, &len) != 0U) {
            EXPECT_EQ(len, 0xDEADU) << "length touched on failure: " << fmt;
            return std::nullopt;
        }
        return Bytes(out, out + len);
    }

    static bool DebugHas(const std::string &text) { return LogHas(PLAT_LOG_DEBUG, text); }

    UserInfo info_{};
};

TEST_F(TlvTest, DictionaryAllocationFailureAsserts)
{
    PLAT_FailSet("RUK_MemAlloc_F", 0, 1, 1);
    EXPECT_NE(PPPOE_PLUS_InitKeyWordDict(), 0U);
    EXPECT_EQ(PLAT_AssertCount(), 2U);  // the memory service's and the dictionary's
}

// ---- Whole formats ----

// Each keyword in the ASCII stretch (quoted) and the hex stretch, with the
// VLANs and the port of the subscriber given, up to the 255-byte limit.
TEST_F(TlvTest, KeywordsNumbersAndTextInBothStretches)
{
    struct Case {
        const char *fmt;
        Bytes expect;  // nothing: the format fails
        uint32_t svlan = 0;
        uint32_t cvlan = 0;
        uint32_t ifIndex = 5;
    };
    info_.ulNas_Slot = 3;
    const Case cases[] = {
        // Widths and padding.
        {"\"%5slot\"", Text("    3")},
        {"\"%05slot\"", Text("00003")},
        {"%5slot %3port", {0x1B}},
        {"%slot", {0x00, 0x03}},
        {"%24subslot", {0x00, 0x00, 0x02}},
        {"1 %4slot", {0x01}},  // the trailing partial byte is lost
        {"%porttype", {0x0F}},
        {"\"%porttype\"", Text("ethernet")},
        {"\"%iftype\"", Text("eth")},
        {"\"%slot/%subslot/%port\"", Text("3/2/3")},
        {"\"a b\\\"c\"", Text("a b\"c")},
        {"\"%4sysname\"", Text("  AB")},
        {"\"%portname\"", Text("GigabitEthernet0/0/1")},
        // VLANs: 0 and 4095 are no VLAN (all ones in hex, 0 in text) unless
        // the keyword asks for the raw number.
        {"%svlan", {0xFF, 0xFF}},
        {"\"%svlan\"", Text("0")},
        {"%svlan", {0xFF, 0xFF}, 4095},
        {"%svlan", {0x0F, 0xFE}, 4094},
        {"\"%svlan\"", Text("1"), 1},
        {"%12svlan %4slot", {0xFF, 0xF3}},
        {"\"%cvlan\"", Text("0"), 0, 5000},
        {"%cvlan", {0x00, 0x14}, 0, 20},
        {"\"%nsvlan\"", Text("4095"), 4095},
        {"%ncvlan", {0x13, 0x88}, 0, 5000},
        // Numbers.
        {"1 515 \"ab\"", {0x01, 0x02, 0x03, 0x61, 0x62}},
        {"0x10", {0x10}},
        {"70000", {0x00, 0x01, 0x11, 0x70}},
        {"255 256", {0xFF, 0x01, 0x00}},
        {"65535 65536", {0xFF, 0xFF, 0x00, 0x01, 0x00, 0x00}},
        {"%40slot", {0x00, 0x00, 0x00, 0x00, 0x03}},  // no bit above the 32nd
        // The "%" that ends a number is swallowed, so "slot" is read as a number.
        {"7%slot", {0x07, 0x00, 0x01, 0x1F, 0xE2}},
        // The system MAC.
        {"\"%mac\"", Text("0012-3456-789a")},
        {"%mac", {0x00, 0x12, 0x34, 0x56, 0x78, 0x9a}},
        {"%8mac", {0x00, 0x12, 0x34, 0x56, 0x78, 0x9a}},
        // Length fields.
        {"\"%2length:%sysname\"", Text(" 3:AB")},
        {"1 %length \"abc\"", {0x01, 0x03, 0x61, 0x62, 0x63}},
        {"%16length %slot", {0x00, 0x02, 0x00, 0x03}},
        {"\"%length:%9slot\"", Text("10:        3")},  // grows by one, counted without its growth
        {"\"%03length-ab\"", Text("003-ab")},
        // An optional part goes with its absent VLAN.
        {"\"[%svlan/]%cvlan\"", Text("20"), 0, 20},
        {"\"[%svlan/]%cvlan\"", Text("10/20"), 10, 20},
        {"\"%svlan[.%cvlan]\"", Text("10"), 10, 0},
        {"\"[a\\]%svlan]b\"", Text("b")},
        // A result of 255 bytes is the limit.
        {"\"%255slot\"", Text(std::string(254, ' ') + "3")},
        {"\"%256slot\"", {}},
        {"\"%200slot%100port\"", {}},
        {"\"%9999slot\"", {}},  // wider than any scratch buffer
        // A trunk member is named by its trunk; trunk 4 has no interface:
        // the port's own name.
        {"\"%portname\"", Text("Eth-Trunk3"), 0, 0, 9},
        {"\"%iftype\"", Text("eth"), 0, 0, 9},
        {"\"%iftype\"", Text("trunk"), 0, 0, 100},
        {"\"%portname\"", Text("GigabitEthernet0/0/10"), 0, 0, 10},
    };
    for (const Case &c : cases) {
        info_.ulXpi = c.svlan;
        info_.ulXci = c.cvlan;
        info_.IfIndex = c.ifIndex;
        EXPECT_EQ(Encode(c.fmt).value_or(Bytes{}), c.expect) << c.fmt << " svlan " << c.svlan << " cvlan " << c.cvlan;
    }
    EXPECT_EQ(PLAT_CallCount("DEVM_DB_GetSysMac"), 1U);  // read once, then cached
    EXPECT_TRUE(DebugHas("Length of the String built by userdefined format is error.(Len=256)"));
    EXPECT_TRUE(DebugHas("Get trunk ifindex failed. (trunkId=4)."));
    EXPECT_EQ(PLAT_AssertCount(), 0U);
    EXPECT_EQ(Encode("\"ab%length\""), std::nullopt);  // nothing after the field
    EXPECT_EQ(PLAT_AssertCount(), 1U);
    EXPECT_TRUE(DebugHas("Encode Length Data:build num error."));
}

TEST_F(TlvTest, AllZeroMacIsADashAndBlanks)
{
    UseIdentity("AB", {});
    EXPECT_EQ(Encode("\"%mac\""), Text("-             "));
}

TEST_F(TlvTest, PortDescriptionFromTableThenPacket)
{
    std::strcpy(info_.portDescr, "from packet");
    EXPECT_EQ(Encode("\"<%portdescription>\""), Text("<>"));
    EXPECT_TRUE(DebugHas("PPPOE PLUS encode port description: no configuration."));
    info_.portDescrValid = 1;
    EXPECT_EQ(Encode("\"%portdescription\""), Text("from packet"));
    char desc[256] = "uplink to olt";
    ASSERT_EQ(PPPOE_PLUS_PortDescAdd(5, desc, 242), 0U);
    EXPECT_EQ(Encode("\"%portdescription\""), Text("uplink to olt"));
    EXPECT_TRUE(DebugHas("PPPOE PLUS encode port description: uplink to olt."));
    char copy[64] = {};
    EXPECT_EQ(PPPOE_PLUS_GetPortDescByIfIndex(5, copy, sizeof(copy)), 0U);
    EXPECT_STREQ(copy, "uplink to olt");
    EXPECT_EQ(PPPOE_PLUS_GetPortDescByIfIndex(6, copy, sizeof(copy)), 1U);
}

// A compiled format gives what the walk of the format gives, for each
// combination of the VLANs being 0: the same bytes, result, debug lines
// and asserts, also when a platform read fails or the format is one the
// walk fails on.
TEST_F(TlvTest, CompiledFormatsBuildWhatTheWalkBuilds)
{
    struct Case {
        const char *fmt;
        const char *failOp = nullptr;
    };
    std::strcpy(info_.portDescr, "from packet");
    info_.portDescrValid = 1;
    const Case cases[] = {
        {"\"%sysname %porttype %slot/%subslot/%port:%svlan.%cvlan\""},
        {"%5slot %3port 1 \"x\" %4slot"},
        {"\"[%svlan/]%cvlan\" [%cvlan] 7"},
        {"\"[a\\]%svlan]b\" %12svlan %4slot"},
        {"1 %length \"abc\""},
        {"\"%length:%9slot\""},
        {"\"[%svlan%03length]-\" %mac"},
        {"\"ab%length\""},
        {"\"%255slot\""},
        {"\"%256slot\""},
        {"\"%9999slot\""},
        {"70000 7%slot 0x1F"},
        {"\"a b\\\"c\" \\q"},
        {"\"%mac\" %8mac %porttype"},
        {"\"%15portdescription|%iftype|%ncvlan|%nsvlan\""},
        {"%bogus"},
        {"\"[%bogus]\""},
        {"\"%12345slot\""},
        {"%sysname"},
        {"\"x\\"},
        {"\"%portname\"", "db_get_if_name"},
        {"\"%mac\"", "DEVM_DB_GetSysMac"},
        {"%slot", "RUK_MemAlloc_F"},
        {"\"%sysname\"", "db_read_sys_info_obj"},
    };
    struct Result {
        uint32_t ret = 0;
        uint32_t len = 0xDEAD;
        Bytes out;
        uint32_t asserts = 0;
        std::vector<std::string> lines;
    };
    auto build = [&](const Case &c, bool compiled) {
        // The work buffer comes back dirty: what a build does not write or
        // zero shows.
        void *dirty = PPPOE_PLUS_MemAlloc(PPPOE_PLUS_UDF_WORK_LEN);
        EXPECT_NE(dirty, nullptr);
        if (dirty != nullptr) {
            std::memset(dirty, 0xA5, PPPOE_PLUS_UDF_WORK_LEN);
            PPPOE_PLUS_MemFree(dirty);
        }
        PLAT_LogClear();
        PLAT_AssertReset();
        std::memset(g_pppoePlusSystemMac, 0xFF, sizeof(g_pppoePlusSystemMac));  // read the MAC each time
        PppoePlusUdfProg prog;
        EXPECT_EQ(PPPOE_PLUS_UdfCompile(c.fmt, &info_, &prog), 0U);
        EXPECT_EQ(PLAT_AssertCount(), 0U) << "compiling is quiet: " << c.fmt;
        if (c.failOp != nullptr) {
            PLAT_FailSet(c.failOp, 0, 1, 7);
        }
        Result r;
        uint8_t out[PPPOE_PLUS_UDF_OUT_MAX] = {};
        r.ret = compiled ? PPPOE_PLUS_EncodeUdfProg(&info_, c.fmt, &prog, out, &r.len)
                         : PPPOE_PLUS_EncodeUdfData(&info_, c.fmt, out, &r.len);
        r.out.assign(out, out + (r.len <= sizeof(out) ? r.len : 0U));
        r.asserts = PLAT_AssertCount();
        PLAT_LogFlush();
        (void)PLAT_LogVisit([](uint32_t, uint64_t, const char *line,
                               void *arg) { static_cast<std::vector<std::string> *>(arg)->emplace_back(line); },
                            &r.lines);
        return r;
    };
    for (const Case &c : cases) {
        for (uint32_t variant = 0; variant < 4U; ++variant) {
            info_.ulXpi = (variant & 1U) != 0U ? 0U : 10U;
            info_.ulXci = (variant & 2U) != 0U ? 0U : 20U;
            const Result walked = build(c, false);
            const Result compiled = build(c, true);
            const std::string what = std::string(c.fmt) + " variant " + std::to_string(variant);
            auto whole = [](const Result &r) { return std::tie(r.ret, r.len, r.out, r.asserts, r.lines); };
            EXPECT_EQ(whole(compiled), whole(walked)) << what;
            // A failing platform read fails the format.
            EXPECT_TRUE(c.failOp == nullptr || walked.ret != 0U) << what;
        }
    }
    // A program compiled for other VLANs, or before the dictionary changed,
    // is not used: the format is walked.
    PppoePlusUdfProg prog;
    info_.ulXpi = 10;
    info_.ulXci = 20;
    ASSERT_EQ(PPPOE_PLUS_UdfCompile("\"[%svlan/]%cvlan\"", &info_, &prog), 0U);
    info_.ulXpi = 0;
    uint8_t out[PPPOE_PLUS_UDF_OUT_MAX] = {};
    uint32_t len = 0;
    ASSERT_EQ(PPPOE_PLUS_EncodeUdfProg(&info_, "\"[%svlan/]%cvlan\"", &prog, out, &len), 0U);
    EXPECT_EQ(Bytes(out, out + len), Text("20"));
    ASSERT_EQ(PPPOE_PLUS_UdfCompile("\"%slot\"", &info_, &prog), 0U);
    EXPECT_EQ(PPPOE_PLUS_UdfProgFits(&prog, &info_), 1U);
    ASSERT_EQ(PPPOE_PLUS_KeyWordWriteDict(PPPOE_PLUS_KW_SLOT, 5, 5, PPPOE_PLUS_EncodePort, 0U, "slot"), 0U);
    EXPECT_EQ(PPPOE_PLUS_UdfProgFits(&prog, &info_), 0U);
    ASSERT_EQ(PPPOE_PLUS_EncodeUdfProg(&info_, "\"%slot\"", &prog, out, &len), 0U);
    EXPECT_EQ(Bytes(out, out + len), Text("3"));  // the port, as the dictionary now says
}

// ---- Failure paths ----

TEST_F(TlvTest, PlatformFailuresFailTheFormat)
{
    PLAT_FailSet("DEVM_DB_GetSysMac", 0, 1, 9);
    EXPECT_EQ(Encode("\"%mac\""), std::nullopt);
    EXPECT_TRUE(DebugHas("fail to get SysMac, ret 9."));
    EXPECT_TRUE(DebugHas("fail to get SysMac, ret 1."));
    EXPECT_TRUE(DebugHas("Encode function return error.(KeyWordID=4)"));
    EXPECT_EQ(Encode("\"%mac\""), Text("0012-3456-789a"));  // read again after a failure

    PLAT_AssertReset();
    PLAT_FailSet("RUK_MemAlloc_F", 0, 1, 1);
    EXPECT_EQ(Encode("\"%slot\""), std::nullopt);
    EXPECT_EQ(PLAT_AssertCount(), 2U);  // the memory service's and the encoder's
    EXPECT_EQ(Encode("\"%slot\""), Text("1"));
}

TEST_F(TlvTest, MalformedFormatsAssertAndLeaveTheOutputAlone)
{
    const uint32_t outstanding = PLAT_MemOutstanding();
    const char *bad[] = {"%bogus", "\"%portx\"", "\"%SLOT\"", "\"[%bogus]\"", "\"ab%length\"", "%sysname"};
    for (const char *fmt : bad) {
        PLAT_AssertReset();
        uint8_t out[PPPOE_PLUS_UDF_OUT_MAX];
        std::memset(out, 0xA5, sizeof(out));
        uint32_t len = 0xDEAD;
        EXPECT_NE(PPPOE_PLUS_EncodeUdfData(&info_, fmt, out, &len), 0U) << fmt;
        EXPECT_EQ(len, 0xDEADU) << fmt;
        EXPECT_EQ(out[0], 0xA5) << fmt;
        EXPECT_GE(PLAT_AssertCount(), 1U) << fmt;
    }
    PLAT_AssertReset();
    uint8_t out[PPPOE_PLUS_UDF_OUT_MAX] = {};
    uint32_t len = 0;
    EXPECT_EQ(PPPOE_PLUS_EncodeUdfData(nullptr, "1", out, &len), 1U);
    EXPECT_EQ(PPPOE_PLUS_EncodeUdfData(&info_, nullptr, out, &len), 1U);
    EXPECT_EQ(PPPOE_PLUS_EncodeUdfData(&info_, "1", nullptr, &len), 1U);
    EXPECT_EQ(PPPOE_PLUS_UserFmtAtoul(nullptr, &len, &len), 1U);
    EXPECT_EQ(PPPOE_PLUS_UserFmtGetBytes(1, nullptr), 1U);
    EXPECT_EQ(PLAT_AssertCount(), 5U);
    EXPECT_EQ(PPPOE_PLUS_EncodeSlot(nullptr), 1U);
    KeyWordEncodeCtx ctx{};
    EXPECT_EQ(PPPOE_PLUS_EncodeSysMac(&ctx), 1U);
    EXPECT_EQ(PLAT_AssertCount(), 6U);
    EXPECT_EQ(PLAT_MemOutstanding(), outstanding);  // the work buffer is freed on every path
}

}  // namespace
