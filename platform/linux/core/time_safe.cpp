// Time scaling and the bounded helpers of plat_safe.h.
//
// The real platform sleeps in real time. Ours multiplies every delay and
// every watchdog threshold by a scale in thousandths, so a test can make a
// ten-second wait take ten milliseconds (sleep(3) included). eventfd_s and close_s are the
// system calls behind failure injection ("eventfd_s", "close_s"): when told
// to fail they return -1 with errno set to the injected code and do nothing.
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <thread>

#include "core/internal.hpp"
#include "plat_safe.h"
#include "platform/control.h"
#include "platform/fail_point.hpp"

namespace {
std::atomic<uint32_t> g_timeScale{1000};
}  // namespace

namespace platform::internal {

uint64_t ScaledMicros(uint64_t ms)
{
    // ms * 1000 us * scale / 1000
    return ms * g_timeScale.load(std::memory_order_relaxed);
}

}  // namespace platform::internal

extern "C" {

void PLAT_SetTimeScale(uint32_t permille)
{
    // 0 would turn every threshold into "now"; the smallest scale is 1.
    g_timeScale.store(permille == 0 ? 1 : permille, std::memory_order_relaxed);
}

uint32_t PLAT_GetTimeScale(void)
{
    return g_timeScale.load(std::memory_order_relaxed);
}

void PLAT_ScaledSleep(uint32_t ms)
{
    std::this_thread::sleep_for(std::chrono::microseconds(platform::internal::ScaledMicros(ms)));
}

// sleep(3) follows the time scale too: modules wait between connection
// attempts with it. The platform library comes before the C library in the
// lookup order, so this definition is the one every caller binds to.
unsigned int sleep(unsigned int seconds)
{
    PLAT_ScaledSleep(seconds * 1000U);
    return 0;
}

int vsnprintf_truncated_s(char *dest, size_t dmax, const char *fmt, va_list ap)
{
    if (dest == nullptr || dmax == 0) {
        return -1;
    }
    if (fmt == nullptr) {
        dest[0] = '\0';
        return -1;
    }
    const int n = std::vsnprintf(dest, dmax, fmt, ap);
    if (n < 0) {
        dest[0] = '\0';
        return -1;
    }
    const size_t full = static_cast<size_t>(n);
    return static_cast<int>(full < dmax ? full : dmax - 1);
}

int snprintf_truncated_s(char *dest, size_t dmax, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const int n = vsnprintf_truncated_s(dest, dmax, fmt, ap);
    va_end(ap);
    return n;
}

int eventfd_s(unsigned int initval, int flags)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        errno = static_cast<int>(*failed);
        return -1;
    }
    return eventfd(initval, flags);
}

int close_s(int fd)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        errno = static_cast<int>(*failed);
        return -1;
    }
    return close(fd);
}

}  // extern "C"
