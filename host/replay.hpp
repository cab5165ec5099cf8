// Replaying captured frames into the forwarding plane, like tcpreplay
// into a wire: as fast as the plane's channel to the agent takes them
// (back-pressure, never a drop), at a fixed rate (--pps), at the capture's
// own pace sped up or slowed down (--multiplier), or one frame at a time,
// each once the agent and the plane have handled the one before (--step:
// deterministic, for tests). Frames go in in their merged order in every
// mode; a replay can loop, and stops within a frame when asked.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

// CLI11 trips g++'s null-dereference analysis inside its own headers.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnull-dereference"
#include <CLI/CLI.hpp>
#pragma GCC diagnostic pop

#include "device/fplane.hpp"

namespace host {

struct ReplayPace {
    double pps = 0;          // frames per second; 0: not paced by rate
    double multiplier = 0;   // the capture's timing divided by this; 0: not paced by the capture
    bool step = false;       // one frame at a time, each once the one before was handled
    unsigned loops = 1;      // times the frames are replayed; 0: until stopped
};

// --pps, --multiplier, --step, --loop.
void AddReplayOptions(CLI::App &app, ReplayPace &pace);

// What a replay did.
struct ReplayResult {
    uint64_t frames = 0;         // frames that went in
    uint64_t planned = 0;        // frames the replay would have put in (0: looping until stopped)
    bool stopped = false;        // Stop() ended it early
    bool idle = true;            // the plane and the agent became idle after it
    std::chrono::duration<double> took{};

    // "replayed N frame(s) in S s (R frames/s)", and how it ended.
    std::string Describe() const;
};

class Replayer {
public:
    explicit Replayer(device::fplane::ForwardingPlane &plane) : plane_(plane) {}

    // Puts frames into the plane as pace says, then waits until the plane
    // and the agent are idle. Runs on the caller's thread.
    ReplayResult Run(const std::vector<device::fplane::ReplayFrame> &frames, const ReplayPace &pace);
    // Ends a running replay (and every later one) within one frame.
    void Stop() { stopping_ = true; }
    bool Stopping() const { return stopping_.load(); }
    // Waits up to timeout until the plane and the agent have handled every
    // frame under way (also once stopped); false when they did not.
    bool Drain(std::chrono::milliseconds timeout) { return Settled(std::chrono::milliseconds(20), timeout, true); }

private:
    // Sleeps until due (or the back-pressure lifts); false when stopped.
    bool WaitUntil(std::chrono::steady_clock::time_point due);
    bool WaitForRoom();
    // The plane and the agent idle: nothing in the channels, nothing handled
    // for quiet, the agent's receive thread back in its wait. Gives up at a
    // stop unless evenWhenStopping.
    bool Settled(std::chrono::milliseconds quiet, std::chrono::milliseconds timeout, bool evenWhenStopping = false);

    device::fplane::ForwardingPlane &plane_;
    std::atomic<bool> stopping_{false};
};

}  // namespace host
