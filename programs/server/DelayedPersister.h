#pragma once
// Saves that wait for one another.

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

#include "FileSettingsPersister.h"
#include "korlo/core/Logger.h"
#include "korlo/osa/Thread.h"
#include "settings/server/IChangePersister.h"
#include "settings/server/ISettingsPersister.h"
#include "settings/server/SettingsManager.h"
#include "settings/server/UserLayerChange.h"

namespace korlo::daemon
{

/// The user layer of a store as INI text, whole.
std::string UserLayerOf(const settings::server::SettingsManager& store);

/// Gathers changes and saves them on a thread of its own, so that nobody who reads or changes settings waits for the
/// disk. A save that fails is logged as an error and tried again.
///
///     DelayedPersister persister(files, 100);
///     SettingsManager store(&persister, ...);
///     persister.Start([&] { return UserLayerOf(store); });
///
/// The first change starts the delay; when it is over, the user layer is taken from the store as it then is. So a
/// change costs the same however large the layer has become. By appending, the changes themselves are gathered, and
/// saved as one; the layer is taken from the store only where a save has failed.
///
/// Thread safety: as ISettingsPersister; SaveNow and IsWaiting from any thread; Start and Finish belong to the owner.
class DelayedPersister : public settings::server::ISettingsPersister,
                         public settings::server::IChangePersister,
                         private osa::Runnable
{
public:
    using TakeText = FileSettingsPersister::TakeText;

    /// @param target borrowed; where everything is loaded from and saved to.
    DelayedPersister(FileSettingsPersister& target, unsigned int delayMs);
    DelayedPersister(const DelayedPersister&) = delete;
    DelayedPersister& operator=(const DelayedPersister&) = delete;
    ~DelayedPersister() override;

    /// Begins to save. Nothing may be changed before.
    /// @param takeText gives the user layer as INI text; called on a thread that holds no lock, until Finish.
    void Start(TakeText takeText);

    /// Saves at once what was not saved, and ends. Nothing may be changed after.
    /// @throws osa::Exception naming the path and the reason of a save that fails.
    void Finish();

    /// Saves at once what was not saved, and returns when it is on the disk. Several may wait.
    /// @throws osa::Exception naming the path and the reason of a save that fails; it is tried again as ever.
    void SaveNow();

    /// True when something waits for the end of the delay, or for another attempt.
    bool IsWaiting() const;

    void LoadDefaultSettings(settings::server::SettingsCombiner& combiner) override;
    void LoadUserSettings(settings::server::SettingsCombiner& combiner) override;

    /// Notes that there is something to save.
    void SaveUserSettings(const core::IniFile& userSettings) override;

    /// Gathers the change.
    void SaveChange(const settings::server::UserLayerChange& change, const core::IniFile& userSettings) override;

private:
    void Run() override;
    void Stop() override;

    /// What is to be saved.
    struct Gathered
    {
        bool isWholeLayer = false;
        settings::server::UserLayerChange change;  // where it is not
    };

    void NoteDirty();
    void Save(const Gathered& gathered) const;
    bool TryToSave(const Gathered& gathered) const;

    FileSettingsPersister& _target;
    const unsigned int _delayMs;
    core::Logger* const _pLogger;  // not owned
    TakeText _takeText;

    mutable std::mutex _mutex;  // guards what follows; nobody holds it while anything is saved
    std::condition_variable _changed;
    bool _isDirty = false;
    Gathered _gathered;  // while it is dirty
    bool _isStopped = false;
    bool _isUrgent = false;          // somebody waits for the next attempt
    std::uint64_t _begun = 0;        // attempts of the thread
    std::uint64_t _ended = 0;        // as many, or one less
    std::uint64_t _lastSuccess = 0;  // the number of an attempt, counted from 1

    osa::Thread _thread;  // last
};

}  // namespace korlo::daemon
