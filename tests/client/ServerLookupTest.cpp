#include "client/ServerLookup.h"

#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "korlo/osa/ServiceDirectory.h"
#include "support/Files.h"
#include "support/TemporaryFolder.h"
#include "support/UnixSockets.h"

namespace korlo::settings::client
{
namespace
{

/// A folder for a socket, and nothing in the directory.
class ServerLookupTest : public testing::Test
{
protected:
    ~ServerLookupTest() override { osa::ServiceDirectory::Unregister(ServerHost); }

    void ExpectTheHost() const
    {
        const ServerAddress server = FindServer(path);
        EXPECT_EQ(server.host, "korlo-settings-server");
        EXPECT_EQ(server.port, 0);
        EXPECT_FALSE(IsUnixSocket(server));
    }

    void ExpectTheSocket(const std::string& socketPath) const
    {
        const ServerAddress server = FindServer(path);
        EXPECT_EQ(server.host, "unix:" + socketPath);
        EXPECT_TRUE(IsUnixSocket(server));
    }

    const TemporaryFolder folder;
    const std::string path = folder.PathOf("socket");
};

TEST_F(ServerLookupTest, TheSocketOfTheServerHasItsPlace)
{
    EXPECT_STREQ(ServerSocketPath, "/run/korlo-settings/socket");
}

TEST_F(ServerLookupTest, TheDirectoryComesBeforeTheSocket)
{
    LeaveSocket(path);
    osa::ServiceDirectory::Register(ServerHost, "127.0.0.1", 4711);
    ExpectTheHost();
    const std::string other = folder.PathOf("other");
    osa::ServiceDirectory::Register(ServerHost, "unix:" + other, 0);
    ExpectTheSocket(other);
}

TEST_F(ServerLookupTest, TheSocketComesBeforeTheHostWhetherOrNotItIsServed)
{
    LeaveSocket(path);
    ExpectTheSocket(path);
    ASSERT_EQ(::chmod(path.c_str(), 0), 0);
    ExpectTheSocket(path);
}

TEST_F(ServerLookupTest, WithoutASocketTheHostIsLeft)
{
    ExpectTheHost();
    WriteFile(path, "no socket");
    ExpectTheHost();
}

TEST_F(ServerLookupTest, ASocketInAClosedFolderCannotBeSeen)
{
    LeaveSocket(path);
    ASSERT_EQ(::chmod(folder.GetPath().c_str(), 0), 0);
    const auto look = [this] { ExpectTheHost(); };
    MayBecomeOtherUsers() ? AsUser(41234, 41234, {}, look) : look();
    ::chmod(folder.GetPath().c_str(), 0700);
}

}  // namespace
}  // namespace korlo::settings::client
