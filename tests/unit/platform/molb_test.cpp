// The patch service: hooks, requests in flight and replies.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "molb.h"
#include "platform/control.h"

namespace {

struct Seen {
    uint32_t action;
    uint64_t requestId;
    std::string libName;
    std::string reqLibName;
};
std::vector<Seen> g_seen;

// Answers requests for libmine.so with a reply carrying 7.
uint32_t ReplyingHook(uint32_t action, void *request, const char *libName, uint32_t *outFlag)
{
    const auto *req = static_cast<const MOLB_PAT_C2H_REQ_S *>(request);
    g_seen.push_back({action, req->requestId, libName, req->libName});
    if (std::strcmp(libName, "libmine.so") != 0) {
        *outFlag = 1;
        return 0;
    }
    *outFlag = 0;
    return MOLB_PAT_C2HReplyProcessResult(request, 7) == MOLB_OK ? 0 : 1;
}

uint32_t DecliningHook(uint32_t, void *, const char *, uint32_t *outFlag)
{
    *outFlag = 1;
    return 1;
}

}  // namespace

TEST(MolbPatch, SendReachesEveryHookAndCollectsTheReply)
{
    EXPECT_EQ(MOLB_PAT_C2HRegisterHook(nullptr, 0), MOLB_ERR_PARAM);
    ASSERT_EQ(MOLB_PAT_C2HRegisterHook(ReplyingHook, 0), MOLB_OK);
    ASSERT_EQ(MOLB_PAT_C2HRegisterHook(ReplyingHook, 0), MOLB_OK);  // once is enough

    PLAT_PATCH_RESULT_S r = {};
    ASSERT_EQ(PLAT_PatchSend("libmine.so", MOLB_PAT_DEACTIVATE, &r), MOLB_OK);
    EXPECT_EQ(std::tie(r.hooksCalled, r.hookReturn, r.outFlag, r.replied, r.replyResult),
              std::make_tuple(1U, 0U, 0U, 1U, 7U));
    ASSERT_EQ(g_seen.size(), 1U);
    EXPECT_EQ(std::tie(g_seen[0].action, g_seen[0].libName, g_seen[0].reqLibName),
              std::make_tuple(MOLB_PAT_DEACTIVATE, "libmine.so", "libmine.so"));

    // A reply to a request not in flight is refused: the module's patch
    // suite (FailuresInsideTheHook).

    ASSERT_EQ(MOLB_PAT_C2HRegisterHook(DecliningHook, 0), MOLB_OK);
    r = {};
    ASSERT_EQ(PLAT_PatchSend("libother.so", MOLB_PAT_ACTIVATE, &r), MOLB_OK);
    // The last hook's return and flag.
    EXPECT_EQ(std::tie(r.hooksCalled, r.hookReturn, r.outFlag, r.replied), std::make_tuple(2U, 1U, 1U, 0U));
    ASSERT_EQ(g_seen.size(), 2U);
    EXPECT_NE(g_seen[0].requestId, g_seen[1].requestId);

    // A long name is cut to fit and stays terminated.
    const std::string longName(300, 'l');
    ASSERT_EQ(PLAT_PatchSend(longName.c_str(), MOLB_PAT_ACTIVATE, &r), MOLB_OK);
    EXPECT_EQ(g_seen.back().reqLibName, std::string(114, 'l'));
    EXPECT_EQ(PLAT_PatchSend(nullptr, MOLB_PAT_ACTIVATE, &r), MOLB_ERR_PARAM);
}
