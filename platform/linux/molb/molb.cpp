// Platform services (MOLB): hot-patch hooks.
//
// On the real switch the patch service asks every module's registered hook
// about each patch activation or deactivation and the module answers with a
// reply quoting the request's first 16 bytes. Ours plays the patch tool on
// request: PLAT_PatchSend builds a request (fresh id, library name), calls
// every registered hook with it and reports what the hooks returned and
// whether a reply quoted the request while it was being sent. A reply that
// quotes no request in flight is refused with MOLB_ERR_UNKNOWN_REQUEST.
// MOLB_PAT_RestoreForDLL is counted. Every MOLB_ call passes failure
// injection.
#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <list>
#include <mutex>
#include <vector>

#include "core/internal.hpp"
#include "molb.h"
#include "platform/control.h"
#include "platform/fail_point.hpp"

namespace {

constexpr size_t kRequestHeadLen = 16;

struct InFlight {
    std::array<uint8_t, kRequestHeadLen> head{};
    bool replied = false;
    uint32_t result = 0;
};

struct Patches {
    std::mutex mu;
    std::vector<MOLB_PAT_C2H_HOOK_FN> hooks;
    std::list<InFlight> inFlight;  // list: entries stay put while others come and go
    uint64_t nextRequestId = 0x5041540000000001ULL;
    uint32_t nextSequence = 1;
    std::atomic<uint32_t> restores{0};
};

Patches &ThePatches()
{
    return platform::internal::Leaky<Patches>();
}

}  // namespace

extern "C" {

uint32_t MOLB_PAT_C2HRegisterHook(MOLB_PAT_C2H_HOOK_FN hook, uint32_t reserved)
{
    (void)reserved;
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (hook == nullptr) {
        return MOLB_ERR_PARAM;
    }
    Patches &patches = ThePatches();
    std::lock_guard lock(patches.mu);
    if (std::find(patches.hooks.begin(), patches.hooks.end(), hook) == patches.hooks.end()) {
        patches.hooks.push_back(hook);
    }
    return MOLB_OK;
}

uint32_t MOLB_PAT_C2HReplyProcessResult(const void *requestHead, uint32_t result)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (requestHead == nullptr) {
        return MOLB_ERR_PARAM;
    }
    Patches &patches = ThePatches();
    std::lock_guard lock(patches.mu);
    for (InFlight &request : patches.inFlight) {
        if (std::memcmp(request.head.data(), requestHead, kRequestHeadLen) == 0) {
            request.replied = true;
            request.result = result;
            return MOLB_OK;
        }
    }
    return MOLB_ERR_UNKNOWN_REQUEST;
}

uint32_t MOLB_PAT_RestoreForDLL(void *dlHandle)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (dlHandle == nullptr) {
        return MOLB_ERR_PARAM;
    }
    ThePatches().restores.fetch_add(1, std::memory_order_relaxed);
    return MOLB_OK;
}

uint32_t PLAT_PatchSend(const char *libName, uint32_t action, PLAT_PATCH_RESULT_S *result)
{
    if (libName == nullptr) {
        return MOLB_ERR_PARAM;
    }
    MOLB_PAT_C2H_REQ_S request;
    std::memset(&request, 0, sizeof(request));
    request.action = action;
    const size_t nameLen = std::min(std::strlen(libName), sizeof(request.libName) - 1);
    std::memcpy(request.libName, libName, nameLen);

    Patches &patches = ThePatches();
    std::vector<MOLB_PAT_C2H_HOOK_FN> hooks;
    std::list<InFlight>::iterator mine;
    {
        std::lock_guard lock(patches.mu);
        request.requestId = patches.nextRequestId++;
        request.sequence = patches.nextSequence++;
        hooks = patches.hooks;
        InFlight entry;
        std::memcpy(entry.head.data(), &request, kRequestHeadLen);
        mine = patches.inFlight.insert(patches.inFlight.end(), entry);
    }

    PLAT_PATCH_RESULT_S outcome = {};
    for (MOLB_PAT_C2H_HOOK_FN hook : hooks) {
        // Not a value a hook gives: shows a hook that never set its flag.
        uint32_t outFlag = 0xFFFFFFFFU;
        outcome.hookReturn = hook(action, &request, request.libName, &outFlag);
        outcome.outFlag = outFlag;
        outcome.hooksCalled++;
    }

    {
        std::lock_guard lock(patches.mu);
        outcome.replied = mine->replied ? 1 : 0;
        outcome.replyResult = mine->result;
        patches.inFlight.erase(mine);
    }
    if (result != nullptr) {
        *result = outcome;
    }
    return MOLB_OK;
}

uint32_t PLAT_PatchRestoreCount(void)
{
    return ThePatches().restores.load(std::memory_order_relaxed);
}

}  // extern "C"
