// The calling thread's copy of one of libplatform's thread-local objects,
// reached through a pointer kept in the initial thread-local block.
//
// libplatform reaches its own thread-local state through TLS descriptors,
// since a program may open it after its start; each use then costs a call.
// That state is too large for the little room glibc keeps in the initial
// block for libraries opened late, but a few pointers to it are not: they
// live in a library of their own (libplatform_tls, tls/thread_refs.cpp),
// which the packet path reads with one load, taking the descriptor's call
// only on a thread's first use of an object.
//
//   thread_local Foo t_foo;
//   Foo *FooOfThread() { return &t_foo; }   // noinline: the slow path
//   ... ThreadRef<Foo, FooOfThread>(ThreadRefId::kFoo) ...
#pragma once

#include <cstddef>
#include <cstdint>

namespace platform::internal {

enum class ThreadRefId : uint32_t {
    kKnownBlocks,   // block_pool.hpp: the blocks a thread looked up last
    kBlockCache,    // block_pool.cpp: the thread's free blocks
    kDbObjects,     // db.cpp: the thread's released database objects
    kImRecords,     // im_agent.cpp: the thread's free diagnostic records
    kEpochSlot,     // epoch.cpp: the reader slot the thread claimed
    kKeptReads,     // db_object.hpp: kept keyed reads, one per table id
};
inline constexpr size_t kKeptReadTables = 16;
inline constexpr size_t kThreadRefCount = static_cast<size_t>(ThreadRefId::kKeptReads) + kKeptReadTables;

extern constinit __attribute__((tls_model("initial-exec"))) thread_local void *t_threadRefs[kThreadRefCount];

inline void *&ThreadRefSlot(ThreadRefId id, size_t offset = 0)
{
    return t_threadRefs[static_cast<size_t>(id) + offset];
}

template <typename T, T *(*Locate)()>
inline T &ThreadRef(ThreadRefId id, size_t offset = 0)
{
    void *&ref = ThreadRefSlot(id, offset);
    void *p = ref;
    if (p == nullptr) [[unlikely]] {
        p = Locate();
        ref = p;
    }
    return *static_cast<T *>(p);
}

}  // namespace platform::internal
