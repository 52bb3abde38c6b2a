#pragma once
// Configures a process's logging from its settings.

#include <memory>

namespace korlo::settings
{

class KorloSettingsClient;

/// Configures the logging of the whole process from one group of settings, at construction and whenever the group
/// changes. The keys are those of core::Logger::ConfigureLogging; "log.file", if there, also gets a logrotate stanza.
///
/// A group without "log.level" is given "log.level" 1, "log.syslog" true, "log.stdout" false and "using_defs" false,
/// which are persisted; its other keys stay. A group that has "log.level" is not written. A group that names no output,
/// or that is erased later, leaves the messages to standard error.
///
/// After the client had no connection, the logging follows a group that is different then if
/// KorloSettingsClient::ReportMissedChanges was turned on before the construction.
///
/// Thread safety: construction and destruction on any one thread; reconfigurations come on the client's notification
/// thread. It may be destroyed while notifications arrive, unless the client is local: that one goes on calling, so the
/// log manager must outlive whatever can still change the group.
class LogManager
{
public:
    /// With a single-threaded client, which cannot subscribe, this succeeds with an error in the log, and later changes
    /// of the group have no effect.
    /// @param pClient borrowed, not null; must outlive the log manager.
    /// @param group the name of the group, not null; copied.
    /// @throws osa::Exception "%s was NULL", and whatever the client throws while the group is read or written.
    LogManager(KorloSettingsClient* pClient, const char* group);
    LogManager(const LogManager&) = delete;
    LogManager& operator=(const LogManager&) = delete;

    /// Unsubscribes; the logging stays as it is.
    ~LogManager();

private:
    class ChangeCallback;

    std::unique_ptr<ChangeCallback> _pCallback;
};

}  // namespace korlo::settings
