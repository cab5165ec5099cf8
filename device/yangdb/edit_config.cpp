// Edits with per-node operations, as NETCONF's <edit-config> carries them:
// each node of the edit may name an operation in the attribute "operation"
// of the NETCONF base namespace, and nodes without one inherit their
// parent's (the default operation at the top).
//
//   merge    the node joins the configuration, its children merged in turn
//   replace  the node and its subtree take the place of what was there
//   create   like replace, but the node must not exist yet (data-exists)
//   delete   the node must exist (data-missing) and goes
//   remove   the node goes if it exists
//   none     the node is only a path to operations below it
//
// A node that holds only its default value counts as absent. The result
// is validated in full like every other candidate.
#include "yang_store.hpp"

#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <string_view>

namespace device::yangdb {

namespace {

enum class Op { kNone, kMerge, kReplace, kCreate, kDelete, kRemove };

bool OpFromText(std::string_view text, Op *op)
{
    static constexpr std::pair<std::string_view, Op> kOps[] = {
        {"none", Op::kNone},     {"merge", Op::kMerge},   {"replace", Op::kReplace},
        {"create", Op::kCreate}, {"delete", Op::kDelete}, {"remove", Op::kRemove},
    };
    for (const auto &[name, value] : kOps) {
        if (text == name) {
            *op = value;
            return true;
        }
    }
    return false;
}

// Whether node is configured rather than there by default: a default leaf
// or a non-presence container holding nothing but defaults is not.
bool Explicit(const struct lyd_node *node)
{
    if ((node->flags & LYD_DEFAULT) != 0) {
        return false;
    }
    if (node->schema->nodetype != LYS_CONTAINER || (node->schema->flags & LYS_PRESENCE) != 0) {
        return true;
    }
    for (const struct lyd_node *child = lyd_child(node); child != nullptr; child = child->next) {
        if (Explicit(child)) {
            return true;
        }
    }
    return false;
}

std::string PathOf(const struct lyd_node *node)
{
    char *text = lyd_path(node, LYD_PATH_STD, nullptr, 0);
    std::string path = text != nullptr ? text : "";
    std::free(text);
    return path;
}

// Applies one edit tree to a working copy of the configuration.
class EditApplier {
public:
    struct Failure {
        std::string text;
        std::string tag;
        std::string path;
    };

    explicit EditApplier(struct lyd_node **top) : top_(top) {}

    // Applies the edit siblings from edit onward to the children of parent
    // (null: the top level).
    bool ApplySiblings(const struct lyd_node *edit, struct lyd_node *parent, Op inherited)
    {
        for (const struct lyd_node *node = edit; node != nullptr; node = node->next) {
            if (lysc_is_key(node->schema)) {
                continue;  // a list entry's keys identify it; they are not edited
            }
            if (!ApplyNode(node, parent, inherited)) {
                return false;
            }
        }
        return true;
    }

    const Failure &failure() const
    {
        return failure_;
    }
    // The list entries above the nodes deleted or removed.
    const std::set<std::string> &emptied() const
    {
        return emptied_;
    }

private:
    bool Fail(std::string text, std::string tag, const struct lyd_node *node)
    {
        failure_ = {std::move(text), std::move(tag), PathOf(node)};
        return false;
    }

    bool OperationOf(const struct lyd_node *node, Op inherited, Op *op)
    {
        *op = inherited;
        for (const struct lyd_meta *meta = node->meta; meta != nullptr; meta = meta->next) {
            if (std::strcmp(meta->name, "operation") != 0 ||
                std::strcmp(meta->annotation->module->name, "ietf-netconf") != 0) {
                continue;
            }
            const char *value = lyd_get_meta_value(meta);
            if (!OpFromText(value != nullptr ? value : "", op)) {
                return Fail(std::string("unknown operation \"") + (value != nullptr ? value : "") + "\" at " +
                                PathOf(node),
                            "bad-attribute", node);
            }
        }
        return true;
    }

    struct lyd_node *Find(const struct lyd_node *node, struct lyd_node *parent) const
    {
        struct lyd_node *first = parent != nullptr ? lyd_child(parent) : *top_;
        struct lyd_node *match = nullptr;
        if (first == nullptr) {
            return nullptr;
        }
        // List entries match by their keys, leaf-list entries by value,
        // everything else by the schema node alone.
        const LY_ERR rc = (node->schema->nodetype & (LYS_LIST | LYS_LEAFLIST)) != 0
                              ? lyd_find_sibling_first(first, node, &match)
                              : lyd_find_sibling_val(first, node->schema, nullptr, 0, &match);
        return rc == LY_SUCCESS ? match : nullptr;
    }

    // Frees a node the edit deletes, remembering the list entry it leaves.
    void Delete(struct lyd_node *node)
    {
        if (const struct lyd_node *entry = ListEntryAbove(node); entry != nullptr) {
            emptied_.insert(PathOf(entry));
        }
        Free(node);
    }

    void Free(struct lyd_node *node)
    {
        if (node == *top_) {
            *top_ = node->next;
        }
        lyd_free_tree(node);
    }

    // A copy of node (with its subtree when recursive, a list entry always
    // with its keys), without operation attributes, under parent.
    struct lyd_node *Insert(const struct lyd_node *node, struct lyd_node *parent, bool recursive)
    {
        struct lyd_node *dup = nullptr;
        const uint32_t options = LYD_DUP_NO_META | (recursive ? LYD_DUP_RECURSIVE : 0U);
        if (lyd_dup_single(node, reinterpret_cast<struct lyd_node_inner *>(parent), options, &dup) != LY_SUCCESS) {
            Fail("cannot add " + PathOf(node), "operation-failed", node);
            return nullptr;
        }
        if (parent == nullptr) {
            lyd_insert_sibling(*top_, dup, top_);
        }
        return dup;
    }

    bool ApplyNode(const struct lyd_node *node, struct lyd_node *parent, Op inherited)
    {
        Op op = inherited;
        if (!OperationOf(node, inherited, &op)) {
            return false;
        }
        struct lyd_node *match = Find(node, parent);
        const bool exists = match != nullptr && Explicit(match);
        const bool inner = (node->schema->nodetype & (LYS_CONTAINER | LYS_LIST)) != 0;
        switch (op) {
        case Op::kCreate:
            if (exists) {
                return Fail(PathOf(node) + " already exists", "data-exists", node);
            }
            [[fallthrough]];
        case Op::kReplace:
            if (match != nullptr) {
                Free(match);
            }
            return Insert(node, parent, true) != nullptr;
        case Op::kDelete:
            if (!exists) {
                return Fail(PathOf(node) + " does not exist", "data-missing", node);
            }
            Delete(match);
            return true;
        case Op::kRemove:
            if (exists) {
                Delete(match);
            }
            return true;
        case Op::kMerge:
        case Op::kNone:
            break;
        }
        if (!inner) {
            if (op == Op::kNone) {
                return true;
            }
            if (match == nullptr) {
                return Insert(node, parent, true) != nullptr;
            }
            if ((node->schema->nodetype & LYD_NODE_TERM) == 0) {
                Free(match);
                return Insert(node, parent, true) != nullptr;
            }
            const LY_ERR rc = lyd_change_term(match, lyd_get_value(node));
            if (rc != LY_SUCCESS && rc != LY_EEXIST && rc != LY_ENOT) {
                return Fail("cannot set " + PathOf(node), "invalid-value", node);
            }
            return true;
        }
        const bool created = match == nullptr;
        if (created && (match = Insert(node, parent, false)) == nullptr) {
            return false;
        }
        if (!ApplySiblings(lyd_child(node), match, op)) {
            return false;
        }
        // A node only passed through ("none") is not left behind empty.
        if (created && op == Op::kNone) {
            bool onlyKeys = true;
            for (const struct lyd_node *child = lyd_child(match); child != nullptr; child = child->next) {
                onlyKeys = onlyKeys && lysc_is_key(child->schema);
            }
            if (onlyKeys) {
                Free(match);
            }
        }
        return true;
    }

    struct lyd_node **top_;
    Failure failure_;
    std::set<std::string> emptied_;
};

}  // namespace

bool YangStore::EditConfigCandidate(std::string_view xml, const std::string &defaultOperation, Tree *candidate,
                                    std::string *error)
{
    Op inherited = Op::kMerge;
    if (defaultOperation != "merge" && defaultOperation != "replace" && defaultOperation != "none") {
        *error = "unknown default operation \"" + defaultOperation + "\"";
        SetError("invalid-value", "");
        return false;
    }
    OpFromText(defaultOperation, &inherited);
    if (ly_ctx_get_module_implemented(ctx_, "ietf-netconf") == nullptr) {
        *error = "the datastore has no ietf-netconf module for per-node operations";
        SetError("operation-not-supported", "");
        return false;
    }
    const std::string text(xml);
    struct lyd_node *rawEdit = nullptr;
    if (lyd_parse_data_mem(ctx_, text.c_str(), LYD_XML, LYD_PARSE_STRICT | LYD_PARSE_ONLY | LYD_PARSE_NO_STATE, 0,
                           &rawEdit) != LY_SUCCESS) {
        lyd_free_all(rawEdit);
        *error = TakeErrors("invalid data");
        return false;
    }
    const Tree edit(rawEdit);
    struct lyd_node *dup = nullptr;
    if (running_ != nullptr) {
        lyd_dup_siblings(running_.get(), nullptr, LYD_DUP_RECURSIVE | LYD_DUP_WITH_FLAGS, &dup);
    }
    EditApplier applier(&dup);
    const bool applied = applier.ApplySiblings(edit.get(), nullptr, inherited);
    Tree result(dup);
    if (!applied) {
        *error = applier.failure().text;
        SetError(applier.failure().tag, applier.failure().path);
        return false;
    }
    struct lyd_node *tree = result.release();
    for (const std::string &entry : applier.emptied()) {
        PruneEmptyEntries(&tree, entry);
    }
    const LY_ERR rc = lyd_validate_all(&tree, ctx_, LYD_VALIDATE_NO_STATE, nullptr);
    result.reset(tree);
    if (rc != LY_SUCCESS) {
        *error = TakeErrors("invalid data");
        return false;
    }
    *candidate = std::move(result);
    return true;
}

}  // namespace device::yangdb
