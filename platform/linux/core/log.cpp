// The log sink and the system-log interposer.
//
// On the real switch, system-log lines go to the system logger and
// diagnostic records and debug lines to the information center. Ours keeps
// every line (syslog(3), diagnostic records, debug lines, the platform's own
// reports) in a ring of the last PLAT_LOG_RING lines with a kind and a
// sequence number, hands each to an optional printer (the host's output),
// and lets tests count, find and visit them. libplatform defines syslog and
// vsyslog (and the fortified __syslog_chk/__vsyslog_chk), so programs linked
// with it log here; PLAT_LogForwardSyslog(1) also passes lines to libc.
// This file defines syslog itself: the fortified inline wrappers of
// <syslog.h> must not be in the way.
#undef _FORTIFY_SOURCE
#include <dlfcn.h>
#include <syslog.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "core/internal.hpp"
#include "plat_control.h"

namespace {

struct Line {
    uint32_t kind = 0;
    uint64_t seq = 0;
    std::string text;
};

struct Sink {
    std::mutex mu;
    std::vector<Line> ring = std::vector<Line>(PLAT_LOG_RING);
    uint64_t lastSeq = 0;   // last sequence number written
    uint64_t firstSeq = 1;  // oldest kept line (firstSeq > lastSeq: none kept)
    // Serialises writers with the printer and guards it; recursive so a
    // printer that logs cannot deadlock its own thread. Taken before mu.
    std::recursive_mutex printMu;
    PLAT_LOG_PRINTER_FN printer = nullptr;
    void *printerArg = nullptr;
};

std::atomic<bool> g_forwardSyslog{false};

Sink &TheSink()
{
    return plat::internal::Leaky<Sink>();
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
    plat::internal::LogLine(PLAT_LOG_SYSLOG,
                            plat::internal::Format("<%d> ", priority & LOG_PRIMASK) + plat::internal::FormatV(fmt, ap));
    if (g_forwardSyslog.load(std::memory_order_relaxed)) {
        ForwardToLibc(priority, fmt, forward);
    }
    va_end(forward);
}

}  // namespace

namespace plat::internal {

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

void LogLine(uint32_t kind, std::string line)
{
    Sink &sink = TheSink();
    // Held from numbering to printing: the printer sees lines in sequence
    // order, and once PLAT_LogSetPrinter returns the old printer is done.
    std::lock_guard printLock(sink.printMu);
    std::string printed;
    {
        std::lock_guard lock(sink.mu);
        const uint64_t seq = ++sink.lastSeq;
        if (seq - sink.firstSeq >= PLAT_LOG_RING) {
            sink.firstSeq = seq - PLAT_LOG_RING + 1;
        }
        if (sink.printer != nullptr) {
            printed = line;
        }
        Line &slot = Slot(sink, seq);
        slot.kind = kind;
        slot.seq = seq;
        slot.text = std::move(line);
    }
    if (sink.printer != nullptr) {
        sink.printer(kind, printed.c_str(), sink.printerArg);
    }
}

}  // namespace plat::internal

extern "C" {

void PLAT_LogWriteV(uint32_t kind, const char *fmt, va_list ap)
{
    if (fmt != nullptr) {
        plat::internal::LogLine(kind, plat::internal::FormatV(fmt, ap));
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
}

void PLAT_LogForwardSyslog(uint32_t on)
{
    g_forwardSyslog.store(on != 0, std::memory_order_relaxed);
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
