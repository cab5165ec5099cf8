// A builder of PPPoE discovery frames, so a caller states the frame it means:
//   Frame().vlan(100).qinq(200).padi().tag(0x0101, "").eol().bytes()
// and a reader of the tags of a frame that came back. The sample captures,
// the traffic tools, the benchmarks and the tests all build frames with it.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace frames {

using Bytes = std::vector<uint8_t>;
using Mac = std::array<uint8_t, 6>;

// The wire layout the builder writes and the reader reads, stated here on
// its own so that a frame built here does not take the module's word for it.
namespace wire {
// DpxPktHead: message type, egress and ingress ifIndex, host-order words.
inline constexpr size_t kDpxHeadLen = 12;
inline constexpr size_t kDpxEgressOff = 4;
inline constexpr size_t kDpxIngressOff = 8;
// Ethernet: destination and source MAC, then EtherType or TPID; a VLAN tag
// is a TPID and a TCI. An 802.3 frame has LLC (DSAP, SSAP, control) and
// SNAP (OUI, type) behind its length.
inline constexpr size_t kEthTypeOff = 12;
inline constexpr size_t kEthHeadLen = 14;
inline constexpr size_t kVlanTagLen = 4;
inline constexpr size_t kVlanTciOff = 2;
inline constexpr uint16_t kVlanIdMask = 0x0FFF;
inline constexpr size_t kLlcDsapOff = 14;
inline constexpr size_t kLlcSsapOff = 15;
inline constexpr size_t kLlcControlOff = 16;
inline constexpr size_t kSnapOuiOff = 17;
// PPPoE: version and type, code, session, length; tags of type, length and
// value; a Vendor-Specific value opens with the enterprise number, then
// sub-options of type, length and value.
inline constexpr uint16_t kEtherTypeDiscovery = 0x8863;
inline constexpr size_t kPppoeHeadLen = 6;
inline constexpr size_t kPppoeCodeOff = 1;
inline constexpr size_t kPppoeLengthOff = 4;
inline constexpr size_t kTagHeadLen = 4;
inline constexpr size_t kTagLenOff = 2;
inline constexpr uint16_t kTagVendorSpecific = 0x0105;
inline constexpr size_t kVendorIdLen = 4;
inline constexpr size_t kSubOptHeadLen = 2;
}  // namespace wire

inline constexpr Mac kBroadcast{0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
inline constexpr Mac kSubscriberMac{0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
inline constexpr Mac kServerMac{0x02, 0x00, 0x00, 0x00, 0x00, 0xaa};

inline void PutU16(Bytes &b, uint16_t v)
{
    b.push_back(static_cast<uint8_t>(v >> 8));
    b.push_back(static_cast<uint8_t>(v));
}

inline uint16_t GetU16(const Bytes &b, size_t off)
{
    return static_cast<uint16_t>(b.at(off) << 8 | b.at(off + 1));
}

class Frame {
public:
    Frame &dst(const Mac &m) { dst_ = m; return *this; }
    Frame &src(const Mac &m) { src_ = m; return *this; }
    // Outer tag with TPID 0x8100 (or the one given); a second call adds the inner tag.
    Frame &vlan(uint16_t vid, uint16_t tpid = 0x8100) { tags_.push_back({tpid, vid}); return *this; }
    Frame &qinq(uint16_t innerVid) { return vlan(innerVid, 0x8100); }
    Frame &code(uint8_t c) { code_ = c; return *this; }
    Frame &padi() { dst_ = kBroadcast; return code(0x09); }
    Frame &pado() { return code(0x07); }
    Frame &padr() { return code(0x19); }
    Frame &pads() { return code(0x65); }
    Frame &padt() { return code(0xA7); }
    Frame &verType(uint8_t v) { verType_ = v; return *this; }
    Frame &session(uint16_t s) { session_ = s; return *this; }
    Frame &tag(uint16_t type, std::string_view value) { return tag(type, Bytes(value.begin(), value.end())); }
    Frame &tag(uint16_t type, const Bytes &value)
    {
        PutU16(payload_, type);
        PutU16(payload_, static_cast<uint16_t>(value.size()));
        payload_.insert(payload_.end(), value.begin(), value.end());
        return *this;
    }
    Frame &serviceName(std::string_view name = "") { return tag(0x0101, name); }
    Frame &hostUniq(std::string_view v = "uniq") { return tag(0x0103, v); }
    Frame &eol() { return tag(0x0000, Bytes{}); }
    // A Vendor-Specific tag: enterprise number, then sub-options 1 and 2 when non-empty.
    Frame &vendor(uint32_t enterprise, std::string_view cid, std::string_view rid = "")
    {
        return tag(wire::kTagVendorSpecific, VendorValue(enterprise, cid, rid));
    }
    // Raw bytes behind the tags (not counted in the PPPoE length).
    Frame &trailer(const Bytes &b) { trailer_ = b; return *this; }
    // Announced PPPoE length instead of the real one.
    Frame &length(uint16_t len) { length_ = len; return *this; }

    static Bytes VendorValue(uint32_t enterprise, std::string_view cid, std::string_view rid)
    {
        Bytes v{static_cast<uint8_t>(enterprise >> 24), static_cast<uint8_t>(enterprise >> 16),
                static_cast<uint8_t>(enterprise >> 8), static_cast<uint8_t>(enterprise)};
        if (!cid.empty()) {
            v.push_back(1);
            v.push_back(static_cast<uint8_t>(cid.size()));
            v.insert(v.end(), cid.begin(), cid.end());
        }
        if (!rid.empty()) {
            v.push_back(2);
            v.push_back(static_cast<uint8_t>(rid.size()));
            v.insert(v.end(), rid.begin(), rid.end());
        }
        return v;
    }

    Bytes bytes() const
    {
        Bytes b(dst_.begin(), dst_.end());
        b.insert(b.end(), src_.begin(), src_.end());
        for (const auto &t : tags_) {
            PutU16(b, t.tpid);
            PutU16(b, t.vid);
        }
        PutU16(b, wire::kEtherTypeDiscovery);
        b.push_back(verType_);
        b.push_back(code_);
        PutU16(b, session_);
        PutU16(b, length_ ? *length_ : static_cast<uint16_t>(payload_.size()));
        b.insert(b.end(), payload_.begin(), payload_.end());
        b.insert(b.end(), trailer_.begin(), trailer_.end());
        return b;
    }

private:
    struct Tag {
        uint16_t tpid;
        uint16_t vid;
    };
    Mac dst_ = kServerMac;
    Mac src_ = kSubscriberMac;
    std::vector<Tag> tags_;
    uint8_t verType_ = 0x11;
    uint8_t code_ = 0x09;
    uint16_t session_ = 0;
    std::optional<uint16_t> length_;
    Bytes payload_;
    Bytes trailer_;
};

// A frame that is not PPPoE: IPv4-typed, 46 bytes of payload, behind a
// 0x8100 tag of the TCI given (priority, VID) or untagged (tci < 0).
inline Bytes PlainFrame(const Mac &dst, const Mac &src, int tci = -1)
{
    Bytes b(dst.begin(), dst.end());
    b.insert(b.end(), src.begin(), src.end());
    if (tci >= 0) {
        PutU16(b, 0x8100);
        PutU16(b, static_cast<uint16_t>(tci));
    }
    PutU16(b, 0x0800);
    b.resize(b.size() + 46, 0x5a);
    return b;
}

// A DpxPktHead (host byte order) followed by the frame: what the forwarding
// plane writes to the module's receive channel.
inline Bytes WithDpxHead(const Bytes &frame, uint32_t egr, uint32_t igr, uint32_t msgType = 0)
{
    Bytes b(wire::kDpxHeadLen);
    std::memcpy(b.data(), &msgType, sizeof(msgType));
    std::memcpy(b.data() + wire::kDpxEgressOff, &egr, sizeof(egr));
    std::memcpy(b.data() + wire::kDpxIngressOff, &igr, sizeof(igr));
    b.insert(b.end(), frame.begin(), frame.end());
    return b;
}

// The tags of a frame, read back.
struct ParsedTag {
    uint16_t type;
    Bytes value;
};

struct ParsedFrame {
    std::vector<uint16_t> vlans;
    uint8_t code = 0;
    uint16_t pppoeLength = 0;
    std::vector<ParsedTag> tags;

    const ParsedTag *find(uint16_t type) const
    {
        for (const auto &t : tags) {
            if (t.type == type) {
                return &t;
            }
        }
        return nullptr;
    }
    // Sub-option n (1 Circuit-ID, 2 Remote-ID) of the first Vendor-Specific tag, as text.
    std::optional<std::string> subOption(uint8_t n) const
    {
        const ParsedTag *vs = find(wire::kTagVendorSpecific);
        if (vs == nullptr || vs->value.size() < wire::kVendorIdLen) {
            return std::nullopt;
        }
        for (size_t i = wire::kVendorIdLen; i + wire::kSubOptHeadLen <= vs->value.size();) {
            const uint8_t type = vs->value[i];
            const uint8_t len = vs->value[i + 1];
            const auto value = vs->value.begin() + static_cast<long>(i + wire::kSubOptHeadLen);
            if (i + wire::kSubOptHeadLen + len > vs->value.size()) {
                return std::nullopt;
            }
            if (type == n) {
                return std::string(value, value + len);
            }
            i += wire::kSubOptHeadLen + len;
        }
        return std::nullopt;
    }
};

// Parses an Ethernet frame without DpxPktHead; nullopt when it is not PPPoE discovery.
inline std::optional<ParsedFrame> Parse(const Bytes &b)
{
    ParsedFrame f;
    size_t off = wire::kEthTypeOff;
    auto isTpid = [&b](size_t at) {
        const uint16_t tpid = GetU16(b, at);
        return tpid == 0x8100 || tpid == 0x9100 || tpid == 0x88a8;
    };
    while (off + wire::kVlanTagLen <= b.size() && isTpid(off)) {
        f.vlans.push_back(GetU16(b, off + wire::kVlanTciOff) & wire::kVlanIdMask);
        off += wire::kVlanTagLen;
    }
    constexpr size_t kEtherTypeLen = 2;
    if (off + kEtherTypeLen + wire::kPppoeHeadLen > b.size() || GetU16(b, off) != wire::kEtherTypeDiscovery) {
        return std::nullopt;
    }
    off += kEtherTypeLen;
    f.code = b[off + wire::kPppoeCodeOff];
    f.pppoeLength = GetU16(b, off + wire::kPppoeLengthOff);
    off += wire::kPppoeHeadLen;
    const size_t end = off + f.pppoeLength;
    while (off + wire::kTagHeadLen <= end && end <= b.size()) {
        ParsedTag t{GetU16(b, off), {}};
        const uint16_t len = GetU16(b, off + wire::kTagLenOff);
        if (off + wire::kTagHeadLen + len > end) {
            break;
        }
        const auto value = b.begin() + static_cast<long>(off + wire::kTagHeadLen);
        t.value.assign(value, value + len);
        f.tags.push_back(std::move(t));
        off += wire::kTagHeadLen + len;
    }
    return f;
}

}  // namespace frames
