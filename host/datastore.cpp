// The embedded datastore of the host.
#include "datastore.hpp"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "ydbc.h"

namespace host {

namespace {

std::string Absolute(const std::string &path)
{
    std::error_code ec;
    return path.empty() ? path : std::filesystem::absolute(path, ec).string();
}

}  // namespace

void AddDatastoreOptions(CLI::App &app, DatastoreOptions &opts)
{
    app.add_option("--yangdb-socket", opts.socketPath, "Where the configuration datastore listens")
        ->default_str(opts.socketPath);
    app.add_option("--yangdb-store", opts.storePath, "The saved running configuration")
        ->default_str(opts.storePath);
    app.add_option("--startup-config", opts.startupConfig,
                   "Configuration (XML) the switch starts from when no running configuration is saved yet")
        ->check(CLI::ExistingFile);
    app.add_option("--yang-dir", opts.yangDir, "Folder of the YANG modules (default: ../share/yang from bin/)");
}

void MakeDatastorePathsAbsolute(DatastoreOptions &opts)
{
    opts.socketPath = Absolute(opts.socketPath);
    opts.storePath = Absolute(opts.storePath);
    opts.startupConfig = Absolute(opts.startupConfig);
    opts.yangDir = Absolute(opts.yangDir);
}

std::unique_ptr<device::yangdb::Server> StartDatastore(const DatastoreOptions &opts, std::string *error)
{
    std::error_code ec;
    const bool saved = std::filesystem::exists(opts.storePath, ec);
    device::yangdb::ServerOptions serverOptions;
    serverOptions.socketPath = opts.socketPath;
    serverOptions.storePath = opts.storePath;
    serverOptions.yangDir = opts.yangDir.empty() ? Absolute("../share/yang") : opts.yangDir;
    serverOptions.access.group = opts.group;
    auto server = device::yangdb::Server::Start(serverOptions, error);
    if (!server) {
        return nullptr;
    }
    if (saved) {
        std::printf("pppoe-plus-switch: datastore %s, running configuration restored from %s\n",
                    opts.socketPath.c_str(), opts.storePath.c_str());
    } else if (!opts.startupConfig.empty()) {
        std::ifstream in(opts.startupConfig);
        std::ostringstream text;
        text << in.rdbuf();
        auto admin = device::yangdb::Admin::Connect(opts.socketPath, error);
        if (!admin) {
            return nullptr;
        }
        const device::yangdb::Reply reply = admin->Edit(text.str(), device::yangdb::EditMode::kReplace);
        if (!reply.ok) {
            *error = opts.startupConfig + ": " + reply.text;
            return nullptr;
        }
        std::printf("pppoe-plus-switch: datastore %s, startup configuration %s applied, saved in %s\n",
                    opts.socketPath.c_str(), opts.startupConfig.c_str(), opts.storePath.c_str());
    } else {
        std::printf("pppoe-plus-switch: datastore %s, empty running configuration, saved in %s\n",
                    opts.socketPath.c_str(), opts.storePath.c_str());
    }
    std::fflush(stdout);
    // The agent's client library connects to the fixed URL; this points it here.
    if (setenv(YDBC_SOCKET_ENV, opts.socketPath.c_str(), 1) != 0) {
        *error = "cannot set " + std::string(YDBC_SOCKET_ENV);
        return nullptr;
    }
    return server;
}

}  // namespace host
