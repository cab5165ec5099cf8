// Selector-role authorisation: the platform only records the role a
// service declares, for inspection.
#include <cstring>
#include <mutex>
#include <optional>

#include "core/internal.hpp"
#include "ddm.h"
#include "platform/fail_point.hpp"
#include "platform/tirn.hpp"

namespace {

struct Roles {
    std::mutex mu;
    std::optional<DDM_SELECTOR_ROLE_S> last;
};

Roles &TheRoles()
{
    return platform::internal::Leaky<Roles>();
}

bool Named(const char (&text)[16])
{
    return text[0] != '\0' && std::memchr(text, '\0', sizeof(text)) != nullptr;
}

}  // namespace

namespace platform::tirn {

std::optional<DDM_SELECTOR_ROLE_S> LastSelectorRole()
{
    Roles &roles = TheRoles();
    std::lock_guard lock(roles.mu);
    return roles.last;
}

}  // namespace platform::tirn

extern "C" uint32_t DDM_AuthorizeSetSelectorRole(const DDM_SELECTOR_ROLE_S *role)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (role == nullptr || !Named(role->serviceName) || !Named(role->roleName)) {
        return DDM_ERR_PARAM;
    }
    Roles &roles = TheRoles();
    std::lock_guard lock(roles.mu);
    roles.last = *role;
    return DDM_OK;
}
