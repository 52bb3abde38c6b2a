#include "ServerProgram.h"

#include <algorithm>
#include <exception>
#include <filesystem>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <unistd.h>

#include "ControlProtocol.h"
#include "DelayedPersister.h"
#include "FileSettingsPersister.h"
#include "LoadedFiles.h"
#include "PassedSockets.h"
#include "ProcessSetup.h"
#include "RestrictedFilesLoader.h"
#include "ServiceNotifier.h"
#include "SettingsFiles.h"
#include "SettingsServer.h"
#include "access/AccessControl.h"
#include "access/AccessRulesReader.h"
#include "access/SystemUserDatabase.h"
#include "control/AccessWords.h"
#include "control/ClientsWord.h"
#include "control/ControlDoor.h"
#include "control/ExplainWords.h"
#include "control/JournalWords.h"
#include "control/SaveWord.h"
#include "control/StatusWord.h"
#include "explain/LayerFiles.h"
#include "journal/Journal.h"
#include "korlo/core/IniFile.h"
#include "korlo/core/Logger.h"
#include "korlo/osa/Exception.h"
#include "korlo/osa/TcpListener.h"
#include "saving/UserFileTexts.h"
#include "settings/server/SerializationManager.h"
#include "settings/server/SettingsManager.h"

namespace korlo::daemon
{
namespace
{

enum Status
{
    EndedInOrder = 0,
    Failed = 1
};

void Write(int descriptor, const std::string& text)
{
    // Nobody has to listen.
    static_cast<void>(::write(descriptor, text.data(), text.size()) < 0);
}

/// Where the user layer is kept; empty for nowhere, on a machine that was not set up for the server.
std::string UserPathOf(const ServerOptions& options)
{
    const std::filesystem::path folder = std::filesystem::path(options.userPath).parent_path();
    std::error_code ignored;
    if (options.userPathIsGiven || std::filesystem::is_directory(folder, ignored))
    {
        return options.userPath;
    }
    core::Logger::GetLogger("SettingsServer")
        ->Warning("What clients change is lost when the server ends: there is no folder '%s', and no --user",
                  folder.c_str());
    return std::string();
}

/// The rules of --access, or none.
/// @throws osa::Exception with every mistake in them, a line each.
std::shared_ptr<const AccessRules> ReadRules(const ServerOptions& options, const IUserDatabase& users)
{
    if (options.access.empty())
    {
        return nullptr;
    }
    const AccessRulesOutcome outcome = AccessRulesReader(users).Read(options.access);
    for (const std::string& warning : outcome.warnings)
    {
        core::Logger::GetLogger("AccessControl")->Warning("%s", warning.c_str());
    }
    if (!outcome.pRules)
    {
        std::string mistakes;
        for (const std::string& mistake : outcome.mistakes)
        {
            mistakes += (mistakes.empty() ? "" : "\n") + mistake;
        }
        throw osa::Exception("%s", mistakes.c_str());
    }
    return outcome.pRules;
}

osa::SocketFileRights RightsOf(const ServerOptions& options, const IUserDatabase& users)
{
    osa::SocketFileRights rights;
    rights.mode = options.socketMode;
    if (options.socketGroup)
    {
        const std::optional<gid_t> group = GroupIdOf(*options.socketGroup, users);
        if (!group)
        {
            throw osa::Exception("--socket-group: there is no group '%s'", options.socketGroup->c_str());
        }
        rights.group = *group;
    }
    return rights;
}

/// Every door of the server, open, or none.
struct Doors
{
    /// @throws osa::Exception naming the address and the reason.
    Doors(const ServerOptions& options, const PassedSockets& passed, const IUserDatabase& users)
    {
        for (const int descriptor : passed.settings)
        {
            settings.push_back(std::make_unique<osa::TcpListener>(descriptor));
        }
        std::vector<ServerOptions::Door> named = options.listen;
        if (named.empty() && settings.empty())
        {
            named.push_back(ServerOptions::DefaultDoor());
        }
        const osa::SocketFileRights rights = RightsOf(options, users);
        for (const ServerOptions::Door& door : named)
        {
            settings.push_back(std::make_unique<osa::TcpListener>(door.address, door.port, rights));
        }
        if (passed.control)
        {
            pControl = std::make_unique<osa::TcpListener>(*passed.control);
        }
        else if (!options.controlPath.empty())
        {
            constexpr unsigned int ownerOnly = 0600;
            osa::SocketFileRights controlRights;
            controlRights.mode = ownerOnly;
            pControl = std::make_unique<osa::TcpListener>("unix:" + options.controlPath, 0, controlRights);
        }
    }

    SettingsServer::Listeners settings;
    std::unique_ptr<osa::TcpListener> pControl;  // null: there is none
};

/// The store and what is below it.
struct Storage
{
    settings::server::SettingsManager& store;
    FileSettingsPersister& files;
    DelayedPersister* pDelayed;  // null where changes are saved at once
    const LoadedFiles& loaded;
    const StoreFiles& layers;

    /// Returns when everything that was changed before is on the disk.
    void Save() const
    {
        pDelayed != nullptr ? pDelayed->SaveNow() : files.SaveWhatIsUnsaved([this] { return UserLayerOf(store); });
    }
};

/// Serves clients until a signal arrives; returns when the last one is gone.
bool ServeUntilSignal(const ServerOptions& options, const Storage& storage)
{
    const SystemUserDatabase users;
    settings::server::SerializationManager serializers;
    AccessControl access(ReadRules(options, users), AccessControl::OwnUser(users));
    Doors doors(options, PassedSockets::Take(), users);
    std::optional<Journal> journal;
    if (doors.pControl && options.journal > 0)  // where nobody can read it none is kept
    {
        storage.store.SetChangeObserver(&journal.emplace(options.journal));
    }
    std::string announcement;
    std::vector<DoorReport> reports;
    for (const std::unique_ptr<osa::TcpListener>& pListener : doors.settings)
    {
        const std::string& address = pListener->GetAddress();
        announcement += "listening on " + address + '\n';
        reports.push_back({address, address.starts_with("unix:") ? "unix" : "tcp"});
    }
    SettingsServer server(std::move(doors.settings), {&storage.store, &serializers}, access, options.limits);
    std::unique_ptr<ControlDoor> pControl;  // behind all that its words ask
    if (doors.pControl)
    {
        reports.push_back({doors.pControl->GetAddress(), "control"});
        ControlDoor::Words words;
        words[control::Status] = std::make_unique<StatusWord>(
            StatusWord::Sources{storage.store, storage.files, storage.pDelayed, options.saveDelayMs, storage.loaded,
                                server, access, options.limits},
            reports);
        words[control::Clients] = std::make_unique<ClientsWord>(server);
        words[control::Save] = std::make_unique<SaveWord>([&storage] { storage.Save(); });
        words[control::AccessCheck] = std::make_unique<AccessCheckWord>(access, users);
        words[control::AccessReload] = std::make_unique<AccessReloadWord>(access, users, options.access);
        words[control::Journal] = std::make_unique<JournalWord>(journal ? &*journal : nullptr);
        words[control::Follow] = std::make_unique<FollowWord>(journal ? &*journal : nullptr);
        words[control::Explain] = std::make_unique<ExplainWord>(storage.store, storage.layers);
        words[control::Defaults] = std::make_unique<DefaultsWord>(options.defaults);
        pControl = std::make_unique<ControlDoor>(std::move(doors.pControl), std::move(words));
        pControl->Start();
    }
    server.Start();
    Write(STDOUT_FILENO, announcement);
    NotifyServiceManager("READY=1");
    WaitForEnd();
    NotifyServiceManager("STOPPING=1");
    server.Stop();
    return server.IsHealthy();
}

/// The store over its files, and the server over the store. Goes down in the opposite order, so that everything that a
/// client changed is saved.
Status Run(const ServerOptions& options)
{
    const StoreFiles layers = {LayerFiles(SettingsFiles(options.defaults)), UserPathOf(options),
                               LayerFiles(SettingsFiles(options.restricted)), !options.access.empty()};
    LoadedFiles loaded;
    FileSettingsPersister files(SettingsFiles(options.defaults), layers.user, osa::RealFileSystem(), &loaded,
                                options.saveBy);
    files.Prepare();
    RestrictedFilesLoader restricted(SettingsFiles(options.restricted), layers.clientsAreRefused, &loaded);
    const bool isAppending = options.saveBy == SaveBy::Appending;
    if (options.saveDelayMs == 0)
    {
        settings::server::SettingsManager store(&files, &restricted, nullptr, false);
        store.SetChangePersister(isAppending ? &files : nullptr);
        loaded.Seal();
        const bool isHealthy = ServeUntilSignal(options, {store, files, nullptr, loaded, layers});
        files.Finish([&store] { return UserLayerOf(store); });
        return isHealthy ? EndedInOrder : Failed;
    }
    DelayedPersister delayed(files, options.saveDelayMs);
    settings::server::SettingsManager store(&delayed, &restricted, nullptr, false);
    store.SetChangePersister(isAppending ? &delayed : nullptr);
    loaded.Seal();
    delayed.Start([&store] { return UserLayerOf(store); });
    const bool isHealthy = ServeUntilSignal(options, {store, files, &delayed, loaded, layers});
    delayed.Finish();
    return isHealthy ? EndedInOrder : Failed;
}

/// Reads every file, and says what is wrong with them, a line each on standard error.
Status Check(const ServerOptions& options)
{
    std::vector<std::string> mistakes;
    const auto note = [&mistakes](const auto& read) {
        try
        {
            read();
        }
        catch (const std::exception& exception)
        {
            mistakes.emplace_back(exception.what());
        }
    };
    const auto checkFile = [&](const std::string& file) {
        note([&] {
            for (const core::IniFile::BadLine& line : core::IniFile::FindBadLines(file.c_str()))
            {
                mistakes.push_back(file + ':' + std::to_string(line.number) + ": " + line.reason);
            }
        });
    };
    for (const std::vector<std::string>* pNamed : {&options.defaults, &options.restricted})
    {
        note([&] { std::ranges::for_each(SettingsFiles(*pNamed).Find(), checkFile); });
    }
    std::error_code ignored;
    if (std::filesystem::exists(options.userPath, ignored))
    {
        checkFile(options.userPath);
        note([&] {
            std::ranges::move(UserFileTexts::Read(options.userPath).FindLogMistakes(), std::back_inserter(mistakes));
        });
    }
    note([&] { ReadRules(options, SystemUserDatabase()); });
    for (const std::string& mistake : mistakes)
    {
        Write(STDERR_FILENO, mistake + '\n');
    }
    return mistakes.empty() ? EndedInOrder : Failed;
}

}  // namespace

int RunServer(int argc, const char* const* argv)
{
    try
    {
        ServerOptions options = ParseOptions(argc, argv);
        if (options.checksOnly)
        {
            return Check(options);
        }
        ConfigureMemory();
        TakeOverSignals();
        core::Logger::SetLevel(options.logLevel);
        options.limits.maxClients = AllowClients(options.limits.maxClients);
        return Run(options);
    }
    catch (const EarlyExit& exit)
    {
        const bool isAnswer = exit.GetStatus() == 0;
        Write(isAnswer ? STDOUT_FILENO : STDERR_FILENO,
              isAnswer ? exit.what() : "korlo-settings-server: " + std::string(exit.what()) + '\n');
        return exit.GetStatus();
    }
    catch (const std::exception& exception)
    {
        Write(STDERR_FILENO, "korlo-settings-server: " + std::string(exception.what()) + '\n');
        return Failed;
    }
}

}  // namespace korlo::daemon
