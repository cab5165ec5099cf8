// Memory handles, partitions and accounted blocks.
//
// The real platform gives each module a named memory handle and allocates
// from named partitions, tagging blocks with the allocating call site. Ours
// hands out one handle per name and one number per partition name, and
// puts a header (state, handle, size, call site) in front of every block.
// Blocks up to 16 KiB come from the platform's block pool (free lists per
// thread, so a module's packet path allocates without a lock or the heap
// once warm); larger ones from the C heap, kept in a set. Freeing a pointer
// that is null, foreign or already freed is refused with RUK_ERR_BAD_FREE
// without touching it: a pool block is recognised by address and its state
// word, a heap block by the set. Outstanding blocks are accounted per call
// site (PLAT_MemOutstanding, PLAT_MemLeakReport). Failure injection:
// RUK_MemAlloc_F then returns null, the others their injected code.
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <unordered_set>
#include <vector>

#include "core/block_pool.hpp"
#include "core/internal.hpp"
#include "platform/control.h"
#include "platform/fail_point.hpp"
#include "ruk.h"

#if defined(__SANITIZE_ADDRESS__)
#define RUK_POISONS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define RUK_POISONS 1
#endif
#endif
#ifdef RUK_POISONS
#include <sanitizer/asan_interface.h>
#endif

namespace {

namespace pool = platform::internal::block_pool;

constexpr uint32_t kLiveMagic = 0x52554b4cU;   // live block
constexpr uint32_t kFreedMagic = 0x52554b46U;  // freed block
// Handle values modules treat as "none".
constexpr uint32_t kReservedHandleA = 255U;
constexpr uint32_t kReservedHandleB = 0xFFFFFFFFU;
// Handles below this are checked without the lock.
constexpr uint32_t kQuickHandles = 1024;

struct Site {
    std::string handleName;
    std::string file;
    uint32_t line = 0;
    std::atomic<uint32_t> blocks{0};
    std::atomic<uint64_t> bytes{0};
};

// In front of every block (heap blocks too): state, handle (word), size
// (link, the pool's while a pooled block is free) and call site (owner).
using BlockHeader = pool::BlockHead;

// A call site as the caller names it (its file pointer), for the lookup
// cache; kept for good once made.
struct SiteKey {
    uint32_t handle;
    const char *file;
    uint32_t line;
    Site *site;
};
constexpr unsigned kSiteSlotBits = 10;

struct Memory {
    platform::internal::SpinMutex mu;  // the maps below and the heap blocks' set
    std::map<std::string, uint32_t, std::less<>> handleByName;
    std::map<uint32_t, std::string> handleNames;
    uint32_t nextHandle = 1;
    std::array<std::atomic<bool>, kQuickHandles> quickHandle{};
    std::map<std::string, uint32_t, std::less<>> partitionByName;
    std::atomic<uint32_t> nextPartition{1};
    // Sites are kept once created, so block headers may point at them.
    std::map<std::tuple<uint32_t, std::string, uint32_t>, std::unique_ptr<Site>> sites;
    std::vector<std::unique_ptr<SiteKey>> siteKeys;
    std::array<std::atomic<const SiteKey *>, size_t{1} << kSiteSlotBits> siteSlots{};
    std::unordered_set<const void *> heapBlocks;   // live blocks from the C heap
};

Memory &TheMemory()
{
    return platform::internal::Leaky<Memory>();
}

bool KnownHandle(Memory &mem, uint32_t handle)
{
    if (handle < kQuickHandles) {
        return mem.quickHandle[handle].load(std::memory_order_acquire);
    }
    std::lock_guard lock(mem.mu);
    return mem.handleNames.count(handle) != 0;
}

bool KnownPartition(const Memory &mem, uint32_t ptNo)
{
    return ptNo != 0 && ptNo < mem.nextPartition.load(std::memory_order_acquire);
}

// The site of (handle, file, line); the handle is known.
Site *SiteOf(Memory &mem, uint32_t handle, const char *file, uint32_t line)
{
    const uint64_t hash = (reinterpret_cast<uintptr_t>(file) ^ (uint64_t{line} << 32) ^ handle) *
                          0x9E3779B97F4A7C15ULL;
    std::atomic<const SiteKey *> &slot = mem.siteSlots[hash >> (64U - kSiteSlotBits)];
    const SiteKey *key = slot.load(std::memory_order_acquire);
    if (key != nullptr && key->file == file && key->line == line && key->handle == handle) {
        return key->site;
    }
    std::lock_guard lock(mem.mu);
    const std::string siteFile = file == nullptr ? "(unknown)" : file;
    auto &site = mem.sites[std::make_tuple(handle, siteFile, line)];
    if (!site) {
        site = std::make_unique<Site>();
        site->handleName = mem.handleNames[handle];
        site->file = siteFile;
        site->line = line;
    }
    mem.siteKeys.push_back(std::make_unique<SiteKey>(SiteKey{handle, file, line, site.get()}));
    slot.store(mem.siteKeys.back().get(), std::memory_order_release);
    return site.get();
}

// Memory of a block's user part beyond what was asked for (the pool
// poisons and unpoisons the rest as blocks go back and out).
void Poison(void *user, size_t size)
{
#ifdef RUK_POISONS
    ASAN_POISON_MEMORY_REGION(user, size);
#else
    (void)user;
    (void)size;
#endif
}

}  // namespace

extern "C" {

uint32_t RUK_HandleInitialize(const char *name, uint32_t *handle)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (name == nullptr || name[0] == '\0' || handle == nullptr) {
        return RUK_ERR_PARAM;
    }
    Memory &mem = TheMemory();
    std::lock_guard lock(mem.mu);
    const auto it = mem.handleByName.find(name);
    if (it != mem.handleByName.end()) {
        *handle = it->second;
        return RUK_OK;
    }
    while (mem.nextHandle == kReservedHandleA || mem.nextHandle == kReservedHandleB || mem.nextHandle == 0) {
        mem.nextHandle++;
    }
    const uint32_t value = mem.nextHandle++;
    mem.handleByName.emplace(name, value);
    mem.handleNames.emplace(value, name);
    if (value < kQuickHandles) {
        mem.quickHandle[value].store(true, std::memory_order_release);
    }
    *handle = value;
    return RUK_OK;
}

uint32_t RUK_MemPtNoGet(const char *ptName, uint32_t *ptNo)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (ptName == nullptr || ptName[0] == '\0' || ptNo == nullptr) {
        return RUK_ERR_PARAM;
    }
    Memory &mem = TheMemory();
    std::lock_guard lock(mem.mu);
    const uint32_t next = mem.nextPartition.load(std::memory_order_relaxed);
    auto [it, inserted] = mem.partitionByName.try_emplace(ptName, next);
    if (inserted) {
        mem.nextPartition.store(next + 1, std::memory_order_release);
    }
    *ptNo = it->second;
    return RUK_OK;
}

void *RUK_MemAlloc_F(uint32_t handle, uint32_t ptNo, size_t size, const char *file, uint32_t line)
{
    if (platform::FailPoint(__func__)) {
        return nullptr;
    }
    if (size > (size_t{1} << 40)) {
        return nullptr;
    }
    Memory &mem = TheMemory();
    if (!KnownHandle(mem, handle) || !KnownPartition(mem, ptNo)) {
        return nullptr;
    }
    // A zero-sized request still gets a block of its own.
    const size_t total = sizeof(BlockHeader) + (size == 0 ? 1 : size);
    const bool pooled = total <= pool::kMaxBlock;
    void *raw = pooled ? pool::Take(total) : std::malloc(total);
    if (raw == nullptr) {
        return nullptr;
    }
    Site *site = SiteOf(mem, handle, file, line);
    auto *header = static_cast<BlockHeader *>(raw);
    header->word = handle;
    header->link = size;
    header->owner = site;
    header->spare = 0;
    void *user = static_cast<void *>(header + 1);
    if (pooled) {
        const size_t room = pool::BlockSize(raw) - sizeof(BlockHeader);
        Poison(static_cast<char *>(user) + (total - sizeof(BlockHeader)), room - (total - sizeof(BlockHeader)));
    } else {
        new (&header->state) std::atomic<uint32_t>(0);
        std::lock_guard lock(mem.mu);
        mem.heapBlocks.insert(user);
    }
    // Counted per site only (the totals are the sites' sums): two atomic
    // updates a block instead of four.
    site->blocks.fetch_add(1, std::memory_order_relaxed);
    site->bytes.fetch_add(size, std::memory_order_relaxed);
    header->state.store(kLiveMagic, std::memory_order_release);
    return user;
}

uint32_t RUK_MemFree_F(uint32_t handle, void *ptr, const char *file, uint32_t line)
{
    (void)file;
    (void)line;
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (ptr == nullptr) {
        return RUK_ERR_BAD_FREE;
    }
    Memory &mem = TheMemory();
    // Only memory known to be ours is looked at: a foreign or freed pointer
    // is never read.
    void *block = pool::BlockOf(ptr);
    BlockHeader *header = nullptr;
    if (block != nullptr) {
        header = static_cast<BlockHeader *>(block);
        if (static_cast<void *>(header + 1) != ptr) {
            return RUK_ERR_BAD_FREE;
        }
    } else {
        std::lock_guard lock(mem.mu);
        if (mem.heapBlocks.count(ptr) == 0) {
            return RUK_ERR_BAD_FREE;
        }
        header = static_cast<BlockHeader *>(ptr) - 1;
    }
    if (header->state.load(std::memory_order_acquire) != kLiveMagic) {
        return RUK_ERR_BAD_FREE;
    }
    if (header->word != handle) {
        return RUK_ERR_NO_HANDLE;
    }
    uint32_t live = kLiveMagic;
    if (!header->state.compare_exchange_strong(live, kFreedMagic, std::memory_order_acq_rel)) {
        return RUK_ERR_BAD_FREE;   // freed by another thread meanwhile
    }
    const uint64_t size = header->link;
    Site *site = static_cast<Site *>(header->owner);
    site->blocks.fetch_sub(1, std::memory_order_relaxed);
    site->bytes.fetch_sub(size, std::memory_order_relaxed);
    if (block != nullptr) {
        pool::Give(block);
        return RUK_OK;
    }
    {
        std::lock_guard lock(mem.mu);
        mem.heapBlocks.erase(ptr);
    }
    std::free(header);
    return RUK_OK;
}

uint32_t PLAT_MemOutstanding(void)
{
    Memory &mem = TheMemory();
    std::lock_guard lock(mem.mu);
    uint32_t blocks = 0;
    for (const auto &[key, site] : mem.sites) {
        blocks += site->blocks.load(std::memory_order_relaxed);
    }
    return blocks;
}

uint64_t PLAT_MemOutstandingBytes(void)
{
    Memory &mem = TheMemory();
    std::lock_guard lock(mem.mu);
    uint64_t bytes = 0;
    for (const auto &[key, site] : mem.sites) {
        bytes += site->bytes.load(std::memory_order_relaxed);
    }
    return bytes;
}

uint32_t PLAT_MemLeakReport(PLAT_MEM_REPORT_FN report, void *arg)
{
    struct Outstanding {
        std::string handleName;
        std::string file;
        uint32_t line;
        uint32_t blocks;
        uint64_t bytes;
    };
    std::vector<Outstanding> outstanding;
    {
        Memory &mem = TheMemory();
        std::lock_guard lock(mem.mu);
        for (const auto &[key, site] : mem.sites) {
            const uint32_t blocks = site->blocks.load(std::memory_order_relaxed);
            if (blocks != 0) {
                outstanding.push_back(Outstanding{site->handleName, site->file, site->line, blocks,
                                                  site->bytes.load(std::memory_order_relaxed)});
            }
        }
    }
    if (report != nullptr) {
        for (const Outstanding &site : outstanding) {
            report(site.handleName.c_str(), site.file.c_str(), site.line, site.blocks, site.bytes, arg);
        }
    }
    return static_cast<uint32_t>(outstanding.size());
}

}  // extern "C"
