#pragma once
// The five requests that clients make.

#include "client/RemoteCommand.h"
#include "common/Protocol.h"
#include "korlo/core/IniFile.h"
#include "settings/GroupNameCollection.h"
#include "settings/server/SettingsManager.h"

namespace korlo::settings::client
{

inline constexpr const char* NoResponse = "";

// The constructors that take group names throw osa::Exception for one that a list of lines cannot carry, before
// anything is written. All pointers are borrowed.

/// Reads groups into a document. Thread safety: as RemoteCommand.
class GetSettingsCommand : public RemoteCommand
{
public:
    GetSettingsCommand(const GroupNameCollection* pGroups, core::IniFile* pResult)
        : RemoteCommand(common::word::Data),
          _pGroups(pGroups),
          _pResult(pResult)
    {
        common::CheckGroupList(*pGroups);
    }

    void SendRequest(std::ostream& out) override { common::RequestWriter(out).Get(*_pGroups); }

    /// Adds the body to the result, as far as it can be read; always true.
    bool HandleResponse(std::istream& in) override
    {
        common::ResponseReader(in).ReadSettings(*_pResult);
        return true;
    }

protected:
    const GroupNameCollection* const _pGroups;
    core::IniFile* const _pResult;
};

/// Merges changes. Thread safety: as RemoteCommand.
class MergeCommand : public RemoteCommand
{
public:
    MergeCommand(const core::IniFile* pChanges, unsigned int flags)
        : RemoteCommand(NoResponse),
          _pChanges(pChanges),
          _flags(flags)
    {
    }

    void SendRequest(std::ostream& out) override
    {
        common::RequestWriter(out).Merge(*_pChanges, (_flags & server::SettingsManager::DoNotPersist) == 0);
    }

private:
    const core::IniFile* _pChanges;
    unsigned int _flags;
};

/// Merges changes if the store holds what is expected. Thread safety: as RemoteCommand.
class TestAndMergeCommand : public RemoteCommand
{
public:
    TestAndMergeCommand(const core::IniFile* pExpected, const core::IniFile* pChanges)
        : RemoteCommand(common::word::Result),
          _pExpected(pExpected),
          _pChanges(pChanges)
    {
    }

    void SendRequest(std::ostream& out) override { common::RequestWriter(out).TestAndMerge(*_pExpected, *_pChanges); }

    /// Reads the outcome, which is also returned.
    bool HandleResponse(std::istream& in) override
    {
        _outcome = common::ResponseReader(in).ReadOutcome() || _outcome;
        return _outcome;
    }

    /// True once a response has said that the changes were merged.
    bool GetOutcome() const { return _outcome; }

private:
    const core::IniFile* _pExpected;
    const core::IniFile* _pChanges;
    bool _outcome = false;
};

/// Replaces groups. Thread safety: as RemoteCommand.
class OverwriteCommand : public RemoteCommand
{
public:
    OverwriteCommand(const GroupNameCollection* pGroups, const core::IniFile* pSettings)
        : RemoteCommand(NoResponse),
          _pGroups(pGroups),
          _pSettings(pSettings)
    {
        common::CheckGroupList(*pGroups);
    }

    void SendRequest(std::ostream& out) override { common::RequestWriter(out).Overwrite(*_pGroups, *_pSettings); }

private:
    const GroupNameCollection* _pGroups;
    const core::IniFile* _pSettings;
};

/// Returns groups to their defaults. Thread safety: as RemoteCommand.
class RestoreToDefaultsCommand : public RemoteCommand
{
public:
    explicit RestoreToDefaultsCommand(const GroupNameCollection* pGroups) : RemoteCommand(NoResponse), _pGroups(pGroups)
    {
        common::CheckGroupList(*pGroups);
    }

    void SendRequest(std::ostream& out) override { common::RequestWriter(out).Restore(*_pGroups); }

private:
    const GroupNameCollection* _pGroups;
};

}  // namespace korlo::settings::client
