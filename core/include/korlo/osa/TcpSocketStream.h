#pragma once
// A connection as standard streams.

#include <istream>
#include <memory>
#include <ostream>

#include "korlo/osa/TcpSocket.h"

namespace korlo::osa
{

/// Reads from a connected socket; GetOstream is a separate stream, with flags of its own, that writes to it. The two
/// share no state that changes, so that one thread reads while another writes. (Writing to this object itself goes the
/// same way as GetOstream, but then its flags serve both directions: use it that way on one thread only.)
///
/// Output gathers until it is flushed and leaves in one system call, whatever its size up to 64 KiB; what goes beyond
/// leaves in pieces of about that size. Input comes in pieces of up to 64 KiB, and a read waits only while nothing is
/// there. The output buffer holds 4 KiB, or 64 KiB while a larger message gathers; the input buffer is 64
/// KiB of addresses, of which the system provides no more memory than the largest message touched.
///
/// A read that meets the end of the connection, an error or the time-out reports the end of the stream; a write or a
/// flush that does sets the bad flag, and what it had not written is dropped.
///
/// Thread safety: one thread reads while another writes through GetOstream. TcpSocket::Close from any thread ends both.
class TcpSocketStream : public std::iostream
{
public:
    /// @param pSocket borrowed, not null; must outlive this object, and be connected before the first read or write.
    /// @param timeoutMs the longest that one read waits for bytes and one write for the connection to take them.
    TcpSocketStream(TcpSocket* pSocket, unsigned int timeoutMs);
    TcpSocketStream(const TcpSocketStream&) = delete;
    TcpSocketStream& operator=(const TcpSocketStream&) = delete;

    /// Drops what was not flushed: a destructor must not wait for the peer. The socket stays as it is.
    ~TcpSocketStream() override;

    /// For writing, with a state of its own: one thread may write to it while another reads.
    std::ostream& GetOstream();

private:
    class Buffer;

    const std::unique_ptr<Buffer> _pBuffer;
    std::ostream _ostream;
};

}  // namespace korlo::osa
