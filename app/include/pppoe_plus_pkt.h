/* The packet relay: intake and parsing of the discovery frames the
 * forwarding plane punts, Circuit-ID and Remote-ID construction, the
 * Vendor-Specific tag policy, the forwarding decision and the per-port
 * counters. Everything here runs on the main task, one frame at a time. */
#ifndef PPPOE_PLUS_PKT_H
#define PPPOE_PLUS_PKT_H

#include <stddef.h>
#include <stdint.h>

#include "pppoe_plus_types.h"
#include "wick.h"

/* PPPoE discovery codes. */
#define PPPOE_PLUS_CODE_PADI 0x09U
#define PPPOE_PLUS_CODE_PADO 0x07U
#define PPPOE_PLUS_CODE_PADR 0x19U
#define PPPOE_PLUS_CODE_PADS 0x65U
#define PPPOE_PLUS_CODE_PADT 0xA7U
#define PPPOE_PLUS_VER_TYPE 0x11U

/* Ethernet framing: destination and source MAC, then the EtherType, the
 * first VLAN tag's TPID or an 802.3 length. A VLAN tag is a TPID and, at
 * PPPOE_PLUS_VLAN_TCI_OFF within the tag, a TCI whose low 12 bits are the
 * VLAN id. An 802.3 frame carries LLC (DSAP, SSAP, control) and SNAP (OUI,
 * type) behind its length. */
#define PPPOE_PLUS_ETH_TYPE_OFF 12U
#define PPPOE_PLUS_ETH_HEAD_LEN 14U
#define PPPOE_PLUS_VLAN_TAG_LEN 4U
#define PPPOE_PLUS_VLAN_TCI_OFF 2U
#define PPPOE_PLUS_LLC_DSAP_OFF 14U
#define PPPOE_PLUS_LLC_SSAP_OFF 15U
#define PPPOE_PLUS_SNAP_OUI_OFF 17U
#define PPPOE_PLUS_SNAP_OUI_LEN 3U
#define PPPOE_PLUS_SNAP_ETH_HEAD_LEN 22U

/* PPPoE tags: type, length, value; the length counts the value only. */
#define PPPOE_PLUS_TAG_END_OF_LIST 0x0000U
#define PPPOE_PLUS_TAG_VENDOR_SPEC 0x0105U
#define PPPOE_PLUS_TAG_LEN_OFF 2U
#define PPPOE_PLUS_TAG_HEAD_LEN 4U
/* The Vendor-Specific tag: its head, then the enterprise number (at
 * PPPOE_PLUS_VENDOR_ID_OFF from the tag's start; head and number make
 * PPPOE_PLUS_VENDOR_SPEC_HEAD_LEN bytes), then sub-options of type, length
 * and value. */
#define PPPOE_PLUS_VENDOR_ID_OFF 4U
#define PPPOE_PLUS_VENDOR_ID_LEN 4U
#define PPPOE_PLUS_VENDOR_SPEC_HEAD_LEN 8U
#define PPPOE_PLUS_SUBOPT_HEAD_LEN 2U
#define PPPOE_PLUS_VENDOR_SPEC_MAX 522U     /* whole own tag, head included */
#define PPPOE_PLUS_SUBOPT_BUF_LEN 259U      /* one built sub-option: type, length, value */
#define PPPOE_PLUS_VENDOR_SPEC_BUF_LEN 576U

/* Message and frame limits. */
#define PPPOE_PLUS_DPX_HEAD_LEN 12U
#define PPPOE_PLUS_MSG_LEN_MIN 27U          /* DpxPktHead included */
#define PPPOE_PLUS_MSG_LEN_MAX 2000U
#define PPPOE_PLUS_PPPOE_HDR_LEN 6U
#define PPPOE_PLUS_PPPOE_LENGTH_OFF 4U      /* the header's length field */
#define PPPOE_PLUS_FRAME_LEN_LIMIT 1500U    /* a tagged frame must stay below this */
#define PPPOE_PLUS_SEND_MSG_TYPE 133U
#define PPPOE_PLUS_MAX_TRUST_PORTS 8U

/* Counter kinds (see PppoePlusCounterIndex below). */
#define PPPOE_PLUS_STAT_RECV 0U
#define PPPOE_PLUS_STAT_SEND 1U
#define PPPOE_PLUS_STAT_DISCARD 2U
#define PPPOE_PLUS_STAT_KINDS 3U

/* Sub-option types. */
#define PPPOE_PLUS_SUBOPT_CID 1U
#define PPPOE_PLUS_SUBOPT_RID 2U

/* The PPPoE discovery header as it sits in the frame: multi-byte fields are
 * big-endian byte pairs, so the record can overlay any offset. */
typedef struct PppoeDiscHdr {
    uint8_t verAndType;
    uint8_t code;
    uint8_t sessionId[2];
    uint8_t length[2];
} PppoeDiscHdr;

#ifdef __cplusplus
static_assert(sizeof(PppoeDiscHdr) == 6, "the PPPoE discovery header is 6 bytes");
static_assert(offsetof(PppoeDiscHdr, length) == PPPOE_PLUS_PPPOE_LENGTH_OFF, "the length field's offset");
extern "C" {
#endif

typedef struct PortCB PortCB;

/* Intake and parsing. */
void PPPOE_PLUS_RxPktFromDpx(void);
uint32_t PPPOE_PLUS_CheckPktMsg(FpcMbuf *mbuf, DpxPktHead *head);
void PPPOE_PLUS_PktProc(FpcMbuf *mbuf, DpxPktHead *head);
void PPPOE_PLUS_PktDispatch(FpcMbuf *mbuf, PppoeDiscHdr *hdr, PortCB *portCb, DpxPktHead *head);
uint32_t PPPOE_PLUS_GetPktHeadLen(const FpcMbuf *mbuf, uint32_t *headLen);
uint32_t PPPOE_PLUS_GetPktVlan(const FpcMbuf *mbuf, uint32_t *outerVlan, uint32_t *innerVlan);
uint32_t PPPOE_PLUS_GetUserInfo(const FpcMbuf *mbuf, const PortCB *portCb, UserInfo *info);
uint32_t PPPOE_PLUS_GetDownlinkUserInfo(const FpcMbuf *mbuf, UserInfo *info, uint32_t ifIndex);

/* Circuit-ID and Remote-ID sub-options: each buffer holds 259 bytes; the
 * lengths written are whole sub-option lengths (value + 2). */
uint32_t PPPOE_PLUS_EncodeCidRid(UserInfo *info, uint8_t *cid, uint32_t *cidLen, uint8_t *rid, uint32_t *ridLen);
uint32_t PPPOE_PLUS_EncodeCid(UserInfo *info, uint8_t *cid, uint32_t *cidLen);
uint32_t PPPOE_PLUS_EncodeRid(UserInfo *info, uint8_t *rid, uint32_t *ridLen);
uint32_t PPPOE_PLUS_EncapCommonCid(const UserInfo *info, uint8_t *value, uint32_t *valueLen);

/* The Vendor-Specific tag. Tag offsets are relative to the first tag. */
uint8_t PPPOE_PLUS_GetPortPolicy(const PortCB *portCb);
uint32_t PPPOE_PLUS_EncodeVendorSpec(UserInfo *info, uint8_t *out, uint32_t *outLen);
uint32_t PPPOE_PLUS_FindVendorSpecTag(const FpcMbuf *mbuf, const PppoeDiscHdr *hdr, uint32_t *offset);
void PPPOE_PLUS_GetTagsEndOffset(const PppoeDiscHdr *hdr, uint32_t *offset);
uint32_t PPPOE_PLUS_AddAgentInfo(FpcMbuf *mbuf, PppoeDiscHdr *hdr, PortCB *portCb, uint32_t offset);
uint32_t PPPOE_PLUS_DelAgentInfo(FpcMbuf *mbuf, PppoeDiscHdr *hdr, uint32_t offset);
uint32_t PPPOE_PLUS_IsOwnVendorSpec(FpcMbuf *mbuf, const PppoeDiscHdr *hdr, PortCB *portCb, uint32_t offset,
                                    uint32_t egrIfIndex);
uint32_t PPPOE_PLUS_ProcUserSidePkt(FpcMbuf *mbuf, PppoeDiscHdr *hdr, PortCB *portCb, DpxPktHead *head);
uint32_t PPPOE_PLUS_ProcNetSidePkt(FpcMbuf *mbuf, PppoeDiscHdr *hdr, PortCB *portCb, DpxPktHead *head);

/* Forwarding: both take ownership of the buffer. */
uint32_t PPPOE_PLUS_SendToTrustPorts(FpcMbuf *mbuf, const PppoeDiscHdr *hdr, DpxPktHead *head);
uint32_t PPPOE_PLUS_SendPktToIf(FpcMbuf *mbuf, const PppoeDiscHdr *hdr, const DpxPktHead *head);

/* Counters. */
void PPPOE_PLUS_PktStatistic(uint32_t kind, const PppoeDiscHdr *hdr, uint32_t ifIndex);
uint32_t PPPOE_PLUS_GetPktStatisticNum(const PortCB *portCb, uint8_t code, uint32_t kind);

#ifdef __cplusplus
}

/* The per-port counters, written once: a port control block's stats hold,
 * for each discovery code in the order of this table, its receive, send
 * and discard counts. The statistics query reports the receive and send
 * counts under the leaves named here, and the discards of all codes summed. */
struct PppoePlusCounterGroup {
    uint8_t code;
    const char *receiveLeaf;
    const char *sendLeaf;
};
inline constexpr PppoePlusCounterGroup g_pppoePlusCounterGroups[] = {
    {PPPOE_PLUS_CODE_PADI, "padi-receive-packets", "padi-send-packets"},
    {PPPOE_PLUS_CODE_PADO, "pado-receive-packets", "pado-send-packets"},
    {PPPOE_PLUS_CODE_PADR, "padr-receive-packets", "padr-send-packets"},
    {PPPOE_PLUS_CODE_PADS, "pads-receive-packets", "pads-send-packets"},
    {PPPOE_PLUS_CODE_PADT, "padt-receive-packets", "padt-send-packets"},
};
inline constexpr uint32_t kPppoePlusCounterCount =
    static_cast<uint32_t>(sizeof(g_pppoePlusCounterGroups) / sizeof(g_pppoePlusCounterGroups[0])) *
    PPPOE_PLUS_STAT_KINDS;

/* The index in a control block's stats of the counter of kind for code; -1
 * for a code that is not counted or an unknown kind. */
constexpr int32_t PppoePlusCounterIndex(uint32_t code, uint32_t kind)
{
    if (kind >= PPPOE_PLUS_STAT_KINDS) {
        return -1;
    }
    uint32_t first = 0;
    for (const PppoePlusCounterGroup &group : g_pppoePlusCounterGroups) {
        if (group.code == code) {
            return static_cast<int32_t>(first + kind);
        }
        first += PPPOE_PLUS_STAT_KINDS;
    }
    return -1;
}
#endif
#endif
