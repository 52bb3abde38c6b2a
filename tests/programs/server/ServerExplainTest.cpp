// The words of the control door about where settings come from, asked of the real server.

#include <csignal>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ControlProtocol.h"
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

class ServerExplainTest : public testing::Test
{
protected:
    ServerExplainTest()
    {
        std::filesystem::create_directory(_folder.PathOf("d"));
        WriteFile(_folder.PathOf("d/10.ini"), "[Audio]\nvolume=40\nbass=1\n[Net]\nmode=fixed\n"
                                              "[KorloSettings/LoadPriority]\nNet=5\n");
        WriteFile(_folder.PathOf("d/20.ini"), "[Audio]\nvolume=50\n[Net]\nmode=dhcp\n[DeviceSecure]\nk=no\n");
        WriteFile(_folder.PathOf("restricted.ini"), "[DeviceSecure]\nk=hush\n");
    }

    ServerProcess::Arguments Options() const
    {
        return {"--defaults",   _folder.PathOf("d"),
                "--restricted", _folder.PathOf("restricted.ini"),
                "--user",       _folder.PathOf("user.ini"),
                "--control",    _folder.PathOf("control"),
                "--log-level",  "4"};
    }

    /// The answer of the control door.
    std::string Ask(const std::string& request) const
    {
        RawClient client("unix:" + _folder.PathOf("control"));
        client.Send(request + '\n');
        const std::string first = client.ReadLine();
        return first == "ok" ? client.ReadBlock() : first;
    }

    const TemporaryFolder _folder;
};

TEST_F(ServerExplainTest, AnExplanationIsADocument)
{
    ServerProcess server(Options());
    RawClient(server.GetPort()).TestAndMerge("", "[Audio]\nvolume=65\n");
    const std::string folder = _folder.PathOf("");
    EXPECT_EQ(Ask("explain [Audio]volume"),
              "[Candidate/1]\nfile=" + folder + "d/10.ini\nlayer=default\nline=2\nvalue=40\nwhy=overridden by " +
                  folder +
                  "d/20.ini:2\n"
                  "[Candidate/2]\nfile=" +
                  folder + "d/20.ini\nlayer=default\nline=2\nvalue=50\nwhy=overridden by " + folder +
                  "user.ini:2\n"
                  "[Candidate/3]\nfile=" +
                  folder +
                  "user.ini\nlayer=user\nline=2\nvalue=65\nwhy=it counts\n"
                  "[Explain]\ncandidate=3\nfile=" +
                  folder + "user.ini\ngroup=Audio\nkey=volume\nlayer=user\nline=2\nvalue=65\n");
}

TEST_F(ServerExplainTest, AKeyWithoutValueIsExplainedToo)
{
    ServerProcess server(Options());
    EXPECT_EQ(Ask("explain [Audio]treble"), "[Explain]\ngroup=Audio\nkey=treble\n");
    RawClient client(server.GetPort());
    client.Send("overwrite\nAudio\n.\n.\n");
    client.Get("Audio");
    EXPECT_THAT(Ask("explain [Audio]bass"), testing::AllOf(HasSubstr("why=erased: "), HasSubstr(" has 1=Audio "),
                                                           HasSubstr("[Explain]\ngroup=Audio\nkey=bass\n")));
}

TEST_F(ServerExplainTest, ARestrictedValueIsExplainedAndNotLogged)
{
    ServerProcess server(Options());
    EXPECT_THAT(Ask("explain [DeviceSecure]k"),
                testing::AllOf(HasSubstr("layer=restricted\nline=2\nvalue=hush\nwhy=it counts\n"),
                               HasSubstr("value=no\nwhy=not taken: the group is restricted")));
    Ask("defaults");
    EXPECT_EQ(server.End(), 0);
    EXPECT_THAT(server.GetChild().GetErrors(), testing::Not(HasSubstr("hush")));
}

TEST_F(ServerExplainTest, AnUnsavedChangeIsExplained)
{
    ServerProcess server(Options());
    RawClient client(server.GetPort());
    client.Send("merge nopersist\n[Net]\nmode=up\n.\n");
    client.Get("Net");
    const core::IniFile answer = Ini(Ask("explain [Net]mode"));
    EXPECT_EQ(answer.GetValueOrDefault("Explain", "layer"), "unsaved");
    EXPECT_EQ(answer.GetValueOrDefault("Explain", "value"), "up");
    EXPECT_FALSE(answer.HasValue("Explain", "file"));
    EXPECT_FALSE(answer.HasValue("Explain", "line"));
    EXPECT_THAT(answer.GetValueOrDefault("Candidate/2", "why"), HasSubstr("claims the group with priority 5"));
}

TEST_F(ServerExplainTest, WhatASaveIsDueForIsInTheUserLayer)
{
    ServerProcess::Arguments options = Options();
    options.insert(options.end(), {"--save-delay", "3600000"});
    ServerProcess server(options);
    RawClient(server.GetPort()).TestAndMerge("", "[Audio]\nvolume=65\n");
    const core::IniFile answer = Ini(Ask("explain [Audio]volume"));
    EXPECT_EQ(answer.GetValueOrDefault("Explain", "layer"), "user");
    EXPECT_FALSE(answer.HasValue("Explain", "file"));
    EXPECT_THAT(answer.GetValueOrDefault("Candidate/3", "why"), HasSubstr("a save is due"));
}

TEST_F(ServerExplainTest, NamesThatALineCannotCarryAreQuoted)
{
    const std::string odd("]\"\\ a\n\r\x00\xFF=[", 11);
    core::IniFile document;
    document.SetValue(odd, odd, odd);
    document.SetValue("a[b]c", " k ", "brackets");
    document.SetValue("", "", "empty");
    WriteFile(_folder.PathOf("d/30.ini"), TextOf(document));
    ServerProcess server(Options());
    for (const auto& [group, values] : document)
    {
        for (const auto& [key, value] : values)
        {
            const core::IniFile answer = Ini(Ask("explain " + control::QuotedLocator({group, key})));
            EXPECT_EQ(answer.GetValue("Explain", "group"), group);
            EXPECT_EQ(answer.GetValue("Explain", "key"), key);
            EXPECT_EQ(answer.GetValueOrDefault("Explain", "value"), value);
        }
    }
}

TEST_F(ServerExplainTest, AQuestionThatMakesNoSenseIsAnError)
{
    ServerProcess server(Options());
    for (const std::string operands :
         {"", "Audio", "Audio]volume", "[Audio", "[\"Audio]volume", "[\"A\"x]k", "[A]\"k", "[\"", "[\"\\"})
    {
        EXPECT_EQ(Ask("explain " + operands), "error usage: explain [GROUP]KEY") << operands;
    }
    EXPECT_EQ(Ask("defaults Audio"), "error usage: defaults");
}

TEST_F(ServerExplainTest, AValueOfAMegabyteIsAnsweredInWhole)
{
    const std::string value(1024 * 1024, 'v');
    ServerProcess server(Options());
    RawClient(server.GetPort()).TestAndMerge("", "[Audio]\nvolume=" + value + '\n');
    const core::IniFile answer = Ini(Ask("explain [Audio]volume"));
    EXPECT_TRUE(answer.GetValueOrDefault("Explain", "value") == value);
    EXPECT_TRUE(answer.GetValueOrDefault("Candidate/3", "value") == value);
}

TEST_F(ServerExplainTest, TheDefaultsAreThoseOfAStartFromTheFilesOfNow)
{
    ServerProcess server(Options());
    RawClient(server.GetPort()).TestAndMerge("", "[Audio]\nvolume=65\n");
    EXPECT_EQ(Ask("defaults"), "[Audio]\nbass=1\nvolume=50\n[Net]\nmode=fixed\n");
    WriteFile(_folder.PathOf("d/30.ini"), "[Audio]\nvolume=60\n");
    EXPECT_EQ(Ask("defaults"), "[Audio]\nbass=1\nvolume=60\n[Net]\nmode=fixed\n");
    EXPECT_EQ(Ask("defaults"), Ask("defaults")) << "each is a start of its own, without the claims of the one before";
    std::filesystem::create_directory(_folder.PathOf("d/40.ini"));
    EXPECT_EQ(Ask("defaults"), "[Audio]\nbass=1\nvolume=60\n[Net]\nmode=fixed\n");
}

TEST_F(ServerExplainTest, DefaultsThatCannotBeReadAreAnErrorThatNamesTheFile)
{
    ServerProcess::Arguments options = Options();
    options[1] = _folder.PathOf("d/10.ini");
    ServerProcess server(options);
    std::filesystem::remove(_folder.PathOf("d/10.ini"));
    EXPECT_THAT(Ask("defaults"), testing::AllOf(StartsWith("error "), HasSubstr(_folder.PathOf("d/10.ini"))));
    EXPECT_THAT(Ask("explain [Audio]volume"), HasSubstr("held it and was changed since it was loaded"));
}

}  // namespace
}  // namespace korlo
