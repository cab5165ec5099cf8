/* Binding of the fast-path channel library, opened by name at start-up. */
#ifndef PPPOE_PLUS_FPC_H
#define PPPOE_PLUS_FPC_H

#include <stdint.h>

#include "wick.h"

#define PPPOE_PLUS_WICK_SO "../lib/libwick.so"
#define PPPOE_PLUS_RX_CHANNEL "channel/dpx2ppplus"
#define PPPOE_PLUS_RX_THREAD "thread/dpx2ppplus"
#define PPPOE_PLUS_TX_CHANNEL "channel/ppplus2dpx"
#define PPPOE_PLUS_TX_THREAD "thread/dpx"
#define PPPOE_PLUS_RX_CHANNEL_DEPTH 1024U
#define PPPOE_PLUS_FPC_SEND_FLAGS 0x400000U

#ifdef __cplusplus
#include <atomic>
extern "C" {

/* The thirteen bound functions, in binding order; null when the library
 * lacks one. Written once on the init task before the main task exists. */
typedef struct PppoePlusFpcApi {
    FPC_CHANNEL_GET_ID_BY_NAME_FN channelGetIdByName;
    FPC_CHANNEL_DC_SEND_FN channelDcSendByIdNoSem;
    FPC_MBUF_COPY_PKT_TO_DATA_FN mbufCopyPktToData;
    FPC_CHANNEL_CREATE_FN channelCreate;
    FPC_THREAD_INFO_REG_FN threadInfoRegByName;
    FPC_EVENT_READ_FN eventRead;
    FPC_CHANNEL_DC_RECV_FN channelDcRecv;
    FPC_MBUF_NEW_FROM_DATA_FN mbufPktNewFromData;
    FPC_MBUF_ADD_HEAD_FN mbufPktAddHead;
    FPC_MBUF_CUT_HEAD_FN mbufPktCutHead;
    FPC_GET_DEFAULT_DATA_ROOM_LEN_FN getDefaultDataRoomLen;
    FPC_MBUF_FREE_FN mbufFree;
    FPC_MBUF_PKT_COPY_FN mbufPktCopy;
} PppoePlusFpcApi;
static_assert(sizeof(PppoePlusFpcApi) == 13 * sizeof(void *), "thirteen entries");

extern PppoePlusFpcApi g_pppoePlusFpcApi;
extern std::atomic<uint32_t> g_dpxToppplusChannel;
extern std::atomic<uint32_t> g_ppplus2DpxChnId;
#endif

uint32_t PPPOE_PLUS_InitFpcIntf(void);
uint32_t PPPOE_PLUS_CreateRxChannel(void);

/* Wrappers: each answers its default when the library lacks the function. */
uint32_t PPPOE_PLUS_FpcChannelGetIdByName(const char *name);
uint32_t PPPOE_PLUS_FpcChannelDcSendByIdNoSem(const char *threadName, uint32_t channelId, uint32_t flags,
                                              FpcMbuf *mbuf);
uint32_t PPPOE_PLUS_FpcMbufCopyPktToData(FpcMbuf *mbuf, void *dst, uint32_t len);
uint32_t PPPOE_PLUS_FpcChannelCreate(const char *name, uint32_t depth);
uint32_t PPPOE_PLUS_FpcThreadInfoRegByName(const char *threadName);
uint32_t PPPOE_PLUS_FpcEventRead(uint32_t *eventFlags);
uint32_t PPPOE_PLUS_FpcChannelDcRecv(uint32_t channelId, FpcMbuf **mbuf);
FpcMbuf *PPPOE_PLUS_FpcMbufPktNewFromData(const void *data, uint32_t len);
uint32_t PPPOE_PLUS_FpcMbufPktAddHead(FpcMbuf *mbuf, uint32_t len);
uint32_t PPPOE_PLUS_FpcMbufPktCutHead(FpcMbuf *mbuf, uint32_t len);
uint32_t PPPOE_PLUS_FpcGetDefaultDataRoomLen(void);
void PPPOE_PLUS_FpcMbufFree(FpcMbuf *mbuf);
FpcMbuf *PPPOE_PLUS_FpcMbufPktCopy(FpcMbuf *mbuf);

#ifdef __cplusplus
}
#endif
#endif
