// The packet relay: intake checks, the tag policy on the way up and down,
// the forwarding decision and the counters, with the real channel library
// standing in for the forwarding plane on both channels. The main task
// relaying what the forwarding plane punts runs end to end in
// interop_test.cpp.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "module_fixture.hpp"
#include "platform/control.h"
#include "pplus_test.hpp"
#include "pppoe_frame.hpp"
#include "pppoe_plus_cfg.h"
#include "pppoe_plus_fpc.h"
#include "pppoe_plus_init.h"
#include "pppoe_plus_log.h"
#include "pppoe_plus_mem.h"
#include "pppoe_plus_pkt.h"
#include "pppoe_plus_yangdb_cfg.h"
#include "wick.h"

using frames::Bytes;
using frames::Frame;
using pplus_test::LogHas;
namespace wire = frames::wire;

namespace {

constexpr uint32_t kSub = 1;     // GE0/0/1, a subscriber port
constexpr uint32_t kMember = 2;  // GE0/0/2, member of trunk 5
constexpr uint32_t kTrunk = 50;  // Eth-Trunk5
constexpr uint32_t kUpA = 10;    // uplinks in VLAN 100
constexpr uint32_t kUpB = 11;
constexpr uint32_t kUpC = 12;
constexpr uint32_t kNone = 0xFFFFFFFFU;
constexpr const char *kRx = "channel/dpx2ppplus";
constexpr const char *kTx = "channel/ppplus2dpx";
// Where the PPPoE header starts in a frame with one VLAN tag.
constexpr size_t kTaggedHeadLen = wire::kEthHeadLen + wire::kVlanTagLen;

// What this node builds for GE0/0/1 in VLAN 100 with the default formats.
const std::string kSubCid = "eth 0/0/1:100.0 TestSwitch/0/0/0/0/0";
const std::string kRid = "00e0-fc01-0203";

void BuildWorld()
{
    using namespace platform::world;
    IfPut({.name = "GE0/0/1", .ifIndex = kSub, .port = 1});
    IfPut({.name = "GE0/0/2", .ifIndex = kMember, .port = 2, .l2TrunkId = 5});
    IfPut({.name = "GE0/0/10", .ifIndex = kUpA, .port = 10});
    IfPut({.name = "GE0/0/11", .ifIndex = kUpB, .port = 11});
    IfPut({.name = "GE0/0/12", .ifIndex = kUpC, .port = 12});
    IfPut({.name = "Eth-Trunk5", .ifIndex = kTrunk, .lagId = 5});
    TrunkPut({5, kTrunk});
    TrunkPortPut({kMember, kTrunk});
    for (uint32_t up : {kUpA, kUpB, kUpC}) {
        PortVlanSet(up, 100, true);
    }
}

struct Sent {
    DpxPktHead head;
    Bytes frame;
};

// Everything the module has written to the send channel so far.
std::vector<Sent> TakeAll()
{
    std::vector<Sent> out;
    Bytes buf(4096);
    uint32_t len = 0;
    while (WICK_ChannelTake(kTx, buf.data(), static_cast<uint32_t>(buf.size()), &len, 0) == 0) {
        Sent s{};
        std::memcpy(&s.head, buf.data(), sizeof(s.head));
        s.frame.assign(buf.begin() + sizeof(DpxPktHead), buf.begin() + len);
        out.push_back(std::move(s));
    }
    return out;
}

Bytes OwnTag(const std::string &cid)
{
    return Frame::VendorValue(PPPOE_PLUS_DEFAULT_VENDOR_ID, cid, kRid);
}

class PktTest : public pplus_test::ModuleTest {
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        BuildWorld();
        PPPOE_PLUS_InitGlobalCfgData();
        g_pppoePlusGlobalInfo.enable = 1;
        ASSERT_EQ(PPPOE_PLUS_InitFpcIntf(), 0U);
        g_dpxToppplusChannel = FPC_ChannelCreate(kRx, 1024);
        ASSERT_NE(FPC_ChannelCreate(kTx, 1024), FPC_INVALID_ID);
        (void)PPPOE_PLUS_UpdateDebugSwitch(PPPOE_PLUS_DBG_ALL, 1);
        Port(kSub);
    }
    void TearDown() override { EXPECT_EQ(WICK_MbufOutstanding(), 0U); }

    static PortCB *Port(uint32_t ifIndex, uint8_t trust = 0, uint8_t policy = 0)
    {
        PortCB *cb = nullptr;
        EXPECT_EQ(PPPOE_PLUS_GetPortCBByIndex(ifIndex, &cb), 0U);
        cb->trust = trust;
        cb->infoPolicy = policy;
        return cb;
    }
    static void Relay(const Bytes &frame, uint32_t igr, uint32_t egr = kNone)
    {
        const Bytes msg = frames::WithDpxHead(frame, egr, igr);
        ASSERT_EQ(WICK_ChannelPut(kRx, msg.data(), static_cast<uint32_t>(msg.size())), 0U);
        PPPOE_PLUS_RxPktFromDpx();
    }
    static uint32_t Count(uint32_t ifIndex, uint8_t code, uint32_t kind)
    {
        return PPPOE_PLUS_GetPktStatisticNum(PPPOE_PLUS_FindPortCBByindex(ifIndex), code, kind);
    }
    // The one frame the module sent for frame, parsed; nothing when it sent none or several.
    static frames::ParsedFrame RelayOne(const Bytes &frame, uint32_t igr, uint32_t egr = kNone)
    {
        Relay(frame, igr, egr);
        const std::vector<Sent> out = TakeAll();
        EXPECT_EQ(out.size(), 1U);
        return out.size() != 1 ? frames::ParsedFrame{} : frames::Parse(out[0].frame).value_or(frames::ParsedFrame{});
    }
};

// Parses bytes in place, without a library buffer.
struct View {
    Bytes bytes;
    FpcMbuf mbuf{};
    explicit View(Bytes b) : bytes(std::move(b))
    {
        mbuf.pData = bytes.data();
        mbuf.dataLen = static_cast<uint32_t>(bytes.size());
        mbuf.bufLen = mbuf.dataLen;
    }
};

}  // namespace

TEST_F(PktTest, MessageLengthMustLieBetween27And2000WithTheHead)
{
    // A PADT padded to the message length; lengths that pass reach the frame checks.
    for (const uint32_t msgLen : {26U, 27U, 2000U, 2001U}) {
        PLAT_LogClear();
        Bytes frame = Frame().vlan(100).padt().bytes();
        frame.resize(msgLen - 12, 0);
        Relay(frame, kSub, kUpA);
        const bool passes = msgLen >= 27 && msgLen <= 2000;
        EXPECT_EQ(LogHas(PLAT_LOG_DEBUG, "[PPPOE_PKT] Check pkt msg len failed."), !passes) << msgLen;
        EXPECT_EQ(LogHas(PLAT_LOG_DEBUG, "[PPPOE_PKT] First cut head len 12"), passes) << msgLen;
        EXPECT_EQ(TakeAll().size(), msgLen == 2000 ? 1U : 0U) << msgLen;
    }
}

TEST_F(PktTest, TrunkMemberIsCountedOnItsTrunkAndOnItselfWhenTheLookupFails)
{
    Port(kTrunk);
    Port(kMember);
    Relay(Frame().vlan(100).padt().bytes(), kMember, kUpA);
    EXPECT_EQ(Count(kTrunk, PPPOE_PLUS_CODE_PADT, PPPOE_PLUS_STAT_RECV), 1U);
    EXPECT_EQ(Count(kMember, PPPOE_PLUS_CODE_PADT, PPPOE_PLUS_STAT_RECV), 0U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPPoE-Plus] Pkt receive on trunk port,  igrIfindex=50"));

    PLAT_FailSet("db_read_trunk_port_obj", 0, 1, 5);
    Relay(Frame().vlan(100).padt().bytes(), kMember, kUpA);
    EXPECT_EQ(Count(kMember, PPPOE_PLUS_CODE_PADT, PPPOE_PLUS_STAT_RECV), 1U);
    EXPECT_EQ(TakeAll().size(), 2U);

    // A subscriber on the trunk is described by the trunk in its Circuit-ID.
    Port(kUpA, 1);
    EXPECT_EQ(RelayOne(Frame().vlan(100).padi().bytes(), kMember).subOption(1),
              "trunk 0/0/5:100.0 TestSwitch/0/0/0/0/0");
}

TEST_F(PktTest, HeaderLengthAndVlansFollowTheTpids)
{
    struct Row {
        const char *why;
        Bytes frame;
        std::array<uint32_t, 5> expect;  // head length result and value, VLAN result, outer and inner VLAN
    };
    // An 802.3 length field, then LLC AA AA 03 and a zero SNAP OUI.
    const uint8_t llcSnap[] = {0x00, 0x30, 0xAA, 0xAA, 0x03, 0x00, 0x00, 0x00};
    static_assert(wire::kSnapOuiOff + 3 == wire::kEthTypeOff + sizeof(llcSnap));
    Bytes snap = Frame().serviceName().bytes();
    std::copy(std::begin(llcSnap), std::end(llcSnap), snap.begin() + wire::kEthTypeOff);
    Bytes badOui = snap;
    badOui[wire::kSnapOuiOff + 1] = 1;
    Bytes cutShort = Frame().vlan(100).qinq(200).bytes();
    cutShort.resize(20);
    const Row rows[] = {
        {"untagged", Frame().bytes(), {0, 14, 1, 0, 0}},
        {"one 0x8100 tag", Frame().vlan(100).bytes(), {0, 18, 0, 100, 0}},
        {"one 0x9100 tag", Frame().vlan(300, 0x9100).bytes(), {0, 18, 0, 300, 0}},
        {"0x9100 outer, 0x8100 inner", Frame().vlan(100, 0x9100).qinq(200).bytes(), {0, 22, 0, 100, 200}},
        {"0x9100 is no inner TPID", Frame().vlan(100).vlan(200, 0x9100).bytes(), {0, 18, 0, 100, 0}},
        {"priority bits are masked", Frame().vlan(0xE064).bytes(), {0, 18, 0, 100, 0}},
        {"LLC/SNAP", snap, {0, 22, 1, 0, 0}},
        {"SNAP with a non-zero OUI", badOui, {1, 0, 1, 0, 0}},
        {"second tag cut short", cutShort, {1, 0, 1, 0, 0}},
    };
    for (const Row &row : rows) {
        View v(row.frame);
        std::array<uint32_t, 5> got{};
        got[0] = PPPOE_PLUS_GetPktHeadLen(&v.mbuf, &got[1]);
        got[2] = PPPOE_PLUS_GetPktVlan(&v.mbuf, &got[3], &got[4]);
        EXPECT_EQ(got, row.expect) << row.why;
    }
}

TEST_F(PktTest, FramesDroppedAtIntakeCountOnlyWhatTheirStageAllows)
{
    struct Row {
        const char *why;
        uint8_t enable;
        Bytes frame;
        uint8_t code;
        uint32_t recv, discard;
    };
    const Row rows[] = {
        {"feature off", 0, Frame().vlan(100).padi().bytes(), PPPOE_PLUS_CODE_PADI, 0, 0},
        {"version and type 0x12", 1, Frame().vlan(100).padr().verType(0x12).bytes(), PPPOE_PLUS_CODE_PADR, 0, 1},
        {"tag area shorter than announced", 1, Frame().vlan(100).padi().serviceName().length(40).bytes(),
         PPPOE_PLUS_CODE_PADI, 1, 0},
        {"PADT without egress", 1, Frame().vlan(100).padt().bytes(), PPPOE_PLUS_CODE_PADT, 1, 1},
        {"untagged PADI", 1, Frame().padi().bytes(), PPPOE_PLUS_CODE_PADI, 1, 1},
        {"PADI without a trusted uplink", 1, Frame().vlan(100).padi().bytes(), PPPOE_PLUS_CODE_PADI, 1, 1},
    };
    for (const Row &row : rows) {
        PPPOE_PLUS_ResetStatisticsProc();
        g_pppoePlusGlobalInfo.enable = row.enable;
        Relay(row.frame, kSub);
        EXPECT_EQ(Count(kSub, row.code, PPPOE_PLUS_STAT_RECV), row.recv) << row.why;
        EXPECT_EQ(Count(kSub, row.code, PPPOE_PLUS_STAT_DISCARD), row.discard) << row.why;
        EXPECT_TRUE(TakeAll().empty()) << row.why;
    }
    // An unknown code is freed and leaves every counter alone.
    PPPOE_PLUS_ResetStatisticsProc();
    Relay(Frame().vlan(100).code(0x00).bytes(), kSub);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPoE-Plus] invalid pkt."));
    for (uint8_t code : {0x09, 0x07, 0x19, 0x65, 0xA7}) {
        for (uint32_t kind = 0; kind < 3; kind++) {
            EXPECT_EQ(Count(kSub, code, kind), 0U);
        }
    }
}

TEST_F(PktTest, FirstFrameOfAPortWithoutConfigurationIsCountedOnIt)
{
    // GE0/0/11 and GE0/0/12 carry no configuration: no block until a frame comes.
    Port(kUpA, 1);
    ASSERT_EQ(PPPOE_PLUS_FindPortCBByindex(kUpB), nullptr);
    Relay(Frame().vlan(100).padi().bytes(), kUpB);
    EXPECT_EQ(Count(kUpB, PPPOE_PLUS_CODE_PADI, PPPOE_PLUS_STAT_RECV), 1U);
    EXPECT_EQ(Count(kUpA, PPPOE_PLUS_CODE_PADI, PPPOE_PLUS_STAT_SEND), 1U);
    EXPECT_EQ(TakeAll().size(), 1U);

    ASSERT_EQ(PPPOE_PLUS_FindPortCBByindex(kUpC), nullptr);
    Relay(Frame().vlan(100).padr().verType(0x12).bytes(), kUpC);
    EXPECT_EQ(Count(kUpC, PPPOE_PLUS_CODE_PADR, PPPOE_PLUS_STAT_DISCARD), 1U);
}

TEST_F(PktTest, OwnTagGoesBeforeEndOfListOrGetsOneOfItsOwn)
{
    Port(kUpA, 1);
    frames::ParsedFrame f = RelayOne(Frame().vlan(100).padi().bytes(), kSub);
    ASSERT_EQ(f.tags.size(), 2U);
    EXPECT_EQ(f.tags[0].value, OwnTag(kSubCid));
    EXPECT_EQ(f.tags[1].type, 0x0000);
    EXPECT_EQ(size_t{f.pppoeLength}, wire::kTagHeadLen + OwnTag(kSubCid).size() + wire::kTagHeadLen);

    f = RelayOne(Frame().vlan(100).padi().serviceName("isp").eol().bytes(), kSub);
    ASSERT_EQ(f.tags.size(), 3U);
    EXPECT_EQ(f.tags[0].type, 0x0101);
    EXPECT_EQ(f.tags[1].value, OwnTag(kSubCid));
    EXPECT_EQ(f.tags[2].type, 0x0000);
    EXPECT_EQ(size_t{f.pppoeLength},
              (wire::kTagHeadLen + 3) + (wire::kTagHeadLen + OwnTag(kSubCid).size()) + wire::kTagHeadLen);
}

TEST_F(PktTest, OwnTagCarriesTheConfiguredVendorAndSubOptions)
{
    Port(kUpA, 1);
    // Encapsulation, vendor, and the tag's value.
    const std::tuple<uint8_t, uint32_t, Bytes> rows[] = {
        {PPPOE_PLUS_ENCAP_CID, 9, Frame::VendorValue(9, kSubCid, "")},
        {PPPOE_PLUS_ENCAP_RID, 0x01020304, Frame::VendorValue(0x01020304, "", kRid)},
        {PPPOE_PLUS_ENCAP_BOTH, PPPOE_PLUS_DEFAULT_VENDOR_ID, OwnTag(kSubCid)},
    };
    for (const auto &[encap, vendor, value] : rows) {
        g_pppoePlusGlobalInfo.infoEncap = encap;
        g_pppoePlusGlobalInfo.vendorId = vendor;
        const frames::ParsedFrame f = RelayOne(Frame().vlan(100).padi().eol().bytes(), kSub);
        ASSERT_NE(f.find(0x0105), nullptr);
        EXPECT_EQ(f.find(0x0105)->value, value) << "encap " << int{encap};
    }
}

TEST_F(PktTest, SubscriberTagIsReplacedKeptOrDroppedByPolicy)
{
    struct Row {
        uint8_t globalPolicy, portPolicy;
        bool received;
        const char *expectCid;  // Circuit-ID leaving the node; null: no Vendor-Specific tag
    };
    const Row rows[] = {
        {1, 0, false, kSubCid.c_str()}, {1, 0, true, kSubCid.c_str()}, {3, 0, false, kSubCid.c_str()},
        {3, 0, true, "subscriber"},     {2, 0, false, nullptr},        {2, 0, true, nullptr},
        {2, 1, true, kSubCid.c_str()},  {1, 2, true, nullptr},         {1, 3, true, "subscriber"},
    };
    Port(kUpA, 1);
    for (const Row &row : rows) {
        g_pppoePlusGlobalInfo.infoPolicy = row.globalPolicy;
        Port(kSub, 0, row.portPolicy);
        Frame frame = Frame().vlan(100).padr().hostUniq();
        if (row.received) {
            frame.vendor(9, "subscriber");
        }
        SCOPED_TRACE("global " + std::to_string(row.globalPolicy) + " port " + std::to_string(row.portPolicy) +
                     (row.received ? " with tag" : ""));
        const frames::ParsedFrame f = RelayOne(frame.eol().bytes(), kSub);
        if (row.expectCid == nullptr) {
            EXPECT_EQ(f.find(0x0105), nullptr);
        } else {
            EXPECT_EQ(f.subOption(1), row.expectCid);
        }
        ASSERT_GE(f.tags.size(), 2U);
        EXPECT_EQ(f.tags.front().type, 0x0103);
        EXPECT_EQ(f.tags.back().type, 0x0000);
    }
}

TEST_F(PktTest, TagIsLeftOutWhenTheFrameWouldReach1500Bytes)
{
    Port(kUpA, 1);
    // The own tag and an End-Of-List tag.
    const uint32_t added = static_cast<uint32_t>(wire::kTagHeadLen + OwnTag(kSubCid).size() + wire::kTagHeadLen);
    const size_t bare = kTaggedHeadLen + wire::kPppoeHeadLen + wire::kTagHeadLen;  // a Host-Uniq tag, empty
    for (const uint32_t total : {1499U, 1500U}) {
        const Bytes frame = Frame().vlan(100).padi().hostUniq(std::string(total - added - bare, 'u')).bytes();
        ASSERT_EQ(frame.size() + added, total);
        Relay(frame, kSub);
        const auto out = TakeAll();
        ASSERT_EQ(out.size(), 1U);
        EXPECT_EQ(out[0].frame.size(), total == 1499 ? total : frame.size());
    }
}

TEST_F(PktTest, InsertionWithoutRoomBehindTheDataChangesNothing)
{
    PortCB *sub = Port(kSub);
    View v(Frame().vlan(100).padi().bytes());
    const Bytes before = v.bytes;
    auto *hdr = reinterpret_cast<PppoeDiscHdr *>(v.bytes.data() + kTaggedHeadLen);
    const uint32_t mem = PLAT_MemOutstanding();
    EXPECT_EQ(PPPOE_PLUS_AddAgentInfo(&v.mbuf, hdr, sub, 0), 0U);
    EXPECT_EQ(v.bytes, before);
    EXPECT_EQ(v.mbuf.dataLen, before.size());
    EXPECT_EQ(PLAT_MemOutstanding(), mem);
}

TEST_F(PktTest, ServerRepliesNeedATrustedPortAndLoseOnlyOurExactTag)
{
    Port(kUpA, 0);
    Relay(Frame().vlan(100).pado().bytes(), kUpA, kSub);
    EXPECT_EQ(Count(kUpA, PPPOE_PLUS_CODE_PADO, PPPOE_PLUS_STAT_DISCARD), 1U);
    EXPECT_TRUE(TakeAll().empty());

    Port(kUpA, 1);
    Relay(Frame().vlan(100).pads().bytes(), kUpA, kNone);  // no egress
    Relay(Frame().vlan(100).pads().bytes(), kUpA, 77);     // egress without a control block
    EXPECT_EQ(Count(kUpA, PPPOE_PLUS_CODE_PADS, PPPOE_PLUS_STAT_DISCARD), 2U);
    EXPECT_TRUE(TakeAll().empty());

    std::string offByOne = kRid;
    offByOne.back() = '4';
    // The egress port's policy, the Vendor-Specific value the reply carries, and whether it goes.
    const std::tuple<uint8_t, Bytes, bool> rows[] = {
        {1, OwnTag(kSubCid), true},
        {3, OwnTag(kSubCid), true},
        {2, OwnTag(kSubCid), false},
        {1, Frame::VendorValue(PPPOE_PLUS_DEFAULT_VENDOR_ID, kSubCid, offByOne), false},
        {1, OwnTag("eth 0/0/1:101.0 TestSwitch/0/0/0/0/0"), false},
    };
    for (const auto &[egressPolicy, tag, stripped] : rows) {
        Port(kSub, 0, egressPolicy);
        Relay(Frame().vlan(100).pado().tag(0x0105, tag).eol().bytes(), kUpA, kSub);
        const auto out = TakeAll();
        ASSERT_EQ(out.size(), 1U);
        EXPECT_EQ(out[0].head.egrIfindex, kSub);
        const auto f = frames::Parse(out[0].frame);
        EXPECT_EQ(f->find(0x0105) == nullptr, stripped);
        EXPECT_EQ(size_t{f->pppoeLength}, stripped ? 4U : 8U + tag.size());
    }
}

TEST_F(PktTest, PadiFloodsEveryTrustedUplinkWhilePadrFollowsTheNamedOne)
{
    for (uint32_t up : {kUpA, kUpB, kUpC}) {
        Port(up, 1);
    }
    // The code, the egress the plane names, and the uplinks the frame goes to.
    const std::tuple<uint8_t, uint32_t, std::vector<uint32_t>> rows[] = {
        {PPPOE_PLUS_CODE_PADI, kUpB, {kUpA, kUpB, kUpC}},
        {PPPOE_PLUS_CODE_PADR, kUpB, {kUpB}},
        {PPPOE_PLUS_CODE_PADR, kNone, {kUpA, kUpB, kUpC}},
        {PPPOE_PLUS_CODE_PADR, kSub, {}},  // named egress is no trusted uplink: dropped uncounted
    };
    for (const auto &[code, egr, sentTo] : rows) {
        PPPOE_PLUS_ResetStatisticsProc();
        Relay(Frame().vlan(100).code(code).bytes(), kSub, egr);
        std::vector<uint32_t> to;
        for (const Sent &s : TakeAll()) {
            to.push_back(s.head.egrIfindex);
            EXPECT_EQ(s.head.msgType, PPPOE_PLUS_SEND_MSG_TYPE);
            EXPECT_EQ(s.head.igrIfindex, 0U);
        }
        EXPECT_EQ(to, sentTo) << "code " << int{code} << " egress " << egr;
        for (uint32_t up : {kUpA, kUpB, kUpC}) {
            const bool sent = std::find(sentTo.begin(), sentTo.end(), up) != sentTo.end();
            EXPECT_EQ(Count(up, code, PPPOE_PLUS_STAT_SEND), sent ? 1U : 0U);
        }
        EXPECT_EQ(Count(kSub, code, PPPOE_PLUS_STAT_RECV), 1U);
        EXPECT_EQ(Count(kSub, code, PPPOE_PLUS_STAT_DISCARD), 0U);
    }
    // A single trusted uplink takes a PADR whatever egress was named.
    Port(kUpB, 0);
    Port(kUpC, 0);
    Relay(Frame().vlan(100).padr().bytes(), kSub, kUpB);
    const auto out = TakeAll();
    ASSERT_EQ(out.size(), 1U);
    EXPECT_EQ(out[0].head.egrIfindex, kUpA);
}

TEST_F(PktTest, SharedIsolationGroupDropsBelowId65Only)
{
    Port(kUpA, 1);
    for (const uint32_t group : {7U, 70U}) {
        platform::world::PortIsolatePut({kSub, group});
        platform::world::PortIsolatePut({kUpA, group});
        PPPOE_PLUS_ResetStatisticsProc();
        const Bytes frame = Frame().vlan(100).padt().bytes();
        FpcMbuf *mbuf = PPPOE_PLUS_FpcMbufPktNewFromData(frame.data(), static_cast<uint32_t>(frame.size()));
        const DpxPktHead head = {0, kUpA, kSub};
        const auto *hdr = reinterpret_cast<const PppoeDiscHdr *>(mbuf->pData + mbuf->dataOff + kTaggedHeadLen);
        EXPECT_EQ(PPPOE_PLUS_SendPktToIf(mbuf, hdr, &head), 0U) << group;
        EXPECT_EQ(TakeAll().size(), group == 7 ? 0U : 1U) << group;
        EXPECT_EQ(Count(kSub, PPPOE_PLUS_CODE_PADT, PPPOE_PLUS_STAT_DISCARD), group == 7 ? 1U : 0U) << group;
        EXPECT_EQ(Count(kUpA, PPPOE_PLUS_CODE_PADT, PPPOE_PLUS_STAT_SEND), group == 7 ? 0U : 1U) << group;
        platform::world::PortIsolateRemove({kSub, group});
        platform::world::PortIsolateRemove({kUpA, group});
    }
}

TEST_F(PktTest, SendChannelIsLookedUpOnceAndRetriedAfterAFailure)
{
    Port(kUpA);
    const Bytes padt = Frame().vlan(100).padt().bytes();
    PLAT_CallCountReset();
    PLAT_FailSet("FPC_ChannelGetIdByName", 0, 1, 1);
    Relay(padt, kSub, kUpA);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPOE_PKT] Send pkt get pppoeplus2dpx channel failed."));
    EXPECT_EQ(g_ppplus2DpxChnId.load(), FPC_INVALID_ID);
    for (int i = 0; i < 3; i++) {
        Relay(padt, kSub, kUpA);
    }
    EXPECT_EQ(PLAT_CallCount("FPC_ChannelGetIdByName"), 2U);
    EXPECT_EQ(g_ppplus2DpxChnId.load(), FPC_ChannelGetIdByName(kTx));
    EXPECT_EQ(TakeAll().size(), 3U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPOE_PKT]  Send pkt to dpx sucesss."));

    // A failed send or head stays counted as sent; a failed head also as a discard.
    PLAT_FailSet("FPC_ChannelDcSendByIdNoSem", 0, 1, 1);
    Relay(padt, kSub, kUpA);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPOE_PKT]  Send pkt to dpx failed."));
    PLAT_FailSet("MbufPktAddHead", 0, 1, 1);
    Relay(padt, kSub, kUpA);
    EXPECT_TRUE(TakeAll().empty());
    EXPECT_EQ(Count(kUpA, PPPOE_PLUS_CODE_PADT, PPPOE_PLUS_STAT_SEND), 6U);
    EXPECT_EQ(Count(kSub, PPPOE_PLUS_CODE_PADT, PPPOE_PLUS_STAT_DISCARD), 1U);
}
