#include "client/KorloSettingsClientImplConfirming.h"

#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "settings/KorloSettingsClient.h"
#include "settings/RefusedException.h"
#include "settings/server/IClientAccess.h"
#include "support/Callbacks.h"
#include "support/Documents.h"
#include "support/Files.h"
#include "support/ScriptedServer.h"
#include "support/SettingsServer.h"
#include "support/TemporaryFolder.h"
#include "support/UnixSockets.h"

namespace korlo::settings::client
{
namespace
{

using namespace std::chrono_literals;
using core::IniFile;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

using Client = KorloSettingsClientImplConfirming;

constexpr const char* Question = "get delimited\nKorloSettings/Trusted/Refused\n.\n";  // was it refused?
constexpr const char* Nothing = "data\n.\n";
constexpr const char* Doubt = "; a change may or may not be made";
constexpr ConfirmingLimits Impatient{5000, 50, 50};

/// A client whose server is played by the test.
class KorloSettingsClientImplConfirmingTest : public testing::Test
{
protected:
    void Connect(const ConfirmingLimits& limits = {})
    {
        address = "127.0.0.1:" + std::to_string(server.GetPort());
        pClient = std::make_unique<Client>(address, limits);
        pPeer = server.Accept();
    }

    /// Plays the server while the client runs the operation: what it threw, if anything.
    template <typename Operation>
    std::string Play(const Operation& operation, int lines, const std::string& answer)
    {
        auto ran = std::async(std::launch::async, [&] { return MessageOf([&] { operation(*pClient); }); });
        request = pPeer->Read(lines);
        pPeer->Send(answer);
        return ran.get();
    }

    void ExpectThatEveryCallFails()
    {
        const std::string expected = "was not sent to the settings server at '" + address + "'";
        IniFile settings;
        EXPECT_THAT(MessageOf([&] { pClient->GetSettings({"A"}, settings); }), HasSubstr(expected));
        EXPECT_THAT(MessageOf([&] { pClient->MergeSettings(IniFile(), 0); }), HasSubstr(expected));
        EXPECT_TRUE(settings.empty());
    }

    ScriptedServer server;
    std::string address;
    std::string request;
    std::unique_ptr<ScriptedServer::Peer> pPeer;
    std::unique_ptr<Client> pClient;  // is destroyed before its peer, which is the longer way
};

TEST_F(KorloSettingsClientImplConfirmingTest, EveryChangeIsFollowedByAQuestion)
{
    Connect();
    const IniFile changes = Ini("[A]\nx=1\n");
    EXPECT_EQ(Play([&](Client& client) { client.MergeSettings(changes, 0); }, 7, Nothing), "");
    EXPECT_EQ(request, "merge\n[A]\nx=1\n.\n" + std::string(Question));
    EXPECT_EQ(Play([&](Client& client) { client.MergeSettings(changes, 1); }, 7, Nothing), "");
    EXPECT_EQ(request, "merge nopersist\n[A]\nx=1\n.\n" + std::string(Question));
    EXPECT_EQ(Play([&](Client& client) { client.OverwriteSettings({"A"}, changes); }, 9, Nothing), "");
    EXPECT_EQ(request, "overwrite\nA\n.\n[A]\nx=1\n.\n" + std::string(Question));
    EXPECT_EQ(Play([&](Client& client) { client.RestoreToDefaults({"A*"}); }, 6, Nothing), "");
    EXPECT_EQ(request, "restore\nA*\n.\n" + std::string(Question));
    pPeer->Close();
}

TEST_F(KorloSettingsClientImplConfirmingTest, AChangeReturnsNoSoonerThanItsConfirmation)
{
    Connect();
    auto merged = std::async(std::launch::async, [&] { pClient->MergeSettings(IniFile(), 0); });
    EXPECT_EQ(pPeer->Read(5), "merge\n.\n" + std::string(Question));
    EXPECT_EQ(merged.wait_for(20ms), std::future_status::timeout);
    pPeer->Send(Nothing);
    EXPECT_EQ(merged.wait_for(30s), std::future_status::ready);
    pPeer->Close();
}

/// The refusal that the call throws; none, with a failure, if it throws none.
template <typename Call>
std::optional<RefusedException> RefusalOf(const Call& call)
{
    try
    {
        call();
    }
    catch (const RefusedException& refused)
    {
        return refused;
    }
    ADD_FAILURE() << "it was not refused";
    return std::nullopt;
}

TEST_F(KorloSettingsClientImplConfirmingTest, ARefusedChangeIsThrownWithItsGroupsAndTheClientGoesOn)
{
    Connect();
    auto merged = std::async(std::launch::async,
                             [&] { return RefusalOf([&] { pClient->MergeSettings(Ini("[A]\nx=1\n"), 0); }); });
    EXPECT_EQ(pPeer->Read(7), "merge\n[A]\nx=1\n.\n" + std::string(Question));
    pPeer->Send("data\n[KorloSettings/Trusted/Refused]\ngroup.1=A\ngroup.2=B*\noperation=merge\n.\n");
    const auto refused = merged.get();
    ASSERT_TRUE(refused);
    EXPECT_STREQ(refused->what(), "The settings server refused 'merge': its access rules do not allow it to this "
                                  "client for 'A', 'B*'");
    EXPECT_EQ(refused->GetGroups(), (GroupNameCollection{"A", "B*"}));
    EXPECT_EQ(Play([](Client& client) { client.RestoreToDefaults({"A"}); }, 6, Nothing), "");
    pPeer->Close();
}

TEST_F(KorloSettingsClientImplConfirmingTest, EachKindOfChangeTellsOfARefusal)
{
    Connect();
    const std::string refusal = "data\n[KorloSettings/Trusted/Refused]\noperation=it\n.\n";
    const std::string expected = "The settings server refused 'it': its access rules do not allow it to this client";
    EXPECT_EQ(Play([](Client& client) { client.MergeSettings(IniFile(), 1); }, 5, refusal), expected);
    EXPECT_EQ(Play([](Client& client) { client.OverwriteSettings({"A"}, IniFile()); }, 7, refusal), expected);
    EXPECT_EQ(Play([](Client& client) { client.RestoreToDefaults({"A"}); }, 6, refusal), expected);
    EXPECT_EQ(Play([](Client& client) { client.TestAndMerge(IniFile(), IniFile()); }, 3, "result\nfailure\n" + refusal),
              expected);
    EXPECT_EQ(pPeer->Read(3), Question);
    pPeer->Close();
}

TEST_F(KorloSettingsClientImplConfirmingTest, ATestThatFailedAsksWhetherItWasRefused)
{
    Connect();
    bool isMerged = true;
    const auto test = [&](Client& client) { isMerged = client.TestAndMerge(IniFile(), IniFile()); };
    EXPECT_EQ(Play(test, 3, std::string("result\nfailure\n") + Nothing), "");
    EXPECT_FALSE(isMerged);
    EXPECT_EQ(pPeer->Read(3), Question);
    EXPECT_EQ(Play(test, 3, "result\nok\n"), "");
    EXPECT_TRUE(isMerged);
    auto gone = std::async(std::launch::async, [&] { pClient.reset(); });
    EXPECT_EQ(pPeer->Read(1), "quit\n") << "after a success nothing is asked";
    pPeer->Close();
}

TEST_F(KorloSettingsClientImplConfirmingTest, AServerThatGoesBeforeItSaysWhetherItRefusedFailsTheCall)
{
    Connect();
    auto tested =
        std::async(std::launch::async, [&] { return MessageOf([&] { pClient->TestAndMerge(IniFile(), IniFile()); }); });
    EXPECT_EQ(pPeer->Read(3), "test-and-merge\n.\n.\n");
    pPeer->Send("result\nfailure\n");
    EXPECT_EQ(pPeer->Read(3), Question);
    pPeer->Close();
    EXPECT_THAT(tested.get(), HasSubstr("'test-and-merge' failed with the settings server at '" + address +
                                        "': it ended the connection"));
    ExpectThatEveryCallFails();
}

TEST_F(KorloSettingsClientImplConfirmingTest, ReadsAnswersThatArriveInSmallPieces)
{
    Connect();
    for (const std::size_t pieceBytes : {1u, 2u, 3u})
    {
        IniFile settings;
        auto got = std::async(std::launch::async, [&] { pClient->GetSettings({"A"}, settings); });
        EXPECT_EQ(pPeer->Read(3), "get delimited\nA\n.\n");
        const std::string answer = "data\n[A]\nx=1\n.\n";
        for (std::size_t at = 0; at < answer.size(); at += pieceBytes)
        {
            pPeer->Send(answer.substr(at, pieceBytes));
        }
        got.get();
        EXPECT_EQ(TextOf(settings), "[A]\nx=1\n");
        bool merged = false;
        EXPECT_EQ(Play([&](Client& client) { merged = client.TestAndMerge(IniFile(), IniFile()); }, 3, "result\nok\n"),
                  "");
        EXPECT_TRUE(merged);
    }
    pPeer->Close();
}

TEST_F(KorloSettingsClientImplConfirmingTest, AnAnswerCutAfterAnyByteFailsAndLeavesNothingOfIt)
{
    const std::string answer = "data\n[A]\nx=1\n.\n";
    for (std::size_t size = 0; size < answer.size(); ++size)
    {
        SCOPED_TRACE(size);
        Connect();
        IniFile settings;
        auto got =
            std::async(std::launch::async, [&] { return MessageOf([&] { pClient->GetSettings({"A"}, settings); }); });
        EXPECT_EQ(pPeer->Read(3), "get delimited\nA\n.\n");
        pPeer->Send(answer.substr(0, size));
        pPeer->Close();
        EXPECT_THAT(got.get(), AllOf(HasSubstr("'getsettings' failed with the settings server at '" + address +
                                               "': it ended the connection"),
                                     Not(HasSubstr(Doubt))));
        ExpectThatEveryCallFails();
    }
}

TEST_F(KorloSettingsClientImplConfirmingTest, AChangeThatIsCutOffMayHaveBeenMade)
{
    Connect();
    auto merged =
        std::async(std::launch::async, [&] { return MessageOf([&] { pClient->MergeSettings(IniFile(), 0); }); });
    EXPECT_EQ(pPeer->Read(5), "merge\n.\n" + std::string(Question));
    pPeer->Close();
    EXPECT_THAT(merged.get(), AllOf(HasSubstr("'merge' failed with the settings server at '" + address +
                                              "': it ended the connection"),
                                    HasSubstr(Doubt)));
    ExpectThatEveryCallFails();
}

TEST_F(KorloSettingsClientImplConfirmingTest, AServerThatIsAboutToEndIsNotTakenForASilentOne)
{
    const TemporaryFolder folder;
    const std::string socket = "unix:" + folder.PathOf("socket");
    osa::TcpListener listener(socket, 0);
    Client client(socket);
    const std::unique_ptr<osa::TcpSocket> pEnding = listener.Accept();
    pEnding->EndReading();  // what an ending server does first: this socket then takes no request
    IniFile settings;
    auto got = std::async(std::launch::async, [&] { return MessageOf([&] { client.GetSettings({"A"}, settings); }); });
    EXPECT_EQ(got.wait_for(50ms), std::future_status::timeout) << "it waits to see what becomes of the server";
    pEnding->Close();
    EXPECT_THAT(got.get(), HasSubstr("it ended the connection"));
}

TEST_F(KorloSettingsClientImplConfirmingTest, ASilentServerFailsTheCallAndItsLateAnswerIsNobodys)
{
    Connect(Impatient);
    const std::string failure = MessageOf([&] { pClient->TestAndMerge(IniFile(), IniFile()); });
    EXPECT_THAT(failure, AllOf(HasSubstr("'test-and-merge' failed with the settings server at '" + address +
                                         "': there was no answer for 50 milliseconds"),
                               HasSubstr(Doubt)));
    pPeer->Send("result\nok\n");
    ExpectThatEveryCallFails();
    EXPECT_EQ(pPeer->Read(4), "test-and-merge\n.\n.\n") << "and then the end";
}

TEST_F(KorloSettingsClientImplConfirmingTest, WhatIsNoSettingsServerIsSeenAtOnce)
{
    for (const std::string nonsense :
         {"HTTP/1.1 400 Bad Request\r\n", "\n", "async change\n", "result\n", "datax\n", "data \n"})
    {
        SCOPED_TRACE(nonsense);
        Connect();
        EXPECT_THAT(Play([](Client& client) { client.MergeSettings(IniFile(), 0); }, 5, nonsense),
                    AllOf(HasSubstr("at '" + address + "': something else than a settings server"), HasSubstr(Doubt)));
        ExpectThatEveryCallFails();
    }
    Connect();
    EXPECT_THAT(Play([](Client& client) { client.MergeSettings(IniFile(), 0); }, 5, std::string(1000000, 'x')),
                HasSubstr("something else than a settings server"))
        << "a line without an end";
}

TEST_F(KorloSettingsClientImplConfirmingTest, ANameThatAListCannotCarryCostsNothing)
{
    Connect();
    IniFile settings;
    const std::string refusal = "Group name '.' cannot be sent: it is a full stop or holds a line break";
    EXPECT_EQ(MessageOf([&] { pClient->GetSettings({"."}, settings); }), refusal);
    EXPECT_EQ(MessageOf([&] { pClient->OverwriteSettings({"."}, settings); }), refusal);
    EXPECT_EQ(Play([](Client& client) { client.RestoreToDefaults({"A"}); }, 6, Nothing), "");
    EXPECT_EQ(request, "restore\nA\n.\n" + std::string(Question));
    pPeer->Close();
}

TEST_F(KorloSettingsClientImplConfirmingTest, RefusesSubscriptionsAndStaysUsable)
{
    Connect();
    RecordingCallback callback;
    EXPECT_EQ(MessageOf([&] { pClient->Subscribe(&callback, {"A"}); }),
              "KorloSettingsClient::Subscribe not supported in single threaded mode");
    EXPECT_EQ(Play([](Client& client) { client.MergeSettings(IniFile(), 0); }, 5, Nothing), "");
    pPeer->Close();
}

TEST_F(KorloSettingsClientImplConfirmingTest, TheDestructorSaysQuitAndWaitsForTheServerToEndTheConnection)
{
    Connect();
    auto gone = std::async(std::launch::async, [&] { pClient.reset(); });
    EXPECT_EQ(pPeer->Read(1), "quit\n");
    EXPECT_EQ(gone.wait_for(20ms), std::future_status::timeout);
    pPeer->Close();
    EXPECT_EQ(gone.wait_for(30s), std::future_status::ready);
}

TEST_F(KorloSettingsClientImplConfirmingTest, AServerThatIgnoresQuitIsNotWaitedForForever)
{
    Connect(Impatient);
    auto gone = std::async(std::launch::async, [&] { pClient.reset(); });
    EXPECT_EQ(gone.wait_for(30s), std::future_status::ready);
    EXPECT_EQ(pPeer->Read(2), "quit\n") << "and then the end";
}

TEST_F(KorloSettingsClientImplConfirmingTest, AnAbsentServerIsReportedAtOnce)
{
    server.Close();
    const std::string port = std::to_string(server.GetPort());
    EXPECT_EQ(MessageOf([&] { Client("127.0.0.1:" + port); }),
              "Failed to connect to '127.0.0.1' port " + port + ": Connection refused");
    EXPECT_THAT(MessageOf([&] { Client(""); }), HasSubstr("Failed to connect to 'korlo-settings-server'"));
    EXPECT_THAT(MessageOf([&] { Client("127.0.0.1"); }), HasSubstr("the port is missing"));
}

TEST(ConfirmingTest, ReachesAServerOnAUnixDomainSocket)
{
    const TemporaryFolder folder;
    const std::string address = "unix:" + folder.PathOf("socket");
    osa::TcpListener listener(address, 0);
    auto value =
        std::async(std::launch::async, [&] { return KorloSettingsClient::Confirming(address).GetValue("[A]x"); });
    ScriptedServer::Peer peer(listener.Accept());
    EXPECT_EQ(peer.Read(3), "get delimited\nA\n.\n");
    peer.Send("data\n[A]\nx=1\n.\n");
    EXPECT_EQ(peer.Read(1), "quit\n");
    peer.Close();
    EXPECT_EQ(value.get(), "1");
    EXPECT_THAT(MessageOf([&] { Client(address + "-elsewhere"); }), HasSubstr("-elsewhere"));
}

TEST_F(KorloSettingsClientImplConfirmingTest, WithoutAnAddressMessagesNameTheServerThatWasFound)
{
    pClient = std::make_unique<Client>("");
    pPeer = server.Accept();
    pPeer->Close();
    EXPECT_THAT(MessageOf([&] { pClient->MergeSettings(IniFile(), 0); }),
                HasSubstr("at '127.0.0.1:" + std::to_string(server.GetPort()) + "'"));
}

TEST(ConfirmingSocketTest, WithoutAnAddressTheSocketOfTheServerIsTaken)
{
    const TemporaryFolder folder;
    const std::string path = folder.PathOf("socket");
    osa::TcpListener listener("unix:" + path, 0);
    Client client("", {}, path);
    ScriptedServer::Peer(listener.Accept()).Close();
    EXPECT_THAT(MessageOf([&] { client.MergeSettings(IniFile(), 0); }), HasSubstr("at 'unix:" + path + "'"));
}

TEST(ConfirmingSocketTest, ASocketThatRefusesIsTheFailureWithPathAndReason)
{
    const TemporaryFolder folder;
    const std::string path = folder.PathOf("socket");
    LeaveSocket(path);
    EXPECT_EQ(MessageOf([&] { Client("", {}, path); }),
              "Failed to connect to 'unix:" + path +
                  "': Connection refused: nobody listens on the socket; the server "
                  "that made it must be started again");
}

/// KORLO_SETTINGS_LOCALFILE as the test wants it.
class LocalFileVariable
{
public:
    explicit LocalFileVariable(const std::string& path) { ::setenv("KORLO_SETTINGS_LOCALFILE", path.c_str(), 1); }
    LocalFileVariable(const LocalFileVariable&) = delete;
    LocalFileVariable& operator=(const LocalFileVariable&) = delete;
    ~LocalFileVariable() { ::unsetenv("KORLO_SETTINGS_LOCALFILE"); }
};

TEST(ConfirmingTest, WhatHasReturnedIsCarriedOut)
{
    SettingsServer server(Ini("[A]\nx=0\ny=0\n[B]\nz=0\n"));
    KorloSettingsClient client = KorloSettingsClient::Confirming("");
    const auto valueOf = [&](const char* group, const char* key) {
        common::GroupNameMatcher all;
        all.AddNameOrPattern("*");
        IniFile settings;
        server.GetStore().GetGroups(settings, all);
        return settings.GetValueOrDefault(group, key);
    };
    client.SetValue("[A]x", "1");
    EXPECT_EQ(valueOf("A", "x"), "1");
    EXPECT_TRUE(client.TestAndMerge(Ini("[A]\nx=1\n"), Ini("[A]\nx=2\n")));
    EXPECT_FALSE(client.TestAndMerge(Ini("[A]\nx=1\n"), Ini("[A]\nx=3\n")));
    EXPECT_EQ(valueOf("A", "x"), "2");
    client.OverwriteSettings("A", Ini("[A]\nx=4\n"));
    EXPECT_EQ(valueOf("A", "y"), "");
    client.EraseGroups("B");
    EXPECT_EQ(valueOf("B", "z"), "");
    client.RestoreToDefaults("*");
    EXPECT_EQ(valueOf("A", "x"), "0");
    EXPECT_EQ(client.GetValue("[B]z"), "0");
}

/// A client that may read everything and change group A alone.
///
/// Thread safety: all methods, from any thread.
class OneGroup : public server::IClientAccess, private server::IAccessRights
{
public:
    std::shared_ptr<const server::IAccessRights> GetRights() const override
    {
        return {std::shared_ptr<const server::IAccessRights>(), this};
    }

    void OnRefused(const std::string&, const GroupNameCollection&) override {}

private:
    bool MayReadEverything() const override { return true; }
    bool MayRead(const std::string&) const override { return true; }
    bool MayReadAllOf(const std::string&) const override { return true; }
    bool MayChangeEverything() const override { return false; }
    bool MayChange(const std::string& group) const override { return group == "A"; }
    bool MayChangeAllOf(const std::string& nameOrPattern) const override { return nameOrPattern == "A"; }
};

TEST(ConfirmingTest, AServerWithRulesIsUnderstood)
{
    OneGroup access;
    SettingsServer server(Ini("[A]\nx=0\n[B]\nz=0\n"), &access);
    KorloSettingsClient client = KorloSettingsClient::Confirming("");
    const auto refusal = [](const std::string& operation, const std::string& name) {
        return "The settings server refused '" + operation +
               "': its access rules do not allow it to this client for '" + name + "'";
    };
    EXPECT_EQ(MessageOf([&] { client.SetValue("[B]z", "1"); }), refusal("merge", "B"));
    EXPECT_EQ(MessageOf([&] { client.MergeSettings(Ini("[A]\nx=1\n[C]\ny=1\n"), 1); }),
              refusal("merge nopersist", "C"));
    EXPECT_EQ(MessageOf([&] { client.EraseGroups("*"); }), refusal("overwrite", "*"));
    EXPECT_EQ(MessageOf([&] { client.RestoreToDefaults("B"); }), refusal("restore", "B"));
    EXPECT_EQ(MessageOf([&] { client.TestAndMerge(Ini("[B]\nz=0\n"), Ini("[B]\nz=1\n")); }),
              refusal("test-and-merge", "B"));
    EXPECT_FALSE(client.TestAndMerge(Ini("[B]\nz=1\n"), Ini("[A]\nx=1\n"))) << "another value is no refusal";
    EXPECT_TRUE(client.TestAndMerge(Ini("[B]\nz=0\n"), Ini("[A]\nx=1\n")));
    client.SetValue("[A]x", "2");
    EXPECT_EQ(client.GetValue("[A]x"), "2");
    EXPECT_EQ(client.GetValue("[B]z"), "0");
}

TEST(ConfirmingTest, ThreadsThatShareAClientGetTheirOwnAnswers)
{
    SettingsServer server(Ini("[0]\nx=0\n[1]\nx=1\n[2]\nx=2\n[3]\nx=3\n"));
    KorloSettingsClient client = KorloSettingsClient::Confirming("");
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread)
    {
        threads.emplace_back([&client, group = std::to_string(thread)] {
            for (int round = 0; round < 50; ++round)
            {
                EXPECT_EQ(client.GetValue("[" + group + "]x"), group);
                client.SetValue("[" + group + "]y", "1");
            }
        });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
}

TEST(ConfirmingTest, AnAddressWinsOverTheLocalFileWhichHoldsWithoutOne)
{
    const TemporaryFolder folder;
    const std::string path = folder.PathOf("device.ini");
    WriteFile(path, "[A]\nx=file\n");
    const LocalFileVariable variable(path);
    ScriptedServer server;
    const std::string address = "127.0.0.1:" + std::to_string(server.GetPort());
    EXPECT_EQ(KorloSettingsClient::Confirming("").GetValue("[A]x"), "file");
    auto value =
        std::async(std::launch::async, [&] { return KorloSettingsClient::Confirming(address).GetValue("[A]x"); });
    const auto pPeer = server.Accept();
    EXPECT_EQ(pPeer->Read(3), "get delimited\nA\n.\n");
    pPeer->Send("data\n[A]\nx=server\n.\n");
    EXPECT_EQ(pPeer->Read(1), "quit\n");
    pPeer->Close();
    EXPECT_EQ(value.get(), "server");
}

}  // namespace
}  // namespace korlo::settings::client
