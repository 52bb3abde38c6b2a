#include "client/KorloSettingsTcpConnection.h"

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "support/Files.h"
#include "support/LogWatch.h"
#include "support/ScriptedServer.h"

namespace korlo::settings::client
{
namespace
{

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* ConnectFailure = "Failed to connect to korlo-settings-server";
constexpr const char* FailureWarning = "4 KorloSettingsConnection: Failed to connect to korlo-settings-server";
constexpr const char* RetryInformation = "6 KorloSettingsConnection: Retrying connection";

class KorloSettingsTcpConnectionTest : public testing::Test
{
protected:
    KorloSettingsTcpConnectionTest()
    {
        core::Logger::GetLogger("KorloSettingsConnection")->SetThreshold(core::LogLevelInformation);
        connection.HeedStopRequest(&stopRequest);
    }

    LogWatch log;
    ScriptedServer server;
    StopRequest stopRequest;
    KorloSettingsTcpConnection connection;
};

TEST_F(KorloSettingsTcpConnectionTest, LooksForTheServerUnderItsOneName)
{
    EXPECT_STREQ(KorloSettingsTcpConnection::ServerHost, "korlo-settings-server");
}

TEST_F(KorloSettingsTcpConnectionTest, ConnectsNothingBeforeItIsEnsured)
{
    EXPECT_FALSE(connection.IsReady());
    EXPECT_EQ(connection.GetIstream(), nullptr);
    EXPECT_EQ(connection.GetOstream(), nullptr);
}

TEST_F(KorloSettingsTcpConnectionTest, CarriesBytesBothWays)
{
    connection.EnsureConnection(1);
    EXPECT_TRUE(connection.IsReady());
    const auto pPeer = server.Accept();
    *connection.GetOstream() << "hello\n" << std::flush;
    EXPECT_EQ(pPeer->Read(1), "hello\n");
    pPeer->Send("welcome\n");
    std::string line;
    std::getline(*connection.GetIstream(), line);
    EXPECT_EQ(line, "welcome");
    EXPECT_THAT(log.GetMessages(), IsEmpty());
}

TEST_F(KorloSettingsTcpConnectionTest, NoRetriesThrowAtOnce)
{
    EXPECT_EQ(MessageOf([&] { connection.EnsureConnection(0); }), ConnectFailure);
    EXPECT_THAT(log.GetMessages(), ElementsAre(FailureWarning));
}

TEST_F(KorloSettingsTcpConnectionTest, AnAbsentServerCostsTheAttemptsAndAPauseBetweenThem)
{
    server.Close();
    const auto start = Clock::now();
    EXPECT_EQ(MessageOf([&] { connection.EnsureConnection(3); }), ConnectFailure);
    EXPECT_GE(Clock::now() - start, 2000ms);
    EXPECT_THAT(log.GetMessages(), ElementsAre(FailureWarning, RetryInformation, FailureWarning, RetryInformation,
                                               FailureWarning, RetryInformation, FailureWarning));
    EXPECT_EQ(connection.GetIstream(), nullptr);
    EXPECT_EQ(connection.GetOstream(), nullptr);
}

TEST_F(KorloSettingsTcpConnectionTest, TheFirstAttemptDoesNotWait)
{
    server.Close();
    Clock::duration least = 1h;
    for (int attempt = 0; attempt < 10 && least >= 900ms; ++attempt)  // another process may have had the machine
    {
        const auto start = Clock::now();
        EXPECT_EQ(MessageOf([&] { connection.EnsureConnection(1); }), ConnectFailure);
        least = std::min<Clock::duration>(least, Clock::now() - start);
        const std::vector<std::string> messages = log.GetMessages();
        ASSERT_GE(messages.size(), 3u);
        EXPECT_THAT(std::vector(messages.end() - 3, messages.end()),
                    ElementsAre(FailureWarning, RetryInformation, FailureWarning));
    }
    EXPECT_LT(least, 900ms);
}

TEST_F(KorloSettingsTcpConnectionTest, FindsAServerThatComesBetweenTwoAttempts)
{
    osa::ServiceDirectory::Register(KorloSettingsTcpConnection::ServerHost, "127.0.0.1", 1);
    auto ensured = std::async(std::launch::async, [&] { connection.EnsureConnection(5); });
    ASSERT_TRUE(log.WaitFor(RetryInformation));
    ScriptedServer late;
    EXPECT_EQ(ensured.wait_for(30s), std::future_status::ready);
    EXPECT_TRUE(connection.IsReady());
}

TEST_F(KorloSettingsTcpConnectionTest, AReadyConnectionIsLeftUntouched)
{
    connection.EnsureConnection(1);
    std::istream* const pIn = connection.GetIstream();
    std::ostream* const pOut = connection.GetOstream();
    const auto pPeer = server.Accept();
    for (const int retries : {0, 1, 5})
    {
        connection.EnsureConnection(retries);
        EXPECT_EQ(connection.GetIstream(), pIn);
        EXPECT_EQ(connection.GetOstream(), pOut);
    }
    *pOut << "still there\n" << std::flush;
    EXPECT_EQ(pPeer->Read(1), "still there\n");
}

TEST_F(KorloSettingsTcpConnectionTest, TheEndOfTheInputAloneIsNoFailure)
{
    connection.EnsureConnection(1);
    connection.GetIstream()->setstate(std::ios_base::eofbit);
    EXPECT_TRUE(connection.IsReady());
    connection.GetIstream()->setstate(std::ios_base::failbit);
    EXPECT_FALSE(connection.IsReady());
}

TEST_F(KorloSettingsTcpConnectionTest, EitherStreamThatFailedIsReplaced)
{
    connection.EnsureConnection(1);
    auto pPeer = server.Accept();
    connection.GetOstream()->setstate(std::ios_base::badbit);
    EXPECT_FALSE(connection.IsReady());
    connection.EnsureConnection(1);
    EXPECT_TRUE(pPeer->MeetsTheEnd());
    pPeer = server.Accept();
    connection.GetIstream()->setstate(std::ios_base::badbit);
    connection.EnsureConnection(1);
    EXPECT_TRUE(pPeer->MeetsTheEnd());
    pPeer = server.Accept();
    EXPECT_TRUE(connection.IsReady());
}

TEST_F(KorloSettingsTcpConnectionTest, ClosingLeavesThePointersToEnsureConnection)
{
    connection.EnsureConnection(1);
    std::istream* const pIn = connection.GetIstream();
    const auto pPeer = server.Accept();
    connection.CloseConnection();
    EXPECT_EQ(connection.GetIstream(), pIn);
    EXPECT_TRUE(pPeer->MeetsTheEnd());
    connection.ForgetStreams();
    EXPECT_EQ(connection.GetIstream(), nullptr);
    EXPECT_EQ(connection.GetOstream(), nullptr);
}

TEST_F(KorloSettingsTcpConnectionTest, AClosedConnectionIsEstablishedAnew)
{
    for (int round = 0; round < 2; ++round)
    {
        connection.EnsureConnection(1);
        EXPECT_TRUE(connection.IsReady());
        const auto pPeer = server.Accept();
        *connection.GetOstream() << "hello\n" << std::flush;
        EXPECT_EQ(pPeer->Read(1), "hello\n");
        connection.CloseConnection();
        EXPECT_TRUE(pPeer->MeetsTheEnd());
    }
    EXPECT_EQ(MessageOf([&] { connection.EnsureConnection(0); }), ConnectFailure);
    EXPECT_EQ(connection.GetIstream(), nullptr);
}

TEST_F(KorloSettingsTcpConnectionTest, DestroyingItEndsTheConnection)
{
    auto pConnection = std::make_unique<KorloSettingsTcpConnection>();
    pConnection->EnsureConnection(1);
    const auto pPeer = server.Accept();
    pConnection.reset();
    EXPECT_TRUE(pPeer->MeetsTheEnd());
}

TEST_F(KorloSettingsTcpConnectionTest, ARequestToStopEndsThePauseBetweenAttempts)
{
    server.Close();
    auto ensured =
        std::async(std::launch::async, [&] { return MessageOf([&] { connection.EnsureConnection(1000); }); });
    ASSERT_TRUE(log.WaitFor(RetryInformation));
    stopRequest.Make();
    ASSERT_EQ(ensured.wait_for(30s), std::future_status::ready);
    EXPECT_EQ(ensured.get(), ConnectFailure);
}

TEST_F(KorloSettingsTcpConnectionTest, ABrokenTransportEndsAReadThatWaits)
{
    connection.EnsureConnection(1);
    const auto pPeer = server.Accept();
    auto read = std::async(std::launch::async, [&] {
        std::string line;
        return static_cast<bool>(std::getline(*connection.GetIstream(), line));
    });
    EXPECT_EQ(read.wait_for(5ms), std::future_status::timeout);
    stopRequest.Break();
    ASSERT_EQ(read.wait_for(30s), std::future_status::ready);
    EXPECT_FALSE(read.get());
}

TEST_F(KorloSettingsTcpConnectionTest, WritingToAPeerThatHasGoneIsAnErrorAndNoSignal)
{
    connection.EnsureConnection(1);
    server.Accept();
    std::ostream& out = *connection.GetOstream();
    for (int count = 0; count < 1000000 && out.good(); ++count)
    {
        out << "merge\n.\n" << std::flush;
    }
    EXPECT_FALSE(out.good());
}

}  // namespace
}  // namespace korlo::settings::client
