// The hot-patch hook answers the patch service for this module's library only.
#include <gtest/gtest.h>

#include "molb.h"
#include "platform/control.h"
#include "module_fixture.hpp"
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

    PLAT_PATCH_RESULT_S Send(const char *lib, uint32_t action)
    {
        PLAT_PATCH_RESULT_S result = {};
        EXPECT_EQ(PLAT_PatchSend(lib, action, &result), 0U);
        return result;
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
    const PLAT_PATCH_RESULT_S other = Send("libother.so", MOLB_PAT_ACTIVATE);
    EXPECT_EQ(other.hooksCalled, 1U);
    EXPECT_EQ(other.hookReturn, 0U);
    EXPECT_EQ(other.outFlag, 1U);
    EXPECT_EQ(other.replied, 0U);
    EXPECT_EQ(PLAT_LogFind(PLAT_LOG_ANY, "", before + 1), 0U);

    // This module's library is answered for activate and deactivate only.
    for (uint32_t action : {MOLB_PAT_ACTIVATE, MOLB_PAT_DEACTIVATE}) {
        const PLAT_PATCH_RESULT_S r = Send("libpppoe_plus_frame.so", action);
        EXPECT_EQ(r.hookReturn, 0U);
        EXPECT_EQ(r.outFlag, 0U);
        EXPECT_EQ(r.replied, 1U);
        EXPECT_EQ(r.replyResult, 0U);
    }
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPoE-Plus]Enter c2h hook handle func."));

    const PLAT_PATCH_RESULT_S refused = Send("libpppoe_plus_frame.so", 2);
    EXPECT_EQ(refused.hookReturn, 1U);
    EXPECT_EQ(refused.outFlag, 1U);
    EXPECT_EQ(refused.replied, 0U);
}

TEST_F(PatchTest, FailuresInsideTheHook)
{
    PLAT_FailSet("MOLB_PAT_C2HReplyProcessResult", 0, 1, 0x4009);
    PLAT_PATCH_RESULT_S r = Send("libpppoe_plus_frame.so", MOLB_PAT_ACTIVATE);
    EXPECT_EQ(r.hookReturn, 1U);
    EXPECT_EQ(r.outFlag, 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPoE-Plus]PatchC2HFailed, reply process failed, ret=16393 ."));

    PLAT_FailSet("RUK_MemAlloc_F", 0, 1, 1);
    r = Send("libpppoe_plus_frame.so", MOLB_PAT_ACTIVATE);
    EXPECT_EQ(r.hookReturn, 1U);
    EXPECT_EQ(r.outFlag, 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPoE-Plus]PatchC2HFailed, malloc msg failed, size=16."));

    uint32_t flag = 7;
    EXPECT_EQ(PPPOE_PLUS_PatchC2hHookfunc(0, nullptr, "x", &flag), 1U);
    EXPECT_EQ(flag, 7U);

    PLAT_LogClear();
    MOLB_PAT_C2H_REQ_S req = {};
    EXPECT_EQ(PPPOE_PLUS_PatchC2hHookProc(2, &req), 1U);
    // Not a request in flight: the service refuses the reply and the code comes back.
    const uint32_t ret = PPPOE_PLUS_PatchC2hHookProc(MOLB_PAT_DEACTIVATE, &req);
    EXPECT_EQ(ret, MOLB_ERR_UNKNOWN_REQUEST);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "reply process failed"));
    EXPECT_EQ(PPPOE_PLUS_PatchC2hHookHandle(3), 1U);
}
