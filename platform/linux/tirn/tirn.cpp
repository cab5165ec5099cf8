// Session library over an in-process registry of URIs.
//
// A server or a platform service binds a URI; TIRN_Connect to a bound URI
// opens a connection that owns an eventfd registered (MESH_EpollCtl) in the
// epoll set its attributes name, with a callback. Whatever the connection
// must deliver (completions of IDL requests, the peer's quit) is queued on
// it and the eventfd is signalled, so that the task serving that epoll set
// runs the callbacks from MESH_EpollWait. Handles are numbers looked up in
// the registry under one lock, and a connection lives (with its eventfd)
// while a delivery holds it, so a disconnect racing a delivery never
// touches freed state. Every call passes failure injection under its own
// name and then fails with the injected code.
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "core/internal.hpp"
#include "mesh.h"
#include "plat_safe.h"
#include "platform/fail_point.hpp"
#include "platform/tirn.hpp"
#include "tirn.h"
#include "tirn/tirn_internal.hpp"

namespace {

constexpr int kEventFdFlags = EFD_CLOEXEC | EFD_NONBLOCK;
constexpr uint32_t kEpollIn = 1;

struct Delivery {
    bool peerQuit = false;
    RPC_ASYNC_CALLBACK_FN callback = nullptr;
    std::vector<uint8_t> request;
    uint32_t status = 0;
};

struct Connection {
    TIRN_CONN_HANDLE id = 0;
    std::string uri;
    int eventFd = -1;
    int32_t epollFd = -1;
    bool peerGone = false;
    std::deque<Delivery> pending;
    ~Connection()
    {
        if (eventFd >= 0) {
            (void)close(eventFd);
        }
    }
};

struct Client {
    std::string name;
    TIRN_CONN_HANDLE conn = 0;
};

struct Server {
    std::string serviceName;
    std::string uri;             // "" until bound
    int32_t epollFd = -1;
};

struct Binding {
    TIRN_SERVER_HANDLE server = 0;   // 0: a platform service
    platform::tirn::Service service;
};

struct Registry {
    std::mutex mu;
    bool moduleInit = false;
    uint64_t nextHandle = 1;
    std::map<std::string, Binding> bindings;
    std::map<TIRN_CONN_HANDLE, std::shared_ptr<Connection>> conns;
    std::map<TIRN_CLIENT_HANDLE, Client> clients;
    std::map<TIRN_SERVER_HANDLE, Server> servers;
    TIRN_PEER_QUIT_FN peerQuit[TIRN_PEER_QUIT_KIND_MAX] = {};
};

Registry &Reg()
{
    return platform::internal::Leaky<Registry>();
}

// Wakes the connection's task; called with the registry locked.
void Signal(const Connection &conn)
{
    const uint64_t one = 1;
    (void)!write(conn.eventFd, &one, sizeof(one));
}

// The connection's eventfd is ready: run what was queued on it.
uint32_t DeliverPending(uint32_t, uint32_t, void *arg)
{
    const TIRN_CONN_HANDLE id = reinterpret_cast<uintptr_t>(arg);
    Registry &reg = Reg();
    std::shared_ptr<Connection> conn;
    std::deque<Delivery> work;
    TIRN_PEER_QUIT_FN quitFn = nullptr;
    {
        std::lock_guard lock(reg.mu);
        const auto it = reg.conns.find(id);
        if (it == reg.conns.end()) {
            return 0;
        }
        conn = it->second;
        uint64_t count = 0;
        (void)!read(conn->eventFd, &count, sizeof(count));
        work.swap(conn->pending);
        quitFn = reg.peerQuit[TIRN_PEER_QUIT_CLIENT_CONN];
    }
    for (const Delivery &d : work) {
        if (d.peerQuit) {
            if (quitFn != nullptr) {
                quitFn(id);
            }
        } else if (d.callback != nullptr) {
            d.callback(d.status, d.request.data());
        }
    }
    return 0;
}

}  // namespace

namespace platform::tirn {

bool RegisterService(const std::string &uri, Service service)
{
    Registry &reg = Reg();
    std::lock_guard lock(reg.mu);
    return reg.bindings.emplace(uri, Binding{0, std::move(service)}).second;
}

void UnregisterService(const std::string &uri)
{
    Registry &reg = Reg();
    std::lock_guard lock(reg.mu);
    reg.bindings.erase(uri);
    for (auto &[id, conn] : reg.conns) {
        if (conn->uri == uri && !conn->peerGone) {
            conn->peerGone = true;
            Delivery quit;
            quit.peerQuit = true;
            conn->pending.push_back(std::move(quit));
            Signal(*conn);
        }
    }
}

uint32_t Invoke(Method method, const void *request, uint32_t len, RPC_ASYNC_CALLBACK_FN callback)
{
    Registry &reg = Reg();
    std::shared_ptr<Connection> conn;
    std::function<uint32_t(Method, const void *, uint32_t)> handle;
    {
        std::lock_guard lock(reg.mu);
        for (auto it = reg.clients.rbegin(); it != reg.clients.rend() && !handle; ++it) {
            const auto connIt = reg.conns.find(it->second.conn);
            if (connIt == reg.conns.end() || connIt->second->peerGone) {
                continue;
            }
            const auto bindIt = reg.bindings.find(connIt->second->uri);
            if (bindIt != reg.bindings.end() && bindIt->second.service.handle) {
                conn = connIt->second;
                handle = bindIt->second.service.handle;
            }
        }
    }
    if (!handle) {
        return RPC_ERR_NOT_CONNECTED;
    }
    Delivery done;
    done.status = handle(method, request, len);
    done.callback = callback;
    const auto *bytes = static_cast<const uint8_t *>(request);
    done.request.assign(bytes, bytes + len);
    std::lock_guard lock(reg.mu);
    if (reg.conns.count(conn->id) != 0) {
        conn->pending.push_back(std::move(done));
        Signal(*conn);
    }
    return RPC_OK;
}

std::optional<int32_t> BoundServerEpollFd(const std::string &uri)
{
    Registry &reg = Reg();
    std::lock_guard lock(reg.mu);
    const auto it = reg.bindings.find(uri);
    if (it == reg.bindings.end() || it->second.server == 0) {
        return std::nullopt;
    }
    return reg.servers[it->second.server].epollFd;
}

std::string BoundServerName(const std::string &uri)
{
    Registry &reg = Reg();
    std::lock_guard lock(reg.mu);
    const auto it = reg.bindings.find(uri);
    if (it == reg.bindings.end() || it->second.server == 0) {
        return "";
    }
    return reg.servers[it->second.server].serviceName;
}

uint32_t OpenConnections()
{
    Registry &reg = Reg();
    std::lock_guard lock(reg.mu);
    return static_cast<uint32_t>(reg.conns.size());
}

}  // namespace platform::tirn

extern "C" {

uint32_t TIRN_InitClientModuleConfig(TIRN_CLIENT_MODULE_CONFIG_S *config)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (config == nullptr) {
        return TIRN_ERR_PARAM;
    }
    *config = TIRN_CLIENT_MODULE_CONFIG_S{};
    return TIRN_OK;
}

uint32_t TIRN_ClientModuleInit(const TIRN_CLIENT_MODULE_CONFIG_S *config)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (config == nullptr) {
        return TIRN_ERR_PARAM;
    }
    Registry &reg = Reg();
    std::lock_guard lock(reg.mu);
    reg.moduleInit = true;
    return TIRN_OK;
}

uint32_t TIRN_InitConnectionAttr(TIRN_CONN_ATTR_S *attr)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (attr == nullptr) {
        return TIRN_ERR_PARAM;
    }
    *attr = TIRN_CONN_ATTR_S{};
    attr->epollFd = -1;
    return TIRN_OK;
}

uint32_t TIRN_ConnectionAttrSetEpollFd(int32_t epollFd, TIRN_CONN_ATTR_S *attr)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (attr == nullptr || epollFd < 0) {
        return TIRN_ERR_PARAM;
    }
    attr->epollFd = epollFd;
    return TIRN_OK;
}

uint32_t TIRN_Connect(const char *uri, const TIRN_CONN_ATTR_S *attr, TIRN_CONN_HANDLE *conn)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (uri == nullptr || attr == nullptr || conn == nullptr || attr->epollFd < 0) {
        return TIRN_ERR_PARAM;
    }
    Registry &reg = Reg();
    auto made = std::make_shared<Connection>();
    {
        std::lock_guard lock(reg.mu);
        if (!reg.moduleInit) {
            return TIRN_ERR_NOT_INIT;
        }
        if (reg.bindings.count(uri) == 0) {
            return TIRN_ERR_NO_PEER;
        }
        made->id = reg.nextHandle++;
    }
    made->uri = uri;
    made->epollFd = attr->epollFd;
    made->eventFd = eventfd_s(0, kEventFdFlags);
    if (made->eventFd < 0) {
        return TIRN_ERR_RESOURCE;
    }
    MESH_EPOLL_EVENT_S reg_ = {};
    reg_.events = kEpollIn;
    reg_.callback = DeliverPending;
    const uintptr_t idWord = made->id;
    reg_.arg = reinterpret_cast<void *>(idWord);
    reg_.fd = static_cast<uint32_t>(made->eventFd);
    {
        std::lock_guard lock(reg.mu);
        reg.conns[made->id] = made;
    }
    if (MESH_EpollCtl(attr->epollFd, MESH_EPOLL_CTL_ADD, reg_.fd, &reg_) != 0) {
        std::lock_guard lock(reg.mu);
        reg.conns.erase(made->id);
        return TIRN_ERR_RESOURCE;
    }
    *conn = made->id;
    return TIRN_OK;
}

uint32_t TIRN_Disconnect(TIRN_CONN_HANDLE conn)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    Registry &reg = Reg();
    std::shared_ptr<Connection> gone;
    {
        std::lock_guard lock(reg.mu);
        const auto it = reg.conns.find(conn);
        if (it == reg.conns.end()) {
            return TIRN_ERR_NO_HANDLE;
        }
        gone = it->second;
        reg.conns.erase(it);
    }
    // Out of the epoll set before the eventfd closes (when the last holder lets go).
    (void)MESH_EpollCtl(gone->epollFd, MESH_EPOLL_CTL_DEL, static_cast<uint32_t>(gone->eventFd), nullptr);
    return TIRN_OK;
}

uint32_t TIRN_CreateClient(const char *name, const TIRN_CONN_HANDLE *conn, uint32_t flags,
                           TIRN_CLIENT_HANDLE *client)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (name == nullptr || name[0] == '\0' || conn == nullptr || client == nullptr || flags != 0) {
        return TIRN_ERR_PARAM;
    }
    Registry &reg = Reg();
    std::function<void(const std::string &)> attached;
    {
        std::lock_guard lock(reg.mu);
        const auto it = reg.conns.find(*conn);
        if (it == reg.conns.end()) {
            return TIRN_ERR_NO_HANDLE;
        }
        if (it->second->peerGone) {
            return TIRN_ERR_NO_PEER;
        }
        const auto bindIt = reg.bindings.find(it->second->uri);
        if (bindIt != reg.bindings.end()) {
            attached = bindIt->second.service.attached;
        }
        *client = reg.nextHandle++;
        reg.clients[*client] = Client{name, *conn};
    }
    if (attached) {
        attached(name);
    }
    return TIRN_OK;
}

uint32_t TIRN_DestroyClient(TIRN_CLIENT_HANDLE client)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    Registry &reg = Reg();
    std::lock_guard lock(reg.mu);
    return reg.clients.erase(client) != 0 ? TIRN_OK : TIRN_ERR_NO_HANDLE;
}

uint32_t TIRN_SetConnKeepAliveAttr(TIRN_CONN_HANDLE conn, uint32_t mode, const TIRN_KEEPALIVE_ATTR_S *attr)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (mode > TIRN_KEEPALIVE_MODE_ON || (mode == TIRN_KEEPALIVE_MODE_ON && attr == nullptr)) {
        return TIRN_ERR_PARAM;
    }
    Registry &reg = Reg();
    std::lock_guard lock(reg.mu);
    return reg.conns.count(conn) != 0 ? TIRN_OK : TIRN_ERR_NO_HANDLE;
}

uint32_t TIRN_RegisterPeerQuitNotifyFunc(uint32_t kind, TIRN_PEER_QUIT_FN fn)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (kind >= TIRN_PEER_QUIT_KIND_MAX || fn == nullptr) {
        return TIRN_ERR_PARAM;
    }
    Registry &reg = Reg();
    std::lock_guard lock(reg.mu);
    reg.peerQuit[kind] = fn;
    return TIRN_OK;
}

uint32_t TIRN_InitSvrAttr(TIRN_SVR_ATTR_S *attr)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (attr == nullptr) {
        return TIRN_ERR_PARAM;
    }
    *attr = TIRN_SVR_ATTR_S{};
    return TIRN_OK;
}

uint32_t TIRN_SetSvrAttr(TIRN_SVR_ATTR_S *attr, uint32_t id, const void *value, uint32_t len)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (attr == nullptr || value == nullptr || id >= TIRN_SVR_ATTR_MAX || len == 0 || len > sizeof(uint32_t)) {
        return TIRN_ERR_PARAM;
    }
    uint32_t v = 0;
    std::memcpy(&v, value, len);
    attr->value[id] = v;
    attr->isSet |= 1U << id;
    return TIRN_OK;
}

uint32_t TIRN_CreateServer(const char *serviceName, const TIRN_SVR_ATTR_S *attr, TIRN_SERVER_HANDLE *server)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (serviceName == nullptr || serviceName[0] == '\0' || attr == nullptr || server == nullptr) {
        return TIRN_ERR_PARAM;
    }
    Registry &reg = Reg();
    std::lock_guard lock(reg.mu);
    *server = reg.nextHandle++;
    reg.servers[*server] = Server{serviceName, "", -1};
    return TIRN_OK;
}

uint32_t TIRN_ServerBind(TIRN_SERVER_HANDLE server, const char *uri)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (uri == nullptr || std::strncmp(uri, "talvo_mesh://", 13) != 0) {
        return TIRN_ERR_PARAM;
    }
    Registry &reg = Reg();
    std::lock_guard lock(reg.mu);
    const auto it = reg.servers.find(server);
    if (it == reg.servers.end()) {
        return TIRN_ERR_NO_HANDLE;
    }
    if (!it->second.uri.empty()) {
        return TIRN_ERR_PARAM;
    }
    if (!reg.bindings.emplace(uri, Binding{server, {}}).second) {
        return TIRN_ERR_ADDR_IN_USE;
    }
    it->second.uri = uri;
    return TIRN_OK;
}

uint32_t TIRN_SetServerKeepAliveAttr(TIRN_SERVER_HANDLE server, uint32_t mode, const TIRN_KEEPALIVE_ATTR_S *attr)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (mode > TIRN_KEEPALIVE_MODE_ON || (mode == TIRN_KEEPALIVE_MODE_ON && attr == nullptr)) {
        return TIRN_ERR_PARAM;
    }
    Registry &reg = Reg();
    std::lock_guard lock(reg.mu);
    return reg.servers.count(server) != 0 ? TIRN_OK : TIRN_ERR_NO_HANDLE;
}

uint32_t TIRN_RegisterEpollFd(const char *uri, int32_t epollFd)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (uri == nullptr || epollFd < 0) {
        return TIRN_ERR_PARAM;
    }
    Registry &reg = Reg();
    std::lock_guard lock(reg.mu);
    const auto it = reg.bindings.find(uri);
    if (it == reg.bindings.end() || it->second.server == 0) {
        return TIRN_ERR_NOT_BOUND;
    }
    reg.servers[it->second.server].epollFd = epollFd;
    return TIRN_OK;
}

uint32_t TIRN_DestroyServer(TIRN_SERVER_HANDLE server)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    Registry &reg = Reg();
    std::lock_guard lock(reg.mu);
    const auto it = reg.servers.find(server);
    if (it == reg.servers.end()) {
        return TIRN_ERR_NO_HANDLE;
    }
    if (!it->second.uri.empty()) {
        reg.bindings.erase(it->second.uri);
    }
    reg.servers.erase(it);
    return TIRN_OK;
}

}  // extern "C"
