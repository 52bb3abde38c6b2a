#include "settings/RefusedException.h"

namespace korlo::settings
{
namespace
{

std::string Listed(const GroupNameCollection& groups)
{
    std::string text;
    for (const std::string& group : groups)
    {
        text += (text.empty() ? " for '" : ", '") + group + "'";
    }
    return text;
}

}  // namespace

RefusedException::RefusedException(const std::string& operation, const GroupNameCollection& groups)
    : osa::Exception("The settings server refused '%s': its access rules do not allow it to this client%s",
                     operation.c_str(), Listed(groups).c_str()),
      _groups(groups)
{
}

RefusedException::~RefusedException() = default;

}  // namespace korlo::settings
