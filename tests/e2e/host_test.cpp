// The host program end to end: start on the example topology, report the
// agent ready, stop cleanly on SIGTERM.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

namespace {

// A running pppoe-plus-switch whose standard output is read through a pipe.
class Host {
public:
    explicit Host(std::vector<std::string> args, const char *cwd = nullptr)
    {
        int fds[2];
        if (pipe(fds) != 0) {
            return;
        }
        pid_ = fork();
        if (pid_ == 0) {
            if (cwd != nullptr && chdir(cwd) != 0) {
                _exit(126);
            }
            dup2(fds[1], STDOUT_FILENO);
            dup2(fds[1], STDERR_FILENO);
            close(fds[0]);
            close(fds[1]);
            std::vector<char *> argv;
            static std::string exe = PPLUS_BUILD_DIR "/bin/pppoe-plus-switch";
            argv.push_back(exe.data());
            for (auto &a : args) {
                argv.push_back(a.data());
            }
            argv.push_back(nullptr);
            execv(exe.c_str(), argv.data());
            _exit(127);
        }
        close(fds[1]);
        out_ = fds[0];
    }
    ~Host()
    {
        if (pid_ > 0 && !exited_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (out_ >= 0) {
            close(out_);
        }
    }

    // Reads output until text appears or timeoutMs passes.
    bool WaitForOutput(const std::string &text, int timeoutMs)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (output_.find(text) == std::string::npos) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0 || !ReadSome(static_cast<int>(left.count()))) {
                return false;
            }
        }
        return true;
    }

    int Stop(int sig)
    {
        kill(pid_, sig);
        return Wait();
    }

    int Wait()
    {
        while (ReadSome(10000)) {
        }
        int status = 0;
        waitpid(pid_, &status, 0);
        exited_ = true;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    const std::string &Output() const { return output_; }

private:
    bool ReadSome(int timeoutMs)
    {
        pollfd p = {out_, POLLIN, 0};
        if (poll(&p, 1, timeoutMs) <= 0) {
            return false;
        }
        char buf[4096];
        const ssize_t n = read(out_, buf, sizeof(buf));
        if (n <= 0) {
            return false;
        }
        output_.append(buf, static_cast<size_t>(n));
        return true;
    }

    pid_t pid_ = -1;
    int out_ = -1;
    bool exited_ = false;
    std::string output_;
};

const std::string kExample = PPLUS_SOURCE_DIR "/examples/topology.yaml";

}  // namespace

TEST(Host, StartsTheAgentReportsReadyAndStopsOnSigterm)
{
    Host host({"--topology", kExample});
    ASSERT_TRUE(host.WaitForOutput("agent ready", 20000)) << host.Output();
    EXPECT_NE(host.Output().find("[syslog] <6> [PPPoE_PLUS] Udf Create"), std::string::npos) << host.Output();
    EXPECT_NE(host.Output().find("DEVM_DB is ready. mainId= 1, selfId = 1.."), std::string::npos);
    EXPECT_EQ(host.Stop(SIGTERM), 0) << host.Output();
    EXPECT_NE(host.Output().find("[syslog] <6> [PPPoE_PLUS] Main exit"), std::string::npos);
    EXPECT_NE(host.Output().find("frame buffer(s) outstanding"), std::string::npos);
    EXPECT_NE(host.Output().find("0 frame buffer(s) outstanding"), std::string::npos);
}

TEST(Host, TopologyPathIsRelativeToWhereTheHostStarted)
{
    // The host moves to its own bin folder; a relative path given on the
    // command line still names the file the user meant.
    Host host({"--topology", "examples/topology.yaml", "--run-for", "1"}, PPLUS_SOURCE_DIR);
    ASSERT_TRUE(host.WaitForOutput("agent ready", 20000)) << host.Output();
    EXPECT_EQ(host.Wait(), 0) << host.Output();
}

TEST(Host, ReadinessWaitsForTheDeviceDatabase)
{
    // The device database answers only after 300 ms; delays run 100x faster.
    Host host({"--devm-delay-ms", "300", "--time-scale", "10", "--run-for", "1"});
    ASSERT_TRUE(host.WaitForOutput("agent ready", 20000)) << host.Output();
    const size_t notReady = host.Output().find("[PPPOEPLUS_FRAME]MainBoardId is not ready.ret=");
    const size_t ready = host.Output().find("DEVM_DB is ready.");
    EXPECT_NE(notReady, std::string::npos) << host.Output();
    EXPECT_LT(notReady, ready);
    EXPECT_EQ(host.Wait(), 0) << host.Output();
}

TEST(Host, BadTopologyIsRefusedWithAClearError)
{
    char path[] = "/tmp/pplus-topo-XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    const std::string text = "system:\n  name: S\n  chassis: many\n";
    ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(fd);
    Host host({"--topology", path});
    EXPECT_EQ(host.Wait(), 1);
    EXPECT_NE(host.Output().find("chassis"), std::string::npos) << host.Output();
    unlink(path);
}

TEST(Host, AgentAttachesToTheForwardingManagerAtStartUp)
{
    Host host({"--run-for", "1", "--time-scale", "10"});
    ASSERT_TRUE(host.WaitForOutput("agent ready", 20000)) << host.Output();
    const size_t attached = host.Output().find("[platform] [fwm] client PPPOE_PLUS attached");
    EXPECT_NE(attached, std::string::npos) << host.Output();
    EXPECT_LT(attached, host.Output().find("agent ready"));
    EXPECT_EQ(host.Wait(), 0) << host.Output();
    EXPECT_NE(host.Output().find("[platform] [fwm] state: feature off, ignore-reply off, trusted ports none, "
                                 "clients PPPOE_PLUS"),
              std::string::npos)
        << host.Output();
}
