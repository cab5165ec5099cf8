// The switch on live ports with real PPPoE software around it: the test
// brings up the lab (scripts/lab.sh, with a prefix of its own so that runs
// never meet) and takes it down again, also when it fails. rp-pppoe's client
// discovers through the switch; what the concentrators and subscribers
// receive is captured in their namespaces with dumpcap; the switch's
// punt policing is read through pppoe-plus-cli. Needs root, network
// namespaces and rp-pppoe: the test skips with the reason otherwise.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>
#include <thread>

#include "host_process.hpp"
#include "pplus_test.hpp"
#include "pppoe_frame.hpp"

namespace {

using frames::ParsedFrame;
using pplus_e2e::ProgramRun;
using pplus_e2e::RunProgram;

constexpr uint8_t kPadi = 0x09;
constexpr uint8_t kPadr = 0x19;
constexpr uint8_t kPads = 0x65;
constexpr uint16_t kTagVendorSpecific = 0x0105;
constexpr uint32_t kVendorId = 3561;
constexpr const char *kCircuitIdLine1 = "eth 0/0/1:100.0 AccessSwitch-1/0/0/0/0/0";
constexpr const char *kCircuitIdLine3 = "eth 0/0/3:101.0 AccessSwitch-1/0/0/0/0/0";
constexpr const char *kRemoteId = "00e0-fc12-3456";
constexpr const char *kAclWithdrawn = "[fwm] trust-port-cfg enable 0 ifIndex 49";
constexpr const char *kAclInstalled = "[fwm] trust-port-cfg enable 1 ifIndex 49";
constexpr int kWaitMs = 30000;

// Why the lab cannot run here; empty when it can.
std::string WhyNoLab()
{
    if (geteuid() != 0) {
        return "the lab needs root (network namespaces, packet sockets)";
    }
    for (const char *program : {"/usr/sbin/pppoe", "/usr/sbin/pppoe-server", "/usr/bin/dumpcap"}) {
        if (access(program, X_OK) != 0) {
            return std::string("the lab needs ") + program + ": bash scripts/install-deps.sh --lab";
        }
    }
    if (RunProgram("ip", {"netns", "list"}).status != 0) {
        return "no network namespaces here (ip netns list fails)";
    }
    return "";
}

bool Is(const ParsedFrame &f, uint8_t code, uint16_t vlan)
{
    return f.code == code && f.vlans == std::vector<uint16_t>{vlan};
}

std::optional<uint32_t> VendorIdOf(const ParsedFrame &f)
{
    const frames::ParsedTag *vs = f.find(kTagVendorSpecific);
    if (vs == nullptr || vs->value.size() < 4) {
        return std::nullopt;
    }
    return static_cast<uint32_t>(vs->value[0] << 24 | vs->value[1] << 16 | vs->value[2] << 8 | vs->value[3]);
}

// The lab of one test, down again when the test ends.
class Lab {
public:
    Lab() : prefix_("lv" + std::to_string(getpid() % 100000)), dir_("/tmp/" + prefix_ + "-lab") {}
    ~Lab()
    {
        const ProgramRun down = Script("down");
        EXPECT_EQ(down.status, 0) << down.output;
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
    Lab(const Lab &) = delete;
    Lab &operator=(const Lab &) = delete;

    // lab.sh VERB as a user runs it (no library path of the test's own).
    ProgramRun Script(const std::string &verb)
    {
        return RunProgram("env",
                          {"-u", "LD_LIBRARY_PATH", "LAB_PREFIX=" + prefix_, "LAB_BUILD=" PPLUS_BUILD_DIR,
                           "LAB_DIR=" + dir_, "bash", PPLUS_SOURCE_DIR "/scripts/lab.sh", verb},
                          180000);
    }

    std::string Name(const std::string &role) const { return prefix_ + "-" + role; }
    const std::string &Dir() const { return dir_; }

    ProgramRun In(const std::string &ns, std::vector<std::string> args, int timeoutMs = kWaitMs)
    {
        args.insert(args.begin(), {"netns", "exec", Name(ns)});
        return RunProgram("ip", std::move(args), timeoutMs);
    }

    // rp-pppoe's client of subscriber n (1 or 2): discovery, "session:mac" on success.
    ProgramRun Discover(int n, std::vector<std::string> options = {})
    {
        std::vector<std::string> args = {"pppoe", "-I", Name(n == 1 ? "c1" : "c3"), "-d"};
        args.insert(args.end(), options.begin(), options.end());
        return In(n == 1 ? "sub1" : "sub2", args, 60000);
    }

    ProgramRun Cli(std::vector<std::string> args) const { return pplus_e2e::Cli(std::move(args), dir_); }

    std::string SwitchOutput() const
    {
        std::ifstream in(dir_ + "/switch.log");
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }

    // Waits until the switch has printed text the given number of times.
    bool WaitForOutput(const std::string &text, size_t occurrences) const
    {
        return pplus_test::WaitFor(
            [&]() {
                const std::string out = SwitchOutput();
                size_t n = 0;
                for (size_t at = out.find(text); at != std::string::npos; at = out.find(text, at + 1)) {
                    n++;
                }
                return n >= occurrences;
            },
            kWaitMs);
    }

private:
    std::string prefix_;
    std::string dir_;
};

// The PPPoE discovery frames dumpcap records on a netdev of a namespace of
// the lab, from the moment it reports capturing.
class Capture {
public:
    Capture(const Lab &lab, const std::string &ns, const std::string &netdev)
        : file_(lab.Dir() + "/" + netdev + ".pcap")
    {
        std::tie(pid_, out_) =
            pplus_e2e::Spawn("ip", {"netns", "exec", lab.Name(ns), "dumpcap", "-P", "-i", lab.Name(netdev), "-f",
                                    "pppoed or (vlan and pppoed)", "-w", file_});
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
        while (output_.find("Capturing on") == std::string::npos &&
               pplus_e2e::ReadSome(out_, &output_, pplus_e2e::MsLeft(deadline))) {
        }
    }
    ~Capture()
    {
        kill(pid_, SIGTERM);
        (void)pplus_e2e::Reap(pid_);
        close(out_);
    }
    Capture(const Capture &) = delete;
    Capture &operator=(const Capture &) = delete;

    // What dumpcap said when it did not start; empty once it captures.
    std::string Error() const
    {
        return output_.find("Capturing on") == std::string::npos ? "dumpcap did not start: " + output_ : "";
    }

    std::vector<ParsedFrame> Frames() const
    {
        std::vector<ParsedFrame> frames;
        for (const std::string &raw : pplus_e2e::Frames(file_)) {
            if (auto parsed = frames::Parse(frames::Bytes(raw.begin(), raw.end()))) {
                frames.push_back(std::move(*parsed));
            }
        }
        return frames;
    }

    // Waits until some frame satisfies pred.
    bool WaitFor(const std::function<bool(const ParsedFrame &)> &pred) const
    {
        return pplus_test::WaitFor(
            [&]() {
                const auto frames = Frames();
                return std::any_of(frames.begin(), frames.end(), pred);
            },
            kWaitMs);
    }

private:
    std::string file_;
    pid_t pid_ = -1;
    int out_ = -1;
    std::string output_;
};

// What rp-pppoe's client prints for a session it got (it prints session 0
// and exits 0 when no offer came).
const std::regex kSession(R"((^|\n)[1-9]\d*:[0-9a-f]{2}(:[0-9a-f]{2}){5}\s*(\n|$))");

// One lab for the whole story: real clients discover, the trusted uplink
// goes down and up, a client floods.
TEST(Live, ClientsDiscoverTaggedTowardsTheServerTheUplinksAclFollowsItsLinkAndAFloodIsPoliced)
{
    if (const std::string why = WhyNoLab(); !why.empty()) {
        GTEST_SKIP() << why;
    }
    Lab lab;
    const ProgramRun up = lab.Script("up");
    ASSERT_EQ(up.status, 0) << up.output << lab.SwitchOutput();
    {
        Capture trusted(lab, "ac1", "t1");
        Capture untrusted(lab, "ac2", "t2");
        Capture sub1(lab, "sub1", "c1");
        Capture sub2(lab, "sub2", "c3");
        for (Capture *c : {&trusted, &untrusted, &sub1, &sub2}) {
            ASSERT_EQ(c->Error(), "");
        }

        for (int n : {1, 2}) {
            const ProgramRun got = lab.Discover(n);
            EXPECT_EQ(got.status, 0) << "subscriber " << n << ": " << got.output << lab.SwitchOutput();
            EXPECT_TRUE(std::regex_search(got.output, kSession)) << got.output;
        }

        // The concentrator on the trusted trunk: PADI and PADR of each line in
        // its VLAN, carrying the agent's tag.
        struct Expect {
            uint8_t code;
            uint16_t vlan;
            const char *circuitId;
        };
        for (const Expect &e : {Expect{kPadi, 100, kCircuitIdLine1}, Expect{kPadr, 100, kCircuitIdLine1},
                                Expect{kPadi, 101, kCircuitIdLine3}, Expect{kPadr, 101, kCircuitIdLine3}}) {
            EXPECT_TRUE(trusted.WaitFor([&](const ParsedFrame &f) {
                return Is(f, e.code, e.vlan) && VendorIdOf(f) == kVendorId && f.subOption(1) == e.circuitId &&
                       f.subOption(2) == kRemoteId;
            })) << "code "
                << int(e.code) << " VLAN " << e.vlan;
        }
        // Each subscriber: the concentrator's PADO and PADS, untagged, no agent tag.
        for (Capture *sub : {&sub1, &sub2}) {
            EXPECT_TRUE(sub->WaitFor([](const ParsedFrame &f) { return f.code == kPads; }));
            for (const ParsedFrame &f : sub->Frames()) {
                EXPECT_TRUE(f.vlans.empty());
                EXPECT_EQ(f.find(kTagVendorSpecific), nullptr)
                    << "code " << int(f.code) << " reached a subscriber tagged";
            }
        }
        // The untrusted uplink's concentrator saw nothing at all.
        EXPECT_TRUE(untrusted.Frames().empty());
    }

    // The trusted uplink going down withdraws its ACL, coming up restores it.
    ASSERT_TRUE(lab.WaitForOutput(kAclInstalled, 1));

    ASSERT_EQ(lab.In("sw", {"ip", "link", "set", lab.Name("xge1"), "down"}).status, 0);
    EXPECT_TRUE(lab.WaitForOutput(kAclWithdrawn, 1)) << lab.SwitchOutput();
    // The PADI has nowhere to go: no offer.
    const ProgramRun lost = lab.Discover(1, {"-t", "1"});
    EXPECT_FALSE(std::regex_search(lost.output, kSession)) << lost.output;

    ASSERT_EQ(lab.In("sw", {"ip", "link", "set", lab.Name("xge1"), "up"}).status, 0);
    EXPECT_TRUE(lab.WaitForOutput(kAclInstalled, 2)) << lab.SwitchOutput();
    const ProgramRun back = lab.Discover(1);
    EXPECT_EQ(back.status, 0) << back.output;
    EXPECT_TRUE(std::regex_search(back.output, kSession)) << back.output;

    // The switch survives a client flooding PADI while another discovers:
    // subscriber 2 floods for longer than subscriber 1 needs to discover.
    ProgramRun flood;
    std::thread flooder([&]() {
        flood = lab.In("sub2", {PPLUS_BUILD_DIR "/bin/padi-flood", "send", "--netdev", lab.Name("c3"), "--seconds",
                                "12", "--rate", "5000", "--sources", "64"});
    });
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const ProgramRun got = lab.Discover(1);
    flooder.join();
    EXPECT_EQ(got.status, 0) << got.output;
    EXPECT_TRUE(std::regex_search(got.output, kSession)) << got.output;
    EXPECT_EQ(flood.status, 0) << flood.output;
    EXPECT_NE(flood.output.find("sent="), std::string::npos) << flood.output;
    // The flood was policed on its own port.
    const ProgramRun ports = lab.Cli({"world", "ports"});
    EXPECT_TRUE(std::regex_search(ports.output, std::regex(R"(\(7\): rx .* policed [1-9])"))) << ports.output;

    // Still whole: answering, and the flooder itself discovers afterwards.
    EXPECT_EQ(lab.Cli({"show", "statistics"}).status, 0) << lab.SwitchOutput();
    const ProgramRun after = lab.Discover(2);
    EXPECT_EQ(after.status, 0) << after.output;
}

}  // namespace
