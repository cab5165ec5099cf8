// The session library of the Linux platform seen from outside the module:
// the registration point through which an in-process service (the device
// layer's forwarding manager) answers the sessions connected to its URI,
// and inspection of the library and of the selector-role authorisation for
// the host and tests.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "ddm.h"

namespace platform::tirn {

// IDL methods of the PPPoE+ interface (the same numbers as
// device::fwm::RequestKind).
enum class Method : uint32_t { GlobalCfg = 0, IgnoreReplyCfg = 1, TrustPortCfg = 2 };

struct Service {
    // Answers a request (len bytes at request) with a status; runs on the
    // requesting thread.
    std::function<uint32_t(Method method, const void *request, uint32_t len)> handle;
    // A session client of this name attached over a connection to the service.
    std::function<void(const std::string &clientName)> attached;
};

// Binds uri to the service; false when the URI is bound already.
bool RegisterService(const std::string &uri, Service service);
// Unbinds it: every connection to it sees its peer quit.
void UnregisterService(const std::string &uri);

// The epoll set registered for the server bound to uri (-1 when none was
// registered); nullopt when nothing is bound there.
std::optional<int32_t> BoundServerEpollFd(const std::string &uri);
// Service name of the server bound to uri ("" when none).
std::string BoundServerName(const std::string &uri);
// Connections currently open.
uint32_t OpenConnections();
// IDL messages created and not yet destroyed.
uint32_t IdlMessagesOutstanding();
// The last role DDM_AuthorizeSetSelectorRole accepted.
std::optional<DDM_SELECTOR_ROLE_S> LastSelectorRole();

}  // namespace platform::tirn
