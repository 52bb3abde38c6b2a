#include "client/MissedChanges.h"

#include <new>

namespace korlo::settings::client
{

void MissedChanges::Report(bool isWanted)
{
    const osa::MutexAutoLock lock(&_mutex);
    if (!isWanted)
    {
        _pKnown.reset();
    }
    else if (_pKnown == nullptr)
    {
        _pKnown = std::make_unique<KnownGroups>(_dispatcher);
    }
}

bool MissedChanges::IsWanted() const
{
    const osa::MutexAutoLock lock(&_mutex);
    return _pKnown != nullptr;
}

void MissedChanges::Subscribe(IChangeCallback* pCallback, const GroupNameCollection& groups)
{
    const osa::MutexAutoLock lock(&_mutex);
    if (_pKnown == nullptr)
    {
        _dispatcher.AddCallback(pCallback, groups);
        return;
    }
    try
    {
        _pKnown->NoteSubscription(groups);
        _dispatcher.AddCallback(pCallback, groups);
    }
    catch (...)
    {
        _pKnown->NoteUnsubscription();
        throw;
    }
}

void MissedChanges::Unsubscribe(IChangeCallback* pCallback)
{
    const osa::MutexAutoLock lock(&_mutex);
    _dispatcher.Remove(pCallback);
    if (_pKnown != nullptr)
    {
        _pKnown->NoteUnsubscription();
    }
}

void MissedChanges::NoteRead(const GroupNameCollection& asked, const core::IniFile& answer)
{
    const osa::MutexAutoLock lock(&_mutex);
    if (_pKnown != nullptr)
    {
        _pKnown->NoteRead(asked, answer);
    }
}

void MissedChanges::Deliver(const ChangeNotice& change)
{
    const osa::MutexAutoLock lock(&_mutex);
    if (_pKnown != nullptr)
    {
        _pKnown->BeginDelivery(change.groups);
    }
    _dispatcher.OnChange(change.groups, change.settings);
    EndDelivery(change);
}

ChangeNotice MissedChanges::Find(const GroupNameCollection& asked, const core::IniFile& answer) const
{
    ChangeNotice missed;
    const osa::MutexAutoLock lock(&_mutex);
    if (_pKnown != nullptr)
    {
        missed.groups = _pKnown->FindDifferent(asked, answer);
        for (const std::string& group : missed.groups)
        {
            missed.settings.MergeSettings(answer, group);
        }
    }
    return missed;
}

void MissedChanges::DeliverMissed(const ChangeNotice& missed)
{
    const osa::MutexAutoLock lock(&_mutex);
    if (_pKnown != nullptr && !missed.groups.empty())
    {
        _pKnown->BeginDelivery(missed.groups);
        try
        {
            _dispatcher.OnChange(missed.groups, missed.settings);
        }
        catch (const std::bad_alloc&)
        {
            throw;
        }
        catch (...)
        {
            EndDelivery(missed);
            throw;
        }
        EndDelivery(missed);
    }
}

/// Does nothing if a callback has said meanwhile that nobody wants it any more.
void MissedChanges::EndDelivery(const ChangeNotice& change) noexcept
{
    if (_pKnown != nullptr)
    {
        _pKnown->EndDelivery(change.groups, change.settings);
    }
}

bool NotedGet::HandleResponse(std::istream& in)
{
    const bool result = GetSettingsCommand::HandleResponse(in);
    if (in.good())  // else the answer was cut, and nobody gets it
    {
        _missed.NoteRead(*_pGroups, *_pResult);
    }
    return result;
}

}  // namespace korlo::settings::client
