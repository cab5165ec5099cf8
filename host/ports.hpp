// The host's ports and the agent's settings: the forwarding plane with pcap
// replay and capture behind it, and the settings file applied to the agent
// once it is ready.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

// CLI11 trips g++'s null-dereference analysis inside its own headers.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnull-dereference"
#include <CLI/CLI.hpp>
#pragma GCC diagnostic pop

#include "plat_fplane.hpp"

namespace host {

struct PortOptions {
    std::vector<std::string> inputs;    // PORT=FILE.pcap
    std::vector<std::string> outputs;   // PORT=FILE.pcap
    std::string captureDir;
    std::string configFile;
};

// --in, --out, --capture-dir, --config.
void AddPortOptions(CLI::App &app, PortOptions &opts);
// Paths on the command line are relative to where the host was started;
// call before the host changes folder.
void MakePathsAbsolute(PortOptions &opts);

// The agent's settings as a settings file gives them.
struct AgentConfig {
    std::optional<bool> enable;
    std::optional<uint8_t> policy;             // 1 replace, 2 drop, 3 keep
    std::optional<uint8_t> encapsulation;      // 1 circuit-id, 2 remote-id, 3 both
    struct Format {
        uint8_t type = 0;                      // 0 common, 1 extend, 2 user-define
        std::string userDefine;
    };
    std::optional<Format> circuitIdFormat;
    std::optional<Format> remoteIdFormat;
    std::optional<uint32_t> vendorId;
    std::vector<uint32_t> trustedPorts;        // ifIndexes
    std::vector<std::pair<uint32_t, uint8_t>> portPolicies;
};

// Parses settings (YAML); ports are resolved in the world model, so call it
// once the topology is installed. false and a message naming the source,
// line and key in *error.
bool ParseAgentConfig(const std::string &yaml, const std::string &source, AgentConfig *config, std::string *error);
// Reads a settings file, or the bundled example when path is empty.
bool LoadAgentConfig(const std::string &path, AgentConfig *config, std::string *error);
// Calls the agent's setters through the module handle; false and a message
// when a setter is missing or refuses.
bool ApplyAgentConfig(void *module, const AgentConfig &config, std::string *error);

// The forwarding plane and its pcap ports for one run of the host.
class HostPorts {
public:
    // Resolves the ports, reads every input, opens the captures and starts
    // the plane; false and a message when anything is wrong.
    bool Open(const PortOptions &opts, std::string *error);
    bool HasInputs() const { return hasInputs_; }
    // Replays the inputs into their ports, each frame once the previous one
    // has been handled, then waits until the plane and the agent are idle.
    // false when they did not become idle in time.
    bool Replay();
    // Per-port counters and the files written.
    void PrintSummary() const;
    // Stops the plane and closes the captures.
    void Close();

private:
    plat::fplane::PcapReplay replay_;
    plat::fplane::PcapCapture capture_;
    std::unique_ptr<plat::fplane::ForwardingPlane> plane_;
    bool hasInputs_ = false;
};

}  // namespace host
