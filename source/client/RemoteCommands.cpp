#include "client/RemoteCommands.h"

#include "common/GroupList.h"
#include "korlo/stl/DelimitedStreamBuf.h"
#include "settings/server/SettingsManager.h"

namespace korlo::settings::client
{
namespace
{

constexpr const char* NoResponse = "";

void WriteBody(std::ostream& out, const core::IniFile& settings)
{
    settings.SaveToStream(out);
    out << ".\n";
}

}  // namespace

RemoteCommand::~RemoteCommand() = default;

bool RemoteCommand::HandleResponse(std::istream&)
{
    return true;
}

GetSettingsCommand::GetSettingsCommand(const GroupNameCollection* pGroups, core::IniFile* pResult)
    : RemoteCommand("data"),
      _pGroups(pGroups),
      _pResult(pResult)
{
    common::CheckGroupList(*pGroups);
}

void GetSettingsCommand::SendRequest(std::ostream& out)
{
    out << "get delimited\n";
    common::WriteGroupList(out, *_pGroups);
    out.flush();
}

bool GetSettingsCommand::HandleResponse(std::istream& in)
{
    stl::DelimitedStreamBuf body(&in, ".");
    _pResult->LoadFromStream(body);
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
    out << "merge" << ((_flags & server::SettingsManager::DoNotPersist) != 0 ? " nopersist" : "") << '\n';
    WriteBody(out, *_pChanges);
    out.flush();
}

TestAndMergeCommand::TestAndMergeCommand(const core::IniFile* pExpected, const core::IniFile* pChanges)
    : RemoteCommand("result"),
      _pExpected(pExpected),
      _pChanges(pChanges)
{
}

void TestAndMergeCommand::SendRequest(std::ostream& out)
{
    out << "test-and-merge\n";
    WriteBody(out, *_pExpected);
    WriteBody(out, *_pChanges);
    out.flush();
}

bool TestAndMergeCommand::HandleResponse(std::istream& in)
{
    std::string line;
    std::getline(in, line);
    if (line == "ok")
    {
        _outcome = true;
    }
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
    out << "overwrite\n";
    common::WriteGroupList(out, *_pGroups);
    WriteBody(out, *_pSettings);
    out.flush();
}

RestoreToDefaultsCommand::RestoreToDefaultsCommand(const GroupNameCollection* pGroups)
    : RemoteCommand(NoResponse),
      _pGroups(pGroups)
{
    common::CheckGroupList(*pGroups);
}

void RestoreToDefaultsCommand::SendRequest(std::ostream& out)
{
    out << "restore\n";
    common::WriteGroupList(out, *_pGroups);
    out.flush();
}

}  // namespace korlo::settings::client
