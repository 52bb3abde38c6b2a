#pragma once
// A pair of streams on which a client speaks the settings protocol.

#include <atomic>
#include <istream>
#include <ostream>

#include "korlo/core/Logger.h"
#include "korlo/osa/Mutex.h"
#include "korlo/osa/Semaphore.h"
#include "korlo/osa/TcpSocket.h"

namespace korlo::settings::client
{

/// One way to reach the settings server: it establishes and drops the streams, and owns them.
///
/// Thread safety: one thread at a time, but RequestStop and Interrupt from any thread.
class KorloSettingsConnection
{
public:
    /// @param keepsTransport see KeepsTransport.
    explicit KorloSettingsConnection(bool keepsTransport = false);
    KorloSettingsConnection(const KorloSettingsConnection&) = delete;
    KorloSettingsConnection& operator=(const KorloSettingsConnection&) = delete;
    virtual ~KorloSettingsConnection();

    /// Returns with both streams usable.
    /// @param retries the most attempts that are made to connect.
    /// @throws osa::Exception when it cannot.
    virtual void EnsureConnection(int retries) = 0;

    /// Drops the transport. The stream pointers stay as they were and must not be used until EnsureConnection.
    virtual void CloseConnection() = 0;

    /// The streams, null while there are none. Owned by the connection, valid until it is closed or established anew.
    std::istream* GetIstream() const { return _pIn; }
    std::ostream* GetOstream() const { return _pOut; }

    /// True when both streams are there and neither has failed. The end of the input alone is no failure.
    bool IsReady() const;

    /// Forgets the streams of a closed connection.
    void ForgetStreams();

    /// True when CloseConnection drops nothing and EnsureConnection goes on with the same streams: answers to requests
    /// from before then still come.
    bool KeepsTransport() const { return _keepsTransport; }

    /// Nobody will need the connection any more: an EnsureConnection that is under way, or comes later, makes no
    /// further attempt and waits for nothing, and what is still written waits for a second at most.
    void RequestStop() KORLO_EXCLUDES(_interruptMutex);

    /// Ends the streams of a peer that does not end them itself: whoever reads meets the end.
    void Interrupt() KORLO_EXCLUDES(_interruptMutex);

protected:
    bool StopRequested() const { return _stopRequested; }

    /// Waits before the next attempt, unless somebody asks to stop.
    void Pause(unsigned int durationMs);

    /// @param pSocket what Interrupt and RequestStop work on from now on; borrowed, may be null.
    void SetInterruptible(osa::TcpSocket* pSocket) KORLO_EXCLUDES(_interruptMutex);

    core::Logger* _pLogger;         // not owned
    std::istream* _pIn = nullptr;   // borrowed from the transport
    std::ostream* _pOut = nullptr;  // borrowed from the transport

private:
    const bool _keepsTransport;
    std::atomic<bool> _stopRequested = false;
    osa::Semaphore _stopSignal;  // raised once, for the one thread that may pause
    osa::Mutex _interruptMutex;
    osa::TcpSocket* _pInterruptible KORLO_GUARDED_BY(_interruptMutex) = nullptr;
};

}  // namespace korlo::settings::client
