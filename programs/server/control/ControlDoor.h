#pragma once
// The door for the device's operator.

#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "control/IControlWord.h"
#include "korlo/core/Logger.h"
#include "korlo/osa/TcpListener.h"
#include "korlo/osa/Thread.h"

namespace korlo::daemon
{

/// Answers questions about the running server on a Unix-domain socket of its own (docs/server.md, "The control door").
/// Each client has a thread, and there are few: one more is told so and sent away. A client that stalls, floods or
/// leaves costs its own connection; nothing here is held while one is waited for.
///
/// Thread safety: Start and Stop belong to the owner. The accepting thread alone touches the list of clients while it
/// runs; Stop does when it has ended.
class ControlDoor : private osa::Runnable
{
public:
    static constexpr std::size_t MostClients = 8;
    static constexpr std::size_t MostLineBytes = 64 * 1024;

    /// Production defaults; tests shorten them.
    struct Limits
    {
        unsigned int idleMs = 60'000;   ///< that a client may take to send its next request
        unsigned int writeMs = 10'000;  ///< that a client may take to read an answer
    };

    using Words = std::map<std::string, std::unique_ptr<IControlWord>, std::less<>>;  // by what a request begins with

    /// @param pListener of a Unix-domain socket.
    ControlDoor(std::unique_ptr<osa::TcpListener> pListener, Words words)
        : ControlDoor(std::move(pListener), std::move(words), Limits())
    {
    }
    ControlDoor(std::unique_ptr<osa::TcpListener> pListener, Words words, const Limits& limits);
    ControlDoor(const ControlDoor&) = delete;
    ControlDoor& operator=(const ControlDoor&) = delete;
    ~ControlDoor() override;

    /// Begins to accept clients.
    void Start();

    /// Accepts nobody any more, ends every connection, and returns once the last thread has ended.
    void Stop() override;

private:
    class Client;

    void Run() override;
    void Accept(std::unique_ptr<osa::TcpSocket> pSocket);

    const Words _words;
    const Limits _limits;
    core::Logger* const _pLogger;  // not owned
    const std::unique_ptr<osa::TcpListener> _pListener;
    std::list<Client> _clients;
    osa::Thread _thread;  // last
};

}  // namespace korlo::daemon
