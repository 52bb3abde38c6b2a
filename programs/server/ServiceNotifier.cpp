#include "ServiceNotifier.h"

#include <cstddef>
#include <cstdlib>
#include <string_view>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "korlo/core/Logger.h"

namespace korlo::daemon
{

void NotifyServiceManager(const std::string& state)
{
    const char* const variable = std::getenv("NOTIFY_SOCKET");
    const std::string_view path = variable != nullptr ? variable : "";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address.sun_path))
    {
        return;
    }
    path.copy(address.sun_path, path.size());
    if (address.sun_path[0] == '@')
    {
        address.sun_path[0] = '\0';
    }
    // Exactly the name: in an abstract one, zero bytes count.
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
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
