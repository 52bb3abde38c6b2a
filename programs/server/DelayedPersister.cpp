#include "DelayedPersister.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

#include "korlo/osa/Exception.h"
#include "korlo/stl/TextStream.h"

namespace korlo::daemon
{
namespace
{

constexpr unsigned int StackBytes = 64 * 1024;
constexpr unsigned int RetryMs = 1000;  // at least, between a save that failed and the next: the log must not fill up

}  // namespace

std::string UserLayerOf(const settings::server::SettingsManager& store)
{
    stl::TextStream text;
    store.DumpUserSettings(text);
    return std::move(text).str();
}

DelayedPersister::DelayedPersister(FileSettingsPersister& target, unsigned int delayMs)
    : _target(target),
      _delayMs(delayMs),
      _pLogger(core::Logger::GetLogger("DelayedPersister")),
      _thread("Saver", this, StackBytes, 0)
{
}

DelayedPersister::~DelayedPersister()
{
    DelayedPersister::Stop();
}

void DelayedPersister::Start(TakeText takeText)
{
    _takeText = std::move(takeText);
    _thread.Run();
}

void DelayedPersister::Finish()
{
    Stop();
    _thread.Join();
    if (std::exchange(_isDirty, false))
    {
        Save(_gathered);
    }
    _target.Finish(_takeText);
}

void DelayedPersister::Stop()
{
    const std::lock_guard lock(_mutex);
    _isStopped = true;
    _changed.notify_all();
}

void DelayedPersister::LoadDefaultSettings(settings::server::SettingsCombiner& combiner)
{
    _target.LoadDefaultSettings(combiner);
}

void DelayedPersister::LoadUserSettings(settings::server::SettingsCombiner& combiner)
{
    _target.LoadUserSettings(combiner);
}

void DelayedPersister::SaveUserSettings(const core::IniFile&)
{
    const std::lock_guard lock(_mutex);
    _gathered.isWholeLayer = true;
    NoteDirty();
}

void DelayedPersister::SaveChange(const settings::server::UserLayerChange& change, const core::IniFile&)
{
    const std::lock_guard lock(_mutex);
    if (!_gathered.isWholeLayer)
    {
        _gathered.isWholeLayer = true;  // should memory run out in the middle
        _gathered.change.Append(change);
        _gathered.isWholeLayer = false;
    }
    NoteDirty();
}

void DelayedPersister::NoteDirty()
{
    if (!std::exchange(_isDirty, true))
    {
        _changed.notify_all();
    }
}

void DelayedPersister::Run()
{
    std::unique_lock lock(_mutex);
    unsigned int pauseMs = _delayMs;
    for (;;)
    {
        _changed.wait(lock, [this] { return _isDirty || _isStopped; });
        _changed.wait_for(lock, std::chrono::milliseconds(pauseMs), [this] { return _isStopped || _isUrgent; });
        if (_isStopped)
        {
            return;  // Finish saves, and tells its caller how it went
        }
        _isDirty = false;  // before the text is taken: what changes from now on is saved once more
        _isUrgent = false;
        ++_begun;
        const Gathered gathered = std::exchange(_gathered, Gathered());
        lock.unlock();
        const bool isSaved = TryToSave(gathered);
        lock.lock();
        _isDirty = _isDirty || !isSaved;
        _gathered.isWholeLayer = _gathered.isWholeLayer || !isSaved;
        _ended = _begun;
        _lastSuccess = isSaved ? _ended : _lastSuccess;
        _changed.notify_all();
        pauseMs = isSaved ? _delayMs : RetryMs + _delayMs;
    }
}

/// A change that is saved while it is in the layer already, because it was gathered before the text was taken, is made
/// a second time when the log is read, which changes nothing.
void DelayedPersister::Save(const Gathered& gathered) const
{
    gathered.isWholeLayer ? _target.Save(_takeText) : _target.SaveGathered(gathered.change, _takeText);
}

bool DelayedPersister::TryToSave(const Gathered& gathered) const
{
    try
    {
        Save(gathered);
        return true;
    }
    catch (const std::exception& exception)
    {
        _pLogger->Error("User settings are not saved yet: %s", exception.what());
        return false;
    }
}

void DelayedPersister::SaveNow()
{
    if (!_target.Saves())
    {
        _target.SaveWhatIsUnsaved(_takeText);  // throws, and says why
    }
    std::unique_lock lock(_mutex);
    const std::uint64_t awaited = _begun + (_isDirty ? 1 : 0);  // what is not dirty went into those that have begun
    if (_isDirty)
    {
        _isUrgent = true;
        _changed.notify_all();
    }
    _changed.wait(lock, [this, awaited] { return _ended >= awaited || _isStopped; });
    if (_ended < awaited)
    {
        throw osa::Exception("the server ends, and saves then");
    }
    if (_lastSuccess < awaited)
    {
        throw osa::Exception("%s", _target.GetRecord().GetFigures().lastFailure.c_str());
    }
}

bool DelayedPersister::IsWaiting() const
{
    const std::lock_guard lock(_mutex);
    return _isDirty;
}

}  // namespace korlo::daemon
