#include "server/IniFileSettingsSerializer.h"

#include "korlo/stl/DelimitedStreamBuf.h"

namespace korlo::settings::server
{

void IniFileSettingsSerializer::OnSerialize(const core::IniFile& ini, const common::GroupNameMatcher& groups,
                                            std::ostream& out) const
{
    GroupNameCollection matched;
    const bool areNames = groups.GetPatterns().empty();
    if (!areNames)
    {
        groups.GetMatchingGroups(ini, matched);
    }
    for (const std::string& group : areNames ? groups.GetNames() : matched)  // one that is not there is not written
    {
        ini.SaveGroupToStream(out, group);
    }
}

void IniFileSettingsSerializer::OnDeserialize(std::istream& in, core::IniFile& ini) const
{
    stl::DelimitedStreamBuf block(&in, ".");
    ini.LoadFromStream(block);
}

}  // namespace korlo::settings::server
