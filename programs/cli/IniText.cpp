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

std::string NameToken(const std::string& group)
{
    return control::QuotedName(group);
}

}  // namespace korlo::settings::cli
