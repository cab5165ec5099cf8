// Listening unix stream sockets of the switch (the control socket, the
// datastore socket) with the same access whatever the caller's umask: the
// socket file is 0660, owned by the user running the switch and by its
// group, or by the group named (--group), so that the owner and the
// members of that group may connect and nobody else.
#pragma once

#include <string>

namespace host {

struct SocketAccess {
    std::string group;  // group that may connect besides the owner; empty: the owner's group
};

inline constexpr unsigned kSocketMode = 0660;

// Creates the folder of path if needed (0755), refuses a path where a live
// server answers ("another server listens on PATH"), replaces a stale
// socket file, binds, applies the access and listens. The descriptor
// (non-blocking, close-on-exec), or -1 with *error.
int ListenUnix(const std::string &path, const SocketAccess &access, int backlog, std::string *error);

// The group id of a group name; false with *error when there is none.
bool GroupId(const std::string &name, unsigned *gid, std::string *error);

}  // namespace host
