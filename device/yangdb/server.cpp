// The datastore server: accepts subscribers (libydbc) and management
// sessions on one unix socket. An I/O thread per connection (stream_io)
// decodes messages; replies to the server's own requests go to whoever
// waits for them, requests are queued for a single worker that owns the
// YANG store, one per connection at a time, and what the worker sends is
// queued per connection with a bound (a client that reads no answers is
// no longer read, then dropped). The worker runs one request at a time, so a transaction (edit,
// delivery to the subscribers, rollback or save) never interleaves with
// another, and libyang is used from one thread only.
//
// A subscriber that refuses a change (non-zero result under YDBC_EV_VERIFY),
// does not answer within the reply timeout, or disconnects while a change is
// with it fails the whole transaction: the running configuration stays as
// it was, and every subscriber is brought back to it (the abort phase). The
// refused change comes first, since its subscriber may have applied part of
// it before refusing, then the accepted ones, each undone with its inverse
// in reverse order. A subscriber that timed out is sent the inverse of its
// pending change without waiting, since it may still apply it.
#include <device/yangdb.hpp>

#include "device/sockets.hpp"
#include "platform/ydbc_wire.hpp"
#include "stream_io.hpp"
#include "yang_store.hpp"

#include <platform/fail_point.hpp>

#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include <ydbc.h>

namespace device::yangdb {

namespace wire = platform::ydbc::wire;

std::string DefaultSocketPath()
{
    const char *env = std::getenv(YDBC_SOCKET_ENV);
    if (env != nullptr && env[0] != '\0') {
        return env;
    }
    return "/var/orvale/yangdb.sock";
}

namespace {

using wire::Message;
using wire::Type;

constexpr int kBacklog = 16;
constexpr unsigned kStoreFolderMode = 0700;
// A connection that buffered this much gives the memory back when it ends.
constexpr size_t kTrimAfterBytes = 1U << 20;

// How long the server waits for a subscriber's answer; the environment
// variable can shorten it (tests) or lengthen it (debugging a subscriber).
std::chrono::milliseconds ReplyTimeout()
{
    const char *env = std::getenv("YANGDB_REPLY_TIMEOUT_MS");
    if (env != nullptr) {
        long ms = std::strtol(env, nullptr, 10);
        if (ms > 0) {
            return std::chrono::milliseconds(ms);
        }
    }
    return std::chrono::seconds(10);
}

struct Subscription {
    uint32_t kind = 0;
    uint32_t row = 0;  // the client's index of the row, echoed in requests
    uint32_t priority = YDBC_PRIORITY_DEFAULT;
    uint32_t events = YDBC_EV_DEFAULT;
    uint64_t seq = 0;  // subscription order across all clients
    std::string path;
    const struct lysc_node *schema = nullptr;
};

struct Connection {
    int fd = -1;
    std::unique_ptr<StreamIo> io;  // its reads and writes
    std::atomic<bool> alive{true};
    // Worker only.
    std::string name;
    std::vector<Subscription> subs;
    bool activated = false;

    // Queues a message; false once the connection is ending.
    bool Send(const Message &message) { return alive.load() && io->Send(message); }
};
using ConnectionPtr = std::shared_ptr<Connection>;

struct Job {
    ConnectionPtr conn;
    Message message;
    bool closed = false;
};

// One change of one instance for one subscription.
struct Change {
    ConnectionPtr conn;
    const Subscription *sub = nullptr;
    uint32_t op = 0;
    std::string path;
    std::string oldXml;
    std::string newXml;
};

Change Inverse(const Change &change)
{
    Change inverse = change;
    std::swap(inverse.oldXml, inverse.newXml);
    if (change.op == YDBC_OP_CREATE) {
        inverse.op = YDBC_OP_DELETE;
    } else if (change.op == YDBC_OP_DELETE) {
        inverse.op = YDBC_OP_CREATE;
    }
    return inverse;
}

const char *OpName(uint32_t op)
{
    switch (op) {
    case YDBC_OP_CREATE:
        return "create";
    case YDBC_OP_DELETE:
        return "delete";
    default:
        return "modify";
    }
}

bool IsAncestorOrSelf(const struct lysc_node *ancestor, const struct lysc_node *node)
{
    for (; node != nullptr; node = node->parent) {
        if (node == ancestor) {
            return true;
        }
    }
    return false;
}

Message ReplyMessage(uint32_t id, const Reply &reply)
{
    Message m;
    m.type = Type::kReply;
    m.id = id;
    m.fields = {reply.ok ? "ok" : "error", reply.text, reply.tag, reply.path, reply.holder};
    return m;
}

}  // namespace

struct Server::Impl {
    ServerOptions options;
    YangStore store;
    std::chrono::milliseconds timeout{10000};
    int listenFd = -1;
    int stopPipe[2] = {-1, -1};
    std::thread acceptor;
    std::thread worker;

    std::mutex mu;  // everything below
    std::condition_variable cv;
    std::deque<Job> jobs;
    bool stopping = false;
    std::vector<ConnectionPtr> conns;
    std::set<uint32_t> awaited;
    std::map<uint32_t, Message> results;
    std::map<std::string, uint32_t> replays;  // finished replays per client name

    std::mutex localMu;  // local; held while an answer runs
    std::map<std::string, Server::StateAnswer> local;   // state answered in this process, by path

    // Worker only.
    uint32_t nextId = 1;
    uint64_t nextSeq = 1;
    ConnectionPtr lockOwner;  // the session holding the running configuration's lock

    ~Impl();
    void AcceptLoop();
    StreamIo::Handlers HandlersOf(const ConnectionPtr &conn);
    void Closed(Job &job);
    void WorkLoop();
    void Handle(Job &job);

    // Requests to subscribers.
    enum class Outcome { kDone, kTimeout, kLost, kStopping };
    uint32_t Post(const ConnectionPtr &conn, Message message, bool awaitReply = true);
    Outcome Await(const ConnectionPtr &conn, uint32_t id, Message *result);
    Outcome Request(const ConnectionPtr &conn, Message message, Message *result);
    static Message ChangeMessage(const Change &change);

    std::vector<std::pair<ConnectionPtr, const Subscription *>> ActiveSubs(uint32_t kind);
    std::vector<Change> Diff(const struct lyd_node *before, const struct lyd_node *after);
    void Rollback(const std::vector<Change> &done);
    Reply Apply(Tree candidate);
    void Replay(const ConnectionPtr &conn);

    // Who answers state: the subscribers of state paths, then this
    // process's own answers (ServeState).
    struct StateSource {
        const struct lysc_node *schema = nullptr;
        std::string path;
        std::function<std::string(const std::string &asked, std::string *text)> ask;  // "" or the failure
    };
    std::vector<StateSource> StateSources();
    Reply Get(const std::string &path);
    Reply Rpc(const std::string &xml);

    // The lock of the running configuration, and edits with per-node
    // operations (see edit_config.cpp).
    Reply Lock(const ConnectionPtr &conn);
    Reply Unlock(const ConnectionPtr &conn);
    // Refusal of a change by a session that does not hold a lock someone holds.
    bool LockedAgainst(const ConnectionPtr &conn, Reply *reply) const;
    Reply EditConfig(const ConnectionPtr &conn, const Message &m);
    Reply StoreFailure(const std::string &error) const
    {
        return {false, error, store.LastError().tag, store.LastError().path};
    }
};

Server::Impl::~Impl()
{
    // Stop listening before dropping anyone: a client that sees its connection
    // end and reconnects at once must be refused, not parked in the backlog of
    // a socket that is about to close under it.
    {
        std::lock_guard<std::mutex> lock(mu);
        stopping = true;
    }
    cv.notify_all();
    if (stopPipe[1] >= 0) {
        char byte = 0;
        (void)!::write(stopPipe[1], &byte, 1);
    }
    if (acceptor.joinable()) {
        acceptor.join();
    }
    if (listenFd >= 0) {
        ::unlink(options.socketPath.c_str());
        ::close(listenFd);
        listenFd = -1;
    }
    {
        std::lock_guard<std::mutex> lock(mu);
        for (const ConnectionPtr &conn : conns) {
            conn->io->Shutdown();
        }
    }
    cv.notify_all();
    if (worker.joinable()) {
        worker.join();
    }
    std::vector<ConnectionPtr> left;
    {
        std::lock_guard<std::mutex> lock(mu);
        left.swap(conns);
        jobs.clear();
    }
    for (const ConnectionPtr &conn : left) {
        conn->io.reset();
        ::close(conn->fd);
    }
    for (int fd : stopPipe) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
}

void Server::Impl::AcceptLoop()
{
    for (;;) {
        struct pollfd fds[2] = {{listenFd, POLLIN, 0}, {stopPipe[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        if (fds[1].revents != 0) {
            return;
        }
        int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            continue;
        }
        auto conn = std::make_shared<Connection>();
        conn->fd = fd;
        std::lock_guard<std::mutex> lock(mu);
        if (stopping) {
            ::close(fd);
            return;
        }
        conn->name = "client" + std::to_string(conns.size() + 1);
        conns.push_back(conn);
        conn->io = std::make_unique<StreamIo>(fd, options.limits, HandlersOf(conn));
    }
}

// The connection's thread hands on results to whoever awaits them, requests
// to the worker, and its end as a closed job. It holds the connection
// weakly: the connection owns it.
StreamIo::Handlers Server::Impl::HandlersOf(const ConnectionPtr &conn)
{
    const std::weak_ptr<Connection> weak = conn;
    StreamIo::Handlers handlers;
    handlers.result = [this](Message message) {
        std::lock_guard<std::mutex> lock(mu);
        if (awaited.count(message.id) != 0) {
            results[message.id] = std::move(message);
        }
        cv.notify_all();
    };
    handlers.request = [this, weak](Message message) {
        std::lock_guard<std::mutex> lock(mu);
        jobs.push_back({weak.lock(), std::move(message), false});
        cv.notify_all();
    };
    handlers.closed = [this, weak]() {
        std::lock_guard<std::mutex> lock(mu);
        if (const ConnectionPtr gone = weak.lock()) {
            gone->alive = false;
            jobs.push_back({gone, {}, true});
        }
        cv.notify_all();
    };
    return handlers;
}

void Server::Impl::WorkLoop()
{
    for (;;) {
        Job job;
        {
            std::unique_lock<std::mutex> lock(mu);
            cv.wait(lock, [this] { return stopping || !jobs.empty(); });
            if (stopping) {
                return;
            }
            job = std::move(jobs.front());
            jobs.pop_front();
        }
        Handle(job);
        if (!job.closed) {
            job.conn->io->RequestDone();
        }
    }
}

uint32_t Server::Impl::Post(const ConnectionPtr &conn, Message message, bool awaitReply)
{
    message.id = nextId++;
    if (nextId == 0) {
        nextId = 1;
    }
    if (awaitReply) {
        std::lock_guard<std::mutex> lock(mu);
        awaited.insert(message.id);
    }
    conn->Send(message);
    return message.id;
}

Server::Impl::Outcome Server::Impl::Await(const ConnectionPtr &conn, uint32_t id, Message *result)
{
    std::unique_lock<std::mutex> lock(mu);
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    cv.wait_until(lock, deadline,
                  [&] { return stopping || results.count(id) != 0 || !conn->alive.load(); });
    Outcome outcome = Outcome::kTimeout;
    auto it = results.find(id);
    if (it != results.end()) {
        if (result != nullptr) {
            *result = std::move(it->second);
        }
        results.erase(it);
        outcome = Outcome::kDone;
    } else if (stopping) {
        outcome = Outcome::kStopping;
    } else if (!conn->alive.load()) {
        outcome = Outcome::kLost;
    }
    awaited.erase(id);
    return outcome;
}

Server::Impl::Outcome Server::Impl::Request(const ConnectionPtr &conn, Message message, Message *result)
{
    return Await(conn, Post(conn, std::move(message)), result);
}

Message Server::Impl::ChangeMessage(const Change &change)
{
    Message m;
    m.type = Type::kChange;
    m.fields = {std::to_string(change.sub->row),
                std::to_string(change.op),
                change.path,
                change.oldXml,
                change.newXml,
                change.op == YDBC_OP_CREATE ? "0" : "1",
                change.op == YDBC_OP_DELETE ? "0" : "1"};
    return m;
}

std::vector<std::pair<ConnectionPtr, const Subscription *>> Server::Impl::ActiveSubs(uint32_t kind)
{
    std::vector<ConnectionPtr> snapshot;
    {
        std::lock_guard<std::mutex> lock(mu);
        snapshot = conns;
    }
    std::vector<std::pair<ConnectionPtr, const Subscription *>> out;
    for (const ConnectionPtr &conn : snapshot) {
        if (!conn->activated || !conn->alive.load()) {
            continue;
        }
        for (const Subscription &sub : conn->subs) {
            if (sub.kind == kind) {
                out.emplace_back(conn, &sub);
            }
        }
    }
    std::stable_sort(out.begin(), out.end(), [](const auto &a, const auto &b) {
        return a.second->priority != b.second->priority ? a.second->priority < b.second->priority
                                                        : a.second->seq < b.second->seq;
    });
    return out;
}

std::vector<Change> Server::Impl::Diff(const struct lyd_node *before, const struct lyd_node *after)
{
    std::vector<Change> out;
    for (const auto &[conn, sub] : ActiveSubs(YDBC_SUB_CONFIG)) {
        std::vector<Instance> oldItems = store.Instances(before, sub->path);
        std::vector<Instance> newItems = store.Instances(after, sub->path);
        std::map<std::string, const Instance *> oldByPath;
        std::map<std::string, const Instance *> newByPath;
        for (const Instance &item : oldItems) {
            oldByPath[item.path] = &item;
        }
        for (const Instance &item : newItems) {
            newByPath[item.path] = &item;
        }
        for (const Instance &item : oldItems) {
            if (newByPath.count(item.path) == 0) {
                out.push_back({conn, sub, YDBC_OP_DELETE, item.path, item.xml, ""});
            }
        }
        for (const Instance &item : newItems) {
            auto it = oldByPath.find(item.path);
            if (it == oldByPath.end()) {
                out.push_back({conn, sub, YDBC_OP_CREATE, item.path, "", item.xml});
            } else if (it->second->xml != item.xml) {
                out.push_back({conn, sub, YDBC_OP_MODIFY, item.path, it->second->xml, item.xml});
            }
        }
    }
    return out;
}

void Server::Impl::Rollback(const std::vector<Change> &done)
{
    for (auto it = done.rbegin(); it != done.rend(); ++it) {
        Change inverse = Inverse(*it);
        if ((inverse.sub->events & inverse.op) != 0 && inverse.conn->alive.load()) {
            Request(inverse.conn, ChangeMessage(inverse), nullptr);
        }
    }
}

Reply Server::Impl::Apply(Tree candidate)
{
    std::vector<Change> done;
    for (const Change &change : Diff(store.Running(), candidate.get())) {
        if ((change.sub->events & change.op) == 0) {
            continue;
        }
        Message result;
        Outcome outcome = Request(change.conn, ChangeMessage(change), &result);
        const uint32_t code = result.Number(0, 1);
        if (outcome == Outcome::kDone && (code == 0 || (change.sub->events & YDBC_EV_VERIFY) == 0)) {
            done.push_back(change);
            continue;
        }
        std::string text;
        const std::string who = change.conn->name;
        switch (outcome) {
        case Outcome::kDone:
            text = "refused by " + who + ": " + OpName(change.op) + " of " + change.path + " (result " +
                   std::to_string(code) + ")";
            // Undone like the accepted ones: its subscriber may hold part of it.
            done.push_back(change);
            break;
        case Outcome::kTimeout: {
            text = "no answer from " + who + " within " + std::to_string(timeout.count()) + " ms: " +
                   OpName(change.op) + " of " + change.path;
            // Queued behind the pending change; its answer is not waited for.
            Change inverse = Inverse(change);
            if ((change.sub->events & inverse.op) != 0) {
                Post(change.conn, ChangeMessage(inverse), false);
            }
            break;
        }
        case Outcome::kLost:
            text = who + " disconnected during " + OpName(change.op) + " of " + change.path;
            break;
        case Outcome::kStopping:
            text = "the datastore is stopping";
            break;
        }
        Rollback(done);
        return {false, text, "operation-failed", change.path};
    }
    std::string error;
    if (!store.Save(candidate.get(), &error)) {
        Rollback(done);
        return {false, error, "operation-failed", ""};
    }
    store.Commit(std::move(candidate));
    return {true, ""};
}

void Server::Impl::Replay(const ConnectionPtr &conn)
{
    std::vector<const Subscription *> subs;
    for (const Subscription &sub : conn->subs) {
        if (sub.kind == YDBC_SUB_CONFIG && (sub.events & YDBC_EV_REPLAY) != 0) {
            subs.push_back(&sub);
        }
    }
    std::stable_sort(subs.begin(), subs.end(),
                     [](const Subscription *a, const Subscription *b) { return a->priority < b->priority; });
    // Everything is sent at once; the subscriber queues it until its loop runs.
    std::vector<uint32_t> ids;
    for (const Subscription *sub : subs) {
        for (const Instance &item : store.Instances(store.Running(), sub->path)) {
            ids.push_back(Post(conn, ChangeMessage({conn, sub, YDBC_OP_CREATE, item.path, "", item.xml})));
        }
    }
    uint32_t success = 1;
    for (uint32_t id : ids) {
        Message result;
        if (Await(conn, id, &result) != Outcome::kDone || result.Number(0, 1) != 0) {
            success = 0;
        }
    }
    Message end;
    end.type = Type::kRecoverEnd;
    end.fields = {std::to_string(success)};
    conn->Send(end);
    {
        std::lock_guard<std::mutex> lock(mu);
        replays[conn->name]++;
    }
    cv.notify_all();
}

std::vector<Server::Impl::StateSource> Server::Impl::StateSources()
{
    std::vector<StateSource> sources;
    for (const auto &[conn, sub] : ActiveSubs(YDBC_SUB_GET)) {
        auto ask = [this, conn = conn, row = sub->row](const std::string &asked, std::string *text) -> std::string {
            Message request;
            request.type = Type::kGetRequest;
            request.fields = {std::to_string(row), asked};
            Message result;
            Outcome outcome = Request(conn, request, &result);
            if (outcome != Outcome::kDone) {
                return "no answer from " + conn->name + " for " + asked;
            }
            if (result.Number(0, 1) != 0) {
                return "get of " + asked + " failed in " + conn->name + " (result " + result.Field(0) + ")";
            }
            *text = result.Field(1);
            return "";
        };
        sources.push_back({sub->schema, sub->path, ask});
    }
    std::vector<std::string> paths;
    {
        std::lock_guard<std::mutex> lock(localMu);
        for (const auto &entry : local) {
            paths.push_back(entry.first);
        }
    }
    for (const std::string &path : paths) {
        const struct lysc_node *schema = store.FindSchema(path);
        if (schema == nullptr || (schema->flags & LYS_CONFIG_R) == 0) {
            continue;
        }
        auto ask = [this, path](const std::string &asked, std::string *text) -> std::string {
            std::lock_guard<std::mutex> lock(localMu);
            const auto it = local.find(path);
            if (it == local.end()) {
                return "no longer served: " + asked;
            }
            *text = it->second(asked);
            return "";
        };
        sources.push_back({schema, path, ask});
    }
    return sources;
}

Reply Server::Impl::Get(const std::string &path)
{
    const struct lysc_node *node = store.FindSchema(path);
    if (node == nullptr || (node->nodetype & (LYS_RPC | LYS_ACTION | LYS_NOTIF)) != 0) {
        return {false, "unknown path " + path, "invalid-value", path};
    }
    const std::vector<StateSource> subs = StateSources();
    // A list answered per key has nothing to say without its key, so it is
    // not asked without one; the refusal names the key missing.
    auto needsKey = [](const StateSource *sub) {
        const struct lysc_node *key = lysc_node_child(sub->schema);
        return Reply(false,
                     sub->path + " is answered only for a key: ask for " +
                         YangStore::WithKeyPlaceholders(sub->path, sub->schema),
                     "missing-element", sub->path + "/" + (key != nullptr ? key->name : ""));
    };
    // A path at or below a state source goes to it as given.
    for (const StateSource &source : subs) {
        const StateSource *sub = &source;
        if (IsAncestorOrSelf(sub->schema, node)) {
            if (YangStore::AnsweredPerKey(sub->schema) &&
                path.find(std::string(sub->schema->name) + "[") == std::string::npos) {
                return needsKey(sub);
            }
            std::string text;
            std::string error = sub->ask(path, &text);
            if (!error.empty()) {
                return {false, error};
            }
            Tree parsed = store.ParseState(text);
            return {true, parsed != nullptr ? YangStore::PrintAll(parsed.get()) : text};
        }
    }
    Tree result;
    bool served = false;
    if ((node->flags & LYS_CONFIG_W) != 0) {
        std::string error;
        if (!store.SelectConfig(path, &result, &error)) {
            return {false, error};
        }
        served = true;
    }
    // An ancestor of state subscriptions: their answers join the data.
    // Those that fail are left out.
    const StateSource *keyed = nullptr;
    if (path.find('[') == std::string::npos) {
        for (const StateSource &source : subs) {
            const StateSource *sub = &source;
            if (sub->schema != node && IsAncestorOrSelf(node, sub->schema)) {
                if (YangStore::AnsweredPerKey(sub->schema)) {
                    keyed = sub;
                    continue;
                }
                std::string text;
                if (sub->ask(sub->path, &text).empty()) {
                    YangStore::Merge(&result, store.ParseState(text));
                    served = true;
                }
            }
        }
    }
    if (!served) {
        return keyed != nullptr ? needsKey(keyed) : Reply(false, "no subscriber serves " + path, "operation-failed", path);
    }
    return {true, YangStore::PrintAll(result.get())};
}

Reply Server::Impl::Rpc(const std::string &xml)
{
    std::string opPath;
    std::string input;
    std::string error;
    if (!store.ParseRpc(xml, &opPath, &input, &error)) {
        return {false, error};
    }
    const struct lysc_node *op = store.FindSchema(opPath);
    const std::string name = op != nullptr ? op->name : opPath;
    for (const auto &[conn, sub] : ActiveSubs(YDBC_SUB_RPC)) {
        if (sub->schema != op) {
            continue;
        }
        Message request;
        request.type = Type::kRpcRequest;
        request.fields = {std::to_string(sub->row), input};
        Message result;
        if (Request(conn, request, &result) != Outcome::kDone) {
            return {false, "no answer from " + conn->name + " for operation " + name};
        }
        if (result.Number(0, 1) != 0) {
            return {false, "operation " + name + " refused"};
        }
        return {true, result.Field(1)};
    }
    return {false, "no subscriber serves " + opPath, "operation-not-supported", opPath};
}

void Server::Impl::Closed(Job &job)
{
    const ConnectionPtr &conn = job.conn;
    {
        std::lock_guard<std::mutex> lock(mu);
        conns.erase(std::remove(conns.begin(), conns.end(), conn), conns.end());
    }
    const std::string why = conn->io->EndReason();
    if (!why.empty()) {
        PLAT_LogWrite(PLAT_LOG_PLATFORM, "[yangdb] %s dropped: %s", conn->name.c_str(), why.c_str());
    }
    const size_t peak = conn->io->PeakBuffered();
    conn->io.reset();
    ::close(conn->fd);
    // What a large backlog took goes back to the system, not only to the heap.
    if (peak >= kTrimAfterBytes) {
        (void)malloc_trim(0);
    }
}

void Server::Impl::Handle(Job &job)
{
    const ConnectionPtr &conn = job.conn;
    if (job.closed) {
        if (lockOwner == conn) {
            lockOwner.reset();  // a session's lock ends with it
        }
        Closed(job);
        return;
    }
    const Message &m = job.message;
    Reply reply{true, ""};
    switch (m.type) {
    case Type::kHello:
        conn->name = m.Field(0).empty() ? conn->name : m.Field(0);
        break;
    case Type::kSubscribe: {
        Subscription sub;
        sub.kind = m.Number(0, 99);
        sub.path = m.Field(1);
        sub.priority = m.Number(2, YDBC_PRIORITY_DEFAULT);
        sub.events = m.Number(3, YDBC_EV_DEFAULT);
        sub.row = m.Number(4);
        std::string error;
        if (!store.CheckSubscription(sub.path, sub.kind, &error)) {
            reply = {false, error};
            break;
        }
        sub.schema = store.FindSchema(sub.path);
        sub.seq = nextSeq++;
        conn->subs.push_back(sub);
        break;
    }
    case Type::kActivate:
        conn->activated = true;
        conn->Send(ReplyMessage(m.id, reply));
        if (m.Number(0) == 1) {
            Replay(conn);
        }
        return;
    case Type::kEdit: {
        Tree candidate;
        std::string error;
        if (LockedAgainst(conn, &reply)) {
            break;
        }
        if (!store.EditCandidate(m.Field(1), m.Field(0) == "replace", &candidate, &error)) {
            reply = StoreFailure(error);
        } else {
            reply = Apply(std::move(candidate));
        }
        break;
    }
    case Type::kDelete: {
        Tree candidate;
        std::string error;
        if (LockedAgainst(conn, &reply)) {
            break;
        }
        if (!store.DeleteCandidate(m.Field(0), &candidate, &error)) {
            reply = StoreFailure(error);
        } else {
            reply = Apply(std::move(candidate));
        }
        break;
    }
    case Type::kGet:
        reply = Get(m.Field(0));
        break;
    case Type::kExport:
        reply = {true, YangStore::PrintExplicit(store.Running())};
        break;
    case Type::kRpc:
        reply = Rpc(m.Field(0));
        break;
    case Type::kLock:
        reply = Lock(conn);
        break;
    case Type::kUnlock:
        reply = Unlock(conn);
        break;
    case Type::kEditConfig:
        reply = EditConfig(conn, m);
        break;
    default:
        reply = {false, "unknown request " + std::to_string(static_cast<uint32_t>(m.type)),
                 "operation-not-supported", ""};
        break;
    }
    conn->Send(ReplyMessage(m.id, reply));
}

Reply Server::Impl::Lock(const ConnectionPtr &conn)
{
    if (lockOwner != nullptr && lockOwner != conn) {
        return {false, "the running configuration is locked by " + lockOwner->name, "lock-denied", "", lockOwner->name};
    }
    if (lockOwner == conn) {
        return {false, "this session already holds the lock of the running configuration", "lock-denied", "",
                conn->name};
    }
    lockOwner = conn;
    return {true, ""};
}

Reply Server::Impl::Unlock(const ConnectionPtr &conn)
{
    if (lockOwner != conn) {
        return {false, "this session holds no lock of the running configuration", "operation-failed", ""};
    }
    lockOwner.reset();
    return {true, ""};
}

bool Server::Impl::LockedAgainst(const ConnectionPtr &conn, Reply *reply) const
{
    if (lockOwner == nullptr || lockOwner == conn) {
        return false;
    }
    *reply = {false, "the running configuration is locked by " + lockOwner->name, "in-use", "", lockOwner->name};
    return true;
}

Reply Server::Impl::EditConfig(const ConnectionPtr &conn, const Message &m)
{
    Reply reply;
    if (LockedAgainst(conn, &reply)) {
        return reply;
    }
    Tree candidate;
    std::string error;
    if (!store.EditConfigCandidate(m.Field(2), m.Field(0), &candidate, &error)) {
        return StoreFailure(error);
    }
    if (m.Field(1) == "test-only") {
        return {true, ""};
    }
    return Apply(std::move(candidate));
}

Server::Server(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Server::~Server() = default;

void Server::ServeState(const std::string &path, StateAnswer answer)
{
    std::lock_guard<std::mutex> lock(impl_->localMu);
    if (answer) {
        impl_->local[path] = std::move(answer);
    } else {
        impl_->local.erase(path);
    }
}

bool Server::WaitReplayed(std::string_view client, std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(impl_->mu);
    return impl_->cv.wait_for(lock, timeout, [this, client]() {
        const auto found = impl_->replays.find(std::string(client));
        return found != impl_->replays.end() && found->second > 0;
    });
}

std::unique_ptr<Server> Server::Start(const ServerOptions &options, std::string *error)
{
    std::string scratch;
    std::string &err = error != nullptr ? *error : scratch;
    if (const auto failed = platform::FailPoint(kStartOp)) {
        err = "cannot start the datastore (injected failure " + std::to_string(*failed) + ")";
        return nullptr;
    }
    auto impl = std::make_unique<Impl>();
    impl->options = options;
    impl->timeout = ReplyTimeout();
    // The store's folder is the owner's alone, whatever the umask.
    if (!device::sockets::MakeFolders(std::filesystem::path(options.storePath).parent_path(), kStoreFolderMode,
                                      &err)) {
        return nullptr;
    }
    if (!impl->store.Open(options.yangDir, options.storePath, &err)) {
        return nullptr;
    }

    const int fd = device::sockets::ListenUnix(options.socketPath, options.access, kBacklog, "datastore", &err);
    if (fd < 0 || ::pipe2(impl->stopPipe, O_CLOEXEC) != 0) {
        if (fd >= 0) {
            err = std::string("cannot create a pipe: ") + std::strerror(errno);
            ::close(fd);
            ::unlink(options.socketPath.c_str());
        }
        return nullptr;
    }
    impl->listenFd = fd;
    Impl *raw = impl.get();
    impl->worker = std::thread([raw] { raw->WorkLoop(); });
    impl->acceptor = std::thread([raw] { raw->AcceptLoop(); });
    return std::unique_ptr<Server>(new Server(std::move(impl)));
}

}  // namespace device::yangdb
