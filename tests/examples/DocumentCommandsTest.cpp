// Runs the commands that README.md and docs/guide.md show, as one types them in the root of the tree after
// scripts/quickstart.

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/ConsoleExamples.h"
#include "support/ServerProcess.h"
#include "support/TemporaryFolder.h"

namespace korlo::examples
{
namespace
{

namespace fs = std::filesystem;

/// A folder that looks like the root of the tree after scripts/quickstart. Its programs are those of this build, and
/// speak to a server of the test where they would speak to the one at the usual port.
class DocumentCommandsTest : public testing::Test
{
protected:
    DocumentCommandsTest()
    {
        fs::create_directory_symlink(KORLO_EXAMPLES, _root.PathOf("examples"));
        fs::create_directory(_root.PathOf("tmp"));
        MakeProgram("programs/cli", "korlo-settings", KORLO_SETTINGS_TOOL);
        MakeProgram("examples", "example-follow-settings", KORLO_EXAMPLE_PROGRAMS "/example-follow-settings");
    }

    void MakeProgram(const std::string& folder, const std::string& name, const std::string& program) const
    {
        const fs::path path = fs::path(_root.PathOf("build/release")) / folder / name;
        fs::create_directories(path.parent_path());
        std::ofstream(path) << "#!/bin/sh\ncase $1 in --*) ;; *) set -- --server \"$TEST_SERVER\" \"$@\" ;; esac\nexec "
                            << KORLO_EMULATOR << ' ' << program << " \"$@\"\n";
        fs::permissions(path, fs::perms::owner_all);
    }

    std::string InTheFolder(std::string text) const
    {
        const std::string place = "/tmp/";
        const std::string replacement = _root.PathOf("tmp/");
        for (std::size_t at = text.find(place); at != std::string::npos; at = text.find(place, at + replacement.size()))
        {
            text.replace(at, place.size(), replacement);
        }
        return text;
    }

    /// The server of the document, on a free port.
    void StartServer(const std::string& options)
    {
        std::istringstream words(InTheFolder(options));
        ServerProcess::Arguments arguments;
        for (std::string word; words >> word && word != "&";)
        {
            arguments.push_back(word.starts_with("examples/") ? _root.PathOf(word) : word);
        }
        _pServer = std::make_unique<ServerProcess>(arguments);
        _server = "127.0.0.1:" + std::to_string(_pServer->GetPort());
    }

    std::vector<std::string> Shell(const std::string& command) const
    {
        return {"/bin/sh", "-c", "cd \"$1\" && " + _path + "\n" + InTheFolder(command), "sh", _root.GetPath()};
    }

    /// Leaves it running, once the server has its subscription: what changes from then on is told.
    void RunInBackground(const ConsoleExample& example)
    {
        const std::string text = "exec " + example.command.substr(0, example.command.rfind('&'));
        _pBackground = std::make_unique<ChildProcess>(Shell(text), ChildProcess::Variables{{"TEST_SERVER", _server}});
        _told = example.output;
        _pBackground->AwaitOutput(_told);
        RawClient observer(_pServer->GetPort());
        EXPECT_TRUE(Eventually([&] {
            observer.Send("info subscribed\n");
            return !observer.ReadUntil("").ends_with("-\n");
        }));
    }

    /// What the command does not print itself, the one in the background prints because of it.
    void Run(const ConsoleExample& example)
    {
        ChildProcess shell(Shell(example.command), {{"TEST_SERVER", _server}});
        shell.CloseInput();
        EXPECT_EQ(shell.Wait(), 0) << shell.GetErrors();
        const std::string output = shell.GetOutput();
        ASSERT_TRUE(example.output.starts_with(output)) << output << "instead of\n" << example.output;
        if (output != example.output)
        {
            ASSERT_TRUE(_pBackground) << output << "instead of\n" << example.output;
            _told += example.output.substr(output.size());
            _pBackground->AwaitOutput(_told);
        }
    }

    void RunAll(const std::string& document)
    {
        const std::vector<ConsoleExample> examples = ReadConsoleExamples(document);
        ASSERT_GT(examples.size(), 4u);
        for (const ConsoleExample& example : examples)
        {
            SCOPED_TRACE(document + ", line " + std::to_string(example.line) + ": " + example.command);
            const std::string server = "korlo-settings-server ";
            if (example.command.starts_with("PATH="))
            {
                _path = example.command;
            }
            else if (example.command.starts_with(server))
            {
                EXPECT_EQ(example.output, "listening on 127.0.0.1:4711\n");
                StartServer(example.command.substr(server.size()));
            }
            else
            {
                example.command.ends_with(" &") ? RunInBackground(example) : Run(example);
            }
        }
    }

    const TemporaryFolder _root;
    std::string _path;
    std::string _server;
    std::unique_ptr<ServerProcess> _pServer;
    std::unique_ptr<ChildProcess> _pBackground;
    std::string _told;  // by the one in the background, as the document shows it
};

TEST_F(DocumentCommandsTest, TheReadmeShowsWhatHappens)
{
    RunAll(KORLO_DOCS "/../README.md");
}

TEST_F(DocumentCommandsTest, TheGuideShowsWhatHappens)
{
    RunAll(KORLO_DOCS "/guide.md");
}

TEST_F(DocumentCommandsTest, TheProgramsLieWhereTheDocumentsSay)
{
    const fs::path tree = fs::path(KORLO_DOCS).parent_path();
    for (const char* script : {"scripts/quickstart", "scripts/test"})
    {
        EXPECT_NE(fs::status(tree / script).permissions() & fs::perms::owner_exec, fs::perms::none) << script;
    }
    for (const char* program : {KORLO_SETTINGS_TOOL, KORLO_SETTINGS_SERVER, KORLO_EXAMPLE_PROGRAMS "/x"})
    {
        const fs::path folder = fs::relative(fs::path(program).parent_path(), KORLO_BUILD);
        for (const char* document : {"README.md", "docs/guide.md"})
        {
            std::ifstream stream(tree / document);
            const std::string text{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
            EXPECT_THAT(text, testing::HasSubstr("$PWD/build/release/" + folder.string() + ':')) << document;
        }
    }
}

}  // namespace
}  // namespace korlo::examples
