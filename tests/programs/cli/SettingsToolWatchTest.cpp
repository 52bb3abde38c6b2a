// korlo-settings watch, on a file.

#include "ToolFixture.h"

namespace korlo::settings::cli
{
namespace
{

using testing::HasSubstr;

class SettingsToolWatchTest : public ToolTest
{
protected:
    SettingsToolWatchTest() { WriteFile("[Audio]\nring=80\nvolume=40\n[Net]\nip=1\n"); }

    const std::string Changes = "[Audio]\nvolume=1\n"
                                ".\n"
                                "[Net]\nip=2\n"
                                ".\n"
                                "[Audio]\nvolume=2\n[Net]\nip=3\n[New\\\\]\n";
};

TEST_F(SettingsToolWatchTest, PrintsWholeGroupsOfEachChange)
{
    ExpectResult(OnFile({"watch", "A*"}, Changes), 0,
                 "# changed: Audio\n[Audio]\nring=80\nvolume=1\n\n"
                 "# changed: Audio\n[Audio]\nring=80\nvolume=2\n\n");
    EXPECT_EQ(ReadFile(), "[Audio]\nring=80\nvolume=2\n[Net]\nip=3\n\n[New\\\\]\n");
}

TEST_F(SettingsToolWatchTest, PrintsOnlyWhatWasAskedForOfAChange)
{
    ExpectResult(OnFile({"watch", "Net"}, Changes), 0,
                 "# changed: Net\n[Net]\nip=2\n\n"
                 "# changed: Net\n[Net]\nip=3\n\n");
}

TEST_F(SettingsToolWatchTest, PrintsAnObjectALine)
{
    Arguments arguments = {"--local", _path, "--json", "watch", "Audio", "Net"};
    ExpectResult(Run(arguments, Changes), 0,
                 "{\"groups\":[\"Audio\"],\"settings\":{\"Audio\":{\"ring\":\"80\",\"volume\":\"1\"}}}\n"
                 "{\"groups\":[\"Net\"],\"settings\":{\"Net\":{\"ip\":\"2\"}}}\n"
                 "{\"groups\":[\"Audio\",\"Net\"],\"settings\":{\"Audio\":{\"ring\":\"80\",\"volume\":\"2\"},"
                 "\"Net\":{\"ip\":\"3\"}}}\n");
}

TEST_F(SettingsToolWatchTest, ANameWithALineBreakStaysInTheComment)
{
    ExpectResult(OnFile({"watch", "a*"}, "[\"a\\nb\"]\nk=1\n"), 0, "# changed: \"a\\nb\"\n[\"a\\nb\"]\nk=1\n\n");
}

TEST_F(SettingsToolWatchTest, EndsAfterCountChangesThoughMoreInputIsToCome)
{
    ChildProcess child(Command({"--local", _path, "watch", "*", "--count", "2"}));
    child.Write("[Audio]\nvolume=1\n.\n[Net]\nip=2\n.\n[Net]\nip=3\n.\n");
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_EQ(child.GetOutput(), "# changed: Audio\n[Audio]\nring=80\nvolume=1\n\n# changed: Net\n[Net]\nip=2\n\n");
    EXPECT_EQ(ReadFile(), "[Audio]\nring=80\nvolume=1\n[Net]\nip=2\n");
}

TEST_F(SettingsToolWatchTest, PrintsAndSavesEachChangeAsItArrives)
{
    ChildProcess child(Command({"--local", _path, "watch", "*"}));
    child.Write("[Audio]\nvolume=1\n.\n");
    child.AwaitOutput("volume=1\n\n");
    ASSERT_EQ(OnFile({"set", "[Other]k", "1"}).status, 0);  // nobody is locked out, and nothing of it is lost
    child.Write("[Net]\nip=2\n.\n");
    child.AwaitOutput("ip=2\n\n");
    child.CloseInput();
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_EQ(ReadFile(), "[Audio]\nring=80\nvolume=1\n[Net]\nip=2\n\n[Other]\nk=1\n");
}

TEST_F(SettingsToolWatchTest, ASignalEndsItWithStatusZero)
{
    for (const int signal : {SIGINT, SIGTERM})
    {
        SCOPED_TRACE(signal);
        ChildProcess child(Command({"--local", _path, "watch", "*"}));
        child.Write("[Audio]\nvolume=1\n.\n");
        child.AwaitOutput("volume=1\n\n");
        child.Signal(signal);
        EXPECT_EQ(child.Wait(), 0);
        EXPECT_EQ(child.GetErrors(), "");
    }
}

TEST_F(SettingsToolWatchTest, RestrictedGroupsOfTheInputAreNamedAndDropped)
{
    ExpectResult(OnFile({"watch", "*"}, "[Secure]\nk=1\n"), 0, "", HasSubstr("'Secure'"));
}

TEST_F(SettingsToolWatchTest, UnderTheVariableNothingIsSaved)
{
    const std::string before = ReadFile();
    const ToolResult result = Run({"watch", "Net"}, "[Net]\nip=9\n", {{"KORLO_SETTINGS_LOCALFILE", _path}});
    ExpectResult(result, 0, "# changed: Net\n[Net]\nip=9\n\n");
    EXPECT_EQ(ReadFile(), before);
}

}  // namespace
}  // namespace korlo::settings::cli
