/* Fast-path channel library (libwick.so): named frame channels between
 * the forwarding plane and control-plane tasks, an event word per thread,
 * and frame buffers with room in front of and behind the data.
 *
 * The module does not link this library: it opens it by name and binds the
 * thirteen functions below. The forwarding plane, the host and tests link it
 * and use the WICK_ side at the end. */
#ifndef PLATFORM_WICK_H
#define PLATFORM_WICK_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define FPC_INVALID_ID 0xFFFFFFFFU
#define FPC_EVENT_RX 0x1U             /* bit 0: frames pending on the caller's receive channel */

/* A frame buffer. The frame's bytes start at pData + dataOff and run for
 * dataLen bytes; bufLen - dataOff - dataLen bytes of room follow them. */
typedef struct FpcMbuf {
    uint8_t *pData;
    uint32_t dataOff;
    uint32_t dataLen;
    uint32_t bufLen;
    uint32_t reserved;
} FpcMbuf;

/* The thirteen functions, in the order the module binds them. */
uint32_t FPC_ChannelGetIdByName(const char *name);
uint32_t FPC_ChannelDcSendByIdNoSem(const char *threadName, uint32_t channelId, uint32_t flags, FpcMbuf *mbuf);
uint32_t FpcMbufCopyPktToData(FpcMbuf *mbuf, void *dst, uint32_t len);
uint32_t FPC_ChannelCreate(const char *name, uint32_t depth);
uint32_t FPC_ThreadInfoRegByName(const char *threadName);
uint32_t FPC_EventRead(uint32_t *eventFlags);
uint32_t FPC_ChannelDcRecv(uint32_t channelId, FpcMbuf **mbuf);
FpcMbuf *MbufPktNewFromData(const void *data, uint32_t len, const char *file, uint32_t line);
uint32_t MbufPktAddHead(FpcMbuf *mbuf, uint32_t len, const char *file, uint32_t line);
uint32_t MbufPktCutHead(FpcMbuf *mbuf, uint32_t len, const char *file, uint32_t line);
uint32_t FPC_GetDefaultDataRoomLen(void);
void FpcMbufFree(FpcMbuf *mbuf, const char *file, uint32_t line);
FpcMbuf *FpcMbufPktCopy(FpcMbuf *mbuf);

/* Function types of the bound table, one per function above. */
typedef uint32_t (*FPC_CHANNEL_GET_ID_BY_NAME_FN)(const char *);
typedef uint32_t (*FPC_CHANNEL_DC_SEND_FN)(const char *, uint32_t, uint32_t, FpcMbuf *);
typedef uint32_t (*FPC_MBUF_COPY_PKT_TO_DATA_FN)(FpcMbuf *, void *, uint32_t);
typedef uint32_t (*FPC_CHANNEL_CREATE_FN)(const char *, uint32_t);
typedef uint32_t (*FPC_THREAD_INFO_REG_FN)(const char *);
typedef uint32_t (*FPC_EVENT_READ_FN)(uint32_t *);
typedef uint32_t (*FPC_CHANNEL_DC_RECV_FN)(uint32_t, FpcMbuf **);
typedef FpcMbuf *(*FPC_MBUF_NEW_FROM_DATA_FN)(const void *, uint32_t, const char *, uint32_t);
typedef uint32_t (*FPC_MBUF_ADD_HEAD_FN)(FpcMbuf *, uint32_t, const char *, uint32_t);
typedef uint32_t (*FPC_MBUF_CUT_HEAD_FN)(FpcMbuf *, uint32_t, const char *, uint32_t);
typedef uint32_t (*FPC_GET_DEFAULT_DATA_ROOM_LEN_FN)(void);
typedef void (*FPC_MBUF_FREE_FN)(FpcMbuf *, const char *, uint32_t);
typedef FpcMbuf *(*FPC_MBUF_PKT_COPY_FN)(FpcMbuf *);

/* ---- The forwarding plane's side, the host's and tests' controls ---- */

/* Room in front of the data of a new buffer, and default room behind it. */
#define WICK_HEADROOM 128U
#define WICK_DEFAULT_DATA_ROOM 2048U

/* Puts a copy of data (a DpxPktHead followed by the frame, or any bytes)
 * into the named channel, creating the channel with depth 1024 if it does
 * not exist yet. 0 on success; non-zero when the channel is full. */
uint32_t WICK_ChannelPut(const char *channelName, const void *data, uint32_t len);
/* Takes the oldest buffer of the named channel, copying at most cap bytes
 * into buf and the full length into *len, then frees the buffer. Waits up to
 * timeoutMs (0: no wait), also for a channel that does not exist yet. 0 when
 * a buffer was taken. */
uint32_t WICK_ChannelTake(const char *channelName, void *buf, uint32_t cap, uint32_t *len, uint32_t timeoutMs);
/* Buffers waiting in the named channel (0 for an unknown channel). */
uint32_t WICK_ChannelDepth(const char *channelName);
/* Drops every channel and thread registration (tests). Buffers still in
 * channels are freed. */
void WICK_Reset(void);

/* Frame buffers currently allocated and not freed. */
uint32_t WICK_MbufOutstanding(void);
/* Calls report once per allocation site (file, line) with outstanding
 * buffers; returns the number of sites reported. */
typedef void (*WICK_LEAK_REPORT_FN)(const char *file, uint32_t line, uint32_t count, void *arg);
uint32_t WICK_MbufLeakReport(WICK_LEAK_REPORT_FN report, void *arg);

/* 1 while the thread registered under threadName waits in FPC_EventRead. */
uint32_t WICK_ThreadIsWaiting(const char *threadName);

#ifdef __cplusplus
}
#endif
#endif
