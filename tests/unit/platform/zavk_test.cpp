// Assertion records and the dead-loop watchdog.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "platform/control.h"
#include "pplus_test.hpp"
#include "ruk.h"
#include "zavk.h"

using pplus_test::WaitFor;

namespace {

pid_t Tid()
{
    return static_cast<pid_t>(syscall(SYS_gettid));
}

std::atomic<int> g_phase{0};

// Stays inside one unit of work until phase 1, then does quick units and
// waits between them until phase 2.
uint32_t StuckTask(uintptr_t, uintptr_t, uintptr_t, uintptr_t)
{
    if (ZAVK_RegDeadloopMon(Tid(), 1, 2, 3, 4) != 0) {
        return 1;
    }
    ZAVK_DmOpers(ZAVK_DM_BEGIN);
    while (g_phase.load() < 1) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ZAVK_DmOpers(ZAVK_DM_END);
    while (g_phase.load() < 2) {
        ZAVK_DmOpers(ZAVK_DM_BEGIN);
        ZAVK_DmOpers(ZAVK_DM_END);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return 0;
}

}  // namespace

TEST(ZavkAssert, RepeatsAreCountedAllAndReportedOnceThenSummarisedPerInterval)
{
    PLAT_SetTimeScale(50);  // the 10 s report interval takes 500 ms
    for (int i = 0; i < 1000; i++) {
        ZAVK_Assert("rep.c", 7);
    }
    ZAVK_Assert("once.c", 20);
    EXPECT_EQ(PLAT_AssertCountAt("rep.c", 7), 1000U);
    EXPECT_EQ(PLAT_AssertCount(), 1001U);
    EXPECT_EQ(PLAT_LogCount(PLAT_LOG_PLATFORM, "ZAVK assert at rep.c:7"), 1U);

    // The interval's repeats become one summary line.
    ASSERT_TRUE(WaitFor([]() {
        return PLAT_LogCount(PLAT_LOG_PLATFORM, "ZAVK assert at rep.c:7 repeated 999 more time(s) over ") == 1;
    }));
    EXPECT_EQ(PLAT_LogCount(PLAT_LOG_PLATFORM, "(1000 in total)"), 1U);
    // Repeats within the next interval wait for its summary; an exit writes it at once.
    for (int i = 0; i < 5; i++) {
        ZAVK_Assert("rep.c", 7);
    }
    EXPECT_EQ(PLAT_LogCount(PLAT_LOG_PLATFORM, "ZAVK assert at rep.c:7"), 2U);
    PLAT_AssertFlushReports();
    EXPECT_EQ(PLAT_LogCount(PLAT_LOG_PLATFORM, "ZAVK assert at rep.c:7 repeated 5 more time(s) over "), 1U);
    EXPECT_EQ(PLAT_LogCount(PLAT_LOG_PLATFORM, "(1005 in total)"), 1U);
    // A site that asserted once has nothing to summarise.
    EXPECT_EQ(PLAT_LogCount(PLAT_LOG_PLATFORM, "ZAVK assert at once.c:20"), 1U);
    PLAT_SetTimeScale(1000);

    // Counts per file and line are what the module's session suite reads
    // (tirn_test.cpp); an assert without a file never aborts; a reset
    // clears every count.
    ZAVK_Assert(nullptr, 1);
    EXPECT_EQ(PLAT_AssertCount(), 1007U);
    PLAT_AssertReset();
    EXPECT_EQ(PLAT_AssertCount(), 0U);
    EXPECT_EQ(PLAT_AssertCountAt("rep.c", 7), 0U);
}

TEST(ZavkWatchdog, ReportsEachThresholdOnceForAStuckUnitOfWorkOnly)
{
    PLAT_SetTimeScale(1);  // thresholds of 1..4 s become 1..4 ms
    // Unregistered threads bracketing work are ignored.
    ZAVK_DmOpers(ZAVK_DM_BEGIN);
    EXPECT_EQ(ZAVK_RegDeadloopMon(0, 1, 2, 3, 4), 1U);

    uint32_t id = 0;
    ASSERT_EQ(RUK_TaskCreate("StuckTask", &id, StuckTask, 0, 0, 0, 0, 0, 0, 0), RUK_OK);
    ASSERT_TRUE(WaitFor([]() { return PLAT_DeadloopReports() >= 4; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(PLAT_DeadloopReports(), 4U);
    PLAT_TASK_INFO_S info;
    ASSERT_EQ(PLAT_TaskGetInfo("StuckTask", &info), 0U);
    const std::string who = "task StuckTask (tid " + std::to_string(info.tid) + ") inside one unit of work for ";
    EXPECT_NE(pplus_test::LogInOrder(PLAT_LOG_PLATFORM, {"over the warn threshold", "over the error threshold",
                                                         "over the critical threshold", "over the reset threshold"}),
              0U);
    EXPECT_EQ(PLAT_LogCount(PLAT_LOG_PLATFORM, ("ZAVK deadloop: " + who).c_str()), 4U);

    // Quick units of work with long waits between them are never reported.
    PLAT_SetTimeScale(50);  // 1 s = 50 ms: each quick unit stays well under it
    g_phase = 1;
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_EQ(PLAT_DeadloopReports(), 4U);
    g_phase = 2;
    ASSERT_TRUE(WaitFor([]() {
        PLAT_TASK_INFO_S i;
        return PLAT_TaskGetInfo("StuckTask", &i) == 0 && i.running == 0;
    }));
}
