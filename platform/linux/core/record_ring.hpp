// A bounded, lock-free queue of variable-length binary records: any thread
// appends, one consumer at a time takes them in the order their room was
// reserved. The log sink puts every line here so that the threads that log
// (the packet task above all) only copy a few bytes and never wait: the
// sink's own thread renders and writes them.
//
// The storage is an array of 64-byte cells; a record takes whole cells
// (its head, then its payload) and never wraps: a record that would cross
// the end is preceded by a padding record up to it. A producer reserves its
// cells with one compare-and-swap on the head, copies, then publishes the
// record by storing its position in the first cell's ready word. When the
// reservation would overrun what the consumer has not yet taken, the record
// is dropped and counted instead: producers never block.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>
#include <thread>

namespace platform::internal {

class RecordRing {
public:
    // What a record carries besides its payload bytes.
    struct Head {
        uint32_t cells = 0;    // cells the record spans, head included
        uint32_t kind = 0;     // the producer's own tag; kPadding for padding
        uint32_t id = 0;
        uint32_t len = 0;      // payload bytes
        const void *ctx = nullptr;
        void (*fn)() = nullptr;   // the producer's own, cast back by its consumer
    };
    static constexpr uint32_t kPadding = 0xFFFFFFFFU;
    static constexpr size_t kCellBytes = 64;
    static constexpr size_t kHeadBytes = 32;   // sizeof(Head), rounded up
    static_assert(sizeof(Head) <= kHeadBytes, "a record's head fits its reserved bytes");

    explicit RecordRing(uint32_t cellsLog2)
        : cells_(size_t{1} << cellsLog2),
          ready_(std::make_unique<std::atomic<uint64_t>[]>(cells_)),
          data_(std::make_unique<Cell[]>(cells_))
    {
    }
    RecordRing(const RecordRing &) = delete;
    RecordRing &operator=(const RecordRing &) = delete;

    // The largest payload one record can carry.
    size_t MaxPayload() const { return (cells_ / 4) * kCellBytes - kHeadBytes; }

    // Appends a record whose payload is a then b; false (and counted) when
    // the ring has no room or the payload is too large.
    bool Push(Head head, std::string_view a, std::string_view b = {})
    {
        const size_t len = a.size() + b.size();
        if (len > MaxPayload()) {
            dropped_.fetch_add(1, std::memory_order_relaxed);
            return false;
        }
        const uint64_t need = (kHeadBytes + len + kCellBytes - 1) / kCellBytes;
        uint64_t pos = head_.load(std::memory_order_relaxed);
        uint64_t pad = 0;
        for (;;) {
            const uint64_t index = pos & (cells_ - 1);
            pad = index + need > cells_ ? cells_ - index : 0;
            const uint64_t end = pos + pad + need;
            // pos may be stale: other producers and the consumer may have
            // gone past it since it was read, so the tail can be beyond end
            // (the compare-and-swap below then fails and retries). Compared
            // this way round, that case is never taken for a full ring.
            if (end > tail_.load(std::memory_order_acquire) + cells_) {
                dropped_.fetch_add(1, std::memory_order_relaxed);
                return false;
            }
            // Sequentially consistent, so a consumer that announces it goes
            // to sleep and then finds the ring empty is seen by this
            // producer's check of that announcement (see Empty).
            if (head_.compare_exchange_weak(pos, end, std::memory_order_seq_cst, std::memory_order_relaxed)) {
                break;
            }
        }
        if (pad != 0) {
            Head padding;
            padding.cells = static_cast<uint32_t>(pad);
            padding.kind = kPadding;
            Publish(pos, padding, {}, {});
        }
        head.cells = static_cast<uint32_t>(need);
        head.len = static_cast<uint32_t>(len);
        Publish(pos + pad, head, a, b);
        return true;
    }

    // Hands every record published so far, in order, to visit(head,
    // payload); the payload view is valid during the call only. One
    // consumer at a time (the caller serialises). Returns the records seen.
    template <typename Visit>
    size_t Drain(Visit visit)
    {
        uint64_t tail = tail_.load(std::memory_order_relaxed);
        const uint64_t head = head_.load(std::memory_order_acquire);
        size_t seen = 0;
        while (tail < head) {
            const uint64_t index = tail & (cells_ - 1);
            // Reserved before head was read: its producer is copying it now.
            while (ready_[index].load(std::memory_order_acquire) != tail + 1) {
                std::this_thread::yield();
            }
            Head h;
            std::memcpy(&h, data_[index].bytes, sizeof(h));
            if (h.kind != kPadding) {
                visit(h, std::string_view(reinterpret_cast<const char *>(data_[index].bytes) + kHeadBytes, h.len));
                seen++;
            }
            ready_[index].store(0, std::memory_order_relaxed);
            tail += h.cells;
            if (seen % kReleaseEvery == 0) {
                tail_.store(tail, std::memory_order_release);
            }
        }
        tail_.store(tail, std::memory_order_release);
        return seen;
    }

    // Nothing reserved that the consumer has not taken.
    bool Empty() const { return tail_.load(std::memory_order_acquire) == head_.load(std::memory_order_seq_cst); }
    // Cells reserved and not yet taken.
    uint64_t Used() const
    {
        const uint64_t tail = tail_.load(std::memory_order_acquire);   // first: head is never behind it
        return head_.load(std::memory_order_acquire) - tail;
    }
    uint64_t Capacity() const { return cells_; }
    uint64_t Dropped() const { return dropped_.load(std::memory_order_relaxed); }

private:
    struct alignas(kCellBytes) Cell {
        unsigned char bytes[kCellBytes];
    };

    void Publish(uint64_t pos, const Head &head, std::string_view a, std::string_view b)
    {
        const uint64_t index = pos & (cells_ - 1);
        unsigned char *at = data_[index].bytes;
        std::memcpy(at, &head, sizeof(head));
        if (!a.empty()) {
            std::memcpy(at + kHeadBytes, a.data(), a.size());
        }
        if (!b.empty()) {
            std::memcpy(at + kHeadBytes + a.size(), b.data(), b.size());
        }
        ready_[index].store(pos + 1, std::memory_order_release);
    }

    // The consumer gives cells back in batches, so producers, which read
    // tail_ on every record, seldom find its cache line changed.
    static constexpr size_t kReleaseEvery = 64;

    const uint64_t cells_;
    alignas(64) std::atomic<uint64_t> head_{0};
    alignas(64) std::atomic<uint64_t> tail_{0};
    alignas(64) std::atomic<uint64_t> dropped_{0};
    std::unique_ptr<std::atomic<uint64_t>[]> ready_;
    std::unique_ptr<Cell[]> data_;
};

}  // namespace platform::internal
