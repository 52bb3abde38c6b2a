#include "client/KorloSettingsLocalConnection.h"

#include <future>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "support/Files.h"
#include "support/LogCapture.h"

namespace korlo::settings::client
{
namespace
{

constexpr const char* InvalidState = "KorloSettingsLocalConnection: Connection is in invalid state";

std::string ReadLine(const KorloSettingsConnection& connection)
{
    std::string line;
    std::getline(*connection.GetIstream(), line);
    return line;
}

/// Waits until the handler has closed its ends.
void AwaitEnd(const KorloSettingsConnection& connection)
{
    std::ostringstream rest;
    rest << connection.GetIstream()->rdbuf();
    EXPECT_EQ(rest.str(), "");
}

TEST(KorloSettingsLocalConnectionTest, IsNotReadyBeforeItIsEnsured)
{
    KorloSettingsLocalConnection connection;
    EXPECT_FALSE(connection.IsReady());
    EXPECT_EQ(connection.GetIstream(), nullptr);
    EXPECT_EQ(connection.GetOstream(), nullptr);
}

TEST(KorloSettingsLocalConnectionTest, ServesRequestsOverAnEmptyStore)
{
    KorloSettingsLocalConnection connection;
    connection.EnsureConnection(0);  // the count means nothing here
    EXPECT_TRUE(connection.IsReady());
    *connection.GetOstream() << "dump all\nmerge\n[A]\nx=1\n.\nget\nA\n.\n" << std::flush;
    EXPECT_EQ(ReadLine(connection), ".");
    EXPECT_EQ(ReadLine(connection), "[A]");
    EXPECT_EQ(ReadLine(connection), "x=1");
}

TEST(KorloSettingsLocalConnectionTest, EveryConnectionHasAStoreOfItsOwn)
{
    KorloSettingsLocalConnection first;
    KorloSettingsLocalConnection second;
    first.EnsureConnection(1);
    second.EnsureConnection(1);
    *first.GetOstream() << "merge\n[A]\nx=1\n.\ndump\n" << std::flush;
    EXPECT_EQ(ReadLine(first), "[A]");
    *second.GetOstream() << "dump all\n" << std::flush;
    EXPECT_EQ(ReadLine(second), ".");
}

TEST(KorloSettingsLocalConnectionTest, ClosingDoesNothing)
{
    KorloSettingsLocalConnection connection;
    connection.EnsureConnection(1);
    std::istream* const pIn = connection.GetIstream();
    std::ostream* const pOut = connection.GetOstream();
    connection.CloseConnection();
    EXPECT_EQ(connection.GetIstream(), pIn);
    EXPECT_EQ(connection.GetOstream(), pOut);
    connection.ForgetStreams();
    connection.EnsureConnection(1);
    EXPECT_EQ(connection.GetIstream(), pIn);
    EXPECT_EQ(connection.GetOstream(), pOut);
    *pOut << "dump\n" << std::flush;
    EXPECT_EQ(ReadLine(connection), ".");
}

TEST(KorloSettingsLocalConnectionTest, IsInvalidOnceTheHandlerHasQuit)
{
    KorloSettingsLocalConnection connection;
    connection.EnsureConnection(1);
    *connection.GetOstream() << "quit\n" << std::flush;
    AwaitEnd(connection);
    EXPECT_EQ(MessageOf([&] { connection.EnsureConnection(3); }), InvalidState);
    EXPECT_EQ(MessageOf([&] { connection.EnsureConnection(3); }), InvalidState);
}

TEST(KorloSettingsLocalConnectionTest, IsInvalidOnceTheHandlerHasEndedByAnException)
{
    const LogCapture log;
    KorloSettingsLocalConnection connection;
    connection.EnsureConnection(1);
    *connection.GetOstream() << "serialize phparray\nmerge\nnonsense\n" << std::flush;
    AwaitEnd(connection);
    EXPECT_EQ(MessageOf([&] { connection.EnsureConnection(3); }), InvalidState);
}

TEST(KorloSettingsLocalConnectionTest, DestroyingItEndsTheHandlerWhateverIsStillUnread)
{
    KorloSettingsLocalConnection connection;
    connection.EnsureConnection(1);
    for (int count = 0; count < 1000; ++count)
    {
        *connection.GetOstream() << "info subscribed\n";
    }
    connection.GetOstream()->flush();
}

TEST(KorloSettingsLocalConnectionTest, DestroyingItRightAwayEndsTheHandler)
{
    for (int round = 0; round < 20; ++round)
    {
        const KorloSettingsLocalConnection connection;
    }
}

}  // namespace
}  // namespace korlo::settings::client
