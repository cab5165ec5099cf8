// Blocks of a few sizes from 64 KiB slabs (see block_pool.hpp).
#include "core/block_pool.hpp"

#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <vector>

#include "core/internal.hpp"

#if defined(__SANITIZE_ADDRESS__)
#define BLOCK_POOL_POISONS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define BLOCK_POOL_POISONS 1
#endif
#endif
#ifdef BLOCK_POOL_POISONS
#include <sanitizer/asan_interface.h>
#endif

namespace platform::internal::block_pool {

namespace {

constexpr size_t kSlabBytes = size_t{1} << 16;
constexpr size_t kSlabHeadBytes = 64;
constexpr size_t kLinkOffset = 8;   // the pool's link in a free block
// Size classes: 32-byte steps up to 512, then about half a power of two.
constexpr std::array<size_t, 26> kSizes = {32,   64,   96,   128,  160,  192,  224,  256,   288,   320,
                                           352,  384,  416,  448,  480,  512,  768,  1024,  1536,  2048,
                                           3072, 4096, 6144, 8192, 12288, 16384};
static_assert(kSizes.back() == kMaxBlock, "the last class is the largest block");
constexpr uint32_t kBatch = 32;      // blocks moved between a thread and a depot at a time
constexpr uint32_t kThreadMax = 64;  // a thread keeps at most this many free blocks of a size

// At the start of every slab.
struct SlabHead {
    uint32_t blockSize;
    uint32_t sizeClass;
    uint32_t blocks;               // blocks the slab can hold
    std::atomic<uint32_t> carved;  // blocks handed out at least once, from the front
    // ceil(2^32 / blockSize): offset * this >> 32 is offset / blockSize for
    // every offset within a slab (below 2^16), without a division.
    uint64_t reciprocal;
};
static_assert(sizeof(SlabHead) <= kSlabHeadBytes, "the slab head fits its room");

// Which 64 KiB-aligned addresses start a slab: one bit per slab, in pages
// of 2^16 slabs (4 GiB of addresses) made on first use; 48-bit addresses.
constexpr unsigned kAddressBits = 48;
constexpr size_t kSlabsPerPage = size_t{1} << 16;
constexpr size_t kPages = size_t{1} << (kAddressBits - 16 - 16);
std::array<std::atomic<std::atomic<uint64_t> *>, kPages> g_slabMap{};

struct Depot {
    std::mutex mu;
    void *free = nullptr;      // linked through each block's link
    char *carve = nullptr;     // the newest slab's uncut blocks
    SlabHead *carveSlab = nullptr;
};

std::array<Depot, kSizes.size()> &Depots()
{
    static auto *depots = new std::array<Depot, kSizes.size()>();
    return *depots;
}

// Registering slabs; every slab stays listed for the life of the process.
struct SlabList {
    std::mutex mu;
    std::vector<void *> slabs;
};

SlabList &Slabs()
{
    static auto *list = new SlabList();
    return *list;
}

void *NextOf(const void *block)
{
    void *next = nullptr;
    std::memcpy(&next, static_cast<const char *>(block) + kLinkOffset, sizeof(next));
    return next;
}

void SetNext(void *block, void *next)
{
    std::memcpy(static_cast<char *>(block) + kLinkOffset, &next, sizeof(next));
}

int ClassOf(size_t size)
{
    if (size <= 512) {
        return size == 0 ? 0 : static_cast<int>((size + 31) / 32) - 1;
    }
    for (size_t i = 16; i < kSizes.size(); i++) {
        if (size <= kSizes[i]) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

SlabHead *SlabOf(const void *p)
{
    return reinterpret_cast<SlabHead *>(reinterpret_cast<uintptr_t>(p) & ~(kSlabBytes - 1));
}

// Records a slab so that BlockOf finds it.
bool Register(const void *slab)
{
    const auto addr = reinterpret_cast<uintptr_t>(slab);
    std::atomic<uint64_t> *page = g_slabMap[addr >> 32].load(std::memory_order_acquire);
    SlabList &list = Slabs();
    std::lock_guard lock(list.mu);
    if (page == nullptr) {
        page = new (std::nothrow) std::atomic<uint64_t>[kSlabsPerPage / 64]();
        if (page == nullptr) {
            return false;
        }
        g_slabMap[addr >> 32].store(page, std::memory_order_release);
    }
    try {
        list.slabs.push_back(const_cast<void *>(slab));
    } catch (const std::bad_alloc &) {
        return false;
    }
    const size_t index = (addr >> 16) & (kSlabsPerPage - 1);
    page[index / 64].fetch_or(uint64_t{1} << (index % 64), std::memory_order_release);
    return true;
}

// A new slab for a class, or null. Caller holds the class's depot lock.
SlabHead *NewSlab(size_t sizeClass)
{
    void *memory = std::aligned_alloc(kSlabBytes, kSlabBytes);
    if (memory == nullptr) {
        return nullptr;
    }
    if ((reinterpret_cast<uintptr_t>(memory) >> kAddressBits) != 0) {
        std::free(memory);
        return nullptr;
    }
    const uint64_t size = kSizes[sizeClass];
    auto *slab = new (memory) SlabHead{static_cast<uint32_t>(size), static_cast<uint32_t>(sizeClass),
                                       static_cast<uint32_t>((kSlabBytes - kSlabHeadBytes) / size), {0},
                                       ((uint64_t{1} << 32) + size - 1U) / size};
    if (!Register(slab)) {
        std::free(memory);
        return nullptr;
    }
    return slab;
}

// A thread's free blocks; a plain record, so it outlives the guard below
// for anything the thread frees after its exit began.
struct Cache {
    std::array<void *, kSizes.size()> head{};
    std::array<uint32_t, kSizes.size()> count{};
    bool closed = false;   // the thread is ending: blocks go to the depots
};

thread_local Cache t_cache;

__attribute__((noinline)) Cache *CacheOfThread()
{
    return &t_cache;
}

Cache &ThreadCache()
{
    return ThreadRef<Cache, CacheOfThread>(ThreadRefId::kBlockCache);
}

// Moves up to n blocks of the thread's list to the depot.
void Spill(Cache &cache, size_t sizeClass, uint32_t n)
{
    Depot &depot = Depots()[sizeClass];
    std::lock_guard lock(depot.mu);
    while (n-- != 0 && cache.head[sizeClass] != nullptr) {
        void *block = cache.head[sizeClass];
        cache.head[sizeClass] = NextOf(block);
        cache.count[sizeClass]--;
        SetNext(block, depot.free);
        depot.free = block;
    }
}

struct CacheGuard {
    bool armed = false;   // set on first use, which registers the destructor
    ~CacheGuard()
    {
        for (size_t c = 0; c < kSizes.size(); c++) {
            Spill(t_cache, c, UINT32_MAX);
        }
        t_cache.closed = true;
    }
};

thread_local CacheGuard t_cacheGuard;

// Up to n free blocks of a class, linked, from the depot (or newly cut);
// their number in *got.
void *TakeFromDepot(size_t sizeClass, uint32_t n, uint32_t *got)
{
    Depot &depot = Depots()[sizeClass];
    std::lock_guard lock(depot.mu);
    void *list = nullptr;
    *got = 0;
    while (*got < n) {
        void *block = nullptr;
        if (depot.free != nullptr) {
            block = depot.free;
            depot.free = NextOf(block);
        } else {
            if (depot.carveSlab == nullptr ||
                depot.carveSlab->carved.load(std::memory_order_relaxed) == depot.carveSlab->blocks) {
                depot.carveSlab = NewSlab(sizeClass);
                if (depot.carveSlab == nullptr) {
                    break;
                }
                depot.carve = reinterpret_cast<char *>(depot.carveSlab) + kSlabHeadBytes;
            }
            block = depot.carve;
            depot.carve += kSizes[sizeClass];
            depot.carveSlab->carved.fetch_add(1, std::memory_order_release);
        }
        SetNext(block, list);
        list = block;
        (*got)++;
    }
    return list;
}

// Under AddressSanitizer a free block is poisoned past its head, which
// stays the user's and the pool's: whoever takes it next (any user of the
// pool) finds it whole, and a touch of a given-back block is reported.
void PoisonFree(void *block)
{
#ifdef BLOCK_POOL_POISONS
    ASAN_POISON_MEMORY_REGION(static_cast<char *>(block) + sizeof(BlockHead), BlockSize(block) - sizeof(BlockHead));
#else
    (void)block;
#endif
}

void *Taken(void *block)
{
#ifdef BLOCK_POOL_POISONS
    if (block != nullptr) {
        ASAN_UNPOISON_MEMORY_REGION(static_cast<char *>(block) + sizeof(BlockHead),
                                    BlockSize(block) - sizeof(BlockHead));
    }
#endif
    return block;
}

void *TakeBlock(size_t size)
{
    const int found = ClassOf(size);
    if (found < 0) {
        return nullptr;
    }
    const auto sizeClass = static_cast<size_t>(found);
    Cache &cache = ThreadCache();
    if (cache.closed) {
        uint32_t got = 0;
        return TakeFromDepot(sizeClass, 1, &got);
    }
    if (cache.head[sizeClass] == nullptr) {
        if (!t_cacheGuard.armed) {
            t_cacheGuard.armed = true;   // the thread's blocks go back when it ends
        }
        uint32_t got = 0;
        cache.head[sizeClass] = TakeFromDepot(sizeClass, kBatch, &got);
        cache.count[sizeClass] = got;
        if (got == 0) {
            return nullptr;
        }
    }
    void *block = cache.head[sizeClass];
    cache.head[sizeClass] = NextOf(block);
    cache.count[sizeClass]--;
    return block;
}

}  // namespace

void *Take(size_t size)
{
    return Taken(TakeBlock(size));
}

void Give(void *block)
{
    PoisonFree(block);
    const size_t sizeClass = SlabOf(block)->sizeClass;
    Cache &cache = ThreadCache();
    if (cache.closed) {
        Depot &depot = Depots()[sizeClass];
        std::lock_guard lock(depot.mu);
        SetNext(block, depot.free);
        depot.free = block;
        return;
    }
    if (cache.count[sizeClass] == 0 && !t_cacheGuard.armed) {
        t_cacheGuard.armed = true;
    }
    SetNext(block, cache.head[sizeClass]);
    cache.head[sizeClass] = block;
    if (++cache.count[sizeClass] > kThreadMax) {
        Spill(cache, sizeClass, kBatch);
    }
}

constinit thread_local KnownBlocks t_knownBlocks;

static __attribute__((noinline)) KnownBlocks *KnownBlocksOfThread()
{
    return &t_knownBlocks;
}

void *LearnBlock(const void *p)
{
    void *block = LookUpBlock(p);
    if (block != nullptr) {
        KnownBlocks &known = ThreadRef<KnownBlocks, KnownBlocksOfThread>(ThreadRefId::kKnownBlocks);
        const size_t slot = KnownBlocks::SlotOf(p);
        known.address[slot] = p;
        known.block[slot] = block;
    }
    return block;
}

void *LookUpBlock(const void *p)
{
    const auto addr = reinterpret_cast<uintptr_t>(p);
    if ((addr >> kAddressBits) != 0) {
        return nullptr;
    }
    const std::atomic<uint64_t> *page = g_slabMap[addr >> 32].load(std::memory_order_acquire);
    if (page == nullptr) {
        return nullptr;
    }
    const size_t index = (addr >> 16) & (kSlabsPerPage - 1);
    if ((page[index / 64].load(std::memory_order_acquire) & (uint64_t{1} << (index % 64))) == 0) {
        return nullptr;
    }
    const SlabHead *slab = SlabOf(p);
    const uintptr_t first = reinterpret_cast<uintptr_t>(slab) + kSlabHeadBytes;
    if (addr < first) {
        return nullptr;
    }
    const size_t block = ((addr - first) * slab->reciprocal) >> 32U;
    if (block >= slab->carved.load(std::memory_order_acquire)) {
        return nullptr;
    }
    return reinterpret_cast<void *>(first + block * slab->blockSize);
}

size_t BlockSize(const void *block)
{
    return SlabOf(block)->blockSize;
}

}  // namespace platform::internal::block_pool
