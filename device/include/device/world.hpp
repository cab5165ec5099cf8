// The world model's loader: topology files (YAML) read into the Topology
// that the platform's world store installs (platform/world.hpp).
#pragma once

#include <optional>
#include <string>

#include "platform/world.hpp"

namespace plat {

// Parses a topology file (YAML). On error returns nullopt and a message
// naming the file, line and offending key in *error.
std::optional<Topology> load_topology_file(const std::string &path, std::string *error);
std::optional<Topology> load_topology_text(const std::string &yaml, std::string *error);

}  // namespace plat
