// The plane's tables spread their keys with one 64-bit finaliser, so that
// neighbouring MACs land far apart.
#pragma once

#include <cstdint>

namespace device::fplane {

inline uint64_t Mix(uint64_t k)
{
    k ^= k >> 33;
    k *= 0xff51afd7ed558ccdULL;
    k ^= k >> 33;
    k *= 0xc4ceb9fe1a85ec53ULL;
    k ^= k >> 33;
    return k;
}

}  // namespace device::fplane
