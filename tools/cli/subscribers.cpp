// pppoe-plus-cli's view of the subscriber table (see subscribers.hpp).
#include "subscribers.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <sstream>

#include "xml_reader.hpp"

namespace pplus_cli {

namespace {

template <typename T>
std::optional<T> NumberIn(const std::string &text)
{
    T value{};
    const char *end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, value);
    if (text.empty() || ec != std::errc() || ptr != end) {
        return std::nullopt;
    }
    return value;
}

std::string Padded(std::string text, size_t width)
{
    if (text.size() < width) {
        text.append(width - text.size(), ' ');
    }
    return text;
}

std::string VlanText(const SubscriberRow &row)
{
    return std::to_string(row.vlan) + (row.innerVlan != 0 ? "/" + std::to_string(row.innerVlan) : "");
}

}  // namespace

std::optional<SubscriberTable> ReadSubscribers(std::string_view text)
{
    const xml::Doc doc = xml::Read(text);
    const xmlNode *root = doc == nullptr ? nullptr : xmlDocGetRootElement(doc.get());
    const xmlNode *subs = root == nullptr || xml::Name(root) != "forwarding-plane" ? nullptr
                                                                                   : xml::Child(root, "subscribers");
    if (subs == nullptr) {
        return std::nullopt;
    }
    SubscriberTable table;
    table.capacity = NumberIn<uint64_t>(xml::ChildText(subs, "capacity")).value_or(0);
    table.evictions = NumberIn<uint64_t>(xml::ChildText(subs, "evictions")).value_or(0);
    table.agedOut = NumberIn<uint64_t>(xml::ChildText(subs, "aged-out")).value_or(0);
    for (const xmlNode *s : xml::Children(subs, "subscriber")) {
        SubscriberRow row;
        row.mac = xml::ChildText(s, "mac");
        row.port = xml::ChildText(s, "port");
        const auto ifIndex = NumberIn<uint32_t>(xml::ChildText(s, "ifindex"));
        const auto vlan = NumberIn<uint16_t>(xml::ChildText(s, "vlan"));
        const auto inner = NumberIn<uint16_t>(xml::ChildText(s, "inner-vlan"));
        if (row.mac.empty() || !ifIndex || !vlan || !inner) {
            return std::nullopt;
        }
        row.ifIndex = *ifIndex;
        row.vlan = *vlan;
        row.innerVlan = *inner;
        row.acMac = xml::ChildText(s, "ac-mac");
        row.sessionId = NumberIn<uint16_t>(xml::ChildText(s, "session-id"));
        row.circuitId = xml::ChildText(s, "circuit-id");
        row.remoteId = xml::ChildText(s, "remote-id");
        row.lastCode = xml::ChildText(s, "last-code");
        row.started = xml::ChildText(s, "started");
        row.lastSeen = xml::ChildText(s, "last-seen");
        table.rows.push_back(std::move(row));
    }
    return table;
}

std::optional<std::string> NormalMac(std::string_view text)
{
    std::string hex;
    for (const char c : text) {
        if (std::isxdigit(static_cast<unsigned char>(c)) != 0) {
            hex += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        } else if (c != ':' && c != '-' && c != '.') {
            return std::nullopt;
        }
    }
    // Separators only between groups of two or four digits.
    const size_t groups = static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return c == ':' || c == '-' || c == '.';
    }));
    if (hex.size() != 12 || (groups != 0 && groups != 2 && groups != 5)) {
        return std::nullopt;
    }
    const size_t width = groups == 5 ? 2 : groups == 2 ? 4 : 12;
    for (size_t i = width; i < text.size(); i += width + 1) {
        if (text[i] != ':' && text[i] != '-' && text[i] != '.') {
            return std::nullopt;
        }
    }
    std::string out;
    for (size_t i = 0; i < hex.size(); i += 2) {
        out += (i == 0 ? "" : ":") + hex.substr(i, 2);
    }
    return out;
}

bool Selects(const SubscriberFilter &filter, const SubscriberRow &row)
{
    if (!filter.port.empty() && filter.port != row.port && filter.port != std::to_string(row.ifIndex)) {
        return false;
    }
    if (filter.vlan && *filter.vlan != row.vlan) {
        return false;
    }
    return filter.mac.empty() || NormalMac(row.mac) == filter.mac;
}

std::string SubscribersText(const SubscriberTable &table)
{
    const std::vector<std::string> heads = {"MAC",       "PORT",       "VLAN",      "AC-MAC",  "SESSION",
                                            "LAST",      "CIRCUIT-ID", "REMOTE-ID", "STARTED", "LAST-SEEN"};
    std::vector<std::vector<std::string>> lines;
    for (const SubscriberRow &r : table.rows) {
        lines.push_back({r.mac, r.port, VlanText(r), r.acMac.empty() ? "-" : r.acMac,
                         r.sessionId ? std::to_string(*r.sessionId) : "-", r.lastCode,
                         r.circuitId.empty() ? "-" : r.circuitId, r.remoteId.empty() ? "-" : r.remoteId, r.started,
                         r.lastSeen});
    }
    std::vector<size_t> widths;
    for (const std::string &h : heads) {
        widths.push_back(h.size());
    }
    for (const auto &line : lines) {
        for (size_t i = 0; i < line.size(); i++) {
            widths[i] = std::max(widths[i], line[i].size());
        }
    }
    std::ostringstream out;
    const auto print = [&](const std::vector<std::string> &cells) {
        std::string text;
        for (size_t i = 0; i < cells.size(); i++) {
            text += i + 1 == cells.size() ? cells[i] : Padded(cells[i], widths[i] + 2);
        }
        out << text << "\n";
    };
    print(heads);
    for (const auto &line : lines) {
        print(line);
    }
    out << table.rows.size() << " subscriber(s); table of " << table.capacity << ", " << table.evictions
        << " evicted, " << table.agedOut << " aged out\n";
    return out.str();
}

std::string SubscribersJson(const std::vector<SubscriberRow> &rows)
{
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    const auto orNull = [](const std::string &text) {
        return text.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(text);
    };
    for (const SubscriberRow &r : rows) {
        nlohmann::ordered_json o;
        o["mac"] = r.mac;
        o["port"] = r.port;
        o["ifindex"] = r.ifIndex;
        o["vlan"] = r.vlan;
        o["inner-vlan"] = r.innerVlan != 0 ? nlohmann::ordered_json(r.innerVlan) : nlohmann::ordered_json(nullptr);
        o["ac-mac"] = orNull(r.acMac);
        o["session-id"] = r.sessionId ? nlohmann::ordered_json(*r.sessionId) : nlohmann::ordered_json(nullptr);
        o["circuit-id"] = orNull(r.circuitId);
        o["remote-id"] = orNull(r.remoteId);
        o["last-code"] = r.lastCode;
        o["started"] = r.started;
        o["last-seen"] = r.lastSeen;
        list.push_back(std::move(o));
    }
    // Bytes that are no UTF-8 (a circuit id never is: it is shown in hex)
    // are replaced rather than refused.
    return list.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace pplus_cli
