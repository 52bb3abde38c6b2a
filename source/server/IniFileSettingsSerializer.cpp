#include "server/IniFileSettingsSerializer.h"

#include "korlo/stl/DelimitedStreamBuf.h"

namespace korlo::settings::server
{

void IniFileSettingsSerializer::OnSerialize(const core::IniFile& ini, const common::GroupNameMatcher& groups,
                                            std::ostream& out) const
{
    GroupNameCollection matched;
    groups.GetMatchingGroups(ini, matched);
    for (const std::string& group : matched)
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
