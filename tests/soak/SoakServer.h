#pragma once
// The real server, which is ended and started again and again.

#include <csignal>
#include <memory>
#include <string>

#include "World.h"
#include "support/ChildProcess.h"
#include "support/FaultProxy.h"
#include "support/ProcessFigures.h"

namespace korlo::soak
{

/// Each start is on a new free port, over the same files, and may save by another way: so each meets what the other has
/// left. What is logged goes to a file, as long as it takes.
///
/// Thread safety: none of its own; the owner guards it.
class SoakServer
{
public:
    /// @param proxy told of every start.
    SoakServer(World& world, FaultProxy& proxy) : _world(world), _proxy(proxy) { Start("append"); }

    /// Ends the server by the signal and starts it anew.
    void Restart(int signal, const std::string& saveBy = "append")
    {
        End(signal);
        Start(saveBy);
    }

    void End(int signal)
    {
        _pChild->Signal(signal);
        const int expected = signal == SIGKILL ? 1000 + SIGKILL : 0;
        if (const int status = _pChild->Wait(); status != expected)
        {
            _world.Fail("the server ended with status " + std::to_string(status) + " instead of " +
                        std::to_string(expected));
        }
    }

    void Start(const std::string& saveBy)
    {
        const std::string announcement = "listening on 127.0.0.1:";
        _pChild = std::make_unique<ChildProcess>(std::vector<std::string>{
            "sh", "-c", "exec \"$0\" --listen 127.0.0.1:0 --user \"$1\" --save-by \"$3\" 2>> \"$2\"",
            KORLO_SETTINGS_SERVER, GetUserPath(), GetLogPath(), saveBy});
        _pChild->AwaitOutput("\n");
        const auto port = static_cast<unsigned short>(std::stoi(_pChild->GetOutput().substr(announcement.size())));
        _proxy.SetServerPort(port);
        _world.SetServerPort(port);
    }

    ProcessFigures GetFigures() const { return ProcessFigures(_pChild->GetProcess()); }
    std::string GetUserPath() const { return _world.PathOf("data/user.ini"); }
    std::string GetLogPath() const { return _world.PathOf("server.log"); }

private:
    World& _world;
    FaultProxy& _proxy;
    std::unique_ptr<ChildProcess> _pChild;
};

}  // namespace korlo::soak
