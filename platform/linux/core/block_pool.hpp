// Blocks of a few sizes from 64 KiB slabs, for the platform services that
// allocate on a module's packet path (the memory service above all): a
// block is taken from and given back to a free list of the calling thread,
// so a warm path takes no lock and makes no heap allocation. Lists spill
// to (and refill from) a shared depot per size under a lock, a batch at a
// time. Slabs are kept for the life of the process and registered, so
// BlockOf tells whether an address lies in one of the pool's blocks without
// reading memory that is not the pool's.
//
// A block's first 8 bytes are the caller's even while the block is free
// (a caller keeps a state word there); the pool links free blocks through
// the next 8.
#pragma once

#include <cstddef>
#include <cstdint>

namespace platform::internal {

namespace block_pool {

// The largest block.
inline constexpr size_t kMaxBlock = 16384;

// A block of at least size bytes (size <= kMaxBlock), aligned to 16 bytes;
// null when memory is out.
void *Take(size_t size);
// Gives back a block Take returned.
void Give(void *block);
// The start of the pool's block that p points into; null when p is not in
// one of the pool's blocks.
void *BlockOf(const void *p);
// The size of a block (its size class, at least what was asked for).
size_t BlockSize(const void *block);

}  // namespace block_pool

}  // namespace platform::internal
