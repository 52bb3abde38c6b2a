#include "settings/SettingLocator.h"

#include <vector>

#include "korlo/core/StringUtil.h"
#include "korlo/osa/Exception.h"

namespace korlo::settings
{

SettingLocator::SettingLocator(const std::string& group_, const std::string& key_) : group(group_), key(key_)
{
}

SettingLocator::SettingLocator(const std::string& text)
{
    constexpr unsigned int pieceCount = 3;  // what precedes the group, the group, the key
    std::vector<std::string> pieces;
    core::StringUtil::Split(pieces, text, "[]", pieceCount);
    if (pieces.size() != pieceCount)
    {
        throw osa::Exception("Failed to parse '%s' as a SettingLocator", text.c_str());
    }
    group = pieces[1];
    key = pieces[2];
}

}  // namespace korlo::settings
