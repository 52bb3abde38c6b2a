#include "ClientConnection.h"

#include <memory>
#include <string_view>
#include <utility>

#include <gtest/gtest.h>

#include "support/ExchangeStore.h"
#include "support/TcpPair.h"

namespace korlo::daemon
{
namespace
{

constexpr unsigned int LimitMs = 30'000;

/// Counts a client out, and looks at the client's end of the connection in that moment.
///
/// Thread safety: written by the connection's thread, read when that has ended.
class LookingOwner : public IConnectionOwner
{
public:
    explicit LookingOwner(osa::TcpSocket& client) : _client(client) {}

    void OnConnectionEnded(ClientConnection&) override { _readiness = _client.Wait(true, false, 0); }

    unsigned int GetReadiness() const { return _readiness; }

private:
    osa::TcpSocket& _client;
    unsigned int _readiness = osa::TcpSocket::Woken;
};

TEST(ClientConnectionTest, AClientThatHearsOfItsEndIsNotCountedAnyMore)
{
    const settings::server::ExchangeStore store;
    TcpPair pair;
    LookingOwner owner(pair.client);
    auto pConnection = std::make_unique<ClientConnection>(std::move(pair.pServer), store.env, ServerLimits(), owner);
    pConnection->Start();
    constexpr std::string_view quit = "quit\n";
    pair.client.WriteAll(quit.data(), quit.size(), LimitMs);
    pConnection.reset();  // waits for its thread
    EXPECT_EQ(owner.GetReadiness(), 0u) << "the client heard of the end before the owner did";
    char none = 0;
    EXPECT_EQ(pair.client.ReadSome(&none, 1, LimitMs).status, osa::TcpSocket::EndOfStream);
}

}  // namespace
}  // namespace korlo::daemon
