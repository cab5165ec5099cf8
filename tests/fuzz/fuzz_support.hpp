// What the fuzz targets share: an invariant check that traps (libFuzzer
// keeps the input), running from the target's own folder so that the
// build's "../lib/" is where the module and the platform look, and the
// identity of the switch the module's targets run on.
#pragma once

#include <unistd.h>

#include <climits>
#include <string>

#include "platform/world.hpp"

namespace pplus_fuzz {

inline void Require(bool holds)
{
    if (!holds) {
        __builtin_trap();
    }
}

inline void RunFromOwnFolder()
{
    char self[PATH_MAX] = {};
    const ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    Require(n > 0);
    std::string dir(self, static_cast<size_t>(n));
    dir.erase(dir.rfind('/'));
    Require(chdir(dir.c_str()) == 0);
}

// An empty single-box switch "FuzzSwitch" (00e0-fc01-0203) whose device
// database answers.
inline void UseFuzzSwitch()
{
    platform::world::Reset();
    platform::world::SetIdentity({.sysName = "FuzzSwitch", .sysMac = {0x00, 0xe0, 0xfc, 0x01, 0x02, 0x03}});
    platform::world::SetDevmReady(true);
}

}  // namespace pplus_fuzz
