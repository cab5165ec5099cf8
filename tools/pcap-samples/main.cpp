// pcap-samples: writes the sample captures of the quick start.
//
//   subscribers.pcap        the subscriber on GigabitEthernet0/0/1 (untagged):
//                           PADI, later PADR
//   subscribers-port3.pcap  a second subscriber on GigabitEthernet0/0/3
//                           (untagged): PADI
//   servers.pcap            the access concentrator behind
//                           XGigabitEthernet0/0/1 (tagged, VLAN 100/101): a
//                           PADO for each subscriber and a PADS for the
//                           first, each after the request it answers and
//                           echoing the Vendor-Specific tag the agent
//                           inserted into that request
//
// Each file holds the frames of one port, so the host binds each to its
// port: --in GigabitEthernet0/0/1=subscribers.pcap ... and merges them by
// time. Usage: pcap-samples OUTPUT-FOLDER
#include <pcap/pcap.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "pppoe_frame.hpp"

namespace {

using frames::Bytes;
using frames::Frame;
using frames::Mac;

constexpr Mac kSubscriber1{0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
constexpr Mac kSubscriber2{0x02, 0x00, 0x00, 0x00, 0x00, 0x02};
constexpr Mac kServer{0x02, 0x00, 0x00, 0x00, 0x00, 0xaa};
constexpr uint32_t kEnterprise = 3561;
constexpr const char *kRemoteId = "00e0-fc12-3456";   // the example switch's MAC, common format
constexpr const char *kCircuitId1 = "eth 0/0/1:100.0 AccessSwitch-1/0/0/0/0/0";
constexpr const char *kCircuitId2 = "eth 0/0/3:101.0 AccessSwitch-1/0/0/0/0/0";
constexpr const char *kAcName = "BRAS-A";
const Bytes kCookie1{0x5c, 0x11, 0x7e, 0x01, 0x8a, 0x42, 0x03, 0x99};
const Bytes kCookie2{0x5c, 0x11, 0x7e, 0x02, 0x1b, 0x07, 0x64, 0x20};
constexpr uint16_t kAcNameTag = 0x0102;
constexpr uint16_t kAcCookieTag = 0x0104;

struct Timed {
    long sec;
    long usec;
    Bytes bytes;
};

bool Write(const std::string &path, const std::vector<Timed> &frames)
{
    pcap_t *dead = pcap_open_dead(DLT_EN10MB, 65535);
    if (dead == nullptr) {
        return false;
    }
    pcap_dumper_t *dumper = pcap_dump_open(dead, path.c_str());
    if (dumper == nullptr) {
        std::fprintf(stderr, "pcap-samples: %s: %s\n", path.c_str(), pcap_geterr(dead));
        pcap_close(dead);
        return false;
    }
    for (const Timed &f : frames) {
        pcap_pkthdr hdr{};
        hdr.ts.tv_sec = f.sec;
        hdr.ts.tv_usec = f.usec;
        hdr.caplen = static_cast<bpf_u_int32>(f.bytes.size());
        hdr.len = hdr.caplen;
        pcap_dump(reinterpret_cast<u_char *>(dumper), &hdr, f.bytes.data());
    }
    pcap_dump_close(dumper);
    pcap_close(dead);
    std::printf("pcap-samples: wrote %zu frame(s) to %s\n", frames.size(), path.c_str());
    return true;
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: pcap-samples OUTPUT-FOLDER\n");
        return 2;
    }
    const std::string dir = argv[1];
    constexpr long kStart = 1767225600;   // the captures' clock: seconds since the epoch

    const std::vector<Timed> subscribers{
        {kStart, 0, Frame().src(kSubscriber1).padi().serviceName().hostUniq("sub-1").bytes()},
        {kStart, 400000,
         Frame().src(kSubscriber1).dst(kServer).padr().serviceName().hostUniq("sub-1").tag(kAcCookieTag, kCookie1).bytes()},
    };
    const std::vector<Timed> subscribersPort3{
        {kStart, 100000, Frame().src(kSubscriber2).padi().serviceName().hostUniq("sub-2").bytes()},
    };
    const std::vector<Timed> servers{
        {kStart, 200000,
         Frame()
             .src(kServer)
             .dst(kSubscriber1)
             .vlan(100)
             .pado()
             .serviceName()
             .tag(kAcNameTag, kAcName)
             .hostUniq("sub-1")
             .tag(kAcCookieTag, kCookie1)
             .vendor(kEnterprise, kCircuitId1, kRemoteId)
             .bytes()},
        {kStart, 300000,
         Frame()
             .src(kServer)
             .dst(kSubscriber2)
             .vlan(101)
             .pado()
             .serviceName()
             .tag(kAcNameTag, kAcName)
             .hostUniq("sub-2")
             .tag(kAcCookieTag, kCookie2)
             .vendor(kEnterprise, kCircuitId2, kRemoteId)
             .bytes()},
        {kStart, 500000,
         Frame()
             .src(kServer)
             .dst(kSubscriber1)
             .vlan(100)
             .pads()
             .session(0x0001)
             .serviceName()
             .hostUniq("sub-1")
             .vendor(kEnterprise, kCircuitId1, kRemoteId)
             .bytes()},
    };
    const bool ok = Write(dir + "/subscribers.pcap", subscribers) &&
                    Write(dir + "/subscribers-port3.pcap", subscribersPort3) &&
                    Write(dir + "/servers.pcap", servers);
    return ok ? 0 : 1;
}
