// A stream connection to a Unix socket, and reading what a pipe or socket
// yields, with a deadline.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>

namespace pplus_test {

// A socket connected to path; -1 when nothing listens there.
inline int ConnectUnix(const std::string &path)
{
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path.c_str(), std::min(path.size() + 1, sizeof(addr.sun_path)));
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof(addr)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// Milliseconds left until deadline; 0 once it has passed.
inline int MsLeft(std::chrono::steady_clock::time_point deadline)
{
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    return std::max(0, static_cast<int>(left.count()));
}

// Appends what fd yields within timeoutMs to text; false when nothing came
// in time or the writer closed its end.
inline bool ReadSome(int fd, std::string *text, int timeoutMs)
{
    pollfd p{fd, POLLIN, 0};
    if (timeoutMs <= 0 || poll(&p, 1, timeoutMs) <= 0) {
        return false;
    }
    char buf[4096];
    const ssize_t n = read(fd, buf, sizeof(buf));
    if (n <= 0) {
        return false;
    }
    text->append(buf, static_cast<size_t>(n));
    return true;
}

// What fd yields until its writer closes it or timeout passes.
inline std::string ReadAll(int fd, std::chrono::milliseconds timeout)
{
    std::string text;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (ReadSome(fd, &text, MsLeft(deadline))) {
    }
    return text;
}

}  // namespace pplus_test
