// korlo-settings at the control door of a server that the test plays.

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ControlProtocol.h"
#include "FakeDoor.h"
#include "ToolFixture.h"
#include "cli/ControlConnection.h"
#include "korlo/osa/TcpListener.h"
#include "korlo/osa/TcpSocketStream.h"

namespace korlo::settings::cli
{
namespace
{

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;

class SettingsToolAccessTest : public ToolTest
{
protected:
    static constexpr const char* Allowed = "ok\n[Access]\nallowed=1\nfile=/etc/a.ini\nline=3\n"
                                           "reason=the rule allows it\nrule=web\n.\n";
    static constexpr const char* Denied = "ok\n[Access]\nallowed=0\nfile=/etc/korlo-settings/access.d/web.ini\nline=4\n"
                                          "reason=the rule denies it, whatever others allow\nrule=web\n.\n";
    static constexpr const char* NotAllowed = "ok\n[Access]\nallowed=0\nreason=no rule allows it\n.\n";

    ToolResult AtDoor(Arguments arguments) const
    {
        arguments.insert(arguments.begin(), {"--control", _door});
        return Run(arguments);
    }

    /// The question, put to a door that gives this answer.
    ToolResult Check(const std::string& answer, const Arguments& options = {}) const
    {
        const FakeDoor door(_door, answer);
        Arguments arguments = {"access", "check", "www-data", "read", "Audio"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return AtDoor(arguments);
    }

    ToolResult Reload(const std::string& answer, const Arguments& options = {}) const
    {
        const FakeDoor door(_door, answer);
        Arguments arguments = {"access", "reload"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return AtDoor(arguments);
    }

    const std::string _door = _folder.PathOf("control");
};

TEST_F(SettingsToolAccessTest, WhatIsAllowedIsStatusZeroWithItsRule)
{
    ExpectResult(Check(Allowed), 0, "allowed: rule 'web' in /etc/a.ini line 3 allows it\n");
}

TEST_F(SettingsToolAccessTest, WhatIsRefusedIsStatusOneWithItsRule)
{
    ExpectResult(Check(Denied), 1, "refused: rule 'web' in /etc/korlo-settings/access.d/web.ini line 4 denies it\n");
}

TEST_F(SettingsToolAccessTest, WhereNoRuleDecidesTheReasonIsSaid)
{
    ExpectResult(Check(NotAllowed), 1, "refused: no rule allows it\n");
    ExpectResult(Check("ok\n[Access]\nallowed=1\nreason=the server was given no rules: everything is allowed\n.\n"), 0,
                 "allowed: the server was given no rules: everything is allowed\n");
}

TEST_F(SettingsToolAccessTest, AVerdictIsOneLineWhateverTheRuleIsCalled)
{
    ExpectResult(Check("ok\n[Access]\nallowed=0\nfile=\"/a\\nb\"\nline=1\nreason=x\nrule=\"a\\x1Bb\\nc\"\n.\n"), 1,
                 "refused: rule '\"a\\x1Bb\\nc\"' in \"/a\\nb\" line 1 denies it\n");
}

TEST_F(SettingsToolAccessTest, AsJsonAVerdictHasTheNamesOfTheAnswer)
{
    ExpectResult(Check(Denied, {"--json"}), 1,
                 R"({"allowed":0,"file":"/etc/korlo-settings/access.d/web.ini","line":4,)"
                 R"("reason":"the rule denies it, whatever others allow","rule":"web"})"
                 "\n");
    ExpectResult(Check(NotAllowed, {"--json"}), 1,
                 R"({"allowed":0,"file":null,"line":null,"reason":"no rule allows it","rule":null})"
                 "\n");
}

TEST_F(SettingsToolAccessTest, AnUnknownUserIsStatusTwo)
{
    ExpectResult(Check("error unknown user 'www-data'\n"), 2, "",
                 AllOf(HasSubstr("korlo-settings: unknown user 'www-data'\n"), HasSubstr("hint: a user is")));
}

TEST_F(SettingsToolAccessTest, AUserThatNoLineCarriesIsUnknownWithoutAsking)
{
    const FakeDoor door(_door, Allowed);
    for (const std::string user : {"", " ", "a b", "a\tb", "root\naccess-reload"})
    {
        SCOPED_TRACE(user);
        ExpectResult(AtDoor({"access", "check", user, "read", "Audio"}), 2, "", HasSubstr("unknown user '"));
    }
    EXPECT_THAT(door.GetRequests(), ElementsAre());
}

TEST_F(SettingsToolAccessTest, OnlyReadAndChangeCanBeAskedFor)
{
    const FakeDoor door(_door, Allowed);
    for (const std::string kind : {"", "write", "READ", "read change", "read\n"})
    {
        SCOPED_TRACE(kind);
        ExpectResult(AtDoor({"access", "check", "root", kind, "Audio"}), 2, "",
                     HasSubstr("access check takes read or change, not '"));
    }
    EXPECT_THAT(door.GetRequests(), ElementsAre());
}

TEST_F(SettingsToolAccessTest, TheQuestionIsOneLineThatTheServerReadsAsItWasTyped)
{
    const FakeDoor door(_door, Allowed);
    for (const std::string group :
         {"Audio", "Network/*", "*", "a b", " a ", "a\nb", "a\r", "\t",   "a]b",          "\"a\"",
          "\"",    "",          ".", "[a]", "#a",  ";a",   "a=b", "a\\b", "\xC3\xBC\xFF", "-x"})
    {
        SCOPED_TRACE(group);
        EXPECT_EQ(AtDoor({"access", "check", "www-data", "change", group}).status, 0);
        const std::string request = door.GetRequests().back();
        const std::string beginning = "access-check www-data change ";
        ASSERT_TRUE(request.starts_with(beginning)) << request;
        const std::string operand = request.substr(beginning.size());
        EXPECT_EQ(control::UnquotedName(operand), group) << operand;
        EXPECT_TRUE(operand.empty() || (operand.front() > ' ' && operand.back() > ' ') || operand.back() < 0)
            << operand;
    }
}

TEST_F(SettingsToolAccessTest, AReloadIsStatusZeroAndTellsOfWarnings)
{
    const std::string answer = "ok\n[Access]\nrules=3\nwarning.1=a.ini:2: unknown user 'bob'\nwarning.2=more\n.\n";
    ExpectResult(Reload(answer), 0, "access rules in force: 3\n",
                 "korlo-settings: a.ini:2: unknown user 'bob'\nkorlo-settings: more\n");
    ExpectResult(Reload(answer, {"--json"}), 0,
                 "{\"rules\":3,\"warnings\":[\"a.ini:2: unknown user 'bob'\",\"more\"]}\n");
    ExpectResult(Reload("ok\n[Access]\nrules=0\n.\n", {"--json"}), 0, "{\"rules\":0,\"warnings\":[]}\n");
}

TEST_F(SettingsToolAccessTest, AReloadAsksInOneWord)
{
    const FakeDoor door(_door, "ok\n[Access]\nrules=1\n.\n", FakeDoor::Close);
    ExpectResult(AtDoor({"access", "reload"}), 0, "access rules in force: 1\n");
    EXPECT_THAT(door.GetRequests(), ElementsAre("access-reload"));
}

TEST_F(SettingsToolAccessTest, RulesThatMakeNoSenseAreStatusOneWithTheMistake)
{
    const std::string message = "the rules before stay in force: /etc/a.ini:4: unknown key 'raed'";
    for (const Arguments& options : {Arguments{}, {"--json"}})
    {
        ExpectResult(Reload("error " + message + '\n', options), 1, "", "korlo-settings: " + message + '\n');
    }
    ExpectResult(Reload("error the server was started without --access: there are no rules to read\n"), 1, "",
                 HasSubstr("without --access"));
}

TEST_F(SettingsToolAccessTest, ADoorThatIsNotThereIsStatusThree)
{
    const auto says = [this](const std::string& reason) {
        return AllOf(HasSubstr("failed to reach the server's control door: "), HasSubstr("'unix:" + _door + '\''),
                     HasSubstr(reason), HasSubstr("hint: --control PATH"));
    };
    for (const Arguments& arguments : {Arguments{"access", "reload"}, {"access", "check", "root", "read", "A"}})
    {
        SCOPED_TRACE(arguments.back());
        ExpectResult(AtDoor(arguments), 3, "", says("No such file or directory"));
        const std::string file = Write("control", "");
        ExpectResult(AtDoor(arguments), 3, "", says("no socket"));
        std::filesystem::remove(file);
    }
}

TEST_F(SettingsToolAccessTest, ADoorWithClientsEnoughIsStatusThree)
{
    // Such a door writes before it reads.
    osa::TcpListener listener("unix:" + _door, 0);
    std::thread door([&listener] {
        const std::string answer = std::string(control::ErrorPrefix) + std::string(control::TooManyClients) + '\n';
        while (const std::unique_ptr<osa::TcpSocket> pSocket = listener.Accept())
        {
            pSocket->WriteAll(answer.data(), answer.size(), 0);
        }
    });
    const ToolResult check = AtDoor({"access", "check", "root", "read", "A"});
    const ToolResult reload = AtDoor({"access", "reload"});
    listener.Close();
    door.join();
    for (const ToolResult& result : {check, reload})
    {
        ExpectResult(result, 3, "", AllOf(HasSubstr('\'' + _door + '\''), HasSubstr("eight clients are connected")));
    }
}

TEST_F(SettingsToolAccessTest, ADoorThatDoesNotKnowTheWordIsStatusThree)
{
    ExpectResult(Check("error unknown word 'access-check'\n"), 3, "",
                 AllOf(HasSubstr("unknown word 'access-check'"), HasSubstr("older")));
    ExpectResult(Reload("error unknown word 'access-reload'\n"), 3, "", HasSubstr("older"));
}

TEST_F(SettingsToolAccessTest, AnotherErrorOfTheServerIsStatusThree)
{
    ExpectResult(Check("error usage: access-check USER read|change GROUP\n"), 3, "",
                 HasSubstr("the server failed to answer: usage: access-check"));
}

TEST_F(SettingsToolAccessTest, AnAnswerThatIsCutIsStatusThree)
{
    const std::string answer = Denied;
    for (std::size_t length = 0; length < answer.size(); length += 7)
    {
        SCOPED_TRACE(length);
        const FakeDoor door(_door, answer.substr(0, length), FakeDoor::Close);
        ExpectResult(AtDoor({"access", "check", "www-data", "read", "Audio"}), 3, "",
                     HasSubstr("ended the connection"));
    }
}

TEST_F(SettingsToolAccessTest, AnAnswerThatMakesNoSenseIsStatusThree)
{
    ExpectResult(Check("HTTP/1.0 400 Bad Request\n"), 3, "", HasSubstr("something else than a control door"));
    ExpectResult(Check("ok\n.\n"), 3, "", HasSubstr("'allowed' is no number, but ''"));
    ExpectResult(Check("ok\n[Access]\nallowed=yes\n.\n"), 3, "", HasSubstr("'allowed' is no number, but 'yes'"));
    ExpectResult(Reload("ok\n[Access]\n.\n"), 3, "", HasSubstr("'rules' is no number"));
}

TEST_F(SettingsToolAccessTest, TheServerAndTheFileOfOtherCommandsDoNotMatter)
{
    const FakeDoor door(_door, Allowed);
    for (const Arguments& target : {Arguments{"--server", "127.0.0.1:1"}, {"--local", PathOf("none.ini")}})
    {
        Arguments arguments = target;
        arguments.insert(arguments.end(), {"access", "check", "root", "read", "A"});
        EXPECT_EQ(AtDoor(arguments).status, 0);
    }
    EXPECT_FALSE(std::filesystem::exists(PathOf("none.ini")));
}

std::string ReasonOf(const std::function<void()>& call)
{
    try
    {
        call();
    }
    catch (const Failure& failure)
    {
        EXPECT_EQ(failure.GetStatus(), StatusUnusable);
        return failure.what();
    }
    return "no failure";
}

TEST_F(SettingsToolAccessTest, ADoorThatGivesNoAnswerIsWaitedForNoLongerThanTheLimit)
{
    const FakeDoor door(_door, "ok\n[Access]\n");
    ControlConnection connection(_door, {.waitMs = 50});
    EXPECT_THAT(ReasonOf([&] { connection.Ask("access-reload"); }),
                AllOf(HasSubstr('\'' + _door + '\''), HasSubstr("gave no answer")));
}

TEST_F(SettingsToolAccessTest, AnAnswerWithoutEndIsCutOff)
{
    const FakeDoor lines(_door, "ok\n" + std::string(100, '\n'));
    const FakeDoor line(PathOf("line"), std::string(100, 'x'));
    for (const std::string& path : {_door, PathOf("line")})
    {
        ControlConnection connection(path, {.mostBytes = 90});
        EXPECT_THAT(ReasonOf([&] { connection.Ask("access-reload"); }), HasSubstr("more than 90 bytes"));
    }
}

TEST_F(SettingsToolAccessTest, AConnectionTakesOneRequestAfterTheOther)
{
    osa::TcpListener listener("unix:" + _door, 0);
    std::thread door([&listener] {
        const std::unique_ptr<osa::TcpSocket> pSocket = listener.Accept();
        osa::TcpSocketStream stream(pSocket.get(), 30'000);
        for (std::string word; std::getline(stream, word);)
        {
            stream.GetOstream() << (word == "bad" ? "error no\n" : "ok\n[" + word + "]\nk=v\n.\n") << std::flush;
        }
    });
    {
        ControlConnection connection(_door);
        EXPECT_TRUE(connection.Ask("one").HasValue("one", "k"));
        EXPECT_THROW(connection.Ask("bad"), ControlError);
        EXPECT_TRUE(connection.Ask("two").HasValue("two", "k"));
    }
    door.join();
}

}  // namespace
}  // namespace korlo::settings::cli
