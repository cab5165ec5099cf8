// Inspection of the session library and the selector-role authorisation of
// the Linux platform, for the host and tests.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "ddm.h"

namespace plat::tirn {

// The epoll set registered for the server bound to uri (-1 when none was
// registered); nullopt when nothing is bound there.
std::optional<int32_t> bound_server_epoll_fd(const std::string &uri);
// Service name of the server bound to uri ("" when none).
std::string bound_server_name(const std::string &uri);
// Connections currently open.
uint32_t open_connections();
// IDL messages created and not yet destroyed.
uint32_t idl_messages_outstanding();
// The last role DDM_AuthorizeSetSelectorRole accepted.
std::optional<DDM_SELECTOR_ROLE_S> last_selector_role();

}  // namespace plat::tirn
