#pragma once
// Accepts TCP connections.

#include <atomic>
#include <memory>
#include <string>

#include "korlo/osa/TcpSocket.h"

namespace korlo::osa
{

/// Listens on one address and port from its construction on.
///
///     TcpListener listener("127.0.0.1", 0);
///     while (const std::unique_ptr<TcpSocket> pSocket = listener.Accept())
///
/// Thread safety: all methods but the destructor, from any thread.
class TcpListener
{
public:
    /// @param address an IPv4 or IPv6 address, or a name, of which the first address counts; empty for every address of
    ///        this machine.
    /// @param port 0 picks a free one.
    /// Throws Exception, naming address, port and reason.
    TcpListener(const std::string& address, unsigned short port);
    TcpListener(const TcpListener&) = delete;
    TcpListener& operator=(const TcpListener&) = delete;

    /// No thread may be in Accept any more.
    ~TcpListener();

    /// The port that is listened on, never 0.
    unsigned short GetPort() const;

    /// Where it listens, as ADDRESS:PORT, an IPv6 address in square brackets.
    const std::string& GetAddress() const;

    /// Waits for the next connection, which sends each write at once. Null once the listener is closed.
    ///
    /// A connection that broke before it was accepted is passed over. While this process has no descriptor or memory
    /// left, one warning is logged and the wait goes on, so that it accepts again as soon as it can. Throws Exception
    /// when the system refuses for good.
    std::unique_ptr<TcpSocket> Accept();

    /// Ends the listening and wakes every thread in Accept. Connections that nobody accepted are reset; the port is
    /// free.
    void Close();

private:
    explicit TcpListener(int descriptor);

    void HandleFailure(int error);

    const int _descriptor;
    std::string _address;
    unsigned short _port = 0;

    std::atomic<bool> _closed = false;
    std::atomic<bool> _exhausted = false;  // the last attempt found no descriptor or memory
};

}  // namespace korlo::osa
