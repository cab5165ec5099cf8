// padi-storm: writes a capture of COUNT PADIs, each from its own source MAC
// (02:5a:00:xx:xx:xx), untagged as a subscriber line sends them, 1 ms apart.
// The soak replays it into subscriber ports again and again.
//
//   padi-storm FILE.pcap COUNT
#include <pcap/pcap.h>

#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>

#include "pppoe_frame.hpp"

int main(int argc, char **argv)
{
    unsigned count = 0;
    if (argc != 3 || std::from_chars(argv[2], argv[2] + std::strlen(argv[2]), count).ec != std::errc() ||
        count == 0 || count > 0xFFFFFFU) {
        std::fprintf(stderr, "usage: padi-storm FILE.pcap COUNT (1..16777215)\n");
        return 2;
    }
    pcap_t *dead = pcap_open_dead(DLT_EN10MB, 65535);
    pcap_dumper_t *dumper = dead != nullptr ? pcap_dump_open(dead, argv[1]) : nullptr;
    if (dumper == nullptr) {
        std::fprintf(stderr, "padi-storm: %s: %s\n", argv[1], dead != nullptr ? pcap_geterr(dead) : "no pcap");
        return 1;
    }
    constexpr long kStart = 1767225600;
    for (unsigned i = 0; i < count; i++) {
        const frames::Mac mac{0x02, 0x5a, 0x00, static_cast<uint8_t>(i >> 16), static_cast<uint8_t>(i >> 8),
                                  static_cast<uint8_t>(i)};
        const frames::Bytes frame =
            frames::Frame().src(mac).padi().serviceName().hostUniq("storm-" + std::to_string(i)).bytes();
        pcap_pkthdr hdr{};
        hdr.ts.tv_sec = kStart + static_cast<long>(i / 1000);
        hdr.ts.tv_usec = static_cast<long>(i % 1000) * 1000;
        hdr.caplen = static_cast<bpf_u_int32>(frame.size());
        hdr.len = hdr.caplen;
        pcap_dump(reinterpret_cast<u_char *>(dumper), &hdr, frame.data());
    }
    pcap_dump_close(dumper);
    pcap_close(dead);
    return 0;
}
