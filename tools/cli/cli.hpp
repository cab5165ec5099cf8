// What every command of pppoe-plus-cli stands on: the sockets it talks to,
// the exit codes, how a command reports, and the registration functions.
// Each command is added by one function that owns its arguments and points
// the parsed command line's action at its own; main() only lists them.
#pragma once

#include <functional>
#include <string>

// CLI11 trips g++'s null-dereference analysis inside its own headers.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnull-dereference"
#include <CLI/CLI.hpp>
#pragma GCC diagnostic pop

#include "agent_requests.hpp"
#include "device/yangdb.hpp"

namespace pplus_cli {

// Exit codes (README lists them).
constexpr int kExitDone = 0;
constexpr int kExitRefused = 1;      // refused by the datastore, the agent or the switch; why on stderr
constexpr int kExitUnreachable = 2;  // the datastore or the switch could not be reached
constexpr int kExitUsage = 64;       // the command line is wrong; why and the usage line on stderr

struct Globals {
    std::string socketPath;   // the datastore's
    std::string controlPath;  // the running switch's control socket
};

// What the parsed command line asks for; returns the exit code.
using Action = std::function<int(const Globals &)>;

// When cmd is the command parsed, *action becomes run.
void OnParsed(CLI::App *cmd, Action *action, Action run);

// "pppoe-plus-cli: why" on stderr; returns code.
int Fail(const std::string &why, int code = kExitRefused);
// A command line the parser took but the command cannot use: why and the
// command's usage line on stderr; returns kExitUsage.
int UsageError(const CLI::App &cmd, const std::string &why);

// Runs one request on a fresh datastore session and prints the reply's text,
// or hands it to show; the exit code.
int WithDatastore(const Globals &g, const std::function<device::yangdb::Reply(device::yangdb::Admin &)> &request,
                  const std::function<int(const std::string &)> &show = nullptr);
// Merges xml into the running configuration.
int Merge(const Globals &g, const std::string &xml);

// Sends one command line to the running switch and prints its answer.
int WithSwitch(const Globals &g, const std::string &line);
// Fills *out with the interface port names (its name or ifIndex) as the
// running switch resolves it; with ifIndex >= 0 (--ifindex), port is taken
// as the name of that ifIndex. kExitDone, or the exit code once reported.
int ResolvePort(const Globals &g, const std::string &port, int64_t ifIndex, Port *out);

// The registration functions: each adds one command (the world commands,
// one group) to app and points *action at it.
using Registration = void (*)(CLI::App &app, Action *action);
void AddImport(CLI::App &app, Action *action);
void AddExport(CLI::App &app, Action *action);
void AddEdit(CLI::App &app, Action *action);
void AddDelete(CLI::App &app, Action *action);
void AddGet(CLI::App &app, Action *action);
void AddRpc(CLI::App &app, Action *action);
void AddEnable(CLI::App &app, Action *action);
void AddDisable(CLI::App &app, Action *action);
void AddTrust(CLI::App &app, Action *action);
void AddPolicy(CLI::App &app, Action *action);
void AddVendorId(CLI::App &app, Action *action);
void AddEncapsulation(CLI::App &app, Action *action);
void AddIgnoreReply(CLI::App &app, Action *action);
void AddFormat(CLI::App &app, Action *action);
void AddDescription(CLI::App &app, Action *action);
void AddShow(CLI::App &app, Action *action);
void AddCheckFormat(CLI::App &app, Action *action);
void AddDebug(CLI::App &app, Action *action);
void AddResetStatistics(CLI::App &app, Action *action);
void AddWorld(CLI::App &app, Action *action);

}  // namespace pplus_cli
