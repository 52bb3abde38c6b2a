#pragma once
// Who is at the other end of a connection.

#include <string>

#include "access/ClientIdentity.h"
#include "journal/ClientOrigin.h"
#include "korlo/osa/TcpSocket.h"

namespace korlo::daemon
{

/// The name of the user at the other end of a Unix-domain socket in the system's database, digits where it has none
/// there, "unknown" for nobody whom this machine knows; empty for a TCP peer.
std::string UserOf(const osa::TcpSocket& socket);

/// For people: the address of a TCP peer; of one on a Unix-domain socket "user www-data, pid 812 (php-fpm)".
/// @param user what UserOf gives of the socket.
std::string DescribePeer(const osa::TcpSocket& socket, const std::string& user);

/// What tells one client from another for whoever counts what clients do, and stays the same when one connects anew:
/// the address of a TCP peer without the port, user and program of one on a Unix-domain socket.
std::string SourceOf(const osa::TcpSocket& socket);

/// For access rules, from what the kernel vouched for when the peer connected.
ClientIdentity IdentityOf(const osa::TcpSocket& socket);

/// For the journal. Two calls tell of two connections.
ClientOrigin OriginOf(const osa::TcpSocket& socket);

}  // namespace korlo::daemon
