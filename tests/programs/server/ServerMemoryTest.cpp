// What the server takes of the device's memory. Measured where no sanitizer and no emulator takes its own share.

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/ServerProcess.h"
#include "support/TemporaryFolder.h"

namespace korlo::daemon
{
namespace
{

TEST(ServerMemoryTest, AnIdleServerIsSmallAndSoIsEachClientThatWaitsForChanges)
{
    constexpr std::size_t clients = 400;  // as many as the test's own descriptors allow for
    const TemporaryFolder folder;
    ServerProcess server({"--user", folder.PathOf("user.ini")});
    const std::size_t idleKiB = server.GetResidentKiB();
    EXPECT_LT(idleKiB, 4096u);

    std::vector<std::unique_ptr<RawClient>> subscribers;
    for (std::size_t i = 0; i < clients; ++i)
    {
        subscribers.push_back(std::make_unique<RawClient>(server.GetPort()));
        subscribers.back()->Send("subscribe\nGroup" + std::to_string(i) + "\n.\n");
        EXPECT_EQ(subscribers.back()->Get("None"), "");
    }
    EXPECT_LT(server.GetResidentKiB(), idleKiB + 40 * clients);
}

TEST(ServerMemoryTest, AClientThatAsksForMuchAndReadsSlowlyCostsAFewCopiesAndNotAHundred)
{
    constexpr int requests = 100;
    const TemporaryFolder folder;
    ServerProcess server({"--user", folder.PathOf("user.ini")});
    RawClient client(server.GetPort());
    EXPECT_TRUE(client.TestAndMerge("", "[Big]\nk=" + std::string(1'000'000, 'x') + '\n'));
    const std::size_t residentKiB = server.GetResidentKiB();
    for (int i = 0; i < requests; ++i)
    {
        client.Send("get delimited\nBig\n.\n");
    }
    for (int i = 0; i < requests / 2; ++i)
    {
        client.ReadLine();
        client.ReadBlock();
    }
    EXPECT_LT(server.GetResidentKiB(), residentKiB + 30'000);
}

TEST(ServerMemoryTest, AConnectionThatWaitsKeepsNoLongCommandLine)
{
    const TemporaryFolder folder;
    ServerProcess server({"--user", folder.PathOf("user.ini")});
    RawClient client(server.GetPort());
    EXPECT_EQ(client.Get("None"), "");
    const std::size_t residentKiB = server.GetResidentKiB();
    client.Send("info " + std::string(15'000'000, 'x') + '\n');
    EXPECT_EQ(client.Get("None"), "");
    EXPECT_TRUE(Eventually([&] { return server.GetResidentKiB() < residentKiB + 2'000; }));
}

}  // namespace
}  // namespace korlo::daemon
