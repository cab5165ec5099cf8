// The host's ports: pcap inputs replayed into the forwarding plane, pcap
// captures of what leaves it, and the agent's settings file.
//
// Settings file (YAML), every key optional:
//   enable: true                  # the feature switch
//   policy: replace               # replace | drop | keep
//   encapsulation: both           # circuit-id | remote-id | both
//   circuit-id-format: common     # common | extend | {user-define: "<format>"}
//   remote-id-format: common
//   vendor-id: 3561
//   trusted-ports: [XGigabitEthernet0/0/1]      # names or ifIndexes
//   port-policies: {GigabitEthernet0/0/2: keep}
#include "ports.hpp"

#include <dlfcn.h>
#include <yaml-cpp/yaml.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "example_config.hpp"
#include "plat_fwm.hpp"
#include "wick.h"

namespace host {
namespace {

using namespace std::chrono_literals;

// The agent's receive thread: idle while it waits for frames.
constexpr const char *kAgentRxThread = "thread/dpx2ppplus";

// PORT=FILE, PORT a name or an ifIndex.
bool SplitBinding(const std::string &binding, const char *option, uint32_t *ifIndex, std::string *path,
                  std::string *error)
{
    const size_t eq = binding.find('=');
    if (eq == std::string::npos || eq == 0 || eq + 1 == binding.size()) {
        *error = std::string(option) + " " + binding + ": expected PORT=FILE.pcap";
        return false;
    }
    const std::string port = binding.substr(0, eq);
    const auto resolved = plat::fplane::ResolvePort(port);
    if (!resolved) {
        *error = std::string(option) + " " + binding + ": unknown port " + port;
        return false;
    }
    *ifIndex = *resolved;
    *path = binding.substr(eq + 1);
    return true;
}

std::string Where(const std::string &source, const YAML::Node &node, const std::string &key)
{
    return source + ":" + std::to_string(node.Mark().line + 1) + ": " + key;
}

bool PolicyOf(const std::string &text, uint8_t *policy)
{
    if (text == "replace") {
        *policy = 1;
    } else if (text == "drop") {
        *policy = 2;
    } else if (text == "keep") {
        *policy = 3;
    } else {
        return false;
    }
    return true;
}

bool FormatOf(const YAML::Node &node, AgentConfig::Format *format)
{
    if (node.IsScalar()) {
        const std::string text = node.as<std::string>();
        if (text == "common" || text == "extend") {
            format->type = text == "common" ? 0 : 1;
            return true;
        }
        return false;
    }
    if (node.IsMap() && node.size() == 1 && node["user-define"] && node["user-define"].IsScalar()) {
        format->type = 2;
        format->userDefine = node["user-define"].as<std::string>();
        return true;
    }
    return false;
}

bool ParseNodes(const YAML::Node &root, const std::string &source, AgentConfig *config, std::string *error)
{
    if (!root.IsMap()) {
        *error = source + ": expected a map of settings";
        return false;
    }
    for (const auto &item : root) {
        const std::string key = item.first.as<std::string>();
        const YAML::Node &value = item.second;
        const std::string where = Where(source, item.first, key);
        if (key == "enable") {
            config->enable = value.as<bool>();
        } else if (key == "policy") {
            uint8_t policy = 0;
            if (!PolicyOf(value.as<std::string>(), &policy)) {
                *error = where + ": expected replace, drop or keep";
                return false;
            }
            config->policy = policy;
        } else if (key == "encapsulation") {
            const std::string text = value.as<std::string>();
            if (text == "circuit-id") {
                config->encapsulation = 1;
            } else if (text == "remote-id") {
                config->encapsulation = 2;
            } else if (text == "both") {
                config->encapsulation = 3;
            } else {
                *error = where + ": expected circuit-id, remote-id or both";
                return false;
            }
        } else if (key == "circuit-id-format" || key == "remote-id-format") {
            AgentConfig::Format format;
            if (!FormatOf(value, &format)) {
                *error = where + ": expected common, extend or {user-define: \"<format>\"}";
                return false;
            }
            (key == "circuit-id-format" ? config->circuitIdFormat : config->remoteIdFormat) = format;
        } else if (key == "vendor-id") {
            config->vendorId = value.as<uint32_t>();
        } else if (key == "trusted-ports") {
            if (!value.IsSequence()) {
                *error = where + ": expected a list of ports";
                return false;
            }
            for (const auto &port : value) {
                const auto ifIndex = plat::fplane::ResolvePort(port.as<std::string>());
                if (!ifIndex) {
                    *error = where + ": unknown port " + port.as<std::string>();
                    return false;
                }
                config->trustedPorts.push_back(*ifIndex);
            }
        } else if (key == "port-policies") {
            if (!value.IsMap()) {
                *error = where + ": expected a map of port: policy";
                return false;
            }
            for (const auto &entry : value) {
                const std::string port = entry.first.as<std::string>();
                const auto ifIndex = plat::fplane::ResolvePort(port);
                uint8_t policy = 0;
                if (!ifIndex) {
                    *error = where + ": unknown port " + port;
                    return false;
                }
                if (!PolicyOf(entry.second.as<std::string>(), &policy)) {
                    *error = where + ": " + port + ": expected replace, drop or keep";
                    return false;
                }
                config->portPolicies.emplace_back(*ifIndex, policy);
            }
        } else {
            *error = where + ": unknown key";
            return false;
        }
    }
    return true;
}

template <typename Fn>
Fn Setter(void *module, const char *name, std::string *error)
{
    const auto fn = reinterpret_cast<Fn>(dlsym(module, name));
    if (fn == nullptr) {
        *error = std::string("the agent module lacks ") + name;
    }
    return fn;
}

bool Refused(const char *what, uint32_t status, std::string *error)
{
    if (status != 0) {
        *error = std::string(what) + ": the agent refused the setting (status " + std::to_string(status) + ")";
        return true;
    }
    return false;
}

}  // namespace

void AddPortOptions(CLI::App &app, PortOptions &opts)
{
    app.add_option("--in", opts.inputs, "Replay FILE.pcap into PORT (PORT=FILE.pcap, PORT a name or ifIndex)");
    app.add_option("--out", opts.outputs, "Capture what leaves PORT into FILE.pcap (PORT=FILE.pcap)");
    app.add_option("--capture-dir", opts.captureDir, "Capture every other port that sends into DIR/<port-name>.pcap");
    app.add_option("--config", opts.configFile,
                   "Agent settings (YAML) applied once it is ready; default with --in: the bundled example")
        ->check(CLI::ExistingFile);
}

void MakePathsAbsolute(PortOptions &opts)
{
    const auto absolute = [](const std::string &path) {
        std::error_code ec;
        return path.empty() ? path : std::filesystem::absolute(path, ec).string();
    };
    for (auto *list : {&opts.inputs, &opts.outputs}) {
        for (std::string &binding : *list) {
            const size_t eq = binding.find('=');
            if (eq != std::string::npos && eq + 1 < binding.size()) {
                binding = binding.substr(0, eq + 1) + absolute(binding.substr(eq + 1));
            }
        }
    }
    opts.captureDir = absolute(opts.captureDir);
    opts.configFile = absolute(opts.configFile);
}

bool ParseAgentConfig(const std::string &yaml, const std::string &source, AgentConfig *config, std::string *error)
{
    try {
        return ParseNodes(YAML::Load(yaml), source, config, error);
    } catch (const YAML::Exception &e) {
        *error = source + ":" + std::to_string(e.mark.line + 1) + ": " + e.msg;
        return false;
    }
}

bool LoadAgentConfig(const std::string &path, AgentConfig *config, std::string *error)
{
    if (path.empty()) {
        return ParseAgentConfig(kExampleConfig, "bundled settings", config, error);
    }
    std::ifstream in(path);
    if (!in) {
        *error = path + ": cannot read";
        return false;
    }
    std::ostringstream text;
    text << in.rdbuf();
    return ParseAgentConfig(text.str(), path, config, error);
}

bool ApplyAgentConfig(void *module, const AgentConfig &config, std::string *error)
{
    // The feature first: trust and policy settings take effect under it.
    if (config.enable) {
        const auto set = Setter<uint32_t (*)(uint8_t)>(module, "PPPOE_PLUS_SetEnable", error);
        if (set == nullptr || Refused("enable", set(*config.enable ? 1 : 0), error)) {
            return false;
        }
    }
    if (config.policy) {
        const auto set = Setter<void (*)(uint8_t)>(module, "PPPOE_PLUS_SetGlobalInfoPolicy", error);
        if (set == nullptr) {
            return false;
        }
        set(*config.policy);
    }
    if (config.encapsulation) {
        const auto set = Setter<void (*)(uint8_t, uint8_t)>(module, "PPPOE_PLUS_SetInfoEncap", error);
        if (set == nullptr) {
            return false;
        }
        set(1, *config.encapsulation);
    }
    const std::pair<const std::optional<AgentConfig::Format> *, const char *> formats[] = {
        {&config.circuitIdFormat, "PPPOE_PLUS_SetGlobalCidFormat"},
        {&config.remoteIdFormat, "PPPOE_PLUS_SetGlobalRidFormat"},
    };
    for (const auto &[format, name] : formats) {
        if (*format) {
            const auto set = Setter<uint32_t (*)(uint8_t, const char *)>(module, name, error);
            const char *udf = (*format)->type == 2 ? (*format)->userDefine.c_str() : nullptr;
            if (set == nullptr || Refused(name, set((*format)->type, udf), error)) {
                return false;
            }
        }
    }
    if (config.vendorId) {
        const auto set = Setter<void (*)(uint32_t)>(module, "PPPOE_PLUS_SetVendorId", error);
        if (set == nullptr) {
            return false;
        }
        set(*config.vendorId);
    }
    for (const uint32_t ifIndex : config.trustedPorts) {
        const auto set = Setter<uint32_t (*)(uint32_t, uint32_t)>(module, "PPPOE_PLUS_SetPortTrust", error);
        if (set == nullptr || Refused("trusted-ports", set(ifIndex, 1), error)) {
            return false;
        }
    }
    for (const auto &[ifIndex, policy] : config.portPolicies) {
        const auto set = Setter<uint32_t (*)(uint32_t, uint8_t, uint8_t)>(module, "PPPOE_PLUS_SetPortPolicy", error);
        if (set == nullptr || Refused("port-policies", set(ifIndex, policy, 1), error)) {
            return false;
        }
    }
    // The feature switch reaches the forwarding manager over the agent's
    // session; frames replayed before it lands would not be punted.
    if (config.enable) {
        const auto deadline = std::chrono::steady_clock::now() + 5s;
        while (plat::fwm::feature_enabled() != *config.enable) {
            if (std::chrono::steady_clock::now() > deadline) {
                *error = "enable: the forwarding manager did not take the feature switch";
                return false;
            }
            std::this_thread::sleep_for(2ms);
        }
    }
    return true;
}

bool HostPorts::Open(const PortOptions &opts, std::string *error)
{
    for (const std::string &binding : opts.inputs) {
        uint32_t ifIndex = 0;
        std::string path;
        if (!SplitBinding(binding, "--in", &ifIndex, &path, error) || !replay_.Add(ifIndex, path, error)) {
            return false;
        }
    }
    hasInputs_ = !opts.inputs.empty();
    for (const std::string &binding : opts.outputs) {
        uint32_t ifIndex = 0;
        std::string path;
        if (!SplitBinding(binding, "--out", &ifIndex, &path, error) || !capture_.Bind(ifIndex, path, error)) {
            return false;
        }
    }
    if (!opts.captureDir.empty() && !capture_.SetFolder(opts.captureDir, error)) {
        return false;
    }
    plane_ = std::make_unique<plat::fplane::ForwardingPlane>(capture_);
    return true;
}

bool HostPorts::Replay()
{
    // Idle: nothing in the channels, nothing handled for a while, and the
    // agent's receive thread back in its wait.
    const auto settled = [this](std::chrono::milliseconds quiet, std::chrono::milliseconds timeout) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < deadline) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (plane_->WaitIdle(quiet, left) && WICK_ThreadIsWaiting(kAgentRxThread) != 0 &&
                plane_->WaitIdle(quiet, quiet * 4)) {
                return true;
            }
            std::this_thread::sleep_for(5ms);
        }
        return false;
    };
    // Each frame goes in once the previous one has been handled, so that
    // answers follow the requests they answer; once the plane stalls, the
    // rest go in without waiting.
    bool ok = true;
    replay_.Run([&](const plat::fplane::ReplayFrame &frame) {
        plane_->Receive(frame.ifIndex, frame.bytes);
        ok = ok && settled(20ms, 2s);
    });
    return settled(200ms, ok ? 10s : 2s) && ok;
}

void HostPorts::PrintSummary() const
{
    for (const auto &[ifIndex, c] : plane_->AllCounters()) {
        const std::string name = plat::fplane::PortName(ifIndex);
        std::printf("pppoe-plus-switch: port %s (%u): rx %llu tx %llu punted %llu dropped %llu\n",
                    name.empty() ? "?" : name.c_str(), ifIndex, static_cast<unsigned long long>(c.rx),
                    static_cast<unsigned long long>(c.tx), static_cast<unsigned long long>(c.punted),
                    static_cast<unsigned long long>(c.dropped));
    }
    std::printf("pppoe-plus-switch: fwm: %s\n", plat::fwm::describe(plat::fwm::state()).c_str());
    for (const auto &[ifIndex, file] : capture_.Files()) {
        std::printf("pppoe-plus-switch: captured %llu frame(s) of port %s into %s\n",
                    static_cast<unsigned long long>(file.second), plat::fplane::PortName(ifIndex).c_str(),
                    file.first.c_str());
    }
    for (const std::string &e : capture_.Errors()) {
        std::printf("pppoe-plus-switch: capture error: %s\n", e.c_str());
    }
    std::fflush(stdout);
}

void HostPorts::Close()
{
    plane_.reset();
    capture_.Close();
}

}  // namespace host
