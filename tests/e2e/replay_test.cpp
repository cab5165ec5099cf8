// The host replaying the sample captures into its ports with the feature off:
// it configures the agent from its datastore, replays, prints a per-port
// summary, writes what left the ports and exits 0; bad ports, files and
// settings are refused by name. The same replay with the agent on is checked
// frame by frame in interop_test.cpp.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "host_process.hpp"

namespace {

namespace fs = std::filesystem;

const std::string kExamples = PPLUS_SOURCE_DIR "/examples";

using HostRun = pplus_e2e::ProgramRun;
using pplus_e2e::Frames;
using pplus_e2e::RunHost;

class Replay : public testing::Test {
protected:
    void SetUp() override
    {
        dir_ = fs::temp_directory_path() / ("pplus-replay-" + std::to_string(getpid()));
        fs::remove_all(dir_);
        fs::create_directories(dir_ / "captures");
    }
    void TearDown() override { fs::remove_all(dir_); }

    std::vector<std::string> Args(const std::vector<std::string> &more) const
    {
        std::vector<std::string> args{"--topology",
                                      kExamples + "/topology.yaml",
                                      "--in",
                                      "GigabitEthernet0/0/1=" + kExamples + "/captures/subscribers.pcap",
                                      "--in",
                                      "7=" + kExamples + "/captures/subscribers-port3.pcap",
                                      "--in",
                                      "XGigabitEthernet0/0/1=" + kExamples + "/captures/servers.pcap",
                                      "--out",
                                      "XGigabitEthernet0/0/1=" + (dir_ / "uplink.pcap").string(),
                                      "--capture-dir",
                                      (dir_ / "captures").string()};
        args.insert(args.end(), more.begin(), more.end());
        return args;
    }

    // A startup configuration: the agent's settings, then the interfaces'.
    std::string WriteConfig(const std::string &agent, const std::string &ports, const std::string &name) const
    {
        const std::string path = (dir_ / name).string();
        std::ofstream(path) << "<pppoe-plus xmlns=\"urn:quendal:yang:quendal-pppoe-plus\">" << agent
                            << "</pppoe-plus><ifm xmlns=\"urn:quendal:yang:quendal-ifm\"><interfaces>" << ports
                            << "</interfaces></ifm>";
        return path;
    }

    fs::path dir_;
};

TEST_F(Replay, FeatureOffSwitchesTheSampleCapturesAndWritesWhatLeftEachPort)
{
    const std::string trusted =
        "<interface><name>XGigabitEthernet0/0/1</name><pppoe-plus-port xmlns=\"urn:quendal:yang:quendal-pppoe-plus\">"
        "<trusted-port><ifindex>49</ifindex><trusted-enable>true</trusted-enable></trusted-port>"
        "</pppoe-plus-port></interface>";
    const HostRun run = RunHost(Args({"--startup-config",
                                      WriteConfig("<global-enable><enable>false</enable></global-enable>", trusted,
                                                  "off.xml")}));
    ASSERT_EQ(run.status, 0) << run.output;
    EXPECT_NE(run.output.find("agent configured from the datastore"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("fwm: feature off"), std::string::npos) << run.output;
    // Switched: the PADIs flood to the uplink, the PADR goes to the learnt
    // server; PADO and PADS reach the first subscriber, a PADO the second.
    EXPECT_NE(run.output.find("port GigabitEthernet0/0/1 (5): rx 2 tx 2 punted 0 dropped 0"), std::string::npos)
        << run.output;
    EXPECT_NE(run.output.find("port XGigabitEthernet0/0/1 (49): rx 3 tx 3 punted 0 dropped 0"), std::string::npos)
        << run.output;
    EXPECT_EQ(Frames((dir_ / "uplink.pcap").string()).size(), 3U);
    EXPECT_EQ(Frames((dir_ / "captures" / "GigabitEthernet0_0_1.pcap").string()).size(), 2U);
    EXPECT_EQ(Frames((dir_ / "captures" / "GigabitEthernet0_0_3.pcap").string()).size(), 1U);
}

TEST_F(Replay, BadPortsFilesAndSettingsAreRefusedByName)
{
    struct Row {
        std::vector<std::string> args;
        std::string message;
    };
    const std::string missing = (dir_ / "missing.pcap").string();
    const std::vector<Row> rows{
        {{"--in", "GigabitEthernet9/9/9=" + missing}, "--in GigabitEthernet9/9/9=" + missing + ": unknown port"},
        {{"--in", "GigabitEthernet0/0/1"}, "--in GigabitEthernet0/0/1: expected PORT=FILE.pcap"},
        {{"--in", "5=" + missing}, missing + ": cannot read"},
        {{"--out", "5=" + (dir_ / "nowhere" / "x.pcap").string()}, "x.pcap: cannot create"},
        {{"--capture-dir", missing}, missing + ": not a folder"},
        {{"--startup-config", WriteConfig("<global-tags-policy><tags-policy>sometimes</tags-policy>"
                                          "</global-tags-policy>", "", "a.xml")},
         "a.xml: invalid data: Invalid enumeration value \"sometimes\". (at "
         "/quendal-pppoe-plus:pppoe-plus/global-tags-policy/tags-policy)"},
    };
    for (const Row &row : rows) {
        std::vector<std::string> args{"--topology", kExamples + "/topology.yaml"};
        args.insert(args.end(), row.args.begin(), row.args.end());
        const HostRun run = RunHost(args, 20000);
        EXPECT_EQ(run.status, 1) << row.message << "\n" << run.output;
        EXPECT_NE(run.output.find(row.message), std::string::npos) << row.message << "\n" << run.output;
        EXPECT_EQ(run.output.find("agent ready"), std::string::npos) << "refused before the agent starts";
    }
}

}  // namespace
