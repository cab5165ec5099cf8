// Throughput of the relay on one core: PADI frames put on the module's
// receive channel, drained by the module's receive path, rewritten and sent
// on the transmit channel, and taken off it again, all on this thread.
// Besides the rate on this thread's CPU time, each case reports the rate on
// wall time and the process's CPU time per frame (which includes the log
// sink's thread), and the heap allocations made per frame by the receive
// path once warm (counted by this program's own malloc).
// The baseline moves the same frames through the same channels with only
// the head cut and re-added, so the ratio between the two is the cost of
// the module's own processing. The board is HA master: every diagnostic
// record the relay writes per frame really reaches the platform's sink, its
// in-memory ring and its log file (relay_bench.log beside the program,
// written by the sink's own thread and rotated as the host's). Platform
// call counting, a test instrument, is off as in the host. The last case
// configures 4096 port control blocks of 32 per-interface formats each
// through the store's setters and reports the resident memory that added.
//
//   ./build/default/bin/relay_bench [--benchmark_filter=...]
#include <benchmark/benchmark.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
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
#include "plat_safe.h"
#include "pppoe_plus_tlv.h"
#include "wick.h"

// Heap allocations of the calling thread, counted by this program's own
// malloc family in front of glibc's (not under a sanitizer, which brings its
// own); -1 when not counted.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define RELAY_BENCH_COUNTS_MALLOC 0
#else
#define RELAY_BENCH_COUNTS_MALLOC 1
#endif

#if RELAY_BENCH_COUNTS_MALLOC
namespace {
thread_local uint64_t t_heapAllocs = 0;
}  // namespace

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *ptr, size_t size);
void *__libc_memalign(size_t alignment, size_t size);

void *malloc(size_t size)
{
    t_heapAllocs++;
    return __libc_malloc(size);
}

void *calloc(size_t count, size_t size)
{
    t_heapAllocs++;
    return __libc_calloc(count, size);
}

void *realloc(void *ptr, size_t size)
{
    t_heapAllocs++;
    return __libc_realloc(ptr, size);
}

void *aligned_alloc(size_t alignment, size_t size)
{
    t_heapAllocs++;
    return __libc_memalign(alignment, size);
}

int posix_memalign(void **out, size_t alignment, size_t size)
{
    t_heapAllocs++;
    void *p = __libc_memalign(alignment, size);
    if (p == nullptr) {
        return ENOMEM;
    }
    *out = p;
    return 0;
}
}  // extern "C"

namespace {
int64_t HeapAllocs()
{
    return static_cast<int64_t>(t_heapAllocs);
}
}  // namespace
#else
namespace {
int64_t HeapAllocs()
{
    return -1;
}
}  // namespace
#endif

namespace {

using frames::Bytes;
using frames::Frame;

constexpr uint32_t kSubscriberPort = 5;      // GigabitEthernet0/0/1 of the example
constexpr uint32_t kUplink = 49;             // XGigabitEthernet0/0/1, trusted
constexpr uint16_t kVlan = 100;
constexpr uint16_t kFloodVlan = 300;         // eight trusted uplinks carry only this VLAN
constexpr uint32_t kFloodUplinkBase = 200;
constexpr uint32_t kFloodUplinks = 8;
constexpr uint32_t kBatch = 32;
constexpr uint32_t kTakeCap = 2048;
constexpr uint64_t kLogFileRotateBytes = 64ULL * 1024 * 1024;  // as the host's --log-file
constexpr uint32_t kScalePorts = 4096;
constexpr uint32_t kScaleIfIndexBase = 10000;   // control blocks of ports the world need not know
constexpr uint16_t kScaleVlanBase = 3000;       // VLANs of the scale formats; the frames use others

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
    return frames::WithDpxHead(
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

uint64_t ProcessCpuNanos()
{
    timespec ts{};
    (void)clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ULL + static_cast<uint64_t>(ts.tv_nsec);
}

// Resident memory of the process, in bytes.
uint64_t ResidentBytes()
{
    FILE *statm = std::fopen("/proc/self/statm", "r");
    unsigned long long size = 0;
    unsigned long long resident = 0;
    if (statm != nullptr) {
        if (std::fscanf(statm, "%llu %llu", &size, &resident) != 2) {
            resident = 0;
        }
        std::fclose(statm);
    }
    return resident * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

void Run(benchmark::State &state, const Bytes &msg, void (*drain)(), uint32_t copiesPerFrame)
{
    std::vector<uint8_t> buf(kTakeCap);
    // One batch before counting, so pools and caches are warm.
    PutBatch(msg);
    drain();
    (void)TakeAll(buf);
    uint64_t frames = 0;
    int64_t allocs = 0;
    const uint64_t cpu0 = ProcessCpuNanos();
    const auto wall0 = std::chrono::steady_clock::now();
    for (auto _ : state) {
        PutBatch(msg);
        const int64_t before = HeapAllocs();
        drain();
        allocs += HeapAllocs() - before;
        const uint32_t out = TakeAll(buf);
        if (out != kBatch * copiesPerFrame) {
            state.SkipWithError("a frame went missing");
            break;
        }
        frames += kBatch;
    }
    const double wallSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall0).count();
    const uint64_t cpuNanos = ProcessCpuNanos() - cpu0;
    state.SetItemsProcessed(static_cast<int64_t>(frames));
    state.counters["PADI/s"] = benchmark::Counter(static_cast<double>(frames), benchmark::Counter::kIsRate);
    if (frames != 0) {
        state.counters["wall PADI/s"] = static_cast<double>(frames) / wallSeconds;
        state.counters["proc ns/frame"] = static_cast<double>(cpuNanos) / static_cast<double>(frames);
        state.counters["allocs/frame"] =
            HeapAllocs() < 0 ? -1.0 : static_cast<double>(allocs) / static_cast<double>(frames);
    }
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

// 4096 control blocks with 32 user-defined formats each (16 VLANs, both
// info types), the subscriber port among them; none matches the frames'
// VLAN, so every build walks the port's lists before the global format.
// Made once; the resident memory it added is kept for the report.
uint64_t ConfigureScale()
{
    static uint64_t added = [] {
        const uint64_t before = ResidentBytes();
        InfoFormatNode node = {};
        (void)strcpy_s(node.userDefineStr, sizeof(node.userDefineStr),
                       "\"%sysname %porttype %slot/%subslot/%port:%svlan.%cvlan\"");
        node.infoFormatType = PPPOE_PLUS_FORMAT_USER_DEFINE;
        for (uint32_t p = 0; p < kScalePorts; p++) {
            const uint32_t ifIndex = p == 0 ? kSubscriberPort : kScaleIfIndexBase + p;
            for (uint32_t f = 0; f < PPPOE_PLUS_MAX_PORT_FORMATS; f++) {
                node.vlanId = static_cast<uint16_t>(kScaleVlanBase + f / 2U);
                node.infoType = (f % 2U) == 0U ? PPPOE_PLUS_INFO_CID : PPPOE_PLUS_INFO_RID;
                if (PPPOE_PLUS_SetPortFormat(&node, ifIndex, 1) != 0) {
                    Die("scale configuration");
                }
            }
        }
        const uint64_t after = ResidentBytes();
        return after > before ? after - before : 0;
    }();
    return added;
}

void BM_RelayCommonFormat4096Ports(benchmark::State &state)
{
    const uint64_t added = ConfigureScale();
    Run(state, Padi(kVlan), PPPOE_PLUS_RxPktFromDpx, 1);
    state.counters["config RSS MB"] = static_cast<double>(added) / (1024.0 * 1024.0);
}

BENCHMARK(BM_Baseline);
BENCHMARK(BM_RelayCommonFormat);
BENCHMARK(BM_RelayUserDefinedFormat);
BENCHMARK(BM_RelayFloodToEightUplinks);
BENCHMARK(BM_RelayCommonFormat4096Ports);  // last: the scale configuration stays

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
    const auto parsed = frames::Parse(frame);
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
