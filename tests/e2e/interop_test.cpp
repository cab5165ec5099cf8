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

// One decoded frame: the fields asked of tshark, in order.
struct Decoded {
    std::string src;
    std::string vlan;
    std::string code;
    std::string hostUniq;
    std::string vendorId;
    std::string circuitId;
    std::string remoteId;

    bool operator==(const Decoded &) const = default;
};

std::ostream &operator<<(std::ostream &os, const Decoded &d)
{
    return os << d.src << "|" << d.vlan << "|" << d.code << "|" << d.hostUniq << "|" << d.vendorId << "|" << d.circuitId
              << "|" << d.remoteId;
}

const std::string kTshark = "/usr/bin/tshark";

std::vector<Decoded> Decode(const fs::path &capture)
{
    const pplus_e2e::ProgramRun run = pplus_e2e::RunProgram(kTshark, {"-r", capture.string(),
                                                                      "-T", "fields",
                                                                      "-E", "separator=|",
                                                                      "-e", "eth.src",
                                                                      "-e", "vlan.id",
                                                                      "-e", "pppoe.code",
                                                                      "-e", "pppoed.tags.host_uniq",
                                                                      "-e", "pppoed.tags.vendor_id",
                                                                      "-e", "pppoed.tags.circuit_id",
                                                                      "-e", "pppoed.tags.remote_id"});
    EXPECT_EQ(run.status, 0) << run.output;
    std::vector<Decoded> frames;
    std::istringstream lines(run.output);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("Running as user", 0) == 0) {
            continue;  // tshark's note when run as root
        }
        std::vector<std::string> f;
        std::istringstream fields(line);
        for (std::string field; std::getline(fields, field, '|');) {
            f.push_back(field);
        }
        f.resize(7);
        frames.push_back(Decoded{f[0], f[1], f[2], f[3], f[4], f[5], f[6]});
    }
    return frames;
}

}  // namespace

TEST(Interop, TsharkSeesTheTagInsertedTowardsTheServerAndStrippedTowardsTheSubscriber)
{
    ASSERT_EQ(access(kTshark.c_str(), X_OK), 0)
        << "tshark is needed (Debian package tshark; scripts/install-deps.sh installs it)";
    const fs::path dir = fs::temp_directory_path() / ("pplus-interop-" + std::to_string(getpid()));
    fs::remove_all(dir);
    fs::create_directories(dir / "captures");

    const pplus_e2e::ProgramRun host =
        pplus_e2e::RunHost({"--topology", kExamples + "/topology.yaml", "--in",
                            "GigabitEthernet0/0/1=" + kExamples + "/captures/subscribers.pcap", "--in",
                            "GigabitEthernet0/0/3=" + kExamples + "/captures/subscribers-port3.pcap", "--in",
                            "XGigabitEthernet0/0/1=" + kExamples + "/captures/servers.pcap", "--out",
                            "XGigabitEthernet0/0/1=" + (dir / "uplink.pcap").string(), "--capture-dir",
                            (dir / "captures").string(), "--startup-config", kExamples + "/pppoe-plus.xml"});
    ASSERT_EQ(host.status, 0) << host.output;
    EXPECT_NE(host.output.find("0 frame buffer(s) outstanding"), std::string::npos) << host.output;
    EXPECT_NE(host.output.find("fwm: feature on"), std::string::npos) << host.output;
    EXPECT_NE(host.output.find("port XGigabitEthernet0/0/1 (49): rx 3 tx 3 punted 3 dropped 0"), std::string::npos)
        << host.output;

    // The common formats of the example switch: the Circuit-ID is the short
    // port name ("eth 0/0/<port>"), the frame's outer and inner VLAN (the
    // access port's PVID, none), then the system name and five zeros; the
    // Remote-ID is the switch's MAC in dotted groups of four hex digits.
    // "sub-1" and "sub-2" are the subscribers' Host-Uniq values.
    const std::string kRid = "00e0-fc12-3456";
    const std::string kCid1 = "eth 0/0/1:100.0 AccessSwitch-1/0/0/0/0/0";
    const std::string kCid3 = "eth 0/0/3:101.0 AccessSwitch-1/0/0/0/0/0";
    const std::string kSub1 = "02:00:00:00:00:01";
    const std::string kSub2 = "02:00:00:00:00:02";
    const std::string kServer = "02:00:00:00:00:aa";
    const std::string kUniq1 = "7375622d31";
    const std::string kUniq2 = "7375622d32";

    // Towards the server, tagged with the subscriber's VLAN: PADI, PADI,
    // PADR, each carrying the tag built for the port it entered.
    const std::vector<Decoded> uplink = Decode(dir / "uplink.pcap");
    const std::vector<Decoded> expectedUplink{
        {kSub1, "100", "0x09", kUniq1, "3561", kCid1, kRid},
        {kSub2, "101", "0x09", kUniq2, "3561", kCid3, kRid},
        {kSub1, "100", "0x19", kUniq1, "3561", kCid1, kRid},
    };
    EXPECT_EQ(uplink, expectedUplink);

    // Towards the subscribers, untagged out of the access ports: the
    // server's PADO and PADS lose the tag the switch had put there, and
    // keep everything else.
    const std::vector<Decoded> port1 = Decode(dir / "captures" / "GigabitEthernet0_0_1.pcap");
    const std::vector<Decoded> expectedPort1{
        {kServer, "", "0x07", kUniq1, "", "", ""},
        {kServer, "", "0x65", kUniq1, "", "", ""},
    };
    EXPECT_EQ(port1, expectedPort1);
    const std::vector<Decoded> port3 = Decode(dir / "captures" / "GigabitEthernet0_0_3.pcap");
    const std::vector<Decoded> expectedPort3{{kServer, "", "0x07", kUniq2, "", "", ""}};
    EXPECT_EQ(port3, expectedPort3);

    // The replayed server frames did carry the tag: the strip is the agent's.
    const std::vector<Decoded> servers = Decode(kExamples + "/captures/servers.pcap");
    ASSERT_EQ(servers.size(), 3U);
    EXPECT_EQ(servers[0].circuitId, kCid1);
    fs::remove_all(dir);
}
