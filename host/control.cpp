// The host's control socket: a unix stream socket taking one command line
// per connection and answering with "ok" or "error: <why>" followed by the
// command's output. World commands go through the world model's setters,
// whose writes the object database pushes to the agent's subscriptions.
//
//   if list | if on <name|ifIndex> | if off <name|ifIndex>
//   if resolve <name|ifIndex>     (answers "<ifIndex> <name>", for programs)
//   board list | board register <slot> | board unregister <slot>
//   fwm
//   ha start-work <role> | ha new-backup <chassis> <board> | ha backup-removed |
//   ha promote | ha demote | ha master <chassis> <board> | ha show
//   port replay <PORT>=<FILE.pcap> | port list
//   police show | police global|default <rate> <burst>|off | police port <PORT> <rate> <burst>|off|default
//   stats
//   fail <op> [skip times code] | fail clear
//
// The agent itself is configured through the datastore, not through here.

#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <optional>
#include <sstream>
#include <vector>

#include "control.hpp"
#include "device/fwm.hpp"
#include "device/ha.hpp"
#include "platform/control.h"
#include "platform/world.hpp"
#include "wick.h"

namespace host {

namespace {

std::vector<std::string> Words(const std::string &line)
{
    std::istringstream in(line);
    std::vector<std::string> words;
    for (std::string word; in >> word;) {
        words.push_back(word);
    }
    return words;
}

std::optional<uint32_t> Number(const std::string &text)
{
    uint32_t value = 0;
    const char *end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, value);
    if (ec != std::errc() || ptr != end) {
        return std::nullopt;
    }
    return value;
}

std::string Ok(const std::string &output = "")
{
    return output.empty() ? "ok\n" : "ok\n" + output + "\n";
}

std::string Error(const std::string &why)
{
    return "error: " + why + "\n";
}

std::string Describe(const platform::IfRecord &rec)
{
    return "interface " + rec.name + " (ifIndex " + std::to_string(rec.ifIndex) + ")";
}

std::string InterfaceCommand(const std::vector<std::string> &w)
{
    if (w.size() == 2 && w[1] == "list") {
        std::ostringstream out;
        out << "ifIndex  on-board  name";
        for (const platform::IfRecord &rec : platform::world::IfRecords()) {
            out << "\n" << rec.ifIndex << "  " << (rec.onBoard ? "yes" : "no") << "  " << rec.name;
        }
        return Ok(out.str());
    }
    if (w.size() != 3 || (w[1] != "on" && w[1] != "off")) {
        return Error("usage: if list | if on <name|ifIndex> | if off <name|ifIndex> | if resolve <name|ifIndex>");
    }
    const auto rec = platform::world::IfResolve(w[2]);
    if (!rec) {
        return Error("no interface named or numbered " + w[2]);
    }
    const bool onBoard = w[1] == "on";
    if (!platform::world::IfSetOnBoard(rec->ifIndex, onBoard)) {
        return Error(Describe(*rec) + " disappeared");
    }
    return Ok(Describe(*rec) + (onBoard ? " is on board" : " is off board"));
}

// "if resolve PORT": the ifIndex and name of the interface PORT names, as a
// program reads them.
std::string ResolveCommand(const std::vector<std::string> &w)
{
    if (w.size() != 3) {
        return Error("usage: if resolve <name|ifIndex>");
    }
    const auto rec = platform::world::IfResolve(w[2]);
    if (!rec) {
        return Error("no interface named or numbered " + w[2]);
    }
    return Ok(std::to_string(rec->ifIndex) + " " + rec->name);
}

std::string BoardCommand(const std::vector<std::string> &w)
{
    const uint32_t chassisId = platform::world::Identity().chassisId;
    if (w.size() == 2 && w[1] == "list") {
        std::ostringstream out;
        out << "chassis  slot  state";
        for (const platform::BoardRecord &rec : platform::world::BoardRecords()) {
            out << "\n" << rec.chassisId << "  " << rec.slotId << "  ";
            if (!rec.registerStatus) {
                out << "unknown";
            } else {
                out << (*rec.registerStatus == platform::kBoardRegistered ? "registered" : "unregistered");
            }
        }
        return Ok(out.str());
    }
    if (w.size() != 3 || (w[1] != "register" && w[1] != "unregister")) {
        return Error("usage: board list | board register <slot> | board unregister <slot>");
    }
    const auto slot = Number(w[2]);
    if (!slot) {
        return Error("not a slot number: " + w[2]);
    }
    const bool registered = w[1] == "register";
    platform::BoardRecord rec;
    rec.chassisId = chassisId;
    rec.slotId = *slot;
    rec.registerStatus = registered ? platform::kBoardRegistered : platform::kBoardUnregistered;
    platform::world::BoardPut(rec);
    return Ok("board " + std::to_string(*slot) + " of chassis " + std::to_string(chassisId) +
              (registered ? " is registered" : " is unregistered"));
}

constexpr uint32_t kHaDeliveryWaitMs = 5000;

const char *RoleName(uint32_t role)
{
    switch (role) {
        case 0: return "unknown";
        case 1: return "master";
        case 2: return "standby";
        case 3: return "slave";
        default: return "invalid";
    }
}

std::string Dotted(uint32_t ip)
{
    return std::to_string(ip >> 24) + "." + std::to_string((ip >> 16) & 0xFFU) + "." +
           std::to_string((ip >> 8) & 0xFFU) + "." + std::to_string(ip & 0xFFU);
}

// Waits for the event's delivery and says who was called and what each returned.
std::string Delivered(const std::string &what, device::ha::Seq seq)
{
    if (!device::ha::WaitDelivered(seq, kHaDeliveryWaitMs)) {
        return Error(what + " queued as event " + std::to_string(seq) + " but not delivered in time");
    }
    const auto d = device::ha::GetDelivery(seq);
    std::ostringstream out;
    out << what << " delivered";
    if (!d || d->names.empty()) {
        out << " to no component";
    }
    for (size_t i = 0; d && i < d->names.size(); i++) {
        out << (i == 0 ? " to " : ", ") << d->names[i] << " (returned " << d->returns[i] << ")";
    }
    return Ok(out.str());
}

std::string HaShow(const ControlHooks &agent)
{
    std::ostringstream out;
    if (agent.haGetRole != nullptr) {
        const uint32_t role = agent.haGetRole();
        out << "agent role " << role << " (" << RoleName(role) << ")";
    } else {
        out << "agent role: the agent module lacks the role accessor";
    }
    if (agent.haGetSmbInstId != nullptr) {
        out << "\nagent standby slot " << agent.haGetSmbInstId();
    }
    uint32_t chassis = 0;
    uint32_t board = 0;
    uint32_t ip = 0;
    if (agent.haGetMMBInfo != nullptr && agent.haGetMMBInfo(&chassis, &board, &ip) == 0) {
        out << "\nagent master " << chassis << "/" << board << " ip " << Dotted(ip);
    }
    out << "\nservice " << device::ha::Describe(device::ha::GetState());
    for (const device::ha::Registration &reg : device::ha::Registrations()) {
        out << "\ncomponent " << reg.name << " type " << (reg.type.empty() ? "-" : reg.type) << " pid " << reg.pid
            << (reg.mmbSubscribed ? " follows the master" : "");
    }
    const auto reports = device::ha::SwitchoverReports();
    out << "\nswitchover reports " << reports.size();
    for (const device::ha::SwitchoverReport &report : reports) {
        out << "\nreport " << device::ha::Describe(report);
    }
    return Ok(out.str());
}

// "fail OP [SKIP TIMES CODE]" arms the platform's failure injection in the
// running switch (default: the next call fails once with code 1); "fail
// clear" disarms everything.
std::string FailCommand(const std::vector<std::string> &w)
{
    if (w.size() == 2 && w[1] == "clear") {
        PLAT_FailClearAll();
        return Ok("failure injection cleared");
    }
    if (w.size() != 2 && w.size() != 5) {
        return Error("usage: fail OP [SKIP TIMES CODE] | fail clear");
    }
    const auto skip = w.size() == 5 ? Number(w[2]) : std::optional<uint32_t>(0);
    const auto times = w.size() == 5 ? Number(w[3]) : std::optional<uint32_t>(1);
    const auto code = w.size() == 5 ? Number(w[4]) : std::optional<uint32_t>(1);
    if (!skip || !times || !code) {
        return Error("expected numbers for SKIP TIMES CODE");
    }
    PLAT_FailSet(w[1].c_str(), *skip, *times, *code);
    return Ok(w[1] + " fails " + std::to_string(*times) + " time(s) after " + std::to_string(*skip) +
              " call(s), with code " + std::to_string(*code));
}

std::string HaCommand(const std::vector<std::string> &w, const ControlHooks &agent)
{
    const std::string usage =
        "usage: ha start-work <role> | ha new-backup <chassis> <board> | ha backup-removed | ha promote | "
        "ha demote | ha master <chassis> <board> | ha show";
    if (w.size() == 2 && w[1] == "show") {
        return HaShow(agent);
    }
    if (w.size() == 2 && w[1] == "backup-removed") {
        return Delivered("backup-removed", device::ha::BackupRemoved());
    }
    if (w.size() == 2 && w[1] == "promote") {
        return Delivered("promote", device::ha::Promote());
    }
    if (w.size() == 2 && w[1] == "demote") {
        return Delivered("demote", device::ha::Demote());
    }
    if (w.size() == 3 && w[1] == "start-work") {
        const auto role = Number(w[2]);
        if (!role) {
            return Error("not a role number: " + w[2]);
        }
        return Delivered("start-work " + w[2], device::ha::StartWork(*role));
    }
    if (w.size() == 4 && (w[1] == "new-backup" || w[1] == "master")) {
        const auto chassis = Number(w[2]);
        const auto board = Number(w[3]);
        if (!chassis || !board) {
            return Error("expected chassis and board numbers, got " + w[2] + " " + w[3]);
        }
        const std::string what = w[1] + " " + w[2] + "/" + w[3];
        return Delivered(what, w[1] == "master" ? device::ha::MasterChange(*chassis, *board)
                                                : device::ha::NewBackup(*chassis, *board));
    }
    return Error(usage);
}

// The switch's memory, one "name value" per line for programs (the soak)
// to read: resident size, the agent's outstanding allocations and bytes,
// frame buffers not yet freed.
std::string StatsCommand()
{
    long pages = 0;
    long resident = 0;
    if (std::FILE *statm = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2) {
            resident = 0;
        }
        std::fclose(statm);
    }
    std::ostringstream out;
    out << "rss-kb " << resident * (sysconf(_SC_PAGESIZE) / 1024) << "\nallocations " << PLAT_MemOutstanding()
        << "\nallocated-bytes " << PLAT_MemOutstandingBytes() << "\nframe-buffers " << WICK_MbufOutstanding();
    return Ok(out.str());
}

}  // namespace

std::string RunControlCommand(const std::string &line, const ControlHooks &hooks)
{
    const std::vector<std::string> w = Words(line);
    if (w.empty()) {
        return Error("empty command");
    }
    if (w[0] == "if" && w.size() > 1 && w[1] == "resolve") {
        return ResolveCommand(w);
    }
    if (w[0] == "if") {
        return InterfaceCommand(w);
    }
    if (w[0] == "board") {
        return BoardCommand(w);
    }
    if (w[0] == "fwm" && w.size() == 1) {
        return Ok(device::fwm::Describe(device::fwm::GetState()));
    }
    if (w[0] == "stats" && w.size() == 1) {
        return StatsCommand();
    }
    if (w[0] == "port" && w.size() == 3 && w[1] == "replay") {
        if (!hooks.replay) {
            return Error("this host has no ports to replay into");
        }
        std::string output;
        return hooks.replay(w[2], &output) ? Ok(output) : Error(output);
    }
    if (w[0] == "port" && w.size() == 2 && w[1] == "list") {
        return hooks.ports ? Ok(hooks.ports()) : Error("this host has no ports");
    }
    if (w[0] == "ha") {
        return HaCommand(w, hooks);
    }
    if (w[0] == "police") {
        if (!hooks.police) {
            return Error("this host has no forwarding plane");
        }
        std::string output;
        return hooks.police(w, &output) ? Ok(output) : Error(output);
    }
    if (w[0] == "fail") {
        return FailCommand(w);
    }
    return Error("unknown command \"" + line + "\" (commands: if, board, fwm, ha, port replay, port list, police, "
                 "fail, stats)");
}

}  // namespace host
