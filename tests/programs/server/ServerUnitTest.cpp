// What the units say and the server relies on. tests/packaging asks systemd for the rest.

#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ServerOptions.h"
#include "support/Files.h"
#include "support/UnitFile.h"

namespace korlo::daemon
{
namespace
{

using testing::Contains;
using testing::Each;
using testing::IsSupersetOf;
using testing::Not;
using testing::StartsWith;

std::string Shipped(const std::string& name)
{
    return ContentOf(std::string(KORLO_PACKAGING) + '/' + name).value();
}

Lines LinesOf(const std::string& name)
{
    return LinesIn(Shipped(name));
}

Lines Unit()
{
    return LinesOf("korlo-settings-server.service");
}

std::string RestOf(const std::string& beginning)
{
    return RestIn(Unit(), beginning);
}

/// The command line, as the service manager makes it of the variable's value: split at white space.
ServerOptions StartWith(const std::string& listen)
{
    const std::string variable = "$KORLO_SETTINGS_LISTEN";
    std::string command = RestOf("ExecStart=/usr/sbin/");
    command.replace(command.find(variable), variable.size(), listen);
    std::istringstream text(command);
    Lines words;
    for (std::string word; text >> word;)
    {
        words.push_back(word);
    }
    std::vector<const char*> arguments;
    for (const std::string& word : words)
    {
        arguments.push_back(word.c_str());
    }
    return ParseOptions(static_cast<int>(arguments.size()), arguments.data());
}

TEST(ServerUnitTest, StartsTheServerWithOptionsThatItTakes)
{
    std::string listen = RestOf("Environment=\"KORLO_SETTINGS_LISTEN=");
    listen.pop_back();
    EXPECT_EQ(listen, "--listen 127.0.0.1:4711");
    EXPECT_EQ(StartWith(listen).userPath, ServerOptions().userPath);
    EXPECT_EQ(StartWith(listen).saveBy, SaveBy::Appending);
    EXPECT_THAT(Unit(), IsSupersetOf({"Type=notify", "StateDirectory=korlo-settings"}));
}

TEST(ServerUnitTest, OneLineTurnsTcpOff)
{
    EXPECT_NO_THROW(StartWith(""));
    const std::string defaults = RestOf("EnvironmentFile=-");
    EXPECT_THAT(ContentOf(std::string(KORLO_DOCS) + "/server.md").value(),
                testing::HasSubstr("echo KORLO_SETTINGS_LISTEN= > " + defaults));
    // Without its socket the server would take its default door, which is TCP.
    EXPECT_THAT(Unit(), Contains("Requires=korlo-settings-server.socket"));
}

TEST(ServerUnitTest, LeavesIdentitiesVisibleAndTheSocketsInPlace)
{
    const Lines hiding = {
        "PrivateUsers=", "ProtectProc=", "ProcSubset=", "PrivatePIDs=", "RuntimeDirectory=", "DynamicUser="};
    for (const std::string& key : hiding)
    {
        EXPECT_THAT(Unit(), Each(Not(StartsWith(key))));
    }
}

TEST(ServerUnitTest, TakesBothSocketsAndTellsThemApart)
{
    EXPECT_THAT(Unit(), Contains("Sockets=korlo-settings-server.socket korlo-settings-server-control.socket"));
    EXPECT_THAT(
        LinesOf("korlo-settings-server.socket"),
        IsSupersetOf({"ListenStream=/run/korlo-settings/socket", "SocketGroup=korlo-settings", "SocketMode=0660"}));
    EXPECT_THAT(LinesOf("korlo-settings-server-control.socket"),
                IsSupersetOf({"ListenStream=/run/korlo-settings/control", "FileDescriptorName=control",
                              "SocketMode=0600", "Service=korlo-settings-server.service"}));
}

TEST(ServerUnitTest, EveryLineIsBelowAComment)
{
    ExpectLinesBelowComments(Shipped("korlo-settings-server.service"),
                             {"Description=", "Documentation=", "Type=", "WantedBy=", "Also="});
}

TEST(ServerUnitTest, ItsUserAndTheGroupOfItsSocketAreMade)
{
    const Lines made = LinesOf("korlo-settings.sysusers");
    EXPECT_THAT(made, Contains(StartsWith("u " + RestOf("User=") + " - ")));
    EXPECT_THAT(made, Contains("g korlo-settings -"));
}

}  // namespace
}  // namespace korlo::daemon
