// The forwarding plane's state as data of its YANG module
// (yang/quendal-forwarding-plane.yang), for the datastore to serve: the
// subscriber table, the punt policing in force and the per-port counters.
#include <time.h>

#include <map>
#include <sstream>

#include "device/fplane.hpp"
#include "platform/world.hpp"

namespace device::fplane {

namespace {

std::string Escaped(const std::string &text)
{
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        switch (c) {
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            default: out += c; break;
        }
    }
    return out;
}

std::string DateAndTime(std::chrono::system_clock::time_point at)
{
    const time_t t = std::chrono::system_clock::to_time_t(at);
    tm parts{};
    gmtime_r(&t, &parts);
    char text[sizeof "2026-01-01T00:00:00Z"] = {};
    strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

void Rate(std::ostringstream &out, const PuntRate &rate)
{
    out << "<rate>" << rate.rate << "</rate><burst>" << rate.burst << "</burst>";
}

}  // namespace

std::string MacText(const Mac &mac)
{
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < mac.size(); i++) {
        if (i != 0) {
            out += ':';
        }
        out += kHex[mac[i] >> 4];
        out += kHex[mac[i] & 0x0FU];
    }
    return out;
}

std::string StateXml(const ForwardingPlane &plane)
{
    std::map<uint32_t, std::string> names;
    for (const platform::IfRecord &r : platform::world::IfRecords()) {
        names.emplace(r.ifIndex, r.name);
    }
    const auto nameOf = [&names](uint32_t ifIndex) {
        const auto it = names.find(ifIndex);
        return it != names.end() ? it->second : std::to_string(ifIndex);
    };

    std::ostringstream out;
    out << "<forwarding-plane xmlns=\"" << kStateNamespace << "\">";
    const SubscriberTableStats stats = plane.SubscriberStats();
    out << "<subscribers><capacity>" << stats.capacity << "</capacity><entries>" << stats.entries
        << "</entries><evictions>" << stats.evictions << "</evictions><aged-out>" << stats.agedOut
        << "</aged-out><idle-timeout>" << stats.idleSeconds << "</idle-timeout>";
    for (const Subscriber &s : plane.Subscribers()) {
        out << "<subscriber><mac>" << MacText(s.mac) << "</mac><vlan>" << s.vlan << "</vlan><inner-vlan>"
            << s.innerVlan << "</inner-vlan><port>" << Escaped(nameOf(s.ifIndex)) << "</port><ifindex>"
            << s.ifIndex << "</ifindex>";
        if (s.acMac) {
            out << "<ac-mac>" << MacText(*s.acMac) << "</ac-mac>";
        }
        if (s.sessionId) {
            out << "<session-id>" << *s.sessionId << "</session-id>";
        }
        if (!s.circuitId.empty()) {
            out << "<circuit-id>" << Escaped(PrintableId(s.circuitId)) << "</circuit-id>";
        }
        if (!s.remoteId.empty()) {
            out << "<remote-id>" << Escaped(PrintableId(s.remoteId)) << "</remote-id>";
        }
        out << "<last-code>" << DiscoveryCodeName(s.lastCode) << "</last-code><started>" << DateAndTime(s.started)
            << "</started><last-seen>" << DateAndTime(s.lastSeen) << "</last-seen></subscriber>";
    }
    out << "</subscribers>";

    const PuntPolicing policing = plane.Policing();
    out << "<punt-policing><global>";
    Rate(out, policing.global);
    out << "</global><port-default>";
    Rate(out, policing.port);
    out << "</port-default></punt-policing>";

    for (const auto &[ifIndex, c] : plane.AllCounters()) {
        const auto own = policing.ports.find(ifIndex);
        out << "<port><name>" << Escaped(nameOf(ifIndex)) << "</name><ifindex>" << ifIndex << "</ifindex><rx>"
            << c.rx << "</rx><tx>" << c.tx << "</tx><punted>" << c.punted << "</punted><dropped>" << c.dropped
            << "</dropped><policed>" << c.policed << "</policed><punt-policing>";
        Rate(out, own != policing.ports.end() ? own->second : policing.port);
        out << "<own>" << (own != policing.ports.end() ? "true" : "false") << "</own></punt-policing></port>";
    }
    out << "</forwarding-plane>";
    return out.str();
}

}  // namespace device::fplane
