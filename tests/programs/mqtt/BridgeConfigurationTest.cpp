#include "BridgeConfiguration.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "BridgeOptions.h"
#include "support/Files.h"
#include "support/TemporaryFolder.h"

namespace korlo::settings::mqtt
{
namespace
{

using testing::HasSubstr;
using testing::StartsWith;

class BridgeConfigurationTest : public testing::Test
{
protected:
    BridgeConfiguration Read(const std::string& text) const
    {
        WriteFile(_path, text);
        return BridgeConfiguration::Read(_path);
    }

    /// What is wrong, without the path.
    std::string Fault(const std::string& text) const
    {
        const std::string message = MessageOf([&] { Read(text); });
        EXPECT_THAT(message, StartsWith(_path + ':'));
        return message.substr(std::min(message.size(), _path.size()));
    }

    const TemporaryFolder _folder;
    const std::string _path = _folder.PathOf("mqtt.ini");
    const std::string _least = "[Broker]\nhost=h\n[Device]\nname=d\n";
};

TEST_F(BridgeConfigurationTest, LittleIsNeeded)
{
    const BridgeConfiguration configuration = Read(_least);
    EXPECT_EQ(configuration.broker.host, "h");
    EXPECT_EQ(configuration.broker.port, 1883);
    EXPECT_EQ(configuration.broker.username, std::nullopt);
    EXPECT_EQ(configuration.broker.password, std::nullopt);
    EXPECT_EQ(configuration.broker.caFile, "");
    EXPECT_EQ(configuration.broker.clientId, "d");
    EXPECT_EQ(configuration.broker.keepaliveSeconds, 60);
    EXPECT_EQ(configuration.deviceName, "d");
    EXPECT_EQ(configuration.settingsAddress, "");
    EXPECT_TRUE(configuration.report.empty());
    EXPECT_TRUE(configuration.accept.empty());
}

TEST_F(BridgeConfigurationTest, EverythingCanBeSaid)
{
    WriteFile(_folder.PathOf("password"), "from file\r\nmore\n");
    WriteFile(_folder.PathOf("pem"), "");
    const std::string pem = _folder.PathOf("pem");
    const BridgeConfiguration configuration = Read(
        "; comment\n[Broker]\nhost=broker.example\nport=1884\nusername=u\npassword-file=" + _folder.PathOf("password") +
        "\nca-file=" + pem + "\ncert-file=" + pem + "\nkey-file=" + pem +
        "\nclient-id=c\nkeepalive=30\n[Device]\nname=panel 7\n[Settings]\naddress=unix:/run/x\n"
        "[Report]\ngroups=Net/*, Audio ,Time\n[Accept]\ngroups=*\n");
    EXPECT_EQ(configuration.broker.host, "broker.example");
    EXPECT_EQ(configuration.broker.port, 1884);
    EXPECT_EQ(configuration.broker.username, "u");
    EXPECT_EQ(configuration.broker.password, "from file");
    EXPECT_EQ(configuration.broker.caFile, pem);
    EXPECT_EQ(configuration.broker.certificateFile, pem);
    EXPECT_EQ(configuration.broker.keyFile, pem);
    EXPECT_EQ(configuration.broker.clientId, "c");
    EXPECT_EQ(configuration.broker.keepaliveSeconds, 30);
    EXPECT_EQ(configuration.deviceName, "panel 7");
    EXPECT_EQ(configuration.settingsAddress, "unix:/run/x");
    EXPECT_EQ(configuration.report, (GroupNameCollection{"Audio", "Net/*", "Time"}));
    EXPECT_EQ(configuration.accept, (GroupNameCollection{"*"}));
}

TEST_F(BridgeConfigurationTest, WithTlsTheUsualPortIsAnotherOne)
{
    WriteFile(_folder.PathOf("ca"), "");
    EXPECT_EQ(Read("[Broker]\nhost=h\nca-file=" + _folder.PathOf("ca") + "\n[Device]\nname=d\n").broker.port, 8883);
}

TEST_F(BridgeConfigurationTest, WhatIsMissingIsNamed)
{
    EXPECT_EQ(Fault(""), ": 'host' of [Broker] is missing");
    EXPECT_EQ(Fault("[Broker]\nhost=h\n"), ": 'name' of [Device] is missing");
}

struct MistakeRow
{
    const char* text;
    const char* fault;
};

const MistakeRow Mistakes[] = {
    {"[Broker]\nhost=h\n[Brokr]\n", ":3: there is no group [Brokr]"},
    {"[Broker]\nhots=h\n", ":2: [Broker] has no key 'hots'; it has ca-file, cert-file, client-id, host, keepalive"},
    {"[Broker]\nhost=h\nhost=i\n", ":3: 'host' of [Broker] is there already, in line 2"},
    {"[Broker]\nhost\n", ":2: "},
    {"host=h\n", ":1: "},
    {"[Broker]\nhost=\n", ":2: host: it is empty"},
    {"[Broker]\nport=0\n", ":2: port: '0' is not a number from 1 to 65535"},
    {"[Broker]\nport=65536\n", ":2: port: '65536' is not a number"},
    {"[Broker]\nport=mqtt\n", ":2: port: 'mqtt' is not a number"},
    {"[Broker]\nkeepalive=4\n", ":2: keepalive: '4' is not a number from 5 to 65535"},
    {"[Broker]\nusername=\"a\\x00b\"\n", ":2: username: it is not text in UTF-8"},
    {"[Broker]\nclient-id=\"\\xFF\"\n", ":2: client-id: it is not text in UTF-8"},
    {"[Broker]\nca-file=/nowhere\n", ":2: ca-file: '/nowhere' cannot be read"},
    {"[Broker]\npassword-file=/nowhere\n", ":2: password-file: '/nowhere' cannot be read"},
    {"[Broker]\npassword-file=/dev/null\n", ":2: password-file: there is no password in the first line of '/dev/null'"},
    {"[Broker]\nhost=h\npassword=p\n[Device]\nname=d\n", ":3: password needs username"},
    {"[Broker]\nhost=h\nkey-file=/dev/null\n[Device]\nname=d\n", ":3: key-file needs cert-file"},
    {"[Broker]\nhost=h\ncert-file=/dev/null\n[Device]\nname=d\n", ":3: cert-file needs ca-file"},
    {"[Device]\nname=\n", ":2: name: it is empty"},
    {"[Broker]\nhost=h\n[Device]\nname=\"\\xFF\"\n",
     ":4: name: it is the client-id, too, unless [Broker] has one: it is not text"},
    {"[Settings]\naddress=nonsense\n", ":2: address: "},
    {"[Report]\ngroups=A,,B\n", ":2: groups: an entry of the list is empty"},
    {"[Report]\ngroups=A,\n", ":2: groups: an entry of the list is empty"},
    {"[Accept]\ngroups=\n", ":2: groups: an entry of the list is empty"},
};

TEST_F(BridgeConfigurationTest, AMistakeIsToldWithItsLine)
{
    for (const MistakeRow& row : Mistakes)
    {
        SCOPED_TRACE(row.text);
        EXPECT_THAT(Fault(row.text), StartsWith(row.fault));
    }
}

TEST_F(BridgeConfigurationTest, APasswordAndAPasswordFileExcludeEachOther)
{
    WriteFile(_folder.PathOf("password"), "sesame");
    EXPECT_EQ(Fault("[Broker]\nhost=h\nusername=u\npassword=open\npassword-file=" + _folder.PathOf("password") +
                    "\n[Device]\nname=d\n"),
              ":5: password-file and password exclude each other");
}

TEST_F(BridgeConfigurationTest, NoMessageHoldsAPassword)
{
    EXPECT_THAT(Fault("[Broker]\nhost=h\nusername=u\npassword=\"ses\\x00ame\"\n"), Not(HasSubstr("ses")));
    EXPECT_THAT(Fault("[Broker]\nhost=h\nusername=u\npassword=sesame\npassword=sesame\n"), Not(HasSubstr("sesame")));
}

TEST_F(BridgeConfigurationTest, AMissingFileIsNamed)
{
    EXPECT_THAT(MessageOf([&] { BridgeConfiguration::Read(_folder.PathOf("none")); }),
                HasSubstr(_folder.PathOf("none")));
}

/// The status and the text that parsing ends with.
std::pair<int, std::string> ExitOf(std::vector<const char*> arguments)
{
    arguments.insert(arguments.begin(), "korlo-settings-mqtt");
    try
    {
        ParseOptions(static_cast<int>(arguments.size()), arguments.data());
        return {-1, ""};
    }
    catch (const EarlyExit& exit)
    {
        return {exit.GetStatus(), exit.what()};
    }
}

TEST(BridgeOptionsTest, TheConfigurationHasToBeGiven)
{
    EXPECT_EQ(ExitOf({}), (std::pair<int, std::string>(2, "--config FILE is missing")));
    const char* const arguments[] = {"korlo-settings-mqtt", "--config", "a", "--config=b", "--log-level", "1"};
    EXPECT_EQ(ParseOptions(6, arguments).configuration, "b");
    EXPECT_EQ(ParseOptions(6, arguments).logLevel, 1);
}

TEST(BridgeOptionsTest, AWrongCommandLineIsStatus2)
{
    EXPECT_EQ(ExitOf({"--nonsense"}).first, 2);
    EXPECT_EQ(ExitOf({"operand"}).first, 2);
    EXPECT_EQ(ExitOf({"--config"}).first, 2);
    EXPECT_EQ(ExitOf({"--config", "x", "--log-level", "5"}).second, "--log-level: '5' is not a number from 0 to 4");
}

TEST(BridgeOptionsTest, HelpAndVersionAreAnswered)
{
    EXPECT_EQ(ExitOf({"--help"}).first, 0);
    EXPECT_THAT(ExitOf({"--help"}).second, HasSubstr("--config FILE"));
    EXPECT_EQ(ExitOf({"-h"}), ExitOf({"--help"}));
    EXPECT_EQ(ExitOf({"--version"}), (std::pair<int, std::string>(0, "korlo-settings-mqtt " KORLO_VERSION "\n")));
}

}  // namespace
}  // namespace korlo::settings::mqtt
