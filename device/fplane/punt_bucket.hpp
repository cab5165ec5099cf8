// A token bucket for the discovery frames the plane punts to the agent, as
// a switch's CPU-bound policer keeps one per port and one for the chip. It
// runs the generic cell rate algorithm on one atomic word: a frame at time
// t conforms when the bucket's theoretical arrival time is at most
// (burst - 1) frame intervals ahead of t, and moves that time one interval
// on. Any number of receiving threads take from it at once without a lock;
// a frame that does not conform changes nothing. The same as a bucket of
// burst tokens refilled at rate tokens a second.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/world.hpp"

namespace device::fplane {

class PuntBucket {
public:
    static constexpr uint64_t kNsPerSecond = 1000000000ULL;

    // A new rate applies from the next frame; the frames already counted
    // against the old one stay counted.
    void Configure(const platform::PuntRate &rate)
    {
        const uint64_t interval = rate.Limits() ? kNsPerSecond / rate.rate : 0;
        const uint64_t burst = rate.burst == 0 ? 1 : rate.burst;
        tolerance_.store(interval * (burst - 1), std::memory_order_relaxed);
        interval_.store(interval, std::memory_order_relaxed);
        rate_.store(rate.rate, std::memory_order_relaxed);
        burst_.store(rate.Limits() ? static_cast<uint32_t>(burst) : 0, std::memory_order_relaxed);
    }

    platform::PuntRate Rate() const
    {
        return {rate_.load(std::memory_order_relaxed), burst_.load(std::memory_order_relaxed)};
    }

    bool Limits() const { return interval_.load(std::memory_order_relaxed) != 0; }

    // Whether a frame at nowNs (a monotonic clock) conforms; it is counted
    // against the bucket when it does.
    bool Take(uint64_t nowNs)
    {
        const uint64_t interval = interval_.load(std::memory_order_relaxed);
        if (interval == 0) {
            return true;
        }
        const uint64_t tolerance = tolerance_.load(std::memory_order_relaxed);
        uint64_t tat = tat_.load(std::memory_order_relaxed);
        for (;;) {
            const uint64_t base = tat > nowNs ? tat : nowNs;
            if (base - nowNs > tolerance) {
                return false;
            }
            if (tat_.compare_exchange_weak(tat, base + interval, std::memory_order_relaxed)) {
                return true;
            }
        }
    }

    // Hands back a frame taken by Take that went no further.
    void GiveBack()
    {
        const uint64_t interval = interval_.load(std::memory_order_relaxed);
        uint64_t tat = tat_.load(std::memory_order_relaxed);
        while (tat >= interval && !tat_.compare_exchange_weak(tat, tat - interval, std::memory_order_relaxed)) {
        }
    }

private:
    std::atomic<uint64_t> interval_{0};    // ns between two frames at the rate; 0: no limit
    std::atomic<uint64_t> tolerance_{0};   // how far ahead the arrival time may run: (burst - 1) intervals
    std::atomic<uint64_t> tat_{0};         // theoretical arrival time of the next frame, ns
    std::atomic<uint32_t> rate_{0};
    std::atomic<uint32_t> burst_{0};
};

}  // namespace device::fplane
