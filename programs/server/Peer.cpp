#include "Peer.h"

#include <cstdint>

#include "access/SystemUserDatabase.h"
#include "korlo/osa/PeerIdentity.h"
#include "korlo/osa/TimeMonotonic.h"

namespace korlo::daemon
{

std::string UserOf(const osa::TcpSocket& socket)
{
    const osa::PeerIdentity* const pIdentity = socket.GetPeerIdentity();
    if (pIdentity == nullptr)
    {
        return std::string();
    }
    return pIdentity->user ? NameOfUser(*pIdentity->user) : "unknown";
}

std::string DescribePeer(const osa::TcpSocket& socket, const std::string& user)
{
    const osa::PeerIdentity* const pIdentity = socket.GetPeerIdentity();
    if (pIdentity == nullptr)
    {
        return socket.GetPeerAddress();
    }
    return "user " + user + ", pid " + std::to_string(pIdentity->process) + " (" + pIdentity->program + ")";
}

std::string SourceOf(const osa::TcpSocket& socket)
{
    if (const osa::PeerIdentity* const pIdentity = socket.GetPeerIdentity())
    {
        return (pIdentity->user ? std::to_string(*pIdentity->user) : "unknown") + ' ' + pIdentity->program;
    }
    const std::string& address = socket.GetPeerAddress();
    return address.substr(0, address.rfind(':'));
}

ClientIdentity IdentityOf(const osa::TcpSocket& socket)
{
    ClientIdentity identity;
    if (const osa::PeerIdentity* const pIdentity = socket.GetPeerIdentity())
    {
        identity.user = pIdentity->user;
        identity.groups.assign(pIdentity->groups.begin(), pIdentity->groups.end());
        identity.isUnix = true;
        identity.areGroupsComplete = pIdentity->areGroupsComplete;
    }
    return identity;
}

ClientOrigin OriginOf(const osa::TcpSocket& socket)
{
    constexpr std::int64_t nsPerSecond = 1'000'000'000;
    osa::TimeStruct now;
    osa::TimeMonotonic(now);  // an address may come back with a later connection
    ClientOrigin origin;
    origin.connection = now.seconds * nsPerSecond + now.nanoseconds;
    origin.peer = socket.GetPeerAddress();
    if (const osa::PeerIdentity* const pIdentity = socket.GetPeerIdentity())
    {
        origin.user = pIdentity->user;
        origin.process = pIdentity->process;
        origin.program = pIdentity->program;
    }
    return origin;
}

}  // namespace korlo::daemon
