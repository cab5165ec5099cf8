// The running configuration in libyang (see yang_store.hpp).
#include "yang_store.hpp"

#include "device/yangdb.hpp"

#include <platform/fail_point.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <set>

namespace device::yangdb {

namespace {

// Text libyang allocated with malloc, freed when it goes out of scope.
struct CText {
    char *text = nullptr;
    ~CText()
    {
        std::free(text);
    }
    std::string str() const
    {
        return text != nullptr ? std::string(text) : std::string();
    }
};

struct SetFree {
    void operator()(struct ly_set *set) const
    {
        ly_set_free(set, nullptr);
    }
};
using Set = std::unique_ptr<struct ly_set, SetFree>;

Tree Duplicate(const struct lyd_node *tree)
{
    struct lyd_node *dup = nullptr;
    if (tree != nullptr) {
        lyd_dup_siblings(tree, nullptr, LYD_DUP_RECURSIVE | LYD_DUP_WITH_FLAGS, &dup);
    }
    return Tree(dup);
}

constexpr mode_t kStoreFileMode = 0600;

bool WriteFileAtomically(const std::string &path, const std::string &text, std::string *error)
{
    const std::string temp = path + ".tmp";
    // The owner's alone whatever the umask, also when a temporary file of
    // another mode was left behind.
    int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kStoreFileMode);
    if (fd >= 0 && ::fchmod(fd, kStoreFileMode) != 0) {
        ::close(fd);
        fd = -1;
    }
    if (fd < 0) {
        *error = "cannot save the configuration: " + temp + ": " + std::strerror(errno);
        return false;
    }
    const char *data = text.data();
    size_t left = text.size();
    bool ok = true;
    while (left > 0) {
        ssize_t n = ::write(fd, data, left);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            ok = false;
            break;
        }
        data += n;
        left -= static_cast<size_t>(n);
    }
    ok = ok && ::fsync(fd) == 0;
    int saved = errno;
    ok = (::close(fd) == 0) && ok;
    if (ok && ::rename(temp.c_str(), path.c_str()) != 0) {
        saved = errno;
        ok = false;
    }
    if (!ok) {
        ::unlink(temp.c_str());
        *error = "cannot save the configuration: " + path + ": " + std::strerror(saved);
        return false;
    }
    // The rename itself lasts once the folder is on disk.
    std::string dir = std::filesystem::path(path).parent_path().string();
    int dirFd = ::open(dir.empty() ? "." : dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd >= 0) {
        ::fsync(dirFd);
        ::close(dirFd);
    }
    return true;
}

// The node path of a libyang error location ("Data location \"/a/b\", line
// number 1." gives /a/b).
std::string Location(const char *path)
{
    if (path == nullptr) {
        return "";
    }
    std::string_view text(path);
    size_t open = text.find('"');
    size_t close = open == std::string_view::npos ? open : text.find('"', open + 1);
    if (close == std::string_view::npos) {
        return std::string(text);
    }
    return std::string(text.substr(open + 1, close - open - 1));
}

// Whether node carries no data of its own: only its list keys, default
// values and non-presence containers that carry nothing either.
bool CarriesNothing(const struct lyd_node *node)
{
    const struct lyd_node *child = nullptr;
    LY_LIST_FOR(lyd_child_no_keys(node), child)
    {
        if ((child->flags & LYD_DEFAULT) != 0) {
            continue;
        }
        const bool plainContainer =
            child->schema->nodetype == LYS_CONTAINER && (child->schema->flags & LYS_PRESENCE) == 0;
        if (!plainContainer || !CarriesNothing(child)) {
            return false;
        }
    }
    return true;
}

// The NETCONF error-tag that fits a libyang error: constraint violations
// (must, unique, element counts) fail the operation, a missing instance or
// mandatory node is missing data, an unknown node is an unknown element,
// anything else about a value is an invalid value.
std::string ErrorTag(const struct ly_err_item *e)
{
    const std::string appTag = e->apptag != nullptr ? e->apptag : "";
    const std::string_view msg = e->msg != nullptr ? e->msg : "";
    if (appTag == "instance-required" || appTag == "missing-choice" || msg.rfind("Mandatory node", 0) == 0) {
        return "data-missing";
    }
    if (!appTag.empty()) {
        return "operation-failed";
    }
    if (e->vecode == LYVE_SYNTAX_XML || e->vecode == LYVE_SYNTAX) {
        return "malformed-message";
    }
    if (msg.find("not found") != std::string_view::npos) {
        return "unknown-element";
    }
    return "invalid-value";
}

}  // namespace

struct lyd_node *ListEntryAbove(const struct lyd_node *node)
{
    struct lyd_node *up = lyd_parent(node);
    while (up != nullptr && up->schema->nodetype != LYS_LIST) {
        up = lyd_parent(up);
    }
    return up;
}

void PruneEmptyEntries(struct lyd_node **tree, const std::string &path)
{
    struct lyd_node *entry = nullptr;
    if (lyd_find_path(*tree, path.c_str(), 0, &entry) != LY_SUCCESS) {
        return;
    }
    while (entry != nullptr && CarriesNothing(entry)) {
        struct lyd_node *above = ListEntryAbove(entry);
        if (entry == *tree) {
            *tree = (*tree)->next;
        }
        lyd_free_tree(entry);
        entry = above;
    }
}

std::string SchemaPathOf(std::string_view path)
{
    std::string out;
    int depth = 0;
    char quote = 0;
    for (char c : path) {
        if (quote != 0) {
            if (c == quote) {
                quote = 0;
            }
            continue;
        }
        if (depth > 0 && (c == '\'' || c == '"')) {
            quote = c;
        } else if (c == '[') {
            ++depth;
        } else if (c == ']') {
            depth = depth > 0 ? depth - 1 : 0;
        } else if (depth == 0) {
            out += c;
        }
    }
    return out;
}

YangStore::~YangStore()
{
    running_.reset();
    ly_ctx_destroy(ctx_);
}

std::string YangStore::TakeErrors(const std::string &what) const
{
    std::string out;
    lastError_ = {"operation-failed", ""};
    for (const struct ly_err_item *e = ly_err_first(ctx_); e != nullptr; e = e->next) {
        if (e->msg == nullptr) {
            continue;
        }
        std::string line = what + ": " + e->msg;
        const std::string where = Location(e->path);
        if (out.empty()) {
            lastError_ = {ErrorTag(e), where};
        }
        if (!where.empty() && line.find(where) == std::string::npos) {
            line += " (at " + where + ")";
        }
        if (out.find(line) == std::string::npos) {
            out += out.empty() ? "" : "\n";
            out += line;
        }
    }
    ly_err_clean(ctx_, nullptr);
    return out.empty() ? what : out;
}

bool YangStore::Open(const std::string &yangDir, const std::string &storePath, std::string *error)
{
    static std::once_flag logOnce;
    // Errors are collected per request and returned to the caller, not printed.
    std::call_once(logOnce, [] { ly_log_options(LY_LOSTORE); });
    storePath_ = storePath;
    if (ly_ctx_new(yangDir.c_str(), LY_CTX_NO_YANGLIBRARY | LY_CTX_DISABLE_SEARCHDIR_CWD, &ctx_) != LY_SUCCESS) {
        *error = "cannot load the YANG modules of " + yangDir;
        return false;
    }
    std::error_code ec;
    bool any = false;
    for (const auto &entry : std::filesystem::directory_iterator(yangDir, ec)) {
        if (entry.path().extension() != ".yang") {
            continue;
        }
        struct lys_module *module = nullptr;
        if (lys_parse_path(ctx_, entry.path().c_str(), LYS_IN_YANG, &module) != LY_SUCCESS) {
            *error = TakeErrors("cannot load " + entry.path().string());
            return false;
        }
        any = true;
    }
    if (ec || !any) {
        *error = "no YANG modules in " + yangDir;
        return false;
    }
    // The NETCONF base module, when its folder is there, gives edits their
    // per-node operation attribute.
    const std::string ietfDir = yangDir + "/ietf";
    if (std::filesystem::is_directory(ietfDir, ec)) {
        static const char *features[] = {"writable-running", "rollback-on-error", "validate", "xpath", nullptr};
        if (ly_ctx_set_searchdir(ctx_, ietfDir.c_str()) != LY_SUCCESS ||
            ly_ctx_load_module(ctx_, "ietf-netconf", nullptr, features) == nullptr) {
            *error = TakeErrors("cannot load ietf-netconf from " + ietfDir);
            return false;
        }
    }

    struct lyd_node *tree = nullptr;
    if (std::filesystem::exists(storePath, ec)) {
        if (lyd_parse_data_path(ctx_, storePath.c_str(), LYD_XML, LYD_PARSE_STRICT, LYD_VALIDATE_NO_STATE, &tree) !=
            LY_SUCCESS) {
            lyd_free_all(tree);
            *error = TakeErrors("invalid stored configuration " + storePath);
            return false;
        }
    }
    // Validation adds the default nodes, so every non-presence container exists.
    if (lyd_validate_all(&tree, ctx_, LYD_VALIDATE_NO_STATE, nullptr) != LY_SUCCESS) {
        lyd_free_all(tree);
        *error = TakeErrors("invalid stored configuration " + storePath);
        return false;
    }
    running_.reset(tree);
    return true;
}

bool YangStore::EditCandidate(std::string_view xml, bool replace, Tree *candidate, std::string *error)
{
    struct lyd_node *edit = nullptr;
    const std::string text(xml);
    if (lyd_parse_data_mem(ctx_, text.c_str(), LYD_XML, LYD_PARSE_STRICT | LYD_PARSE_ONLY | LYD_PARSE_NO_STATE, 0,
                           &edit) != LY_SUCCESS) {
        lyd_free_all(edit);
        *error = TakeErrors("invalid data");
        return false;
    }
    Tree result;
    if (replace) {
        result.reset(edit);
    } else {
        result = Duplicate(running_.get());
        struct lyd_node *merged = result.release();
        LY_ERR rc = edit != nullptr ? lyd_merge_siblings(&merged, edit, LYD_MERGE_DESTRUCT) : LY_SUCCESS;
        result.reset(merged);
        if (rc != LY_SUCCESS) {
            *error = TakeErrors("cannot merge the data");
            return false;
        }
    }
    struct lyd_node *tree = result.release();
    LY_ERR rc = lyd_validate_all(&tree, ctx_, LYD_VALIDATE_NO_STATE, nullptr);
    result.reset(tree);
    if (rc != LY_SUCCESS) {
        *error = TakeErrors("invalid data");
        return false;
    }
    *candidate = std::move(result);
    return true;
}

bool YangStore::DeleteCandidate(std::string_view path, Tree *candidate, std::string *error)
{
    const std::string text(path);
    std::string unsafe;
    if (!XPathEvaluable(text, &unsafe)) {
        *error = unsafe + ": " + text;
        SetError("invalid-value", text);
        return false;
    }
    if (FindSchema(text) == nullptr) {
        ly_err_clean(ctx_, nullptr);
        *error = "unknown path " + text;
        SetError("invalid-value", text);
        return false;
    }
    Tree result = Duplicate(running_.get());
    struct ly_set *raw = nullptr;
    if (result == nullptr || lyd_find_xpath(result.get(), text.c_str(), &raw) != LY_SUCCESS) {
        ly_set_free(raw, nullptr);
        ly_err_clean(ctx_, nullptr);
        *error = "no data at " + text;
        SetError("data-missing", text);
        return false;
    }
    Set set(raw);
    std::vector<struct lyd_node *> doomed;
    for (uint32_t i = 0; i < set->count; ++i) {
        struct lyd_node *node = set->dnodes[i];
        if (lysc_is_key(node->schema)) {
            *error = "cannot delete the list key " + text + ": delete the list entry";
            SetError("operation-failed", text);
            return false;
        }
        // Defaults are not data of their own: deleting them changes nothing.
        if ((node->flags & LYD_DEFAULT) == 0) {
            doomed.push_back(node);
        }
    }
    // A node whose ancestor goes too goes with it.
    std::erase_if(doomed, [&doomed](const struct lyd_node *node) {
        for (const struct lyd_node *up = lyd_parent(node); up != nullptr; up = lyd_parent(up)) {
            if (std::find(doomed.begin(), doomed.end(), up) != doomed.end()) {
                return true;
            }
        }
        return false;
    });
    if (doomed.empty()) {
        *error = "no data at " + text;
        SetError("data-missing", text);
        return false;
    }
    std::set<std::string> entries;  // list entries that may be left empty
    for (const struct lyd_node *node : doomed) {
        if (const struct lyd_node *entry = ListEntryAbove(node); entry != nullptr) {
            CText entryPath{lyd_path(entry, LYD_PATH_STD, nullptr, 0)};
            entries.insert(entryPath.str());
        }
    }
    struct lyd_node *tree = result.release();
    for (struct lyd_node *node : doomed) {
        if (node == tree) {
            tree = tree->next;
        }
        lyd_free_tree(node);
    }
    for (const std::string &entry : entries) {
        PruneEmptyEntries(&tree, entry);
    }
    LY_ERR rc = lyd_validate_all(&tree, ctx_, LYD_VALIDATE_NO_STATE, nullptr);
    result.reset(tree);
    if (rc != LY_SUCCESS) {
        *error = TakeErrors("invalid data");
        return false;
    }
    *candidate = std::move(result);
    return true;
}

bool YangStore::Save(const struct lyd_node *tree, std::string *error) const
{
    // Failure injection: the code is taken as the errno of the write.
    if (const auto failed = platform::FailPoint(kSaveOp)) {
        *error = "cannot save the configuration: " + storePath_ + ": " + std::strerror(static_cast<int>(*failed));
        return false;
    }
    return WriteFileAtomically(storePath_, PrintExplicit(tree), error);
}

std::vector<Instance> YangStore::Instances(const struct lyd_node *tree, const std::string &schemaPath) const
{
    std::vector<Instance> out;
    struct ly_set *raw = nullptr;
    if (tree == nullptr || lyd_find_xpath(tree, schemaPath.c_str(), &raw) != LY_SUCCESS) {
        ly_set_free(raw, nullptr);
        ly_err_clean(ctx_, nullptr);
        return out;
    }
    Set set(raw);
    for (uint32_t i = 0; i < set->count; ++i) {
        const struct lyd_node *node = set->dnodes[i];
        CText path{lyd_path(node, LYD_PATH_STD, nullptr, 0)};
        CText xml;
        lyd_print_mem(&xml.text, node, LYD_XML, LYD_PRINT_SHRINK | LYD_PRINT_WD_ALL);
        out.push_back({path.str(), xml.str()});
    }
    return out;
}

const struct lysc_node *YangStore::FindSchema(std::string_view path) const
{
    const std::string schemaPath = SchemaPathOf(path);
    if (schemaPath.empty() || schemaPath[0] != '/') {
        return nullptr;
    }
    const struct lysc_node *node = lys_find_path(ctx_, nullptr, schemaPath.c_str(), 0);
    ly_err_clean(ctx_, nullptr);
    return node;
}

bool YangStore::AnsweredPerKey(const struct lysc_node *node)
{
    if (node == nullptr || node->nodetype != LYS_LIST) {
        return false;
    }
    LY_ARRAY_COUNT_TYPE i = 0;
    LY_ARRAY_FOR(node->exts, i)
    {
        const struct lysc_ext *def = node->exts[i].def;
        if (def != nullptr && def->name != nullptr && std::strcmp(def->name, "answered-per-key") == 0) {
            return true;
        }
    }
    return false;
}

std::string YangStore::WithKeyPlaceholders(const std::string &path, const struct lysc_node *list)
{
    std::string out = path;
    for (const struct lysc_node *child = lysc_node_child(list); child != nullptr && lysc_is_key(child);
         child = child->next) {
        out += "[" + std::string(child->name) + "='...']";
    }
    return out;
}

bool YangStore::CheckSubscription(const std::string &path, uint32_t kind, std::string *error) const
{
    if (path.find('[') != std::string::npos) {
        *error = "subscription path " + path + " must not carry list keys";
        return false;
    }
    const struct lysc_node *node = FindSchema(path);
    if (node == nullptr) {
        *error = "unknown path " + path;
        return false;
    }
    const bool operation = (node->nodetype & (LYS_RPC | LYS_ACTION)) != 0;
    if (kind == 2 && !operation) {
        *error = path + " is not an operation";
        return false;
    }
    if (kind == 0 && (operation || (node->flags & LYS_CONFIG_W) == 0)) {
        *error = path + " is not configuration data";
        return false;
    }
    if (kind == 1 && operation) {
        *error = path + " is an operation, not data";
        return false;
    }
    if (kind > 2) {
        *error = "unknown subscription kind " + std::to_string(kind);
        return false;
    }
    return true;
}

bool YangStore::SelectConfig(std::string_view path, Tree *result, std::string *error) const
{
    const std::string text(path);
    struct ly_set *raw = nullptr;
    if (!XPathEvaluable(text, error)) {
        *error += ": " + text;
        return false;
    }
    if (running_ == nullptr) {
        result->reset();
        return true;
    }
    if (lyd_find_xpath(running_.get(), text.c_str(), &raw) != LY_SUCCESS) {
        ly_set_free(raw, nullptr);
        *error = TakeErrors("invalid path " + text);
        return false;
    }
    Set set(raw);
    Tree out;
    for (uint32_t i = 0; i < set->count; ++i) {
        struct lyd_node *dup = nullptr;
        if (lyd_dup_single(set->dnodes[i], nullptr, LYD_DUP_RECURSIVE | LYD_DUP_WITH_PARENTS | LYD_DUP_WITH_FLAGS,
                           &dup) != LY_SUCCESS) {
            continue;
        }
        while (dup->parent != nullptr) {
            dup = lyd_parent(dup);
        }
        Merge(&out, Tree(dup));
    }
    *result = std::move(out);
    return true;
}

Tree YangStore::ParseState(const std::string &xml) const
{
    struct lyd_node *tree = nullptr;
    if (lyd_parse_data_mem(ctx_, xml.c_str(), LYD_XML, LYD_PARSE_ONLY, 0, &tree) != LY_SUCCESS) {
        lyd_free_all(tree);
        ly_err_clean(ctx_, nullptr);
        return nullptr;
    }
    ly_err_clean(ctx_, nullptr);
    return Tree(tree);
}

void YangStore::Merge(Tree *into, Tree from)
{
    if (from == nullptr) {
        return;
    }
    if (*into == nullptr) {
        *into = std::move(from);
        return;
    }
    struct lyd_node *target = into->release();
    lyd_merge_siblings(&target, from.release(), LYD_MERGE_DESTRUCT);
    into->reset(target);
}

std::string YangStore::PrintAll(const struct lyd_node *tree)
{
    CText text;
    if (tree != nullptr) {
        lyd_print_mem(&text.text, tree, LYD_XML, LYD_PRINT_WITHSIBLINGS | LYD_PRINT_WD_ALL);
    }
    return text.str();
}

std::string YangStore::PrintExplicit(const struct lyd_node *tree)
{
    CText text;
    if (tree != nullptr) {
        lyd_print_mem(&text.text, tree, LYD_XML, LYD_PRINT_WITHSIBLINGS | LYD_PRINT_WD_EXPLICIT);
    }
    return text.str();
}

bool YangStore::ParseRpc(std::string_view xml, std::string *opPath, std::string *input, std::string *error) const
{
    const std::string text(xml);
    struct ly_in *in = nullptr;
    if (ly_in_new_memory(text.c_str(), &in) != LY_SUCCESS) {
        *error = "cannot read the operation input";
        return false;
    }
    struct lyd_node *rawTree = nullptr;
    struct lyd_node *op = nullptr;
    LY_ERR rc = lyd_parse_op(ctx_, nullptr, in, LYD_XML, LYD_TYPE_RPC_YANG, &rawTree, &op);
    ly_in_free(in, 0);
    Tree tree(rawTree);
    if (rc != LY_SUCCESS || op == nullptr) {
        *error = TakeErrors("invalid operation input");
        return false;
    }
    if (lyd_validate_op(tree.get(), nullptr, LYD_TYPE_RPC_YANG, nullptr) != LY_SUCCESS) {
        *error = TakeErrors("invalid operation input");
        return false;
    }
    CText path{lysc_path(op->schema, LYSC_PATH_DATA, nullptr, 0)};
    CText printed;
    lyd_print_mem(&printed.text, op, LYD_XML, LYD_PRINT_SHRINK);
    *opPath = path.str();
    *input = printed.str();
    return true;
}

}  // namespace device::yangdb
