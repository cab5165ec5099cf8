// What a <get> or <get-config> asks for: its filter (subtree or XPath,
// RFC 6241 section 6) as XPath expressions over the data, and the
// selection of those expressions from a data tree.
#pragma once

#include <libyang/libyang.h>

#include <string>
#include <vector>

namespace device::netconf {

struct Selection {
    bool all = true;                  // no filter: all the data
    std::vector<std::string> xpaths;  // else the union of these (none selects nothing)
};

// Reads the filter of a get or get-config operation node. False with *error
// when the filter is of an unknown type or lacks its expression.
bool ReadFilter(const struct lyd_node *op, Selection *selection, std::string *error);

// The XPath expressions a subtree filter's top elements stand for.
std::vector<std::string> SubtreeXPaths(const struct lyd_node *filterContent);

// Adds the nodes of data that xpath selects, with their ancestors (list
// entries with their keys), to *result. False with *error for a bad xpath.
bool SelectInto(const struct lyd_node *data, const std::string &xpath, struct lyd_node **result, std::string *error);

}  // namespace device::netconf
