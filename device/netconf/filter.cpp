// Filters of get and get-config (see filter.hpp).
//
// A subtree filter becomes XPath the way RFC 6241 section 6.2.5 reads it:
// an element with text is a content match (a predicate on its parent), an
// empty element selects its node whole, an element with children is a
// containment node whose other children select further down. The filter
// arrives as anyxml content, whose nodes libyang may keep opaque (no
// schema) or bind to the schema; both are read here.
#include "filter.hpp"

#include "device/yangdb.hpp"

#include <cstdlib>
#include <cstring>
#include <memory>

namespace device::netconf {

namespace {

const char *NameOf(const struct lyd_node *node)
{
    return node->schema != nullptr ? node->schema->name
                                   : reinterpret_cast<const struct lyd_node_opaq *>(node)->name.name;
}

const struct lys_module *ModuleOf(const struct lyd_node *node)
{
    if (node->schema != nullptr) {
        return node->schema->module;
    }
    const char *ns = reinterpret_cast<const struct lyd_node_opaq *>(node)->name.module_ns;
    return ns != nullptr ? ly_ctx_get_module_implemented_ns(LYD_CTX(node), ns) : nullptr;
}

std::string TextOf(const struct lyd_node *node)
{
    const char *text = nullptr;
    if (node->schema == nullptr) {
        text = reinterpret_cast<const struct lyd_node_opaq *>(node)->value;
    } else if ((node->schema->nodetype & LYD_NODE_TERM) != 0) {
        text = lyd_get_value(node);
    }
    std::string out = text != nullptr ? text : "";
    const size_t first = out.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) {
        return "";
    }
    return out.substr(first, out.find_last_not_of(" \t\r\n") - first + 1);
}

// An XPath string literal of text.
std::string Literal(const std::string &text)
{
    if (text.find('\'') == std::string::npos) {
        return "'" + text + "'";
    }
    if (text.find('"') == std::string::npos) {
        return "\"" + text + "\"";
    }
    std::string out = "concat(";
    size_t start = 0;
    for (size_t quote = text.find('\''); quote != std::string::npos; quote = text.find('\'', start)) {
        out += "'" + text.substr(start, quote - start) + "', \"'\", ";
        start = quote + 1;
    }
    return out + "'" + text.substr(start) + "')";
}

// A node's name in a path, prefixed by its module where that differs from
// the parent's (the form the datastore and the agent read keys in).
std::string StepName(const struct lys_module *module, const struct lys_module *parentModule, const char *name)
{
    return module == parentModule ? std::string(name) : std::string(module->name) + ":" + name;
}

void SubtreePaths(const struct lyd_node *node, const struct lys_module *parentModule, const std::string &parentPath,
                  std::vector<std::string> *out)
{
    const struct lys_module *module = ModuleOf(node);
    if (module == nullptr) {
        return;  // an element of no module we serve matches nothing
    }
    const std::string step = parentPath + "/" + StepName(module, parentModule, NameOf(node));
    if (lyd_child(node) == nullptr) {
        const std::string text = TextOf(node);
        out->push_back(text.empty() ? step : step + "[.=" + Literal(text) + "]");
        return;
    }
    std::string predicates;
    std::vector<std::string> matches;
    std::vector<const struct lyd_node *> selections;
    for (const struct lyd_node *child = lyd_child(node); child != nullptr; child = child->next) {
        const std::string text = TextOf(child);
        if (lyd_child(child) != nullptr || text.empty()) {
            selections.push_back(child);
            continue;
        }
        const struct lys_module *childModule = ModuleOf(child);
        if (childModule == nullptr) {
            return;  // a content match on an unknown node can never hold
        }
        const std::string name = StepName(childModule, module, NameOf(child));
        predicates += "[" + name + "=" + Literal(text) + "]";
        matches.push_back(name);
    }
    const std::string selected = step + predicates;
    if (selections.empty()) {
        out->push_back(selected);
        return;
    }
    // Content match nodes come along with the selected siblings.
    for (const std::string &name : matches) {
        out->push_back(selected + "/" + name);
    }
    for (const struct lyd_node *child : selections) {
        SubtreePaths(child, module, selected, out);
    }
}

const struct lyd_meta *FilterMeta(const struct lyd_node *filter, const char *name)
{
    for (const struct lyd_meta *meta = filter->meta; meta != nullptr; meta = meta->next) {
        if (std::strcmp(meta->name, name) == 0) {
            return meta;
        }
    }
    return nullptr;
}

}  // namespace

std::vector<std::string> SubtreeXPaths(const struct lyd_node *filterContent)
{
    std::vector<std::string> out;
    for (const struct lyd_node *node = filterContent; node != nullptr; node = node->next) {
        SubtreePaths(node, nullptr, "", &out);
    }
    return out;
}

bool ReadFilter(const struct lyd_node *op, Selection *selection, std::string *error)
{
    *selection = Selection{};
    const struct lyd_node *filter = nullptr;
    for (const struct lyd_node *child = lyd_child(op); child != nullptr; child = child->next) {
        if (child->schema != nullptr && std::strcmp(child->schema->name, "filter") == 0) {
            filter = child;
        }
    }
    if (filter == nullptr) {
        return true;
    }
    selection->all = false;
    const struct lyd_meta *type = FilterMeta(filter, "type");
    const std::string kind = type != nullptr ? lyd_get_meta_value(type) : "subtree";
    if (kind == "xpath") {
        const struct lyd_meta *select = FilterMeta(filter, "select");
        if (select == nullptr || lyd_get_meta_value(select) == nullptr) {
            *error = "an xpath filter needs its select attribute";
            return false;
        }
        selection->xpaths.push_back(lyd_get_meta_value(select));
        return true;
    }
    if (kind != "subtree") {
        *error = "unknown filter type \"" + kind + "\"";
        return false;
    }
    const auto *any = reinterpret_cast<const struct lyd_node_any *>(filter);
    if (any->value_type == LYD_ANYDATA_DATATREE) {
        selection->xpaths = SubtreeXPaths(any->value.tree);
        return true;
    }
    // Content kept as text: parse it as opaque nodes first.
    char *text = nullptr;
    if (lyd_any_value_str(filter, &text) != LY_SUCCESS) {
        *error = "cannot read the subtree filter";
        return false;
    }
    std::unique_ptr<char, decltype(&std::free)> owned(text, &std::free);
    struct lyd_node *tree = nullptr;
    if (text != nullptr && text[0] != '\0' &&
        lyd_parse_data_mem(LYD_CTX(filter), text, LYD_XML, LYD_PARSE_ONLY | LYD_PARSE_OPAQ, 0, &tree) !=
            LY_SUCCESS) {
        lyd_free_all(tree);
        *error = "cannot read the subtree filter";
        return false;
    }
    selection->xpaths = SubtreeXPaths(tree);
    lyd_free_all(tree);
    return true;
}

bool SelectInto(const struct lyd_node *data, const std::string &xpath, struct lyd_node **result, std::string *error)
{
    if (data == nullptr) {
        return true;
    }
    if (!device::yangdb::XPathEvaluable(xpath, error)) {
        *error = "invalid filter " + xpath + ": " + *error;
        return false;
    }
    struct ly_set *set = nullptr;
    if (lyd_find_xpath(data, xpath.c_str(), &set) != LY_SUCCESS) {
        const char *why = ly_errmsg(LYD_CTX(data));
        *error = "invalid filter " + xpath + (why != nullptr ? std::string(": ") + why : "");
        ly_set_free(set, nullptr);
        return false;
    }
    for (uint32_t i = 0; i < set->count; ++i) {
        struct lyd_node *dup = nullptr;
        if (lyd_dup_single(set->dnodes[i], nullptr, LYD_DUP_RECURSIVE | LYD_DUP_WITH_PARENTS | LYD_DUP_WITH_FLAGS,
                           &dup) != LY_SUCCESS) {
            continue;
        }
        while (dup->parent != nullptr) {
            dup = lyd_parent(dup);
        }
        if (*result == nullptr) {
            *result = dup;
        } else {
            lyd_merge_siblings(result, dup, LYD_MERGE_DESTRUCT);
        }
    }
    ly_set_free(set, nullptr);
    return true;
}

}  // namespace device::netconf
