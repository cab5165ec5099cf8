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

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "core/thread_ref.hpp"

namespace platform::internal {

namespace block_pool {

// What a user of the pool keeps in the first 32 bytes of a block, in front
// of what it hands out: a state word, which stays the user's while the
// block is free (so a stale or double release is told from a live one),
// a word of its own, the pool's link while the block is free (the user's
// while it lives), and two more words.
struct alignas(16) BlockHead {
    std::atomic<uint32_t> state;
    uint32_t word;
    uint64_t link;
    void *owner;
    uint64_t spare;
};
static_assert(sizeof(BlockHead) == 32, "what a user hands out starts 32 bytes into its block");

// The block of an address in a slab never changes (slabs stay, and keep
// their block size), so each thread remembers the ones it looked up last:
// the same few objects are checked many times a frame.
struct KnownBlocks {
    // Enough slots that the few dozen objects and buffers a frame checks
    // seldom share one (a shared slot makes both look-ups slow ones).
    static constexpr unsigned kSlotBits = 9;
    static constexpr size_t kSlots = size_t{1} << kSlotBits;
    static size_t SlotOf(const void *p)
    {
        return static_cast<size_t>((reinterpret_cast<uintptr_t>(p) * 0x9E3779B97F4A7C15ULL) >> (64U - kSlotBits));
    }
    std::array<const void *, kSlots> address{};
    std::array<void *, kSlots> block{};
};

// BlockOf without the thread's memory of it.
void *LookUpBlock(const void *p);
// BlockOf when the thread does not remember p: looks it up and remembers it.
void *LearnBlock(const void *p);

// The largest block.
inline constexpr size_t kMaxBlock = 16384;

// A block of at least size bytes (size <= kMaxBlock), aligned to 16 bytes;
// null when memory is out.
void *Take(size_t size);
// Gives back a block Take returned.
void Give(void *block);
// The start of the pool's block that p points into; null when p is not in
// one of the pool's blocks.
inline void *BlockOf(const void *p)
{
    if (const void *ref = ThreadRefSlot(ThreadRefId::kKnownBlocks); ref != nullptr) {
        const auto &known = *static_cast<const KnownBlocks *>(ref);
        const size_t slot = KnownBlocks::SlotOf(p);
        if (known.address[slot] == p && p != nullptr) {
            return known.block[slot];
        }
    }
    return LearnBlock(p);
}
// The size of a block (its size class, at least what was asked for).
size_t BlockSize(const void *block);

}  // namespace block_pool

}  // namespace platform::internal
