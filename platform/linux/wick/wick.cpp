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
// 200 ms pass, so no task is stuck forever). Buffers are single heap blocks
// (descriptor followed by storage) recorded in a table of live buffers with
// the (file, line) that made them, which gives leak reports by call site and
// lets a bad or double free be logged and ignored instead of crashing.
//
// A test can stand in for the forwarding plane (WICK_ChannelPut/Take), make
// any function fail or count its calls through PLAT_FailCheck, see whether a
// task waits for frames (WICK_ThreadIsWaiting), count outstanding buffers and
// drop every channel between cases (WICK_Reset).
//
// Locking: one mutex guards channels and thread records, a second one the
// table of live buffers; the first may be held while taking the second,
// never the other way round. Sends and receives take the channel mutex once
// and wake a receiver only when it is actually blocked, so the frame path
// costs one lock per operation and no allocation besides the buffer itself.
#include <algorithm>
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

#include "platform/control.h"
#include "platform/fail_point.hpp"
#include "wick.h"

namespace {

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
// Live buffers and their allocation sites

struct Site {
    std::string file;
    uint32_t line = 0;
    uint32_t live = 0;
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

// Open-addressing table of live buffers (linear probing, deletion by
// backward shift): lookups never read the buffer itself, so freeing a
// pointer that is not ours, or no longer ours, is caught without touching
// its memory. It grows by doubling, so steady traffic allocates nothing.
class LiveTable {
public:
    bool insert(FpcMbuf *key, Site *site)
    {
        if ((size_ + 1) * 2 > slots_.size() && !grow()) {
            return false;
        }
        place(key, site);
        size_++;
        return true;
    }

    // Removes key; returns its site, or null when key is not live.
    Site *erase(const FpcMbuf *key)
    {
        if (slots_.empty()) {
            return nullptr;
        }
        size_t i = home(key);
        while (slots_[i].key != key) {
            if (slots_[i].key == nullptr) {
                return nullptr;
            }
            i = (i + 1) & mask();
        }
        Site *site = slots_[i].site;
        // Shift later members of the probe run back so no hole breaks it.
        size_t j = i;
        for (;;) {
            j = (j + 1) & mask();
            if (slots_[j].key == nullptr) {
                break;
            }
            const size_t k = home(slots_[j].key);
            const bool stays = i <= j ? (i < k && k <= j) : (i < k || k <= j);
            if (!stays) {
                slots_[i] = slots_[j];
                i = j;
            }
        }
        slots_[i] = Slot{};
        size_--;
        return site;
    }

    size_t size() const { return size_; }

private:
    struct Slot {
        FpcMbuf *key = nullptr;
        Site *site = nullptr;
    };

    size_t mask() const { return slots_.size() - 1; }

    size_t home(const FpcMbuf *key) const
    {
        const uint64_t h = (reinterpret_cast<uintptr_t>(key) >> 4) * 0x9E3779B97F4A7C15ULL;
        return h >> shift_;
    }

    void place(FpcMbuf *key, Site *site)
    {
        size_t i = home(key);
        while (slots_[i].key != nullptr) {
            i = (i + 1) & mask();
        }
        slots_[i] = Slot{key, site};
    }

    bool grow()
    {
        const size_t cap = slots_.empty() ? 1024 : slots_.size() * 2;
        std::vector<Slot> old;
        try {
            old = std::exchange(slots_, std::vector<Slot>(cap));
        } catch (const std::bad_alloc &) {
            return false;
        }
        shift_ = 64U - static_cast<unsigned>(__builtin_ctzll(cap));
        for (const Slot &s : old) {
            if (s.key != nullptr) {
                place(s.key, s.site);
            }
        }
        return true;
    }

    std::vector<Slot> slots_;
    size_t size_ = 0;
    unsigned shift_ = 64;
};

struct BufferRegistry {
    std::mutex mu;
    LiveTable live;
    // Sites are never dropped: the table and leak reports point into them.
    std::unordered_map<SiteKey, std::unique_ptr<Site>, SiteKeyHash> sites;
};

BufferRegistry &Buffers()
{
    // Never destroyed: tasks may still free buffers while the process exits.
    static BufferRegistry *registry = new BufferRegistry;
    return *registry;
}

Site *SiteFor(BufferRegistry &reg, const char *file, uint32_t line)
{
    const std::string_view name = file != nullptr ? file : "?";
    const auto it = reg.sites.find(SiteKey{name, line});
    if (it != reg.sites.end()) {
        return it->second.get();
    }
    auto site = std::make_unique<Site>();
    site->file.assign(name);
    site->line = line;
    Site *raw = site.get();
    reg.sites.emplace(SiteKey{raw->file, line}, std::move(site));
    return raw;
}

// One block: the descriptor, then bufLen bytes of storage.
FpcMbuf *NewBuffer(uint32_t bufLen, const char *file, uint32_t line)
{
    void *block = std::malloc(sizeof(FpcMbuf) + bufLen);
    if (block == nullptr) {
        return nullptr;
    }
    auto *m = static_cast<FpcMbuf *>(block);
    m->pData = reinterpret_cast<uint8_t *>(m + 1);
    m->dataOff = 0;
    m->dataLen = 0;
    m->bufLen = bufLen;
    m->reserved = 0;
    BufferRegistry &reg = Buffers();
    bool recorded = false;
    try {
        std::lock_guard<std::mutex> lock(reg.mu);
        Site *site = SiteFor(reg, file, line);
        recorded = reg.live.insert(m, site);
        if (recorded) {
            site->live++;
        }
    } catch (const std::bad_alloc &) {
        recorded = false;
    }
    if (!recorded) {
        std::free(block);
        return nullptr;
    }
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

void FreeBuffer(FpcMbuf *m, const char *file, uint32_t line)
{
    if (m == nullptr) {
        return;
    }
    BufferRegistry &reg = Buffers();
    {
        std::lock_guard<std::mutex> lock(reg.mu);
        Site *site = reg.live.erase(m);
        if (site == nullptr) {
            m = nullptr;
        } else {
            site->live--;
        }
    }
    if (m == nullptr) {
        PLAT_LogWrite(PLAT_LOG_PLATFORM, "wick: bad free at %s:%u", file != nullptr ? file : "?", line);
        return;
    }
    std::free(m);
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
    uint32_t depth = 0;
    ThreadState *owner = nullptr;  // null: made by the forwarding plane's side, not yet adopted
    Ring ring;
};

// What the library knows of one thread; lives as long as the thread.
struct ThreadState {
    std::condition_variable cv;        // signalled when an owned channel gets a buffer
    std::vector<Channel *> owned;      // its receive channels
    std::string regName;               // name given to FPC_ThreadInfoRegByName, "" if none
    bool blocked = false;              // inside FPC_EventRead waiting for frames
};

struct ChannelTable {
    std::mutex mu;
    std::condition_variable takeCv;    // WICK_ChannelTake waiters
    uint32_t takers = 0;               // how many wait on takeCv
    // Indexed by id; slot 0 stays empty and dropped channels leave a null
    // slot, so ids are small and never reused.
    std::vector<std::unique_ptr<Channel>> byId{1};
    std::map<std::string, Channel *, std::less<>> byName;
    std::map<std::string, ThreadState *, std::less<>> threadsByName;
    std::vector<ThreadState *> threads;
};

ChannelTable &Channels()
{
    // Never destroyed: detached tasks may still be in FPC_EventRead at exit.
    static ChannelTable *table = new ChannelTable;
    return *table;
}

// Drops the thread's record when the thread ends; its channels stay and
// wait for an owner.
struct ThreadSlot {
    ThreadState *state = nullptr;

    ~ThreadSlot()
    {
        if (state == nullptr) {
            return;
        }
        ChannelTable &t = Channels();
        {
            std::lock_guard<std::mutex> lock(t.mu);
            for (Channel *ch : state->owned) {
                ch->owner = nullptr;
            }
            const auto named = t.threadsByName.find(state->regName);
            if (named != t.threadsByName.end() && named->second == state) {
                t.threadsByName.erase(named);
            }
            std::erase(t.threads, state);
        }
        delete state;
    }
};

thread_local ThreadSlot t_self;

// The calling thread's record, made on first use; null when out of memory.
// Caller holds t.mu.
ThreadState *Self(ChannelTable &t)
{
    if (t_self.state == nullptr) {
        try {
            auto state = std::make_unique<ThreadState>();
            t.threads.push_back(state.get());
            t_self.state = state.release();
        } catch (const std::bad_alloc &) {
            return nullptr;
        }
    }
    return t_self.state;
}

Channel *FindById(ChannelTable &t, uint32_t id)
{
    return id < t.byId.size() ? t.byId[id].get() : nullptr;
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
    if (t.byId.size() >= FPC_INVALID_ID) {
        return nullptr;
    }
    Channel *raw = nullptr;
    try {
        auto ch = std::make_unique<Channel>();
        ch->name.assign(name);
        ch->id = static_cast<uint32_t>(t.byId.size());
        ch->depth = depth;
        ch->owner = owner;
        ReserveOneMore(t.byId);
        if (owner != nullptr) {
            ReserveOneMore(owner->owned);
        }
        raw = ch.get();
        t.byName.emplace(raw->name, raw);
        t.byId.push_back(std::move(ch));
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
    if (owner != nullptr) {
        owner->owned.push_back(raw);
    }
    if (t.takers != 0) {
        t.takeCv.notify_all();
    }
    return raw;
}

// Appends m and wakes whoever waits for it. Caller holds t.mu.
bool Enqueue(ChannelTable &t, Channel *ch, FpcMbuf *m)
{
    if (!ch->ring.push(m, ch->depth)) {
        return false;
    }
    if (ch->owner != nullptr && ch->owner->blocked) {
        ch->owner->cv.notify_one();
    }
    if (t.takers != 0) {
        t.takeCv.notify_all();
    }
    return true;
}

bool AnyPending(const ThreadState *self)
{
    return std::any_of(self->owned.begin(), self->owned.end(),
                       [](const Channel *ch) { return ch->ring.count() != 0; });
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
        if (ch->owner == nullptr) {
            try {
                self->owned.push_back(ch);
            } catch (const std::bad_alloc &) {
                return FPC_INVALID_ID;
            }
            ch->owner = self;
            ch->depth = depth;
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
        self->blocked = true;
        while (!AnyPending(self)) {
            if (self->cv.wait_until(lock, deadline) == std::cv_status::timeout) {
                break;
            }
        }
        self->blocked = false;
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
    ChannelTable &t = Channels();
    std::lock_guard<std::mutex> lock(t.mu);
    Channel *ch = FindById(t, channelId);
    *mbuf = ch != nullptr ? ch->ring.pop() : nullptr;
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
    std::lock_guard<std::mutex> lock(t.mu);
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
    FpcMbuf *m = NewBufferFromData(data, len, kPutSite, 0);
    if (m == nullptr) {
        return 1;
    }
    bool queued = false;
    {
        ChannelTable &t = Channels();
        std::lock_guard<std::mutex> lock(t.mu);
        Channel *ch = FindByName(t, channelName);
        if (ch == nullptr) {
            ch = AddChannel(t, channelName, kPutChannelDepth, nullptr);
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
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    FpcMbuf *m = nullptr;
    {
        ChannelTable &t = Channels();
        std::unique_lock<std::mutex> lock(t.mu);
        for (;;) {
            Channel *ch = FindByName(t, channelName);
            m = ch != nullptr ? ch->ring.pop() : nullptr;
            if (m != nullptr || timeoutMs == 0) {
                break;
            }
            t.takers++;
            const std::cv_status st = t.takeCv.wait_until(lock, deadline);
            t.takers--;
            if (st == std::cv_status::timeout) {
                ch = FindByName(t, channelName);
                m = ch != nullptr ? ch->ring.pop() : nullptr;
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
    return ch != nullptr ? ch->ring.count() : 0U;
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
        t.byName.clear();
        for (auto &ch : t.byId) {
            if (ch != nullptr) {
                while (FpcMbuf *m = ch->ring.pop()) {
                    dropped.push_back(m);
                }
                ch.reset();
            }
        }
        if (t.takers != 0) {
            t.takeCv.notify_all();
        }
    }
    for (FpcMbuf *m : dropped) {
        FreeBuffer(m, "WICK_Reset", 0);
    }
}

uint32_t WICK_MbufOutstanding(void)
{
    BufferRegistry &reg = Buffers();
    std::lock_guard<std::mutex> lock(reg.mu);
    return static_cast<uint32_t>(reg.live.size());
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
            if (site->live != 0) {
                entries.push_back(Entry{site.get(), site->live});
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
    return it != t.threadsByName.end() && it->second->blocked ? 1U : 0U;
}

}  // extern "C"
