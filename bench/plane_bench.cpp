// Frames per second through the forwarding plane's Receive, the call every
// port backend makes for a frame entering a port: on one thread and on
// several at once, each benchmark thread standing for the receive thread of
// its own access port (as live ports have one thread per port).
//  - Switched: a unicast frame to a MAC learnt on the uplink trunk port.
//  - Flooded: a broadcast that is not PPPoE, sent out of every other member
//    of the VLAN (access ports untagged, trunks tagged).
//  - Punted: a PADI while the feature is on, written to the agent's channel;
//    each thread takes its batch back off the channel as the agent would,
//    and that take is part of the figure. Twice: on a plane with punt
//    policing off and no subscriber table (features_off), and on one that
//    polices every port and the switch (at a rate the bench never reaches,
//    so every frame pays for the buckets and none is refused) and keeps its
//    subscriber table (features_on), each thread's PADI refreshing its
//    subscriber's entry.
//  - SubscriberSent: what the subscriber table adds to each frame the agent
//    sends back (its PADI towards the concentrator, read for the Circuit ID
//    and Remote ID of the entry).
// The difference between the two Punted figures and the SubscriberSent
// figure together are what the two features cost a relayed PADI.
// The ports discard what leaves them. The world is the bundled example.
//
//   ./build/default/bin/plane_bench [--benchmark_filter=...]
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "device/fplane.hpp"
#include "device/fwm.hpp"
#include "device/world.hpp"
#include "platform/control.h"
#include "subscribers.hpp"
#include "pppoe_frame.hpp"
#include "wick.h"

namespace {

using device::fplane::DpxPktHead;
using device::fplane::ForwardingPlane;
using frames::Bytes;
using frames::Mac;

constexpr uint32_t kUplink = 49;            // XGigabitEthernet0/0/1, a trunk port of VLANs 100-102
constexpr uint32_t kBatch = 32;             // punts between two takes off the agent's channel
constexpr uint32_t kTakeCap = 2048;
constexpr Mac kServer{0x02, 0, 0, 0, 0, 0xaa};
constexpr uint32_t kNeverReached = 10000000;   // frames a second (and burst) of the policed plane's buckets

// The access port and VLAN each benchmark thread receives on.
struct Lane {
    uint32_t port;
    uint16_t vlan;
};
constexpr Lane kLanes[] = {{5, 100}, {7, 101}, {9, 102}, {6, 100}};

class DiscardPorts : public device::fplane::PortBackend {
public:
    void Transmit(uint32_t, std::span<const uint8_t> frame) override { benchmark::DoNotOptimize(frame.data()); }
};

DiscardPorts g_ports;
ForwardingPlane *g_plane = nullptr;      // features on
ForwardingPlane *g_planeOff = nullptr;   // no punt policing, no subscriber table

[[noreturn]] void Die(const char *what)
{
    std::fprintf(stderr, "plane_bench: %s\n", what);
    std::exit(1);
}

Mac HostOf(int thread)
{
    return Mac{0x02, 0, 0, 0, 0x01, static_cast<uint8_t>(thread)};
}

Bytes Padi(const Mac &src)
{
    return frames::Frame().src(src).padi().serviceName().hostUniq("bench-0001").eol().bytes();
}

const Lane &LaneOf(const benchmark::State &state)
{
    return kLanes[static_cast<size_t>(state.thread_index()) % std::size(kLanes)];
}

void Through(benchmark::State &state, const Bytes &frame)
{
    const uint32_t port = LaneOf(state).port;
    for (auto _ : state) {
        g_plane->Receive(port, frame);
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_Switched(benchmark::State &state)
{
    Through(state, frames::PlainFrame(kServer, HostOf(state.thread_index())));
}

void BM_Flooded(benchmark::State &state)
{
    Through(state, frames::PlainFrame(frames::kBroadcast, HostOf(state.thread_index())));
}

void BM_Punted(benchmark::State &state, ForwardingPlane **plane)
{
    const uint32_t port = LaneOf(state).port;
    const Bytes padi = Padi(HostOf(state.thread_index()));
    std::vector<uint8_t> buf(kTakeCap);
    uint64_t frames = 0;
    for (auto _ : state) {
        for (uint32_t i = 0; i < kBatch; i++) {
            (*plane)->Receive(port, padi);
        }
        uint32_t len = 0;
        for (uint32_t i = 0; i < kBatch; i++) {
            (void)WICK_ChannelTake(device::fplane::kPuntChannel, buf.data(), kTakeCap, &len, 0);
        }
        frames += kBatch;
    }
    state.SetItemsProcessed(static_cast<int64_t>(frames));
}

BENCHMARK(BM_Switched)->Threads(1)->Threads(2)->Threads(4)->UseRealTime();
BENCHMARK(BM_Flooded)->Threads(1)->Threads(2)->Threads(4)->UseRealTime();
BENCHMARK_CAPTURE(BM_Punted, features_off, &g_planeOff)->Threads(1)->Threads(2)->Threads(4)->UseRealTime();
BENCHMARK_CAPTURE(BM_Punted, features_on, &g_plane)->Threads(1)->Threads(2)->Threads(4)->UseRealTime();

// The agent's PADI towards the concentrator, as the plane's transmit thread
// hands it to the subscriber table after sending it.
void BM_SubscriberSent(benchmark::State &state)
{
    static device::fplane::SubscriberTable *table = nullptr;
    if (state.thread_index() == 0) {
        table = new device::fplane::SubscriberTable(platform::SubscriberTableSettings{});
    }
    const Lane &lane = LaneOf(state);
    const Mac host = HostOf(state.thread_index());
    const Bytes tagged = frames::Frame()
                             .src(host)
                             .vlan(lane.vlan)
                             .padi()
                             .serviceName()
                             .hostUniq("bench-0001")
                             .vendor(3561, "eth 0/0/1:100.0 AccessSwitch-1/0/0/0/0/0", "00e0-fc12-3456")
                             .eol()
                             .bytes();
    // Threads start together after setup; the entry exists before the loop.
    const Bytes padi = frames::Frame().src(host).vlan(lane.vlan).padi().eol().bytes();
    for (auto _ : state) {
        state.PauseTiming();
        table->Punted(lane.port, padi, device::fplane::CoarseMonotonicNs());
        state.ResumeTiming();
        // The transmit thread reads the clock once a batch.
        const uint64_t now = device::fplane::CoarseMonotonicNs();
        for (uint32_t i = 0; i < kBatch; i++) {
            table->Sent(kUplink, tagged, now);
        }
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
    if (state.thread_index() == 0 && table->Stats().entries == 0) {
        Die("the subscriber table kept nothing");
    }
}
BENCHMARK(BM_SubscriberSent)->Threads(1)->Threads(2)->Threads(4)->UseRealTime();

// The server's MAC is learnt on the uplink in every lane's VLAN, and one
// frame of each kind goes where it should before anything is measured.
void Prepare()
{
    for (const Lane &lane : kLanes) {
        g_plane->Receive(kUplink, frames::PlainFrame(HostOf(0), kServer, lane.vlan));
    }
    const auto uplinkTx = g_plane->Counters(kUplink).tx;
    g_plane->Receive(kLanes[0].port, frames::PlainFrame(kServer, HostOf(0)));
    if (g_plane->Counters(kUplink).tx != uplinkTx + 1 || g_plane->Counters(kLanes[0].port).dropped != 0) {
        Die("a unicast frame did not reach the uplink");
    }
    g_plane->Receive(kLanes[0].port, Padi(HostOf(0)));
    std::vector<uint8_t> buf(kTakeCap);
    uint32_t len = 0;
    DpxPktHead head;
    if (WICK_ChannelTake(device::fplane::kPuntChannel, buf.data(), kTakeCap, &len, 0) != 0 || len < sizeof(head)) {
        Die("a PADI was not punted");
    }
    std::memcpy(&head, buf.data(), sizeof(head));
    if (head.igrIfindex != kLanes[0].port) {
        Die("the punted PADI names the wrong ingress port");
    }
}

}  // namespace

int main(int argc, char **argv)
{
    PLAT_CallCountEnable(0);
    std::string error;
    const auto topology = device::world::LoadTopologyFile(PPLUS_SOURCE_DIR "/examples/topology.yaml", &error);
    if (!topology) {
        Die(error.c_str());
    }
    platform::world::ApplyTopology(*topology);
    device::fwm::Apply({device::fwm::RequestKind::GlobalCfg, 1U, 0});
    platform::PlaneSettings on;
    on.policing.port = {kNeverReached, kNeverReached};
    on.policing.global = {kNeverReached, kNeverReached};
    platform::PlaneSettings off;
    off.policing.port = {};
    off.policing.global = {};
    off.subscribers.size = 0;
    ForwardingPlane plane(g_ports, on);
    ForwardingPlane planeOff(g_ports, off);
    g_plane = &plane;
    g_planeOff = &planeOff;
    Prepare();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    if (plane.SubscriberStats().entries == 0 || plane.AllCounters()[kLanes[0].port].policed != 0) {
        Die("the policed plane refused a frame or kept no subscriber");
    }
    g_plane = nullptr;
    g_planeOff = nullptr;
    return 0;
}
