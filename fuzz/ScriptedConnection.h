#pragma once
// A connection whose server says what a script says, whatever it is asked.

#include <chrono>
#include <condition_variable>
#include <istream>
#include <memory>
#include <mutex>
#include <ostream>
#include <streambuf>
#include <string>

#include "Script.h"
#include "client/KorloSettingsConnection.h"
#include "korlo/osa/Exception.h"

namespace korlo::fuzz
{

/// The server of all connections of one run. Each line of the script is sent, but for these:
///
///   %await   waits for the next request, for a moment, as long as anybody may send one
///   %deaf    takes no request any more on this connection
///   %lost    ends this connection; what comes after it is said on the next one
///
/// When the script is at its end nobody can connect any more.
///
/// Thread safety: all methods, from any thread.
class ScriptedPeer
{
public:
    explicit ScriptedPeer(std::string script) : _script(std::move(script)) {}

    /// From now on no request comes that one could wait for.
    void ExpectNoMore()
    {
        const std::lock_guard lock(_mutex);
        _patience = 0;
        _requested.notify_all();
    }

    /// Begins the next connection, at the place where the last one was left, or, with `anew`, after its end.
    /// @throws osa::Exception when nothing is left to be said.
    void Accept(bool anew)
    {
        const std::lock_guard lock(_mutex);
        while (anew && _isInside && !_script.IsAtEnd() && _script.Take() != Lost)
        {
        }
        _isDeaf = false;
        _isInside = !_script.IsAtEnd();
        if (!_isInside)
        {
            throw osa::Exception("nobody is there");
        }
    }

    /// The next line; false at the end of the connection.
    bool Say(std::string& line)
    {
        std::unique_lock lock(_mutex);
        while (!_script.IsAtEnd() && !_script.TakeIf(Lost))
        {
            if (_script.TakeIf("%await\n"))
            {
                Await(lock);
            }
            else if (_script.TakeIf("%deaf\n"))
            {
                _isDeaf = true;
            }
            else
            {
                line = _script.Take();
                return true;
            }
        }
        _isInside = false;
        return false;
    }

    /// Hears a part of a request, at its end the whole; false when it takes none.
    bool Hear(bool whole)
    {
        const std::lock_guard lock(_mutex);
        _heard += whole && !_isDeaf ? 1 : 0;
        _requested.notify_all();
        return !_isDeaf;
    }

private:
    static constexpr const char* Lost = "%lost\n";

    void Await(std::unique_lock<std::mutex>& lock)
    {
        const bool came =
            _requested.wait_for(lock, std::chrono::milliseconds(5), [this] { return _heard > 0 || _patience == 0; });
        _heard -= _heard > 0 ? 1 : 0;
        _patience -= came || _patience == 0 ? 0 : 1;
    }

    std::mutex _mutex;
    std::condition_variable _requested;
    Script _script;
    bool _isInside = false;  // a connection whose end was not met
    bool _isDeaf = false;
    unsigned int _heard = 0;     // requests that nobody has awaited yet
    unsigned int _patience = 8;  // how often it waits in vain
};

/// Thread safety: as KorloSettingsConnection.
class ScriptedConnection : public settings::client::KorloSettingsConnection
{
public:
    /// @param peer borrowed; must outlive the connection.
    /// @param keepsTransport see KorloSettingsConnection::KeepsTransport.
    ScriptedConnection(ScriptedPeer& peer, bool keepsTransport) : KorloSettingsConnection(keepsTransport), _peer(peer)
    {
    }

    void EnsureConnection(int) override
    {
        if (IsReady())
        {
            return;
        }
        ForgetStreams();
        _peer.Accept(!KeepsTransport());
        _pStreams = std::make_unique<Streams>(_peer);
        _pIn = &_pStreams->in;
        _pOut = &_pStreams->out;
    }

    void CloseConnection() override {}

private:
    class InputBuffer : public std::streambuf
    {
    public:
        explicit InputBuffer(ScriptedPeer& peer) : _peer(peer) {}

    protected:
        int_type underflow() override
        {
            _hasEnded = _hasEnded || !_peer.Say(_line);
            if (_hasEnded)
            {
                return traits_type::eof();
            }
            setg(_line.data(), _line.data(), _line.data() + _line.size());
            return traits_type::to_int_type(*gptr());
        }

    private:
        ScriptedPeer& _peer;
        std::string _line;
        bool _hasEnded = false;
    };

    class OutputBuffer : public std::streambuf
    {
    public:
        explicit OutputBuffer(ScriptedPeer& peer) : _peer(peer) {}

    protected:
        int_type overflow(int_type byte) override
        {
            return _peer.Hear(false) ? traits_type::not_eof(byte) : traits_type::eof();
        }

        std::streamsize xsputn(const char*, std::streamsize size) override { return _peer.Hear(false) ? size : 0; }

        int sync() override { return _peer.Hear(true) ? 0 : -1; }

    private:
        ScriptedPeer& _peer;
    };

    struct Streams
    {
        explicit Streams(ScriptedPeer& peer) : inputBuffer(peer), outputBuffer(peer) {}

        InputBuffer inputBuffer;
        OutputBuffer outputBuffer;
        std::istream in{&inputBuffer};
        std::ostream out{&outputBuffer};
    };

    ScriptedPeer& _peer;
    std::unique_ptr<Streams> _pStreams;
};

}  // namespace korlo::fuzz
