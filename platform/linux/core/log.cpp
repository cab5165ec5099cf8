// The log sink and the system-log interposer.
//
// On the real switch, system-log lines go to the system logger and
// diagnostic records and debug lines to the information center. Ours keeps
// every line (syslog(3), diagnostic records, debug lines, the platform's own
// reports) in a ring of the last PLAT_LOG_RING lines with a kind and a
// sequence number, hands each to an optional printer (the host's output),
// and lets tests count, find and visit them. PLAT_LogSetFile adds a file
// that a thread of its own writes.
//
// Whoever logs only appends a binary record (kind, a render function, a few
// words and the payload bytes) to a lock-free queue (record_ring.hpp) and
// goes on: the sink's own thread renders the records into lines, numbers
// them, keeps them in the ring and hands them to the file and the printer,
// in the order they were queued. A full queue drops the record and counts
// it (PLAT_LogRecordsDropped), so a packet task is never held up by its
// logging; the sink then notes the loss in a line of its own. Every query
// (count, find, visit, the last number, clear) and every change of printer
// or file first takes what is queued, so a caller sees the lines it logged
// before the call. libplatform defines syslog and
// vsyslog (and the fortified __syslog_chk/__vsyslog_chk), so programs linked
// with it log here.
// This file defines syslog itself: the fortified inline wrappers of
// <syslog.h> must not be in the way.
#undef _FORTIFY_SOURCE
#include <syslog.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fcntl.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "core/internal.hpp"
#include "core/record_ring.hpp"
#include "platform/control.h"

namespace {

struct Line {
    uint32_t kind = 0;
    uint64_t seq = 0;
    std::string text;
};

const char *KindTag(uint32_t kind)
{
    switch (kind) {
        case PLAT_LOG_SYSLOG: return "syslog ";
        case PLAT_LOG_DIAG: return "diag ";
        case PLAT_LOG_DEBUG: return "debug ";
        default: return "platform ";
    }
}

// The log file: lines are appended to a pending buffer under a short lock
// and a thread of its own swaps it out and writes it, so a burst of lines
// costs their writers a copy, never a system call.
class FileWriter {
public:
    FileWriter(int fd, std::string path, uint64_t rotateBytes)
        : fd_(fd), path_(std::move(path)), rotateBytes_(rotateBytes), thread_([this]() { Run(); })
    {
    }
    FileWriter(const FileWriter &) = delete;
    FileWriter &operator=(const FileWriter &) = delete;

    // Writes what is pending, then closes the file.
    ~FileWriter()
    {
        {
            std::lock_guard lock(mu_);
            stop_ = true;
        }
        wake_.notify_one();
        thread_.join();
        if (fd_ >= 0) {
            (void)close(fd_);
        }
    }

    void Append(uint32_t kind, std::string_view text)
    {
        std::lock_guard lock(mu_);
        if (pending_.size() + text.size() > PLAT_LOG_FILE_BACKLOG) {
            dropped_.fetch_add(1, std::memory_order_relaxed);
            droppedSinceNote_++;
            return;
        }
        pending_.append(KindTag(kind)).append(text).push_back('\n');
        if (pending_.size() >= kWakeAt && !woken_) {
            woken_ = true;
            wake_.notify_one();
        }
    }

    static uint64_t Dropped() { return dropped_.load(std::memory_order_relaxed); }

private:
    // Large batches: each swap is a moment the writer and the loggers meet
    // on the lock.
    static constexpr size_t kWakeAt = 1024 * 1024;
    static constexpr auto kPeriod = std::chrono::milliseconds(50);

    void Run()
    {
        std::string writing;
        std::unique_lock lock(mu_);
        for (;;) {
            wake_.wait_for(lock, kPeriod, [this]() { return stop_ || pending_.size() >= kWakeAt; });
            woken_ = false;
            writing.swap(pending_);
            const uint64_t dropped = std::exchange(droppedSinceNote_, 0);
            const bool stopping = stop_;
            lock.unlock();
            if (dropped != 0) {
                writing += "platform log file: " + std::to_string(dropped) + " line(s) dropped\n";
            }
            WriteAll(writing);
            writing.clear();
            RotateIfFull();
            if (stopping) {
                return;
            }
            lock.lock();
        }
    }

    void WriteAll(std::string_view data)
    {
        while (!data.empty() && fd_ >= 0) {
            const ssize_t n = write(fd_, data.data(), data.size());
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                return;  // a full or broken disk loses the rest of this batch
            }
            written_ += static_cast<uint64_t>(n);
            data.remove_prefix(static_cast<size_t>(n));
        }
    }

    // A full file becomes "<path>.1" and a new one starts: the disk holds
    // at most two files' worth, however long the switch runs.
    void RotateIfFull()
    {
        if (rotateBytes_ == 0 || written_ < rotateBytes_ || fd_ < 0) {
            return;
        }
        (void)close(fd_);
        (void)std::rename(path_.c_str(), (path_ + ".1").c_str());
        fd_ = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        written_ = 0;
    }

    int fd_;  // the writer thread's, after construction
    const std::string path_;
    const uint64_t rotateBytes_;
    uint64_t written_ = 0;
    std::mutex mu_;
    std::condition_variable wake_;
    std::string pending_;
    bool woken_ = false;
    bool stop_ = false;
    uint64_t droppedSinceNote_ = 0;
    static inline std::atomic<uint64_t> dropped_{0};
    std::thread thread_;  // last: starts once the members above exist
};

using platform::internal::RecordRing;
using platform::internal::RenderFn;

// Records queued for the sink's thread: 2^16 cells of 64 bytes (4 MiB),
// tens of thousands of lines.
constexpr uint32_t kRecordCellsLog2 = 16;
// The sink's thread takes what is queued, then waits this long for more
// when it found a few records, or (woken by the next record) up to
// kIdleWait when it found none.
constexpr auto kGatherWait = std::chrono::milliseconds(1);
constexpr auto kIdleWait = std::chrono::milliseconds(200);
// A batch this large means records pour in: take the next one at once.
constexpr size_t kBusyBatch = 256;

void RenderCopy(const void *ctx, uint32_t id, std::string_view payload, std::string &out)
{
    (void)ctx;
    (void)id;
    out.assign(payload);
}

struct Sink {
    Sink() { std::thread([this]() { Run(); }).detach(); }

    RecordRing records{kRecordCellsLog2};

    // Taking records and everything below; recursive, so a printer that
    // searches the sink from inside a line it prints does not deadlock.
    std::recursive_mutex mu;
    std::vector<Line> ring = std::vector<Line>(PLAT_LOG_RING);
    uint64_t lastSeq = 0;   // last sequence number written
    uint64_t firstSeq = 1;  // oldest kept line (firstSeq > lastSeq: none kept)
    PLAT_LOG_PRINTER_FN printer = nullptr;
    void *printerArg = nullptr;
    std::unique_ptr<FileWriter> file;
    uint64_t droppedNoted = 0;   // records lost to a full queue, as last reported
    std::string rendered;        // the line being rendered; keeps its storage

    // Waking the sink's thread: a producer that finds it idle (or the queue
    // half full) notifies under wakeMu.
    std::mutex wakeMu;
    std::condition_variable wake;
    std::atomic<bool> idle{false};
    std::atomic<bool> hurry{false};

    void Run();
};

Sink &TheSink()
{
    return platform::internal::Leaky<Sink>();
}

Line &Slot(Sink &sink, uint64_t seq)
{
    return sink.ring[(seq - 1) % PLAT_LOG_RING];
}

// Numbers one line, keeps it and hands it on. Caller holds Sink::mu.
void Emit(Sink &sink, uint32_t kind, std::string_view line)
{
    const uint64_t seq = ++sink.lastSeq;
    if (seq - sink.firstSeq >= PLAT_LOG_RING) {
        sink.firstSeq = seq - PLAT_LOG_RING + 1;
    }
    Line &slot = Slot(sink, seq);
    slot.kind = kind;
    slot.seq = seq;
    slot.text.assign(line);  // reuses the slot's storage
    if (sink.file) {
        sink.file->Append(kind, line);
    }
    if (sink.printer != nullptr) {
        sink.printer(kind, slot.text.c_str(), sink.printerArg);
    }
}

// Set while this thread takes records, so a printer's own query does not
// start a second pass inside the first.
thread_local bool t_draining = false;

// Renders and emits every queued record. Caller holds Sink::mu.
size_t DrainLocked(Sink &sink)
{
    if (t_draining) {
        return 0;
    }
    t_draining = true;
    const size_t taken = sink.records.Drain([&sink](const RecordRing::Head &head, std::string_view payload) {
        const auto render = reinterpret_cast<RenderFn>(head.fn);
        render(head.ctx, head.id, payload, sink.rendered);
        Emit(sink, head.kind, sink.rendered);
    });
    const uint64_t dropped = sink.records.Dropped();
    if (dropped != sink.droppedNoted) {
        Emit(sink, PLAT_LOG_PLATFORM,
             "platform log: " + std::to_string(dropped - sink.droppedNoted) +
                 " record(s) dropped, the sink could not keep up");
        sink.droppedNoted = dropped;
    }
    t_draining = false;
    return taken;
}

void Sink::Run()
{
    for (;;) {
        size_t taken = 0;
        {
            std::lock_guard lock(mu);
            taken = DrainLocked(*this);
        }
        hurry.store(false, std::memory_order_relaxed);
        if (taken >= kBusyBatch) {
            continue;
        }
        std::unique_lock lock(wakeMu);
        if (taken != 0) {
            wake.wait_for(lock, kGatherWait);
            continue;
        }
        // Announced before the last look, so a record queued after it
        // finds the announcement and wakes this thread (see RecordRing).
        idle.store(true, std::memory_order_seq_cst);
        if (records.Empty()) {
            wake.wait_for(lock, kIdleWait);
        }
        idle.store(false, std::memory_order_relaxed);
    }
}

// Wakes the sink's thread when it waits for records, or when the queue is
// half full.
void WakeIfNeeded(Sink &sink)
{
    bool wakeUp = sink.idle.load(std::memory_order_seq_cst) && sink.idle.exchange(false);
    if (!wakeUp && sink.records.Used() > sink.records.Capacity() / 2) {
        wakeUp = !sink.hurry.exchange(true);
    }
    if (wakeUp) {
        std::lock_guard lock(sink.wakeMu);
        sink.wake.notify_one();
    }
}

// Takes what is queued on the calling thread; the lock is held on return.
std::unique_lock<std::recursive_mutex> Drained(Sink &sink)
{
    std::unique_lock lock(sink.mu);
    (void)DrainLocked(sink);
    return lock;
}

bool Matches(const Line &line, uint32_t kind, const char *text)
{
    return (kind == PLAT_LOG_ANY || line.kind == kind) &&
           (text == nullptr || line.text.find(text) != std::string::npos);
}

void SyslogV(int priority, const char *fmt, va_list ap)
{
    if (fmt == nullptr) {
        return;
    }
    platform::internal::LogLine(PLAT_LOG_SYSLOG,
                            platform::internal::Format("<%d> ", priority & LOG_PRIMASK) + platform::internal::FormatV(fmt, ap));
}

}  // namespace

namespace platform::internal {

std::string FormatV(const char *fmt, va_list ap)
{
    va_list measure;
    va_copy(measure, ap);
    char small[256];
    const int n = std::vsnprintf(small, sizeof(small), fmt, measure);
    va_end(measure);
    if (n < 0) {
        return std::string();
    }
    const size_t len = static_cast<size_t>(n);
    if (len < sizeof(small)) {
        return std::string(small, len);
    }
    std::string out(len, '\0');
    std::vsnprintf(out.data(), len + 1, fmt, ap);
    return out;
}

std::string Format(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    std::string out = FormatV(fmt, ap);
    va_end(ap);
    return out;
}

pid_t CurrentTid()
{
    return static_cast<pid_t>(syscall(SYS_gettid));
}

bool LogRecord(uint32_t kind, RenderFn render, const void *ctx, uint32_t id, std::string_view payload)
{
    Sink &sink = TheSink();
    RecordRing::Head head;
    head.kind = kind;
    head.id = id;
    head.ctx = ctx;
    head.fn = reinterpret_cast<void (*)()>(render);
    if (payload.size() > sink.records.MaxPayload()) {
        // Too large for a record: rendered here, after everything queued.
        auto lock = Drained(sink);
        std::string line;
        render(ctx, id, payload, line);
        Emit(sink, kind, line);
        return true;
    }
    const bool queued = sink.records.Push(head, payload);
    WakeIfNeeded(sink);
    return queued;
}

void LogLine(uint32_t kind, std::string_view line)
{
    (void)LogRecord(kind, RenderCopy, nullptr, 0, line);
}

}  // namespace platform::internal

extern "C" {

void PLAT_LogWriteV(uint32_t kind, const char *fmt, va_list ap)
{
    if (fmt != nullptr) {
        platform::internal::LogLine(kind, platform::internal::FormatV(fmt, ap));
    }
}

void PLAT_LogWrite(uint32_t kind, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    PLAT_LogWriteV(kind, fmt, ap);
    va_end(ap);
}

uint32_t PLAT_LogCount(uint32_t kind, const char *text)
{
    Sink &sink = TheSink();
    const auto lock = Drained(sink);
    uint32_t count = 0;
    for (uint64_t seq = sink.firstSeq; seq <= sink.lastSeq; seq++) {
        if (Matches(Slot(sink, seq), kind, text)) {
            count++;
        }
    }
    return count;
}

uint64_t PLAT_LogFind(uint32_t kind, const char *text, uint64_t fromSeq)
{
    Sink &sink = TheSink();
    const auto lock = Drained(sink);
    for (uint64_t seq = fromSeq > sink.firstSeq ? fromSeq : sink.firstSeq; seq <= sink.lastSeq; seq++) {
        if (Matches(Slot(sink, seq), kind, text)) {
            return seq;
        }
    }
    return 0;
}

uint64_t PLAT_LogLastSeq(void)
{
    Sink &sink = TheSink();
    const auto lock = Drained(sink);
    return sink.lastSeq;
}

uint32_t PLAT_LogVisit(PLAT_LOG_VISIT_FN visit, void *arg)
{
    // Copy first: the visitor may log or search the sink itself.
    std::vector<Line> kept;
    {
        Sink &sink = TheSink();
        const auto lock = Drained(sink);
        kept.reserve(sink.lastSeq + 1 - sink.firstSeq);
        for (uint64_t seq = sink.firstSeq; seq <= sink.lastSeq; seq++) {
            kept.push_back(Slot(sink, seq));
        }
    }
    if (visit != nullptr) {
        for (const Line &line : kept) {
            visit(line.kind, line.seq, line.text.c_str(), arg);
        }
    }
    return static_cast<uint32_t>(kept.size());
}

void PLAT_LogClear(void)
{
    Sink &sink = TheSink();
    const auto lock = Drained(sink);
    // Sequence numbers go on from where they were, so a seq taken before
    // the clear never names a later line.
    for (uint64_t seq = sink.firstSeq; seq <= sink.lastSeq; seq++) {
        Slot(sink, seq).text.clear();
    }
    sink.firstSeq = sink.lastSeq + 1;
}

void PLAT_LogSetPrinter(PLAT_LOG_PRINTER_FN printer, void *arg)
{
    // The old printer prints what was logged before the change.
    Sink &sink = TheSink();
    const auto lock = Drained(sink);
    sink.printer = printer;
    sink.printerArg = arg;
}

void PLAT_LogFlush(void)
{
    Sink &sink = TheSink();
    const auto lock = Drained(sink);
}

uint64_t PLAT_LogRecordsDropped(void)
{
    return TheSink().records.Dropped();
}

uint32_t PLAT_LogSetFile(const char *path, uint64_t rotateBytes)
{
    std::unique_ptr<FileWriter> opened;
    if (path != nullptr) {
        const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0) {
            return 1;
        }
        opened = std::make_unique<FileWriter>(fd, path, rotateBytes);
    }
    std::unique_ptr<FileWriter> old;
    {
        // What was logged before the change goes to the old file.
        Sink &sink = TheSink();
        const auto lock = Drained(sink);
        old = std::exchange(sink.file, std::move(opened));
    }
    return 0;  // old, if any, writes what it holds and closes here
}

uint64_t PLAT_LogFileDropped(void)
{
    return FileWriter::Dropped();
}

// ---- The system-log interposer (same signatures as <syslog.h>) ----

void vsyslog(int priority, const char *fmt, va_list ap)
{
    SyslogV(priority, fmt, ap);
}

void syslog(int priority, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    SyslogV(priority, fmt, ap);
    va_end(ap);
}

// Callers built with _FORTIFY_SOURCE reach these instead of syslog/vsyslog.
void __vsyslog_chk(int priority, int flag, const char *fmt, va_list ap);
void __syslog_chk(int priority, int flag, const char *fmt, ...);

void __vsyslog_chk(int priority, int flag, const char *fmt, va_list ap)
{
    (void)flag;
    SyslogV(priority, fmt, ap);
}

void __syslog_chk(int priority, int flag, const char *fmt, ...)
{
    (void)flag;
    va_list ap;
    va_start(ap, fmt);
    SyslogV(priority, fmt, ap);
    va_end(ap);
}

}  // extern "C"
