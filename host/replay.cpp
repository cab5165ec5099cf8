// Paced replay into the forwarding plane (see replay.hpp).
#include "replay.hpp"

#include <algorithm>
#include <cstdio>
#include <thread>

#include "wick.h"

namespace host {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// The agent's receive thread: idle while it waits for frames.
constexpr const char *kAgentRxThread = "thread/dpx2ppplus";
// Frames wait while the channel to the agent holds this many (of its 1024),
// or the agent's channel back to the plane this many: a PADI can become
// eight copies, and a full channel would drop frames instead of slowing
// the replay down. A few dozen keep the agent busy; more would only hold
// frame buffers (and memory) while the agent is held up.
constexpr uint32_t kPuntHighWater = 64;
constexpr uint32_t kSendHighWater = 256;
constexpr auto kRoomPoll = 100us;
// Longest sleep between looks at the stop flag.
constexpr auto kStopPoll = 50ms;

std::chrono::duration<double> Since(const timeval &first, const timeval &t)
{
    return std::chrono::seconds(t.tv_sec - first.tv_sec) + std::chrono::microseconds(t.tv_usec - first.tv_usec);
}

}  // namespace

void AddReplayOptions(CLI::App &app, ReplayPace &pace)
{
    auto *pps = app.add_option("--pps", pace.pps, "Replay at this many frames per second")
                    ->check(CLI::PositiveNumber);
    auto *multiplier = app.add_option("--multiplier", pace.multiplier,
                                      "Replay at the captures' own pace, this many times faster")
                           ->check(CLI::PositiveNumber);
    auto *step = app.add_flag("--step", pace.step,
                              "Replay one frame at a time, each once the one before was handled");
    pps->excludes(multiplier)->excludes(step);
    multiplier->excludes(step);
    app.add_option("--loop", pace.loops, "Replay the inputs this many times (0: until stopped)")
        ->default_str("1");
}

std::string ReplayResult::Describe() const
{
    const double seconds = took.count();
    char rate[64] = "";
    if (seconds > 0) {
        (void)std::snprintf(rate, sizeof(rate), " (%.0f frames/s)", static_cast<double>(frames) / seconds);
    }
    char text[256];
    (void)std::snprintf(text, sizeof(text), "replayed %llu frame(s) in %.3f s%s", static_cast<unsigned long long>(frames),
                        seconds, rate);
    std::string out = text;
    if (stopped) {
        out += planned != 0 ? ", stopped before the last " + std::to_string(planned - frames) : ", stopped";
    }
    return out;
}

bool Replayer::WaitUntil(Clock::time_point due)
{
    for (;;) {
        if (stopping_) {
            return false;
        }
        const auto now = Clock::now();
        if (now >= due) {
            return true;
        }
        std::this_thread::sleep_for(std::min<Clock::duration>(due - now, kStopPoll));
    }
}

bool Replayer::WaitForRoom()
{
    while (WICK_ChannelDepth(device::fplane::kPuntChannel) >= kPuntHighWater ||
           WICK_ChannelDepth(device::fplane::kSendChannel) >= kSendHighWater) {
        if (stopping_) {
            return false;
        }
        std::this_thread::sleep_for(kRoomPoll);
    }
    return !stopping_;
}

bool Replayer::Settled(std::chrono::milliseconds quiet, std::chrono::milliseconds timeout, bool evenWhenStopping)
{
    const auto deadline = Clock::now() + timeout;
    while (Clock::now() < deadline && (evenWhenStopping || !stopping_)) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        // Bounded, so that a stop is seen: quiet plus a little.
        if (plane_.WaitIdle(quiet, std::min<std::chrono::milliseconds>(left, quiet + kStopPoll * 4)) &&
            WICK_ThreadIsWaiting(kAgentRxThread) != 0 && plane_.WaitIdle(quiet, quiet * 4)) {
            return true;
        }
        std::this_thread::sleep_for(5ms);
    }
    return false;
}

ReplayResult Replayer::Run(const std::vector<device::fplane::ReplayFrame> &frames, const ReplayPace &pace)
{
    ReplayResult result;
    result.planned = pace.loops == 0 ? 0 : frames.size() * pace.loops;
    const auto start = Clock::now();
    // In step mode each frame waits until the one before was handled; once
    // the plane stalls the rest go in without waiting.
    bool stepping = pace.step;
    for (unsigned loop = 0; !frames.empty() && (pace.loops == 0 || loop < pace.loops); loop++) {
        const auto loopStart = Clock::now();
        for (const device::fplane::ReplayFrame &frame : frames) {
            Clock::time_point due = loopStart;
            if (pace.pps > 0) {
                due = start + std::chrono::duration_cast<Clock::duration>(
                                  std::chrono::duration<double>(static_cast<double>(result.frames) / pace.pps));
            } else if (pace.multiplier > 0) {
                due = loopStart + std::chrono::duration_cast<Clock::duration>(
                                      Since(frames.front().ts, frame.ts) / pace.multiplier);
            }
            if (!WaitUntil(due) || !WaitForRoom()) {
                result.stopped = true;
                result.took = Clock::now() - start;
                return result;
            }
            plane_.Receive(frame.ifIndex, frame.bytes);
            result.frames++;
            if (stepping) {
                stepping = Settled(20ms, 2s);
                result.idle = stepping || stopping_;
            }
        }
    }
    result.took = Clock::now() - start;
    result.idle = Settled(200ms, result.idle ? 10s : 2s) && result.idle;
    result.stopped = stopping_.load();
    return result;
}

}  // namespace host
