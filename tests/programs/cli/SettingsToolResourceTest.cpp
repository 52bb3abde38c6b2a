// How korlo-settings accounts for resources, on a file and on a real server.

#include <memory>

#include "ToolFixture.h"
#include "support/ServerProcess.h"

namespace korlo::settings::cli
{
namespace
{

using testing::AllOf;
using testing::HasSubstr;

/// The same settings in a file and in a server; the parameter is the one that the tool works on.
class SettingsToolResourceTest : public ToolTest, public testing::WithParamInterface<bool>
{
protected:
    SettingsToolResourceTest()
    {
        WriteFile(Text);
        if (GetParam())
        {
            _pServer = std::make_unique<ServerProcess>(
                Arguments{"--defaults", _path, "--user", PathOf("user.ini"), "--restricted", RestrictedFile()});
        }
    }

    /// Runs "resource" and the arguments.
    ToolResult Resource(Arguments arguments, const Arguments& options = {}) const
    {
        Arguments all = _pServer ? Arguments{"--server", "127.0.0.1:" + std::to_string(_pServer->GetPort())}
                                 : Arguments{"--local", _path};
        all.insert(all.end(), options.begin(), options.end());
        all.emplace_back("resource");
        all.insert(all.end(), arguments.begin(), arguments.end());
        return Run(all);
    }

    ToolResult Reserve(const std::string& consumer, const std::string& amount) const
    {
        return Resource({"reserve", "Bus", consumer, amount});
    }

    std::string Shown() const { return Resource({"show", "Bus"}).output; }

    std::string RestrictedFile() const { return Write("restricted.ini", "[Resources/SecureBus]\nTotalAvailable=7\n"); }

    static constexpr const char* Text = "[Resources/Bus]\n"
                                        "TotalAvailable=50\n"
                                        "[Resources/Bus/Consumers/audio]\n"
                                        "CurrentlyUsed=10\n"
                                        "MaxAllowed=20\n"
                                        "[Resources/Bus/Consumers/audio/Detail]\n"
                                        "CurrentlyUsed=1\n"
                                        "[Resources/Bus/Consumers/video]\n"
                                        "CurrentlyUsed=15\n"
                                        "[Resources/Bus2]\n"
                                        "TotalAvailable=3\n"
                                        "[Resources/Bus2/Consumers/other]\n"
                                        "CurrentlyUsed=3\n"
                                        "[Resources/Lamp/AllowedConsumers]\n"
                                        "1=desk\n";
    static constexpr const char* Unchanged = "total: 50\naudio: 10 used, at most 20\nvideo: 15 used\n";

    std::unique_ptr<ServerProcess> _pServer;
};

TEST_P(SettingsToolResourceTest, ShowPrintsTheTotalAndEachConsumer)
{
    ExpectResult(Resource({"show", "Bus"}), 0, Unchanged);
    ExpectResult(Resource({"show", "Bus2"}), 0, "total: 3\nother: 3 used\n");
    ExpectResult(Resource({"show", "Lamp"}), 0, "total: 100\n", HasSubstr("'Lamp'"));
}

TEST_P(SettingsToolResourceTest, ShowPrintsJsonWithNullForNoCap)
{
    ExpectResult(Resource({"show", "Bus"}, {"--json"}), 0,
                 "{\"consumers\":[{\"max\":20,\"name\":\"audio\",\"used\":10},"
                 "{\"max\":null,\"name\":\"video\",\"used\":15}],\"resource\":\"Bus\",\"total\":50}\n");
    ExpectResult(Resource({"show", "Lamp"}, {"--json"}), 0, "{\"consumers\":[],\"resource\":\"Lamp\",\"total\":100}\n",
                 HasSubstr("'Lamp'"));
}

TEST_P(SettingsToolResourceTest, ReserveSetsWhatTheConsumerHolds)
{
    ExpectResult(Reserve("video", "40"), 0, "");
    ExpectResult(Reserve("video", "30"), 0, "");
    EXPECT_EQ(Shown(), "total: 50\naudio: 10 used, at most 20\nvideo: 30 used\n");
    ExpectResult(Reserve("video", "0"), 0, "");
    ExpectResult(Reserve("a new one", "5"), 0, "");
    EXPECT_EQ(Shown(), "total: 50\na new one: 5 used\naudio: 10 used, at most 20\nvideo: 0 used\n");
}

TEST_P(SettingsToolResourceTest, APercentageIsAShareOfTheTotalRoundedUp)
{
    ExpectResult(Reserve("video", "25%"), 0, "");
    EXPECT_THAT(Shown(), HasSubstr("video: 13 used\n"));
    ExpectResult(Reserve("video", "2.5%"), 0, "");
    EXPECT_THAT(Shown(), HasSubstr("video: 2 used\n"));
    ExpectResult(Reserve("audio", "100%"), 1, "", HasSubstr("'audio' cannot hold 100% of 'Bus': 20 of 50 units"));
    ExpectResult(Reserve("video", "0%"), 0, "");
    EXPECT_THAT(Shown(), HasSubstr("video: 0 used\n"));
}

TEST_P(SettingsToolResourceTest, AReservationThatIsRefusedChangesNothing)
{
    ExpectResult(Reserve("video", "41"), 1, "", HasSubstr("'video' cannot hold 41 of 'Bus': 40 of 50 units are"));
    ExpectResult(Reserve("audio", "21"), 1, "", HasSubstr("20 of 50 units are available to it"));
    ExpectResult(Reserve("audio", "-5"), 1, "", HasSubstr("'audio' cannot hold -5 of 'Bus'"));
    ExpectResult(Reserve("audio", "-5%"), 1, "", HasSubstr("'audio' cannot hold -5% of 'Bus'"));
    EXPECT_EQ(Shown(), Unchanged);
}

TEST_P(SettingsToolResourceTest, AConsumerThatIsNotAllowedReservesNothingButZero)
{
    ExpectResult(Resource({"reserve", "Lamp", "hall", "1"}), 1, "",
                 HasSubstr("'hall' is not among the allowed consumers of 'Lamp'"));
    ExpectResult(Resource({"reserve", "Lamp", "hall", "0"}), 0, "");
    ExpectResult(Resource({"reserve", "Lamp", "desk", "100"}), 0, "");
    EXPECT_EQ(Resource({"show", "Lamp"}).output, "total: 100\ndesk: 100 used\nhall: 0 used\n");
}

TEST_P(SettingsToolResourceTest, ARestrictedResourceCannotBeReserved)
{
    ExpectResult(Resource({"reserve", "SecureBus", "audio", "1"}), 1, "",
                 HasSubstr("restricted groups cannot be changed: 'Resources/SecureBus/Consumers/audio'"));
}

TEST_P(SettingsToolResourceTest, WhatIsNoAmountIsAWrongCommandLine)
{
    for (const std::string amount : {"", "%", "many", "5.5", "5%%", "5 %", "nan%", "inf%", "99999999999", "+5"})
    {
        SCOPED_TRACE(amount);
        ExpectResult(Reserve("audio", amount), 2, "", HasSubstr('\'' + amount + "' is no amount of a resource"));
    }
    EXPECT_EQ(Shown(), Unchanged);
}

TEST_P(SettingsToolResourceTest, NamesMayHoldAnyBytes)
{
    for (const std::string name : {".", "a\nb", "*", "-x", " x "})
    {
        SCOPED_TRACE(name);
        const std::string resource = name == "a\nb" ? "Nothing" : name;  // see the next test
        ExpectResult(Resource({"reserve", resource, name, "5"}), 0, "");
        ExpectResult(Resource({"show", resource}), 0, "total: 100\n" + name + ": 5 used\n");
    }
}

TEST_P(SettingsToolResourceTest, AResourceWithALineBreakIsReservedInAFileAlone)
{
    const ToolResult reserved = Resource({"reserve", "a\nb", "audio", "5"});
    if (_pServer)
    {
        ExpectResult(reserved, 2, "",
                     AllOf(HasSubstr("cannot reserve 'a\\x0Ab' on a server: its name holds a line break"),
                           HasSubstr("hint: --local FILE takes every name")));
        ExpectResult(Resource({"show", "a\nb"}), 0, "total: 100\n", HasSubstr("note: "));
    }
    else
    {
        ExpectResult(reserved, 0, "");
        ExpectResult(Resource({"show", "a\nb"}), 0, "total: 100\naudio: 5 used\n");
    }
}

TEST_P(SettingsToolResourceTest, AWrongNumberOfOperandsIsStatusTwo)
{
    ExpectResult(Resource({}), 2, "",
                 HasSubstr("unknown command 'resource': it is 'resource show' or 'resource reserve'"));
    ExpectResult(Resource({"grab"}), 2, "", HasSubstr("unknown command 'resource grab'"));
    ExpectResult(Resource({"show"}), 2, "", HasSubstr("too few arguments"));
    ExpectResult(Resource({"show", "Bus", "audio"}), 2, "", HasSubstr("too many arguments"));
    ExpectResult(Resource({"reserve", "Bus", "audio"}), 2, "", HasSubstr("RESOURCE CONSUMER UNITS-OR-PERCENT%"));
    EXPECT_THAT(Resource({"reserve", "--help"}).output, HasSubstr("Examples:"));
}

INSTANTIATE_TEST_SUITE_P(Targets, SettingsToolResourceTest, testing::Bool(),
                         [](const auto& target) { return target.param ? "Server" : "File"; });

using SettingsToolResourceTargetTest = ToolTest;

TEST_F(SettingsToolResourceTargetTest, AFileThatIsMissingAndAServerThatIsNotThereAreStatusThree)
{
    for (const Arguments& arguments : {Arguments{"show", "Bus"}, {"reserve", "Bus", "audio", "1"}})
    {
        Arguments onFile = {"resource"};
        onFile.insert(onFile.end(), arguments.begin(), arguments.end());
        Arguments onServer = onFile;
        onServer.insert(onServer.begin(), {"--server", "127.0.0.1:1"});
        ExpectResult(OnFile(onFile), 3, "", HasSubstr("settings.ini"));
        ExpectResult(Run(onServer), 3, "", HasSubstr("failed to talk to the settings server at '127.0.0.1:1'"));
    }
    EXPECT_FALSE(std::filesystem::exists(_path));
}

TEST_F(SettingsToolResourceTargetTest, OnlyTheUsageIsWrittenToTheFile)
{
    const std::string text = "# Shared.\n[Resources/Bus]\nTotalAvailable = 9\n\n[Resources/Bus/Consumers/audio]\n"
                             "CurrentlyUsed=1 \nMaxAllowed=5\n\n[Resources/SecureBus]\nk=1\n"
                             "[KorloSettings/LoadPriority]\nAudio=5\n";
    WriteFile(text);
    std::string expected = text;
    expected.replace(expected.find("CurrentlyUsed=1 "), 16, "CurrentlyUsed=5");
    ExpectResult(OnFile({"resource", "reserve", "Bus", "audio", "5"}), 0, "");
    EXPECT_EQ(ReadFile(), expected);
}

TEST_F(SettingsToolResourceTargetTest, AFileOfTheEnvironmentIsReadAndNotWritten)
{
    const std::string text = "[Resources/Bus]\nTotalAvailable=9\n";
    WriteFile(text);
    const ChildProcess::Variables variables = {{"KORLO_SETTINGS_LOCALFILE", _path}};
    ExpectResult(Run({"resource", "show", "Bus"}, "", variables), 0, "total: 9\n");
    ExpectResult(Run({"resource", "reserve", "Bus", "audio", "10"}, "", variables), 1, "",
                 AllOf(HasSubstr("note: "), HasSubstr("9 of 9 units")));
    ExpectResult(Run({"resource", "reserve", "Bus", "audio", "9"}, "", variables), 0, "", HasSubstr("note: "));
    EXPECT_EQ(ReadFile(), text);
}

TEST_F(SettingsToolResourceTargetTest, WhatRestrictedGroupsSayCountsForAReservation)
{
    const ServerProcess server({"--defaults", Write("defaults.ini", "[Resources/Bus]\nTotalAvailable=50\n"),
                                "--restricted",
                                Write("restricted.ini", "[Resources/Bus/Consumers/SecureCamera]\nCurrentlyUsed=45\n"
                                                        "[Resources/SecureBus]\nTotalAvailable=7\n"),
                                "--user", PathOf("user.ini")});
    const Arguments reserve = {"--server", "127.0.0.1:" + std::to_string(server.GetPort()), "resource", "reserve"};
    const auto reserved = [&](const std::string& resource, const std::string& amount) {
        Arguments arguments = reserve;
        arguments.insert(arguments.end(), {resource, "audio", amount});
        return Run(arguments);
    };
    ExpectResult(reserved("Bus", "6"), 1, "", HasSubstr("5 of 50 units are available to it"));
    ExpectResult(reserved("Bus", "5"), 0, "");
    ExpectResult(reserved("SecureBus", "8"), 1, "", HasSubstr("7 of 7 units are available to it"));
}

TEST_F(SettingsToolResourceTargetTest, ProcessesThatReserveAtOnceNeverExceedTheTotal)
{
    std::string settings = "[Resources/Bus]\nTotalAvailable=10\n";
    for (const std::string consumer : {"a", "b", "c", "d"})
    {
        settings += "[Resources/Bus/Consumers/" + consumer + "]\nCurrentlyUsed=0\n";
    }
    const std::string defaults = Write("defaults.ini", settings);
    const ServerProcess server({"--defaults", defaults, "--user", PathOf("user.ini")});
    const std::string address = "127.0.0.1:" + std::to_string(server.GetPort());
    std::vector<std::unique_ptr<ChildProcess>> processes;
    for (const std::string consumer : {"a", "b", "c", "d"})
    {
        processes.push_back(std::make_unique<ChildProcess>(
            Command({"--server", address, "resource", "reserve", "Bus", consumer, "4"})));
    }
    int granted = 0;
    for (const auto& pProcess : processes)
    {
        const int status = pProcess->Wait();
        granted += status == 0 ? 1 : 0;
        EXPECT_THAT(status, testing::AnyOf(0, 1)) << pProcess->GetErrors();
    }
    EXPECT_EQ(granted, 2);
}

}  // namespace
}  // namespace korlo::settings::cli
