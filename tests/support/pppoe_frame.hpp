// A builder of PPPoE discovery frames, so a test states the frame it means:
//   Frame().vlan(100).qinq(200).padi().tag(0x0101, "").eol().bytes()
// and a reader of the tags of a frame that came back.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pplus_test {

using Bytes = std::vector<uint8_t>;
using Mac = std::array<uint8_t, 6>;

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
        return tag(0x0105, VendorValue(enterprise, cid, rid));
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
        PutU16(b, 0x8863);
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
    Bytes b(12);
    std::memcpy(b.data(), &msgType, 4);
    std::memcpy(b.data() + 4, &egr, 4);
    std::memcpy(b.data() + 8, &igr, 4);
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
        const ParsedTag *vs = find(0x0105);
        if (vs == nullptr || vs->value.size() < 4) {
            return std::nullopt;
        }
        for (size_t i = 4; i + 2 <= vs->value.size();) {
            const uint8_t type = vs->value[i];
            const uint8_t len = vs->value[i + 1];
            if (i + 2 + len > vs->value.size()) {
                return std::nullopt;
            }
            if (type == n) {
                return std::string(vs->value.begin() + static_cast<long>(i) + 2,
                                   vs->value.begin() + static_cast<long>(i) + 2 + len);
            }
            i += 2U + len;
        }
        return std::nullopt;
    }
};

// Parses an Ethernet frame without DpxPktHead; nullopt when it is not PPPoE discovery.
inline std::optional<ParsedFrame> Parse(const Bytes &b)
{
    ParsedFrame f;
    size_t off = 12;
    while (off + 4 <= b.size() && (GetU16(b, off) == 0x8100 || GetU16(b, off) == 0x9100 || GetU16(b, off) == 0x88a8)) {
        f.vlans.push_back(GetU16(b, off + 2) & 0x0FFF);
        off += 4;
    }
    if (off + 8 > b.size() || GetU16(b, off) != 0x8863) {
        return std::nullopt;
    }
    off += 2;
    f.code = b[off + 1];
    f.pppoeLength = GetU16(b, off + 4);
    off += 6;
    const size_t end = off + f.pppoeLength;
    while (off + 4 <= end && end <= b.size()) {
        ParsedTag t{GetU16(b, off), {}};
        const uint16_t len = GetU16(b, off + 2);
        if (off + 4 + len > end) {
            break;
        }
        t.value.assign(b.begin() + static_cast<long>(off) + 4, b.begin() + static_cast<long>(off) + 4 + len);
        f.tags.push_back(std::move(t));
        off += 4U + len;
    }
    return f;
}

}  // namespace pplus_test
