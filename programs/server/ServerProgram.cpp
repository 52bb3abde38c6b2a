#include "ServerProgram.h"

#include <exception>
#include <filesystem>
#include <string>
#include <system_error>
#include <utility>

#include <unistd.h>

#include "DelayedPersister.h"
#include "FileSettingsPersister.h"
#include "ProcessSetup.h"
#include "RestrictedFilesLoader.h"
#include "ServiceNotifier.h"
#include "SettingsServer.h"
#include "korlo/core/Logger.h"
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

/// Serves clients until a signal arrives; returns when the last one is gone.
bool ServeUntilSignal(const ServerOptions& options, settings::server::SettingsManager& store)
{
    const ServiceNotifier notifier;
    settings::server::SerializationManager serializers;
    SettingsServer server(options.address, options.port, {&store, &serializers}, options.limits);
    server.Start();
    Write(STDOUT_FILENO, "listening on " + server.GetAddress() + '\n');
    notifier.Notify("READY=1");
    WaitForEnd();
    notifier.Notify("STOPPING=1");
    server.Stop();
    return server.IsHealthy();
}

/// The store over its files, and the server over the store. Goes down in the opposite order, so that everything that a
/// client changed is saved.
Status Run(const ServerOptions& options)
{
    FileSettingsPersister files(SettingsFiles(options.defaults), UserPathOf(options));
    files.Prepare();
    RestrictedFilesLoader restricted{SettingsFiles(options.restricted)};
    if (options.saveDelayMs == 0)
    {
        settings::server::SettingsManager store(&files, &restricted, nullptr, false);
        return ServeUntilSignal(options, store) ? EndedInOrder : Failed;
    }
    DelayedPersister delayed(files, options.saveDelayMs);
    settings::server::SettingsManager store(&delayed, &restricted, nullptr, false);
    delayed.Start([&store] { return UserLayerOf(store); });
    const bool isHealthy = ServeUntilSignal(options, store);
    delayed.Finish();
    return isHealthy ? EndedInOrder : Failed;
}

}  // namespace

int RunServer(int argc, const char* const* argv)
{
    try
    {
        ServerOptions options = ParseOptions(argc, argv);
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
