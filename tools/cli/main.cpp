// pppoe-plus-cli: the operator tool of pppoe-plus-switch.
//
// Configuration and queries go to the switch's YANG datastore: import,
// export and edit of XML data, get of a path, rpc with an XML input, and
// short forms for everyday work (enable, trust, policy, format, show,
// check-format, debug, reset-statistics). The "world" commands change the
// switch the agent runs on (interfaces, boards, HA events, port replays)
// through the host's control socket.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

// CLI11 trips g++'s null-dereference analysis inside its own headers.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnull-dereference"
#include <CLI/CLI.hpp>
#pragma GCC diagnostic pop

#include "agent_requests.hpp"
#include "subscribers.hpp"
#include "control.hpp"
#include "device/yangdb.hpp"

namespace {

using device::yangdb::Admin;
using device::yangdb::EditMode;
using device::yangdb::Reply;

constexpr int kExitRefused = 1;
constexpr int kExitUnreachable = 2;

struct Globals {
    std::string socketPath = device::yangdb::DefaultSocketPath();
    std::string controlPath = host::DefaultControlPath();
};

// What the parsed command line asks for: returns the exit code.
using Action = std::function<int(const Globals &)>;

// Prints a control-socket reply: its output on stdout, or its error on
// stderr; the exit code.
int ShowControlReply(const std::string &reply)
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
    return kExitRefused;
}

int Fail(const std::string &why, int code = kExitRefused)
{
    std::fprintf(stderr, "pppoe-plus-cli: %s\n", why.c_str());
    return code;
}

// Runs one request on a fresh datastore session; prints the reply's text
// (or hands it to show) and returns the exit code.
int WithDatastore(const Globals &g, const std::function<Reply(Admin &)> &request,
                  const std::function<int(const std::string &)> &show = nullptr)
{
    std::string error;
    auto admin = Admin::Connect(g.socketPath, &error);
    if (!admin) {
        return Fail("cannot reach the datastore at " + g.socketPath + ": " + error, kExitUnreachable);
    }
    const Reply reply = request(*admin);
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
    return 0;
}

int Merge(const Globals &g, const std::string &xml)
{
    return WithDatastore(g, [&xml](Admin &admin) { return admin.Edit(xml, EditMode::kMerge); });
}

// The text of a file, or of standard input for "-".
bool ReadInput(const std::string &path, std::string *text)
{
    std::ostringstream buffer;
    if (path == "-") {
        buffer << std::cin.rdbuf();
    } else {
        std::ifstream in(path);
        if (!in) {
            return false;
        }
        buffer << in.rdbuf();
    }
    *text = buffer.str();
    return true;
}

Action FromFile(const std::string *path, const std::function<Reply(Admin &, const std::string &)> &request)
{
    return [path, request](const Globals &g) {
        std::string text;
        if (!ReadInput(*path, &text)) {
            return Fail("cannot read " + *path);
        }
        return WithDatastore(g, [&](Admin &admin) { return request(admin, text); });
    };
}

// The interface's index: given with --ifindex, or looked up in the
// running switch through its control socket.
bool ResolvePort(const Globals &g, const std::string &name, int64_t ifIndex, pplus_cli::Port *port)
{
    port->name = name;
    if (ifIndex >= 0) {
        port->ifIndex = static_cast<uint32_t>(ifIndex);
        return true;
    }
    std::string reply;
    std::string error;
    if (!host::ControlRequest(g.controlPath, "if list", &reply, &error)) {
        std::fprintf(stderr, "pppoe-plus-cli: cannot look up the ifIndex of %s (%s); give it with --ifindex\n",
                     name.c_str(), error.c_str());
        return false;
    }
    std::istringstream lines(reply);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string index;
        std::string onBoard;
        std::string ifName;
        if (words >> index >> onBoard >> ifName && ifName == name &&
            index.find_first_not_of("0123456789") == std::string::npos) {
            port->ifIndex = static_cast<uint32_t>(std::stoul(index));
            return true;
        }
    }
    std::fprintf(stderr, "pppoe-plus-cli: the switch has no interface %s\n", name.c_str());
    return false;
}

// Options shared by the per-interface short forms.
struct PortArgs {
    std::string name;
    int64_t ifIndex = -1;
    bool remove = false;
};

void AddPortOptions(CLI::App *cmd, PortArgs *args, bool portRequired)
{
    auto *port = cmd->add_option("--port", args->name, "Interface name, for example GigabitEthernet0/0/1");
    if (portRequired) {
        port->required();
    }
    cmd->add_option("--ifindex", args->ifIndex,
                    "The interface's ifIndex (default: asked from the running switch)");
    cmd->add_flag("--remove", args->remove, "Remove the interface's item instead of setting it");
}

Action PortItem(const PortArgs *args, std::string item, std::function<std::string(const pplus_cli::Port &)> xml)
{
    return [args, item, xml](const Globals &g) {
        if (args->remove) {
            const std::string path = pplus_cli::PortItemPath(args->name, item);
            return WithDatastore(g, [&path](Admin &admin) { return admin.Delete(path); });
        }
        pplus_cli::Port port;
        if (!ResolvePort(g, args->name, args->ifIndex, &port)) {
            return kExitRefused;
        }
        return Merge(g, xml(port));
    };
}

Action Query(const std::string *what)
{
    return [what](const Globals &g) {
        if (*what == "config") {
            return WithDatastore(g, [](Admin &admin) { return admin.Export(); });
        }
        const auto path = pplus_cli::QueryPath(*what);
        return WithDatastore(g, [&path](Admin &admin) { return admin.Get(*path); },
                             [what](const std::string &xml) {
                                 const auto text = pplus_cli::RenderQueryReply(*what, xml);
                                 std::fputs(text ? text->c_str() : (xml + "\n").c_str(), stdout);
                                 return 0;
                             });
    };
}

// show subscribers [--port IF] [--vlan V] [--mac M] [--json]
struct ShowOptions {
    std::string port;
    std::optional<uint16_t> vlan;
    std::string mac;
    bool json = false;

    bool Given() const { return !port.empty() || vlan || !mac.empty() || json; }
};

void AddSubscriberOptions(CLI::App *cmd, ShowOptions *opts)
{
    cmd->add_option("--port", opts->port, "subscribers: only those on this interface (name or ifIndex)");
    cmd->add_option("--vlan", opts->vlan, "subscribers: only those in this outer VLAN")->check(CLI::Range(1, 4094));
    cmd->add_option("--mac", opts->mac, "subscribers: only this client MAC");
    cmd->add_flag("--json", opts->json, "subscribers: a JSON list of objects instead of a table");
}

// The subscriber table from the switch's datastore, filtered, as a table
// or as JSON.
int ShowSubscribers(const Globals &g, const ShowOptions &opts)
{
    pplus_cli::SubscriberFilter filter{opts.port, opts.vlan, ""};
    if (!opts.mac.empty()) {
        const auto mac = pplus_cli::NormalMac(opts.mac);
        if (!mac) {
            return Fail("show subscribers: not a MAC address: " + opts.mac);
        }
        filter.mac = *mac;
    }
    const std::string path(pplus_cli::kSubscribersPath);
    return WithDatastore(g, [&path](Admin &a) { return a.Get(path); }, [&](const std::string &xml) {
        auto table = pplus_cli::ReadSubscribers(xml);
        if (!table) {
            return Fail("show subscribers: the switch answered no subscriber table");
        }
        std::erase_if(table->rows, [&filter](const pplus_cli::SubscriberRow &r) { return !pplus_cli::Selects(filter, r); });
        const std::string text = opts.json ? pplus_cli::SubscribersJson(table->rows) : pplus_cli::SubscribersText(*table);
        std::fputs(text.c_str(), stdout);
        return 0;
    });
}

// Adds a required positional argument (one of choices when given); the command.
template <typename T>
CLI::App *Arg(CLI::App *cmd, const std::string &name, T &value, const std::string &help,
              const std::vector<std::string> &choices = {})
{
    CLI::Option *option = cmd->add_option(name, value, help)->required();
    if (!choices.empty()) {
        option->check(CLI::IsMember(choices));
    }
    return cmd;
}

void AddWorldCommands(CLI::App &app, std::string *line)
{
    // "<group> <verb> <args...>" as the control socket takes it.
    auto verb = [line](CLI::App *group, const std::string &name, const std::string &help,
                       const std::vector<std::string> &argNames = {}) {
        CLI::App *cmd = group->add_subcommand(name, help);
        auto args = std::make_shared<std::vector<std::string>>(argNames.size());
        for (size_t i = 0; i < argNames.size(); i++) {
            cmd->add_option(argNames[i], (*args)[i], argNames[i])->required();
        }
        cmd->callback([group, name, args, line]() {
            *line = group->get_name() + " " + name;
            for (const std::string &arg : *args) {
                *line += " " + arg;
            }
        });
    };
    CLI::App *world = app.add_subcommand("world", "Change the switch the agent runs on, while it runs");
    world->require_subcommand(1);
    CLI::App *ifs = world->add_subcommand("if", "Interfaces: list them, take one on or off board");
    ifs->require_subcommand(1);
    verb(ifs, "list", "List the interfaces and whether each is on board");
    verb(ifs, "on", "Bring an interface on board", {"port"});
    verb(ifs, "off", "Take an interface off board", {"port"});
    CLI::App *boards = world->add_subcommand("board", "Board registry: list, register or unregister a board");
    boards->require_subcommand(1);
    verb(boards, "list", "List the boards and their registration state");
    verb(boards, "register", "Register the board in this slot", {"slot"});
    verb(boards, "unregister", "Unregister the board in this slot", {"slot"});
    world->add_subcommand("fwm", "Show what the forwarding manager was told")->callback([line]() { *line = "fwm"; });
    world->add_subcommand("stats", "Show the switch's resident memory, the agent's allocations and frame buffers")
        ->callback([line]() { *line = "stats"; });
    CLI::App *ha = world->add_subcommand("ha", "HA service: send events to the agent, show its HA state");
    ha->require_subcommand(1);
    verb(ha, "start-work", "Report the start of work with this board role (1 master, 2 standby, 3 slave)", {"role"});
    verb(ha, "new-backup", "Report a new standby board (0 0: none)", {"chassis", "board"});
    verb(ha, "backup-removed", "Report that the standby board went");
    verb(ha, "promote", "Promote this board to master");
    verb(ha, "demote", "Demote this board to standby");
    verb(ha, "master", "Report a new master board", {"chassis", "board"});
    verb(ha, "show", "Show the agent's role, standby slot and master, and the switchover reports");
    CLI::App *fail = world->add_subcommand("fail", "Failure injection: OP [SKIP TIMES CODE] makes a platform "
                                                   "operation fail (default: its next call, code 1); clear disarms all");
    auto failArgs = std::make_shared<std::vector<std::string>>();
    fail->add_option("args", *failArgs, "OP [SKIP TIMES CODE], or clear")->required()->expected(1, 4);
    fail->callback([failArgs, line]() {
        *line = "fail";
        for (const std::string &arg : *failArgs) {
            *line += " " + arg;
        }
    });
    world->add_subcommand("ports", "Per-port counters (rx, tx, punted, dropped, policed), as port list")
        ->callback([line]() { *line = "port list"; });
    CLI::App *police = world->add_subcommand(
        "police", "Punt policing of discovery frames: show; global|default RATE BURST|off; "
                  "port PORT RATE BURST|off|default");
    auto policeArgs = std::make_shared<std::vector<std::string>>();
    police->add_option("args", *policeArgs, "show | global RATE BURST | default RATE BURST | port PORT RATE BURST, "
                                            "or off instead of RATE BURST")
        ->required()
        ->expected(1, 4);
    police->callback([policeArgs, line]() {
        *line = "police";
        for (const std::string &arg : *policeArgs) {
            *line += " " + arg;
        }
    });
    CLI::App *port = world->add_subcommand("port", "Ports: counters, or replay a capture into one while the switch runs");
    port->require_subcommand(1);
    verb(port, "list", "Per-port counters of the forwarding plane and of the ports bound to netdevs");
    CLI::App *replay = port->add_subcommand("replay", "Replay FILE.pcap into PORT");
    auto binding = std::make_shared<std::string>();
    replay->add_option("binding", *binding, "PORT=FILE.pcap")->required();
    replay->callback([binding, line]() {
        // The host runs elsewhere: hand it an absolute file name.
        const size_t eq = binding->find('=');
        std::string file = eq == std::string::npos ? "" : binding->substr(eq + 1);
        if (!file.empty()) {
            std::error_code ec;
            file = std::filesystem::absolute(file, ec).string();
        }
        *line = "port replay " + (eq == std::string::npos ? *binding : binding->substr(0, eq + 1) + file);
    });
}

}  // namespace

int main(int argc, char **argv)
{
    CLI::App app{"Operator tool of pppoe-plus-switch: configure and query the PPPoE+ agent through the "
                 "switch's YANG datastore, and change the switch it runs on"};
    app.require_subcommand(1);
    Globals g;
    app.add_option("--socket", g.socketPath, "The datastore's socket")->default_str(g.socketPath);
    app.add_option("--control", g.controlPath, "Control socket of the running pppoe-plus-switch")
        ->default_str(g.controlPath);

    Action action;
    auto on = [&action](CLI::App *cmd, Action a) { cmd->callback([&action, a]() { action = a; }); };

    // YANG tooling: whole documents and paths.
    std::string file;
    std::string path;
    on(Arg(app.add_subcommand("import", "Replace the running configuration with an XML document"), "file", file, "XML file, - for standard input"),
       FromFile(&file, [](Admin &a, const std::string &xml) { return a.Edit(xml, EditMode::kReplace); }));
    CLI::App *exportCmd = app.add_subcommand("export", "Print the running configuration as XML");
    exportCmd->add_option("file", file, "Write it to this file instead");
    on(exportCmd, [&file](const Globals &gl) {
        return WithDatastore(gl, [](Admin &a) { return a.Export(); }, [&file](const std::string &xml) {
            if (file.empty()) {
                std::fputs(xml.c_str(), stdout);
                return 0;
            }
            std::ofstream out(file);
            out << xml;
            return out ? 0 : Fail("cannot write " + file);
        });
    });
    on(Arg(app.add_subcommand("edit", "Merge an XML document into the running configuration"), "file", file, "XML file, - for standard input"),
       FromFile(&file, [](Admin &a, const std::string &xml) { return a.Edit(xml, EditMode::kMerge); }));
    on(Arg(app.add_subcommand("delete", "Remove the configuration at an instance path"), "path", path, "for example /quendal-pppoe-plus:pppoe-plus/vendor-id"),
       [&path](const Globals &gl) { return WithDatastore(gl, [&path](Admin &a) { return a.Delete(path); }); });
    on(Arg(app.add_subcommand("get", "Read configuration or state at a path"), "path", path, "for example /quendal-pppoe-plus:pppoe-plus/query-policy"),
       [&path](const Globals &gl) { return WithDatastore(gl, [&path](Admin &a) { return a.Get(path); }); });
    on(Arg(app.add_subcommand("rpc", "Call an operation with its XML input"), "file", file, "XML file, - for standard input"),
       FromFile(&file, [](Admin &a, const std::string &xml) { return a.Rpc(xml); }));

    // Short forms.
    on(app.add_subcommand("enable", "Switch the PPPoE+ agent on"),
       [](const Globals &gl) { return Merge(gl, pplus_cli::EnableXml(true)); });
    on(app.add_subcommand("disable", "Switch the PPPoE+ agent off"),
       [](const Globals &gl) { return Merge(gl, pplus_cli::EnableXml(false)); });

    PortArgs portArgs;
    std::string onOff = "on";
    CLI::App *trust = app.add_subcommand("trust", "Trust an uplink port (or --remove its trust item)");
    trust->add_option("port", portArgs.name, "Interface name")->required();
    trust->add_option("state", onOff, "on or off")->check(CLI::IsMember({"on", "off"}));
    trust->add_option("--ifindex", portArgs.ifIndex, "The interface's ifIndex (default: asked from the switch)");
    trust->add_flag("--remove", portArgs.remove, "Remove the port's trust item");
    on(trust, PortItem(&portArgs, "trusted-port", [&onOff](const pplus_cli::Port &p) {
           return pplus_cli::PortTrustXml(p, onOff == "on");
       }));

    std::string policy;
    CLI::App *policyCmd = app.add_subcommand("policy", "Set the tag policy, globally or of one --port");
    policyCmd->add_option("policy", policy, "replace, drop or keep")
        ->check(CLI::IsMember({"replace", "drop", "keep"}));
    AddPortOptions(policyCmd, &portArgs, false);
    on(policyCmd, [&policy, &portArgs](const Globals &gl) {
        if (portArgs.name.empty()) {
            return policy.empty() ? Fail("policy: give replace, drop or keep") : Merge(gl, pplus_cli::GlobalPolicyXml(policy));
        }
        if (policy.empty() && !portArgs.remove) {
            return Fail("policy: give replace, drop or keep, or --remove");
        }
        return PortItem(&portArgs, "port-tags-policy", [&policy](const pplus_cli::Port &p) {
            return pplus_cli::PortPolicyXml(p, policy);
        })(gl);
    });

    uint32_t vendorId = 0;
    on(Arg(app.add_subcommand("vendor-id", "Set the enterprise number of the Vendor-Specific tag"), "number", vendorId, "for example 3561"),
       [&vendorId](const Globals &gl) { return Merge(gl, pplus_cli::VendorIdXml(vendorId)); });

    std::string encapsulation;
    on(Arg(app.add_subcommand("encapsulation", "Choose the sub-options inserted"), "type", encapsulation, "circuit-id, remote-id or both", {"circuit-id", "remote-id", "both"}),
       [&encapsulation](const Globals &gl) { return Merge(gl, pplus_cli::EncapsulationXml(encapsulation)); });

    on(Arg(app.add_subcommand("ignore-reply", "Ignore replies from untrusted ports (on) or not (off)"), "state", onOff, "on or off", {"on", "off"}),
       [&onOff](const Globals &gl) { return Merge(gl, pplus_cli::IgnoreReplyXml(onOff == "on")); });

    std::string which;
    std::string format;
    std::string text;
    uint16_t vlan = 0;
    uint16_t ceVlan = 0;
    CLI::App *formatCmd =
        app.add_subcommand("format", "Set how the Circuit-ID (cid) or Remote-ID (rid) is built, globally or for "
                                     "one --port and VLAN pair");
    formatCmd->add_option("which", which, "cid or rid")->required()->check(CLI::IsMember({"cid", "rid"}));
    formatCmd->add_option("format", format, "common, extend or user-define")
        ->check(CLI::IsMember({"common", "extend", "user-define"}));
    formatCmd->add_option("text", text, "The format string of user-define");
    formatCmd->add_option("--vlan", vlan, "Outer VLAN of the per-port format (0: any)");
    formatCmd->add_option("--cevlan", ceVlan, "Inner VLAN of the per-port format (0: any)");
    AddPortOptions(formatCmd, &portArgs, false);
    on(formatCmd, [&](const Globals &gl) {
        if (format.empty() && !portArgs.remove) {
            return Fail("format: give common, extend or user-define");
        }
        if (format == "user-define" && text.empty()) {
            return Fail("format: user-define needs its format string");
        }
        if (portArgs.name.empty()) {
            return Merge(gl, pplus_cli::GlobalFormatXml(which, format, text));
        }
        if (portArgs.remove) {
            const std::string item = pplus_cli::PortFormatPath(portArgs.name, vlan, ceVlan, which);
            return WithDatastore(gl, [&item](Admin &a) { return a.Delete(item); });
        }
        pplus_cli::Port port;
        if (!ResolvePort(gl, portArgs.name, portArgs.ifIndex, &port)) {
            return kExitRefused;
        }
        return Merge(gl, pplus_cli::PortFormatXml(port, vlan, ceVlan, which, format, text));
    });

    std::string description;
    CLI::App *descCmd = app.add_subcommand("description", "Set the description the %desc keyword shows");
    descCmd->add_option("port", portArgs.name, "Interface name")->required();
    descCmd->add_option("text", description, "The description");
    descCmd->add_option("--ifindex", portArgs.ifIndex, "The interface's ifIndex (default: asked from the switch)");
    descCmd->add_flag("--remove", portArgs.remove, "Remove the port's description");
    on(descCmd, [&](const Globals &gl) {
        if (description.empty() && !portArgs.remove) {
            return Fail("description: give the text, or --remove");
        }
        return PortItem(&portArgs, "if-description", [&description](const pplus_cli::Port &p) {
            return pplus_cli::PortDescriptionXml(p, description);
        })(gl);
    });

    std::string what;
    ShowOptions show;
    CLI::App *showCmd = Arg(app.add_subcommand("show", "Show the agent's state, or the subscribers the switch saw"), "what", what,
                            "statistics, encapsulation, policy, format, config or subscribers",
                            {"statistics", "encapsulation", "policy", "format", "config", "subscribers"});
    AddSubscriberOptions(showCmd, &show);
    on(showCmd, [&what, &show](const Globals &gl) {
        if (what == "subscribers") {
            return ShowSubscribers(gl, show);
        }
        if (show.Given()) {
            return Fail("show " + what + ": --port, --vlan, --mac and --json are for show subscribers");
        }
        return Query(&what)(gl);
    });

    on(Arg(app.add_subcommand("check-format", "Check a user-defined format string"), "text", text, "The format string"),
       [&text](const Globals &gl) {
           std::string why;
           const auto query = pplus_cli::FormatCheckPath(text, &why);
           if (!query) {
               return Fail("check-format: " + why);
           }
           return WithDatastore(gl, [&query](Admin &a) { return a.Get(*query); }, [](const std::string &xml) {
               const auto shown = pplus_cli::RenderQueryReply("check-format", xml);
               std::fputs(shown ? shown->c_str() : (xml + "\n").c_str(), stdout);
               return 0;
           });
       });

    std::string level;
    on(Arg(Arg(app.add_subcommand("debug", "Switch a debug level (0 to 3, or all) on or off"), "level", level, "0, 1, 2, 3 or all", {"0", "1", "2", "3", "all"}), "state", onOff, "on or off", {"on", "off"}),
       [&level, &onOff](const Globals &gl) {
           const uint32_t type = level == "all" ? 4U : static_cast<uint32_t>(std::stoul(level));
           return WithDatastore(gl, [&](Admin &a) { return a.Rpc(pplus_cli::SetDebuggingXml(type, onOff == "on")); });
       });
    on(app.add_subcommand("reset-statistics", "Clear every port's packet counters"), [](const Globals &gl) {
        return WithDatastore(gl, [](Admin &a) { return a.Rpc(pplus_cli::ResetStatisticsXml()); });
    });

    std::string worldLine;
    AddWorldCommands(app, &worldLine);
    CLI11_PARSE(app, argc, argv);

    if (!worldLine.empty()) {
        std::string reply;
        std::string error;
        if (!host::ControlRequest(g.controlPath, worldLine, &reply, &error)) {
            return Fail(error, kExitUnreachable);
        }
        return ShowControlReply(reply);
    }
    return action ? action(g) : Fail("nothing to do");
}
