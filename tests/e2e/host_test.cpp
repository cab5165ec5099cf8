// The host program end to end: start on the example topology, report the
// agent ready once the device database answers, stop cleanly.
#include <gtest/gtest.h>

#include <string>

#include "host_process.hpp"

using pplus_e2e::Host;

TEST(Host, ReadinessWaitsForTheDeviceDatabaseAndTheAgentAttachesToTheForwardingManager)
{
    // The device database answers only after 300 ms; delays run 100x faster.
    // The host moves to its own bin folder; a relative topology path given
    // on the command line still names the file the user meant.
    Host host(
        {"--topology", "examples/topology.yaml", "--devm-delay-ms", "300", "--time-scale", "10", "--run-for", "1"},
        PPLUS_SOURCE_DIR);
    ASSERT_TRUE(host.WaitForOutput("agent ready", 20000)) << host.Output();
    EXPECT_NE(host.Output().find("empty running configuration"), std::string::npos);
    const size_t notReady = host.Output().find("[PPPOEPLUS_FRAME]MainBoardId is not ready.ret=");
    EXPECT_NE(notReady, std::string::npos) << host.Output();
    EXPECT_LT(notReady, host.Output().find("DEVM_DB is ready."));
    const size_t attached = host.Output().find("[platform] [fwm] client PPPOE_PLUS attached");
    EXPECT_NE(attached, std::string::npos) << host.Output();
    EXPECT_LT(attached, host.Output().find("agent ready"));
    EXPECT_EQ(host.Wait(), 0) << host.Output();
    EXPECT_NE(host.Output().find("[syslog] <6> [PPPoE_PLUS] Main exit"), std::string::npos);
    EXPECT_NE(host.Output().find("[platform] [fwm] state: feature off, ignore-reply on, trusted ports none, "
                                 "clients PPPOE_PLUS"),
              std::string::npos)
        << host.Output();
}
