#include "client/RemoteCommands.h"

#include "common/Protocol.h"
#include "settings/server/SettingsManager.h"

namespace korlo::settings::client
{
namespace
{

using common::RequestWriter;
using common::ResponseReader;

constexpr const char* NoResponse = "";

}  // namespace

GetSettingsCommand::GetSettingsCommand(const GroupNameCollection* pGroups, core::IniFile* pResult)
    : RemoteCommand(common::word::Data),
      _pGroups(pGroups),
      _pResult(pResult)
{
    common::CheckGroupList(*pGroups);
}

void GetSettingsCommand::SendRequest(std::ostream& out)
{
    RequestWriter(out).Get(*_pGroups);
}

bool GetSettingsCommand::HandleResponse(std::istream& in)
{
    ResponseReader(in).ReadSettings(*_pResult);
    return true;
}

MergeCommand::MergeCommand(const core::IniFile* pChanges, unsigned int flags)
    : RemoteCommand(NoResponse),
      _pChanges(pChanges),
      _flags(flags)
{
}

void MergeCommand::SendRequest(std::ostream& out)
{
    RequestWriter(out).Merge(*_pChanges, (_flags & server::SettingsManager::DoNotPersist) == 0);
}

TestAndMergeCommand::TestAndMergeCommand(const core::IniFile* pExpected, const core::IniFile* pChanges)
    : RemoteCommand(common::word::Result),
      _pExpected(pExpected),
      _pChanges(pChanges)
{
}

void TestAndMergeCommand::SendRequest(std::ostream& out)
{
    RequestWriter(out).TestAndMerge(*_pExpected, *_pChanges);
}

bool TestAndMergeCommand::HandleResponse(std::istream& in)
{
    _outcome = ResponseReader(in).ReadOutcome() || _outcome;
    return _outcome;
}

OverwriteCommand::OverwriteCommand(const GroupNameCollection* pGroups, const core::IniFile* pSettings)
    : RemoteCommand(NoResponse),
      _pGroups(pGroups),
      _pSettings(pSettings)
{
    common::CheckGroupList(*pGroups);
}

void OverwriteCommand::SendRequest(std::ostream& out)
{
    RequestWriter(out).Overwrite(*_pGroups, *_pSettings);
}

RestoreToDefaultsCommand::RestoreToDefaultsCommand(const GroupNameCollection* pGroups)
    : RemoteCommand(NoResponse),
      _pGroups(pGroups)
{
    common::CheckGroupList(*pGroups);
}

void RestoreToDefaultsCommand::SendRequest(std::ostream& out)
{
    RequestWriter(out).Restore(*_pGroups);
}

}  // namespace korlo::settings::client
