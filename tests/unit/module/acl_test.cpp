// ACL requests to fwm: sent over the orchestration session, completed on
// "PPPoE_Plus_OrchClient"; without a session each one fails and says so.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

#include "module_fixture.hpp"
#include "platform/control.h"
#include "device/fwm.hpp"
#include "platform/tirn.hpp"
#include "pppoe_plus_acl.h"
#include "pppoe_plus_cfg.h"
#include "pppoe_plus_log.h"
#include "pppoe_plus_tirn.h"

using pplus_test::LogHas;
using pplus_test::WaitFor;

namespace {

std::atomic<pid_t> g_completionTid{0};
std::atomic<uint32_t> g_completionStatus{0xFFFFFFFFU};

void RecordCompletion(uint32_t status, const void *)
{
    g_completionStatus.store(status);
    g_completionTid.store(static_cast<pid_t>(syscall(SYS_gettid)));
}

class AclTest : public pplus_test::ModuleTest {
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        ASSERT_EQ(PPPOE_PLUS_UpdateDebugSwitch(PPPOE_PLUS_DBG_ALL, 1), 0U);
    }
};

}  // namespace

TEST_F(AclTest, WithoutASessionEachRequestFailsLogsAndReturnsOne)
{
    EXPECT_EQ(PPPOE_PLUS_GlobalAclProc(1), 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "Set global enable cfg. enable:1"));
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "Set pppoe plus cfg to fwm failed. enable:1 ret:28674"));
    EXPECT_EQ(PPPOE_PLUS_IgnoreReplyAclProc(0), 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "Set ignore reply cfg. enable:0"));
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "Set ignore reply to fwm failed. enable:0 ret:28674"));
    EXPECT_EQ(PPPOE_PLUS_TrustPortAclProc(1, 9), 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "Set Trust port cfg. enable:1 ifIndex:9"));
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "Set trust port to fwm failed. enable:1 ifIndex = 9, ret:28674"));
    EXPECT_EQ(platform::tirn::IdlMessagesOutstanding(), 0U);

    // A message that cannot be made fails quietly.
    PLAT_LogClear();
    PLAT_FailSet("RPC_IdlMsgCreate", 0, 3, 1);
    EXPECT_EQ(PPPOE_PLUS_GlobalAclProc(1), 1U);
    EXPECT_EQ(PPPOE_PLUS_IgnoreReplyAclProc(1), 1U);
    EXPECT_EQ(PPPOE_PLUS_TrustPortAclProc(1, 9), 1U);
    EXPECT_EQ(PLAT_LogCount(PLAT_LOG_DEBUG, "Set "), 0U);
}

TEST_F(AclTest, RequestsReachFwmAndCompleteOnTheOrchClientTask)
{
    ASSERT_TRUE(device::fwm::Start());
    ASSERT_EQ(PPPOE_PLUS_InitTirn(), 0U);

    EXPECT_EQ(PPPOE_PLUS_GlobalAclProc(1), 0U);
    EXPECT_EQ(PPPOE_PLUS_IgnoreReplyAclProc(1), 0U);
    EXPECT_EQ(PPPOE_PLUS_TrustPortAclProc(1, 12), 0U);
    EXPECT_EQ(PPPOE_PLUS_TrustPortAclProc(1, 13), 0U);
    EXPECT_EQ(PPPOE_PLUS_TrustPortAclProc(0, 12), 0U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "Set pppoe plus cfg to fwm success. enable:1"));
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "Set ignore reply to fwm success. enable:1"));
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "Set trust port to fwm success. enable:0 ifIndex:12"));
    EXPECT_EQ(platform::tirn::IdlMessagesOutstanding(), 0U);

    const device::fwm::State state = device::fwm::GetState();
    EXPECT_TRUE(state.enabled);
    EXPECT_TRUE(state.ignoreReply);
    EXPECT_EQ(state.trustedPorts, std::set<uint32_t>{13});
    EXPECT_EQ(device::fwm::RequestCount(device::fwm::RequestKind::TrustPortCfg), 3U);

    ASSERT_TRUE(WaitFor([]() {
        return LogHas(PLAT_LOG_DEBUG, "Set pppoe+ trust port cfg tirn. status.rpc:0, enable:0, ifIndex = 12");
    }));
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "Set pppoe+ global cfg tirn. status.rpc:0 enable:1"));
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "Set ignore reply cfg tirn. status.rpc:0 enable:1"));

    // Completions run on the orchestration client's task; the short entry
    // points lead to the same stubs.
    PLAT_TASK_INFO_S orch = {};
    ASSERT_EQ(PLAT_TaskGetInfo("PPPoE_Plus_OrchClient", &orch), 0U);
    void *msg = RPC_IdlMsgCreate(sizeof(PPPOE_PLUS_TRUST_PORT_CFG_REQ_S), PPPOE_PLUS_IDL_MSG_ID, "test");
    static_cast<PPPOE_PLUS_TRUST_PORT_CFG_REQ_S *>(msg)->ifIndex = 4;
    ASSERT_EQ(TrustPortCfg(msg, RecordCompletion, nullptr, PPPOE_PLUS_GetInvokeAttr()), 0U);
    ASSERT_TRUE(WaitFor([]() { return g_completionTid.load() != 0; }));
    EXPECT_EQ(g_completionTid.load(), orch.tid);
    EXPECT_EQ(g_completionStatus.load(), 0U);
    EXPECT_EQ(GlobalCfg(msg, RecordCompletion, nullptr, PPPOE_PLUS_GetInvokeAttr()), 0U);
    EXPECT_EQ(IgnoreReplyCfg(msg, RecordCompletion, nullptr, PPPOE_PLUS_GetInvokeAttr()), 0U);
    EXPECT_EQ(RPC_IdlMsgDestroy(msg, PPPOE_PLUS_IDL_MSG_ID, "test"), 0U);
    EXPECT_FALSE(device::fwm::GetState().enabled);  // the message's first word was 0
    EXPECT_EQ(device::fwm::RequestCount(device::fwm::RequestKind::IgnoreReplyCfg), 2U);

    // Once fwm is gone the requests fail again; completions ignore a null request.
    device::fwm::Stop();
    EXPECT_EQ(PPPOE_PLUS_GlobalAclProc(0), 1U);
    PPPOE_PLUS_GlobalCfgCallBack(0, nullptr);
    PPPOE_PLUS_IgnoreReplyCfgCallBack(0, nullptr);
    PPPOE_PLUS_TrustPortCfgCallBack(0, nullptr);
    EXPECT_EQ(PLAT_AssertCount(), 0U);
}

TEST_F(AclTest, FwmStartsWithTheAgentsIgnoreReplyWithoutBeingTold)
{
    // The agent only sends ignore-reply when it changes, so fwm must begin
    // where the agent's store begins, on every start.
    for (int start = 0; start < 2; start++) {
        ASSERT_TRUE(device::fwm::Start());
        PPPOE_PLUS_InitGlobalCfgData();
        EXPECT_EQ(device::fwm::GetState().ignoreReply, PPPOE_PLUS_GetIgnoreReply() != 0) << start;
        EXPECT_EQ(device::fwm::RequestCount(device::fwm::RequestKind::IgnoreReplyCfg), 0U);
        // What a run sets does not outlive it.
        device::fwm::Apply({device::fwm::RequestKind::IgnoreReplyCfg, 0});
        device::fwm::Stop();
    }
}

TEST_F(AclTest, InterfaceChangeResendsOnlyForATrustedPort)
{
    ASSERT_TRUE(device::fwm::Start());
    ASSERT_EQ(PPPOE_PLUS_InitTirn(), 0U);
    PPPOE_PLUS_InitGlobalCfgData();
    const auto trustSent = []() { return device::fwm::RequestCount(device::fwm::RequestKind::TrustPortCfg); };

    EXPECT_EQ(PPPOE_PLUS_UpdateTrustPortAcl4PortChg(21, 1), 0U);  // empty list
    PortCB *cb = nullptr;
    ASSERT_EQ(PPPOE_PLUS_GetPortCBByIndex(20, &cb), 0U);
    ASSERT_EQ(PPPOE_PLUS_GetPortCBByIndex(21, &cb), 0U);
    ASSERT_EQ(PPPOE_PLUS_GetPortCBByIndex(22, &cb), 0U);
    cb->trust = 1;
    EXPECT_EQ(PPPOE_PLUS_UpdateTrustPortAcl4PortChg(21, 1), 0U);  // known, not trusted
    EXPECT_EQ(PPPOE_PLUS_UpdateTrustPortAcl4PortChg(23, 1), 0U);  // unknown
    EXPECT_EQ(trustSent(), 0U);

    EXPECT_EQ(PPPOE_PLUS_UpdateTrustPortAcl4PortChg(22, 1), 0U);
    EXPECT_EQ(device::fwm::GetState().trustedPorts, std::set<uint32_t>{22});
    EXPECT_EQ(PPPOE_PLUS_UpdateTrustPortAcl4PortChg(22, 0), 0U);
    ASSERT_EQ(trustSent(), 2U);
    EXPECT_EQ(device::fwm::LastRequests().back().enable, 0U);
    EXPECT_TRUE(device::fwm::GetState().trustedPorts.empty());

    // Only a trust flag of exactly 1 counts.
    cb->trust = 2;
    EXPECT_EQ(PPPOE_PLUS_UpdateTrustPortAcl4PortChg(22, 1), 0U);
    EXPECT_EQ(trustSent(), 2U);

    cb->trust = 1;
    device::fwm::Stop();
    EXPECT_EQ(PPPOE_PLUS_UpdateTrustPortAcl4PortChg(22, 1), 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG,
                       "[PPPOE_PLUS_EVT] Proc ignore reply to update acl failed. enable:1 ifIndex:22 ret:1"));
}
