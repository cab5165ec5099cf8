// Keyword dictionary, field encoders and the user-defined format encoder.
//
// A user-defined format mixes hex stretches (numbers and keyword fields
// written as raw bits) and quoted ASCII stretches (text and keyword fields
// written as padded text). The field encoders write into an 8192-byte work
// buffer at a bit position; the format encoder walks the format once, then
// fills in the "length" field, if any, and hands back at most 255 bytes.
#include "pppoe_plus_tlv.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string_view>

#include "devm.h"
#include "plat_safe.h"
#include "pppoe_plus_bounded.h"
#include "pppoe_plus_cfg.h"
#include "pppoe_plus_intf.h"
#include "pppoe_plus_log.h"
#include "pppoe_plus_mem.h"
#include "pppoe_plus_portdesc.h"
#include "zavk.h"

PppoePlusKeyWord *g_pppoePlusKeyWordDict = nullptr;
uint8_t g_pppoePlusSystemMac[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
uint32_t g_pppoePlusLengthOffsetBit = 0;

namespace {

constexpr const char *kTlvFile = "app/src/common/src/pppoe_plus_tlv";
constexpr uint32_t kScratchLen = 256U;
constexpr uint32_t kDescScratchLen = 1024U;
constexpr uint32_t kFieldFmtLen = 32U;
constexpr uint32_t kWorkBits = PPPOE_PLUS_UDF_WORK_LEN * 8U;
constexpr uint32_t kMaxWidthDigits = 4U;
constexpr uint32_t kPortTypeEthernet = 15U;
constexpr uint32_t kVlanMin = 1U;
constexpr uint32_t kVlanMax = 4094U;
constexpr uint32_t kMacLen = 6U;
constexpr uint32_t kMacTextLen = 14U;

constexpr uint32_t kAsciiDefaultLen[PPPOE_PLUS_KEYWORD_MAX] = {1, 1, 1, 1, 14, 1, 1, 1, 1, 1, 1, 1, 1, 1};

// For each first character, the keyword ids whose name starts with it (bit
// id), kept with the dictionary by PPPOE_PLUS_KeyWordWriteDict: a keyword
// reference is compared only with the names it could be.
uint16_t g_keywordsByFirst[256] = {};

// Moves on with every dictionary write: a compiled format of an older
// generation is compiled again before it is used.
std::atomic<uint32_t> g_dictGen{1U};

bool IsDigit(char ch)
{
    return ch >= '0' && ch <= '9';
}

bool IsLetter(char ch)
{
    return (ch >= 'A' && ch <= 'Z') || (ch >= 'a' && ch <= 'z');
}

uint32_t Fail(uint32_t line)
{
    ZAVK_Assert(kTlvFile, line);
    return PPPOE_PLUS_ERR;
}

bool CtxValid(const KeyWordEncodeCtx *ctx)
{
    return ctx != nullptr && ctx->userInfo != nullptr && ctx->fieldFmt != nullptr && ctx->bitPos != nullptr &&
           ctx->outBuf != nullptr;
}

// Pads text with the field format ("%Ns", space-padded, or "%0Ns",
// zero-padded, both right-aligned) into out; an empty field format gives an
// empty text. The length of the result, or -1 when it does not fit. The two
// forms the encoder builds are padded here; any other goes to sprintf_s.
int PadText(const char *fieldFmt, const char *text, char *out, uint32_t size)
{
    out[0] = '\0';
    if (fieldFmt[0] == '\0') {
        return 0;
    }
    if (fieldFmt[0] != '%') {
        return sprintf_s(out, size, fieldFmt, text);
    }
    const char fill = fieldFmt[1] == '0' ? '0' : ' ';
    uint32_t width = 0;
    uint32_t i = fill == '0' ? 2U : 1U;
    for (; IsDigit(fieldFmt[i]) && i < kFieldFmtLen; ++i) {
        width = width * 10U + static_cast<uint32_t>(fieldFmt[i] - '0');
    }
    if (fieldFmt[i] != 's' || fieldFmt[i + 1U] != '\0') {
        return sprintf_s(out, size, fieldFmt, text);
    }
    if (fill == ' ') {
        // As sprintf_s: too long for out fails; exactly as long as out fills
        // it to its last byte with the text cut by one and the terminator,
        // and reports the whole length.
        const size_t textLen = std::strlen(text);
        const size_t pad = width > textLen ? width - textLen : 0U;
        if (pad + textLen > size) {
            return -1;
        }
        const size_t keep = pad + textLen == size ? size - 1U : pad + textLen;
        std::memset(out, ' ', pad < keep ? pad : keep);
        if (pad < keep) {
            std::memcpy(out + pad, text, keep - pad);
        }
        out[keep] = '\0';
        return static_cast<int>(pad + textLen);
    }
    const uint32_t textLen = static_cast<uint32_t>(strnlen(text, size));
    const uint32_t pad = width > textLen ? width - textLen : 0U;
    if (pad + textLen >= size) {
        return -1;
    }
    std::memset(out, fill, pad);
    if (PppoePlusCopyStr(out + pad, size - pad, text) != EOK) {
        return -1;
    }
    return static_cast<int>(pad + textLen);
}

// Copies length bytes of text, unterminated, to byte *bitPos/8 of the work
// buffer and advances the position.
uint32_t PutText(KeyWordEncodeCtx *ctx, const char *text, uint32_t length)
{
    const uint32_t byte = *ctx->bitPos / 8U;
    if (length == 0U) {
        return PPPOE_PLUS_OK;
    }
    if (byte >= PPPOE_PLUS_UDF_WORK_LEN ||
        PppoePlusCopy(ctx->outBuf + byte, PPPOE_PLUS_UDF_WORK_LEN - byte, text, length) != EOK) {
        return PPPOE_PLUS_ERR;
    }
    *ctx->bitPos += 8U * length;
    return PPPOE_PLUS_OK;
}

// Formats text with the field format and writes it.
uint32_t WriteText(KeyWordEncodeCtx *ctx, const char *text, char *scratch, uint32_t scratchLen)
{
    const int n = PadText(ctx->fieldFmt, text, scratch, scratchLen);
    if (n < 0) {
        return PPPOE_PLUS_ERR;
    }
    return PutText(ctx, scratch, static_cast<uint32_t>(n));
}

uint32_t WriteSmallText(KeyWordEncodeCtx *ctx, const char *text)
{
    char scratch[kScratchLen];   // terminated by PadText, which writes it first
    return WriteText(ctx, text, scratch, sizeof(scratch));
}

// Renders a number as "%u" would, then with the field format.
int RenderNumber(uint32_t value, const char *fieldFmt, char *out, uint32_t size)
{
    char digits[16] = {};
    PppoePlusText(digits, sizeof(digits)).AppendU32(value);
    return PadText(fieldFmt, digits, out, size);
}

// The field format of an ASCII keyword reference: "%0Ns" when the text after
// the "%" starts with the digit 0, "%Ns" otherwise.
bool BuildFieldFmt(const char *ref, uint32_t width, char *out, uint32_t size)
{
    PppoePlusText fieldFmt(out, size);
    fieldFmt.Append(ref[0] == '0' ? "%0" : "%").AppendU32(width).Append("s");
    return fieldFmt.Length() > 0U;
}

// As strncmp(text, name, len) == 0 for a name without a NUL in its first
// len characters.
bool StartsWith(const char *text, const char *name, uint32_t len)
{
    for (uint32_t k = 0; k < len; ++k) {
        if (text[k] != name[k]) {
            return false;
        }
    }
    return true;
}

uint32_t EncodeNumberField(uint32_t value, KeyWordEncodeCtx *ctx, const char *failText)
{
    if (!CtxValid(ctx)) {
        return PPPOE_PLUS_ERR;
    }
    if (PPPOE_PLUS_EncodeDigit(value, ctx) != PPPOE_PLUS_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "%s", failText);
        return PPPOE_PLUS_ERR;
    }
    return PPPOE_PLUS_OK;
}

// The width of a reference to keyword id (known): as
// PPPOE_PLUS_UserFmtGetFieldMinLen, without recognising the keyword again.
// Quiet, it neither traces nor asserts on a width it cannot give.
uint32_t FieldWidth(const char *ref, uint32_t id, uint8_t ascii, uint32_t *outLen, bool quiet = false);

// The default width of keyword id in a hex stretch; false when it has none.
bool HexDefaultWidth(uint32_t id, uint32_t *outLen)
{
    switch (id) {
        case PPPOE_PLUS_KW_PORTTYPE:
        case PPPOE_PLUS_KW_LENGTH:
            *outLen = 8U;
            return true;
        case PPPOE_PLUS_KW_MAC:
            *outLen = 48U;
            return true;
        case PPPOE_PLUS_KW_SLOT:
        case PPPOE_PLUS_KW_SUBSLOT:
        case PPPOE_PLUS_KW_PORT:
        case PPPOE_PLUS_KW_SVLAN:
        case PPPOE_PLUS_KW_CVLAN:
        case PPPOE_PLUS_KW_NSVLAN:
        case PPPOE_PLUS_KW_NCVLAN:
            *outLen = 16U;
            return true;
        default:
            return false;
    }
}

uint32_t Replume(const UserInfo *info, const char *fmt, char *out, bool quiet);

// The first length field of fmt as the length scan finds it: its reference
// (null when there is none) and whether it is quoted. Fails on a "%" without
// a keyword before it; quiet, without asserting.
uint32_t FindLengthRef(const char *fmt, const char **outRef, uint8_t *outAscii, bool quiet)
{
    bool quoted = false;
    for (uint32_t i = 0; fmt[i] != '\0'; ++i) {
        if (fmt[i] == '"') {
            quoted = !quoted;
        } else if (fmt[i] == '\\') {
            if (fmt[i + 1U] == '\0') {
                break;
            }
            ++i;
        } else if (fmt[i] == '%') {
            uint32_t id = 0;
            uint32_t consumed = 0;
            if (PPPOE_PLUS_UserFmtIfKeyWord(fmt + i + 1U, &id, &consumed) == 0U) {
                return quiet ? PPPOE_PLUS_ERR : Fail(__LINE__);
            }
            if (id == PPPOE_PLUS_KW_LENGTH) {
                *outRef = fmt + i + 1U;
                break;
            }
            i += consumed;
        }
    }
    *outAscii = quoted ? 1U : 0U;
    return PPPOE_PLUS_OK;
}

// Writes the built length into its field.
uint32_t FillLength(uint8_t ascii, uint8_t *buf, uint32_t *len, const char *fieldFmt, uint32_t width)
{
    if (PPPOE_PLUS_EncodeLengthData(ascii, buf, len, fieldFmt, width) != PPPOE_PLUS_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "Encode Length Data:build num error.");
        return PPPOE_PLUS_ERR;
    }
    return PPPOE_PLUS_OK;
}

uint32_t CheckedVlan(uint32_t vlan, const KeyWordEncodeCtx *ctx)
{
    if (vlan >= kVlanMin && vlan <= kVlanMax) {
        return vlan;
    }
    return ctx->ascii == 1U ? 0U : 0xFFFFFFFFU;
}

}  // namespace

extern "C" {

uint32_t PPPOE_PLUS_KeyWordWriteDict(uint16_t id, uint16_t fieldSel, uint16_t keyWordType,
                                     PppoePlusKeyWordEncodeFn encode, uintptr_t reserved, const char *name)
{
    if (g_pppoePlusKeyWordDict == nullptr || name == nullptr || id >= PPPOE_PLUS_KEYWORD_NUM) {
        return PPPOE_PLUS_ERR;
    }
    PppoePlusKeyWord *entry = &g_pppoePlusKeyWordDict[id];
    for (uint16_t &ids : g_keywordsByFirst) {
        ids = static_cast<uint16_t>(ids & ~(1U << id));
    }
    if (id < PPPOE_PLUS_KEYWORD_MAX && name[0] != '\0') {
        auto &ids = g_keywordsByFirst[static_cast<unsigned char>(name[0])];
        ids = static_cast<uint16_t>(ids | (1U << id));
    }
    entry->keyWordId = id;
    entry->fieldSel = fieldSel;
    entry->keyWordType = keyWordType;
    entry->nameLen = static_cast<uint8_t>(strnlen(name, PPPOE_PLUS_KEYWORD_NAME_LEN));
    entry->encode = encode;
    entry->reserved = reserved;
    const auto ret = static_cast<uint32_t>(strcpy_s(entry->name, sizeof(entry->name), name));
    g_dictGen.fetch_add(1U, std::memory_order_relaxed);
    PPPOE_PLUS_CompileGlobalUdf();   // the store's compiled formats read the dictionary
    return ret;
}

uint32_t PPPOE_PLUS_InitKeyWordDict(void)
{
    const size_t size = sizeof(PppoePlusKeyWord) * PPPOE_PLUS_KEYWORD_NUM;
    auto *dict = static_cast<PppoePlusKeyWord *>(PPPOE_PLUS_MemAlloc(size));
    if (dict == nullptr) {
        return Fail(__LINE__);
    }
    (void)memset_s(dict, size, 0, size);
    g_pppoePlusKeyWordDict = dict;
    std::memset(g_keywordsByFirst, 0, sizeof(g_keywordsByFirst));

    struct Row {
        const char *name;
        PppoePlusKeyWordEncodeFn encode;
    };
    static const Row kRows[PPPOE_PLUS_KEYWORD_NUM] = {
        {"sysname", PPPOE_PLUS_EncodeSysName},   {"portname", PPPOE_PLUS_EncodePortName},
        {"porttype", PPPOE_PLUS_EncodePortType}, {"iftype", PPPOE_PLUS_EncodeIfType},
        {"mac", PPPOE_PLUS_EncodeSysMac},        {"slot", PPPOE_PLUS_EncodeSlot},
        {"subslot", PPPOE_PLUS_EncodeSubSlot},   {"port", PPPOE_PLUS_EncodePort},
        {"svlan", PPPOE_PLUS_EncodeXpi},         {"cvlan", PPPOE_PLUS_EncodeXci},
        {"nsvlan", PPPOE_PLUS_EncodeNXpi},       {"ncvlan", PPPOE_PLUS_EncodeNXci},
        {"length", PPPOE_PLUS_EncodeLength},     {"portdescription", PPPOE_PLUS_EncodePortDesc},
        {"?", nullptr},
    };
    uint32_t ret = PPPOE_PLUS_OK;
    for (uint16_t id = 0; id < PPPOE_PLUS_KEYWORD_NUM; ++id) {
        const uint16_t type = id < PPPOE_PLUS_KEYWORD_MAX ? id : 0U;
        ret |= PPPOE_PLUS_KeyWordWriteDict(id, id, type, kRows[id].encode, 0U, kRows[id].name);
    }
    return ret == PPPOE_PLUS_OK ? PPPOE_PLUS_OK : PPPOE_PLUS_ERR;
}

uint32_t PPPOE_PLUS_UserFmtIfKeyWord(const char *text, uint32_t *outId, uint32_t *outConsumed)
{
    if (text == nullptr || outId == nullptr || outConsumed == nullptr || g_pppoePlusKeyWordDict == nullptr) {
        return 0U;
    }
    uint32_t digits = 0;
    while (IsDigit(text[digits])) {
        ++digits;
    }
    const char *rest = text + digits;
    uint32_t best = PPPOE_PLUS_KW_END;
    uint32_t bestLen = 0;
    // In id order, as the dictionary is walked; only names that start as
    // the reference does can match.
    for (uint32_t ids = g_keywordsByFirst[static_cast<unsigned char>(rest[0])]; ids != 0U; ids &= ids - 1U) {
        const auto id = static_cast<uint32_t>(__builtin_ctz(ids));
        const PppoePlusKeyWord &entry = g_pppoePlusKeyWordDict[id];
        const uint32_t len = entry.nameLen;
        if (len == 0U || !StartsWith(rest, entry.name, len) || IsLetter(rest[len])) {
            continue;
        }
        if (digits == 0U && rest[len] == '\0') {
            best = id;
            bestLen = len;
            break;
        }
        if (best == PPPOE_PLUS_KW_END || len > bestLen) {
            best = id;
            bestLen = len;
        }
    }
    if (best == PPPOE_PLUS_KW_END) {
        return 0U;
    }
    *outId = best;
    *outConsumed = digits + bestLen;
    return 1U;
}

uint32_t PPPOE_PLUS_UserFmtGetFieldDftLenAscii(uint32_t id, uint32_t *outLen)
{
    if (outLen == nullptr) {
        return Fail(__LINE__);
    }
    if (id >= PPPOE_PLUS_KEYWORD_MAX) {
        *outLen = 1U;
        return Fail(__LINE__);
    }
    *outLen = kAsciiDefaultLen[id];
    return PPPOE_PLUS_OK;
}

uint32_t PPPOE_PLUS_UserFmtGetFieldDftLenHex(uint32_t id, uint32_t *outLen)
{
    if (outLen == nullptr) {
        return Fail(__LINE__);
    }
    return HexDefaultWidth(id, outLen) ? PPPOE_PLUS_OK : Fail(__LINE__);
}

uint32_t PPPOE_PLUS_UserFmtGetFieldDftLen(uint32_t id, uint8_t ascii, uint32_t *outLen)
{
    return ascii == 1U ? PPPOE_PLUS_UserFmtGetFieldDftLenAscii(id, outLen)
                       : PPPOE_PLUS_UserFmtGetFieldDftLenHex(id, outLen);
}

uint32_t PPPOE_PLUS_UserFmtGetFieldMinLen(const char *text, uint8_t ascii, uint32_t *outLen)
{
    if (text == nullptr || outLen == nullptr) {
        return Fail(__LINE__);
    }
    uint32_t id = PPPOE_PLUS_KW_END;
    uint32_t consumed = 0;
    if (!IsDigit(text[0]) && PPPOE_PLUS_UserFmtIfKeyWord(text, &id, &consumed) == 0U) {
        return PPPOE_PLUS_ERR;
    }
    return FieldWidth(text, id, ascii, outLen);
}

void PPPOE_PLUS_EncodeDigitByBit(uint8_t *buf, uint32_t startBit, uint32_t value, uint32_t bits)
{
    if (buf == nullptr) {
        return;
    }
    if (startBit % 8U == 0U && bits % 8U == 0U) {
        // Whole bytes: the same bits, a byte at a time.
        for (uint32_t i = 0; i < bits / 8U; ++i) {
            const uint32_t shift = bits - 8U * (i + 1U);
            if (shift < 32U) {
                buf[startBit / 8U + i] = static_cast<uint8_t>(buf[startBit / 8U + i] | ((value >> shift) & 0xFFU));
            }
        }
        return;
    }
    for (uint32_t i = 0; i < bits; ++i) {
        const uint32_t shift = bits - 1U - i;  // significance of this bit within the field
        if (shift >= 32U || ((value >> shift) & 1U) == 0U) {
            continue;
        }
        const uint32_t pos = startBit + i;
        buf[pos / 8U] = static_cast<uint8_t>(buf[pos / 8U] | (0x80U >> (pos % 8U)));
    }
}

uint32_t PPPOE_PLUS_EncodeDigit(uint32_t value, KeyWordEncodeCtx *ctx)
{
    if (!CtxValid(ctx)) {
        return PPPOE_PLUS_ERR;
    }
    if (ctx->ascii == 1U) {
        char text[kScratchLen];   // terminated by PadText, which writes it first
        const int n = RenderNumber(value, ctx->fieldFmt, text, sizeof(text));
        if (n < 0) {
            return PPPOE_PLUS_ERR;
        }
        return PutText(ctx, text, static_cast<uint32_t>(n));
    }
    if (*ctx->bitPos > kWorkBits || ctx->fieldBits > kWorkBits - *ctx->bitPos) {
        return PPPOE_PLUS_ERR;
    }
    PPPOE_PLUS_EncodeDigitByBit(ctx->outBuf, *ctx->bitPos, value, ctx->fieldBits);
    *ctx->bitPos += ctx->fieldBits;
    return PPPOE_PLUS_OK;
}

uint32_t PPPOE_PLUS_GetDevSysMac(uint8_t *mac)
{
    if (mac == nullptr) {
        return Fail(__LINE__);
    }
    static const uint8_t kUnread[kMacLen] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    if (std::memcmp(g_pppoePlusSystemMac, kUnread, kMacLen) == 0) {
        uint8_t read[kMacLen] = {};
        const uint32_t ret = DEVM_DB_GetSysMac(read);
        if (ret != 0U) {
            PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "fail to get SysMac, ret %d.", static_cast<int>(ret));
            return PPPOE_PLUS_ERR;
        }
        (void)PppoePlusCopy(g_pppoePlusSystemMac, sizeof(g_pppoePlusSystemMac), read, kMacLen);
    }
    (void)PppoePlusCopy(mac, kMacLen, g_pppoePlusSystemMac, kMacLen);
    return PPPOE_PLUS_OK;
}

void PPPOE_PLUS_MacAddrToStr(const uint8_t mac[6], char *out, uint32_t size)
{
    if (mac == nullptr || out == nullptr || size == 0U) {
        return;
    }
    std::memset(out, 0, size);
    PppoePlusText text(out, size);
    static const uint8_t kZero[kMacLen] = {};
    if (std::memcmp(mac, kZero, kMacLen) == 0) {
        // As "%-14s" of "-".
        text.Append("-").Append(std::string_view("             ", kMacTextLen - 1U));
        return;
    }
    // As "%02x%02x-%02x%02x-%02x%02x".
    text.AppendHex2(mac[0]).AppendHex2(mac[1]).Append("-").AppendHex2(mac[2]).AppendHex2(mac[3]).Append("-");
    text.AppendHex2(mac[4]).AppendHex2(mac[5]);
}

uint32_t PPPOE_PLUS_GetPortDescByIfIndex(uint32_t ifIndex, char *buf, uint32_t size)
{
    if (buf == nullptr || size == 0U) {
        return PPPOE_PLUS_ERR;
    }
    const PppoePlusPortDescEntry *entry = PPPOE_PLUS_PortDescHashFind(ifIndex);
    if (entry == nullptr) {
        return PPPOE_PLUS_ERR;
    }
    return strcpy_s(buf, size, entry->description) == EOK ? PPPOE_PLUS_OK : PPPOE_PLUS_ERR;
}

uint32_t PPPOE_PLUS_EncodeSysName(KeyWordEncodeCtx *ctx)
{
    if (!CtxValid(ctx)) {
        return PPPOE_PLUS_ERR;
    }
    char name[PPPOE_PLUS_SYSNAME_LEN];
    name[0] = '\0';   // a read that succeeds writes the name with its terminator
    if (PPPOE_PLUS_GetSysName(name, sizeof(name)) != 0U) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "encode sysname failed.");
        return PPPOE_PLUS_ERR;
    }
    name[sizeof(name) - 1U] = '\0';
    return WriteSmallText(ctx, name);
}

uint32_t PPPOE_PLUS_EncodePortName(KeyWordEncodeCtx *ctx)
{
    if (!CtxValid(ctx)) {
        return PPPOE_PLUS_ERR;
    }
    uint32_t ifIndex = ctx->userInfo->IfIndex;
    const uint32_t trunkId = PPPOE_PLUS_GetIfL2TrunkId(ifIndex);
    if (trunkId != PPPOE_PLUS_INVALID_IFINDEX) {
        const uint32_t trunkIfIndex = PPPOE_PLUS_GetTrunkIfIndexByTrunkId(trunkId);
        if (trunkIfIndex == PPPOE_PLUS_INVALID_IFINDEX) {
            PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "Get trunk ifindex failed. (trunkId=%u).", trunkId);
        } else {
            ifIndex = trunkIfIndex;
        }
    }
    char name[64] = {};
    if (PPPOE_PLUS_GetIfNameRaw(ifIndex, name, sizeof(name)) != 0U) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "encode port name failed.");
        return PPPOE_PLUS_ERR;
    }
    return WriteSmallText(ctx, name);
}

uint32_t PPPOE_PLUS_EncodePortType(KeyWordEncodeCtx *ctx)
{
    if (!CtxValid(ctx)) {
        return PPPOE_PLUS_ERR;
    }
    if (ctx->ascii == 1U) {
        return WriteSmallText(ctx, "ethernet");
    }
    return PPPOE_PLUS_EncodeDigit(kPortTypeEthernet, ctx);
}

uint32_t PPPOE_PLUS_EncodeIfType(KeyWordEncodeCtx *ctx)
{
    if (!CtxValid(ctx)) {
        return PPPOE_PLUS_ERR;
    }
    return WriteSmallText(ctx, PPPOE_PLUS_IsTrunkIf(ctx->userInfo->IfIndex) == 1U ? "trunk" : "eth");
}

uint32_t PPPOE_PLUS_EncodeSysMac(KeyWordEncodeCtx *ctx)
{
    if (!CtxValid(ctx)) {
        return Fail(__LINE__);
    }
    uint8_t mac[kMacLen] = {};
    if (PPPOE_PLUS_GetDevSysMac(mac) != PPPOE_PLUS_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "fail to get SysMac, ret %u.", PPPOE_PLUS_ERR);
        return PPPOE_PLUS_ERR;
    }
    if (ctx->ascii == 1U) {
        char text[kScratchLen] = {};
        PPPOE_PLUS_MacAddrToStr(mac, text, sizeof(text));
        return WriteSmallText(ctx, text);
    }
    if (*ctx->bitPos > kWorkBits - 8U * kMacLen) {
        return PPPOE_PLUS_ERR;
    }
    for (uint32_t i = 0; i < kMacLen; ++i) {
        PPPOE_PLUS_EncodeDigitByBit(ctx->outBuf, *ctx->bitPos + 8U * i, mac[i], 8U);
    }
    *ctx->bitPos += 8U * kMacLen;
    return PPPOE_PLUS_OK;
}

uint32_t PPPOE_PLUS_EncodeSlot(KeyWordEncodeCtx *ctx)
{
    return CtxValid(ctx) ? EncodeNumberField(ctx->userInfo->ulNas_Slot, ctx, "encode slot id failed.")
                         : PPPOE_PLUS_ERR;
}

uint32_t PPPOE_PLUS_EncodeSubSlot(KeyWordEncodeCtx *ctx)
{
    return CtxValid(ctx) ? EncodeNumberField(ctx->userInfo->ulNas_SubSlot, ctx, "encode card id failed.")
                         : PPPOE_PLUS_ERR;
}

uint32_t PPPOE_PLUS_EncodePort(KeyWordEncodeCtx *ctx)
{
    return CtxValid(ctx) ? EncodeNumberField(ctx->userInfo->ulNas_Port, ctx, "encode port id failed.")
                         : PPPOE_PLUS_ERR;
}

uint32_t PPPOE_PLUS_EncodeXpi(KeyWordEncodeCtx *ctx)
{
    return CtxValid(ctx) ? EncodeNumberField(CheckedVlan(ctx->userInfo->ulXpi, ctx), ctx, "encode xpi failed.")
                         : PPPOE_PLUS_ERR;
}

uint32_t PPPOE_PLUS_EncodeXci(KeyWordEncodeCtx *ctx)
{
    return CtxValid(ctx) ? EncodeNumberField(CheckedVlan(ctx->userInfo->ulXci, ctx), ctx, "encode xci failed.")
                         : PPPOE_PLUS_ERR;
}

uint32_t PPPOE_PLUS_EncodeNXpi(KeyWordEncodeCtx *ctx)
{
    return CtxValid(ctx) ? EncodeNumberField(ctx->userInfo->ulXpi, ctx, "encode nxpi failed.") : PPPOE_PLUS_ERR;
}

uint32_t PPPOE_PLUS_EncodeNXci(KeyWordEncodeCtx *ctx)
{
    return CtxValid(ctx) ? EncodeNumberField(ctx->userInfo->ulXci, ctx, "encode nxci failed.") : PPPOE_PLUS_ERR;
}

uint32_t PPPOE_PLUS_EncodeLength(KeyWordEncodeCtx *ctx)
{
    if (!CtxValid(ctx)) {
        return PPPOE_PLUS_ERR;
    }
    g_pppoePlusLengthOffsetBit = *ctx->bitPos;
    return EncodeNumberField(0U, ctx, "encode length failed.");
}

uint32_t PPPOE_PLUS_EncodePortDesc(KeyWordEncodeCtx *ctx)
{
    if (!CtxValid(ctx)) {
        return PPPOE_PLUS_ERR;
    }
    const char *text = nullptr;
    const PppoePlusPortDescEntry *entry = PPPOE_PLUS_PortDescHashFind(ctx->userInfo->IfIndex);
    if (entry != nullptr && entry->description[0] != '\0') {
        text = entry->description;
    } else if (ctx->userInfo->portDescrValid == 1U) {
        text = ctx->userInfo->portDescr;
    } else {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "PPPOE PLUS encode port description: no configuration.");
        return PPPOE_PLUS_OK;
    }
    char desc[kDescScratchLen] = {};
    if (strncpy_s(desc, sizeof(desc), text, strnlen(text, PPPOE_PLUS_PORTDESC_LEN)) != EOK) {
        return PPPOE_PLUS_ERR;
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "PPPOE PLUS encode port description: %s.", desc);
    char scratch[kDescScratchLen] = {};
    return WriteText(ctx, desc, scratch, sizeof(scratch));
}

uint32_t PPPOE_PLUS_UserFmtAtoul(const char *s, uint32_t *outChars, uint32_t *outValue)
{
    if (s == nullptr || outChars == nullptr || outValue == nullptr) {
        return Fail(__LINE__);
    }
    if (s[0] == '\0') {
        return PPPOE_PLUS_ERR;  // nothing left to read
    }
    uint32_t base = 10U;
    uint32_t value = 0;
    uint32_t i = 0;
    for (; s[i] != '\0' && s[i] != ' ' && s[i] != '%'; ++i) {
        if (s[i] == 'x' || s[i] == 'X') {
            base = 16U;
            continue;
        }
        value = value * base + static_cast<uint32_t>(static_cast<unsigned char>(s[i])) - 48U;
    }
    *outChars = i;
    *outValue = value;
    return PPPOE_PLUS_OK;
}

uint32_t PPPOE_PLUS_UserFmtGetBytes(uint32_t value, uint8_t *outBytes)
{
    if (outBytes == nullptr) {
        return Fail(__LINE__);
    }
    if (value < 0x100U) {
        *outBytes = 1U;
    } else if ((value & 0xFFFF0000U) == 0U) {
        *outBytes = 2U;
    } else {
        *outBytes = 4U;
    }
    return PPPOE_PLUS_OK;
}

uint32_t PPPOE_PLUS_ReplumeFmtStr(const UserInfo *info, const char *fmt, char *out)
{
    if (info == nullptr || fmt == nullptr || out == nullptr) {
        return Fail(__LINE__);
    }
    return Replume(info, fmt, out, false);
}

}  // extern "C"

namespace {

// The format with the optional parts that do not apply to info dropped.
uint32_t Replume(const UserInfo *info, const char *fmt, char *out, bool quiet)
{
    const uint32_t cap = PPPOE_PLUS_UDF_FMT_LEN - 1U;
    // Without brackets nothing is optional: the format is copied as it is
    // (escapes included), up to the room of out.
    const size_t fmtLen = strnlen(fmt, cap);
    if (std::memchr(fmt, '[', fmtLen) == nullptr && std::memchr(fmt, ']', fmtLen) == nullptr) {
        std::memcpy(out, fmt, fmtLen);
        out[fmtLen] = '\0';
        return PPPOE_PLUS_OK;
    }
    uint32_t pos = 0;
    uint32_t optStart = 0;
    bool inOpt = false;
    bool drop = false;
    for (uint32_t i = 0; fmt[i] != '\0' && pos < cap; ++i) {
        const char ch = fmt[i];
        if (ch == '[') {
            inOpt = true;
            drop = false;
            optStart = pos;
            continue;
        }
        if (ch == ']') {
            inOpt = false;
            drop = false;
            continue;
        }
        if (ch == '\\') {
            out[pos++] = ch;
            if (fmt[i + 1U] != '\0' && pos < cap) {
                out[pos++] = fmt[++i];
            }
            continue;
        }
        if (drop) {
            continue;
        }
        out[pos++] = ch;
        if (ch != '%' || !inOpt) {
            continue;
        }
        uint32_t id = 0;
        uint32_t consumed = 0;
        if (PPPOE_PLUS_UserFmtIfKeyWord(fmt + i + 1U, &id, &consumed) == 0U) {
            return quiet ? PPPOE_PLUS_ERR : Fail(__LINE__);
        }
        if ((id == PPPOE_PLUS_KW_SVLAN && info->ulXpi == 0U) || (id == PPPOE_PLUS_KW_CVLAN && info->ulXci == 0U)) {
            (void)memset_s(out + optStart, PPPOE_PLUS_UDF_FMT_LEN - optStart, 0, pos - optStart);
            pos = optStart;
            drop = true;
        }
    }
    out[pos] = '\0';
    return PPPOE_PLUS_OK;
}

}  // namespace

extern "C" {

uint32_t PPPOE_PLUS_EncodeLengthData(uint8_t ascii, uint8_t *buf, uint32_t *len, const char *fieldFmt, uint32_t width)
{
    if (buf == nullptr || len == nullptr || fieldFmt == nullptr) {
        return Fail(__LINE__);
    }
    const uint32_t offset = g_pppoePlusLengthOffsetBit;
    if (ascii != 1U) {
        if (offset > kWorkBits || width > kWorkBits - offset || (offset + width) / 8U > *len) {
            return Fail(__LINE__);
        }
        PPPOE_PLUS_EncodeDigitByBit(buf, offset, *len - (offset + width) / 8U, width);
        return PPPOE_PLUS_OK;
    }
    char text[kScratchLen] = {};
    const int l0 = RenderNumber(0U, fieldFmt, text, sizeof(text));
    if (l0 < 0) {
        return PPPOE_PLUS_ERR;
    }
    const uint32_t start = offset / 8U;
    const uint32_t len0 = static_cast<uint32_t>(l0);
    if (start + len0 + 1U > *len) {
        return Fail(__LINE__);
    }
    const int l1 = RenderNumber(*len - (start + len0), fieldFmt, text, sizeof(text));
    if (l1 < 0) {
        return PPPOE_PLUS_ERR;
    }
    const uint32_t len1 = static_cast<uint32_t>(l1);
    if (len1 > len0) {
        const uint32_t grow = len1 - len0;
        const uint32_t tail = *len - (start + len0);
        if (*len + grow > PPPOE_PLUS_UDF_WORK_LEN ||
            memmove_s(buf + start + len1, PPPOE_PLUS_UDF_WORK_LEN - (start + len1), buf + start + len0, tail) != EOK) {
            return PPPOE_PLUS_ERR;
        }
        *len += grow;
    }
    return memcpy_s(buf + start, PPPOE_PLUS_UDF_WORK_LEN - start, text, len1) == EOK ? PPPOE_PLUS_OK
                                                                                    : PPPOE_PLUS_ERR;
}

uint32_t PPPOE_PLUS_ReBuildLength(const char *fmt, uint8_t *buf, uint32_t *len)
{
    if (fmt == nullptr || buf == nullptr || len == nullptr) {
        return Fail(__LINE__);
    }
    const char *ref = nullptr;
    uint8_t ascii = 0;
    if (FindLengthRef(fmt, &ref, &ascii, false) != PPPOE_PLUS_OK) {
        return PPPOE_PLUS_ERR;
    }
    if (ref == nullptr) {
        return PPPOE_PLUS_OK;
    }
    uint32_t width = 0;
    if (FieldWidth(ref, PPPOE_PLUS_KW_LENGTH, ascii, &width) != PPPOE_PLUS_OK) {
        return Fail(__LINE__);
    }
    char fieldFmt[kFieldFmtLen] = {};
    if (ascii == 1U && !BuildFieldFmt(ref, width, fieldFmt, sizeof(fieldFmt))) {
        return PPPOE_PLUS_ERR;
    }
    return FillLength(ascii, buf, len, fieldFmt, width);
}

}  // extern "C"

namespace {

uint32_t FieldWidth(const char *ref, uint32_t id, uint8_t ascii, uint32_t *outLen, bool quiet)
{
    uint32_t digits = 0;
    uint32_t value = 0;
    while (IsDigit(ref[digits])) {
        if (digits >= kMaxWidthDigits) {
            if (!quiet) {
                PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "The number is invalid.");
            }
            return PPPOE_PLUS_ERR;
        }
        value = value * 10U + static_cast<uint32_t>(ref[digits] - '0');
        ++digits;
    }
    if (digits != 0U) {
        *outLen = value;
        return PPPOE_PLUS_OK;
    }
    if (quiet) {
        if (ascii == 1U) {
            *outLen = id < PPPOE_PLUS_KEYWORD_MAX ? kAsciiDefaultLen[id] : 1U;
            return id < PPPOE_PLUS_KEYWORD_MAX ? PPPOE_PLUS_OK : PPPOE_PLUS_ERR;
        }
        return HexDefaultWidth(id, outLen) ? PPPOE_PLUS_OK : PPPOE_PLUS_ERR;
    }
    return PPPOE_PLUS_UserFmtGetFieldDftLen(id, ascii, outLen);
}

// No step of the walk writes further than this beyond the current byte
// (the widest field: a 1024-byte description; a hex field of 9999 bits).
constexpr uint32_t kStepReach = 2048U;

// The work buffer is zeroed as the walk goes, ahead of every step's reach,
// instead of all 8192 bytes up front: what is read or ORed is zero all the
// same.
void ZeroAhead(uint8_t *work, uint32_t *zeroed, uint32_t bitPos)
{
    const uint32_t want = std::min(PPPOE_PLUS_UDF_WORK_LEN, bitPos / 8U + kStepReach);
    if (want > *zeroed) {
        std::memset(work + *zeroed, 0, want - *zeroed);
        *zeroed = want;
    }
}

// Walks the working string w into the zeroed work buffer; *byteIdx ends as
// the built length.
uint32_t WalkFormat(const UserInfo *info, const char *fmt, const char *w, uint8_t *work, uint32_t *byteIdx)
{
    bool quoted = false;
    uint32_t bitPos = 0;
    uint32_t idx = 0;
    uint32_t zeroed = 0;
    const size_t fmtLen = strnlen(fmt, PPPOE_PLUS_UDF_FMT_LEN);
    uint32_t i = 0;
    ZeroAhead(work, &zeroed, 0);
    while (w[i] != '\0') {
        const char ch = w[i];
        if (idx >= PPPOE_PLUS_UDF_WORK_LEN) {
            return PPPOE_PLUS_ERR;
        }
        ZeroAhead(work, &zeroed, bitPos);
        if (ch == ' ' && !quoted) {
            ++i;
        } else if (ch == '"') {
            quoted = !quoted;
            ++i;
        } else if (ch == '\\' || ch == ' ' || (quoted && ch != '%' && ch != '[' && ch != ']')) {
            if (ch == '\\') {
                ++i;
                if (w[i] == '\0') {
                    return Fail(__LINE__);
                }
            }
            work[idx++] = static_cast<uint8_t>(w[i++]);
            bitPos = 8U * idx;
        } else if (ch == '%') {
            const char *ref = w + i + 1U;
            uint32_t id = 0;
            uint32_t consumed = 0;
            if (PPPOE_PLUS_UserFmtIfKeyWord(ref, &id, &consumed) == 0U || id >= PPPOE_PLUS_KEYWORD_MAX) {
                return Fail(__LINE__);
            }
            const uint8_t ascii = quoted ? 1U : 0U;
            uint32_t width = 0;
            if (FieldWidth(ref, id, ascii, &width) != PPPOE_PLUS_OK) {
                return Fail(__LINE__);
            }
            const PppoePlusKeyWordEncodeFn encode = g_pppoePlusKeyWordDict[id].encode;
            if (encode == nullptr) {
                return PPPOE_PLUS_ERR;
            }
            char fieldFmt[kFieldFmtLen] = {};
            if (ascii == 1U && !BuildFieldFmt(ref, width, fieldFmt, sizeof(fieldFmt))) {
                return PPPOE_PLUS_ERR;
            }
            KeyWordEncodeCtx ctx = {const_cast<UserInfo *>(info), fieldFmt, width, &bitPos, work, ascii};
            if (encode(&ctx) != PPPOE_PLUS_OK) {
                PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "Encode function return error.(KeyWordID=%u)", id);
                return PPPOE_PLUS_ERR;
            }
            idx = bitPos / 8U;
            i += 1U + consumed;
        } else if (ch == '[' || ch == ']') {
            return Fail(__LINE__);
        } else {
            // A literal number, read from the caller's format at the same index.
            if (i >= fmtLen) {
                return Fail(__LINE__);
            }
            uint32_t chars = 0;
            uint32_t value = 0;
            uint8_t bytes = 0;
            if (PPPOE_PLUS_UserFmtAtoul(fmt + i, &chars, &value) != PPPOE_PLUS_OK ||
                PPPOE_PLUS_UserFmtGetBytes(value, &bytes) != PPPOE_PLUS_OK) {
                return Fail(__LINE__);
            }
            if (bitPos + 8U * bytes > kWorkBits) {
                return PPPOE_PLUS_ERR;
            }
            PPPOE_PLUS_EncodeDigitByBit(work, bitPos, value, 8U * bytes);
            quoted = false;
            idx += bytes;
            bitPos += 8U * bytes;
            const bool atEnd = fmt[i + chars] == '\0';
            i += chars + 1U;
            if (atEnd || i > strnlen(w, PPPOE_PLUS_UDF_FMT_LEN)) {
                break;
            }
        }
    }
    *byteIdx = idx;
    return PPPOE_PLUS_OK;
}

// The 8 KB work buffer of one build, from the module's memory.
uint8_t *TakeWork()
{
    auto *work = static_cast<uint8_t *>(PPPOE_PLUS_MemAlloc(PPPOE_PLUS_UDF_WORK_LEN));
    if (work == nullptr) {
        (void)Fail(__LINE__);
    }
    return work;
}

// Hands back the len bytes built in work (ret: how the build went), at most
// PPPOE_PLUS_UDF_OUT_MAX of them, and gives work back.
uint32_t FinishBuild(uint32_t ret, uint8_t *work, uint32_t len, uint8_t *out, uint32_t *outLen)
{
    if (ret == PPPOE_PLUS_OK && len > PPPOE_PLUS_UDF_OUT_MAX) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "Length of the String built by userdefined format is error.(Len=%u)",
                             len);
        ret = PPPOE_PLUS_ERR;
    }
    if (ret == PPPOE_PLUS_OK) {
        if (len != 0U) {
            (void)PppoePlusCopy(out, PPPOE_PLUS_UDF_OUT_MAX, work, len);
        }
        *outLen = len;
    }
    PPPOE_PLUS_MemFree(work);
    return ret;
}

// ---- Compiled formats ----
//
// Each step of a program stands for one turn of WalkFormat's loop (a run of
// literal bytes for a run of turns), with what the turn decides from the
// format alone already decided: the keyword, its encoder, its width and
// field format, the value of a number. What a turn checks against the
// position is checked again per frame, in the same order, so the bytes,
// the lines and the failures are those of the walk. A format the walk
// fails on whatever the frame (an unknown keyword, a bad width) is walked.

static_assert(sizeof(PppoePlusUdfOp) == 16U, "a step is 16 bytes");

enum UdfOpKind : uint8_t {
    kOpCheck,   // turns that skip a blank or a quote: only the position check
    kOpLit,     // count literal bytes, one turn each
    kOpNum,     // a number of count bytes at the bit position
    kOpField,   // a keyword's encoder
};

uint8_t VariantOf(const UserInfo *info)
{
    return static_cast<uint8_t>((info->ulXpi == 0U ? 1U : 0U) | (info->ulXci == 0U ? 2U : 0U));
}

class UdfProgBuilder {
public:
    explicit UdfProgBuilder(PppoePlusUdfProg *prog) : prog_(prog) {}

    // A turn that only checks the position; a check right after another is
    // the same check.
    bool Check()
    {
        if (prog_->opCount == 0U || Last().kind == kOpCheck) {
            return true;   // the position has not moved since the last check
        }
        return Push(PppoePlusUdfOp{kOpCheck, 0U, 0U, 0U, 0U, {}});
    }

    bool Lit(char ch)
    {
        if (prog_->litLen >= sizeof(prog_->lit)) {
            return false;
        }
        if (prog_->opCount == 0U || Last().kind != kOpLit) {
            if (!Push(PppoePlusUdfOp{kOpLit, 0U, 0U, 0U, prog_->litLen, {}})) {
                return false;
            }
        }
        ++Last().count;
        prog_->lit[prog_->litLen++] = static_cast<uint8_t>(ch);
        return true;
    }

    // Every step but a check opens with the check, so a check just before
    // it goes.
    bool Push(const PppoePlusUdfOp &op)
    {
        if (op.kind != kOpCheck && prog_->opCount != 0U && Last().kind == kOpCheck) {
            --prog_->opCount;
        }
        if (prog_->opCount >= PPPOE_PLUS_UDF_OPS_MAX) {
            return false;
        }
        prog_->ops[prog_->opCount++] = op;
        return true;
    }

private:
    PppoePlusUdfOp &Last() { return prog_->ops[prog_->opCount - 1U]; }

    PppoePlusUdfProg *prog_;
};

// WalkFormat's parse of fmt for the variant of info, into steps. Fails,
// quietly, where the walk would fail whatever the frame.
uint32_t CompileSteps(const char *fmt, const UserInfo *info, PppoePlusUdfProg *prog)
{
    char w[PPPOE_PLUS_UDF_FMT_LEN] = {};
    if (Replume(info, fmt, w, true) != PPPOE_PLUS_OK) {
        return PPPOE_PLUS_ERR;
    }
    UdfProgBuilder build(prog);
    const size_t fmtLen = strnlen(fmt, PPPOE_PLUS_UDF_FMT_LEN);
    bool quoted = false;
    bool ok = true;
    uint32_t i = 0;
    while (ok && w[i] != '\0') {
        const char ch = w[i];
        if ((ch == ' ' && !quoted) || ch == '"') {
            quoted = ch == '"' ? !quoted : quoted;
            ok = build.Check();
            ++i;
        } else if (ch == '\\' || ch == ' ' || (quoted && ch != '%' && ch != '[' && ch != ']')) {
            if (ch == '\\' && w[++i] == '\0') {
                return PPPOE_PLUS_ERR;
            }
            ok = build.Lit(w[i++]);
        } else if (ch == '%') {
            const char *ref = w + i + 1U;
            uint32_t id = 0;
            uint32_t consumed = 0;
            uint32_t width = 0;
            const uint8_t ascii = quoted ? 1U : 0U;
            if (PPPOE_PLUS_UserFmtIfKeyWord(ref, &id, &consumed) == 0U || id >= PPPOE_PLUS_KEYWORD_MAX ||
                FieldWidth(ref, id, ascii, &width, true) != PPPOE_PLUS_OK ||
                g_pppoePlusKeyWordDict[id].encode == nullptr) {
                return PPPOE_PLUS_ERR;
            }
            PppoePlusUdfOp op = {kOpField, ascii, static_cast<uint8_t>(id), 0U, width, {}};
            if (ascii == 1U && !BuildFieldFmt(ref, width, op.fieldFmt, sizeof(op.fieldFmt))) {
                return PPPOE_PLUS_ERR;
            }
            ok = build.Push(op);
            i += 1U + consumed;
        } else if (ch == '[' || ch == ']' || i >= fmtLen) {
            return PPPOE_PLUS_ERR;
        } else {
            uint32_t chars = 0;
            uint32_t value = 0;
            uint8_t bytes = 0;
            (void)PPPOE_PLUS_UserFmtAtoul(fmt + i, &chars, &value);   // fmt + i is a character
            (void)PPPOE_PLUS_UserFmtGetBytes(value, &bytes);
            ok = build.Push(PppoePlusUdfOp{kOpNum, 0U, 0U, bytes, value, {}});
            quoted = false;
            const bool atEnd = fmt[i + chars] == '\0';
            i += chars + 1U;
            if (atEnd || i > strnlen(w, PPPOE_PLUS_UDF_FMT_LEN)) {
                break;
            }
        }
    }
    if (!ok) {
        return PPPOE_PLUS_ERR;
    }
    // The length scan of PPPOE_PLUS_EncodeUdfData, decided once.
    const std::string_view whole(fmt, fmtLen);
    if (whole.find('[') == std::string_view::npos && whole.find(']') == std::string_view::npos &&
        whole.find("length") == std::string_view::npos) {
        return PPPOE_PLUS_OK;
    }
    const char *ref = nullptr;
    if (FindLengthRef(fmt, &ref, &prog->lenAscii, true) != PPPOE_PLUS_OK) {
        return PPPOE_PLUS_ERR;
    }
    if (ref == nullptr) {
        return PPPOE_PLUS_OK;
    }
    if (FieldWidth(ref, PPPOE_PLUS_KW_LENGTH, prog->lenAscii, &prog->lenWidth, true) != PPPOE_PLUS_OK ||
        (prog->lenAscii == 1U && !BuildFieldFmt(ref, prog->lenWidth, prog->lenFmt, sizeof(prog->lenFmt)))) {
        return PPPOE_PLUS_ERR;
    }
    prog->lenStep = 1U;
    return PPPOE_PLUS_OK;
}

// Bytes a step may OR bits into beyond the byte it starts in: numbers and
// hex fields (a MAC is 48 bits whatever its width); text is copied over.
uint32_t OrReach(const PppoePlusUdfOp &op)
{
    if (op.kind == kOpNum) {
        return op.count + 1U;
    }
    if (op.kind == kOpField && op.ascii == 0U) {
        return (std::max(op.value, 8U * kMacLen) + 7U) / 8U + 1U;
    }
    return 0U;
}

// WalkFormat's loop over the steps of prog; *byteIdx ends as the built
// length. Instead of zeroing ahead of every turn, the bytes below zeroed
// are kept zero or written: a step that ORs bits zeroes its reach first,
// and what a step wrote moves the mark past it.
uint32_t RunSteps(const UserInfo *info, const PppoePlusUdfProg *prog, uint8_t *work, uint32_t *byteIdx)
{
    uint32_t bitPos = 0;
    uint32_t zeroed = 0;
    for (uint32_t k = 0; k < prog->opCount; ++k) {
        const PppoePlusUdfOp &op = prog->ops[k];
        // The turn's check of the position.
        if (bitPos / 8U >= PPPOE_PLUS_UDF_WORK_LEN) {
            return PPPOE_PLUS_ERR;
        }
        const uint32_t reach = std::min(PPPOE_PLUS_UDF_WORK_LEN, bitPos / 8U + OrReach(op));
        if (reach > zeroed) {
            std::memset(work + zeroed, 0, reach - zeroed);
            zeroed = reach;
        }
        switch (op.kind) {
            case kOpLit:
                for (uint32_t n = 0; n < op.count; ++n) {
                    const uint32_t idx = bitPos / 8U;
                    if (idx >= PPPOE_PLUS_UDF_WORK_LEN) {
                        return PPPOE_PLUS_ERR;
                    }
                    work[idx] = prog->lit[op.value + n];
                    bitPos = 8U * (idx + 1U);
                }
                break;
            case kOpNum:
                if (bitPos + 8U * op.count > kWorkBits) {
                    return PPPOE_PLUS_ERR;
                }
                PPPOE_PLUS_EncodeDigitByBit(work, bitPos, op.value, 8U * op.count);
                bitPos += 8U * op.count;
                break;
            case kOpField: {
                const PppoePlusKeyWordEncodeFn encode = g_pppoePlusKeyWordDict[op.id].encode;
                KeyWordEncodeCtx ctx = {const_cast<UserInfo *>(info), op.fieldFmt, op.value, &bitPos, work, op.ascii};
                if (encode == nullptr) {
                    return PPPOE_PLUS_ERR;
                }
                if (encode(&ctx) != PPPOE_PLUS_OK) {
                    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "Encode function return error.(KeyWordID=%u)",
                                         static_cast<uint32_t>(op.id));
                    return PPPOE_PLUS_ERR;
                }
                break;
            }
            default:
                break;
        }
        zeroed = std::max(zeroed, std::min(PPPOE_PLUS_UDF_WORK_LEN, (bitPos + 7U) / 8U));
    }
    *byteIdx = bitPos / 8U;
    return PPPOE_PLUS_OK;
}

}  // namespace

extern "C" {

uint32_t PPPOE_PLUS_UdfCompile(const char *fmt, const UserInfo *info, PppoePlusUdfProg *prog)
{
    if (fmt == nullptr || info == nullptr || prog == nullptr) {
        return PPPOE_PLUS_ERR;
    }
    prog->dictGen = g_dictGen.load(std::memory_order_relaxed);
    prog->variant = VariantOf(info);
    const size_t cap = strnlen(fmt, PPPOE_PLUS_UDF_FMT_LEN - 1U);
    prog->anyVariant = std::memchr(fmt, '[', cap) == nullptr && std::memchr(fmt, ']', cap) == nullptr ? 1U : 0U;
    prog->walk = 0U;
    prog->opCount = 0U;
    prog->lenStep = 0U;
    prog->lenAscii = 0U;
    prog->litLen = 0U;
    prog->lenWidth = 0U;
    std::memset(prog->lenFmt, 0, sizeof(prog->lenFmt));
    if (g_pppoePlusKeyWordDict == nullptr || CompileSteps(fmt, info, prog) != PPPOE_PLUS_OK) {
        prog->walk = 1U;
        prog->opCount = 0U;
        prog->lenStep = 0U;
    }
    return PPPOE_PLUS_OK;
}

uint32_t PPPOE_PLUS_UdfProgFits(const PppoePlusUdfProg *prog, const UserInfo *info)
{
    return prog != nullptr && info != nullptr && prog->dictGen == g_dictGen.load(std::memory_order_relaxed) &&
                   (prog->anyVariant == 1U || prog->variant == VariantOf(info))
               ? 1U
               : 0U;
}

void PPPOE_PLUS_UdfProgCopy(PppoePlusUdfProg *dst, const PppoePlusUdfProg *src)
{
    if (dst == nullptr || src == nullptr) {
        return;
    }
    std::memcpy(dst, src, offsetof(PppoePlusUdfProg, lit));
    std::memcpy(dst->lit, src->lit, std::min<size_t>(src->litLen, sizeof(src->lit)));
    std::memcpy(dst->ops, src->ops, sizeof(PppoePlusUdfOp) * std::min<size_t>(src->opCount, PPPOE_PLUS_UDF_OPS_MAX));
}

uint32_t PPPOE_PLUS_EncodeUdfProg(const UserInfo *info, const char *fmt, const PppoePlusUdfProg *prog, uint8_t *out,
                                  uint32_t *outLen)
{
    if (prog == nullptr || prog->walk == 1U || PPPOE_PLUS_UdfProgFits(prog, info) == 0U || fmt == nullptr ||
        out == nullptr || outLen == nullptr) {
        return PPPOE_PLUS_EncodeUdfData(info, fmt, out, outLen);
    }
    uint8_t *work = TakeWork();
    if (work == nullptr) {
        return PPPOE_PLUS_ERR;
    }
    uint32_t len = 0;
    uint32_t ret = RunSteps(info, prog, work, &len);
    if (ret == PPPOE_PLUS_OK && prog->lenStep == 1U) {
        ret = FillLength(prog->lenAscii, work, &len, prog->lenFmt, prog->lenWidth);
    }
    return FinishBuild(ret, work, len, out, outLen);
}

}  // extern "C"

extern "C" uint32_t PPPOE_PLUS_EncodeUdfData(const UserInfo *info, const char *fmt, uint8_t *out, uint32_t *outLen)
{
    if (info == nullptr || fmt == nullptr || out == nullptr || outLen == nullptr) {
        return Fail(__LINE__);
    }
    uint8_t *work = TakeWork();
    if (work == nullptr) {
        return PPPOE_PLUS_ERR;
    }
    char w[PPPOE_PLUS_UDF_FMT_LEN] = {};
    if (PPPOE_PLUS_ReplumeFmtStr(info, fmt, w) != PPPOE_PLUS_OK) {
        PPPOE_PLUS_MemFree(work);
        return Fail(__LINE__);
    }
    // WalkFormat zeroes the buffer ahead of what it writes.
    uint32_t len = 0;
    uint32_t ret = WalkFormat(info, fmt, w, work, &len);
    // A format without optional parts was walked whole, every keyword of it
    // recognised: without the word "length" in it, the length scan could
    // find neither a length field nor a keyword to fail on.
    const std::string_view whole(fmt, strnlen(fmt, PPPOE_PLUS_UDF_FMT_LEN));
    const bool lengthScan = whole.find('[') != std::string_view::npos || whole.find(']') != std::string_view::npos ||
                            whole.find("length") != std::string_view::npos;
    if (ret == PPPOE_PLUS_OK && lengthScan) {
        ret = PPPOE_PLUS_ReBuildLength(fmt, work, &len);
    }
    return FinishBuild(ret, work, len, out, outLen);
}
