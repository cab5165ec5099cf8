// The log sink and the system-log interposer.
//
// On the real switch, system-log lines go to the system logger and
// diagnostic records and debug lines to the information center. Ours keeps
// every line (syslog(3), diagnostic records, debug lines, the platform's own
// reports) in a ring of the last PLAT_LOG_RING lines with a kind and a
// sequence number, hands each to an optional printer (the host's output),
// and lets tests count, find and visit them. PLAT_LogSetFile adds a file
// that a thread of its own writes, off the path of whoever logs. libplatform defines syslog and
// vsyslog (and the fortified __syslog_chk/__vsyslog_chk), so programs linked
// with it log here; PLAT_LogForwardSyslog(1) also passes lines to libc.
// This file defines syslog itself: the fortified inline wrappers of
// <syslog.h> must not be in the way.
#undef _FORTIFY_SOURCE
#include <dlfcn.h>
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

struct Sink {
    platform::internal::SpinMutex mu;
    std::vector<Line> ring = std::vector<Line>(PLAT_LOG_RING);
    uint64_t lastSeq = 0;   // last sequence number written
    uint64_t firstSeq = 1;  // oldest kept line (firstSeq > lastSeq: none kept)
    // Serialises writers with the printer and guards it; recursive so a
    // printer that logs cannot deadlock its own thread. Taken before mu.
    std::recursive_mutex printMu;
    PLAT_LOG_PRINTER_FN printer = nullptr;
    void *printerArg = nullptr;
    std::atomic<bool> hasPrinter{false};
    std::unique_ptr<FileWriter> file;  // guarded by mu
};

std::atomic<bool> g_forwardSyslog{false};

Sink &TheSink()
{
    return platform::internal::Leaky<Sink>();
}

Line &Slot(Sink &sink, uint64_t seq)
{
    return sink.ring[(seq - 1) % PLAT_LOG_RING];
}

bool Matches(const Line &line, uint32_t kind, const char *text)
{
    return (kind == PLAT_LOG_ANY || line.kind == kind) &&
           (text == nullptr || line.text.find(text) != std::string::npos);
}

using VsyslogFn = void (*)(int, const char *, va_list);

void ForwardToLibc(int priority, const char *fmt, va_list ap)
{
    static const VsyslogFn real = reinterpret_cast<VsyslogFn>(dlsym(RTLD_NEXT, "vsyslog"));
    if (real != nullptr) {
        real(priority, fmt, ap);
    }
}

void SyslogV(int priority, const char *fmt, va_list ap)
{
    if (fmt == nullptr) {
        return;
    }
    va_list forward;
    va_copy(forward, ap);
    platform::internal::LogLine(PLAT_LOG_SYSLOG,
                            platform::internal::Format("<%d> ", priority & LOG_PRIMASK) + platform::internal::FormatV(fmt, ap));
    if (g_forwardSyslog.load(std::memory_order_relaxed)) {
        ForwardToLibc(priority, fmt, forward);
    }
    va_end(forward);
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

void LogLine(uint32_t kind, std::string_view line)
{
    Sink &sink = TheSink();
    // With a printer, printMu is held from numbering to printing: the
    // printer sees lines in sequence order, and once PLAT_LogSetPrinter
    // returns the old printer is done. Without one (a benchmark, most
    // tests) the ring's lock is all a line takes.
    std::unique_lock<std::recursive_mutex> printLock;
    if (sink.hasPrinter.load(std::memory_order_acquire)) {
        printLock = std::unique_lock(sink.printMu);
    }
    {
        std::lock_guard lock(sink.mu);
        const uint64_t seq = ++sink.lastSeq;
        if (seq - sink.firstSeq >= PLAT_LOG_RING) {
            sink.firstSeq = seq - PLAT_LOG_RING + 1;
        }
        Line &slot = Slot(sink, seq);
        slot.kind = kind;
        slot.seq = seq;
        slot.text.assign(line);  // reuses the slot's storage
        // Under the ring's lock, so the file has the lines in ring order.
        if (sink.file) {
            sink.file->Append(kind, line);
        }
    }
    if (printLock.owns_lock() && sink.printer != nullptr) {
        // The printer wants a terminated string; line may be a view.
        const std::string printed(line);
        sink.printer(kind, printed.c_str(), sink.printerArg);
    }
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
    std::lock_guard lock(sink.mu);
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
    std::lock_guard lock(sink.mu);
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
    std::lock_guard lock(sink.mu);
    return sink.lastSeq;
}

uint32_t PLAT_LogVisit(PLAT_LOG_VISIT_FN visit, void *arg)
{
    // Copy first: the visitor may log or search the sink itself.
    std::vector<Line> kept;
    {
        Sink &sink = TheSink();
        std::lock_guard lock(sink.mu);
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
    std::lock_guard lock(sink.mu);
    // Sequence numbers go on from where they were, so a seq taken before
    // the clear never names a later line.
    for (uint64_t seq = sink.firstSeq; seq <= sink.lastSeq; seq++) {
        Slot(sink, seq).text.clear();
    }
    sink.firstSeq = sink.lastSeq + 1;
}

void PLAT_LogSetPrinter(PLAT_LOG_PRINTER_FN printer, void *arg)
{
    Sink &sink = TheSink();
    std::lock_guard lock(sink.printMu);
    sink.printer = printer;
    sink.printerArg = arg;
    sink.hasPrinter.store(printer != nullptr, std::memory_order_release);
}

void PLAT_LogForwardSyslog(uint32_t on)
{
    g_forwardSyslog.store(on != 0, std::memory_order_relaxed);
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
        Sink &sink = TheSink();
        std::lock_guard lock(sink.mu);
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
