// The forwarding plane: VLAN classification and tagging, MAC learning and
// flooding, punting of discovery frames to the agent only while the feature
// is on, and transmission of what the agent sends back; the subscriber
// table and punt policing. The test stands in for the agent: it takes from
// "channel/dpx2ppplus" and puts to "channel/ppplus2dpx".
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <tuple>

#include "device/fplane.hpp"
#include "device/fwm.hpp"
#include "device/world.hpp"
#include "platform/control.h"
#include "pplus_test.hpp"
#include "pppoe_frame.hpp"
#include "wick.h"

namespace {

using namespace std::chrono_literals;
using device::fplane::DpxPktHead;
using device::fplane::ForwardingPlane;
using device::fplane::MemoryPorts;
using device::fplane::PuntRate;
using frames::Bytes;
using frames::Frame;
using frames::PlainFrame;

// Access ports 5, 6 (VLAN 100), 7 (VLAN 101), 10 (VLAN 100, off board);
// uplink trunk port 49 (VLANs 100, 101); trunk 100 of members 27, 28
// (VLAN 100).
constexpr const char *kTopology = R"(
system: {name: Lab}
interfaces:
  - {name: Sub1, ifindex: 5, pvid: 100}
  - {name: Sub2, ifindex: 6, pvid: 100}
  - {name: Sub3, ifindex: 7, pvid: 101}
  - {name: Sub4, ifindex: 10, pvid: 100, on-board: false}
  - {name: Up1, ifindex: 49, mode: trunk, vlans: ["100-101"]}
  - {name: Ring1, ifindex: 27, mode: trunk, vlans: [100]}
  - {name: Ring2, ifindex: 28, mode: trunk, vlans: [100]}
trunks:
  - {name: Trunk1, id: 1, ifindex: 100, members: [Ring1, Ring2], mode: trunk, vlans: [100]}
)";

constexpr frames::Mac kHostA{0x02, 0, 0, 0, 0, 0x0a};
constexpr frames::Mac kHostB{0x02, 0, 0, 0, 0, 0x0b};

// Station n's MAC (n below 2^24).
frames::Mac Client(uint32_t n)
{
    return {0x02, 0x10, 0, static_cast<uint8_t>(n >> 16), static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n)};
}

struct Punt {
    DpxPktHead head;
    Bytes frame;
};

class PlaneTest : public testing::Test {
protected:
    void SetUp() override
    {
        WICK_Reset();
        std::string error;
        const auto topology = device::world::LoadTopologyText(kTopology, &error);
        ASSERT_TRUE(topology) << error;
        platform::world::ApplyTopology(*topology);
        SetFeature(false);
        plane_ = std::make_unique<ForwardingPlane>(ports_);
    }
    void TearDown() override
    {
        plane_.reset();
        WICK_Reset();
    }

    static void SetFeature(bool on) { device::fwm::Apply({device::fwm::RequestKind::GlobalCfg, on ? 1U : 0U, 0}); }

    static std::optional<Punt> TakePunt(uint32_t waitMs = 1000)
    {
        std::vector<uint8_t> buf(4096);
        uint32_t len = 0;
        if (WICK_ChannelTake(device::fplane::kPuntChannel, buf.data(), static_cast<uint32_t>(buf.size()), &len,
                             waitMs) != 0 ||
            len < sizeof(DpxPktHead)) {
            return std::nullopt;
        }
        Punt p;
        std::memcpy(&p.head, buf.data(), sizeof(p.head));
        p.frame.assign(buf.begin() + sizeof(DpxPktHead), buf.begin() + len);
        return p;
    }

    // What the agent writes back: {133, egress, 0} and the frame.
    static void SendFromAgent(uint32_t egress, const Bytes &frame, uint32_t msgType = 133)
    {
        const Bytes msg = frames::WithDpxHead(frame, egress, 0, msgType);
        ASSERT_EQ(WICK_ChannelPut(device::fplane::kSendChannel, msg.data(), static_cast<uint32_t>(msg.size())), 0U);
    }

    bool Idle() { return plane_->WaitIdle(20ms, 2000ms); }

    static void DrainPunts()
    {
        while (TakePunt(0)) {
        }
    }

    // Takes off every frame the ports have sent: how many there were.
    size_t DrainPorts()
    {
        size_t sent = 0;
        for (const uint32_t port : {5U, 6U, 7U, 10U, 27U, 28U, 49U}) {
            while (ports_.Take(port, 0ms)) {
                sent++;
            }
        }
        return sent;
    }

    MemoryPorts ports_;
    std::unique_ptr<ForwardingPlane> plane_;
};

TEST_F(PlaneTest, IngressClassifiesByPortModeAndVlanMembership)
{
    struct Row {
        const char *why;
        uint32_t port;
        int tci;  // of a 0x8100 tag; -1: untagged
        bool accepted;
        uint16_t learntVlan;
    };
    const Row rows[] = {
        {"untagged on an access port enters in its PVID", 5, -1, true, 100},
        {"tagged with the PVID on an access port enters", 6, 100, true, 100},
        {"tagged with another VID on an access port is dropped", 5, 101, false, 0},
        {"priority-tagged (VID 0) on an access port enters in its PVID", 6, 0x6000, true, 100},
        {"priority-tagged on a trunk port is untagged there: dropped", 49, 0x6000, false, 0},
        {"tagged in a member VLAN on a trunk port enters", 49, 101, true, 101},
        {"tagged in a foreign VLAN on a trunk port is dropped", 49, 200, false, 0},
        {"untagged on a trunk port is dropped", 49, -1, false, 0},
        {"a trunk member takes the trunk's VLANs", 28, 100, true, 100},
        {"an off-board port carries nothing", 10, -1, false, 0},
        {"a trunk's own interface is not a wire", 100, 100, false, 0},
        {"an unknown port carries nothing", 77, -1, false, 0},
    };
    uint8_t host = 0x20;
    for (const Row &row : rows) {
        const frames::Mac src{0x02, 0, 0, 0, 0, host++};
        const auto before = plane_->Counters(row.port);
        plane_->Receive(row.port, PlainFrame(frames::kBroadcast, src, row.tci));
        const auto after = plane_->Counters(row.port);
        EXPECT_EQ(after.rx, before.rx + 1) << row.why;
        EXPECT_EQ(after.dropped, before.dropped + (row.accepted ? 0U : 1U)) << row.why;
        const std::optional<uint32_t> learnt = row.accepted ? std::optional(row.port) : std::nullopt;
        EXPECT_EQ(plane_->Lookup(row.learntVlan, src), learnt) << row.why;
    }
}

TEST_F(PlaneTest, FloodsWithinTheVlanTaggedOnTrunksUntaggedOnAccessThenSendsToTheLearntPort)
{
    // Unknown destination from access port 5 (VLAN 100): every other on-board
    // member of VLAN 100, once per trunk, never back to 5, never to VLAN 101.
    plane_->Receive(5, PlainFrame(kHostB, kHostA));
    ASSERT_TRUE(Idle());
    EXPECT_EQ(ports_.Take(6, 0ms), PlainFrame(kHostB, kHostA)) << "access ports send untagged";
    EXPECT_EQ(ports_.Take(49, 0ms), PlainFrame(kHostB, kHostA, 100)) << "trunk ports send tagged";
    EXPECT_EQ(ports_.Take(27, 0ms), PlainFrame(kHostB, kHostA, 100));
    EXPECT_EQ(ports_.Pending(28), 0U) << "a trunk is flooded through one member only";
    EXPECT_EQ(ports_.Pending(5), 0U) << "never back out of the ingress port";
    EXPECT_EQ(ports_.Pending(7), 0U) << "VLAN 101 does not see VLAN 100";
    EXPECT_EQ(ports_.Pending(10), 0U) << "off-board ports send nothing";
    EXPECT_EQ(plane_->Counters(6).tx, 1U);
    EXPECT_EQ(plane_->Counters(27).tx, 1U);

    // B answers from the uplink; A is known by now: only port 5 gets it.
    plane_->Receive(49, PlainFrame(kHostA, kHostB, 100));
    ASSERT_TRUE(Idle());
    EXPECT_EQ(ports_.Take(5, 0ms), PlainFrame(kHostA, kHostB));
    EXPECT_EQ(ports_.Pending(6) + ports_.Pending(27) + ports_.Pending(28), 0U);

    // Same MAC in another VLAN is another entry; a move relearns.
    plane_->Receive(49, PlainFrame(kHostA, kHostB, 101));
    plane_->Receive(6, PlainFrame(kHostA, kHostB));
    EXPECT_EQ(plane_->Lookup(101, kHostB), 49U);
    EXPECT_EQ(plane_->Lookup(100, kHostB), 6U);
    EXPECT_EQ(plane_->MacTable().size(), 3U);

    // A priority tag (VID 0) classifies like no tag: the frame joins the
    // PVID and keeps its priority.
    plane_->Receive(5, PlainFrame(frames::kBroadcast, kHostA, 0xA000));
    ASSERT_TRUE(Idle());
    EXPECT_EQ(ports_.Take(49, 0ms), PlainFrame(frames::kBroadcast, kHostA, 0xA000 | 100));
    EXPECT_EQ(ports_.Take(6, 0ms), PlainFrame(frames::kBroadcast, kHostA));
}

TEST_F(PlaneTest, DiscoveryFramesArePuntedOnlyWhileTheFeatureIsOn)
{
    const Bytes padi = Frame().src(frames::kSubscriberMac).padi().serviceName().eol().bytes();

    // Off: switched like any frame, nothing reaches the agent.
    plane_->Receive(5, padi);
    ASSERT_TRUE(Idle());
    EXPECT_FALSE(TakePunt(0));
    EXPECT_TRUE(ports_.Take(49, 0ms));
    EXPECT_EQ(plane_->Counters(5).punted, 0U);

    // On: punted with the frame tagged in the port's PVID, ingress the
    // physical port, egress unknown for a broadcast.
    SetFeature(true);
    plane_->Receive(5, padi);
    auto punt = TakePunt();
    ASSERT_TRUE(punt);
    EXPECT_EQ(std::tuple(punt->head.msgType, punt->head.igrIfindex, punt->head.egrIfindex),
              std::tuple(0U, 5U, 0xFFFFFFFFU));
    EXPECT_EQ(punt->frame, Frame().src(frames::kSubscriberMac).vlan(100).padi().serviceName().eol().bytes());
    EXPECT_EQ(ports_.Pending(49), 0U) << "a punted frame is not also switched";
    EXPECT_EQ(plane_->Counters(5).punted, 1U);

    // A reply from the server on trunk member 28 (double tagged, outer TPID
    // 0x9100): egress is the learnt subscriber port, ingress the member.
    const Bytes pado =
        Frame().src(frames::kServerMac).dst(frames::kSubscriberMac).vlan(100, 0x9100).qinq(7).pado().eol().bytes();
    plane_->Receive(28, pado);
    punt = TakePunt();
    ASSERT_TRUE(punt);
    EXPECT_EQ(std::tuple(punt->head.igrIfindex, punt->head.egrIfindex), std::tuple(28U, 5U));
    EXPECT_EQ(punt->frame, pado) << "tagged frames are punted as they came";

    // Session frames (0x8864) and other types are never punted.
    Bytes session = padi;
    session[13] = 0x64;
    plane_->Receive(5, session);
    ASSERT_TRUE(Idle());
    EXPECT_FALSE(TakePunt(0));
    EXPECT_TRUE(ports_.Take(49, 0ms));

    // A full channel drops the frame and counts it.
    PLAT_FailSet("WICK_ChannelPut", 0, 1, 1);
    plane_->Receive(6, padi);
    PLAT_FailClearAll();
    EXPECT_EQ(std::tuple(plane_->Counters(6).dropped, plane_->Counters(6).punted), std::tuple(1U, 0U));
}

TEST_F(PlaneTest, WorldChangesApplyFromTheNextFrame)
{
    const auto floodReaches = [this](uint32_t port) {
        plane_->Receive(5, PlainFrame(frames::kBroadcast, kHostA));
        EXPECT_TRUE(Idle());
        const bool reached = ports_.Pending(port) > 0;
        DrainPorts();
        return reached;
    };

    // A VLAN added to a trunk port.
    plane_->Receive(49, PlainFrame(kHostA, kHostB, 102));
    EXPECT_EQ(plane_->Counters(49).dropped, 1U);
    platform::world::PortVlanSet(49, 102, true);
    plane_->Receive(49, PlainFrame(kHostA, kHostB, 102));
    EXPECT_EQ(plane_->Counters(49).dropped, 1U);
    EXPECT_EQ(plane_->Lookup(102, kHostB), 49U);

    // A port leaving the board.
    EXPECT_TRUE(floodReaches(6));
    platform::world::IfSetOnBoard(6, false);
    EXPECT_FALSE(floodReaches(6));

    // A member leaving its trunk is a port of its own.
    EXPECT_FALSE(floodReaches(28));
    platform::world::TrunkPortRemove(28);
    EXPECT_TRUE(floodReaches(28));
}

TEST_F(PlaneTest, ReceiversOnSeveralPortsAtOnceWhileTheWorldChanges)
{
    // The server is learnt on the uplink; three ports' threads send to it
    // while the uplink goes off and on board and its VLANs change.
    plane_->Receive(49, PlainFrame(kHostA, kHostB, 100));
    plane_->Receive(49, PlainFrame(kHostA, kHostB, 101));
    constexpr uint64_t kFrames = 2000;
    const uint32_t senders[] = {5, 6, 7};
    std::atomic<int> running{static_cast<int>(std::size(senders))};
    std::vector<std::thread> threads;
    for (const uint32_t port : senders) {
        threads.emplace_back([this, port, &running]() {
            const Bytes frame = PlainFrame(kHostB, Client(port));
            for (uint64_t i = 0; i < kFrames; i++) {
                plane_->Receive(port, frame);
            }
            running--;
        });
    }
    for (bool on = false; running.load() > 0; on = !on) {
        platform::world::IfSetOnBoard(49, on);
        platform::world::PortVlanSet(49, 300, on);
        std::this_thread::yield();
    }
    for (std::thread &t : threads) {
        t.join();
    }
    platform::world::IfSetOnBoard(49, true);

    ASSERT_TRUE(Idle());
    for (const uint32_t port : senders) {
        EXPECT_EQ(std::tuple(plane_->Counters(port).rx, plane_->Counters(port).dropped), std::tuple(kFrames, 0U));
        EXPECT_EQ(plane_->Lookup(port == 7 ? 101 : 100, Client(port)), port);
    }
    const auto uplink = plane_->Counters(49);
    EXPECT_EQ(uplink.tx + uplink.dropped, kFrames * std::size(senders)) << "each frame left or dropped on the uplink";
    EXPECT_EQ(ports_.Pending(49), uplink.tx);

    // A new plane starts from nothing, on this thread too.
    plane_.reset();
    plane_ = std::make_unique<ForwardingPlane>(ports_);
    plane_->Receive(5, PlainFrame(frames::kBroadcast, kHostA));
    EXPECT_EQ(plane_->Counters(5).rx, 1U);
    EXPECT_EQ(plane_->AllCounters().size(), 4U) << "port 5 and the three ports the broadcast left through";
}

TEST_F(PlaneTest, AFloodOfSourceMacsNeitherGrowsTheMacTableNorStopsLearning)
{
    struct Discard : device::fplane::PortBackend {
        void Transmit(uint32_t, std::span<const uint8_t>) override {}
    } discard;
    plane_.reset();
    plane_ = std::make_unique<ForwardingPlane>(discard);
    const size_t macs = device::fplane::kMacTableSlots + device::fplane::kMacTableSlots / 8;
    for (uint32_t i = 0; i < macs; i++) {
        plane_->Receive(5, PlainFrame(frames::kBroadcast, Client(i)));
    }
    const size_t learnt = plane_->MacTable().size();
    EXPECT_LE(learnt, device::fplane::kMacTableSlots);
    EXPECT_GT(learnt, device::fplane::kMacTableSlots / 2) << "the table holds what it can";
    plane_->Receive(6, PlainFrame(frames::kBroadcast, kHostB));
    EXPECT_EQ(plane_->Lookup(100, kHostB), 6U) << "a new station is learnt in a full table";
    plane_.reset();
}

TEST_F(PlaneTest, DiscoveryBehindATagStackTheAgentCannotParseIsDroppedNeverSwitched)
{
    // The agent reads an outer 0x8100 or 0x9100 tag and an inner 0x8100 one.
    SetFeature(true);
    enum class Fate { Punted, Dropped, Switched };
    struct Tag {
        uint16_t tpid;
        uint16_t vid;
    };
    struct Row {
        const char *why;
        std::vector<Tag> tags;
        uint16_t etherType;
        Fate fate;
    };
    const Row rows[] = {
        {"one C-tag", {{0x8100, 100}}, 0x8863, Fate::Punted},
        {"an 0x9100 tag outside a C-tag", {{0x9100, 100}, {0x8100, 7}}, 0x8863, Fate::Punted},
        {"an 802.1ad outer tag", {{0x88a8, 100}}, 0x8863, Fate::Dropped},
        {"0x9100 as the inner tag", {{0x8100, 100}, {0x9100, 7}}, 0x8863, Fate::Dropped},
        {"three tags", {{0x8100, 100}, {0x8100, 7}, {0x8100, 8}}, 0x8863, Fate::Dropped},
        {"session traffic behind three tags", {{0x8100, 100}, {0x8100, 7}, {0x8100, 8}}, 0x8864, Fate::Switched},
    };
    for (const Row &row : rows) {
        Frame builder = Frame().src(frames::kServerMac).dst(frames::kSubscriberMac).pado();
        for (const Tag &t : row.tags) {
            builder.vlan(t.vid, t.tpid);
        }
        Bytes frame = builder.eol().bytes();
        const size_t typeOff = 12 + 4 * row.tags.size();
        frame[typeOff] = static_cast<uint8_t>(row.etherType >> 8);
        frame[typeOff + 1] = static_cast<uint8_t>(row.etherType);

        const auto before = plane_->Counters(49);
        plane_->Receive(49, frame);
        const auto punt = TakePunt(0);
        EXPECT_EQ(punt.has_value(), row.fate == Fate::Punted) << row.why;
        if (punt) {
            EXPECT_EQ(punt->frame, frame) << row.why;
        }
        ASSERT_TRUE(Idle()) << row.why;
        const auto after = plane_->Counters(49);
        EXPECT_EQ(after.punted - before.punted, row.fate == Fate::Punted ? 1U : 0U) << row.why;
        EXPECT_EQ(after.dropped - before.dropped, row.fate == Fate::Dropped ? 1U : 0U) << row.why;
        EXPECT_EQ(DrainPorts() > 0, row.fate == Fate::Switched) << row.why;
    }
}

TEST_F(PlaneTest, AgentFramesLeaveThroughTheNamedPort)
{
    const Bytes tagged = Frame().src(frames::kServerMac).dst(frames::kSubscriberMac).vlan(100).pado().eol().bytes();
    const Bytes untagged = Frame().src(frames::kServerMac).dst(frames::kSubscriberMac).pado().eol().bytes();

    struct Row {
        const char *why;
        uint32_t egress;
        uint32_t wire;
        const Bytes &sent;
    };
    const Row rows[] = {
        {"the outer tag is stripped on an access port", 5, 5, untagged},
        {"a trunk port sends the frame as it is", 49, 49, tagged},
        {"a trunk's interface sends through its first on-board member", 100, 27, tagged},
    };
    for (const Row &row : rows) {
        SendFromAgent(row.egress, tagged);
        EXPECT_EQ(ports_.Take(row.wire, 2000ms), row.sent) << row.why;
        EXPECT_EQ(plane_->Counters(row.wire).tx, 1U) << row.why;
    }

    // Member 27 leaves the board: member 28 takes over.
    platform::world::IfSetOnBoard(27, false);
    SendFromAgent(100, tagged);
    EXPECT_TRUE(ports_.Take(28, 2000ms));

    // Nowhere to go: off-board, unknown port, a head that is not a send.
    SendFromAgent(10, tagged);
    SendFromAgent(77, tagged);
    SendFromAgent(6, tagged, 0);
    ASSERT_TRUE(Idle());
    for (const uint32_t port : {10U, 77U, 6U}) {
        EXPECT_EQ(plane_->Counters(port).dropped, 1U) << port;
    }
    EXPECT_EQ(ports_.Pending(10) + ports_.Pending(6), 0U);

    // The transmit thread stops promptly, leaving no frame buffer behind.
    const auto t0 = std::chrono::steady_clock::now();
    plane_.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 500ms);
    EXPECT_EQ(WICK_MbufOutstanding(), 0U);
}

}  // namespace

// ---- The subscriber table and punt policing ----

class OperatorViewTest : public PlaneTest {
protected:
    void Rebuild(const platform::PlaneSettings &settings)
    {
        plane_.reset();
        WICK_Reset();
        plane_ = std::make_unique<ForwardingPlane>(ports_, settings);
        SetFeature(true);
    }
    // Punts taken off the agent's channel, then the plane idle.
    bool Settled()
    {
        DrainPunts();
        return Idle();
    }
    static platform::PlaneSettings Unpoliced(uint32_t size = 65536, uint32_t idleSeconds = 0)
    {
        return {.policing = {.port = {}, .global = {}, .ports = {}}, .subscribers = {size, idleSeconds}};
    }
    std::optional<device::fplane::Subscriber> Find(const frames::Mac &mac, uint16_t inner = 0) const
    {
        for (const auto &s : plane_->Subscribers()) {
            if (s.mac == mac && s.innerVlan == inner) {
                return s;
            }
        }
        return std::nullopt;
    }
    static Bytes PadiFrom(const frames::Mac &mac) { return Frame().src(mac).padi().hostUniq().eol().bytes(); }
};

TEST_F(OperatorViewTest, SubscriberEntryFollowsDiscoveryFromPadiToPadtOfEitherSide)
{
    Rebuild(Unpoliced());
    constexpr frames::Mac kAc = frames::kServerMac;
    constexpr frames::Mac kOtherAc{0x02, 0, 0, 0, 0, 0xbb};
    const frames::Mac client = frames::kSubscriberMac;

    // PADI punted from port 5; the agent relays it with its tag; two
    // concentrators offer; the client chooses the second; its PADS names the session.
    plane_->Receive(5, PadiFrom(client));
    ASSERT_TRUE(Settled());
    auto s = Find(client);
    ASSERT_TRUE(s) << "a PADI punted from a port makes an entry";
    EXPECT_EQ(s->lastCode, device::fplane::kCodePadi);
    SendFromAgent(49,
                  Frame().src(client).vlan(100).padi().hostUniq().vendor(3561, "eth 0/0/1:100", "rid-1").eol().bytes());
    plane_->Receive(49, Frame().src(kAc).dst(client).vlan(100).pado().eol().bytes());
    plane_->Receive(49, Frame().src(kOtherAc).dst(client).vlan(100).pado().eol().bytes());
    ASSERT_TRUE(Settled());
    s = Find(client);
    ASSERT_TRUE(s);
    // The agent's tag towards the concentrator, the first concentrator that
    // answered; an answer from the uplink leaves the port alone.
    EXPECT_EQ(std::tie(s->circuitId, s->remoteId, s->acMac, s->ifIndex),
              std::tuple("eth 0/0/1:100", "rid-1", std::optional(kAc), 5U));
    plane_->Receive(5, Frame().src(client).dst(kOtherAc).padr().eol().bytes());
    SendFromAgent(5, Frame().src(kOtherAc).dst(client).vlan(100).session(0x1234).pads().eol().bytes());
    ASSERT_TRUE(Settled());
    s = Find(client);
    ASSERT_TRUE(s);
    // The concentrator chosen in the PADR, the session its PADS named.
    EXPECT_EQ(std::tie(s->acMac, s->sessionId, s->lastCode),
              std::tuple(std::optional(kOtherAc), std::optional<uint16_t>(0x1234), device::fplane::kCodePads));
    EXPECT_LE(s->started, s->lastSeen);

    // A PADO to a client never seen makes nothing; a PADT of another session removes nothing.
    plane_->Receive(49, Frame().src(kAc).dst(Client(7)).vlan(100).pado().eol().bytes());
    plane_->Receive(49, Frame().src(kOtherAc).dst(client).vlan(100).session(0x9999).padt().eol().bytes());
    ASSERT_TRUE(Settled());
    EXPECT_FALSE(Find(Client(7)));
    ASSERT_TRUE(Find(client)) << "a PADT names its session";
    plane_->Receive(49, Frame().src(kOtherAc).dst(client).vlan(100).session(0x1234).padt().eol().bytes());
    ASSERT_TRUE(Settled());
    EXPECT_FALSE(Find(client)) << "the concentrator's PADT ends the entry";

    // The same client behind an inner tag on the trunk is another entry;
    // its own PADT (the agent forwarding it) ends only that one.
    plane_->Receive(5, PadiFrom(client));
    plane_->Receive(49, Frame().src(client).vlan(100).qinq(300).padi().eol().bytes());
    ASSERT_TRUE(Settled());
    EXPECT_EQ(Find(client, 300).value_or(device::fplane::Subscriber{}).ifIndex, 49U);
    SendFromAgent(49, Frame().src(client).dst(kAc).vlan(100).qinq(300).padt().eol().bytes());
    ASSERT_TRUE(Settled());
    EXPECT_FALSE(Find(client, 300));
    EXPECT_EQ(plane_->SubscriberStats().entries, 1U) << "the untagged entry stays";

    // A client whose MAC differs only in its first octet is another entry.
    frames::Mac twin = client;
    twin[0] ^= 0x04;
    plane_->Receive(5, PadiFrom(twin));
    ASSERT_TRUE(Settled());
    EXPECT_TRUE(Find(twin));
    EXPECT_EQ(plane_->SubscriberStats().entries, 2U) << "the client's entry stays";
}

TEST_F(OperatorViewTest, ARandomMacStormStaysWithinTheBoundEvictingTheIdlestFirst)
{
    struct Row {
        const char *why;
        uint32_t size;
    };
    const Row rows[] = {
        {"a small table keeps one order", 8},
        {"a large table is sharded", 4096},
    };
    std::mt19937 random(7);
    for (const Row &row : rows) {
        Rebuild(Unpoliced(row.size));
        const frames::Mac quiet = Client(0xF00000);
        const frames::Mac active = Client(0xF00001);
        plane_->Receive(5, PadiFrom(quiet));
        const uint32_t storm = row.size * 4;
        for (uint32_t i = 0; i < storm; i++) {
            if (i % 4 == 0) {
                plane_->Receive(6, PadiFrom(active));  // keeps discovering through the storm
            }
            plane_->Receive(7, Frame().src(Client(random() & 0xFFFFF)).padi().eol().bytes());
            DrainPunts();  // as the agent would
        }
        const auto stats = plane_->SubscriberStats();
        EXPECT_LE(stats.entries, row.size) << row.why;
        EXPECT_EQ(plane_->Subscribers().size(), stats.entries) << row.why;
        EXPECT_GT(stats.evictions, 0U) << row.why;
        EXPECT_TRUE(Find(active)) << row.why << ": an entry in use survives";
        EXPECT_FALSE(Find(quiet)) << row.why << ": the idlest goes first";
    }
    // Entries age out after their idle time.
    Rebuild(Unpoliced(64, 1));
    plane_->Receive(5, PadiFrom(Client(1)));
    ASSERT_TRUE(Find(Client(1)));
    EXPECT_TRUE(pplus_test::WaitFor([this]() { return plane_->Subscribers().empty(); }, 10000));
    EXPECT_EQ(plane_->SubscriberStats().agedOut, 1U);
}

// A client's repeated PADI is seen without the shard's lock while the
// transmit thread changes the same entry: every change lands, none is lost
// to a hit that read the entry as it was.
TEST_F(OperatorViewTest, RepeatsSeenWithoutTheLockLoseNoChangeOfTheTransmitThread)
{
    Rebuild(Unpoliced());
    const frames::Mac client = Client(1);
    std::atomic<bool> stop{false};
    std::vector<std::thread> receivers;
    for (int i = 0; i < 2; i++) {
        receivers.emplace_back([this, &stop, client]() {
            const Bytes padi = PadiFrom(client);
            while (!stop.load()) {
                plane_->Receive(5, padi);
                DrainPunts();
            }
        });
    }
    ASSERT_TRUE(pplus_test::WaitFor([&]() { return Find(client).has_value(); }, 10000));
    constexpr int kChanges = 300;
    for (int i = 0; i < kChanges; i++) {
        SendFromAgent(
            49, Frame().src(client).vlan(100).padi().vendor(3561, "cid-" + std::to_string(i), "rid").eol().bytes());
    }
    ASSERT_TRUE(pplus_test::WaitFor([]() { return WICK_ChannelDepth(device::fplane::kSendChannel) == 0; }, 10000));
    stop.store(true);
    for (std::thread &t : receivers) {
        t.join();
    }
    ASSERT_TRUE(Settled());
    const auto s = Find(client);
    ASSERT_TRUE(s);
    EXPECT_EQ(std::tie(s->circuitId, s->ifIndex, s->lastCode),
              std::tuple("cid-" + std::to_string(kChanges - 1), 5U, device::fplane::kCodePadi));
}

TEST_F(OperatorViewTest, PolicingCountsAddUpAndAFloodingPortLeavesOthersTheirRate)
{
    // Ports at 50/s (burst 50), the switch at 60/s (burst 60): the flood
    // on port 5 is held to its own rate and leaves port 7 its ten PADIs.
    platform::PlaneSettings settings = Unpoliced();
    settings.policing.port = {50, 50};
    settings.policing.global = {60, 60};
    Rebuild(settings);
    const auto began = std::chrono::steady_clock::now();
    std::thread flood([this]() {
        const Bytes padi = PadiFrom(Client(1));
        for (int i = 0; i < 5000; i++) {
            plane_->Receive(5, padi);
        }
    });
    for (uint32_t i = 0; i < 10; i++) {
        plane_->Receive(7, PadiFrom(Client(100 + i)));  // while the flood runs
    }
    flood.join();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    const auto flooded = plane_->Counters(5);
    const auto other = plane_->Counters(7);
    EXPECT_EQ(flooded.rx, 5000U);
    EXPECT_EQ(flooded.rx, flooded.punted + flooded.policed + flooded.dropped) << "every frame counted once";
    EXPECT_GE(flooded.punted, 50U) << "the burst goes through";
    EXPECT_LE(flooded.punted, 50U + static_cast<uint64_t>(50 * seconds) + 1) << "then the rate";
    EXPECT_EQ(std::tuple(other.punted, other.policed), std::tuple(10U, 0U)) << "another port keeps its share";

    // A port's own bucket, set while frames flow; and no limit at all.
    plane_->SetPortPolicing(7, PuntRate{1, 2});
    for (int i = 0; i < 10; i++) {
        plane_->Receive(7, PadiFrom(Client(200)));
    }
    EXPECT_LE(plane_->Counters(7).punted, 10U + 2U + 1U);
    EXPECT_GE(plane_->Counters(7).policed, 7U);
    EXPECT_EQ(plane_->Policing().ports.at(7), (PuntRate{1, 2}));
    plane_->SetPortPolicing(7, std::nullopt);
    plane_->SetDefaultPolicing({});
    plane_->SetGlobalPolicing({});
    const auto before = plane_->Counters(5);
    for (int i = 0; i < 500; i++) {
        plane_->Receive(5, PadiFrom(Client(1)));
        DrainPunts();
    }
    const auto after = plane_->Counters(5);
    EXPECT_EQ(std::tuple(after.punted, after.policed), std::tuple(before.punted + 500, before.policed))
        << "policing off lets everything through";
}
