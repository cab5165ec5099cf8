// OS abstraction (RUK): tasks, delays, compare helpers. Queues and memory
// are in ruk_queues.cpp and ruk_memory.cpp.
//
// The real platform schedules named tasks with priorities and stacks of its
// own, sleeps them in ticks and yields between units of work. Ours starts a
// detached std::thread per task (named after the task, cut to the kernel's
// 15 characters), records it in the task registry, sleeps time-scaled
// milliseconds and yields with std::this_thread::yield(). Every operation
// passes failure injection under its own name: a test can make
// RUK_TaskCreate fail, count delays, and shrink delays with the time scale.
#include <pthread.h>

#include <atomic>
#include <cstring>
#include <future>
#include <string>
#include <system_error>
#include <thread>

#include "core/internal.hpp"
#include "platform/control.h"
#include "platform/fail_point.hpp"
#include "ruk.h"

namespace {

std::atomic<uint32_t> g_nextTaskId{1};

void DelayOp(const char *op, uint32_t ms)
{
    (void)platform::FailPoint(op);  // counted; the operation cannot fail
    PLAT_ScaledSleep(ms);
}

void RunDelayOp(const char *op)
{
    (void)platform::FailPoint(op);  // counted; the operation cannot fail
    std::this_thread::yield();
}

}  // namespace

extern "C" {

uint32_t RUK_TaskCreate(const char *name, uint32_t *taskId, RUK_TASK_ENTRY_FN entry, uint32_t priority,
                        uint32_t stackSize, uint32_t mode, uintptr_t arg0, uintptr_t arg1, uintptr_t arg2,
                        uintptr_t arg3)
{
    (void)priority;
    (void)stackSize;
    (void)mode;
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (name == nullptr || name[0] == '\0' || entry == nullptr) {
        return RUK_ERR_PARAM;
    }
    const uint32_t id = g_nextTaskId.fetch_add(1, std::memory_order_relaxed);
    auto task = platform::internal::TaskRegister(name, id);
    std::promise<void> started;
    std::future<void> startedFuture = started.get_future();
    try {
        // The thread owns the promise, so the caller never destroys it under
        // a set_value still running.
        std::thread thread([task, threadName = std::string(name).substr(0, 15), entry, arg0, arg1, arg2, arg3,
                             started = std::move(started)]() mutable {
            (void)pthread_setname_np(pthread_self(), threadName.c_str());
            platform::internal::TaskStarted(task, platform::internal::CurrentTid());
            started.set_value();
            const uint32_t status = entry(arg0, arg1, arg2, arg3);
            platform::internal::TaskFinished(status);
        });
        thread.detach();
    } catch (const std::system_error &) {
        platform::internal::TaskStarted(task, 0);
        platform::internal::TaskFinished(RUK_ERR_TASK);
        return RUK_ERR_TASK;
    }
    // Back to the caller only once the task's tid is known.
    startedFuture.wait();
    if (taskId != nullptr) {
        *taskId = id;
    }
    return RUK_OK;
}

void RUK_TaskDelay(uint32_t ms)
{
    DelayOp("RUK_TaskDelay", ms);
}

void RUK_T_Delay(uint32_t ms)
{
    DelayOp("RUK_T_Delay", ms);
}

void RUK_TaskRunDelay(uint32_t limit, uint32_t slice)
{
    (void)limit;
    (void)slice;
    RunDelayOp("RUK_TaskRunDelay");
}

void RUK_T_RunDelay(uint32_t limit, uint32_t slice)
{
    (void)limit;
    (void)slice;
    RunDelayOp("RUK_T_RunDelay");
}

int32_t RUK_StrCmp(const char *a, const char *b)
{
    if (platform::FailPoint(__func__)) {
        return -1;
    }
    if (a == nullptr || b == nullptr) {
        return a == b ? 0 : (a == nullptr ? -1 : 1);
    }
    return std::strcmp(a, b);
}

int32_t RUK_Mem_Cmp(const void *a, const void *b, size_t len)
{
    if (platform::FailPoint(__func__)) {
        return -1;
    }
    if (len == 0) {
        return 0;
    }
    if (a == nullptr || b == nullptr) {
        return a == b ? 0 : (a == nullptr ? -1 : 1);
    }
    return std::memcmp(a, b, len);
}

}  // extern "C"
