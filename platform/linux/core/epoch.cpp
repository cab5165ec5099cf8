// Epoch-based reclamation (see epoch.hpp).
//
// A global epoch counts retirements. A reader's outermost pin stores the
// epoch it saw in its thread's slot before it loads anything; a writer
// replaces the pointer, then retires the old version under the epoch it
// advances past. A reader that could still hold the old version pinned at
// or before that epoch, so the version is freed once no slot holds an epoch
// at or below it. Threads beyond the slots count themselves in one shared
// counter, and while any of them reads nothing is freed.
#include "core/epoch.hpp"

#include <array>
#include <atomic>
#include <mutex>
#include <vector>

#include "core/internal.hpp"
#include "core/thread_ref.hpp"

namespace platform::internal::epoch {

namespace {

constexpr size_t kSlots = 256;

struct alignas(64) Slot {
    std::atomic<uint64_t> epoch{0};   // 0: not reading
    std::atomic<bool> taken{false};
    uint32_t depth = 0;               // the owning thread's nesting
};

struct Retired {
    uint64_t epoch;
    void *p;
    void (*release)(void *);
};

struct State {
    std::atomic<uint64_t> epoch{1};
    std::array<Slot, kSlots> slots;
    std::atomic<uint32_t> overflowReaders{0};
    std::mutex mu;   // the retired list
    std::vector<Retired> retired;
};

State &TheState()
{
    return Leaky<State>();
}

// The slot t_slot claimed, read with one load while the thread has it.
void *&Claimed()
{
    return ThreadRefSlot(ThreadRefId::kEpochSlot);
}

// The calling thread's slot, claimed on first use and given back when the
// thread ends; null when every slot is taken.
struct ThreadSlot {
    Slot *slot = nullptr;
    bool claimed = false;
    uint32_t overflowDepth = 0;

    ~ThreadSlot()
    {
        Claimed() = nullptr;
        if (slot != nullptr) {
            slot->epoch.store(0, std::memory_order_release);
            slot->depth = 0;
            slot->taken.store(false, std::memory_order_release);
        }
    }
};

thread_local ThreadSlot t_slot;

Slot *Claim()
{
    if (void *claimed = Claimed(); claimed != nullptr) {
        return static_cast<Slot *>(claimed);
    }
    if (!t_slot.claimed) {
        t_slot.claimed = true;
        for (Slot &slot : TheState().slots) {
            bool free = false;
            if (slot.taken.compare_exchange_strong(free, true, std::memory_order_acq_rel)) {
                t_slot.slot = &slot;
                Claimed() = &slot;
                break;
            }
        }
    }
    return t_slot.slot;
}

// Frees what no reader can hold. Caller holds State::mu.
void CollectLocked(State &s)
{
    if (s.retired.empty() || s.overflowReaders.load(std::memory_order_seq_cst) != 0) {
        return;
    }
    uint64_t oldest = UINT64_MAX;
    for (const Slot &slot : s.slots) {
        const uint64_t e = slot.epoch.load(std::memory_order_seq_cst);
        if (e != 0 && e < oldest) {
            oldest = e;
        }
    }
    std::erase_if(s.retired, [oldest](const Retired &r) {
        if (r.epoch < oldest) {
            r.release(r.p);
            return true;
        }
        return false;
    });
}

}  // namespace

Pin::Pin() : slot_(Claim())
{
    State &s = TheState();
    auto *slot = static_cast<Slot *>(slot_);
    if (slot == nullptr) {
        if (t_slot.overflowDepth++ == 0) {
            s.overflowReaders.fetch_add(1, std::memory_order_seq_cst);
        }
        return;
    }
    if (slot->depth++ == 0) {
        // Announced before anything is loaded (sequentially consistent, as
        // the writer's replacement of the pointer and its look at the slots).
        slot->epoch.store(s.epoch.load(std::memory_order_seq_cst), std::memory_order_seq_cst);
    }
}

Pin::~Pin()
{
    auto *slot = static_cast<Slot *>(slot_);
    if (slot == nullptr) {
        if (--t_slot.overflowDepth == 0) {
            TheState().overflowReaders.fetch_sub(1, std::memory_order_release);
        }
        return;
    }
    if (--slot->depth == 0) {
        slot->epoch.store(0, std::memory_order_release);
    }
}

void Retire(void *p, void (*release)(void *))
{
    if (p == nullptr) {
        return;
    }
    State &s = TheState();
    std::lock_guard lock(s.mu);
    const uint64_t epoch = s.epoch.fetch_add(1, std::memory_order_seq_cst);
    s.retired.push_back(Retired{epoch, p, release});
    CollectLocked(s);
}

}  // namespace platform::internal::epoch
