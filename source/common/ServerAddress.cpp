#include "settings/ServerAddress.h"

#include <string_view>

#include "korlo/core/StringUtil.h"
#include "korlo/osa/Exception.h"

namespace korlo::settings
{
namespace
{

constexpr std::string_view UnixPrefix = "unix:";

[[noreturn]] void Refuse(const std::string& text, const char* reason)
{
    throw osa::Exception("'%s' is not the address of a settings server: %s; an address is HOST:PORT, [IPV6]:PORT or "
                         "unix:PATH",
                         text.c_str(), reason);
}

/// @param host what stands before the last colon of the text.
std::string WithoutBrackets(const std::string& host, const std::string& text)
{
    constexpr const char* brackets = "[]";
    if (host.size() > 2 && host.front() == '[' && host.find_first_of(brackets, 1) == host.size() - 1)
    {
        return host.substr(1, host.size() - 2);
    }
    if (host.empty() || host.find_first_of(brackets) != std::string::npos)
    {
        Refuse(text, host.empty() ? "the host is missing" : "its brackets hold no address");
    }
    if (host.find(':') != std::string::npos)
    {
        Refuse(text, "an IPv6 address must stand in square brackets");
    }
    return host;
}

}  // namespace

ServerAddress ServerAddress::Parse(const std::string& text)
{
    constexpr int highestPort = 65535;
    if (text.starts_with(UnixPrefix))
    {
        if (text.size() == UnixPrefix.size())
        {
            Refuse(text, "the path is missing");
        }
        return {text, 0};
    }
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos || text.back() == ']')
    {
        Refuse(text, "the port is missing");
    }
    int port = 0;
    if (!core::StringUtil::TryParse(text.substr(colon + 1), port) || port <= 0 || port > highestPort)
    {
        Refuse(text, "the port must be a number from 1 to 65535");
    }
    return {WithoutBrackets(text.substr(0, colon), text), static_cast<unsigned short>(port)};
}

}  // namespace korlo::settings
