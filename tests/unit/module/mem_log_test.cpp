// Module memory, the debug switch, diagnostic logs and the dump helpers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "module_fixture.hpp"
#include "platform/control.h"
#include "pplus_test.hpp"
#include "pppoe_frame.hpp"
#include "pppoe_plus_ha.h"
#include "pppoe_plus_log.h"
#include "pppoe_plus_mem.h"
#include "ruk.h"

using pplus_test::LogCount;
using pplus_test::LogHas;

namespace {

constexpr const char *kMemFile = "app/src/common/src/pppoe_plus_mem";

class LogTest : public pplus_test::ModuleTest {
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        PLAT_LogClear();
    }
};

std::vector<std::string> DebugLines()
{
    std::vector<std::string> lines;
    PLAT_LogVisit(
        [](uint32_t kind, uint64_t, const char *line, void *arg) {
            if (kind == PLAT_LOG_DEBUG) {
                static_cast<std::vector<std::string> *>(arg)->emplace_back(line);
            }
        },
        &lines);
    return lines;
}

}  // namespace

TEST(ModuleMemory, HandleFailuresReturnTheirCodesAndAllocationNeedsTheHandle)
{
    pplus_test::UseReadyWorld();
    EXPECT_EQ(PPPOE_PLUS_MemAlloc(16), nullptr);  // before the handle: null, no assert
    EXPECT_EQ(PLAT_AssertCount(), 0U);
    PLAT_FailSet("RUK_HandleInitialize", 0, 1, 0x77);
    EXPECT_EQ(PPPOE_PLUS_InitMemHandle(), 0x77U);
    EXPECT_EQ(PPPOE_PLUS_GetHandle(), 0xFFFFFFFFU);
    PLAT_FailSet("RUK_MemPtNoGet", 0, 1, 0x78);
    EXPECT_EQ(PPPOE_PLUS_InitMemHandle(), 0x78U);

    ASSERT_EQ(PPPOE_PLUS_InitMemHandle(), 0U);
    const uint32_t before = PLAT_MemOutstanding();
    void *p = PPPOE_PLUS_MemAlloc(16);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(PLAT_MemOutstanding(), before + 1);
    PPPOE_PLUS_MemFree(p);
    PPPOE_PLUS_MemFree(nullptr);
    EXPECT_EQ(PLAT_MemOutstanding(), before);
    EXPECT_EQ(PLAT_AssertCount(), 0U);

    PLAT_FailSet("RUK_MemAlloc_F", 0, 1, RUK_ERR_NO_MEMORY);
    EXPECT_EQ(PPPOE_PLUS_MemAlloc(16), nullptr);
    EXPECT_EQ(PLAT_AssertCountAt(kMemFile, 57), 1U);

    int notOurs = 0;
    PPPOE_PLUS_MemFree(&notOurs);
    EXPECT_EQ(PLAT_AssertCountAt(kMemFile, 72), 1U);
}

// Setting one level or all of them: OperationsSwitchDebugLevelsAndClearCounters
// (yangdb_test.cpp).
TEST_F(LogTest, DebugSwitchRefusesBadValuesEachLevelHasItsIdAndOutputFollowsIt)
{
    EXPECT_EQ(PPPOE_PLUS_UpdateDebugSwitch(5, 1), 1U);
    EXPECT_EQ(PPPOE_PLUS_UpdateDebugSwitch(0, 2), 1U);
    // Levels 0 to 3, then one out of range, which gets the level-1 id.
    const std::pair<uint32_t, uint32_t> ids[] = {
        {0, 0x478BC26DU}, {1, 0x478BC26CU}, {2, 0x478BC26BU}, {3, 0x478BC26EU}, {9, 0x478BC26CU}};
    for (const auto &[level, id] : ids) {
        EXPECT_EQ(PPPOE_PLUS_GetDebugIdbyLevel(level), id) << level;
    }

    // Output follows its level's switch.
    PPPOE_PLUS_DbgOutput(1, "hidden %d", 1);
    EXPECT_FALSE(LogHas(PLAT_LOG_DEBUG, "hidden"));
    PPPOE_PLUS_UpdateDebugSwitch(1, 1);
    PPPOE_PLUS_DbgOutput(1, "shown %d", 2);
    PPPOE_PLUS_DbgOutput(2, "other level");
    PPPOE_PLUS_DbgOutput(7, "no such level");
    ASSERT_EQ(DebugLines().size(), 1U);
    EXPECT_NE(DebugLines()[0].find("shown 2"), std::string::npos);
    EXPECT_NE(DebugLines()[0].find("478bc26c"), std::string::npos) << DebugLines()[0];

    // A text that does not fit the 512-byte buffer is not output at all.
    PPPOE_PLUS_DbgOutput(1, "%s", std::string(600, 'x').c_str());
    EXPECT_EQ(DebugLines().size(), 1U);
}

TEST_F(LogTest, DiagnosticLogsGoOutOnlyFromTheMasterForOwnIds)
{
    PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG, "[T] hello %u", 7U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "PPPOE_PLUS_LOG_ID_DIAGDEBUG"));
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[slot=1/1][T] hello 7"));
    PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "[T] bad");
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "PPPoE Plus error information. (Info=[slot=1/1][T] bad)"));
    PPPOE_PLUS_Log(PPPOE_PLUS_LOG_ID_DIAGWARN, "[T] plain");
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "(Info=[T] plain)"));

    PPPOE_PLUS_DiagLog(0x04780400U, "[T] foreign id");
    EXPECT_FALSE(LogHas(PLAT_LOG_ANY, "foreign id"));

    g_pplusHaRole = PPPOE_PLUS_HA_ROLE_STANDBY;
    PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG, "[T] from standby");
    EXPECT_FALSE(LogHas(PLAT_LOG_ANY, "from standby"));

    // The chassis and board ids are read once and cached.
    EXPECT_LE(PLAT_CallCount("DEVM_DB_GetSelfChassisId"), 1U);
}

TEST_F(LogTest, AgentFailuresAreReportedOnTheErrorDebugLevel)
{
    PPPOE_PLUS_UpdateDebugSwitch(2, 1);
    PLAT_FailSet("IM_Agent_ObjCreate", 0, 1, 1);
    PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG, "[T] one");
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "im agent create obj fail."));
    PLAT_FailSet("IM_Agent_Send", 0, 1, 42);
    PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG, "[T] two");
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "im agent send fail. (ret=42)"));
    PLAT_FailSet("IM_Agent_ObjFree", 0, 1, 1);
    PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG, "[T] three");
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "im agent free obj fail."));
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[T] three"));
}

TEST(ModuleLog, NoAgentHandleMeansNoOutput)
{
    pplus_test::UseReadyWorld();
    g_pplusHaRole = PPPOE_PLUS_HA_ROLE_MASTER;
    PPPOE_PLUS_UpdateDebugSwitch(4, 1);
    PPPOE_PLUS_DbgOutput(1, "early debug");
    PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG, "early diag");
    EXPECT_EQ(PLAT_LogCount(PLAT_LOG_ANY, "early"), 0U);
    PLAT_FailSet("IM_Agent_GetHandle", 0, 1, 1);
    EXPECT_EQ(PPPOE_PLUS_InitIMAgent(), 1U);
}

TEST_F(LogTest, PacketDumpShowsAtMostSixtyFourBytesSixteenToALine)
{
    std::vector<uint8_t> bytes(100);
    std::iota(bytes.begin(), bytes.end(), 0);
    FpcMbuf frame = {bytes.data(), 0, static_cast<uint32_t>(bytes.size()), static_cast<uint32_t>(bytes.size()), 0};
    PPPOE_PLUS_DumpPkt(&frame);
    EXPECT_TRUE(DebugLines().empty());  // level 0 off

    PPPOE_PLUS_UpdateDebugSwitch(0, 1);
    PPPOE_PLUS_DumpPkt(&frame);
    ASSERT_EQ(DebugLines().size(), 1U);
    const std::string dump = DebugLines()[0];
    EXPECT_NE(dump.find("\n00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F \n10 "), std::string::npos);
    EXPECT_NE(dump.find("3F "), std::string::npos);
    EXPECT_EQ(dump.find("40 "), std::string::npos);
    EXPECT_EQ(std::count(dump.begin(), dump.end(), '\n'), 4);

    FpcMbuf empty = {bytes.data(), 0, 0, 100, 0};
    PPPOE_PLUS_DumpPkt(&empty);
    EXPECT_EQ(DebugLines().size(), 2U);
}

TEST_F(LogTest, VendorTagDump)
{
    PPPOE_PLUS_UpdateDebugSwitch(1, 1);
    // Circuit-ID "eth 0/1/2" and Remote-ID of 14 bytes under vendor 3561.
    std::string rid(14, '\0');
    std::iota(rid.begin(), rid.end(), '\xa0');
    const frames::Bytes frame = frames::Frame().vendor(3561, "eth 0/1/2", rid).bytes();
    PPPOE_PLUS_PrintVendorSpecInfo(frame.data() + frames::wire::kEthHeadLen + frames::wire::kPppoeHeadLen);
    ASSERT_EQ(DebugLines().size(), 1U);
    const std::string text = DebugLines()[0];
    EXPECT_NE(text.find("TagType:0x0105  length:31  Enterprise CODE:0xde9"), std::string::npos) << text;
    EXPECT_NE(text.find("Circuit ID:  Length :   9 Value:65 74 68 20 30 2f 31 2f 32 "), std::string::npos) << text;
    // Twelve bytes to a line, continued under 33 blanks.
    EXPECT_NE(text.find("Remote  ID:  Length :  14 Value:a0 a1 a2 a3 a4 a5 a6 a7 a8 a9 aa ab \r\n" +
                        std::string(33, ' ') + "ac ad "),
              std::string::npos)
        << text;

    // A first sub-option that runs past the tag's end.
    std::vector<uint8_t> broken = {0x01, 0x05, 0x00, 0x08, 0x00, 0x00, 0x0d, 0xe9, 0x01, 0x09, 'a', 'b'};
    PPPOE_PLUS_PrintVendorSpecInfo(broken.data());
    EXPECT_NE(DebugLines().back().find("SubTagLenError: Type :   1  Length :   9."), std::string::npos);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPOE_PLUS_LOG] Failed to print vendor info in first"));

    // A Circuit-ID that leaves no room for a Remote-ID stops after it.
    std::vector<uint8_t> cidOnly = {0x01, 0x05, 0x00, 0x08, 0x00, 0x00, 0x0d, 0xe9, 0x01, 0x02, 'a', 'b'};
    PPPOE_PLUS_PrintVendorSpecInfo(cidOnly.data());
    EXPECT_EQ(DebugLines().back().find("Remote"), std::string::npos);
    EXPECT_NE(DebugLines().back().find("Circuit ID:  Length :   2 Value:61 62 "), std::string::npos);
}
