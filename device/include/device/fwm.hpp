// The forwarding manager of the device layer: the service behind
// "talvo_mesh://peer:ipv4:127.0.0.1:39711" that takes the PPPoE+ agent's
// ACL requests, answers each with status 0 and keeps the state they set
// for the forwarding plane and the host.
#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace device::fwm {

inline constexpr const char *kUri = "talvo_mesh://peer:ipv4:127.0.0.1:39711";

enum class RequestKind : uint32_t { GlobalCfg = 0, IgnoreReplyCfg = 1, TrustPortCfg = 2 };
inline constexpr uint32_t kRequestKinds = 3;

struct Request {
    RequestKind kind = RequestKind::GlobalCfg;
    uint32_t enable = 0;
    uint32_t ifIndex = 0xFFFFFFFFU;   // trusted-port requests only
};

struct State {
    bool enabled = false;             // PPPoE+ ACLs installed
    // On, like the agent's own setting before any configuration: the agent
    // tells fwm only of a change, so both must start from the same value.
    bool ignoreReply = true;
    std::set<uint32_t> trustedPorts;  // ifIndexes
    std::vector<std::string> clients; // names of the session clients attached
};

// Registers the service; false when it runs already or the URI is taken.
// The state starts as the agent's does: feature off, ignore-reply on, no
// trusted ports.
bool Start();
// Unregisters the service: every connection to it sees its peer quit.
void Stop();

State GetState();
// Whether the feature's punt ACLs are installed: a lock-free read for the
// forwarding plane's per-frame decision.
bool FeatureEnabled();
// Applies a request as if a client had sent it over the session: the same
// state change, counting and observer call (tests, host controls).
void Apply(const Request &request);
uint32_t RequestCount(RequestKind kind);
// The most recent requests, oldest first (at most 64).
std::vector<Request> LastRequests();

// "global-cfg enable 1", "ignore-reply-cfg enable 0", "trust-port-cfg enable 1 ifIndex 5".
std::string Describe(const Request &request);
// "feature on, ignore-reply off, trusted ports 5 7, clients PPPOE_PLUS".
std::string Describe(const State &state);

// Called on the requesting thread for each request and each client that
// attaches (the request is null then), after the state changed.
using Observer = std::function<void(const Request *request, const std::string &client)>;
void SetObserver(Observer observer);

}  // namespace device::fwm
