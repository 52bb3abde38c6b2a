#include "settings/ServerAddress.h"

#include <string>

#include <gtest/gtest.h>

#include "support/Files.h"

namespace korlo::settings
{
namespace
{

TEST(ServerAddressTest, TakesHostAndPortApart)
{
    const struct
    {
        const char* text;
        const char* host;
        unsigned short port;
    } rows[] = {
        {"127.0.0.1:4711", "127.0.0.1", 4711},
        {"panel.local:1", "panel.local", 1},
        {"[::1]:65535", "::1", 65535},
        {"unix:/run/korlo-settings/socket", "unix:/run/korlo-settings/socket", 0},
        {"unix:socket:1", "unix:socket:1", 0},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.text);
        const ServerAddress address = ServerAddress::Parse(row.text);
        EXPECT_EQ(address.host, row.host);
        EXPECT_EQ(address.port, row.port);
    }
}

TEST(ServerAddressTest, SaysWhatIsWrong)
{
    const struct
    {
        const char* text;
        const char* reason;
    } rows[] = {
        {"", "the port is missing"},
        {"host", "the port is missing"},
        {"[::1]", "the port is missing"},
        {":", "the port must be a number from 1 to 65535"},
        {"host:", "the port must be a number from 1 to 65535"},
        {"host:0", "the port must be a number from 1 to 65535"},
        {"host:65536", "the port must be a number from 1 to 65535"},
        {"host:-1", "the port must be a number from 1 to 65535"},
        {"host:x", "the port must be a number from 1 to 65535"},
        {":1", "the host is missing"},
        {"::1:4711", "an IPv6 address must stand in square brackets"},
        {"[]:1", "its brackets hold no address"},
        {"ho[st:1", "its brackets hold no address"},
        {"[::1]]:1", "its brackets hold no address"},
        {"[[::1]:1", "its brackets hold no address"},
        {"unix:", "the path is missing"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.text);
        EXPECT_EQ(MessageOf([&] { ServerAddress::Parse(row.text); }),
                  "'" + std::string(row.text) + "' is not the address of a settings server: " + row.reason +
                      "; an address is HOST:PORT, [IPV6]:PORT or unix:PATH");
    }
}

}  // namespace
}  // namespace korlo::settings
