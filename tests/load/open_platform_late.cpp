// Opens libplatform (path in argv[1]) in a program that does not link it,
// after its start: what happens when a client library opened later brings
// libplatform in. glibc then has only a little room left in the initial
// thread-local block, so libplatform's own thread-local state must not ask
// for it. Exit 0 when the library loads and its symbols resolve.
#include <dlfcn.h>

#include <cstdio>

int main(int argc, char **argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: open_platform_late LIBRARY\n");
        return 2;
    }
    void *lib = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (lib == nullptr) {
        std::fprintf(stderr, "open_platform_late: %s\n", dlerror());
        return 1;
    }
    if (dlsym(lib, "RUK_MemAlloc_F") == nullptr) {
        std::fprintf(stderr, "open_platform_late: %s\n", dlerror());
        return 1;
    }
    return 0;
}
