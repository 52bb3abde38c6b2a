#include "ClientConnection.h"

#include <chrono>
#include <future>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "korlo/osa/TcpSocketStream.h"
#include "support/Documents.h"
#include "support/ExchangeStore.h"
#include "support/LogCapture.h"
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

/// A connection that is served, and the client's end of it.
class ClientConnectionTest : public testing::Test
{
protected:
    void Start()
    {
        _pConnection = std::make_unique<ClientConnection>(std::move(_pair.pServer), "somebody", _store.env, _access,
                                                          ServerLimits(), _gathered, _owner);
        _pConnection->Start();
    }

    void Send(const std::string& text)
    {
        EXPECT_EQ(_client.WriteAll(text.data(), text.size(), LimitMs).status, osa::TcpSocket::Done);
    }

    /// What the client receives up to the end of the connection.
    std::string ReadToTheEnd()
    {
        osa::TcpSocketStream stream(&_client, LimitMs);
        std::ostringstream text;
        text << stream.rdbuf();
        return text.str();
    }

    settings::server::ExchangeStore _store;
    AccessControl _access{nullptr, std::nullopt};
    TcpPair _pair;
    osa::TcpSocket& _client = _pair.client;
    LookingOwner _owner{_client};
    GatheredQueues _gathered;
    std::unique_ptr<ClientConnection> _pConnection;
};

TEST_F(ClientConnectionTest, AClientThatHearsOfItsEndIsNotCountedAnyMore)
{
    Start();
    Send("quit\n");
    _pConnection.reset();  // waits for its thread
    EXPECT_EQ(_owner.GetReadiness(), 0u) << "the client heard of the end before the owner did";
    EXPECT_EQ(ReadToTheEnd(), "");
}

/// The one request that is being carried out, and an event to let it go on.
class RequestInHandTest : public ClientConnectionTest
{
protected:
    void StartWith(const std::string& requests)
    {
        _store.persister.beforeSave = [this] {
            if (_store.persister.saveCount == 0)
            {
                _begun.set_value();
                _goesOn.get_future().wait();
            }
        };
        Start();
        Send(requests);
        ASSERT_EQ(_begun.get_future().wait_for(std::chrono::milliseconds(LimitMs)), std::future_status::ready);
    }

    void GoOn() { _goesOn.set_value(); }

    std::promise<void> _begun;
    std::promise<void> _goesOn;
};

TEST_F(RequestInHandTest, IsFinishedAndAnsweredByAServerThatStopsAndNoOtherIs)
{
    std::string requests;
    for (int i = 0; i < 200; ++i)
    {
        requests += "test-and-merge\n.\n[A]\nk=" + std::to_string(i) + "\n.\n";
    }
    StartWith(requests);
    _pConnection->Stop();
    GoOn();
    EXPECT_EQ(ReadToTheEnd(), "result\nok\n");
    _pConnection.reset();
    EXPECT_EQ(_store.persister.saveCount, 1);
    EXPECT_EQ(TextOf(_store.persister.user), "[A]\nk=0\n");
}

TEST_F(ClientConnectionTest, AServerThatStopsEndsEachConnectionWithoutAWarning)
{
    for (const char* begin : {"", "merge\n[A]\nk=1\n", "subscribe\nA\n.\n", "subscribe\nA\n.\nmerge\n[A]\n"})
    {
        SCOPED_TRACE(begin);
        const LogCapture log;
        TcpPair pair;
        settings::server::ExchangeStore store;
        LookingOwner owner(pair.client);
        ClientConnection connection(std::move(pair.pServer), "somebody", store.env, _access, ServerLimits(), _gathered,
                                    owner);
        connection.Start();
        osa::TcpSocketStream stream(&pair.client, LimitMs);
        stream.GetOstream() << "get delimited\n.\n" << begin << std::flush;
        std::string line;
        EXPECT_TRUE(std::getline(stream, line));  // the connection is served by now
        connection.Stop();
        EXPECT_TRUE(std::getline(stream, line));
        EXPECT_FALSE(std::getline(stream, line));
        EXPECT_THAT(log.GetMessages(), testing::IsEmpty());
        EXPECT_EQ(store.persister.saveCount, 0);
    }
}

TEST_F(ClientConnectionTest, RequestsOfEverySizeAroundThoseOfItsBuffersAreAnswered)
{
    Start();
    const std::string answer = "data\n.\n";
    std::string requests;
    std::string answers;
    const std::vector<std::size_t> sizes{1022, 1023, 1024, 1025, 2048, 65'535, 65'536, 65'537, 66'560, 200'000, 20};
    for (const std::size_t size : sizes)
    {
        SCOPED_TRACE(size);
        const std::string head = "get delimited\n";
        const std::string tail = "\n.\n";
        const std::string request = head + std::string(size - head.size() - tail.size(), 'x') + tail;
        Send(request);
        EXPECT_EQ(ReadBytes(_client, answer.size()), answer);
        requests += request;
        answers += answer;
    }
    Send(requests);
    EXPECT_EQ(ReadBytes(_client, answers.size()), answers);
    Send("quit\n");
    _pConnection.reset();
}

TEST_F(ClientConnectionTest, AServerThatStopsDoesNotWaitForLongForAClientThatDoesNotRead)
{
    const LogCapture log;
    core::IniFile large;
    large.SetValue("Large", "k", std::string(32 * 1024 * 1024, 'x'));  // more than the system keeps for a connection
    _store.manager.MergeSettings(large, 0);
    Start();
    Send("get delimited\nLarge\n.\n");
    ASSERT_EQ(_client.Wait(true, false, LimitMs), osa::TcpSocket::Readable);
    _pConnection->Stop();
    _pConnection.reset();  // waits for its thread
    EXPECT_THAT(log.GetMessages(), testing::ElementsAre(testing::HasSubstr("it does not read its responses")));
}

}  // namespace
}  // namespace korlo::daemon
