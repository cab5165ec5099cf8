// Port backends of the forwarding plane. A real switch's ports are wires;
// ours are in-memory queues (tests inject with ForwardingPlane::Receive and
// take what left a port), and pcap files: recorded traffic replayed into
// ports, and captures of what left them, readable by any packet analyser.
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "device/fplane.hpp"

namespace device::fplane {

// ---- In memory ----

void MemoryPorts::Transmit(uint32_t ifIndex, std::span<const uint8_t> frame)
{
    {
        std::lock_guard lock(mu_);
        out_[ifIndex].emplace_back(frame.begin(), frame.end());
    }
    cv_.notify_all();
}

std::optional<Frame> MemoryPorts::Take(uint32_t ifIndex, std::chrono::milliseconds timeout)
{
    std::unique_lock lock(mu_);
    if (!cv_.wait_for(lock, timeout, [&]() { return !out_[ifIndex].empty(); })) {
        return std::nullopt;
    }
    Frame f = std::move(out_[ifIndex].front());
    out_[ifIndex].pop_front();
    return f;
}

size_t MemoryPorts::Pending(uint32_t ifIndex) const
{
    std::lock_guard lock(mu_);
    const auto it = out_.find(ifIndex);
    return it == out_.end() ? 0 : it->second.size();
}

// ---- pcap replay ----

bool PcapReplay::Add(uint32_t ifIndex, const std::string &path, std::string *error)
{
    std::array<char, PCAP_ERRBUF_SIZE> errbuf{};
    pcap_t *p = pcap_open_offline(path.c_str(), errbuf.data());
    if (p == nullptr) {
        *error = path + ": cannot read: " + errbuf.data();
        return false;
    }
    if (pcap_datalink(p) != DLT_EN10MB) {
        const char *name = pcap_datalink_val_to_name(pcap_datalink(p));
        *error = path + ": link type " + (name != nullptr ? name : std::to_string(pcap_datalink(p))) +
                 " is not Ethernet (EN10MB)";
        pcap_close(p);
        return false;
    }
    std::vector<Entry> read;
    pcap_pkthdr *hdr = nullptr;
    const u_char *data = nullptr;
    int rc = 0;
    while ((rc = pcap_next_ex(p, &hdr, &data)) == 1) {
        Entry e;
        e.frame.ifIndex = ifIndex;
        e.frame.ts = hdr->ts;
        e.frame.bytes.assign(data, data + hdr->caplen);
        e.file = files_;
        e.index = read.size();
        read.push_back(std::move(e));
    }
    if (rc == PCAP_ERROR) {
        *error = path + ": " + pcap_geterr(p);
        pcap_close(p);
        return false;
    }
    pcap_close(p);
    files_++;
    frames_.insert(frames_.end(), std::make_move_iterator(read.begin()), std::make_move_iterator(read.end()));
    return true;
}

std::vector<ReplayFrame> PcapReplay::Merged() const
{
    std::vector<const Entry *> order;
    order.reserve(frames_.size());
    for (const Entry &e : frames_) {
        order.push_back(&e);
    }
    std::stable_sort(order.begin(), order.end(), [](const Entry *a, const Entry *b) {
        if (a->frame.ts.tv_sec != b->frame.ts.tv_sec) {
            return a->frame.ts.tv_sec < b->frame.ts.tv_sec;
        }
        if (a->frame.ts.tv_usec != b->frame.ts.tv_usec) {
            return a->frame.ts.tv_usec < b->frame.ts.tv_usec;
        }
        return a->file != b->file ? a->file < b->file : a->index < b->index;
    });
    std::vector<ReplayFrame> out;
    out.reserve(order.size());
    for (const Entry *e : order) {
        out.push_back(e->frame);
    }
    return out;
}

void PcapReplay::Run(const std::function<void(const ReplayFrame &)> &deliver) const
{
    for (const ReplayFrame &f : Merged()) {
        deliver(f);
    }
}

// ---- pcap capture ----

PcapCapture::~PcapCapture()
{
    Close();
}

bool PcapCapture::Open(uint32_t ifIndex, const std::string &path, std::string *error)
{
    Sink sink;
    sink.path = path;
    sink.dead = pcap_open_dead(DLT_EN10MB, 65535);
    if (sink.dead == nullptr) {
        *error = path + ": cannot set up a capture";
        return false;
    }
    sink.dumper = pcap_dump_open(sink.dead, path.c_str());
    if (sink.dumper == nullptr) {
        *error = path + ": cannot create: " + pcap_geterr(sink.dead);
        pcap_close(sink.dead);
        return false;
    }
    sinks_[ifIndex] = sink;
    return true;
}

bool PcapCapture::Bind(uint32_t ifIndex, const std::string &path, std::string *error)
{
    std::lock_guard lock(mu_);
    if (sinks_.contains(ifIndex)) {
        *error = path + ": port " + std::to_string(ifIndex) + " already has a capture file (" +
                 sinks_[ifIndex].path + ")";
        return false;
    }
    return Open(ifIndex, path, error);
}

bool PcapCapture::SetFolder(const std::string &folder, std::string *error)
{
    std::error_code ec;
    if (!std::filesystem::is_directory(folder, ec)) {
        *error = folder + ": not a folder";
        return false;
    }
    std::lock_guard lock(mu_);
    folder_ = folder;
    return true;
}

void PcapCapture::Transmit(uint32_t ifIndex, std::span<const uint8_t> frame)
{
    // The port's name is read before taking the lock: the world model has a
    // lock of its own.
    std::string name;
    {
        std::lock_guard lock(mu_);
        if (closed_ || (!sinks_.contains(ifIndex) && folder_.empty())) {
            return;
        }
        if (!sinks_.contains(ifIndex)) {
            name = PortName(ifIndex);
        }
    }
    std::lock_guard lock(mu_);
    if (closed_) {
        return;
    }
    auto it = sinks_.find(ifIndex);
    if (it == sinks_.end()) {
        std::string file = name.empty() ? std::to_string(ifIndex) : name;
        std::replace(file.begin(), file.end(), '/', '_');
        std::string error;
        if (!Open(ifIndex, (std::filesystem::path(folder_) / (file + ".pcap")).string(), &error)) {
            errors_.push_back(error);
            folder_.clear();   // one report is enough; the folder is unusable
            return;
        }
        it = sinks_.find(ifIndex);
    }
    pcap_pkthdr hdr{};
    gettimeofday(&hdr.ts, nullptr);
    hdr.caplen = static_cast<bpf_u_int32>(frame.size());
    hdr.len = hdr.caplen;
    pcap_dump(reinterpret_cast<u_char *>(it->second.dumper), &hdr, frame.data());
    it->second.frames++;
}

void PcapCapture::Close()
{
    std::lock_guard lock(mu_);
    if (closed_) {
        return;
    }
    closed_ = true;
    for (auto &[ifIndex, sink] : sinks_) {
        pcap_dump_close(sink.dumper);
        pcap_close(sink.dead);
        sink.dumper = nullptr;
        sink.dead = nullptr;
    }
}

std::map<uint32_t, std::pair<std::string, uint64_t>> PcapCapture::Files() const
{
    std::lock_guard lock(mu_);
    std::map<uint32_t, std::pair<std::string, uint64_t>> out;
    for (const auto &[ifIndex, sink] : sinks_) {
        out[ifIndex] = {sink.path, sink.frames};
    }
    return out;
}

std::vector<std::string> PcapCapture::Errors() const
{
    std::lock_guard lock(mu_);
    return errors_;
}

}  // namespace device::fplane
