// Support services (ZAVK): assertion records and the dead-loop watchdog.
//
// On the real platform an assertion is recorded with its call site and a
// watchdog escalates (warning, error, critical, board reset) when a
// registered task spends too long inside one unit of work. Ours never
// aborts or resets: ZAVK_Assert counts every assert (total and per call
// site) and writes "ZAVK assert at <file>:<line>" to the log sink. A site
// that keeps asserting (the same fault on every frame) is not written again
// within the report interval (10 s, scaled): the repeats are counted and one
// summary line per interval says how many there were, written by a
// reporter thread started with the first repeat (or at once by
// PLAT_AssertFlushReports, which the host calls at exit). The watchdog is one thread,
// started with the first registration, that looks every 100 scaled ms at the
// registered threads and writes one report per threshold crossed per unit
// of work. Thresholds follow the time scale, so a test can make a thread look
// stuck within milliseconds; ZAVK_RegDeadloopMon passes failure injection.
#include <sys/types.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "core/internal.hpp"
#include "platform/control.h"
#include "platform/fail_point.hpp"
#include "zavk.h"

namespace {

constexpr uint32_t kZavkErrParam = 1;
constexpr uint32_t kWatchPeriodMs = 100;
constexpr std::array<const char *, 4> kLevelNames = {"warn", "error", "critical", "reset"};

using Clock = std::chrono::steady_clock;

// ---- Asserts ----

// A site reported less than this long ago (scaled) is not reported again;
// its repeats go into one summary line per interval.
constexpr uint64_t kAssertReportIntervalMs = 10000;

using Site = std::pair<std::string, uint32_t>;  // file, line

struct SiteRecord {
    uint32_t count = 0;        // every assert at the site
    uint32_t unreported = 0;   // repeats since the last line written for the site
    Clock::time_point lastReport{};
    Clock::time_point firstUnreported{};
};

struct Asserts {
    std::mutex mu;
    uint32_t total = 0;
    std::map<Site, SiteRecord> bySite;
    bool reporterStarted = false;
};

Asserts &TheAsserts()
{
    return platform::internal::Leaky<Asserts>();
}

Clock::duration AssertReportInterval()
{
    return std::chrono::microseconds(platform::internal::ScaledMicros(kAssertReportIntervalMs));
}

std::string RepeatSummary(const Site &site, SiteRecord &rec, Clock::time_point now)
{
    const auto spanMs =
        std::chrono::duration_cast<std::chrono::milliseconds>(now - rec.firstUnreported).count();
    std::string line = platform::internal::Format(
        "ZAVK assert at %s:%u repeated %u more time(s) over %lld ms (%u in total)", site.first.c_str(),
        site.second, rec.unreported, static_cast<long long>(spanMs), rec.count);
    rec.unreported = 0;
    rec.lastReport = now;
    return line;
}

// Summaries of the sites whose repeats are due (all of them when force);
// called with the lock held.
std::vector<std::string> DueSummaries(Asserts &asserts, bool force)
{
    std::vector<std::string> lines;
    const auto now = Clock::now();
    for (auto &[site, rec] : asserts.bySite) {
        if (rec.unreported != 0 && (force || now - rec.lastReport >= AssertReportInterval())) {
            lines.push_back(RepeatSummary(site, rec, now));
        }
    }
    return lines;
}

// Writes the due summaries every tenth of an interval, for the life of
// the process.
void AssertReportLoop()
{
    Asserts &asserts = TheAsserts();
    for (;;) {
        const uint64_t periodUs = std::max<uint64_t>(platform::internal::ScaledMicros(kAssertReportIntervalMs / 10), 1000);
        std::this_thread::sleep_for(std::chrono::microseconds(periodUs));
        std::vector<std::string> lines;
        {
            std::lock_guard lock(asserts.mu);
            lines = DueSummaries(asserts, false);
        }
        for (std::string &line : lines) {
            platform::internal::LogLine(PLAT_LOG_PLATFORM, line);
        }
    }
}

// ---- Dead-loop watchdog ----

struct Watched {
    std::string name;
    std::array<uint32_t, 4> thresholdSec{};
    std::optional<Clock::time_point> begin;  // inside a unit of work since
    size_t levelsReported = 0;               // in the current unit of work
};

struct Watchdog {
    std::mutex mu;
    std::map<pid_t, Watched> byTid;
    bool started = false;
    std::atomic<uint32_t> reports{0};
};

Watchdog &TheWatchdog()
{
    return platform::internal::Leaky<Watchdog>();
}

// One pass over the registered threads; returns the report lines.
std::vector<std::string> Inspect(Watchdog &dog)
{
    std::vector<std::string> lines;
    const auto now = Clock::now();
    const uint64_t scale = PLAT_GetTimeScale();
    std::lock_guard lock(dog.mu);
    for (auto &[tid, watched] : dog.byTid) {
        if (!watched.begin) {
            continue;
        }
        const auto elapsedUs = std::chrono::duration_cast<std::chrono::microseconds>(now - *watched.begin).count();
        const uint64_t elapsed = elapsedUs > 0 ? static_cast<uint64_t>(elapsedUs) : 0;
        while (watched.levelsReported < kLevelNames.size()) {
            const size_t level = watched.levelsReported;
            const uint64_t threshold = watched.thresholdSec[level];
            if (threshold == 0) {  // this level is not monitored
                watched.levelsReported++;
                continue;
            }
            // threshold seconds, scaled, in real microseconds
            if (elapsed < threshold * 1000 * scale) {
                break;
            }
            watched.levelsReported++;
            // The time inside the unit of work, in platform seconds.
            const uint64_t platformSec = elapsed / (1000 * scale);
            lines.push_back(platform::internal::Format(
                "ZAVK deadloop: task %s (tid %d) inside one unit of work for %llu s, over the %s threshold",
                watched.name.c_str(), static_cast<int>(tid), static_cast<unsigned long long>(platformSec),
                kLevelNames[level]));
        }
    }
    return lines;
}

void WatchLoop()
{
    Watchdog &dog = TheWatchdog();
    for (;;) {
        const uint64_t periodUs = std::max<uint64_t>(platform::internal::ScaledMicros(kWatchPeriodMs), 1000);
        std::this_thread::sleep_for(std::chrono::microseconds(periodUs));
        for (std::string &line : Inspect(dog)) {
            platform::internal::LogLine(PLAT_LOG_PLATFORM, std::move(line));
            dog.reports.fetch_add(1, std::memory_order_relaxed);
        }
    }
}

std::string NameOfTid(pid_t tid)
{
    std::string name = platform::internal::TaskNameOfTid(tid);
    if (!name.empty()) {
        return name;
    }
    const std::string path = "/proc/self/task/" + std::to_string(tid) + "/comm";
    if (std::FILE *f = std::fopen(path.c_str(), "r")) {
        char buf[64] = {};
        if (std::fgets(buf, sizeof(buf), f) != nullptr) {
            name = buf;
            while (!name.empty() && name.back() == '\n') {
                name.pop_back();
            }
        }
        std::fclose(f);
    }
    return name.empty() ? "tid-" + std::to_string(tid) : name;
}

}  // namespace

extern "C" {

void ZAVK_Assert(const char *file, uint32_t line)
{
    const std::string where = file == nullptr ? "(unknown)" : file;
    const auto now = Clock::now();
    Asserts &asserts = TheAsserts();
    {
        std::lock_guard lock(asserts.mu);
        asserts.total++;
        SiteRecord &rec = asserts.bySite[{where, line}];
        rec.count++;
        const bool quiet = rec.count == 1 || now - rec.lastReport >= AssertReportInterval();
        if (!quiet || rec.unreported != 0) {
            if (rec.unreported++ == 0) {
                rec.firstUnreported = now;
            }
            if (!asserts.reporterStarted) {
                try {
                    std::thread(AssertReportLoop).detach();
                    asserts.reporterStarted = true;
                } catch (const std::system_error &) {
                    // Repeats stay counted; PLAT_AssertFlushReports still reports them.
                }
            }
            return;
        }
        rec.lastReport = now;
    }
    PLAT_LogWrite(PLAT_LOG_PLATFORM, "ZAVK assert at %s:%u", where.c_str(), line);
}

void PLAT_AssertFlushReports(void)
{
    Asserts &asserts = TheAsserts();
    std::vector<std::string> lines;
    {
        std::lock_guard lock(asserts.mu);
        lines = DueSummaries(asserts, true);
    }
    for (std::string &text : lines) {
        platform::internal::LogLine(PLAT_LOG_PLATFORM, text);
    }
}

uint32_t PLAT_AssertCount(void)
{
    Asserts &asserts = TheAsserts();
    std::lock_guard lock(asserts.mu);
    return asserts.total;
}

uint32_t PLAT_AssertCountAt(const char *file, uint32_t line)
{
    Asserts &asserts = TheAsserts();
    std::lock_guard lock(asserts.mu);
    const auto it = asserts.bySite.find({file == nullptr ? "(unknown)" : file, line});
    return it == asserts.bySite.end() ? 0 : it->second.count;
}

void PLAT_AssertReset(void)
{
    Asserts &asserts = TheAsserts();
    std::lock_guard lock(asserts.mu);
    asserts.total = 0;
    asserts.bySite.clear();
}

uint32_t ZAVK_RegDeadloopMon(pid_t tid, uint32_t warnSec, uint32_t errorSec, uint32_t criticalSec,
                             uint32_t resetSec)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (tid <= 0) {
        return kZavkErrParam;
    }
    Watched watched;
    watched.name = NameOfTid(tid);
    watched.thresholdSec = {warnSec, errorSec, criticalSec, resetSec};
    Watchdog &dog = TheWatchdog();
    std::lock_guard lock(dog.mu);
    dog.byTid[tid] = std::move(watched);
    if (!dog.started) {
        // Runs for the life of the process; its state is never destroyed.
        try {
            std::thread(WatchLoop).detach();
        } catch (const std::system_error &) {
            dog.byTid.erase(tid);
            return kZavkErrParam;
        }
        dog.started = true;
    }
    return 0;
}

void ZAVK_DmOpers(uint32_t op)
{
    const pid_t tid = platform::internal::CurrentTid();
    Watchdog &dog = TheWatchdog();
    std::lock_guard lock(dog.mu);
    const auto it = dog.byTid.find(tid);
    if (it == dog.byTid.end()) {
        return;
    }
    if (op == ZAVK_DM_BEGIN) {
        it->second.begin = Clock::now();
        it->second.levelsReported = 0;
    } else if (op == ZAVK_DM_END) {
        it->second.begin.reset();
    }
}

uint32_t PLAT_DeadloopReports(void)
{
    return TheWatchdog().reports.load(std::memory_order_relaxed);
}

}  // extern "C"
