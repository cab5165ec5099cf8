// A pppoe-plus-switch started by a test, its standard output and error
// read through a pipe; programs run to their end; captures read back; a
// test's own temporary folder.
#pragma once

#include <pcap/pcap.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <ostream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "fd_text.hpp"

namespace pplus_e2e {

using pplus_test::MsLeft;
using pplus_test::ReadSome;

struct ProgramRun {
    int status = -1;  // exit code, or 128 + signal
    std::string output;

    bool operator==(const ProgramRun &) const = default;
    friend void PrintTo(const ProgramRun &run, std::ostream *os) { *os << "exit " << run.status << ": " << run.output; }
};

// Starts exe with args (in cwd when given), its standard output and error
// into a pipe: the child's pid and the pipe's read end; -1 and -1 when the
// pipe cannot be made. The program runs as a user starts it: without the
// loader variables a developer's shell may carry.
inline std::pair<pid_t, int> Spawn(const std::string &exe, std::vector<std::string> args, const char *cwd = nullptr)
{
    int fds[2];
    if (pipe(fds) != 0) {
        return {-1, -1};
    }
    const pid_t pid = fork();
    if (pid == 0) {
        if (cwd != nullptr && chdir(cwd) != 0) {
            _exit(126);
        }
        unsetenv("LD_LIBRARY_PATH");
        unsetenv("LD_PRELOAD");
        dup2(fds[1], STDOUT_FILENO);
        dup2(fds[1], STDERR_FILENO);
        close(fds[0]);
        close(fds[1]);
        std::string path = exe;
        std::vector<char *> argv{path.data()};
        for (auto &a : args) {
            argv.push_back(a.data());
        }
        argv.push_back(nullptr);
        execvp(path.c_str(), argv.data());
        _exit(127);
    }
    close(fds[1]);
    return {pid, fds[0]};
}

// Waits for pid's end: its exit code, or 128 + the signal that ended it.
inline int Reap(pid_t pid)
{
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Runs exe with args to its end (killed after timeoutMs) and collects its
// standard output and error.
inline ProgramRun RunProgram(const std::string &exe, std::vector<std::string> args, int timeoutMs = 60000)
{
    ProgramRun run;
    const auto [pid, out] = Spawn(exe, std::move(args));
    if (pid < 0) {
        return run;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    run.output = pplus_test::ReadAll(out, std::chrono::milliseconds(timeoutMs));
    if (MsLeft(deadline) == 0) {
        kill(pid, SIGKILL);
    }
    close(out);
    run.status = Reap(pid);
    return run;
}

// A fresh folder for one host's datastore: "<dir>/yangdb.sock" and
// "<dir>/running.xml".
inline std::string NewDatastoreDir()
{
    // One root per test process, removed with everything in it when the process ends.
    struct Root {
        std::string path = "/tmp/pplus-e2e-" + std::to_string(getpid());
        ~Root()
        {
            std::error_code ec;
            std::filesystem::remove_all(path, ec);
        }
    };
    static const Root root;
    static std::atomic<int> serial{0};
    const std::string dir = root.path + "/" + std::to_string(serial++);
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    std::filesystem::create_directories(dir, ec);
    return dir;
}

inline std::vector<std::string> DatastoreArgs(const std::string &dir)
{
    return {"--yangdb-socket", dir + "/yangdb.sock", "--yangdb-store", dir + "/running.xml"};
}

// A host never touches the system's datastore from a test: without its own
// --yangdb-store it gets a fresh private one.
inline std::vector<std::string> WithPrivateDatastore(std::vector<std::string> args)
{
    if (std::find(args.begin(), args.end(), "--yangdb-store") == args.end()) {
        const auto more = DatastoreArgs(NewDatastoreDir());
        args.insert(args.end(), more.begin(), more.end());
    }
    return args;
}

// The host run to its end, as for a replay.
inline ProgramRun RunHost(std::vector<std::string> args, int timeoutMs = 60000)
{
    return RunProgram(PPLUS_BUILD_DIR "/bin/pppoe-plus-switch", WithPrivateDatastore(std::move(args)), timeoutMs);
}

// pppoe-plus-cli run to its end: exit code, standard output and error. With
// dir, against the host whose sockets are dir's "yangdb.sock" and "control.sock".
inline ProgramRun Cli(std::vector<std::string> args, const std::string &dir = "")
{
    if (!dir.empty()) {
        args.insert(args.begin(), {"--socket", dir + "/yangdb.sock", "--control", dir + "/control.sock"});
    }
    return RunProgram(PPLUS_BUILD_DIR "/bin/pppoe-plus-cli", std::move(args), 30000);
}

// The frames of a capture, as text (Circuit-IDs are printable); none when
// the file cannot be read as Ethernet.
inline std::vector<std::string> Frames(const std::string &path)
{
    std::vector<std::string> frames;
    char err[PCAP_ERRBUF_SIZE];
    pcap_t *p = pcap_open_offline(path.c_str(), err);
    if (p == nullptr) {
        return frames;
    }
    pcap_pkthdr *h = nullptr;
    const u_char *d = nullptr;
    while (pcap_datalink(p) == DLT_EN10MB && pcap_next_ex(p, &h, &d) == 1) {
        frames.emplace_back(reinterpret_cast<const char *>(d), h->caplen);
    }
    pcap_close(p);
    return frames;
}

class Host {
public:
    explicit Host(std::vector<std::string> args, const char *cwd = nullptr)
    {
        std::tie(pid_, out_) =
            Spawn(PPLUS_BUILD_DIR "/bin/pppoe-plus-switch", WithPrivateDatastore(std::move(args)), cwd);
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

    // Reads output until text appears (at or after offset from) or timeoutMs passes.
    bool WaitForOutput(const std::string &text, int timeoutMs, size_t from = 0)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (output_.find(text, from) == std::string::npos) {
            if (!ReadSome(out_, &output_, MsLeft(deadline))) {
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
        while (ReadSome(out_, &output_, 10000)) {
        }
        exited_ = true;
        return Reap(pid_);
    }

    const std::string &Output() const { return output_; }

private:
    pid_t pid_ = -1;
    int out_ = -1;
    bool exited_ = false;
    std::string output_;
};

// A test with a fresh folder of its own (named after its suite) under the
// system's temporary folder, removed when the test ends.
class TempDirTest : public testing::Test {
protected:
    void SetUp() override
    {
        const std::string suite = testing::UnitTest::GetInstance()->current_test_info()->test_suite_name();
        dir_ = std::filesystem::temp_directory_path() / ("pplus-" + suite + "-" + std::to_string(getpid()));
        std::filesystem::remove_all(dir_);
        std::filesystem::create_directories(dir_);
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    std::filesystem::path dir_;
};

}  // namespace pplus_e2e
