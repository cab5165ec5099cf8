// Writes a capture file of frames, each stamped with its time, as a test's
// input for a port.
#pragma once

#include <pcap/pcap.h>

#include <string>
#include <utility>
#include <vector>

#include "pppoe_frame.hpp"

namespace pplus_test {

using StampedFrames = std::vector<std::pair<timeval, frames::Bytes>>;

// False when the file cannot be created.
inline bool WriteCapture(const std::string &path, const StampedFrames &frames, int linkType = DLT_EN10MB)
{
    pcap_t *dead = pcap_open_dead(linkType, 65535);
    pcap_dumper_t *dumper = pcap_dump_open(dead, path.c_str());
    if (dumper == nullptr) {
        pcap_close(dead);
        return false;
    }
    for (const auto &[ts, bytes] : frames) {
        pcap_pkthdr h{};
        h.ts = ts;
        h.caplen = h.len = static_cast<bpf_u_int32>(bytes.size());
        pcap_dump(reinterpret_cast<u_char *>(dumper), &h, bytes.data());
    }
    pcap_dump_close(dumper);
    pcap_close(dead);
    return true;
}

}  // namespace pplus_test
