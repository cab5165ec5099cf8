// The packet relay: takes the discovery frames the forwarding plane punts
// off the receive channel, checks and parses them, resolves the ingress
// port, applies the Vendor-Specific tag policy, decides where each frame
// may go and hands it back to the forwarding plane, counting per port, code
// and direction on the way.
//
// Ownership: a buffer taken from the channel is consumed exactly once on
// every path, either passed to the channel by a successful send or freed.
// A PppoeDiscHdr pointer points into the buffer it describes, so nothing
// reads it once that buffer is gone: counters are moved before the free.
#include "pppoe_plus_pkt.h"

#include "plat_safe.h"
#include "pppoe_plus_bounded.h"
#include "pppoe_plus_cfg.h"
#include "pppoe_plus_fpc.h"
#include "pppoe_plus_intf.h"
#include "pppoe_plus_log.h"
#include "pppoe_plus_mem.h"
#include "ruk.h"
#include "zavk.h"

namespace {

constexpr const char *kPktFile = "app/src/common/src/pppoe_plus_pkt";

// Ethernet framing (offsets in pppoe_plus_pkt.h).
constexpr uint16_t kTpidCtag = 0x8100;
constexpr uint16_t kTpidStag = 0x9100;
constexpr uint16_t kEtherTypeSnap = 0x8870;
constexpr uint8_t kMaxLengthField = 0x06;  // a high byte below this is an 802.3 length
constexpr uint8_t kSnapSap = 0xAA;
constexpr uint16_t kVlanIdMask = 0x0FFF;
constexpr uint32_t kOuterTciOff = PPPOE_PLUS_ETH_TYPE_OFF + PPPOE_PLUS_VLAN_TCI_OFF;
constexpr uint32_t kInnerTpidOff = PPPOE_PLUS_ETH_TYPE_OFF + PPPOE_PLUS_VLAN_TAG_LEN;
constexpr uint32_t kInnerTciOff = kInnerTpidOff + PPPOE_PLUS_VLAN_TCI_OFF;
// A Vendor-Specific value no longer than this has no sub-option to show
// (the tag head and the enterprise number alone).
constexpr uint32_t kVendorSpecValueMin = PPPOE_PLUS_VENDOR_SPEC_HEAD_LEN;

constexpr uint32_t kInvalidChannel = FPC_INVALID_ID;
constexpr uint32_t kUnsetChannel = 0xFFFFFFFEU;

uint16_t Be16(const uint8_t *p)
{
    return static_cast<uint16_t>((p[0] << 8) | p[1]);
}

void PutBe16(uint8_t *p, uint32_t v)
{
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}

uint8_t *FrameData(const FpcMbuf *mbuf)
{
    return mbuf->pData + mbuf->dataOff;
}

uint32_t RoomBehind(const FpcMbuf *mbuf)
{
    const uint64_t used = static_cast<uint64_t>(mbuf->dataOff) + mbuf->dataLen;
    return used < mbuf->bufLen ? static_cast<uint32_t>(mbuf->bufLen - used) : 0U;
}

uint32_t PppoeLength(const PppoeDiscHdr *hdr)
{
    return Be16(hdr->length);
}

const uint8_t *TagArea(const PppoeDiscHdr *hdr)
{
    return reinterpret_cast<const uint8_t *>(hdr) + PPPOE_PLUS_PPPOE_HDR_LEN;
}

// Bytes of the tag area that may be walked: the announced length, cut to
// what the buffer holds behind the header.
uint32_t WalkableTagLen(const FpcMbuf *mbuf, const PppoeDiscHdr *hdr)
{
    const uint32_t announced = PppoeLength(hdr);
    if (mbuf == nullptr) {
        return announced;
    }
    const uint8_t *end = FrameData(mbuf) + mbuf->dataLen;
    const uint8_t *tags = TagArea(hdr);
    if (tags >= end) {
        return 0;
    }
    const auto present = static_cast<uint32_t>(end - tags);
    return announced < present ? announced : present;
}

// Walks the tags from the first one while a tag head fits, stopping at an
// End-Of-List tag or at a tag that runs past len. visit(type, length,
// offset) returns true to stop; the result is the offset reached.
template <typename Visit>
uint32_t WalkTags(const uint8_t *tags, uint32_t len, Visit visit)
{
    uint32_t off = 0;
    while (len - off >= PPPOE_PLUS_TAG_HEAD_LEN) {
        const uint32_t type = Be16(tags + off);
        const uint32_t tagLen = Be16(tags + off + PPPOE_PLUS_TAG_LEN_OFF);
        if (type == PPPOE_PLUS_TAG_END_OF_LIST || off + PPPOE_PLUS_TAG_HEAD_LEN + tagLen > len ||
            visit(type, tagLen, off)) {
            break;
        }
        off += PPPOE_PLUS_TAG_HEAD_LEN + tagLen;
    }
    return off;
}

bool IsVlanTpid(uint16_t tpid)
{
    return tpid == kTpidCtag || tpid == kTpidStag;
}

bool IsZeroOui(const uint8_t *oui)
{
    for (uint32_t i = 0; i < PPPOE_PLUS_SNAP_OUI_LEN; i++) {
        if (oui[i] != 0) {
            return false;
        }
    }
    return true;
}

// Grows the frame by the tag (and a zeroed End-Of-List tag of endLen
// bytes) at tagOffset of the tag area, through one scratch frame. A buffer
// without room behind the data, or a failed allocation, leaves the frame as
// it is.
void InsertInPlace(FpcMbuf *mbuf, uint32_t ethHeadLen, uint32_t tagOffset, const uint8_t *tag, uint32_t tagLen,
                   uint32_t endLen)
{
    const uint32_t added = tagLen + endLen;
    const uint32_t frameLen = mbuf->dataLen;
    const uint32_t copyOffset = ethHeadLen + PPPOE_PLUS_PPPOE_HDR_LEN + tagOffset;
    if (RoomBehind(mbuf) < added || copyOffset > frameLen) {
        return;
    }
    const uint32_t newLen = frameLen + added;
    auto *scratch = static_cast<uint8_t *>(PPPOE_PLUS_MemAlloc(newLen + 1U));
    if (scratch == nullptr) {
        return;
    }
    (void)PppoePlusFill(scratch, newLen + 1U, 0, newLen + 1U);
    uint8_t *data = FrameData(mbuf);
    const uint32_t remainLen = frameLen - copyOffset;
    (void)PppoePlusCopy(scratch, newLen, data, copyOffset);
    (void)PppoePlusCopy(scratch + copyOffset, newLen - copyOffset, tag, tagLen);
    if (remainLen != 0) {
        (void)PppoePlusCopy(scratch + copyOffset + added, newLen - copyOffset - added, data + copyOffset, remainLen);
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "New pkt ctrl: dataTotalLen = %d, copyOffset=%d, remainLen =%u ",
                         static_cast<int>(newLen), static_cast<int>(copyOffset), remainLen);
    uint8_t *lengthField = scratch + ethHeadLen + PPPOE_PLUS_PPPOE_LENGTH_OFF;
    PutBe16(lengthField, Be16(lengthField) + added);
    (void)PppoePlusCopy(data, frameLen + RoomBehind(mbuf), scratch, newLen);
    mbuf->dataLen = newLen;
    PPPOE_PLUS_MemFree(scratch);
}

}  // namespace

extern "C" {

// ---------------------------------------------------------------------------
// Intake and parsing

void PPPOE_PLUS_RxPktFromDpx(void)
{
    const uint32_t channel = g_dpxToppplusChannel.load(std::memory_order_relaxed);
    FpcMbuf *mbuf = nullptr;
    while (PPPOE_PLUS_FpcChannelDcRecv(channel, &mbuf) == 0) {
        if (mbuf == nullptr) {
            continue;
        }
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPPoE-Plus] PPPOE_PLUS_RxPktFromDpx");
        DpxPktHead head = {};
        if (PPPOE_PLUS_CheckPktMsg(mbuf, &head) == 0) {
            PPPOE_PLUS_PktProc(mbuf, &head);
        }
        mbuf = nullptr;
    }
}

uint32_t PPPOE_PLUS_CheckPktMsg(FpcMbuf *mbuf, DpxPktHead *head)
{
    if (mbuf == nullptr) {
        return 1;
    }
    if (head == nullptr) {
        ZAVK_Assert(kPktFile, __LINE__);
        PPPOE_PLUS_FpcMbufFree(mbuf);
        return 1;
    }
    PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG, "[PPPoE-Plus] Get pkt from dpx.");
    const uint32_t msgLen = mbuf->dataLen;
    if (msgLen < PPPOE_PLUS_MSG_LEN_MIN || msgLen > PPPOE_PLUS_MSG_LEN_MAX || mbuf->pData == nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPPOE_PKT] Check pkt msg len failed.");
        PPPOE_PLUS_FpcMbufFree(mbuf);
        return 1;
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPPOE_PKT] First cut head len %u", PPPOE_PLUS_DPX_HEAD_LEN);
    (void)PppoePlusCopy(head, sizeof(*head), FrameData(mbuf), PPPOE_PLUS_DPX_HEAD_LEN);
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPPoE-Plus] Get pkt from dpx. igrIfindex=%u, egrIfindex =%u",
                         head->igrIfindex, head->egrIfindex);
    (void)PPPOE_PLUS_FpcMbufPktCutHead(mbuf, PPPOE_PLUS_DPX_HEAD_LEN);

    // A member port of a link aggregation stands for its trunk; without a
    // trunk (or when the read fails) the frame stays on the port itself.
    uint32_t trunkIfIndex = PPPOE_PLUS_INVALID_IFINDEX;
    if (PPPOE_PLUS_GetTrunkIfIndexByMember(head->igrIfindex, &trunkIfIndex) == 0 &&
        trunkIfIndex != PPPOE_PLUS_INVALID_IFINDEX) {
        head->igrIfindex = trunkIfIndex;
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPPoE-Plus] Pkt receive on trunk port,  igrIfindex=%u",
                             trunkIfIndex);
    }
    return 0;
}

void PPPOE_PLUS_PktProc(FpcMbuf *mbuf, DpxPktHead *head)
{
    if (mbuf == nullptr) {
        ZAVK_Assert(kPktFile, __LINE__);
        return;
    }
    if (head == nullptr) {
        ZAVK_Assert(kPktFile, __LINE__);
        PPPOE_PLUS_FpcMbufFree(mbuf);
        return;
    }
    if (PPPOE_PLUS_IsEnable() != 1) {
        PPPOE_PLUS_FpcMbufFree(mbuf);
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPPOE_PKT]pppoe+ is not enable.");
        return;
    }
    PPPOE_PLUS_DumpPkt(mbuf);
    uint32_t ethHeadLen = 0;
    if (PPPOE_PLUS_GetPktHeadLen(mbuf, &ethHeadLen) != 0) {
        PPPOE_PLUS_FpcMbufFree(mbuf);
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPPOE_PKT]get packet header len failed ");
        return;
    }
    if (mbuf->pData == nullptr || mbuf->dataLen < ethHeadLen + PPPOE_PLUS_PPPOE_HDR_LEN) {
        PPPOE_PLUS_FpcMbufFree(mbuf);
        return;
    }
    auto *hdr = reinterpret_cast<PppoeDiscHdr *>(FrameData(mbuf) + ethHeadLen);
    const uint32_t igrIfIndex = head->igrIfindex;
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPPOE_PKT] ucVerAndType %u, ethHdrLen:%u, ifIndex:%u)",
                         hdr->verAndType, ethHeadLen, igrIfIndex);
    // The block carries the port's counters, so it is made before the first
    // count: a port's first discovery frame is counted like any later one.
    PortCB *portCb = nullptr;
    if (PPPOE_PLUS_GetPortCBByIndex(igrIfIndex, &portCb) != 0 || portCb == nullptr) {
        PPPOE_PLUS_FpcMbufFree(mbuf);
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPPOE_PKT] process error.");
        return;
    }
    if (hdr->verAndType != PPPOE_PLUS_VER_TYPE) {
        PPPOE_PLUS_PktStatistic(PPPOE_PLUS_STAT_DISCARD, hdr, igrIfIndex);
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPPOE_PKT] process error. (ucVerAndType: %u)", hdr->verAndType);
        PPPOE_PLUS_FpcMbufFree(mbuf);
        return;
    }
    PPPOE_PLUS_PktStatistic(PPPOE_PLUS_STAT_RECV, hdr, igrIfIndex);
    // Bytes beyond the announced tag area are carried along; a tag area
    // shorter than announced is not.
    if (mbuf->dataLen - ethHeadLen - PPPOE_PLUS_PPPOE_HDR_LEN < PppoeLength(hdr)) {
        PPPOE_PLUS_FpcMbufFree(mbuf);
        return;
    }
    PPPOE_PLUS_PktDispatch(mbuf, hdr, portCb, head);
}

void PPPOE_PLUS_PktDispatch(FpcMbuf *mbuf, PppoeDiscHdr *hdr, PortCB *portCb, DpxPktHead *head)
{
    if (mbuf == nullptr || hdr == nullptr || portCb == nullptr || head == nullptr) {
        ZAVK_Assert(kPktFile, __LINE__);
        PPPOE_PLUS_FpcMbufFree(mbuf);
        return;
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "Receive pppoe packet.(CodeType=0x%x)", hdr->code);
    switch (hdr->code) {
        case PPPOE_PLUS_CODE_PADI:
        case PPPOE_PLUS_CODE_PADR:
            (void)PPPOE_PLUS_ProcUserSidePkt(mbuf, hdr, portCb, head);
            return;
        case PPPOE_PLUS_CODE_PADO:
        case PPPOE_PLUS_CODE_PADS:
            (void)PPPOE_PLUS_ProcNetSidePkt(mbuf, hdr, portCb, head);
            return;
        case PPPOE_PLUS_CODE_PADT:
            // No tag handling and no trust check in either direction.
            if (head->egrIfindex != PPPOE_PLUS_INVALID_IFINDEX) {
                (void)PPPOE_PLUS_SendPktToIf(mbuf, hdr, head);
                return;
            }
            PPPOE_PLUS_PktStatistic(PPPOE_PLUS_STAT_DISCARD, hdr, head->igrIfindex);
            PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "Drop the pppoe packet for invalid output port.");
            PPPOE_PLUS_FpcMbufFree(mbuf);
            return;
        default:
            PPPOE_PLUS_FpcMbufFree(mbuf);
            PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG, "[PPPoE-Plus] invalid pkt.");
            return;
    }
}

uint32_t PPPOE_PLUS_GetPktHeadLen(const FpcMbuf *mbuf, uint32_t *headLen)
{
    if (mbuf == nullptr || headLen == nullptr || mbuf->pData == nullptr) {
        ZAVK_Assert(kPktFile, __LINE__);
        return 1;
    }
    const uint8_t *data = FrameData(mbuf);
    const uint32_t len = mbuf->dataLen;
    if (len < PPPOE_PLUS_ETH_HEAD_LEN) {
        return 1;
    }
    const uint16_t typeOrTpid = Be16(data + PPPOE_PLUS_ETH_TYPE_OFF);
    if (typeOrTpid == kEtherTypeSnap || data[PPPOE_PLUS_ETH_TYPE_OFF] < kMaxLengthField) {
        // 802.2 LLC with SNAP: DSAP and SSAP 0xAA, a zero OUI; the control
        // byte is not looked at.
        if (len < PPPOE_PLUS_SNAP_ETH_HEAD_LEN || data[PPPOE_PLUS_LLC_DSAP_OFF] != kSnapSap ||
            data[PPPOE_PLUS_LLC_SSAP_OFF] != kSnapSap || !IsZeroOui(data + PPPOE_PLUS_SNAP_OUI_OFF)) {
            return 1;
        }
        *headLen = PPPOE_PLUS_SNAP_ETH_HEAD_LEN;
        return 0;
    }
    uint32_t tags = 0;
    if (IsVlanTpid(typeOrTpid)) {
        if (len < PPPOE_PLUS_ETH_HEAD_LEN + PPPOE_PLUS_VLAN_TAG_LEN) {
            return 1;
        }
        tags = 1;
        // 0x9100 is deliberately not accepted as the inner TPID.
        if (Be16(data + kInnerTpidOff) == kTpidCtag) {
            if (len < PPPOE_PLUS_ETH_HEAD_LEN + 2 * PPPOE_PLUS_VLAN_TAG_LEN) {
                return 1;
            }
            tags = 2;
        }
    }
    *headLen = PPPOE_PLUS_ETH_HEAD_LEN + tags * PPPOE_PLUS_VLAN_TAG_LEN;
    return 0;
}

uint32_t PPPOE_PLUS_GetPktVlan(const FpcMbuf *mbuf, uint32_t *outerVlan, uint32_t *innerVlan)
{
    if (mbuf == nullptr || outerVlan == nullptr || innerVlan == nullptr || mbuf->pData == nullptr) {
        return 1;
    }
    const uint8_t *data = FrameData(mbuf);
    const uint32_t len = mbuf->dataLen;
    if (len < PPPOE_PLUS_ETH_HEAD_LEN + PPPOE_PLUS_VLAN_TAG_LEN || !IsVlanTpid(Be16(data + PPPOE_PLUS_ETH_TYPE_OFF))) {
        return 1;  // untagged subscriber traffic is never relayed
    }
    const uint32_t outer = Be16(data + kOuterTciOff) & kVlanIdMask;
    if (Be16(data + kInnerTpidOff) == kTpidCtag) {
        if (len < PPPOE_PLUS_ETH_HEAD_LEN + 2 * PPPOE_PLUS_VLAN_TAG_LEN) {
            return 1;
        }
        *innerVlan = Be16(data + kInnerTciOff) & kVlanIdMask;
    }
    *outerVlan = outer;
    return 0;
}

uint32_t PPPOE_PLUS_GetUserInfo(const FpcMbuf *mbuf, const PortCB *portCb, UserInfo *info)
{
    if (mbuf == nullptr || portCb == nullptr || info == nullptr) {
        ZAVK_Assert(kPktFile, __LINE__);
        return 1;
    }
    (void)PppoePlusFill(info, sizeof(*info), 0, sizeof(*info));
    info->IfIndex = portCb->ifIndex;
    (void)PPPOE_PLUS_GetIfNameByIfIndex(info->IfIndex, info->portName, sizeof(info->portName));
    uint32_t ret = 0;
    if (PPPOE_PLUS_IsTrunkIf(info->IfIndex) == 1) {
        (void)PppoePlusCopyStr(info->ifType, sizeof(info->ifType), "trunk");
        ret = PPPOE_PLUS_GetConfigTrunkIdByIfName(info->portName, &info->ulNas_Port);
    } else {
        (void)PppoePlusCopyStr(info->ifType, sizeof(info->ifType), "eth");
        ret = PPPOE_PLUS_GetIfSlotCardPort(info->IfIndex, &info->ulNas_Slot, &info->ulNas_SubSlot,
                                           &info->ulNas_Port);
    }
    if (ret != 0) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPPOE_PKT]Failed to get port information");
        return 1;
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO,
                         "[PPPOE_PKT]PPPOE PLUS Get User Define Info: ulNas_Slot:%u, ulNas_SubSlot:%u, ulNas_Port:%u",
                         info->ulNas_Slot, info->ulNas_SubSlot, info->ulNas_Port);
    if (PPPOE_PLUS_GetPktVlan(mbuf, &info->ulXpi, &info->ulXci) != 0) {
        ZAVK_Assert(kPktFile, __LINE__);
        return 1;
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO,
                         "[PPPOE_PKT]PPPOE PLUS Get User Define Info: IfIndex:%u, ulXpi:%u, ulXci:%u, ifType:%s, "
                         "portName:%s",
                         info->IfIndex, info->ulXpi, info->ulXci, info->ifType, info->portName);
    return 0;
}

uint32_t PPPOE_PLUS_GetDownlinkUserInfo(const FpcMbuf *mbuf, UserInfo *info, uint32_t ifIndex)
{
    if (mbuf == nullptr || info == nullptr) {
        ZAVK_Assert(kPktFile, __LINE__);
        return 1;
    }
    uint32_t outer = 0;
    uint32_t inner = 0;
    if (PPPOE_PLUS_GetPktVlan(mbuf, &outer, &inner) != 0) {
        return 1;
    }
    (void)PppoePlusFill(info, sizeof(*info), 0, sizeof(*info));
    info->ulXpi = outer;
    info->ulXci = inner;
    info->IfIndex = ifIndex;
    (void)PPPOE_PLUS_GetIfNameByIfIndex(ifIndex, info->portName, sizeof(info->portName));
    (void)PppoePlusCopyStr(info->ifType, sizeof(info->ifType), PPPOE_PLUS_IsTrunkIf(ifIndex) == 1 ? "trunk" : "eth");
    // Unlike the user side, a trunk keeps what its device node says: the
    // record only serves to rebuild the tag for the comparison.
    return PPPOE_PLUS_GetIfSlotCardPort(ifIndex, &info->ulNas_Slot, &info->ulNas_SubSlot, &info->ulNas_Port);
}

// ---------------------------------------------------------------------------
// The Vendor-Specific tag

uint8_t PPPOE_PLUS_GetPortPolicy(const PortCB *portCb)
{
    const uint8_t own = portCb != nullptr ? portCb->infoPolicy.load(std::memory_order_relaxed) : 0U;
    return own != PPPOE_PLUS_POLICY_UNSET ? own : PPPOE_PLUS_GetGlobalInfoPolicy();
}

// out holds PPPOE_PLUS_VENDOR_SPEC_BUF_LEN bytes.
uint32_t PPPOE_PLUS_EncodeVendorSpec(UserInfo *info, uint8_t *out, uint32_t *outLen)
{
    if (info == nullptr || out == nullptr || outLen == nullptr) {
        ZAVK_Assert(kPktFile, __LINE__);
        return 1;
    }
    // Read only as far as the lengths the builds report.
    uint8_t cid[PPPOE_PLUS_SUBOPT_BUF_LEN];
    uint8_t rid[PPPOE_PLUS_SUBOPT_BUF_LEN];
    uint32_t cidLen = 0;
    uint32_t ridLen = 0;
    if (PPPOE_PLUS_EncodeCidRid(info, cid, &cidLen, rid, &ridLen) != 0) {
        return 1;
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "Encode vendor specific.(cidLen=%u,ridLen=%u)", cidLen, ridLen);
    // Only what the encapsulation setting asks for was built; the other
    // length is 0.
    const bool withCid = PPPOE_PLUS_IsEncapOnlyRid() != 1;
    const bool withRid = PPPOE_PLUS_IsEncapOnlyCid() != 1;
    const uint32_t usedCid = withCid ? cidLen : 0U;
    const uint32_t usedRid = withRid ? ridLen : 0U;
    if (usedCid > sizeof(cid) || usedRid > sizeof(rid) ||
        usedCid + usedRid + PPPOE_PLUS_VENDOR_SPEC_HEAD_LEN > PPPOE_PLUS_VENDOR_SPEC_MAX) {
        return 1;
    }
    const uint32_t subLen = usedCid + usedRid;
    PutBe16(out, PPPOE_PLUS_TAG_VENDOR_SPEC);
    PutBe16(out + PPPOE_PLUS_TAG_LEN_OFF, subLen + PPPOE_PLUS_VENDOR_ID_LEN);
    const uint32_t vendorId = PPPOE_PLUS_GetVendorId();
    const uint8_t vendorBytes[PPPOE_PLUS_VENDOR_ID_LEN] = {
        static_cast<uint8_t>(vendorId >> 24), static_cast<uint8_t>(vendorId >> 16), static_cast<uint8_t>(vendorId >> 8),
        static_cast<uint8_t>(vendorId)};
    if (PppoePlusCopy(out + PPPOE_PLUS_VENDOR_ID_OFF, PPPOE_PLUS_VENDOR_SPEC_BUF_LEN - PPPOE_PLUS_VENDOR_ID_OFF,
                      vendorBytes, sizeof(vendorBytes)) != EOK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "set vendor id failed");
        return 1;
    }
    uint32_t pos = PPPOE_PLUS_VENDOR_SPEC_HEAD_LEN;
    if (usedCid != 0) {
        (void)PppoePlusCopy(out + pos, PPPOE_PLUS_VENDOR_SPEC_BUF_LEN - pos, cid, usedCid);
        pos += usedCid;
    }
    if (usedRid != 0) {
        (void)PppoePlusCopy(out + pos, PPPOE_PLUS_VENDOR_SPEC_BUF_LEN - pos, rid, usedRid);
    }
    *outLen = subLen + PPPOE_PLUS_VENDOR_SPEC_HEAD_LEN;
    return 0;
}

uint32_t PPPOE_PLUS_FindVendorSpecTag(const FpcMbuf *mbuf, const PppoeDiscHdr *hdr, uint32_t *offset)
{
    if (hdr == nullptr || offset == nullptr) {
        ZAVK_Assert(kPktFile, __LINE__);
        return 0;
    }
    // Any Vendor-Specific tag counts as agent information, whatever its
    // enterprise number; an empty one is skipped.
    bool found = false;
    auto isVendorSpec = [&found](uint32_t type, uint32_t len, uint32_t) {
        found = type == PPPOE_PLUS_TAG_VENDOR_SPEC && len != 0;
        return found;
    };
    const uint32_t at = WalkTags(TagArea(hdr), WalkableTagLen(mbuf, hdr), isVendorSpec);
    if (found) {
        *offset = at;
    }
    return found ? 1U : 0U;
}

void PPPOE_PLUS_GetTagsEndOffset(const PppoeDiscHdr *hdr, uint32_t *offset)
{
    if (hdr == nullptr || offset == nullptr) {
        ZAVK_Assert(kPktFile, __LINE__);
        return;
    }
    *offset = WalkTags(TagArea(hdr), PppoeLength(hdr), [](uint32_t, uint32_t, uint32_t) { return false; });
}

uint32_t PPPOE_PLUS_AddAgentInfo(FpcMbuf *mbuf, PppoeDiscHdr *hdr, PortCB *portCb, uint32_t offset)
{
    if (mbuf == nullptr || hdr == nullptr || portCb == nullptr) {
        ZAVK_Assert(kPktFile, __LINE__);
        return 1;
    }
    uint32_t ethHeadLen = 0;
    if (PPPOE_PLUS_GetPktHeadLen(mbuf, &ethHeadLen) != 0) {
        ZAVK_Assert(kPktFile, __LINE__);
        return 1;
    }
    UserInfo info;   // zeroed by PPPOE_PLUS_GetUserInfo
    uint8_t tag[PPPOE_PLUS_VENDOR_SPEC_BUF_LEN] = {};
    uint32_t tagLen = 0;
    if (PPPOE_PLUS_GetUserInfo(mbuf, portCb, &info) != 0 || PPPOE_PLUS_EncodeVendorSpec(&info, tag, &tagLen) != 0) {
        ZAVK_Assert(kPktFile, __LINE__);
        return 1;
    }
    // Without an End-Of-List tag in the frame, one is added behind ours.
    const uint32_t pppoeLen = PppoeLength(hdr);
    const uint32_t endTagLen = pppoeLen <= offset ? PPPOE_PLUS_TAG_HEAD_LEN : 0U;
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO,
                         "mbuf len=%u, venSpcInfoLen =%u, addEndTagLen = %u, offset =%u, ethHeadLen=%u, "
                         "pppoeHdr->headLen=%u",
                         mbuf->dataLen, tagLen, endTagLen, offset, ethHeadLen, pppoeLen);
    if (mbuf->dataLen + tagLen + endTagLen >= PPPOE_PLUS_FRAME_LEN_LIMIT) {
        // Forwarded without the tag rather than dropped.
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO,
                             "Add the agent informat error. the packet exceeds 1500 octets after adding theTAG "
                             "containing the access loop identification.");
        return 0;
    }
    InsertInPlace(mbuf, ethHeadLen, offset, tag, tagLen, endTagLen);
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "Add the agent informat.");
    PPPOE_PLUS_DumpPkt(mbuf);
    return 0;
}

uint32_t PPPOE_PLUS_DelAgentInfo(FpcMbuf *mbuf, PppoeDiscHdr *hdr, uint32_t offset)
{
    if (mbuf == nullptr || hdr == nullptr) {
        ZAVK_Assert(kPktFile, __LINE__);
        return 1;
    }
    uint32_t ethHeadLen = 0;
    if (PPPOE_PLUS_GetPktHeadLen(mbuf, &ethHeadLen) != 0) {
        return 1;
    }
    uint8_t *data = FrameData(mbuf);
    const uint32_t frameLen = mbuf->dataLen;
    const uint32_t tagStart = ethHeadLen + PPPOE_PLUS_PPPOE_HDR_LEN + offset;
    if (tagStart + PPPOE_PLUS_TAG_HEAD_LEN > frameLen) {
        return 1;
    }
    const uint32_t removed = Be16(data + tagStart + PPPOE_PLUS_TAG_LEN_OFF) + PPPOE_PLUS_TAG_HEAD_LEN;
    const uint32_t pppoeLen = PppoeLength(hdr);
    if (tagStart + removed > frameLen || removed > pppoeLen) {
        return 1;
    }
    PutBe16(hdr->length, pppoeLen - removed);
    const uint32_t tail = frameLen - tagStart - removed;
    if (tail != 0) {
        (void)PppoePlusMove(data + tagStart, frameLen - tagStart, data + tagStart + removed, tail);
    }
    mbuf->dataLen = frameLen - removed;
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "delete the agent informat.");
    PPPOE_PLUS_DumpPkt(mbuf);
    return 0;
}

uint32_t PPPOE_PLUS_IsOwnVendorSpec(FpcMbuf *mbuf, const PppoeDiscHdr *hdr, PortCB *portCb, uint32_t offset,
                                    uint32_t egrIfIndex)
{
    (void)portCb;  // the own tag is built for the egress (subscriber) port
    if (mbuf == nullptr || hdr == nullptr) {
        ZAVK_Assert(kPktFile, __LINE__);
        return 0;
    }
    if (offset + PPPOE_PLUS_TAG_HEAD_LEN > WalkableTagLen(mbuf, hdr)) {
        return 0;
    }
    const uint8_t *tag = TagArea(hdr) + offset;
    const uint32_t type = Be16(tag);
    const uint32_t tagLen = Be16(tag + PPPOE_PLUS_TAG_LEN_OFF);
    if (offset + PPPOE_PLUS_TAG_HEAD_LEN + tagLen > WalkableTagLen(mbuf, hdr)) {
        return 0;
    }
    if (type != PPPOE_PLUS_TAG_VENDOR_SPEC) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "It is not a vendor specific tag: type =%u", type);
    } else if (tagLen <= kVendorSpecValueMin) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "The length of vendor specific tag is invalid, len=%u", tagLen);
    } else {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "Print the pkt orig Vendor-Specific information.");
        PPPOE_PLUS_PrintVendorSpecInfo(tag);
    }

    UserInfo info = {};
    if (PPPOE_PLUS_GetDownlinkUserInfo(mbuf, &info, egrIfIndex) != 0) {
        return 0;
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO,
                         "Get the downlink port information.(portname=%s,svlan=%d,cvlan=%d,name=%s%d/%d/%d)",
                         info.portName, static_cast<int>(info.ulXpi), static_cast<int>(info.ulXci), info.ifType,
                         static_cast<int>(info.ulNas_Slot), static_cast<int>(info.ulNas_SubSlot),
                         static_cast<int>(info.ulNas_Port));

    // A failed build leaves zeros, which never equal a received tag.
    uint8_t own[PPPOE_PLUS_VENDOR_SPEC_BUF_LEN] = {};
    uint32_t ownLen = 0;
    (void)PPPOE_PLUS_EncodeVendorSpec(&info, own, &ownLen);
    const uint32_t ownTagLen = Be16(own + PPPOE_PLUS_TAG_LEN_OFF);
    if (Be16(own) == PPPOE_PLUS_TAG_VENDOR_SPEC && ownTagLen > kVendorSpecValueMin) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "Encode Vendor specific by configuration");
        PPPOE_PLUS_PrintVendorSpecInfo(own);
    }
    if (ownTagLen != tagLen) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO,
                             "The Vendor-Specific information length is different. Encode by config = %u, orig pkt "
                             "=%u",
                             ownTagLen, tagLen);
        return 0;
    }
    if (RUK_Mem_Cmp(own, tag, tagLen + PPPOE_PLUS_TAG_HEAD_LEN) == 0) {
        return 1;
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO,
                         "Receive pppoe packet for uplink port,the Vendor-Specific information value is differ with "
                         "self.");
    return 0;
}

uint32_t PPPOE_PLUS_ProcUserSidePkt(FpcMbuf *mbuf, PppoeDiscHdr *hdr, PortCB *portCb, DpxPktHead *head)
{
    if (mbuf == nullptr || hdr == nullptr || portCb == nullptr || head == nullptr) {
        ZAVK_Assert(kPktFile, __LINE__);
        PPPOE_PLUS_FpcMbufFree(mbuf);
        return 1;
    }
    uint32_t tagOffset = 0;
    const uint32_t exists = PPPOE_PLUS_FindVendorSpecTag(mbuf, hdr, &tagOffset);
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "Receive pppoe packet from Uplink port.(IsExist=%u)", exists);
    bool insert = false;
    switch (PPPOE_PLUS_GetPortPolicy(portCb)) {
        case PPPOE_PLUS_POLICY_REPLACE:
            if (exists == 1) {
                (void)PPPOE_PLUS_DelAgentInfo(mbuf, hdr, tagOffset);
            }
            insert = true;
            break;
        case PPPOE_PLUS_POLICY_DROP:
            if (exists == 1) {
                (void)PPPOE_PLUS_DelAgentInfo(mbuf, hdr, tagOffset);
            }
            break;
        case PPPOE_PLUS_POLICY_KEEP:
            insert = exists != 1;
            break;
        default:
            ZAVK_Assert(kPktFile, __LINE__);
            break;
    }
    if (insert) {
        uint32_t endOffset = 0;
        PPPOE_PLUS_GetTagsEndOffset(hdr, &endOffset);
        (void)PPPOE_PLUS_AddAgentInfo(mbuf, hdr, portCb, endOffset);
    }
    // Whatever happened to the tag, the frame goes on.
    return PPPOE_PLUS_SendToTrustPorts(mbuf, hdr, head);
}

uint32_t PPPOE_PLUS_ProcNetSidePkt(FpcMbuf *mbuf, PppoeDiscHdr *hdr, PortCB *portCb, DpxPktHead *head)
{
    if (mbuf == nullptr || hdr == nullptr || portCb == nullptr || head == nullptr) {
        ZAVK_Assert(kPktFile, __LINE__);
        PPPOE_PLUS_FpcMbufFree(mbuf);
        return 1;
    }
    if (portCb->trust.load(std::memory_order_relaxed) != 1) {
        PPPOE_PLUS_PktStatistic(PPPOE_PLUS_STAT_DISCARD, hdr, head->igrIfindex);
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO,
                             "Drop the pppoe packet,because of receive packet from the untrusted port.(ifIndex=%u)",
                             head->igrIfindex);
        PPPOE_PLUS_FpcMbufFree(mbuf);
        return 1;
    }
    const uint32_t egrIfIndex = head->egrIfindex;
    const PortCB *egrCb =
        egrIfIndex != PPPOE_PLUS_INVALID_IFINDEX ? PPPOE_PLUS_FindPortCBByindex(egrIfIndex) : nullptr;
    if (egrCb == nullptr) {
        PPPOE_PLUS_PktStatistic(PPPOE_PLUS_STAT_DISCARD, hdr, head->igrIfindex);
        PPPOE_PLUS_FpcMbufFree(mbuf);
        return 1;
    }
    switch (PPPOE_PLUS_GetPortPolicy(egrCb)) {
        case PPPOE_PLUS_POLICY_DROP:
            break;
        case PPPOE_PLUS_POLICY_REPLACE:
        case PPPOE_PLUS_POLICY_KEEP: {
            uint32_t tagOffset = 0;
            const uint32_t exists = PPPOE_PLUS_FindVendorSpecTag(mbuf, hdr, &tagOffset);
            PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "Receive pppoe packet from uplink port.(IsExist=0x%x)",
                                 exists);
            if (exists == 1 && PPPOE_PLUS_IsOwnVendorSpec(mbuf, hdr, portCb, tagOffset, egrIfIndex) == 1) {
                (void)PPPOE_PLUS_DelAgentInfo(mbuf, hdr, tagOffset);
            }
            break;
        }
        default:
            ZAVK_Assert(kPktFile, __LINE__);
            break;
    }
    return PPPOE_PLUS_SendPktToIf(mbuf, hdr, head);
}

// ---------------------------------------------------------------------------
// Forwarding

uint32_t PPPOE_PLUS_SendToTrustPorts(FpcMbuf *mbuf, const PppoeDiscHdr *hdr, DpxPktHead *head)
{
    if (mbuf == nullptr || hdr == nullptr || head == nullptr) {
        ZAVK_Assert(kPktFile, __LINE__);
        PPPOE_PLUS_FpcMbufFree(mbuf);
        return 1;
    }
    const uint32_t igrIfIndex = head->igrIfindex;
    uint32_t outer = 0;
    uint32_t inner = 0;
    if (PPPOE_PLUS_GetPktVlan(mbuf, &outer, &inner) != 0) {
        PPPOE_PLUS_PktStatistic(PPPOE_PLUS_STAT_DISCARD, hdr, igrIfIndex);
        PPPOE_PLUS_FpcMbufFree(mbuf);
        return 1;
    }
    uint32_t ports[PPPOE_PLUS_MAX_TRUST_PORTS] = {};
    uint32_t count = 0;
    PPPOE_PLUS_GetAllMatchTrustPort(ports, PPPOE_PLUS_MAX_TRUST_PORTS, &count, static_cast<uint16_t>(outer),
                                    igrIfIndex);
    if (count == 0) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "Send pppoe packet error,because of the trusted port don't exist.");
        PPPOE_PLUS_PktStatistic(PPPOE_PLUS_STAT_DISCARD, hdr, igrIfIndex);
        PPPOE_PLUS_FpcMbufFree(mbuf);
        return 1;
    }
    if (count == 1) {
        // The only uplink takes it, whatever egress the forwarding plane named.
        head->egrIfindex = ports[0];
        return PPPOE_PLUS_SendPktToIf(mbuf, hdr, head);
    }
    // A PADR goes only to the uplink the forwarding plane named, when it
    // named one; a PADI floods to all of them.
    const bool narrowed = hdr->code == PPPOE_PLUS_CODE_PADR && head->egrIfindex != PPPOE_PLUS_INVALID_IFINDEX;
    uint32_t ret = 0;
    for (uint32_t i = 0; i < count && i < PPPOE_PLUS_MAX_TRUST_PORTS; i++) {
        if (narrowed && ports[i] != head->egrIfindex) {
            continue;
        }
        FpcMbuf *copy = PPPOE_PLUS_FpcMbufPktCopy(mbuf);
        if (copy == nullptr) {
            continue;
        }
        DpxPktHead copyHead = *head;
        copyHead.egrIfindex = ports[i];
        // hdr points into the original, which outlives the loop.
        ret = PPPOE_PLUS_SendPktToIf(copy, hdr, &copyHead);
    }
    PPPOE_PLUS_FpcMbufFree(mbuf);
    return ret;
}

uint32_t PPPOE_PLUS_SendPktToIf(FpcMbuf *mbuf, const PppoeDiscHdr *hdr, const DpxPktHead *head)
{
    if (mbuf == nullptr || hdr == nullptr || head == nullptr) {
        ZAVK_Assert(kPktFile, __LINE__);
        PPPOE_PLUS_FpcMbufFree(mbuf);
        return 1;
    }
    const uint32_t igrIfIndex = head->igrIfindex;
    const uint32_t egrIfIndex = head->egrIfindex;
    if (PPPOE_PLUS_IsPortIsolate(igrIfIndex, egrIfIndex) == 1) {
        // Isolation is policy, not an error.
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "drop the pkt for port isolate srcIfIndex=%u, dstIfIndex=%u",
                             igrIfIndex, egrIfIndex);
        PPPOE_PLUS_PktStatistic(PPPOE_PLUS_STAT_DISCARD, hdr, igrIfIndex);
        PPPOE_PLUS_FpcMbufFree(mbuf);
        return 0;
    }
    // Counted as sent before the attempt; a later failure leaves it counted.
    PPPOE_PLUS_PktStatistic(PPPOE_PLUS_STAT_SEND, hdr, egrIfIndex);
    if (PPPOE_PLUS_FpcMbufPktAddHead(mbuf, PPPOE_PLUS_DPX_HEAD_LEN) != 0) {
        PPPOE_PLUS_PktStatistic(PPPOE_PLUS_STAT_DISCARD, hdr, igrIfIndex);
        PPPOE_PLUS_FpcMbufFree(mbuf);
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "Fpcmbuf add head failed.");
        return 1;
    }
    const DpxPktHead out = {PPPOE_PLUS_SEND_MSG_TYPE, egrIfIndex, 0};
    (void)PppoePlusCopy(FrameData(mbuf), mbuf->dataLen, &out, sizeof(out));

    // The send channel is looked up on first use and cached; a failed
    // look-up is retried at the next send.
    uint32_t channel = g_ppplus2DpxChnId.load(std::memory_order_relaxed);
    if (channel == kInvalidChannel || channel == kUnsetChannel) {
        channel = PPPOE_PLUS_FpcChannelGetIdByName(PPPOE_PLUS_TX_CHANNEL);
        if (channel != kInvalidChannel && channel != kUnsetChannel) {
            g_ppplus2DpxChnId.store(channel, std::memory_order_relaxed);
        }
    }
    uint32_t ret = 0;
    if (channel == kInvalidChannel || channel == kUnsetChannel) {
        PPPOE_PLUS_FpcMbufFree(mbuf);
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG, "[PPPOE_PKT] Send pkt get pppoeplus2dpx channel failed.");
        ret = 1;
    } else if (PPPOE_PLUS_FpcChannelDcSendByIdNoSem(PPPOE_PLUS_TX_THREAD, channel, PPPOE_PLUS_FPC_SEND_FLAGS, mbuf) !=
               0) {
        PPPOE_PLUS_FpcMbufFree(mbuf);
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG, "[PPPOE_PKT]  Send pkt to dpx failed.");
        ret = 1;
    } else {
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG, "[PPPOE_PKT]  Send pkt to dpx sucesss.");
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "Send pppoe packet to interface. (ifIndex=%u, ret = %u)", egrIfIndex,
                         ret);
    return ret;
}

// ---------------------------------------------------------------------------
// Counters: per port, five code groups of receive, send, discard.

static_assert(kPppoePlusCounterCount == PPPOE_PLUS_PORT_COUNTERS, "the counter table fills a port's counters");

void PPPOE_PLUS_PktStatistic(uint32_t kind, const PppoeDiscHdr *hdr, uint32_t ifIndex)
{
    if (hdr == nullptr) {
        ZAVK_Assert(kPktFile, __LINE__);
        return;
    }
    const int32_t index = PppoePlusCounterIndex(hdr->code, kind);
    if (index < 0) {
        return;
    }
    PortCB *portCb = PPPOE_PLUS_FindPortCBByindex(ifIndex);
    if (portCb == nullptr) {
        return;
    }
    portCb->stats[index].fetch_add(1, std::memory_order_relaxed);
}

uint32_t PPPOE_PLUS_GetPktStatisticNum(const PortCB *portCb, uint8_t code, uint32_t kind)
{
    const int32_t index = PppoePlusCounterIndex(code, kind);
    if (portCb == nullptr || index < 0) {
        return 0;
    }
    return portCb->stats[index].load(std::memory_order_relaxed);
}

}  // extern "C"
