// What the unit, its user and the shipped configuration of the bridge say.

#include <algorithm>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "BridgeConfiguration.h"
#include "BridgeOptions.h"
#include "fleet/ConfigurationKeys.h"
#include "support/BridgeScene.h"
#include "support/Files.h"
#include "support/TemporaryFolder.h"
#include "support/UnitFile.h"

namespace korlo::settings::mqtt
{
namespace
{

using fleet::KeysOf;
using testing::Contains;
using testing::Each;
using testing::HasSubstr;
using testing::IsSupersetOf;
using testing::Not;
using testing::StartsWith;

std::string Shipped(const std::string& name)
{
    return ContentOf(std::string(KORLO_TREE) + "/packaging/" + name).value();
}

Lines LinesOf(const std::string& name)
{
    return LinesIn(Shipped(name));
}

Lines Unit()
{
    return LinesOf("korlo-settings-mqtt.service");
}

std::string RestOf(const std::string& beginning)
{
    return RestIn(Unit(), beginning);
}

/// The configuration with the comments taken from its keys, each with a value that makes sense.
std::string FilledIn(const std::string& existingFile)
{
    std::string text = std::regex_replace(Shipped("mqtt.ini"), std::regex("\n#([a-z-]+=)"), "\n$1");
    text = std::regex_replace(text, std::regex("password-file=.*\n"), "");
    text = std::regex_replace(text, std::regex("password=\n"), "password=secret\n");
    return std::regex_replace(text, std::regex("((ca|cert|key)-file=).*\n"), "$1" + existingFile + '\n');
}

TEST(BridgeUnitTest, StartsTheBridgeWithOptionsThatItTakes)
{
    std::istringstream text(RestOf("ExecStart=/usr/sbin/"));
    const Lines words{std::istream_iterator<std::string>(text), {}};
    std::vector<const char*> arguments;
    std::transform(words.begin(), words.end(), std::back_inserter(arguments),
                   [](const std::string& word) { return word.c_str(); });
    const BridgeOptions options = ParseOptions(static_cast<int>(arguments.size()), arguments.data());
    EXPECT_EQ(words.front(), "korlo-settings-mqtt");
    EXPECT_THAT(LinesOf("korlo-settings-mqtt.tmpfiles"),
                Contains("z " + options.configuration + " 0640 root " + RestOf("User=") + " -"));
}

TEST(BridgeUnitTest, EndsForGoodOnlyWhenItsConfigurationIsWrong)
{
    EXPECT_THAT(Unit(), IsSupersetOf({"Restart=on-failure", "RestartPreventExitStatus=2"}));
}

TEST(BridgeUnitTest, MayConnectToTheServersSocket)
{
    const std::string group = RestOf("SupplementaryGroups=");
    EXPECT_THAT(LinesOf("korlo-settings-server.socket"), Contains("SocketGroup=" + group));
    EXPECT_THAT(LinesOf("korlo-settings-mqtt.sysusers"), Contains("g " + group + " -"));
    EXPECT_THAT(LinesOf("korlo-settings-mqtt.sysusers"), Contains(StartsWith("u " + RestOf("User=") + " - ")));
    EXPECT_THAT(Unit(), Each(Not(StartsWith("PrivateUsers="))));  // the server must see who it is
}

TEST(BridgeUnitTest, EveryLineIsBelowAComment)
{
    ExpectLinesBelowComments(Shipped("korlo-settings-mqtt.service"),
                             {"Description=", "Documentation=", "Type=", "ExecStart=", "Restart", "WantedBy="});
}

TEST(BridgeConfigurationFileTest, IsRefusedUntilItSaysWhereTheBrokerIs)
{
    const std::string path = std::string(KORLO_TREE) + "/packaging/mqtt.ini";
    EXPECT_THAT(MessageOf([&] { BridgeConfiguration::Read(path); }), HasSubstr("'host' of [Broker] is missing"));
}

TEST(BridgeConfigurationFileTest, HasEveryKey)
{
    for (const char* group : {"Broker", "Device", "Settings", "Report", "Accept"})
    {
        std::set<std::string> keys;
        const std::string text = Shipped("mqtt.ini");
        const std::size_t begin = text.find('[' + std::string(group) + "]\n");
        ASSERT_NE(begin, std::string::npos);
        const std::string part = text.substr(begin, text.find("\n[", begin) - begin);
        const std::regex key("\n#([a-z-]+)=");
        for (std::sregex_iterator match(part.begin(), part.end(), key), end; match != end; ++match)
        {
            keys.insert((*match)[1]);
        }
        EXPECT_EQ(keys, KeysOf(group)) << group;
    }
}

TEST(BridgeConfigurationFileTest, MakesSenseOnceItIsFilledIn)
{
    const TemporaryFolder folder;
    WriteFile(folder.PathOf("certificate"), "x");
    WriteFile(folder.PathOf("mqtt.ini"), FilledIn(folder.PathOf("certificate")));
    const BridgeConfiguration configuration = BridgeConfiguration::Read(folder.PathOf("mqtt.ini"));
    EXPECT_EQ(configuration.broker.host, "broker.example.org");
    EXPECT_EQ(configuration.deviceName, "hall-1");
    EXPECT_EQ(configuration.accept, GroupNameCollection{"Audio"});
}

#ifdef KORLO_UNIT_SANDBOX
class BridgeSandboxTest : public BridgeScene
{
};

TEST_F(BridgeSandboxTest, WorksUnderTheSystemCallsThatItsUnitAllows)
{
    StartServer("[Audio]\nvolume=40\n");
    WriteFile(PathOf("mqtt.ini"), Configuration(Everything));
    ChildProcess bridge({KORLO_UNIT_SANDBOX, std::string(KORLO_TREE) + "/packaging/korlo-settings-mqtt.service",
                         KORLO_SETTINGS_MQTT, "--config", PathOf("mqtt.ini")});
    Fleet().Await(Reported("Audio"), R"("volume":"40")");
    Wish("Audio", R"({"volume":"30"})", 1);
    AwaitAccepted("Audio", 1);

    // What it does when one of them goes, too.
    _pFleet.reset();
    _broker.End();
    EndServer(SIGKILL);
    _broker.Start();
    StartServer();
    Fleet().Await(Status(), R"("settings":true)");
    bridge.Signal(SIGTERM);
    EXPECT_EQ(bridge.Wait(), 0);
}
#endif

}  // namespace
}  // namespace korlo::settings::mqtt
