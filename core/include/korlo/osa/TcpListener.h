#pragma once
// Accepts connections over TCP and over Unix-domain sockets.

#include <atomic>
#include <memory>
#include <string>

#include "korlo/osa/TcpSocket.h"

namespace korlo::osa
{

class SocketFile;

/// What the file of a Unix-domain socket allows to whom. Only who may write to it may connect.
///
/// Thread safety: none of its own; the owner guards it.
struct SocketFileRights
{
    /// For `group`.
    static constexpr unsigned int KeepGroup = 0xFFFFFFFFu;

    unsigned int mode = 0660;        ///< permission bits
    unsigned int group = KeepGroup;  ///< KeepGroup: the one that the system gives to a new file
};

/// Listens on one address and port, or on a Unix-domain socket, from its construction on.
///
///     TcpListener listener("127.0.0.1", 0);
///     while (const std::unique_ptr<TcpSocket> pSocket = listener.Accept())
///
/// Thread safety: all methods but the destructor, from any thread.
class TcpListener
{
public:
    /// @param address an IPv4 or IPv6 address, or a name, of which the first address counts; empty for every address of
    ///        this machine; or unix:PATH, of up to 108 bytes.
    /// @param port 0 picks a free one. With a path it means nothing.
    /// @param rights of the file that it makes at a path. They hold before the first client can connect, whatever the
    ///        process's umask says.
    ///
    /// The file of a server that was killed is replaced: a socket, to which a connect was refused. Everything else that
    /// may be at the path stays, and is an error: the socket of another server, any other file, a symbolic link. While
    /// it starts there is a file PATH.lock, which keeps servers apart that start at the same time; it waits up to ten
    /// seconds for another.
    ///
    /// Throws Exception, naming address and port, or the path, and the reason; nothing is left behind then.
    TcpListener(const std::string& address, unsigned short port, const SocketFileRights& rights = {});

    /// Listens on a socket that was made elsewhere and passed to this process, by a service manager. Its other owners
    /// keep it: it is never shut down, nor is its file removed, and who connects while nobody accepts waits for the
    /// next one who does. It becomes non-blocking, for all of its owners, and is closed on exec in this process.
    /// @param descriptor of a stream socket, TCP or Unix-domain, that listens; owned from now on.
    /// Throws Exception, naming the descriptor and the reason, for any other; it stays the caller's then, unchanged.
    explicit TcpListener(int descriptor);

    TcpListener(const TcpListener&) = delete;
    TcpListener& operator=(const TcpListener&) = delete;

    /// Closes. No thread may be in Accept any more.
    ~TcpListener();

    /// The port that is listened on, never 0 over TCP and always 0 on a Unix-domain socket.
    unsigned short GetPort() const;

    /// Where it listens, as ADDRESS:PORT, an IPv6 address in square brackets, or unix:PATH. A passed socket that has a
    /// name in place of a file is `unix:@NAME`, with any bytes in the name.
    const std::string& GetAddress() const;

    /// Waits for the next connection, which sends each write at once. Null once the listener is closed. On a
    /// Unix-domain socket the connection knows who its client is.
    ///
    /// A connection that broke before it was accepted is passed over. While this process has no descriptor or memory
    /// left, one warning is logged and the wait goes on, so that it accepts again as soon as it can. Throws Exception
    /// when the system refuses for good.
    std::unique_ptr<TcpSocket> Accept();

    /// Ends the listening and wakes every thread in Accept. Connections that nobody accepted are reset, the port is
    /// free, and the socket's file is removed if it is still the one that this listener made. Of a passed socket
    /// nothing but the wait in Accept ends.
    void Close();

private:
    explicit TcpListener(bool isPassed);

    bool ListenOn(const SocketAddress& address, std::string& reason);
    void ReadAddress();
    bool AwaitConnection() const;
    void HandleFailure(int error);
    void RefuseWaiting() const;

    const bool _isPassed;
    const int _wakeDescriptor;  // readable from Close on
    int _descriptor = -1;       // set during construction
    bool _isUnix = false;
    std::string _address;
    unsigned short _port = 0;
    std::unique_ptr<SocketFile> _pFile;  // of a socket that is not passed; whoever sets _closed removes it

    std::atomic<bool> _closed = false;
    std::atomic<bool> _exhausted = false;  // the last attempt found no descriptor or memory
};

}  // namespace korlo::osa
