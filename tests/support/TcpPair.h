#pragma once
// Two connected sockets on a free port of this machine.

#include <memory>

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

}  // namespace korlo
