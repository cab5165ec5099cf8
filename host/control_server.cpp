// The control socket's event loop (see control_server.hpp). One thread
// polls the listening socket, every connection and a wake-up eventfd;
// connections are non-blocking, each in one of three states: reading its
// command line, waiting for its command (which runs on a thread of its own
// and hands its reply back through the wake-up descriptor), writing the
// reply. Nothing a client does blocks the loop.
#include "control_server.hpp"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace host {

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kBacklog = 128;
constexpr size_t kReadChunk = 1024;

enum class Phase { kReading, kRunning, kWriting };

struct Conn {
    int fd = -1;
    uint64_t id = 0;
    Phase phase = Phase::kReading;
    std::string in;
    std::string out;
    size_t sent = 0;
    Clock::time_point deadline;
};

std::string Error(const std::string &why)
{
    return "error: " + why + "\n";
}

std::string Seconds(std::chrono::milliseconds ms)
{
    const auto tenths = ms.count() / 100;
    return std::to_string(tenths / 10) + (tenths % 10 != 0 ? "." + std::to_string(tenths % 10) : "") + " s";
}

// Best effort: a message to a client about to be closed, without waiting.
void Tell(int fd, const std::string &text)
{
    (void)!::send(fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

}  // namespace

struct ControlServer::State {
    std::string path;
    ControlHooks hooks;
    ControlServerLimits limits;
    int listenFd = -1;
    int wakeFd = -1;
    std::thread loop;

    // Loop thread only.
    std::vector<Conn> conns;
    uint64_t nextId = 1;

    std::mutex mu;  // guards the members below
    bool stopping = false;
    std::deque<std::pair<uint64_t, std::string>> replies;  // of finished commands
    std::map<uint64_t, std::thread> commands;              // running or finished, not joined
    std::vector<uint64_t> finished;

    void Wake() const { (void)eventfd_write(wakeFd, 1); }

    void Serve();
    void Accept();
    void Read(Conn &conn);
    void Write(Conn &conn);
    void StartCommand(Conn &conn, std::string line);
    void TakeReplies();
    void Reply(Conn &conn, std::string text);
    void Expire(Clock::time_point now);
    int PollTimeoutMs(Clock::time_point now) const;
    void JoinFinished();
};

void ControlServer::State::Reply(Conn &conn, std::string text)
{
    conn.phase = Phase::kWriting;
    conn.out = std::move(text);
    conn.sent = 0;
    conn.deadline = Clock::now() + limits.writeTimeout;
    Write(conn);
}

void ControlServer::State::StartCommand(Conn &conn, std::string line)
{
    conn.phase = Phase::kRunning;
    conn.in.clear();
    const uint64_t id = conn.id;
    std::lock_guard lock(mu);
    commands.emplace(id, std::thread([this, id, line = std::move(line)]() {
                         std::string reply = RunControlCommand(line, hooks);
                         {
                             std::lock_guard inner(mu);
                             replies.emplace_back(id, std::move(reply));
                             finished.push_back(id);
                         }
                         Wake();
                     }));
}

void ControlServer::State::Accept()
{
    for (;;) {
        const int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) {
            return;  // EAGAIN: all taken; anything else: try again at the next event
        }
        if (conns.size() >= limits.maxConnections) {
            // Room is made by closing the oldest client still sending its
            // line; clients whose commands run are never cut off.
            const auto oldest = std::find_if(conns.begin(), conns.end(),
                                             [](const Conn &c) { return c.phase == Phase::kReading; });
            const std::string full = "too many connections (" + std::to_string(limits.maxConnections) + " open)";
            if (oldest == conns.end()) {
                Tell(fd, Error(full + ", every one with a command running; try again later"));
                ::close(fd);
                continue;
            }
            Tell(oldest->fd, Error(full + ": this one, the oldest without a command line, is closed"));
            ::close(oldest->fd);
            conns.erase(oldest);
        }
        Conn conn;
        conn.fd = fd;
        conn.id = nextId++;
        conn.deadline = Clock::now() + limits.readTimeout;
        conns.push_back(std::move(conn));
    }
}

void ControlServer::State::Read(Conn &conn)
{
    char buf[kReadChunk];
    for (;;) {
        const ssize_t n = ::recv(conn.fd, buf, sizeof(buf), 0);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            if (errno != EAGAIN && errno != EWOULDBLOCK) {
                conn.phase = Phase::kWriting;  // unusable: closed below
                conn.out.clear();
            }
            return;
        }
        if (n == 0) {
            // The client closed its side: what it sent is its command.
            if (conn.in.empty()) {
                conn.phase = Phase::kWriting;
                conn.out.clear();
            } else {
                StartCommand(conn, std::move(conn.in));
            }
            return;
        }
        conn.in.append(buf, static_cast<size_t>(n));
        const size_t newline = conn.in.find('\n');
        if (newline != std::string::npos && newline <= limits.maxLine) {
            StartCommand(conn, conn.in.substr(0, newline));
            return;
        }
        if (conn.in.size() > limits.maxLine) {
            Reply(conn, Error("command line longer than " + std::to_string(limits.maxLine) + " bytes"));
            return;
        }
    }
}

void ControlServer::State::Write(Conn &conn)
{
    while (conn.sent < conn.out.size()) {
        const ssize_t n = ::send(conn.fd, conn.out.data() + conn.sent, conn.out.size() - conn.sent,
                                 MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return;
        }
        if (n <= 0) {
            conn.out.clear();  // the client is gone
            conn.sent = 0;
            return;
        }
        conn.sent += static_cast<size_t>(n);
    }
}

void ControlServer::State::TakeReplies()
{
    eventfd_t ignored = 0;
    (void)eventfd_read(wakeFd, &ignored);
    std::deque<std::pair<uint64_t, std::string>> ready;
    {
        std::lock_guard lock(mu);
        ready.swap(replies);
    }
    for (auto &[id, text] : ready) {
        const auto conn = std::find_if(conns.begin(), conns.end(), [id = id](const Conn &c) { return c.id == id; });
        if (conn != conns.end()) {
            Reply(*conn, std::move(text));
        }
    }
    JoinFinished();
}

void ControlServer::State::JoinFinished()
{
    std::vector<std::thread> done;
    {
        std::lock_guard lock(mu);
        for (uint64_t id : finished) {
            const auto it = commands.find(id);
            if (it != commands.end()) {
                done.push_back(std::move(it->second));
                commands.erase(it);
            }
        }
        finished.clear();
    }
    for (std::thread &t : done) {
        t.join();
    }
}

void ControlServer::State::Expire(Clock::time_point now)
{
    for (Conn &conn : conns) {
        if (conn.phase == Phase::kReading && now >= conn.deadline) {
            Reply(conn, Error("no command line received within " + Seconds(limits.readTimeout)));
        } else if (conn.phase == Phase::kWriting && now >= conn.deadline) {
            conn.out.clear();  // the client does not take its reply: give up on it
            conn.sent = 0;
        }
    }
}

int ControlServer::State::PollTimeoutMs(Clock::time_point now) const
{
    auto next = Clock::time_point::max();
    for (const Conn &conn : conns) {
        if (conn.phase != Phase::kRunning) {
            next = std::min(next, conn.deadline);
        }
    }
    if (next == Clock::time_point::max()) {
        return -1;
    }
    const auto ms = std::chrono::ceil<std::chrono::milliseconds>(next - now).count();
    return static_cast<int>(std::clamp<long long>(ms, 0, 60000));
}

void ControlServer::State::Serve()
{
    std::vector<pollfd> fds;
    for (;;) {
        {
            std::lock_guard lock(mu);
            if (stopping) {
                break;
            }
        }
        fds.assign({{listenFd, POLLIN, 0}, {wakeFd, POLLIN, 0}});
        for (const Conn &conn : conns) {
            // A connection whose command runs is not watched (a hang-up
            // would wake the loop for nothing until the reply is ready).
            if (conn.phase == Phase::kRunning) {
                fds.push_back({-1, 0, 0});
            } else {
                const short events = conn.phase == Phase::kReading ? POLLIN : POLLOUT;
                fds.push_back({conn.fd, events, 0});
            }
        }
        if (::poll(fds.data(), fds.size(), PollTimeoutMs(Clock::now())) < 0 && errno != EINTR) {
            break;
        }
        // Connections first (their slots match fds from 2 on), then the new ones.
        for (size_t i = 0; i < conns.size(); i++) {
            Conn &conn = conns[i];
            const short revents = fds[i + 2].revents;
            if (revents == 0) {
                continue;
            }
            if (conn.phase == Phase::kReading && (revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
                Read(conn);
            } else if (conn.phase == Phase::kWriting && (revents & (POLLOUT | POLLHUP | POLLERR)) != 0) {
                Write(conn);
            }
        }
        if ((fds[1].revents & POLLIN) != 0) {
            TakeReplies();
        }
        Expire(Clock::now());
        // Replies handed over (or given up) end their connections.
        std::erase_if(conns, [](const Conn &c) {
            const bool done = c.phase == Phase::kWriting && c.sent >= c.out.size();
            if (done) {
                ::close(c.fd);
            }
            return done;
        });
        if ((fds[0].revents & POLLIN) != 0) {
            Accept();
        }
    }
    for (const Conn &conn : conns) {
        ::close(conn.fd);
    }
    conns.clear();
}

ControlServer::ControlServer() : state_(std::make_unique<State>()) {}

ControlServer::~ControlServer()
{
    Stop();
}

bool ControlServer::Start(const std::string &path, const ControlHooks &hooks, std::string *error,
                          const device::sockets::SocketAccess &access, const ControlServerLimits &limits)
{
    const int fd = device::sockets::ListenUnix(path, access, kBacklog, "pppoe-plus-switch", error);
    if (fd < 0) {
        return false;
    }
    state_->wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (state_->wakeFd < 0) {
        *error = "cannot create an eventfd";
        ::close(fd);
        ::unlink(path.c_str());
        return false;
    }
    state_->path = path;
    state_->hooks = hooks;
    state_->limits = limits;
    state_->listenFd = fd;
    state_->loop = std::thread([state = state_.get()]() { state->Serve(); });
    return true;
}

void ControlServer::Stop()
{
    if (!state_->loop.joinable()) {
        return;
    }
    {
        std::lock_guard lock(state_->mu);
        state_->stopping = true;
    }
    state_->Wake();
    state_->loop.join();
    // Commands still running finish on their own (a replay stops with the
    // host's ports); their replies go nowhere.
    std::map<uint64_t, std::thread> running;
    {
        std::lock_guard lock(state_->mu);
        running.swap(state_->commands);
    }
    for (auto &[id, thread] : running) {
        thread.join();
    }
    ::close(state_->listenFd);
    ::close(state_->wakeFd);
    ::unlink(state_->path.c_str());
}

}  // namespace host
