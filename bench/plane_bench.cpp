// Frames per second through the forwarding plane's Receive, the call every
// port backend makes for a frame entering a port: on one thread and on
// several at once, each benchmark thread standing for the receive thread of
// its own access port (as live ports have one thread per port).
//  - Switched: a unicast frame to a MAC learnt on the uplink trunk port.
//  - Flooded: a broadcast that is not PPPoE, sent out of every other member
//    of the VLAN (access ports untagged, trunks tagged).
//  - Punted: a PADI while the feature is on, written to the agent's channel;
//    each thread takes its batch back off the channel as the agent would,
//    and that take is part of the figure.
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
#include "pppoe_frame.hpp"
#include "wick.h"

namespace {

using device::fplane::DpxPktHead;
using device::fplane::ForwardingPlane;
using pplus_test::Bytes;
using pplus_test::Mac;

constexpr uint32_t kUplink = 49;            // XGigabitEthernet0/0/1, a trunk port of VLANs 100-102
constexpr uint32_t kBatch = 32;             // punts between two takes off the agent's channel
constexpr uint32_t kTakeCap = 2048;
constexpr Mac kServer{0x02, 0, 0, 0, 0, 0xaa};

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
ForwardingPlane *g_plane = nullptr;

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
    return pplus_test::Frame().src(src).padi().serviceName().hostUniq("bench-0001").eol().bytes();
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
    Through(state, pplus_test::PlainFrame(kServer, HostOf(state.thread_index())));
}

void BM_Flooded(benchmark::State &state)
{
    Through(state, pplus_test::PlainFrame(pplus_test::kBroadcast, HostOf(state.thread_index())));
}

void BM_Punted(benchmark::State &state)
{
    const uint32_t port = LaneOf(state).port;
    const Bytes padi = Padi(HostOf(state.thread_index()));
    std::vector<uint8_t> buf(kTakeCap);
    uint64_t frames = 0;
    for (auto _ : state) {
        for (uint32_t i = 0; i < kBatch; i++) {
            g_plane->Receive(port, padi);
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
BENCHMARK(BM_Punted)->Threads(1)->Threads(2)->Threads(4)->UseRealTime();

// The server's MAC is learnt on the uplink in every lane's VLAN, and one
// frame of each kind goes where it should before anything is measured.
void Prepare()
{
    for (const Lane &lane : kLanes) {
        g_plane->Receive(kUplink, pplus_test::PlainFrame(HostOf(0), kServer, lane.vlan));
    }
    const auto uplinkTx = g_plane->Counters(kUplink).tx;
    g_plane->Receive(kLanes[0].port, pplus_test::PlainFrame(kServer, HostOf(0)));
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
    ForwardingPlane plane(g_ports);
    g_plane = &plane;
    Prepare();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    g_plane = nullptr;
    return 0;
}
