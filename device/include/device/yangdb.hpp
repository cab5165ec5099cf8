// The YANG configuration datastore of the device layer (libyangdb.so):
// the server that the host embeds, and the management session that
// pppoe-plus-cli and the host use to edit, read and call operations.
// Subscribers (the agent) talk to the same server through libydbc.so.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "device/sockets.hpp"

namespace device::yangdb {

// False, with *why, for an XPath expression that must not reach libyang:
// its "mod" operator divides integers and a zero divisor ends the process,
// so expressions using it are refused. Every expression a client sends
// (a get, a delete, a NETCONF filter) passes through this first.
bool XPathEvaluable(std::string_view expr, std::string *why);

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

    // State data that the process embedding the datastore answers itself,
    // beside its subscribers: a get at or below path (a config-false node
    // of the model, without keys) calls answer with the path as asked, on
    // the datastore's worker; it returns XML rooted at the module's top
    // node. A null answer stops serving path, once a call under way has
    // returned.
    using StateAnswer = std::function<std::string(const std::string &path)>;
    void ServeState(const std::string &path, StateAnswer answer);
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
    Reply() = default;
    Reply(bool isOk, std::string replyText, std::string errorTag = {}, std::string errorPath = {},
          std::string lockHolder = {})
        : ok(isOk),
          text(std::move(replyText)),
          tag(std::move(errorTag)),
          path(std::move(errorPath)),
          holder(std::move(lockHolder))
    {
    }

    bool ok = false;
    std::string text;
    // When not ok: the kind of failure as a NETCONF error-tag
    // ("invalid-value", "data-missing", "data-exists", "in-use",
    // "lock-denied", "operation-failed", "unknown-element", ...) and the
    // data path of the offending node when there is one.
    std::string tag;
    std::string path;
    std::string holder;  // lock-denied and in-use: the name of the session holding the lock
};

// An edit whose nodes may carry the operation attribute of the NETCONF
// base namespace (merge, replace, create, delete, remove).
struct EditConfigOptions {
    std::string defaultOperation = "merge";  // for nodes without one: merge, replace or none
    bool testOnly = false;                   // validate the result, change nothing
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

    // Names this session in the datastore's messages (who holds the lock).
    Reply Hello(std::string_view name);
    // Locks the running configuration for this session: edits from every
    // other session are refused (in-use) until Unlock or until this
    // session ends. A lock held elsewhere refuses this one (lock-denied).
    Reply Lock();
    Reply Unlock();
    // Applies an edit with per-node operations (xml: the content of a
    // NETCONF <config>, one or more top-level elements), all or nothing,
    // with the validation, delivery and rollback of Edit.
    Reply EditConfig(std::string_view xml, const EditConfigOptions &options);

    struct Impl;
private:
    explicit Admin(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

}  // namespace device::yangdb
