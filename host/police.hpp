// The control socket's "police" command (police.cpp).
#pragma once

#include <string>
#include <vector>

#include "device/fplane.hpp"

namespace host {

// Runs "police ..." (words as split on the control socket) against the
// plane; false with the reason in *output when it is refused.
bool PoliceCommand(device::fplane::ForwardingPlane &plane, const std::vector<std::string> &words,
                   std::string *output);

}  // namespace host
