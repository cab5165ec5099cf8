// pppoe-plus-cli's datastore commands, one registration function each: the
// YANG tooling forms (import, export, edit, delete, get, rpc) and the short
// forms of everyday settings, queries and operations. A registration
// function owns its command's arguments; its action only turns them into a
// request of the agent's YANG model (agent_requests.hpp).
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>

#include "cli.hpp"
#include "subscribers.hpp"

namespace pplus_cli {

namespace {

using device::yangdb::Admin;
using device::yangdb::EditMode;
using device::yangdb::Reply;

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

// A command that sends one XML document (a file, - for standard input).
void AddDocumentCommand(CLI::App &app, Action *action, const char *name, const char *help,
                        Reply (*request)(Admin &, const std::string &))
{
    CLI::App *cmd = app.add_subcommand(name, help);
    auto file = std::make_shared<std::string>();
    cmd->add_option("file", *file, "XML file, - for standard input")->required();
    OnParsed(cmd, action, [file, request](const Globals &g) {
        std::string text;
        if (!ReadInput(*file, &text)) {
            return Fail("cannot read " + *file);
        }
        return WithDatastore(g, [&](Admin &admin) { return request(admin, text); });
    });
}

// A command that sends one instance path.
void AddPathCommand(CLI::App &app, Action *action, const char *name, const char *help, const char *example,
                    Reply (*request)(Admin &, const std::string &))
{
    CLI::App *cmd = app.add_subcommand(name, help);
    auto path = std::make_shared<std::string>();
    cmd->add_option("path", *path, example)->required();
    OnParsed(cmd, action, [path, request](const Globals &g) {
        return WithDatastore(g, [&](Admin &admin) { return request(admin, *path); });
    });
}

// A command that merges one fixed edit.
void AddEditCommand(CLI::App &app, Action *action, const char *name, const char *help, std::string xml)
{
    OnParsed(app.add_subcommand(name, help), action,
             [xml = std::move(xml)](const Globals &g) { return Merge(g, xml); });
}

// A required positional argument, one of choices when given.
template <typename T>
void AddArgument(CLI::App *cmd, const std::string &name, T &value, const std::string &help,
                 const std::vector<std::string> &choices = {})
{
    CLI::Option *option = cmd->add_option(name, value, help)->required();
    if (!choices.empty()) {
        option->check(CLI::IsMember(choices));
    }
}

// What the per-interface forms take beside their own arguments.
struct PortArgs {
    std::string port;
    int64_t ifIndex = -1;
    bool remove = false;
};

// How a per-interface form takes its port: the first positional argument,
// or an optional --port (without it, the form is a global setting).
enum class PortGiven { kPositional, kOption };

// The port, --ifindex and --remove.
void AddPortOptions(CLI::App *cmd, PortArgs &args, const char *removeHelp, PortGiven given)
{
    if (given == PortGiven::kPositional) {
        cmd->add_option("port", args.port, "Interface name or ifIndex")->required();
    } else {
        cmd->add_option("--port", args.port, "Interface name or ifIndex, for example GigabitEthernet0/0/1");
    }
    cmd->add_option("--ifindex", args.ifIndex, "The interface's ifIndex (default: asked from the running switch)")
        ->check(CLI::Range(int64_t{0}, int64_t{UINT32_MAX}));
    cmd->add_flag("--remove", args.remove, removeHelp);
}

// Sets one item of an interface, or deletes it with --remove.
int PortItem(const Globals &g, const PortArgs &args, std::string_view item,
             const std::function<std::string(const Port &)> &xml)
{
    if (args.remove) {
        const std::string path = PortItemPath(args.port, item);
        return WithDatastore(g, [&path](Admin &admin) { return admin.Delete(path); });
    }
    Port port;
    if (const int rc = ResolvePort(g, args.port, args.ifIndex, &port); rc != kExitDone) {
        return rc;
    }
    return Merge(g, xml(port));
}

// Prints a query reply as text, or as it came when it is not the XML the
// query answers.
int ShowReply(const std::optional<std::string> &text, const std::string &xml)
{
    std::fputs(text ? text->c_str() : (xml + "\n").c_str(), stdout);
    return kExitDone;
}

// show WHAT [--port IF] [--vlan V] [--mac M] [--json]: the options are the
// subscriber table's.
struct ShowArgs {
    std::string what;
    std::string port;
    std::optional<uint16_t> vlan;
    std::string mac;
    bool json = false;
    bool Filtered() const { return !port.empty() || vlan || !mac.empty() || json; }
};

// The subscriber table from the switch's datastore, those the options
// select, as a table or as JSON.
int ShowSubscribers(const Globals &g, const CLI::App &cmd, const ShowArgs &opts)
{
    SubscriberFilter filter{opts.port, opts.vlan, ""};
    if (!opts.mac.empty()) {
        const auto mac = NormalMac(opts.mac);
        if (!mac) {
            return UsageError(cmd, "show subscribers: not a MAC address: " + opts.mac);
        }
        filter.mac = *mac;
    }
    const std::string path(kSubscribersPath);
    return WithDatastore(
        g, [&path](Admin &admin) { return admin.Get(path); },
        [&](const std::string &xml) {
            auto table = ReadSubscribers(xml);
            if (!table) {
                return Fail("show subscribers: the switch answered no subscriber table");
            }
            std::erase_if(table->rows, [&filter](const SubscriberRow &r) { return !Selects(filter, r); });
            const std::string text = opts.json ? SubscribersJson(table->rows) : SubscribersText(*table);
            std::fputs(text.c_str(), stdout);
            return kExitDone;
        });
}

}  // namespace

void AddImport(CLI::App &app, Action *action)
{
    AddDocumentCommand(app, action, "import", "Replace the running configuration with an XML document",
                       [](Admin &admin, const std::string &xml) { return admin.Edit(xml, EditMode::kReplace); });
}

void AddExport(CLI::App &app, Action *action)
{
    CLI::App *cmd = app.add_subcommand("export", "Print the running configuration as XML");
    auto file = std::make_shared<std::string>();
    cmd->add_option("file", *file, "Write it to this file instead");
    OnParsed(cmd, action, [file](const Globals &g) {
        return WithDatastore(
            g, [](Admin &admin) { return admin.Export(); },
            [&file](const std::string &xml) {
                if (file->empty()) {
                    std::fputs(xml.c_str(), stdout);
                    return kExitDone;
                }
                std::ofstream out(*file);
                out << xml;
                return out ? kExitDone : Fail("cannot write " + *file);
            });
    });
}

void AddEdit(CLI::App &app, Action *action)
{
    AddDocumentCommand(app, action, "edit", "Merge an XML document into the running configuration",
                       [](Admin &admin, const std::string &xml) { return admin.Edit(xml, EditMode::kMerge); });
}

void AddDelete(CLI::App &app, Action *action)
{
    AddPathCommand(app, action, "delete", "Remove the configuration at an instance path",
                   "for example /quendal-pppoe-plus:pppoe-plus/vendor-id",
                   [](Admin &admin, const std::string &path) { return admin.Delete(path); });
}

void AddGet(CLI::App &app, Action *action)
{
    AddPathCommand(app, action, "get", "Read configuration or state at a path",
                   "for example /quendal-pppoe-plus:pppoe-plus/query-policy",
                   [](Admin &admin, const std::string &path) { return admin.Get(path); });
}

void AddRpc(CLI::App &app, Action *action)
{
    AddDocumentCommand(app, action, "rpc", "Call an operation with its XML input",
                       [](Admin &admin, const std::string &xml) { return admin.Rpc(xml); });
}

void AddEnable(CLI::App &app, Action *action)
{
    AddEditCommand(app, action, "enable", "Switch the PPPoE+ agent on", EnableXml(true));
}

void AddDisable(CLI::App &app, Action *action)
{
    AddEditCommand(app, action, "disable", "Switch the PPPoE+ agent off", EnableXml(false));
}

void AddTrust(CLI::App &app, Action *action)
{
    struct Args {
        PortArgs port;
        std::string state = "on";
    };
    auto args = std::make_shared<Args>();
    CLI::App *cmd = app.add_subcommand("trust", "Trust an uplink port (or --remove its trust item)");
    AddPortOptions(cmd, args->port, "Remove the port's trust item", PortGiven::kPositional);
    cmd->add_option("state", args->state, "on or off")->check(CLI::IsMember({"on", "off"}));
    OnParsed(cmd, action, [args](const Globals &g) {
        return PortItem(g, args->port, "trusted-port",
                        [&args](const Port &p) { return PortTrustXml(p, args->state == "on"); });
    });
}

void AddPolicy(CLI::App &app, Action *action)
{
    struct Args {
        PortArgs port;
        std::string policy;
    };
    auto args = std::make_shared<Args>();
    CLI::App *cmd = app.add_subcommand("policy", "Set the tag policy, globally or of one --port");
    cmd->add_option("policy", args->policy, "replace, drop or keep")->check(CLI::IsMember({"replace", "drop", "keep"}));
    AddPortOptions(cmd, args->port, "Remove the port's policy item", PortGiven::kOption);
    OnParsed(cmd, action, [args, cmd](const Globals &g) {
        if (args->port.port.empty()) {
            return args->policy.empty() ? UsageError(*cmd, "policy: give replace, drop or keep")
                                        : Merge(g, GlobalPolicyXml(args->policy));
        }
        if (args->policy.empty() && !args->port.remove) {
            return UsageError(*cmd, "policy: give replace, drop or keep, or --remove");
        }
        return PortItem(g, args->port, "port-tags-policy",
                        [&args](const Port &p) { return PortPolicyXml(p, args->policy); });
    });
}

void AddVendorId(CLI::App &app, Action *action)
{
    auto vendorId = std::make_shared<uint32_t>();
    CLI::App *cmd = app.add_subcommand("vendor-id", "Set the enterprise number of the Vendor-Specific tag");
    AddArgument(cmd, "number", *vendorId, "for example 3561");
    OnParsed(cmd, action, [vendorId](const Globals &g) { return Merge(g, VendorIdXml(*vendorId)); });
}

void AddEncapsulation(CLI::App &app, Action *action)
{
    auto type = std::make_shared<std::string>();
    CLI::App *cmd = app.add_subcommand("encapsulation", "Choose the sub-options inserted");
    AddArgument(cmd, "type", *type, "circuit-id, remote-id or both", {"circuit-id", "remote-id", "both"});
    OnParsed(cmd, action, [type](const Globals &g) { return Merge(g, EncapsulationXml(*type)); });
}

void AddIgnoreReply(CLI::App &app, Action *action)
{
    auto state = std::make_shared<std::string>();
    CLI::App *cmd = app.add_subcommand("ignore-reply", "Ignore replies from untrusted ports (on) or not (off)");
    AddArgument(cmd, "state", *state, "on or off", {"on", "off"});
    OnParsed(cmd, action, [state](const Globals &g) { return Merge(g, IgnoreReplyXml(*state == "on")); });
}

void AddFormat(CLI::App &app, Action *action)
{
    struct Args {
        PortArgs port;
        std::string which;
        std::string format;
        std::string text;
        uint16_t vlan = 0;
        uint16_t ceVlan = 0;
    };
    auto args = std::make_shared<Args>();
    CLI::App *cmd = app.add_subcommand(
        "format", "Set how the Circuit-ID (cid) or Remote-ID (rid) is built, globally or for one --port and VLAN pair");
    AddArgument(cmd, "which", args->which, "cid or rid", {"cid", "rid"});
    cmd->add_option("format", args->format, "common, extend or user-define")
        ->check(CLI::IsMember({"common", "extend", "user-define"}));
    cmd->add_option("text", args->text, "The format string of user-define");
    cmd->add_option("--vlan", args->vlan, "Outer VLAN of the per-port format (0: any)");
    cmd->add_option("--cevlan", args->ceVlan, "Inner VLAN of the per-port format (0: any)");
    AddPortOptions(cmd, args->port, "Remove the port's format item", PortGiven::kOption);
    OnParsed(cmd, action, [args, cmd](const Globals &g) {
        const PortArgs &port = args->port;
        if (args->format.empty() && !port.remove) {
            return UsageError(*cmd, "format: give common, extend or user-define");
        }
        if (args->format == "user-define" && args->text.empty()) {
            return UsageError(*cmd, "format: user-define needs its format string");
        }
        if (port.port.empty()) {
            return Merge(g, GlobalFormatXml(args->which, args->format, args->text));
        }
        if (port.remove) {
            const std::string item = PortFormatPath(port.port, args->vlan, args->ceVlan, args->which);
            return WithDatastore(g, [&item](Admin &admin) { return admin.Delete(item); });
        }
        Port resolved;
        if (const int rc = ResolvePort(g, port.port, port.ifIndex, &resolved); rc != kExitDone) {
            return rc;
        }
        return Merge(g, PortFormatXml(resolved, args->vlan, args->ceVlan, args->which, args->format, args->text));
    });
}

void AddDescription(CLI::App &app, Action *action)
{
    struct Args {
        PortArgs port;
        std::string text;
    };
    auto args = std::make_shared<Args>();
    CLI::App *cmd = app.add_subcommand("description", "Set the description the %desc keyword shows");
    AddPortOptions(cmd, args->port, "Remove the port's description", PortGiven::kPositional);
    cmd->add_option("text", args->text, "The description");
    OnParsed(cmd, action, [args, cmd](const Globals &g) {
        if (args->text.empty() && !args->port.remove) {
            return UsageError(*cmd, "description: give the text, or --remove");
        }
        return PortItem(g, args->port, "if-description",
                        [&args](const Port &p) { return PortDescriptionXml(p, args->text); });
    });
}

void AddShow(CLI::App &app, Action *action)
{
    auto args = std::make_shared<ShowArgs>();
    CLI::App *cmd = app.add_subcommand("show", "Show the agent's state, or the subscribers the switch saw");
    AddArgument(cmd, "what", args->what, "statistics, encapsulation, policy, format, config or subscribers",
                {"statistics", "encapsulation", "policy", "format", "config", "subscribers"});
    cmd->add_option("--port", args->port, "subscribers: only those on this interface (name or ifIndex)");
    cmd->add_option("--vlan", args->vlan, "subscribers: only those in this outer VLAN")->check(CLI::Range(1, 4094));
    cmd->add_option("--mac", args->mac, "subscribers: only this client MAC");
    cmd->add_flag("--json", args->json, "subscribers: a JSON list of objects instead of a table");
    OnParsed(cmd, action, [args, cmd](const Globals &g) {
        if (args->what == "subscribers") {
            return ShowSubscribers(g, *cmd, *args);
        }
        if (args->Filtered()) {
            return UsageError(*cmd,
                              "show " + args->what + ": --port, --vlan, --mac and --json are for show subscribers");
        }
        if (args->what == "config") {
            return WithDatastore(g, [](Admin &admin) { return admin.Export(); });
        }
        const std::string path = *QueryPath(args->what);
        return WithDatastore(
            g, [&path](Admin &admin) { return admin.Get(path); },
            [&args](const std::string &xml) { return ShowReply(RenderQueryReply(args->what, xml), xml); });
    });
}

void AddCheckFormat(CLI::App &app, Action *action)
{
    auto text = std::make_shared<std::string>();
    CLI::App *cmd = app.add_subcommand("check-format", "Check a user-defined format string");
    AddArgument(cmd, "text", *text, "The format string");
    OnParsed(cmd, action, [text, cmd](const Globals &g) {
        std::string why;
        const auto path = FormatCheckPath(*text, &why);
        if (!path) {
            return UsageError(*cmd, "check-format: " + why);
        }
        return WithDatastore(
            g, [&path](Admin &admin) { return admin.Get(*path); },
            [&text](const std::string &xml) { return ShowReply(RenderFormatCheckReply(*text, xml), xml); });
    });
}

void AddDebug(CLI::App &app, Action *action)
{
    struct Args {
        std::string level;
        std::string state;
    };
    auto args = std::make_shared<Args>();
    CLI::App *cmd = app.add_subcommand("debug", "Switch a debug level (0 to 3, or all) on or off");
    AddArgument(cmd, "level", args->level, "0, 1, 2, 3 or all", {"0", "1", "2", "3", "all"});
    AddArgument(cmd, "state", args->state, "on or off", {"on", "off"});
    OnParsed(cmd, action, [args](const Globals &g) {
        const uint32_t level = args->level == "all" ? kDebugAllLevels : static_cast<uint32_t>(std::stoul(args->level));
        return WithDatastore(g, [&](Admin &admin) { return admin.Rpc(SetDebuggingXml(level, args->state == "on")); });
    });
}

void AddResetStatistics(CLI::App &app, Action *action)
{
    OnParsed(app.add_subcommand("reset-statistics", "Clear every port's packet counters"), action,
             [](const Globals &g) {
                 return WithDatastore(g, [](Admin &admin) { return admin.Rpc(ResetStatisticsXml()); });
             });
}

}  // namespace pplus_cli
