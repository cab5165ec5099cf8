// Validator of user-defined format strings.
//
// Each rule is one scan over the string (or over one of its two parts) that
// returns its own check result; PPPOE_PLUS_UserDfdFmtCheck applies them in a
// fixed order and stops at the first failure. Keywords are recognised by the
// dictionary's recogniser; a backslash and the character after it are always
// stepped over together, and never past the terminator.
#include "pppoe_plus_udfchk.h"

#include <cstddef>
#include <cstring>

#include "plat_safe.h"
#include "pppoe_plus_log.h"
#include "pppoe_plus_tlv.h"
#include "pppoe_plus_types.h"
#include "zavk.h"

namespace {

constexpr const char *kUdfChkFile = "app/src/common/src/pppoe_plus_udfchk";
constexpr uint64_t kHexNumMax = 0xFFFFFFFFULL;
constexpr uint32_t kBitsPerByte = 8U;

bool IsDigit(char ch)
{
    return ch >= '0' && ch <= '9';
}

// Index after the escape pair that starts at i.
size_t SkipEscape(const char *s, size_t i)
{
    return s[i + 1U] == '\0' ? i + 1U : i + 2U;
}

// The keyword after the "%" at index pct; consumed counts width and name.
bool KeyWordAt(const char *s, size_t pct, uint32_t *id, uint32_t *consumed)
{
    *id = PPPOE_PLUS_KW_END;
    *consumed = 0;
    return PPPOE_PLUS_UserFmtIfKeyWord(s + pct + 1U, id, consumed) == 1U;
}

// Index of the "]" closing the "[" at open, escapes stepped over; 0 if none.
size_t FindClose(const char *s, size_t open)
{
    for (size_t i = open + 1U; s[i] != '\0';) {
        if (s[i] == '\\') {
            i = SkipEscape(s, i);
        } else if (s[i] == ']') {
            return i;
        } else {
            i++;
        }
    }
    return 0;
}

uint32_t LogIndexFailure(const char *text, size_t index)
{
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, text, static_cast<uint32_t>(index));
    return PPPOE_PLUS_UDF_CHK_INNER_ERR;
}

// Code 10 for the optional part s[open..close]: 0 once its content and the
// text after it differ, 10 when the content is repeated right after it.
uint32_t ChkOneOptional(const char *s, size_t open, size_t close)
{
    const size_t partLen = close - open + 1U;
    if (s[close + 1U] == '\0') {
        return PPPOE_PLUS_UDF_CHK_OK;
    }
    if (partLen < 3U) {
        return PPPOE_PLUS_UDF_CHK_DIFF_MEANINGS;
    }
    size_t i = open + 1U;
    size_t j = close + 1U;
    while (i < close) {
        if (s[j] == '\0') {
            return PPPOE_PLUS_UDF_CHK_OK;
        }
        if (s[j] == '[') {
            j++;
            continue;
        }
        if (s[i] == '%' && s[j] == '%') {
            uint32_t idL = 0;
            uint32_t lenL = 0;
            uint32_t idR = 0;
            uint32_t lenR = 0;
            if (!KeyWordAt(s, i, &idL, &lenL)) {
                return LogIndexFailure("[PPLUS-CFG] UserFmtChkDiffMeanings check failed. (index: %u).", i);
            }
            if (!KeyWordAt(s, j, &idR, &lenR)) {
                return LogIndexFailure("[PPLUS-CFG] UserFmtChkDiffMeanings check failed. (index: %u).", j);
            }
            i += 1U + lenL;
            j += 1U + lenR;
            continue;
        }
        if (s[i] != s[j]) {
            return PPPOE_PLUS_UDF_CHK_OK;
        }
        if (s[i] == '\\') {
            // Both sides escape: the escaped characters decide.
            if (s[i + 1U] != s[j + 1U]) {
                return PPPOE_PLUS_UDF_CHK_OK;
            }
            if (s[j + 1U] == '\0') {
                return PPPOE_PLUS_UDF_CHK_OK;
            }
            i += 2U;
            j += 2U;
            continue;
        }
        i++;
        j++;
    }
    return PPPOE_PLUS_UDF_CHK_DIFF_MEANINGS;
}

// Bits of a literal number of the hex part, by value.
uint32_t NumberBits(uint64_t value)
{
    if (value < 0x100U) {
        return 8U;
    }
    if (value < 0x10000U) {
        return 16U;
    }
    return 32U;
}

}  // namespace

extern "C" {

uint32_t PPPOE_PLUS_UserFmtIfResvChar(uint8_t ch)
{
    return (ch == '"' || ch == '%' || ch == '[' || ch == '\\' || ch == ']') ? 1U : 0U;
}

uint32_t PPPOE_PLUS_UdfIsAllAssic(const char *fmt)
{
    return (fmt != nullptr && fmt[0] == '"') ? 1U : 0U;
}

uint32_t PPPOE_PLUS_UserFmtGetAsciiFmtStr(const char *fmt, char *out)
{
    if (fmt == nullptr || out == nullptr) {
        ZAVK_Assert(kUdfChkFile, __LINE__);
        return PPPOE_PLUS_ERR;
    }
    out[0] = '\0';
    size_t open = 0;
    bool opened = false;
    for (size_t i = 0; fmt[i] != '\0';) {
        if (fmt[i] == '\\') {
            i = SkipEscape(fmt, i);
            continue;
        }
        if (fmt[i] == '"') {
            if (!opened) {
                opened = true;
                open = i;
            } else {
                const size_t len = i - open - 1U;
                if (len >= PPPOE_PLUS_UDF_PART_LEN) {
                    return PPPOE_PLUS_ERR;
                }
                return strncpy_s(out, PPPOE_PLUS_UDF_PART_LEN, fmt + open + 1U, len) == EOK ? PPPOE_PLUS_OK
                                                                                          : PPPOE_PLUS_ERR;
            }
        }
        i++;
    }
    return PPPOE_PLUS_OK;
}

uint32_t PPPOE_PLUS_UserFmtGetHexFmtStr(const char *fmt, char *out, uint32_t size)
{
    if (fmt == nullptr || out == nullptr || size == 0U) {
        ZAVK_Assert(kUdfChkFile, __LINE__);
        return PPPOE_PLUS_ERR;
    }
    out[0] = '\0';
    size_t end = 0;
    while (fmt[end] != '\0' && fmt[end] != '"') {
        end = fmt[end] == '\\' ? SkipEscape(fmt, end) : end + 1U;
    }
    if (end >= size) {
        return PPPOE_PLUS_ERR;
    }
    if (end != 0U && strncpy_s(out, size, fmt, end) != EOK) {
        return PPPOE_PLUS_ERR;
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "Find the word. (FmtStr=%s, HexFmtStr=%s)", fmt, out);
    return PPPOE_PLUS_OK;
}

uint32_t PPPOE_PLUS_UserFmtChkKeyWord(const char *s)
{
    if (s == nullptr) {
        return PPPOE_PLUS_UDF_CHK_INNER_ERR;
    }
    for (size_t i = 0; s[i] != '\0';) {
        if (s[i] == '\\') {
            i = SkipEscape(s, i);
        } else if (s[i] == '%') {
            uint32_t id = 0;
            uint32_t consumed = 0;
            if (!KeyWordAt(s, i, &id, &consumed)) {
                return PPPOE_PLUS_UDF_CHK_NO_KEYWORD;
            }
            i += 1U + consumed;
        } else {
            i++;
        }
    }
    return PPPOE_PLUS_UDF_CHK_OK;
}

uint32_t PPPOE_PLUS_UserFmtChkQuotationMarks(const char *s)
{
    if (s == nullptr) {
        return PPPOE_PLUS_UDF_CHK_INNER_ERR;
    }
    bool opened = false;
    for (size_t i = 0; s[i] != '\0';) {
        if (s[i] == '\\') {
            i = SkipEscape(s, i);
            continue;
        }
        if (s[i] == '"') {
            if (opened) {
                return s[i + 1U] == '\0' ? PPPOE_PLUS_UDF_CHK_OK : PPPOE_PLUS_UDF_CHK_QUOTE_NOT_LAST;
            }
            if (s[i + 1U] == '\0') {
                return PPPOE_PLUS_UDF_CHK_UNBALANCED;
            }
            opened = true;
        }
        i++;
    }
    return opened ? PPPOE_PLUS_UDF_CHK_UNBALANCED : PPPOE_PLUS_UDF_CHK_OK;
}

uint32_t PPPOE_PLUS_UserFmtChkKeyWordsNum(const char *s)
{
    if (s == nullptr) {
        return PPPOE_PLUS_UDF_CHK_INNER_ERR;
    }
    uint32_t lengthCount = 0;
    for (size_t i = 0; s[i] != '\0';) {
        if (s[i] == '\\') {
            i = SkipEscape(s, i);
            continue;
        }
        if (s[i] != '%') {
            i++;
            continue;
        }
        uint32_t id = 0;
        uint32_t consumed = 0;
        if (!KeyWordAt(s, i, &id, &consumed)) {
            return PPPOE_PLUS_UDF_CHK_NO_KEYWORD;
        }
        if (id == PPPOE_PLUS_KW_LENGTH && ++lengthCount > 1U) {
            return PPPOE_PLUS_UDF_CHK_LENGTH_TWICE;
        }
        i += 1U + consumed;
    }
    return PPPOE_PLUS_UDF_CHK_OK;
}

uint32_t PPPOE_PLUS_UserFmtCheckFirstKeyWord(const char *s)
{
    if (s == nullptr) {
        return PPPOE_PLUS_UDF_CHK_INNER_ERR;
    }
    const char *last = std::strrchr(s, '%');
    if (last == nullptr) {
        return PPPOE_PLUS_UDF_CHK_OK;
    }
    const char *text = last + 1;
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-CFG] UserFmtCheckFirstKeyWord start. (keyword=%c)",
                         text[0] == '\0' ? ' ' : text[0]);
    const char *quote = std::strchr(text, '"');
    const size_t len = quote == nullptr ? std::strlen(text) : static_cast<size_t>(quote - text);
    char word[PPPOE_PLUS_UDF_PART_LEN] = {};
    if (len > 0U) {
        (void)strncpy_s(word, sizeof(word), text, len < sizeof(word) ? len : sizeof(word) - 1U);
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-CFG] UserFmtCheckFirstKeyWord end. (keyword=%s)", word);
    constexpr char kLength[] = "length";
    constexpr size_t kLengthLen = sizeof(kLength) - 1U;
    if (len != kLengthLen) {
        return PPPOE_PLUS_UDF_CHK_OK;
    }
    for (size_t k = 0; k < kLengthLen; k++) {
        char ch = text[k];
        if (ch >= 'A' && ch <= 'Z') {
            ch = static_cast<char>(ch - 'A' + 'a');
        }
        if (ch != kLength[k]) {
            return PPPOE_PLUS_UDF_CHK_OK;
        }
    }
    return PPPOE_PLUS_UDF_CHK_LENGTH_LAST;
}

uint32_t PPPOE_PLUS_UserFmtChkNullInQuotationMarks(const char *s)
{
    if (s == nullptr) {
        return PPPOE_PLUS_UDF_CHK_INNER_ERR;
    }
    for (size_t i = 0; s[i] != '\0';) {
        if (s[i] == '\\') {
            i = SkipEscape(s, i);
            continue;
        }
        if (s[i] == '"' && s[i + 1U] == '"') {
            return PPPOE_PLUS_UDF_CHK_EMPTY_QUOTES;
        }
        i++;
    }
    return PPPOE_PLUS_UDF_CHK_OK;
}

uint32_t PPPOE_PLUS_UserFmtChkChAfterBlackslash(const char *s)
{
    if (s == nullptr) {
        return PPPOE_PLUS_UDF_CHK_INNER_ERR;
    }
    for (size_t i = 0; s[i] != '\0';) {
        if (s[i] != '\\') {
            i++;
            continue;
        }
        if (PPPOE_PLUS_UserFmtIfResvChar(static_cast<uint8_t>(s[i + 1U])) == 0U) {
            return PPPOE_PLUS_UDF_CHK_BAD_ESCAPE;
        }
        i += 2U;
    }
    return PPPOE_PLUS_UDF_CHK_OK;
}

uint32_t PPPOE_PLUS_UserFmtChkDelimiter(const char *s)
{
    if (s == nullptr) {
        return PPPOE_PLUS_UDF_CHK_INNER_ERR;
    }
    bool delimited = true;
    for (size_t i = 0; s[i] != '\0';) {
        const char ch = s[i];
        if (ch == '\\') {
            delimited = true;
            i = SkipEscape(s, i);
            continue;
        }
        if (ch == '%') {
            if (!delimited) {
                return PPPOE_PLUS_UDF_CHK_NO_DELIMITER;
            }
            uint32_t id = 0;
            uint32_t consumed = 0;
            if (!KeyWordAt(s, i, &id, &consumed)) {
                return LogIndexFailure("[PPLUS-CFG] UserFmtChkDelimiter check failed. (index: %u).", i);
            }
            delimited = false;
            i += 1U + consumed;
            continue;
        }
        if (!IsDigit(ch) && ch != '[' && ch != ']') {
            delimited = true;
        }
        i++;
    }
    return PPPOE_PLUS_UDF_CHK_OK;
}

uint32_t PPPOE_PLUS_UserFmtChkSquareparenthesis(const char *s)
{
    if (s == nullptr) {
        return PPPOE_PLUS_UDF_CHK_INNER_ERR;
    }
    bool open = false;
    for (size_t i = 0; s[i] != '\0';) {
        if (s[i] == '\\') {
            i = SkipEscape(s, i);
            continue;
        }
        if (s[i] == '[') {
            if (open) {
                return PPPOE_PLUS_UDF_CHK_OPT_NESTED;
            }
            open = true;
        } else if (s[i] == ']') {
            if (!open) {
                return PPPOE_PLUS_UDF_CHK_UNBALANCED;
            }
            open = false;
        }
        i++;
    }
    return open ? PPPOE_PLUS_UDF_CHK_UNBALANCED : PPPOE_PLUS_UDF_CHK_OK;
}

uint32_t PPPOE_PLUS_UserFmtChkKeyWordsNumInOptional(const char *s)
{
    if (s == nullptr) {
        return PPPOE_PLUS_UDF_CHK_INNER_ERR;
    }
    bool open = false;
    uint32_t count = 0;
    for (size_t i = 0; s[i] != '\0';) {
        const char ch = s[i];
        if (ch == '\\') {
            i = SkipEscape(s, i);
            continue;
        }
        if (ch == '[') {
            open = true;
            count = 0;
        } else if (ch == ']' && open) {
            if (count == 0U) {
                return PPPOE_PLUS_UDF_CHK_OPT_NO_KW;
            }
            if (count > 1U) {
                return PPPOE_PLUS_UDF_CHK_OPT_MULTI_KW;
            }
            open = false;
        } else if (ch == '%' && open) {
            count++;
        }
        i++;
    }
    return PPPOE_PLUS_UDF_CHK_OK;
}

uint32_t PPPOE_PLUS_UserFmtChkKeyWordInOptional(const char *s)
{
    if (s == nullptr) {
        return PPPOE_PLUS_UDF_CHK_INNER_ERR;
    }
    bool open = false;
    for (size_t i = 0; s[i] != '\0';) {
        const char ch = s[i];
        if (ch == '\\') {
            i = SkipEscape(s, i);
            continue;
        }
        if (ch == '%') {
            uint32_t id = 0;
            uint32_t consumed = 0;
            if (open) {
                if (!KeyWordAt(s, i, &id, &consumed)) {
                    return LogIndexFailure("[PPLUS-CFG] UserFmtChkKeyWordInOptional check failed. (index: %u).", i);
                }
                if (id != PPPOE_PLUS_KW_SVLAN && id != PPPOE_PLUS_KW_CVLAN) {
                    return PPPOE_PLUS_UDF_CHK_OPT_BAD_KW;
                }
            } else if (!KeyWordAt(s, i, &id, &consumed)) {
                i++;
                continue;
            }
            i += 1U + consumed;
            continue;
        }
        if (ch == '[') {
            open = true;
        } else if (ch == ']') {
            open = false;
        }
        i++;
    }
    return PPPOE_PLUS_UDF_CHK_OK;
}

uint32_t PPPOE_PLUS_UserFmtChkDiffMeanings(const char *s)
{
    if (s == nullptr) {
        return PPPOE_PLUS_UDF_CHK_INNER_ERR;
    }
    const size_t total = std::strlen(s);
    for (size_t i = 0; i < total;) {
        const char ch = s[i];
        if (ch == '\\') {
            i = SkipEscape(s, i);
            continue;
        }
        if (ch == ']') {
            return LogIndexFailure("[PPLUS-CFG] UserFmtChkDiffMeanings check failed. (index: %u).", i);
        }
        if (ch != '[') {
            i++;
            continue;
        }
        const size_t close = FindClose(s, i);
        if (close == 0U) {
            return PPPOE_PLUS_UDF_CHK_OK;  // left open: the bracket rule's concern
        }
        const uint32_t ret = ChkOneOptional(s, i, close);
        if (ret != PPPOE_PLUS_UDF_CHK_OK) {
            return ret;
        }
        // Past the part, then its length once more, unexamined.
        const size_t partLen = close - i + 1U;
        i = close + 1U + partLen;
    }
    return PPPOE_PLUS_UDF_CHK_OK;
}

uint32_t PPPOE_PLUS_UserDfdAsciiFmtCheck(const char *fmt, const char *asciiPart)
{
    if (fmt == nullptr || asciiPart == nullptr) {
        return PPPOE_PLUS_UDF_CHK_INNER_ERR;
    }
    uint32_t ret = PPPOE_PLUS_UserFmtChkChAfterBlackslash(fmt);
    if (ret != PPPOE_PLUS_UDF_CHK_OK) {
        return ret;
    }
    using Rule = uint32_t (*)(const char *);
    constexpr Rule kRules[] = {
        PPPOE_PLUS_UserFmtChkDelimiter,       PPPOE_PLUS_UserFmtChkSquareparenthesis,
        PPPOE_PLUS_UserFmtChkKeyWordsNumInOptional, PPPOE_PLUS_UserFmtChkKeyWordInOptional,
        PPPOE_PLUS_UserFmtChkDiffMeanings,
    };
    for (Rule rule : kRules) {
        ret = rule(asciiPart);
        if (ret != PPPOE_PLUS_UDF_CHK_OK) {
            return ret;
        }
    }
    return PPPOE_PLUS_UDF_CHK_OK;
}

uint32_t PPPOE_PLUS_UserFmtChkChInHex(const char *s)
{
    if (s == nullptr) {
        return PPPOE_PLUS_UDF_CHK_INNER_ERR;
    }
    for (size_t i = 0; s[i] != '\0';) {
        const char ch = s[i];
        if (ch == '%') {
            uint32_t id = 0;
            uint32_t consumed = 0;
            if (!KeyWordAt(s, i, &id, &consumed)) {
                return LogIndexFailure("[PPLUS-CFG] UserFmtChkChInHex check failed. (index: %u)", i);
            }
            i += 1U + consumed;
            continue;
        }
        if (!IsDigit(ch) && ch != ' ') {
            return PPPOE_PLUS_UDF_CHK_HEX_BAD_CHAR;
        }
        i++;
    }
    return PPPOE_PLUS_UDF_CHK_OK;
}

uint32_t PPPOE_PLUS_UserFmtChkNumInHex(const char *s)
{
    if (s == nullptr) {
        return PPPOE_PLUS_UDF_CHK_INNER_ERR;
    }
    uint64_t value = 0;
    for (size_t i = 0; s[i] != '\0';) {
        const char ch = s[i];
        if (ch == '%') {
            uint32_t id = 0;
            uint32_t consumed = 0;
            if (!KeyWordAt(s, i, &id, &consumed)) {
                return LogIndexFailure("[PPLUS-CFG] UserFmtChkNumInHex check failed. (index: %u).", i);
            }
            value = 0;
            i += 1U + consumed;
            continue;
        }
        if (IsDigit(ch)) {
            value = value * 10U + static_cast<uint64_t>(ch - '0');
            if (value > kHexNumMax) {
                return PPPOE_PLUS_UDF_CHK_HEX_NUM_OVERFLOW;
            }
        } else {
            value = 0;  // a blank ends the number
        }
        i++;
    }
    return PPPOE_PLUS_UDF_CHK_OK;
}

uint32_t PPPOE_PLUS_UserFmtChkKeyWordInHex(const char *s)
{
    if (s == nullptr) {
        return PPPOE_PLUS_UDF_CHK_INNER_ERR;
    }
    for (size_t i = 0; s[i] != '\0';) {
        if (s[i] != '%') {
            i++;
            continue;
        }
        uint32_t id = 0;
        uint32_t consumed = 0;
        if (!KeyWordAt(s, i, &id, &consumed)) {
            return LogIndexFailure("[PPLUS-CFG] UserFmtChkKeyWordInHex check failed. (index: %u).", i);
        }
        if (id == PPPOE_PLUS_KW_SYSNAME || id == PPPOE_PLUS_KW_PORTNAME || id == PPPOE_PLUS_KW_IFTYPE ||
            id == PPPOE_PLUS_KW_PORTDESC) {
            return PPPOE_PLUS_UDF_CHK_HEX_ASCII_KW;
        }
        i += 1U + consumed;
    }
    return PPPOE_PLUS_UDF_CHK_OK;
}

uint32_t PPPOE_PLUS_UserDfdHexFmtCheck(const char *hexPart)
{
    if (hexPart == nullptr) {
        return PPPOE_PLUS_UDF_CHK_INNER_ERR;
    }
    using Rule = uint32_t (*)(const char *);
    constexpr Rule kRules[] = {PPPOE_PLUS_UserFmtChkChInHex, PPPOE_PLUS_UserFmtChkNumInHex,
                               PPPOE_PLUS_UserFmtChkKeyWordInHex};
    for (Rule rule : kRules) {
        const uint32_t ret = rule(hexPart);
        if (ret != PPPOE_PLUS_UDF_CHK_OK) {
            return ret;
        }
    }
    return PPPOE_PLUS_UDF_CHK_OK;
}

uint32_t PPPOE_PLUS_UserFmtGetAsciiMinLen(const char *s, uint32_t *outLen)
{
    if (s == nullptr || outLen == nullptr) {
        return PPPOE_PLUS_UDF_CHK_INNER_ERR;
    }
    uint64_t total = 0;
    for (size_t i = 0; s[i] != '\0';) {
        const char ch = s[i];
        if (ch == '[' || ch == ']') {
            i++;
            continue;
        }
        if (ch == '\\') {
            total++;
            i = SkipEscape(s, i);
            continue;
        }
        if (ch != '%') {
            total++;
            i++;
            continue;
        }
        uint32_t id = 0;
        uint32_t consumed = 0;
        if (!KeyWordAt(s, i, &id, &consumed)) {
            return LogIndexFailure("[PPLUS-CFG] UserFmtIfKeyWord check failed. (index: %u).", i);
        }
        uint32_t width = 0;
        if (PPPOE_PLUS_UserFmtGetFieldMinLen(s + i + 1U, 1U, &width) != PPPOE_PLUS_OK) {
            return LogIndexFailure("[PPLUS-CFG] UserFmtGetFieldMinLen check failed. (index: %u).", i);
        }
        total += width;
        i += 1U + consumed;
    }
    *outLen = total > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(total);
    return PPPOE_PLUS_UDF_CHK_OK;
}

uint32_t PPPOE_PLUS_UserFmtGetHexMinLen(const char *s, uint32_t *outLen)
{
    if (s == nullptr || outLen == nullptr) {
        return PPPOE_PLUS_UDF_CHK_INNER_ERR;
    }
    uint64_t bits = 0;
    for (size_t i = 0; s[i] != '\0';) {
        const char ch = s[i];
        if (ch == '%') {
            uint32_t id = 0;
            uint32_t consumed = 0;
            if (!KeyWordAt(s, i, &id, &consumed)) {
                ZAVK_Assert(kUdfChkFile, __LINE__);
                return PPPOE_PLUS_UDF_CHK_INNER_ERR;
            }
            uint32_t width = 0;
            if (PPPOE_PLUS_UserFmtGetFieldMinLen(s + i + 1U, 0U, &width) != PPPOE_PLUS_OK) {
                return PPPOE_PLUS_UDF_CHK_INNER_ERR;
            }
            bits += width;
            i += 1U + consumed;
            continue;
        }
        if (!IsDigit(ch)) {
            i++;  // blanks count nothing
            continue;
        }
        uint64_t value = 0;
        while (IsDigit(s[i])) {
            if (value <= kHexNumMax) {
                value = value * 10U + static_cast<uint64_t>(s[i] - '0');
            }
            i++;
        }
        bits += NumberBits(value);
        if (s[i] != '\0') {
            i++;  // the terminator of a number is swallowed
        }
    }
    if (bits % kBitsPerByte != 0U) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] GetHexMinLen. (FmtStr=%s, TotalBits=%u)", s,
                             static_cast<uint32_t>(bits));
        return PPPOE_PLUS_UDF_CHK_HEX_BITS;
    }
    const uint64_t bytes = bits / kBitsPerByte;
    *outLen = bytes > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(bytes);
    return PPPOE_PLUS_UDF_CHK_OK;
}

uint32_t PPPOE_PLUS_UserDfdFmtCheck(const char *fmt)
{
    if (fmt == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] formatString para is null.");
        return PPPOE_PLUS_UDF_CHK_INNER_ERR;
    }
    using Rule = uint32_t (*)(const char *);
    constexpr Rule kWholeRules[] = {
        PPPOE_PLUS_UserFmtChkKeyWord,        PPPOE_PLUS_UserFmtChkQuotationMarks,
        PPPOE_PLUS_UserFmtChkKeyWordsNum,    PPPOE_PLUS_UserFmtCheckFirstKeyWord,
        PPPOE_PLUS_UserFmtChkNullInQuotationMarks,
    };
    uint32_t ret = PPPOE_PLUS_UDF_CHK_OK;
    for (Rule rule : kWholeRules) {
        ret = rule(fmt);
        if (ret != PPPOE_PLUS_UDF_CHK_OK) {
            return ret;
        }
    }
    char asciiPart[PPPOE_PLUS_UDF_PART_LEN] = {};
    char hexPart[PPPOE_PLUS_UDF_PART_LEN] = {};
    if (PPPOE_PLUS_UserFmtGetAsciiFmtStr(fmt, asciiPart) != PPPOE_PLUS_OK ||
        PPPOE_PLUS_UserFmtGetHexFmtStr(fmt, hexPart, sizeof(hexPart)) != PPPOE_PLUS_OK) {
        // Only a part longer than a stored format can get here.
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS-CFG] formatString is too long. (length=%u)",
                             static_cast<uint32_t>(std::strlen(fmt)));
        return PPPOE_PLUS_UDF_CHK_INNER_ERR;
    }
    if (asciiPart[0] != '\0' && (ret = PPPOE_PLUS_UserDfdAsciiFmtCheck(fmt, asciiPart)) != PPPOE_PLUS_UDF_CHK_OK) {
        return ret;
    }
    if (hexPart[0] != '\0' && (ret = PPPOE_PLUS_UserDfdHexFmtCheck(hexPart)) != PPPOE_PLUS_UDF_CHK_OK) {
        return ret;
    }
    uint32_t asciiLen = 0;
    uint32_t hexLen = 0;
    if ((ret = PPPOE_PLUS_UserFmtGetAsciiMinLen(asciiPart, &asciiLen)) != PPPOE_PLUS_UDF_CHK_OK ||
        (ret = PPPOE_PLUS_UserFmtGetHexMinLen(hexPart, &hexLen)) != PPPOE_PLUS_UDF_CHK_OK) {
        return ret;
    }
    if (static_cast<uint64_t>(asciiLen) + hexLen > PPPOE_PLUS_UDF_MIN_LEN_MAX) {
        return PPPOE_PLUS_UDF_CHK_TOO_LONG;
    }
    return PPPOE_PLUS_UDF_CHK_OK;
}

}  // extern "C"
