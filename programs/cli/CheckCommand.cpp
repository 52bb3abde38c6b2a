#include "Commands.h"
#include "Json.h"
#include "StandardStreams.h"
#include "korlo/osa/Exception.h"

namespace korlo::settings::cli
{
namespace
{

using BadLines = std::vector<std::pair<std::string, core::IniFile::BadLine>>;

/// False when the file cannot be read.
bool Check(const std::string& file, BadLines& found)
{
    try
    {
        for (const core::IniFile::BadLine& line : core::IniFile::FindBadLines(file.c_str()))
        {
            found.emplace_back(file, line);
        }
        return true;
    }
    catch (const osa::Exception& error)
    {
        WriteMessage(Reason(error.what()));
        return false;
    }
}

std::string TextOf(const BadLines& badLines)
{
    std::string text;
    for (const auto& [file, line] : badLines)
    {
        text += file + ':' + std::to_string(line.number) + ": " + line.reason + '\n';
    }
    return text;
}

}  // namespace

ExitStatus RunCheck(const Invocation& invocation)
{
    BadLines badLines;
    bool allRead = true;
    for (const std::string& file : invocation.operands)
    {
        allRead = Check(file, badLines) && allRead;
    }
    WriteOutput(invocation.asJson ? JsonOf(badLines) : TextOf(badLines));
    if (!allRead)
    {
        return StatusUnusable;
    }
    return badLines.empty() ? StatusDone : StatusNo;
}

}  // namespace korlo::settings::cli
