#include "Commands.h"
#include "Operands.h"
#include "settings/common/GroupNameMatcher.h"
#include "settings/server/SettingsManager.h"

namespace korlo::settings::cli
{
namespace
{

using core::IniFile;

ExitStatus Merge(const Invocation& invocation, const IniFile& changes)
{
    Session session(invocation.target, Session::ChangingOrCreating);
    if (invocation.noPersist)
    {
        session.ChangeForNow(
            [&](KorloSettingsClient& client) { client.MergeSettings(changes, server::SettingsManager::DoNotPersist); });
    }
    else
    {
        session.Change(common::GroupNamesOf(changes),
                       [&](KorloSettingsClient& client) { client.MergeSettings(changes); });
    }
    return ReportRestricted(common::GroupNamesOf(changes));
}

}  // namespace

ExitStatus RunSet(const Invocation& invocation)
{
    const SettingLocator locator = ParseLocator(invocation.operands[0]);
    IniFile changes;
    changes.SetValue(locator.group, locator.key, invocation.operands[1]);
    return Merge(invocation, changes);
}

ExitStatus RunMerge(const Invocation& invocation)
{
    return Merge(invocation, ReadDocument(invocation.operands.empty() ? "-" : invocation.operands.front()));
}

ExitStatus RunTestAndMerge(const Invocation& invocation)
{
    if (invocation.operands[0] == "-" && invocation.operands[1] == "-")
    {
        throw Failure(StatusWrongCommandLine, "only one of two documents can come from standard input");
    }
    const IniFile expected = ReadDocument(invocation.operands[0]);
    const IniFile changes = ReadDocument(invocation.operands[1]);
    Session session(invocation.target, Session::Changing);
    bool merged = false;
    session.Change(common::GroupNamesOf(changes),
                   [&](KorloSettingsClient& client) { merged = client.TestAndMerge(expected, changes); });
    if (!merged)
    {
        throw Failure(StatusNo, "the settings hold other values than expected; nothing was changed");
    }
    return ReportRestricted(common::GroupNamesOf(changes));
}

ExitStatus RunOverwrite(const Invocation& invocation)
{
    const IniFile replacement = ReadDocument(invocation.with.value_or("-"));
    const GroupNameCollection names = NamesOf(invocation.operands);
    GroupNameCollection touched = common::GroupNamesOf(replacement);
    touched.insert(names.begin(), names.end());

    Session session(invocation.target, Session::ChangingOrCreating);
    session.CheckNames(names);
    session.Change(touched, [&](KorloSettingsClient& client) { client.OverwriteSettings(names, replacement); });
    return ReportRestricted(common::GroupNamesOf(replacement));
}

ExitStatus RunErase(const Invocation& invocation)
{
    const GroupNameCollection names = NamesOf(invocation.operands);
    Session session(invocation.target, Session::Changing);
    session.CheckNames(names);
    const IniFile present = session.Read(names);
    // Even if there is nothing: a server notes that the groups are not to come back with the next defaults.
    session.Change(names, [&](KorloSettingsClient& client) { client.EraseGroups(names); });
    if (present.empty())
    {
        FailForNoMatch(invocation.operands);
    }
    return ReportRestricted(common::GroupNamesOf(present));
}

ExitStatus RunRestore(const Invocation& invocation)
{
    const GroupNameCollection names = NamesOf(invocation.operands);
    Session session(invocation.target, Session::Changing);
    session.CheckNames(names);
    const bool wasEmpty = session.Read(names).empty();
    session.Change(names, [&](KorloSettingsClient& client) { client.RestoreToDefaults(names); });
    if (wasEmpty && session.Read(names).empty())
    {
        FailForNoMatch(invocation.operands);
    }
    return StatusDone;
}

}  // namespace korlo::settings::cli
