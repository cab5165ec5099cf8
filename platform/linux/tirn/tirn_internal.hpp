// What the session library offers the platform's own services: binding a
// URI to an in-process service that answers IDL requests, and sending an
// IDL request over the newest live client.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "rpc.h"

namespace plat::tirn {

// IDL methods of the PPPoE+ interface (the same numbers as
// plat::fwm::RequestKind).
enum class Method : uint32_t { GlobalCfg = 0, IgnoreReplyCfg = 1, TrustPortCfg = 2 };

struct Service {
    // Answers a request (len bytes at request) with a status; runs on the
    // requesting thread.
    std::function<uint32_t(Method method, const void *request, uint32_t len)> handle;
    // A session client of this name attached over a connection to the service.
    std::function<void(const std::string &clientName)> attached;
};

// Binds uri to the service; false when the URI is bound already.
bool register_service(const std::string &uri, Service service);
// Unbinds it: every connection to it sees its peer quit.
void unregister_service(const std::string &uri);

// Sends the request over the newest client whose connection is up and
// whose peer answers requests; queues the completion on that connection.
// RPC_OK, RPC_ERR_NOT_CONNECTED.
uint32_t invoke(Method method, const void *request, uint32_t len, RPC_ASYNC_CALLBACK_FN callback);

}  // namespace plat::tirn
