// What keeps the real server from its doors: it says so, and leaves nothing half started.

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/ServerDoors.h"

namespace korlo
{
namespace
{

/// Each server here would make a socket file first, and fails at something that comes later.
class ServerBadStartTest : public ServerDoors
{
protected:
    Arguments Start(const Arguments& more) const
    {
        Arguments arguments{"--listen", _address};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return BoundByModes(Bare(arguments));
    }

    /// Expects that the server says that, ends, and leaves the folder as it was.
    void ExpectRefusal(const Arguments& command, const std::string& message) const
    {
        SCOPED_TRACE(message);
        const std::set<std::string> before = NamesIn(_folder.GetPath());
        EXPECT_EQ(Refusal(command), "korlo-settings-server: " + message + '\n');
        EXPECT_EQ(NamesIn(_folder.GetPath()), before) << "no socket, no lock and no user file";
    }
};

TEST_F(ServerBadStartTest, RulesThatCannotBeReadAreNamedWithTheReason)
{
    const std::string empty = PathOf("access.d");
    const std::string nested = PathOf("nested.d");
    const std::string closed = PathOf("closed.ini");
    const std::string closedFolder = PathOf("closed.d");
    const std::string large = PathOf("large.ini");
    for (const std::string& folder : {empty, nested, nested + "/rules.ini", closedFolder})
    {
        ASSERT_EQ(::mkdir(folder.c_str(), 0700), 0);
    }
    ASSERT_EQ(::chmod(closedFolder.c_str(), 0), 0);
    WriteFile(closed, "[Access/a]\nread=*\n");
    ASSERT_EQ(::chmod(closed.c_str(), 0), 0);
    WriteFile(large, "[Access/a]\nread=*\n" + std::string(10'000'000, '\n'));

    ExpectRefusal(Start({"--access", empty}),
                  "There is no access rule in '" + empty + "': without one nobody could do anything");
    ExpectRefusal(Start({"--access", nested}), "Failed to read '" + nested + "/rules.ini': Is a directory");
    ExpectRefusal(Start({"--access", closed}), "Failed to open '" + closed + "': Permission denied");
    ExpectRefusal(Start({"--access", closedFolder}), "Failed to read folder '" + closedFolder + "': Permission denied");
    ExpectRefusal(Start({"--access", large}), "Failed to read '" + large + "': it holds more than 1048576 bytes");
    ExpectRefusal(Start({"--access", PathOf("missing")}),
                  "Failed to open '" + PathOf("missing") + "': No such file or directory");
}

TEST_F(ServerBadStartTest, AReloadOfRulesThatCannotBeReadLeavesThoseBefore)
{
    const std::string rules = PathOf("rules.ini");
    WriteFile(rules, "[Access/tcp]\npeer=tcp\nread=A\n");
    const Arguments command = ServerProcess::Command(Files({"--access", rules, "--control", PathOf("control")}));
    ServerProcess server(ServerProcess::WholeCommand{BoundByModes(command)});
    RawClient control("unix:" + PathOf("control"));
    ASSERT_EQ(::chmod(rules.c_str(), 0), 0);
    control.Send("access-reload\n");
    EXPECT_EQ(control.ReadLine(),
              "error the rules before stay in force: Failed to open '" + rules + "': Permission denied");
    EXPECT_EQ(RawClient(server.GetPort()).Get("A"), "[A]\nk=1\n");
}

TEST_F(ServerBadStartTest, APathThatNoSocketCanBeMadeAtIsNamedWithTheReason)
{
    const std::string closed = PathOf("closed");
    ASSERT_EQ(::mkdir(closed.c_str(), 0500), 0);
    const std::string file = PathOf("file");
    WriteFile(file, "mine");
    const std::string user = std::to_string(::geteuid());
    const auto failure = [](const std::string& path, const std::string& reason) {
        return "Failed to listen on 'unix:" + path + "': " + reason;
    };
    const auto lock = [&user](const std::string& path, const std::string& reason) {
        return "'" + path + ".lock' cannot be made: " + reason + "; the folder must be there, and user " + user +
               " must be allowed to write to it";
    };
    const struct
    {
        std::string path;
        std::string reason;
    } rows[] = {
        {PathOf("none/socket"), lock(PathOf("none/socket"), "No such file or directory")},
        {closed + "/socket", lock(closed + "/socket", "Permission denied")},
        {file, "there is a regular file, which stays; remove it, or choose another path"},
        {closed, "there is a folder, which stays; remove it, or choose another path"},
    };
    for (const auto& row : rows)
    {
        ExpectRefusal(Start({"--listen", "unix:" + row.path}), failure(row.path, row.reason));
        ExpectRefusal(Start({"--control", row.path}), failure(row.path, row.reason));
    }
    EXPECT_EQ(ContentOf(file), "mine");
}

TEST_F(ServerBadStartTest, ASocketThatWasPassedAndWillNotDoIsNamedByItsDescriptor)
{
    const OwnedDescriptor listening(ListeningSocket(PathOf("passed")));
    const RawUnixSocket bound;
    const OwnedDescriptor datagrams(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const OwnedDescriptor file(::open(PathOf("defaults.ini").c_str(), O_RDONLY | O_CLOEXEC));
    const Arguments beside{"--listen", _address};
    const auto failure = [](const std::string& reason) { return "Failed to listen on descriptor 4: " + reason; };
    const struct
    {
        int descriptor;
        std::string reason;
    } rows[] = {
        {datagrams.Get(), "it is a datagram socket, and clients need a stream socket"},
        {file.Get(), "it is no socket"},
        {bound.Get(), "it does not listen"},
    };
    for (const auto& row : rows)
    {
        ExpectRefusal(Passed({listening.Get(), row.descriptor}, "a:b", beside), failure(row.reason));
        ExpectRefusal(Passed({listening.Get(), row.descriptor}, "a:control", beside), failure(row.reason));
    }
    ExpectRefusal(Passed({listening.Get(), listening.Get()}, "control:control", beside),
                  "LISTEN_FDNAMES names two sockets 'control'; there is one control door");
    EXPECT_EQ(RawUnixSocket().Connect(PathOf("passed")), 0) << "the passed socket listens as before";
}

TEST_F(ServerBadStartTest, CountsAndNumbersOfProcessesThatLieAreNamed)
{
    const auto started = [this](const std::string& variables) {
        Arguments command = {"bash", "-c", "export " + variables + "; exec \"$@\" 3<&- 4<&-", "sh"};
        const Arguments server = Bare({"--listen", _address});
        command.insert(command.end(), server.begin(), server.end());
        return command;
    };
    ExpectRefusal(started("LISTEN_PID=$$ LISTEN_FDS=1"),
                  "LISTEN_FDS is '1', but descriptor 3 is not open: Bad file descriptor");
    ExpectRefusal(started("LISTEN_PID=$$ LISTEN_FDS=2147483647"), "LISTEN_FDS is '2147483647', which is too many");
    ExpectRefusal(started("LISTEN_PID=$$ LISTEN_FDS=99999999999"), "LISTEN_FDS is '99999999999', which is no number");
    ExpectRefusal(started("LISTEN_PID=me LISTEN_FDS=1"), "LISTEN_PID is 'me', which is no number");
}

}  // namespace
}  // namespace korlo
