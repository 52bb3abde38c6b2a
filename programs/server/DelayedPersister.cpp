#include "DelayedPersister.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

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
        Save();
    }
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
    if (!std::exchange(_isDirty, true))
    {
        _changed.notify_all();
    }
}

void DelayedPersister::Run()
{
    while (WaitForChange())
    {
        WaitUnlessStopped(_delayMs);
        if (!TryToSave())
        {
            WaitUnlessStopped(RetryMs);
        }
    }
}

/// False when it is time to end.
bool DelayedPersister::WaitForChange()
{
    std::unique_lock lock(_mutex);
    _changed.wait(lock, [this] { return _isDirty || _isStopped; });
    return !_isStopped;
}

void DelayedPersister::WaitUnlessStopped(unsigned int durationMs)
{
    std::unique_lock lock(_mutex);
    _changed.wait_for(lock, std::chrono::milliseconds(durationMs), [this] { return _isStopped; });
}

bool DelayedPersister::TryToSave()
{
    {
        const std::lock_guard lock(_mutex);
        if (_isStopped)
        {
            return true;  // Finish does it, and tells its caller how it went
        }
        _isDirty = false;  // before the text is taken: what changes from now on is saved once more
    }
    try
    {
        Save();
        return true;
    }
    catch (const std::exception& exception)
    {
        NoteUnsaved();
        _pLogger->Error("User settings are not saved yet: %s", exception.what());
        return false;
    }
}

void DelayedPersister::NoteUnsaved()
{
    const std::lock_guard lock(_mutex);
    _isDirty = true;
}

void DelayedPersister::Save()
{
    _target.Save(_takeText());
}

}  // namespace korlo::daemon
