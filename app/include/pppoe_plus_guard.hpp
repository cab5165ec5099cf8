// Runs a release action on every path out of a scope.
#pragma once

#include <utility>

template <typename Release>
class PppoePlusScopeExit {
public:
    explicit PppoePlusScopeExit(Release release) : release_(std::move(release)) {}
    ~PppoePlusScopeExit() { release_(); }
    PppoePlusScopeExit(const PppoePlusScopeExit &) = delete;
    PppoePlusScopeExit &operator=(const PppoePlusScopeExit &) = delete;

private:
    Release release_;
};
