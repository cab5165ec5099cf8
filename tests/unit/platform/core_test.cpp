// Failure injection, time scale, the log sink and its syslog interposer,
// the bounded string helpers and the task registry.
#include <gtest/gtest.h>
#include <pthread.h>
#include <syslog.h>

#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "db.h"
#include "devm.h"
#include "mesh.h"
#include "plat_safe.h"
#include "platform/control.h"
#include "pplus_test.hpp"
#include "ruk.h"

namespace {

constexpr uint32_t kCode = 0x77;

void Syslogv(int priority, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void Syslogv(int priority, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vsyslog(priority, fmt, ap);
    va_end(ap);
}

std::vector<std::string> FileLines(const std::string &path)
{
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

}  // namespace

// Every operation opens with the same platform::FailPoint prologue, so one
// operation per failure form stands for the others: a status returns the
// code, a length 0, an epoll call -1; a null argument shows
// that the prologue comes before the argument checks. (The module suites
// inject the rest and check what the module makes of each failure.)
TEST(FailureInjection, OperationsFailInTheirOwnFormAndAreCounted)
{
    uint32_t u = 0;
    char bytes[4];
    MESH_EPOLL_EVENT_S events[1];
    const struct {
        const char *op;
        std::function<bool()> failed;  // one call: true when it failed in its form for kCode
    } forms[] = {
        {"RUK_QueueAsyRead", [&] { return RUK_QueueAsyRead(1, bytes, 4) == 0; }},
        {"RUK_QueueDelete", [] { return RUK_QueueDelete(1) == kCode; }},
        {"MESH_EpollWait", [&] { return MESH_EpollWait(0, events, 1, 0) == -1; }},
        {"db_get_table_record_count", [&] { return db_get_table_record_count(nullptr, &u) == kCode; }},
    };
    for (const auto &form : forms) {
        const uint32_t calls = PLAT_CallCount(form.op);
        PLAT_FailSet(form.op, 0, 1, kCode);
        EXPECT_TRUE(form.failed()) << form.op;
        EXPECT_EQ(PLAT_FailHits(form.op), 1U) << form.op;
        EXPECT_EQ(PLAT_CallCount(form.op), calls + 1) << form.op;
        // Armed once: the next call is no longer the injected failure.
        (void)form.failed();
        EXPECT_EQ(PLAT_FailHits(form.op), 1U) << form.op;
        EXPECT_EQ(PLAT_CallCount(form.op), calls + 2) << form.op;
    }
}

TEST(FailureInjection, ReArmingWithTimesZeroAndClearAllDisarm)
{
    // Skip, times, forever, clearing one operation and resetting the counts
    // are what the other suites' injections stand on; these two are not.
    const auto create = []() {
        uint32_t id = 0;
        return RUK_QueueCreate("q", 1, &id, 0, 4);
    };
    PLAT_FailSet("RUK_QueueCreate", 0, PLAT_FAIL_FOREVER, 1);
    PLAT_FailSet("RUK_QueueCreate", 0, 0, 1);
    EXPECT_EQ(create(), RUK_OK);

    PLAT_FailSet("RUK_QueueCreate", 0, PLAT_FAIL_FOREVER, 1);
    PLAT_FailSet("RUK_QueueDelete", 0, PLAT_FAIL_FOREVER, 2);
    PLAT_FailClearAll();
    EXPECT_EQ(create(), RUK_OK);
    EXPECT_EQ(RUK_QueueDelete(1), RUK_OK);
}

TEST(FailureInjection, ExactlyTheArmedCountFailsUnderConcurrentCallers)
{
    PLAT_FailSet("op", 50, 100, 9);
    std::vector<std::thread> threads;
    std::atomic<uint32_t> failed{0};
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&failed]() {
            for (int i = 0; i < 1000; i++) {
                uint32_t code = 0;
                if (PLAT_FailCheck("op", &code) != 0) {
                    EXPECT_EQ(code, 9U);
                    failed++;
                }
                (void)PLAT_FailCheck("other", &code);
            }
        });
    }
    for (std::thread &t : threads) {
        t.join();
    }
    EXPECT_EQ(failed.load(), 100U);
    EXPECT_EQ(PLAT_FailHits("op"), 100U);
    EXPECT_EQ(PLAT_CallCount("op"), 4000U);
    EXPECT_EQ(PLAT_CallCount("other"), 4000U);
}

// Delays and sleep(3) following the scale are what the module suites stand
// on: StartupTest.ReadyWaits... waits out three ten-second delays at the
// scale of 1, the db watch suite six sleep(3)s.
TEST(TimeScale, ZeroCountsAsOne)
{
    EXPECT_EQ(PLAT_GetTimeScale(), 1000U);
    PLAT_SetTimeScale(0);
    EXPECT_EQ(PLAT_GetTimeScale(), 1U);
}

// Every line printed with its kind is what the host's output is made of
// (the e2e suites read it); a printer that cannot keep up is the stalled
// sink test's.
TEST(LogSink, RingKeepsTheNewestLinesInOrder)
{
    const uint32_t total = PLAT_LOG_RING + 10;
    for (uint32_t i = 1; i <= total; i++) {
        PLAT_LogWrite(i % 2 == 0 ? PLAT_LOG_DIAG : PLAT_LOG_DEBUG, "line %u.", i);
    }
    PLAT_LogWrite(PLAT_LOG_DIAG, "one more");

    EXPECT_EQ(PLAT_LogLastSeq(), total + 1);
    EXPECT_EQ(PLAT_LogCount(PLAT_LOG_ANY, ""), PLAT_LOG_RING);
    EXPECT_EQ(PLAT_LogFind(PLAT_LOG_ANY, "line 11.", 0), 0U);  // pushed out
    EXPECT_EQ(PLAT_LogFind(PLAT_LOG_ANY, "line 12.", 0), 12U);
    EXPECT_EQ(PLAT_LogFind(PLAT_LOG_DEBUG, "line 12.", 0), 0U);
    EXPECT_EQ(PLAT_LogFind(PLAT_LOG_DIAG, "line 1", 100), 100U);
    EXPECT_EQ(PLAT_LogCount(PLAT_LOG_DEBUG, "line"), 4095U);  // the odd ones of 12..8202

    std::vector<uint64_t> seqs;
    const uint32_t visited = PLAT_LogVisit([](uint32_t, uint64_t seq, const char *,
                                              void *arg) { static_cast<std::vector<uint64_t> *>(arg)->push_back(seq); },
                                           &seqs);
    ASSERT_EQ(visited, PLAT_LOG_RING);
    EXPECT_EQ(seqs.front(), 12U);
    EXPECT_EQ(seqs.back(), total + 1);
    EXPECT_TRUE(std::is_sorted(seqs.begin(), seqs.end()));

    // Clearing keeps the numbering going.
    PLAT_LogClear();
    EXPECT_EQ(PLAT_LogCount(PLAT_LOG_ANY, ""), 0U);
    EXPECT_EQ(PLAT_LogFind(PLAT_LOG_ANY, "", 0), 0U);
    PLAT_LogWrite(PLAT_LOG_PLATFORM, "after");
    EXPECT_EQ(PLAT_LogFind(PLAT_LOG_ANY, "after", 0), total + 2);
    EXPECT_EQ(PLAT_LogVisit(nullptr, nullptr), 1U);
}

TEST(LogSink, SyslogCallsLandInTheSink)
{
    ::syslog(LOG_INFO, "x %d", 1);
    ::syslog(LOG_ERR | LOG_DAEMON, "[T] %s", "broken");
    Syslogv(LOG_DEBUG, "v%c", '!');
    EXPECT_NE(pplus_test::LogInOrder(PLAT_LOG_SYSLOG, {"<6> x 1", "<3> [T] broken", "<7> v!"}), 0U);
    EXPECT_EQ(PLAT_LogCount(PLAT_LOG_ANY, ""), 3U);
}

TEST(LogSink, FileGetsEveryLineInOrderFromItsOwnThread)
{
    const std::string path = ::testing::TempDir() + "plat_log_file_test.log";
    EXPECT_EQ(PLAT_LogSetFile("/nonexistent-dir/x.log", 0), 1U);
    ASSERT_EQ(PLAT_LogSetFile(path.c_str(), 0), 0U);
    PLAT_LogWrite(PLAT_LOG_DIAG, "first %d", 1);
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; t++) {
        threads.emplace_back([t]() {
            for (int i = 0; i < 1000; i++) {
                PLAT_LogWrite(PLAT_LOG_DEBUG, "t%d-%d", t, i);
                (void)PLAT_LogCount(PLAT_LOG_DEBUG, "t0-1");  // a reader among the writers
            }
        });
    }
    for (std::thread &t : threads) {
        t.join();
    }
    syslog(LOG_ERR, "last");
    ASSERT_EQ(PLAT_LogSetFile(nullptr, 0), 0U);  // writes what is pending, then closes
    PLAT_LogWrite(PLAT_LOG_DIAG, "after the close");

    // Concurrent writers got distinct sequence numbers.
    EXPECT_EQ(PLAT_LogLastSeq(), 3003U);
    EXPECT_EQ(PLAT_LogCount(PLAT_LOG_DEBUG, "t"), 3000U);
    const std::vector<std::string> lines = FileLines(path);
    ASSERT_EQ(lines.size(), 3002U);
    EXPECT_EQ(lines.front(), "diag first 1");
    EXPECT_EQ(lines.back(), "syslog <3> last");
    // Each writer's lines keep their order.
    std::vector<int> next(3, 0);
    for (size_t i = 1; i + 1 < lines.size(); i++) {
        int t = -1;
        int n = -1;
        ASSERT_EQ(std::sscanf(lines[i].c_str(), "debug t%d-%d", &t, &n), 2) << lines[i];
        ASSERT_TRUE(t >= 0 && t < 3);
        EXPECT_EQ(n, next[static_cast<size_t>(t)]++);
    }
    EXPECT_EQ(PLAT_LogFileDropped(), 0U);

    // Opening again starts the file afresh.
    ASSERT_EQ(PLAT_LogSetFile(path.c_str(), 0), 0U);
    PLAT_LogWrite(PLAT_LOG_PLATFORM, "again");
    ASSERT_EQ(PLAT_LogSetFile(nullptr, 0), 0U);
    EXPECT_EQ(FileLines(path), std::vector<std::string>{"platform again"});
}

TEST(LogSink, FullFileRotatesIntoDotOne)
{
    const std::string path = ::testing::TempDir() + "plat_log_rotate_test.log";
    std::remove((path + ".1").c_str());
    ASSERT_EQ(PLAT_LogSetFile(path.c_str(), 100), 0U);
    const std::string line(60, 'x');
    auto size = [](const std::string &file) {
        std::error_code ec;
        const auto n = std::filesystem::file_size(file, ec);
        return ec ? 0U : n;
    };
    PLAT_LogWrite(PLAT_LOG_DIAG, "0 %s", line.c_str());
    ASSERT_TRUE(pplus_test::WaitFor([&] { return size(path) == 68; }));
    PLAT_LogWrite(PLAT_LOG_DIAG, "1 %s", line.c_str());
    ASSERT_TRUE(pplus_test::WaitFor([&] { return size(path + ".1") == 136; }));
    PLAT_LogWrite(PLAT_LOG_DIAG, "2 %s", line.c_str());
    ASSERT_EQ(PLAT_LogSetFile(nullptr, 0), 0U);
    // 68 bytes a line: the second line fills the first file, which becomes
    // .1; the third starts the new one.
    EXPECT_EQ(FileLines(path + ".1"), (std::vector<std::string>{"diag 0 " + line, "diag 1 " + line}));
    EXPECT_EQ(FileLines(path), std::vector<std::string>{"diag 2 " + line});
}

TEST(FailureInjection, WithCountingOffArmedFailuresStillFire)
{
    PLAT_CallCountReset();
    PLAT_CallCountEnable(0);
    (void)DEVM_DB_GetSelfBoardId(nullptr);
    EXPECT_EQ(PLAT_CallCount("DEVM_DB_GetSelfBoardId"), 0U);
    uint32_t board = 0;
    PLAT_FailSet("DEVM_DB_GetSelfBoardId", 0, 1, kCode);
    EXPECT_EQ(DEVM_DB_GetSelfBoardId(&board), kCode);
    EXPECT_EQ(PLAT_FailHits("DEVM_DB_GetSelfBoardId"), 1U);
    PLAT_CallCountEnable(1);
    (void)DEVM_DB_GetSelfBoardId(&board);
    EXPECT_EQ(PLAT_CallCount("DEVM_DB_GetSelfBoardId"), 2U);  // the failed call and this one
    PLAT_FailClearAll();
}

// Truncating to a terminated prefix and its length is the module's display
// suite's (FormatDisplayTest.BothCommonShowTwoTextValues, a small buffer);
// what has no room at all is refused.
TEST(SafeStrings, NoRoomIsRefused)
{
    char buf[8];
    EXPECT_EQ(snprintf_truncated_s(nullptr, 8, "x"), -1);
    EXPECT_EQ(snprintf_truncated_s(buf, 0, "x"), -1);
}

TEST(TaskRegistry, ForeignThreadsAreRecordedUnderTheirThreadName)
{
    // A task that does not exist is the module start-up suites' (a line
    // board runs no client task); waiting for one times out.
    EXPECT_EQ(PLAT_TaskWaitUntilWaiting("Waiter", "Gate", 20), 0U);

    std::atomic<bool> release{false};
    std::thread waiter([&release]() {
        pthread_setname_np(pthread_self(), "Waiter");
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        PLAT_TaskMarkWaiting("Gate");
        while (!release) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    EXPECT_EQ(PLAT_TaskWaitUntilWaiting("Waiter", "Other", 50), 0U);
    EXPECT_EQ(PLAT_TaskWaitUntilWaiting("Waiter", "Gate", 5000), 1U);
    PLAT_TASK_INFO_S info;
    ASSERT_EQ(PLAT_TaskGetInfo("Waiter", &info), 0U);
    EXPECT_EQ(std::make_tuple(info.exists, info.running, std::string(info.waitingIn)),
              std::make_tuple(1U, 1U, std::string("Gate")));
    EXPECT_GT(info.tid, 0);
    release = true;
    waiter.join();
}

TEST(LogSink, AStalledSinkNeverHoldsUpWritersAndReportsWhatItLost)
{
    // The sink's thread is stuck in a slow printer: writers keep going,
    // lines beyond the queue's room are dropped and counted, and a line of
    // the sink says how many once it catches up; the rest stay in order.
    struct Gate {
        std::mutex mu;
        std::condition_variable cv;
        bool entered = false;
        bool open = false;
        std::vector<std::string> notes;  // the sink's own lines
    } gate;
    PLAT_LogSetPrinter(
        [](uint32_t kind, const char *line, void *arg) {
            auto *g = static_cast<Gate *>(arg);
            std::unique_lock lock(g->mu);
            if (kind == PLAT_LOG_PLATFORM) {
                g->notes.emplace_back(line);
            }
            g->entered = true;
            g->cv.notify_all();
            g->cv.wait(lock, [g]() { return g->open; });
        },
        &gate);
    PLAT_LogWrite(PLAT_LOG_DIAG, "first");
    {
        std::unique_lock lock(gate.mu);
        ASSERT_TRUE(gate.cv.wait_for(lock, std::chrono::seconds(10), [&gate]() { return gate.entered; }));
    }
    const uint64_t droppedBefore = PLAT_LogRecordsDropped();
    constexpr uint32_t kLines = 80000;  // more than the queue holds
    for (uint32_t i = 0; i < kLines; i++) {
        PLAT_LogWrite(PLAT_LOG_DEBUG, "flood %u", i);
    }
    const uint64_t dropped = PLAT_LogRecordsDropped() - droppedBefore;
    EXPECT_GT(dropped, 0U);
    {
        std::lock_guard lock(gate.mu);
        gate.open = true;
    }
    gate.cv.notify_all();
    PLAT_LogSetPrinter(nullptr, nullptr);
    EXPECT_EQ(gate.notes, std::vector<std::string>{"platform log: " + std::to_string(dropped) +
                                                   " record(s) dropped, the sink could not keep up"});
    // What was kept is the oldest lines, in order, with no gap inside them.
    EXPECT_EQ(PLAT_LogLastSeq(), 1U + (kLines - dropped) + 1U);
    EXPECT_NE(pplus_test::LogInOrder(PLAT_LOG_DEBUG, {("flood " + std::to_string(kLines - dropped - 2)).c_str(),
                                                      ("flood " + std::to_string(kLines - dropped - 1)).c_str()}),
              0U);
    EXPECT_EQ(PLAT_LogFind(PLAT_LOG_DEBUG, ("flood " + std::to_string(kLines - dropped)).c_str(), 0), 0U);
}
