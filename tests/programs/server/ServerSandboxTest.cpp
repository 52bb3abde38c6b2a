// The server under the system calls that its unit allows. KORLO_EMULATOR puts every server of this program under them;
// a call beyond them kills it.

#include <csignal>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/Files.h"
#include "support/ServerProcess.h"
#include "support/TemporaryFolder.h"

namespace korlo::daemon
{
namespace
{

using testing::HasSubstr;

class ServerSandboxTest : public testing::Test
{
protected:
    ServerSandboxTest()
    {
        WriteFile(_folder.PathOf("defaults.ini"), "[Network]\nmode=dhcp\n");
        WriteFile(_folder.PathOf("restricted.ini"), "[DeviceSecure]\nserial=4711\n");
    }

    /// What the unit starts, on files of its own.
    ServerProcess::Arguments Arguments() const
    {
        return {"--defaults", _folder.PathOf("defaults.ini"), "--restricted", _folder.PathOf("restricted.ini"),
                "--user",     _folder.PathOf("user.ini"),     "--log-level",  "4"};
    }

    std::string UserFile() const { return ContentOf(_folder.PathOf("user.ini")).value(); }

    TemporaryFolder _folder;
};

TEST_F(ServerSandboxTest, ACallThatTheUnitForbidsKills)
{
    ChildProcess child({KORLO_UNIT_SANDBOX, KORLO_UNIT, "chown", "0", _folder.PathOf("defaults.ini")});
    EXPECT_EQ(child.Wait(), 1000 + SIGSYS);
}

TEST_F(ServerSandboxTest, ServesSavesRestoresAndEnds)
{
    ServerProcess server(Arguments());
    RawClient watcher(server.GetPort());
    watcher.Send("subscribe\nNetwork\n.\n");
    RawClient client(server.GetPort());
    EXPECT_EQ(client.Get("*"), "[DeviceSecure]\nserial=4711\n[Network]\nmode=dhcp\n");

    client.Send("merge\n[Network]\nmode=fixed\n.\n");
    EXPECT_TRUE(client.TestAndMerge("[Network]\nmode=fixed\n", "[Audio]\nvolume=40\n"));
    EXPECT_THAT(UserFile(), HasSubstr("mode=fixed"));
    EXPECT_THAT(UserFile(), HasSubstr("volume=40"));

    client.Send("overwrite\nAudio\n.\n.\nrestore\nNetwork\n.\n");
    EXPECT_THAT(client.Get("Network"), HasSubstr("mode=dhcp"));
    EXPECT_THAT(UserFile(), HasSubstr("mode=dhcp"));
    EXPECT_THAT(watcher.ReadUntil("."), HasSubstr("Network"));

    server.GetChild().Signal(SIGHUP);
    EXPECT_EQ(RawClient(server.GetPort()).Get("Audio"), "");
    EXPECT_EQ(server.End(), 0);
}

}  // namespace
}  // namespace korlo::daemon
