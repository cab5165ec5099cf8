// The YANG configuration datastore of the device layer (libyangdb.so):
// the server that the host embeds, and the management session that
// pppoe-plus-cli and the host use to edit, read and call operations.
// Subscribers (the agent) talk to the same server through libydbc.so.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "device/sockets.hpp"

namespace device::yangdb {

// "/var/orvale/yangdb.sock", or the path $YDBC_SOCKET names.
std::string DefaultSocketPath();

// What the server lets one connection hold. Answers the peer has not read
// yet are queued; past pauseRequestsAt no further request of its is taken,
// and its socket is no longer read once maxHeldRequests (or maxHeldBytes)
// of them wait; past maxQueuedOutput, or with queued output that has not
// moved for drainTimeout, the connection is dropped.
struct ConnectionLimits {
    size_t pauseRequestsAt = 1U << 20;
    size_t maxQueuedOutput = 64U << 20;
    std::chrono::milliseconds drainTimeout{10000};
    size_t maxHeldRequests = 64;
    size_t maxHeldBytes = 4U << 20;
};

struct ServerOptions {
    std::string socketPath;  // where to listen (a stale socket file there is replaced), mode 0660
    std::string storePath;   // the saved running configuration (XML, mode 0600); its folder is created (0700)
    std::string yangDir;     // folder of the YANG modules to load
    device::sockets::SocketAccess access;  // the group that may connect besides the owner
    ConnectionLimits limits;
};

// The datastore: running configuration as a libyang data tree, loaded from
// storePath at start, saved atomically after every accepted change.
class Server {
public:
    // Null with *error when the modules, the stored configuration or the
    // socket cannot be set up.
    static std::unique_ptr<Server> Start(const ServerOptions &options, std::string *error);
    ~Server();  // stops serving and removes the socket file
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    const std::string &SocketPath() const;
    // Waits until the subscriber named client has activated and answered
    // the replay of the stored configuration that follows; false on
    // time-out.
    bool WaitReplayed(std::string_view client, std::chrono::milliseconds timeout) const;

    struct Impl;
private:
    explicit Server(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

// Result of a management request: ok with the reply's text (XML data, or
// empty), or not ok with a message that names the offending node.
struct Reply {
    bool ok = false;
    std::string text;
};

enum class EditMode {
    kMerge,    // merge the XML into the running configuration
    kReplace,  // the XML becomes the whole running configuration (import)
};

// A management session. Every request is validated against the model and
// applied all or nothing: a change a subscriber rejects is rolled back.
class Admin {
public:
    static std::unique_ptr<Admin> Connect(const std::string &socketPath, std::string *error);
    ~Admin();
    Admin(const Admin &) = delete;
    Admin &operator=(const Admin &) = delete;

    Reply Edit(std::string_view xml, EditMode mode);
    // Removes the data at an instance path ("/quendal-pppoe-plus:pppoe-plus/vendor-id",
    // ".../interface[name='X']/quendal-pppoe-plus:pppoe-plus-port/trusted-port").
    Reply Delete(std::string_view path);
    // Configuration data at path, or state data answered by the subscriber
    // of a state path (keys in the path reach the subscriber as given).
    Reply Get(std::string_view path);
    // The whole running configuration as XML.
    Reply Export();
    // Calls an operation: xml is its input rooted at the operation element,
    // for example <set-debugging xmlns="urn:quendal:yang:quendal-pppoe-plus">...</set-debugging>.
    Reply Rpc(std::string_view xml);

    struct Impl;
private:
    explicit Admin(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

}  // namespace device::yangdb
