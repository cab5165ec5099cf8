// The one way a platform operation asks failure injection whether this call
// fails. Every operation of the platform, the channel library, the
// configuration client and the datastore opens with
//
//     if (const auto failed = platform::FailPoint(__func__)) {
//         return *failed;   // or the operation's own failure value
//     }
//
// and only then looks at its arguments. The operation's name is its
// function name (__func__), which PLAT_FailSet names too; a helper shared by
// several operations takes its caller's name, and the device layer's
// operations pass their documented names ("device::yangdb::Save", ...).
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>

#include "platform/control.h"

namespace platform {

namespace internal {
// Nonzero while call counting is on or a failure is armed (core/fail.cpp).
extern std::atomic<uint32_t> g_failActive;
}  // namespace internal

// Counts a call of op; the code this call must fail with when a failure is
// armed for op (PLAT_FailSet), nullopt otherwise. op has static storage.
// With neither counting nor anything armed (the host, the benchmarks) this
// is one relaxed load and no call.
inline std::optional<uint32_t> FailPoint(const char *op)
{
    if (internal::g_failActive.load(std::memory_order_relaxed) == 0) {
        return std::nullopt;
    }
    uint32_t code = 0;
    if (PLAT_FailCheck(op, &code) == 0) {
        return std::nullopt;
    }
    return code;
}

}  // namespace platform
