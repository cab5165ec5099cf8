// Reading the datastore's XML replies in pppoe-plus-cli: a libxml2
// document freed on every path and the few walks the replies need.
#pragma once

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace pplus_cli::xml {

struct DocFree {
    void operator()(xmlDoc *doc) const { xmlFreeDoc(doc); }
};
using Doc = std::unique_ptr<xmlDoc, DocFree>;

// The document of a reply, or null when it is no XML; no network, no
// messages on the terminal.
inline Doc Read(std::string_view text)
{
    return Doc(xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, "utf-8",
                             XML_PARSE_NOBLANKS | XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
}

inline std::string Name(const xmlNode *node)
{
    return node->name == nullptr ? "" : reinterpret_cast<const char *>(node->name);
}

inline std::string Text(const xmlNode *node)
{
    xmlChar *content = xmlNodeGetContent(node);
    std::string text = content == nullptr ? "" : reinterpret_cast<const char *>(content);
    xmlFree(content);
    return text;
}

inline std::vector<const xmlNode *> Children(const xmlNode *parent, std::string_view name)
{
    std::vector<const xmlNode *> found;
    for (const xmlNode *child = parent == nullptr ? nullptr : parent->children; child != nullptr;
         child = child->next) {
        if (child->type == XML_ELEMENT_NODE && Name(child) == name) {
            found.push_back(child);
        }
    }
    return found;
}

inline const xmlNode *Child(const xmlNode *parent, std::string_view name)
{
    const auto found = Children(parent, name);
    return found.empty() ? nullptr : found.front();
}

inline std::string ChildText(const xmlNode *parent, std::string_view name)
{
    const xmlNode *child = Child(parent, name);
    return child == nullptr ? "" : Text(child);
}

}  // namespace pplus_cli::xml
