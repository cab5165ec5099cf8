// pppoe-plus-cli's subscriber view: the datastore's answer read back,
// filtered by port, VLAN and MAC however the operator writes it, and the
// JSON that programs read.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "subscribers.hpp"

namespace {

constexpr const char *kReply = R"(<forwarding-plane xmlns="urn:quendal:yang:quendal-forwarding-plane">
  <subscribers>
    <capacity>64</capacity><entries>2</entries><evictions>3</evictions><aged-out>1</aged-out><idle-timeout>0</idle-timeout>
    <subscriber>
      <mac>02:00:00:00:00:01</mac><vlan>100</vlan><inner-vlan>0</inner-vlan>
      <port>GigabitEthernet0/0/1</port><ifindex>5</ifindex><ac-mac>02:00:00:00:00:aa</ac-mac>
      <session-id>4660</session-id><circuit-id>eth 0/0/1:100.0 &lt;A&gt;</circuit-id><remote-id>00e0-fc12-3456</remote-id>
      <last-code>PADS</last-code><started>2026-11-23T15:53:14+00:00</started><last-seen>2026-11-23T15:53:15+00:00</last-seen>
    </subscriber>
    <subscriber>
      <mac>02:00:00:00:00:02</mac><vlan>101</vlan><inner-vlan>300</inner-vlan>
      <port>Eth-Trunk1</port><ifindex>100</ifindex>
      <last-code>PADI</last-code><started>2026-11-23T15:53:14+00:00</started><last-seen>2026-11-23T15:53:14+00:00</last-seen>
    </subscriber>
  </subscribers>
</forwarding-plane>)";

TEST(Subscribers, FiltersSelectByPortVlanAndMacInAnyNotationAndTheJsonHasEveryKey)
{
    const auto table = pplus_cli::ReadSubscribers(kReply);
    ASSERT_TRUE(table);
    ASSERT_EQ(table->rows.size(), 2U);
    EXPECT_EQ(table->evictions, 3U);
    EXPECT_FALSE(pplus_cli::ReadSubscribers("<pppoe-plus/>"));
    EXPECT_FALSE(pplus_cli::ReadSubscribers("not xml"));

    struct Row {
        const char *why;
        pplus_cli::SubscriberFilter filter;
        std::vector<bool> selected;
    };
    const Row rows[] = {
        {"no filter", {}, {true, true}},
        {"port by name", {"GigabitEthernet0/0/1", {}, ""}, {true, false}},
        {"port by ifIndex", {"100", {}, ""}, {false, true}},
        {"outer VLAN", {"", 101, ""}, {false, true}},
        {"an inner VLAN is no outer one", {"", 300, ""}, {false, false}},
        {"MAC", {"", {}, "02:00:00:00:00:02"}, {false, true}},
        {"everything at once", {"GigabitEthernet0/0/1", 100, "02:00:00:00:00:01"}, {true, false}},
    };
    for (const Row &row : rows) {
        for (size_t i = 0; i < row.selected.size(); i++) {
            EXPECT_EQ(pplus_cli::Selects(row.filter, table->rows[i]), row.selected[i]) << row.why << ", row " << i;
        }
    }

    const std::pair<const char *, const char *> macs[] = {
        {"02:00:00:00:00:0A", "02:00:00:00:00:0a"},
        {"02-00-00-00-00-0a", "02:00:00:00:00:0a"},
        {"0200-0000-000a", "02:00:00:00:00:0a"},
        {"0200.0000.000a", "02:00:00:00:00:0a"},
        {"020000000a0a", "02:00:00:00:0a:0a"},
        {"02:00:00:00:00", ""},
        {"02:00:00:00:00:0g", ""},
        {"020:000:000:0a", ""},
    };
    for (const auto &[text, normal] : macs) {
        EXPECT_EQ(pplus_cli::NormalMac(text).value_or(""), normal) << text;
    }

    // The JSON programs read: every key in every entry; null for what the datastore did not say.
    EXPECT_EQ(nlohmann::json::parse(pplus_cli::SubscribersJson(table->rows)), nlohmann::json::parse(R"([
        {"mac": "02:00:00:00:00:01", "port": "GigabitEthernet0/0/1", "ifindex": 5, "vlan": 100, "inner-vlan": null,
         "ac-mac": "02:00:00:00:00:aa", "session-id": 4660, "circuit-id": "eth 0/0/1:100.0 <A>",
         "remote-id": "00e0-fc12-3456", "last-code": "PADS", "started": "2026-11-23T15:53:14+00:00",
         "last-seen": "2026-11-23T15:53:15+00:00"},
        {"mac": "02:00:00:00:00:02", "port": "Eth-Trunk1", "ifindex": 100, "vlan": 101, "inner-vlan": 300,
         "ac-mac": null, "session-id": null, "circuit-id": null, "remote-id": null, "last-code": "PADI",
         "started": "2026-11-23T15:53:14+00:00", "last-seen": "2026-11-23T15:53:14+00:00"}])"));
    EXPECT_EQ(pplus_cli::SubscribersJson({}), "[]\n");
}

}  // namespace
