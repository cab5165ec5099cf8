// The forwarding manager: an in-process service on the session mesh that
// takes the PPPoE+ agent's ACL requests. Each request is answered with
// status 0 and changes the state the forwarding plane reads: the feature's
// punt ACLs on or off, ignore-reply, the set of trusted ports. Requests are
// counted per kind and the last 64 are kept.
#include <array>
#include <atomic>
#include <cstring>
#include <deque>
#include <mutex>
#include <sstream>

#include "device/fwm.hpp"
#include "platform/tirn.hpp"

namespace device::fwm {
namespace {

constexpr size_t kKeptRequests = 64;

struct Fwm {
    std::mutex mu;
    bool running = false;
    State state;
    std::array<uint32_t, kRequestKinds> counts{};
    std::deque<Request> last;
    Observer observer;
    std::atomic<bool> enabled{false};   // mirrors state.enabled for readers per frame
};

// Lives as long as the process: the session task may still call in while
// static destructors run at exit.
Fwm &TheFwm()
{
    static Fwm *const fwm = new Fwm();
    return *fwm;
}

void Notify(const Request *request, const std::string &client)
{
    Observer observer;
    {
        Fwm &fwm = TheFwm();
        std::lock_guard lock(fwm.mu);
        observer = fwm.observer;
    }
    if (observer) {
        observer(request, client);
    }
}

void ApplyRequest(Request request)
{
    if (request.kind != RequestKind::TrustPortCfg) {
        request.ifIndex = 0xFFFFFFFFU;
    }
    {
        Fwm &fwm = TheFwm();
        std::lock_guard lock(fwm.mu);
        switch (request.kind) {
            case RequestKind::GlobalCfg:
                fwm.state.enabled = request.enable != 0;
                fwm.enabled.store(fwm.state.enabled, std::memory_order_relaxed);
                break;
            case RequestKind::IgnoreReplyCfg:
                fwm.state.ignoreReply = request.enable != 0;
                break;
            case RequestKind::TrustPortCfg:
                if (request.enable != 0) {
                    fwm.state.trustedPorts.insert(request.ifIndex);
                } else {
                    fwm.state.trustedPorts.erase(request.ifIndex);
                }
                break;
        }
        fwm.counts[static_cast<size_t>(request.kind)]++;
        fwm.last.push_back(request);
        if (fwm.last.size() > kKeptRequests) {
            fwm.last.pop_front();
        }
    }
    Notify(&request, "");
}

uint32_t Handle(platform::tirn::Method method, const void *bytes, uint32_t len)
{
    Request request;
    request.kind = static_cast<RequestKind>(method);
    std::array<uint32_t, 2> fields{0, 0xFFFFFFFFU};
    std::memcpy(fields.data(), bytes, len < sizeof(fields) ? len : sizeof(fields));
    request.enable = fields[0];
    request.ifIndex = fields[1];
    ApplyRequest(request);
    return 0;
}

void Attached(const std::string &client)
{
    {
        Fwm &fwm = TheFwm();
        std::lock_guard lock(fwm.mu);
        fwm.state.clients.push_back(client);
    }
    Notify(nullptr, client);
}

}  // namespace

bool Start()
{
    Fwm &fwm = TheFwm();
    {
        std::lock_guard lock(fwm.mu);
        if (fwm.running) {
            return false;
        }
        fwm.state = State{};
        fwm.enabled.store(false, std::memory_order_relaxed);
        fwm.counts = {};
        fwm.last.clear();
    }
    if (!platform::tirn::RegisterService(kUri, platform::tirn::Service{Handle, Attached})) {
        return false;
    }
    std::lock_guard lock(fwm.mu);
    fwm.running = true;
    return true;
}

void Stop()
{
    Fwm &fwm = TheFwm();
    {
        std::lock_guard lock(fwm.mu);
        if (!fwm.running) {
            return;
        }
        fwm.running = false;
        fwm.state.clients.clear();
    }
    platform::tirn::UnregisterService(kUri);
}

State GetState()
{
    Fwm &fwm = TheFwm();
    std::lock_guard lock(fwm.mu);
    return fwm.state;
}

bool FeatureEnabled()
{
    return TheFwm().enabled.load(std::memory_order_relaxed);
}

void Apply(const Request &request)
{
    ApplyRequest(request);
}

uint32_t RequestCount(RequestKind kind)
{
    Fwm &fwm = TheFwm();
    std::lock_guard lock(fwm.mu);
    return fwm.counts[static_cast<size_t>(kind)];
}

std::vector<Request> LastRequests()
{
    Fwm &fwm = TheFwm();
    std::lock_guard lock(fwm.mu);
    return {fwm.last.begin(), fwm.last.end()};
}

void SetObserver(Observer observer)
{
    Fwm &fwm = TheFwm();
    std::lock_guard lock(fwm.mu);
    fwm.observer = std::move(observer);
}

std::string Describe(const Request &request)
{
    std::ostringstream out;
    switch (request.kind) {
        case RequestKind::GlobalCfg:
            out << "global-cfg enable " << request.enable;
            break;
        case RequestKind::IgnoreReplyCfg:
            out << "ignore-reply-cfg enable " << request.enable;
            break;
        case RequestKind::TrustPortCfg:
            out << "trust-port-cfg enable " << request.enable << " ifIndex " << request.ifIndex;
            break;
    }
    return out.str();
}

std::string Describe(const State &state)
{
    std::ostringstream out;
    out << "feature " << (state.enabled ? "on" : "off") << ", ignore-reply " << (state.ignoreReply ? "on" : "off")
        << ", trusted ports";
    if (state.trustedPorts.empty()) {
        out << " none";
    }
    for (const uint32_t ifIndex : state.trustedPorts) {
        out << ' ' << ifIndex;
    }
    out << ", clients";
    if (state.clients.empty()) {
        out << " none";
    }
    for (const std::string &client : state.clients) {
        out << ' ' << client;
    }
    return out.str();
}

}  // namespace device::fwm
