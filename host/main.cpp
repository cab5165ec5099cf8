// pppoe-plus-switch: the application framework of a software access switch.
// It builds the world the agent runs in from a topology file, loads the
// agent module like the switch's framework would, waits until the agent's
// tasks serve their queue and channel, reports the start of work through
// the HA service, runs until SIGINT or SIGTERM, and
// reports what the agent left allocated.
#include <dlfcn.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <thread>

// CLI11 trips g++'s null-dereference analysis inside its own headers.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnull-dereference"
#include <CLI/CLI.hpp>
#pragma GCC diagnostic pop

#include "control.hpp"
#include "control_server.hpp"
#include "datastore.hpp"
#include "devm.h"
#include "example_topology.hpp"
#include "netconf.hpp"
#include "platform/control.h"
#include "device/fwm.hpp"
#include "device/ha.hpp"
#include "device/world.hpp"
#include "police.hpp"
#include "ports.hpp"
#include "wick.h"

namespace {

struct Options {
    std::string topologyFile;
    bool verbose = false;
    bool quiet = false;
    unsigned devmDelayMs = 0;
    unsigned readyTimeoutSec = 60;
    unsigned runForSec = 0;
    unsigned timeScale = 1000;
    std::string controlPath = host::DefaultControlPath();
    std::string logFile;
    bool stay = false;
    host::DatastoreOptions datastore;
    host::NetconfOptions netconf;
};

// Framework instance states the agent's readiness wait accepts.
constexpr uint32_t kModStateMainReady = 12;
constexpr uint32_t kModStateRunning = 8;

// --log-file rotates at this size, keeping the file before as FILE.1.
constexpr uint64_t kLogFileRotateBytes = 64ULL * 1024 * 1024;

const char *KindName(uint32_t kind)
{
    switch (kind) {
        case PLAT_LOG_SYSLOG: return "syslog";
        case PLAT_LOG_DIAG: return "diag";
        case PLAT_LOG_DEBUG: return "debug";
        default: return "platform";
    }
}

// What the log printer shows.
struct PrintFilter {
    bool verbose = false;  // debug lines too
    bool quiet = false;    // neither system-log lines nor diagnostic records
};

// Log lines reach stdout in batches: in a PADI flood the agent's
// diagnostic records make hundreds of thousands of lines a second, and a
// write per line would cost more than the frames they describe. The first
// line after a flush wakes a thread of its own that flushes kPrintDelay
// later, so no line waits longer than that.
constexpr auto kPrintDelay = std::chrono::milliseconds(5);
constexpr size_t kStdoutBuffer = 256 * 1024;

class DelayedFlush {
public:
    // Never destroyed: the sink prints from its own thread until the process exits.
    static DelayedFlush &Get()
    {
        static auto *flush = new DelayedFlush;
        return *flush;
    }

    // Something was written to stdout: flushed within kPrintDelay.
    void Note()
    {
        if (!dirty_.exchange(true)) {
            const std::lock_guard lock(mu_);
            cv_.notify_one();
        }
    }

private:
    DelayedFlush()
    {
        std::thread([this]() { Run(); }).detach();
    }

    void Run()
    {
        std::unique_lock lock(mu_);
        for (;;) {
            cv_.wait(lock, [this]() { return dirty_.load(); });
            lock.unlock();
            std::this_thread::sleep_for(kPrintDelay);
            // Cleared before the flush: a line written after it sets it again.
            dirty_.store(false);
            std::fflush(stdout);
            lock.lock();
        }
    }

    std::mutex mu_;
    std::condition_variable cv_;
    std::atomic<bool> dirty_{false};
};

void PrintLine(uint32_t kind, const char *line, void *arg)
{
    const auto *filter = static_cast<const PrintFilter *>(arg);
    if ((kind == PLAT_LOG_DEBUG && !filter->verbose) ||
        (filter->quiet && (kind == PLAT_LOG_SYSLOG || kind == PLAT_LOG_DIAG))) {
        return;
    }
    flockfile(stdout);
    fputc_unlocked('[', stdout);
    fputs_unlocked(KindName(kind), stdout);
    fputs_unlocked("] ", stdout);
    fputs_unlocked(line, stdout);
    fputc_unlocked('\n', stdout);
    funlockfile(stdout);
    DelayedFlush::Get().Note();
}

// The host's own lines go after every log line logged before them: the
// sink prints from its own thread, so what it holds is printed first.
void Say(const char *text)
{
    PLAT_LogFlush();
    std::printf("pppoe-plus-switch: %s\n", text);
    std::fflush(stdout);
}

// The host runs from its own bin folder, as the switch's framework does.
bool ChangeToOwnFolder()
{
    char self[PATH_MAX] = {};
    const ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (n <= 0) {
        return false;
    }
    std::string dir(self, static_cast<size_t>(n));
    dir.erase(dir.rfind('/'));
    return chdir(dir.c_str()) == 0;
}

// The switch's own libraries that the agent opens by bare name. They are
// loaded from the host's ../lib first, so that the agent's dlopen finds the
// library already loaded by its name whatever the run path of the caller
// (a sanitizer's dlopen interceptor calls from its own library, whose run
// path does not hold our lib/). No environment variable is needed.
constexpr const char *kPreloadedLibraries[] = {"../lib/libydbc.so"};

bool PreloadSwitchLibraries()
{
    for (const char *path : kPreloadedLibraries) {
        if (dlopen(path, RTLD_NOW | RTLD_GLOBAL) == nullptr) {
            std::fprintf(stderr, "pppoe-plus-switch: cannot load %s: %s\n", path, dlerror());
            return false;
        }
    }
    return true;
}

// The board's HA role and the master board, as the topology gives them.
struct HaPlan {
    uint32_t role = device::ha::kRoleMaster;
    uint32_t chassisId = 1;
    uint32_t mainBoardId = 1;
};

bool SetUpWorld(const Options &opts, HaPlan *ha, std::map<uint32_t, std::string> *netdevs,
                platform::PlaneSettings *plane)
{
    std::string error;
    const auto topology = opts.topologyFile.empty() ? device::world::LoadTopologyText(kExampleTopology, &error)
                                                    : device::world::LoadTopologyFile(opts.topologyFile, &error);
    if (!topology) {
        std::fprintf(stderr, "pppoe-plus-switch: %s\n", error.c_str());
        return false;
    }
    const platform::SystemIdentity &sys = topology->system;
    platform::world::ApplyTopology(*topology);
    platform::FrmInstRecord instance;
    instance.localSlot = static_cast<int32_t>(sys.selfBoardId);
    instance.modState = sys.selfBoardId == sys.mainBoardId ? kModStateMainReady : kModStateRunning;
    instance.state = 1;
    platform::world::FrmInstPut(instance);
    *ha = HaPlan{topology->haRole, sys.chassisId, sys.mainBoardId};
    *netdevs = topology->netdevs;
    *plane = topology->plane;
    std::printf("pppoe-plus-switch: switch \"%s\", chassis %u, board %u (main board %u)\n", sys.sysName.c_str(),
                sys.chassisId, sys.selfBoardId, sys.mainBoardId);
    return true;
}

template <typename Fn>
Fn Symbol(void *module, const char *name)
{
    return reinterpret_cast<Fn>(dlsym(module, name));
}

// The agent's HA accessors, which "ha show" and the start of work read.
host::ControlHooks AgentHaOf(void *module)
{
    host::ControlHooks hooks;
    hooks.haGetRole = Symbol<decltype(hooks.haGetRole)>(module, "PPPOE_PLUS_HaGetRole");
    hooks.haGetSmbInstId = Symbol<decltype(hooks.haGetSmbInstId)>(module, "PPPOE_PLUS_HaGetSmbInstId");
    hooks.haGetMMBInfo = Symbol<decltype(hooks.haGetMMBInfo)>(module, "PPPOE_PLUS_HaGetMMBInfo");
    return hooks;
}

void ReportLeaks()
{
    PLAT_LogFlush();
    const uint32_t sites = PLAT_MemLeakReport(
        [](const char *handle, const char *file, uint32_t line, uint32_t blocks, uint64_t bytes, void *) {
            std::printf("pppoe-plus-switch: outstanding %u block(s), %llu bytes, handle %s, allocated at %s:%u\n",
                        blocks, static_cast<unsigned long long>(bytes), handle, file, line);
        },
        nullptr);
    std::printf("pppoe-plus-switch: %u allocation(s) outstanding at %u call site(s)\n", PLAT_MemOutstanding(),
                sites);
    (void)WICK_MbufLeakReport(
        [](const char *file, uint32_t line, uint32_t count, void *) {
            std::printf("pppoe-plus-switch: outstanding %u frame buffer(s) allocated at %s:%u\n", count, file, line);
        },
        nullptr);
    std::printf("pppoe-plus-switch: %u frame buffer(s) outstanding\n", WICK_MbufOutstanding());
}

// The HA service reports the start of work with the topology's role, then
// names the master board; waits until the agent's role is set (the role is
// applied on the agent's init task after delivery).
void StartHa(const HaPlan &ha, const host::ControlHooks &agent)
{
    constexpr uint32_t kWaitMs = 5000;
    const device::ha::Seq started = device::ha::StartWork(ha.role);
    const device::ha::Seq named = device::ha::MasterChange(ha.chassisId, ha.mainBoardId);
    const bool delivered = device::ha::WaitDelivered(started, kWaitMs) && device::ha::WaitDelivered(named, kWaitMs);
    uint32_t role = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
    while (agent.haGetRole != nullptr && (role = agent.haGetRole()) == 0 &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    PLAT_LogFlush();
    std::printf("pppoe-plus-switch: HA start of work reported with role %u, master board %u/%u%s; agent role %u\n",
                ha.role, ha.chassisId, ha.mainBoardId, delivered ? "" : " (not delivered in time)", role);
    std::fflush(stdout);
}

// The agent runs its configuration client on a main processing board or a
// single box.
bool BoardServesConfiguration()
{
    const uint32_t type = platform::world::Identity().boardType;
    return type == DEVM_BOARD_TYPE_MPU || type == DEVM_BOARD_TYPE_BOX;
}

// Waits until the init task serves its epoll set and the main task waits on
// its receive channel.
bool WaitAgentReady(unsigned timeoutSec)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSec);
    auto remainingMs = [&deadline]() {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline -
                                                                                 std::chrono::steady_clock::now());
        return static_cast<uint32_t>(left.count() > 0 ? left.count() : 0);
    };
    return PLAT_TaskWaitUntilWaiting("PPPoE_Plus_Init", "MESH_EpollWait", remainingMs()) != 0 &&
           PLAT_TaskWaitUntilWaiting("PPPoE_Plus_Main", "FPC_EventRead", remainingMs()) != 0;
}

// Waits for SIGINT or SIGTERM, or until done() holds (looked at every
// 100 ms); what stopped the switch ("" when done).
template <typename Done>
std::string WaitForStop(const sigset_t &signals, Done done)
{
    constexpr timespec kLook{0, 100 * 1000 * 1000};
    for (;;) {
        const int sig = sigtimedwait(&signals, nullptr, &kLook);
        if (sig == SIGINT || sig == SIGTERM) {
            return std::string(sig == SIGINT ? "SIGINT" : "SIGTERM") + " received, stopping";
        }
        if (done()) {
            return "";
        }
    }
}

}  // namespace

int main(int argc, char **argv)
{
    // Into a file or a pipe, log lines leave in large writes (DelayedFlush);
    // a terminal keeps its line buffering.
    static char stdoutBuffer[kStdoutBuffer];
    if (isatty(STDOUT_FILENO) == 0) {
        (void)std::setvbuf(stdout, stdoutBuffer, _IOFBF, sizeof(stdoutBuffer));
    }
    Options opts;
    CLI::App app{"Software access switch hosting the PPPoE intermediate agent"};
    app.add_option("-t,--topology", opts.topologyFile, "Topology file (YAML); default: the bundled example")
        ->check(CLI::ExistingFile);
    app.add_flag("-v,--verbose", opts.verbose, "Show debug lines and switch every debug level on");
    app.add_flag("-q,--quiet", opts.quiet,
                 "Show neither system-log lines nor diagnostic records (--log-file still gets them)");
    app.add_option("--devm-delay-ms", opts.devmDelayMs, "Keep the device database unready for this long");
    app.add_option("--ready-timeout", opts.readyTimeoutSec, "Seconds to wait for the agent to become ready");
    app.add_option("--run-for", opts.runForSec, "Stop after this many seconds (0: run until SIGINT/SIGTERM)");
    app.add_flag("--stay", opts.stay, "After replaying --in files, keep running until SIGINT/SIGTERM");
    app.add_option("--time-scale", opts.timeScale,
                   "Platform delays run at this many thousandths of real time (1000: real time)")
        ->check(CLI::Range(1U, 1000000U));
    host::PortOptions portOpts;
    host::AddPortOptions(app, portOpts);
    host::AddDatastoreOptions(app, opts.datastore);
    host::AddNetconfOptions(app, opts.netconf);
    app.add_option("--control", opts.controlPath, "Control socket for pppoe-plus-cli")
        ->default_str(opts.controlPath);
    app.add_option("--group", opts.datastore.group,
                   "Group whose members may use the control and datastore sockets (default: the user's group)");
    app.add_option("--log-file", opts.logFile,
                   "Also write every log line (system log, diagnostic records, debug lines) to this file, "
                   "rotated at 64 MiB into FILE.1");
    CLI11_PARSE(app, argc, argv);
    PLAT_SetTimeScale(opts.timeScale);

    // Signals are taken by sigwait below; every thread started from here on
    // inherits the blocked mask.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    static PrintFilter filter;
    filter = {opts.verbose, opts.quiet};
    (void)DelayedFlush::Get();   // its thread inherits the blocked signals
    PLAT_LogSetPrinter(PrintLine, &filter);
    // The host reads no call counts: operations skip the counting.
    PLAT_CallCountEnable(0);
    if (!opts.logFile.empty() && PLAT_LogSetFile(opts.logFile.c_str(), kLogFileRotateBytes) != 0) {
        std::fprintf(stderr, "pppoe-plus-switch: cannot write the log file %s: %s\n", opts.logFile.c_str(),
                     std::strerror(errno));
        return 1;
    }
    // Paths on the command line are relative to where the host was started.
    if (!opts.topologyFile.empty()) {
        std::error_code ec;
        opts.topologyFile = std::filesystem::absolute(opts.topologyFile, ec).string();
    }
    host::MakePathsAbsolute(portOpts);
    host::MakeDatastorePathsAbsolute(opts.datastore);
    host::MakeNetconfPathsAbsolute(opts.netconf);
    if (!ChangeToOwnFolder()) {
        Say("cannot change to the host's own folder");
        return 1;
    }
    HaPlan haPlan;
    std::map<uint32_t, std::string> netdevs;
    platform::PlaneSettings planeSettings;
    if (!SetUpWorld(opts, &haPlan, &netdevs, &planeSettings)) {
        return 1;
    }
    // Ports are checked before the agent starts.
    host::HostPorts ports;
    std::string portError;
    if (!ports.Open(portOpts, netdevs, planeSettings, &portError)) {
        std::fprintf(stderr, "pppoe-plus-switch: %s\n", portError.c_str());
        return 1;
    }
    std::thread devmBoot;
    if (opts.devmDelayMs == 0) {
        platform::world::SetDevmReady(true);
    } else {
        devmBoot = std::thread([delay = opts.devmDelayMs]() {
            std::this_thread::sleep_for(std::chrono::milliseconds(delay));
            platform::world::SetDevmReady(true);
        });
    }

    // The forwarding manager serves before the agent connects to it.
    device::fwm::SetObserver([](const device::fwm::Request *request, const std::string &client) {
        if (request != nullptr) {
            PLAT_LogWrite(PLAT_LOG_PLATFORM, "[fwm] %s", device::fwm::Describe(*request).c_str());
        } else {
            PLAT_LogWrite(PLAT_LOG_PLATFORM, "[fwm] client %s attached", client.c_str());
        }
    });
    if (!device::fwm::Start()) {
        Say("cannot start the forwarding manager");
        return 1;
    }

    // The datastore serves before the agent's configuration client connects.
    std::string datastoreError;
    const auto datastore = host::StartDatastore(opts.datastore, &datastoreError);
    if (!datastore) {
        std::fprintf(stderr, "pppoe-plus-switch: datastore: %s\n", datastoreError.c_str());
        return 1;
    }
    // The plane's own state (subscribers, punt policing, ports) is served
    // beside the agent's.
    datastore->ServeState(device::fplane::kStatePath,
                          [plane = ports.Plane()](const std::string &) { return device::fplane::StateXml(*plane); });

    if (!PreloadSwitchLibraries()) {
        return 1;
    }
    void *module = dlopen("../lib/libpppoe_plus_frame.so", RTLD_NOW | RTLD_GLOBAL);
    if (module == nullptr) {
        std::fprintf(stderr, "pppoe-plus-switch: cannot load the agent: %s\n", dlerror());
        return 1;
    }
    using EntryFn = uint32_t (*)();
    const auto preFrameInit = Symbol<EntryFn>(module, "PPPOE_PLUS_PreFrameInit");
    const auto frameInit = Symbol<EntryFn>(module, "PPPOE_PLUS_FrameInit");
    const auto mainExit = Symbol<EntryFn>(module, "PPPOE_PLUS_MainExit");
    const auto updateDebug = Symbol<uint32_t (*)(uint32_t, uint32_t)>(module, "PPPOE_PLUS_UpdateDebugSwitch");
    if (preFrameInit == nullptr || frameInit == nullptr || mainExit == nullptr || updateDebug == nullptr) {
        Say("the agent module lacks an entry point");
        return 1;
    }
    if (opts.verbose) {
        (void)updateDebug(4, 1);
    }
    if (preFrameInit() != 0 || frameInit() != 0) {
        Say("the agent failed to start");
        return 1;
    }
    if (devmBoot.joinable()) {
        devmBoot.join();
    }
    if (!WaitAgentReady(opts.readyTimeoutSec)) {
        Say("the agent did not become ready in time");
        ReportLeaks();
        (void)PLAT_LogSetFile(nullptr, 0);
        std::fflush(stdout);
        _exit(1);
    }
    Say("agent ready: task PPPoE_Plus_Init serves its event loop, task PPPoE_Plus_Main waits on channel/dpx2ppplus");
    host::ControlHooks hooks = AgentHaOf(module);
    StartHa(haPlan, hooks);
    // The configuration client runs on the main board once HA has told the
    // agent to start work; traffic waits until the saved configuration has
    // been replayed to it.
    if (BoardServesConfiguration()) {
        if (!datastore->WaitReplayed("pppoe_plus", std::chrono::seconds(opts.readyTimeoutSec))) {
            Say("the agent did not take its configuration from the datastore in time");
            ReportLeaks();
            (void)PLAT_LogSetFile(nullptr, 0);
            std::fflush(stdout);
            _exit(1);
        }
        Say("agent configured from the datastore");
    }
    std::string netconfError;
    auto netconf = host::StartNetconf(opts.netconf, opts.datastore, &netconfError);
    if (!netconf && !netconfError.empty()) {
        std::fprintf(stderr, "pppoe-plus-switch: NETCONF: %s\n", netconfError.c_str());
        ReportLeaks();
        (void)PLAT_LogSetFile(nullptr, 0);
        std::fflush(stdout);
        _exit(1);
    }
    host::ControlServer control;
    hooks.replay = [&ports](const std::string &binding, std::string *output) {
        return ports.ReplayMore(binding, output);
    };
    hooks.ports = [&ports]() { return ports.Describe(); };
    hooks.police = [plane = ports.Plane()](const std::vector<std::string> &words, std::string *output) {
        return host::PoliceCommand(*plane, words, output);
    };
    if (std::string error; !control.Start(opts.controlPath, hooks, &error, {opts.datastore.group})) {
        Say(("control socket not available: " + error).c_str());
    } else {
        PLAT_LogFlush();
        std::printf("pppoe-plus-switch: control socket %s\n", opts.controlPath.c_str());
        std::fflush(stdout);
    }
    // The inputs replay on a thread of their own, so that a signal stops
    // the switch (and the replay) at any time.
    std::atomic<bool> replayDone{!ports.HasInputs()};
    std::thread replayer;
    if (ports.HasInputs()) {
        replayer = std::thread([&ports, &replayDone]() {
            const host::ReplayResult result = ports.Replay();
            Say(result.Describe().c_str());
            if (!result.idle && !result.stopped) {
                Say("the forwarding plane did not become idle after the replay");
            }
            ports.PrintSummary();
            replayDone = true;
        });
    }
    // Replayed and nothing more asked: done. Otherwise until a signal or
    // the end of --run-for.
    const bool endsWithReplay = ports.HasInputs() && opts.runForSec == 0 && !opts.stay;
    const auto runUntil = std::chrono::steady_clock::now() + std::chrono::seconds(opts.runForSec);
    const std::string stopReason = WaitForStop(stopSignals, [&]() {
        if (endsWithReplay) {
            return replayDone.load();
        }
        return opts.runForSec != 0 && std::chrono::steady_clock::now() >= runUntil;
    });
    if (!stopReason.empty()) {
        Say(stopReason.c_str());
    } else if (!endsWithReplay) {
        Say("run time over, stopping");
    }
    ports.StopReplays();
    if (replayer.joinable()) {
        replayer.join();
    }
    netconf.reset();
    control.Stop();
    if (ports.HasLivePorts()) {
        ports.PrintSummary();
    }
    datastore->ServeState(device::fplane::kStatePath, nullptr);
    ports.Close();
    const uint32_t exitRet = mainExit();
    PLAT_LogFlush();
    std::printf("pppoe-plus-switch: agent exit returned %u\n", exitRet);
    PLAT_LogWrite(PLAT_LOG_PLATFORM, "[fwm] state: %s", device::fwm::Describe(device::fwm::GetState()).c_str());
    PLAT_AssertFlushReports();
    ReportLeaks();
    (void)PLAT_LogSetFile(nullptr, 0);  // writes what is pending
    std::fflush(stdout);
    // The agent's tasks run for the life of the process; leave without
    // running static destructors under their feet.
    _exit(0);
}
