#include "cli/ServerAddress.h"

#include <gtest/gtest.h>

#include "cli/Failure.h"

namespace korlo::settings::cli
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
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.text);
        const ServerAddress address = ServerAddress::Parse(row.text);
        EXPECT_EQ(address.host, row.host);
        EXPECT_EQ(address.port, row.port);
    }
}

TEST(ServerAddressTest, RefusesWhatIsNoHostAndPort)
{
    for (const char* text : {"", ":", "host", "host:", ":1", "host:0", "host:65536", "host:-1", "host:x", "::1:4711",
                             "[]:1", "[::1]", "ho[st:1"})
    {
        SCOPED_TRACE(text);
        EXPECT_THROW(ServerAddress::Parse(text), Failure);
    }
}

}  // namespace
}  // namespace korlo::settings::cli
