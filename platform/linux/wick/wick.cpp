// libwick.so, the fast-path channel library.
//
// On a real switch this library is the control plane's door to the
// forwarding plane: named channels of frame buffers between forwarding-plane
// cores and control-plane tasks, an event word per task that says "frames
// are waiting on your receive channel", and packet buffers that keep room in
// front of the frame so a task can push headers without copying.
//
// Ours keeps all of that in process memory. A channel is a bounded FIFO of
// buffers, owned by the thread that created it; FPC_EventRead blocks that
// thread on a condition variable until one of its channels has buffers (or
// 200 ms pass, so no task is stuck forever). Buffers of up to 16 KiB come
// from the platform's block pool (free lists per thread, so a frame costs no
// lock and no heap allocation once warm), larger ones from the heap; each
// carries the (file, line) that made it, which gives leak reports by call
// site, and a state word, so a bad or double free is logged and ignored
// instead of crashing.
//
// A test can stand in for the forwarding plane (WICK_ChannelPut/Take), make
// any function fail or count its calls through PLAT_FailCheck, see whether a
// task waits for frames (WICK_ThreadIsWaiting), count outstanding buffers and
// drop every channel between cases (WICK_Reset).
//
// Locking: the table mutex guards names, thread records and channel
// creation, and is what a waiting receiver sleeps on. Sends and receives
// find their channel by id without it and hold only the channel's own spin
// lock; a send takes the table mutex only to wake a receiver that is
// actually blocked. Channels and thread records are never freed (a reset or
// a thread's end retires them), so an id or an owner read without the table
// mutex stays valid.
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

#include "core/block_pool.hpp"
#include "core/internal.hpp"
#include "platform/control.h"
#include "platform/fail_point.hpp"
#include "wick.h"

namespace {

namespace pool = platform::internal::block_pool;
using platform::internal::SpinMutex;
using Clock = std::chrono::steady_clock;

// Longest FPC_EventRead waits without frames (real time).
constexpr std::chrono::milliseconds kEventWait{200};
// Depth of a channel first touched by the forwarding plane's side.
constexpr uint32_t kPutChannelDepth = 1024;
constexpr const char *kPutSite = "wick:put";
constexpr const char *kCopySite = "FpcMbufPktCopy";

// Status returned by a call PLAT_FailCheck told to fail: the injected code,
// or 1 when the code given was 0 (0 would read as success).
uint32_t FailStatus(uint32_t code)
{
    return code != 0 ? code : 1U;
}

// ---------------------------------------------------------------------------
// Buffers and their allocation sites

struct Site {
    std::string file;
    uint32_t line = 0;
    std::atomic<uint32_t> live{0};
};

struct SiteKey {
    std::string_view file;
    uint32_t line;
    bool operator==(const SiteKey &) const = default;
};

struct SiteKeyHash {
    size_t operator()(const SiteKey &k) const noexcept
    {
        return std::hash<std::string_view>{}(k.file) ^ (static_cast<size_t>(k.line) * 0x9E3779B97F4A7C15ULL);
    }
};

// A call site as the caller names it (its file pointer), for the lookup
// cache; kept for good once made.
struct KnownSite {
    const char *file;
    uint32_t line;
    Site *site;
};
constexpr unsigned kSiteSlotBits = 8;

// In front of every buffer's descriptor (heap buffers too): state and the
// allocation site (owner).
using BufferHead = pool::BlockHead;
constexpr uint32_t kLive = 0x4D425546U;
constexpr uint32_t kFreed = 0x46524545U;

struct BufferRegistry {
    std::mutex mu;
    // Sites are never dropped: buffers and leak reports point into them.
    std::unordered_map<SiteKey, std::unique_ptr<Site>, SiteKeyHash> sites;
    std::vector<std::unique_ptr<KnownSite>> known;
    std::array<std::atomic<const KnownSite *>, size_t{1} << kSiteSlotBits> siteSlots{};
};

BufferRegistry &Buffers()
{
    // Never destroyed: tasks may still free buffers while the process exits.
    static BufferRegistry *registry = new BufferRegistry;
    return *registry;
}

// The site of (file, line): by the name's address when seen before, else
// by its text (two pointers to one name are one site). Null when memory is out.
Site *SiteFor(BufferRegistry &reg, const char *file, uint32_t line)
{
    const uint64_t hash = (reinterpret_cast<uintptr_t>(file) ^ (uint64_t{line} << 32)) * 0x9E3779B97F4A7C15ULL;
    std::atomic<const KnownSite *> &slot = reg.siteSlots[hash >> (64U - kSiteSlotBits)];
    const KnownSite *known = slot.load(std::memory_order_acquire);
    if (known != nullptr && known->file == file && known->line == line) {
        return known->site;
    }
    try {
        std::lock_guard<std::mutex> lock(reg.mu);
        const std::string_view name = file != nullptr ? file : "?";
        auto it = reg.sites.find(SiteKey{name, line});
        if (it == reg.sites.end()) {
            auto site = std::make_unique<Site>();
            site->file.assign(name);
            site->line = line;
            const SiteKey key{site->file, line};
            it = reg.sites.emplace(key, std::move(site)).first;
        }
        reg.known.push_back(std::make_unique<KnownSite>(KnownSite{file, line, it->second.get()}));
        slot.store(reg.known.back().get(), std::memory_order_release);
        return it->second.get();
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

// Heap buffers (beyond the pool's largest block), which the pool cannot
// tell from foreign memory: listed here.
struct HeapBuffers {
    std::mutex mu;
    std::unordered_map<const FpcMbuf *, BufferHead *> live;
};

HeapBuffers &Heap()
{
    static HeapBuffers *heap = new HeapBuffers;
    return *heap;
}

// One block: our head, the descriptor, then bufLen bytes of storage.
FpcMbuf *NewBuffer(uint32_t bufLen, const char *file, uint32_t line)
{
    const size_t total = sizeof(BufferHead) + sizeof(FpcMbuf) + size_t{bufLen};
    BufferRegistry &reg = Buffers();
    Site *site = SiteFor(reg, file, line);
    if (site == nullptr) {
        return nullptr;
    }
    const bool pooled = total <= pool::kMaxBlock;
    void *block = pooled ? pool::Take(total) : std::malloc(total);
    if (block == nullptr) {
        return nullptr;
    }
    auto *head = static_cast<BufferHead *>(block);
    auto *m = reinterpret_cast<FpcMbuf *>(head + 1);
    if (!pooled) {
        new (block) BufferHead{};
        try {
            HeapBuffers &heap = Heap();
            std::lock_guard<std::mutex> lock(heap.mu);
            heap.live.emplace(m, head);
        } catch (const std::bad_alloc &) {
            std::free(block);
            return nullptr;
        }
    }
    head->owner = site;
    m->pData = reinterpret_cast<uint8_t *>(m + 1);
    m->dataOff = 0;
    m->dataLen = 0;
    m->bufLen = bufLen;
    m->reserved = 0;
    // Counted per site only (the total is the sites' sum): one atomic
    // update a buffer instead of two.
    site->live.fetch_add(1, std::memory_order_relaxed);
    head->state.store(kLive, std::memory_order_release);
    return m;
}

FpcMbuf *NewBufferFromData(const void *data, uint32_t len, const char *file, uint32_t line)
{
    if ((data == nullptr && len != 0) || len > UINT32_MAX - WICK_HEADROOM) {
        return nullptr;
    }
    FpcMbuf *m = NewBuffer(WICK_HEADROOM + std::max(len, WICK_DEFAULT_DATA_ROOM), file, line);
    if (m == nullptr) {
        return nullptr;
    }
    m->dataOff = WICK_HEADROOM;
    m->dataLen = len;
    if (len != 0) {
        std::memcpy(m->pData + m->dataOff, data, len);
    }
    return m;
}

// The head of a live buffer of ours, or null (nothing foreign is read).
BufferHead *HeadOf(const FpcMbuf *m)
{
    void *block = pool::BlockOf(m);
    if (block != nullptr) {
        auto *head = static_cast<BufferHead *>(block);
        return reinterpret_cast<const FpcMbuf *>(head + 1) == m ? head : nullptr;
    }
    HeapBuffers &heap = Heap();
    std::lock_guard<std::mutex> lock(heap.mu);
    const auto it = heap.live.find(m);
    return it != heap.live.end() ? it->second : nullptr;
}

void FreeBuffer(FpcMbuf *m, const char *file, uint32_t line)
{
    if (m == nullptr) {
        return;
    }
    BufferHead *head = HeadOf(m);
    uint32_t live = kLive;
    if (head == nullptr || !head->state.compare_exchange_strong(live, kFreed, std::memory_order_acq_rel)) {
        PLAT_LogWrite(PLAT_LOG_PLATFORM, "wick: bad free at %s:%u", file != nullptr ? file : "?", line);
        return;
    }
    static_cast<Site *>(head->owner)->live.fetch_sub(1, std::memory_order_relaxed);
    const size_t total = sizeof(BufferHead) + sizeof(FpcMbuf) + size_t{m->bufLen};
    if (total <= pool::kMaxBlock) {
        pool::Give(head);
        return;
    }
    {
        HeapBuffers &heap = Heap();
        std::lock_guard<std::mutex> lock(heap.mu);
        heap.live.erase(m);
    }
    std::free(head);
}

// ---------------------------------------------------------------------------
// Channels and threads

// Bounded FIFO of buffers; its storage grows by doubling up to the depth and
// is kept, so a channel in steady use does not allocate.
class Ring {
public:
    bool push(FpcMbuf *m, uint32_t depth)
    {
        if (count_ >= depth) {
            return false;
        }
        if (count_ == slots_.size() && !grow(depth)) {
            return false;
        }
        slots_[Wrap(head_ + count_)] = m;
        count_++;
        return true;
    }

    FpcMbuf *pop()
    {
        if (count_ == 0) {
            return nullptr;
        }
        FpcMbuf *m = slots_[head_];
        head_ = Wrap(head_ + 1);
        count_--;
        return m;
    }

    uint32_t count() const { return static_cast<uint32_t>(count_); }

private:
    // i < 2 * size: no division on the frame path.
    size_t Wrap(size_t i) const { return i < slots_.size() ? i : i - slots_.size(); }

    // Called with count_ < depth.
    bool grow(uint32_t depth)
    {
        const size_t cap = std::min<size_t>(std::max<size_t>(16, slots_.size() * 2), depth);
        try {
            std::vector<FpcMbuf *> bigger(cap);
            for (size_t i = 0; i < count_; i++) {
                bigger[i] = slots_[Wrap(head_ + i)];
            }
            slots_ = std::move(bigger);
        } catch (const std::bad_alloc &) {
            return false;
        }
        head_ = 0;
        return true;
    }

    std::vector<FpcMbuf *> slots_;
    size_t head_ = 0;
    size_t count_ = 0;
};

struct ThreadState;

struct Channel {
    std::string name;
    uint32_t id = FPC_INVALID_ID;
    std::atomic<uint32_t> depth{0};
    // null: made by the forwarding plane's side, not yet adopted. Written
    // under the table mutex, read by senders without it.
    std::atomic<ThreadState *> owner{nullptr};
    SpinMutex mu;                      // the ring and retired
    Ring ring;
    std::atomic<uint32_t> pending{0};  // buffers in the ring, for readers without mu
    std::atomic<uint32_t> takers{0};   // WICK_ChannelTake calls waiting for this channel's buffers
    bool retired = false;              // dropped by a reset: takes no more buffers
};

// What the library knows of one thread. Kept when the thread ends (a sender
// may still look at it), and used again by a later thread.
struct ThreadState {
    std::condition_variable cv;        // signalled when an owned channel gets a buffer
    std::vector<Channel *> owned;      // its receive channels
    std::string regName;               // name given to FPC_ThreadInfoRegByName, "" if none
    std::atomic<bool> blocked{false};  // inside FPC_EventRead waiting for frames
};

// Channel ids index pages of slots made on first use, so a channel is
// found by id without a lock; ids are never reused.
constexpr uint32_t kIdPageBits = 8;
constexpr uint32_t kIdPages = 4096;
constexpr uint32_t kMaxIds = kIdPages << kIdPageBits;
using IdPage = std::array<std::atomic<Channel *>, size_t{1} << kIdPageBits>;

struct ChannelTable {
    std::mutex mu;
    std::condition_variable takeCv;    // WICK_ChannelTake waiters
    std::atomic<uint32_t> takers{0};   // how many wait on takeCv for a channel that does not exist yet
    uint32_t nextId = 1;               // slot 0 stays empty
    std::array<std::atomic<IdPage *>, kIdPages> byId{};
    std::map<std::string, Channel *, std::less<>> byName;
    std::map<std::string, ThreadState *, std::less<>> threadsByName;
    std::vector<ThreadState *> threads;            // threads that run now
    std::vector<ThreadState *> spareThreads;       // records of ended threads, for reuse
    std::vector<std::unique_ptr<Channel>> channels;        // every channel ever made
    std::vector<std::unique_ptr<ThreadState>> threadRecords;  // every thread record ever made
    std::atomic<uint64_t> resets{0};   // WICK_Reset calls, so a name's channel remembered before one is not used
};

ChannelTable &Channels()
{
    // Never destroyed: detached tasks may still be in FPC_EventRead at exit.
    static ChannelTable *table = new ChannelTable;
    return *table;
}

// Gives the thread's record up when the thread ends; its channels stay and
// wait for an owner.
struct ThreadSlot {
    ThreadState *state = nullptr;

    ~ThreadSlot()
    {
        if (state == nullptr) {
            return;
        }
        ChannelTable &t = Channels();
        std::lock_guard<std::mutex> lock(t.mu);
        for (Channel *ch : state->owned) {
            ch->owner.store(nullptr, std::memory_order_release);
        }
        state->owned.clear();
        const auto named = t.threadsByName.find(state->regName);
        if (named != t.threadsByName.end() && named->second == state) {
            t.threadsByName.erase(named);
        }
        state->regName.clear();
        std::erase(t.threads, state);
        t.spareThreads.push_back(state);
    }
};

thread_local ThreadSlot t_self;

// The calling thread's record, made on first use; null when out of memory.
// Caller holds t.mu.
ThreadState *Self(ChannelTable &t)
{
    if (t_self.state == nullptr) {
        try {
            ThreadState *state = nullptr;
            if (!t.spareThreads.empty()) {
                state = t.spareThreads.back();
            } else {
                t.threadRecords.push_back(std::make_unique<ThreadState>());
                state = t.threadRecords.back().get();
                t.spareThreads.push_back(state);
            }
            t.threads.push_back(state);
            t.spareThreads.pop_back();
            t_self.state = state;
        } catch (const std::bad_alloc &) {
            return nullptr;
        }
    }
    return t_self.state;
}

Channel *FindById(const ChannelTable &t, uint32_t id)
{
    if (id >= kMaxIds) {
        return nullptr;
    }
    const IdPage *page = t.byId[id >> kIdPageBits].load(std::memory_order_acquire);
    return page != nullptr ? (*page)[id & ((1U << kIdPageBits) - 1U)].load(std::memory_order_acquire) : nullptr;
}

Channel *FindByName(ChannelTable &t, std::string_view name)
{
    const auto it = t.byName.find(name);
    return it != t.byName.end() ? it->second : nullptr;
}

// Makes room for one more element, growing geometrically; may throw.
template <typename Vec>
void ReserveOneMore(Vec &v)
{
    if (v.size() == v.capacity()) {
        v.reserve(std::max<size_t>(8, v.capacity() * 2));
    }
}

// Caller holds t.mu; null when out of memory or out of ids. Everything
// that can fail is done before the tables change.
Channel *AddChannel(ChannelTable &t, std::string_view name, uint32_t depth, ThreadState *owner)
{
    const uint32_t id = t.nextId;
    if (id >= kMaxIds) {
        return nullptr;
    }
    Channel *raw = nullptr;
    try {
        auto &page = t.byId[id >> kIdPageBits];
        if (page.load(std::memory_order_relaxed) == nullptr) {
            page.store(new IdPage(), std::memory_order_release);   // kept for the life of the process
        }
        auto ch = std::make_unique<Channel>();
        ch->name.assign(name);
        ch->id = id;
        ch->depth.store(depth, std::memory_order_relaxed);
        ch->owner.store(owner, std::memory_order_relaxed);
        ReserveOneMore(t.channels);
        if (owner != nullptr) {
            ReserveOneMore(owner->owned);
        }
        raw = ch.get();
        t.byName.emplace(raw->name, raw);
        t.channels.push_back(std::move(ch));
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
    if (owner != nullptr) {
        owner->owned.push_back(raw);
    }
    (*t.byId[id >> kIdPageBits].load(std::memory_order_relaxed))[id & ((1U << kIdPageBits) - 1U)].store(
        raw, std::memory_order_release);
    t.nextId++;
    if (t.takers.load(std::memory_order_relaxed) != 0) {
        t.takeCv.notify_all();
    }
    return raw;
}

// Appends m and wakes whoever waits for it; false when the channel is full
// or retired. Caller holds neither lock.
bool Enqueue(ChannelTable &t, Channel *ch, FpcMbuf *m)
{
    {
        std::lock_guard<SpinMutex> lock(ch->mu);
        if (ch->retired || !ch->ring.push(m, ch->depth.load(std::memory_order_relaxed))) {
            return false;
        }
        // Only ever changed under mu: no read-modify-write needed. Stored
        // with release (and read with acquire), so a receiver that sees the
        // count sees what the sender did before the send.
        ch->pending.store(ch->pending.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    }
    // A receiver announces it blocks, then reads the count under mu
    // (PendingLocked): if its look came first, this send's lock follows its
    // announcement and the loads below see it; otherwise it saw the buffer.
    ThreadState *owner = ch->owner.load(std::memory_order_acquire);
    const bool wakeOwner = owner != nullptr && owner->blocked.load(std::memory_order_acquire);
    const bool wakeTakers = ch->takers.load(std::memory_order_acquire) != 0;
    if (wakeOwner || wakeTakers) {
        std::lock_guard<std::mutex> lock(t.mu);
        if (wakeOwner) {
            owner->cv.notify_one();
        }
        if (wakeTakers) {
            t.takeCv.notify_all();
        }
    }
    return true;
}

FpcMbuf *Dequeue(Channel *ch)
{
    std::lock_guard<SpinMutex> lock(ch->mu);
    FpcMbuf *m = ch->ring.pop();
    if (m != nullptr) {
        ch->pending.store(ch->pending.load(std::memory_order_relaxed) - 1, std::memory_order_release);
    }
    return m;
}

// The channel's count read under its lock, for a receiver that announced
// it is about to wait (see Enqueue).
bool PendingLocked(Channel *ch)
{
    std::lock_guard<SpinMutex> lock(ch->mu);
    return ch->pending.load(std::memory_order_relaxed) != 0;
}

// The channel a name last resolved to on this thread (the forwarding
// plane's side puts and takes by name, once per frame), while no reset came
// between. A retired channel refuses buffers, so one remembered across a
// concurrent reset loses nothing: the caller looks the name up again.
struct NameCache {
    std::string name;
    uint64_t resets = UINT64_MAX;
    Channel *ch = nullptr;

    Channel *Find(const ChannelTable &t, const char *wanted) const
    {
        return ch != nullptr && resets == t.resets.load(std::memory_order_acquire) && name == wanted ? ch : nullptr;
    }
    // Caller holds t.mu.
    void Keep(const ChannelTable &t, const char *wanted, Channel *found)
    {
        try {
            name.assign(wanted);
            resets = t.resets.load(std::memory_order_relaxed);
            ch = found;
        } catch (const std::bad_alloc &) {
            ch = nullptr;
        }
    }
};

thread_local NameCache t_putName;
thread_local NameCache t_takeName;

// Caller holds t.mu. locked: the caller announced it blocks, and the
// counts are read under each channel's lock (see Enqueue).
bool AnyPending(const ThreadState *self, bool locked = false)
{
    return std::any_of(self->owned.begin(), self->owned.end(), [locked](Channel *ch) {
        return locked ? PendingLocked(ch) : ch->pending.load(std::memory_order_acquire) != 0;
    });
}

}  // namespace

extern "C" {

// ---------------------------------------------------------------------------
// Channels

uint32_t FPC_ChannelGetIdByName(const char *name)
{
    if (platform::FailPoint(__func__) || name == nullptr) {
        return FPC_INVALID_ID;
    }
    ChannelTable &t = Channels();
    std::lock_guard<std::mutex> lock(t.mu);
    const Channel *ch = FindByName(t, name);
    return ch != nullptr ? ch->id : FPC_INVALID_ID;
}

// An existing channel keeps its id. If it has no owner yet (the forwarding
// plane's side made it), the caller adopts it and its depth becomes the
// caller's: the receiving task decides how much it is prepared to queue.
uint32_t FPC_ChannelCreate(const char *name, uint32_t depth)
{
    if (platform::FailPoint(__func__) || name == nullptr || name[0] == '\0' || depth == 0) {
        return FPC_INVALID_ID;
    }
    ChannelTable &t = Channels();
    std::lock_guard<std::mutex> lock(t.mu);
    ThreadState *self = Self(t);
    if (self == nullptr) {
        return FPC_INVALID_ID;
    }
    if (Channel *ch = FindByName(t, name); ch != nullptr) {
        if (ch->owner.load(std::memory_order_relaxed) == nullptr) {
            try {
                self->owned.push_back(ch);
            } catch (const std::bad_alloc &) {
                return FPC_INVALID_ID;
            }
            ch->depth.store(depth, std::memory_order_relaxed);
            ch->owner.store(self, std::memory_order_release);
        }
        return ch->id;
    }
    const Channel *ch = AddChannel(t, name, depth, self);
    return ch != nullptr ? ch->id : FPC_INVALID_ID;
}

// A later registration under the same name, by any thread, takes the name over.
uint32_t FPC_ThreadInfoRegByName(const char *threadName)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return FailStatus(*failed);
    }
    if (threadName == nullptr || threadName[0] == '\0') {
        return 1;
    }
    ChannelTable &t = Channels();
    std::lock_guard<std::mutex> lock(t.mu);
    ThreadState *self = Self(t);
    if (self == nullptr) {
        return 1;
    }
    try {
        const auto old = t.threadsByName.find(self->regName);
        if (old != t.threadsByName.end() && old->second == self) {
            t.threadsByName.erase(old);
        }
        self->regName = threadName;
        t.threadsByName.insert_or_assign(self->regName, self);
    } catch (const std::bad_alloc &) {
        self->regName.clear();
        return 1;
    }
    return 0;
}

uint32_t FPC_EventRead(uint32_t *eventFlags)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        if (eventFlags != nullptr) {
            *eventFlags = 0;
        }
        return FailStatus(*failed);
    }
    if (eventFlags == nullptr) {
        return 1;
    }
    *eventFlags = 0;
    const auto deadline = Clock::now() + kEventWait;
    ChannelTable &t = Channels();
    std::unique_lock<std::mutex> lock(t.mu);
    ThreadState *self = Self(t);
    if (self == nullptr) {
        lock.unlock();
        std::this_thread::sleep_until(deadline);
        return 0;
    }
    if (!AnyPending(self)) {
        // The platform's task record is told outside our lock, and only
        // when the thread is about to block.
        lock.unlock();
        PLAT_TaskMarkWaiting("FPC_EventRead");
        lock.lock();
        self->blocked.store(true, std::memory_order_seq_cst);
        while (!AnyPending(self, true)) {
            if (self->cv.wait_until(lock, deadline) == std::cv_status::timeout) {
                break;
            }
        }
        self->blocked.store(false, std::memory_order_relaxed);
    }
    *eventFlags = AnyPending(self) ? FPC_EVENT_RX : 0U;
    return 0;
}

uint32_t FPC_ChannelDcRecv(uint32_t channelId, FpcMbuf **mbuf)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        if (mbuf != nullptr) {
            *mbuf = nullptr;
        }
        return FailStatus(*failed);
    }
    if (mbuf == nullptr) {
        return 1;
    }
    Channel *ch = FindById(Channels(), channelId);
    *mbuf = ch != nullptr ? Dequeue(ch) : nullptr;
    return *mbuf != nullptr ? 0U : 1U;
}

// The sender's name and the send flags are options of the forwarding plane
// that an in-process channel has no use for.
uint32_t FPC_ChannelDcSendByIdNoSem(const char * /*threadName*/, uint32_t channelId, uint32_t /*flags*/,
                                    FpcMbuf *mbuf)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return FailStatus(*failed);
    }
    if (mbuf == nullptr) {
        return 1;
    }
    ChannelTable &t = Channels();
    Channel *ch = FindById(t, channelId);
    return ch != nullptr && Enqueue(t, ch, mbuf) ? 0U : 1U;
}

// ---------------------------------------------------------------------------
// Frame buffers

FpcMbuf *MbufPktNewFromData(const void *data, uint32_t len, const char *file, uint32_t line)
{
    if (platform::FailPoint(__func__)) {
        return nullptr;
    }
    return NewBufferFromData(data, len, file, line);
}

// Only the room in front of the data is used: the buffer is never moved,
// so pointers into it stay valid. 1 when that room is short.
uint32_t MbufPktAddHead(FpcMbuf *mbuf, uint32_t len, const char * /*file*/, uint32_t /*line*/)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return FailStatus(*failed);
    }
    if (mbuf == nullptr || len > mbuf->dataOff) {
        return 1;
    }
    mbuf->dataOff -= len;
    mbuf->dataLen += len;
    return 0;
}

uint32_t MbufPktCutHead(FpcMbuf *mbuf, uint32_t len, const char * /*file*/, uint32_t /*line*/)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return FailStatus(*failed);
    }
    if (mbuf == nullptr || len > mbuf->dataLen) {
        return 1;
    }
    mbuf->dataOff += len;
    mbuf->dataLen -= len;
    return 0;
}

uint32_t FpcMbufCopyPktToData(FpcMbuf *mbuf, void *dst, uint32_t len)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return FailStatus(*failed);
    }
    if (mbuf == nullptr || dst == nullptr || len > mbuf->dataLen) {
        return 1;
    }
    if (len != 0) {
        std::memcpy(dst, mbuf->pData + mbuf->dataOff, len);
    }
    return 0;
}

// A failure injected here returns the injected code as the room length.
uint32_t FPC_GetDefaultDataRoomLen(void)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    return WICK_DEFAULT_DATA_ROOM;
}

// An injected failure is only counted: the buffer is freed all the same.
void FpcMbufFree(FpcMbuf *mbuf, const char *file, uint32_t line)
{
    (void)platform::FailPoint(__func__);  // counted; the operation cannot fail
    FreeBuffer(mbuf, file, line);
}

// Same storage size, offset and bytes as the original. The copy is booked
// to its own site ("FpcMbufPktCopy"), so a leak report tells a leaked copy
// from a leaked original.
FpcMbuf *FpcMbufPktCopy(FpcMbuf *mbuf)
{
    if (platform::FailPoint(__func__) || mbuf == nullptr) {
        return nullptr;
    }
    if (static_cast<uint64_t>(mbuf->dataOff) + mbuf->dataLen > mbuf->bufLen ||
        (mbuf->pData == nullptr && mbuf->dataLen != 0)) {
        return nullptr;
    }
    FpcMbuf *copy = NewBuffer(mbuf->bufLen, kCopySite, 0);
    if (copy == nullptr) {
        return nullptr;
    }
    copy->dataOff = mbuf->dataOff;
    copy->dataLen = mbuf->dataLen;
    if (mbuf->dataLen != 0) {
        std::memcpy(copy->pData + copy->dataOff, mbuf->pData + mbuf->dataOff, mbuf->dataLen);
    }
    return copy;
}

// ---------------------------------------------------------------------------
// The forwarding plane's side and the controls

uint32_t WICK_ChannelPut(const char *channelName, const void *data, uint32_t len)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return FailStatus(*failed);
    }
    if (channelName == nullptr || channelName[0] == '\0') {
        return 1;
    }
    ChannelTable &t = Channels();
    Channel *ch = t_putName.Find(t, channelName);
    if (ch != nullptr && ch->pending.load(std::memory_order_relaxed) >= ch->depth.load(std::memory_order_relaxed)) {
        return 1;   // full: refused before a buffer is made (a flood to a busy task costs little)
    }
    FpcMbuf *m = NewBufferFromData(data, len, kPutSite, 0);
    if (m == nullptr) {
        return 1;
    }
    bool queued = ch != nullptr && Enqueue(t, ch, m);
    if (!queued) {
        {
            std::lock_guard<std::mutex> lock(t.mu);
            ch = FindByName(t, channelName);
            if (ch == nullptr) {
                ch = AddChannel(t, channelName, kPutChannelDepth, nullptr);
            }
            if (ch != nullptr) {
                t_putName.Keep(t, channelName, ch);
            }
        }
        queued = ch != nullptr && Enqueue(t, ch, m);
    }
    if (!queued) {
        FreeBuffer(m, kPutSite, 0);
        return 1;
    }
    return 0;
}

// An unknown channel is waited for like an empty one: the module may create
// its sending channel only after the forwarding plane started taking.
uint32_t WICK_ChannelTake(const char *channelName, void *buf, uint32_t cap, uint32_t *len, uint32_t timeoutMs)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return FailStatus(*failed);
    }
    if (channelName == nullptr || (buf == nullptr && cap != 0)) {
        return 1;
    }
    ChannelTable &t = Channels();
    Channel *known = t_takeName.Find(t, channelName);
    FpcMbuf *m = known != nullptr ? Dequeue(known) : nullptr;
    if (m == nullptr && known != nullptr && timeoutMs == 0) {
        return 1;   // a look without waiting needs no table lock
    }
    if (m == nullptr) {
        const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
        std::unique_lock<std::mutex> lock(t.mu);
        if (Channel *ch = FindByName(t, channelName); ch != nullptr) {
            t_takeName.Keep(t, channelName, ch);
        }
        for (;;) {
            Channel *ch = FindByName(t, channelName);
            m = ch != nullptr ? Dequeue(ch) : nullptr;
            if (m != nullptr || timeoutMs == 0) {
                break;
            }
            // Announced before the channel is looked at again, as a sender
            // counts its buffer before it looks at the channel's takers; a
            // channel yet to be made wakes every taker when it is.
            std::atomic<uint32_t> &takers = ch != nullptr ? ch->takers : t.takers;
            takers.fetch_add(1, std::memory_order_seq_cst);
            if (ch != nullptr && PendingLocked(ch)) {
                takers.fetch_sub(1, std::memory_order_relaxed);
                continue;
            }
            const std::cv_status st = t.takeCv.wait_until(lock, deadline);
            takers.fetch_sub(1, std::memory_order_relaxed);
            if (st == std::cv_status::timeout) {
                ch = FindByName(t, channelName);
                m = ch != nullptr ? Dequeue(ch) : nullptr;
                break;
            }
        }
    }
    if (m == nullptr) {
        return 1;
    }
    if (cap != 0 && m->dataLen != 0) {
        std::memcpy(buf, m->pData + m->dataOff, std::min(cap, m->dataLen));
    }
    if (len != nullptr) {
        *len = m->dataLen;
    }
    FreeBuffer(m, "WICK_ChannelTake", 0);
    return 0;
}

uint32_t WICK_ChannelDepth(const char *channelName)
{
    if (channelName == nullptr) {
        return 0;
    }
    ChannelTable &t = Channels();
    std::lock_guard<std::mutex> lock(t.mu);
    const Channel *ch = FindByName(t, channelName);
    return ch != nullptr ? ch->pending.load(std::memory_order_relaxed) : 0U;
}

// Threads keep their records (one may be blocked in FPC_EventRead right
// now) but lose their names and channels. Ids keep counting.
void WICK_Reset(void)
{
    std::vector<FpcMbuf *> dropped;
    {
        ChannelTable &t = Channels();
        std::lock_guard<std::mutex> lock(t.mu);
        for (ThreadState *th : t.threads) {
            th->owned.clear();
            th->regName.clear();
        }
        t.threadsByName.clear();
        // Channels are retired, not freed: a sender may hold one by its id.
        t.resets.fetch_add(1, std::memory_order_release);
        for (const auto &[name, ch] : t.byName) {
            ch->owner.store(nullptr, std::memory_order_release);
            {
                std::lock_guard<SpinMutex> channelLock(ch->mu);
                ch->retired = true;
            }
            while (FpcMbuf *m = Dequeue(ch)) {
                dropped.push_back(m);
            }
            (*t.byId[ch->id >> kIdPageBits].load(std::memory_order_relaxed))[ch->id & ((1U << kIdPageBits) - 1U)]
                .store(nullptr, std::memory_order_release);
        }
        t.byName.clear();
        // Takers waiting on a retired channel look the name up again.
        t.takeCv.notify_all();
    }
    for (FpcMbuf *m : dropped) {
        FreeBuffer(m, "WICK_Reset", 0);
    }
}

uint32_t WICK_MbufOutstanding(void)
{
    BufferRegistry &reg = Buffers();
    std::lock_guard<std::mutex> lock(reg.mu);
    uint32_t live = 0;
    for (const auto &[key, site] : reg.sites) {
        live += site->live.load(std::memory_order_relaxed);
    }
    return live;
}

uint32_t WICK_MbufLeakReport(WICK_LEAK_REPORT_FN report, void *arg)
{
    struct Entry {
        const Site *site;
        uint32_t count;
    };
    std::vector<Entry> entries;
    {
        BufferRegistry &reg = Buffers();
        std::lock_guard<std::mutex> lock(reg.mu);
        for (const auto &[key, site] : reg.sites) {
            const uint32_t live = site->live.load(std::memory_order_relaxed);
            if (live != 0) {
                entries.push_back(Entry{site.get(), live});
            }
        }
    }
    // Stable order for readers of the report: by file, then line.
    std::sort(entries.begin(), entries.end(), [](const Entry &a, const Entry &b) {
        return std::tie(a.site->file, a.site->line) < std::tie(b.site->file, b.site->line);
    });
    // Called without the lock: a reporter may allocate or free buffers.
    if (report != nullptr) {
        for (const Entry &e : entries) {
            report(e.site->file.c_str(), e.site->line, e.count, arg);
        }
    }
    return static_cast<uint32_t>(entries.size());
}

// 1 while the thread registered under threadName is blocked in
// FPC_EventRead, 0 once it returned (or for an unknown name).
uint32_t WICK_ThreadIsWaiting(const char *threadName)
{
    if (threadName == nullptr) {
        return 0;
    }
    ChannelTable &t = Channels();
    std::lock_guard<std::mutex> lock(t.mu);
    const auto it = t.threadsByName.find(std::string_view(threadName));
    return it != t.threadsByName.end() && it->second->blocked.load(std::memory_order_relaxed) ? 1U : 0U;
}

}  // extern "C"
