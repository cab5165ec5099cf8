// Public-key logins of the NETCONF server (see ssh_keys.cpp).
#pragma once

#include <libssh/libssh.h>

#include <string>

namespace device::netconf {

// Whether key is one of the keys of an OpenSSH authorized_keys file (read
// at each login, so a key added there works at once).
bool AuthorizedKeyMatches(const std::string &authorizedKeysPath, const ssh_key key);

}  // namespace device::netconf
