// The host replaying the sample captures into its ports: bad topologies,
// ports, files, netdev bindings and settings are refused by name, before
// the agent starts. The replay's frames are checked frame by frame in
// interop_test.cpp; here it fills the plane's subscriber table, which the
// CLI shows, and a port replayed into while the switch runs shows its
// policed frames.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <signal.h>
#include <nlohmann/json.hpp>

#include <regex>

#include "host_process.hpp"
#include "pcap_file.hpp"

namespace {

namespace fs = std::filesystem;

const std::string kExamples = PPLUS_SOURCE_DIR "/examples";

using HostRun = pplus_e2e::ProgramRun;
using pplus_e2e::RunHost;

class Replay : public pplus_e2e::TempDirTest {};

TEST_F(Replay, SubscribersShowAfterDiscoveryLeaveWithThePadtAndPolicedFramesAddUp)
{
    const std::string ds = pplus_e2e::NewDatastoreDir();
    std::vector<std::string> args = pplus_e2e::DatastoreArgs(ds);
    args.insert(args.end(), {"--topology", kExamples + "/topology.yaml", "--in",
                             "GigabitEthernet0/0/1=" + kExamples + "/captures/subscribers.pcap", "--in",
                             "7=" + kExamples + "/captures/subscribers-port3.pcap", "--in",
                             "XGigabitEthernet0/0/1=" + kExamples + "/captures/servers.pcap", "--stay", "--control",
                             ds + "/control.sock", "--startup-config", kExamples + "/pppoe-plus.xml"});
    pplus_e2e::Host host(args);
    ASSERT_TRUE(host.WaitForOutput("pppoe-plus-switch: fwm:", 60000)) << host.Output();
    const auto cli = [&ds](std::vector<std::string> words) { return pplus_e2e::Cli(std::move(words), ds); };

    // Both sample subscribers, with what the agent inserted for each; the
    // second has its offer and no session yet.
    HostRun shown = cli({"show", "subscribers", "--json"});
    ASSERT_EQ(shown.status, 0) << shown.output;
    auto list = nlohmann::json::parse(shown.output);
    for (auto &entry : list) {
        entry.erase("started");
        entry.erase("last-seen");
    }
    EXPECT_EQ(list, nlohmann::json::parse(R"([
        {"mac": "02:00:00:00:00:01", "port": "GigabitEthernet0/0/1", "ifindex": 5, "vlan": 100, "inner-vlan": null,
         "ac-mac": "02:00:00:00:00:aa", "session-id": 1, "circuit-id": "eth 0/0/1:100.0 AccessSwitch-1/0/0/0/0/0",
         "remote-id": "00e0-fc12-3456", "last-code": "PADS"},
        {"mac": "02:00:00:00:00:02", "port": "GigabitEthernet0/0/3", "ifindex": 7, "vlan": 101, "inner-vlan": null,
         "ac-mac": "02:00:00:00:00:aa", "session-id": null, "circuit-id": "eth 0/0/3:101.0 AccessSwitch-1/0/0/0/0/0",
         "remote-id": "00e0-fc12-3456", "last-code": "PADO"}])"));
    shown = cli({"show", "subscribers", "--port", "GigabitEthernet0/0/3"});
    ASSERT_EQ(shown.status, 0) << shown.output;
    EXPECT_EQ(shown.output.find("02:00:00:00:00:01"), std::string::npos) << shown.output;
    EXPECT_NE(shown.output.find("02:00:00:00:00:02  GigabitEthernet0/0/3  101"), std::string::npos) << shown.output;
    EXPECT_NE(cli({"show", "subscribers", "--mac", "nonsense"}).status, 0);

    // The concentrator ends the first session: the entry goes.
    const std::string padt = (dir_ / "padt.pcap").string();
    frames::Frame padtFrame;
    padtFrame.src(frames::kServerMac).dst(frames::kSubscriberMac).vlan(100).session(1).padt().eol();
    ASSERT_TRUE(pplus_test::WriteCapture(padt, {{{}, padtFrame.bytes()}}));
    ASSERT_EQ(cli({"world", "port", "replay", "XGigabitEthernet0/0/1=" + padt}).status, 0);
    shown = cli({"show", "subscribers", "--json"});
    list = nlohmann::json::parse(shown.output);
    ASSERT_EQ(list.size(), 1U) << shown.output;
    EXPECT_EQ(list[0]["mac"], "02:00:00:00:00:02");

    // One PADI a second on port 2 while ten come: the rest are policed.
    ASSERT_EQ(cli({"world", "police", "port", "GigabitEthernet0/0/2", "1", "1"}),
              (HostRun{0, "port GigabitEthernet0/0/2 (6) punt policing 1/s burst 1\n"}));
    pplus_test::StampedFrames padis;
    for (uint8_t i = 0; i < 10; i++) {
        padis.push_back({{}, frames::Frame().src({0x02, 0, 0, 0, 0x66, i}).padi().hostUniq().eol().bytes()});
    }
    const std::string flood = (dir_ / "flood.pcap").string();
    ASSERT_TRUE(pplus_test::WriteCapture(flood, padis));
    ASSERT_EQ(cli({"world", "port", "replay", "GigabitEthernet0/0/2=" + flood}).status, 0);
    const HostRun ports = cli({"world", "ports"});
    std::smatch m;
    ASSERT_TRUE(std::regex_search(
        ports.output, m,
        std::regex(R"(port GigabitEthernet0/0/2 \(6\): rx 10 tx \d+ punted (\d+) dropped 0 policed (\d+))")))
        << ports.output;
    EXPECT_EQ(std::stoul(m[1]) + std::stoul(m[2]), 10U) << ports.output;
    EXPECT_GE(std::stoul(m[2]), 5U) << ports.output;
    const HostRun police = cli({"world", "police", "show"});
    EXPECT_NE(police.output.find("port GigabitEthernet0/0/2 (6) 1/s burst 1 (own), policed " + std::string(m[2])),
              std::string::npos)
        << police.output;
    EXPECT_NE(cli({"world", "police", "port", "GigabitEthernet0/0/2", "0", "5"}).status, 0) << "a rate of 0 is refused";
    EXPECT_EQ(host.Stop(SIGTERM), 0) << host.Output();
}

TEST_F(Replay, BadPortsFilesBindingsAndSettingsAreRefusedByName)
{
    struct Row {
        std::vector<std::string> args;
        std::string message;
    };
    const std::string missing = (dir_ / "missing.pcap").string();
    const std::string badConfig = (dir_ / "a.xml").string();
    std::ofstream(badConfig) << "<pppoe-plus xmlns=\"urn:quendal:yang:quendal-pppoe-plus\"><global-tags-policy>"
                                "<tags-policy>sometimes</tags-policy></global-tags-policy></pppoe-plus>";
    const std::string badTopology = (dir_ / "bad.yaml").string();
    std::ofstream(badTopology) << "system:\n  name: S\n  chassis: many\n";
    // The ports are those of the bundled example topology.
    const std::vector<Row> rows{
        {{"--topology", badTopology}, "chassis"},
        {{"--in", "GigabitEthernet9/9/9=" + missing}, "--in GigabitEthernet9/9/9=" + missing + ": unknown port"},
        {{"--in", "GigabitEthernet0/0/1"}, "--in GigabitEthernet0/0/1: expected PORT=FILE.pcap"},
        {{"--in", "5=" + missing}, missing + ": cannot read"},
        {{"--out", "5=" + (dir_ / "nowhere" / "x.pcap").string()}, "x.pcap: cannot create"},
        {{"--capture-dir", missing}, missing + ": not a folder"},
        {{"--startup-config", badConfig},
         "a.xml: invalid data: Invalid enumeration value \"sometimes\". (at "
         "/quendal-pppoe-plus:pppoe-plus/global-tags-policy/tags-policy)"},
        {{"--netdev", "GigabitEthernet0/0/1=lo", "--netdev", "GigabitEthernet0/0/2=lo"},
         "netdev lo is bound to two ports: port GigabitEthernet0/0/1 (netdev lo) and port GigabitEthernet0/0/2"},
        {{"--netdev", "Eth-Trunk1=lo"}, "port Eth-Trunk1 is a trunk's interface and carries no frames of its own"},
        {{"--netdev", "GigabitEthernet9/9/9=lo"}, "unknown port GigabitEthernet9/9/9"},
        {{"--netdev", "GigabitEthernet0/0/1=no/such"}, "not a Linux interface name"},
        {{"--netdev", "GigabitEthernet0/0/1=lv456789012345678"}, "not a Linux interface name"},
    };
    for (const Row &row : rows) {
        const HostRun run = RunHost(row.args, 20000);
        EXPECT_EQ(run.status, 1) << row.message << "\n" << run.output;
        EXPECT_NE(run.output.find(row.message), std::string::npos) << row.message << "\n" << run.output;
        EXPECT_EQ(run.output.find("agent ready"), std::string::npos) << "refused before the agent starts";
    }
    // A port bound to a netdev by a user who may not open packet sockets.
    if (geteuid() == 0) {
        const HostRun run = pplus_e2e::RunProgram(
            "setpriv", pplus_e2e::WithPrivateDatastore({"--reuid=65534", "--regid=65534", "--clear-groups",
                                                        PPLUS_BUILD_DIR "/bin/pppoe-plus-switch", "--netdev",
                                                        "GigabitEthernet0/0/1=lo"}));
        EXPECT_EQ(run.status, 1) << run.output;
        EXPECT_NE(run.output.find("packet sockets need CAP_NET_RAW: run pppoe-plus-switch as root"), std::string::npos)
            << run.output;
        EXPECT_EQ(run.output.find("agent ready"), std::string::npos);
    }
}

}  // namespace
