// The user-defined format validator: every check result, the order of the
// checks, the part extractors and the length estimates. Arbitrary strings
// through the validator and the encoder are the fuzz target's (udf_fuzz).
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "module_fixture.hpp"
#include "platform/control.h"
#include "pplus_test.hpp"
#include "pppoe_plus_log.h"
#include "pppoe_plus_udfchk.h"

using pplus_test::LogHas;

namespace {

class UdfChkTest : public pplus_test::ModuleTest {
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        ASSERT_EQ(PPPOE_PLUS_InitKeyWordDict(), 0U);
        ASSERT_EQ(PPPOE_PLUS_UpdateDebugSwitch(PPPOE_PLUS_DBG_ALL, 1), 0U);
        PLAT_LogClear();
        PLAT_AssertReset();
    }
};

struct Row {
    const char *fmt;
    uint32_t code;
    const char *why;
};

void ExpectRows(const std::vector<Row> &rows)
{
    for (const Row &r : rows) {
        EXPECT_EQ(PPPOE_PLUS_UserDfdFmtCheck(r.fmt), r.code) << "format <" << r.fmt << ">: " << r.why;
    }
}

}  // namespace

// One or more strings per result code, each reaching that code.
TEST_F(UdfChkTest, EveryCheckResultIsReached)
{
    ExpectRows({
        {"", 0, "an empty string passes every step"},
        {"\"[%svlan/]%cvlan\"", 0, "optional svlan followed by a different text"},
        {"\"%svlan[.%cvlan]\"", 0, "cvlan may be optional too"},
        {"\"[%svlan]-[%cvlan]\"", 1, "the skip after a part lands on the next part's closing bracket"},
        {"\"a\\%b\"", 0, "an escaped percent sign"},
        {"1 %length \"abc\"", 0, "a hex length field with text after it"},
        {"\"%12345slot\"", 1, "a five-digit width cannot be read (ASCII)"},
        {"%12345slot", 1, "a five-digit width cannot be read (hex)"},
        {"\"%foo\"", 2, "no keyword after the percent sign"},
        {"%portx", 2, "a letter after the name"},
        {"\"100%\"", 2, "percent sign before the closing quote"},
        {"\"a\\b\"", 3, "backslash before a non-reserved letter"},
        {"\"[%svlan-%cvlan]\"", 4, "two keywords in one optional part"},
        {"\"[%slot]\"", 5, "slot is no VLAN"},
        {"\"[[%svlan]]\"", 6, "optional part opened inside another"},
        {"\"[abc]\"", 7, "optional part without a keyword"},
        {"\"abc", 8, "quote never closed"},
        {"12\"", 8, "a lone opening quote as the last character"},
        {"\"a]\"", 8, "a closing bracket without an opening one"},
        {"\"[%svlan\"", 8, "an optional part left open"},
        {"\"%slot%port\"", 9, "two keywords back to back"},
        {"\"%slot1%port\"", 9, "a digit is no delimiter"},
        {"\"[%svlan]%cvlan\"", 9, "a bracket is no delimiter"},
        {"\"[%svlan:]%svlan:\"", 10, "the optional content repeated right after it"},
        {"\"%0257slot\"", 11, "257 characters at least"},
        {"\"ab\"cd\"", 12, "a second ASCII part"},
        {"1 \"ab\"c", 12, "text after the closing quote"},
        {"\"\"", 13, "empty quotes"},
        {"0x01", 14, "hex numbers are written in decimal"},
        {"1 a", 14, "a letter in the hex part"},
        {"4294967296", 15, "one above 32 bits"},
        {"%sysname", 16, "sysname has no hex form"},
        {"%8portdescription", 16, "a width does not make an ASCII-only keyword hex"},
        {"%3slot", 17, "three bits"},
        {"\"%length:%length-\"", 18, "two length keywords"},
        {"\"a%length\"", 19, "ASCII part ends with length"},
        {"1 %length", 19, "hex part ends with length"},
    });
}

// A failing string that breaks several rules reports the earliest one.
TEST_F(UdfChkTest, FirstFailingRuleWins)
{
    ExpectRows({
        {"\"%foo", 2, "keywords (2) before quotes (8)"},
        {"\"a\"%length", 12, "quotes (12) before the last keyword (19)"},
        {"\"%length%length\"", 18, "length count (18) before the last keyword (19)"},
        {"%length\"\"", 19, "the last keyword (19) before empty quotes (13)"},
        {"0x1 \"\\a\"", 3, "the ASCII part (3) before the hex part (14)"},
        {"\"\\a%slot%port\"", 3, "escapes (3) before delimiters (9)"},
        {"\"%slot%port]\"", 9, "delimiters (9) before brackets (8)"},
        {"\"[[]]\"", 6, "nesting (6) before an empty optional part (7)"},
        {"\"[%svlan-%cvlan\"", 8, "brackets (8) before the keyword count (4)"},
        {"\"[%slot-%port]\"", 4, "keyword count (4) before the optional keyword (5)"},
        {"\"[%slot:]%slot:\"", 5, "the optional keyword (5) before different meanings (10)"},
        {"99999999999 x", 14, "characters (14) before numbers (15)"},
        {"99999999999 %sysname", 15, "numbers (15) before ASCII-only keywords (16)"},
        {"%sysname %3slot", 16, "ASCII-only keywords (16) before the bit count (17)"},
        {"%3slot \"%9999slot\"", 17, "the bit count (17) before the total length (11)"},
        {"%3slot \"%12345slot\"", 1, "the ASCII width (1) before the hex bit count (17)"},
    });
}

// Widths have at most four digits; the total estimate may reach 256 bytes.
TEST_F(UdfChkTest, WidthsAndTheLengthLimit)
{
    ExpectRows({
        {"\"%9999slot\"", 11, "four digits are read"},
        {"\"%99999slot\"", 1, "five digits are not"},
        {"%00099slot", 1, "five digits even with leading zeros"},
        {"\"%0256slot\"", 0, "exactly 256 characters"},
        {"\"%250slot/%5port\"", 0, "250 + 1 + 5 = 256"},
        {"\"%250slot/%6port\"", 11, "257"},
        {"%2048slot", 0, "256 bytes of hex"},
        {"%2056slot", 11, "257 bytes of hex"},
        {"%2040slot \"a\"", 0, "255 hex bytes and one character"},
        {"%2040slot \"ab\"", 11, "255 hex bytes and two characters"},
        {"\"%mac\"", 0, "mac counts 14 characters by default"},
        {"\"[%svlan]\"", 0, "brackets count nothing"},
    });
    // Longer than a stored format: its parts cannot be held.
    std::string pairs;
    for (int k = 0; k < 64; k++) {
        pairs += "1 ";
    }
    EXPECT_EQ(PPPOE_PLUS_UserDfdFmtCheck(pairs.substr(0, 127).c_str()), 0U);
    EXPECT_EQ(PPPOE_PLUS_UserDfdFmtCheck(pairs.c_str()), 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPLUS-CFG] formatString is too long. (length=128)"));
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "The number is invalid."));
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPLUS-CFG] UserFmtGetFieldMinLen check failed. (index: 0)."));
}

// Where the validator accepts what the encoder refuses or reads differently,
// the validator's answer is the one shown here.
TEST_F(UdfChkTest, ValidatorSideOfDeliberateDisagreements)
{
    ExpectRows({
        {"\"a%5length\"", 0, "a final length with a width is not a final length here"},
        {"\"%length\"", 19, "the closing quote does not count"},
        {"0x01 \"a\"", 14, "the letter x is refused in hex numbers"},
        {"0X01", 14, "also upper case"},
        {"%0256slot \"\"", 13, "empty quotes"},
    });
    // The bare text after the last percent sign is compared, in any case.
    EXPECT_EQ(PPPOE_PLUS_UserFmtCheckFirstKeyWord("%LENGTH"), 19U);
    EXPECT_EQ(PPPOE_PLUS_UserFmtCheckFirstKeyWord("%5length"), 0U);
    EXPECT_EQ(PPPOE_PLUS_UserFmtCheckFirstKeyWord("%lengthy"), 0U);
    EXPECT_EQ(PPPOE_PLUS_UserFmtCheckFirstKeyWord("no keyword"), 0U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPLUS-CFG] UserFmtCheckFirstKeyWord start. (keyword=L)"));
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPLUS-CFG] UserFmtCheckFirstKeyWord end. (keyword=5length)"));
}

TEST_F(UdfChkTest, ReservedCharacters)
{
    std::string reserved;
    for (uint32_t ch = 0; ch < 256U; ch++) {
        if (PPPOE_PLUS_UserFmtIfResvChar(static_cast<uint8_t>(ch)) != 0U) {
            reserved.push_back(static_cast<char>(ch));
        }
    }
    EXPECT_EQ(reserved, "\"%[\\]");
}

TEST_F(UdfChkTest, NullStringIsAnInternalFailureAndPartExtractorsStepOverEscapes)
{
    EXPECT_EQ(PPPOE_PLUS_UserDfdFmtCheck(nullptr), 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPLUS-CFG] formatString para is null."));
    char out[PPPOE_PLUS_UDF_PART_LEN] = {};
    EXPECT_EQ(PPPOE_PLUS_UserFmtGetAsciiFmtStr(nullptr, out), 1U);
    EXPECT_EQ(PPPOE_PLUS_UserFmtGetAsciiFmtStr("\"a\"", nullptr), 1U);
    EXPECT_EQ(PPPOE_PLUS_UserFmtGetHexFmtStr(nullptr, out, sizeof(out)), 1U);
    EXPECT_EQ(PLAT_AssertCount(), 3U);

    // The format, its ASCII part and its hex part.
    const std::tuple<const char *, const char *, const char *> rows[] = {
        {"1 2 \"a\\\"b\"", "a\\\"b", "1 2 "},  // an escaped quote is no boundary
        {"\"%slot\"", "%slot", ""},
        {"1 %slot", "", "1 %slot"},  // no quote: all hex
        {"7 \"open", "", "7 "},      // no second quote: no ASCII part
        {"a\\\"b\"c\"", "c", "a\\\"b"},
    };
    for (const auto &[fmt, asciiPart, hexPart] : rows) {
        char ascii[PPPOE_PLUS_UDF_PART_LEN] = {'x'};
        char hex[PPPOE_PLUS_UDF_PART_LEN] = {'x'};
        EXPECT_EQ(PPPOE_PLUS_UserFmtGetAsciiFmtStr(fmt, ascii), 0U) << fmt;
        EXPECT_EQ(PPPOE_PLUS_UserFmtGetHexFmtStr(fmt, hex, sizeof(hex)), 0U) << fmt;
        EXPECT_STREQ(ascii, asciiPart) << fmt;
        EXPECT_STREQ(hex, hexPart) << fmt;
    }
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "Find the word. (FmtStr=1 %slot, HexFmtStr=1 %slot)"));
    char small[4] = {};
    EXPECT_EQ(PPPOE_PLUS_UserFmtGetHexFmtStr("12345", small, sizeof(small)), 1U);  // does not fit
}

TEST_F(UdfChkTest, MinimumLengths)
{
    // The ASCII estimate in characters.
    const std::pair<const char *, uint32_t> asciiRows[] = {
        {"", 0}, {"abc", 3}, {"\\%x", 2}, {"[%svlan]", 1}, {"%5slot", 5}, {"%0slot", 0}, {"%mac-%portname", 16},
    };
    for (const auto &[fmt, chars] : asciiRows) {
        uint32_t len = 77;
        EXPECT_EQ(PPPOE_PLUS_UserFmtGetAsciiMinLen(fmt, &len), 0U) << fmt;
        EXPECT_EQ(len, chars) << fmt;
    }
    // The hex estimate's result and bytes.
    const std::tuple<const char *, uint32_t, uint32_t> hexRows[] = {
        {"1 2 3", 0, 3},          {"255 256", 0, 3},       {"70000", 0, 4},
        {"%mac %porttype", 0, 7}, {"%4slot %4port", 0, 1}, {"12%3slot", 0, 2},  // "%" after a number is swallowed
        {"%3slot", 17, 77},
    };
    for (const auto &[fmt, code, bytes] : hexRows) {
        uint32_t len = 77;
        EXPECT_EQ(PPPOE_PLUS_UserFmtGetHexMinLen(fmt, &len), code) << fmt;
        EXPECT_EQ(len, bytes) << fmt;
    }
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPLUS-CFG] GetHexMinLen. (FmtStr=%3slot, TotalBits=3)"));
    uint32_t len = 0;
    EXPECT_EQ(PPPOE_PLUS_UserFmtGetAsciiMinLen("a%zz", &len), 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPLUS-CFG] UserFmtIfKeyWord check failed. (index: 1)."));
    EXPECT_EQ(PLAT_AssertCount(), 0U);
    EXPECT_EQ(PPPOE_PLUS_UserFmtGetHexMinLen("1 %zz", &len), 1U);
    EXPECT_EQ(PLAT_AssertCount(), 1U);
}
