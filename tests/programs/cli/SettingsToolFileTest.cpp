// What korlo-settings does to the file of --local, beside its content.

#include <sys/stat.h>

#include "ToolFixture.h"
#include "cli/FolderLock.h"

namespace korlo::settings::cli
{
namespace
{

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

class SettingsToolFileTest : public ToolTest
{
protected:
    struct stat Stat() const
    {
        struct stat status = {};
        EXPECT_EQ(::stat(_path.c_str(), &status), 0);
        return status;
    }
};

TEST_F(SettingsToolFileTest, ModeAndOwnerAreKept)
{
    WriteFile("[A]\nk=1\n");
    ASSERT_EQ(::chmod(_path.c_str(), 0600), 0);
    const struct stat before = Stat();
    ExpectResult(OnFile({"set", "[A]k", "2"}), 0, "");
    const struct stat after = Stat();
    EXPECT_EQ(after.st_mode, before.st_mode);
    EXPECT_EQ(after.st_uid, before.st_uid);
    EXPECT_EQ(after.st_gid, before.st_gid);
}

TEST_F(SettingsToolFileTest, TheFileIsReplacedAsAWholeAndLeavesNothingBeside)
{
    WriteFile("[A]\nk=1\n");
    std::filesystem::create_hard_link(_path, PathOf("old"));
    ExpectResult(OnFile({"set", "[A]k", "2"}), 0, "");
    EXPECT_EQ(ReadFile(), "[A]\nk=2\n");
    EXPECT_EQ(Read(PathOf("old")), "[A]\nk=1\n");
    const auto files = std::filesystem::directory_iterator(_folder.GetPath());
    EXPECT_EQ(std::distance(begin(files), end(files)), 2);
}

TEST_F(SettingsToolFileTest, AFileThatWouldNotChangeIsNotReplaced)
{
    WriteFile("[A]\nk=1\n");
    const struct stat before = Stat();
    ExpectResult(OnFile({"set", "[A]k", "1"}), 0, "");
    ExpectResult(OnFile({"erase", "B"}), 1, "", HasSubstr("no group"));
    EXPECT_EQ(Stat().st_ino, before.st_ino);
}

TEST_F(SettingsToolFileTest, ASymbolicLinkStays)
{
    Write("real.ini", "[A]\nk=1\n");
    std::filesystem::create_symlink("real.ini", _path);
    ExpectResult(OnFile({"set", "[A]k", "2"}), 0, "");
    EXPECT_TRUE(std::filesystem::is_symlink(_path));
    EXPECT_EQ(Read(PathOf("real.ini")), "[A]\nk=2\n");
}

TEST_F(SettingsToolFileTest, AMissingFileIsMadeByWhatSetsAndIsAnErrorForTheRest)
{
    for (const Arguments& arguments : {Arguments{"get", "A"}, Arguments{"list"}, Arguments{"erase", "A"},
                                       Arguments{"restore", "A"}, Arguments{"watch", "A"}})
    {
        SCOPED_TRACE(arguments.front());
        ExpectResult(OnFile(arguments), 3, "",
                     AllOf(StartsWith("korlo-settings: failed to open '" + _path), HasSubstr("No such file")));
        EXPECT_FALSE(std::filesystem::exists(_path));
    }
    ExpectResult(OnFile({"set", "[A]k", "1"}), 0, "");
    EXPECT_EQ(ReadFile(), "[A]\nk=1\n");
    std::filesystem::remove(_path);
    ExpectResult(OnFile({"merge"}, "[A]\nk=2\n"), 0, "");
    EXPECT_EQ(ReadFile(), "[A]\nk=2\n");
}

TEST_F(SettingsToolFileTest, AFolderThatCannotBeUsedIsStatusThree)
{
    const std::string missing = PathOf("missing/settings.ini");
    ExpectResult(Run({"--local", missing, "set", "[A]k", "1"}), 3, "",
                 AllOf(HasSubstr("korlo-settings: failed to open the folder"), HasSubstr("No such file")));
    ExpectResult(Run({"--local", _folder.GetPath(), "set", "[A]k", "1"}), 3, "",
                 HasSubstr("korlo-settings: failed to"));
    ExpectResult(Run({"--local", "/proc/settings.ini", "set", "[A]k", "1"}), 3, "",
                 HasSubstr("korlo-settings: failed to create a new file beside '/proc/settings.ini'"));
}

TEST_F(SettingsToolFileTest, AnUnwritableFolderLeavesTheFileAlone)
{
    WriteFile("[A]\nk=1\n");
    std::filesystem::permissions(_folder.GetPath(), std::filesystem::perms(0555));
    const ToolResult result = OnFile({"set", "[A]k", "2"});
    std::filesystem::permissions(_folder.GetPath(), std::filesystem::perms(0755));
    if (::geteuid() == 0)
    {
        EXPECT_EQ(result.status, 0);  // root may write everywhere
        return;
    }
    ExpectResult(result, 3, "", HasSubstr("failed to create a new file beside"));
    EXPECT_EQ(ReadFile(), "[A]\nk=1\n");
}

TEST_F(SettingsToolFileTest, WhatCannotBeReadIsStatusThree)
{
    WriteFile("[A]\nk=1\n");
    ExpectResult(OnFile({"merge", PathOf("none.ini")}), 3, "", HasSubstr("none.ini': No such file"));
    ExpectResult(OnFile({"overwrite", "A", "--with", _folder.GetPath()}), 3, "", HasSubstr("Is a directory"));
    EXPECT_EQ(ReadFile(), "[A]\nk=1\n");
}

TEST_F(SettingsToolFileTest, AResultThatCannotBeWrittenIsStatusThree)
{
    WriteFile("[A]\nk=1\n");
    Arguments command = {"/bin/sh", "-c", "exec \"$@\" > /dev/full", "sh"};
    const Arguments tool = Command({"--local", _path, "list"});
    command.insert(command.end(), tool.begin(), tool.end());
    ChildProcess child(command);
    EXPECT_EQ(child.Wait(), 3);
    EXPECT_THAT(child.GetErrors(), HasSubstr("failed to write to standard output: No space left on device"));
}

TEST_F(SettingsToolFileTest, AClosedStandardErrorTakesNothingIntoTheFile)
{
    WriteFile("[A]\nk=1\nnonsense\n");
    Arguments command = {"/bin/sh", "-c", "exec \"$@\" <&- >&- 2>&-", "sh"};
    const Arguments tool = Command({"--local", _path, "set", "[A]k", "2"});
    command.insert(command.end(), tool.begin(), tool.end());
    EXPECT_EQ(ChildProcess(command).Wait(), 0);
    EXPECT_EQ(ReadFile(), "[A]\nk=2\nnonsense\n");
}

TEST_F(SettingsToolFileTest, BadLinesOfTheFileAreNamedAndStay)
{
    WriteFile("# mine\n[A]\nk=1\nnonsense\n");
    ExpectResult(OnFile({"set", "[A]k", "2"}), 0, "", HasSubstr(_path + ":4: the line is skipped"));
    EXPECT_EQ(ReadFile(), "# mine\n[A]\nk=2\nnonsense\n");
}

TEST_F(SettingsToolFileTest, AChangeWaitsForTheOneThatIsUnderWay)
{
    WriteFile("[A]\nk=1\n");
    auto lock = std::make_optional<FolderLock>(_path);
    ChildProcess waiting(Command({"--local", _path, "set", "[A]late", "1"}));
    ExpectResult(OnFile({"get", "[A]k"}), 0, "1\n");  // readers do not wait
    WriteFile("[A]\nk=2\n");
    lock.reset();
    EXPECT_EQ(waiting.Wait(), 0);
    EXPECT_EQ(ReadFile(), "[A]\nk=2\nlate=1\n");
}

TEST_F(SettingsToolFileTest, NoChangeOfManyProcessesIsLost)
{
    constexpr std::size_t processes = 12;
    std::vector<std::unique_ptr<ChildProcess>> children;
    std::string expected;
    for (std::size_t number = 0; number < processes; ++number)
    {
        const std::string key(1, static_cast<char>('a' + number));
        expected += key + "=1\n";
        children.push_back(std::make_unique<ChildProcess>(Command({"--local", _path, "set", "[A]" + key, "1"})));
    }
    for (const auto& child : children)
    {
        EXPECT_EQ(child->Wait(), 0) << child->GetErrors();
    }
    ExpectResult(OnFile({"get", "A"}), 0, "[A]\n" + expected);
}

}  // namespace
}  // namespace korlo::settings::cli
