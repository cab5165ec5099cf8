// pppoe-plus-cli's "show subscribers": the forwarding plane's subscriber
// table as the datastore serves it (yang/quendal-forwarding-plane.yang),
// filtered and shown as a table for people or as JSON for programs.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pplus_cli {

inline constexpr std::string_view kSubscribersPath = "/quendal-forwarding-plane:forwarding-plane/subscribers";

struct SubscriberRow {
    std::string mac;
    std::string port;
    uint32_t ifIndex = 0;
    uint16_t vlan = 0;
    uint16_t innerVlan = 0;                 // 0: none
    std::string acMac;                      // "": none yet
    std::optional<uint16_t> sessionId;
    std::string circuitId;
    std::string remoteId;
    std::string lastCode;
    std::string started;                    // ISO 8601
    std::string lastSeen;
};

struct SubscriberTable {
    std::vector<SubscriberRow> rows;
    uint64_t capacity = 0;
    uint64_t evictions = 0;
    uint64_t agedOut = 0;
};

// The reply of a get of kSubscribersPath; nullopt when it is not that data.
std::optional<SubscriberTable> ReadSubscribers(std::string_view xml);

// What --port, --vlan and --mac select; unset ones select everything.
struct SubscriberFilter {
    std::string port;                       // a name or an ifIndex
    std::optional<uint16_t> vlan;           // the outer VLAN
    std::string mac;                        // as NormalMac gives it
};
bool Selects(const SubscriberFilter &filter, const SubscriberRow &row);

// A MAC address written as 00:e0:fc:12:34:56, 00-E0-FC-12-34-56,
// 00e0-fc12-3456 or 00e0.fc12.3456, in the first form; nullopt for
// anything else.
std::optional<std::string> NormalMac(std::string_view text);

// A table with a line per subscriber and a closing count, for people.
std::string SubscribersText(const SubscriberTable &table);
// A JSON list of objects (mac, port, ifindex, vlan, inner-vlan, ac-mac,
// session-id, circuit-id, remote-id, last-code, started, last-seen); null
// for what is not known or not there.
std::string SubscribersJson(const std::vector<SubscriberRow> &rows);

}  // namespace pplus_cli
