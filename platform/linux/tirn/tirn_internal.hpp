// What the session library offers the platform's own services beyond its
// control header: sending an IDL request over the newest live client.
#pragma once

#include <cstdint>

#include "platform/tirn.hpp"
#include "rpc.h"

namespace platform::tirn {

// Sends the request over the newest client whose connection is up and
// whose peer answers requests; queues the completion on that connection.
// RPC_OK, RPC_ERR_NOT_CONNECTED.
uint32_t Invoke(Method method, const void *request, uint32_t len, RPC_ASYNC_CALLBACK_FN callback);

}  // namespace platform::tirn
