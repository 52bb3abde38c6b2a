#include <filesystem>
#include <set>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "korlo/core/Logger.h"
#include "support/Files.h"
#include "support/LogCapture.h"
#include "support/TemporaryFolder.h"

namespace korlo::core
{
namespace
{

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

ino_t NodeOf(const std::string& path)
{
    struct stat status = {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_ino;
}

}  // namespace

class LogRotateTest : public testing::Test
{
protected:
    LogRotateTest() { Logger::SetLogRotateFolder(_folder.GetPath()); }
    ~LogRotateTest() override { Logger::SetLogRotateFolder("/etc/logrotate.d"); }

    std::set<std::string> GetNames() const { return NamesIn(_folder.GetPath()); }

    const TemporaryFolder _folder;
    const LogCapture _log;
};

TEST_F(LogRotateTest, WritesAStanzaForTheFile)
{
    Logger::ModifyLogRotateConf("/var/log/my app.log", "Log");

    EXPECT_THAT(GetNames(), ElementsAre("korlo-Log"));
    EXPECT_EQ(ContentOf(_folder.PathOf("korlo-Log")),
              "# Written by the program that logs to this file; changes are lost.\n"
              "\"/var/log/my app.log\" {\n"
              "    weekly\n"
              "    maxsize 1M\n"
              "    rotate 4\n"
              "    compress\n"
              "    copytruncate\n"
              "    missingok\n"
              "    notifempty\n"
              "}\n");
    EXPECT_THAT(_log.GetMessages(), IsEmpty());
}

TEST_F(LogRotateTest, TheNameOfTheGroupCannotLeadOutOfTheFolder)
{
    Logger::ModifyLogRotateConf("/var/log/a.log", "../Log_x/\xc3\xa4 1");
    EXPECT_THAT(GetNames(), ElementsAre("korlo-_2E_2E_2FLog_5Fx_2F_C3_A4_201"));
}

TEST_F(LogRotateTest, GroupsOfDifferentNamesHaveStanzasOfTheirOwn)
{
    for (const char* group : {"a/b", "a_b", "a_2Fb", "a b", "ab", ""})
    {
        Logger::ModifyLogRotateConf("/var/log/a.log", group);
    }
    EXPECT_THAT(GetNames(), SizeIs(6));
}

TEST_F(LogRotateTest, AStanzaIsReplacedOnlyWhenItChanges)
{
    const std::string stanza = _folder.PathOf("korlo-Log");
    Logger::ModifyLogRotateConf("/var/log/a.log", "Log");
    fs::create_hard_link(stanza, _folder.PathOf("held"));  // so that its node is not given to another file

    Logger::ModifyLogRotateConf("/var/log/a.log", "Log");
    EXPECT_EQ(NodeOf(stanza), NodeOf(_folder.PathOf("held")));

    Logger::ModifyLogRotateConf("/var/log/b.log", "Log");
    EXPECT_NE(NodeOf(stanza), NodeOf(_folder.PathOf("held")));
    EXPECT_THAT(ContentOf(stanza).value_or(""), HasSubstr("\"/var/log/b.log\" {"));
}

TEST_F(LogRotateTest, WarnsWhereItCannotWriteAndGoesOn)
{
    Logger::SetLogRotateFolder(_folder.PathOf("missing"));

    Logger::ModifyLogRotateConf("/var/log/a.log", "Log");

    EXPECT_THAT(_log.GetMessages(),
                ElementsAre("4 Logger: Failed to set up log rotation of '/var/log/a.log': Failed to create a new file "
                            "beside '" +
                            _folder.PathOf("missing/korlo-Log") + "': No such file or directory"));
}

TEST_F(LogRotateTest, RefusesAPathThatLogrotateWouldTakeForSomethingElse)
{
    for (const std::string file :
         {"app.log", "/var/log/*.log", "/a?", "/[a]", "/a\"b", "/a\\b", "/a{", "/a}", "/a\nb", "/a\x7f"})
    {
        Logger::ModifyLogRotateConf(file, "Log");
    }
    Logger::ModifyLogRotateConf(std::string("/a\0b", 4), "Log");

    EXPECT_THAT(GetNames(), IsEmpty());
    EXPECT_THAT(_log.GetMessages(), SizeIs(11));
    EXPECT_THAT(_log.GetMessages(), testing::Each(StartsWith("4 Logger: Failed to set up log rotation of '")));
}

TEST_F(LogRotateTest, AnEmptyPathDoesNothing)
{
    Logger::ModifyLogRotateConf("", "Log");
    EXPECT_THAT(GetNames(), IsEmpty());
    EXPECT_THAT(_log.GetMessages(), IsEmpty());
}

}  // namespace korlo::core
