// The server as a program: its start, its files, its end.

#include <algorithm>
#include <array>
#include <cstddef>
#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "support/Files.h"
#include "support/ServerProcess.h"
#include "support/TemporaryFolder.h"

namespace korlo::daemon
{
namespace
{

using testing::HasSubstr;

class ServerProgramTest : public testing::Test
{
protected:
    std::string PathOf(const std::string& name) const { return _folder.PathOf(name); }

    std::string Make(const std::string& name, const std::string& content) const
    {
        WriteFile(PathOf(name), content);
        return PathOf(name);
    }

    /// Expects the server to end at once with one line on standard error.
    void ExpectRefusal(const ServerProcess::Arguments& arguments, int status, const std::string& message)
    {
        SCOPED_TRACE(message);
        ChildProcess child(ServerProcess::Command(arguments));
        EXPECT_EQ(child.Wait(), status);
        EXPECT_EQ(child.GetOutput(), "");
        EXPECT_THAT(child.GetErrors(), testing::StartsWith("korlo-settings-server: "));
        EXPECT_THAT(child.GetErrors(), HasSubstr(message));
        EXPECT_EQ(std::count(child.GetErrors().begin(), child.GetErrors().end(), '\n'), 1);
    }

    TemporaryFolder _folder;
    const std::string _user = _folder.PathOf("user.ini");
};

TEST_F(ServerProgramTest, EndsAtOnceWhenItCannotServe)
{
    ExpectRefusal({"--bogus"}, 2, "--bogus");
    ExpectRefusal({"--save-delay", "soon"}, 2, "'soon'");
    ExpectRefusal({"--listen", "nothing"}, 2, "'nothing'");
    ExpectRefusal({"--user", PathOf("none/user.ini")}, 1, "none/user.ini");
    ExpectRefusal({"--user", _folder.GetPath()}, 1, "Not a regular file");
    ExpectRefusal({"--user", _user, "--defaults", PathOf("none.ini")}, 1, "none.ini");
    ExpectRefusal({"--user", _user, "--restricted", PathOf("none.ini")}, 1, "none.ini");
}

TEST_F(ServerProgramTest, EndsAtOnceWhenItsAddressIsTaken)
{
    ServerProcess first({"--user", _user});
    const std::string address = "127.0.0.1:" + std::to_string(first.GetPort());  // the last one given counts
    ChildProcess second(ServerProcess::Command({"--listen", address, "--user", PathOf("other.ini")}));
    EXPECT_EQ(second.Wait(), 1);
    EXPECT_THAT(second.GetErrors(), HasSubstr("Address already in use"));
}

TEST_F(ServerProgramTest, PrintsOneLineAndEndsInOrderOnASignal)
{
    for (const int signal : {SIGTERM, SIGINT})
    {
        ServerProcess server({"--user", _user});
        server.GetChild().Signal(SIGHUP);
        RawClient client(server.GetPort());
        EXPECT_EQ(client.Get("*"), "");
        EXPECT_EQ(server.End(signal), 0);
        EXPECT_TRUE(client.MeetsTheEnd());
        EXPECT_EQ(server.GetChild().GetOutput(), "listening on 127.0.0.1:" + std::to_string(server.GetPort()) + '\n');
        EXPECT_EQ(server.GetChild().GetErrors(), "");
    }
}

TEST_F(ServerProgramTest, LaysUserSettingsOverDefaultsAndRestrictedOnesOverBoth)
{
    std::filesystem::create_directory(PathOf("defaults.d"));
    Make("defaults.d/10.ini", "[A]\na=10\nb=10\nc=10\n[SecureD]\nk=default\n");
    Make("defaults.d/20.ini", "[A]\nb=20\nc=20\n");
    Make("user.ini", "[A]\nc=user\n[SecureU]\nk=user\n");
    ServerProcess server({"--defaults", PathOf("defaults.d"), "--user", _user, "--restricted",
                          Make("restricted.ini", "[SecureR]\nk=restricted\n")});
    RawClient client(server.GetPort());
    EXPECT_EQ(client.Get("*"), "[A]\na=10\nb=20\nc=user\n[SecureR]\nk=restricted\n");
}

TEST_F(ServerProgramTest, NoClientCanWriteRestrictedSettings)
{
    ServerProcess server({"--user", _user, "--restricted", Make("restricted.ini", "[SecureR]\nk=1\n")});
    RawClient client(server.GetPort());
    client.Send("merge\n[SecureR]\nk=2\n.\n"
                "merge nopersist\n[SecureR]\nk=2\n.\n"
                "overwrite\n*\n.\n[SecureR]\nk=2\n.\n"
                "restore\n*\n.\n");
    EXPECT_TRUE(client.TestAndMerge("[SecureR]\nk=1\n", "[SecureR]\nk=2\n[A]\nk=1\n"));
    EXPECT_EQ(client.Get("*"), "[A]\nk=1\n[SecureR]\nk=1\n");
    EXPECT_EQ(server.End(), 0);
    EXPECT_THAT(ContentOf(_user).value(), testing::Not(HasSubstr("SecureR")));
}

TEST_F(ServerProgramTest, ARestoreBringsInNoRestrictedGroupOfTheDefaults)
{
    const std::string defaults = Make("defaults.ini", "[A]\nk=default\n[SecureR]\nk=default\n[TrustedD]\nk=default\n");
    ServerProcess server(
        {"--defaults", defaults, "--user", _user, "--restricted", Make("restricted.ini", "[SecureR]\nk=restricted\n")});
    RawClient client(server.GetPort());
    client.Send("restore\n*\n.\n");
    EXPECT_EQ(client.Get("*"), "[A]\nk=default\n[SecureR]\nk=restricted\n");
    EXPECT_EQ(server.End(), 0);
    EXPECT_EQ(ContentOf(_user).value(), "[A]\nk=default\n");
}

TEST_F(ServerProgramTest, KeepsWhatClientsChangeAndWhatTheyErase)
{
    const std::string defaults = Make("defaults.ini", "[A]\nk=default\n[B]\nk=default\n");
    for (const std::string delay : {"0", "3600000"})
    {
        for (const std::string saveBy : {"replace", "append"})
        {
            SCOPED_TRACE(delay + ' ' + saveBy);
            std::filesystem::remove(_user);
            const ServerProcess::Arguments arguments = {"--defaults",   defaults, "--user",    _user,
                                                        "--save-delay", delay,    "--save-by", saveBy};
            {
                ServerProcess server(arguments);
                RawClient client(server.GetPort());
                client.Send("overwrite\nB\n.\n.\nmerge nopersist\n[C]\nk=gone\n.\n");
                EXPECT_TRUE(client.TestAndMerge("[A]\nk=default\n", "[A]\nk=new\n"));
                EXPECT_EQ(server.End(), 0);
            }
            ServerProcess server(arguments);
            EXPECT_EQ(RawClient(server.GetPort()).Get("*"), "[A]\nk=new\n");
        }
    }
}

TEST_F(ServerProgramTest, ASaveThatChangesNothingLeavesTheFileAlone)
{
    ServerProcess server({"--user", _user});
    RawClient client(server.GetPort());
    EXPECT_TRUE(client.TestAndMerge("", "[A]\nk=1\n"));
    struct stat before
    {
    };
    ASSERT_EQ(::stat(_user.c_str(), &before), 0);
    EXPECT_TRUE(client.TestAndMerge("", "[A]\nk=1\n"));
    struct stat after
    {
    };
    ASSERT_EQ(::stat(_user.c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
}

TEST_F(ServerProgramTest, ASaveThatFailsCostsTheConnectionAndIsLoggedWithItsAddress)
{
    std::filesystem::create_directory(PathOf("var"));
    ServerProcess server({"--user", PathOf("var/user.ini")});
    RawClient bystander(server.GetPort());
    RawClient client(server.GetPort());
    EXPECT_EQ(bystander.Get("*"), "");
    std::filesystem::remove_all(PathOf("var"));
    client.Send("merge\n[A]\nk=secret\n.\n");
    EXPECT_TRUE(client.MeetsTheEnd());
    server.GetChild().AwaitErrors("user.ini': No such file or directory\n");
    EXPECT_THAT(server.GetChild().GetErrors(), HasSubstr("Error ClientConnection: Client '127.0.0.1:"));
    EXPECT_THAT(server.GetChild().GetErrors(), testing::Not(HasSubstr("secret")));
    EXPECT_EQ(bystander.Get("A"), "[A]\nk=secret\n");
}

TEST_F(ServerProgramTest, ALastSaveThatFailsIsAStatusOfOne)
{
    std::filesystem::create_directory(PathOf("var"));
    ServerProcess server({"--user", PathOf("var/user.ini"), "--save-delay", "3600000"});
    EXPECT_TRUE(RawClient(server.GetPort()).TestAndMerge("", "[A]\nk=1\n"));
    std::filesystem::remove_all(PathOf("var"));
    EXPECT_EQ(server.End(), 1);
    EXPECT_THAT(server.GetChild().GetErrors(), HasSubstr("No such file or directory"));
}

TEST_F(ServerProgramTest, TakesTheGenerationBeforeForAZeroedFile)
{
    Make("user.ini", std::string(100, '\0'));
    Make("user.ini~", "[A]\nk=before\n");
    ServerProcess server({"--user", _user});
    EXPECT_EQ(RawClient(server.GetPort()).Get("*"), "[A]\nk=before\n");
    EXPECT_EQ(server.End(), 0);
    EXPECT_THAT(server.GetChild().GetErrors(), HasSubstr("the generation before"));
}

TEST_F(ServerProgramTest, RefusesClientsBeyondTheMost)
{
    ServerProcess server({"--user", _user, "--max-clients", "2"});
    RawClient first(server.GetPort());
    EXPECT_EQ(first.Get("*"), "");
    {
        RawClient second(server.GetPort());
        EXPECT_EQ(second.Get("*"), "");
        EXPECT_TRUE(RawClient(server.GetPort()).MeetsTheEnd());
        server.GetChild().AwaitErrors("is refused: 2 clients are connected already");
    }
    EXPECT_TRUE(Eventually([&] {
        RawClient next(server.GetPort());
        return next.Send("get delimited\n.\n") && next.ReadLine() == "data";
    }));
}

TEST_F(ServerProgramTest, LogsAsMuchAsItIsTold)
{
    ServerProcess talkative({"--user", _user, "--log-level", "4"});
    RawClient(talkative.GetPort()).Get("*");
    talkative.GetChild().AwaitErrors("Trace MsgDispatcher: Handling command: get");
    talkative.GetChild().AwaitErrors("has disconnected");

    ServerProcess silent({"--user", _user, "--log-level", "0"});
    RawClient client(silent.GetPort());
    client.Send("nonsense\n");
    EXPECT_EQ(client.Get("*"), "");
    EXPECT_EQ(silent.End(), 0);
    EXPECT_EQ(silent.GetChild().GetErrors(), "");
}

TEST_F(ServerProgramTest, ATraceNamesEveryFileThatIsLoadedAndWhatItLoses)
{
    const std::string first = Make("first.ini", "[Net]\nmode=dhcp\n[KorloSettings/LoadPriority]\nNet=10\n");
    const std::string second = Make("second.ini", "[Net]\nmode=off\n");
    const std::string restricted = Make("restricted.ini", "[DeviceSecure]\nserial=1\n");
    Make("user.ini", "[Audio]\nvolume=7\n");

    ServerProcess server(
        {"--defaults", first, "--defaults", second, "--restricted", restricted, "--user", _user, "--log-level", "4"});
    EXPECT_EQ(server.End(), 0);
    const std::string& log = server.GetChild().GetErrors();
    std::size_t position = 0;
    for (const std::string& expected :
         {"Loading default settings from '" + first + '\'', "Loading default settings from '" + second + '\'',
          std::string("Group 'Net' is dropped: it was claimed with priority 10, and this document claims it with none"),
          "Loading user settings from '" + _user + '\'', "Loading restricted settings from '" + restricted + '\''})
    {
        position = log.find(expected, position);
        EXPECT_NE(position, std::string::npos) << expected << " is not in its place in\n" << log;
    }
}

TEST_F(ServerProgramTest, EndsThoughClientsHang)
{
    ServerProcess server({"--user", _user, "--log-level", "0"});
    RawClient idle(server.GetPort());
    RawClient halfway(server.GetPort());
    RawClient deaf(server.GetPort());
    const std::string big = "[Big]\nk=" + std::string(1'000'000, 'x') + '\n';
    EXPECT_TRUE(deaf.TestAndMerge("", big));
    EXPECT_EQ(idle.Get("None"), "");
    halfway.Send("merge\n[A]\n");
    for (int i = 0; i < 50; ++i)
    {
        deaf.Send("get delimited\nBig\n.\n");
    }
    EXPECT_EQ(server.End(), 0);
}

/// What the service manager listens on.
///
/// Thread safety: none of its own; the owner guards it.
class NotifySocket
{
public:
    explicit NotifySocket(const std::string& name)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        name.copy(address.sun_path, sizeof(address.sun_path) - 1);
        address.sun_path[0] = name[0] == '@' ? '\0' : name[0];
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        EXPECT_EQ(::bind(_descriptor, reinterpret_cast<const sockaddr*>(&address), length), 0);
        const timeval limit{30, 0};
        ::setsockopt(_descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    }
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;
    ~NotifySocket() { ::close(_descriptor); }

    std::string Receive() const
    {
        std::array<char, 100> text{};
        const ssize_t length = ::recv(_descriptor, text.data(), text.size(), 0);
        return length < 0 ? "" : std::string(text.data(), static_cast<std::size_t>(length));
    }

private:
    const int _descriptor = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

TEST_F(ServerProgramTest, TellsTheServiceManagerWhenItIsReadyAndWhenItStops)
{
    for (const std::string& name : {PathOf("notify"), "@korlo-test-" + std::to_string(::getpid())})
    {
        SCOPED_TRACE(name);
        const NotifySocket manager(name);
        ServerProcess server({"--user", _user}, {{"NOTIFY_SOCKET", name}});
        EXPECT_EQ(manager.Receive(), "READY=1");
        EXPECT_EQ(server.End(), 0);
        EXPECT_EQ(manager.Receive(), "STOPPING=1");
    }
}

TEST_F(ServerProgramTest, ServesWithoutAServiceManagerThatCanBeReached)
{
    ServerProcess server({"--user", _user}, {{"NOTIFY_SOCKET", PathOf("nobody")}});
    EXPECT_EQ(RawClient(server.GetPort()).Get("*"), "");
}

}  // namespace
}  // namespace korlo::daemon
