#include "IniText.h"

#include <sstream>

#include "korlo/core/Logger.h"

namespace korlo::settings::cli
{
namespace
{

core::Logger& ReaderLog()
{
    static core::Logger* const pLogger = core::Logger::GetLogger("IniFile");
    return *pLogger;
}

}  // namespace

QuietReading::QuietReading() : _threshold(ReaderLog().GetThreshold())
{
    ReaderLog().SetThreshold(0);
}

QuietReading::~QuietReading()
{
    ReaderLog().SetThreshold(_threshold);
}

core::IniFile ReadQuietly(const std::string& text)
{
    const QuietReading quiet;
    core::IniFile document;
    document.LoadFromString(text);
    return document;
}

std::string TextOf(const core::IniFile& document)
{
    std::ostringstream out;
    document.SaveToStream(out);
    return std::move(out).str();
}

std::string NameToken(const std::string& group)
{
    core::IniFile document;
    document[group];
    const std::string header = TextOf(document);
    return header.substr(1, header.size() - std::string_view("[]\n").size());
}

}  // namespace korlo::settings::cli
