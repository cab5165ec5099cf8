// Throughput of the relay on one core: PADI frames put on the module's
// receive channel, drained by the module's receive path, rewritten and sent
// on the transmit channel, and taken off it again, all on this thread.
// The baseline moves the same frames through the same channels with only
// the head cut and re-added, so the ratio between the two is the cost of
// the module's own processing. The board is HA master: every diagnostic
// record the relay writes per frame really reaches the platform's sink, its
// in-memory ring and its log file (relay_bench.log beside the program,
// written by the sink's own thread and rotated as the host's). Platform call counting, a test
// instrument, is off as in the host.
//
//   ./build/default/bin/relay_bench [--benchmark_filter=...]
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/control.h"
#include "device/world.hpp"
#include "pppoe_frame.hpp"
#include "pppoe_plus_cfg.h"
#include "pppoe_plus_fpc.h"
#include "pppoe_plus_ha.h"
#include "pppoe_plus_log.h"
#include "pppoe_plus_mem.h"
#include "pppoe_plus_pkt.h"
#include "pppoe_plus_tlv.h"
#include "wick.h"

namespace {

using pplus_test::Bytes;
using pplus_test::Frame;

constexpr uint32_t kSubscriberPort = 5;      // GigabitEthernet0/0/1 of the example
constexpr uint32_t kUplink = 49;             // XGigabitEthernet0/0/1, trusted
constexpr uint16_t kVlan = 100;
constexpr uint16_t kFloodVlan = 300;         // eight trusted uplinks carry only this VLAN
constexpr uint32_t kFloodUplinkBase = 200;
constexpr uint32_t kFloodUplinks = 8;
constexpr uint32_t kBatch = 32;
constexpr uint32_t kTakeCap = 2048;
constexpr uint64_t kLogFileRotateBytes = 64ULL * 1024 * 1024;  // as the host's --log-file

[[noreturn]] void Die(const char *what)
{
    std::fprintf(stderr, "relay_bench: %s\n", what);
    std::exit(1);
}

void BuildWorld()
{
    std::string error;
    auto topology = device::world::LoadTopologyFile(PPLUS_SOURCE_DIR "/examples/topology.yaml", &error);
    if (!topology) {
        Die(error.c_str());
    }
    platform::world::ApplyTopology(*topology);
    for (uint32_t i = 0; i < kFloodUplinks; i++) {
        platform::IfRecord uplink;
        uplink.name = "XGigabitEthernet0/1/" + std::to_string(i + 1);
        uplink.ifIndex = kFloodUplinkBase + i;
        uplink.card = 1;
        uplink.slot = 1;
        uplink.port = static_cast<uint16_t>(i + 1);
        uplink.trunkMode = true;
        platform::world::IfPut(uplink);
        platform::world::PortVlanSet(uplink.ifIndex, kFloodVlan, true);
    }
    platform::FrmInstRecord rec;
    rec.localSlot = 1;
    rec.modState = 12;
    platform::world::FrmInstPut(rec);
    platform::world::SetDevmReady(true);
}

void StartModule()
{
    if (PPPOE_PLUS_InitMemHandle() != 0 || PPPOE_PLUS_InitIMAgent() != 0) {
        Die("module memory or diagnostic handle");
    }
    g_pplusHaRole = PPPOE_PLUS_HA_ROLE_MASTER;
    if (PPPOE_PLUS_InitFpcIntf() != 0 || PPPOE_PLUS_CreateRxChannel() != 0) {
        Die("fast-path binding");
    }
    if (FPC_ChannelCreate(PPPOE_PLUS_TX_CHANNEL, 1024) == FPC_INVALID_ID) {
        Die("transmit channel");
    }
    if (PPPOE_PLUS_InitKeyWordDict() != 0) {
        Die("keyword dictionary");
    }
    PPPOE_PLUS_InitGlobalCfgData();
    // No forwarding manager runs here: the ACL requests fail and are logged,
    // the settings are stored all the same.
    (void)PPPOE_PLUS_SetEnable(1);
    (void)PPPOE_PLUS_SetPortTrust(kUplink, 1);
}

// The eight flood uplinks are trusted only while the flood is measured; the
// other cases run the example's single trusted uplink.
void TrustFloodUplinks(uint32_t trust)
{
    for (uint32_t i = 0; i < kFloodUplinks; i++) {
        (void)PPPOE_PLUS_SetPortTrust(kFloodUplinkBase + i, trust);
    }
}

Bytes Padi(uint16_t vlan)
{
    return pplus_test::WithDpxHead(
        Frame().vlan(vlan).padi().serviceName().hostUniq("bench-0001").eol().bytes(), 0xFFFFFFFFU, kSubscriberPort);
}

void PutBatch(const Bytes &msg)
{
    for (uint32_t i = 0; i < kBatch; i++) {
        if (WICK_ChannelPut(PPPOE_PLUS_RX_CHANNEL, msg.data(), static_cast<uint32_t>(msg.size())) != 0) {
            Die("receive channel full");
        }
    }
}

uint32_t TakeAll(std::vector<uint8_t> &buf)
{
    uint32_t taken = 0;
    uint32_t len = 0;
    while (WICK_ChannelTake(PPPOE_PLUS_TX_CHANNEL, buf.data(), kTakeCap, &len, 0) == 0) {
        taken++;
    }
    return taken;
}

// The same channels, no relay: receive, cut the head, add it back, send.
void BaselineDrain()
{
    const uint32_t rx = g_dpxToppplusChannel.load();
    const uint32_t tx = FPC_ChannelGetIdByName(PPPOE_PLUS_TX_CHANNEL);
    FpcMbuf *mbuf = nullptr;
    while (FPC_ChannelDcRecv(rx, &mbuf) == 0) {
        if (mbuf == nullptr) {
            continue;
        }
        DpxPktHead head{};
        std::memcpy(&head, mbuf->pData + mbuf->dataOff, sizeof(head));
        (void)MbufPktCutHead(mbuf, sizeof(head), __FILE__, __LINE__);
        (void)MbufPktAddHead(mbuf, sizeof(head), __FILE__, __LINE__);
        head = {PPPOE_PLUS_SEND_MSG_TYPE, kUplink, 0};
        std::memcpy(mbuf->pData + mbuf->dataOff, &head, sizeof(head));
        if (FPC_ChannelDcSendByIdNoSem(PPPOE_PLUS_TX_THREAD, tx, PPPOE_PLUS_FPC_SEND_FLAGS, mbuf) != 0) {
            FpcMbufFree(mbuf, __FILE__, __LINE__);
        }
    }
}

void Run(benchmark::State &state, const Bytes &msg, void (*drain)(), uint32_t copiesPerFrame)
{
    std::vector<uint8_t> buf(kTakeCap);
    uint64_t frames = 0;
    for (auto _ : state) {
        PutBatch(msg);
        drain();
        const uint32_t out = TakeAll(buf);
        if (out != kBatch * copiesPerFrame) {
            state.SkipWithError("a frame went missing");
            break;
        }
        frames += kBatch;
    }
    state.SetItemsProcessed(static_cast<int64_t>(frames));
    state.counters["PADI/s"] = benchmark::Counter(static_cast<double>(frames), benchmark::Counter::kIsRate);
}

void BM_Baseline(benchmark::State &state)
{
    Run(state, Padi(kVlan), BaselineDrain, 1);
}

void BM_RelayCommonFormat(benchmark::State &state)
{
    Run(state, Padi(kVlan), PPPOE_PLUS_RxPktFromDpx, 1);
}

void BM_RelayUserDefinedFormat(benchmark::State &state)
{
    (void)PPPOE_PLUS_SetGlobalCidFormat(PPPOE_PLUS_FORMAT_USER_DEFINE, "\"%sysname %porttype %slot/%subslot/%port:%svlan.%cvlan\"");
    (void)PPPOE_PLUS_SetGlobalRidFormat(PPPOE_PLUS_FORMAT_USER_DEFINE, "%mac");
    Run(state, Padi(kVlan), PPPOE_PLUS_RxPktFromDpx, 1);
    (void)PPPOE_PLUS_SetGlobalCidFormat(PPPOE_PLUS_FORMAT_COMMON, nullptr);
    (void)PPPOE_PLUS_SetGlobalRidFormat(PPPOE_PLUS_FORMAT_COMMON, nullptr);
}

void BM_RelayFloodToEightUplinks(benchmark::State &state)
{
    TrustFloodUplinks(1);
    Run(state, Padi(kFloodVlan), PPPOE_PLUS_RxPktFromDpx, kFloodUplinks);
    TrustFloodUplinks(0);
}

BENCHMARK(BM_Baseline);
BENCHMARK(BM_RelayCommonFormat);
BENCHMARK(BM_RelayUserDefinedFormat);
BENCHMARK(BM_RelayFloodToEightUplinks);

// One frame through the relay before measuring: it must come out on the
// uplink carrying the Vendor-Specific tag, or the figures mean nothing.
void CheckRelay()
{
    const Bytes msg = Padi(kVlan);
    if (WICK_ChannelPut(PPPOE_PLUS_RX_CHANNEL, msg.data(), static_cast<uint32_t>(msg.size())) != 0) {
        Die("receive channel");
    }
    PPPOE_PLUS_RxPktFromDpx();
    std::vector<uint8_t> buf(kTakeCap);
    uint32_t len = 0;
    if (WICK_ChannelTake(PPPOE_PLUS_TX_CHANNEL, buf.data(), kTakeCap, &len, 0) != 0 || len <= sizeof(DpxPktHead)) {
        Die("the relay sent nothing");
    }
    DpxPktHead head{};
    std::memcpy(&head, buf.data(), sizeof(head));
    const Bytes frame(buf.begin() + sizeof(head), buf.begin() + len);
    const auto parsed = pplus_test::Parse(frame);
    if (head.egrIfindex != kUplink || !parsed || !parsed->subOption(1)) {
        Die("the relayed frame lacks the agent's tag");
    }
    std::printf("relayed PADI on uplink %u, Circuit-ID \"%s\"\n", head.egrIfindex, parsed->subOption(1)->c_str());
}

}  // namespace

int main(int argc, char **argv)
{
    // The module opens "../lib/libwick.so" from the working directory.
    std::error_code ec;
    std::filesystem::current_path(std::filesystem::canonical("/proc/self/exe").parent_path(), ec);
    if (ec) {
        Die("cannot change to the program's folder");
    }
    PLAT_CallCountEnable(0);
    if (PLAT_LogSetFile("relay_bench.log", kLogFileRotateBytes) != 0) {
        Die("cannot open relay_bench.log");
    }
    BuildWorld();
    StartModule();
    CheckRelay();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    (void)PLAT_LogSetFile(nullptr, 0);  // writes what is pending
    std::error_code sizeError;
    const auto logBytes = std::filesystem::file_size("relay_bench.log", sizeError);
    std::printf("diagnostic lines logged: %llu; log file %s: %llu bytes, %llu line(s) dropped\n",
                static_cast<unsigned long long>(PLAT_LogLastSeq()),
                (std::filesystem::current_path() / "relay_bench.log").c_str(),
                static_cast<unsigned long long>(sizeError ? 0 : logBytes),
                static_cast<unsigned long long>(PLAT_LogFileDropped()));
    std::fflush(stdout);
    _exit(0);
}
