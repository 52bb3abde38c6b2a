#pragma once
// A pair of streams on which a client speaks the settings protocol.

#include <istream>
#include <ostream>
#include <utility>

#include "client/StopRequest.h"
#include "korlo/core/Logger.h"

namespace korlo::settings::client
{

/// One way to reach the settings server: it establishes and drops the streams, and owns them.
///
/// Thread safety: one thread at a time. Another one ends what it waits for by the StopRequest.
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

    /// Once that request is made, an EnsureConnection that is under way, or comes later, makes no further attempt and
    /// waits for nothing; and its breaker ends the streams. To be called before the first EnsureConnection; a
    /// connection without a request never stops trying.
    /// @param pStopRequest borrowed, not null; must outlive the connection.
    void HeedStopRequest(StopRequest* pStopRequest) { _pStopRequest = pStopRequest; }

protected:
    bool StopRequested() const { return *_pStopRequest; }

    /// Waits before the next attempt, unless somebody asks to stop.
    void Pause(unsigned int durationMs) { _pStopRequest->Pause(durationMs); }

    /// @param breaker of the transport from now on; empty before it goes.
    void SetBreaker(StopRequest::Breaker breaker) { _pStopRequest->SetBreaker(std::move(breaker)); }

    core::Logger* _pLogger;         // not owned
    std::istream* _pIn = nullptr;   // borrowed from the transport
    std::ostream* _pOut = nullptr;  // borrowed from the transport

private:
    const bool _keepsTransport;
    StopRequest _neverMade;
    StopRequest* _pStopRequest = &_neverMade;  // or borrowed
};

}  // namespace korlo::settings::client
