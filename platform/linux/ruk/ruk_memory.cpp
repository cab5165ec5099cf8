// Memory handles, partitions and accounted blocks.
//
// The real platform gives each module a named memory handle and allocates
// from named partitions, tagging blocks with the allocating call site. Ours
// hands out one handle per name and one number per partition name, and
// allocates from the C heap with a header (handle, size, call site, magic).
// Every live block is also kept in a set, so freeing a pointer that is null,
// foreign or already freed is refused with RUK_ERR_BAD_FREE without touching
// it. Outstanding blocks are accounted per call site (PLAT_MemOutstanding,
// PLAT_MemLeakReport). Failure injection: RUK_MemAlloc_F then returns null,
// the others their injected code.
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <unordered_set>
#include <vector>

#include "core/internal.hpp"
#include "platform/control.h"
#include "platform/fail_point.hpp"
#include "ruk.h"

namespace {

constexpr uint64_t kLiveMagic = 0x52554b424c4f434bULL;   // live block
constexpr uint64_t kFreedMagic = 0x52554b4652454544ULL;  // freed block
// Handle values modules treat as "none".
constexpr uint32_t kReservedHandleA = 255U;
constexpr uint32_t kReservedHandleB = 0xFFFFFFFFU;

struct Site {
    std::string handleName;
    std::string file;
    uint32_t line = 0;
    uint32_t blocks = 0;
    uint64_t bytes = 0;
};

struct alignas(16) BlockHeader {
    uint64_t magic;
    Site *site;
    uint64_t size;
    uint32_t handle;
    uint32_t reserved;
};

struct Memory {
    platform::internal::SpinMutex mu;
    std::map<std::string, uint32_t, std::less<>> handleByName;
    std::map<uint32_t, std::string> handleNames;
    uint32_t nextHandle = 1;
    std::map<std::string, uint32_t, std::less<>> partitionByName;
    uint32_t nextPartition = 1;
    // Sites are kept once created, so block headers may point at them.
    std::map<std::tuple<uint32_t, std::string, uint32_t>, std::unique_ptr<Site>> sites;
    std::unordered_set<const void *> live;
    uint32_t outstanding = 0;
    uint64_t outstandingBytes = 0;
};

Memory &TheMemory()
{
    return platform::internal::Leaky<Memory>();
}

bool KnownPartition(const Memory &mem, uint32_t ptNo)
{
    return ptNo != 0 && ptNo < mem.nextPartition;
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
    auto [it, inserted] = mem.partitionByName.try_emplace(ptName, mem.nextPartition);
    if (inserted) {
        mem.nextPartition++;
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
    // A zero-sized request still gets a block of its own.
    void *raw = std::malloc(sizeof(BlockHeader) + (size == 0 ? 1 : size));
    if (raw == nullptr) {
        return nullptr;
    }
    auto *header = static_cast<BlockHeader *>(raw);
    void *user = static_cast<void *>(header + 1);
    Memory &mem = TheMemory();
    {
        std::lock_guard lock(mem.mu);
        const auto handleIt = mem.handleNames.find(handle);
        if (handleIt != mem.handleNames.end() && KnownPartition(mem, ptNo)) {
            const std::string siteFile = file == nullptr ? "(unknown)" : file;
            auto &site = mem.sites[std::make_tuple(handle, siteFile, line)];
            if (!site) {
                site = std::make_unique<Site>();
                site->handleName = handleIt->second;
                site->file = siteFile;
                site->line = line;
            }
            site->blocks++;
            site->bytes += size;
            mem.outstanding++;
            mem.outstandingBytes += size;
            mem.live.insert(user);
            *header = BlockHeader{kLiveMagic, site.get(), size, handle, 0};
            return user;
        }
    }
    std::free(raw);
    return nullptr;
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
    BlockHeader *header = nullptr;
    {
        std::lock_guard lock(mem.mu);
        // Only pointers known to be live are looked at: a foreign or freed
        // pointer is never read.
        const auto liveIt = mem.live.find(ptr);
        if (liveIt == mem.live.end()) {
            return RUK_ERR_BAD_FREE;
        }
        header = static_cast<BlockHeader *>(ptr) - 1;
        if (header->magic != kLiveMagic) {
            return RUK_ERR_BAD_FREE;
        }
        if (header->handle != handle) {
            return RUK_ERR_NO_HANDLE;
        }
        mem.live.erase(liveIt);
        header->magic = kFreedMagic;
        header->site->blocks--;
        header->site->bytes -= header->size;
        mem.outstanding--;
        mem.outstandingBytes -= header->size;
    }
    std::free(header);
    return RUK_OK;
}

uint32_t PLAT_MemOutstanding(void)
{
    Memory &mem = TheMemory();
    std::lock_guard lock(mem.mu);
    return mem.outstanding;
}

uint64_t PLAT_MemOutstandingBytes(void)
{
    Memory &mem = TheMemory();
    std::lock_guard lock(mem.mu);
    return mem.outstandingBytes;
}

uint32_t PLAT_MemLeakReport(PLAT_MEM_REPORT_FN report, void *arg)
{
    std::vector<Site> outstanding;
    {
        Memory &mem = TheMemory();
        std::lock_guard lock(mem.mu);
        for (const auto &[key, site] : mem.sites) {
            if (site->blocks != 0) {
                outstanding.push_back(*site);
            }
        }
    }
    if (report != nullptr) {
        for (const Site &site : outstanding) {
            report(site.handleName.c_str(), site.file.c_str(), site.line, site.blocks, site.bytes, arg);
        }
    }
    return static_cast<uint32_t>(outstanding.size());
}

}  // extern "C"
