// The fast-path channel library is opened by name at start-up and its
// thirteen functions are bound into g_pppoePlusFpcApi. Each use goes through
// a wrapper that answers a fixed default when the library lacks the
// function, so a missing symbol degrades one operation only.
#include "pppoe_plus_fpc.h"

#include <dlfcn.h>
#include <syslog.h>

#include "molb.h"
#include "pppoe_plus_binding.hpp"
#include "pppoe_plus_log.h"

namespace {

// Source attribution of the buffer operations, fixed per call site.
constexpr const char *kFpcFile = "app/src/common/src/pppoe_plus_fpc";

using Fpc = PppoePlusBoundLibrary<g_pppoePlusFpcApi>;

}  // namespace

extern "C" {

PppoePlusFpcApi g_pppoePlusFpcApi = {};
std::atomic<uint32_t> g_dpxToppplusChannel{FPC_INVALID_ID};
std::atomic<uint32_t> g_ppplus2DpxChnId{FPC_INVALID_ID};

uint32_t PPPOE_PLUS_InitFpcIntf(void)
{
    void *lib = dlopen(PPPOE_PLUS_WICK_SO, RTLD_NOW | RTLD_GLOBAL);
    if (lib == nullptr) {
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "[PPPOE FPC] Open wick so failed: %s", dlerror());
        return 1;
    }
    if (MOLB_PAT_RestoreForDLL(lib) != MOLB_OK) {
        dlclose(lib);
        return 1;
    }
    Fpc::Bind<&PppoePlusFpcApi::channelGetIdByName>(lib, "FPC_ChannelGetIdByName");
    Fpc::Bind<&PppoePlusFpcApi::channelDcSendByIdNoSem>(lib, "FPC_ChannelDcSendByIdNoSem");
    Fpc::Bind<&PppoePlusFpcApi::mbufCopyPktToData>(lib, "FpcMbufCopyPktToData");
    Fpc::Bind<&PppoePlusFpcApi::channelCreate>(lib, "FPC_ChannelCreate");
    Fpc::Bind<&PppoePlusFpcApi::threadInfoRegByName>(lib, "FPC_ThreadInfoRegByName");
    Fpc::Bind<&PppoePlusFpcApi::eventRead>(lib, "FPC_EventRead");
    Fpc::Bind<&PppoePlusFpcApi::channelDcRecv>(lib, "FPC_ChannelDcRecv");
    Fpc::Bind<&PppoePlusFpcApi::mbufPktNewFromData>(lib, "MbufPktNewFromData");
    Fpc::Bind<&PppoePlusFpcApi::mbufPktAddHead>(lib, "MbufPktAddHead");
    Fpc::Bind<&PppoePlusFpcApi::mbufPktCutHead>(lib, "MbufPktCutHead");
    Fpc::Bind<&PppoePlusFpcApi::getDefaultDataRoomLen>(lib, "FPC_GetDefaultDataRoomLen");
    Fpc::Bind<&PppoePlusFpcApi::mbufFree>(lib, "FpcMbufFree");
    Fpc::Bind<&PppoePlusFpcApi::mbufPktCopy>(lib, "FpcMbufPktCopy");
    return 0;  // the library stays loaded for the life of the process
}

uint32_t PPPOE_PLUS_CreateRxChannel(void)
{
    const uint32_t channel = PPPOE_PLUS_FpcChannelCreate(PPPOE_PLUS_RX_CHANNEL, PPPOE_PLUS_RX_CHANNEL_DEPTH);
    if (channel == FPC_INVALID_ID) {
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "[PPPOEPLUS_MAIN]Create dpxtopppoeplus channel failed.");
        return 1;
    }
    g_dpxToppplusChannel.store(channel, std::memory_order_release);
    PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG, "[PPPOEPLUS_MAIN]Create dpxtopppoeplus channel success. chId=%u",
                       channel);
    if (PPPOE_PLUS_FpcThreadInfoRegByName(PPPOE_PLUS_RX_THREAD) != 0) {
        syslog(LOG_ERR, "[PPPOE_FPC] Reg PPPOE_PLUS Thread name to Fpc failed.");
        return 1;
    }
    return 0;
}

uint32_t PPPOE_PLUS_FpcChannelGetIdByName(const char *name)
{
    return Fpc::CallOr<&PppoePlusFpcApi::channelGetIdByName>(FPC_INVALID_ID, name);
}

uint32_t PPPOE_PLUS_FpcChannelDcSendByIdNoSem(const char *threadName, uint32_t channelId, uint32_t flags,
                                              FpcMbuf *mbuf)
{
    return Fpc::CallOr<&PppoePlusFpcApi::channelDcSendByIdNoSem>(1U, threadName, channelId, flags, mbuf);
}

uint32_t PPPOE_PLUS_FpcMbufCopyPktToData(FpcMbuf *mbuf, void *dst, uint32_t len)
{
    return Fpc::CallOr<&PppoePlusFpcApi::mbufCopyPktToData>(1U, mbuf, dst, len);
}

uint32_t PPPOE_PLUS_FpcChannelCreate(const char *name, uint32_t depth)
{
    return Fpc::CallOr<&PppoePlusFpcApi::channelCreate>(FPC_INVALID_ID, name, depth);
}

uint32_t PPPOE_PLUS_FpcThreadInfoRegByName(const char *threadName)
{
    return Fpc::CallOr<&PppoePlusFpcApi::threadInfoRegByName>(1U, threadName);
}

uint32_t PPPOE_PLUS_FpcEventRead(uint32_t *eventFlags)
{
    return Fpc::CallOr<&PppoePlusFpcApi::eventRead>(1U, eventFlags);
}

uint32_t PPPOE_PLUS_FpcChannelDcRecv(uint32_t channelId, FpcMbuf **mbuf)
{
    return Fpc::CallOr<&PppoePlusFpcApi::channelDcRecv>(1U, channelId, mbuf);
}

FpcMbuf *PPPOE_PLUS_FpcMbufPktNewFromData(const void *data, uint32_t len)
{
    return Fpc::CallOr<&PppoePlusFpcApi::mbufPktNewFromData>(static_cast<FpcMbuf *>(nullptr), data, len, kFpcFile, 114U);
}

uint32_t PPPOE_PLUS_FpcMbufPktAddHead(FpcMbuf *mbuf, uint32_t len)
{
    return Fpc::CallOr<&PppoePlusFpcApi::mbufPktAddHead>(1U, mbuf, len, kFpcFile, 121U);
}

uint32_t PPPOE_PLUS_FpcMbufPktCutHead(FpcMbuf *mbuf, uint32_t len)
{
    return Fpc::CallOr<&PppoePlusFpcApi::mbufPktCutHead>(1U, mbuf, len, kFpcFile, 128U);
}

uint32_t PPPOE_PLUS_FpcGetDefaultDataRoomLen(void)
{
    return Fpc::CallOr<&PppoePlusFpcApi::getDefaultDataRoomLen>(1U);
}

void PPPOE_PLUS_FpcMbufFree(FpcMbuf *mbuf)
{
    if (const auto fn = g_pppoePlusFpcApi.mbufFree; fn != nullptr) {
        fn(mbuf, kFpcFile, 142U);
    }
}

FpcMbuf *PPPOE_PLUS_FpcMbufPktCopy(FpcMbuf *mbuf)
{
    return Fpc::CallOr<&PppoePlusFpcApi::mbufPktCopy>(static_cast<FpcMbuf *>(nullptr), mbuf);
}

}  // extern "C"
