// Live ports on a veth pair in a network namespace of the test's own: frames
// cross as they were sent (VLAN tags the kernel moved into the ring header put
// back), frames longer than the MTU allows are dropped and counted in both
// directions, link changes take ports off and on board (a netdev deleted and
// created again is bound again), and bad bindings are refused with a reason.
// Needs root: each test skips with the reason otherwise.
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <mutex>

#include "device/live.hpp"
#include "platform/control.h"
#include "pplus_test.hpp"
#include "pppoe_frame.hpp"

namespace {

using device::fplane::LivePorts;
using device::fplane::NetdevBinding;
using frames::Bytes;

constexpr uint32_t kPortA = 1;
constexpr uint32_t kPortB = 2;
constexpr uint16_t kTestEtherType = 0x88b5;  // local experimental: nothing else on the wire uses it
constexpr uint32_t kWaitMs = 10000;
constexpr const char *kBindOp = "device::fplane::LivePorts::Bind";

bool Sh(const std::string &command)
{
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

// A frame of len bytes behind the given tags (TPID, TCI), of the test's ether type.
Bytes TestFrame(size_t len, std::initializer_list<std::pair<uint16_t, uint16_t>> tags = {}, uint8_t fill = 0x5a)
{
    Bytes b = {0x02, 0, 0, 0, 0, 0x0b, 0x02, 0, 0, 0, 0, 0x0a};
    for (const auto &[tpid, tci] : tags) {
        frames::PutU16(b, tpid);
        frames::PutU16(b, tci);
    }
    frames::PutU16(b, kTestEtherType);
    b.resize(len, fill);
    return b;
}

// Whether f is of the test's ether type, behind any tags.
bool IsTestFrame(const Bytes &f)
{
    size_t off = frames::wire::kEthTypeOff;
    while (off + 2 <= f.size() && frames::GetU16(f, off) != kTestEtherType) {
        off += frames::wire::kVlanTagLen;
    }
    return off + 2 <= f.size();
}

class LivePortsTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (geteuid() != 0) {
            GTEST_SKIP() << "live ports need root (packet sockets, network namespaces)";
        }
        if (unshare(CLONE_NEWNET) != 0) {
            GTEST_SKIP() << "cannot create a network namespace: " << std::strerror(errno);
        }
        // No IPv6 chatter of the kernel's own on the veths.
        std::ofstream("/proc/sys/net/ipv6/conf/default/disable_ipv6") << "1";
        ASSERT_TRUE(Sh("ip link add lva type veth peer name lvb")) << "cannot create a veth pair";
        ASSERT_TRUE(Sh("ip link set lva up && ip link set lvb mtu 1000 up"));
    }

    void TearDown() override
    {
        if (ports_) {
            ports_->Stop();
        }
        PLAT_FailClearAll();
    }

    // Binds A to lva and B to lvb and starts them.
    void StartPorts()
    {
        ports_ = std::make_unique<LivePorts>([this](const std::string &line) { Note(line); });
        std::string error;
        ASSERT_TRUE(ports_->Open({{kPortA, "lva"}, {kPortB, "lvb"}}, &error)) << error;
        ASSERT_TRUE(ports_->Start(
            [this](uint32_t ifIndex, std::span<const uint8_t> frame) {
                std::lock_guard lock(mu_);
                received_.emplace_back(ifIndex, Bytes(frame.begin(), frame.end()));
                cv_.notify_all();
            },
            [this](uint32_t ifIndex, bool up) { OnLink(ifIndex, up); }, &error))
            << error;
        // The kernel sets a new veth's carrier a moment after it is up.
        ASSERT_TRUE(pplus_test::WaitFor([this]() { return ports_->IsUp(kPortA) && ports_->IsUp(kPortB); }, kWaitMs))
            << Notes();
        std::lock_guard lock(mu_);
        links_.clear();
    }

    // What the ports reported, a line each.
    std::string Notes()
    {
        std::lock_guard lock(mu_);
        return notes_;
    }

    void Note(const std::string &line)
    {
        std::lock_guard lock(mu_);
        notes_ += line + "\n";
    }

    void OnLink(uint32_t ifIndex, bool up)
    {
        std::lock_guard lock(mu_);
        links_.emplace_back(ifIndex, up);
        cv_.notify_all();
    }

    // The next frame of the test's ether type that entered port, within kWaitMs.
    std::optional<Bytes> NextFrame(uint32_t port)
    {
        std::unique_lock lock(mu_);
        std::optional<Bytes> found;
        cv_.wait_for(lock, std::chrono::milliseconds(kWaitMs), [&]() {
            for (auto it = received_.begin(); it != received_.end(); ++it) {
                if (it->first == port && IsTestFrame(it->second)) {
                    found = it->second;
                    received_.erase(it);
                    return true;
                }
            }
            return false;
        });
        return found;
    }

    size_t TestFramesOn(uint32_t port)
    {
        std::lock_guard lock(mu_);
        return static_cast<size_t>(std::count_if(received_.begin(), received_.end(), [port](const auto &r) {
            return r.first == port && IsTestFrame(r.second);
        }));
    }

    bool WaitLink(uint32_t port, bool up)
    {
        std::unique_lock lock(mu_);
        return cv_.wait_for(lock, std::chrono::milliseconds(kWaitMs), [&]() {
            for (auto it = links_.begin(); it != links_.end(); ++it) {
                if (*it == std::make_pair(port, up)) {
                    links_.erase(it);
                    return true;
                }
            }
            return false;
        });
    }

    // Both ports' reports of the pair's link going up or down.
    bool WaitLinks(bool up) { return WaitLink(kPortA, up) && WaitLink(kPortB, up); }

    device::fplane::LivePortStats StatsOf(uint32_t port) const
    {
        for (const auto &s : ports_->Stats()) {
            if (s.ifIndex == port) {
                return s;
            }
        }
        return {};
    }

    std::unique_ptr<LivePorts> ports_;
    std::mutex mu_;
    std::condition_variable cv_;
    std::vector<std::pair<uint32_t, Bytes>> received_;
    std::vector<std::pair<uint32_t, bool>> links_;
    std::string notes_;
};

TEST_F(LivePortsTest, FramesArriveAsTheyWereSentWithTagsPutBackOrAreDroppedWhenLongerThanTheMtuAllows)
{
    StartPorts();
    struct Row {
        const char *why;
        Bytes frame;
    };
    const Row rows[] = {
        {"untagged", TestFrame(60)},
        {"802.1Q with priority bits: the kernel moves the tag into the ring header", TestFrame(64, {{0x8100, 0xA064}})},
        {"priority-tagged (VLAN 0)", TestFrame(64, {{0x8100, 0x6000}})},
        {"802.1ad outer tag with its TPID", TestFrame(64, {{0x88a8, 0x00c8}})},
        {"QinQ: outer 802.1ad, inner 802.1Q stays in the data", TestFrame(68, {{0x88a8, 0x00c8}, {0x8100, 0x0064}})},
    };
    for (const Row &row : rows) {
        ports_->Transmit(kPortA, row.frame);
        EXPECT_EQ(NextFrame(kPortB), row.frame) << row.why;
    }
    EXPECT_EQ(TestFramesOn(kPortA), 0U) << "a port never reads back what it sent";
    const auto a = StatsOf(kPortA);
    const auto b = StatsOf(kPortB);
    EXPECT_EQ(a.tx, std::size(rows));
    EXPECT_GE(b.rx, std::size(rows));
    EXPECT_TRUE(a.up && b.up);

    // Queued inside a batch (no port's thread is woken), sent when it ends, in order.
    {
        const device::fplane::TransmitBatch batch;
        for (uint8_t i = 0; i < 3; i++) {
            ports_->Transmit(kPortA, TestFrame(60, {}, i));
            ports_->Transmit(kPortB, TestFrame(60, {}, static_cast<uint8_t>(0x10 + i)));
        }
    }
    for (uint8_t i = 0; i < 3; i++) {
        EXPECT_EQ(NextFrame(kPortB), TestFrame(60, {}, i));
        EXPECT_EQ(NextFrame(kPortA), TestFrame(60, {}, static_cast<uint8_t>(0x10 + i)));
    }

    // Frames longer than the MTU allows are dropped and counted, never cut.
    // Sending out of B (MTU 1000): 1014 bytes untagged or 1018 tagged leave;
    // one byte more is dropped before the wire.
    ports_->Transmit(kPortB, TestFrame(1015));
    ports_->Transmit(kPortB, TestFrame(1019, {{0x8100, 100}}));
    ports_->Transmit(kPortB, TestFrame(1014, {}, 0x01));
    ports_->Transmit(kPortB, TestFrame(1018, {{0x8100, 100}}, 0x02));
    EXPECT_EQ(NextFrame(kPortA), TestFrame(1014, {}, 0x01));
    EXPECT_EQ(NextFrame(kPortA), TestFrame(1018, {{0x8100, 100}}, 0x02));
    EXPECT_EQ(StatsOf(kPortB).txOversize, 2U);

    // Into B: the veth lets an untagged frame of MTU + 18 through, B drops it.
    ports_->Transmit(kPortA, TestFrame(1016, {}, 0x03));
    ports_->Transmit(kPortA, TestFrame(1014, {}, 0x04));
    EXPECT_EQ(NextFrame(kPortB), TestFrame(1014, {}, 0x04));
    EXPECT_EQ(StatsOf(kPortB).rxOversize, 1U);
    EXPECT_EQ(TestFramesOn(kPortB), 0U);
}

TEST_F(LivePortsTest, LinkChangesTakePortsOffAndOnBoardRetryingAFailedBindAndARecreatedNetdevIsBoundAgain)
{
    StartPorts();
    // B's link going down also takes A's carrier.
    ASSERT_TRUE(Sh("ip link set lvb down"));
    EXPECT_TRUE(WaitLinks(false)) << "A lost its carrier";
    EXPECT_FALSE(ports_->IsUp(kPortA));
    ports_->Transmit(kPortA, TestFrame(60));
    EXPECT_EQ(StatsOf(kPortA).txDropped, 1U) << "nothing is queued while the link is down";

    // Back up, the first two binds fail: the ports come on board at a later try.
    const uint32_t hits = PLAT_FailHits(kBindOp);
    PLAT_FailSet(kBindOp, 0, 2, EBUSY);
    ASSERT_TRUE(Sh("ip link set lvb up"));
    EXPECT_TRUE(WaitLinks(true));
    EXPECT_EQ(PLAT_FailHits(kBindOp), hits + 2);
    EXPECT_NE(Notes().find(": cannot bind: cannot open a packet socket"), std::string::npos) << Notes();
    ports_->Transmit(kPortA, TestFrame(60, {}, 0x11));
    EXPECT_EQ(NextFrame(kPortB), TestFrame(60, {}, 0x11)) << "the frame dropped while down never leaves late";

    // Deleted, then created again under the same names (new kernel indexes).
    ASSERT_TRUE(Sh("ip link del lva"));
    EXPECT_TRUE(WaitLinks(false));
    ASSERT_TRUE(Sh("ip link add lva type veth peer name lvb && ip link set lva up && ip link set lvb up"));
    EXPECT_TRUE(WaitLinks(true));
    ports_->Transmit(kPortB, TestFrame(60, {{0x8100, 7}}));
    EXPECT_EQ(NextFrame(kPortA), TestFrame(60, {{0x8100, 7}}));
}

TEST_F(LivePortsTest, BadBindingsAndFailedOpensAreRefusedAndAMissingNetdevStartsOffBoard)
{
    // A packet socket or the link watcher's netlink socket that cannot be opened.
    LivePorts refusing;
    std::string error;
    PLAT_FailSet(kBindOp, 0, 1, EBUSY);
    EXPECT_FALSE(refusing.Open({{kPortA, "lva"}}, &error));
    EXPECT_NE(error.find("port 1 (netdev lva): cannot open a packet socket: " + std::string(std::strerror(EBUSY))),
              std::string::npos)
        << error;
    EXPECT_FALSE(refusing.Open({{kPortB, "lvb"}}, &error));
    EXPECT_EQ(error, "the live ports are already open");
    LivePorts watcherless;
    PLAT_FailSet("device::fplane::LinkWatcher::Open", 0, 1, EMFILE);
    EXPECT_FALSE(watcherless.Open({{kPortB, "lvb"}}, &error));
    EXPECT_NE(error.find("cannot open a netlink socket to follow links"), std::string::npos) << error;

    // A netdev of another named namespace: refused, naming the namespace
    // (the host's refusals of other bad bindings are the replay suite's).
    const std::string ns = "lv" + std::to_string(getpid()) + "x";
    ASSERT_TRUE(Sh("ip netns add " + ns));
    const bool moved = Sh("ip link add lvother type veth peer name lvother2 && ip link set lvother netns " + ns);
    LivePorts elsewhere;
    const bool opened = elsewhere.Open({{kPortA, "lvother"}}, &error);
    Sh("ip netns del " + ns);
    ASSERT_TRUE(moved);
    EXPECT_FALSE(opened);
    EXPECT_NE(error.find("in network namespace " + ns), std::string::npos) << error;

    // Missing: a warning naming it; off board until it appears.
    ports_ = std::make_unique<LivePorts>([this](const std::string &line) { Note(line); });
    ASSERT_TRUE(ports_->Open({{kPortA, "lvlater"}}, &error)) << error;
    EXPECT_FALSE(ports_->IsUp(kPortA));
    EXPECT_EQ(Notes(),
              "warning: port 1 (netdev lvlater): no such netdev; the port starts off board and comes on board "
              "when it appears\n");
    ASSERT_TRUE(ports_->Start([](uint32_t, std::span<const uint8_t>) {},
                              [this](uint32_t ifIndex, bool up) { OnLink(ifIndex, up); }, &error));
    ASSERT_TRUE(
        Sh("ip link add lvlater type veth peer name lvlater2 && ip link set lvlater up && ip link set lvlater2 up"));
    EXPECT_TRUE(WaitLink(kPortA, true));
}

}  // namespace
