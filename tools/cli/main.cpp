// pppoe-plus-cli: the operator tool of pppoe-plus-switch.
//
// Configuration and queries go to the switch's YANG datastore: import,
// export and edit of XML data, get of a path, rpc with an XML input, and
// short forms for everyday work (enable, trust, policy, format, show,
// check-format, debug, reset-statistics). The "world" commands change the
// switch the agent runs on (interfaces, boards, HA events, port replays)
// through the host's control socket. Each command is defined by its own
// registration function (datastore_commands.cpp, world_commands.cpp).
#include "cli.hpp"
#include "control.hpp"

namespace {

using namespace pplus_cli;

constexpr Registration kCommands[] = {
    AddImport,   AddExport,        AddEdit,        AddDelete,          AddGet,
    AddRpc,      AddEnable,        AddDisable,     AddTrust,           AddPolicy,
    AddVendorId, AddEncapsulation, AddIgnoreReply, AddFormat,          AddDescription,
    AddShow,     AddCheckFormat,   AddDebug,       AddResetStatistics, AddWorld,
};

// The command the parser had reached: the deepest subcommand given.
const CLI::App &Reached(const CLI::App &app)
{
    const CLI::App *at = &app;
    while (!at->get_subcommands().empty()) {
        at = at->get_subcommands().back();
    }
    return *at;
}

}  // namespace

int main(int argc, char **argv)
{
    CLI::App app{
        "Operator tool of pppoe-plus-switch: configure and query the PPPoE+ agent through the "
        "switch's YANG datastore, and change the switch it runs on",
        "pppoe-plus-cli"};
    app.require_subcommand(1);
    Globals g{device::yangdb::DefaultSocketPath(), host::DefaultControlPath()};
    app.add_option("--socket", g.socketPath, "The datastore's socket")->default_str(g.socketPath);
    app.add_option("--control", g.controlPath, "Control socket of the running pppoe-plus-switch")
        ->default_str(g.controlPath);
    Action action;
    for (const Registration add : kCommands) {
        add(app, &action);
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        // Help asked for is no error; every argument error exits alike.
        if (e.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
            return app.exit(e);
        }
        return UsageError(Reached(app), e.what());
    }
    return action ? action(g) : UsageError(app, "nothing to do");
}
