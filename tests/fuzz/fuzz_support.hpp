// What the fuzz targets share: an invariant check that traps (libFuzzer
// keeps the input), and running from the target's own folder so that the
// build's "../lib/" is where the module and the platform look.
#pragma once

#include <unistd.h>

#include <climits>
#include <string>

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

}  // namespace pplus_fuzz
