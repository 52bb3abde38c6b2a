// korlo-settings against a real server.

#include <chrono>
#include <future>
#include <memory>
#include <optional>

#include "ToolFixture.h"
#include "korlo/osa/TcpListener.h"
#include "support/ServerProcess.h"

namespace korlo::settings::cli
{
namespace
{

using testing::AllOf;
using testing::HasSubstr;

/// A server with default, user and restricted files, and the tool.
class SettingsToolServerTest : public ToolTest
{
protected:
    SettingsToolServerTest()
    {
        Write("defaults.ini", "[Audio]\nring=80\nvolume=40\n[Counter]\nvalue=0\n[Net/Guest]\nssid=Visitors\n"
                              "[Net/Wifi]\nchannel=6\n");
        Write("restricted.ini", "[DeviceSecure]\nserial=KP-1\n");
        Start();
    }

    /// The first time on a free port, and on the same one from then on.
    void Start(const Arguments& options = {})
    {
        Arguments arguments = {"--defaults", PathOf("defaults.ini"), "--restricted", PathOf("restricted.ini"),
                               "--user",     PathOf("user.ini"),     "--listen",     _address};
        arguments.insert(arguments.end(), options.begin(), options.end());
        _server.emplace(arguments);
        _address = "127.0.0.1:" + std::to_string(_server->GetPort());
    }

    /// Restarts the server as a later version of the device's software would.
    void StartWithDefaults(const std::string& text)
    {
        _server->End();
        Write("defaults.ini", text);
        Start();
    }

    Arguments ServerCommand(Arguments arguments) const
    {
        arguments.insert(arguments.begin(), {"--server", _address});
        return arguments;
    }

    ToolResult OnServer(const Arguments& arguments, const std::string& input = "") const
    {
        return Run(ServerCommand(arguments), input);
    }

    ToolResult OnServerAsJson(Arguments arguments) const
    {
        arguments.insert(arguments.begin(), "--json");
        return OnServer(arguments);
    }

    /// A process that watches; returns once it does.
    std::unique_ptr<ChildProcess> Watch(Arguments operands) const
    {
        operands.insert(operands.begin(), "watch");
        auto pWatcher = std::make_unique<ChildProcess>(Command(ServerCommand(operands)));
        pWatcher->AwaitErrors("watching\n");
        return pWatcher;
    }

    bool AwaitSubscribed(const std::string& names) const
    {
        return Eventually([&] { return OnServer({"subscribed"}).output == names; });
    }

    std::string _address = "127.0.0.1:0";
    std::optional<ServerProcess> _server;
};

TEST_F(SettingsToolServerTest, ReadsGroupsAndValuesAndNames)
{
    ExpectResult(OnServer({"get", "Net/*", "Nowhere"}), 0, "[Net/Guest]\nssid=Visitors\n[Net/Wifi]\nchannel=6\n");
    ExpectResult(OnServer({"get", "[Audio]volume"}), 0, "40\n");
    ExpectResult(OnServer({"get", "[Audio]bass"}), 1, "", HasSubstr("there is no setting '[Audio]bass'"));
    ExpectResult(OnServer({"get", "X*"}), 1, "", HasSubstr("no group matches 'X*'"));
    ExpectResult(OnServerAsJson({"get", "Net/Wifi"}), 0, "{\"Net/Wifi\":{\"channel\":\"6\"}}\n");
    ExpectResult(OnServer({"list", "Net/*"}), 0, "Net/Guest\nNet/Wifi\n");
    ExpectResult(OnServerAsJson({"list"}), 0, "[\"Audio\",\"Counter\",\"DeviceSecure\",\"Net/Guest\",\"Net/Wifi\"]\n");
}

TEST_F(SettingsToolServerTest, AChangeIsThereForTheNextProcess)
{
    ExpectResult(OnServer({"set", "[Audio]volume", "-5"}), 0, "");
    ExpectResult(OnServer({"get", "Audio"}), 0, "[Audio]\nring=80\nvolume=-5\n");

    ExpectResult(OnServer({"merge"}, "[Audio]\nring=1\n[New]\nk=v\n"), 0, "");
    ExpectResult(OnServer({"get", "Audio", "New"}), 0, "[Audio]\nring=1\nvolume=-5\n[New]\nk=v\n");

    ExpectResult(OnServer({"overwrite", "Net/*"}, "[Net/Lan]\ndhcp=1\n"), 0, "");
    ExpectResult(OnServer({"get", "Net/*"}), 0, "[Net/Lan]\ndhcp=1\n");

    ExpectResult(OnServer({"erase", "New", "Audio"}), 0, "");
    ExpectResult(OnServer({"list"}), 0, "Counter\nDeviceSecure\nNet/Lan\n");
    ExpectResult(OnServer({"erase", "New"}), 1, "", HasSubstr("no group matches 'New'"));

    ExpectResult(OnServer({"restore", "*"}), 0, "");
    ExpectResult(OnServer({"get", "Audio", "Net/*"}), 0,
                 "[Audio]\nring=80\nvolume=40\n[Net/Guest]\nssid=Visitors\n[Net/Wifi]\nchannel=6\n");
    ExpectResult(OnServer({"restore", "Nowhere"}), 1, "", HasSubstr("no group matches 'Nowhere'"));
}

TEST_F(SettingsToolServerTest, PersistedChangesOutliveAKilledServerAndOthersDoNot)
{
    ExpectResult(OnServer({"set", "[Audio]volume", "65"}), 0, "");
    ExpectResult(OnServer({"set", "[Audio]ring", "1", "--no-persist"}), 0, "");
    ExpectResult(OnServer({"erase", "Net/Guest"}), 0, "");
    ExpectResult(OnServer({"get", "Audio"}), 0, "[Audio]\nring=1\nvolume=65\n");
    _server->End(SIGKILL);
    Start();
    ExpectResult(OnServer({"get", "Audio", "Net/*"}), 0, "[Audio]\nring=80\nvolume=65\n[Net/Wifi]\nchannel=6\n");
}

TEST_F(SettingsToolServerTest, ErasedDefaultsStayAwayWhenALaterVersionBringsOthers)
{
    ExpectResult(OnServer({"erase", "Net/Guest", "Later"}), 0, "");
    StartWithDefaults("[Later]\nk=1\n[Net/Guest]\nnew=1\nssid=Hall\n");
    ExpectResult(OnServer({"list"}), 0, "DeviceSecure\n");
    ExpectResult(OnServer({"set", "[Net/Guest]ssid", "Desk"}), 0, "");
    StartWithDefaults("[Later]\nk=2\n[Net/Guest]\nnew=2\nssid=Roof\n");
    ExpectResult(OnServer({"get", "Net/Guest", "Later"}), 0, "[Net/Guest]\nssid=Desk\n");
}

TEST_F(SettingsToolServerTest, AnOverwrittenPatternKeepsAwayTheDefaultsOfLaterGroups)
{
    ExpectResult(OnServer({"overwrite", "Net/*"}, "[Net/Lan]\ndhcp=1\n"), 0, "");
    ExpectResult(OnServer({"set", "[Net/Dock]k", "v"}), 0, "");
    StartWithDefaults("[Net/Bluetooth]\nk=1\n[Net/Lan]\nport=2\n");
    ExpectResult(OnServer({"get", "Net/*"}), 0, "[Net/Dock]\nk=v\n[Net/Lan]\ndhcp=1\n");
    ExpectResult(OnServer({"dump"}), 0,
                 "[KorloSettings/Data/DeletedGroups]\n1=Net/*\n[Net/Dock]\nk=v\n[Net/Lan]\ndhcp=1\n");
}

TEST_F(SettingsToolServerTest, RestoredDefaultsArePersistedAndOutliveALaterVersionsOwn)
{
    ExpectResult(OnServer({"erase", "Net/Guest"}), 0, "");
    ExpectResult(OnServer({"set", "[Own]k", "v"}), 0, "");
    ExpectResult(OnServer({"restore", "Net/Guest", "Own", "Counter"}), 0, "");
    const std::string userLayer = "[Counter]\nvalue=0\n[KorloSettings/Data/DeletedGroups]\n1=Net/Guest\n"
                                  "[Net/Guest]\nssid=Visitors\n";
    ExpectResult(OnServer({"dump"}), 0, userLayer);
    StartWithDefaults("[Counter]\nvalue=7\n[Net/Guest]\nssid=Hall\n");
    ExpectResult(OnServer({"get", "Counter", "Net/Guest", "Own"}), 0,
                 "[Counter]\nvalue=0\n[Net/Guest]\nssid=Visitors\n");
    ExpectResult(OnServer({"dump"}), 0, userLayer);
}

TEST_F(SettingsToolServerTest, AGroupFollowsTheDefaultsAgainWithoutValuesAndRecord)
{
    ExpectResult(OnServer({"erase", "Audio"}), 0, "");
    ExpectResult(OnServer({"restore", "Counter"}), 0, "");
    ExpectResult(OnServer({"erase", "Counter"}), 0, "");
    ExpectResult(OnServer({"restore", "KorloSettings/Data/DeletedGroups"}), 1, "", HasSubstr("no group matches"));
    ExpectResult(OnServer({"dump"}), 0, "");
    StartWithDefaults("[Audio]\nring=8\n[Counter]\nvalue=7\n");
    ExpectResult(OnServer({"get", "Audio", "Counter"}), 0, "[Audio]\nring=8\n[Counter]\nvalue=7\n");
}

TEST_F(SettingsToolServerTest, TestAndMergeMergesOnlyOverExpectedValues)
{
    const std::string expected = Write("expected.ini", "[Audio]\nvolume=40\n");
    const std::string changes = Write("changes.ini", "[Audio]\nvolume=41\n");
    ExpectResult(OnServer({"test-and-merge", expected, changes}), 0, "");
    ExpectResult(OnServer({"test-and-merge", expected, changes}), 1, "", HasSubstr("other values"));
    ExpectResult(OnServer({"get", "[Audio]volume"}), 0, "41\n");
}

TEST_F(SettingsToolServerTest, ProcessesThatCountByTestAndMergeLoseNoStep)
{
    const std::string script = Write("count", "done=0\n"
                                              "while [ $done -lt 5 ]; do\n"
                                              "  value=$($TOOL --server $ADDRESS get '[Counter]value') || exit 9\n"
                                              "  printf '[Counter]\\nvalue=%d\\n' $value > $1.seen\n"
                                              "  printf '[Counter]\\nvalue=%d\\n' $((value + 1)) > $1.next\n"
                                              "  $TOOL --server $ADDRESS test-and-merge $1.seen $1.next\n"
                                              "  case $? in 0) done=$((done + 1)) ;; 1) ;; *) exit 9 ;; esac\n"
                                              "done\n");
    std::vector<std::unique_ptr<ChildProcess>> counters;
    for (const std::string name : {"a", "b", "c", "d"})
    {
        counters.push_back(std::make_unique<ChildProcess>(
            Arguments{"/bin/sh", script, PathOf(name)},
            ChildProcess::Variables{{"TOOL", std::string(KORLO_EMULATOR) + ' ' + KORLO_SETTINGS_TOOL},
                                    {"ADDRESS", _address}}));
    }
    for (const auto& pCounter : counters)
    {
        EXPECT_EQ(pCounter->Wait(), 0) << pCounter->GetErrors();
    }
    ExpectResult(OnServer({"get", "[Counter]value"}), 0, "20\n");
}

TEST_F(SettingsToolServerTest, RestrictedGroupsAreReadAndNotChanged)
{
    const auto refused = HasSubstr("restricted groups cannot be changed: 'DeviceSecure'");
    ExpectResult(OnServer({"get", "[DeviceSecure]serial"}), 0, "KP-1\n");
    ExpectResult(OnServer({"set", "[DeviceSecure]serial", "x"}), 1, "", refused);
    ExpectResult(OnServer({"merge"}, "[DeviceSecure]\nserial=x\n[Audio]\nvolume=1\n"), 0, "", refused);
    ExpectResult(OnServer({"erase", "DeviceSecure"}), 1, "", refused);
    ExpectResult(OnServer({"overwrite", "Device*"}, "[DeviceSecure]\nserial=x\n"), 1, "", refused);
    ExpectResult(OnServer({"get", "DeviceSecure", "Audio"}), 0,
                 "[Audio]\nring=80\nvolume=1\n[DeviceSecure]\nserial=KP-1\n");
}

TEST_F(SettingsToolServerTest, AnyBytesComeBack)
{
    for (const std::string value : {"", " x ", "\xFF\x01\n.\n", ".", "[a]\nb=c"})
    {
        SCOPED_TRACE(value);
        for (const std::string group : {"a\nb", ".", " ", "G*"})
        {
            ExpectResult(OnServer({"set", '[' + group + "]k", value}), 0, "");
            ExpectResult(OnServer({"get", '[' + group + "]k"}), 0, value + '\n');
        }
    }
    ExpectResult(OnServer({"get", "."}), 0, "[.]\nk=\"[a]\\nb=c\"\n");
    ExpectResult(OnServer({"list", "a\nb"}), 0, "a\nb\n");
}

TEST_F(SettingsToolServerTest, NamesThatTheProtocolCannotCarryAreRefusedBeforeAnythingIsDone)
{
    ASSERT_EQ(OnServer({"set", "[a\nb]k", "v"}).status, 0);
    for (const std::string command : {"erase", "restore", "watch"})
    {
        SCOPED_TRACE(command);
        ExpectResult(OnServer({command, "a\nb"}), 2, "", AllOf(HasSubstr("line break"), HasSubstr("hint: a pattern")));
        ExpectResult(OnServer({command, "."}), 2, "", HasSubstr("'.*'"));
    }
    ExpectResult(OnServer({"get", "[a\nb]k"}), 0, "v\n");
}

TEST_F(SettingsToolServerTest, DumpPrintsTheUserLayerOrAllSettings)
{
    ExpectResult(OnServer({"dump"}), 0, "");
    ExpectResult(OnServerAsJson({"dump"}), 0, "{}\n");
    ASSERT_EQ(OnServer({"set", "[Audio]volume", "65"}).status, 0);
    ASSERT_EQ(OnServer({"erase", "Net/Guest"}).status, 0);
    ExpectResult(OnServer({"dump"}), 0, "[Audio]\nvolume=65\n[KorloSettings/Data/DeletedGroups]\n1=Net/Guest\n");
    ExpectResult(OnServerAsJson({"dump"}), 0,
                 "{\"Audio\":{\"volume\":\"65\"},\"KorloSettings/Data/DeletedGroups\":{\"1\":\"Net/Guest\"}}\n");
    ExpectResult(OnServer({"dump", "--all"}), 0,
                 "[Audio]\nring=80\nvolume=65\n[Counter]\nvalue=0\n[DeviceSecure]\nserial=KP-1\n"
                 "[Net/Wifi]\nchannel=6\n");
}

TEST_F(SettingsToolServerTest, SubscribedPrintsWhatIsWatchedWhateverItsName)
{
    ExpectResult(OnServer({"subscribed"}), 0, "");
    ExpectResult(OnServerAsJson({"subscribed"}), 0, "[]\n");
    const auto pFirst = Watch({"Net/*", "Audio"});
    const auto pSecond = Watch({"", "data", "Audio"});
    ExpectResult(OnServer({"subscribed"}), 0, "\nAudio\nNet/*\ndata\n");
    ExpectResult(OnServerAsJson({"subscribed"}), 0, "[\"\",\"Audio\",\"Net/*\",\"data\"]\n");
}

TEST_F(SettingsToolServerTest, WatchPrintsEachChangeUntilASignal)
{
    const auto pWatcher = Watch({"Audio", "Net/*"});
    ASSERT_EQ(OnServer({"set", "[Audio]volume", "1"}).status, 0);
    pWatcher->AwaitOutput("# changed: Audio\n[Audio]\nring=80\nvolume=1\n\n");
    ASSERT_EQ(OnServer({"set", "[Counter]value", "7"}).status, 0);
    ASSERT_EQ(OnServer({"erase", "Net/Guest"}).status, 0);
    pWatcher->AwaitOutput("# changed: Net/Guest\n\n");
    pWatcher->Signal(SIGINT);
    EXPECT_EQ(pWatcher->Wait(), 0);
    EXPECT_EQ(pWatcher->GetOutput(), "# changed: Audio\n[Audio]\nring=80\nvolume=1\n\n# changed: Net/Guest\n\n");
    EXPECT_EQ(pWatcher->GetErrors(), "korlo-settings: watching\n");
}

TEST_F(SettingsToolServerTest, WatchPrintsLargeChangesAsObjects)
{
    const std::string value(60'000, 'v');  // less than what a pipe holds
    ChildProcess watcher(Command({"--server", _address, "--json", "watch", "Big", "--count", "1"}));
    watcher.AwaitErrors("watching\n");
    ASSERT_EQ(OnServer({"merge"}, "[Big]\nk=\xFF" + value + '\n').status, 0);
    EXPECT_EQ(watcher.Wait(), 0);
    EXPECT_EQ(watcher.GetOutput(),
              "{\"groups\":[\"Big\"],\"settings\":{\"Big\":{\"k\":\"\xEF\xBF\xBD" + value + "\"}}}\n");
}

TEST_F(SettingsToolServerTest, WatchEndsAfterCountChanges)
{
    const auto pWatcher = Watch({"Audio", "--count", "2"});
    ASSERT_EQ(OnServer({"set", "[Audio]volume", "1"}).status, 0);
    pWatcher->AwaitOutput("volume=1\n\n");
    ASSERT_EQ(OnServer({"set", "[Audio]volume", "2"}).status, 0);
    EXPECT_EQ(pWatcher->Wait(), 0);
    EXPECT_THAT(pWatcher->GetOutput(), HasSubstr("volume=2\n\n"));
}

TEST_F(SettingsToolServerTest, WatchersCarryOnAfterTheServerWasKilled)
{
    ASSERT_EQ(OnServer({"set", "[Net/Wifi]channel", "11"}).status, 0);
    const auto pFirst = Watch({"Audio"});
    const auto pSecond = Watch({"Net/*"});
    _server->End(SIGKILL);
    pFirst->AwaitErrors("the settings server is gone");
    pSecond->AwaitErrors("the settings server is gone");
    Start();
    pFirst->AwaitErrors("the settings server is back");
    pSecond->AwaitErrors("the settings server is back");
    ASSERT_TRUE(AwaitSubscribed("Audio\nNet/*\n"));

    ASSERT_EQ(OnServer({"merge"}, "[Audio]\nvolume=7\n[Net/Wifi]\nssid=Desk\n").status, 0);
    pFirst->AwaitOutput("# changed: Audio\n[Audio]\nring=80\nvolume=7\n\n");
    pSecond->AwaitOutput("# changed: Net/Wifi\n[Net/Wifi]\nchannel=11\nssid=Desk\n\n");
    for (const auto* pWatcher : {&pFirst, &pSecond})
    {
        (*pWatcher)->Signal(SIGTERM);
        EXPECT_EQ((*pWatcher)->Wait(), 0);
        EXPECT_EQ((*pWatcher)->GetErrors(), "korlo-settings: watching\n"
                                            "korlo-settings: the settings server is gone; waiting for it to come back\n"
                                            "korlo-settings: the settings server is back\n");
    }
}

TEST_F(SettingsToolServerTest, WatchersPrintWhatChangedWhileTheServerWasAway)
{
    const auto pWatcher = Watch({"*"});
    ChildProcess asJson(Command({"--server", _address, "--json", "watch", "Net/*", "Audio"}));
    asJson.AwaitErrors("watching\n");
    _server->End(SIGKILL);
    Write("defaults.ini", "[Audio]\nring=80\nvolume=40\n[Counter]\nvalue=7\n[Net/Wifi]\nchannel=1\n");
    Start();
    pWatcher->AwaitOutput("\n\n");
    asJson.AwaitOutput("\n");

    ASSERT_EQ(OnServer({"set", "[Audio]volume", "1"}).status, 0);
    pWatcher->AwaitOutput("# changed: Audio\n[Audio]\nring=80\nvolume=1\n\n");
    asJson.AwaitOutput("\"volume\":\"1\"}}}\n");
    EXPECT_EQ(pWatcher->GetOutput(), "# changed: Counter, Net/Guest, Net/Wifi\n"
                                     "[Counter]\nvalue=7\n[Net/Wifi]\nchannel=1\n\n"
                                     "# changed: Audio\n[Audio]\nring=80\nvolume=1\n\n");
    EXPECT_EQ(asJson.GetOutput(),
              "{\"groups\":[\"Net/Guest\",\"Net/Wifi\"],\"settings\":{\"Net/Wifi\":{\"channel\":\"1\"}}}\n"
              "{\"groups\":[\"Audio\"],\"settings\":{\"Audio\":{\"ring\":\"80\",\"volume\":\"1\"}}}\n");
}

TEST_F(SettingsToolServerTest, AWatcherWithoutItsServerEndsOnASignal)
{
    const auto pWatcher = Watch({"Audio"});
    _server->End(SIGKILL);
    pWatcher->AwaitErrors("the settings server is gone");
    pWatcher->Signal(SIGTERM);
    EXPECT_EQ(pWatcher->Wait(), 0);
}

TEST_F(SettingsToolServerTest, AServerThatIsNotThereIsToldOfAtOnce)
{
    _server->End();
    const auto begin = std::chrono::steady_clock::now();
    for (const Arguments& arguments :
         {Arguments{"get", "Audio"}, {"set", "[Audio]volume", "1"}, {"watch", "Audio"}, {"dump"}, {"subscribed"}})
    {
        SCOPED_TRACE(arguments.front());
        ExpectResult(OnServer(arguments), 3, "",
                     AllOf(HasSubstr('\'' + _address + '\''), HasSubstr("Connection refused"),
                           HasSubstr("hint: is korlo-settings-server running there?")));
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(15));
}

TEST_F(SettingsToolServerTest, AChangeThatTheServerRefusesIsNotTakenForDone)
{
    _server->End();
    Start({"--max-message", "1000"});
    ExpectResult(OnServer({"set", "[Audio]volume", std::string(5000, 'x')}), 3, "",
                 AllOf(HasSubstr(_address), HasSubstr("a change may or may not be made")));
    ExpectResult(OnServer({"get", "[Audio]volume"}), 0, "40\n");
}

TEST_F(SettingsToolServerTest, AServerWithClientsEnoughIsToldOfAndLetsAWatcherInWithItsLastPlace)
{
    _server->End();
    Start({"--max-clients", "1"});
    const auto pWatcher = Watch({"Audio"});
    ExpectResult(OnServer({"get", "Audio"}), 3, "", HasSubstr("ended the connection"));
}

TEST_F(SettingsToolServerTest, SomethingElseThatAnswersIsNoServer)
{
    osa::TcpListener listener("127.0.0.1", 0);
    const auto answered = std::async(std::launch::async, [&] {
        const std::unique_ptr<osa::TcpSocket> pSocket = listener.Accept();
        const std::string answer = "HTTP/1.0 400 Bad Request\n\n";
        pSocket->WriteAll(answer.data(), answer.size(), 30'000);
        char request = 0;
        while (pSocket->ReadSome(&request, 1, 30'000).status == osa::TcpSocket::Done)
        {
        }
    });
    ExpectResult(Run({"--server", "127.0.0.1:" + std::to_string(listener.GetPort()), "get", "Audio"}), 3, "",
                 HasSubstr("something else than a settings server"));
}

TEST_F(SettingsToolServerTest, TheOptionWinsOverTheEnvironment)
{
    WriteFile("[Audio]\nvolume=9\n");
    const ChildProcess::Variables variables = {{"KORLO_SETTINGS_LOCALFILE", _path}};
    ExpectResult(Run({"get", "[Audio]volume"}, "", variables), 0, "9\n");
    ExpectResult(Run(ServerCommand({"get", "[Audio]volume"}), "", variables), 0, "40\n");
    ExpectResult(Run(ServerCommand({"set", "[Audio]volume", "8"}), "", variables), 0, "");
    ExpectResult(OnServer({"get", "[Audio]volume"}), 0, "8\n");
    EXPECT_EQ(ReadFile(), "[Audio]\nvolume=9\n");
}

TEST_F(SettingsToolServerTest, AChangeThatTheRulesRefuseIsStatusOneWithItsGroups)
{
    Write("rules.ini", "[Access/tcp]\npeer=tcp\nread=*\nchange=Audio\n");
    ServerProcess server({"--user", PathOf("rules-user.ini"), "--access", PathOf("rules.ini")});
    const std::string address = "127.0.0.1:" + std::to_string(server.GetPort());
    ExpectResult(Run({"--server", address, "set", "[Audio]volume", "1"}), 0, "");
    ExpectResult(Run({"--server", address, "set", "[Network]k", "1"}), 1, "", testing::HasSubstr("'Network'"));
    ExpectResult(Run({"--server", address, "erase", "Network*"}), 1, "", testing::HasSubstr("Network*"));
}

}  // namespace
}  // namespace korlo::settings::cli
