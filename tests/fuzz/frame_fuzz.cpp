// libFuzzer target: arbitrary bytes as a frame the forwarding plane punts,
// with an arbitrary ingress and egress port and configuration, through the
// agent's real receive path (the receive channel, PPPOE_PLUS_RxPktFromDpx,
// the tag policy, the forwarding decision and the send channel).
//
// Input: byte 0 picks the ingress port, byte 1 the egress the plane names,
// byte 2 the configuration (policy, encapsulation, Circuit-ID format),
// the rest is the frame. A finding is a sanitizer report or a broken
// invariant (trap): every frame buffer taken from the channel is consumed
// exactly once, the agent's memory is back where it was, and every frame it
// sends is well formed (a send head naming a real port, the frame as
// received outside its PPPoE tag area, a PPPoE length that fits the frame,
// at most eight copies).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <span>
#include <vector>

#include "device/world.hpp"
#include "fuzz_support.hpp"
#include "platform/control.h"
#include "platform/world.hpp"
#include "pppoe_plus_cfg.h"
#include "pppoe_plus_fpc.h"
#include "pppoe_plus_ha.h"
#include "pppoe_plus_log.h"
#include "pppoe_plus_mem.h"
#include "pppoe_plus_pkt.h"
#include "pppoe_plus_tlv.h"
#include "wick.h"

using pplus_fuzz::Require;

namespace {

constexpr const char *kRx = "channel/dpx2ppplus";
constexpr const char *kTx = "channel/ppplus2dpx";
constexpr uint32_t kNoPort = 0xFFFFFFFFU;
constexpr uint32_t kSendMsgType = 133;
constexpr size_t kControlBytes = 3;
constexpr size_t kPppoeLenOffset = 4;  // within the PPPoE header
constexpr uint32_t kMaxCopies = 8;

// The world: subscriber ports 1-3 (3 isolated from 1), trunk 50 with
// member 4, uplinks 10-12 trusted in VLAN 100, uplink 13 untrusted; every
// other ingress is a port the world does not know.
constexpr const char *kTopology = R"(system: {name: FuzzSwitch, mac: "00:e0:fc:01:02:03"}
interfaces:
  - {name: GE0/0/1, ifindex: 1, port: 1}
  - {name: GE0/0/2, ifindex: 2, port: 2}
  - {name: GE0/0/3, ifindex: 3, port: 3}
  - {name: GE0/0/4, ifindex: 4, port: 4}
  - {name: GE0/0/10, ifindex: 10, port: 10, vlans: [100]}
  - {name: GE0/0/11, ifindex: 11, port: 11, vlans: [100]}
  - {name: GE0/0/12, ifindex: 12, port: 12, vlans: [100]}
  - {name: GE0/0/13, ifindex: 13, port: 13}
trunks:
  - {name: Eth-Trunk5, id: 5, ifindex: 50, members: [GE0/0/4]}
isolation:
  groups:
    - {id: 1, members: [GE0/0/1, GE0/0/3]}
)";
constexpr uint32_t kTrunk = 50;
constexpr uint32_t kTrusted[] = {10, 11, 12};
constexpr uint32_t kPortChoices = 64;  // ingress and egress are taken modulo this, 63 = none
static_assert(kTrunk < kPortChoices);

uint16_t U16(std::span<const uint8_t> b, size_t off)
{
    return static_cast<uint16_t>(b[off] << 8 | b[off + 1]);
}

void BuildWorld()
{
    std::string error;
    const auto topology = device::world::LoadTopologyText(kTopology, &error);
    Require(topology.has_value());
    platform::world::ApplyTopology(*topology);
    platform::world::SetDevmReady(true);
}

bool Trusted(uint32_t ifIndex)
{
    return ifIndex == kTrunk || std::find(std::begin(kTrusted), std::end(kTrusted), ifIndex) != std::end(kTrusted);
}

uint32_t PortOf(uint8_t b)
{
    const uint32_t choice = b % kPortChoices;
    return choice == kPortChoices - 1 ? kNoPort : choice;
}

void Configure(uint8_t c)
{
    constexpr uint8_t kPolicies[] = {PPPOE_PLUS_POLICY_REPLACE, PPPOE_PLUS_POLICY_DROP, PPPOE_PLUS_POLICY_KEEP,
                                     PPPOE_PLUS_POLICY_REPLACE};
    PPPOE_PLUS_SetGlobalInfoPolicy(kPolicies[c & 3U]);
    PPPOE_PLUS_SetInfoEncap(1, static_cast<uint8_t>(1 + (c >> 2 & 3U) % 3));
    switch (c >> 4 & 3U) {
        case 0: (void)PPPOE_PLUS_SetGlobalCidFormat(PPPOE_PLUS_FORMAT_COMMON, ""); break;
        case 1: (void)PPPOE_PLUS_SetGlobalCidFormat(PPPOE_PLUS_FORMAT_EXTEND, ""); break;
        case 2: (void)PPPOE_PLUS_SetGlobalCidFormat(PPPOE_PLUS_FORMAT_USER_DEFINE, "\"%sysname/%port/%svlan\""); break;
        default: (void)PPPOE_PLUS_SetGlobalCidFormat(PPPOE_PLUS_FORMAT_USER_DEFINE, "%portname %mac"); break;
    }
    g_pppoePlusGlobalInfo.enable = (c & 0x40U) != 0 ? 0 : 1;
}

// The Ethernet header length as the agent computes it (tags, SNAP); 0 when
// the frame has none.
size_t HeadLen(std::span<const uint8_t> f)
{
    FpcMbuf mbuf{};
    mbuf.pData = const_cast<uint8_t *>(f.data());
    mbuf.dataLen = static_cast<uint32_t>(f.size());
    mbuf.bufLen = mbuf.dataLen;
    uint32_t len = 0;
    return PPPOE_PLUS_GetPktHeadLen(&mbuf, &len) == 0 ? len : 0;
}

// A frame the agent sent, checked against the one it received.
void CheckSent(std::span<const uint8_t> msg, std::span<const uint8_t> in, uint32_t egress)
{
    Require(msg.size() >= PPPOE_PLUS_DPX_HEAD_LEN);
    DpxPktHead head{};
    std::memcpy(&head, msg.data(), sizeof(head));
    Require(head.msgType == kSendMsgType);
    Require(head.igrIfindex == 0);
    // The egress the plane named (PADO, PADS, PADT) or a trusted uplink (PADI, PADR).
    Require(head.egrIfindex == egress || Trusted(head.egrIfindex));
    const std::span<const uint8_t> out = msg.subspan(PPPOE_PLUS_DPX_HEAD_LEN);

    // Ethernet and PPPoE headers as received; the PPPoE length fits.
    const size_t eth = HeadLen(in);
    Require(eth != 0 && HeadLen(out) == eth);
    const size_t tagsAt = eth + PPPOE_PLUS_PPPOE_HDR_LEN;
    Require(out.size() >= tagsAt && in.size() >= tagsAt);
    Require(std::memcmp(out.data(), in.data(), eth + kPppoeLenOffset) == 0);
    const size_t inTags = U16(in, eth + kPppoeLenOffset);
    const size_t outTags = U16(out, eth + kPppoeLenOffset);
    Require(tagsAt + outTags <= out.size());
    // Only the tag area changed: whatever followed it is carried as it was.
    Require(in.size() >= tagsAt + inTags);
    const size_t trailer = in.size() - tagsAt - inTags;
    Require(out.size() == tagsAt + outTags + trailer);
    Require(std::memcmp(out.data() + tagsAt + outTags, in.data() + tagsAt + inTags, trailer) == 0);
    // A frame that grew stays below the frame size limit.
    Require(out.size() <= in.size() || out.size() < PPPOE_PLUS_FRAME_LEN_LIMIT);
}

std::vector<uint8_t> g_msg;
std::vector<uint8_t> g_buf(4096);

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    pplus_fuzz::RunFromOwnFolder();  // the module opens "../lib/libwick.so"
    BuildWorld();
    Require(PPPOE_PLUS_InitMemHandle() == 0U);
    Require(PPPOE_PLUS_InitIMAgent() == 0U);
    Require(PPPOE_PLUS_InitKeyWordDict() == 0U);
    PPPOE_PLUS_InitGlobalCfgData();
    g_pplusHaRole = PPPOE_PLUS_HA_ROLE_MASTER;
    Require(PPPOE_PLUS_InitFpcIntf() == 0U);
    g_dpxToppplusChannel = FPC_ChannelCreate(kRx, 1024);
    Require(g_dpxToppplusChannel != FPC_INVALID_ID);
    Require(FPC_ChannelCreate(kTx, 1024) != FPC_INVALID_ID);
    (void)PPPOE_PLUS_UpdateDebugSwitch(PPPOE_PLUS_DBG_ALL, 1);
    // Every port a frame can name has its control block from the start, so
    // that the agent's memory is the same before and after each frame.
    // Trust is set in the blocks: no forwarding manager listens here.
    for (uint32_t choice = 0; choice < kPortChoices; choice++) {
        const uint32_t ifIndex = PortOf(static_cast<uint8_t>(choice));
        PortCB *cb = nullptr;
        Require(PPPOE_PLUS_GetPortCBByIndex(ifIndex, &cb) == 0U);
        cb->trust = Trusted(ifIndex) ? 1 : 0;
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < kControlBytes) {
        return 0;
    }
    const std::span<const uint8_t> frame(data + kControlBytes, size - kControlBytes);
    Configure(data[2]);
    const uint32_t memBefore = PLAT_MemOutstanding();

    DpxPktHead head{};
    head.msgType = 0;
    head.igrIfindex = PortOf(data[0]);
    head.egrIfindex = PortOf(data[1]);
    g_msg.resize(sizeof(head) + frame.size());
    std::memcpy(g_msg.data(), &head, sizeof(head));
    std::memcpy(g_msg.data() + sizeof(head), frame.data(), frame.size());
    if (WICK_ChannelPut(kRx, g_msg.data(), static_cast<uint32_t>(g_msg.size())) != 0) {
        return 0;  // larger than a frame buffer: the plane could not punt it
    }
    PPPOE_PLUS_RxPktFromDpx();

    uint32_t copies = 0;
    uint32_t len = 0;
    while (WICK_ChannelTake(kTx, g_buf.data(), static_cast<uint32_t>(g_buf.size()), &len, 0) == 0) {
        copies++;
        CheckSent(std::span<const uint8_t>(g_buf.data(), len), frame, head.egrIfindex);
    }
    Require(copies <= kMaxCopies);
    Require(WICK_ChannelDepth(kRx) == 0);
    Require(WICK_MbufOutstanding() == 0);
    Require(PLAT_MemOutstanding() == memBefore);
    return 0;
}
