// The control socket's "police" command: the punt policing of the
// forwarding plane, shown and changed while frames flow.
//
//   police show
//   police global <rate> <burst> | police global off
//   police default <rate> <burst> | police default off     (ports without their own)
//   police port <PORT> <rate> <burst> | police port <PORT> off | police port <PORT> default
#include "police.hpp"

#include <charconv>
#include <sstream>

#include "platform/world.hpp"

namespace host {

namespace {

using device::fplane::PuntRate;

constexpr uint32_t kRateMax = 10000000;
constexpr const char *kUsage =
    "usage: police show | police global RATE BURST|off | police default RATE BURST|off | "
    "police port PORT RATE BURST|off|default";

std::optional<uint32_t> Count(const std::string &text)
{
    uint32_t value = 0;
    const char *end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, value);
    if (text.empty() || ec != std::errc() || ptr != end || value == 0 || value > kRateMax) {
        return std::nullopt;
    }
    return value;
}

// "RATE BURST" or "off" from words[at...]; the reason in *why when neither.
std::optional<PuntRate> RateOf(const std::vector<std::string> &w, size_t at, std::string *why)
{
    if (w.size() == at + 1 && w[at] == "off") {
        return PuntRate{};
    }
    if (w.size() != at + 2) {
        *why = kUsage;
        return std::nullopt;
    }
    const auto rate = Count(w[at]);
    const auto burst = Count(w[at + 1]);
    if (!rate || !burst) {
        *why = "rate and burst are frames a second and frames, from 1 to " + std::to_string(kRateMax) + ": got " +
               w[at] + " " + w[at + 1];
        return std::nullopt;
    }
    return PuntRate{*rate, *burst};
}

std::string Describe(const PuntRate &rate)
{
    return rate.Limits() ? std::to_string(rate.rate) + "/s burst " + std::to_string(rate.burst) : "off";
}

std::string Show(const device::fplane::ForwardingPlane &plane)
{
    const device::fplane::PuntPolicing policing = plane.Policing();
    const auto counters = plane.AllCounters();
    std::ostringstream out;
    out << "global " << Describe(policing.global) << "\ndefault " << Describe(policing.port);
    std::map<uint32_t, uint64_t> shown;
    for (const auto &[ifIndex, rate] : policing.ports) {
        shown[ifIndex] = 0;
    }
    for (const auto &[ifIndex, c] : counters) {
        if (c.policed != 0 || c.punted != 0) {
            shown[ifIndex] = c.policed;
        }
    }
    for (const auto &[ifIndex, policed] : shown) {
        const auto own = policing.ports.find(ifIndex);
        const std::string name = device::fplane::PortName(ifIndex);
        out << "\nport " << (name.empty() ? "?" : name) << " (" << ifIndex << ") "
            << (own != policing.ports.end() ? Describe(own->second) + " (own)" : Describe(policing.port))
            << ", policed " << policed;
    }
    return out.str();
}

}  // namespace

bool PoliceCommand(device::fplane::ForwardingPlane &plane, const std::vector<std::string> &w, std::string *output)
{
    if (w.size() == 2 && w[1] == "show") {
        *output = Show(plane);
        return true;
    }
    if (w.size() >= 3 && (w[1] == "global" || w[1] == "default")) {
        const auto rate = RateOf(w, 2, output);
        if (!rate) {
            return false;
        }
        if (w[1] == "global") {
            plane.SetGlobalPolicing(*rate);
            *output = "global punt policing " + Describe(*rate);
        } else {
            plane.SetDefaultPolicing(*rate);
            *output = "default punt policing of ports " + Describe(*rate);
        }
        return true;
    }
    if (w.size() >= 4 && w[1] == "port") {
        const auto found = platform::world::IfResolve(w[2]);
        if (!found) {
            *output = "no interface named or numbered " + w[2];
            return false;
        }
        const uint32_t ifIndex = found->ifIndex;
        const std::string port = found->name + " (" + std::to_string(ifIndex) + ")";
        if (w.size() == 4 && w[3] == "default") {
            plane.SetPortPolicing(ifIndex, std::nullopt);
            *output = "port " + port + " follows the default punt policing, " + Describe(plane.Policing().port);
            return true;
        }
        const auto rate = RateOf(w, 3, output);
        if (!rate) {
            return false;
        }
        plane.SetPortPolicing(ifIndex, *rate);
        *output = "port " + port + " punt policing " + Describe(*rate);
        return true;
    }
    *output = kUsage;
    return false;
}

}  // namespace host
