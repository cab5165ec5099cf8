// Information-management agent: diagnostic records and debug lines.
//
// On the real switch a module registers its log ids (name, description,
// parameter format) with the information center, sends structured records
// against them and emits debug lines under debug ids. Ours keeps each
// module's id table, checks parameters against their type, and writes every
// record to the log sink as a PLAT_LOG_DIAG line "<NAME> <description>"
// (the description's "[Info]" replaced by the first STRING parameter) and
// every debug line as PLAT_LOG_DEBUG "0x<debugId> <text>". Every call passes
// failure injection (null or the injected code).
//
// Modules send a record per event, packets included, so nothing here takes
// a lock once warm: records come from a free list of the calling thread,
// a handle or record pointer is checked against published, never-changing
// lists of the ones made (so a foreign pointer is refused without being
// read), and Send only queues the record's parts for the log sink, whose
// thread renders the line. Registered id tables are kept for the life of
// the process, so a queued record can point at its id.
#include <array>
#include <charconv>
#include <cstdarg>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "core/internal.hpp"
#include "core/thread_ref.hpp"
#include "im_agent.h"
#include "platform/control.h"
#include "platform/fail_point.hpp"

namespace platform::im {

struct LogId {
    uint32_t id = 0;
    uint32_t logClass = 0;
    std::string name;
    std::string description;
    std::string paraFormat;
};

// The ids one registration gave; never changed once published.
struct IdTable {
    std::vector<LogId> ids;

    const LogId *Find(uint32_t id) const
    {
        for (const LogId &logId : ids) {
            if (logId.id == id) {
                return &logId;
            }
        }
        return nullptr;
    }
};

}  // namespace platform::im

struct IM_AGENT_HANDLE {
    std::string module;
    // Registering again publishes a new table; records in flight keep
    // pointing into the one they were made against.
    std::atomic<const platform::im::IdTable *> ids{nullptr};
};

struct IM_AGENT_OBJ {
    std::atomic<uint32_t> state{0};   // kLive while handed out
    const platform::im::LogId *logId = nullptr;
    // The first STRING parameter, the one the line shows: a short one in
    // the record itself, a longer one in longText (which keeps its storage
    // when the record is reused). Other parameters are checked only.
    static constexpr size_t kShortText = 160;
    bool hasText = false;
    uint32_t textSize = 0;
    std::array<char, kShortText> shortText;
    std::string longText;

    void SetText(const char *value, uint32_t size)
    {
        if (size <= kShortText) {
            std::memcpy(shortText.data(), value, size);
        } else {
            longText.assign(value, size);
        }
        textSize = size;
        hasText = true;
    }
    std::string_view Text() const
    {
        return textSize <= kShortText ? std::string_view(shortText.data(), textSize) : std::string_view(longText);
    }
};

namespace {

using platform::im::IdTable;
using platform::im::LogId;

constexpr uint32_t kImOk = 0;
constexpr uint32_t kImErr = 1;
constexpr uint32_t kLive = 0x4C495645U;
constexpr uint32_t kFree = 0;
constexpr size_t kChunkRecords = 64;       // records are made this many at a time
constexpr size_t kThreadFreeMax = 64;      // beyond this a thread's freed records go to the shared pool

// A list published for lock-free readers: replaced, never changed, and the
// old ones kept, so a reader may go on with the one it loaded.
template <typename T>
class Published {
public:
    const std::vector<T> &Load() const
    {
        const std::vector<T> *now = current_.load(std::memory_order_acquire);
        return now != nullptr ? *now : empty_;
    }
    // Caller serialises writers.
    void Append(T value)
    {
        auto next = std::make_unique<std::vector<T>>(Load());
        next->push_back(value);
        current_.store(next.get(), std::memory_order_release);
        kept_.push_back(std::move(next));
    }

private:
    std::atomic<const std::vector<T> *> current_{nullptr};
    std::vector<std::unique_ptr<std::vector<T>>> kept_;
    const std::vector<T> empty_{};
};

struct Agent {
    std::mutex mu;   // registrations, making records, the shared pool
    // Handles live as long as the process: modules keep them in globals.
    std::map<std::string, std::unique_ptr<IM_AGENT_HANDLE>, std::less<>> handles;
    Published<const IM_AGENT_HANDLE *> knownHandles;
    std::vector<std::unique_ptr<const IdTable>> tables;   // every table ever registered
    // Records are made in chunks and never destroyed; a pointer that is
    // not in one of them is none.
    std::vector<std::unique_ptr<IM_AGENT_OBJ[]>> chunks;
    Published<const IM_AGENT_OBJ *> chunkStarts;
    std::vector<IM_AGENT_OBJ *> pool;   // freed records beyond the threads' own lists
};

Agent &TheAgent()
{
    return platform::internal::Leaky<Agent>();
}

inline __attribute__((always_inline)) bool KnownHandle(const IM_AGENT_HANDLE *handle)
{
    if (handle == nullptr) {
        return false;
    }
    for (const IM_AGENT_HANDLE *known : TheAgent().knownHandles.Load()) {
        if (known == handle) {
            return true;
        }
    }
    return false;
}

// obj is one of the records made here (its memory is never read otherwise).
// The checks are inlined: every call on a record or handle makes one.
inline __attribute__((always_inline)) bool KnownRecord(const IM_AGENT_OBJ *obj)
{
    const auto at = reinterpret_cast<uintptr_t>(obj);
    for (const IM_AGENT_OBJ *start : TheAgent().chunkStarts.Load()) {
        const auto first = reinterpret_cast<uintptr_t>(start);
        if (at >= first && at < first + kChunkRecords * sizeof(IM_AGENT_OBJ)) {
            return (at - first) % sizeof(IM_AGENT_OBJ) == 0;
        }
    }
    return false;
}

inline __attribute__((always_inline)) bool IsLive(const IM_AGENT_OBJ *obj)
{
    return obj != nullptr && KnownRecord(obj) && obj->state.load(std::memory_order_acquire) == kLive;
}

// The calling thread's freed records: a plain record (reached without a
// call), and a guard made with the first that hands them to the shared pool
// when the thread ends.
struct ThreadRecords {
    std::array<IM_AGENT_OBJ *, kThreadFreeMax> free;
    size_t count;
    bool guardArmed;
};
thread_local ThreadRecords t_records;

__attribute__((noinline)) ThreadRecords *RecordsOfThread()
{
    return &t_records;
}

struct ThreadRecordsGuard {
    bool armed = false;
    ~ThreadRecordsGuard()
    {
        Agent &agent = TheAgent();
        std::lock_guard lock(agent.mu);
        agent.pool.insert(agent.pool.end(), t_records.free.begin(), t_records.free.begin() + t_records.count);
        t_records.count = 0;
    }
};
thread_local ThreadRecordsGuard t_recordsGuard;

// A free record: the thread's own, the shared pool's, or a new chunk's.
IM_AGENT_OBJ *TakeRecord()
{
    ThreadRecords &records = platform::internal::ThreadRef<ThreadRecords, RecordsOfThread>(platform::internal::ThreadRefId::kImRecords);
    if (records.count != 0) {
        return records.free[--records.count];
    }
    Agent &agent = TheAgent();
    std::lock_guard lock(agent.mu);
    if (agent.pool.empty()) {
        auto chunk = std::make_unique<IM_AGENT_OBJ[]>(kChunkRecords);
        for (size_t i = 0; i < kChunkRecords; i++) {
            agent.pool.push_back(&chunk[i]);
        }
        agent.chunkStarts.Append(chunk.get());
        agent.chunks.push_back(std::move(chunk));
    }
    IM_AGENT_OBJ *obj = agent.pool.back();
    agent.pool.pop_back();
    return obj;
}

void GiveBack(IM_AGENT_OBJ *obj)
{
    ThreadRecords &records = platform::internal::ThreadRef<ThreadRecords, RecordsOfThread>(platform::internal::ThreadRefId::kImRecords);
    if (records.count < kThreadFreeMax) {
        if (!records.guardArmed) {
            records.guardArmed = true;
            t_recordsGuard.armed = true;
        }
        records.free[records.count++] = obj;
        return;
    }
    Agent &agent = TheAgent();
    std::lock_guard lock(agent.mu);
    agent.pool.push_back(obj);
}

// "<NAME> <description>", the description's first "[Info]" replaced by the
// record's first STRING parameter when it has one (id 1).
void RenderDiag(const void *ctx, uint32_t hasText, std::string_view text, std::string &line)
{
    const LogId &id = *static_cast<const LogId *>(ctx);
    line.assign(id.name).push_back(' ');
    const size_t start = line.size();
    line.append(id.description);
    if (hasText != 0) {
        const size_t at = line.find("[Info]", start);
        if (at != std::string::npos) {
            line.replace(at, 6, text);
        }
    }
}

// "0x<debugId> <text>", the id in lower-case hex.
void RenderDebug(const void *ctx, uint32_t debugId, std::string_view text, std::string &line)
{
    (void)ctx;
    char hex[8];
    const auto [end, ec] = std::to_chars(hex, hex + sizeof(hex), debugId, 16);
    (void)ec;
    line.assign("0x").append(hex, end).push_back(' ');
    line.append(text);
}

// fmt without the platform's "%_VSID" directive.
std::string StripVsid(const char *fmt)
{
    std::string out = fmt;
    static constexpr char kVsid[] = "%_VSID";
    for (size_t at = out.find(kVsid); at != std::string::npos; at = out.find(kVsid, at)) {
        out.erase(at, sizeof(kVsid) - 1);
    }
    return out;
}

}  // namespace

extern "C" {

IM_AGENT_HANDLE_S *IM_Agent_GetHandle(const char *module, const IM_AGENT_LOG_ID_S *ids, uint32_t count)
{
    if (platform::FailPoint(__func__)) {
        return nullptr;
    }
    if (module == nullptr || module[0] == '\0' || (ids == nullptr && count != 0)) {
        return nullptr;
    }
    auto table = std::make_unique<IdTable>();
    for (uint32_t i = 0; i < count; i++) {
        const IM_AGENT_LOG_ID_S &src = ids[i];
        if (src.name == nullptr) {
            return nullptr;
        }
        LogId dst;
        dst.id = src.id;
        dst.logClass = src.logClass;
        dst.name = src.name;
        dst.description = src.description == nullptr ? "" : src.description;
        dst.paraFormat = src.paraFormat == nullptr ? "" : src.paraFormat;
        // A repeated id: the later entry wins.
        std::erase_if(table->ids, [&dst](const LogId &known) { return known.id == dst.id; });
        table->ids.push_back(std::move(dst));
    }
    Agent &agent = TheAgent();
    std::lock_guard lock(agent.mu);
    auto &handle = agent.handles[module];
    if (!handle) {
        handle = std::make_unique<IM_AGENT_HANDLE>();
        handle->module = module;
        agent.knownHandles.Append(handle.get());
    }
    // Asking again registers the table given now.
    handle->ids.store(table.get(), std::memory_order_release);
    agent.tables.push_back(std::move(table));
    return handle.get();
}

IM_AGENT_OBJ_S *IM_Agent_ObjCreate(IM_AGENT_HANDLE_S *handle, uint32_t logId)
{
    if (platform::FailPoint(__func__)) {
        return nullptr;
    }
    if (!KnownHandle(handle)) {
        return nullptr;
    }
    const IdTable *table = handle->ids.load(std::memory_order_acquire);
    const LogId *id = table != nullptr ? table->Find(logId) : nullptr;
    if (id == nullptr) {
        return nullptr;
    }
    IM_AGENT_OBJ *obj = TakeRecord();
    obj->logId = id;
    obj->hasText = false;
    obj->textSize = 0;
    obj->state.store(kLive, std::memory_order_release);
    return obj;
}

uint32_t IM_Agent_AddPara(IM_AGENT_OBJ_S *obj, uint32_t type, uint32_t size, const void *value)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (value == nullptr) {
        return kImErr;
    }
    switch (type) {
        case IM_AGENT_PARA_UINT32:
        case IM_AGENT_PARA_INT32:
            if (size != 4) {
                return kImErr;
            }
            break;
        case IM_AGENT_PARA_MAC:
            if (size != 6) {
                return kImErr;
            }
            break;
        case IM_AGENT_PARA_STRING:
            // The text up to its NUL, whether or not size counts the NUL.
            size = static_cast<uint32_t>(strnlen(static_cast<const char *>(value), size));
            break;
        default:
            return kImErr;
    }
    if (!IsLive(obj)) {
        return kImErr;
    }
    if (type == IM_AGENT_PARA_STRING && !obj->hasText) {
        obj->SetText(static_cast<const char *>(value), size);
    }
    return kImOk;
}

uint32_t IM_Agent_Send(IM_AGENT_OBJ_S *obj)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (!IsLive(obj)) {
        return kImErr;
    }
    // Queued even when the sink drops it for want of room: that loss is the
    // sink's to count and report.
    (void)platform::internal::LogRecord(PLAT_LOG_DIAG, RenderDiag, obj->logId, obj->hasText ? 1U : 0U, obj->Text());
    return kImOk;
}

uint32_t IM_Agent_ObjFree(IM_AGENT_OBJ_S *obj)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (obj == nullptr || !KnownRecord(obj)) {
        return kImErr;
    }
    uint32_t live = kLive;
    if (!obj->state.compare_exchange_strong(live, kFree, std::memory_order_acq_rel)) {
        return kImErr;   // freed already
    }
    obj->logId = nullptr;
    GiveBack(obj);
    return kImOk;
}

uint32_t IM_Agent_Debug(IM_AGENT_HANDLE_S *handle, uint32_t debugId, const char *module, const char *fmt, ...)
{
    (void)module;
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (fmt == nullptr || !KnownHandle(handle)) {
        return kImErr;
    }
    va_list ap;
    va_start(ap, fmt);
    if (std::strcmp(fmt, "%s%_VSID") == 0) {
        // The modules' own form: the text is the argument, nothing to format.
        const char *text = va_arg(ap, const char *);
        (void)platform::internal::LogRecord(PLAT_LOG_DEBUG, RenderDebug, nullptr, debugId,
                                        text != nullptr ? text : "(null)");
    } else {
        const std::string format = StripVsid(fmt);
        const std::string text = platform::internal::FormatV(format.c_str(), ap);
        (void)platform::internal::LogRecord(PLAT_LOG_DEBUG, RenderDebug, nullptr, debugId, text);
    }
    va_end(ap);
    return kImOk;
}

}  // extern "C"
