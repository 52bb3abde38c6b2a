#include "ServiceNotifier.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "korlo/core/Logger.h"

namespace korlo::daemon
{

ServiceNotifier::ServiceNotifier()
{
    if (const char* path = std::getenv("NOTIFY_SOCKET"))
    {
        _socketPath = path;
    }
}

void ServiceNotifier::Notify(const std::string& state) const
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (_socketPath.empty() || _socketPath.size() >= sizeof(address.sun_path))
    {
        return;
    }
    std::memcpy(address.sun_path, _socketPath.data(), _socketPath.size());
    if (address.sun_path[0] == '@')
    {
        address.sun_path[0] = '\0';
    }
    // Exactly the name: in an abstract one, zero bytes count.
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + _socketPath.size());
    const int descriptor = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (::sendto(descriptor, state.data(), state.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                 reinterpret_cast<const sockaddr*>(&address), length) < 0)
    {
        core::Logger::GetLogger("ServiceNotifier")->Warning("Failed to tell the service manager '%s'", state.c_str());
    }
    if (descriptor >= 0)
    {
        ::close(descriptor);
    }
}

}  // namespace korlo::daemon
