#pragma once
// The client with a reader thread: it hears of changes and reconnects by itself.

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "client/CatchUp.h"
#include "client/KorloSettingsClientImpl.h"
#include "client/KorloSettingsConnection.h"
#include "client/MissedChanges.h"
#include "client/RemoteCommand.h"
#include "client/StopRequest.h"
#include "client/tMsgQueue.h"
#include "korlo/osa/Mutex.h"
#include "korlo/osa/Semaphore.h"
#include "korlo/osa/Thread.h"

namespace korlo::settings::client
{

/// How long the multi-threaded client waits. Clients of a server take it as it is; it is there for those who play the
/// server and cannot wait that long.
struct WaitLimits
{
    unsigned int connectionMs = 10000;  // a caller, for a usable connection
    unsigned int commandMs = 1000;      // the reader thread, for the request that a response belongs to
    unsigned int pauseMs = 1000;        // the reader thread, between two attempts to connect
    unsigned int quitMs = 1000;         // the destructor, for its turn to write; then for the server to go
};

/// Callers write their requests on their own threads; a reader thread is the only reader of the connection. It hands
/// each response to the caller that waits for it, delivers change notifications to the subscribers, and, when the
/// connection is lost, reconnects every second for as long as the client lives and subscribes all groups again.
///
/// Who writes holds `_sendMutex`, a semaphore of one unit, since it is taken by the reader thread in one state of its
/// cycle and released in another: the reader holds it for as long as there is no usable connection, so callers wait, up
/// to 10000 ms, for the connection to come back. A caller that awaits a response holds `_commandMutex` from before it
/// sends until the response has come, and takes `_sendMutex` inside it, never the other way round. It queues its
/// command before it writes the request: so the reader finds it when the response comes. Until the caller has its
/// status, the command lives and is the reader's to use; unless the caller, who could not write the whole request, is
/// the one who takes it from the queue again.
///
/// The reader thread alone touches the input stream. The output stream, its flags included, is touched only with
/// `_sendMutex` held; that a write failed, the reader learns from `_outputFailed`. The stream pointers change only on
/// the reader thread with `_sendMutex` held.
///
/// A request that could not be made whole, for want of memory or of a connection, drops the connection: what there is
/// of it must not become the head of another request, nor its response be taken for another one's.
///
/// A failure status is posted whenever the connection is lost, whether or not a caller waits. Left over by a connection
/// that broke while nobody waited, it makes exactly one later call fail, before that call sends anything.
///
/// All changes reach the subscribers by `_missed`, which remembers what it delivered if somebody wants to hear of
/// changes that were missed. These are read by the reader thread before it releases `_sendMutex`, so that no caller's
/// request comes before that read and nobody else awaits an answer; and delivered after it has released it, since a
/// callback may make a change and would wait for the semaphore that its own thread holds. The read is answered behind
/// the subscription on the same connection, so that of no change it is unknown whether it came before: what is missing
/// in the answer is notified later. What is notified before the answer is kept until the missed changes are delivered;
/// it may be older than the answer, and then what is as new as the answer is notified, too, behind it.
///
/// Thread safety: all methods, from any thread. Callbacks run on the reader thread: they may change settings, subscribe
/// and unsubscribe, but not ask this client for a response, which only their own thread could read.
class KorloSettingsClientImplMultiThreaded : public KorloSettingsClientImpl, public osa::Runnable
{
public:
    /// What the reader thread tells the caller that awaits a response.
    struct ResponseStatus
    {
        bool matched;  ///< a response with the awaited keyword came
        bool result;   ///< what the command made of it
    };

    /// Starts the reader thread and does not wait for the connection.
    /// @param pConnection taken.
    explicit KorloSettingsClientImplMultiThreaded(KorloSettingsConnection* pConnection, const WaitLimits& limits = {});
    explicit KorloSettingsClientImplMultiThreaded(std::unique_ptr<KorloSettingsConnection> pConnection,
                                                  const WaitLimits& limits = {});

    /// Tells the server "quit" if there is a connection, and waits for the reader thread: for the connection attempt
    /// that is under way, and no longer.
    ~KorloSettingsClientImplMultiThreaded() override;

    void GetSettings(const GroupNameCollection& groups, core::IniFile& settings) const override;
    void MergeSettings(const core::IniFile& changes, unsigned int flags) override;
    bool TestAndMerge(const core::IniFile& expected, const core::IniFile& changes) override;
    void Subscribe(IChangeCallback* pCallback, const GroupNameCollection& groups) override;
    void OverwriteSettings(const GroupNameCollection& groups, const core::IniFile& settings) override;
    void RestoreToDefaults(const GroupNameCollection& groups) override;
    void UnSubscribe(IChangeCallback* pCallback) override;
    void ReportMissedChanges(bool isWanted) override;

    /// The reader thread.
    void Run() override;

    /// Does nothing: the destructor stops the reader thread.
    void Stop() override;

    /// Sends one command and, if it awaits a response, returns what the response said; else true.
    /// @param name names the operation in messages.
    /// @param pCommand taken.
    /// @throws osa::LockException when there is no connection for 10000 ms; osa::Exception "%s lost connection to
    ///         korlo-settings-server" when the request could not be written, "%s failed to communicate with
    ///         korlo-settings-server" when the response did not come.
    bool RunCommand(const char* name, RemoteCommand* pCommand) const;

private:
    bool SendAndAwait(const char* name, RemoteCommand& command) const;
    void SendQueued(const char* name, RemoteCommand& command) const;
    void Send(const char* name, RemoteCommand& command) const;
    unsigned int SendSubscribe(const GroupNameCollection& groups) const;
    void CheckInvariant(const char* name) const;
    [[noreturn]] void FailToCommunicate(const char* name) const;

    template <typename Write>
    bool WriteOrDrop(const Write& write) const;

    template <typename Step>
    bool Survive(const Step& step) const;
    bool EstablishConnection();
    bool Resubscribe(CatchUp& catchUp);
    void Report(bool isConnected);
    void ReadUntilLost();
    void ReadLine(const std::string& line);
    void HandleResponse(std::string_view keyword);
    bool TakeCommand(RemoteCommand*& pCommand);
    void LeaveConnection();
    void CleanRequestQueue();
    void PostFailure();

    osa::Thread _thread;
    mutable MissedChanges _missed{_dispatcher};
    mutable StopRequest _stopRequested;  // lent to the connection
    std::unique_ptr<KorloSettingsConnection> _pConnection;
    mutable osa::Mutex _commandMutex;
    mutable osa::Semaphore _sendMutex;
    const std::uint32_t _timeoutMs;                        // how long a caller waits for `_sendMutex`
    mutable osa::tMsgQueue<RemoteCommand*> _requestQueue;  // belongs to the caller that awaits it
    mutable osa::tMsgQueue<ResponseStatus> _responseQueue;

    const WaitLimits _limits;
    mutable std::atomic<bool> _outputFailed = false;
    std::atomic<unsigned int> _connectionCount = 0;  // tells a subscriber whether the connection is still the same
    unsigned int _abandonedResponses = 0;  // the reader thread's; to requests whose callers have failed meanwhile
};

}  // namespace korlo::settings::client
