// Who may reach the switch: started under umask 000 with --group, the host's
// control and datastore sockets are 0660 and the group's, and the saved
// configuration is 0600 in a folder of 0700.
#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <tuple>

#include "host_process.hpp"

TEST(Access, SocketsAreOwnerAndGroupOnlyAndTheStoreIsTheOwnersWhateverTheUmask)
{
    const std::string dir = pplus_e2e::NewDatastoreDir();
    const group *grp = getuid() == 0 ? getgrnam("daemon") : getgrgid(getgid());
    ASSERT_NE(grp, nullptr);
    const gid_t gid = grp->gr_gid;
    const mode_t old = umask(0);
    pplus_e2e::Host host({"--control", dir + "/ctl.sock", "--group", grp->gr_name, "--yangdb-socket",
                          dir + "/yangdb.sock", "--yangdb-store", dir + "/store/running.xml", "--startup-config",
                          PPLUS_SOURCE_DIR "/examples/pppoe-plus.xml"});
    umask(old);
    ASSERT_TRUE(host.WaitForOutput("pppoe-plus-switch: control socket", 30000)) << host.Output();
    struct stat st = {};
    for (const std::string socket : {"/ctl.sock", "/yangdb.sock"}) {
        ASSERT_EQ(stat((dir + socket).c_str(), &st), 0) << socket;
        EXPECT_EQ(std::tuple(st.st_mode & 0777, st.st_gid), std::tuple(0660U, gid)) << socket;
    }
    ASSERT_EQ(stat((dir + "/store/running.xml").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600U);
    ASSERT_EQ(stat((dir + "/store").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700U);
    EXPECT_EQ(host.Stop(SIGTERM), 0) << host.Output();
}
