#pragma once
// Works out what a change makes different, and tells the observer.

#include "korlo/core/IniFile.h"
#include "settings/GroupNameCollection.h"
#include "settings/server/IChangeObserver.h"

namespace korlo::settings::server
{

/// One change of the store, from before it is made until it is saved. Without an observer it does nothing. A report
/// that is destroyed before NoteDone tells of a failure; one whose change makes no difference tells nothing.
///
/// Thread safety: none of its own; it lives on the stack of the change, inside the store's lock.
class ChangeReport
{
public:
    /// @param pObserver, pOrigin borrowed, may be null.
    ChangeReport(IChangeObserver* pObserver, const ChangeOrigin* pOrigin, const char* what)
        : _pObserver(pObserver),
          _pOrigin(pOrigin),
          _what(what)
    {
    }
    ChangeReport(const ChangeReport&) = delete;
    ChangeReport& operator=(const ChangeReport&) = delete;

    ~ChangeReport()
    {
        if (_pObserver != nullptr && !_names.IsEmpty())
        {
            _pObserver->OnChange(_pOrigin, _what, _outcome, _names);
        }
    }

    /// `changes` is about to be merged into `settings`. Costs one look-up for each of its keys.
    void ExpectMerge(const core::IniFile& settings, const core::IniFile& changes)
    {
        if (_pObserver != nullptr)
        {
            Compare(settings, {}, changes);
        }
    }

    /// The groups are about to be removed from `settings`, and `added` to be merged into it. Costs a walk over the
    /// keys of these groups, and what ExpectMerge costs.
    void ExpectReplacement(const core::IniFile& settings, const GroupNameCollection& removed,
                           const core::IniFile& added)
    {
        if (_pObserver != nullptr)
        {
            Compare(settings, removed, added);
        }
    }

    /// The change is made and saved.
    void NoteDone() { _outcome = ChangeOutcome::Done; }

private:
    void Compare(const core::IniFile& settings, const GroupNameCollection& removed, const core::IniFile& added);

    IChangeObserver* const _pObserver;
    const ChangeOrigin* const _pOrigin;
    const char* const _what;
    ChangeOutcome _outcome = ChangeOutcome::Failed;
    ChangedNames _names;
};

}  // namespace korlo::settings::server
