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
#include <cstdarg>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "core/internal.hpp"
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

struct Param {
    uint32_t type = 0;
    std::string bytes;  // a number or a MAC fits the string's own storage
};

}  // namespace platform::im

struct IM_AGENT_HANDLE {
    std::string module;
    // Shared with the records made against them: registering the table
    // again leaves records in flight their own id.
    std::map<uint32_t, std::shared_ptr<const platform::im::LogId>> ids;  // guarded by Agent::mu
};

// Records are recycled (the diagnostic path makes one per frame): a freed
// record goes back to the agent's pool with its storage, not to the heap.
struct IM_AGENT_OBJ {
    std::shared_ptr<const platform::im::LogId> logId;
    std::vector<platform::im::Param> params;  // guarded by Agent::mu
    bool live = false;                    // guarded by Agent::mu
};

namespace {

using platform::im::LogId;
using platform::im::Param;

constexpr uint32_t kImOk = 0;
constexpr uint32_t kImErr = 1;

struct Agent {
    platform::internal::SpinMutex mu;
    // Handles live as long as the process: modules keep them in globals.
    std::map<std::string, std::unique_ptr<IM_AGENT_HANDLE>, std::less<>> handles;
    std::unordered_set<const IM_AGENT_HANDLE *> knownHandles;
    // Every record ever made, live or pooled; a pointer not in it is none.
    std::unordered_set<IM_AGENT_OBJ *> knownObjs;
    std::vector<IM_AGENT_OBJ *> pool;  // freed records, ready for reuse
};

// Caller holds Agent::mu.
bool IsLive(const Agent &agent, IM_AGENT_OBJ *obj)
{
    return obj != nullptr && agent.knownObjs.count(obj) != 0 && obj->live;
}

Agent &TheAgent()
{
    return platform::internal::Leaky<Agent>();
}

// "<NAME> <description>" into line, whose storage is reused from call to call.
void Render(const IM_AGENT_OBJ &obj, std::string &line)
{
    const LogId &id = *obj.logId;
    line.assign(id.name).push_back(' ');
    const size_t start = line.size();
    line.append(id.description);
    for (const Param &param : obj.params) {
        if (param.type != IM_AGENT_PARA_STRING) {
            continue;
        }
        const size_t at = line.find("[Info]", start);
        if (at != std::string::npos) {
            line.replace(at, 6, param.bytes);
        }
        break;
    }
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
    std::map<uint32_t, std::shared_ptr<const LogId>> table;
    for (uint32_t i = 0; i < count; i++) {
        const IM_AGENT_LOG_ID_S &src = ids[i];
        if (src.name == nullptr) {
            return nullptr;
        }
        auto dst = std::make_shared<LogId>();
        dst->id = src.id;
        dst->logClass = src.logClass;
        dst->name = src.name;
        dst->description = src.description == nullptr ? "" : src.description;
        dst->paraFormat = src.paraFormat == nullptr ? "" : src.paraFormat;
        table[src.id] = std::move(dst);
    }
    Agent &agent = TheAgent();
    std::lock_guard lock(agent.mu);
    auto &handle = agent.handles[module];
    if (!handle) {
        handle = std::make_unique<IM_AGENT_HANDLE>();
        handle->module = module;
        agent.knownHandles.insert(handle.get());
    }
    // Asking again registers the table given now.
    handle->ids = std::move(table);
    return handle.get();
}

IM_AGENT_OBJ_S *IM_Agent_ObjCreate(IM_AGENT_HANDLE_S *handle, uint32_t logId)
{
    if (platform::FailPoint(__func__)) {
        return nullptr;
    }
    Agent &agent = TheAgent();
    std::lock_guard lock(agent.mu);
    if (handle == nullptr || agent.knownHandles.count(handle) == 0) {
        return nullptr;
    }
    const auto it = handle->ids.find(logId);
    if (it == handle->ids.end()) {
        return nullptr;
    }
    IM_AGENT_OBJ *obj = nullptr;
    if (!agent.pool.empty()) {
        obj = agent.pool.back();
        agent.pool.pop_back();
    } else {
        obj = new IM_AGENT_OBJ();  // kept for the life of the process
        agent.knownObjs.insert(obj);
    }
    obj->logId = it->second;
    obj->params.clear();
    obj->live = true;
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
    Param param;
    param.type = type;
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
    param.bytes.assign(static_cast<const char *>(value), size);
    Agent &agent = TheAgent();
    std::lock_guard lock(agent.mu);
    if (!IsLive(agent, obj)) {
        return kImErr;
    }
    obj->params.push_back(std::move(param));
    return kImOk;
}

uint32_t IM_Agent_Send(IM_AGENT_OBJ_S *obj)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    thread_local std::string line;
    {
        Agent &agent = TheAgent();
        std::lock_guard lock(agent.mu);
        if (!IsLive(agent, obj)) {
            return kImErr;
        }
        Render(*obj, line);
    }
    platform::internal::LogLine(PLAT_LOG_DIAG, line);
    return kImOk;
}

uint32_t IM_Agent_ObjFree(IM_AGENT_OBJ_S *obj)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    Agent &agent = TheAgent();
    std::lock_guard lock(agent.mu);
    if (!IsLive(agent, obj)) {
        return kImErr;
    }
    obj->live = false;
    obj->logId.reset();
    agent.pool.push_back(obj);
    return kImOk;
}

uint32_t IM_Agent_Debug(IM_AGENT_HANDLE_S *handle, uint32_t debugId, const char *module, const char *fmt, ...)
{
    (void)module;
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (fmt == nullptr) {
        return kImErr;
    }
    {
        Agent &agent = TheAgent();
        std::lock_guard lock(agent.mu);
        if (handle == nullptr || agent.knownHandles.count(handle) == 0) {
            return kImErr;
        }
    }
    const std::string format = StripVsid(fmt);
    va_list ap;
    va_start(ap, fmt);
    const std::string text = platform::internal::FormatV(format.c_str(), ap);
    va_end(ap);
    platform::internal::LogLine(PLAT_LOG_DEBUG, platform::internal::Format("0x%x ", debugId) + text);
    return kImOk;
}

}  // extern "C"
