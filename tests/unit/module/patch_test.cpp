// The hot-patch hook answers the patch service for this module's library only.
#include <gtest/gtest.h>

#include <tuple>

#include "module_fixture.hpp"
#include "molb.h"
#include "platform/control.h"
#include "pplus_test.hpp"
#include "pppoe_plus_ha.h"
#include "pppoe_plus_log.h"
#include "pppoe_plus_mem.h"
#include "pppoe_plus_patch.h"

using pplus_test::LogHas;

namespace {

class PatchTest : public pplus_test::ModuleTest {
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        ASSERT_EQ(PPPOE_PLUS_C2hPatchEmbedment(), 0U);
        base_ = PLAT_MemOutstanding();
    }
    void TearDown() override { EXPECT_EQ(PLAT_MemOutstanding(), base_); }

    // What the hook returned, its out flag, and whether and how the service got a reply.
    static std::tuple<uint32_t, uint32_t, uint32_t, uint32_t> Send(const char *lib, uint32_t action)
    {
        PLAT_PATCH_RESULT_S r = {};
        EXPECT_EQ(PLAT_PatchSend(lib, action, &r), 0U);
        EXPECT_EQ(r.hooksCalled, 1U);
        return {r.hookReturn, r.outFlag, r.replied, r.replyResult};
    }

    uint32_t base_ = 0;
};

}  // namespace

TEST_F(PatchTest, RegistrationRunsDeactivateThenActivate)
{
    EXPECT_NE(pplus_test::LogInOrder(PLAT_LOG_DIAG, {"[PPPoE-Plus]Enter patch c2h deactive func.",
                                                     "[PPPoE-Plus]Enter patch c2h active func."}),
              0U);
    PLAT_FailSet("MOLB_PAT_C2HRegisterHook", 0, 1, 1);
    EXPECT_EQ(PPPOE_PLUS_C2hPatchEmbedment(), 1U);
}

TEST_F(PatchTest, OwnLibraryIsAnsweredForActivateAndDeactivateAnotherIsDeclinedQuietly)
{
    const uint64_t before = PLAT_LogLastSeq();
    EXPECT_EQ(Send("libother.so", MOLB_PAT_ACTIVATE), std::make_tuple(0U, 1U, 0U, 0U));
    EXPECT_EQ(PLAT_LogFind(PLAT_LOG_ANY, "", before + 1), 0U);

    // This module's library is answered for activate and deactivate only.
    for (uint32_t action : {MOLB_PAT_ACTIVATE, MOLB_PAT_DEACTIVATE}) {
        EXPECT_EQ(Send("libpppoe_plus_frame.so", action), std::make_tuple(0U, 0U, 1U, 0U)) << action;
    }
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPoE-Plus]Enter c2h hook handle func."));

    EXPECT_EQ(Send("libpppoe_plus_frame.so", 2), std::make_tuple(1U, 1U, 0U, 0U));
}

TEST_F(PatchTest, FailuresInsideTheHook)
{
    PLAT_FailSet("MOLB_PAT_C2HReplyProcessResult", 0, 1, 0x4009);
    EXPECT_EQ(Send("libpppoe_plus_frame.so", MOLB_PAT_ACTIVATE), std::make_tuple(1U, 1U, 0U, 0U));
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPoE-Plus]PatchC2HFailed, reply process failed, ret=16393 ."));

    PLAT_FailSet("RUK_MemAlloc_F", 0, 1, 1);
    EXPECT_EQ(Send("libpppoe_plus_frame.so", MOLB_PAT_ACTIVATE), std::make_tuple(1U, 1U, 0U, 0U));
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPoE-Plus]PatchC2HFailed, malloc msg failed, size=16."));

    uint32_t flag = 7;
    EXPECT_EQ(PPPOE_PLUS_PatchC2hHookfunc(0, nullptr, "x", &flag), 1U);
    EXPECT_EQ(flag, 7U);

    PLAT_LogClear();
    MOLB_PAT_C2H_REQ_S req = {};
    EXPECT_EQ(PPPOE_PLUS_PatchC2hHookProc(2, &req), 1U);
    // Not a request in flight: the service refuses the reply and the code comes back.
    EXPECT_EQ(PPPOE_PLUS_PatchC2hHookProc(MOLB_PAT_DEACTIVATE, &req), MOLB_ERR_UNKNOWN_REQUEST);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "reply process failed"));
    EXPECT_EQ(PPPOE_PLUS_PatchC2hHookHandle(3), 1U);
}
