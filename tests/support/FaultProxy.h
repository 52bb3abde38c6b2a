#pragma once
// A network between client and server that goes wrong on demand.

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <limits>
#include <list>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace korlo
{

/// Forwards connections to a server on this machine, byte by byte if it must be, and breaks them where the test says.
///
///     FaultProxy proxy(server.GetPort());
///     proxy.Arm(FaultProxy::Reset, FaultProxy::ToClient, 7);
///     RawClient client(proxy.GetPort());   // is reset once it was sent seven bytes
///     EXPECT_TRUE(proxy.AwaitFault());
///
/// One thread serves all connections and waits for nothing but the sockets.
///
/// Thread safety: all methods, from any thread.
class FaultProxy
{
public:
    enum Direction
    {
        ToServer,
        ToClient
    };

    enum Fault
    {
        Reset,      ///< Both ends are reset.
        HalfClose,  ///< This direction ends in order, and what would follow is dropped; the other goes on.
        Stall       ///< Nothing of this direction is read any more, until Resume.
    };

    explicit FaultProxy(unsigned short serverPort)
        : _listener(::socket(AF_INET, ListenerType, 0)),
          _serverPort(serverPort)
    {
        sockaddr_in address = Loopback(0);
        Listen(address);
        socklen_t length = sizeof(address);
        ::getsockname(_listener.Get(), reinterpret_cast<sockaddr*>(&address), &length);
        _port = ntohs(address.sin_port);
        _thread = std::thread([this] { Run(); });
    }

    /// Its clients come by a Unix-domain socket, where a reset is an end without a word.
    /// @param path short, and nothing is there.
    FaultProxy(unsigned short serverPort, const std::string& path)
        : _listener(::socket(AF_UNIX, ListenerType, 0)),
          _serverPort(serverPort)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        Listen(address);
        _thread = std::thread([this] { Run(); });
    }

    FaultProxy(const FaultProxy&) = delete;
    FaultProxy& operator=(const FaultProxy&) = delete;

    /// Resets what is still connected.
    ~FaultProxy()
    {
        Tell([this] { _isStopped = true; });
        _thread.join();
    }

    unsigned short GetPort() const { return _port; }

    /// Where connections go from now on; one that leads to nobody is reset.
    void SetServerPort(unsigned short port)
    {
        Tell([&] { _serverPort = port; });
    }

    /// Forwards at most so many bytes at once, with a pause before each piece.
    void SetPieces(std::size_t bytes, std::chrono::milliseconds pause = std::chrono::milliseconds(0))
    {
        Tell([&] {
            _pieceBytes = bytes;
            _pause = pause;
        });
    }

    /// Lets the first connection that forwards so many bytes in that direction, counted from its beginning or from
    /// now, suffer the fault, before the next byte. Takes the place of a fault that has not struck.
    void Arm(Fault fault, Direction direction, std::size_t afterBytes)
    {
        Tell([&] {
            _armed = Armed{fault, direction, afterBytes};
            _hasStruck = false;
            for (Link& link : _links)
            {
                link.ways[direction].forwarded = 0;
            }
        });
    }

    /// True once the armed fault has struck; false after a long wait.
    bool AwaitFault()
    {
        return Await([this] { return _hasStruck; });
    }

    /// Resets every connection.
    void ResetAll()
    {
        Tell([this] { _resetsAll = true; });
        Await([this] { return !_resetsAll; });
    }

    /// Stalled connections go on.
    void Resume()
    {
        Tell([this] {
            for (Link& link : _links)
            {
                link.ways[ToServer].isStalled = link.ways[ToClient].isStalled = false;
            }
        });
    }

    /// True once so many connections in all have been made; false after a long wait.
    bool AwaitAccepted(std::size_t count)
    {
        return Await([&] { return _accepted >= count; });
    }

    /// True once so many connections are open; false after a long wait.
    bool AwaitLinks(std::size_t count)
    {
        return Await([&] { return _links.size() == count; });
    }

private:
    using Clock = std::chrono::steady_clock;

    class Socket
    {
    public:
        explicit Socket(int descriptor) : _descriptor(descriptor) {}
        Socket(const Socket&) = delete;
        Socket& operator=(const Socket&) = delete;

        ~Socket()
        {
            if (_descriptor >= 0)
            {
                ::close(_descriptor);
            }
        }

        int Get() const { return _descriptor; }

        /// Lets closing it reset the connection.
        void ResetAtEnd() const
        {
            const linger reset{1, 0};
            ::setsockopt(_descriptor, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
        }

    private:
        const int _descriptor;
    };

    /// One direction of one connection.
    struct Way
    {
        int from;
        int to;
        std::string waiting;
        std::size_t forwarded = 0;
        Clock::time_point notBefore{};
        bool isStalled = false;
        bool isRead = true;  // false once `from` has ended
        bool isOver = false;

        bool WantsInput() const { return isRead && !isStalled && waiting.size() < 64 * 1024; }
        bool WantsOutput() const { return !isOver && !isStalled && !waiting.empty(); }
    };

    struct Link
    {
        Link(int clientDescriptor, int serverDescriptor)
            : client(clientDescriptor),
              server(serverDescriptor),
              ways{Way{clientDescriptor, serverDescriptor, {}}, Way{serverDescriptor, clientDescriptor, {}}}
        {
        }

        Socket client;
        Socket server;
        std::array<Way, 2> ways;
        bool isBroken = false;
    };

    struct Armed
    {
        Fault fault;
        Direction direction;
        std::size_t afterBytes;
    };

    static sockaddr_in Loopback(unsigned short port)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return address;
    }

    template <typename Address>
    void Listen(const Address& address) const
    {
        if (::bind(_listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
            ::listen(_listener.Get(), SOMAXCONN) != 0)
        {
            throw std::system_error(errno, std::generic_category(), "FaultProxy");
        }
    }

    template <typename Change>
    void Tell(Change change)
    {
        const std::lock_guard lock(_mutex);
        change();
        ::eventfd_write(_wake.Get(), 1);
    }

    template <typename Condition>
    bool Await(Condition condition)
    {
        std::unique_lock lock(_mutex);
        return _changed.wait_for(lock, std::chrono::seconds(30), condition);
    }

    void Run()
    {
        std::unique_lock lock(_mutex);
        while (!_isStopped)
        {
            std::vector<pollfd> waited{{_wake.Get(), POLLIN, 0}, {_listener.Get(), POLLIN, 0}};
            const int timeoutMs = Gather(waited);
            lock.unlock();
            ::poll(waited.data(), waited.size(), timeoutMs);
            lock.lock();
            eventfd_t ignored = 0;
            ::eventfd_read(_wake.Get(), &ignored);
            Forward();
            Accept();
            _changed.notify_all();
        }
        BreakAll();
    }

    /// What the links wait for, and how long at most.
    int Gather(std::vector<pollfd>& waited) const
    {
        int timeoutMs = -1;
        for (const Link& link : _links)
        {
            for (const Way& way : link.ways)
            {
                if (way.WantsInput())
                {
                    waited.push_back({way.from, POLLIN, 0});
                }
                if (!way.WantsOutput())
                {
                    continue;
                }
                const auto left = std::chrono::ceil<std::chrono::milliseconds>(way.notBefore - Clock::now()).count();
                if (left > 0)
                {
                    timeoutMs = timeoutMs < 0 ? static_cast<int>(left) : std::min(timeoutMs, static_cast<int>(left));
                }
                else
                {
                    waited.push_back({way.to, POLLOUT, 0});
                }
            }
        }
        return timeoutMs;
    }

    void Accept()
    {
        const int client = ::accept4(_listener.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (client < 0)
        {
            return;
        }
        const int server = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        _links.emplace_back(client, server);
        const sockaddr_in address = Loopback(_serverPort);
        if (::connect(server, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
        {
            _links.back().client.ResetAtEnd();
            _links.pop_back();
            return;
        }
        const int on = 1;
        ::setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        ::setsockopt(server, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        ++_accepted;
    }

    void Forward()
    {
        for (Link& link : _links)
        {
            for (const Direction direction : {ToServer, ToClient})
            {
                Receive(link, link.ways[direction]);
                Send(link, direction);
            }
        }
        if (std::exchange(_resetsAll, false))
        {
            BreakAll();
        }
        for (auto link = _links.begin(); link != _links.end();)
        {
            const bool isOver = link->ways[ToServer].isOver && link->ways[ToClient].isOver;
            if (link->isBroken)
            {
                link->client.ResetAtEnd();
                link->server.ResetAtEnd();
            }
            link = link->isBroken || isOver ? _links.erase(link) : std::next(link);
        }
    }

    void BreakAll()
    {
        for (const Link& link : _links)
        {
            link.client.ResetAtEnd();
            link.server.ResetAtEnd();
        }
        _links.clear();
    }

    void Receive(Link& link, Way& way) const
    {
        if (link.isBroken || !way.WantsInput())
        {
            return;
        }
        std::array<char, 16 * 1024> piece;
        const ssize_t length = ::recv(way.from, piece.data(), piece.size(), MSG_DONTWAIT);
        if (length < 0)
        {
            link.isBroken = errno != EAGAIN && errno != EINTR;
            return;
        }
        way.isRead = length > 0;
        if (way.waiting.empty())
        {
            way.notBefore = Clock::now() + _pause;
        }
        if (!way.isOver)
        {
            way.waiting.append(piece.data(), static_cast<std::size_t>(length));
        }
    }

    void Send(Link& link, Direction direction)
    {
        Way& way = link.ways[direction];
        Strike(link, direction);
        while (!link.isBroken && way.WantsOutput() && Clock::now() >= way.notBefore)
        {
            const std::size_t most = std::min({way.waiting.size(), _pieceBytes, LeftToFault(way, direction)});
            const ssize_t length = ::send(way.to, way.waiting.data(), most, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (length < 0)
            {
                link.isBroken = errno != EAGAIN && errno != EINTR;
                return;
            }
            way.waiting.erase(0, static_cast<std::size_t>(length));
            way.forwarded += static_cast<std::size_t>(length);
            way.notBefore = Clock::now() + _pause;
            Strike(link, direction);
        }
        if (!way.isRead && way.waiting.empty() && !way.isOver)
        {
            End(way);
        }
    }

    static void End(Way& way)
    {
        way.isOver = true;
        way.waiting.clear();
        ::shutdown(way.to, SHUT_WR);
    }

    std::size_t LeftToFault(const Way& way, Direction direction) const
    {
        const bool isMeant = _armed && _armed->direction == direction && way.forwarded < _armed->afterBytes;
        return isMeant ? _armed->afterBytes - way.forwarded : std::numeric_limits<std::size_t>::max();
    }

    /// Lets the armed fault strike where it is due: once all bytes before it are on their way and there is one more, or
    /// none is to come before it.
    void Strike(Link& link, Direction direction)
    {
        Way& way = link.ways[direction];
        if (!_armed || _armed->direction != direction || way.forwarded != _armed->afterBytes || way.isOver)
        {
            return;
        }
        if (way.forwarded == 0 && way.waiting.empty())
        {
            return;  // something must have been said
        }
        switch (_armed->fault)
        {
        case Reset:
            link.isBroken = true;
            break;
        case HalfClose:
            End(way);
            break;
        case Stall:
            way.isStalled = true;
            break;
        }
        _armed.reset();
        _hasStruck = true;
    }

    static constexpr int ListenerType = SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK;

    const Socket _listener;
    const Socket _wake{::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
    unsigned short _port = 0;

    std::mutex _mutex;  // guards the rest but the thread
    std::condition_variable _changed;
    bool _isStopped = false;
    bool _resetsAll = false;
    unsigned short _serverPort;
    std::size_t _pieceBytes = std::numeric_limits<std::size_t>::max();
    std::chrono::milliseconds _pause{0};
    std::optional<Armed> _armed;
    bool _hasStruck = false;
    std::size_t _accepted = 0;
    std::list<Link> _links;

    std::thread _thread;
};

}  // namespace korlo
