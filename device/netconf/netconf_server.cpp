// The NETCONF server (see netconf_server.hpp).
//
// libnetconf2 does the SSH transport, the hello exchange, both framings and
// the parsing of each <rpc> against our libyang context, which holds the
// switch's modules and the NETCONF ones. Two threads drive it: one accepts
// sessions (the SSH handshake and the hello happen there), one polls the
// open sessions and runs their RPCs one at a time. Every RPC is turned into
// a request of the session's own datastore connection; the datastore's
// refusals come back as <rpc-error> with its error-tag and error-path.
#include <device/netconf.hpp>

#include "filter.hpp"
#include "ssh_keys.hpp"

#include <nc_server.h>
#include <device/yangdb.hpp>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace device::netconf {

namespace {

using device::yangdb::Admin;
using device::yangdb::Reply;

constexpr const char kEndpoint[] = "ssh";
constexpr int kPollMs = 200;
constexpr uint16_t kHelloTimeoutSec = 30;

struct TreeFree {
    void operator()(struct lyd_node *tree) const
    {
        lyd_free_all(tree);
    }
};
using Tree = std::unique_ptr<struct lyd_node, TreeFree>;

// What the server keeps per NETCONF session: its datastore connection.
struct SessionData {
    std::unique_ptr<Admin> admin;
};

std::string SessionName(uint32_t id)
{
    return "NETCONF session " + std::to_string(id);
}

// The first child of node whose schema is called name, or null.
const struct lyd_node *Child(const struct lyd_node *node, const char *name)
{
    for (const struct lyd_node *child = lyd_child(node); child != nullptr; child = child->next) {
        if (child->schema != nullptr && std::strcmp(child->schema->name, name) == 0) {
            return child;
        }
    }
    return nullptr;
}

std::string LeafText(const struct lyd_node *node, const char *name, const std::string &fallback)
{
    const struct lyd_node *leaf = Child(node, name);
    return leaf != nullptr && lyd_get_value(leaf) != nullptr ? lyd_get_value(leaf) : fallback;
}

// The datastore a target or source container names ("running", "config", ...).
std::string DatastoreOf(const struct lyd_node *op, const char *container)
{
    const struct lyd_node *node = Child(op, container);
    const struct lyd_node *choice = node != nullptr ? lyd_child(node) : nullptr;
    return choice != nullptr && choice->schema != nullptr ? choice->schema->name : "";
}

// The XML text of an anyxml node's content. A tree is printed whole: an
// empty container there (libyang marks it as default) may carry an
// operation.
std::string AnyText(const struct lyd_node *node)
{
    if (node == nullptr) {
        return "";
    }
    const auto *any = reinterpret_cast<const struct lyd_node_any *>(node);
    char *text = nullptr;
    LY_ERR rc = LY_SUCCESS;
    if (any->value_type == LYD_ANYDATA_DATATREE) {
        if (any->value.tree == nullptr) {
            return "";
        }
        rc = lyd_print_mem(&text, any->value.tree, LYD_XML,
                           LYD_PRINT_WITHSIBLINGS | LYD_PRINT_WD_ALL | LYD_PRINT_KEEPEMPTYCONT | LYD_PRINT_SHRINK);
    } else {
        rc = lyd_any_value_str(node, &text);
    }
    std::string out = rc == LY_SUCCESS && text != nullptr ? text : "";
    std::free(text);
    return out;
}

struct TagRow {
    const char *name;
    NC_ERR tag;
};
constexpr TagRow kTags[] = {
    {"in-use", NC_ERR_IN_USE},
    {"invalid-value", NC_ERR_INVALID_VALUE},
    {"too-big", NC_ERR_TOO_BIG},
    {"missing-attribute", NC_ERR_MISSING_ATTR},
    {"bad-attribute", NC_ERR_BAD_ATTR},
    {"unknown-attribute", NC_ERR_UNKNOWN_ATTR},
    {"missing-element", NC_ERR_MISSING_ELEM},
    {"bad-element", NC_ERR_BAD_ELEM},
    {"unknown-element", NC_ERR_UNKNOWN_ELEM},
    {"unknown-namespace", NC_ERR_UNKNOWN_NS},
    {"access-denied", NC_ERR_ACCESS_DENIED},
    {"lock-denied", NC_ERR_LOCK_DENIED},
    {"resource-denied", NC_ERR_RES_DENIED},
    {"rollback-failed", NC_ERR_ROLLBACK_FAILED},
    {"data-exists", NC_ERR_DATA_EXISTS},
    {"data-missing", NC_ERR_DATA_MISSING},
    {"operation-not-supported", NC_ERR_OP_NOT_SUPPORTED},
    {"operation-failed", NC_ERR_OP_FAILED},
    {"malformed-message", NC_ERR_MALFORMED_MSG},
};

// The element an error path ends at ("tags-policy" of ".../global-tags-policy/tags-policy").
std::string ElementOf(const std::string &path)
{
    std::string last = path.substr(path.rfind('/') == std::string::npos ? 0 : path.rfind('/') + 1);
    last = last.substr(0, last.find('['));
    const size_t colon = last.find(':');
    return colon == std::string::npos ? last : last.substr(colon + 1);
}

}  // namespace

struct Server::Impl {
    Options options;
    struct ly_ctx *ctx = nullptr;
    struct nc_pollsession *ps = nullptr;
    bool initialised = false;
    std::vector<std::string> modules;   // the switch's own modules, whose operations go to the agent
    std::vector<std::string> topPaths;  // "/module:node" of each of their top-level data nodes
    std::atomic<bool> stopping{false};
    std::thread acceptor;
    std::thread poller;

    std::mutex mu;  // sessions
    std::condition_variable cv;
    std::map<uint32_t, struct nc_session *> sessions;

    ~Impl();
    bool LoadModules(std::string *error);
    bool Listen(std::string *error);
    void AcceptLoop();
    void PollLoop();
    void Drop(struct nc_session *session);
    void SweepEnded();
    void Log(const std::string &line) const
    {
        if (options.log) {
            options.log(line);
        }
    }

    struct nc_server_reply *Dispatch(const struct lyd_node *op, struct nc_session *session);

    // Replies.
    struct nc_server_reply *Error(const Reply &reply);
    struct nc_server_reply *Error(const std::string &tag, const std::string &text, const std::string &path = "")
    {
        return Error(Reply(false, text, tag, path));
    }
    struct nc_server_reply *Done(const Reply &reply)
    {
        return reply.ok ? nc_server_reply_ok() : Error(reply);
    }
    struct nc_server_reply *Data(const struct lyd_node *op, Tree data);

    // Operations.
    bool Parse(const std::string &text, Tree *tree, std::string *error) const;
    struct nc_server_reply *GetConfig(const struct lyd_node *op, Admin &admin);
    struct nc_server_reply *Get(const struct lyd_node *op, Admin &admin);
    struct nc_server_reply *EditConfig(const struct lyd_node *op, Admin &admin);
    struct nc_server_reply *CopyConfig(const struct lyd_node *op, Admin &admin);
    struct nc_server_reply *Validate(const struct lyd_node *op, Admin &admin);
    struct nc_server_reply *KillSession(const struct lyd_node *op, struct nc_session *session);
    struct nc_server_reply *ModelRpc(const struct lyd_node *op, Admin &admin);
    struct nc_server_reply *GetSchema(const struct lyd_node *op);
};

namespace {

// libnetconf2's callbacks carry no context of their own.
std::atomic<Server::Impl *> g_server{nullptr};

struct nc_server_reply *RpcThunk(struct lyd_node *rpc, struct nc_session *session)
{
    Server::Impl *server = g_server.load();
    const struct lyd_node *op = rpc;
    // An action arrives inside its data tree; an operation is the node itself.
    while (op != nullptr && (op->schema == nullptr || (op->schema->nodetype & (LYS_RPC | LYS_ACTION)) == 0)) {
        op = lyd_child(op);
    }
    if (server == nullptr || op == nullptr) {
        return nc_server_reply_err(nc_err(LYD_CTX(rpc), NC_ERR_OP_NOT_SUPPORTED, NC_ERR_TYPE_PROT));
    }
    return server->Dispatch(op, session);
}

void PrintThunk(const struct nc_session *session, NC_VERB_LEVEL level, const char *message)
{
    Server::Impl *server = g_server.load();
    if (server == nullptr || level > NC_VERB_WARNING) {
        return;
    }
    const std::string who = session != nullptr ? "session " + std::to_string(nc_session_get_id(session)) + ": " : "";
    server->Log(std::string(level == NC_VERB_ERROR ? "error: " : "warning: ") + who + message);
}

int HostKeyThunk(const char *, void *userData, char **privkeyPath, char **, NC_SSH_KEY_TYPE *)
{
    const auto *server = static_cast<const Server::Impl *>(userData);
    *privkeyPath = strdup(server->options.hostKeyPath.c_str());
    return *privkeyPath != nullptr ? 0 : 1;
}

int PubkeyThunk(const struct nc_session *session, ssh_key key, void *userData)
{
    const auto *server = static_cast<const Server::Impl *>(userData);
    const char *user = nc_session_get_username(session);
    if (user == nullptr || server->options.user != user ||
        !AuthorizedKeyMatches(server->options.authorizedKeysPath, key)) {
        return 1;
    }
    return 0;
}

}  // namespace

Server::Impl::~Impl()
{
    stopping = true;
    cv.notify_all();
    if (acceptor.joinable()) {
        acceptor.join();
    }
    if (poller.joinable()) {
        poller.join();
    }
    std::vector<struct nc_session *> left;
    {
        std::lock_guard<std::mutex> lock(mu);
        for (const auto &[id, session] : sessions) {
            left.push_back(session);
        }
    }
    for (struct nc_session *session : left) {
        Drop(session);
    }
    if (ps != nullptr) {
        nc_ps_free(ps);
    }
    if (initialised) {
        nc_server_destroy();
    }
    Impl *self = this;
    g_server.compare_exchange_strong(self, nullptr);
    ly_ctx_destroy(ctx);
}

bool Server::Impl::LoadModules(std::string *error)
{
    const std::string ietfDir = options.yangDir + "/ietf";
    if (ly_ctx_new(options.yangDir.c_str(), LY_CTX_DISABLE_SEARCHDIR_CWD, &ctx) != LY_SUCCESS ||
        ly_ctx_set_searchdir(ctx, ietfDir.c_str()) != LY_SUCCESS) {
        *error = "cannot load the YANG modules of " + options.yangDir;
        return false;
    }
    static const char *features[] = {"writable-running", "rollback-on-error", "validate", "xpath", nullptr};
    if (ly_ctx_load_module(ctx, "ietf-netconf", nullptr, features) == nullptr ||
        ly_ctx_load_module(ctx, "ietf-netconf-monitoring", nullptr, nullptr) == nullptr) {
        *error = "cannot load the NETCONF modules from " + ietfDir;
        return false;
    }
    std::error_code ec;
    for (const auto &entry : std::filesystem::directory_iterator(options.yangDir, ec)) {
        struct lys_module *module = nullptr;
        if (entry.path().extension() != ".yang") {
            continue;
        }
        if (lys_parse_path(ctx, entry.path().c_str(), LYS_IN_YANG, &module) != LY_SUCCESS) {
            *error = "cannot load " + entry.path().string();
            return false;
        }
        modules.emplace_back(module->name);
    }
    if (modules.empty()) {
        *error = "no YANG modules in " + options.yangDir;
        return false;
    }
    for (const std::string &name : modules) {
        const struct lys_module *module = ly_ctx_get_module_implemented(ctx, name.c_str());
        for (const struct lysc_node *node = module->compiled->data; node != nullptr; node = node->next) {
            topPaths.push_back("/" + name + ":" + node->name);
        }
    }
    return true;
}

bool Server::Impl::Listen(std::string *error)
{
    const std::string where = options.address + ":" + std::to_string(options.port);
    if (nc_server_add_endpt(kEndpoint, NC_TI_LIBSSH) != 0 ||
        nc_server_endpt_set_address(kEndpoint, options.address.c_str()) != 0 ||
        nc_server_endpt_set_port(kEndpoint, options.port) != 0) {
        *error = "cannot listen on " + where;
        return false;
    }
    nc_server_ssh_set_hostkey_clb(HostKeyThunk, this, nullptr);
    nc_server_ssh_set_pubkey_auth_clb(PubkeyThunk, this, nullptr);
    if (nc_server_ssh_endpt_add_hostkey(kEndpoint, "host-key", -1) != 0 ||
        nc_server_ssh_endpt_set_auth_methods(kEndpoint, NC_SSH_AUTH_PUBLICKEY) != 0 ||
        nc_server_ssh_endpt_set_auth_timeout(kEndpoint, kHelloTimeoutSec) != 0) {
        *error = "cannot set up SSH on " + where;
        return false;
    }
    return true;
}

void Server::Impl::AcceptLoop()
{
    while (!stopping) {
        struct nc_session *session = nullptr;
        if (nc_accept(kPollMs, &session) != NC_MSG_HELLO || session == nullptr) {
            continue;
        }
        const uint32_t id = nc_session_get_id(session);
        std::string error;
        auto data = std::make_unique<SessionData>();
        data->admin = Admin::Connect(options.datastoreSocket, &error);
        if (!data->admin) {
            Log("session " + std::to_string(id) + " refused: " + error);
            nc_session_free(session, nullptr);
            continue;
        }
        data->admin->Hello(SessionName(id));
        nc_session_set_data(session, data.release());
        {
            std::lock_guard<std::mutex> lock(mu);
            sessions[id] = session;
        }
        nc_ps_add_session(ps, session);
        cv.notify_all();
        const char *host = nc_session_get_host(session);
        const char *user = nc_session_get_username(session);
        Log("session " + std::to_string(id) + " of " + (user != nullptr ? user : "?") + " from " +
            (host != nullptr ? host : "?") + " opened");
    }
}

void Server::Impl::Drop(struct nc_session *session)
{
    const uint32_t id = nc_session_get_id(session);
    {
        std::lock_guard<std::mutex> lock(mu);
        if (sessions.erase(id) == 0) {
            return;
        }
    }
    nc_ps_del_session(ps, session);
    // Closing the datastore connection releases the session's lock.
    delete static_cast<SessionData *>(nc_session_get_data(session));
    nc_session_set_data(session, nullptr);
    Log("session " + std::to_string(id) + " closed");
    nc_session_free(session, nullptr);
}

void Server::Impl::SweepEnded()
{
    std::vector<struct nc_session *> ended;
    {
        std::lock_guard<std::mutex> lock(mu);
        for (const auto &[id, session] : sessions) {
            if (nc_session_get_status(session) != NC_STATUS_RUNNING) {
                ended.push_back(session);
            }
        }
    }
    for (struct nc_session *session : ended) {
        Drop(session);
    }
}

void Server::Impl::PollLoop()
{
    while (!stopping) {
        {
            std::unique_lock<std::mutex> lock(mu);
            cv.wait_for(lock, std::chrono::milliseconds(kPollMs), [this] { return stopping || !sessions.empty(); });
            if (sessions.empty()) {
                continue;
            }
        }
        struct nc_session *session = nullptr;
        const int rc = nc_ps_poll(ps, kPollMs, &session);
        if ((rc & (NC_PSPOLL_SESSION_TERM | NC_PSPOLL_SESSION_ERROR)) != 0 && session != nullptr) {
            Drop(session);
        }
        SweepEnded();
    }
}

struct nc_server_reply *Server::Impl::Error(const Reply &reply)
{
    NC_ERR tag = NC_ERR_OP_FAILED;
    for (const TagRow &row : kTags) {
        if (reply.tag == row.name) {
            tag = row.tag;
        }
    }
    const std::string element = ElementOf(reply.path);
    struct lyd_node *err = nullptr;
    switch (tag) {
    case NC_ERR_LOCK_DENIED: {
        // The holder's session id, or 0 when the holder is no NETCONF session.
        uint32_t holder = 0;
        std::lock_guard<std::mutex> lock(mu);
        for (const auto &[id, session] : sessions) {
            holder = SessionName(id) == reply.holder ? id : holder;
        }
        err = nc_err(ctx, tag, holder);
        break;
    }
    case NC_ERR_DATA_EXISTS:
    case NC_ERR_DATA_MISSING:
    case NC_ERR_MALFORMED_MSG:
        err = nc_err(ctx, tag);
        break;
    case NC_ERR_MISSING_ATTR:
    case NC_ERR_BAD_ATTR:
    case NC_ERR_UNKNOWN_ATTR:
        err = nc_err(ctx, tag, NC_ERR_TYPE_PROT, "operation", element.c_str());
        break;
    case NC_ERR_MISSING_ELEM:
    case NC_ERR_BAD_ELEM:
    case NC_ERR_UNKNOWN_ELEM:
        err = nc_err(ctx, tag, NC_ERR_TYPE_APP, element.c_str());
        break;
    case NC_ERR_UNKNOWN_NS:
        err = nc_err(ctx, tag, NC_ERR_TYPE_APP, element.c_str(), "");
        break;
    default:
        err = nc_err(ctx, tag, NC_ERR_TYPE_APP);
        break;
    }
    if (err == nullptr) {
        return nc_server_reply_err(nc_err(ctx, NC_ERR_OP_FAILED, NC_ERR_TYPE_APP));
    }
    nc_err_set_msg(err, reply.text.c_str(), "en");
    if (!reply.path.empty()) {
        nc_err_set_path(err, reply.path.c_str());
    }
    return nc_server_reply_err(err);
}

struct nc_server_reply *Server::Impl::Data(const struct lyd_node *op, Tree data)
{
    struct lyd_node *reply = nullptr;
    if (lyd_dup_single(op, nullptr, 0, &reply) != LY_SUCCESS) {
        return Error("operation-failed", "cannot build the reply");
    }
    if (lyd_new_any(reply, nullptr, "data", data.get(), 1, LYD_ANYDATA_DATATREE, 1, nullptr) != LY_SUCCESS) {
        lyd_free_all(reply);
        return Error("operation-failed", "cannot build the reply");
    }
    data.release();  // the reply owns it now
    return nc_server_reply_data(reply, NC_WD_EXPLICIT, NC_PARAMTYPE_FREE);
}

bool Server::Impl::Parse(const std::string &text, Tree *tree, std::string *error) const
{
    struct lyd_node *raw = nullptr;
    if (text.find('<') == std::string::npos) {
        tree->reset();
        return true;
    }
    if (lyd_parse_data_mem(ctx, text.c_str(), LYD_XML, LYD_PARSE_ONLY, 0, &raw) != LY_SUCCESS) {
        lyd_free_all(raw);
        const char *why = ly_errmsg(ctx);
        *error = std::string("cannot read the datastore's answer: ") + (why != nullptr ? why : "");
        return false;
    }
    tree->reset(raw);
    return true;
}

struct nc_server_reply *Server::Impl::GetConfig(const struct lyd_node *op, Admin &admin)
{
    if (DatastoreOf(op, "source") != "running") {
        return Error("operation-not-supported", "the switch has only the running configuration");
    }
    Selection selection;
    std::string error;
    if (!ReadFilter(op, &selection, &error)) {
        return Error("invalid-value", error);
    }
    const Reply running = admin.Export();
    Tree data;
    if (!running.ok) {
        return Error(running);
    }
    if (!Parse(running.text, &data, &error)) {
        return Error("operation-failed", error);
    }
    if (selection.all) {
        return Data(op, std::move(data));
    }
    struct lyd_node *selected = nullptr;
    for (const std::string &xpath : selection.xpaths) {
        if (!SelectInto(data.get(), xpath, &selected, &error)) {
            lyd_free_all(selected);
            return Error("invalid-value", error);
        }
    }
    return Data(op, Tree(selected));
}

struct nc_server_reply *Server::Impl::Get(const struct lyd_node *op, Admin &admin)
{
    Selection selection;
    std::string error;
    if (!ReadFilter(op, &selection, &error)) {
        return Error("invalid-value", error);
    }
    // Everything: each top-level node of the switch's modules, its state
    // answered by the agent.
    std::string everything;
    auto getAll = [&]() -> Reply {
        if (everything.empty()) {
            for (const std::string &top : topPaths) {
                const Reply part = admin.Get(top);
                if (!part.ok) {
                    return part;
                }
                everything += part.text;
            }
        }
        return Reply(true, everything);
    };
    Tree result;
    const std::vector<std::string> &paths = selection.all ? topPaths : selection.xpaths;
    for (const std::string &xpath : paths) {
        // A path the datastore resolves goes there as given (a keyed state
        // entry reaches the agent with its key); other expressions are
        // evaluated here over all the data.
        Reply answer = admin.Get(xpath);
        if (!answer.ok && answer.tag == "invalid-value") {
            answer = getAll();
        }
        if (!answer.ok) {
            return Error(answer);
        }
        Tree part;
        if (!Parse(answer.text, &part, &error)) {
            return Error("operation-failed", error);
        }
        struct lyd_node *merged = result.release();
        const bool ok = SelectInto(part.get(), xpath, &merged, &error);
        result.reset(merged);
        if (!ok) {
            return Error("invalid-value", error);
        }
    }
    return Data(op, std::move(result));
}

struct nc_server_reply *Server::Impl::EditConfig(const struct lyd_node *op, Admin &admin)
{
    if (DatastoreOf(op, "target") != "running") {
        return Error("operation-not-supported", "the switch has only the running configuration");
    }
    if (LeafText(op, "error-option", "stop-on-error") == "continue-on-error") {
        return Error("operation-not-supported", "an edit is applied whole or not at all: continue-on-error is not supported");
    }
    const struct lyd_node *config = Child(op, "config");
    if (config == nullptr) {
        return Error("missing-element", "the edit has no config", "config");
    }
    device::yangdb::EditConfigOptions edit;
    edit.defaultOperation = LeafText(op, "default-operation", "merge");
    edit.testOnly = LeafText(op, "test-option", "test-then-set") == "test-only";
    return Done(admin.EditConfig(AnyText(config), edit));
}

struct nc_server_reply *Server::Impl::CopyConfig(const struct lyd_node *op, Admin &admin)
{
    if (DatastoreOf(op, "target") != "running") {
        return Error("operation-not-supported", "the switch has only the running configuration");
    }
    const std::string source = DatastoreOf(op, "source");
    if (source == "running") {
        return nc_server_reply_ok();
    }
    if (source != "config") {
        return Error("operation-not-supported", "copy-config takes the running configuration or inline config");
    }
    return Done(admin.Edit(AnyText(Child(Child(op, "source"), "config")), device::yangdb::EditMode::kReplace));
}

struct nc_server_reply *Server::Impl::Validate(const struct lyd_node *op, Admin &admin)
{
    const std::string source = DatastoreOf(op, "source");
    if (source == "running") {
        return nc_server_reply_ok();  // the running configuration is valid by construction
    }
    if (source != "config") {
        return Error("operation-not-supported", "validate takes the running configuration or inline config");
    }
    device::yangdb::EditConfigOptions edit;
    edit.defaultOperation = "replace";
    edit.testOnly = true;
    return Done(admin.EditConfig(AnyText(Child(Child(op, "source"), "config")), edit));
}

struct nc_server_reply *Server::Impl::KillSession(const struct lyd_node *op, struct nc_session *session)
{
    const std::string text = LeafText(op, "session-id", "0");
    const uint32_t target = static_cast<uint32_t>(std::strtoul(text.c_str(), nullptr, 10));
    const uint32_t self = nc_session_get_id(session);
    if (target == self) {
        return Error("invalid-value", "a session cannot kill itself: use close-session", "session-id");
    }
    std::lock_guard<std::mutex> lock(mu);
    const auto found = sessions.find(target);
    if (found == sessions.end()) {
        return Error("invalid-value", "no session " + text, "session-id");
    }
    // The poll loop ends it once this reply is out, and its lock with it.
    nc_session_set_term_reason(found->second, NC_SESSION_TERM_KILLED);
    nc_session_set_killed_by(found->second, self);
    nc_session_set_status(found->second, NC_STATUS_INVALID);
    Log("session " + text + " killed by session " + std::to_string(self));
    return nc_server_reply_ok();
}

struct nc_server_reply *Server::Impl::ModelRpc(const struct lyd_node *op, Admin &admin)
{
    char *text = nullptr;
    if (lyd_print_mem(&text, op, LYD_XML, LYD_PRINT_SHRINK) != LY_SUCCESS || text == nullptr) {
        return Error("operation-failed", "cannot read the operation");
    }
    const std::string xml = text;
    std::free(text);
    return Done(admin.Rpc(xml));
}

struct nc_server_reply *Server::Impl::GetSchema(const struct lyd_node *op)
{
    const std::string identifier = LeafText(op, "identifier", "");
    const std::string version = LeafText(op, "version", "");
    const std::string format = LeafText(op, "format", "yang");
    if (format != "yang" && format != "ietf-netconf-monitoring:yang") {
        return Error("invalid-value", "schemas are served as YANG only", "format");
    }
    const struct lys_module *module = version.empty()
                                          ? ly_ctx_get_module_latest(ctx, identifier.c_str())
                                          : ly_ctx_get_module(ctx, identifier.c_str(), version.c_str());
    if (module == nullptr) {
        return Error("invalid-value", "no module " + identifier + (version.empty() ? "" : "@" + version),
                     "identifier");
    }
    // The module as its file has it, comments included; printed when it
    // came from no file.
    std::string text;
    if (module->filepath != nullptr) {
        std::ifstream in(module->filepath);
        std::ostringstream content;
        content << in.rdbuf();
        text = content.str();
    }
    if (text.empty()) {
        char *printed = nullptr;
        if (lys_print_mem(&printed, module, LYS_OUT_YANG, 0) != LY_SUCCESS || printed == nullptr) {
            return Error("operation-failed", "cannot print module " + identifier);
        }
        text = printed;
        std::free(printed);
    }
    struct lyd_node *reply = nullptr;
    if (lyd_dup_single(op, nullptr, 0, &reply) != LY_SUCCESS ||
        lyd_new_any(reply, nullptr, "data", text.c_str(), 0, LYD_ANYDATA_STRING, 1, nullptr) != LY_SUCCESS) {
        lyd_free_all(reply);
        return Error("operation-failed", "cannot build the reply");
    }
    return nc_server_reply_data(reply, NC_WD_EXPLICIT, NC_PARAMTYPE_FREE);
}

struct nc_server_reply *Server::Impl::Dispatch(const struct lyd_node *op, struct nc_session *session)
{
    auto *data = static_cast<SessionData *>(nc_session_get_data(session));
    if (data == nullptr || !data->admin) {
        return Error("operation-failed", "the session has no datastore connection");
    }
    Admin &admin = *data->admin;
    const std::string name = op->schema->name;
    const std::string module = op->schema->module->name;
    if (std::find(modules.begin(), modules.end(), module) != modules.end()) {
        return ModelRpc(op, admin);
    }
    if (module == "ietf-netconf-monitoring" && name == "get-schema") {
        return GetSchema(op);
    }
    if (module != "ietf-netconf") {
        return Error("operation-not-supported", "operation " + name + " is not supported");
    }
    if (name == "get-config") {
        return GetConfig(op, admin);
    }
    if (name == "get") {
        return Get(op, admin);
    }
    if (name == "edit-config") {
        return EditConfig(op, admin);
    }
    if (name == "copy-config") {
        return CopyConfig(op, admin);
    }
    if (name == "validate") {
        return Validate(op, admin);
    }
    if (name == "lock" || name == "unlock") {
        if (DatastoreOf(op, "target") != "running") {
            return Error("operation-not-supported", "the switch has only the running configuration");
        }
        return Done(name == "lock" ? admin.Lock() : admin.Unlock());
    }
    if (name == "kill-session") {
        return KillSession(op, session);
    }
    if (name == "delete-config") {
        return Error("operation-not-supported", "the running configuration cannot be deleted");
    }
    return Error("operation-not-supported", "operation " + name + " is not supported");
}

Server::Server(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Server::~Server() = default;

std::unique_ptr<Server> Server::Start(const Options &options, std::string *error)
{
    auto impl = std::make_unique<Impl>();
    impl->options = options;
    if (!impl->LoadModules(error)) {
        return nullptr;
    }
    Impl *expected = nullptr;
    if (!g_server.compare_exchange_strong(expected, impl.get())) {
        *error = "a NETCONF server already runs in this process";
        return nullptr;
    }
    // get-schema is answered here (from the module files); libnetconf2
    // installs its own callback only where none is set.
    auto *getSchema = const_cast<struct lysc_node *>(
        lys_find_path(impl->ctx, nullptr, "/ietf-netconf-monitoring:get-schema", 0));
    if (getSchema != nullptr) {
        getSchema->priv = reinterpret_cast<void *>(RpcThunk);
    }
    nc_verbosity(NC_VERB_WARNING);
    nc_set_print_clb_session(PrintThunk);
    if (nc_server_init(impl->ctx) != 0) {
        *error = "cannot start libnetconf2";
        return nullptr;
    }
    impl->initialised = true;
    nc_set_global_rpc_clb(RpcThunk);
    nc_server_set_hello_timeout(kHelloTimeoutSec);
    nc_server_set_idle_timeout(0);
    if (!impl->Listen(error)) {
        return nullptr;
    }
    impl->ps = nc_ps_new();
    Impl *raw = impl.get();
    impl->acceptor = std::thread([raw] { raw->AcceptLoop(); });
    impl->poller = std::thread([raw] { raw->PollLoop(); });
    return std::unique_ptr<Server>(new Server(std::move(impl)));
}

}  // namespace device::netconf
