// What each command of korlo-settings prints, changes and returns.

#include "ToolFixture.h"
#include "support/SettingsServer.h"

namespace korlo::settings::cli
{
namespace
{

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

class SettingsToolTest : public ToolTest
{
protected:
    SettingsToolTest() { WriteFile(Text); }

    const std::string Text = "# Intercom\n"
                             "[Audio]\n"
                             "volume=40\n"
                             "\n"
                             "[Net/Guest]\n"
                             "ssid=Visitors\n"
                             "\n"
                             "[Net/Wifi]\n"
                             "channel=6\n"
                             "\n"
                             "[Net/SecureKey]\n"
                             "key=s3cret\n"
                             "\n"
                             "[KorloSettings/LoadPriority]\n"
                             "Audio=5\n";

    /// The text with one part replaced.
    std::string TextWith(const std::string& old, const std::string& replacement) const
    {
        std::string text = Text;
        return text.replace(text.find(old), old.size(), replacement);
    }
};

TEST_F(SettingsToolTest, GetPrintsGroupsByNameAndPattern)
{
    ExpectResult(OnFile({"get", "Audio"}), 0, "[Audio]\nvolume=40\n");
    ExpectResult(OnFile({"get", "Net/*", "Nowhere"}), 0, "[Net/Guest]\nssid=Visitors\n[Net/Wifi]\nchannel=6\n");
    ExpectResult(OnFile({"get", "[Net/Wifi]channel", "Audio", "[Net/Guest]none"}), 0,
                 "[Audio]\nvolume=40\n[Net/Wifi]\nchannel=6\n");
    EXPECT_EQ(ReadFile(), Text);
}

TEST_F(SettingsToolTest, GetPrintsOneBareValue)
{
    ExpectResult(OnFile({"get", "[Audio]volume"}), 0, "40\n");
}

TEST_F(SettingsToolTest, GetSaysNo)
{
    const auto noGroup = HasSubstr("no group matches 'X', 'Y*'");
    ExpectResult(OnFile({"get", "[Audio]none"}), 1, "", HasSubstr("there is no setting '[Audio]none'"));
    ExpectResult(OnFile({"get", "[*]volume"}), 1, "", HasSubstr("there is no setting"));
    ExpectResult(OnFile({"get", "X", "Y*"}), 1, "", noGroup);
    ExpectResult(OnFile({"get", "Net/SecureKey"}), 1, "", HasSubstr("no group matches"));
    ExpectResult(OnFile({"get", "--", "--json"}), 1, "", HasSubstr("no group matches '--json'"));
}

TEST_F(SettingsToolTest, GetPrintsJson)
{
    ExpectResult(OnFileAsJson({"get", "Net/*"}), 0,
                 "{\"Net/Guest\":{\"ssid\":\"Visitors\"},\"Net/Wifi\":{\"channel\":\"6\"}}\n");
    ExpectResult(OnFileAsJson({"get", "[Audio]volume"}), 0, "\"40\"\n");
}

TEST_F(SettingsToolTest, GetTakesOptionsBeforeAndAfterItsOperands)
{
    for (const Arguments& arguments : {Arguments{"get", "Audio", "--json"}, {"get", "--json", "Audio"}})
    {
        ExpectResult(OnFile(arguments), 0, "{\"Audio\":{\"volume\":\"40\"}}\n");
    }
    ExpectResult(Run({"get", "Audio", "--local", _path}), 0, "[Audio]\nvolume=40\n");
    ExpectResult(OnFile({"get", "--no-such-option", "Audio"}), 2, "",
                 AllOf(HasSubstr("unknown option '--no-such-option'"), HasSubstr("hint: after a first '--'")));
}

TEST_F(SettingsToolTest, ListPrintsNames)
{
    ExpectResult(OnFile({"list"}), 0, "Audio\nNet/Guest\nNet/Wifi\n");
    ExpectResult(OnFile({"list", "Net*"}), 0, "Net/Guest\nNet/Wifi\n");
    ExpectResult(OnFileAsJson({"list"}), 0, "[\"Audio\",\"Net/Guest\",\"Net/Wifi\"]\n");
    ExpectResult(OnFile({"list", "X*"}), 1, "", HasSubstr("no group matches 'X*'"));
}

TEST_F(SettingsToolTest, SetChangesOneValueAndNothingElseInTheFile)
{
    ExpectResult(OnFile({"set", "[Audio]volume", "65"}), 0, "");
    EXPECT_EQ(ReadFile(), TextWith("volume=40", "volume=65"));
}

TEST_F(SettingsToolTest, SetTakesAnyValue)
{
    for (const std::string value :
         {"-5", "--help", "-h", "--", "", " x ", "--no-persist", "{}", "[a,b]", "\xFF\x01\n.\n"})
    {
        SCOPED_TRACE(value);
        ExpectResult(OnFile({"set", "[-G*]-k", value}), 0, "");
        ExpectResult(OnFile({"get", "[-G*]-k"}), 0, value + '\n');
    }
}

TEST_F(SettingsToolTest, JsonReplacesBytesThatAreNotUtf8)
{
    ASSERT_EQ(OnFile({"set", "[\xC3(]k\xFF", "a\xFF\xC3\xA9"}).status, 0);
    ExpectResult(OnFileAsJson({"get", "[\xC3(]k\xFF"}), 0, "\"a\xEF\xBF\xBD\xC3\xA9\"\n");
    ExpectResult(OnFileAsJson({"get", "*("}), 0, "{\"\xEF\xBF\xBD(\":{\"k\xEF\xBF\xBD\":\"a\xEF\xBF\xBD\xC3\xA9\"}}\n");
}

TEST_F(SettingsToolTest, NoPersistDoesNotWriteTheFile)
{
    ExpectResult(OnFile({"set", "[Audio]volume", "65", "--no-persist"}), 0, "");
    ExpectResult(OnFile({"merge", "--no-persist"}, "[Audio]\nvolume=1\n"), 0, "");
    EXPECT_EQ(ReadFile(), Text);
}

TEST_F(SettingsToolTest, SetRefusesRestrictedGroupsAndBadLocators)
{
    ExpectResult(OnFile({"set", "[Net/SecureKey]key", "x"}), 1, "",
                 AllOf(HasSubstr("restricted groups cannot be changed: 'Net/SecureKey'"), Not(HasSubstr("s3cret"))));
    ExpectResult(OnFile({"set", "Audio.volume", "x"}), 2, "", HasSubstr("'Audio.volume' does not name a setting"));
    ExpectResult(OnFile({"get", "[Audio"}), 2, "", HasSubstr("'[Audio' does not name a setting"));
    EXPECT_EQ(ReadFile(), Text);
}

TEST_F(SettingsToolTest, MergeReadsAFileOrStandardInput)
{
    const std::string document = "[Audio]\nring=80\n[Net/Wifi]\nchannel=11\n";
    std::string expected = TextWith("volume=40\n", "volume=40\nring=80\n");
    expected.replace(expected.find("channel=6"), 9, "channel=11");

    ExpectResult(OnFile({"merge", Write("changes.ini", document)}), 0, "");
    EXPECT_EQ(ReadFile(), expected);
    for (const Arguments& arguments : {Arguments{"merge"}, Arguments{"merge", "-"}})
    {
        WriteFile(Text);
        ExpectResult(OnFile(arguments, document), 0, "");
        EXPECT_EQ(ReadFile(), expected);
    }
}

TEST_F(SettingsToolTest, MergeNamesRestrictedGroupsAndMakesTheOtherChanges)
{
    ExpectResult(OnFile({"merge"}, "[Audio]\nvolume=1\n[Trusted]\nk=1\n"), 0, "", HasSubstr("'Trusted'"));
    EXPECT_EQ(ReadFile(), TextWith("volume=40", "volume=1"));
    ExpectResult(OnFile({"merge"}, "[Trusted]\nk=1\n"), 1, "", HasSubstr("'Trusted'"));
}

TEST_F(SettingsToolTest, MergeAddsToTheLoadPrioritiesThatTheFileHolds)
{
    ExpectResult(OnFile({"merge"}, "[KorloSettings/LoadPriority]\nNet/Wifi=7\n"), 0, "");
    EXPECT_EQ(ReadFile(), Text + "Net/Wifi=7\n");
}

TEST_F(SettingsToolTest, BadLinesOfAMergedFileAreNamedAndSkipped)
{
    const std::string path = Write("changes.ini", "[Audio]\nnonsense\nvolume=1\n");
    ExpectResult(OnFile({"merge", path}), 0, "", HasSubstr(path + ":2: the line is skipped"));
    EXPECT_EQ(ReadFile(), TextWith("volume=40", "volume=1"));
}

TEST_F(SettingsToolTest, TestAndMergeMergesOnlyOverExpectedValues)
{
    const std::string expected = Write("expected.ini", "[Audio]\nvolume=40\n");
    const std::string changes = Write("changes.ini", "[Audio]\nvolume=41\n");
    ExpectResult(OnFile({"test-and-merge", expected, changes}), 0, "");
    EXPECT_EQ(ReadFile(), TextWith("volume=40", "volume=41"));
    ExpectResult(OnFile({"test-and-merge", expected, changes}), 1, "", HasSubstr("other values"));
    ExpectResult(OnFile({"test-and-merge", "-", changes}, "[Audio]\nvolume=41\n"), 0, "");
    ExpectResult(OnFile({"test-and-merge", "-", "-"}), 2, "", HasSubstr("standard input"));
}

TEST_F(SettingsToolTest, OverwriteReplacesWholeGroups)
{
    const std::string replacement = Write("new.ini", "[Net/Wifi]\nssid=Desk\n");
    ExpectResult(OnFile({"overwrite", "Net/*", "--with", replacement}), 0, "");
    ExpectResult(OnFile({"get", "Net/*"}), 0, "[Net/Wifi]\nssid=Desk\n");
    EXPECT_THAT(ReadFile(), AllOf(HasSubstr("key=s3cret"), HasSubstr("Audio=5"), HasSubstr("# Intercom")));

    ExpectResult(OnFile({"overwrite", "Audio"}, "[Audio]\nring=1\n"), 0, "");
    ExpectResult(OnFile({"get", "Audio"}), 0, "[Audio]\nring=1\n");
}

TEST_F(SettingsToolTest, EraseRemovesGroupsButNoRestrictedOne)
{
    ExpectResult(OnFile({"erase", "Net/*"}), 0, "");
    EXPECT_EQ(ReadFile(), TextWith("[Net/Guest]\nssid=Visitors\n\n[Net/Wifi]\nchannel=6\n\n", ""));
    ExpectResult(OnFile({"erase", "Net/*"}), 1, "", HasSubstr("no group matches 'Net/*'"));
    ExpectResult(OnFile({"erase", "Net/SecureKey"}), 1, "", HasSubstr("no group matches"));
}

TEST_F(SettingsToolTest, RestoreOnAFileChangesNothing)
{
    ExpectResult(OnFile({"restore", "*"}), 0, "");
    EXPECT_EQ(ReadFile(), Text);
    ExpectResult(OnFile({"restore", "Nowhere"}), 1, "", HasSubstr("no group matches 'Nowhere'"));
}

TEST_F(SettingsToolTest, AFileHasNoUserLayerAndNoSubscribers)
{
    ExpectResult(OnFile({"dump"}), 0, "");
    ExpectResult(OnFile({"dump", "--all"}), 0,
                 "[Audio]\nvolume=40\n[Net/Guest]\nssid=Visitors\n[Net/Wifi]\nchannel=6\n");
    ExpectResult(OnFileAsJson({"dump"}), 0, "{}\n");
    ExpectResult(OnFile({"subscribed"}), 0, "");
    ExpectResult(OnFileAsJson({"subscribed"}), 0, "[]\n");
}

TEST_F(SettingsToolTest, CheckNamesBadLines)
{
    const std::string bad = Write("bad.ini", "[A]\nx=1\nnonsense\n[open\n");
    const std::string lines =
        bad + ":3: it is neither a [group] nor a key=value line\n" + bad + ":4: the group name has no closing ']'\n";
    ExpectResult(Run({"check", _path}), 0, "");
    ExpectResult(Run({"check", _path, bad}), 1, lines);
    ExpectResult(Run({"check", PathOf("none.ini"), bad}), 3, lines, HasSubstr("none.ini': No such file"));
    ExpectResult(Run({"--json", "check", _path}), 0, "[]\n");
    EXPECT_THAT(Run({"--json", "check", bad}).output, StartsWith("[{\"file\":\"" + bad + "\",\"line\":3,\"message\":"));
}

TEST_F(SettingsToolTest, HelpAndVersionGoToStandardOutput)
{
    ExpectResult(Run({"--version"}), 0, "korlo-settings " KORLO_VERSION "\n");
    EXPECT_THAT(Run({"--help"}).output, HasSubstr("Commands:"));
    EXPECT_THAT(Run({"get", "--help"}).output, HasSubstr("Examples:"));
}

TEST_F(SettingsToolTest, AWrongCommandLineIsStatusTwo)
{
    ExpectResult(Run({}), 2, "", StartsWith("korlo-settings: a command is missing\n"));
    ExpectResult(Run({"frobnicate"}), 2, "",
                 AllOf(StartsWith("korlo-settings: unknown command 'frobnicate'\n"), HasSubstr("--help")));
    ExpectResult(Run({"--server", "nonsense", "list"}), 2, "", HasSubstr("HOST:PORT"));
    for (const std::string address : {"nonsense", "[::1]", ":4711", "unix:", "UNIX:/run/socket"})
    {
        ExpectResult(Run({"--server", address, "list"}), 2, "",
                     AllOf(HasSubstr("--server: '" + address + "' is not the address of a settings server"),
                           HasSubstr("unix:PATH"), HasSubstr("hint: for example --server 127.0.0.1:4711")));
    }
    ExpectResult(Run({"bad\x1B[2J"}), 2, "", HasSubstr("'bad\\x1B[2J'"));
}

TEST_F(SettingsToolTest, AServerThatCannotBeReachedIsStatusThree)
{
    // Nobody listens on a port that nobody may use without privileges, and that has no service.
    ExpectResult(
        Run({"--server", "127.0.0.1:1", "list"}), 3, "",
        AllOf(HasSubstr("failed to talk to the settings server at '127.0.0.1:1': "), HasSubstr("--local FILE")));
}

TEST_F(SettingsToolTest, ASocketFileThatIsNotThereIsStatusThreeWithItsPath)
{
    const std::string address = "unix:" + PathOf("socket");
    for (const Arguments& arguments :
         {Arguments{"get", "Audio"}, {"set", "[Audio]volume", "1"}, {"watch", "*"}, {"dump"}})
    {
        SCOPED_TRACE(arguments.front());
        Arguments words = {"--server", address};
        words.insert(words.end(), arguments.begin(), arguments.end());
        ExpectResult(Run(words), 3, "",
                     AllOf(HasSubstr("failed to talk to the settings server at '" + address + "': "),
                           HasSubstr("No such file or directory"),
                           HasSubstr("is korlo-settings-server running there?")));
    }
}

TEST_F(SettingsToolTest, EveryKindOfCommandReachesAServerOnASocketFile)
{
    const std::string address = "unix:" + PathOf("socket");
    core::IniFile defaults;
    defaults.LoadFromString("[Audio]\nvolume=40\n");
    const SettingsServer server(defaults, nullptr, address);
    ExpectResult(Run({"--server", address, "get", "[Audio]volume"}), 0, "40\n");
    ExpectResult(Run({"--server", address, "set", "[Audio]volume", "41"}), 0, "");
    ExpectResult(Run({"--server", address, "get", "Audio"}), 0, "[Audio]\nvolume=41\n");
    ExpectResult(Run({"--server", address, "dump"}), 0, "[Audio]\nvolume=41\n");
    ExpectResult(Run({"--server", address, "subscribed"}), 0, "");
    ChildProcess watcher(Command({"--server", address, "watch", "Audio", "--count", "1"}));
    watcher.AwaitErrors("watching\n");
    ExpectResult(Run({"--server", address, "merge"}, "[Audio]\nvolume=42\n"), 0, "");
    EXPECT_EQ(watcher.Wait(), 0);
    EXPECT_THAT(watcher.GetOutput(), HasSubstr("volume=42\n"));
}

TEST_F(SettingsToolTest, TheVariableHoldsOnlyWithoutOptions)
{
    const ChildProcess::Variables variables = {{"KORLO_SETTINGS_LOCALFILE", Write("other.ini", "[Other]\nk=1\n")}};
    ExpectResult(Run({"list"}, "", variables), 0, "Other\n");
    ExpectResult(Run({"--local", _path, "list"}, "", variables), 0, "Audio\nNet/Guest\nNet/Wifi\n");
    ExpectResult(Run({"set", "[Other]k", "2"}, "", variables), 0, "", HasSubstr("note: "));
    EXPECT_EQ(Read(PathOf("other.ini")), "[Other]\nk=1\n");
    EXPECT_EQ(Run({"--server", "127.0.0.1:1", "list"}, "", variables).status, 3);
}

TEST_F(SettingsToolTest, AReaderWhoGoesAwayIsNoError)
{
    ChildProcess child(Command({"--local", _path, "watch", "*"}));
    child.CloseOutput();
    child.Write("[Audio]\nvolume=1\n.\n");
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_EQ(child.GetErrors(), "");
    EXPECT_EQ(ReadFile(), TextWith("volume=40", "volume=1"));
}

}  // namespace
}  // namespace korlo::settings::cli
