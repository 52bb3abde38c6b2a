// SECURITY.md says what is so.

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "korlo/core/IniFile.h"
#include "korlo/core/Logger.h"
#include "korlo/osa/ServiceDirectory.h"
#include "settings/KorloSettingsClient.h"
#include "settings/LogManager.h"
#include "support/Documents.h"
#include "support/Files.h"
#include "support/LogCapture.h"
#include "support/ServerProcess.h"
#include "support/TemporaryFolder.h"

namespace korlo::daemon
{
namespace
{

using core::IniFile;
using core::Logger;
using settings::KorloSettingsClient;
using settings::LogManager;
using testing::HasSubstr;

/// The server of this test is the one of the process, and logging is put back at the end.
class SecurityDocumentTest : public testing::Test
{
protected:
    static constexpr const char* Host = "korlo-settings-server";

    SecurityDocumentTest() { Logger::SetLogRotateFolder(_folder.GetPath()); }
    ~SecurityDocumentTest() override
    {
        osa::ServiceDirectory::Unregister(Host);
        Logger::SetLogRotateFolder("/etc/logrotate.d");
    }

    /// The first block of that language in the document.
    std::string Block(const std::string& language) const
    {
        const std::size_t begin = _document.find("```" + language + '\n') + 4 + language.size();
        return _document.substr(begin, _document.find("```\n", begin) - begin);
    }

    const std::string _document = ContentOf(std::string(KORLO_DOCS) + "/../SECURITY.md").value();
    const TemporaryFolder _folder;
    const LoggingReset _reset;
};

TEST_F(SecurityDocumentTest, ARestrictedLogGroupIsNotForClientsToChange)
{
    const std::string group = "Log/Trusted/Doorbell";
    ASSERT_EQ(Block("cpp"), "const LogManager logManager(&client, \"" + group + "\");\n");
    const std::string place = "/var/log/";
    std::string restricted = Block("ini");
    ASSERT_THAT(restricted, HasSubstr(place));
    restricted.replace(restricted.find(place), place.size(), _folder.PathOf(""));
    WriteFile(_folder.PathOf("restricted.ini"), restricted);
    ServerProcess server({"--restricted", _folder.PathOf("restricted.ini"), "--user", _folder.PathOf("user.ini")});
    osa::ServiceDirectory::Register(Host, "127.0.0.1", server.GetPort());

    KorloSettingsClient client(KorloSettingsClient::MultiThreaded);
    const LogManager logManager(&client, group.c_str());
    KorloSettingsClient attacker(KorloSettingsClient::SingleThreaded);
    IniFile hostile;
    hostile.SetValue(group, "log.file", _folder.PathOf("stolen"));
    hostile.SetValue(group, "log.level", "4");
    attacker.MergeSettings(hostile);
    attacker.OverwriteSettings(hostile);
    attacker.RestoreToDefaults("*");
    attacker.TestAndMerge(IniFile(), hostile);  // its answer: all of them are carried out
    attacker.EraseGroups(group);
    IniFile current;
    attacker.GetSettings(group, current);
    EXPECT_EQ(current, Ini(restricted));
    EXPECT_EQ(client.GetValue('[' + group + "]log.level"), "2");  // whatever was announced has been delivered

    Logger::GetLogger("Doorbell")->Warning("Nobody hears");
    Logger::GetLogger("Doorbell")->Information("Ring");
    EXPECT_THAT(ContentOf(_folder.PathOf("doorbell.log")).value_or(""),
                testing::AllOf(HasSubstr("Nobody hears"), testing::Not(HasSubstr("Ring"))));
    EXPECT_FALSE(ContentOf(_folder.PathOf("stolen")).has_value());
}

TEST_F(SecurityDocumentTest, TheWordOfAnUnknownCommandIsLoggedCutAndEscaped)
{
    ServerProcess server({"--user", _folder.PathOf("user.ini")});
    const std::string longWord(100'000, 'y');
    RawClient client(server.GetPort());
    client.Send("mrege\n[Net]\npsk=secret words\n.\n\x1b[31m\x7f\n" + longWord + '\n');
    server.GetChild().AwaitErrors("Invalid command: " + longWord.substr(0, 64) + "... (100000 bytes)\n");
    const std::string& log = server.GetChild().GetErrors();
    EXPECT_THAT(log, HasSubstr("Invalid command: psk=secret\n"));
    EXPECT_THAT(log, HasSubstr("Invalid command: \\x1b[31m\\x7f\n"));
}

}  // namespace
}  // namespace korlo::daemon
