/* Bounded copies and a bounded text builder for the packet path, inline:
 * the same checks and results as the bounded library calls (memcpy_s,
 * memmove_s, memset_s, strcpy_s) and a truncating formatter, without a
 * library call, or the printf machinery, for a few bytes. */
#ifndef PPPOE_PLUS_BOUNDED_H
#define PPPOE_PLUS_BOUNDED_H

#ifdef __cplusplus
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "plat_safe.h"

/* As memcpy_s: n bytes into dest of dmax bytes. Null pointers, a dest too
 * small or overlapping ranges copy nothing, zero dest (when it is there)
 * and give an error. */
inline errno_t PppoePlusCopy(void *dest, size_t dmax, const void *src, size_t n)
{
    if (dest == nullptr || dmax == 0U || dmax > RSIZE_MAX_MEM) {
        return ESNULLP;
    }
    const auto d = reinterpret_cast<uintptr_t>(dest);
    const auto s = reinterpret_cast<uintptr_t>(src);
    if (src == nullptr || n > dmax || (s < d + dmax && d < s + n)) {
        std::memset(dest, 0, dmax);
        return src == nullptr ? ESNULLP : (n > dmax ? ESNOSPC : ESOVRLP);
    }
    if (n != 0U) {
        std::memcpy(dest, src, n);
    }
    return EOK;
}

/* As memmove_s: the ranges may overlap. */
inline errno_t PppoePlusMove(void *dest, size_t dmax, const void *src, size_t n)
{
    if (dest == nullptr || dmax == 0U || dmax > RSIZE_MAX_MEM) {
        return ESNULLP;
    }
    if (src == nullptr || n > dmax) {
        std::memset(dest, 0, dmax);
        return src == nullptr ? ESNULLP : ESNOSPC;
    }
    if (n != 0U) {
        std::memmove(dest, src, n);
    }
    return EOK;
}

/* As memset_s: n bytes of dest (dmax bytes) set to value. */
inline errno_t PppoePlusFill(void *dest, size_t dmax, int value, size_t n)
{
    if (dest == nullptr || dmax > RSIZE_MAX_MEM) {
        return ESNULLP;
    }
    std::memset(dest, value, n < dmax ? n : dmax);
    return n > dmax ? ESNOSPC : EOK;
}

/* As strcpy_s: src and its terminator into dest of dmax bytes; when it
 * does not fit, dest becomes empty and the result an error. */
inline errno_t PppoePlusCopyStr(char *dest, size_t dmax, const char *src)
{
    if (dest == nullptr || dmax == 0U || dmax > RSIZE_MAX_STR) {
        return ESNULLP;
    }
    if (src == nullptr) {
        dest[0] = '\0';
        return ESNULLP;
    }
    const size_t len = strnlen(src, dmax);
    if (len == dmax) {
        dest[0] = '\0';
        return ESNOSPC;
    }
    std::memcpy(dest, src, len + 1U);
    return EOK;
}

class PppoePlusText {
public:
    /* buf holds size bytes (size > 0); it starts empty. */
    PppoePlusText(char *buf, uint32_t size) : buf_(buf), size_(size) { buf_[0] = '\0'; }

    PppoePlusText &Append(std::string_view text)
    {
        const uint32_t room = size_ - 1U - len_;
        const uint32_t n = text.size() < room ? static_cast<uint32_t>(text.size()) : room;
        if (n != 0U) {
            std::memcpy(buf_ + len_, text.data(), n);
            len_ += n;
            buf_[len_] = '\0';
        }
        return *this;
    }

    /* As "%u". */
    PppoePlusText &AppendU32(uint32_t value)
    {
        char digits[10];
        const auto result = std::to_chars(digits, digits + sizeof(digits), value);
        return Append(std::string_view(digits, static_cast<size_t>(result.ptr - digits)));
    }

    /* As "%02x". */
    PppoePlusText &AppendHex2(uint8_t value)
    {
        static constexpr char kHex[] = "0123456789abcdef";
        const char pair[2] = {kHex[value >> 4U], kHex[value & 0x0FU]};
        return Append(std::string_view(pair, sizeof(pair)));
    }

    uint32_t Length() const { return len_; }
    const char *CStr() const { return buf_; }

private:
    char *buf_;
    uint32_t size_;
    uint32_t len_ = 0;
};
#endif

#endif
