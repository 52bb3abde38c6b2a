// Runs the examples of docs/command-line.md, docs/operating.md and the manual pages.

#include <regex>

#include "ToolFixture.h"
#include "support/ConsoleExamples.h"
#include "support/ServerProcess.h"

namespace korlo::settings::cli
{
namespace
{

class CommandLineDocumentTest : public ToolTest
{
protected:
    CommandLineDocumentTest()
    {
        std::filesystem::copy_file(KORLO_EXAMPLES "/device.ini", PathOf("device.ini"));
        std::filesystem::create_directory(PathOf("bin"));
        MakeProgram("bin/korlo-settings", KORLO_SETTINGS_TOOL);
        MakeProgram("bin/korlo-settings-server", KORLO_SETTINGS_SERVER);
    }

    void MakeProgram(const std::string& name, const std::string& path) const
    {
        Write(name, "#!/bin/sh\nexec " + std::string(KORLO_EMULATOR) + ' ' + path + " \"$@\"\n");
        std::filesystem::permissions(PathOf(name), std::filesystem::perms(0755));
    }

    static std::string Replaced(std::string text, const std::string& old, const std::string& replacement)
    {
        for (std::size_t at = text.find(old); at != std::string::npos; at = text.find(old, at + replacement.size()))
        {
            text.replace(at, old.size(), replacement);
        }
        return text;
    }

    /// A folder with the rules that are shipped. The group of programs is one that this machine has.
    std::string MakeRules() const
    {
        const std::string folder = PathOf("access.d");
        std::filesystem::create_directory(folder);
        const std::string rules = Read(KORLO_DOCS "/../packaging/access.d/10-shipped.ini");
        Write("access.d/10-shipped.ini", Replaced(rules, "group = korlo-settings", "group = root"));
        return folder;
    }

    /// Runs a line as one types it, in the folder of the test, and returns what a terminal shows. What the test's
    /// server has stands in for what the document tells of: its address, on a port that was free, its rules, its
    /// control door.
    std::string Type(const std::string& command)
    {
        const std::string address = "127.0.0.1:" + std::to_string(_server.GetPort());
        std::string script = Replaced(command, DocumentedAddress + std::string(" diff"),
                                      DocumentedAddress + (" --control " + _control) + " diff");
        script = Replaced(script, DocumentedAddress, address);
        script = Replaced(script, "/dev/tcp/127.0.0.1/4711", "/dev/tcp/127.0.0.1/" + std::to_string(_server.GetPort()));
        script = Replaced(script, DocumentedRules, _rules);
        for (const char* word : {"access", "clients", "explain", "log", "save", "status"})
        {
            const std::string tool = "korlo-settings ";
            script = Replaced(script, tool + word, tool + "--control " + _control + ' ' + word);
        }
        ChildProcess shell(
            {"/bin/sh", "-c", "cd \"$1\" && PATH=\"$1/bin:$PATH\" && exec 2>&1\n" + script, "sh", _folder.GetPath()});
        shell.CloseInput();
        shell.Wait();
        return Replaced(Replaced(shell.GetOutput(), address, DocumentedAddress), _rules, DocumentedRules);
    }

    /// What is different each time, in the form that the documents show: times, and the ports of clients.
    static std::string WithoutChance(const std::string& text)
    {
        const std::regex time(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)");
        const std::regex port(R"(127\.0\.0\.1:(?!4711\b)\d+)");
        return std::regex_replace(std::regex_replace(text, time, "2026-11-22T04:26:32.007Z"), port, "127.0.0.1:40122");
    }

    void TypeAll(const std::string& document)
    {
        for (const ConsoleExample& example : ReadConsoleExamples(document))
        {
            EXPECT_EQ(WithoutChance(Type(example.command)), WithoutChance(example.output))
                << document << ", line " << example.line << ": " << example.command;
        }
    }

    /// The command of a server in the folder of the test, where its files have short names.
    ServerProcess::WholeCommand CommandOfServer() const
    {
        std::filesystem::create_directory(PathOf("defaults.d"));
        std::filesystem::copy_file(KORLO_EXAMPLES "/device.ini", PathOf("defaults.d/10-device.ini"));
        Write("defaults.d/20-site.ini", "[Update]\ncheckEveryHours=12\n");
        std::filesystem::copy_file(KORLO_EXAMPLES "/restricted.ini", PathOf("restricted.ini"));
        const Arguments server =
            ServerProcess::Command({"--defaults", "defaults.d", "--restricted", "restricted.ini", "--user", "user.ini",
                                    "--access", _rules, "--control", _control});
        Arguments command = {"/bin/sh", "-c", "cd \"$0\" && exec \"$@\"", _folder.GetPath()};
        command.insert(command.end(), server.begin(), server.end());
        return {command};
    }

    static constexpr const char* DocumentedAddress = "127.0.0.1:4711";
    static constexpr const char* DocumentedRules = "/etc/korlo-settings/access.d";

    const std::string _rules = MakeRules();
    const std::string _control = PathOf("control");
    ServerProcess _server{CommandOfServer()};
};

TEST_F(CommandLineDocumentTest, EveryExampleShowsWhatTheToolDoes)
{
    const std::string document = KORLO_DOCS "/command-line.md";
    ASSERT_GT(ReadConsoleExamples(document).size(), 10u);
    TypeAll(document);
}

TEST_F(CommandLineDocumentTest, EveryQuestionAboutARunningDeviceIsAnsweredAsShown)
{
    const std::string document = KORLO_DOCS "/operating.md";
    ASSERT_GT(ReadConsoleExamples(document).size(), 10u);
    TypeAll(document);
}

class ManualPageExamplesTest : public CommandLineDocumentTest, public testing::WithParamInterface<const char*>
{
};

TEST_P(ManualPageExamplesTest, ShowWhatTheProgramsDo)
{
    const std::string page = KORLO_DOCS "/../man/" + std::string(GetParam()) + ".scd";
    ASSERT_GT(ReadConsoleExamples(page).size(), 0u);
    TypeAll(page);
}

INSTANTIATE_TEST_SUITE_P(Pages, ManualPageExamplesTest,
                         testing::Values("korlo-settings.1", "korlo-settings.5", "korlo-settings-access.5",
                                         "korlo-settings-protocol.7", "korlo-settings-server.8"));

}  // namespace
}  // namespace korlo::settings::cli
