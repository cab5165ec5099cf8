// pppoe-plus-cli's world commands: they change the switch the agent runs on
// (interfaces, boards, HA events, failure injection, punt policing, port
// replays) and show its state (forwarding manager, memory, ports) through the
// running switch's control socket, one command line each, as the socket takes it.
#include <filesystem>
#include <memory>
#include <vector>

#include "cli.hpp"

namespace pplus_cli {

namespace {

// "<group> <verb> <args...>" as the control socket takes it.
void AddVerb(CLI::App *group, Action *action, const std::string &verb, const std::string &help,
             const std::vector<std::string> &argNames = {})
{
    CLI::App *cmd = group->add_subcommand(verb, help);
    auto args = std::make_shared<std::vector<std::string>>(argNames.size());
    for (size_t i = 0; i < argNames.size(); i++) {
        cmd->add_option(argNames[i], (*args)[i], argNames[i])->required();
    }
    OnParsed(cmd, action, [line = group->get_name() + " " + verb, args](const Globals &g) {
        std::string full = line;
        for (const std::string &arg : *args) {
            full += " " + arg;
        }
        return WithSwitch(g, full);
    });
}

CLI::App *AddGroup(CLI::App *parent, const std::string &name, const std::string &help)
{
    CLI::App *group = parent->add_subcommand(name, help);
    group->require_subcommand(1);
    return group;
}

void AddInterfaces(CLI::App *world, Action *action)
{
    CLI::App *ifs = AddGroup(world, "if", "Interfaces: list them, take one on or off board");
    AddVerb(ifs, action, "list", "List the interfaces and whether each is on board");
    AddVerb(ifs, action, "on", "Bring an interface on board", {"port"});
    AddVerb(ifs, action, "off", "Take an interface off board", {"port"});
    AddVerb(ifs, action, "resolve", "Print the ifIndex and name of an interface given by name or ifIndex", {"port"});
}

void AddBoards(CLI::App *world, Action *action)
{
    CLI::App *boards = AddGroup(world, "board", "Board registry: list, register or unregister a board");
    AddVerb(boards, action, "list", "List the boards and their registration state");
    AddVerb(boards, action, "register", "Register the board in this slot", {"slot"});
    AddVerb(boards, action, "unregister", "Unregister the board in this slot", {"slot"});
}

void AddHa(CLI::App *world, Action *action)
{
    CLI::App *ha = AddGroup(world, "ha", "HA service: send events to the agent, show its HA state");
    AddVerb(ha, action, "start-work", "Report the start of work with this board role (1 master, 2 standby, 3 slave)",
            {"role"});
    AddVerb(ha, action, "new-backup", "Report a new standby board (0 0: none)", {"chassis", "board"});
    AddVerb(ha, action, "backup-removed", "Report that the standby board went");
    AddVerb(ha, action, "promote", "Promote this board to master");
    AddVerb(ha, action, "demote", "Demote this board to standby");
    AddVerb(ha, action, "master", "Report a new master board", {"chassis", "board"});
    AddVerb(ha, action, "show", "Show the agent's role, standby slot and master, and the switchover reports");
}

// A command whose 1 to maxArgs words go to the switch after its name, as
// the switch takes them.
void AddWords(CLI::App *world, Action *action, const std::string &name, const std::string &help,
              const std::string &wordsHelp, size_t maxArgs)
{
    CLI::App *cmd = world->add_subcommand(name, help);
    auto args = std::make_shared<std::vector<std::string>>();
    cmd->add_option("args", *args, wordsHelp)->required()->expected(1, static_cast<int>(maxArgs));
    OnParsed(cmd, action, [name, args](const Globals &g) {
        std::string line = name;
        for (const std::string &arg : *args) {
            line += " " + arg;
        }
        return WithSwitch(g, line);
    });
}

// A command that sends one fixed line.
void AddLine(CLI::App *world, Action *action, const std::string &name, const std::string &help, const std::string &line)
{
    OnParsed(world->add_subcommand(name, help), action, [line](const Globals &g) { return WithSwitch(g, line); });
}

void AddPortReplay(CLI::App *world, Action *action)
{
    CLI::App *port = AddGroup(world, "port", "Ports: counters, or replay a capture into one while the switch runs");
    AddVerb(port, action, "list", "Per-port counters of the forwarding plane and of the ports bound to netdevs");
    CLI::App *replay = port->add_subcommand("replay", "Replay FILE.pcap into PORT");
    auto binding = std::make_shared<std::string>();
    replay->add_option("binding", *binding, "PORT=FILE.pcap")->required();
    OnParsed(replay, action, [binding](const Globals &g) {
        // The switch runs elsewhere: hand it an absolute file name.
        const size_t eq = binding->find('=');
        if (eq == std::string::npos) {
            return WithSwitch(g, "port replay " + *binding);
        }
        std::string file = binding->substr(eq + 1);
        if (!file.empty()) {
            std::error_code ec;
            file = std::filesystem::absolute(file, ec).string();
        }
        return WithSwitch(g, "port replay " + binding->substr(0, eq + 1) + file);
    });
}

}  // namespace

void AddWorld(CLI::App &app, Action *action)
{
    CLI::App *world = AddGroup(&app, "world", "Change the switch the agent runs on, while it runs");
    AddInterfaces(world, action);
    AddBoards(world, action);
    AddLine(world, action, "fwm", "Show what the forwarding manager was told", "fwm");
    AddLine(world, action, "stats", "Show the switch's resident memory, the agent's allocations and frame buffers",
            "stats");
    AddHa(world, action);
    AddWords(world, action, "fail",
             "Failure injection: OP [SKIP TIMES CODE] makes a platform operation fail (default: its next call, "
             "code 1); clear disarms all",
             "OP [SKIP TIMES CODE], or clear", 4);
    AddLine(world, action, "ports", "Per-port counters (rx, tx, punted, dropped, policed), as port list", "port list");
    AddWords(world, action, "police",
             "Punt policing of discovery frames: show; global|default RATE BURST|off; port PORT RATE BURST|off|default",
             "show | global RATE BURST | default RATE BURST | port PORT RATE BURST, or off instead of RATE BURST", 4);
    AddPortReplay(world, action);
}

}  // namespace pplus_cli
