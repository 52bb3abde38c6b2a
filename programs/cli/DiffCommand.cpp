#include <map>
#include <sstream>

#include "Commands.h"
#include "ControlConnection.h"
#include "ControlProtocol.h"
#include "IniText.h"
#include "Json.h"
#include "Operands.h"
#include "StandardStreams.h"
#include "settings/common/GroupNameMatcher.h"
#include "settings/server/GroupDiscriminator.h"

namespace korlo::settings::cli
{
namespace
{

using core::IniFile;
using nlohmann::json;
using server::GroupDiscriminator;

IniFile AskForDefaults(const std::string& control)
{
    try
    {
        return ControlConnection(control).Ask(control::Defaults);
    }
    catch (const ControlError& error)
    {
        throw Failure(StatusUnusable, "the server failed to give its defaults: " + Reason(error.what()));
    }
}

IniFile Unrestricted(IniFile document)
{
    GroupDiscriminator::FilterOutRestrictedGroups(document);
    return document;
}

/// The lines of one group of a document, without its header, by their keys.
std::map<std::string, std::string> LinesByKey(const IniFile& document, const std::string& group)
{
    std::map<std::string, std::string> lines;
    const auto values = document.Find(group);
    if (values == document.end())
    {
        return lines;
    }
    std::stringstream text;
    document.SaveGroupToStream(text, group);
    std::string line;
    std::getline(text, line);
    for (const auto& [key, value] : values->second)
    {
        std::getline(text, line);
        lines[key] = line + '\n';
    }
    return lines;
}

/// What is gone behind '-' and what has come behind '+', a changed key in lines next to each other, below the names of
/// their groups.
std::string TextOf(const IniFile& gone, const IniFile& come)
{
    GroupNameCollection groups = common::GroupNamesOf(gone);
    groups.merge(common::GroupNamesOf(come));
    std::string text;
    for (const std::string& group : groups)
    {
        std::map<std::string, std::string> lines;
        for (const auto& [key, line] : LinesByKey(gone, group))
        {
            lines[key] = '-' + line;
        }
        for (const auto& [key, line] : LinesByKey(come, group))
        {
            lines[key] += '+' + line;
        }
        text += '[' + NameToken(group) + "]\n";
        for (const auto& [key, linesOfKey] : lines)
        {
            text += linesOfKey;
        }
    }
    return text;
}

/// `{"Group": {"Key": {"default": VALUE-OR-NULL, "now": VALUE-OR-NULL}}}`
json ValueOf(const IniFile& gone, const IniFile& come)
{
    json value = json::object();
    const auto add = [&value](const IniFile& document, const char* name, const char* other) {
        for (const auto& [group, values] : document)
        {
            for (const auto& [key, text] : values)
            {
                json& entry = value[group][key];
                entry[name] = text;
                entry.emplace(other, json());
            }
        }
    };
    add(gone, "default", "now");
    add(come, "now", "default");
    return value;
}

}  // namespace

ExitStatus RunDiff(const Invocation& invocation)
{
    const GroupNameCollection patterns =
        invocation.operands.empty() ? GroupNameCollection{"*"} : NamesOf(invocation.operands);
    common::GroupNameMatcher matcher;
    matcher.AddNamesAndPatterns(patterns);
    IniFile defaults;
    matcher.MergeMatchingGroups(Unrestricted(AskForDefaults(invocation.control)), defaults);
    const IniFile now = Unrestricted(Session(invocation.target, Session::Reading).Read(patterns));
    if (!invocation.operands.empty() && defaults.empty() && now.empty())
    {
        WriteMessage("note: no group matches");
    }
    const IniFile gone = ChangedValues(now, defaults);
    const IniFile come = ChangedValues(defaults, now);
    WriteOutput(invocation.asJson ? JsonOf(ValueOf(gone, come)) : TextOf(gone, come));
    return gone.empty() && come.empty() ? StatusDone : StatusNo;
}

}  // namespace korlo::settings::cli
