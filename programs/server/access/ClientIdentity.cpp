#include "access/ClientIdentity.h"

#include "NumberText.h"

namespace korlo::daemon
{
namespace
{

bool IsNumber(const std::string& text)
{
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

template <typename Id>
std::optional<Id> IdOf(const std::string& digits)
{
    const std::optional<Id> id = NumberIn<Id>(digits);
    return id != static_cast<Id>(-1) ? id : std::nullopt;  // -1 means "none" to the system
}

}  // namespace

std::optional<uid_t> UserIdOf(const std::string& nameOrDigits, const IUserDatabase& users)
{
    return IsNumber(nameOrDigits) ? IdOf<uid_t>(nameOrDigits) : users.FindUser(nameOrDigits);
}

std::optional<gid_t> GroupIdOf(const std::string& nameOrDigits, const IUserDatabase& users)
{
    return IsNumber(nameOrDigits) ? IdOf<gid_t>(nameOrDigits) : users.FindGroup(nameOrDigits);
}

std::optional<ClientIdentity> IdentityOf(const std::string& userOrDigits, const IUserDatabase& users)
{
    const std::optional<uid_t> user = UserIdOf(userOrDigits, users);
    if (!user)
    {
        return std::nullopt;
    }
    return ClientIdentity{user, users.GetGroupsOf(*user), true};
}

}  // namespace korlo::daemon
