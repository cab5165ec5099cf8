// pcap port backends: several inputs merge in timestamp order, and inputs
// that are not Ethernet captures and unknown ports are refused. Capture and
// replay of whole files run through the host in replay_test.cpp and
// interop_test.cpp.
#include <gtest/gtest.h>
#include <pcap/pcap.h>
#include <unistd.h>

#include <filesystem>

#include "device/fplane.hpp"
#include "device/world.hpp"
#include "pcap_file.hpp"
#include "platform/world.hpp"
#include "pppoe_frame.hpp"

namespace {

namespace fs = std::filesystem;
using device::fplane::PcapReplay;
using frames::Bytes;
using frames::Frame;

class PcapTest : public testing::Test {
protected:
    void SetUp() override
    {
        dir_ = fs::temp_directory_path() / ("fplane-pcap-" + std::to_string(getpid()));
        fs::remove_all(dir_);
        fs::create_directories(dir_);
        std::string error;
        const auto topology = device::world::LoadTopologyText(
            "system: {name: Lab}\n"
            "interfaces:\n"
            "  - {name: GigabitEthernet0/0/1, ifindex: 5, pvid: 100}\n"
            "  - {name: XGigabitEthernet0/0/1, ifindex: 49, mode: trunk, vlans: [100]}\n",
            &error);
        ASSERT_TRUE(topology) << error;
        platform::world::ApplyTopology(*topology);
    }
    void TearDown() override { fs::remove_all(dir_); }

    // A capture in the test's folder; its path.
    std::string Write(const std::string &name, const pplus_test::StampedFrames &frames, int linkType = DLT_EN10MB)
    {
        const std::string path = (dir_ / name).string();
        EXPECT_TRUE(pplus_test::WriteCapture(path, frames, linkType)) << path;
        return path;
    }

    fs::path dir_;
};

TEST_F(PcapTest, InputsMergeInTimestampOrderAndBadInputsAndPortsAreRefusedByName)
{
    const auto frameNo = [](uint8_t n) { return Frame().padi().tag(0x0103, Bytes{n}).eol().bytes(); };
    const std::string subscribers =
        Write("subscribers.pcap", {{{1, 0}, frameNo(1)}, {{2, 0}, frameNo(4)}, {{3, 5}, frameNo(6)}});
    const std::string servers =
        Write("servers.pcap", {{{1, 500000}, frameNo(2)}, {{2, 0}, frameNo(5)}, {{1, 999999}, frameNo(3)}});
    PcapReplay replay;
    std::string error;
    ASSERT_TRUE(replay.Add(5, subscribers, &error)) << error;
    ASSERT_TRUE(replay.Add(49, servers, &error)) << error;
    // Each frame's Host-Uniq byte and port, in the merged order.
    std::vector<std::pair<uint8_t, uint32_t>> order;
    for (const auto &frame : replay.Merged()) {
        const auto parsed = frames::Parse(frame.bytes);
        const auto *uniq = parsed ? parsed->find(0x0103) : nullptr;
        order.emplace_back(uniq != nullptr && uniq->value.size() == 1 ? uniq->value[0] : 0, frame.ifIndex);
    }
    const std::vector<std::pair<uint8_t, uint32_t>> expected{{1, 5}, {2, 49}, {3, 49}, {4, 5}, {5, 49}, {6, 5}};
    EXPECT_EQ(order, expected) << "by time; equal times keep the order the files were added in";

    // A capture that is not Ethernet is refused, adding nothing (files that
    // cannot be read are refused through the host in replay_test.cpp).
    const std::string raw = Write("raw.pcap", {{{1, 0}, Bytes(40, 0x45)}}, DLT_RAW);
    EXPECT_FALSE(replay.Add(5, raw, &error));
    EXPECT_NE(error.find("raw.pcap: link type RAW is not Ethernet"), std::string::npos) << error;
    EXPECT_EQ(replay.Size(), expected.size());

    // Ports named by name or by ifIndex, as --in and --out take them.
    const std::pair<const char *, uint32_t> ports[] = {{"XGigabitEthernet0/0/1", 49},
                                                       {"5", 5},
                                                       {"GigabitEthernet9/9/9", 0},
                                                       {"6", 0},
                                                       {"99999999999999", 0},
                                                       {"", 0},
                                                       {"5x", 0}};
    for (const auto &[port, ifIndex] : ports) {
        const auto found = platform::world::IfResolve(port);
        EXPECT_EQ(found ? found->ifIndex : 0U, ifIndex) << port;
    }
}

}  // namespace
