// What pppoe-plus-cli's short forms mean in the agent's YANG model: each
// builds the XML of an edit, the path of a get or the input of an
// operation, and the replies of the queries are turned into text an
// operator reads.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace pplus_cli {

inline constexpr std::string_view kAgentNs = "urn:quendal:yang:quendal-pppoe-plus";
inline constexpr std::string_view kIfmNs = "urn:quendal:yang:quendal-ifm";

// Text with the five XML special characters escaped.
std::string XmlEscape(std::string_view text);

// Edits (XML to merge into the running configuration).
std::string EnableXml(bool enable);
std::string GlobalPolicyXml(std::string_view policy);
std::string VendorIdXml(uint32_t vendorId);
std::string EncapsulationXml(std::string_view encapsulation);
// on: the agent ignores replies of untrusted ports (ignore-policy false).
std::string IgnoreReplyXml(bool on);
// which: "cid" or "rid"; text may be empty for common and extend.
std::string GlobalFormatXml(std::string_view which, std::string_view format, std::string_view text);

// Items of one interface, each carrying the interface's index.
struct Port {
    std::string name;
    uint32_t ifIndex = 0;
};
std::string PortTrustXml(const Port &port, bool trusted);
std::string PortPolicyXml(const Port &port, std::string_view policy);
std::string PortFormatXml(const Port &port, uint16_t vlan, uint16_t ceVlan, std::string_view which,
                          std::string_view format, std::string_view text);
std::string PortDescriptionXml(const Port &port, std::string_view description);

// Instance path of an interface's container, for deletes:
// item "trusted-port", "port-tags-policy" or "if-description".
std::string PortItemPath(std::string_view ifName, std::string_view item);
std::string PortFormatPath(std::string_view ifName, uint16_t vlan, uint16_t ceVlan, std::string_view which);

// Operations.
// The debug level of set-debugging that switches every level.
inline constexpr uint32_t kDebugAllLevels = 4;
// level: 0 to 3, or kDebugAllLevels.
std::string SetDebuggingXml(uint32_t level, bool on);
std::string ResetStatisticsXml();

// Queries: the path to get.
std::optional<std::string> QueryPath(std::string_view what);
// The format-check path of a text. Its key escapes a backslash as "\\" and
// "]" as "\]", which the agent's key reader reads back, so any format can be
// checked; nullopt with *why when the text is empty or holds both kinds of
// quote (the key's value has no escape for its own quote).
std::optional<std::string> FormatCheckPath(std::string_view text, std::string *why);

// A query reply as text: a table of the statistics, one line per setting,
// the format display as it stands. nullopt when the reply is not the XML
// the query answers.
std::optional<std::string> RenderQueryReply(std::string_view what, std::string_view xml);
// A format check's reply as one line naming the format as the operator
// typed it; nullopt when the reply is not the check's XML.
std::optional<std::string> RenderFormatCheckReply(std::string_view typed, std::string_view xml);

}  // namespace pplus_cli
