// The host's NETCONF server (see netconf.hpp).
#include "netconf.hpp"

#include <pwd.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>

#include "platform/control.h"

namespace host {

namespace {

std::string Absolute(const std::string &path)
{
    std::error_code ec;
    return path.empty() ? path : std::filesystem::absolute(path, ec).string();
}

const struct passwd *RunningUser()
{
    return getpwuid(geteuid());
}

}  // namespace

void AddNetconfOptions(CLI::App &app, NetconfOptions &opts)
{
    app.add_option("--netconf-listen", opts.listen,
                   "Serve NETCONF over SSH on ADDR:PORT (port 0: any free port; the address used is printed)");
    app.add_option("--netconf-host-key", opts.hostKey,
                   "The server's SSH host key, an OpenSSH private key (default: generated on first start "
                   "beside the saved configuration)");
    app.add_option("--netconf-authorized-keys", opts.authorizedKeys,
                   "OpenSSH authorized_keys file of the keys that may log in (default: ~/.ssh/authorized_keys)");
    app.add_option("--netconf-user", opts.user, "The user name NETCONF clients log in as (default: the host's user)");
}

void MakeNetconfPathsAbsolute(NetconfOptions &opts)
{
    opts.hostKey = Absolute(opts.hostKey);
    opts.authorizedKeys = Absolute(opts.authorizedKeys);
}

std::unique_ptr<device::netconf::Server> StartNetconf(const NetconfOptions &opts, const DatastoreOptions &datastore,
                                                      std::string *error)
{
    if (opts.listen.empty()) {
        return nullptr;
    }
    device::netconf::Options server;
    if (!device::netconf::ParseListen(opts.listen, &server.address, &server.port)) {
        *error = "--netconf-listen wants ADDR:PORT, not \"" + opts.listen + "\"";
        return nullptr;
    }
    if (server.port == 0 && !device::netconf::PickFreePort(server.address, &server.port, error)) {
        return nullptr;
    }
    const struct passwd *self = RunningUser();
    server.user = !opts.user.empty() ? opts.user : (self != nullptr ? self->pw_name : "");
    server.authorizedKeysPath = opts.authorizedKeys;
    if (server.authorizedKeysPath.empty() && self != nullptr) {
        server.authorizedKeysPath = std::string(self->pw_dir) + "/.ssh/authorized_keys";
    }
    std::error_code ec;
    if (server.user.empty() || !std::filesystem::is_regular_file(server.authorizedKeysPath, ec)) {
        *error = "NETCONF needs an authorized_keys file (--netconf-authorized-keys): \"" + server.authorizedKeysPath +
                 "\" is no file";
        return nullptr;
    }
    server.hostKeyPath = opts.hostKey;
    if (server.hostKeyPath.empty()) {
        server.hostKeyPath =
            (std::filesystem::path(datastore.storePath).parent_path() / "netconf_host_ed25519_key").string();
    }
    bool generated = false;
    if (!device::netconf::EnsureHostKey(server.hostKeyPath, &generated, error)) {
        return nullptr;
    }
    server.yangDir = datastore.yangDir.empty() ? Absolute("../share/yang") : datastore.yangDir;
    server.datastoreSocket = datastore.socketPath;
    server.log = [](const std::string &line) { PLAT_LogWrite(PLAT_LOG_PLATFORM, "[netconf] %s", line.c_str()); };
    // A client that goes away mid-reply must not end the switch.
    std::signal(SIGPIPE, SIG_IGN);
    auto started = device::netconf::Server::Start(server, error);
    if (!started) {
        return nullptr;
    }
    const bool v6 = server.address.find(':') != std::string::npos;
    std::printf("pppoe-plus-switch: NETCONF over SSH on %s%s%s:%u, user %s, host key %s%s, authorized keys %s\n",
                v6 ? "[" : "", server.address.c_str(), v6 ? "]" : "", server.port, server.user.c_str(), server.hostKeyPath.c_str(),
                generated ? " (generated)" : "", server.authorizedKeysPath.c_str());
    std::fflush(stdout);
    return started;
}

}  // namespace host
