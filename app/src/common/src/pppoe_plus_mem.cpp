// Module memory: one handle "pppoeplus" in partition "EXTPT". The file name
// and line passed to the platform are fixed per call site so that leak
// reports stay comparable across builds.
#include "pppoe_plus_mem.h"

#include "pppoe_plus_log.h"
#include "ruk.h"
#include "zavk.h"

namespace {
constexpr const char *kMemFile = "app/src/common/src/pppoe_plus_mem";
constexpr uint32_t kInvalidHandle = 0xFFFFFFFFU;
constexpr uint32_t kUnsetHandle = 255U;
// The lines reported for each call site: fixed, as leak reports and asserts
// name them.
constexpr uint32_t kLineAlloc = 55;
constexpr uint32_t kLineAllocFailed = 57;
constexpr uint32_t kLineFree = 70;
constexpr uint32_t kLineFreeFailed = 72;
}  // namespace

extern "C" {

std::atomic<uint32_t> g_pppoePlusMemHandle{kInvalidHandle};
std::atomic<uint32_t> g_pppoePlusMemPtNo{0};

uint32_t PPPOE_PLUS_InitMemHandle(void)
{
    uint32_t handle = kInvalidHandle;
    uint32_t ret = RUK_HandleInitialize("pppoeplus", &handle);
    if (ret != RUK_OK) {
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "[PPPOEPLUS_MEM]Get the handle fail.");
        return ret;
    }
    g_pppoePlusMemHandle.store(handle, std::memory_order_release);
    uint32_t ptNo = 0;
    ret = RUK_MemPtNoGet("EXTPT", &ptNo);
    if (ret != RUK_OK) {
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "[PPPOEPLUS_MEM]Get the pt no fail.");
        return ret;
    }
    g_pppoePlusMemPtNo.store(ptNo, std::memory_order_relaxed);
    PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG, "[PPPOEPLUS_MEM]Init memory handle success.");
    return 0;
}

uint32_t PPPOE_PLUS_GetHandle(void)
{
    return g_pppoePlusMemHandle.load(std::memory_order_acquire);
}

void *PPPOE_PLUS_MemAlloc(size_t size)
{
    const uint32_t handle = PPPOE_PLUS_GetHandle();
    if (handle == kInvalidHandle || handle == kUnsetHandle) {
        return nullptr;
    }
    void *ptr = RUK_MemAlloc_F(handle, g_pppoePlusMemPtNo.load(std::memory_order_relaxed), size, kMemFile, kLineAlloc);
    if (ptr == nullptr) {
        ZAVK_Assert(kMemFile, kLineAllocFailed);
        return nullptr;
    }
    return ptr;
}

void PPPOE_PLUS_MemFree(void *ptr)
{
    if (ptr == nullptr) {
        return;
    }
    if (RUK_MemFree_F(PPPOE_PLUS_GetHandle(), ptr, kMemFile, kLineFree) != RUK_OK) {
        ZAVK_Assert(kMemFile, kLineFreeFailed);
    }
}

}  // extern "C"
