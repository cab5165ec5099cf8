// Run-time world control end to end: with the agent enabled and a trusted
// uplink by the example configuration, pppoe-plus-cli takes the uplink off
// board and back through the host's control socket, and fwm sees the
// trusted-port ACL withdrawn and installed again; boards, interfaces and HA
// events through the CLI.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "control.hpp"
#include "host_process.hpp"

namespace {

using pplus_e2e::Host;

using CliRun = pplus_e2e::ProgramRun;

// pppoe-plus-cli with its arguments given as one line.
CliRun Cli(const std::string &args)
{
    std::vector<std::string> words;
    std::istringstream in(args);
    for (std::string word; in >> word;) {
        words.push_back(word);
    }
    return pplus_e2e::Cli(words);
}

std::string ControlPath(const char *name)
{
    return "/tmp/pplus-e2e-" + std::to_string(getpid()) + "-" + name + ".sock";
}

// Sends a line to the host's control socket; the reply, "" when unreachable.
std::string Control(const std::string &path, const std::string &line)
{
    std::string reply;
    std::string error;
    return host::ControlRequest(path, line, &reply, &error) ? reply : "";
}

}  // namespace

TEST(WorldControl, UplinkOffBoardAndBackReachesFwmAndBoardsListsHaEventsAndErrorsShowReadably)
{
    const std::string ctl = ControlPath("world");
    Host host({"--control", ctl, "--startup-config", PPLUS_SOURCE_DIR "/examples/pppoe-plus.xml"});
    ASSERT_TRUE(host.WaitForOutput("pppoe-plus-switch: control socket " + ctl, 20000)) << host.Output();
    ASSERT_TRUE(host.WaitForOutput("[fwm] trust-port-cfg enable 1 ifIndex 49", 5000)) << host.Output();
    const size_t installed = host.Output().find("[fwm] trust-port-cfg enable 1 ifIndex 49");
    // pppoe-plus-cli's world commands against this host.
    const auto world = [&ctl](const std::string &args) { return Cli("--control " + ctl + " world " + args); };

    EXPECT_EQ(world("if off XGigabitEthernet0/0/1"),
              (CliRun{0, "interface XGigabitEthernet0/0/1 (ifIndex 49) is off board\n"}));
    ASSERT_TRUE(host.WaitForOutput("[fwm] trust-port-cfg enable 0 ifIndex 49", 5000)) << host.Output();
    const size_t withdrawn = host.Output().find("[fwm] trust-port-cfg enable 0 ifIndex 49");
    EXPECT_GT(withdrawn, installed);

    const CliRun on = world("if on 49");
    EXPECT_EQ(on.status, 0) << on.output;
    ASSERT_TRUE(host.WaitForOutput("[fwm] trust-port-cfg enable 1 ifIndex 49", 5000, withdrawn)) << host.Output();

    EXPECT_EQ(world("fwm"), (CliRun{0, "feature on, ignore-reply on, trusted ports 49, clients PPPOE_PLUS\n"}));

    // Boards and interfaces listed, and errors, readably.
    EXPECT_EQ(world("board register 3"), (CliRun{0, "board 3 of chassis 1 is registered\n"}));
    EXPECT_EQ(world("board list"), (CliRun{0, "chassis  slot  state\n1  1  registered\n1  3  registered\n"}));
    const CliRun ifs = world("if list");
    EXPECT_NE(ifs.output.find("10  no  GigabitEthernet0/0/6"), std::string::npos) << ifs.output;
    // Programs ask for a port's ifIndex and name, by either.
    EXPECT_EQ(Control(ctl, "if resolve XGigabitEthernet0/0/1"), "ok\n49 XGigabitEthernet0/0/1\n");
    EXPECT_EQ(Control(ctl, "if resolve 49"), "ok\n49 XGigabitEthernet0/0/1\n");

    EXPECT_EQ(world("if off Eth9"), (CliRun{1, "pppoe-plus-cli: no interface named or numbered Eth9\n"}));
    EXPECT_EQ(world("board register three"), (CliRun{1, "pppoe-plus-cli: not a slot number: three\n"}));
    EXPECT_NE(Control(ctl, "reboot").find("error: unknown command"), std::string::npos);

    // The host reached master; HA events show through the CLI.
    EXPECT_NE(host.Output().find("HA start of work reported with role 1, master board 1/1; agent role 1"),
              std::string::npos)
        << host.Output();

    const CliRun show = world("ha show");
    EXPECT_EQ(show.status, 0) << show.output;
    EXPECT_NE(show.output.find("agent role 1 (master)\nagent standby slot 0\nagent master 1/1 ip 172.16.1.1\n"),
              std::string::npos)
        << show.output;
    // Diagnostic lines flow on the master.
    EXPECT_TRUE(host.WaitForOutput("[PPLUS-HA] Ha notify new mmb(1/1), old mmb(0/0), masterIp(2886729985).", 5000))
        << host.Output();

    EXPECT_EQ(world("ha new-backup 1 2"), (CliRun{0, "new-backup 1/2 delivered to pppoe_plus (returned 0)\n"}));
    EXPECT_EQ(world("ha start-work 5"), (CliRun{0, "start-work 5 delivered to pppoe_plus (returned 1)\n"}));
    EXPECT_EQ(world("ha demote").status, 0);
    ASSERT_TRUE(host.WaitForOutput("[PPLUS-HA] HaPromtBackUp get board role eventType:7, role:2.", 5000))
        << host.Output();

    const CliRun after = world("ha show");
    EXPECT_NE(after.output.find("agent standby slot 2"), std::string::npos) << after.output;
    EXPECT_NE(after.output.find("switchover reports 1\nreport pppoe_plus state 1"), std::string::npos) << after.output;

    EXPECT_EQ(host.Stop(SIGTERM), 0) << host.Output();
    EXPECT_EQ(access(ctl.c_str(), F_OK), -1);  // the socket file is gone with the host
    const CliRun gone = world("fwm");
    EXPECT_EQ(gone.status, 2);
    EXPECT_NE(gone.output.find("pppoe-plus-cli: cannot reach pppoe-plus-switch at " + ctl), std::string::npos)
        << gone.output;
    // Argument errors, found before anything is asked: one exit code, the
    // reason and the usage line of the command reached (a missing
    // subcommand, values the parser refuses, a command's own check).
    const std::pair<std::string, std::string> misuse[] = {
        {"world", "Usage: pppoe-plus-cli world [OPTIONS] SUBCOMMAND"},
        {"vendor-id 4294967296", "Usage: pppoe-plus-cli vendor-id"},
        {"policy drop --port a --port b", "Usage: pppoe-plus-cli policy"},
        {"format cid user-define", "pppoe-plus-cli: format: user-define needs its format string\nUsage:"},
    };
    for (const auto &[args, usage] : misuse) {
        const CliRun run = Cli(args);
        EXPECT_EQ(run.status, 64) << args;
        EXPECT_NE(run.output.find(usage), std::string::npos) << args << "\n" << run.output;
    }
}
