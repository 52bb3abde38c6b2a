// Clients of several users at the doors of the real server.

#include <array>
#include <cerrno>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/ServerDoors.h"

namespace korlo
{
namespace
{

using testing::HasSubstr;
using testing::Not;

constexpr unsigned int Reader = 1;  // the system knows its name
constexpr unsigned int Writer = 41234;
constexpr unsigned int Members = 41240;
constexpr unsigned int Denied = 41241;
constexpr unsigned int OfNobody = 41299;

/// An emulator passes the question for groups on and loses the size of the answer.
constexpr bool IsEmulated = std::string_view(KORLO_EMULATOR).size() > 0;

/// A server with rules about users and groups, at a door that is open to everybody.
class ServerUsersTest : public ServerDoors
{
protected:
    ServerUsersTest()
    {
        EXPECT_EQ(::chmod(_folder.GetPath().c_str(), 0711), 0);
        WriteFile(PathOf("defaults.ini"), "[Audio]\nk=1\n[Network/Eth]\nip=1\n[Private]\nk=1\n");
        WriteFile(PathOf("rules.ini"),
                  "[Access/reader]\nuser=" + std::to_string(Reader) + "\nread=Audio\n[Access/writer]\nuser=" +
                      std::to_string(Writer) + "\nchange=Audio\n[Access/members]\ngroup=" + std::to_string(Members) +
                      "\nchange=Network/*\n[Access/denied]\ngroup=" + std::to_string(Denied) + "\ndeny=Audio\n");
    }

    Arguments Options() const
    {
        return Files({"--listen", _address, "--socket-mode", "0666", "--access", PathOf("rules.ini")});
    }

    /// A client that connected as that user; as the test's own where it may be no other.
    std::unique_ptr<RawClient> ClientOf(unsigned int user, const std::vector<unsigned int>& groups = {}) const
    {
        std::unique_ptr<RawClient> pClient;
        AsUser(user, OfNobody, groups, [&] { pClient = std::make_unique<RawClient>(_address); });
        return pClient;
    }

    /// As the server tells it.
    static std::string DescriptionOf(unsigned int user)
    {
        const passwd* const pEntry = ::getpwuid(user);
        std::string program;
        std::ifstream comm("/proc/self/comm");
        std::getline(comm, program);
        return "user " + (pEntry != nullptr ? std::string(pEntry->pw_name) : std::to_string(user)) + ", pid " +
               std::to_string(::getpid()) + " (" + program + ")";
    }
};

TEST_F(ServerUsersTest, TheServersOwnUserMayDoEverything)
{
    ServerProcess server(Options());
    RawClient own(_address);
    EXPECT_EQ(own.Get("*"), "[Audio]\nk=1\n[Network/Eth]\nip=1\n[Private]\nk=1\n");
    EXPECT_TRUE(own.TestAndMerge("[Private]\nk=1\n", "[Private]\nk=2\n"));
    EXPECT_EQ(RawClient(server.GetPort()).Get("*"), "") << "over TCP it is nobody";
}

/// Where the tests may be no other user there are no others to speak of.
class OtherUsersTest : public ServerUsersTest
{
protected:
    /// False, with that shown, where this machine has no other users for the test.
    bool HaveOthers() const
    {
        if (!MayBecomeOtherUsers())
        {
            EXPECT_THROW(ClientOf(Reader), std::runtime_error);
        }
        return MayBecomeOtherUsers();
    }
};

TEST_F(OtherUsersTest, EachReadsAndChangesWhatItsRulesAllow)
{
    if (!HaveOthers())
    {
        return;
    }
    ServerProcess server(Options());
    EXPECT_EQ(ClientOf(Reader)->Get("*"), "[Audio]\nk=1\n");
    EXPECT_FALSE(ClientOf(Reader)->TestAndMerge("", "[Audio]\nk=2\n"));
    EXPECT_TRUE(ClientOf(Writer)->TestAndMerge("[Audio]\nk=1\n", "[Audio]\nk=2\n"));
    EXPECT_EQ(ClientOf(Reader)->Get("*"), "[Audio]\nk=2\n");
    EXPECT_EQ(ClientOf(OfNobody)->Get("*"), "");
    EXPECT_EQ(ClientOf(65534, {65534})->Get("*"), "");
}

TEST_F(OtherUsersTest, TheLogNamesWhoComesAndWhoIsRefused)
{
    if (!HaveOthers())
    {
        return;
    }
    Arguments options = Options();
    options.insert(options.end(), {"--log-level", "3"});
    ServerProcess server(options);
    const auto pReader = ClientOf(Reader);
    pReader->Send("merge\n[Private]\nk=2\n.\n");
    EXPECT_THAT(pReader->Get("KorloSettings/Trusted/Refused"), HasSubstr("group.1=Private\n"));
    ClientOf(Writer)->Send("overwrite\nNetwork/*\n.\n.\n");
    server.GetChild().AwaitErrors("Client '" + DescriptionOf(Reader) + "' has connected");
    server.GetChild().AwaitErrors(DescriptionOf(Reader) + ": merge of 'Private' is refused");
    server.GetChild().AwaitErrors(DescriptionOf(Writer) + ": overwrite of 'Network/*' is refused");
}

TEST_F(OtherUsersTest, AClientThatConnectsAnewIsWarnedOfOnceAMinute)
{
    if (!HaveOthers())
    {
        return;
    }
    ServerProcess server(Options());
    for (int round = 0; round < 5; ++round)
    {
        const auto pClient = ClientOf(Reader);
        pClient->Send("merge\n[Private]\nk=2\n.\n");
        EXPECT_EQ(pClient->Get("Private"), "");
    }
    const auto pOther = ClientOf(Writer);
    pOther->Send("merge\n[Private]\nk=2\n.\n");
    server.GetChild().AwaitErrors(DescriptionOf(Writer) + ": merge of 'Private' is refused");
    const std::string& log = server.GetChild().GetErrors();
    const std::string warning = DescriptionOf(Reader) + ": merge of 'Private' is refused";
    ASSERT_THAT(log, HasSubstr(warning));
    EXPECT_THAT(log.substr(log.find(warning) + warning.size()), Not(HasSubstr(warning)));
}

TEST_F(OtherUsersTest, EverySupplementaryGroupCounts)
{
    if (!HaveOthers() || IsEmulated)
    {
        return;
    }
    ServerProcess server(Options());
    std::vector<unsigned int> groups(3000);
    for (std::size_t i = 0; i < groups.size(); ++i)
    {
        groups[i] = static_cast<unsigned int>(50000 + i);
    }
    EXPECT_EQ(ClientOf(OfNobody, groups)->Get("*"), "");
    groups.push_back(Members);
    EXPECT_EQ(ClientOf(OfNobody, groups)->Get("*"), "[Network/Eth]\nip=1\n");
    EXPECT_TRUE(ClientOf(OfNobody, groups)->TestAndMerge("", "[Network/Eth]\nip=2\n"));
    EXPECT_EQ(ClientOf(Writer, {Members, 7})->Get("*"), "[Audio]\nk=1\n[Network/Eth]\nip=2\n");
    EXPECT_EQ(ClientOf(Writer, {7, Denied, Members})->Get("*"), "[Network/Eth]\nip=2\n") << "so does one that denies";
}

TEST_F(OtherUsersTest, AServerOfAnotherUserObeysItsOwnAndRoot)
{
    if (!HaveOthers())
    {
        return;
    }
    ASSERT_EQ(::chmod(_folder.GetPath().c_str(), 0777), 0);
    // The file of the program may lie where that user may not look.
    const std::string user = std::to_string(Writer);
    const std::string search = "+dac_read_search";
    Arguments command{"setpriv",        "--reuid",    user,   "--regid",        user,
                      "--clear-groups", "--inh-caps", search, "--ambient-caps", search};
    const Arguments options = ServerProcess::Command(Options());
    command.insert(command.end(), options.begin(), options.end());
    ServerProcess server(ServerProcess::WholeCommand{command});
    EXPECT_EQ(ClientOf(Reader)->Get("*"), "[Audio]\nk=1\n");
    EXPECT_TRUE(ClientOf(Writer)->TestAndMerge("[Private]\nk=1\n", "[Private]\nk=2\n"));
    EXPECT_TRUE(RawClient(_address).TestAndMerge("[Private]\nk=2\n", "[Private]\nk=3\n")) << "root";
}

/// Reads from a socket as far as `last`.
std::string ReadTo(int socket, const std::string& last)
{
    std::string text;
    std::array<char, 4096> piece;
    for (ssize_t length = 1; length > 0 && text.find(last) == std::string::npos;)
    {
        length = ::recv(socket, piece.data(), piece.size(), 0);
        text.append(piece.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    }
    return text;
}

TEST_F(ServerUsersTest, DescriptorsThatAClientPassesAreClosedAndItIsServed)
{
    const std::string control = PathOf("control");
    Arguments options = Options();
    options.insert(options.end(), {"--control", control});
    ServerProcess server(options);
    RawClient other(_address);
    RawUnixSocket client;
    RawUnixSocket operating;
    ASSERT_EQ(client.Connect(_path), 0);
    ASSERT_EQ(operating.Connect(control), 0);
    ASSERT_EQ(::send(operating.Get(), "nonsense\n", 9, 0), 9);
    EXPECT_THAT(ReadTo(operating.Get(), "\n"), HasSubstr("error unknown word"));
    EXPECT_EQ(other.Get("Audio"), "[Audio]\nk=1\n");
    const std::string get = "get delimited\nAudio\n.\n";
    ASSERT_EQ(::send(client.Get(), get.data(), get.size(), 0), static_cast<ssize_t>(get.size()));
    ASSERT_EQ(ReadTo(client.Get(), "\n.\n"), "data\n[Audio]\nk=1\n.\n");
    const std::size_t before = server.CountDescriptors();  // of clients that were accepted

    std::array<int, 2> pipe;
    ASSERT_EQ(::pipe2(pipe.data(), O_CLOEXEC), 0);
    const OwnedDescriptor reading(pipe[0]);
    OwnedDescriptor writing(pipe[1]);
    const std::vector<int> passed(8, writing.Get());
    for (int round = 0; round < 100; ++round)
    {
        // With a line, and with a piece of one.
        ASSERT_TRUE(SendWithDescriptors(client.Get(), "get delimited\nAu", passed));
        ASSERT_TRUE(SendWithDescriptors(client.Get(), "dio\n.\n", passed));
        ASSERT_EQ(ReadTo(client.Get(), "\n.\n"), "data\n[Audio]\nk=1\n.\n");
        ASSERT_TRUE(SendWithDescriptors(operating.Get(), "nonsense\n", passed));
        ASSERT_THAT(ReadTo(operating.Get(), "\n"), HasSubstr("error unknown word"));
    }
    EXPECT_EQ(server.CountDescriptors(), before);
    EXPECT_EQ(other.Get("Audio"), "[Audio]\nk=1\n");
    writing.Close();
    char byte = 0;
    EXPECT_EQ(::read(reading.Get(), &byte, 1), 0) << "nobody holds the other end of the pipe any more";
}

}  // namespace
}  // namespace korlo
