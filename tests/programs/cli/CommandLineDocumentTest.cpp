// Runs the examples of docs/command-line.md.

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
        Write("bin/korlo-settings",
              "#!/bin/sh\nexec " + std::string(KORLO_EMULATOR) + ' ' + KORLO_SETTINGS_TOOL + " \"$@\"\n");
        std::filesystem::permissions(PathOf("bin/korlo-settings"), std::filesystem::perms(0755));
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
        std::string script = Replaced(command, DocumentedAddress, address);
        script = Replaced(script, DocumentedRules, _rules);
        script = Replaced(script, "korlo-settings access", "korlo-settings --control " + _control + " access");
        ChildProcess shell(
            {"/bin/sh", "-c", "cd \"$1\" && PATH=\"$1/bin:$PATH\" && exec 2>&1\n" + script, "sh", _folder.GetPath()});
        shell.CloseInput();
        shell.Wait();
        return Replaced(Replaced(shell.GetOutput(), address, DocumentedAddress), _rules, DocumentedRules);
    }

    static constexpr const char* DocumentedAddress = "127.0.0.1:4711";
    static constexpr const char* DocumentedRules = "/etc/korlo-settings/access.d";

    const std::string _rules = MakeRules();
    const std::string _control = PathOf("control");
    ServerProcess _server{{"--defaults", KORLO_EXAMPLES "/device.ini", "--restricted", KORLO_EXAMPLES "/restricted.ini",
                           "--user", PathOf("user.ini"), "--access", _rules, "--control", _control}};
};

TEST_F(CommandLineDocumentTest, EveryExampleShowsWhatTheToolDoes)
{
    const std::vector<ConsoleExample> examples = ReadConsoleExamples(KORLO_DOCS "/command-line.md");
    ASSERT_GT(examples.size(), 10u);
    for (const ConsoleExample& example : examples)
    {
        EXPECT_EQ(Type(example.command), example.output)
            << "docs/command-line.md, line " << example.line << ": " << example.command;
    }
}

}  // namespace
}  // namespace korlo::settings::cli
