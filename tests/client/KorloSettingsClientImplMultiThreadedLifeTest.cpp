// The multi-threaded client over other connections than a server's: its birth, its end, and what must not happen.

#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include "client/KorloSettingsClientImplMultiThreaded.h"
#include "client/KorloSettingsLocalConnection.h"
#include "client/KorloSettingsTcpConnection.h"
#include "client/RemoteCommands.h"
#include "korlo/osa/Exception.h"
#include "korlo/osa/PipeStreamPair.h"
#include "support/Callbacks.h"
#include "support/Documents.h"
#include "support/Files.h"
#include "support/LogWatch.h"
#include "support/ScriptedServer.h"

namespace korlo::settings::client
{
namespace
{

using namespace std::chrono_literals;
using core::IniFile;

using Client = KorloSettingsClientImplMultiThreaded;

/// The two directions of a connection.
struct Wire
{
    osa::PipeStreamPair requests;
    osa::PipeStreamPair responses;
};

/// Establishes itself the way the test says.
class WireConnection : public KorloSettingsConnection
{
public:
    using Function = std::function<void(WireConnection&, int)>;

    explicit WireConnection(Function ensure) : _ensure(std::move(ensure)) {}

    void EnsureConnection(int retries) override { _ensure(*this, retries); }
    void CloseConnection() override {}

    void Join(Wire& wire)
    {
        _pIn = wire.responses.GetIstream();
        _pOut = wire.requests.GetOstream();
    }

    /// Waits until the client is being destroyed.
    void AwaitStop()
    {
        constexpr unsigned int longMs = 30000;
        Pause(longMs);
    }

private:
    const Function _ensure;
};

std::string ContentOf(osa::PipeStreamPair& pipe)
{
    pipe.ClosePipe();
    return {std::istreambuf_iterator<char>(*pipe.GetIstream()), {}};
}

/// A get of the group "A" that tells when it has been sent.
class AnnouncedGet : public GetSettingsCommand
{
public:
    AnnouncedGet(IniFile& result, std::promise<void>& sent) : GetSettingsCommand(&groupA, &result), _sent(sent) {}

    void SendRequest(std::ostream& out) override
    {
        GetSettingsCommand::SendRequest(out);
        _sent.set_value();
    }

private:
    static inline const GroupNameCollection groupA{"A"};

    std::promise<void>& _sent;
};

/// Ends the connection from the server's side.
class QuitCommand : public RemoteCommand
{
public:
    QuitCommand() : RemoteCommand("") {}

    void SendRequest(std::ostream& out) override { out << "quit\n" << std::flush; }
};

/// Breaks the connection on the client's reader thread, where its streams may be changed.
class ForgetCommand : public RemoteCommand
{
public:
    ForgetCommand(KorloSettingsConnection& connection, Wire& wire)
        : RemoteCommand("forgotten"),
          _connection(connection),
          _wire(wire)
    {
    }

    void SendRequest(std::ostream&) override { *_wire.responses.GetOstream() << "forgotten\n" << std::flush; }

    bool HandleResponse(std::istream&) override
    {
        _connection.ForgetStreams();
        return true;
    }

private:
    KorloSettingsConnection& _connection;
    Wire& _wire;
};

/// Destroys the client; true when that takes no longer than it may.
bool EndsInTime(std::unique_ptr<Client>& pClient)
{
    return std::async(std::launch::async, [&pClient] { pClient.reset(); }).wait_for(30s) == std::future_status::ready;
}

TEST(KorloSettingsClientImplMultiThreadedLifeTest, ConnectsByThreeAttemptsAndLogsWhateverFails)
{
    LogWatch log;
    core::Logger::GetLogger("KorloSettings")->SetThreshold(core::LogLevelInformation);
    Wire wire;
    int passes = 0;
    auto pClient = std::make_unique<Client>(new WireConnection([&](WireConnection& connection, int retries) {
        EXPECT_EQ(retries, 3);
        switch (++passes)
        {
        case 1:
            throw osa::Exception("nobody is there");
        case 2:
            throw 42;
        default:
            connection.Join(wire);
        }
    }));
    EXPECT_TRUE(log.WaitFor("6 KorloSettings: Connected to korlo-settings-server, releasing semaphore"));
    EXPECT_THAT(log.GetMessages(),
                testing::ElementsAre("6 KorloSettings: (re)Connecting to korlo-setting server",
                                     "4 KorloSettings: Connect() failed: nobody is there",
                                     "4 KorloSettings: Attempting to reconnect in 1 second",
                                     "6 KorloSettings: (re)Connecting to korlo-setting server",
                                     "4 KorloSettings: Connect() failed: unknown",
                                     "4 KorloSettings: Attempting to reconnect in 1 second",
                                     "6 KorloSettings: (re)Connecting to korlo-setting server",
                                     "6 KorloSettings: Connected to korlo-settings-server, releasing semaphore"));
    wire.responses.ClosePipe();
    EXPECT_TRUE(EndsInTime(pClient));
}

TEST(KorloSettingsClientImplMultiThreadedLifeTest, AnEndDuringAnAttemptWaitsForThatAttemptAlone)
{
    Wire wire;
    std::promise<void> connecting;
    auto pClient = std::make_unique<Client>(new WireConnection([&](WireConnection& connection, int) {
        connecting.set_value();
        connection.AwaitStop();
        connection.Join(wire);  // the attempt succeeds too late, with a server that never ends a connection by itself
    }));
    connecting.get_future().wait();
    auto gone = std::async(std::launch::async, [&] { pClient.reset(); });
    EXPECT_EQ(gone.wait_for(15s), std::future_status::ready);
    EXPECT_EQ(ContentOf(wire.requests), "") << "there was no connection to say anything on";
    wire.responses.ClosePipe();
}

/// Writes to this process's connection to that port until it takes nothing more.
void FillConnectionTo(unsigned short port)
{
    const std::string much(1024 * 1024, '\n');
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    {
        const int descriptor = std::stoi(entry.path().filename().string());
        sockaddr_in peer{};
        socklen_t length = sizeof(peer);
        if (::getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &length) == 0 && peer.sin_family == AF_INET &&
            ntohs(peer.sin_port) == port)
        {
            pollfd waited{descriptor, POLLOUT, 0};
            while (::poll(&waited, 1, 100) > 0)
            {
                ::send(descriptor, much.data(), much.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            }
        }
    }
}

TEST(KorloSettingsClientImplMultiThreadedLifeTest, AServerThatReadsNothingAnyMoreDoesNotKeepAClientFromItsEnd)
{
    ScriptedServer server;
    auto pClient = std::make_unique<Client>(new KorloSettingsTcpConnection);
    const std::unique_ptr<ScriptedServer::Peer> pPeer = server.Accept();
    pClient->MergeSettings(IniFile(), 0);
    FillConnectionTo(server.GetPort());
    auto gone = std::async(std::launch::async, [&] { pClient.reset(); });
    EXPECT_EQ(gone.wait_for(15s), std::future_status::ready);
    pPeer->Close();  // so that a failure ends, too
}

TEST(KorloSettingsClientImplMultiThreadedLifeTest, AClientIsConstructedWithoutWaitingForItsConnection)
{
    std::promise<void> constructed;
    auto pClient = std::make_unique<Client>(new WireConnection([&](WireConnection&, int) {
        constructed.get_future().wait();
        throw osa::Exception("nobody is there");
    }));
    const LogWatch log;
    constructed.set_value();
    EXPECT_TRUE(EndsInTime(pClient));
}

TEST(KorloSettingsClientImplMultiThreadedLifeTest, TheResponseToACallThatFailedIsNotTakenForAnotherOne)
{
    // An exception out of a callback ends the connection as the client sees it; but one within the process stays, and
    // the response to the call that waited meanwhile still comes.
    LogWatch log;
    auto pClient = std::make_unique<Client>(new KorloSettingsLocalConnection);
    pClient->MergeSettings(Ini("[A]\nx=1\n[B]\ny=1\n"), 0);
    std::promise<void> sent;
    FunctionCallback callback([&](const GroupNameCollection&, const IniFile&) {
        sent.get_future().wait();
        throw std::runtime_error("I do not like it");
    });
    pClient->Subscribe(&callback, {"A"});
    pClient->MergeSettings(Ini("[A]\nx=2\n"), 0);

    IniFile lost;
    EXPECT_EQ(MessageOf([&] { pClient->RunCommand("Get", new AnnouncedGet(lost, sent)); }),
              "Get failed to communicate with korlo-settings-server");
    for (int round = 0; round < 3; ++round)
    {
        IniFile settings;
        pClient->GetSettings({"B"}, settings);
        EXPECT_EQ(TextOf(settings), "[B]\ny=1\n");
        EXPECT_FALSE(pClient->TestAndMerge(Ini("[A]\nx=1\n"), IniFile()));
        EXPECT_TRUE(pClient->TestAndMerge(Ini("[A]\nx=2\n"), IniFile()));
    }
    EXPECT_TRUE(lost.empty());
    EXPECT_EQ(log.Count("3 KorloSettings: Caught I do not like it"), 1);
    EXPECT_EQ(log.Count("3 KorloSettings: Message received without corresponding request"), 0);
}

TEST(KorloSettingsClientImplMultiThreadedLifeTest, AHandlerThatHasEndedLeavesItsClientWithoutAConnection)
{
    LogWatch log;
    auto pClient = std::make_unique<Client>(new KorloSettingsLocalConnection);
    EXPECT_TRUE(pClient->RunCommand("Quit", new QuitCommand));
    EXPECT_TRUE(
        log.WaitFor("4 KorloSettings: Connect() failed: KorloSettingsLocalConnection: Connection is in invalid state"));
    EXPECT_TRUE(EndsInTime(pClient));
}

/// Sends the head of a request and finds no memory for the rest.
class HalfCommand : public RemoteCommand
{
public:
    HalfCommand() : RemoteCommand("") {}

    void SendRequest(std::ostream& out) override
    {
        out << "merge\n[A]\n" << std::flush;
        throw std::bad_alloc();
    }
};

TEST(KorloSettingsClientImplMultiThreadedLifeTest, AHandlerThatWaitsForHalfARequestDoesNotKeepAClientFromItsEnd)
{
    const LogWatch log;
    auto pClient = std::make_unique<Client>(new KorloSettingsLocalConnection);
    EXPECT_THROW(pClient->RunCommand("Half", new HalfCommand), std::bad_alloc);
    EXPECT_TRUE(EndsInTime(pClient));
}

TEST(KorloSettingsClientImplMultiThreadedLifeDeathTest, ANullStreamUnderTheSendSemaphoreEndsTheProcess)
{
    // That style starts this program again, which the system cannot do with one that runs in an emulator.
    if (std::string_view(KORLO_EMULATOR).empty())
    {
        testing::FLAGS_gtest_death_test_style = "threadsafe";
    }
    const auto breakInvariant = [](const std::function<void(Client&)>& operation) {
        Wire wire;
        auto* const pConnection =
            new WireConnection([&wire](WireConnection& connection, int) { connection.Join(wire); });
        Client client(pConnection);
        client.RunCommand("Forget", new ForgetCommand(*pConnection, wire));
        operation(client);
    };
    const std::string tail = ": invariant broken: take\\(_sendMutex\\) && \\(!_pConnection->IsReady\\(\\)\\)\n";
    const std::string head = "^KorloSettingsClientImplMultiThreaded::";
    EXPECT_DEATH(breakInvariant([](Client& client) { client.MergeSettings(IniFile(), 0); }),
                 head + "MergeSettings" + tail);
    EXPECT_DEATH(breakInvariant([](Client& client) {
                     IniFile settings;
                     client.GetSettings({}, settings);
                 }),
                 head + "GetSettings" + tail);
    EXPECT_DEATH(breakInvariant([](Client& client) {
                     RecordingCallback callback;
                     client.Subscribe(&callback, {});
                 }),
                 head + "Subscribe" + tail);
}

}  // namespace
}  // namespace korlo::settings::client
