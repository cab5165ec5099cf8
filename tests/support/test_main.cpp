// Runs every suite from the folder of its executable, so that the module's
// "../lib/libwick.so" is the build's own library.
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
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
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
