#include "IniText.h"

#include <utility>

#include "ControlProtocol.h"
#include "korlo/core/Logger.h"
#include "korlo/stl/TextStream.h"

namespace korlo::settings::cli
{

core::IniFile ReadQuietly(const std::string& text)
{
    static core::Logger* const pLog = core::Logger::GetLogger("IniFile");
    const int threshold = pLog->GetThreshold();
    pLog->SetThreshold(0);
    core::IniFile document;
    document.LoadFromString(text);
    pLog->SetThreshold(threshold);
    return document;
}

std::string TextOf(const core::IniFile& document)
{
    stl::TextStream out;
    document.SaveToStream(out);
    return std::move(out).str();
}

core::IniFile ChangedValues(const core::IniFile& before, const core::IniFile& after)
{
    core::IniFile changed;
    for (const auto& [group, values] : after)
    {
        for (const auto& [key, value] : values)
        {
            if (!before.HasValue(group, key) || before.GetValue(group, key) != value)
            {
                changed.SetValue(group, key, value);
            }
        }
    }
    return changed;
}

std::string NameToken(const std::string& group)
{
    return control::QuotedName(group);
}

}  // namespace korlo::settings::cli
