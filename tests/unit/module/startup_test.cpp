// Start-up: entry points, the order of the init task, the readiness waits
// and the fast-path binding with the real library.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <tuple>

#include "platform/control.h"
#include "pplus_test.hpp"
#include "pppoe_plus_fpc.h"
#include "pppoe_plus_ha.h"
#include "pppoe_plus_init.h"
#include "pppoe_plus_log.h"
#include "pppoe_plus_main.h"
#include "pppoe_plus_mem.h"
#include "wick.h"

using pplus_test::LogHas;
using pplus_test::LogInOrder;
using pplus_test::WaitFor;

namespace {

bool TaskWaitsIn(const char *task, const char *what)
{
    return PLAT_TaskWaitUntilWaiting(task, what, 5000) != 0;
}

PLAT_TASK_INFO_S Task(const char *name)
{
    PLAT_TASK_INFO_S info = {};
    (void)PLAT_TaskGetInfo(name, &info);
    return info;
}

class StartupTest : public testing::Test {
protected:
    void SetUp() override
    {
        pplus_test::UseReadyWorld();
        g_pplusHaRole = PPPOE_PLUS_HA_ROLE_MASTER;
    }
};

}  // namespace

TEST_F(StartupTest, MasterSeesTheMilestonesInOrderAndBothTasksServe)
{
    EXPECT_EQ(PPPOE_PLUS_PreFrameInit(), 0U);
    ASSERT_EQ(PPPOE_PLUS_FrameInit(), 0U);
    ASSERT_TRUE(TaskWaitsIn("PPPoE_Plus_Init", "MESH_EpollWait"));
    ASSERT_TRUE(TaskWaitsIn("PPPoE_Plus_Main", "FPC_EventRead"));
    // The memory handle comes before the agent handle: its success is never sent.
    EXPECT_FALSE(LogHas(PLAT_LOG_DIAG, "[PPPOEPLUS_MEM]Init memory handle success."));
    EXPECT_NE(
        LogInOrder(PLAT_LOG_DIAG, {"[PPPOEPLUS_FRAME] frame init start.", "[PPPOEPLUS_FRAME]Create init task succeed!",
                                   "[PPPOEPLUS_FRAME] frame init end."}),
        0U);
    EXPECT_NE(
        LogInOrder(PLAT_LOG_DIAG, {"[PPPOEPLUS_FRAME] frame init start.", "[PPPOEPLUS_FRAME] InitData step1 end.",
                                   "[PPPOEPLUS_FRAME] InitData step2 end.", "[PPPOEPLUS_FRAME] InitData step3 end.",
                                   "[PPPOEPLUS_FRAME] InitData finish."}),
        0U);
    EXPECT_TRUE(LogHas(PLAT_LOG_SYSLOG, "<6> [PPPoE_PLUS] Udf Create"));
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPOEPLUS_MAIN]Create dpxtopppoeplus channel success. chId="));
    EXPECT_NE(g_pppoePlusRegQueHandle.load(), nullptr);
    EXPECT_EQ(g_dpxToppplusChannel.load(), FPC_ChannelGetIdByName("channel/dpx2ppplus"));
    EXPECT_EQ(PLAT_PatchRestoreCount(), 2U);  // the configuration client's library and the fast-path one
    EXPECT_EQ(PLAT_AssertCount(), 0U);

    // The main queue serves messages posted from a foreign thread.
    const uint32_t base = PLAT_MemOutstanding();
    std::thread poster([]() {
        for (int i = 0; i < 5; i++) {
            MainQueueMsg msg = {9, reinterpret_cast<uint64_t>(PPPOE_PLUS_MemAlloc(16)), 16, 0};
            EXPECT_EQ(PPPOE_PLUS_QueueWrite(g_pppoePlusRegQueHandle.load(), &msg, sizeof(msg)), 0U);
        }
    });
    poster.join();
    EXPECT_TRUE(WaitFor([base]() { return PLAT_MemOutstanding() == base; }));

    EXPECT_EQ(PPPOE_PLUS_MainExit(), 0U);
}

TEST_F(StartupTest, FrameInitFailuresStopBeforeTheInitTaskAndTheMemoryHandleOneBeforeAnyLog)
{
    PLAT_FailSet("RUK_HandleInitialize", 0, 1, 3);
    EXPECT_EQ(PPPOE_PLUS_FrameInit(), 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_SYSLOG, "[PPPoE_PLUS] Udf Create"));
    EXPECT_EQ(PLAT_LogCount(PLAT_LOG_DIAG, ""), 0U);
    EXPECT_EQ(PLAT_CallCount("MOLB_PAT_C2HRegisterHook"), 0U);
    EXPECT_FALSE(Task("PPPoE_Plus_Init").exists);

    // The later steps.
    PLAT_FailSet("IM_Agent_GetHandle", 0, 1, 1);
    EXPECT_EQ(PPPOE_PLUS_FrameInit(), 1U);
    EXPECT_EQ(PLAT_LogCount(PLAT_LOG_DIAG, ""), 0U);

    // A failed patch hook registration is ignored.
    PLAT_FailSet("MOLB_PAT_C2HRegisterHook", 0, 1, 1);
    PLAT_FailSet("MESH_EpollCreate", 0, 1, 1);
    EXPECT_EQ(PPPOE_PLUS_FrameInit(), 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPOEPLUS_FRAME] frame init start."));
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPOEPLUS_FRAME] Create epoll fd failed."));

    PLAT_FailSet("RUK_TaskCreate", 0, 1, 1);
    EXPECT_EQ(PPPOE_PLUS_FrameInit(), 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPOEPLUS_FRAME]Create init task failed!"));
    EXPECT_FALSE(LogHas(PLAT_LOG_DIAG, "frame init end."));
    EXPECT_FALSE(Task("PPPoE_Plus_Init").exists);
}

TEST_F(StartupTest, DeviceDatabaseWaitLogsEachTryAndAsksMainBoardFirst)
{
    platform::world::SetDevmReady(false);
    std::thread waiter([]() { PPPOE_PLUS_WaitForDevmDBReady(); });
    ASSERT_TRUE(WaitFor([]() { return PLAT_LogCount(PLAT_LOG_SYSLOG, "MainBoardId is not ready.ret=") >= 3; }));
    EXPECT_EQ(PLAT_CallCount("DEVM_DB_GetSelfBoardId"), 0U);  // never asked while the main id is missing
    platform::world::SetMainBoardReadable(true);
    ASSERT_TRUE(WaitFor([]() { return PLAT_LogCount(PLAT_LOG_SYSLOG, "SelfBoardId is not ready.ret=") >= 2; }));
    platform::world::SetSelfBoardReadable(true);
    waiter.join();
    EXPECT_TRUE(LogHas(PLAT_LOG_SYSLOG, "<6> DEVM_DB is ready. mainId= 1, selfId = 1.."));
    EXPECT_GE(PLAT_CallCount("RUK_TaskDelay"), 5U);
}

TEST_F(StartupTest, ReadinessRuleDependsOnWhetherThisIsTheMainBoardAndReadyWaitsForIt)
{
    // Slot, module state, ready: main board 1 waits for 12; board 3 accepts 5 or 8.
    const uint32_t rows[][3] = {{1, 12, 1}, {1, 5, 0}, {3, 5, 1}, {3, 8, 1}, {3, 12, 0}};
    for (const auto &[slot, modState, ready] : rows) {
        FrmInstInfo info = {};
        info.modState = modState;
        EXPECT_EQ(PPPOE_PLUS_GetFrmReadyState(slot, &info), ready) << "slot " << slot << " modState " << modState;
    }

    // Waiting for it: the main board's instance reaches 12 only later.
    platform::world::FrmInstClear();
    platform::world::FrmInstPut({0, 5, 0, 1});
    std::thread waiter([]() { EXPECT_EQ(PPPOE_PLUS_WaitReady(), 0U); });
    ASSERT_TRUE(WaitFor([]() { return PLAT_CallCount("RUK_T_Delay") >= 3; }));
    platform::world::FrmInstPut({0, 12, 0, 1});
    waiter.join();

    // A main board id that cannot be read is never ready.
    FrmInstInfo info = {0, 12, 0, 1};
    platform::world::SetMainBoardReadable(false);
    EXPECT_EQ(PPPOE_PLUS_GetFrmReadyState(1, &info), 0U);
}

TEST_F(StartupTest, FrameworkInstanceLookup)
{
    platform::world::FrmInstClear();
    FrmInstInfo info = {};
    EXPECT_EQ(PPPOE_PLUS_GetSelfFrmInstInfo(1, &info), 0U);  // empty table: success, zero record
    EXPECT_EQ(info.modState, 0U);

    platform::world::FrmInstPut({1, 5, 2, 4});
    platform::world::FrmInstPut({2, 12, 3, 1});
    platform::world::FrmInstPut({3, 8, 4, 7});
    info = {};
    EXPECT_EQ(PPPOE_PLUS_GetSelfFrmInstInfo(1, &info), 0U);
    EXPECT_EQ(std::make_tuple(info.role, info.modState, info.state, info.localSlot), std::make_tuple(2U, 12U, 3U, 1));

    info = {};
    EXPECT_EQ(PPPOE_PLUS_GetSelfFrmInstInfo(9, &info), 0U);  // a miss is no error
    EXPECT_EQ(info.modState, 0U);

    PLAT_FailSet("db_create_frm_inst_obj", 0, 1, 0x3001);
    EXPECT_EQ(PPPOE_PLUS_GetSelfFrmInstInfo(1, &info), 0x3001U);
    PLAT_FailSet("db_get_frm_inst_mod_state", 0, 1, 0x3005);
    info = {};
    PLAT_CallCountReset();
    EXPECT_EQ(PPPOE_PLUS_GetSelfFrmInstInfo(7, &info), 0x3005U);
    EXPECT_EQ(info.role, 3U);
    EXPECT_EQ(PLAT_CallCount("db_get_frm_inst_state"), 0U);  // stops at the first failure
    EXPECT_EQ(PLAT_CallCount("db_release_frm_inst_object"), 1U);
}

TEST_F(StartupTest, MissingChannelLibraryStopsDataInitButNotTheInitTask)
{
    ASSERT_EQ(chdir(WICK_VARIANTS_DIR "/missing/bin"), 0);
    ASSERT_EQ(PPPOE_PLUS_FrameInit(), 0U);
    ASSERT_TRUE(TaskWaitsIn("PPPoE_Plus_Init", "MESH_EpollWait"));
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPOE FPC] Open wick so failed: "));
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPoE-Plus]Init Fpc Intf fail."));
    EXPECT_FALSE(LogHas(PLAT_LOG_DIAG, "InitData step1 end."));
    EXPECT_FALSE(Task("PPPoE_Plus_Main").exists);
    EXPECT_EQ(g_pppoePlusRegQueHandle.load(), nullptr);
}

// A start-up step that fails ends the task it runs in with its status and
// says why; the other task serves on or is never started.
struct TaskEnd {
    const char *op;
    uint32_t times;
    uint32_t code;
    const char *ended;  // the task that ends, with exitStatus
    uint32_t exitStatus;
    const char *serving;  // the other task, waiting in this call; null when it never starts
    uint32_t kind;        // where the lines below go
    const char *line;
    const char *line2 = nullptr;
    const char *line3 = nullptr;
};

const TaskEnd kTaskEnds[] = {
    // The configuration client's library is being restored by a patch:
    // nothing after the client binding runs.
    {"MOLB_PAT_RestoreForDLL", 1, 1, "PPPoE_Plus_Init", 1, nullptr, PLAT_LOG_DIAG,
     "[PPPOEPLUS_FRAME]Ydbc Init failed."},
    {"MOLB_HA_CompRegister", 1, 2, "PPPoE_Plus_Init", 1, "FPC_EventRead", PLAT_LOG_DIAG,
     "[PPPOEPLUS_FRAME] InitData finish.", "[PPPOEPLUS_FRAME]Ha init failed."},
    {"ZAVK_RegDeadloopMon", PLAT_FAIL_FOREVER, 7, "PPPoE_Plus_Init", 7, "FPC_EventRead", PLAT_LOG_DIAG,
     "[PPPoEPlus_THREAD]Register deadloop monitor failed, return is 7.", "[PPPOEPLUS_FRAME] InitData finish.",
     "[PPPOEPLUS_MAIN] Reg ZAVK deadloop failed!"},
    {"FPC_ChannelCreate", 1, 1, "PPPoE_Plus_Main", 1, "MESH_EpollWait", PLAT_LOG_DIAG,
     "[PPPOEPLUS_MAIN]Create dpxtopppoeplus channel failed.", "[PPPOEPLUS_FRAME] InitData finish."},
    {"FPC_ThreadInfoRegByName", 1, 1, "PPPoE_Plus_Main", 1, "MESH_EpollWait", PLAT_LOG_SYSLOG,
     "<3> [PPPOE_FPC] Reg PPPOE_PLUS Thread name to Fpc failed."},
};

class TaskEndTest : public StartupTest, public testing::WithParamInterface<TaskEnd> {};

TEST_P(TaskEndTest, FailingStepEndsItsTaskAndSaysWhy)
{
    const TaskEnd &row = GetParam();
    PLAT_FailSet(row.op, 0, row.times, row.code);
    ASSERT_EQ(PPPOE_PLUS_FrameInit(), 0U);
    ASSERT_TRUE(WaitFor([&row]() { return Task(row.ended).exists && !Task(row.ended).running; }));
    EXPECT_EQ(Task(row.ended).exitStatus, row.exitStatus);
    const char *other = std::string(row.ended) == "PPPoE_Plus_Init" ? "PPPoE_Plus_Main" : "PPPoE_Plus_Init";
    if (row.serving != nullptr) {
        EXPECT_TRUE(TaskWaitsIn(other, row.serving));
    } else {
        EXPECT_FALSE(Task(other).exists);
    }
    for (const char *line : {row.line, row.line2, row.line3}) {
        EXPECT_TRUE(line == nullptr || LogHas(row.kind, line)) << line;
    }
}

INSTANTIATE_TEST_SUITE_P(Steps, TaskEndTest, testing::ValuesIn(kTaskEnds),
                         [](const testing::TestParamInfo<TaskEnd> &step) { return std::string(step.param.op); });

TEST_F(StartupTest, RunCreatesOnlyTheInitTask)
{
    ASSERT_EQ(PPPOE_PLUS_InitMemHandle(), 0U);
    ASSERT_EQ(PPPOE_PLUS_InitIMAgent(), 0U);
    EXPECT_EQ(PPPOE_PLUS_Run(), 0U);
    EXPECT_TRUE(WaitFor([]() { return Task("PPPoE_Plus_Init").exists; }));
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPOEPLUS_FRAME]Create init task succeed!"));
    EXPECT_FALSE(LogHas(PLAT_LOG_DIAG, "frame init start."));
    // The task binds libraries as it starts: let it finish before the process
    // exits, since a library bound during exit runs its constructors again.
    EXPECT_TRUE(WaitFor([]() { return LogHas(PLAT_LOG_DIAG, "[PPPOEPLUS_FRAME] InitData finish."); }));
}

TEST_F(StartupTest, PatchRestoreFailureUnbindsTheLibrarySilently)
{
    ASSERT_EQ(PPPOE_PLUS_InitMemHandle(), 0U);
    ASSERT_EQ(PPPOE_PLUS_InitIMAgent(), 0U);
    PLAT_FailSet("MOLB_PAT_RestoreForDLL", 0, 1, 1);
    const uint64_t before = PLAT_LogLastSeq();
    EXPECT_EQ(PPPOE_PLUS_InitFpcIntf(), 1U);
    EXPECT_EQ(PLAT_LogFind(PLAT_LOG_ANY, "", before + 1), 0U);
    EXPECT_EQ(g_pppoePlusFpcApi.channelCreate, nullptr);
}
