// The task registry: what each task is doing, for the host and tests.
//
// The real platform's task manager knows every task's state. Ours records
// the tasks RUK_TaskCreate starts (name, id, kernel tid, running, exit
// status) and, for any thread, what it last blocked in: blocking platform
// operations call PLAT_TaskMarkWaiting, and a thread that was not created as
// a task is recorded under its thread name the first time it does. A test
// waits with PLAT_TaskWaitUntilWaiting until a task serves its loop.
#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "core/internal.hpp"
#include "platform/control.h"

namespace platform::internal {

struct TaskRecord {
    std::string name;
    uint32_t id = 0;
    // Guarded by Tasks::mu.
    pid_t tid = 0;
    bool running = true;
    uint32_t exitStatus = 0;
    std::string waitingIn;
};

}  // namespace platform::internal

namespace {

using platform::internal::TaskRecord;

struct Tasks {
    std::mutex mu;
    std::condition_variable changed;
    std::map<std::string, std::shared_ptr<TaskRecord>, std::less<>> byName;
};

Tasks &TheTasks()
{
    return platform::internal::Leaky<Tasks>();
}

// The record of the calling thread, set when a task starts or when a
// foreign thread first marks itself waiting.
thread_local std::shared_ptr<TaskRecord> t_current;

std::string ThreadName()
{
    char name[32] = {};
    if (pthread_getname_np(pthread_self(), name, sizeof(name)) != 0 || name[0] == '\0') {
        return "tid-" + std::to_string(platform::internal::CurrentTid());
    }
    return name;
}

}  // namespace

namespace platform::internal {

std::shared_ptr<TaskRecord> TaskRegister(const std::string &name, uint32_t id)
{
    auto task = std::make_shared<TaskRecord>();
    task->name = name;
    task->id = id;
    Tasks &tasks = TheTasks();
    {
        std::lock_guard lock(tasks.mu);
        tasks.byName[name] = task;
    }
    tasks.changed.notify_all();
    return task;
}

void TaskStarted(const std::shared_ptr<TaskRecord> &task, pid_t tid)
{
    t_current = task;
    Tasks &tasks = TheTasks();
    {
        std::lock_guard lock(tasks.mu);
        task->tid = tid;
    }
    tasks.changed.notify_all();
}

void TaskFinished(uint32_t exitStatus)
{
    if (!t_current) {
        return;
    }
    Tasks &tasks = TheTasks();
    {
        std::lock_guard lock(tasks.mu);
        t_current->running = false;
        t_current->exitStatus = exitStatus;
    }
    tasks.changed.notify_all();
    t_current.reset();
}

std::string TaskNameOfTid(pid_t tid)
{
    Tasks &tasks = TheTasks();
    std::lock_guard lock(tasks.mu);
    for (const auto &[name, task] : tasks.byName) {
        if (task->tid == tid) {
            return name;
        }
    }
    return std::string();
}

}  // namespace platform::internal

extern "C" {

uint32_t PLAT_TaskGetInfo(const char *name, PLAT_TASK_INFO_S *info)
{
    if (info == nullptr) {
        return 1;
    }
    std::memset(info, 0, sizeof(*info));
    if (name == nullptr) {
        return 1;
    }
    Tasks &tasks = TheTasks();
    std::lock_guard lock(tasks.mu);
    const auto it = tasks.byName.find(name);
    if (it == tasks.byName.end()) {
        return 1;
    }
    const TaskRecord &task = *it->second;
    info->exists = 1;
    info->running = task.running ? 1 : 0;
    info->exitStatus = task.exitStatus;
    info->tid = task.tid;
    const size_t n = task.waitingIn.copy(info->waitingIn, sizeof(info->waitingIn) - 1);
    info->waitingIn[n] = '\0';
    return 0;
}

void PLAT_TaskMarkWaiting(const char *what)
{
    if (what == nullptr) {
        return;
    }
    Tasks &tasks = TheTasks();
    if (!t_current) {
        auto task = std::make_shared<TaskRecord>();
        task->name = ThreadName();
        task->tid = platform::internal::CurrentTid();
        std::lock_guard lock(tasks.mu);
        tasks.byName[task->name] = task;
        t_current = std::move(task);
    }
    {
        std::lock_guard lock(tasks.mu);
        if (t_current->waitingIn == what) {
            return;
        }
        t_current->waitingIn = what;
    }
    tasks.changed.notify_all();
}

uint32_t PLAT_TaskWaitUntilWaiting(const char *name, const char *what, uint32_t timeoutMs)
{
    if (name == nullptr || what == nullptr) {
        return 0;
    }
    Tasks &tasks = TheTasks();
    std::unique_lock lock(tasks.mu);
    const bool waiting = tasks.changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&]() {
        const auto it = tasks.byName.find(name);
        return it != tasks.byName.end() && it->second->running && it->second->waitingIn == what;
    });
    return waiting ? 1 : 0;
}

}  // extern "C"
