// The client side of the host's control socket, shared by pppoe-plus-cli
// and the host itself (the default path).
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "control.hpp"

namespace host {

namespace {

constexpr int kReplyTimeoutMs = 10000;

// A descriptor closed on every path.
class Fd {
public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd()
    {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

}  // namespace

std::string DefaultControlPath()
{
    const char *runtimeDir = std::getenv("XDG_RUNTIME_DIR");
    const std::string dir = runtimeDir != nullptr && runtimeDir[0] != '\0' ? runtimeDir : "/tmp";
    return dir + "/pppoe-plus-switch.sock";
}

bool ControlRequest(const std::string &path, const std::string &line, std::string *reply, std::string *error)
{
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof(addr.sun_path)) {
        *error = "control socket path too long: " + path;
        return false;
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    const Fd sock(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (sock.get() < 0) {
        *error = std::string("cannot create a socket: ") + std::strerror(errno);
        return false;
    }
    if (connect(sock.get(), reinterpret_cast<const sockaddr *>(&addr), sizeof(addr)) != 0) {
        *error = "cannot reach pppoe-plus-switch at " + path + ": " + std::strerror(errno) +
                 " (is the host running, with --control " + path + "?)";
        return false;
    }
    const std::string request = line + "\n";
    size_t sent = 0;
    while (sent < request.size()) {
        const ssize_t n = send(sock.get(), request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) {
            *error = std::string("cannot send the command: ") + std::strerror(errno);
            return false;
        }
        sent += static_cast<size_t>(n);
    }
    // A replay answers once it is done, however long its capture.
    const int timeoutMs = line.rfind("port replay", 0) == 0 ? -1 : kReplyTimeoutMs;
    reply->clear();
    for (;;) {
        pollfd p = {sock.get(), POLLIN, 0};
        if (poll(&p, 1, timeoutMs) <= 0) {
            *error = "no reply from pppoe-plus-switch";
            return false;
        }
        char buf[4096];
        const ssize_t n = read(sock.get(), buf, sizeof(buf));
        if (n < 0) {
            *error = std::string("cannot read the reply: ") + std::strerror(errno);
            return false;
        }
        if (n == 0) {
            break;
        }
        reply->append(buf, static_cast<size_t>(n));
    }
    if (reply->empty()) {
        *error = "empty reply from pppoe-plus-switch";
        return false;
    }
    return true;
}

}  // namespace host
