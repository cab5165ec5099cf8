// Address text helper of the OS abstraction.
#include <cstdio>

#include "core/internal.hpp"
#include "platform/fail_point.hpp"
#include "ruk.h"

extern "C" uint32_t RUK_IpAddrToStr(uint32_t ipAddr, char *str, uint32_t size)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (str == nullptr || size == 0) {
        return RUK_ERR_PARAM;
    }
    const int n = std::snprintf(str, size, "%u.%u.%u.%u", (ipAddr >> 24) & 0xFFU, (ipAddr >> 16) & 0xFFU,
                                (ipAddr >> 8) & 0xFFU, ipAddr & 0xFFU);
    if (n < 0 || static_cast<uint32_t>(n) >= size) {
        str[0] = '\0';
        return RUK_ERR_PARAM;
    }
    return RUK_OK;
}
