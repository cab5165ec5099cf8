// A table of function pointers bound by name from a library the module
// opens at run time, and calls through it that answer a fixed default when
// the library lacks the function.
#pragma once

#include <dlfcn.h>

#include <type_traits>

template <auto &Table>
struct PppoePlusBoundLibrary {
    // Fills one pointer of the table from the library; null when missing.
    template <auto Member>
    static void Bind(void *lib, const char *symbol)
    {
        using Fn = std::remove_reference_t<decltype(Table.*Member)>;
        Table.*Member = reinterpret_cast<Fn>(dlsym(lib, symbol));
    }

    // Calls the bound function, or answers fallback when it is absent.
    template <auto Member, typename Result, typename... Args>
    static Result CallOr(Result fallback, Args... args)
    {
        const auto fn = Table.*Member;
        return fn != nullptr ? fn(args...) : fallback;
    }
};
