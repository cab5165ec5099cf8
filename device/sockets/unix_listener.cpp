// Listening unix stream sockets with a fixed access (see device/sockets.hpp).
// The mode is set on the socket before bind, which the kernel masks with
// the umask, and set again on the file after bind, so that no umask ever
// leaves the file open to other users, not even for a moment.
#include "device/sockets.hpp"

#include <fcntl.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <vector>

namespace device::sockets {

namespace {

constexpr mode_t kFolderMode = 0755;

std::string Why(const std::string &what)
{
    return what + ": " + std::strerror(errno);
}

}  // namespace

bool MakeFolders(const std::filesystem::path &dir, unsigned mode, std::string *error)
{
    std::error_code ec;
    if (dir.empty() || std::filesystem::is_directory(dir, ec)) {
        return true;
    }
    if (!MakeFolders(dir.parent_path(), kFolderMode, error)) {
        return false;
    }
    if (::mkdir(dir.c_str(), mode) != 0 && errno != EEXIST) {
        *error = Why("cannot create " + dir.string());
        return false;
    }
    if (::chmod(dir.c_str(), mode) != 0) {
        *error = Why("cannot set the mode of " + dir.string());
        return false;
    }
    return true;
}

bool GroupId(const std::string &name, unsigned *gid, std::string *error)
{
    std::vector<char> buf(16384);
    group grp{};
    group *found = nullptr;
    const int rc = ::getgrnam_r(name.c_str(), &grp, buf.data(), buf.size(), &found);
    if (rc != 0 || found == nullptr) {
        *error = "no group named \"" + name + "\"";
        return false;
    }
    *gid = found->gr_gid;
    return true;
}

int ListenUnix(const std::string &path, const SocketAccess &access, int backlog, const std::string &who,
               std::string *error)
{
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(addr.sun_path)) {
        *error = "unusable socket path \"" + path + "\"";
        return -1;
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    unsigned gid = 0;
    if (!access.group.empty() && !GroupId(access.group, &gid, error)) {
        return -1;
    }
    if (!MakeFolders(std::filesystem::path(path).parent_path(), kFolderMode, error)) {
        return -1;
    }
    // A socket file no one answers on is left from an earlier run.
    struct stat st = {};
    if (::lstat(path.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) {
            *error = path + " exists and is no socket";
            return -1;
        }
        const int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const bool live =
            probe >= 0 && ::connect(probe, reinterpret_cast<const sockaddr *>(&addr), sizeof(addr)) == 0;
        if (probe >= 0) {
            ::close(probe);
        }
        if (live) {
            *error = "another " + who + " is listening on " + path;
            return -1;
        }
        ::unlink(path.c_str());
    }
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        *error = Why("cannot create a socket");
        return -1;
    }
    const auto fail = [&](const std::string &what) {
        *error = Why(what);
        ::close(fd);
        return -1;
    };
    if (::fchmod(fd, kSocketMode) != 0) {
        return fail("cannot set the mode of a socket");
    }
    if (::bind(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof(addr)) != 0) {
        return fail("cannot listen at " + path);
    }
    if (!access.group.empty() && ::chown(path.c_str(), static_cast<uid_t>(-1), gid) != 0) {
        ::unlink(path.c_str());
        return fail("cannot give " + path + " to group " + access.group);
    }
    if (::chmod(path.c_str(), kSocketMode) != 0 || ::listen(fd, backlog) != 0) {
        ::unlink(path.c_str());
        return fail("cannot listen at " + path);
    }
    return fd;
}

}  // namespace device::sockets
