// The short forms of pppoe-plus-cli in terms of the agent's YANG model.
#include "agent_requests.hpp"

#include <array>
#include <memory>
#include <sstream>
#include <vector>

#include "xml_reader.hpp"

namespace pplus_cli {

namespace {

constexpr std::string_view kRoot = "/quendal-pppoe-plus:pppoe-plus";

std::string Leaf(std::string_view name, std::string_view value)
{
    std::string out;
    out.append("<").append(name).append(">").append(XmlEscape(value)).append("</").append(name).append(">");
    return out;
}

std::string Global(std::string_view container, std::string_view leaves)
{
    std::string out = "<pppoe-plus xmlns=\"";
    out.append(kAgentNs).append("\"><").append(container).append(">").append(leaves);
    out.append("</").append(container).append("></pppoe-plus>");
    return out;
}

// body: the XML inside the interface's pppoe-plus-port container.
std::string OnPort(std::string_view ifName, std::string_view body)
{
    std::string out = "<ifm xmlns=\"";
    out.append(kIfmNs).append("\"><interfaces><interface>").append(Leaf("name", ifName));
    out.append("<pppoe-plus-port xmlns=\"").append(kAgentNs).append("\">").append(body);
    out.append("</pppoe-plus-port></interface></interfaces></ifm>");
    return out;
}

std::string Wrap(std::string_view element, std::string_view body)
{
    std::string out;
    out.append("<").append(element).append(">").append(body).append("</").append(element).append(">");
    return out;
}

// A path key value in single quotes, or double quotes when it holds one.
std::string Quoted(std::string_view value)
{
    const char quote = value.find('\'') == std::string_view::npos ? '\'' : '"';
    return std::string(1, quote) + std::string(value) + quote;
}

std::string EncapType(std::string_view which)
{
    return which == "rid" ? "remote-id" : "circuit-id";
}

using xml::Child;
using xml::Children;
using xml::ChildText;
using xml::Doc;
using xml::Name;

// The agent's reply element, null when the reply is something else.
const xmlNode *AgentRoot(const Doc &doc)
{
    const xmlNode *root = doc == nullptr ? nullptr : xmlDocGetRootElement(doc.get());
    return root != nullptr && Name(root) == "pppoe-plus" ? root : nullptr;
}

std::string Column(std::string text, size_t width)
{
    if (text.size() < width) {
        text.insert(0, width - text.size(), ' ');
    }
    return text;
}

std::string StatisticsTable(const xmlNode *stats)
{
    static constexpr std::array<std::string_view, 10> kCounters = {
        "padi-receive-packets", "padi-send-packets", "pado-receive-packets", "pado-send-packets",
        "padr-receive-packets", "padr-send-packets", "pads-receive-packets", "pads-send-packets",
        "padt-receive-packets", "padt-send-packets"};
    const auto rows = Children(stats, "query-table");
    size_t nameWidth = 9;
    for (const xmlNode *row : rows) {
        nameWidth = std::max(nameWidth, ChildText(row, "interface-name").size());
    }
    std::ostringstream out;
    out << "interface" << std::string(nameWidth - 9, ' ')
        << "  PADI-in PADI-out  PADO-in PADO-out  PADR-in PADR-out  PADS-in PADS-out  PADT-in PADT-out  discarded\n";
    for (const xmlNode *row : rows) {
        std::string name = ChildText(row, "interface-name");
        out << name << std::string(nameWidth - name.size(), ' ');
        for (size_t i = 0; i < kCounters.size(); i++) {
            out << (i % 2 == 0 ? "  " : " ") << Column(ChildText(row, kCounters[i]), 8);
        }
        out << "  " << Column(ChildText(row, "discarded-packets"), 9) << "\n";
    }
    if (rows.empty()) {
        out << "(no port has counters yet)\n";
    }
    out << "(*T): trusted port\n";
    return out.str();
}

std::string Named(std::string_view code, std::initializer_list<std::string_view> names)
{
    uint32_t value = 0;
    for (char c : code) {
        if (c < '0' || c > '9') {
            return std::string(code);
        }
        value = value * 10 + static_cast<uint32_t>(c - '0');
    }
    if (value == 0 || value > names.size()) {
        return std::string(code);
    }
    return std::string(names.begin()[value - 1]) + " (" + std::string(code) + ")";
}

// What each format-check result means.
constexpr std::array<std::string_view, 20> kCheckResults = {
    "well formed",
    "internal error: unreadable keyword or width",
    "\"%\" not followed by a keyword",
    "backslash before a character that needs no escape",
    "optional part with more than one keyword",
    "optional keyword other than svlan or cvlan",
    "\"[\" inside an optional part",
    "optional part without a keyword",
    "quote or bracket left open or closed twice",
    "two keywords without a delimiter",
    "optional part repeated right after itself",
    "shortest identifier longer than 256 bytes",
    "closing quote before the end",
    "two adjacent double quotes",
    "hexadecimal part: not a digit, blank or keyword",
    "hexadecimal part: number above 4294967295",
    "hexadecimal part: keyword that exists only in ASCII",
    "hexadecimal part: bit count not a multiple of 8",
    "more than one length keyword",
    "format ends with a length keyword",
};

}  // namespace

std::string XmlEscape(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        switch (c) {
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '"': out += "&quot;"; break;
            case '\'': out += "&apos;"; break;
            default: out += c;
        }
    }
    return out;
}

std::string EnableXml(bool enable)
{
    return Global("global-enable", Leaf("enable", enable ? "true" : "false"));
}

std::string GlobalPolicyXml(std::string_view policy)
{
    return Global("global-tags-policy", Leaf("tags-policy", policy));
}

std::string VendorIdXml(uint32_t vendorId)
{
    return Global("vendor-id", Leaf("vendor-id", std::to_string(vendorId)));
}

std::string EncapsulationXml(std::string_view encapsulation)
{
    return Global("global-encapsulation-type", Leaf("global-encapsulation", encapsulation));
}

std::string IgnoreReplyXml(bool on)
{
    return Global("global-ignore-policy", Leaf("ignore-policy", on ? "false" : "true"));
}

std::string GlobalFormatXml(std::string_view which, std::string_view format, std::string_view text)
{
    const std::string prefix(which == "rid" ? "rid" : "cid");
    std::string leaves = Leaf("tags-" + prefix + "-encapsulation-format", format);
    if (!text.empty()) {
        leaves += Leaf(prefix + "-user-define-text", text);
    }
    return Global("global-tags-format", leaves);
}

std::string PortTrustXml(const Port &port, bool trusted)
{
    return OnPort(port.name, Wrap("trusted-port", Leaf("ifindex", std::to_string(port.ifIndex)) +
                                                      Leaf("trusted-enable", trusted ? "true" : "false")));
}

std::string PortPolicyXml(const Port &port, std::string_view policy)
{
    return OnPort(port.name, Wrap("port-tags-policy",
                                  Leaf("ifindex", std::to_string(port.ifIndex)) + Leaf("tags-policy", policy)));
}

std::string PortFormatXml(const Port &port, uint16_t vlan, uint16_t ceVlan, std::string_view which,
                          std::string_view format, std::string_view text)
{
    std::string entry = Leaf("vlan-id", std::to_string(vlan)) + Leaf("cevlan-id", std::to_string(ceVlan)) +
                        Leaf("tags-encapsulation-type", EncapType(which)) +
                        Leaf("ifIndex", std::to_string(port.ifIndex)) + Leaf("tags-encapsulation-format", format);
    if (!text.empty()) {
        entry += Leaf("user-define-text", text);
    }
    return OnPort(port.name, Wrap("port-tags-formats", Wrap("port-tags-format", entry)));
}

std::string PortDescriptionXml(const Port &port, std::string_view description)
{
    return OnPort(port.name, Wrap("if-description", Leaf("ifIndex", std::to_string(port.ifIndex)) +
                                                        Leaf("ifDescr", description)));
}

std::string PortItemPath(std::string_view ifName, std::string_view item)
{
    return "/quendal-ifm:ifm/interfaces/interface[name=" + Quoted(ifName) + "]/quendal-pppoe-plus:pppoe-plus-port/" +
           std::string(item);
}

std::string PortFormatPath(std::string_view ifName, uint16_t vlan, uint16_t ceVlan, std::string_view which)
{
    return PortItemPath(ifName, "port-tags-formats/port-tags-format") + "[vlan-id='" + std::to_string(vlan) +
           "'][cevlan-id='" + std::to_string(ceVlan) + "'][tags-encapsulation-type='" + EncapType(which) + "']";
}

std::string SetDebuggingXml(uint32_t level, bool on)
{
    std::string out = "<set-debugging xmlns=\"";
    out.append(kAgentNs).append("\">").append(Leaf("debug-switch", on ? "true" : "false"));
    out.append(Leaf("debug-type", std::to_string(level))).append("</set-debugging>");
    return out;
}

std::string ResetStatisticsXml()
{
    return "<reset-statistics xmlns=\"" + std::string(kAgentNs) + "\"/>";
}

std::optional<std::string> QueryPath(std::string_view what)
{
    if (what == "statistics") {
        return std::string(kRoot) + "/query-statistics/query-table";
    }
    if (what == "encapsulation" || what == "policy" || what == "format") {
        return std::string(kRoot) + "/query-" + std::string(what);
    }
    return std::nullopt;
}

std::optional<std::string> FormatCheckPath(std::string_view text, std::string *why)
{
    if (text.empty()) {
        *why = "an empty text has nothing to check";
        return std::nullopt;
    }
    if (text.find('\'') != std::string_view::npos && text.find('"') != std::string_view::npos) {
        *why = "a text with both kinds of quote cannot be passed in the query's path key";
        return std::nullopt;
    }
    // The key ends at the first "]" its reader does not see escaped.
    std::string key;
    for (const char c : text) {
        if (c == '\\' || c == ']') {
            key += '\\';
        }
        key += c;
    }
    return std::string(kRoot) + "/query-format-check/query-format-check-list[user-define-text=" + Quoted(key) + "]";
}

std::optional<std::string> RenderQueryReply(std::string_view what, std::string_view xml)
{
    const Doc doc = xml::Read(xml);
    const xmlNode *root = AgentRoot(doc);
    if (root == nullptr) {
        return std::nullopt;
    }
    if (what == "statistics") {
        const xmlNode *stats = Child(root, "query-statistics");
        return stats == nullptr ? std::nullopt : std::optional(StatisticsTable(stats));
    }
    if (what == "encapsulation") {
        const xmlNode *node = Child(root, "query-encapsulation");
        if (node == nullptr) {
            return std::nullopt;
        }
        return "vendor-id      " + ChildText(node, "vendor-id") + "\nencapsulation  " +
               Named(ChildText(node, "encapsulation-type"), {"circuit-id", "remote-id", "both"}) + "\n";
    }
    if (what == "policy") {
        const xmlNode *node = Child(root, "query-policy");
        if (node == nullptr) {
            return std::nullopt;
        }
        const std::string ignore = ChildText(node, "ignore-reply");
        return "tags-policy   " + Named(ChildText(node, "policy"), {"replace", "drop", "keep"}) + "\nignore-reply  " +
               (ignore == "0" ? "off" : "on") + " (" + ignore + ")\n";
    }
    if (what == "format") {
        const xmlNode *node = Child(root, "query-format");
        if (node == nullptr) {
            return std::nullopt;
        }
        std::string text = ChildText(node, "encapsulation-format");
        if (!text.empty() && text.back() != '\n') {
            text += '\n';
        }
        return text;
    }
    return std::nullopt;
}

std::optional<std::string> RenderFormatCheckReply(std::string_view typed, std::string_view xml)
{
    const Doc doc = xml::Read(xml);
    const xmlNode *list = Child(Child(AgentRoot(doc), "query-format-check"), "query-format-check-list");
    if (list == nullptr) {
        return std::nullopt;
    }
    const std::string code = ChildText(list, "check-result");
    std::string meaning = "unknown result";
    if (code.size() <= 2 && !code.empty() && code.find_first_not_of("0123456789") == std::string::npos &&
        std::stoul(code) < kCheckResults.size()) {
        meaning = std::string(kCheckResults[std::stoul(code)]);
    }
    return std::string(typed) + ": " + meaning + " (result " + code + ")\n";
}

}  // namespace pplus_cli
