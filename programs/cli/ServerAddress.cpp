#include "ServerAddress.h"

#include "Failure.h"
#include "korlo/core/StringUtil.h"

namespace korlo::settings::cli
{
namespace
{

/// Empty for a host that makes no sense.
std::string HostWithoutBrackets(const std::string& host)
{
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
    {
        return host.substr(1, host.size() - 2);
    }
    return host.find_first_of(":[]") == std::string::npos ? host : std::string();
}

}  // namespace

ServerAddress ServerAddress::Parse(const std::string& text)
{
    constexpr int highestPort = 65535;
    const std::size_t colon = text.rfind(':');
    int port = 0;
    if (colon != std::string::npos && core::StringUtil::TryParse(text.substr(colon + 1), port) && port > 0 &&
        port <= highestPort)
    {
        const std::string host = HostWithoutBrackets(text.substr(0, colon));
        if (!host.empty())
        {
            return {host, static_cast<unsigned short>(port)};
        }
    }
    throw Failure(StatusWrongCommandLine, "--server takes HOST:PORT, not " + Quoted(text),
                  "for example --server 127.0.0.1:4711");
}

}  // namespace korlo::settings::cli
