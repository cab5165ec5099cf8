// Failure injection and call counting.
//
// The real platform has no such thing: its operations fail only when the
// system is in trouble. Ours lets the host and tests make any platform
// operation fail on chosen calls (after `skip` calls, the next `times`, or
// forever) with a chosen code, and counts every call of every operation.
// Each operation opens with platform::FailPoint(__func__) (fail_point.hpp).
// With nothing armed and counting off (the host, the benchmark), that check
// is one relaxed load of a word that says whether either is on.
#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <vector>

#include "core/internal.hpp"
#include "platform/control.h"
#include "platform/fail_point.hpp"

namespace {

struct OpEntry {
    std::atomic<uint32_t> calls{0};
    std::atomic<uint32_t> hits{0};
    // Arming, guarded by Registry::armMu.
    bool armed = false;
    uint32_t skip = 0;
    uint32_t times = 0;
    uint32_t code = 0;
};

// A name's address and its entry, for the lookup cache below.
struct Known {
    const char *address;  // the caller's pointer
    OpEntry *entry;
};
constexpr unsigned kKnownSlotBits = 10;
constexpr size_t kKnownSlots = size_t{1} << kKnownSlotBits;

struct Registry {
    // Entries are never removed, so references stay valid once found.
    std::shared_mutex mapMu;
    std::map<std::string, std::unique_ptr<OpEntry>, std::less<>> ops;
    // Lookup cache: slots hold records owned by knownRecords (under mapMu).
    std::array<std::atomic<const Known *>, kKnownSlots> known{};
    std::map<const char *, std::vector<std::unique_ptr<Known>>> knownRecords;
    // Arming state of every entry; armedCount mirrors into the kArmed bit
    // of g_failActive, so the common (nothing armed) path never takes this lock.
    std::mutex armMu;
    uint32_t armedCount = 0;
};

Registry &Reg()
{
    return platform::internal::Leaky<Registry>();
}

constexpr uint32_t kCounting = 1U;
constexpr uint32_t kArmed = 2U;

void SetActive(uint32_t bit, bool on)
{
    if (on) {
        platform::internal::g_failActive.fetch_or(bit, std::memory_order_release);
    } else {
        platform::internal::g_failActive.fetch_and(~bit, std::memory_order_release);
    }
}

OpEntry &EntryFor(std::string_view op)
{
    Registry &reg = Reg();
    {
        std::shared_lock lock(reg.mapMu);
        const auto it = reg.ops.find(op);
        if (it != reg.ops.end()) {
            return *it->second;
        }
    }
    std::unique_lock lock(reg.mapMu);
    auto [it, inserted] = reg.ops.try_emplace(std::string(op));
    if (inserted) {
        it->second = std::make_unique<OpEntry>();
    }
    return *it->second;
}

// Every platform call checks in here, so the packet path pays for the
// lookup on each frame. Operation names have static storage, so a
// direct-mapped table keyed by the name's address answers without the
// registry's lock or a string comparison.
OpEntry &CachedEntryFor(const char *op)
{
    Registry &reg = Reg();
    // Fibonacci hashing spreads neighbouring literals over the slots.
    const uint64_t hash = reinterpret_cast<uintptr_t>(op) * 0x9E3779B97F4A7C15ULL;
    std::atomic<const Known *> &slot = reg.known[hash >> (64U - kKnownSlotBits)];
    const Known *known = slot.load(std::memory_order_acquire);
    if (known != nullptr && known->address == op) {
        return *known->entry;
    }
    OpEntry &entry = EntryFor(op);
    std::unique_lock lock(reg.mapMu);
    // One record per address and name, kept for good: a reader may still
    // hold the one a colliding name displaces from the slot.
    auto &records = reg.knownRecords[op];
    auto it = std::find_if(records.begin(), records.end(),
                           [&](const std::unique_ptr<Known> &k) { return k->entry == &entry; });
    if (it == records.end()) {
        records.push_back(std::make_unique<Known>(Known{op, &entry}));
        it = std::prev(records.end());
    }
    slot.store(it->get(), std::memory_order_release);
    return entry;
}

OpEntry *FindEntry(std::string_view op)
{
    Registry &reg = Reg();
    std::shared_lock lock(reg.mapMu);
    const auto it = reg.ops.find(op);
    return it == reg.ops.end() ? nullptr : it->second.get();
}

// Caller holds armMu.
void Disarm(Registry &reg, OpEntry &entry)
{
    if (entry.armed) {
        entry.armed = false;
        reg.armedCount--;
        SetActive(kArmed, reg.armedCount != 0);
    }
}

}  // namespace

namespace platform::internal {

// Call counting is on from the start, as tests expect.
std::atomic<uint32_t> g_failActive{kCounting};

}  // namespace platform::internal

extern "C" {

void PLAT_FailSet(const char *op, uint32_t skip, uint32_t times, uint32_t code)
{
    if (op == nullptr) {
        return;
    }
    Registry &reg = Reg();
    OpEntry &entry = EntryFor(op);
    std::lock_guard lock(reg.armMu);
    Disarm(reg, entry);
    if (times == 0) {
        return;
    }
    entry.skip = skip;
    entry.times = times;
    entry.code = code;
    entry.armed = true;
    reg.armedCount++;
    SetActive(kArmed, true);
}

void PLAT_FailClear(const char *op)
{
    if (op == nullptr) {
        return;
    }
    OpEntry *entry = FindEntry(op);
    if (entry == nullptr) {
        return;
    }
    Registry &reg = Reg();
    std::lock_guard lock(reg.armMu);
    Disarm(reg, *entry);
}

void PLAT_FailClearAll(void)
{
    Registry &reg = Reg();
    std::shared_lock mapLock(reg.mapMu);
    std::lock_guard lock(reg.armMu);
    for (auto &[name, entry] : reg.ops) {
        Disarm(reg, *entry);
    }
}

uint32_t PLAT_FailCheck(const char *op, uint32_t *code)
{
    const uint32_t active = platform::internal::g_failActive.load(std::memory_order_relaxed);
    if (active == 0 || op == nullptr) {
        return 0;
    }
    Registry &reg = Reg();
    OpEntry &entry = CachedEntryFor(op);
    entry.calls.fetch_add(1, std::memory_order_relaxed);
    if ((active & kArmed) == 0) {
        return 0;
    }
    uint32_t injected = 0;
    {
        std::lock_guard lock(reg.armMu);
        if (!entry.armed) {
            return 0;
        }
        if (entry.skip > 0) {
            entry.skip--;
            return 0;
        }
        injected = entry.code;
        if (entry.times != PLAT_FAIL_FOREVER && --entry.times == 0) {
            Disarm(reg, entry);
        }
    }
    entry.hits.fetch_add(1, std::memory_order_relaxed);
    if (code != nullptr) {
        *code = injected;
    }
    return 1;
}

uint32_t PLAT_CallCount(const char *op)
{
    const OpEntry *entry = op == nullptr ? nullptr : FindEntry(op);
    return entry == nullptr ? 0 : entry->calls.load(std::memory_order_relaxed);
}

uint32_t PLAT_FailHits(const char *op)
{
    const OpEntry *entry = op == nullptr ? nullptr : FindEntry(op);
    return entry == nullptr ? 0 : entry->hits.load(std::memory_order_relaxed);
}

void PLAT_CallCountEnable(uint32_t on)
{
    SetActive(kCounting, on != 0);
}

void PLAT_CallCountReset(void)
{
    Registry &reg = Reg();
    std::shared_lock lock(reg.mapMu);
    for (auto &[name, entry] : reg.ops) {
        entry->calls.store(0, std::memory_order_relaxed);
        entry->hits.store(0, std::memory_order_relaxed);
    }
}

}  // extern "C"
