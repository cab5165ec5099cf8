// Live ports: the switch's ports on Linux network interfaces. A real
// switch's ports are PHYs feeding the forwarding ASIC; ours are AF_PACKET
// sockets, one per bound netdev, each with a TPACKET_V3 receive ring and a
// stage of frames to send that one sendmmsg hands to the kernel. One thread
// per port hands received frames to the forwarding plane (VLAN tags that the
// kernel moved into the ring header put back) and sends what Transmit staged,
// unless the thread that staged the frames flushes its batch itself
// (TransmitBatch). A port's socket exists while its netdev is present and up: going
// down or away closes it (queued frames are dropped with it) and takes the
// port off board; back up, a fresh socket is bound and the port comes on
// board. Everything a port drops is counted in its stats. A test can make
// binding a socket fail ("device::fplane::LivePorts::Bind", the code an errno):
// at start that refuses the binding, later the port stays off board and
// its thread tries again every second.
#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include "device/live.hpp"
#include "platform/control.h"
#include "platform/fail_point.hpp"

namespace device::fplane {
namespace {

constexpr uint32_t kRxBlockSize = 1U << 18;        // 256 KiB: many small frames per hand-over
constexpr uint32_t kRxBlockCount = 16;             // 4 MiB of receive ring per port
constexpr uint32_t kRxFrameSize = 2048;            // ring geometry only: V3 packs frames of any length
constexpr uint32_t kRxBlockTimeoutMs = 1;          // a block holding frames is handed over after this
constexpr uint32_t kRxBlocksPerTurn = 4;           // blocks read before staged frames get a turn
constexpr size_t kTxStageBytes = size_t{1} << 18;  // 256 KiB of frames waiting for the next flush
constexpr size_t kTxStageFrames = 256;             // and at most this many (one sendmmsg)
// Where the kernel puts the frame's sockaddr_ll, inside a receive header.
constexpr size_t kRxAddrOffset = TPACKET_ALIGN(sizeof(tpacket3_hdr));
constexpr size_t kMacsLen = 12;                    // destination and source MAC
constexpr size_t kMaxFrameBuffer = 65536 + 2 * kVlanTagLen;
constexpr uint16_t kTpidDot1q = 0x8100;
constexpr int kRetryOpenMs = 1000;                 // a netdev that is up but could not be bound
constexpr int kRetryKickMs = 1;                    // the kernel had no room for a whole flush
constexpr size_t kThreadNameLen = 15;
constexpr const char *kBindOp = "device::fplane::LivePorts::Bind";

uint16_t U16(const uint8_t *p)
{
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

bool IsVlanTpid(uint16_t tpid)
{
    return tpid == 0x8100 || tpid == 0x88a8 || tpid == 0x9100;
}

bool CarriesTag(std::span<const uint8_t> frame)
{
    return frame.size() >= kEthHeaderLen && IsVlanTpid(U16(frame.data() + kMacsLen));
}

std::string Errno(int err)
{
    return std::strerror(err);
}

// The name the reports use for a port: its interface name and netdev.
std::string Label(uint32_t ifIndex, const std::string &netdev)
{
    const std::string name = PortName(ifIndex);
    return "port " + (name.empty() ? std::to_string(ifIndex) : name) + " (netdev " + netdev + ")";
}

// One AF_PACKET socket bound to a netdev, with its receive ring mapped
// and a stage of frames to send, which one sendmmsg hands to the kernel.
// (On veths, a transmit ring's frames are copied once more on their way to
// the peer: sending from a stage of our own costs the kernel less.)
class PacketSocket {
public:
    PacketSocket() = default;
    PacketSocket(const PacketSocket &) = delete;
    PacketSocket &operator=(const PacketSocket &) = delete;
    ~PacketSocket() { Close(); }

    // Binds to netdev kernelIndex with room for frames of mtu; false with *error.
    bool Open(int kernelIndex, uint32_t mtu, std::string *error)
    {
        Close();
        if (const auto failed = platform::FailPoint(kBindOp)) {
            errno = static_cast<int>(*failed);
            return Fail("cannot open a packet socket", error);
        }
        fd_ = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);   // protocol 0: nothing arrives before bind
        if (fd_ < 0) {
            return Fail("cannot open a packet socket", error);
        }
        const int version = TPACKET_V3;
        if (setsockopt(fd_, SOL_PACKET, PACKET_VERSION, &version, sizeof(version)) != 0) {
            return Fail("TPACKET_V3 is not available", error);
        }
        tpacket_req3 rx = {};
        rx.tp_block_size = kRxBlockSize;
        rx.tp_block_nr = kRxBlockCount;
        rx.tp_frame_size = kRxFrameSize;
        rx.tp_frame_nr = kRxBlockSize / kRxFrameSize * kRxBlockCount;
        rx.tp_retire_blk_tov = kRxBlockTimeoutMs;
        if (setsockopt(fd_, SOL_PACKET, PACKET_RX_RING, &rx, sizeof(rx)) != 0) {
            return Fail("cannot set up the receive ring", error);
        }
        mapLen_ = static_cast<size_t>(kRxBlockSize) * kRxBlockCount;
        void *map = mmap(nullptr, mapLen_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, fd_, 0);
        if (map == MAP_FAILED) {
            mapLen_ = 0;
            return Fail("cannot map the receive ring", error);
        }
        map_ = static_cast<uint8_t *>(map);
        try {
            txData_.resize(std::max(kTxStageBytes, MaxFrameLen(mtu, true)));
        } catch (const std::bad_alloc &) {
            errno = ENOMEM;
            return Fail("cannot make room for frames to send", error);
        }
        const int one = 1;
        // Sends go through the netdev's queueing discipline (no
        // PACKET_QDISC_BYPASS), so that captures on the netdev see them.
        ignoresOutgoing_ = setsockopt(fd_, SOL_PACKET, PACKET_IGNORE_OUTGOING, &one, sizeof(one)) == 0;
        sockaddr_ll addr = {};
        addr.sll_family = AF_PACKET;
        addr.sll_protocol = htons(ETH_P_ALL);
        addr.sll_ifindex = kernelIndex;
        if (bind(fd_, reinterpret_cast<const sockaddr *>(&addr), sizeof(addr)) != 0) {
            return Fail("cannot bind to the netdev", error);
        }
        packet_mreq promisc = {};
        promisc.mr_ifindex = kernelIndex;
        promisc.mr_type = PACKET_MR_PROMISC;
        if (setsockopt(fd_, SOL_PACKET, PACKET_ADD_MEMBERSHIP, &promisc, sizeof(promisc)) != 0) {
            return Fail("cannot make the netdev promiscuous", error);
        }
        kernelIndex_ = kernelIndex;
        ringMtu_ = mtu;
        return true;
    }

    void Close()
    {
        if (map_ != nullptr) {
            munmap(map_, mapLen_);
            map_ = nullptr;
        }
        if (fd_ >= 0) {
            close(fd_);
            fd_ = -1;
        }
        kernelIndex_ = 0;
        rxNext_ = 0;
        txCount_ = 0;
        txUsed_ = 0;
    }

    bool IsOpen() const { return fd_ >= 0; }
    int Fd() const { return fd_; }
    int KernelIndex() const { return kernelIndex_; }
    uint32_t RingMtu() const { return ringMtu_; }
    bool IgnoresOutgoing() const { return ignoresOutgoing_; }

    // The next receive block, when the kernel has handed it over.
    tpacket_block_desc *ReadyBlock()
    {
        auto *block = reinterpret_cast<tpacket_block_desc *>(map_ + static_cast<size_t>(rxNext_) * kRxBlockSize);
        if ((__atomic_load_n(&block->hdr.bh1.block_status, __ATOMIC_ACQUIRE) & TP_STATUS_USER) == 0) {
            return nullptr;
        }
        return block;
    }

    // Gives the block back to the kernel and moves to the next.
    void ReleaseBlock(tpacket_block_desc *block)
    {
        __atomic_store_n(&block->hdr.bh1.block_status, TP_STATUS_KERNEL, __ATOMIC_RELEASE);
        rxNext_ = (rxNext_ + 1) % kRxBlockCount;
    }

    // Copies frame onto the stage; false when the stage is full (Flush
    // makes room) or the frame could never fit.
    bool Queue(std::span<const uint8_t> frame)
    {
        if (txCount_ == kTxStageFrames || txUsed_ + frame.size() > txData_.size()) {
            return false;
        }
        uint8_t *at = txData_.data() + txUsed_;
        std::memcpy(at, frame.data(), frame.size());
        txIov_[txCount_] = iovec{at, frame.size()};
        txMsgs_[txCount_] = mmsghdr{};
        txMsgs_[txCount_].msg_hdr.msg_iov = &txIov_[txCount_];
        txMsgs_[txCount_].msg_hdr.msg_iovlen = 1;
        txCount_++;
        txUsed_ += frame.size();
        return true;
    }

    // Hands the staged frames to the kernel; 0, or EAGAIN or ENOBUFS when
    // it took only some (the rest stay staged). A frame the kernel refuses
    // for any other reason is dropped and counted (TakeRefused).
    int Flush()
    {
        size_t sent = 0;
        int err = 0;
        while (sent < txCount_) {
            const int n = sendmmsg(fd_, &txMsgs_[sent], static_cast<unsigned>(txCount_ - sent), MSG_DONTWAIT);
            if (n > 0) {
                sent += static_cast<size_t>(n);
                continue;
            }
            err = errno;
            if (err == EINTR) {
                continue;
            }
            if (err == EAGAIN || err == ENOBUFS) {
                break;
            }
            refused_++;
            sent++;
            err = 0;
        }
        KeepUnsent(sent);
        return err;
    }

    // Frames the kernel refused since the last call.
    uint64_t TakeRefused() { return std::exchange(refused_, 0); }

    // Frames the kernel dropped for want of receive ring since the last call.
    uint64_t TakeRingDrops() const
    {
        tpacket_stats_v3 stats = {};
        socklen_t len = sizeof(stats);
        if (fd_ < 0 || getsockopt(fd_, SOL_PACKET, PACKET_STATISTICS, &stats, &len) != 0) {
            return 0;
        }
        return stats.tp_drops;
    }

private:
    // Moves the frames from index sent on to the front of the stage.
    void KeepUnsent(size_t sent)
    {
        if (sent == txCount_) {
            txCount_ = 0;
            txUsed_ = 0;
            return;
        }
        const auto *from = static_cast<const uint8_t *>(txIov_[sent].iov_base);
        const size_t shift = static_cast<size_t>(from - txData_.data());
        std::memmove(txData_.data(), from, txUsed_ - shift);
        for (size_t i = sent; i < txCount_; i++) {
            txIov_[i - sent] = iovec{static_cast<uint8_t *>(txIov_[i].iov_base) - shift, txIov_[i].iov_len};
            txMsgs_[i - sent] = mmsghdr{};
            txMsgs_[i - sent].msg_hdr.msg_iov = &txIov_[i - sent];
            txMsgs_[i - sent].msg_hdr.msg_iovlen = 1;
        }
        txCount_ -= sent;
        txUsed_ -= shift;
    }

    bool Fail(const char *what, std::string *error)
    {
        const int err = errno;
        *error = std::string(what) + ": " + Errno(err);
        if (err == EPERM || err == EACCES) {
            *error += " (packet sockets need CAP_NET_RAW: run as root)";
        }
        Close();
        errno = err;
        return false;
    }

    int fd_ = -1;
    uint8_t *map_ = nullptr;
    size_t mapLen_ = 0;
    uint32_t rxNext_ = 0;
    std::vector<uint8_t> txData_;                 // the staged frames, back to back
    std::array<iovec, kTxStageFrames> txIov_{};
    std::array<mmsghdr, kTxStageFrames> txMsgs_{};
    size_t txCount_ = 0;
    size_t txUsed_ = 0;
    uint64_t refused_ = 0;
    int kernelIndex_ = 0;
    uint32_t ringMtu_ = 0;
    bool ignoresOutgoing_ = false;
};

}  // namespace

bool ValidNetdevName(const std::string &name)
{
    if (name.empty() || name.size() >= IFNAMSIZ || name == "." || name == "..") {
        return false;
    }
    return std::none_of(name.begin(), name.end(), [](char c) {
        return c == '/' || c == ':' || c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\0';
    });
}

// One bound port. The link fields are written by the watcher's thread and
// read by the port's thread; the socket belongs to the port's thread, and
// txMu guards its stage of frames to send against Transmit on other
// threads (and the socket's replacement).
struct LivePorts::Port {
    uint32_t ifIndex = kNoPort;
    std::string netdev;

    // The netdev as the watcher last saw it (0: absent).
    std::atomic<int> kernelIndex{0};
    std::atomic<bool> linkUp{false};
    std::atomic<uint32_t> mtu{0};
    // Whether the port is on board: its socket is bound and the link is up.
    std::atomic<bool> onBoard{false};

    std::mutex txMu;
    PacketSocket socket;                 // guarded by txMu for writers other than the port's thread
    std::atomic<bool> flushPending{false};
    int wakeFd = -1;
    std::atomic<bool> stop{false};
    std::thread thread;
    std::vector<uint8_t> frameBuffer;    // a received frame with its tag put back
    bool reported = false;               // the on-board state last reported (port's thread)
    std::string bindError;               // the last bind failure reported (port's thread)
    int epoll = -1;

    std::atomic<uint64_t> rx{0};
    std::atomic<uint64_t> tx{0};
    std::atomic<uint64_t> rxOversize{0};
    std::atomic<uint64_t> txOversize{0};
    std::atomic<uint64_t> txDropped{0};
    std::atomic<uint64_t> rxRingDrops{0};

    using Receiver = LivePorts::Receiver;
    using LinkHandler = LivePorts::LinkHandler;
    using Reporter = LivePorts::Reporter;

    void Wake() const { (void)eventfd_write(wakeFd, 1); }

    void Send(std::span<const uint8_t> frame)
    {
        if (frame.size() > MaxFrameLen(mtu.load(std::memory_order_relaxed), CarriesTag(frame))) {
            txOversize.fetch_add(1, std::memory_order_relaxed);
            return;
        }
        bool queued = false;
        {
            std::lock_guard lock(txMu);
            if (onBoard.load(std::memory_order_relaxed) && socket.IsOpen()) {
                // A full stage while the port's thread is kept from flushing
                // it: this thread flushes, then tries once more.
                queued = socket.Queue(frame) || (FlushLocked() == 0 && socket.Queue(frame));
            }
        }
        if (!queued) {
            txDropped.fetch_add(1, std::memory_order_relaxed);
            return;
        }
        tx.fetch_add(1, std::memory_order_relaxed);
        if (TransmitBatch *batch = TransmitBatch::Current(); batch != nullptr && batch->Defer(&FlushOwed, this)) {
            return;
        }
        if (!flushPending.exchange(true)) {
            Wake();
        }
    }

    // Sends what is staged; under txMu.
    int FlushLocked()
    {
        const int err = socket.Flush();
        if (const uint64_t refused = socket.TakeRefused(); refused != 0) {
            txDropped.fetch_add(refused, std::memory_order_relaxed);
        }
        return err;
    }

    // A batch's flush, on the thread that queued: the kernel sends what the
    // stage holds; when it has no room now, the port's thread tries again.
    static void FlushOwed(void *arg)
    {
        auto *port = static_cast<Port *>(arg);
        int err = 0;
        {
            std::lock_guard lock(port->txMu);
            if (port->socket.IsOpen()) {
                err = port->FlushLocked();
            }
        }
        if ((err == EAGAIN || err == ENOBUFS) && !port->flushPending.exchange(true)) {
            port->Wake();
        }
    }

    // One received frame: dropped when it is longer than the MTU allows or
    // was cut short by the ring, else handed on with its tag put back.
    void Deliver(const tpacket3_hdr *hdr, const Receiver &receiver)
    {
        const auto *base = reinterpret_cast<const uint8_t *>(hdr);
        if (!socket.IgnoresOutgoing() &&
            reinterpret_cast<const sockaddr_ll *>(base + kRxAddrOffset)->sll_pkttype == PACKET_OUTGOING) {
            return;
        }
        const uint8_t *data = base + hdr->tp_mac;
        const std::span<const uint8_t> wire(data, hdr->tp_snaplen);
        const bool tagInHeader = (hdr->tp_status & TP_STATUS_VLAN_VALID) != 0;
        const size_t len = wire.size() + (tagInHeader ? kVlanTagLen : 0);
        if (hdr->tp_snaplen != hdr->tp_len ||
            len > MaxFrameLen(mtu.load(std::memory_order_relaxed), tagInHeader || CarriesTag(wire))) {
            rxOversize.fetch_add(1, std::memory_order_relaxed);
            return;
        }
        rx.fetch_add(1, std::memory_order_relaxed);
        if (!tagInHeader || wire.size() < kMacsLen) {
            receiver(ifIndex, wire);
            return;
        }
        const uint16_t tpid =
            (hdr->tp_status & TP_STATUS_VLAN_TPID_VALID) != 0 ? hdr->hv1.tp_vlan_tpid : kTpidDot1q;
        const auto tci = static_cast<uint16_t>(hdr->hv1.tp_vlan_tci);
        uint8_t *out = frameBuffer.data();
        std::memcpy(out, data, kMacsLen);
        out[kMacsLen] = static_cast<uint8_t>(tpid >> 8);
        out[kMacsLen + 1] = static_cast<uint8_t>(tpid & 0xFFU);
        out[kMacsLen + 2] = static_cast<uint8_t>(tci >> 8);
        out[kMacsLen + 3] = static_cast<uint8_t>(tci & 0xFFU);
        std::memcpy(out + kMacsLen + kVlanTagLen, data + kMacsLen, wire.size() - kMacsLen);
        receiver(ifIndex, std::span<const uint8_t>(out, len));
    }

    void DrainReceiveRing(const Receiver &receiver)
    {
        for (uint32_t n = 0; n < kRxBlocksPerTurn && socket.IsOpen(); n++) {
            tpacket_block_desc *block = socket.ReadyBlock();
            if (block == nullptr) {
                return;
            }
            const auto *hdr = reinterpret_cast<const tpacket3_hdr *>(reinterpret_cast<const uint8_t *>(block) +
                                                                     block->hdr.bh1.offset_to_first_pkt);
            for (uint32_t i = 0; i < block->hdr.bh1.num_pkts; i++) {
                Deliver(hdr, receiver);
                hdr = reinterpret_cast<const tpacket3_hdr *>(reinterpret_cast<const uint8_t *>(hdr) +
                                                             hdr->tp_next_offset);
            }
            socket.ReleaseBlock(block);
        }
    }

    // The port's thread: binds the socket while the link is up, reports
    // the port on and off board, reads the receive ring and flushes the
    // staged frames, until stop.
    void Run(const Receiver &receiver, const LinkHandler &onLink, const Reporter &report)
    {
        epoll = epoll_create1(EPOLL_CLOEXEC);
        Watch(wakeFd, true);
        if (socket.IsOpen()) {   // bound by Open
            Watch(socket.Fd(), true);
        }
        bool flushAgain = false;
        while (!stop.load()) {
            FollowLink(report);
            if (const bool on = onBoard.load(); on != reported) {
                reported = on;
                if (report) {
                    report(Label(ifIndex, netdev) + (on ? ": link up, on board" : ": link down or gone, off board"));
                }
                if (onLink) {
                    onLink(ifIndex, on);
                }
            }
            {
                // What the received frames made other ports queue leaves at the end.
                const TransmitBatch batch;
                DrainReceiveRing(receiver);
            }
            if (flushPending.exchange(false) || flushAgain) {
                int err = 0;
                {
                    std::lock_guard lock(txMu);
                    err = socket.IsOpen() ? FlushLocked() : 0;
                }
                flushAgain = err == EAGAIN || err == ENOBUFS;
            }
            int timeout = -1;
            if (flushAgain) {
                timeout = kRetryKickMs;
            } else if (!socket.IsOpen() && linkUp.load() && kernelIndex.load() != 0) {
                timeout = kRetryOpenMs;
            }
            Wait(timeout);
        }
        std::lock_guard lock(txMu);
        CloseSocket();
        close(epoll);
    }

    // Closes a socket bound to what the link no longer is, and binds one
    // when the link is up without it.
    void FollowLink(const Reporter &report)
    {
        const int want = linkUp.load() ? kernelIndex.load() : 0;
        const uint32_t linkMtu = mtu.load();
        std::lock_guard lock(txMu);
        if (socket.IsOpen() && (socket.KernelIndex() != want || linkMtu > socket.RingMtu())) {
            CloseSocket();
        }
        if (socket.IsOpen() || want == 0) {
            bindError.clear();
            return;
        }
        std::string why;
        if (!socket.Open(want, linkMtu, &why)) {
            if (why != bindError && report) {
                report(Label(ifIndex, netdev) + ": cannot bind: " + why);
            }
            bindError = why;
            return;
        }
        bindError.clear();
        Watch(socket.Fd(), true);
        onBoard = true;
    }

    // Under txMu.
    void CloseSocket()
    {
        if (!socket.IsOpen()) {
            return;
        }
        Watch(socket.Fd(), false);
        rxRingDrops += socket.TakeRingDrops();
        socket.Close();
        onBoard = false;
    }

    void Watch(int fd, bool add) const
    {
        epoll_event ev = {};
        ev.events = EPOLLIN;
        ev.data.fd = fd;
        (void)epoll_ctl(epoll, add ? EPOLL_CTL_ADD : EPOLL_CTL_DEL, fd, &ev);
    }

    void Wait(int timeoutMs)
    {
        epoll_event events[2];
        const int n = epoll_wait(epoll, events, 2, timeoutMs);
        for (int i = 0; i < n; i++) {
            if (events[i].data.fd == wakeFd) {
                eventfd_t ignored = 0;
                (void)eventfd_read(wakeFd, &ignored);
            } else if ((events[i].events & EPOLLERR) != 0) {
                // The netdev went down under the socket: clear the error; the
                // watcher's report decides what happens next.
                int err = 0;
                socklen_t len = sizeof(err);
                (void)getsockopt(socket.Fd(), SOL_SOCKET, SO_ERROR, &err, &len);
            }
        }
    }
};

LivePorts::LivePorts(Reporter report) : report_(std::move(report)) {}

LivePorts::~LivePorts()
{
    Stop();
    for (const auto &port : ports_) {
        if (port->wakeFd >= 0) {
            close(port->wakeFd);
        }
    }
}

LivePorts::Port *LivePorts::Find(uint32_t ifIndex) const
{
    for (const auto &port : ports_) {
        if (port->ifIndex == ifIndex) {
            return port.get();
        }
    }
    return nullptr;
}

bool LivePorts::Owns(uint32_t ifIndex) const
{
    return Find(ifIndex) != nullptr;
}

bool LivePorts::IsUp(uint32_t ifIndex) const
{
    const Port *port = Find(ifIndex);
    return port != nullptr && port->onBoard.load();
}

bool LivePorts::Open(const std::vector<NetdevBinding> &bindings, std::string *error)
{
    if (std::exchange(opened_, true)) {
        *error = "the live ports are already open";
        return false;
    }
    std::map<std::string, uint32_t> byNetdev;
    for (const NetdevBinding &b : bindings) {
        if (!ValidNetdevName(b.netdev)) {
            *error = Label(b.ifIndex, b.netdev) + ": not a Linux interface name (1 to 15 characters, no '/', ':' "
                                                  "or blanks)";
            return false;
        }
        if (const auto [it, fresh] = byNetdev.emplace(b.netdev, b.ifIndex); !fresh) {
            *error = "netdev " + b.netdev + " is bound to two ports: " + Label(it->second, b.netdev) + " and " +
                     Label(b.ifIndex, b.netdev);
            return false;
        }
        if (Find(b.ifIndex) != nullptr) {
            *error = Label(b.ifIndex, b.netdev) + ": the port is bound twice";
            return false;
        }
        auto port = std::make_unique<Port>();
        port->ifIndex = b.ifIndex;
        port->netdev = b.netdev;
        port->frameBuffer.resize(kMaxFrameBuffer);
        port->wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (port->wakeFd < 0) {
            *error = "cannot create an eventfd: " + Errno(errno);
            return false;
        }
        ports_.push_back(std::move(port));
    }
    if (ports_.empty()) {
        return true;
    }
    // Permission first: one clear refusal instead of one per netdev.
    if (const int probe = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0); probe < 0) {
        const int err = errno;
        *error = "cannot open a packet socket for " + Label(ports_.front()->ifIndex, ports_.front()->netdev) +
                 ": " + Errno(err);
        if (err == EPERM || err == EACCES) {
            *error += " (packet sockets need CAP_NET_RAW: run pppoe-plus-switch as root)";
        }
        return false;
    } else {
        close(probe);
    }
    if (!watcher_.Open(error)) {
        return false;
    }
    const std::vector<LinkInfo> links = watcher_.Links();
    for (const auto &port : ports_) {
        const auto link = std::find_if(links.begin(), links.end(),
                                       [&](const LinkInfo &l) { return l.name == port->netdev; });
        if (link == links.end()) {
            const std::vector<std::string> elsewhere = NamespacesHolding(port->netdev);
            if (!elsewhere.empty()) {
                *error = Label(port->ifIndex, port->netdev) + ": the netdev is in network namespace " +
                         elsewhere.front() + ", not in this one (run the switch there: ip netns exec " +
                         elsewhere.front() + " ...)";
                return false;
            }
            if (report_) {
                report_("warning: " + Label(port->ifIndex, port->netdev) +
                        ": no such netdev; the port starts off board and comes on board when it appears");
            }
            continue;
        }
        port->kernelIndex = link->kernelIndex;
        port->mtu = link->mtu;
        port->linkUp = link->up;
        if (!link->up) {
            if (report_) {
                report_(Label(port->ifIndex, port->netdev) + ": link down; the port starts off board");
            }
            continue;
        }
        std::string why;
        if (!port->socket.Open(link->kernelIndex, link->mtu, &why)) {
            *error = Label(port->ifIndex, port->netdev) + ": " + why;
            return false;
        }
        port->onBoard = true;
        port->reported = true;
    }
    return true;
}

bool LivePorts::Start(Receiver receiver, LinkHandler onLink, std::string *error)
{
    if (ports_.empty()) {
        return true;
    }
    receiver_ = std::move(receiver);
    onLink_ = std::move(onLink);
    for (const auto &p : ports_) {
        p->thread = std::thread([this, port = p.get()]() {
            // "port:<netdev>", as long as a thread name may be.
            (void)pthread_setname_np(pthread_self(), ("port:" + port->netdev).substr(0, kThreadNameLen).c_str());
            port->Run(receiver_, onLink_, report_);
        });
    }
    if (!watcher_.Start([this](const LinkInfo &link) { OnLink(link); }, error)) {
        Stop();
        return false;
    }
    return true;
}

// A link changed: the ports bound to it (by name, or by the kernel index
// they were bound to when the netdev was renamed or removed) learn its state
// and their threads rebind.
void LivePorts::OnLink(const LinkInfo &link)
{
    for (const auto &port : ports_) {
        const bool named = !link.removed && link.name == port->netdev;
        const bool was = port->kernelIndex.load() == link.kernelIndex;
        if (named) {
            port->mtu = link.mtu;
            port->kernelIndex = link.kernelIndex;
            port->linkUp = link.up;
        } else if (was) {
            port->linkUp = false;
            port->kernelIndex = 0;
        } else {
            continue;
        }
        port->Wake();
    }
}

void LivePorts::Stop()
{
    watcher_.Stop();
    for (const auto &port : ports_) {
        if (port->thread.joinable()) {
            port->stop = true;
            port->Wake();
            port->thread.join();
        }
    }
}

void LivePorts::Transmit(uint32_t ifIndex, std::span<const uint8_t> frame)
{
    if (Port *port = Find(ifIndex)) {
        port->Send(frame);
    }
}

std::vector<LivePortStats> LivePorts::Stats() const
{
    std::vector<LivePortStats> out;
    for (const auto &port : ports_) {
        LivePortStats s;
        s.ifIndex = port->ifIndex;
        s.netdev = port->netdev;
        s.up = port->onBoard.load();
        s.mtu = port->mtu.load();
        s.rx = port->rx.load();
        s.tx = port->tx.load();
        s.rxOversize = port->rxOversize.load();
        s.txOversize = port->txOversize.load();
        s.txDropped = port->txDropped.load();
        {
            std::lock_guard lock(port->txMu);
            port->rxRingDrops += port->socket.TakeRingDrops();
        }
        s.rxRingDrops = port->rxRingDrops.load();
        out.push_back(std::move(s));
    }
    return out;
}

}  // namespace device::fplane
