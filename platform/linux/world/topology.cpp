// Topology files: the YAML description of the switch the host builds.
//
//   system:
//     name: AccessSwitch-1        # system name
//     mac: "00:e0:fc:12:34:56"
//     chassis: 1
//     board: 1                    # this board
//     main-board: 1
//     board-type: box             # box | mpu | lpu
//     ha-role: master             # master | standby | slave
//
// Every key is optional except the system section itself; an unknown key, a
// repeated key or a bad value is refused with a message naming the source,
// the line and the key. yaml-cpp reports syntax errors by exception; they
// are caught here and never leave the library.
#include <yaml-cpp/yaml.h>

#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "devm.h"
#include "plat_world.hpp"

namespace {

// A refusal: where and what.
struct ParseError {
    std::string message;
};

std::string Where(const std::string &source, const YAML::Mark &mark)
{
    if (mark.line < 0) {
        return source;
    }
    return source + ":" + std::to_string(mark.line + 1);
}

[[noreturn]] void Refuse(const std::string &source, const YAML::Node &node, const std::string &key,
                         const std::string &problem)
{
    throw ParseError{Where(source, node.Mark()) + ": " + key + ": " + problem};
}

std::string ScalarOf(const std::string &source, const YAML::Node &node, const std::string &key)
{
    if (!node.IsScalar()) {
        Refuse(source, node, key, "expected a single value");
    }
    return node.Scalar();
}

uint32_t NumberOf(const std::string &source, const YAML::Node &node, const std::string &key)
{
    const std::string text = ScalarOf(source, node, key);
    uint32_t value = 0;
    const char *end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, value);
    if (text.empty() || ec != std::errc() || ptr != end) {
        Refuse(source, node, key, "expected a whole number from 0 to 4294967295, got '" + text + "'");
    }
    return value;
}

std::array<uint8_t, 6> MacOf(const std::string &source, const YAML::Node &node, const std::string &key)
{
    const std::string text = ScalarOf(source, node, key);
    std::array<uint8_t, 6> mac{};
    bool ok = text.size() == 17;
    for (size_t i = 0; ok && i < mac.size(); i++) {
        const char *part = text.data() + i * 3;
        if (i + 1 < mac.size() && part[2] != ':') {
            ok = false;
            break;
        }
        const auto [ptr, ec] = std::from_chars(part, part + 2, mac[i], 16);
        ok = ec == std::errc() && ptr == part + 2;
    }
    if (!ok) {
        Refuse(source, node, key, "expected a MAC address like 00:e0:fc:12:34:56, got '" + text + "'");
    }
    return mac;
}

template <size_t N>
uint32_t ChoiceOf(const std::string &source, const YAML::Node &node, const std::string &key,
                  const std::array<std::pair<const char *, uint32_t>, N> &choices)
{
    const std::string text = ScalarOf(source, node, key);
    std::string allowed;
    for (const auto &[name, value] : choices) {
        if (text == name) {
            return value;
        }
        allowed += allowed.empty() ? name : std::string(" | ") + name;
    }
    Refuse(source, node, key, "expected " + allowed + ", got '" + text + "'");
}

void ParseSystem(const std::string &source, const YAML::Node &system, plat::Topology &topology)
{
    if (!system.IsMap()) {
        Refuse(source, system, "system", "expected a section of keys");
    }
    static constexpr std::array<std::pair<const char *, uint32_t>, 6> kBoardTypes = {{{"box", DEVM_BOARD_TYPE_BOX},
                                                                                      {"mpu", DEVM_BOARD_TYPE_MPU},
                                                                                      {"lpu", DEVM_BOARD_TYPE_LPU},
                                                                                      {"sfu", DEVM_BOARD_TYPE_SFU},
                                                                                      {"spu-ctl", DEVM_BOARD_TYPE_SPU_CTL},
                                                                                      {"spu-fwd", DEVM_BOARD_TYPE_SPU_FWD}}};
    static constexpr std::array<std::pair<const char *, uint32_t>, 3> kHaRoles = {
        {{"master", 1}, {"standby", 2}, {"slave", 3}}};
    plat::SystemIdentity &sys = topology.system;
    std::set<std::string> seen;
    for (auto it = system.begin(); it != system.end(); ++it) {
        const std::string name = ScalarOf(source, it->first, "system key");
        const std::string key = "system." + name;
        const YAML::Node value = it->second;
        if (!seen.insert(name).second) {
            Refuse(source, it->first, key, "given twice");
        }
        if (name == "name") {
            sys.sysName = ScalarOf(source, value, key);
            if (sys.sysName.empty()) {
                Refuse(source, value, key, "must not be empty");
            }
        } else if (name == "mac") {
            sys.sysMac = MacOf(source, value, key);
        } else if (name == "chassis") {
            sys.chassisId = NumberOf(source, value, key);
        } else if (name == "board") {
            sys.selfBoardId = NumberOf(source, value, key);
        } else if (name == "main-board") {
            sys.mainBoardId = NumberOf(source, value, key);
        } else if (name == "board-type") {
            sys.boardType = ChoiceOf(source, value, key, kBoardTypes);
        } else if (name == "ha-role") {
            topology.haRole = ChoiceOf(source, value, key, kHaRoles);
        } else {
            Refuse(source, it->first, key, "unknown key");
        }
    }
}

std::optional<plat::Topology> Parse(const std::string &source, const std::string &text, std::string *error)
{
    try {
        const YAML::Node root = YAML::Load(text);
        if (!root.IsMap()) {
            throw ParseError{source + ": expected a 'system' section"};
        }
        plat::Topology topology;
        bool haveSystem = false;
        for (auto it = root.begin(); it != root.end(); ++it) {
            const std::string name = ScalarOf(source, it->first, "top-level key");
            if (name != "system") {
                Refuse(source, it->first, name, "unknown key");
            }
            if (haveSystem) {
                Refuse(source, it->first, name, "given twice");
            }
            haveSystem = true;
            ParseSystem(source, it->second, topology);
        }
        if (!haveSystem) {
            throw ParseError{source + ": expected a 'system' section"};
        }
        return topology;
    } catch (const ParseError &e) {
        if (error != nullptr) {
            *error = e.message;
        }
    } catch (const YAML::Exception &e) {
        if (error != nullptr) {
            *error = Where(source, e.mark) + ": " + e.msg;
        }
    } catch (const std::exception &e) {
        if (error != nullptr) {
            *error = source + ": " + e.what();
        }
    }
    return std::nullopt;
}

}  // namespace

namespace plat {

std::optional<Topology> load_topology_file(const std::string &path, std::string *error)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        if (error != nullptr) {
            *error = path + ": cannot read the topology file: " + std::strerror(errno);
        }
        return std::nullopt;
    }
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) {
        if (error != nullptr) {
            *error = path + ": cannot read the topology file";
        }
        return std::nullopt;
    }
    return Parse(path, text.str(), error);
}

std::optional<Topology> load_topology_text(const std::string &yaml, std::string *error)
{
    return Parse("topology", yaml, error);
}

}  // namespace plat
