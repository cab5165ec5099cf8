// Replay at speed: a long capture goes in as fast as the channel to the
// agent takes it while the control socket keeps answering, SIGTERM stops
// it at once with the exit report, and paced replays follow their rate or
// the capture's own timing.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "host_process.hpp"
#include "pcap_file.hpp"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using pplus_e2e::Host;

// count PADIs from distinct source MACs, 1 ms apart.
bool WriteStorm(const std::string &path, unsigned count)
{
    pplus_test::StampedFrames frames;
    for (unsigned i = 0; i < count; i++) {
        const frames::Mac mac{
            0x02, 0x5a, 0, static_cast<uint8_t>(i >> 16), static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i)};
        const timeval ts{static_cast<time_t>(i / 1000), static_cast<suseconds_t>(i % 1000) * 1000};
        frames.push_back({ts, frames::Frame().src(mac).padi().serviceName().bytes()});
    }
    return pplus_test::WriteCapture(path, frames);
}

// The seconds and rate of the host's "replayed N frame(s) in S s (R frames/s)".
struct Replayed {
    unsigned long frames = 0;
    double seconds = -1;
    double rate = 0;
};

Replayed ReplayLine(const std::string &output)
{
    static const std::regex line(R"(replayed (\d+) frame\(s\) in ([0-9.]+) s(?: \(([0-9]+) frames/s\))?)");
    std::smatch m;
    Replayed r;
    if (std::regex_search(output, m, line)) {
        r.frames = std::stoul(m[1]);
        r.seconds = std::stod(m[2]);
        r.rate = m[3].matched ? std::stod(m[3]) : 0;
    }
    return r;
}

class ReplayPace : public pplus_e2e::TempDirTest {};

}  // namespace

TEST_F(ReplayPace, LongReplayRunsAtChannelSpeedAnswersTheCliAndStopsOnSigterm)
{
    const std::string storm = (dir_ / "storm.pcap").string();
    ASSERT_TRUE(WriteStorm(storm, 20000));
    const std::string ctl = (dir_ / "ctl.sock").string();
    Host host({"--quiet", "--control", ctl, "--startup-config", PPLUS_SOURCE_DIR "/examples/pppoe-plus.xml", "--in",
               "GigabitEthernet0/0/1=" + storm, "--loop", "0"});
    ASSERT_TRUE(host.WaitForOutput("pppoe-plus-switch: control socket " + ctl, 30000)) << host.Output();

    const auto asked = std::chrono::steady_clock::now();
    const auto list = pplus_e2e::Cli({"--control", ctl, "world", "if", "list"});
    EXPECT_LT(std::chrono::steady_clock::now() - asked, 1s);
    EXPECT_EQ(list.status, 0) << list.output;
    EXPECT_NE(list.output.find("GigabitEthernet0/0/1"), std::string::npos) << list.output;

    // A second of replay, its output read as it comes (a full pipe would
    // hold the host up, and the replay with it).
    (void)host.WaitForOutput("pppoe-plus-switch: never printed", 1000);
    const auto stopAt = std::chrono::steady_clock::now();
    EXPECT_EQ(host.Stop(SIGTERM), 0) << host.Output();
    EXPECT_LT(std::chrono::steady_clock::now() - stopAt, 5s);
    const Replayed r = ReplayLine(host.Output());
    // One frame at a time, each after a quiet period, made about 22 frames/s;
    // a sanitizer build on a busy machine still makes thousands.
    EXPECT_GT(r.rate, 200) << host.Output();
    EXPECT_NE(host.Output().find("frames/s), stopped"), std::string::npos) << host.Output();
    EXPECT_NE(host.Output().find("pppoe-plus-switch: 0 frame buffer(s) outstanding"), std::string::npos)
        << host.Output();
}

TEST_F(ReplayPace, PacedReplaysFollowTheirRateOrTheCapturesOwnTiming)
{
    const std::string storm = (dir_ / "storm.pcap").string();
    ASSERT_TRUE(WriteStorm(storm, 100));  // 99 ms of capture time
    struct Row {
        const char *why;
        std::vector<std::string> pace;
        double atLeast;
    };
    const Row rows[] = {
        {"100 frames at 50 per second", {"--pps", "50"}, 1.9},
        {"the capture's 99 ms, 20 times slower", {"--multiplier", "0.05"}, 1.9},
        {"one at a time, each once handled", {"--step"}, 0},
    };
    for (const Row &row : rows) {
        std::vector<std::string> args{"--in", "GigabitEthernet0/0/1=" + storm};
        args.insert(args.end(), row.pace.begin(), row.pace.end());
        const auto run = pplus_e2e::RunHost(args);
        EXPECT_EQ(run.status, 0) << row.why << "\n" << run.output;
        const Replayed r = ReplayLine(run.output);
        EXPECT_EQ(r.frames, 100U) << row.why << "\n" << run.output;
        EXPECT_GE(r.seconds, row.atLeast) << row.why;
        EXPECT_LT(r.seconds, row.atLeast + 20) << row.why;
        EXPECT_NE(run.output.find("port GigabitEthernet0/0/1 (5): rx 100 "), std::string::npos) << row.why;
    }
}
