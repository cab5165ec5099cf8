// The switch's YANG datastore, embedded in the host: where it listens, where
// it keeps the running configuration, and the startup configuration a
// switch without a saved one begins from.
#pragma once

#include <chrono>
#include <memory>
#include <string>

// CLI11 trips g++'s null-dereference analysis inside its own headers.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnull-dereference"
#include <CLI/CLI.hpp>
#pragma GCC diagnostic pop

#include "device/yangdb.hpp"

namespace host {

struct DatastoreOptions {
    std::string socketPath = device::yangdb::DefaultSocketPath();
    std::string storePath = "/var/orvale/yangdb/running.xml";
    std::string startupConfig;  // XML, applied when storePath holds nothing yet
    std::string yangDir;        // default: share/yang beside the host's bin folder
    std::string group;          // the group that may connect besides the owner (--group)
};

// --yangdb-socket, --yangdb-store, --startup-config, --yang-dir.
void AddDatastoreOptions(CLI::App &app, DatastoreOptions &opts);
// Call before the host changes folder.
void MakeDatastorePathsAbsolute(DatastoreOptions &opts);

// Starts the datastore, applies the startup configuration when there is
// no saved one, and points the agent's client library at the socket. Null
// with *error when any of it fails.
std::unique_ptr<device::yangdb::Server> StartDatastore(const DatastoreOptions &opts, std::string *error);

}  // namespace host
