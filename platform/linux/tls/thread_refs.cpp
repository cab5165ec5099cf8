// The pointers of core/thread_ref.hpp, in a library of their own: a few
// words of thread-local storage that libplatform reads in the initial-exec
// model. Whoever opens libplatform late (after a program's start) gets this
// library's words from the small room glibc keeps for such libraries, while
// libplatform's own (larger) thread-local state stays in the general model.
#include "core/thread_ref.hpp"

namespace platform::internal {

constinit thread_local void *t_threadRefs[kThreadRefCount] = {};

}  // namespace platform::internal
