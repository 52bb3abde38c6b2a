// Who a client of a Unix-domain socket is.

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "korlo/osa/PeerIdentity.h"
#include "korlo/osa/TcpListener.h"
#include "support/TcpPair.h"
#include "support/TemporaryFolder.h"
#include "support/UnixSockets.h"

namespace korlo::osa
{
namespace
{

using testing::ElementsAre;
using testing::IsEmpty;

constexpr unsigned int OverflowId = 65534;

/// An emulator passes the question for groups on and loses the size of the answer.
constexpr bool IsEmulated = std::string_view(KORLO_EMULATOR).size() > 0;

/// A listener that everybody may connect to.
struct OpenDoor
{
    OpenDoor() { chmod(folder.GetPath().c_str(), 0711); }

    /// Who `user` is, to the listener.
    PeerIdentity Meet(unsigned int user, unsigned int group, const std::vector<unsigned int>& groups)
    {
        RawUnixSocket client;
        AsUser(user, group, groups, [&] { EXPECT_EQ(client.Connect(path), 0); });
        return *listener.Accept()->GetPeerIdentity();
    }

    TemporaryFolder folder;
    const std::string path = folder.PathOf("socket");
    TcpListener listener{"unix:" + path, 0, SocketFileRights{0666}};
};

std::vector<unsigned int> OwnGroups()
{
    std::vector<unsigned int> groups(static_cast<std::size_t>(getgroups(0, nullptr)));
    getgroups(static_cast<int>(groups.size()), groups.data());
    groups.push_back(getegid());
    std::sort(groups.begin(), groups.end());
    groups.erase(std::unique(groups.begin(), groups.end()), groups.end());
    return groups;
}

TEST(PeerIdentityTest, TellsUserGroupsProcessAndProgram)
{
    UnixPair pair;
    const PeerIdentity* const pIdentity = pair.pServer->GetPeerIdentity();
    ASSERT_NE(pIdentity, nullptr);
    EXPECT_EQ(pIdentity->user, geteuid());
    if (!IsEmulated)
    {
        EXPECT_EQ(pIdentity->groups, OwnGroups());
    }
    EXPECT_EQ(pIdentity->process, getpid());
    std::string program;
    std::ifstream comm("/proc/self/comm");
    std::getline(comm, program);
    EXPECT_EQ(pIdentity->program, program);
}

TEST(PeerIdentityTest, ThereIsNoneOverTcpOrAtTheClient)
{
    TcpPair tcp;
    EXPECT_EQ(tcp.pServer->GetPeerIdentity(), nullptr);
    UnixPair pair;
    EXPECT_EQ(pair.client.GetPeerIdentity(), nullptr);
}

TEST(PeerIdentityTest, TellsAllGroupsOfAnotherUser)
{
    if (!MayBecomeOtherUsers())
    {
        EXPECT_THROW(AsUser(41234, 41235, {}, [] {}), std::runtime_error);
        return;
    }
    OpenDoor door;
    const PeerIdentity few = door.Meet(41234, 41235, {7, 41235, 5});
    EXPECT_EQ(few.user, 41234u);
    std::vector<unsigned int> groups(3000);  // more than fit into a first guess
    for (std::size_t i = 0; i < groups.size(); ++i)
    {
        groups[i] = static_cast<unsigned int>(50000 + i * 3);
    }
    const PeerIdentity many = door.Meet(41234, 41235, groups);
    const PeerIdentity none = door.Meet(41234, 41235, {});
    EXPECT_THAT(none.groups, ElementsAre(41235));
    if (IsEmulated)
    {
        EXPECT_THAT(many.groups, testing::Contains(41235u));
        return;
    }
    EXPECT_TRUE(few.areGroupsComplete);
    EXPECT_THAT(few.groups, ElementsAre(5, 7, 41235));
    groups.insert(groups.begin(), 41235);
    EXPECT_EQ(many.groups, groups);
    EXPECT_TRUE(many.areGroupsComplete);
}

TEST(PeerIdentityTest, OverflowIdsAreNobody)
{
    if (!MayBecomeOtherUsers())
    {
        EXPECT_THROW(AsUser(OverflowId, OverflowId, {}, [] {}), std::runtime_error);
        return;
    }
    OpenDoor door;
    const PeerIdentity nobody = door.Meet(OverflowId, OverflowId, {OverflowId});
    EXPECT_EQ(nobody.user, std::nullopt);
    EXPECT_THAT(nobody.groups, IsEmpty());
    EXPECT_EQ(nobody.process, getpid());
    const PeerIdentity someone = door.Meet(41234, OverflowId, {7});
    EXPECT_EQ(someone.user, 41234u);
    EXPECT_THAT(someone.groups,
                IsEmulated ? testing::Each(7u) : testing::Matcher<std::vector<unsigned int>>(ElementsAre(7)));
}

/// What a server in a user namespace of its own makes of a client outside of it; errno if the system lets it have none.
int MeetFromNamespace(const std::string& path)
{
    if (unshare(CLONE_NEWUSER) != 0)
    {
        return errno;
    }
    TcpListener listener("unix:" + path, 0, SocketFileRights{0666});
    const std::unique_ptr<TcpSocket> pServer = listener.Accept();
    const PeerIdentity* const pIdentity = pServer->GetPeerIdentity();
    return pIdentity != nullptr && !pIdentity->user && pIdentity->groups.empty() ? 0 : -1;
}

TEST(PeerIdentityTest, APeerOfAForeignUserNamespaceIsNobody)
{
    TemporaryFolder folder;
    ASSERT_EQ(chmod(folder.GetPath().c_str(), 0777), 0);
    const pid_t server = fork();
    if (server == 0)
    {
        _exit(MeetFromNamespace(folder.PathOf("socket")));
    }
    int status = 0;
    RawUnixSocket client;
    while (client.Connect(folder.PathOf("socket")) != 0 && waitpid(server, &status, WNOHANG) == 0)
    {
        sched_yield();
    }
    if (!WIFEXITED(status) || status == 0)
    {
        waitpid(server, &status, 0);
    }
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_TRUE(WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == EPERM || WEXITSTATUS(status) == ENOSYS ||
                WEXITSTATUS(status) == EINVAL)
        << WEXITSTATUS(status);
}

TEST(PeerIdentityTest, AProcessThatHasEndedKeepsItsUserAndHasNoProgram)
{
    OpenDoor door;
    const pid_t process = fork();
    if (process == 0)
    {
        RawUnixSocket client;
        _exit(client.Connect(door.path));
    }
    int status = -1;
    ASSERT_EQ(waitpid(process, &status, 0), process);
    ASSERT_EQ(status, 0);
    const std::unique_ptr<TcpSocket> pServer = door.listener.Accept();
    EXPECT_EQ(pServer->GetPeerIdentity()->user, geteuid());
    EXPECT_EQ(pServer->GetPeerIdentity()->process, process);
    EXPECT_EQ(pServer->GetPeerIdentity()->program, "");
}

TEST(PeerIdentityTest, AProgramMayCallItselfAnything)
{
    OpenDoor door;
    RawUnixSocket client;
    std::string before(16, '\0');
    prctl(PR_GET_NAME, before.data());
    prctl(PR_SET_NAME, "a\nb\x1b[31m\n");
    ASSERT_EQ(client.Connect(door.path), 0);
    const std::string program = door.listener.Accept()->GetPeerIdentity()->program;
    prctl(PR_SET_NAME, before.c_str());
    EXPECT_EQ(program, "a\nb\x1b[31m\n");
}

}  // namespace
}  // namespace korlo::osa
