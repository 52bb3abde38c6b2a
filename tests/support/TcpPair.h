#pragma once
// Two connected sockets on a free port of this machine, and what arrives at one.

#include <memory>
#include <string>

#include "korlo/osa/Mutex.h"
#include "korlo/osa/TcpListener.h"
#include "korlo/osa/TcpSocket.h"

namespace korlo
{

/// Thread safety: as its members'.
struct TcpPair
{
    TcpPair()
    {
        client.Connect("127.0.0.1", listener.GetPort(), osa::Infinite);
        pServer = listener.Accept();
    }

    osa::TcpListener listener{"127.0.0.1", 0};
    osa::TcpSocket client{1};
    std::unique_ptr<osa::TcpSocket> pServer;
};

/// So many bytes from the socket; fewer when the connection ends, or nothing comes for long.
inline std::string ReadBytes(osa::TcpSocket& socket, std::size_t size)
{
    constexpr unsigned int limitMs = 30'000;
    std::string text(size, '\0');
    std::size_t read = 0;
    while (read < size)
    {
        const osa::TcpSocket::IoResult result = socket.ReadSome(text.data() + read, size - read, limitMs);
        if (result.status != osa::TcpSocket::Done)
        {
            break;
        }
        read += result.bytes;
    }
    return text.substr(0, read);
}

}  // namespace korlo
