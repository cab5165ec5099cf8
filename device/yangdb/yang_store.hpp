// The datastore's YANG side: the modules loaded into libyang, the running
// configuration as a data tree, candidate trees built from edits and
// validated in full, instances of subscribed paths printed with their
// defaults, the stored file. Used by one thread at a time (the server's
// worker), as libyang keeps its error list per thread and context.
#pragma once

#include <libyang/libyang.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace device::yangdb {

struct TreeFree {
    void operator()(struct lyd_node *tree) const
    {
        lyd_free_all(tree);
    }
};
using Tree = std::unique_ptr<struct lyd_node, TreeFree>;

// One instance of a schema path in a data tree.
struct Instance {
    std::string path;  // instance path, keys as [k='v']
    std::string xml;   // the subtree rooted at the instance, with default values
};

// Names under which the platform's failure injection reaches the datastore:
// saving the configuration (the code is the errno reported), starting the
// server and connecting a management session.
inline constexpr const char kSaveOp[] = "device::yangdb::Save";
inline constexpr const char kStartOp[] = "device::yangdb::Server::Start";
inline constexpr const char kConnectOp[] = "device::yangdb::Admin::Connect";

class YangStore {
public:
    YangStore() = default;
    ~YangStore();
    YangStore(const YangStore &) = delete;
    YangStore &operator=(const YangStore &) = delete;

    // Loads every module of yangDir and the configuration stored at
    // storePath (missing file: empty configuration). False with *error.
    bool Open(const std::string &yangDir, const std::string &storePath, std::string *error);

    const struct lyd_node *Running() const
    {
        return running_.get();
    }
    // Makes a validated candidate the running configuration.
    void Commit(Tree candidate)
    {
        running_ = std::move(candidate);
    }

    // The running configuration with xml merged into it (or replaced by
    // it), validated in full. False with *error naming the node.
    bool EditCandidate(std::string_view xml, bool replace, Tree *candidate, std::string *error);
    // The running configuration without the data at an instance path.
    bool DeleteCandidate(std::string_view path, Tree *candidate, std::string *error);
    // Writes tree to the store file atomically (temporary file, fsync, rename).
    bool Save(const struct lyd_node *tree, std::string *error) const;

    // Instances of a schema path in tree, in document order.
    std::vector<Instance> Instances(const struct lyd_node *tree, const std::string &schemaPath) const;

    // The schema node of a path (list predicates ignored), or null.
    const struct lysc_node *FindSchema(std::string_view path) const;
    // Whether the model marks node a list answered per key (extension
    // answered-per-key): it has entries only for the key a request names.
    static bool AnsweredPerKey(const struct lysc_node *node);
    // "path[k1='...'][k2='...']" for a list's schema path and its keys.
    static std::string WithKeyPlaceholders(const std::string &path, const struct lysc_node *list);
    // Checks a subscription path against the model for its kind
    // (0 configuration, 1 get, 2 operation).
    bool CheckSubscription(const std::string &path, uint32_t kind, std::string *error) const;

    // Configuration data at path, as a tree rooted at the top (parents
    // included); null tree when nothing is there. False on a bad path.
    bool SelectConfig(std::string_view path, Tree *result, std::string *error) const;
    // Parses a subscriber's state reply without validating it; null when
    // it does not parse.
    Tree ParseState(const std::string &xml) const;
    // Moves the nodes of from into *into.
    static void Merge(Tree *into, Tree from);
    // Pretty XML of a tree and its siblings, defaults included.
    static std::string PrintAll(const struct lyd_node *tree);
    // Pretty XML of the explicit configuration (what is saved and exported).
    static std::string PrintExplicit(const struct lyd_node *tree);

    // Parses and validates an operation's input rooted at the operation
    // element; *opPath is its schema path, *input its canonical XML.
    bool ParseRpc(std::string_view xml, std::string *opPath, std::string *input, std::string *error) const;

    // libyang's errors since the last call, one per line with their data
    // paths, prefixed by what; then cleared. The first error's kind and
    // path become LastError.
    std::string TakeErrors(const std::string &what) const;

    // The kind (a NETCONF error-tag) and data path of the last failure of
    // a candidate or a parse.
    struct ErrorInfo {
        std::string tag;
        std::string path;
    };
    const ErrorInfo &LastError() const
    {
        return lastError_;
    }

    // The running configuration changed by an edit whose nodes may carry
    // the NETCONF operation attribute (merge, replace, create, delete,
    // remove); defaultOperation (merge, replace, none) applies to nodes
    // without one. Validated in full. False with *error (see LastError).
    bool EditConfigCandidate(std::string_view xml, const std::string &defaultOperation, Tree *candidate,
                             std::string *error);

private:
    void SetError(std::string tag, std::string path) const
    {
        lastError_ = {std::move(tag), std::move(path)};
    }

    struct ly_ctx *ctx_ = nullptr;
    mutable ErrorInfo lastError_;
    Tree running_;
    std::string storePath_;
};

// A path with its list predicates removed: the schema path it names.
std::string SchemaPathOf(std::string_view path);

// The nearest list entry above node, or null.
struct lyd_node *ListEntryAbove(const struct lyd_node *node);
// Removes the list entry at entryPath, and each list entry above it, that
// a delete left without data of its own (an interface whose last setting
// went): such an entry configures nothing.
void PruneEmptyEntries(struct lyd_node **tree, const std::string &entryPath);

}  // namespace device::yangdb
