// The agent configured through the switch's datastore end to end:
// pppoe-plus-cli changes the Circuit-ID format while subscribers keep
// sending, and the next relayed frame carries the new one; queries and
// operations answer through the agent; a bad edit is refused by name and
// changes nothing; a restart of the switch brings the saved configuration
// back.
#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
#include <string>
#include <vector>

#include "host_process.hpp"

namespace {

using pplus_e2e::Cli;
using pplus_e2e::Frames;
using pplus_e2e::Host;
using pplus_e2e::ProgramRun;

const std::string kExamples = PPLUS_SOURCE_DIR "/examples";

class Datastore : public testing::Test {
protected:
    std::vector<std::string> HostArgs(std::vector<std::string> more) const
    {
        std::vector<std::string> args = pplus_e2e::DatastoreArgs(dir_);
        args.insert(args.end(), {"--control", dir_ + "/control.sock"});
        args.insert(args.end(), more.begin(), more.end());
        return args;
    }

    ProgramRun Run(std::vector<std::string> args) const { return Cli(std::move(args), dir_); }

    const std::string dir_ = pplus_e2e::NewDatastoreDir();
};

TEST_F(Datastore, CliChangesReachTheNextRelayedFrameBadEditsAreRefusedAndARestartRestoresTheSavedConfiguration)
{
    const std::string uplink = dir_ + "/uplink.pcap";
    {
        Host host(
            HostArgs({"--startup-config", kExamples + "/pppoe-plus.xml", "--out", "XGigabitEthernet0/0/1=" + uplink}));
        ASSERT_TRUE(host.WaitForOutput("pppoe-plus-switch: control socket", 30000)) << host.Output();
        ASSERT_NE(host.Output().find("agent configured from the datastore"), std::string::npos) << host.Output();

        const std::string padi = "GigabitEthernet0/0/1=" + kExamples + "/captures/subscribers.pcap";
        ProgramRun replay = Run({"world", "port", "replay", padi});
        ASSERT_EQ(replay.status, 0) << replay.output;

        // Formats with a backslash or an optional part reach the agent as typed.
        const std::pair<std::string, std::string> checks[] = {
            {"\"\\a\"", "backslash before a character that needs no escape (result 3)"},
            {"\"%svlan[.%cvlan]\"", "well formed (result 0)"},
            {"\"[%mac]\"", "optional keyword other than svlan or cvlan (result 5)"},
        };
        for (const auto &[text, answer] : checks) {
            EXPECT_EQ(Run({"check-format", text}), (ProgramRun{0, text + ": " + answer + "\n"}));
        }
        ASSERT_EQ(Run({"format", "cid", "user-define", "\"line-%sysname\""}), (ProgramRun{0, ""}));
        replay = Run({"world", "port", "replay", padi});
        ASSERT_EQ(replay.status, 0) << replay.output;

        const ProgramRun stats = Run({"show", "statistics"});
        EXPECT_EQ(stats.status, 0) << stats.output;
        EXPECT_NE(stats.output.find("XGigabitEthernet0/0/1(*T)"), std::string::npos) << stats.output;
        EXPECT_EQ(Run({"reset-statistics"}).status, 0);
        EXPECT_EQ(Run({"debug", "all", "on"}).status, 0);
        EXPECT_EQ(Run({"show", "policy"}), (ProgramRun{0, "tags-policy   replace (1)\nignore-reply  on (1)\n"}));

        // Changes to keep across the restart, and edits refused by name.
        EXPECT_EQ(Run({"enable"}).status, 0);
        EXPECT_EQ(Run({"trust", "GigabitEthernet0/0/2"}), (ProgramRun{0, ""}));
        EXPECT_EQ(Run({"vendor-id", "2011"}).status, 0);
        ASSERT_TRUE(host.WaitForOutput("[fwm] trust-port-cfg enable 1 ifIndex 6", 5000)) << host.Output();
        const std::string badFile = dir_ + "/bad.xml";
        std::ofstream(badFile) << "<pppoe-plus xmlns=\"urn:quendal:yang:quendal-pppoe-plus\"><global-tags-policy>"
                                  "<tags-policy>sometimes</tags-policy></global-tags-policy></pppoe-plus>";
        const ProgramRun bad = Run({"edit", badFile});
        EXPECT_EQ(bad.status, 1) << bad.output;
        EXPECT_NE(bad.output.find("tags-policy"), std::string::npos) << bad.output;
        const ProgramRun tooLong = Run({"format", "rid", "user-define", std::string(128, 'x')});
        EXPECT_EQ(tooLong.status, 1);
        EXPECT_NE(tooLong.output.find("rid-user-define-text"), std::string::npos) << tooLong.output;
        EXPECT_EQ(Run({"trust", "Eth9"}), (ProgramRun{1, "pppoe-plus-cli: the switch has no interface Eth9\n"}));
        ASSERT_EQ(host.Stop(SIGTERM), 0) << host.Output();
    }
    // Each replay sends the PADI and the PADR up; the first pair carries
    // the common Circuit-ID, the second the user-defined one.
    const auto frames = Frames(uplink);
    ASSERT_EQ(frames.size(), 4U);
    EXPECT_NE(frames[0].find("eth 0/0/1:100.0 AccessSwitch-1/0/0/0/0/0"), std::string::npos);
    EXPECT_EQ(frames[2].find("eth 0/0/1:100.0"), std::string::npos);
    EXPECT_NE(frames[2].find("line-AccessSwitch-1"), std::string::npos);

    Host host(HostArgs({}));
    ASSERT_TRUE(host.WaitForOutput("pppoe-plus-switch: control socket", 30000)) << host.Output();
    EXPECT_NE(host.Output().find("running configuration restored from " + dir_ + "/running.xml"), std::string::npos)
        << host.Output();
    ASSERT_TRUE(host.WaitForOutput("[fwm] trust-port-cfg enable 1 ifIndex 6", 5000)) << host.Output();
    EXPECT_EQ(Run({"show", "encapsulation"}).output, "vendor-id      2011\nencapsulation  both (3)\n");
    const ProgramRun exported = Run({"export"});
    EXPECT_NE(exported.output.find("<vendor-id>2011</vendor-id>"), std::string::npos) << exported.output;
    EXPECT_NE(exported.output.find("line-%sysname"), std::string::npos) << exported.output;
    EXPECT_EQ(exported.output.find(std::string(128, 'x')), std::string::npos) << "the refused edit left nothing";
    EXPECT_EQ(host.Stop(SIGTERM), 0) << host.Output();
}

}  // namespace
