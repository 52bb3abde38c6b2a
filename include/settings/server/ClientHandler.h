#pragma once
// The server's side of one connection of the settings protocol (docs/protocol.md).

#include <atomic>
#include <cstddef>
#include <istream>
#include <ostream>
#include <sstream>
#include <string_view>

#include "korlo/core/Logger.h"
#include "korlo/osa/Mutex.h"
#include "settings/GroupNameCollection.h"
#include "settings/IChangeCallback.h"
#include "settings/server/ISettingsSerializer.h"
#include "settings/server/ServerEnv.h"

namespace korlo::settings::server
{

/// Hears when a connection is about to read its next request.
///
/// Thread safety: called on the connection's thread.
class IRequestGate
{
public:
    virtual ~IRequestGate() = default;

    /// May wait: so a client that asks for much and reads slowly is held back between its requests.
    virtual void BeforeRequest() = 0;
};

/// Reads commands from a connection, carries them out on the store, writes the responses, and pushes notifications
/// about the groups that the client subscribed to.
///
///     ServerEnv env{&settingsManager, &serializationManager};
///     ClientHandler handler(&env, &in, &out);
///     handler.Run();
///
/// A request whose input ends before its last terminator is not carried out, and a message that memory does not suffice
/// for is not sent in part: std::bad_alloc passes out instead. Each message goes to `out` in one write and one flush.
/// The streams are borrowed, must outlive the handler, and are never closed by it.
///
/// Thread safety: one thread runs Run; OnChange comes from any thread that changes the store, Run's own included. All
/// writing happens under one mutex, a whole message at a time. A thread that dispatches a change takes the locks in the
/// order dispatcher, output mutex, store for reading; Run never calls into the dispatcher with the output mutex held.
/// Whoever makes a change waits for `out` to take the notification, so a server should give it a stream that never
/// waits.
class ClientHandler : public IChangeCallback
{
public:
    /// @param pEnv copied.
    ClientHandler(ServerEnv* pEnv, std::istream* pIn, std::ostream* pOut);
    ClientHandler(const ClientHandler&) = delete;
    ClientHandler& operator=(const ClientHandler&) = delete;
    ~ClientHandler() override;

    /// Serves the connection until the client quits, its input ends or `out` takes no more of a response; then the
    /// client is unsubscribed. What the store or a serializer throws passes out, and ends the connection with it.
    void Run();

    /// The same, with a gate before each request.
    void Run(IRequestGate& gate);

    /// True once the client has subscribed to anything: other threads may write to `out` from then on. For the thread
    /// that runs Run.
    bool IsSubscribed() const { return !_subscribed.empty(); }

    /// How long a list of all that the client has subscribed to would be. For the thread that runs Run.
    std::size_t GetSubscribedBytes() const { return _subscribedBytes; }

    /// Writes a notification with the current content of the groups; `settings` is not looked at. Groups that a group
    /// list cannot carry are left out.
    void OnChange(const GroupNameCollection& groups, const core::IniFile& settings) override;

    /// The commands, one each, for the thread that runs Run: what Run calls once it has read a command line.
    /// @param options a stream over the command line behind the command word. The blocks of the request are read from
    ///        the connection.
    void Quit(std::istream& options);
    void Dump(std::istream& options);
    void Merge(std::istream& options);
    void TestAndMerge(std::istream& options);
    void Subscribe(std::istream& options);
    void GetSections(std::istream& options);
    void Overwrite(std::istream& options);
    void ChangeSerialization(std::istream& options);
    void RestoreDefaults(std::istream& options);
    void Info(std::istream& options);

private:
    class MsgDispatcher;

    void ServeRequests(IRequestGate* pGate);
    void SendMessage() KORLO_REQUIRES(_outputMutex);
    void Send(std::string_view text) KORLO_REQUIRES(_outputMutex);
    void Notify(const GroupNameCollection& groups);
    void Unsubscribe();
    bool RequestIsWhole() const;
    const ISettingsSerializer& Serializer(const char* assertion) const;

    core::Logger* _pLogger;  // not owned
    bool _quit;
    std::istream* _pIn;  // borrowed
    osa::Mutex _outputMutex;
    std::ostream* _pOut KORLO_GUARDED_BY(_outputMutex);  // borrowed
    SettingsManager* _pSettingsManager;                  // borrowed
    SerializationManager* _pSerializationManager;        // borrowed
    std::atomic<ISettingsSerializer*> _pSerializer;      // borrowed; a notification reads it while a command changes it
    std::ostringstream _message KORLO_GUARDED_BY(_outputMutex);  // of a response that is being made, else empty
    GroupNameCollection _subscribed;
    std::size_t _subscribedBytes = 0;  // of `_subscribed`, as a group list; a name that comes again takes no room
};

}  // namespace korlo::settings::server
