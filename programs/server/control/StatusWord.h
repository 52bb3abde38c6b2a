#pragma once
// The word of the control door that tells how the server is.

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "DelayedPersister.h"
#include "FileSettingsPersister.h"
#include "LoadedFiles.h"
#include "ServerLimits.h"
#include "SettingsServer.h"
#include "access/AccessControl.h"
#include "control/IControlWord.h"
#include "settings/server/SettingsManager.h"

namespace korlo::daemon
{

/// Where the server listens.
///
/// Thread safety: none of its own; the owner guards it.
struct DoorReport
{
    std::string address;  ///< as "listening on" names it
    std::string kind;     ///< tcp, unix, control
};

/// "status": the process, its store, saves, clients, limits, doors and files; never a value.
///
/// Whoever asks may do so because everything else hangs: no lock of the store is taken, and none that anybody holds
/// while he waits for a disk or a client.
///
/// Thread safety: as IControlWord.
class StatusWord : public AnsweredWord
{
public:
    /// What is told about; all of it borrowed.
    struct Sources
    {
        const settings::server::SettingsManager& store;
        const FileSettingsPersister& files;
        const DelayedPersister* pDelayed;  ///< null where changes are saved at once
        unsigned int saveDelayMs;
        const LoadedFiles& loaded;  ///< sealed
        const SettingsServer& server;
        const AccessControl& access;
        const ServerLimits& limits;
    };

    StatusWord(const Sources& sources, std::vector<DoorReport> doors) : _sources(sources), _doors(std::move(doors)) {}

    core::IniFile Answer(const std::string& operands) override;

private:
    void AddServer(core::IniFile& answer) const;
    void AddStore(core::IniFile& answer) const;
    void AddSaves(core::IniFile& answer) const;
    void AddClients(core::IniFile& answer) const;
    void AddLimits(core::IniFile& answer) const;
    void AddDoors(core::IniFile& answer) const;
    void AddFiles(core::IniFile& answer) const;

    const Sources _sources;
    const std::vector<DoorReport> _doors;
    const std::chrono::system_clock::time_point _started = std::chrono::system_clock::now();
    const std::chrono::steady_clock::time_point _begin = std::chrono::steady_clock::now();
};

}  // namespace korlo::daemon
