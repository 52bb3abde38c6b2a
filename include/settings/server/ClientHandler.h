#pragma once
// The server's side of one connection of the settings protocol (docs/protocol.md).

#include <atomic>
#include <cstddef>
#include <istream>
#include <memory>
#include <ostream>
#include <sstream>
#include <string_view>

#include "korlo/core/Logger.h"
#include "korlo/osa/Mutex.h"
#include "settings/GroupNameCollection.h"
#include "settings/IChangeCallback.h"
#include "settings/server/IClientAccess.h"
#include "settings/server/ISettingsSerializer.h"
#include "settings/server/ServerEnv.h"

namespace korlo::settings::server
{

/// What a request does to the store, for an owner that prepares for it.
enum class RequestKind
{
    Read,              ///< takes longer the more it writes
    Change,            ///< of the settings in memory alone
    PersistentChange,  ///< saves the user layer
    Restore,           ///< reads the defaults anew, and saves the user layer
    Subscription
};

/// Is told of the requests of a connection before they are carried out.
///
/// Thread safety: called on the connection's thread, without any lock held.
class IRequestGate
{
public:
    virtual ~IRequestGate() = default;

    /// The next request is about to be read. May wait, and so hold back a client that asks for much and reads slowly.
    /// @return false to end the connection instead.
    virtual bool BeforeRequest() = 0;

    /// A request that uses the store has been read to its end, and is about to be carried out.
    virtual void BeforeStore(RequestKind kind) = 0;

    /// The client has subscribed.
    /// @param groups the names and patterns of this request.
    /// @param count how many it has asked for so far, each counted once.
    virtual void OnSubscribed(const GroupNameCollection& groups, std::size_t count)
    {
        static_cast<void>(groups);
        static_cast<void>(count);
    }
};

class AccessGuard;
class ChangeOrigin;

/// Reads commands from a connection, carries them out on the store, writes the responses, and pushes notifications
/// about the groups that the client subscribed to.
///
///     ServerEnv env{&settingsManager, &serializationManager};
///     ClientHandler handler(&env, &in, &out);
///     handler.Run();
///
/// What the client may not read is left out of all that it is sent, and a change that it may not make is refused; what
/// it may do is asked again for each request and each notification.
///
/// A request whose input ends before its last terminator is not carried out. Where memory runs out, a message is not
/// sent in part: std::bad_alloc passes out instead. Each message goes to `out` in one write and one flush.
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
    /// @param pGate borrowed, may be null.
    /// @param pAccess what the client may do; borrowed, may be null: everything.
    /// @param pOrigin what the store's observer is told of who makes this client's changes; borrowed, may be null.
    ClientHandler(ServerEnv* pEnv, std::istream* pIn, std::ostream* pOut, IRequestGate* pGate,
                  IClientAccess* pAccess = nullptr, const ChangeOrigin* pOrigin = nullptr);

    /// The same without a gate, for a client that may do everything.
    ClientHandler(ServerEnv* pEnv, std::istream* pIn, std::ostream* pOut);
    ClientHandler(const ClientHandler&) = delete;
    ClientHandler& operator=(const ClientHandler&) = delete;
    ~ClientHandler() override;

    /// Serves the connection until the client quits, its input ends, the gate ends it or `out` takes no more of a
    /// response; then the client is unsubscribed. What the store or a serializer throws passes out, and ends the
    /// connection with it.
    void Run();

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

    void BeforeStore(RequestKind kind);
    void SendMessage() KORLO_REQUIRES(_outputMutex);
    void Send(std::string_view text) KORLO_REQUIRES(_outputMutex);
    void Notify(const GroupNameCollection& groups, const IAccessRights& rights);
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
    IRequestGate* const _pGate;                                  // borrowed, may be null
    const ChangeOrigin* const _pOrigin;                          // borrowed, may be null
    const std::unique_ptr<AccessGuard> _pGuard;
};

}  // namespace korlo::settings::server
