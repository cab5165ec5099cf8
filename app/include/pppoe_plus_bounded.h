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

/* Inlined where the source is a small array, g++ reasons about the branches
 * for longer copies, which the length rules out, as if they could run. */
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Warray-bounds"
#pragma GCC diagnostic ignored "-Wstringop-overread"
#pragma GCC diagnostic ignored "-Wstringop-overflow"
#endif
/* The first and the last sizeof(T) bytes of n (sizeof(T) <= n <= 2 *
 * sizeof(T)), both loaded before either is stored. */
template <typename T>
inline void PppoePlusMoveEnds(unsigned char *d, const unsigned char *s, size_t n)
{
    T head;
    T tail;
    std::memcpy(&head, s, sizeof(T));
    std::memcpy(&tail, s + n - sizeof(T), sizeof(T));
    std::memcpy(d, &head, sizeof(T));
    std::memcpy(d + n - sizeof(T), &tail, sizeof(T));
}

struct PppoePlusChunk16 {
    unsigned char bytes[16];
};

/* n bytes from src to dest, the ranges may overlap. Up to 32 bytes (most
 * copies of the packet path: names, tags, a sub-option) with a few loads
 * and stores inline, all loads first; longer ones by the C library. */
inline void PppoePlusMoveBytes(void *dest, const void *src, size_t n)
{
    auto *d = static_cast<unsigned char *>(dest);
    const auto *s = static_cast<const unsigned char *>(src);
    if (n >= 16U && n <= 32U) {
        PppoePlusMoveEnds<PppoePlusChunk16>(d, s, n);
    } else if (n >= 8U && n < 16U) {
        PppoePlusMoveEnds<uint64_t>(d, s, n);
    } else if (n >= 4U && n < 8U) {
        PppoePlusMoveEnds<uint32_t>(d, s, n);
    } else if (n >= 2U && n < 4U) {
        PppoePlusMoveEnds<uint16_t>(d, s, n);
    } else if (n == 1U) {
        d[0] = s[0];
    } else if (n > 32U) {
        std::memmove(dest, src, n);
    }
}
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

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
    PppoePlusMoveBytes(dest, src, n);
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
    PppoePlusMoveBytes(dest, src, n);
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
    PppoePlusMoveBytes(dest, src, len + 1U);
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
            PppoePlusMoveBytes(buf_ + len_, text.data(), n);
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
