// The switch's NETCONF server: NETCONF 1.0 and 1.1 over SSH (libnetconf2,
// libssh) in front of the YANG datastore. Each NETCONF session has its own
// management session of the datastore, so its edits take the same path as
// pppoe-plus-cli's (validation, delivery to the agent, rollback, save) and
// a lock it takes holds against the CLI too; the lock ends with the session.
//
// Operations: get-config and get (subtree and XPath filters; get adds the
// agent's state), edit-config, copy-config to running from inline
// configuration, validate, lock, unlock, close-session, kill-session,
// get-schema, and the operations of the loaded modules. libnetconf2 keeps
// process-wide state: one Server at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace device::netconf {

struct Options {
    std::string address = "127.0.0.1";
    uint16_t port = 830;
    std::string hostKeyPath;         // OpenSSH private key of the server
    std::string authorizedKeysPath;  // OpenSSH authorized_keys: who may log in (public keys only)
    std::string user;                // the user name clients log in as
    std::string yangDir;             // the modules served, with the NETCONF ones in yangDir/ietf
    std::string datastoreSocket;     // the datastore each session works on
    // Where session openings, closings and the library's warnings go.
    std::function<void(const std::string &)> log;
};

// "ADDR:PORT" ("127.0.0.1:830", "[::1]:830"); false when malformed.
bool ParseListen(const std::string &text, std::string *address, uint16_t *port);
// The port the kernel picks for address when asked for port 0.
bool PickFreePort(const std::string &address, uint16_t *port, std::string *error);
// Writes a new Ed25519 private key in OpenSSH format to path (mode 0600)
// unless a file is already there; *generated tells which.
bool EnsureHostKey(const std::string &path, bool *generated, std::string *error);

class Server {
public:
    // Listens and serves on threads of its own; null with *error when the
    // modules, the keys or the address cannot be used.
    static std::unique_ptr<Server> Start(const Options &options, std::string *error);
    ~Server();  // ends every session and stops listening
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    struct Impl;
private:
    explicit Server(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

}  // namespace device::netconf
