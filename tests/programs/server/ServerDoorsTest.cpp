// The doors of the real server: several of them, files of sockets, and sockets that were passed.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "support/Files.h"
#include "support/ServerDoors.h"

namespace korlo
{
namespace
{

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

class ServerDoorsTest : public ServerDoors
{
};

TEST_F(ServerDoorsTest, EveryDoorIsAnnouncedInItsOrderAndServes)
{
    ServerProcess server(Files({"--listen", _address, "--listen", "unix:" + PathOf("other")}));
    EXPECT_THAT(server.GetChild().GetOutput(),
                AllOf(StartsWith("listening on 127.0.0.1:"),
                      HasSubstr("\nlistening on " + _address + "\nlistening on unix:" + PathOf("other") + '\n')));
    RawClient overTcp(server.GetPort());
    RawClient overFile(_address);
    EXPECT_EQ(overTcp.Get("A"), "[A]\nk=1\n");
    EXPECT_TRUE(overFile.TestAndMerge("", "[A]\nk=2\n"));
    EXPECT_EQ(RawClient("unix:" + PathOf("other")).Get("A"), "[A]\nk=2\n");
}

TEST_F(ServerDoorsTest, TheFileOfASocketHasItsModeAndGoesWithTheServer)
{
    ServerProcess server(Files({"--listen", _address, "--socket-mode", "0604"}));
    EXPECT_EQ(ModeOf(_path), 0604u);
    EXPECT_EQ(server.End(), 0);
    EXPECT_EQ(ModeOf(_path), 0u);
}

TEST_F(ServerDoorsTest, AServerThatWasKilledIsReplacedAtItsFile)
{
    for (int round = 0; round < 3; ++round)
    {
        ServerProcess server(Files({"--listen", _address}));
        EXPECT_EQ(RawClient(_address).Get("A"), "[A]\nk=1\n");
        server.End(SIGKILL);
        EXPECT_EQ(ModeOf(_path), 0660u) << "nobody has removed the file";
    }
}

TEST_F(ServerDoorsTest, WhatIsNoLeftOverSocketStaysAndEndsTheStart)
{
    WriteFile(_path, "mine");
    EXPECT_THAT(Refusal(Bare({"--listen", _address})), HasSubstr(_path));
    EXPECT_EQ(ContentOf(_path), "mine");

    ServerProcess server(Files({"--listen", "unix:" + PathOf("live")}));
    EXPECT_THAT(Refusal(Bare({"--listen", "unix:" + PathOf("live")})), HasSubstr(PathOf("live")));
    EXPECT_EQ(RawClient("unix:" + PathOf("live")).Get("A"), "[A]\nk=1\n");
}

TEST_F(ServerDoorsTest, AFolderThatIsMissingAndAGroupThatIsUnknownEndTheStart)
{
    EXPECT_THAT(Refusal(Bare({"--listen", "unix:" + PathOf("none/socket")})), HasSubstr(PathOf("none/socket")));
    EXPECT_THAT(Refusal(Bare({"--listen", _address, "--socket-group", "no such group"})),
                HasSubstr("there is no group 'no such group'"));
    EXPECT_EQ(ModeOf(_path), 0u);
}

TEST_F(ServerDoorsTest, SocketsThatWerePassedTakeThePlaceOfTheDefault)
{
    const OwnedDescriptor passed(ListeningSocket(_path));
    ChildProcess server(Passed({passed.Get()}, "korlo.socket", {"--listen", "unix:" + PathOf("beside")}));
    server.AwaitOutput("beside\n");
    EXPECT_EQ(server.GetOutput(), "listening on " + _address + "\nlistening on unix:" + PathOf("beside") + '\n');
    EXPECT_EQ(RawClient(_address).Get("A"), "[A]\nk=1\n");
    EXPECT_EQ(RawClient("unix:" + PathOf("beside")).Get("A"), "[A]\nk=1\n");
    server.Signal(SIGTERM);
    EXPECT_EQ(server.Wait(), 0);
    EXPECT_NE(ModeOf(_path), 0u) << "it is the service manager's";
}

TEST_F(ServerDoorsTest, ClientsOfAPassedSocketWaitWhileTheServerRestarts)
{
    const OwnedDescriptor passed(ListeningSocket(_path));
    for (int round = 0; round < 5; ++round)
    {
        RawClient early(_address);  // nobody accepts yet
        EXPECT_TRUE(early.Send("get delimited\nA\n.\n"));
        ChildProcess server(Passed({passed.Get()}, "korlo.socket"));
        EXPECT_EQ(early.ReadLine(), "data");
        EXPECT_EQ(early.ReadBlock(), "[A]\nk=1\n");
        server.Signal(round % 2 == 0 ? SIGTERM : SIGKILL);
        server.Wait();
    }
}

TEST_F(ServerDoorsTest, APassedSocketThatIsNoListenerIsRefusedByName)
{
    const OwnedDescriptor datagrams(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    EXPECT_THAT(Refusal(Passed({datagrams.Get()}, "x")), HasSubstr("3"));
    const OwnedDescriptor file(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    EXPECT_THAT(Refusal(Passed({file.Get()}, "x")), HasSubstr("3"));
}

TEST_F(ServerDoorsTest, VariablesThatLieEndTheStart)
{
    const auto started = [this](const std::string& variables) {
        Arguments command = {"sh", "-c", "export LISTEN_PID=$$ " + variables + "; exec \"$@\" 3<&- 4<&-", "sh"};
        const Arguments server = Bare({});
        command.insert(command.end(), server.begin(), server.end());
        return Refusal(command);
    };
    EXPECT_THAT(started("LISTEN_FDS=2"), HasSubstr("LISTEN_FDS is '2', but descriptor 3 is not open"));
    EXPECT_THAT(started("LISTEN_FDS=2000000000"), HasSubstr("LISTEN_FDS"));
    EXPECT_THAT(started("LISTEN_FDS=many"), HasSubstr("LISTEN_FDS is 'many', which is no number"));
    EXPECT_THAT(started("LISTEN_FDS=-1"), HasSubstr("LISTEN_FDS is '-1'"));
}

TEST_F(ServerDoorsTest, SocketsOfAnotherProcessAreNotTaken)
{
    ChildProcess server(Bare({"--listen", _address}), {{"LISTEN_PID", "1"}, {"LISTEN_FDS", "9"}});
    server.AwaitOutput("\n");
    EXPECT_EQ(server.GetOutput(), "listening on " + _address + '\n');
}

TEST_F(ServerDoorsTest, ThePassedSocketNamedControlIsTheControlDoor)
{
    const OwnedDescriptor settings(ListeningSocket(_path));
    const OwnedDescriptor control(ListeningSocket(PathOf("control")));
    ChildProcess server(Passed({control.Get(), settings.Get()}, "control:korlo"));
    server.AwaitOutput("\n");
    EXPECT_EQ(server.GetOutput(), "listening on " + _address + '\n');
    RawClient client("unix:" + PathOf("control"));
    client.Send("access-reload\n");
    EXPECT_EQ(client.ReadLine(), "error the server was started without --access: there are no rules to read");
}

}  // namespace
}  // namespace korlo
