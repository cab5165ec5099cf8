// The relay as a standard decoder sees it: the host replays the sample
// subscriber and server captures through the example switch with the
// example configuration, and tshark reads what left the uplink and the
// subscriber ports.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "host_process.hpp"

namespace {

namespace fs = std::filesystem;

const std::string kExamples = PPLUS_SOURCE_DIR "/examples";

const std::string kTshark = "/usr/bin/tshark";

// What tshark decodes of each frame of a capture, one line a frame: source,
// VLAN, PPPoE code, Host-Uniq, vendor id, Circuit-ID, Remote-ID, "|" between.
std::vector<std::string> Decode(const fs::path &capture)
{
    std::vector<std::string> args{"-r", capture.string(), "-T", "fields", "-E", "separator=|"};
    for (const char *field : {"eth.src", "vlan.id", "pppoe.code", "pppoed.tags.host_uniq", "pppoed.tags.vendor_id",
                              "pppoed.tags.circuit_id", "pppoed.tags.remote_id"}) {
        args.insert(args.end(), {"-e", field});
    }
    const pplus_e2e::ProgramRun run = pplus_e2e::RunProgram(kTshark, args);
    EXPECT_EQ(run.status, 0) << run.output;
    std::vector<std::string> frames;
    std::istringstream lines(run.output);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("Running as user", 0) != 0) {  // tshark's note when run as root
            frames.push_back(line);
        }
    }
    return frames;
}

}  // namespace

class Interop : public pplus_e2e::TempDirTest {};

TEST_F(Interop, TsharkSeesTheTagInsertedTowardsTheServerAndStrippedTowardsTheSubscriber)
{
    ASSERT_EQ(access(kTshark.c_str(), X_OK), 0)
        << "tshark is needed (Debian package tshark; scripts/install-deps.sh installs it)";
    fs::create_directories(dir_ / "captures");

    const pplus_e2e::ProgramRun host =
        pplus_e2e::RunHost({"--topology", kExamples + "/topology.yaml", "--in",
                            "GigabitEthernet0/0/1=" + kExamples + "/captures/subscribers.pcap", "--in",
                            "GigabitEthernet0/0/3=" + kExamples + "/captures/subscribers-port3.pcap", "--in",
                            "XGigabitEthernet0/0/1=" + kExamples + "/captures/servers.pcap", "--out",
                            "XGigabitEthernet0/0/1=" + (dir_ / "uplink.pcap").string(), "--capture-dir",
                            (dir_ / "captures").string(), "--startup-config", kExamples + "/pppoe-plus.xml"});
    ASSERT_EQ(host.status, 0) << host.output;
    EXPECT_NE(host.output.find("0 frame buffer(s) outstanding"), std::string::npos) << host.output;
    EXPECT_NE(host.output.find("fwm: feature on"), std::string::npos) << host.output;
    EXPECT_NE(host.output.find("port XGigabitEthernet0/0/1 (49): rx 3 tx 3 punted 3 dropped 0"), std::string::npos)
        << host.output;

    // The common formats of the example switch: the Circuit-ID is the short
    // port name ("eth 0/0/<port>"), the frame's outer and inner VLAN (the
    // access port's PVID, none), then the system name and five zeros; the
    // Remote-ID is the switch's MAC in dotted groups of four hex digits.
    // "sub-1" (7375622d31) and "sub-2" are the subscribers' Host-Uniq values.
    // Towards the server, tagged with the subscriber's VLAN: PADI, PADI,
    // PADR, each carrying the tag built for the port it entered.
    const std::vector<std::string> uplink{
        "02:00:00:00:00:01|100|0x09|7375622d31|3561|eth 0/0/1:100.0 AccessSwitch-1/0/0/0/0/0|00e0-fc12-3456",
        "02:00:00:00:00:02|101|0x09|7375622d32|3561|eth 0/0/3:101.0 AccessSwitch-1/0/0/0/0/0|00e0-fc12-3456",
        "02:00:00:00:00:01|100|0x19|7375622d31|3561|eth 0/0/1:100.0 AccessSwitch-1/0/0/0/0/0|00e0-fc12-3456",
    };
    EXPECT_EQ(Decode(dir_ / "uplink.pcap"), uplink);

    // Towards the subscribers, untagged out of the access ports: the
    // server's PADO and PADS lose the tag the switch had put there, and
    // keep everything else.
    const std::vector<std::string> port1{"02:00:00:00:00:aa||0x07|7375622d31|||",
                                         "02:00:00:00:00:aa||0x65|7375622d31|||"};
    EXPECT_EQ(Decode(dir_ / "captures" / "GigabitEthernet0_0_1.pcap"), port1);
    const std::vector<std::string> port3{"02:00:00:00:00:aa||0x07|7375622d32|||"};
    EXPECT_EQ(Decode(dir_ / "captures" / "GigabitEthernet0_0_3.pcap"), port3);

    // The replayed server frames did carry the tag: the strip is the agent's.
    const std::vector<std::string> servers = Decode(kExamples + "/captures/servers.pcap");
    ASSERT_EQ(servers.size(), 3U);
    EXPECT_NE(servers[0].find("|eth 0/0/1:100.0 AccessSwitch-1/0/0/0/0/0|"), std::string::npos) << servers[0];
}
