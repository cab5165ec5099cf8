// The world model's loader: topology files (YAML) read into the Topology
// that the platform's world store installs (platform/world.hpp).
#pragma once

#include <optional>
#include <string>

#include "platform/world.hpp"

namespace device::world {

using platform::Topology;

// Parses a topology file (YAML). On error returns nullopt and a message
// naming the file, line and offending key in *error.
std::optional<Topology> LoadTopologyFile(const std::string &path, std::string *error);
std::optional<Topology> LoadTopologyText(const std::string &yaml, std::string *error);

}  // namespace device::world
