#pragma once
// Connections over TCP and over Unix-domain sockets.

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>

#include "korlo/osa/Mutex.h"
#include "korlo/osa/PeerIdentity.h"

namespace korlo::osa
{

class Deadline;
struct SocketAddress;

/// One end of a stream connection, over TCP or over a Unix-domain socket. Interrupted system calls are resumed, no
/// signal is raised for a peer that has gone, and the connection does not pass to programs that this process starts.
/// Descriptors that a peer sends along with bytes are closed and never seen.
///
/// Over TCP a peer that vanished is detected after two minutes: the connection is then lost. So it is where a peer is
/// there, but takes nothing for two minutes of what was written; the system does not tell the two apart. A Unix-domain
/// socket knows at once when its peer has gone.
///
///     TcpSocket socket(1);
///     socket.Connect("unix:/run/korlo-settings/socket", 0, 10);
///     TcpSocketStream stream(&socket, Infinite);
///
/// Thread safety: one thread reads while another writes; Close, EndReading, Wake and LimitWrites from any thread.
/// Everything else belongs to one thread.
class TcpSocket
{
public:
    /// How reading or writing ended.
    enum IoStatus
    {
        Done,         ///< Bytes were moved: some, or all, as the operation says.
        EndOfStream,  ///< The peer will send no more, or Close was called.
        TimedOut,     ///< The time was up.
        Failed        ///< The connection is lost.
    };

    /// What came of a read or a write.
    struct IoResult
    {
        IoStatus status;    ///< how it ended
        std::size_t bytes;  ///< moved, whatever the status
        int error;          ///< errno for Failed, else 0
    };

    /// What Wait found; several at once, or 0 when the time was up. A connection that is lost or closed is ready for
    /// both directions, whether they were asked for or not: the next read or write tells more.
    enum Readiness : unsigned int
    {
        Readable = 1,
        Writable = 2,
        Woken = 4
    };

    /// A socket that is not connected.
    /// @param noDelay non-zero sends each write at once (TCP_NODELAY) instead of gathering small ones, as a Unix-domain
    ///        socket always does.
    explicit TcpSocket(unsigned short noDelay);
    TcpSocket(const TcpSocket&) = delete;
    TcpSocket& operator=(const TcpSocket&) = delete;

    /// Ends the connection. No thread may use the socket any more.
    ~TcpSocket();

    /// Connects to a host, by name or address, or to a Unix-domain socket, as unix:PATH. All addresses of a host are
    /// tried, in the system's order. A path may have 108 bytes, all that the system allows; sockets without a file
    /// (`unix:@NAME`) are refused. With a path the port means nothing.
    ///
    /// With port 0 the ServiceDirectory is asked for the host's address and port first. When it has none, the port is
    /// that of the TCP service with the host's name in the system's services database, else 4711; and a host that the
    /// system cannot resolve is looked for on the loopback address.
    ///
    /// Throws Exception, naming host and port, or the path, and the reason, when no address answers in time, and then
    /// may be called again; also when the socket is connected or closed.
    /// @param timeoutMs for all addresses together. The look-up of a name is not part of it and takes the time that the
    ///        name service takes. To the same machine a connect is done or refused within the call itself and never
    ///        waits, however loaded the machine is; only a listener whose queue is full makes it wait.
    void Connect(const char* host, unsigned short port, unsigned int timeoutMs);

    /// Waits for bytes and takes what is there, at least one byte and at most `size`, in one system call when
    /// `timeoutMs` is Infinite; on a Unix-domain socket when something is there already.
    IoResult ReadSome(char* bytes, std::size_t size, unsigned int timeoutMs);

    /// Waits until the connection takes bytes and hands it what it takes at once.
    IoResult WriteSome(const char* bytes, std::size_t size, unsigned int timeoutMs);

    /// Writes everything, in one system call when the connection takes it all at once. After TimedOut the peer has got
    /// a part.
    /// @param timeoutMs for the whole.
    IoResult WriteAll(const char* bytes, std::size_t size, unsigned int timeoutMs);

    /// The same for two pieces, which leave as one.
    IoResult WriteAll(const char* head, std::size_t headSize, const char* tail, std::size_t tailSize,
                      unsigned int timeoutMs);

    /// Lets no write that begins from now on take longer than this, whatever its own time-out: for the last words to a
    /// peer that may not read any more. From any thread.
    void LimitWrites(unsigned int timeoutMs) { _longestWriteMs = timeoutMs; }

    /// Waits until there is something to read, or room to write, as asked for, or Wake was called.
    /// @return the Readiness values that hold. One Wait takes all calls of Wake before it.
    /// Throws Exception when the system has no descriptor left for being woken.
    unsigned int Wait(bool forReading, bool forWriting, unsigned int timeoutMs);

    /// Ends the Wait that is under way or, if none is, the next one.
    void Wake();

    /// Lets the reader meet the end of the stream, once it has taken what has come by then, and ends a Wait as Wake
    /// does. Writing goes on.
    void EndReading();

    /// Shuts the connection down in both directions and wakes whoever reads, writes or connects. What was written
    /// before is still delivered. The socket cannot be used again.
    void Close();

    /// The other end as ADDRESS:PORT, an IPv6 address in square brackets; empty before it was ever connected. On a
    /// Unix-domain socket, at either end, it is the address of the listener: what a client calls itself means nothing.
    const std::string& GetPeerAddress() const;

    /// For a wait for several connections at once, and for nothing else; negative where there is no connection. It is
    /// the connection's until this object is destroyed.
    int GetDescriptor() const { return _descriptor; }

    /// Who the client is, taken once, when a TcpListener accepted it on a Unix-domain socket; null over TCP and for a
    /// socket that was connected from here.
    const PeerIdentity* GetPeerIdentity() const;

private:
    friend class TcpListener;

    int WakeDescriptor();
    int ConnectTo(const SocketAddress& address, const Deadline& deadline);
    int WaitForFile(const SocketAddress& address, const Deadline& deadline);
    bool IsClosed();
    bool Adopt(int descriptor);
    void Drop();
    void Prepare(const SocketAddress& peer, const std::string& peerAddress);

    Deadline WriteDeadline(unsigned int timeoutMs) const;

    const bool _noDelay;
    std::atomic<unsigned int> _longestWriteMs = Infinite;
    std::string _peerAddress;
    bool _isUnix = false;
    std::unique_ptr<const PeerIdentity> _pPeerIdentity;
    int _descriptor = -1;  // changes with _mutex held, while nobody reads or writes

    std::mutex _mutex;           // lets Close meet a living descriptor
    bool _closed = false;        // guarded by _mutex
    int _wakeDescriptor = -1;    // guarded by _mutex; made when it is first needed, and then stays
    bool _readingEnded = false;  // guarded by _mutex; wakes the first Wait, should there be no event yet
};

}  // namespace korlo::osa
