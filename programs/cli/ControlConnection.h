#pragma once
// The server's control door, as its clients see it.

#include <cstddef>
#include <stdexcept>
#include <string>

#include "Failure.h"
#include "korlo/core/IniFile.h"
#include "korlo/osa/TcpSocket.h"
#include "korlo/osa/TcpSocketStream.h"

namespace korlo::settings::cli
{

/// What the server answered a request with in place of a document, as it worded it.
///
/// Thread safety: none of its own; a thrown exception belongs to the thread that catches it.
class ControlError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// A connection to the control door of a server (ControlProtocol.h). Every operation throws Failure with StatusUnusable
/// when the door cannot be reached, turns its client away, does not know the word, or does not answer in whole.
///
///     const core::IniFile answer = ControlConnection(control::DefaultPath).Ask(control::AccessReload);
///
/// Thread safety: none of its own; the owner guards it.
class ControlConnection
{
public:
    /// Production defaults; tests shorten them.
    struct Limits
    {
        unsigned int waitMs = 15'000;              ///< for the next bytes of an answer; osa::Infinite: for ever
        std::size_t mostBytes = 64 * 1024 * 1024;  ///< of one answer: whatever listens there, it may never end
    };

    /// Connects.
    /// @param path of the door's socket.
    explicit ControlConnection(const std::string& path) : ControlConnection(path, Limits()) {}
    ControlConnection(const std::string& path, const Limits& limits);

    /// @param request one line, without its line break.
    /// @return the document of the answer.
    /// @throws ControlError when the word itself failed.
    core::IniFile Ask(const std::string& request);

    /// The next answer to a request that is answered again and again.
    /// @throws as Ask.
    core::IniFile ReadNext();

    /// Ends the connection, and whatever waits for an answer, which then fails. From any thread.
    void Close() { _socket.Close(); }

private:
    std::string ReadLine();
    [[noreturn]] void ThrowError(const std::string& message) const;
    Failure Failed(const std::string& reason, const std::string& hint = std::string()) const;

    const std::string _path;
    const Limits _limits;
    std::size_t _bytes = 0;  // of the answer so far
    osa::TcpSocket _socket;
    osa::TcpSocketStream _stream;
};

}  // namespace korlo::settings::cli
