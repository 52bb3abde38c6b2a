// What the real server lets clients do, and its control door.

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <list>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "client/KorloSettingsTcpConnection.h"
#include "control/ControlDoor.h"
#include "korlo/osa/Exception.h"
#include "korlo/osa/ServiceDirectory.h"
#include "settings/KorloSettingsClient.h"
#include "support/Callbacks.h"
#include "support/Documents.h"
#include "support/Files.h"
#include "support/ServerProcess.h"
#include "support/TemporaryFolder.h"

namespace korlo
{
namespace
{

using testing::HasSubstr;
using testing::StartsWith;

/// A server with rules about clients over TCP, who have no user. (The tests may run as a user who may do everything.)
class ServerAccessTest : public testing::Test
{
protected:
    ServerAccessTest() { WriteFile(_rules, Rules); }

    ServerProcess::Arguments Options() const
    {
        return {"--defaults", Write("defaults.ini", "[Audio]\nk=1\n[Network/Eth]\nip=1\n[Private]\nk=1\n"),
                "--user",     _folder.PathOf("user.ini"),
                "--access",   _rules,
                "--control",  _folder.PathOf("control")};
    }

    std::string Write(const std::string& name, const std::string& text) const
    {
        WriteFile(_folder.PathOf(name), text);
        return _folder.PathOf(name);
    }

    std::string ControlAddress() const { return "unix:" + _folder.PathOf("control"); }

    /// The answer of the control door.
    std::string Ask(const std::string& request) const
    {
        RawClient client(ControlAddress());
        client.Send(request + '\n');
        const std::string first = client.ReadLine();
        return first == "ok" ? client.ReadBlock() : first;
    }

    static constexpr const char* Rules = "[Access/tcp]\npeer=tcp\nread=Network/*\nchange=Audio\n";

    const TemporaryFolder _folder;
    const std::string _rules = _folder.PathOf("rules.ini");
};

TEST_F(ServerAccessTest, AClientSeesAndChangesWhatItsRulesAllow)
{
    ServerProcess server(Options());
    RawClient client(server.GetPort());
    EXPECT_EQ(client.Get("*"), "[Audio]\nk=1\n[Network/Eth]\nip=1\n");
    client.Send("merge\n[Audio]\nk=2\n.\nmerge\n[Private]\nk=2\n.\noverwrite\nNetwork/*\n.\n.\nrestore\n*\n.\n");
    EXPECT_EQ(client.Get("*"), "[Audio]\nk=2\n[Network/Eth]\nip=1\n");
    EXPECT_FALSE(client.TestAndMerge("[Private]\nk=1\n", "[Audio]\nk=3\n"));
    EXPECT_TRUE(client.TestAndMerge("[Audio]\nk=2\n", "[Audio]\nk=3\n"));
}

TEST_F(ServerAccessTest, ARefusalIsToldToWhoAsksAndWarnedOf)
{
    ServerProcess server(Options());
    RawClient client(server.GetPort());
    client.Send("merge\n[Audio]\nk=2\n[Private]\nk=2\n.\n");
    EXPECT_EQ(client.Get("KorloSettings/Trusted/Refused"),
              "[KorloSettings/Trusted/Refused]\ngroup.1=Private\noperation=merge\n");
    EXPECT_EQ(client.Get("KorloSettings/Trusted/Refused"), "") << "it is told once";
    EXPECT_EQ(client.Get("Audio"), "[Audio]\nk=1\n") << "a change is refused as a whole";
    EXPECT_EQ(RawClient(server.GetPort()).Get("KorloSettings/Trusted/Refused"), "");
    server.GetChild().AwaitErrors("merge of 'Private' is refused");
}

TEST_F(ServerAccessTest, ReloadedRulesHoldForStandingConnectionsAndSubscriptions)
{
    ServerProcess server(Options());
    RawClient client(server.GetPort());
    client.Send("subscribe\n*\n.\n");
    EXPECT_EQ(client.Get("Private"), "");
    WriteFile(_rules, "[Access/tcp]\npeer=tcp\nchange=Private\n");
    EXPECT_EQ(Ask("access-reload"), "[Access]\nrules=1\n");
    EXPECT_EQ(client.Get("*"), "[Private]\nk=1\n");
    client.Send("merge\n[Audio]\nk=9\n.\nmerge\n[Private]\nk=9\n.\n");
    EXPECT_EQ(client.ReadLine(), "async change");
    EXPECT_EQ(client.ReadBlock(), "Private\n");
    EXPECT_EQ(client.ReadBlock(), "[Private]\nk=9\n");
}

TEST_F(ServerAccessTest, RulesThatMakeNoSenseLeaveThoseBeforeInForce)
{
    ServerProcess server(Options());
    WriteFile(_rules, "[Access/tcp]\npeer=tcp\nreed=*\n");
    EXPECT_THAT(Ask("access-reload"),
                testing::AllOf(StartsWith("error the rules before stay in force: " + _rules + ":"), HasSubstr("reed")));
    EXPECT_EQ(RawClient(server.GetPort()).Get("Private"), "");
    EXPECT_EQ(RawClient(server.GetPort()).Get("Audio"), "[Audio]\nk=1\n");
}

TEST_F(ServerAccessTest, TheOrderOfFilesRulesAndLinesHasNoEffect)
{
    // Rules that overlap, allow what others deny, and deny what others allow.
    const std::vector<std::vector<std::string>> rules = {
        {"[Access/some]", "peer=tcp", "read=Network/*", "change=Audio"},
        {"[Access/all]", "peer=tcp,unix", "read=*", "deny=Private"},
        {"[Access/none]", "user=65530", "change=Private,Network/Eth", "deny=Aud*"},
        {"[Access/tcp]", "peer=tcp", "deny=Network/Secret", "change=Network/*"},
    };
    const std::string folder = _folder.PathOf("access.d");
    std::filesystem::create_directory(folder);
    const auto write = [&folder](const std::vector<std::string>& texts, std::size_t files) {
        for (std::size_t file = 0; file < texts.size(); ++file)
        {
            std::string content;
            for (std::size_t rule = 0; rule < texts.size(); ++rule)
            {
                content += rule % files == file ? texts[rule] : "";
            }
            WriteFile(folder + '/' + std::to_string(file) + ".ini", content);
        }
    };
    std::vector<std::size_t> order{0, 1, 2, 3};
    std::vector<std::size_t> lines{1, 2, 3};
    const auto writeInOrder = [&] {
        std::vector<std::string> texts;
        for (const std::size_t rule : order)
        {
            std::string text = rules[rule][0] + '\n';
            for (const std::size_t line : lines)
            {
                text += rules[rule][line] + '\n';
            }
            texts.push_back(text);
        }
        write(texts, 1 + order[0]);  // in one file, two, three or four
    };
    writeInOrder();
    ServerProcess::Arguments options = Options();
    options[5] = folder;
    ServerProcess server(options);
    RawClient client(server.GetPort());
    RawClient control(ControlAddress());
    const auto check = [&control](const std::string& request) {
        control.Send("access-check 65530 " + request + '\n');
        control.ReadLine();
        const std::string answer = control.ReadBlock();
        return answer.substr(0, answer.find("\nfile"));  // which rule is named where several would do is not told
    };
    const auto answers = [&] {
        std::string text = client.Get("*");
        for (const char* group : {"Audio", "Network/Eth", "Network/Secret", "Private", "Network/*", "*"})
        {
            client.Send("overwrite\n" + std::string(group) + "\n.\n.\n");
            text += client.Get("KorloSettings/Trusted/Refused") + check("read " + std::string(group)) +
                    check("change " + std::string(group));
        }
        return text;
    };
    client.Send("overwrite\n*\n.\n.\n");
    client.Send("overwrite\nAudio\nNetwork/Eth\n.\n.\n");
    client.Get("KorloSettings/Trusted/Refused");
    const std::string expected = answers();
    EXPECT_THAT(expected, testing::AllOf(HasSubstr("allowed=1"), HasSubstr("allowed=0"), HasSubstr("group.1=*")));
    do
    {
        std::next_permutation(lines.begin(), lines.end());
        writeInOrder();
        control.Send("access-reload\n");
        ASSERT_EQ(control.ReadLine(), "ok");
        ASSERT_EQ(control.ReadBlock(), "[Access]\nrules=4\n");
        ASSERT_EQ(answers(), expected);
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(ServerAccessTest, AClientThatConnectsAnewIsWarnedOfOnceAMinute)
{
    ServerProcess server(Options());
    for (int round = 0; round < 5; ++round)
    {
        RawClient client(server.GetPort());
        client.Send("merge\n[Private]\nk=2\n.\n");
        EXPECT_EQ(client.Get("Private"), "");
    }
    RawClient client(server.GetPort());
    client.Send("merge\n[Private2]\nk=2\n.\n");
    server.GetChild().AwaitErrors("merge of 'Private2' is refused");
    const std::string log = server.GetChild().GetErrors();
    const std::string warning = "merge of 'Private' is refused";
    ASSERT_THAT(log, HasSubstr(warning));
    EXPECT_EQ(log.find(warning), log.rfind(warning));
}

TEST_F(ServerAccessTest, AClientThatLostARightWhileItWasAwayHearsThatTheGroupIsGone)
{
    const auto registered = [](const ServerProcess& server) {
        osa::ServiceDirectory::Register(settings::client::KorloSettingsTcpConnection::ServerHost, "127.0.0.1",
                                        server.GetPort());
    };
    WriteFile(_rules, "[Access/tcp]\npeer=tcp\nread=Audio,Private\n");
    // The server's own user may do everything, but only over a Unix-domain socket is there a user.
    const std::string door = "unix:" + _folder.PathOf("socket");
    ServerProcess::Arguments options = Options();
    options.insert(options.end(), {"--listen", door});
    std::optional<ServerProcess> server(std::in_place, options);
    registered(*server);
    settings::RecordingCallback callback;
    settings::KorloSettingsClient client(settings::KorloSettingsClient::MultiThreaded);
    client.ReportMissedChanges(true);
    core::IniFile before;
    client.GetSettings("*", before);
    EXPECT_EQ(before, Ini("[Audio]\nk=1\n[Private]\nk=1\n"));
    client.Subscribe(&callback, settings::GroupNameCollection{"*"});
    before.Clear();
    client.GetSettings("*", before);  // the server has the subscription

    // Both groups are different when it comes back, and one of them is none of its business any more.
    server->End(SIGKILL);
    Write("defaults.ini", "[Audio]\nk=2\n[Private]\nk=hunter2\n");
    WriteFile(_rules, "[Access/tcp]\npeer=tcp\nread=Audio\n");
    server.emplace(options);
    registered(*server);
    ASSERT_TRUE(Eventually([&] { return !callback.GetChanges().empty(); }));
    const settings::Change missed = callback.GetChanges().front();
    EXPECT_EQ(missed.groups, (settings::GroupNameCollection{"Audio", "Private"}));
    EXPECT_EQ(missed.settings, Ini("[Audio]\nk=2\n"));

    // Nor does it hear of it from then on: what it is told next is a later change of the other.
    RawClient own(door);
    own.Send("merge\n[Private]\nk=3\n.\nmerge\n[Audio]\nk=3\n.\n");
    EXPECT_EQ(own.Get("Private"), "[Private]\nk=3\n");
    ASSERT_TRUE(Eventually([&] { return callback.GetChanges().size() > 1; }));
    EXPECT_EQ(callback.GetChanges()[1], (settings::Change{{"Audio"}, Ini("[Audio]\nk=3\n")}));
    core::IniFile after;
    ASSERT_TRUE(Eventually([&] {
        try
        {
            client.GetSettings("*", after);
            return true;
        }
        catch (const osa::Exception&)
        {
            return false;  // the lost connection may make one call fail
        }
    }));
    EXPECT_EQ(after, Ini("[Audio]\nk=3\n"));
    osa::ServiceDirectory::Unregister(settings::client::KorloSettingsTcpConnection::ServerHost);
}

TEST_F(ServerAccessTest, NoPatternShowsARestrictedGroupInThePlaceOfARefusal)
{
    const std::string group = "[KorloSettings/Trusted/Refused]\noperation=none\n";
    ServerProcess::Arguments options = Options();
    options.insert(options.end(), {"--restricted", Write("restricted.ini", group + "[OtherTrusted]\nk=1\n")});
    WriteFile(_rules, "[Access/tcp]\npeer=tcp\nread=*\n");
    {
        ServerProcess server(options);
        RawClient client(server.GetPort());
        EXPECT_EQ(client.Get("Kor*"), "");
        EXPECT_EQ(client.Get("KorloSettings/Trusted/Refused"), "");
        EXPECT_EQ(client.Get("Other*"), "[OtherTrusted]\nk=1\n");
        client.Send("dump all\n");
        EXPECT_THAT(client.ReadBlock(), testing::Not(HasSubstr("Refused")));
        client.Send("restore\nNetwork/Eth\n.\n");
        EXPECT_EQ(client.Get("KorloSettings/Trusted/Refused"),
                  "[KorloSettings/Trusted/Refused]\ngroup.1=Network/Eth\noperation=restore\n");
        server.GetChild().AwaitErrors("Group 'KorloSettings/Trusted/Refused' of '" + _folder.PathOf("restricted.ini") +
                                      "' is left out");
    }
    options.erase(options.begin() + 4, options.begin() + 6);  // without rules it is a group like any other
    ServerProcess server(options);
    EXPECT_EQ(RawClient(server.GetPort()).Get("Kor*"), group);
    EXPECT_EQ(RawClient(server.GetPort()).Get("KorloSettings/Trusted/Refused"), group);
}

TEST_F(ServerAccessTest, ACheckNamesTheRuleThatDecides)
{
    WriteFile(_rules, "[Access/nobody]\nuser=65530\nread=Audio\ndeny=Secret*\n");
    ServerProcess server(Options());
    EXPECT_EQ(Ask("access-check 65530 read Audio"),
              "[Access]\nallowed=1\nfile=" + _rules + "\nline=3\nreason=the rule allows it\nrule=nobody\n");
    EXPECT_THAT(Ask("access-check 65530 read SecretX"), testing::AllOf(HasSubstr("allowed=0"), HasSubstr("line=4")));
    EXPECT_THAT(Ask("access-check 65530 change Audio"), HasSubstr("allowed=0"));
    EXPECT_THAT(Ask("access-check 0 change \"any\\nbytes\""), HasSubstr("allowed=1"));
    EXPECT_EQ(Ask("access-check no-such-user-here read Audio"), "error unknown user 'no-such-user-here'");
    EXPECT_THAT(Ask("access-check 0 watch Audio"), StartsWith("error usage: access-check"));
    EXPECT_EQ(Ask("nonsense"), "error unknown word 'nonsense'");
}

TEST_F(ServerAccessTest, ServerWithMistakesInItsRulesDoesNotStart)
{
    WriteFile(_rules, "[Access/a]\nreed=*\n[Other]\nk=1\n");
    ChildProcess server(ServerProcess::Command(Options()));
    EXPECT_EQ(server.Wait(), 1);
    EXPECT_EQ(server.GetOutput(), "");
    EXPECT_THAT(server.GetErrors(), testing::AllOf(HasSubstr(_rules + ":2: "), HasSubstr(_rules + ":3: ")));
}

TEST_F(ServerAccessTest, TheControlDoorIsItsOwnersAlone)
{
    ServerProcess server(Options());
    struct stat status = {};
    ASSERT_EQ(::stat(_folder.PathOf("control").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777u, 0600u);
    EXPECT_EQ(server.End(), 0);
    EXPECT_NE(::stat(_folder.PathOf("control").c_str(), &status), 0);
}

TEST_F(ServerAccessTest, TheControlDoorServesEightAtOnceAndTellsTheNinth)
{
    ServerProcess server(Options());
    std::list<RawClient> clients;
    for (std::size_t index = 0; index < daemon::ControlDoor::MostClients; ++index)
    {
        clients.emplace_back(ControlAddress()).Send("access-check 0 read A\n");
        EXPECT_EQ(clients.back().ReadLine(), "ok");
        clients.back().ReadBlock();
    }
    EXPECT_THAT(RawClient(ControlAddress()).ReadLine(), StartsWith("error eight clients are connected already"));
    clients.pop_front();
    EXPECT_TRUE(Eventually([this] { return Ask("access-check 0 read A").starts_with("[Access]"); }));
}

TEST_F(ServerAccessTest, AControlClientThatFloodsOrStallsCostsItsOwnConnection)
{
    ServerProcess server(Options());
    RawClient flooding(ControlAddress());
    flooding.Send(std::string(daemon::ControlDoor::MostLineBytes + 1, 'x'));
    EXPECT_THAT(flooding.ReadLine(), StartsWith("error a request may have"));
    RawClient stalling(ControlAddress());
    stalling.Send("access-");
    EXPECT_EQ(RawClient(server.GetPort()).Get("Audio"), "[Audio]\nk=1\n");
    EXPECT_THAT(Ask("access-check 0 read A"), StartsWith("[Access]"));
    EXPECT_EQ(server.End(), 0);
}

TEST_F(ServerAccessTest, ACheckOfTheFilesOpensNothingAndFindsEveryMistake)
{
    ServerProcess::Arguments good = Options();
    good.emplace_back("--check");
    ChildProcess well(ServerProcess::Command(good));
    EXPECT_EQ(well.Wait(), 0);
    EXPECT_EQ(well.GetOutput() + well.GetErrors(), "");

    WriteFile(_rules, "[Access/a]\nreed=*\n");
    ServerProcess::Arguments bad = Options();
    Write("defaults.ini", "[A]\nno sense\n");
    bad[1] = _folder.PathOf("defaults.ini");
    bad.insert(bad.end(), {"--check", "--restricted", _folder.PathOf("missing.ini")});
    Write("defaults.ini", "[A]\nno sense\n");
    ChildProcess wrong(ServerProcess::Command(bad));
    EXPECT_EQ(wrong.Wait(), 1);
    EXPECT_THAT(wrong.GetErrors(),
                testing::AllOf(HasSubstr("defaults.ini:2: "), HasSubstr("missing.ini"), HasSubstr(_rules + ":2: ")));
}

}  // namespace
}  // namespace korlo
