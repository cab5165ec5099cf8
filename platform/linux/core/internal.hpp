// What the platform services share beyond the public headers: the process-
// lifetime state helper, time scaling, the log sink in C++ terms and the task
// registry hooks that the task service and the watchdog use. Nothing here
// reaches into another service's state.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "platform/control.h"

namespace platform::internal {

// State that lives as long as the process. Tasks are detached threads that
// may still run while static destructors execute at exit, so service state
// is created once on the heap and never destroyed.
template <typename T>
T &Leaky()
{
    static T *const instance = new T();
    return *instance;
}

// The lock of the services the packet path calls many times per frame
// (object database, world model, diagnostic records, log ring, memory
// accounting). Their critical sections are a lookup or a copy, so taking
// and releasing cost one atomic exchange and one plain store, where a mutex
// costs two atomic read-modify-writes behind calls. A waiter spins briefly,
// then gives its core away, so a holder that lost its core gets it back.
class SpinMutex {
public:
    void lock() noexcept
    {
        unsigned spins = 0;
        while (locked_.exchange(true, std::memory_order_acquire)) {
            while (locked_.load(std::memory_order_relaxed)) {
                if (++spins < kSpinsBeforeYield) {
#if defined(__x86_64__) || defined(__i386__)
                    __builtin_ia32_pause();
#endif
                } else {
                    std::this_thread::yield();
                }
            }
        }
    }
    bool try_lock() noexcept
    {
        return !locked_.load(std::memory_order_relaxed) && !locked_.exchange(true, std::memory_order_acquire);
    }
    void unlock() noexcept { locked_.store(false, std::memory_order_release); }

private:
    static constexpr unsigned kSpinsBeforeYield = 64;
    std::atomic<bool> locked_{false};
};

// ms scaled milliseconds in real microseconds.
uint64_t ScaledMicros(uint64_t ms);

// Turns a queued record (its context, id and payload) into its line, on the
// sink's thread; out keeps its storage from line to line.
using RenderFn = void (*)(const void *ctx, uint32_t id, std::string_view payload, std::string &out);

// Queues a record of kind for the log sink, which renders it with render
// and keeps, writes and prints the line in queue order. ctx must stay valid
// until then (the callers pass data that lives as long as the process).
// Costs a copy of the payload and no lock or allocation; false when the
// queue was full and the record was dropped (and counted).
bool LogRecord(uint32_t kind, RenderFn render, const void *ctx, uint32_t id, std::string_view payload);

// Queues one finished line for the log sink.
void LogLine(uint32_t kind, std::string_view line);

// printf into a std::string.
std::string FormatV(const char *fmt, va_list ap) __attribute__((format(printf, 1, 0)));
std::string Format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// Kernel thread id of the calling thread.
pid_t CurrentTid();

// ---- Task registry ----
struct TaskRecord;

// Records a task created by RUK_TaskCreate before its thread starts; the
// newest task of a name is the one the name refers to.
std::shared_ptr<TaskRecord> TaskRegister(const std::string &name, uint32_t id);
// Called first thing on the task's own thread.
void TaskStarted(const std::shared_ptr<TaskRecord> &task, pid_t tid);
// Called on the task's thread when its entry returned.
void TaskFinished(uint32_t exitStatus);
// Name of the task or thread with this kernel thread id ("" when unknown).
std::string TaskNameOfTid(pid_t tid);

}  // namespace platform::internal
