// libFuzzer target: arbitrary strings through the user-defined format
// validator, its single-rule checks and part extractors, and (within the
// stored format length) through the format encoder with a filled UserInfo.
// The compiled format is checked against the walk of the format.
// A finding is a sanitizer report or a broken invariant (trap).
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "fuzz_support.hpp"
#include "platform/control.h"
#include "pppoe_plus_log.h"
#include "pppoe_plus_mem.h"
#include "pppoe_plus_tlv.h"
#include "pppoe_plus_udfchk.h"

using pplus_fuzz::Require;

namespace {

UserInfo g_info = {};

void ReadyModule()
{
    pplus_fuzz::UseFuzzSwitch();
    Require(PPPOE_PLUS_InitMemHandle() == 0U);
    Require(PPPOE_PLUS_InitIMAgent() == 0U);
    Require(PPPOE_PLUS_InitKeyWordDict() == 0U);
    (void)PPPOE_PLUS_UpdateDebugSwitch(PPPOE_PLUS_DBG_ALL, 1);
    g_info.IfIndex = 3;
    g_info.ulNas_Slot = 1;
    g_info.ulNas_SubSlot = 2;
    g_info.ulNas_Port = 3;
    g_info.ulXpi = 100;
    g_info.ulXci = 200;
    (void)std::snprintf(g_info.ifType, sizeof(g_info.ifType), "eth");
    (void)std::snprintf(g_info.portName, sizeof(g_info.portName), "GE1/2/3");
    (void)std::snprintf(g_info.portDescr, sizeof(g_info.portDescr), "subscriber line");
    g_info.portDescrValid = 1;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    ReadyModule();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string fmt(reinterpret_cast<const char *>(data), size);
    const char *s = fmt.c_str();  // cut at the first NUL, like any C caller
    const uint32_t assertsBefore = PLAT_AssertCount();
    const uint32_t memBefore = PLAT_MemOutstanding();

    const uint32_t code = PPPOE_PLUS_UserDfdFmtCheck(s);
    Require(code < PPPOE_PLUS_UDF_CHK_CODES);
    Require(PPPOE_PLUS_UserDfdFmtCheck(s) == code);
    // A valid format passes each rule on its own, and loses its balance
    // with its closing quote.
    if (code == 0U) {
        Require(PPPOE_PLUS_UserFmtChkKeyWord(s) == 0U && PPPOE_PLUS_UserFmtChkQuotationMarks(s) == 0U &&
                PPPOE_PLUS_UserFmtChkKeyWordsNum(s) == 0U);
        const std::string open(s);
        if (!open.empty() && open.back() == '"') {
            Require(PPPOE_PLUS_UserDfdFmtCheck(open.substr(0, open.size() - 1U).c_str()) == 8U);
        }
    }

    using Rule = uint32_t (*)(const char *);
    constexpr Rule kRules[] = {
        PPPOE_PLUS_UserFmtChkKeyWord,           PPPOE_PLUS_UserFmtChkQuotationMarks,
        PPPOE_PLUS_UserFmtChkKeyWordsNum,       PPPOE_PLUS_UserFmtCheckFirstKeyWord,
        PPPOE_PLUS_UserFmtChkNullInQuotationMarks, PPPOE_PLUS_UserFmtChkChAfterBlackslash,
        PPPOE_PLUS_UserFmtChkDelimiter,         PPPOE_PLUS_UserFmtChkSquareparenthesis,
        PPPOE_PLUS_UserFmtChkKeyWordsNumInOptional, PPPOE_PLUS_UserFmtChkKeyWordInOptional,
        PPPOE_PLUS_UserFmtChkDiffMeanings,      PPPOE_PLUS_UserFmtChkChInHex,
        PPPOE_PLUS_UserFmtChkNumInHex,          PPPOE_PLUS_UserFmtChkKeyWordInHex,
        PPPOE_PLUS_UserDfdHexFmtCheck,
    };
    for (Rule rule : kRules) {
        Require(rule(s) < PPPOE_PLUS_UDF_CHK_CODES);
    }
    Require(PPPOE_PLUS_UserDfdAsciiFmtCheck(s, s) < PPPOE_PLUS_UDF_CHK_CODES);
    uint32_t len = 0;
    (void)PPPOE_PLUS_UserFmtGetAsciiMinLen(s, &len);
    char part[PPPOE_PLUS_UDF_PART_LEN] = {};
    (void)PPPOE_PLUS_UserFmtGetHexFmtStr(s, part, sizeof(part));
    if (PPPOE_PLUS_UserDfdHexFmtCheck(s) == 0U) {
        (void)PPPOE_PLUS_UserFmtGetHexMinLen(s, &len);  // a valid hex part: no assertion
    }
    // The validator itself never asserts on a string.
    Require(PLAT_AssertCount() == assertsBefore);

    if (std::char_traits<char>::length(s) <= PPPOE_PLUS_UDF_FMT_MAX) {
        (void)PPPOE_PLUS_UserFmtGetAsciiFmtStr(s, part);
        // For each combination of the VLANs being 0, the compiled format
        // builds what the walk builds, with as many asserts.
        for (uint32_t variant = 0; variant < 4U; ++variant) {
            g_info.ulXpi = (variant & 1U) != 0U ? 0U : 100U;
            g_info.ulXci = (variant & 2U) != 0U ? 0U : 200U;
            uint8_t out[PPPOE_PLUS_UDF_OUT_MAX] = {};
            uint32_t outLen = 0;
            const uint32_t asserts = PLAT_AssertCount();
            const uint32_t ret = PPPOE_PLUS_EncodeUdfData(&g_info, s, out, &outLen);
            Require(ret != 0U || outLen <= PPPOE_PLUS_UDF_OUT_MAX);
            const uint32_t walkAsserts = PLAT_AssertCount() - asserts;
            PppoePlusUdfProg prog;
            Require(PPPOE_PLUS_UdfCompile(s, &g_info, &prog) == 0U && PLAT_AssertCount() == asserts + walkAsserts);
            uint8_t again[PPPOE_PLUS_UDF_OUT_MAX] = {};
            uint32_t againLen = 0;
            Require(PPPOE_PLUS_EncodeUdfProg(&g_info, s, &prog, again, &againLen) == ret);
            Require(againLen == outLen && std::memcmp(out, again, sizeof(out)) == 0);
            Require(PLAT_AssertCount() == asserts + 2U * walkAsserts);
        }
    }
    Require(PLAT_MemOutstanding() == memBefore);
    return 0;
}
