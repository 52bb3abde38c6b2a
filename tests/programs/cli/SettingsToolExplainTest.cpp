// korlo-settings explain and diff, against the real server.

#include <filesystem>
#include <optional>
#include <string>

#include "ControlProtocol.h"
#include "ToolFixture.h"
#include "support/ServerProcess.h"

namespace korlo::settings::cli
{
namespace
{

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

class SettingsToolExplainTest : public ToolTest
{
protected:
    SettingsToolExplainTest()
    {
        std::filesystem::create_directory(PathOf("d"));
        Write("d/10.ini", "[Audio]\nvolume=40\nbass=1\n[Old]\nk=1\n");
        Write("d/20.ini", "[Audio]\nvolume=50\n");
        Write("restricted.ini", "[DeviceSecure]\nserial=1\n");
    }

    void Start()
    {
        _server.emplace(ServerProcess::Arguments{"--defaults", PathOf("d"), "--restricted", PathOf("restricted.ini"),
                                                 "--user", PathOf("user.ini"), "--control", PathOf("control")});
    }

    ToolResult OnServer(Arguments arguments) const
    {
        arguments.insert(arguments.begin(), {"--control", PathOf("control")});
        if (_server)
        {
            arguments.insert(arguments.begin(), {"--server", "127.0.0.1:" + std::to_string(_server->GetPort())});
        }
        return Run(arguments);
    }

    std::optional<ServerProcess> _server;
};

TEST_F(SettingsToolExplainTest, TheValueComesFirstAndThenWhatLost)
{
    Start();
    OnServer({"set", "[Audio]volume", "65"});
    const std::string user = PathOf("user.ini");
    const std::string first = PathOf("d/10.ini");
    const std::string second = PathOf("d/20.ini");
    ExpectResult(OnServer({"explain", "[Audio]volume"}), 0,
                 "[Audio]volume=65\n"
                 "  user     " +
                     user + ":2  65  it counts\n" + "  default  " + second + ":2  50  overridden by " + user + ":2\n" +
                     "  default  " + first + ":2  40  overridden by " + second + ":2\n");
}

TEST_F(SettingsToolExplainTest, JsonHasTheCandidatesInTheOrderOfTheirLoading)
{
    Start();
    const std::string first = PathOf("d/10.ini");
    const std::string second = PathOf("d/20.ini");
    ExpectResult(OnServer({"explain", "[Audio]volume", "--json"}), 0,
                 "{\"candidates\":["
                 "{\"file\":\"" +
                     first + "\",\"layer\":\"default\",\"line\":2,\"value\":\"40\",\"why\":\"overridden by " + second +
                     ":2\"},{\"file\":\"" + second +
                     "\",\"layer\":\"default\",\"line\":2,\"value\":\"50\",\"why\":\"it counts\"}],"
                     "\"file\":\"" +
                     second +
                     "\",\"group\":\"Audio\",\"key\":\"volume\",\"layer\":\"default\",\"line\":2,"
                     "\"value\":\"50\"}\n");
}

TEST_F(SettingsToolExplainTest, AGroupWithBracketsIsNamedByAnOperandOfItsOwn)
{
    const std::string file = Write("d/30.ini", "[\"a]b[c\"]\nk]ey=1\n[x]\n--k=2\n");
    Start();
    ExpectResult(OnServer({"explain", "a]b[c", "k]ey"}), 0,
                 "[\"a]b[c\"]\"k]ey\"=1\n  default  " + file + ":2  1  it counts\n");
    ExpectResult(OnServer({"explain", "Audio", "bass"}), 0,
                 "[Audio]bass=1\n  default  " + PathOf("d/10.ini") + ":3  1  it counts\n");
    ExpectResult(OnServer({"explain", "x", "--", "--k"}), 0, "[x]--k=2\n  default  " + file + ":4  2  it counts\n");
    EXPECT_EQ(OnServer({"explain", "[Audio]bass", "bass"}).status, 1);
    EXPECT_EQ(OnServer({"explain", "a", "b", "c"}).status, 2);
}

TEST_F(SettingsToolExplainTest, AMissingKeyIsStatusOneAndExplained)
{
    Start();
    ExpectResult(OnServer({"explain", "[Audio]treble"}), 1,
                 "[Audio]treble has no value\n  no file and no client gives it one\n");
    ExpectResult(OnServer({"explain", "[Audio]treble", "--json"}), 1,
                 "{\"candidates\":[],\"file\":null,\"group\":\"Audio\",\"key\":\"treble\",\"layer\":null,"
                 "\"line\":null,\"value\":null}\n");
    OnServer({"erase", "Old"});
    const ToolResult erased = OnServer({"explain", "[Old]k"});
    EXPECT_EQ(erased.status, 1);
    EXPECT_THAT(erased.output, AllOf(StartsWith("[Old]k has no value\n  default  "),
                                     HasSubstr(":5  1  erased: the record of erased groups has 1=Old in line 2")));
}

TEST_F(SettingsToolExplainTest, AnUnsavedValueHasNeitherFileNorLine)
{
    Start();
    OnServer({"set", "[New]k", "1", "--no-persist"});
    ExpectResult(OnServer({"explain", "[New]k"}), 0,
                 "[New]k=1\n  unsaved  -  1  it counts, and is gone at the next start: it was changed without "
                 "persisting\n");
    EXPECT_THAT(OnServer({"explain", "[New]k", "--json"}).output,
                HasSubstr("\"file\":null,\"group\":\"New\",\"key\":\"k\",\"layer\":\"unsaved\",\"line\":null,"));
}

TEST_F(SettingsToolExplainTest, ALongValueIsCutForPeopleAndWholeInJson)
{
    Start();
    const std::string value = std::string(39, 'v') + "\xC3\xBC" + std::string(60'000, 'w');
    OnServer({"set", "[A]k", value});
    EXPECT_THAT(OnServer({"explain", "[A]k"}).output,
                StartsWith("[A]k=" + std::string(39, 'v') + "... (60041 bytes)\n  user  "));
    EXPECT_THAT(OnServer({"explain", "[A]k", "--json"}).output, HasSubstr("\"value\":\"" + value + '"'));
}

TEST_F(SettingsToolExplainTest, WhatATerminalWouldObeyIsQuoted)
{
    Start();
    const std::string odd = "\"a\n\x1B[2J\r=";
    OnServer({"set", "[" + std::string("\"g\n") + "]" + odd, odd});
    const ToolResult result = OnServer({"explain", "[" + std::string("\"g\n") + "]" + odd});
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_THAT(result.output, StartsWith("[\"\\\"g\\n\"]\"\\\"a\\n\\x1B[2J\\r=\"=\"\\\"a\\n\\x1B[2J\\r=\"\n"));
}

TEST_F(SettingsToolExplainTest, WhatIsNoSettingIsStatusTwoAndNoDoorIsStatusThree)
{
    ExpectResult(OnServer({"explain", "Audio"}), 2, "", HasSubstr("'Audio' does not name a setting"));
    ExpectResult(OnServer({"explain", "[Audio]volume"}), 3, "", HasSubstr("failed to reach the server's control door"));
    ExpectResult(OnServer({"diff"}), 3, "", HasSubstr("failed to reach the server's control door"));
    EXPECT_EQ(OnServer({"explain"}).status, 2);
}

TEST_F(SettingsToolExplainTest, NothingDiffersBeforeAChange)
{
    Start();
    ExpectResult(OnServer({"diff"}), 0, "");
    ExpectResult(OnServer({"diff", "--json"}), 0, "{}\n");
}

TEST_F(SettingsToolExplainTest, WhatDiffersIsPrintedByGroupsAndKeys)
{
    Start();
    OnServer({"set", "[Audio]volume", "65"});
    OnServer({"set", "[Audio]treble", " 2 "});
    OnServer({"set", "[Zoo]k", "1", "--no-persist"});
    OnServer({"erase", "Old"});
    ExpectResult(OnServer({"diff"}), 1, "[Audio]\n+treble=\" 2 \"\n-volume=50\n+volume=65\n[Old]\n-k=1\n[Zoo]\n+k=1\n");
    ExpectResult(OnServer({"diff", "--json"}), 1,
                 "{\"Audio\":{\"treble\":{\"default\":null,\"now\":\" 2 \"},"
                 "\"volume\":{\"default\":\"50\",\"now\":\"65\"}},"
                 "\"Old\":{\"k\":{\"default\":\"1\",\"now\":null}},"
                 "\"Zoo\":{\"k\":{\"default\":null,\"now\":\"1\"}}}\n");
}

TEST_F(SettingsToolExplainTest, ADiffIsOfTheGroupsThatAreAskedFor)
{
    Start();
    OnServer({"set", "[Audio]volume", "65"});
    OnServer({"erase", "Old"});
    ExpectResult(OnServer({"diff", "Audio"}), 1, "[Audio]\n-volume=50\n+volume=65\n");
    ExpectResult(OnServer({"diff", "O*", "Z*"}), 1, "[Old]\n-k=1\n");
    ExpectResult(OnServer({"diff", "Z*"}), 0, "", "korlo-settings: note: no group matches\n");
}

TEST_F(SettingsToolExplainTest, DefaultsThatCannotBeReadAreStatusThree)
{
    Start();
    std::filesystem::create_symlink(PathOf("nowhere"), PathOf("d/30.ini"));
    ExpectResult(OnServer({"diff"}), 3, "",
                 AllOf(HasSubstr("the server failed to give its defaults: "), HasSubstr("d/30.ini")));
    EXPECT_THAT(OnServer({"explain", "[Audio]bass"}).output,
                AllOf(StartsWith("[Audio]bass=1\n"), HasSubstr("d/30.ini    -  Failed to open")));
}

}  // namespace
}  // namespace korlo::settings::cli
