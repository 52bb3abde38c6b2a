#pragma once
// Mirrors groups of the settings in a document of the application's own.

#include <memory>
#include <string>

#include "korlo/core/IniFile.h"

namespace korlo::settings
{

class KorloSettingsClient;

/// Keeps a document in step with chosen groups. Changes are only collected when they arrive; the application applies
/// them when it calls Update or TryUpdate, on its own thread, so nobody else ever touches the document.
///
///     IniFile mirror;
///     IniWatcher watcher(&client, &mirror);
///     watcher.AddPattern("Network/*");
///     while (running)
///         if (watcher.Update())
///             Apply(mirror);
///
/// A change that is made between the first reading and the subscription, both in the first Update, shows up with its
/// group's next change. What changes while the client has no connection is collected when it is back, if
/// KorloSettingsClient::ReportMissedChanges was turned on before the first Update, and else shows up likewise.
///
/// Thread safety: one thread owns the watcher and the document; notifications come on the client's thread. It may be
/// destroyed while they arrive, unless the client is local: that one goes on calling, so the watcher must outlive
/// whatever can still change its groups.
class IniWatcher
{
public:
    /// Reads and subscribes nothing yet.
    /// @param pClient borrowed; must outlive the watcher and be able to subscribe.
    /// @param pTargetIni borrowed; must outlive the watcher.
    /// @throws osa::Exception "%s was NULL" with "client" or "targetIni".
    IniWatcher(KorloSettingsClient* pClient, core::IniFile* pTargetIni);
    IniWatcher(const IniWatcher&) = delete;
    IniWatcher& operator=(const IniWatcher&) = delete;

    /// Unsubscribes; the document stays as it is.
    ~IniWatcher();

    /// Adds a group name or pattern; what is added after the first Update is neither read nor watched.
    void AddPattern(const std::string& nameOrPattern);

    /// The first call clears the document, reads the groups into it, subscribes, and returns true. A later one replaces
    /// each group that changed by its latest content, removes those that were erased, and returns true, or returns
    /// false when nothing has changed.
    /// @throws whatever the client throws in the first call.
    bool Update();

    /// As a later Update, but returns false instead of waiting while a notification is being recorded.
    /// @throws osa::Exception "TryUpdate called before Update".
    bool TryUpdate();

private:
    class IniWatcherImpl;

    std::unique_ptr<IniWatcherImpl> _pImpl;
};

}  // namespace korlo::settings
