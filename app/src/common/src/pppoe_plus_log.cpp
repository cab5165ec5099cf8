// Debug output (four switchable levels), diagnostic logs through the
// information-management agent, and the packet and tag dump helpers.
#include "pppoe_plus_log.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <span>
#include <string_view>

#include "devm.h"
#include "plat_safe.h"
#include "pppoe_plus_bounded.h"
#include "pppoe_plus_ha.h"
#include "pppoe_plus_pkt.h"

namespace {

constexpr size_t kLogBufLen = 512;
constexpr uint32_t kInvalidId = 0xFFFFFFFFU;

constexpr std::array<uint32_t, PPPOE_PLUS_DBG_LEVELS> kDebugIds = {0x478BC26DU, 0x478BC26CU, 0x478BC26BU,
                                                                   0x478BC26EU};

constexpr std::array<IM_AGENT_LOG_ID_S, 3> kLogIds = {{
    {PPPOE_PLUS_LOG_ID_DIAGDEBUG, 9, "PPPOE_PLUS_LOG_ID_DIAGDEBUG", "PPPoE Plus debug information. (Info=[Info])",
     "[STRING]"},
    {PPPOE_PLUS_LOG_ID_DIAGERROR, 9, "PPPOE_PLUS_LOG_ID_DIAGERROR", "PPPoE Plus error information. (Info=[Info])",
     "[STRING]"},
    {PPPOE_PLUS_LOG_ID_DIAGWARN, 9, "PPPOE_PLUS_LOG_ID_DIAGWARN", "PPPoE Plus warning information. (Info=[Info])",
     "[STRING]"},
}};

std::atomic<uint32_t> g_cachedChassisId{kInvalidId};
std::atomic<uint32_t> g_cachedBoardId{kInvalidId};

const IM_AGENT_LOG_ID_S *FindLogId(uint32_t logId)
{
    for (const auto &rec : kLogIds) {
        if (rec.id == logId) {
            return &rec;
        }
    }
    return nullptr;
}

// One value for a parameter token; the token decides which field is read.
struct ImArg {
    uint32_t u32 = 0;
    int32_t i32 = 0;
    const uint8_t *mac = nullptr;
    const char *str = nullptr;
};

struct ParaType {
    std::string_view token;
    uint32_t type;
    uint32_t size;  // 0: the length of the text
};
constexpr std::array<ParaType, 4> kParaTypes = {{
    {"UINT32", IM_AGENT_PARA_UINT32, 4},
    {"INT32", IM_AGENT_PARA_INT32, 4},
    {"MAC", IM_AGENT_PARA_MAC, 6},
    {"STRING", IM_AGENT_PARA_STRING, 0},
}};

// A record's parameter format, read once: the type of each bracketed
// token up to the first that is none (then invalid).
struct ParaList {
    bool valid = true;
    size_t count = 0;
    std::array<const ParaType *, 8> types{};
};

constexpr ParaList ParseParaFormat(std::string_view format)
{
    ParaList list;
    while (!format.empty()) {
        const size_t close = format.find(']');
        if (format.front() != '[' || close == std::string_view::npos || list.count == list.types.size()) {
            list.valid = false;
            return list;
        }
        const std::string_view token = format.substr(1, close - 1);
        format.remove_prefix(close + 1);
        const ParaType *para = nullptr;
        for (const auto &candidate : kParaTypes) {
            if (candidate.token == token) {
                para = &candidate;
            }
        }
        if (para == nullptr) {
            list.valid = false;
            return list;
        }
        list.types[list.count++] = para;
    }
    return list;
}

// The formats of the log id table, parsed at build time.
constexpr std::array<ParaList, kLogIds.size()> kLogParas = {
    ParseParaFormat(kLogIds[0].paraFormat), ParseParaFormat(kLogIds[1].paraFormat),
    ParseParaFormat(kLogIds[2].paraFormat)};

// Adds one parameter per token of the record's format; false when the
// format holds anything else or runs out of arguments.
bool AddParas(IM_AGENT_OBJ_S *obj, const ParaList &list, std::span<const ImArg> args)
{
    for (size_t next = 0; next < list.count; next++) {
        if (next >= args.size()) {
            return false;
        }
        const ImArg &arg = args[next];
        const ParaType *para = list.types[next];
        const void *value = nullptr;
        uint32_t size = para->size;
        switch (para->type) {
            case IM_AGENT_PARA_UINT32: value = &arg.u32; break;
            case IM_AGENT_PARA_INT32: value = &arg.i32; break;
            case IM_AGENT_PARA_MAC: value = arg.mac; break;
            default:
                value = arg.str;
                size = static_cast<uint32_t>(std::string_view(arg.str != nullptr ? arg.str : "").size());
                break;
        }
        (void)IM_Agent_AddPara(obj, para->type, size, value);
    }
    return list.valid;
}

// Sends text as a record of logId: only on the HA master, only for the
// module's own ids.
void SendRecord(uint32_t logId, const char *text)
{
    IM_AGENT_HANDLE_S *handle = g_pppoePlusIMAgentHandle.load(std::memory_order_acquire);
    const IM_AGENT_LOG_ID_S *rec = FindLogId(logId);
    if (handle == nullptr || rec == nullptr || PPPOE_PLUS_HaIsMaster() == 0) {
        return;
    }
    IM_AGENT_OBJ_S *obj = IM_Agent_ObjCreate(handle, logId);
    if (obj == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "im agent create obj fail.");
        return;
    }
    const std::array<ImArg, 1> args = {ImArg{.str = text}};
    if (!AddParas(obj, kLogParas[static_cast<size_t>(rec - kLogIds.data())], args)) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "fmt is invalid.");
    } else if (const uint32_t ret = IM_Agent_Send(obj); ret != 0) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "im agent send fail. (ret=%u)", ret);
    }
    if (IM_Agent_ObjFree(obj) != 0) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "im agent free obj fail.");
    }
}

// "[slot=<chassis>/<board>]" into buf (terminated, truncated to size);
// returns its length.
size_t SlotPrefix(char *buf, size_t size, uint32_t chassis, uint32_t board)
{
    // Two 32-bit numbers take at most 10 digits each: 28 characters in all.
    std::array<char, 32> tmp{};
    size_t len = 0;
    auto put = [&tmp, &len](std::string_view part) {
        const size_t n = std::min(part.size(), tmp.size() - len);
        (void)PppoePlusCopy(tmp.data() + len, tmp.size() - len, part.data(), n);
        len += n;
    };
    auto number = [&put](uint32_t value) {
        std::array<char, 10> digits{};
        const auto [end, ec] = std::to_chars(digits.data(), digits.data() + digits.size(), value);
        put(std::string_view(digits.data(), ec == std::errc() ? static_cast<size_t>(end - digits.data()) : 0U));
    };
    put("[slot=");
    number(chassis);
    put("/");
    number(board);
    put("]");
    len = std::min(len, size - 1U);
    (void)PppoePlusCopy(buf, size, tmp.data(), len);
    buf[len] = '\0';
    return len;
}

bool WouldSend(uint32_t logId)
{
    return g_pppoePlusIMAgentHandle.load(std::memory_order_acquire) != nullptr && FindLogId(logId) != nullptr &&
           PPPOE_PLUS_HaIsMaster() != 0;
}

uint32_t CachedDevmId(std::atomic<uint32_t> &cache, uint32_t (*read)(uint32_t *))
{
    uint32_t id = cache.load(std::memory_order_relaxed);
    if (id == kInvalidId) {
        if (read(&id) != DEVM_OK) {
            id = kInvalidId;
        }
        cache.store(id, std::memory_order_relaxed);
    }
    return id;
}

bool DebugEnabled(uint32_t level)
{
    return level < PPPOE_PLUS_DBG_LEVELS && g_debugSwitch[level].enabled.load(std::memory_order_relaxed) != 0;
}

// A bounded text that only ever grows; appends past the end are cut.
template <size_t N>
class DumpText {
public:
    template <typename... Args>
    void Append(const char *format, Args... args)
    {
        if (len_ + 1 < N) {
            int n = 0;
            if constexpr (sizeof...(Args) == 0) {
                n = snprintf_truncated_s(buf_.data() + len_, N - len_, "%s", format);
            } else {
                n = snprintf_truncated_s(buf_.data() + len_, N - len_, format, args...);
            }
            if (n > 0) {
                len_ += static_cast<size_t>(n);
            }
        }
    }
    size_t Size() const { return len_; }
    const char *CStr() const { return buf_.data(); }

private:
    std::array<char, N> buf_{};
    size_t len_ = 0;
};

using VendorText = DumpText<1024>;

// Bytes of one sub-option, twelve to a line, until the text reaches limit.
void AppendSubOptionBytes(VendorText &text, const uint8_t *value, uint32_t len, size_t limit)
{
    for (uint32_t i = 0; i < len && text.Size() < limit; i++) {
        if (i != 0 && i % 12 == 0) {
            text.Append("\r\n%33s", "");
        }
        text.Append("%02x ", value[i]);
    }
}

uint16_t ReadBe16(const uint8_t *p)
{
    return static_cast<uint16_t>((p[0] << 8) | p[1]);
}

}  // namespace

extern "C" {

PppoePlusDebugSwitch g_debugSwitch[PPPOE_PLUS_DBG_LEVELS] = {{0, 0}, {1, 0}, {2, 0}, {3, 0}};
std::atomic<IM_AGENT_HANDLE_S *> g_pppoePlusIMAgentHandle{nullptr};

uint32_t PPPOE_PLUS_InitIMAgent(void)
{
    IM_AGENT_HANDLE_S *handle = IM_Agent_GetHandle("pppoe_plus", kLogIds.data(), kLogIds.size());
    g_pppoePlusIMAgentHandle.store(handle, std::memory_order_release);
    return handle == nullptr ? 1U : 0U;
}

// The name in parentheses: the header's macro of the same name stays out.
void(PPPOE_PLUS_DbgOutput)(uint32_t level, const char *format, ...)
{
    IM_AGENT_HANDLE_S *handle = g_pppoePlusIMAgentHandle.load(std::memory_order_acquire);
    if (!DebugEnabled(level) || handle == nullptr) {
        return;
    }
    char text[kLogBufLen] = {};
    va_list ap;
    va_start(ap, format);
    const int n = vsprintf_s(text, sizeof(text), format, ap);
    va_end(ap);
    if (n < 0) {
        return;
    }
    (void)IM_Agent_Debug(handle, PPPOE_PLUS_GetDebugIdbyLevel(level), "NULL", "%s%_VSID", text);
}

void PPPOE_PLUS_DiagLog(uint32_t logId, const char *format, ...)
{
    const uint32_t chassis = CachedDevmId(g_cachedChassisId, DEVM_DB_GetSelfChassisId);
    const uint32_t board = CachedDevmId(g_cachedBoardId, DEVM_DB_GetSelfBoardId);
    if (!WouldSend(logId)) {
        return;  // nothing would be sent: spare the formatting
    }
    // The packet path sends several records per frame: the prefix is built
    // without printf (once per thread for the ids it last saw), and a fixed
    // text (no conversion) is copied as it is.
    struct Prefix {
        uint32_t chassis = kInvalidId;
        uint32_t board = kInvalidId;
        size_t len = 0;
        char text[32] = {};
    };
    __attribute__((tls_model("initial-exec"))) static thread_local Prefix t_prefix;
    if (t_prefix.len == 0 || t_prefix.chassis != chassis || t_prefix.board != board) {
        t_prefix.len = SlotPrefix(t_prefix.text, sizeof(t_prefix.text), chassis, board);
        t_prefix.chassis = chassis;
        t_prefix.board = board;
    }
    char text[kLogBufLen];
    const size_t prefix = t_prefix.len;
    std::memcpy(text, t_prefix.text, prefix + 1U);
    char *rest = text + prefix;
    const size_t room = sizeof(text) - prefix;
    if (std::strchr(format, '%') == nullptr) {
        const size_t len = strnlen(format, room - 1U);
        (void)PppoePlusCopy(rest, room, format, len);
        rest[len] = '\0';
    } else {
        va_list ap;
        va_start(ap, format);
        (void)vsnprintf_truncated_s(rest, room, format, ap);
        va_end(ap);
    }
    SendRecord(logId, text);
}

void PPPOE_PLUS_Log(uint32_t logId, const char *format, ...)
{
    if (!WouldSend(logId)) {
        return;
    }
    char text[kLogBufLen] = {};
    va_list ap;
    va_start(ap, format);
    (void)vsnprintf_truncated_s(text, sizeof(text), format, ap);
    va_end(ap);
    SendRecord(logId, text);
}

uint32_t PPPOE_PLUS_UpdateDebugSwitch(uint32_t level, uint32_t enabled)
{
    if (level > PPPOE_PLUS_DBG_ALL || enabled > 1) {
        return 1;
    }
    for (uint32_t i = 0; i < PPPOE_PLUS_DBG_LEVELS; i++) {
        if (level == PPPOE_PLUS_DBG_ALL || level == i) {
            g_debugSwitch[i].level.store(i, std::memory_order_relaxed);
            g_debugSwitch[i].enabled.store(enabled, std::memory_order_relaxed);
        }
    }
    return 0;
}

uint32_t PPPOE_PLUS_GetDebugIdbyLevel(uint32_t level)
{
    return level < kDebugIds.size() ? kDebugIds[level] : kDebugIds[PPPOE_PLUS_DBG_INFO];
}

void PPPOE_PLUS_DumpPkt(const FpcMbuf *frame)
{
    if (frame == nullptr || !DebugEnabled(PPPOE_PLUS_DBG_PKT)) {
        return;
    }
    const uint8_t *data = frame->pData + frame->dataOff;
    const uint32_t len = frame->dataLen < 64 ? frame->dataLen : 64;
    DumpText<256> text;
    for (uint32_t i = 0; i < len; i++) {
        if (i % 16 == 0) {
            text.Append("\n");
        }
        text.Append("%02X ", data[i]);
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_PKT, "%s", text.CStr());
}

void PPPOE_PLUS_PrintVendorSpecInfo(const uint8_t *tag)
{
    if (tag == nullptr || !DebugEnabled(PPPOE_PLUS_DBG_INFO)) {
        return;
    }
    // Tag: type(2) length(2) vendor id(4), then sub-options type(1) length(1)
    // value; the tag length counts everything after the tag's head.
    const uint32_t tagLen = ReadBe16(tag + PPPOE_PLUS_TAG_LEN_OFF);
    const uint32_t tagEnd = PPPOE_PLUS_TAG_HEAD_LEN + tagLen;
    const uint8_t *vendorId = tag + PPPOE_PLUS_VENDOR_ID_OFF;
    const uint32_t enterprise = (static_cast<uint32_t>(vendorId[0]) << 24) |
                                (static_cast<uint32_t>(vendorId[1]) << 16) | (static_cast<uint32_t>(vendorId[2]) << 8) |
                                vendorId[3];
    VendorText text;
    text.Append("\r\n The Vendor-Specific information:");
    text.Append("\r\n TagType:0x%04x  length:%u  Enterprise CODE:0x%x", ReadBe16(tag), tagLen, enterprise);

    auto emit = [&text]() { PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "%s", text.CStr()); };
    // A sub-option whose header or value lies past the tag's end.
    auto overruns = [&](uint32_t off) {
        const bool headFits = off + PPPOE_PLUS_SUBOPT_HEAD_LEN <= tagEnd;
        const uint32_t type = headFits ? tag[off] : 0;
        const uint32_t len = headFits ? tag[off + 1] : 0;
        if (off + PPPOE_PLUS_SUBOPT_HEAD_LEN + len <= tagEnd) {
            return false;
        }
        text.Append("\r\n SubTagLenError: Type : %3u  Length : %3u.", type, len);
        return true;
    };

    uint32_t off = PPPOE_PLUS_VENDOR_SPEC_HEAD_LEN;
    if (overruns(off)) {
        emit();
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG, "[PPPOE_PLUS_LOG] Failed to print vendor info in first");
        return;
    }
    if (tag[off] == PPPOE_PLUS_SUBOPT_CID) {
        const uint32_t cidLen = tag[off + 1];
        text.Append("\r\n Circuit ID:  Length : %3u Value:", cidLen);
        AppendSubOptionBytes(text, tag + off + PPPOE_PLUS_SUBOPT_HEAD_LEN, cidLen, 449);
        // Behind the Circuit-ID, room for no further sub-option head.
        if (PPPOE_PLUS_VENDOR_ID_LEN + PPPOE_PLUS_SUBOPT_HEAD_LEN + cidLen + PPPOE_PLUS_SUBOPT_HEAD_LEN >= tagLen) {
            emit();
            return;
        }
        off += PPPOE_PLUS_SUBOPT_HEAD_LEN + cidLen;
    }
    if (overruns(off)) {
        emit();
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG, "[PPPOE_PLUS_LOG] Failed to print vendor info in second");
        return;
    }
    if (tag[off] != PPPOE_PLUS_SUBOPT_RID) {
        emit();
        return;
    }
    const uint32_t ridLen = tag[off + 1];
    text.Append("\r\n Remote  ID:  Length : %3u Value:", ridLen);
    if (ridLen != 0) {
        AppendSubOptionBytes(text, tag + off + PPPOE_PLUS_SUBOPT_HEAD_LEN, ridLen, 961);
    }
    emit();
}

}  // extern "C"
