// The host's NETCONF server in front of its datastore: off unless
// --netconf-listen is given.
#pragma once

#include <memory>
#include <string>

// CLI11 trips g++'s null-dereference analysis inside its own headers.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnull-dereference"
#include <CLI/CLI.hpp>
#pragma GCC diagnostic pop

#include "datastore.hpp"
#include "device/netconf.hpp"

namespace host {

struct NetconfOptions {
    std::string listen;          // ADDR:PORT (port 0: one the kernel picks); empty: no NETCONF
    std::string hostKey;         // default: generated into the datastore's folder
    std::string authorizedKeys;  // default: ~/.ssh/authorized_keys of the user running the host
    std::string user;            // default: the user running the host
};

// --netconf-listen, --netconf-host-key, --netconf-authorized-keys, --netconf-user.
void AddNetconfOptions(CLI::App &app, NetconfOptions &opts);
// Call before the host changes folder.
void MakeNetconfPathsAbsolute(NetconfOptions &opts);

// Starts serving NETCONF over SSH and prints where; null without
// --netconf-listen, or with *error set when it cannot start.
std::unique_ptr<device::netconf::Server> StartNetconf(const NetconfOptions &opts, const DatastoreOptions &datastore,
                                                      std::string *error);

}  // namespace host
