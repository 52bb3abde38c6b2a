// docs/fleet.md and the manual page of the bridge say what is so.

#include <cstddef>
#include <filesystem>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "access/AccessControl.h"
#include "access/AccessRulesReader.h"
#include "fleet/ConfigurationKeys.h"
#include "korlo/osa/TcpListener.h"
#include "support/BridgeScene.h"
#include "support/ConsoleExamples.h"
#include "support/FakeUsers.h"
#include "support/Files.h"
#include "support/TemporaryFolder.h"

namespace korlo
{
namespace
{

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

const std::string DocumentPath = std::string(KORLO_TREE) + "/docs/fleet.md";
const std::string PagePath = std::string(KORLO_TREE) + "/man/korlo-settings-mqtt.8.scd";

/// A block of the document, between lines of three back quotes, that holds the text.
std::string BlockWith(const std::string& text)
{
    std::istringstream lines(ContentOf(DocumentPath).value());
    std::string block;
    bool isInside = false;
    for (std::string line; std::getline(lines, line);)
    {
        if (line.starts_with("```"))
        {
            if (isInside && block.find(text) != std::string::npos)
            {
                return block;
            }
            isInside = !isInside;
            block.clear();
        }
        else
        {
            block += line + '\n';
        }
    }
    ADD_FAILURE() << "no block has " << text;
    return {};
}

/// The cells of each row below the heading that begins so.
std::vector<std::vector<std::string>> RowsBelow(const std::string& heading)
{
    std::istringstream lines(ContentOf(DocumentPath).value());
    std::string line;
    while (std::getline(lines, line) && !line.starts_with("| " + heading))
    {
    }
    std::getline(lines, line);  // the dashes
    std::vector<std::vector<std::string>> rows;
    while (std::getline(lines, line) && line.starts_with('|'))
    {
        std::vector<std::string>& cells = rows.emplace_back();
        std::istringstream text(line.substr(1));
        for (std::string cell; std::getline(text, cell, '|');)
        {
            cells.push_back(std::regex_replace(cell, std::regex("^ *`?|`? *$"), ""));
        }
    }
    return rows;
}

/// What differs each time is made the same.
std::string Normal(const std::string& output)
{
    std::string text = std::regex_replace(output, std::regex("[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}"), "UUID");
    text = std::regex_replace(text, std::regex("\"timestamp\":[0-9]{13}"), "TIME");
    return std::regex_replace(text, std::regex("\"version\":\"[0-9.]+\""), "VERSION");
}

/// A folder that looks like the root of the tree after a build, and a port for the broker.
///
/// Thread safety: none of its own; the owner guards it.
class DocumentFolder
{
public:
    DocumentFolder()
    {
        fs::create_directory_symlink(std::string(KORLO_TREE) + "/examples", _root.PathOf("examples"));
        fs::create_directories(_root.PathOf("tmp"));
        Link("cli", KORLO_SETTINGS_TOOL);
        Link("server", KORLO_SETTINGS_SERVER);
        Link("mqtt", KORLO_SETTINGS_MQTT);
    }

    /// Runs the commands one after the other in one shell, and compares what each has printed in the end.
    void RunAll(const std::string& document)
    {
        const std::vector<ConsoleExample> examples = ReadConsoleExamples(document);
        std::string script = "cd '" + _root.GetPath() + "'\ntrap 'kill $(jobs -p) 2> /dev/null' EXIT\n";
        for (const char* tool : {"mosquitto_pub", "mosquitto_sub", "mosquitto_rr"})
        {
            script += std::string(tool) + "() { command " + tool + " -p " + _port + " \"$@\"; }\n";
        }
        for (std::size_t number = 0; number < examples.size(); ++number)
        {
            script += "exec > '" + OutputOf(number) + "' 2>&1\n" + Adapted(examples[number].command) + '\n' +
                      Waiting(examples[number], number);
        }
        ChildProcess shell({"timeout", "55", "bash", "-c", script},
                           {{"PATH", std::string(std::getenv("PATH")) +
                                         ":/usr/sbin:" + fs::path(KORLO_SETTINGS_MQTT).parent_path().string()}});
        shell.CloseInput();
        shell.Wait();
        for (std::size_t number = 0; number < examples.size(); ++number)
        {
            EXPECT_EQ(Normal(ContentOf(OutputOf(number)).value_or("it was not run\n")), Normal(examples[number].output))
                << document << ", line " << examples[number].line << ": " << examples[number].command;
        }
        EXPECT_THAT(examples, Not(IsEmpty()));
    }

private:
    void Link(const std::string& name, const std::string& program) const
    {
        const std::string folder = _root.PathOf("build/release/programs/" + name);
        fs::create_directories(folder);
        fs::create_symlink(program, folder + '/' + fs::path(program).filename().string());
    }

    std::string OutputOf(std::size_t number) const { return _root.PathOf("output-" + std::to_string(number)); }

    std::string Adapted(std::string command) const
    {
        command = std::regex_replace(command, std::regex("/tmp/"), _root.PathOf("tmp/"));
        return std::regex_replace(command, std::regex("1883"), _port);
    }

    /// Somebody who types gives a program the time to start.
    std::string Waiting(const ConsoleExample& example, std::size_t number) const
    {
        const std::string& command = example.command;
        std::string condition;
        if (command.starts_with("mosquitto "))
        {
            condition = "(exec 3<> /dev/tcp/127.0.0.1/" + _port + ") 2> /dev/null";
        }
        else if (std::smatch match;
                 std::regex_match(command, match, std::regex("korlo-settings-mqtt --config (\\w+)\\.ini .*")) &&
                 command.find('&') != std::string::npos)
        {
            condition = "mosquitto_sub -C 1 -W 1 -t korlo/1/" + match[1].str() +
                        "/status 2> /dev/null | grep -q 'settings.:true'";
        }
        else if (command.ends_with('&') && !example.output.empty())
        {
            condition = "[ -s '" + OutputOf(number) + "' ]";
        }
        return condition.empty() ? "" : "until " + condition + "; do sleep 0.05; done\n";
    }

    static std::string FreePort() { return std::to_string(osa::TcpListener("127.0.0.1", 0).GetPort()); }

    const TemporaryFolder _root;
    const std::string _port = FreePort();
};

TEST(FleetDocumentTest, TheFleetInTenMinutesWorks)
{
    DocumentFolder().RunAll(DocumentPath);
}

TEST(FleetDocumentTest, TheExampleOfTheManualPageWorks)
{
    DocumentFolder().RunAll(PagePath);
}

TEST(FleetDocumentTest, TheTableHasEveryKeyOfTheConfiguration)
{
    std::map<std::string, std::set<std::string>> keys;
    std::string group;
    for (const std::vector<std::string>& row : RowsBelow("group | key |"))
    {
        ASSERT_THAT(row, SizeIs(4));
        group = row[0].empty() ? group : row[0].substr(1, row[0].size() - 2);
        const std::string names = std::regex_replace(row[1], std::regex("[`,]"), "");
        std::istringstream text(names);
        keys[group].insert(std::istream_iterator<std::string>(text), {});
    }
    EXPECT_THAT(keys, SizeIs(5));
    for (const auto& [name, known] : keys)
    {
        EXPECT_EQ(known, fleet::KeysOf(name)) << name;
    }
}

TEST(FleetDocumentTest, TheManualPageHasEveryKeyOfTheConfiguration)
{
    const std::string page = ContentOf(PagePath).value();
    for (const char* group : {"Broker", "Device", "Settings", "Report", "Accept"})
    {
        const std::size_t begin = page.find("## [" + std::string(group) + "]\n");
        ASSERT_NE(begin, std::string::npos) << group;
        const std::string part = page.substr(begin, page.find("\n#", begin) - begin);
        std::set<std::string> keys;
        std::istringstream lines(part);
        for (std::string line; std::getline(lines, line);)
        {
            const std::regex key("\\*([a-z-]+)\\*");
            for (std::sregex_iterator match(line.begin(), line.end(), key), end; line.starts_with('*') && match != end;
                 ++match)
            {
                keys.insert((*match)[1]);
            }
        }
        EXPECT_EQ(keys, fleet::KeysOf(group)) << group;
    }
}

TEST(FleetDocumentTest, TheAccessRulesDecideAsTheTableSays)
{
    FakeUsers accounts;
    accounts.users = {{"root", 0}, {"korlo-settings-mqtt", 400}, {"display", 501}};
    accounts.groups = {{"root", 0}, {"korlo-settings", 401}, {"device-programs", 500}};
    accounts.groupsOf = {{400, {400, 401}}, {501, {501, 500, 401}}};
    const TemporaryFolder folder;
    const std::string path = folder.PathOf("rules.ini");
    WriteFile(path, BlockWith("[Access/bridge]"));
    const daemon::AccessRulesOutcome outcome = daemon::AccessRulesReader(accounts).Read({path});
    EXPECT_THAT(outcome.mistakes, IsEmpty());
    EXPECT_THAT(outcome.warnings, IsEmpty());
    daemon::AccessControl control(outcome.pRules, std::nullopt);
    const auto rows = RowsBelow("client | wants to |");
    EXPECT_THAT(rows, SizeIs(7));
    for (const std::vector<std::string>& row : rows)
    {
        ASSERT_THAT(row, SizeIs(4));
        const auto client = row[0] == "TCP" ? daemon::ClientIdentity() : daemon::IdentityOf(row[0], accounts);
        ASSERT_TRUE(client) << row[0];
        const auto kind = row[1] == "read" ? daemon::AccessKind::Read : daemon::AccessKind::Change;
        EXPECT_EQ(control.Explain(*client, kind, row[2]).isAllowed ? "yes" : "no", row[3])
            << row[0] << ' ' << row[1] << ' ' << row[2];
    }
}

/// A broker with the rules of the document, and its operator.
class FleetBrokerRulesTest : public BridgeScene
{
protected:
    FleetBrokerRulesTest()
    {
        WriteFile(PathOf("passwords"), "");
        for (const std::string user : {"panel", "gate", "operator"})
        {
            ChildProcess({"mosquitto_passwd", "-b", PathOf("passwords"), user, PasswordOf(user)}).Wait();
        }
        WriteFile(PathOf("acl"), BlockWith("pattern "));
        _broker.End();
        _broker.SetOptions("password_file " + PathOf("passwords") + "\nacl_file " + PathOf("acl") + '\n');
        _broker.Start();
        _pFleet = Connect("operator");
    }

    static std::string PasswordOf(const std::string& user) { return "secret-of-" + user; }

    std::unique_ptr<MqttClient> Connect(const std::string& user) const
    {
        return std::make_unique<MqttClient>(_broker.GetPort(), "korlo/#",
                                            MqttClient::Access{user, PasswordOf(user), ""});
    }
};

TEST_F(FleetBrokerRulesTest, AreEnoughForTheBridgeAndTheOperator)
{
    StartServer("[Audio]\nvolume=40\n");
    StartBridge(Everything, "username=panel\npassword=" + PasswordOf("panel") + '\n');
    AwaitBridge();
    Fleet().Await(Reported("Audio"), R"("volume":"40")");
    Wish("Audio", R"({"volume":"30"})", 2);
    AwaitAccepted("Audio", 2);
    Wish("Audio", R"({"volume":"20"})", 1);
    AwaitRejected("Audio", 409);
    Fleet().Await(Reported("Audio"), R"("volume":"30")");
    EXPECT_EQ(_pBridge->End(), 0);
    EXPECT_THAT(_pBridge->GetChild().GetErrors(), Not(HasSubstr("The broker refuses")));
    Fleet().Await(Status(), R"("online":false)");
}

TEST_F(FleetBrokerRulesTest, KeepADeviceOutOfTheTopicsOfOthers)
{
    constexpr int notAuthorized = 0x87;
    const std::unique_ptr<MqttClient> pStranger = Connect("gate");
    EXPECT_EQ(pStranger->Publish(Status(), "{}", MqttClient::Retained), notAuthorized);
    EXPECT_EQ(pStranger->Publish(Topic("Audio", "desired"), "{}", MqttClient::Retained), notAuthorized);
    EXPECT_EQ(pStranger->Publish(Topic("Audio", "reported"), "{}", MqttClient::Retained), notAuthorized);

    EXPECT_EQ(Connect("panel")->Publish(Status(), "{}", MqttClient::Retained), 0);
    Fleet().Await(Status());
    pStranger->LookOn(std::chrono::milliseconds(100));
    EXPECT_THAT(pStranger->GetMessages(), IsEmpty());
    // Nor may a device have wishes itself.
    EXPECT_EQ(Connect("panel")->Publish(Topic("Audio", "desired"), "{}", MqttClient::Retained), notAuthorized);
}

}  // namespace
}  // namespace korlo
