// Object database: the subscription side.
//
// On the real switch a module opens a subscription connection to the
// database server, describes what it follows (object, change types, fields,
// push operation, callback) and gets the changes pushed over the
// connection; the connection's descriptor sits in the module's own event
// loop, which calls db_handle_event when it is readable. Ours follows the
// world model: every interface and board-registry write is handed to the
// change listener below, which queues it on each connection with a
// matching subscription and makes the connection's eventfd readable;
// db_handle_event then runs the callbacks on the caller's thread with
// objects holding the record as it was and as it is. Every call passes
// failure injection under its own name; a test makes the connection
// attempts fail with PLAT_FailSet("db_create_sub_connect", ...).
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/internal.hpp"
#include "db.h"
#include "db/db_object.hpp"
#include "platform/fail_point.hpp"
#include "world/world_internal.hpp"

struct DB_SUB {
    platform::db::SubDescription desc;
};

struct DB_SUB_CONN {
    int fd = -1;
    DB_EPOLL_CTRL_FN epollCtrl = nullptr;
    std::string userName;
    std::mutex mu;  // guards subs and pending
    std::vector<std::unique_ptr<DB_SUB>> subs;
    // Changes waiting for db_handle_event, each with the subscription's callback.
    struct Pending {
        DB_SUB_CALLBACK_FN callback = nullptr;
        void *userCallback = nullptr;
        platform::world::Change change;
    };
    std::deque<Pending> pending;
};

namespace {

using platform::world::ChangedTable;

struct Connections {
    std::mutex mu;  // taken after the world's lock, before a connection's
    std::map<int, std::shared_ptr<DB_SUB_CONN>> byFd;
    std::string currentLocator;
    std::string currentUser;
};

Connections &TheConnections()
{
    return platform::internal::Leaky<Connections>();
}

uint32_t TableOf(ChangedTable table)
{
    return table == ChangedTable::If ? DB_TABLE_IF : DB_TABLE_DEVM;
}

// The world's change listener: queues the change on every connection that
// follows it and wakes the connection's descriptor.
void OnWorldChange(const platform::world::Change &change)
{
    Connections &all = TheConnections();
    std::lock_guard lock(all.mu);
    for (auto &[fd, conn] : all.byFd) {
        bool queued = false;
        {
            std::lock_guard connLock(conn->mu);
            for (const auto &sub : conn->subs) {
                if (sub->desc.table == TableOf(change.table) && (sub->desc.eventMask & change.type) != 0) {
                    conn->pending.push_back({sub->desc.callback, sub->desc.userCallback, change});
                    queued = true;
                }
            }
        }
        if (queued) {
            (void)eventfd_write(fd, 1);
        }
    }
}

std::shared_ptr<DB_SUB_CONN> FindByFd(int fd)
{
    Connections &all = TheConnections();
    std::lock_guard lock(all.mu);
    const auto it = all.byFd.find(fd);
    return it == all.byFd.end() ? nullptr : it->second;
}

// Caller holds Connections::mu.
bool IsConnection(const Connections &all, const DB_SUB_CONN *conn)
{
    for (const auto &[fd, live] : all.byFd) {
        if (live.get() == conn) {
            return true;
        }
    }
    return false;
}

template <typename Row>
DB_OBJ *ObjectOf(const std::optional<Row> &row)
{
    return row ? platform::db::MakeChangeObject(*row) : nullptr;
}

void Deliver(DB_SUB_CONN *conn, const DB_SUB_CONN::Pending &pending)
{
    const platform::world::Change &change = pending.change;
    DB_SUB_CHANGE_S record = {};
    record.changeType = change.type;
    if (change.table == ChangedTable::If) {
        record.newObj = ObjectOf(change.newIf);
        record.oldObj = ObjectOf(change.oldIf);
    } else {
        record.newObj = ObjectOf(change.newBoard);
        record.oldObj = ObjectOf(change.oldBoard);
    }
    pending.callback(conn, &record, nullptr, pending.userCallback);
    platform::db::DropChangeObject(record.newObj);
    platform::db::DropChangeObject(record.oldObj);
}

}  // namespace

extern "C" {

uint32_t db_create_sub_connect(const DB_CONN_PARAM_S *params, DB_EPOLL_CTRL_FN epollCtrl, DB_SUB_CONN_S **conn)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (params == nullptr || params->serverLocator == nullptr || epollCtrl == nullptr || conn == nullptr) {
        return DB_ERR_PARAM;
    }
    if (std::strcmp(params->serverLocator, DB_SUB_SERVER_LOCATOR) != 0) {
        return DB_ERR_NO_SERVER;
    }
    platform::world::SetChangeListener(&OnWorldChange);
    auto made = std::make_shared<DB_SUB_CONN>();
    made->fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (made->fd < 0) {
        return DB_ERR_NO_SERVER;
    }
    made->epollCtrl = epollCtrl;
    made->userName = params->userName != nullptr ? params->userName : "";
    if (epollCtrl(static_cast<uint32_t>(made->fd), DB_EPOLL_CTRL_ADD) != 0) {
        close(made->fd);
        return DB_ERR_EPOLL;
    }
    Connections &all = TheConnections();
    std::lock_guard lock(all.mu);
    all.byFd[made->fd] = made;
    *conn = made.get();
    return DB_OK;
}

uint32_t db_handle_event(uint32_t fd)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    const std::shared_ptr<DB_SUB_CONN> conn = FindByFd(static_cast<int>(fd));
    if (!conn) {
        return DB_ERR_NO_CONN;
    }
    // Reading first: a change queued while the callbacks run wakes the
    // descriptor again.
    eventfd_t count = 0;
    (void)eventfd_read(conn->fd, &count);
    std::deque<DB_SUB_CONN::Pending> batch;
    {
        std::lock_guard lock(conn->mu);
        batch.swap(conn->pending);
    }
    for (const auto &pending : batch) {
        Deliver(conn.get(), pending);
    }
    return DB_OK;
}

uint32_t db_disconnect(DB_SUB_CONN_S *conn)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    std::shared_ptr<DB_SUB_CONN> owned;
    {
        Connections &all = TheConnections();
        std::lock_guard lock(all.mu);
        for (auto it = all.byFd.begin(); it != all.byFd.end(); ++it) {
            if (it->second.get() == conn) {
                owned = it->second;
                all.byFd.erase(it);
                break;
            }
        }
    }
    if (!owned) {
        return DB_ERR_NO_CONN;
    }
    (void)owned->epollCtrl(static_cast<uint32_t>(owned->fd), DB_EPOLL_CTRL_DEL);
    close(owned->fd);
    // A db_handle_event running now keeps its own reference until it returns.
    return DB_OK;
}

uint32_t db_set_current_server_locator(const char *locator)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (locator == nullptr) {
        return DB_ERR_PARAM;
    }
    Connections &all = TheConnections();
    std::lock_guard lock(all.mu);
    all.currentLocator = locator;
    return DB_OK;
}

uint32_t db_set_current_user_name(const char *userName)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (userName == nullptr) {
        return DB_ERR_PARAM;
    }
    Connections &all = TheConnections();
    std::lock_guard lock(all.mu);
    all.currentUser = userName;
    return DB_OK;
}

uint32_t db_close_connection_pool(const char *locator, const char *userName, uint32_t flags)
{
    (void)flags;
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (locator == nullptr || userName == nullptr) {
        return DB_ERR_PARAM;
    }
    // Reads go through short-lived objects, so the pool holds nothing to close;
    // only a locator without a server is refused.
    return std::strcmp(locator, DB_SUB_SERVER_LOCATOR) == 0 ? DB_OK : DB_ERR_NO_SERVER;
}

uint32_t db_sub_with_conn(DB_SUB_CONN_S *conn, DB_OBJ_S *obj, DB_SUB_S **sub)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (sub == nullptr || conn == nullptr) {
        return DB_ERR_PARAM;
    }
    auto made = std::make_unique<DB_SUB>();
    if (const uint32_t ret = platform::db::CopySubDescription(obj, &made->desc); ret != DB_OK) {
        return ret;
    }
    if (made->desc.callback == nullptr || made->desc.eventMask == 0) {
        return DB_ERR_PARAM;
    }
    // Checked and filled under the registry's lock: a racing disconnect
    // cannot free the connection in between.
    Connections &all = TheConnections();
    std::lock_guard lock(all.mu);
    if (!IsConnection(all, conn)) {
        return DB_ERR_NO_CONN;
    }
    std::lock_guard connLock(conn->mu);
    *sub = made.get();
    conn->subs.push_back(std::move(made));
    return DB_OK;
}

}  // extern "C"
