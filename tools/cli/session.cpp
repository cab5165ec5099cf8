// How pppoe-plus-cli's commands run: a datastore session per request, one
// command line to the running switch, and how each reports.
#include <cstdio>
#include <sstream>

#include "cli.hpp"
#include "control.hpp"

namespace pplus_cli {

namespace {

// The command's name as typed: "pppoe-plus-cli world if off".
std::string CommandPath(const CLI::App &cmd)
{
    std::string path = cmd.get_name();
    for (const CLI::App *parent = cmd.get_parent(); parent != nullptr; parent = parent->get_parent()) {
        path = parent->get_name() + " " + path;
    }
    return path;
}

// Prints a control-socket reply: its output on stdout, or its error on
// stderr; the exit code.
int ShowControlReply(const std::string &reply)
{
    const size_t eol = reply.find('\n');
    const std::string status = reply.substr(0, eol);
    const std::string output = eol == std::string::npos ? "" : reply.substr(eol + 1);
    if (status == "ok") {
        std::fputs(output.c_str(), stdout);
        return kExitDone;
    }
    std::fputs(output.c_str(), stderr);
    return Fail(status.rfind("error: ", 0) == 0 ? status.substr(7) : status);
}

}  // namespace

void OnParsed(CLI::App *cmd, Action *action, Action run)
{
    cmd->callback([action, run = std::move(run)]() { *action = run; });
}

int Fail(const std::string &why, int code)
{
    std::fprintf(stderr, "pppoe-plus-cli: %s\n", why.c_str());
    return code;
}

int UsageError(const CLI::App &cmd, const std::string &why)
{
    (void)Fail(why, kExitUsage);
    std::fputs(CLI::Formatter().make_usage(&cmd, CommandPath(cmd)).c_str(), stderr);
    return kExitUsage;
}

int WithDatastore(const Globals &g, const std::function<device::yangdb::Reply(device::yangdb::Admin &)> &request,
                  const std::function<int(const std::string &)> &show)
{
    std::string error;
    auto admin = device::yangdb::Admin::Connect(g.socketPath, &error);
    if (!admin) {
        return Fail("cannot reach the datastore at " + g.socketPath + ": " + error, kExitUnreachable);
    }
    const device::yangdb::Reply reply = request(*admin);
    if (!reply.ok) {
        return Fail(reply.text);
    }
    if (show) {
        return show(reply.text);
    }
    if (!reply.text.empty()) {
        std::fputs(reply.text.c_str(), stdout);
        if (reply.text.back() != '\n') {
            std::fputc('\n', stdout);
        }
    }
    return kExitDone;
}

int Merge(const Globals &g, const std::string &xml)
{
    return WithDatastore(
        g, [&xml](device::yangdb::Admin &admin) { return admin.Edit(xml, device::yangdb::EditMode::kMerge); });
}

int WithSwitch(const Globals &g, const std::string &line)
{
    std::string reply;
    std::string error;
    if (!host::ControlRequest(g.controlPath, line, &reply, &error)) {
        return Fail(error, kExitUnreachable);
    }
    return ShowControlReply(reply);
}

int ResolvePort(const Globals &g, const std::string &port, int64_t ifIndex, Port *out)
{
    if (ifIndex >= 0) {
        *out = {port, static_cast<uint32_t>(ifIndex)};
        return kExitDone;
    }
    std::string reply;
    std::string error;
    if (!host::ControlRequest(g.controlPath, "if resolve " + port, &reply, &error)) {
        return Fail("cannot look up the ifIndex of " + port + " (" + error + "); give it with --ifindex",
                    kExitUnreachable);
    }
    // "ok", then "<ifIndex> <name>".
    std::istringstream lines(reply);
    std::string status;
    std::getline(lines, status);
    if (status.rfind("error: no interface", 0) == 0) {
        return Fail("the switch has no interface " + port);
    }
    if (status != "ok") {
        return Fail("cannot look up the ifIndex of " + port + ": " + status);
    }
    if (!(lines >> out->ifIndex >> out->name)) {
        return Fail("the switch answered the look-up of " + port + " with \"" + reply + "\"");
    }
    return kExitDone;
}

}  // namespace pplus_cli
