#include "client/ServerLookup.h"

#include <filesystem>
#include <string_view>
#include <system_error>

#include "korlo/osa/ServiceDirectory.h"

namespace korlo::settings::client
{
namespace
{

constexpr std::string_view UnixPrefix = "unix:";
constexpr unsigned short PortOfHost = 0;  // the one that goes with the host's name

bool IsSocketFile(const std::string& path)
{
    std::error_code ignored;
    return std::filesystem::is_socket(path, ignored);
}

}  // namespace

ServerAddress FindServer(const std::string& socketPath)
{
    std::string address;
    unsigned short port = 0;
    if (osa::ServiceDirectory::Find(ServerHost, address, port))
    {
        return {address.starts_with(UnixPrefix) ? address : ServerHost, PortOfHost};  // a host is known by its name
    }
    return {IsSocketFile(socketPath) ? std::string(UnixPrefix) + socketPath : ServerHost, PortOfHost};
}

bool IsUnixSocket(const ServerAddress& server)
{
    return server.host.starts_with(UnixPrefix);
}

}  // namespace korlo::settings::client
