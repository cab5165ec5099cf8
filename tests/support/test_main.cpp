// Runs every suite from the folder of its executable, so that the module's
// "../lib/libwick.so" is the build's own library, and with the build's
// libydbc.so loaded, so that the module's bare-name dlopen of it finds the
// library already loaded (under a sanitizer the dlopen interceptor is the
// caller, and its run path does not hold our lib/). No suite needs
// LD_LIBRARY_PATH.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <string>

int main(int argc, char **argv)
{
    char self[PATH_MAX] = {};
    ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (n > 0) {
        std::string dir(self, static_cast<size_t>(n));
        dir.erase(dir.rfind('/'));
        if (chdir(dir.c_str()) != 0) {
            return 2;
        }
    }
    if (access("../lib/libydbc.so", F_OK) == 0 && dlopen("../lib/libydbc.so", RTLD_NOW | RTLD_GLOBAL) == nullptr) {
        std::fprintf(stderr, "cannot load ../lib/libydbc.so: %s\n", dlerror());
        return 2;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
