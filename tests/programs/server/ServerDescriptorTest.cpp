// A server that may open few files.

#include <memory>
#include <string>
#include <vector>

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
using Words = std::vector<std::string>;

/// The command line with so many open files at most, which not even root may raise.
Words WithFewFiles(int count, const Words& command)
{
    Words words{"sh", "-c",
                "ulimit -n " + std::to_string(count) +
                    "; drop='setpriv --bounding-set=-sys_resource'; $drop true 2>/dev/null || drop=; exec $drop \"$@\"",
                "sh"};
    words.insert(words.end(), command.begin(), command.end());
    return words;
}

TEST(ServerDescriptorTest, IdleClientsAreRefusedBeforeSavesAndRestoresWantForDescriptors)
{
    constexpr int clients = 60;
    const TemporaryFolder folder;
    const std::string user = folder.PathOf("user.ini");
    WriteFile(folder.PathOf("10.ini"), "[A]\nk=default\n");
    WriteFile(folder.PathOf("20.ini"), "[B]\nk=default\n");
    const Words command = ServerProcess::Command(
        {"--user", user, "--defaults", folder.PathOf("10.ini"), "--defaults", folder.PathOf("20.ini")});
    ServerProcess server(ServerProcess::WholeCommand{WithFewFiles(60, command)});
    RawClient changer(server.GetPort());
    EXPECT_EQ(changer.Get("A"), "[A]\nk=default\n");

    std::vector<std::unique_ptr<RawClient>> idle;
    for (int i = 0; i < clients; ++i)
    {
        idle.push_back(std::make_unique<RawClient>(server.GetPort()));
        idle.back()->Send("subscribe\nA\n.\n");  // so that its thread has to be woken
    }
    server.GetChild().AwaitErrors("is refused: ");
    for (int i = 0; i < 20; ++i)
    {
        const std::string value = std::to_string(i);
        ASSERT_TRUE(changer.TestAndMerge("", "[A]\nk=" + value + '\n'));
        ASSERT_EQ(ContentOf(user), "[A]\nk=" + value + '\n');
    }
    changer.Send("restore\nA\n.\n");
    EXPECT_EQ(changer.Get("A"), "[A]\nk=default\n");
    EXPECT_EQ(ContentOf(user), "[A]\nk=default\n");

    idle.clear();
    EXPECT_TRUE(Eventually([&] { return RawClient(server.GetPort()).Get("B") == "[B]\nk=default\n"; }));
    EXPECT_EQ(server.End(), 0);
    EXPECT_THAT(server.GetChild().GetErrors(), HasSubstr("1000 clients need "));
    EXPECT_THAT(server.GetChild().GetErrors(), HasSubstr(" open files, 60 are allowed: more than "));
    EXPECT_THAT(server.GetChild().GetErrors(), testing::Not(HasSubstr("Too many open files")));
}

TEST(ServerDescriptorTest, ASubscriberThatReadsTakesOneDescriptor)
{
    constexpr std::size_t clients = 10;
    const TemporaryFolder folder;
    ServerProcess server({"--user", folder.PathOf("user.ini")});
    RawClient changer(server.GetPort());
    EXPECT_EQ(changer.Get("A"), "");
    const std::size_t before = server.CountDescriptors();
    std::vector<std::unique_ptr<RawClient>> subscribers;
    for (std::size_t i = 0; i < clients; ++i)
    {
        subscribers.push_back(std::make_unique<RawClient>(server.GetPort()));
        subscribers.back()->Send("subscribe\nA\n.\n");
        EXPECT_EQ(subscribers.back()->Get("A"), "");
    }
    changer.Send("merge nopersist\n[A]\nk=1\n.\n");
    for (const auto& pSubscriber : subscribers)
    {
        EXPECT_EQ(pSubscriber->ReadLine(), "async change");
    }
    EXPECT_EQ(server.CountDescriptors(), before + clients);
}

TEST(ServerDescriptorTest, ALimitThatLeavesRoomForNoClientEndsTheStart)
{
    const TemporaryFolder folder;
    ChildProcess child(WithFewFiles(20, ServerProcess::Command({"--user", folder.PathOf("user.ini")})));
    EXPECT_EQ(child.Wait(), 1);
    EXPECT_THAT(child.GetErrors(), HasSubstr("20 open files are allowed, the server and one client need "));
}

}  // namespace
}  // namespace korlo::daemon
