// Listening unix stream sockets of the switch (the host's control socket,
// the datastore's socket) with the same access whatever the umask: the
// socket file is 0660, owned by the user running the switch and by its
// group, or by the group named (--group), so that the owner and the
// members of that group may connect and nobody else.
#pragma once

#include <filesystem>
#include <string>

namespace device::sockets {

struct SocketAccess {
    std::string group;  // group that may connect besides the owner; empty: the owner's group
};

inline constexpr unsigned kSocketMode = 0660;

// Creates the folder of path if needed (0755), refuses a path where a live
// server answers ("another <who> is listening on PATH"), replaces a stale
// socket file, binds, applies the access and listens. The descriptor
// (non-blocking, close-on-exec), or -1 with *error.
int ListenUnix(const std::string &path, const SocketAccess &access, int backlog, const std::string &who,
               std::string *error);

// Creates dir with mode (whatever the umask) and its missing parents with
// 0755; folders that exist are left as they are. False with *error.
bool MakeFolders(const std::filesystem::path &dir, unsigned mode, std::string *error);

// The group id of a group name; false with *error when there is none.
bool GroupId(const std::string &name, unsigned *gid, std::string *error);

}  // namespace device::sockets
