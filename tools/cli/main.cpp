// pppoe-plus-cli: the operator tool of pppoe-plus-switch. The "world"
// commands change the switch the agent runs on while it runs (interfaces on
// and off board, boards registering and leaving, HA events) and show what
// the forwarding manager was told and the agent's HA state, through the host's control socket.
#include <cstdio>
#include <string>

// CLI11 trips g++'s null-dereference analysis inside its own headers.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnull-dereference"
#include <CLI/CLI.hpp>
#pragma GCC diagnostic pop

#include "control.hpp"

namespace {

// Adds "<group> <verb> <arg>" whose command line is "<group> <verb> <arg>".
void AddVerbWithArg(CLI::App *group, const std::string &verb, const std::string &help, const std::string &argName,
                    std::string *line)
{
    CLI::App *cmd = group->add_subcommand(verb, help);
    auto arg = std::make_shared<std::string>();
    cmd->add_option(argName, *arg, argName)->required();
    cmd->callback([group, verb, arg, line]() { *line = group->get_name() + " " + verb + " " + *arg; });
}

// Adds "<group> <verb> <first> <second>".
void AddVerbWithTwoArgs(CLI::App *group, const std::string &verb, const std::string &help, const std::string &first,
                        const std::string &second, std::string *line)
{
    CLI::App *cmd = group->add_subcommand(verb, help);
    auto args = std::make_shared<std::pair<std::string, std::string>>();
    cmd->add_option(first, args->first, first)->required();
    cmd->add_option(second, args->second, second)->required();
    cmd->callback([group, verb, args, line]() {
        *line = group->get_name() + " " + verb + " " + args->first + " " + args->second;
    });
}

void AddVerb(CLI::App *group, const std::string &verb, const std::string &help, std::string *line)
{
    CLI::App *cmd = group->add_subcommand(verb, help);
    cmd->callback([group, verb, line]() { *line = group->get_name() + " " + verb; });
}

// Prints a reply: its output on stdout, or its error on stderr; the exit code.
int Show(const std::string &reply)
{
    const size_t eol = reply.find('\n');
    const std::string status = reply.substr(0, eol);
    const std::string output = eol == std::string::npos ? "" : reply.substr(eol + 1);
    if (status == "ok") {
        std::fputs(output.c_str(), stdout);
        return 0;
    }
    const std::string why = status.rfind("error: ", 0) == 0 ? status.substr(7) : status;
    std::fprintf(stderr, "pppoe-plus-cli: %s\n", why.c_str());
    std::fputs(output.c_str(), stderr);
    return 1;
}

}  // namespace

int main(int argc, char **argv)
{
    CLI::App app{"Operator tool of pppoe-plus-switch"};
    app.require_subcommand(1);
    std::string controlPath = pplus_host::DefaultControlPath();
    app.add_option("--control", controlPath, "Control socket of the running pppoe-plus-switch")
        ->default_str(controlPath);

    std::string line;
    CLI::App *world = app.add_subcommand("world", "Change the switch the agent runs on, while it runs");
    world->require_subcommand(1);
    CLI::App *ifs = world->add_subcommand("if", "Interfaces: list them, take one on or off board");
    ifs->require_subcommand(1);
    AddVerb(ifs, "list", "List the interfaces and whether each is on board", &line);
    AddVerbWithArg(ifs, "on", "Bring an interface on board", "port", &line);
    AddVerbWithArg(ifs, "off", "Take an interface off board", "port", &line);
    CLI::App *boards = world->add_subcommand("board", "Board registry: list, register or unregister a board");
    boards->require_subcommand(1);
    AddVerb(boards, "list", "List the boards and their registration state", &line);
    AddVerbWithArg(boards, "register", "Register the board in this slot", "slot", &line);
    AddVerbWithArg(boards, "unregister", "Unregister the board in this slot", "slot", &line);
    world->add_subcommand("fwm", "Show what the forwarding manager was told")->callback([&line]() { line = "fwm"; });
    CLI::App *ha = world->add_subcommand("ha", "HA service: send events to the agent, show its HA state");
    ha->require_subcommand(1);
    AddVerbWithArg(ha, "start-work", "Report the start of work with this board role (1 master, 2 standby, 3 slave)",
                   "role", &line);
    AddVerbWithTwoArgs(ha, "new-backup", "Report a new standby board (0 0: none)", "chassis", "board", &line);
    AddVerb(ha, "backup-removed", "Report that the standby board went", &line);
    AddVerb(ha, "promote", "Promote this board to master", &line);
    AddVerb(ha, "demote", "Demote this board to standby", &line);
    AddVerbWithTwoArgs(ha, "master", "Report a new master board", "chassis", "board", &line);
    AddVerb(ha, "show", "Show the agent's role, standby slot and master, and the switchover reports", &line);
    CLI11_PARSE(app, argc, argv);

    std::string reply;
    std::string error;
    if (!pplus_host::ControlRequest(controlPath, line, &reply, &error)) {
        std::fprintf(stderr, "pppoe-plus-cli: %s\n", error.c_str());
        return 2;
    }
    return Show(reply);
}
