#include <algorithm>
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

/// The keys of `document` that `other` does not have with the same value. A group without any is left out.
IniFile Without(const IniFile& other, const IniFile& document)
{
    IniFile rest;
    for (const auto& [group, values] : document)
    {
        const auto counterpart = other.Find(group);
        for (const auto& [key, value] : values)
        {
            if (counterpart != other.end())
            {
                const auto same = counterpart->second.find(key);
                if (same != counterpart->second.end() && same->second == value)
                {
                    continue;
                }
            }
            rest.SetValue(group, key, value);
        }
    }
    return rest;
}

/// The lines of one group of a document that has no other: its header is left out.
std::vector<std::string> KeyLines(const IniFile& document, const std::string& group)
{
    std::stringstream text;
    document.SaveGroupToStream(text, group);
    std::vector<std::string> lines;
    std::string line;
    for (std::getline(text, line); std::getline(text, line);)
    {
        lines.push_back(line);
    }
    return lines;
}

/// What is gone behind '-' and what has come behind '+', a changed key in lines next to each other, below the names of
/// their groups.
std::string TextOf(const IniFile& gone, const IniFile& come)
{
    GroupNameCollection groups = common::GroupNamesOf(gone);
    groups.merge(common::GroupNamesOf(come));
    static const IniFile::KeyValueMap nothing;
    std::string text;
    for (const std::string& group : groups)
    {
        const auto goneGroup = gone.Find(group);
        const auto comeGroup = come.Find(group);
        const IniFile::KeyValueMap& before = goneGroup == gone.end() ? nothing : goneGroup->second;
        const IniFile::KeyValueMap& after = comeGroup == come.end() ? nothing : comeGroup->second;
        const std::vector<std::string> goneLines = KeyLines(gone, group);
        const std::vector<std::string> comeLines = KeyLines(come, group);
        text += '[' + NameToken(group) + "]\n";
        auto goneLine = goneLines.begin();
        auto comeLine = comeLines.begin();
        auto old = before.begin();
        auto fresh = after.begin();
        while (old != before.end() || fresh != after.end())
        {
            const bool hasOld = fresh == after.end() || (old != before.end() && old->first <= fresh->first);
            const bool hasFresh = old == before.end() || (fresh != after.end() && fresh->first <= old->first);
            if (hasOld)
            {
                text += '-' + *goneLine++ + '\n';
                ++old;
            }
            if (hasFresh)
            {
                text += '+' + *comeLine++ + '\n';
                ++fresh;
            }
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
    const IniFile gone = Without(now, defaults);
    const IniFile come = Without(defaults, now);
    WriteOutput(invocation.asJson ? JsonOf(ValueOf(gone, come)) : TextOf(gone, come));
    return gone.empty() && come.empty() ? StatusDone : StatusNo;
}

}  // namespace korlo::settings::cli
